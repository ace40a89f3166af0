#include "agent/report/ResultPrinter.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdlib>
#include <ostream>
#include <string_view>

#include <sys/ioctl.h>
#include <unistd.h>

#include "agent/import/ImportChecks.h"
#include "agent/report/JsonWriter.h"
#include "agent/report/Metrics.h"
#include "agent/report/ReportText.h"
#include "inspect/Words.h"

namespace Vel::Agent {

using Inspect::counted;
using Inspect::LabelState;
using Inspect::Value;

namespace {

/// Where a via leaves: the interface of the LFIB, else the first one it resolved to.
const std::string& exitInterface( const ResultVia& via ) {
   return via.interface.empty() && via.resolved() ? via.exits.front().interface : via.interface;
}

// --- JSON.

Value exitValue( const ResultExit& exit ) {
   Value out;
   out["interface"] = exit.interface;
   out["vlan"] = exit.vlan;
   out["mac"] = exit.mac.text();
   return out;
}

template< class T, class F >
Value listOf( const std::vector< T >& all, const F& valueOf ) {
   Value::List list;
   for ( const T& one : all ) {
      list.push_back( valueOf( one ) );
   }
   return list;
}

Value viaValue( const ResultVia& via ) {
   Value out;
   out["action"] = stringValue( via.action );
   out["outLabels"] = Value::List( via.outLabels.begin(), via.outLabels.end() );
   out["nextHop"] = textOrNothing( via.nextHop.text() );
   out["interface"] = textOrNothing( exitInterface( via ) );
   out["vlan"] = via.resolved() ? via.exits.front().vlan : Bridging::VlanId{ 0 };
   out["mac"] = via.resolved() ? Value( via.exits.front().mac.text() ) : Value();
   out["resolved"] = via.resolved();
   if ( via.exits.size() > 1 ) {
      out["exits"] = listOf( via.exits, exitValue );
   }
   if ( via.into ) {
      out[stringValue( *via.into )] = via.name;
   }
   if ( via.fec != Fib::FecId() ) {
      out["fec"] = Inspect::fecIdText( via.fec );
   }
   return out;
}

Value routeValue( const ResultRoute& route ) {
   Value out;
   addLabel( out, route.key );
   out["state"] = stringValue( route.state );
   if ( route.state != LabelState::programmed ) {
      out["reason"] = route.reason;
   }
   if ( route.l3Adjacency ) {
      out["l3Adjacency"] = *route.l3Adjacency;
   }
   if ( route.l2Adjacency ) {
      out["l2Adjacency"] = *route.l2Adjacency;
   }
   out["vias"] = listOf( route.vias, viaValue );
   if ( !route.backup.empty() ) {
      out["backup"] = listOf( route.backup, viaValue );
   }
   if ( !route.usableAsPrimaryVias ) {
      out["usableAsPrimaryVias"] = false;
   }
   return out;
}

/// Whole seconds without a decimal point.
Value secondsValue( double seconds ) {
   return seconds == std::floor( seconds ) ? Value( static_cast< U64 >( seconds ) )
                                           : Value( seconds );
}

Value stageValue( const ResultStartup::Stage& stage ) {
   Value out;
   out["stage"] = stage.name;
   out["seconds"] = secondsValue( stage.seconds );
   return out;
}

Value startupValue( const ResultStartup& startup ) {
   Value out;
   out["stages"] = listOf( startup.stages, stageValue );
   out["adopted"] = startup.adopted;
   out["changed"] = startup.changed;
   out["added"] = startup.added;
   out["stale"] = startup.stale;
   if ( !startup.held.empty() ) {
      out["held"] = listOf( startup.held, keyValue );
   }
   return out;
}

std::string startupText( const ResultStartup& startup ) {
   std::string text =
      joinText( "start: ", startup.adopted, " adopted, ", startup.changed, " changed, ",
                startup.added, " added, ", startup.stale, " removed\n" );
   if ( !startup.held.empty() ) {
      text += joinText( "stale and not removed: ", startup.held.size(), "\n" );
      for ( const Mpls::RouteKey key : startup.held ) {
         text += joinText( "   ", key, "\n" );
      }
   }
   return text;
}

} // namespace

bool printJson( std::ostream& out, const ProgramResult& result, bool startup,
                const ResultFilter& filter ) {
   JsonWriter json( out );
   const ResultSummary& sum = result.summary();
   json.beginObject( "summary" );
   json.member( "routes", sum.routes );
   for ( const auto state : statesOfRoutes ) {
      json.member( stringValue( state ), sum.of( state ) );
   }
   json.member( "l3Adjacencies", sum.l3Adjacencies );
   json.member( "l2Adjacencies", sum.l2Adjacencies );
   json.end();
   json.newLine();
   json.beginObject( "counters" );
   for ( const CounterName& counter : counterNames() ) {
      json.member( counter.name, ( result.counters().*counter.value )() );
   }
   json.end();
   if ( startup ) {
      json.newLine();
      json.member( "startup", startupValue( result.startup() ) );
   }
   json.newLine();
   json.beginList( "routes" );
   ResultRoute route;
   for ( size_t i = 0; i < result.routes() && out.good(); ++i ) {
      if ( filter.shows( result, i ) ) {
         result.read( i, route );
         json.newLine();
         json.element( routeValue( route ) );
      }
   }
   json.newLine();
   return json.finish();
}

// --- Text.

namespace {

enum Column : size_t { label, state, l3Adj, l2Adj, action, out, nextHop, intf, vlan, mac, columns };

constexpr std::array< std::string_view, columns > titles{
   "LABEL", "STATE", "L3ADJ", "L2ADJ", "ACTION", "OUT", "NEXT-HOP", "INTERFACE", "VLAN", "MAC" };
// Left out in this order when the terminal is narrow.
constexpr std::array< Column, 5 > dispensable{ l3Adj, l2Adj, vlan, mac, action };

using Row = std::array< std::string, columns >;

// Characters, not bytes.
size_t widthOf( std::string_view text ) {
   return static_cast< size_t >( std::ranges::count_if(
      text, []( char c ) { return ( static_cast< unsigned char >( c ) & 0xC0 ) != 0x80; } ) );
}

std::string textOrDash( std::string text ) {
   return text.empty() ? "-" : harmlessText( std::move( text ) );
}

std::string textOrDash( const std::optional< U64 >& number ) {
   return number ? textOf( *number ) : "-";
}

void viaCells( const ResultVia& via, Row& row ) {
   row[action] = textOf( via.action );
   row[out] = textOrDash( stackText( via.outLabels ) );
   row[nextHop] =
      textOrDash( via.into ? joinText( nounOf( *via.into ), " ", via.name ) : via.nextHop.text() );
   row[intf] = textOrDash( exitInterface( via ) );
   if ( via.resolved() ) {
      const ResultExit& exit = via.exits.front();
      row[vlan] = exit.vlan == 0 ? "-" : textOf( exit.vlan );
      row[mac] = exit.mac.text();
      if ( via.exits.size() > 1 ) {
         row[mac] += joinText( " and ", via.exits.size() - 1, " more" );
      }
   } else {
      row[vlan] = "-";
      row[mac] = "unresolved";
   }
}

/// The rows of a route: its own columns stand in the first one only, backup vias come last.
void routeRows( const ResultRoute& route, std::vector< Row >& rows ) {
   const size_t primary = std::max< size_t >( route.vias.size(), 1 );
   rows.assign( primary + route.backup.size(), Row() );
   rows[0][label] = textOf( route.key );
   rows[0][state] = stringValue( route.state );
   rows[0][l3Adj] = textOrDash( route.l3Adjacency );
   rows[0][l2Adj] = textOrDash( route.l2Adjacency );
   for ( size_t i = 0; i < route.vias.size(); ++i ) {
      viaCells( route.vias[i], rows[i] );
   }
   for ( size_t i = 0; i < route.backup.size(); ++i ) {
      rows[primary + i][state] = "  backup";
      viaCells( route.backup[i], rows[primary + i] );
   }
}

std::string_view colourOf( LabelState of ) {
   switch ( of ) {
   case LabelState::programmed:
      return "\033[32m";
   case LabelState::partiallyProgrammed:
      return "\033[33m";
   case LabelState::unprogrammed:
      return "\033[31m";
   case LabelState::ignored:
   case LabelState::absent:
      break;
   }
   return "\033[2m";
}

class TextTable {
 public:
   TextTable( const ProgramResult& result, const TextStyle& style, const ResultFilter& filter )
      : style_( style ) {
      for ( size_t column = 0; column < columns; ++column ) {
         width_[column] = titles[column].size();
      }
      ResultRoute route;
      for ( size_t i = 0; i < result.routes(); ++i ) {
         if ( !filter.shows( result, i ) ) {
            continue;
         }
         result.read( i, route );
         routeRows( route, rows_ );
         for ( const Row& row : rows_ ) {
            for ( size_t column = 0; column < columns; ++column ) {
               width_[column] = std::max( width_[column], widthOf( row[column] ) );
            }
         }
      }
      shown_.fill( true );
      for ( const Column column : dispensable ) {
         if ( style.columns == 0 || total() <= style.columns ) {
            break;
         }
         shown_[column] = false;
      }
   }

