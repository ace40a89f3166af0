#include "agent/report/ExplainPrinter.h"

#include <algorithm>
#include <array>
#include <cstdio>

#include "agent/report/JsonWriter.h"
#include "agent/report/ReportText.h"

namespace Vel::Agent {

using Inspect::ChainLink;
using Inspect::Explanation;
using Inspect::LabelState;
using Inspect::Obstacle;
using Inspect::Value;

namespace {

constexpr size_t titleColumn = 4; // behind the margin that marks the blocker
constexpr size_t markWidth = 4;

Value secondsOrNothing( double seconds ) {
   return seconds == neverTime ? Value() : Value( seconds );
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

std::string headline( const Explanation& explanation ) {
   if ( !explanation.fault().empty() ) {
      return joinText( "label ", explanation.key(), ": nothing can be told: ", explanation.fault(),
                       "\n" );
   }
   std::string text = joinText( "label ", explanation.key(), ": ", explanation.state(), " at ",
                                secondsText( explanation.now() ) );
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
      text_ += padded( link.title, titleWidth_ + columnGap );
      text_ += padded( markOf( link, wanted ), markWidth + columnGap );
      text_ += blocker ? "BLOCKER: " : "";
      text_ += harmlessText( link.text );
      text_ += red ? "\033[0m\n" : "\n";
      for ( const std::string& detail : link.details ) {
         below( harmlessText( detail ) );
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
                  : "waits for " + harmlessText( obstacle.waitsFor ) ) );
   }

   void below( const std::string& line ) {
      text_ += std::string( titleColumn + titleWidth_ + columnGap + markWidth + columnGap, ' ' ) +
               line + '\n';
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

Value valueOf( const ChainLink& link, bool blocker ) {
   Value out;
   out["link"] = link.name;
   out["holds"] = link.holds;
   out["text"] = link.text;
   if ( link.degraded ) {
      out["degraded"] = true;
   }
   if ( blocker ) {
      out["blocker"] = true;
      out["sinceSeconds"] = secondsOrNothing( link.obstacle.since );
      out["tries"] = link.obstacle.tries;
      out["nextTrySeconds"] = secondsOrNothing( link.obstacle.nextTry );
      out["waitsFor"] = textOrNothing( link.obstacle.waitsFor );
   }
   if ( const auto* const facts = std::get_if< Value::Table >( &link.facts.as() ) ) {
      for ( const auto& [name, fact] : *facts ) {
         out[name] = fact;
      }
   }
   return out;
}

} // namespace

bool printText( std::ostream& out, const Explanation& explanation, const TextStyle& style ) {
   TextOut lines( out );
   lines.add( ChainText( explanation, style ).text() );
   return lines.finish();
}

bool printJson( std::ostream& out, const Explanation& explanation ) {
   const ChainLink* const blocker = explanation.blocker();
   Value made;
   addLabel( made, explanation.key() );
   if ( !explanation.fault().empty() ) {
      made["fault"] = explanation.fault();
   }
   made["state"] = stringValue( explanation.state() );
   made["atSeconds"] = explanation.now();
   made["inHardware"] = explanation.inHardware();
   made["framesLeave"] = explanation.leaves();
   made["blocker"] = blocker ? Value( blocker->name ) : Value();
   made["links"] = Value::List();
   for ( const ChainLink& link : explanation.links() ) {
      made["links"].push_back( valueOf( link, &link == blocker ) );
   }
   JsonWriter json( out );
   json.members( made );
   return json.finish();
}

} // namespace Vel::Agent
