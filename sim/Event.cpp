#include "sim/Event.h"

#include <charconv>

#include "platform/base/Text.h"

namespace Vel::Sim {

namespace {

constexpr std::array< EventShape, eventKinds > shapes{ {
   { "route",
     { "label", "type",
       "set" } }, // type 0: MPLS over IP, 1: external FEC, 2: another state machine's
   { "routeGone", { "label" } },
   { "viaSet", { "set", "form", "backup", "unusable", "stamp", "via0", "via1", "via2" } },
   { "viaSetGone", { "set" } },
   { "viaGone", { "set", "via" } },
   { "extViaSet", { "set", "fec", "backup" } },
   { "extViaSetGone", { "set" } },
   { "republish",
     { "how" } }, // 0: taken over; 1: laid out anew and whole; 2: laid out anew, not ready
   { "ready", {} },
   { "corrupt", { "word", "bit" } },
   { "away", { "on" } },              // the region, as while a publisher is stopped laying it out
   { "neighbor", { "link", "mac" } }, // mac 0: gone
   { "resolvedBy", { "link", "default" } },
   { "defaultRoute", { "allowed" } },
   { "answers", { "count" } },
   { "vrfName", { "number", "there" } },
   { "vrfNumber", { "number" } }, // 0: none
   { "routing", { "on" } },
   { "link", { "link", "up" } },
   { "extFec", { "fec", "link", "stamp" } }, // link 0: gone
   { "group", { "link", "stamp" } },
   { "tunnel", { "link", "stamp" } },
   { "capacity", { "routes", "adjacencies", "fecs" } }, // 0: no limit
   { "refuse", { "label", "on" } },
   { "notReady", { "link", "on" } },
   { "fecAnswer", { "pick" } }, // of the answers that wait
   { "driverRestart", {} },
   { "agentRestart", {} },
   { "newStateMachine", {} },
   { "staleShare", { "percent" } },
   { "approveSweep", {} },
   { "reprogram", {} },
   { "clog", { "on" } },
   { "poll", { "changes" } },
   { "run", { "tasks" } },
   { "time", { "micros" } },
   { "mend", {} },
   { "rest", {} },
   { "clear", {} },
} };

std::string_view wordOf( std::string_view& line ) {
   const size_t begin = std::min( line.find_first_not_of( " \t\r" ), line.size() );
   const size_t end = std::min( line.find_first_of( " \t\r", begin ), line.size() );
   const std::string_view word = line.substr( begin, end - begin );
   line.remove_prefix( end );
   return word;
}

std::optional< U32 > numberOf( std::string_view text ) {
   U32 value = 0;
   const auto [end, fault] = std::from_chars( text.data(), text.data() + text.size(), value );
   return fault == std::errc() && end == text.data() + text.size() && !text.empty()
             ? std::optional( value )
             : std::nullopt;
}

/// Reads "name=number" words; says what is wrong, or nothing.
std::string numbersParse( std::string_view rest, Event& event ) {
   const EventShape& shape = shapeOf( event.kind );
   for ( std::string_view word = wordOf( rest ); !word.empty(); word = wordOf( rest ) ) {
      const size_t equals = std::min( word.find( '=' ), word.size() );
      const std::string_view name = word.substr( 0, equals );
      const auto number = numberOf( word.substr( std::min( equals + 1, word.size() ) ) );
      size_t at = 0;
      while ( at < shape.names.size() && ( name.empty() || shape.names[at] != name ) ) {
         ++at;
      }
      if ( at == shape.names.size() || !number ) {
         return joinText( "\"", word, "\" is no number of ", shape.word );
      }
      event.number[at] = *number;
   }
   return {};
}

/// True when the line is a setting.
bool settingParse( std::string_view name, std::string_view rest, Settings& settings,
                   std::string& why ) {
   for ( const SettingName& known : settingNames ) {
      if ( known.name == name ) {
         const std::optional< U32 > value = numberOf( wordOf( rest ) );
         if ( !value || *value > known.max || !wordOf( rest ).empty() ) {
            why = joinText( name, " takes a number up to ", known.max );
         } else {
            settings.*known.member = *value;
         }
         return true;
      }
   }
   return false;
}

bool eventParse( std::string_view name, std::string_view rest, Events& events, std::string& why ) {
   for ( size_t kind = 0; kind < eventKinds; ++kind ) {
      if ( shapes[kind].word == name ) {
         Event event{ static_cast< EventKind >( kind ), {} };
         why = numbersParse( rest, event );
         events.push_back( event );
         return true;
      }
   }
   return false;
}

} // namespace

const EventShape& shapeOf( EventKind kind ) {
   return shapes[static_cast< size_t >( kind )];
}

void appendText( std::string& out, const Event& event ) {
   const EventShape& shape = shapeOf( event.kind );
   out += shape.word;
   for ( size_t i = 0; i < event.number.size(); ++i ) {
      if ( event.number[i] != 0 ) {
         out += joinText( " ", shape.names[i], "=", event.number[i] );
      }
   }
}

std::string textOf( const Scenario& scenario ) {
   std::string text;
   for ( const SettingName& setting : settingNames ) {
      text += joinText( setting.name, " ", scenario.settings.*setting.member, "\n" );
   }
   for ( const Event& event : scenario.events ) {
      appendText( text, event );
      text += '\n';
   }
   return text;
}

std::optional< Scenario > scenarioParse( std::string_view text, std::string& why ) {
   Scenario scenario;
   for ( size_t line = 1; !text.empty(); ++line ) {
      const size_t end = std::min( text.find( '\n' ), text.size() );
      std::string_view rest = text.substr( 0, end );
      text.remove_prefix( std::min( end + 1, text.size() ) );
      const std::string_view name = wordOf( rest );
      if ( name.empty() || name.front() == '#' ) {
         continue;
      }
      why.clear();
      if ( !settingParse( name, rest, scenario.settings, why ) &&
           !eventParse( name, rest, scenario.events, why ) ) {
         why = joinText( "\"", name, "\" is neither a setting nor an event" );
      }
      if ( !why.empty() ) {
         why = joinText( "line ", line, ": ", why );
         return std::nullopt;
      }
   }
   return scenario;
}

} // namespace Vel::Sim