   void appendTitles( std::string& text ) const {
      Row row;
      std::ranges::copy( titles, row.begin() );
      appendRow( text, row, "" );
   }

   void append( std::string& text, const ResultRoute& route ) {
      routeRows( route, rows_ );
      for ( const Row& row : rows_ ) {
         appendRow( text, row, style_.colour ? colourOf( route.state ) : "" );
      }
      if ( !route.reason.empty() ) {
         text +=
            std::string( width_[label] + columnGap, ' ' ) + harmlessText( route.reason ) + '\n';
      }
   }

 private:
   size_t total() const {
      size_t sum = 0;
      for ( size_t column = 0; column < columns; ++column ) {
         sum += shown_[column] ? width_[column] + ( sum == 0 ? 0 : columnGap ) : 0;
      }
      return sum;
   }

   void appendRow( std::string& text, const Row& row, std::string_view colour ) const {
      size_t blanks = 0;
      for ( size_t column = 0; column < columns; ++column ) {
         if ( !shown_[column] ) {
            continue;
         }
         const bool coloured = column == state && !colour.empty() && !row[column].empty();
         if ( !row[column].empty() ) {
            text.append( blanks, ' ' );
            blanks = 0;
            text += coloured ? colour : "";
            text += row[column];
            text += coloured ? "\033[0m" : "";
         }
         blanks += width_[column] - widthOf( row[column] ) + columnGap;
      }
      text += '\n';
   }

