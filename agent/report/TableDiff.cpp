#include "agent/report/TableDiff.h"

#include <map>

#include "agent/import/ImportChecks.h"
#include "agent/report/JsonWriter.h"
#include "agent/report/ReportText.h"
#include "inspect/Words.h"
#include "platform/base/Text.h"

namespace Vel::Agent {

namespace {

std::string viaText( const LabelVia& via ) {
   std::string text = textOf( via.action );
   if ( !via.outLabels.empty() ) {
      text += " " + stackText( via.outLabels );
   }
   if ( via.action == LabelOperation::pop ) {
      text += joinText( " ", via.payload, " ", via.ttlMode );
   }
   if ( !via.nextHop.empty() ) {
      text += " to " + via.nextHop;
   }
   if ( !via.interface.empty() ) {
      text += via.outlet == LabelOutlet::interface      ? " on "
              : via.outlet == LabelOutlet::nextHopGroup ? " into next-hop group "
                                                        : " into tunnel ";
      text += via.interface;
   }
   return text;
}

std::string viasText( const std::vector< LabelVia >& vias ) {
   std::string text;
   for ( const LabelVia& via : vias ) {
      text += ( text.empty() ? "" : ", " ) + viaText( via );
   }
   return text;
}

std::string routeText( const LabelRoute& route ) {
   if ( route.ignored() ) {
      return "ignored: " + route.ignoredReason;
   }
   std::string text =
      route.externalFec.empty() ? viasText( route.vias ) : "into external FEC " + route.externalFec;
   if ( !route.backupVias.empty() ) {
      text += "; backup " + viasText( route.backupVias );
   }
   return text + ( route.usableAsPrimaryVias ? "" : "; its own vias are disabled" );
}

} // namespace

std::vector< TableDifference > differencesOf( const LabelTable& before, const LabelTable& after ) {
   std::vector< TableDifference > found;
   const auto compare = [&]( const auto& one, const auto& other, const auto& keyOf,
                             const auto& nameOf, const auto& textOf ) {
      using Key = std::decay_t< decltype( keyOf( one.front() ) ) >;
      std::map< Key, TableDifference > said;
      for ( const auto& it : one ) {
         said[keyOf( it )] = { nameOf( it ), textOf( it ), {} };
      }
      for ( const auto& it : other ) {
         TableDifference& both = said[keyOf( it )];
         both.what = nameOf( it );
         both.after = textOf( it );
      }
      for ( auto& [key, both] : said ) {
         if ( both.before != both.after ) {
            found.push_back( std::move( both ) );
         }
      }
   };
   compare(
      before.routes, after.routes, []( const LabelRoute& route ) { return route.stack; },
      []( const LabelRoute& route ) { return stackText( route.stack ); }, routeText );
   compare(
      before.foreignFecs, after.foreignFecs,
      []( const ForeignFec& fec ) { return std::pair( fec.kind, fec.name ); },
      []( const ForeignFec& fec ) { return joinText( nounOf( fec.kind ), " ", fec.name ); },
      []( const ForeignFec& fec ) { return viasText( fec.vias ); } );
   return found;
}

bool printText( std::ostream& out, const std::vector< TableDifference >& differences ) {
   TextOut lines( out );
   for ( const TableDifference& one : differences ) {
      for ( const auto& [mark, text] :
            { std::pair( "- ", &one.before ), std::pair( "+ ", &one.after ) } ) {
         if ( !text->empty() ) {
            lines.add(
               joinText( mark, harmlessText( one.what ), "  ", harmlessText( *text ), "\n" ) );
         }
      }
   }
   lines.add( Inspect::counted( differences.size(), "difference", "differences" ) + "\n" );
   return lines.finish();
}

bool printJson( std::ostream& out, const std::vector< TableDifference >& differences ) {
   JsonWriter json( out );
   json.beginList( "differences" );
   for ( const TableDifference& one : differences ) {
      Inspect::Value record;
      record["what"] = one.what;
      record["before"] = textOrNothing( one.before );
      record["after"] = textOrNothing( one.after );
      json.newLine();
      json.element( record );
   }
   json.newLine();
   return json.finish();
}

} // namespace Vel::Agent
