#include "agent/report/ImpactPrinter.h"

#include <algorithm>
#include <array>
#include <ostream>

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

/// Who loses all, who changes over, who loses some: in this order.
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

std::string jsonStandby( U64 l3Adjacency ) {
   return textOf( l3Adjacency );
}
std::string jsonStandby( Fib::FecId fecId ) {
   return jsonText( fecIdText( fecId ) );
}

/// `"loseAll":[...],"loseSome":[{..., "left":1,"of":2}],"protected":[{..., "by":7}]`, each hit in
/// one of the three.
template< class Hits, class Value >
void addJsonHits( TextOut& lines, const Hits& hits, std::string_view member, const Value& value ) {
   std::string_view separator;
   const auto one = [&]( const auto& hit, std::string_view before, std::string_view after ) {
      std::string text( separator );
      text += before;
      value( text, hit );
      text += after;
      lines.add( text );
      separator = ",";
   };
   lines.add( "\"loseAll\":[" );
   for ( const auto& hit : hits ) {
      if ( losesAll( hit ) ) {
         one( hit, "", "" );
      }
   }
   lines.add( "],\"loseSome\":[" );
   separator = "";
   for ( const auto& hit : hits ) {
      if ( !hit.ways.none() ) {
         one( hit, joinText( "{\"", member, "\":" ),
              joinText( ",\"left\":", hit.ways.left, ",\"of\":", hit.ways.of, "}" ) );
      }
   }
   lines.add( "],\"protected\":[" );
   separator = "";
   for ( const auto& hit : hits ) {
      if ( changesOver( hit ) ) {
         one( hit, joinText( "{\"", member, "\":" ),
              joinText( ",\"by\":", jsonStandby( *hit.protectedBy ), "}" ) );
      }
   }
   lines.add( "]" );
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
   TextOut lines( out );
   const auto textOrNull = []( const std::string& text ) {
      return text.empty() ? std::string( "null" ) : jsonText( text );
   };
   lines.add( joinText( "{\"nextHop\":", textOrNull( question.nextHop ),
                        ",\"interface\":", textOrNull( question.interface ), ",\n" ) );
   addJsonHits( lines, impact.labels(), "label", []( std::string& text, const ImpactedLabel& hit ) {
      appendJsonKey( text, hit.label );
   } );
   const auto index = []( std::string& text, const ImpactedAdjacency& hit ) {
      appendText( text, hit.index );
   };
   lines.add( ",\n\"l3Adjacencies\":{" );
   addJsonHits( lines, impact.l3Adjacencies(), "index", index );
   lines.add( "},\n\"l2Adjacencies\":{" );
   addJsonHits( lines, impact.l2Adjacencies(), "index", index );
   lines.add( "},\n\"fecs\":{" );
   addJsonHits( lines, impact.fecs(), "fec", []( std::string& text, const ImpactedFec& hit ) {
      text += jsonText( fecIdText( hit.fecId ) );
   } );
   lines.add( "},\n\"foreign\":[" );
   std::string_view separator;
   for ( const ForeignWay& way : impact.foreign() ) {
      lines.add( joinText( separator, "{\"fec\":", jsonText( fecIdText( way.fecId ) ),
                           ",\"labels\":", way.labels, "}" ) );
      separator = ",";
   }
   lines.add( joinText( "],\"tunnelLabels\":", impact.tunnelLabels(), "}\n" ) );
   return lines.finish();
}

} // namespace Vel::Agent
