#include "agent/report/ExplainPrinter.h"

#include <algorithm>
#include <array>
#include <cstdio>
#include <ostream>

#include <nlohmann/json.hpp>

namespace Vel::Agent {

using Inspect::ChainLink;
using Inspect::Explanation;
using Inspect::LabelState;
using Inspect::Obstacle;
using Inspect::Value;

namespace {

using Json = nlohmann::ordered_json;

constexpr size_t titleColumn = 4; // behind the margin that marks the blocker
constexpr size_t markWidth = 4;
constexpr size_t gap = 2;

Json secondsOrNull( double seconds ) {
   return seconds == neverTime ? Json() : Json( seconds );
}

/// "12.003 s": simulated microseconds say nothing to people.
std::string secondsText( double seconds ) {
   std::array< char, 40 > text{};
   const int length = std::snprintf( text.data(), text.size(), "%.3f s", seconds );
   return { text.data(), std::min( static_cast< size_t >( length ), text.size() - 1 ) };
}

std::string_view markOf( const ChainLink& link, bool wanted ) {
   if ( link.holds ) {
      return link.degraded ? "part" : "ok";
   }
   return wanted ? "NO" : "-";
}

// What would steer a terminal does not reach it: names come from outside.
std::string harmless( std::string text ) {
   for ( size_t at = 0; at < text.size(); ++at ) {
      const auto byte = static_cast< unsigned char >( text[at] );
      const bool second = at > 0 && text[at - 1] == '\xC2' && byte >= 0x80 && byte < 0xA0;
      if ( byte < 0x20 || byte == 0x7F || second ) {
         text[at] = '?';
      }
   }
   return text;
}

std::string headline( const Explanation& explanation ) {
   if ( !explanation.fault().empty() ) {
      return joinText( "label ", explanation.key(), ": nothing can be told: ", explanation.fault(),
                       "\n" );
   }
   std::string text = joinText( "label ", explanation.key(), ": ", name( explanation.state() ),
                                " at ", secondsText( explanation.now() ) );
   if ( const ChainLink* const blocker = explanation.blocker() ) {
      text += joinText( ", blocked at: ", blocker->title );
      text += explanation.leaves() ? ". The hardware still forwards with what it has" : "";
   }
   return text + "\n\n";
}

class ChainText {
 public:
   ChainText( const Explanation& explanation, const TextStyle& style )
      : explanation_( explanation ), style_( style ) {
      for ( const ChainLink& link : explanation.links() ) {
         titleWidth_ = std::max( titleWidth_, link.title.size() );
      }
   }

   std::string text() {
      text_ = headline( explanation_ );
      for ( const ChainLink& link : explanation_.links() ) {
         append( link );
      }
      return text_;
   }

 private:
   void append( const ChainLink& link ) {
      const bool blocker = &link == explanation_.blocker();
      const bool wanted = explanation_.state() != LabelState::ignored;
      const bool red = blocker && style_.colour;
      text_ += red ? "\033[31m" : "";
      text_ += padded( blocker ? "=>" : "", titleColumn );
      text_ += padded( link.title, titleWidth_ + gap );
      text_ += padded( markOf( link, wanted ), markWidth + gap );
      text_ += blocker ? "BLOCKER: " : "";
      text_ += harmless( link.text );
      text_ += red ? "\033[0m\n" : "\n";
      for ( const std::string& detail : link.details ) {
         below( harmless( detail ) );
      }
      if ( blocker ) {
         obstacle( link.obstacle );
      }
   }

   void obstacle( const Obstacle& obstacle ) {
      const double now = explanation_.now();
      below( "since  " + ( obstacle.since == neverTime
                              ? "not known"
                              : joinText( secondsText( obstacle.since ), " (",
                                          secondsText( now - obstacle.since ), " ago)" ) ) );
      below( joinText( "tried  ", obstacle.tries, obstacle.tries == 1 ? " time" : " times" ) );
      below( "next   " +
             ( obstacle.nextTry != neverTime
                  ? joinText( "at ", secondsText( obstacle.nextTry ), " (in ",
                              secondsText( std::max( obstacle.nextTry - now, 0.0 ) ), ")" )
                  : "waits for " + harmless( obstacle.waitsFor ) ) );
   }

   void below( const std::string& line ) {
      text_ += std::string( titleColumn + titleWidth_ + gap + markWidth + gap, ' ' ) + line + '\n';
   }
   static std::string padded( std::string_view text, size_t width ) {
      std::string out( text );
      out.resize( std::max( out.size(), width ), ' ' );
      return out;
   }

   const Explanation& explanation_;
   TextStyle style_;
   size_t titleWidth_ = 0;
   std::string text_;
};

Json jsonOf( const Value& value );

struct JsonOf {
   Json operator()( std::monostate ) const { return {}; }
   Json operator()( const auto& plain ) const { return plain; }
   Json operator()( const Value::List& list ) const {
      Json made = Json::array();
      for ( const Value& one : list ) {
         made.push_back( jsonOf( one ) );
      }
      return made;
   }
   Json operator()( const Value::Table& table ) const {
      Json made = Json::object();
      for ( const auto& [name, one] : table ) {
         made[std::string( name )] = jsonOf( one );
      }
      return made;
   }
};

Json jsonOf( const Value& value ) {
   return std::visit( JsonOf(), value.as() );
}

Json jsonOf( const ChainLink& link, bool blocker ) {
   Json out{ { "link", link.name }, { "holds", link.holds }, { "text", link.text } };
   if ( link.degraded ) {
      out["degraded"] = true;
   }
   if ( blocker ) {
      out["blocker"] = true;
      out["sinceSeconds"] = secondsOrNull( link.obstacle.since );
      out["tries"] = link.obstacle.tries;
      out["nextTrySeconds"] = secondsOrNull( link.obstacle.nextTry );
      out["waitsFor"] = link.obstacle.waitsFor.empty() ? Json() : Json( link.obstacle.waitsFor );
   }
   if ( const Json facts = jsonOf( link.facts ); facts.is_object() ) {
      out.update( facts );
   }
   return out;
}

bool written( std::ostream& out, const std::string& text ) {
   out << text;
   out.flush();
   return out.good();
}

} // namespace

bool printText( std::ostream& out, const Explanation& explanation, const TextStyle& style ) {
   return written( out, ChainText( explanation, style ).text() );
}

bool printJson( std::ostream& out, const Explanation& explanation ) {
   const Mpls::RouteKey key = explanation.key();
   Json made{ { "label", key.topLabel().value() } };
   if ( !key.singleLabel() ) {
      for ( size_t depth = 0; depth < Mpls::RouteKey::maxLabels && !key.label( depth ).null();
            ++depth ) {
         made["stack"].push_back( key.label( depth ).value() );
      }
   }
   const ChainLink* const blocker = explanation.blocker();
   if ( !explanation.fault().empty() ) {
      made["fault"] = explanation.fault();
   }
   made["state"] = name( explanation.state() );
   made["atSeconds"] = explanation.now();
   made["inHardware"] = explanation.inHardware();
   made["framesLeave"] = explanation.leaves();
   made["blocker"] = blocker ? Json( blocker->name ) : Json();
   made["links"] = Json::array();
   for ( const ChainLink& link : explanation.links() ) {
      made["links"].push_back( jsonOf( link, &link == blocker ) );
   }
   // A name from outside may hold bytes that are no text.
   return written( out, made.dump( -1, ' ', false, Json::error_handler_t::replace ) + '\n' );
}

} // namespace Vel::Agent
