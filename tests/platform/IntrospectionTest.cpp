#include "platform/entity/Introspection.h"

#include <limits>
#include <string>

#include <gtest/gtest.h>

#include "platform/entity/Entity.h"
#include "platform/values/LfibTypes.h"

namespace VelTest {
namespace {

using Mpls::LfibViaSetKey;
using Mpls::RouteKey;
using Vel::MplsLabel;
using Vel::Ptr;
using Vel::U32;

class Adjacency : public Vel::Entity {
   VEL_ENTITY( Adjacency )
   VEL_KEY( LfibViaSetKey, key )
   VEL_ATTRIBUTE( double, load )
   VEL_ATTRIBUTE( std::string, note )
   VEL_SET( LabelSet, RouteKey, user )
   VEL_ENTITY_COLLECTION( Hash, LfibViaSetKey, Self_, backup )
   VEL_ENTITY_END
 public:
   explicit Adjacency( LfibViaSetKey key ) : key_( key ) {}
};

class Vrf : public Vel::Entity {
   VEL_ENTITY( Vrf )
   VEL_KEY( U32, vrfId )
   VEL_ATTRIBUTE( bool, routing )
   VEL_ATTRIBUTE( int64_t, offset )
   VEL_ATTRIBUTE( Ptr< Adjacency >, drop )
   VEL_COUNTER( changes )
   VEL_COLLECTION( LabelIndexed, RouteKey, U32, version )
   VEL_ENTITY_COLLECTION( Hash, LfibViaSetKey, Adjacency, adjacency )
   VEL_ENTITY_COLLECTION( Hash, RouteKey, Self_, below )
   VEL_ENTITY_END
 public:
   explicit Vrf( U32 vrfId ) : vrfId_( vrfId ) {}
   explicit Vrf( RouteKey key ) : vrfId_( key.topLabel().value() ) {}
};

const LfibViaSetKey ldp( Mpls::LfibSource::ldp, Mpls::viaTypeMplsIp, 7 );
const LfibViaSetKey isis( Mpls::LfibSource::isisSr, Mpls::viaTypeMplsIp, 12,
                          Mpls::LfibViaSetType::multicast );

Ptr< Vrf > smallTree() {
   auto vrf = Vel::make< Vrf >( 3U );
   vrf->routingIs( true );
   vrf->offsetIs( -5 );
   vrf->changesInc( 2 );
   vrf->versionIs( RouteKey( 16 ), 1 );
   vrf->versionIs( RouteKey( 16040 ), 2 );
   vrf->versionIs( { MplsLabel( 16 ), MplsLabel( 17 ) }, 3 );
   Adjacency* const first = vrf->adjacencyIs( ldp );
   first->loadIs( 0.5 );
   first->noteIs( "to \"core\"" );
   first->userIs( RouteKey( 16 ) );
   first->userIs( RouteKey( 16040 ) );
   first->backupIs( isis );
   vrf->dropIs( first );
   return vrf;
}

TEST( PrintTextTest, alignsValuesAndCountsCollections ) {
   EXPECT_EQ( printText( *smallTree() ), R"(Vrf 3
   vrfId      3
   routing    true
   offset     -5
   drop       ldp/viaTypeMplsIp/unicast/7
   changes    2
   version    (3)
      16     1
      16040  2
      16/17  3
   adjacency  (1)
      ldp/viaTypeMplsIp/unicast/7
         key     ldp/viaTypeMplsIp/unicast/7
         load    0.5
         note    to "core"
         user    (2)
            16
            16040
         backup  (1)
            isisSr/viaTypeMplsIp/multicast/12
               key     isisSr/viaTypeMplsIp/multicast/12
               load    0
               note
               user    (0)
               backup  (0)
   below      (0)
)" );
}

TEST( PrintTextTest, countsWhatItLeavesOut ) {
   EXPECT_EQ( printText( *smallTree(), { .elementsPerCollection = 1, .depth = 1 } ), R"(Vrf 3
   vrfId      3
   routing    true
   offset     -5
   drop       ldp/viaTypeMplsIp/unicast/7
   changes    2
   version    (3)
      16  1
      and 2 more
   adjacency  (1)
      ldp/viaTypeMplsIp/unicast/7  ...
   below      (0)
)" );
}

TEST( PrintJsonTest, keepsTypesAndCountsCollections ) {
   EXPECT_EQ( printJson( *smallTree(), { .elementsPerCollection = 2, .depth = 2 } ),
              R"({"entityType":"Vrf","vrfId":3,"routing":true,"offset":-5,)"
              R"("drop":"ldp/viaTypeMplsIp/unicast/7","changes":2,)"
              R"("version":{"count":3,"elements":{"16":1,"16040":2}},)"
              R"("adjacency":{"count":1,"elements":{"ldp/viaTypeMplsIp/unicast/7":)"
              R"({"entityType":"Adjacency","key":"ldp/viaTypeMplsIp/unicast/7","load":0.5,)"
              R"("note":"to \"core\"","user":{"count":2,"elements":["16","16040"]},)"
              R"("backup":{"count":1,"elements":{"isisSr/viaTypeMplsIp/multicast/12":)"
              R"({"entityType":"Adjacency","truncated":true}}}}}},"below":{"count":0}})" );
}

TEST( PrintJsonTest, writesEveryValueSoThatItCanBeRead ) {
   using Limits = std::numeric_limits< double >;
   const auto adjacency = Vel::make< Adjacency >( ldp );
   const auto value = [&]( std::string_view name ) {
      const std::string json = printJson( *adjacency );
      const size_t begin = json.find( Vel::joinText( "\"", name, "\":" ) ) + name.size() + 3;
      return json.substr( begin, json.find( name == "load" ? ",\"note" : ",\"user" ) - begin );
   };
   const std::pair< double, const char* > numbers[] = {
      { Limits::quiet_NaN(), R"("NaN")" },
      { Limits::infinity(), R"("Infinity")" },
      { -Limits::infinity(), R"("-Infinity")" },
      { 1e300, "1e+300" },
      { -0.25, "-0.25" },
   };
   for ( const auto& [number, expected] : numbers ) {
      adjacency->loadIs( number );
      EXPECT_EQ( value( "load" ), expected );
   }
   using namespace std::string_literals;
   const std::pair< std::string, std::string > texts[] = {
      { "\\ \" / \t \n"s, R"("\\ \" / \t \n")" },
      { "\0\x01\x1f\x7f"s, "\"\\u0000\\u0001\\u001f\x7f\"" },
      { "z\u00fc \u20ac \U0001F600", "\"z\u00fc \u20ac \U0001F600\"" },
      { "a\x80z \xC3", "\"a\uFFFDz \uFFFD\"" },               // no first byte, no second
      { "\xC0\xAF", "\"\uFFFD\uFFFD\"" },                     // longer than needed
      { "\xE0\x9F\xBF", "\"\uFFFD\uFFFD\uFFFD\"" },           // longer than needed
      { "\xED\xA0\x80", "\"\uFFFD\uFFFD\uFFFD\"" },           // half of a pair
      { "\xF4\x90\x80\x80", "\"\uFFFD\uFFFD\uFFFD\uFFFD\"" }, // past the last
      { "\xF0\x9F\x98", "\"\uFFFD\uFFFD\uFFFD\"" },           // cut off
   };
   for ( const auto& [text, expected] : texts ) {
      adjacency->noteIs( text );
      EXPECT_EQ( value( "note" ), expected );
   }
}

TEST( PathTest, findsKeysByTheirTexts ) {
   const auto vrf = smallTree();
   const RouteKey deep( MplsLabel( 16 ), MplsLabel( 17 ) );
   const Adjacency* const first = vrf->adjacency( ldp );
   const Vrf* const stacked = vrf->belowIs( deep ); // met before the shorter key
   const Vrf* const single = vrf->belowIs( RouteKey( 16 ) );
   const Vrf* const bottom = vrf->below( deep )->belowIs( RouteKey( 99 ) );
   const std::pair< std::string_view, const Vel::Entity* > cases[] = {
      { "", vrf.get() },
      { "adjacency/ldp/viaTypeMplsIp/unicast/7", first },
      { "adjacency/ldp/viaTypeMplsIp/unicast/7/backup/isisSr/viaTypeMplsIp/multicast/12",
        first->backup( isis ) },
      { "below/16", single },
      { "below/16/17", stacked }, // the longest key that fits
      { "below/16/17/below/99", bottom },
      { "adjacency", nullptr },
      { "adjacency/", nullptr },
      { "adjacency/ldp/viaTypeMplsIp/unicast/70", nullptr },
      { "adjacency/ldp/viaTypeMplsIp/unicast/7/", nullptr },
      { "adjacency/ldp/viaTypeMplsIp/unicast/7/load", nullptr },
      { "version/16", nullptr }, // holds no entities
      { "vrfId/3", nullptr },
      { "below/1", nullptr },
      { "/below/16", nullptr },
   };
   for ( const auto& [path, expected] : cases ) {
      EXPECT_EQ( entityAt( *vrf, path ), expected ) << path;
   }
}

TEST( AttributeTextTest, givesPlainAttributesOnly ) {
   const auto vrf = smallTree();
   EXPECT_EQ( attributeText( *vrf, "offset" ), "-5" );
   EXPECT_EQ( attributeText( *vrf, "routing" ), "true" );
   EXPECT_EQ( attributeText( *vrf, "drop" ), "ldp/viaTypeMplsIp/unicast/7" );
   EXPECT_EQ( attributeText( *vrf, "version" ), "" );
   EXPECT_EQ( attributeText( *vrf, "of" ), "" );
}

} // namespace
} // namespace VelTest
