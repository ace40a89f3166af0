#include "agent/report/ImpactPrinter.h"

#include <algorithm>
#include <array>

#include "agent/report/JsonWriter.h"
#include "agent/report/ReportText.h"
#include "inspect/Words.h"

namespace Vel::Agent {

using Inspect::counted;
using Inspect::fecIdText;
using Inspect::ForeignWay;
using Inspect::Impact;
using Inspect::ImpactedAdjacency;
using Inspect::ImpactedFec;
using Inspect::ImpactedLabel;
using Inspect::Value;
using Inspect::WaysLeft;

namespace {

std::string leftText( const WaysLeft& ways ) {
   return joinText( ways.left, " of ", counted( ways.of, "way", "ways" ), " left" );
}

/// What takes over, or stands by: "L3 adjacency 7", "FEC 10:3".
std::string standby( U64 l3Adjacency ) {
   return joinText( "L3 adjacency ", l3Adjacency );
}
std::string standby( Fib::FecId fecId ) {
   return "FEC " + fecIdText( fecId );
}

template< class Hit >
std::string fateText( const Hit& hit ) {
   if ( changesOver( hit ) ) {
      return "moves to its backup, " + standby( *hit.protectedBy );
   }
   return leftText( hit.ways ) +
          ( hit.protectedBy ? ", protected by " + standby( *hit.protectedBy ) : "" );
}

/// The order of the report.
enum class Fate : uint8_t { losesAll, changesOver, losesSome };
constexpr std::array fates{ Fate::losesAll, Fate::changesOver, Fate::losesSome };

template< class Hit >
Fate fateOf( const Hit& hit ) {
   return losesAll( hit )      ? Fate::losesAll
          : changesOver( hit ) ? Fate::changesOver
                               : Fate::losesSome;
}

template< class Hits >
size_t countOf( const Hits& hits, Fate fate ) {
   return static_cast< size_t >(
      std::ranges::count_if( hits, [fate]( const auto& hit ) { return fateOf( hit ) == fate; } ) );
}

void addLabels( TextOut& lines, const Impact& impact ) {
   for ( const Fate fate : fates ) {
      for ( const ImpactedLabel& hit : impact.labels() ) {
         if ( fateOf( hit ) == fate ) {
            lines.add( joinText( hit.label, "  ",
                                 fate == Fate::losesAll ? "stops forwarding" : fateText( hit ),
                                 hit.onBackup ? ", is on its backup now\n" : "\n" ) );
         }
      }
   }
}

template< class Hits, class Number >
void addHits( TextOut& lines, std::string_view what, const Hits& hits, const Number& number ) {
   for ( const Fate fate : fates ) {
      for ( const auto& hit : hits ) {
         if ( fateOf( hit ) == fate ) {
            lines.add( joinText( what, " ", number( hit ), "  ", fateText( hit ), "\n" ) );
         }
      }
   }
}

void addForeign( TextOut& lines, const Impact& impact ) {
   for ( const ForeignWay& way : impact.foreign() ) {
      lines.add( joinText( counted( way.labels, "label leaves", "labels leave" ), " through FEC ",
                           fecIdText( way.fecId ), " of another agent: taken for untouched\n" ) );
   }
   if ( impact.tunnelLabels() != 0 ) {
      lines.add( counted( impact.tunnelLabels(), "label leaves", "labels leave" ) +
                 " through tunnels: taken for untouched\n" );
   }
}

Value valueOf( U64 number ) {
   return number;
}
Value valueOf( Mpls::RouteKey label ) {
   return keyValue( label );
}
Value valueOf( Fib::FecId fecId ) {
   return fecIdText( fecId );
}

/// `"loseAll":[...],"loseSome":[{..., "left":1,"of":2}],"protected":[{..., "by":7}]`, each hit in
/// one of the three, under the name and with the value of what identifies it.
template< class Hit, class Id >
void addJsonHits( JsonWriter& json, const std::vector< Hit >& hits, std::string_view name,
                  Id Hit::*id ) {
   json.beginList( "loseAll" );
   for ( const Hit& hit : hits ) {
      if ( losesAll( hit ) ) {
         json.element( valueOf( hit.*id ) );
      }
   }
   json.end();
   json.beginList( "loseSome" );
   for ( const Hit& hit : hits ) {
      if ( !hit.ways.none() ) {
         Value record;
         record[name] = valueOf( hit.*id );
         record["left"] = hit.ways.left;
         record["of"] = hit.ways.of;
         json.element( record );
      }
   }
   json.end();
   json.beginList( "protected" );
   for ( const Hit& hit : hits ) {
      if ( changesOver( hit ) ) {
         Value record;
         record[name] = valueOf( hit.*id );
         record["by"] = valueOf( *hit.protectedBy );
         json.element( record );
      }
   }
   json.end();
}

} // namespace

bool printText( std::ostream& out, const Impact& impact, const ImpactQuestion& question ) {
   TextOut lines( out );
   const size_t all = countOf( impact.labels(), Fate::losesAll );
   const size_t moving = countOf( impact.labels(), Fate::changesOver );
   const size_t some = countOf( impact.labels(), Fate::losesSome );
   lines.add( joinText(
      "if ", harmlessText( question.text ), " goes: ", counted( all, "label loses", "labels lose" ),
      " all ways out, ",
      moving == 0 ? ""
                  : counted( moving, "label moves to its backup, ", "labels move to a backup, " ),
      counted( some, "label loses", "labels lose" ), " some\n" ) );
   addLabels( lines, impact );
   const auto index = []( const ImpactedAdjacency& hit ) { return hit.index; };
   addHits( lines, "L3 adjacency", impact.l3Adjacencies(), index );
   addHits( lines, "L2 adjacency", impact.l2Adjacencies(), index );
   addHits( lines, "FEC", impact.fecs(),
            []( const ImpactedFec& hit ) { return fecIdText( hit.fecId ); } );
   addForeign( lines, impact );
   return lines.finish();
}

bool printJson( std::ostream& out, const Impact& impact, const ImpactQuestion& question ) {
   JsonWriter json( out );
   json.member( "nextHop", textOrNothing( question.nextHop ) );
   json.member( "interface", textOrNothing( question.interface ) );
   json.newLine();
   addJsonHits( json, impact.labels(), "label", &ImpactedLabel::label );
   json.newLine();
   json.beginObject( "l3Adjacencies" );
   addJsonHits( json, impact.l3Adjacencies(), "index", &ImpactedAdjacency::index );
   json.end();
   json.newLine();
   json.beginObject( "l2Adjacencies" );
   addJsonHits( json, impact.l2Adjacencies(), "index", &ImpactedAdjacency::index );
   json.end();
   json.newLine();
   json.beginObject( "fecs" );
   addJsonHits( json, impact.fecs(), "fec", &ImpactedFec::fecId );
   json.end();
   json.newLine();
   json.beginList( "foreign" );
   for ( const ForeignWay& way : impact.foreign() ) {
      Value record;
      record["fec"] = fecIdText( way.fecId );
      record["labels"] = way.labels;
      json.element( record );
   }
   json.end();
   json.member( "tunnelLabels", impact.tunnelLabels() );
   return json.finish();
}

} // namespace Vel::Agent
