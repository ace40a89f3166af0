#include "agent/Impact.h"

#include <algorithm>
#include <ostream>

namespace Vel::Agent {

namespace {

constexpr size_t flushBytes = size_t{ 1 } << 16;

std::string leftText( const WaysLeft& ways ) {
   return joinText( ways.left, " of ", counted( ways.of, "way", "ways" ), " left" );
}

template< class Hit >
std::string protectedText( const Hit& hit ) {
   return hit.protectedBy ? joinText( ", protected by L3 adjacency ", *hit.protectedBy ) : "";
}

template< class Hits >
size_t losingAll( const Hits& hits ) {
   return static_cast< size_t >(
      std::ranges::count_if( hits, []( const auto& hit ) { return hit.ways.none(); } ) );
}

/// Hands text on in large pieces.
class Lines {
 public:
   explicit Lines( std::ostream& out ) : out_( out ) {}
   void add( std::string_view text ) {
      text_ += text;
      if ( text_.size() >= flushBytes ) {
         hand();
      }
   }
   bool finish() {
      hand();
      out_.flush();
      return out_.good();
   }

 private:
   void hand() {
      out_ << text_;
      text_.clear();
   }

   std::ostream& out_;
   std::string text_;
};

void addLabels( Lines& lines, const Impact& impact, bool all ) {
   for ( const ImpactedLabel& hit : impact.labels() ) {
      if ( hit.ways.none() == all ) {
         const bool stops = all && !hit.protectedBy;
         lines.add( joinText( hit.label, "  ", stops ? "stops forwarding" : leftText( hit.ways ),
                              protectedText( hit ), "\n" ) );
      }
   }
}

template< class Hits, class Number >
void addHits( Lines& lines, std::string_view what, const Hits& hits, const Number& number ) {
   for ( const bool all : { true, false } ) {
      for ( const auto& hit : hits ) {
         if ( hit.ways.none() == all ) {
            lines.add( joinText( what, " ", number( hit ), "  ", leftText( hit.ways ),
                                 protectedText( hit ), "\n" ) );
         }
      }
   }
}

/// `"loseAll":[...],"loseSome":[{..., "left":1,"of":2}],"protected":[...]`.
template< class Hits, class Value >
void addJsonHits( Lines& lines, const Hits& hits, std::string_view member, const Value& value ) {
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
      if ( hit.ways.none() ) {
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
      if ( hit.protectedBy ) {
         one( hit, joinText( "{\"", member, "\":" ),
              joinText( ",\"by\":", *hit.protectedBy, "}" ) );
      }
   }
   lines.add( "]" );
}

} // namespace

bool printText( std::ostream& out, const Impact& impact, const ImpactQuestion& question ) {
   Lines lines( out );
   const size_t all = losingAll( impact.labels() );
   const size_t some = impact.labels().size() - all;
   lines.add( joinText( "if ", harmlessText( question.text ),
                        " goes: ", counted( all, "label loses", "labels lose" ), " all ways out, ",
                        counted( some, "label loses", "labels lose" ), " some\n" ) );
   addLabels( lines, impact, true );
   addLabels( lines, impact, false );
   const auto index = []( const ImpactedAdjacency& hit ) { return hit.index; };
   addHits( lines, "L3 adjacency", impact.l3Adjacencies(), index );
   addHits( lines, "L2 adjacency", impact.l2Adjacencies(), index );
   addHits( lines, "FEC", impact.fecs(), []( const ImpactedFec& hit ) { return hit.fecId; } );
   return lines.finish();
}

bool printJson( std::ostream& out, const Impact& impact, const ImpactQuestion& question ) {
   Lines lines( out );
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
   lines.add( "},\n\"fecs\":[" );
   std::string_view separator;
   for ( const ImpactedFec& hit : impact.fecs() ) {
      lines.add( joinText(
         separator, "{\"fecId\":", hit.fecId, ",\"left\":", hit.ways.left, ",\"of\":", hit.ways.of,
         hit.protectedBy ? joinText( ",\"protectedBy\":", *hit.protectedBy ) : std::string(),
         "}" ) );
      separator = ",";
   }
   lines.add( "]}\n" );
   return lines.finish();
}

} // namespace Vel::Agent