   TextStyle style_;
   std::array< size_t, columns > width_{};
   std::array< bool, columns > shown_{};
   std::vector< Row > rows_;
};

} // namespace

bool ResultFilter::shows( const ProgramResult& result, size_t i ) const {
   return ( labels.empty() || std::ranges::find( labels, result.key( i ) ) != labels.end() ) &&
          ( states.empty() || std::ranges::find( states, result.state( i ) ) != states.end() );
}

TextStyle TextStyle::ofStandardOutput() {
   TextStyle style;
   if ( isatty( STDOUT_FILENO ) == 0 ) {
      return style;
   }
   winsize size{};
   if ( ioctl( STDOUT_FILENO, TIOCGWINSZ, &size ) == 0 ) { // NOLINT: the system's interface
      style.columns = size.ws_col;
   }
   const char* const noColour = std::getenv( "NO_COLOR" ); // NOLINT: one thread
   const char* const terminal = std::getenv( "TERM" );     // NOLINT: one thread
   style.colour = ( noColour == nullptr || *noColour == '\0' ) && terminal != nullptr &&
                  std::string_view( terminal ) != "dumb";
   return style;
}

bool printText( std::ostream& out, const ProgramResult& result, const TextStyle& style,
                bool startup, const ResultFilter& filter ) {
   TextOut writer( out );
   std::string& text = writer.text();
   if ( result.routes() != 0 ) {
      TextTable table( result, style, filter );
      table.appendTitles( text );
      ResultRoute route;
      for ( size_t i = 0; i < result.routes() && out.good(); ++i ) {
         if ( filter.shows( result, i ) ) {
            result.read( i, route );
            table.append( text, route );
            writer.lineDone();
         }
      }
      text += '\n';
   }
   const ResultSummary& sum = result.summary();
   text += joinText(
      counted( sum.routes, "route", "routes" ), ": ", sum.of( LabelState::programmed ),
      " programmed, ", sum.of( LabelState::partiallyProgrammed ), " partially programmed, ",
      sum.of( LabelState::unprogrammed ), " unprogrammed, ", sum.of( LabelState::ignored ),
      " ignored; ", counted( sum.l3Adjacencies, "L3 adjacency", "L3 adjacencies" ), ", ",
      counted( sum.l2Adjacencies, "L2 adjacency", "L2 adjacencies" ), "\n" );
   if ( startup ) {
      text += startupText( result.startup() );
   }
   return writer.finish();
}

} // namespace Vel::Agent
