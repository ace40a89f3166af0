// The label table importers: what each format means, and what every kind of bad table is told.

#include "agent/import/LabelTable.h"

#include <algorithm>
#include <cstdio>
#include <fstream>
#include <random>
#include <string>
#include <vector>

#include <unistd.h>

#include <gmock/gmock.h>

#include "tests/agent/ProgramFixtures.h"

namespace VelTest {
namespace {

using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::SizeIs;
using enum LabelOperation;
using enum LabelPayload;
using enum LabelTtlMode;

LabelTable parse( std::string_view text ) {
   return parseLabelTable( text, "t" );
}
std::string nativeRoute( const std::string& fields ) {
   return tableText( { "{" + fields + "}" } );
}
std::string nativeVia( const std::string& fields ) {
   return nativeRoute( R"("label":16001,"vias":[{)" + fields + "}]" );
}
std::string nativeTunnels( const std::string& tunnels ) {
   return tableText( {}, R"("tunnels":[)" + tunnels + "]," );
}
std::string frrRoute( const std::string& fields ) {
   return R"({"16001":{"inLabel":16001,)" + fields + "}}";
}
std::string frrHop( const std::string& fields ) {
   return frrRoute( R"("nexthops":[{)" + fields + "}]" );
}
std::string kernelRoute( const std::string& fields ) {
   return "[{" + fields + "}]";
}
std::string times( size_t count, const std::string& text ) {
   return joined( std::vector< std::string >( count, text ) );
}
const std::string goodVia = R"({"action":"pop","interface":"a"})";
const std::string good16001 = routeOf( 16001, { goodVia } );

TEST( LabelTable, theThreeFormsOfOneTableAreEqual ) {
   const LabelTable frr = loadLabelTable( examplePath( "labels" ) );
   const LabelTable iproute2 = loadLabelTable( examplePath( "labels-iproute2" ) );
   const LabelTable own = loadLabelTable( examplePath( "labels-native" ) );
   EXPECT_EQ( errorText( frr.errors ) + errorText( iproute2.errors ) + errorText( own.errors ),
              "" );
   EXPECT_EQ( frr.format, LabelTableFormat::frr );
   EXPECT_EQ( iproute2.format, LabelTableFormat::iproute2 );
   EXPECT_EQ( own.format, LabelTableFormat::native );
   ASSERT_THAT( frr.routes, SizeIs( 10 ) );
   EXPECT_EQ( frr.routes, iproute2.routes );
   EXPECT_EQ( frr.routes, own.routes );
   // Atlanta lies behind Kansas City, which has the label of its own segment taken off for it.
   const LabelVia toAtlanta{ swap, none, uniform, { 16001 }, "10.3.6.6", "to-kansas-city" };
   EXPECT_EQ( frr.routes[0], ( LabelRoute{ { 16001 }, { toAtlanta }, "" } ) );
   const LabelVia toKansasCity{ pop, autodetect, uniform, {}, "10.3.6.6", "to-kansas-city" };
   EXPECT_EQ( frr.routes[4].vias, std::vector{ toKansasCity } );
}

TEST( LabelTable, readsWhatEachFormatSays ) {
   struct Case {
      const char* what;
      std::string text;
      std::vector< LabelRoute > routes;
   };
   const std::string stack16 = times( 16, "16" );
   const std::vector< Case > cases{
      { "FRR: reserved labels by name, hops without address, named backups, link-local addresses",
        R"({"IPv4 Explicit Null":{"inLabel":0,"installed":true,
              "nexthops":[{"outLabel":3,"interface":"lo"}]},
            "16021":{"inLabel":16021,
              "backupNexthops":[{"type":"BGP","outLabel":17001,"nexthop":"10.0.0.1"},
                {"outLabel":"of no use to anybody"},{"outLabel":3,"interface":"b"}],
              "nexthops":[{"type":"LDP","outLabel":16021,"outLabelStack":[16021,24001],
                "backupIndex":[2,0],"nexthop":"FE80:0::F384","interface":"eth-sw1"},
                {"outLabel":16022,"backupIndex":0,"interface":"a"}]}})",
        { { { 0 }, { { pop, ipv4, uniform, {}, "", "lo" } }, "" },
          { { 16021 },
            { { swap, none, uniform, { 16021, 24001 }, "fe80::f384", "eth-sw1" },
              { swap, none, uniform, { 16022 }, "", "a" } },
            "",
            { { swap, none, uniform, { 17001 }, "10.0.0.1", "" },
              { pop, autodetect, uniform, {}, "", "b" } } } } },
      { "FRR: the answer for one label",
        R"({"inLabel":2,"nexthops":[{"outLabel":3,"nexthop":"2001:db8::1"}]})",
        { { { 2 }, { { pop, ipv6, uniform, {}, "2001:db8::1", "" } }, "" } } },
      { "FRR: no labels", "{}", {} },
      { "iproute2: swap to a stack, pop, several next hops, ordered by label, nowhere",
        R"([{"dst":"16050","protocol":"static","nexthops":[
              {"to":"16050","via":{"family":"inet6","host":"fe80::2"},"dev":"eth0","flags":[]},
              {"to":"3","via":{"family":"inet","host":"10.0.1.3"},"dev":"eth1"}]},
            {"dst":"16040/17","to":"16040/24001","via":{"family":"inet","host":"10.0.1.2"}},
            {"dst":"16040","via":{"family":"inet6","host":"fe80::2"},"dev":"eth1",
             "ttl-propogate":"disabled","flags":["onlink"]},
            {"type":"blackhole","dst":"99"}])",
        { { { 99 }, {}, "a route of the type \"blackhole\" forwards to no next hop" },
          { { 16040 }, { { pop, autodetect, pipe, {}, "fe80::2", "eth1" } }, "" },
          { { 16040, 17 }, { { swap, none, uniform, { 16040, 24001 }, "10.0.1.2", "" } }, "" },
          { { 16050 },
            { { swap, none, uniform, { 16050 }, "fe80::2", "eth0" },
              { pop, autodetect, uniform, {}, "10.0.1.3", "eth1" } },
            "" } } },
      { "native: fields in any order, stacks, push, TTL mode, decapsulation",
        R"({"routes":[
              {"vias":[{"interface":"a","outLabels":[100,7,1048575],"action":"push"},
                       {"outLabels":[3],"action":"swap","interface":"b","payload":"ipv6"},
                       {"action":"pop","nextHop":"10.0.0.1","payload":"ipv4","ttlMode":"pipe"}],
               "stack":[1048575,16,15]},
              {"label":20,"kind":"decapsulation"}],
            "velmplsLabelTable":1})",
        { { { 20 }, {}, "a decapsulation route ends here and forwards to no next hop" },
          { { 1048575, 16, 15 },
            { { push, none, uniform, { 100, 7, 1048575 }, "", "a" },
              { pop, ipv6, uniform, {}, "", "b" },
              { pop, ipv4, pipe, {}, "10.0.0.1", "" } },
            "" } } },
      { "the largest route",
        nativeRoute(
           R"("stack":[16,17,18],"vias":[)" +
           times( 128, R"({"action":"swap","interface":"a","outLabels":[)" + stack16 + "]}" ) +
           "]" ),
        { { { 16, 17, 18 },
            { 128, { swap, none, uniform, std::vector< uint32_t >( 16, 16 ), "", "a" } },
            "" } } } };
   for ( const Case& c : cases ) {
      SCOPED_TRACE( c.what );
      const LabelTable table = parse( c.text );
      EXPECT_EQ( errorText( table.errors ), "" );
      EXPECT_EQ( table.routes, c.routes );
   }
}

TEST( LabelTable, tellsWhatIsWrongWithABadTable ) {
   // Text, and a part of the one complaint.
   const std::vector< std::pair< std::string, std::string > > cases{
      // Not a table.
      { " \n", "t: the file is empty" },
      { "[]\n]", "t:2:1: this is not JSON" },
      { "{\"16001\":{\"inLabel\":16001,\n \"next",
        "t:2:7: the file ends in the middle of its JSON" },
      { "{\"16001\":\n" + std::string( 70, '[' ), "t:2:64: nested deeper than 64 levels" },
      { "[\"\xff\"]", "this is not JSON" },
      { "17", "t: not a label table" },
      // FRR.
      { R"({"16001":{"nexthops":[]}})", "t:1:10: label 16001: the field \"inLabel\" is missing" },
      { R"({"16001":7})", "label 16001: the route is 7, not an object" },
      { R"({"x":{"inLabel":"16001","nexthops":[]}})", "\"inLabel\" is \"16001\", not a whole" },
      { R"({"x":{"inLabel":1.5,"nexthops":[]}})", "\"x\": the field \"inLabel\" is 1.5, not a" },
      { R"({"16002":{"inLabel":16001,"nexthops":[]}})", "under \"16002\", but its \"inLabel\" is" },
      { R"({"GAL":{"inLabel":16001,"nexthops":[]}})", "the route stands under \"GAL\"" },
      { frrRoute( R"("nexthops":[])" ), "label 16001: the route has no vias" },
      { frrHop( R"("nexthop":"10.0.0.1")" ), "label 16001: via 1: the field \"outLabel\" is" },
      { frrHop( R"("outLabel":17,"outLabelStack":[18],"interface":"a")" ), "begins with 18" },
      { frrHop( R"("outLabelStack":[],"interface":"a")" ), "\"outLabelStack\" has no labels" },
      { frrHop( R"("outLabel":17,"interface":"a","backupIndex":0)" ), "and the route has 0" },
      { frrHop( R"("outLabel":17,"interface":"a","backupIndex":"0")" ), "number from 0 or a list" },
      { frrRoute( R"("nexthops":[{"outLabel":17,"interface":"a","backupIndex":[1]}],
                     "backupNexthops":[0,{"outLabel":17}])" ),
        "label 16001: backup via 2: neither a next hop nor an interface" },
      // iproute2.
      { kernelRoute( R"("dst":"16","dev":"a","dst":"17")" ),
        "t:1:2: route 1: the field \"dst\" appears" },
      { kernelRoute( R"("dst":16,"dev":"a")" ), "the field \"dst\" is 16, not a text" },
      { kernelRoute( R"("dst":"16","to":"17","nexthops":[])" ), "both a next hop of its own and" },
      { kernelRoute( R"("dst":"16","nexthops":[5])" ), "label 16: via 1: the via is 5, not an" },
      { kernelRoute( R"("dst":"16","via":{"family":"inet","host":"::1"})" ), "family \"inet\"" },
      { kernelRoute( R"("dst":"16","via":{"family":"link","host":"02::"})" ),
        "hop is of the family" },
      // Native.
      { R"({"velmplsLabelTable":2,"routes":[]})", "t:1:22: version 2 of the native format" },
      { R"({"velmplsLabelTable":1})", "t: the field \"routes\" is missing" },
      { R"({"velmplsLabelTable":1,"routes":{}})", "the field \"routes\" is an object, not a list" },
      { R"({"routes":[]})", "t: the field \"velmplsLabelTable\" is missing" },
      { R"({"velmplsLabelTable":1,"routes":[],"routes":[]})", "\"routes\" appears twice" },
      { tableText( {}, R"("velmplsLabelTable":1,)" ), "\"velmplsLabelTable\" appears twice" },
      { tableText( {}, R"("colour":1,)" ), "the field \"colour\" is unknown" },
      { tableText( { routeOf( 16, { goodVia }, R"(,"x":0)" ) } ), "label 16: the field \"x\" is" },
      { nativeRoute( R"("label":16,"stack":[16],"vias":[])" ),
        "either a \"label\" or a \"stack\"" },
      { nativeRoute( R"("label":16,"kind":"multicast")" ), "the field \"kind\" is \"multicast\"" },
      { nativeRoute( R"("label":16,"kind":"decapsulation","backupVias":[])" ), "a decapsulation" },
      { nativeVia( R"("action":"drop","interface":"a")" ), R"(not one of "pop", "swap", "push")" },
      { nativeVia( R"("action":"pop","outLabels":[16],"interface":"a")" ), "a pop has no" },
      { nativeVia( R"("action":"swap","interface":"a")" ), "a swap needs \"outLabels\"" },
      { nativeVia( R"("action":"swap","outLabels":[16],"interface":"a","ttlMode":"pipe")" ),
        "\"payload\" and \"ttlMode\" go with a pop only" },
      { nativeVia( R"("interface":"a")" ), "via 1: the field \"action\" is missing" },
      { tableText( { guardedRoute( 16, { goodVia }, "" ) } ), "the route has no backup vias" },
      { tableText( { guardedRoute( 16, { goodVia }, goodVia + R"(,{"action":"pop"})" ) } ),
        "label 16: backup via 2: neither a next hop nor an interface" },
      // Ways through what other agents have, on which a label would be lost.
      { tableText( { routeOf( 16, { R"({"action":"pop","nextHopGroup":"g"})" } ) },
                   defined( "nextHopGroups", "g", goodVia ) ),
        "label 16: via 1: on a way through next-hop group \"g\" more than the label" },
      { tableText( { guardedRoute( 16, { goodVia }, R"({"action":"pop","tunnel":"a"})" ) },
                   R"("tunnels":[{"name":"a","vias":[{"tunnel":"b"},{"interface":"x"}]},)"
                   R"({"name":"b","vias":[{"tunnel":"a"},{"action":"pop","interface":"x"}]}],)" ),
        "label 16: backup via 1: on a way through tunnel \"a\" more than the label" },
      { tableText( { R"({"label":16,"externalFec":"x"})" },
                   R"("tunnels":[{"name":"p","vias":[{"action":"pop","interface":"x"}]},)"
                   R"({"name":"q","vias":[{"action":"pop","tunnel":"p"}]},)"
                   R"({"name":"r","vias":[{"action":"pop","tunnel":"q"}]}],)" +
                      defined( "externalFecs", "x", // of the three, one takes its own off
                               R"({"action":"push","outLabels":[17],"tunnel":"r"})" ) ),
        "label 16: on a way through external FEC \"x\" more than the label" },
      { tableText( { R"({"label":16,"externalFec":"x"})" },
                   R"("tunnels":[{"name":"t","vias":[{"interface":"x"}]}],)" +
                      defined( "externalFecs", "x", goodVia + R"(,{"tunnel":"t"})" ) ),
        "label 16: on a way through external FEC \"x\" nothing would happen to the label" },
      { tableText( { routeOf( 16, { goodVia }, R"(,"usableAsPrimaryVias":1)" ) } ),
        "the field \"usableAsPrimaryVias\" is 1, not true or false" },
      { nativeRoute( R"("label":16,"externalFec":"x","vias":[])" ),
        "external FEC has no \"vias\"" },
      { nativeRoute( R"("label":16,"externalFec":7)" ), "\"externalFec\" is 7, not a text" },
      { nativeRoute( R"("label":16,"externalFec":"x y")" ), "the name \"x y\" has a slash, a" },
      { nativeVia( R"("action":"pop","tunnel":"t","interface":"a")" ), "a via has either a" },
      { nativeVia( R"("action":"pop","tunnel":")" + std::string( 64, 't' ) + '"' ), "than 63" },
      { tableText( {}, R"("tunnels":{},)" ), "the field \"tunnels\" is an object, not a list" },
      { nativeTunnels( R"({"vias":[{"interface":"a"}]})" ), "tunnel 1: the field \"name\" is" },
      { nativeTunnels( R"({"name":"t","vias":[]})" ), "tunnel 1: the tunnel has no vias" },
      { nativeTunnels( R"({"name":"t","kind":0,"vias":[{"interface":"a"}]})" ), "\"kind\" is" },
      { nativeTunnels( R"({"name":"t","vias":[{"outLabels":[17],"interface":"a"}]})" ),
        "tunnel 1, via 1: \"outLabels\" without an \"action\"" },
      { nativeTunnels( R"({"name":"t","vias":[{"nextHopGroup":"g"}]})" ), "only routes lead into" },
      { nativeTunnels( times( 2, R"({"name":"t","vias":[{"interface":"a"}]})" ) ),
        "tunnel 2: a second definition of the tunnel \"t\"" },
      { nativeRoute( R"("label":16,"x":[)" + times( 66000, "0" ) + "]" ),
        "more than 65536 values" },
      // Labels.
      { kernelRoute( R"("dst":"16o40","dev":"a")" ), "route 1: \"16o40\" is not a label stack" },
      { kernelRoute( R"("dst":"99999999999999999999","dev":"a")" ), "beyond 1048575" },
      { kernelRoute( R"("dst":"16/17/18/19","dev":"a")" ), "an incoming stack of 4 labels" },
      { kernelRoute( R"("dst":"16/3","dev":"a")" ), "label 16: 3 (implicit null) never stands" },
      { tableText( { routeOf( 4, {} ) } ), "label 4: incoming label: the label 4 is reserved" },
      { nativeRoute( R"("stack":[],"vias":[])" ), "the incoming label stack is empty" },
      { nativeRoute( R"("stack":[16,"17"],"vias":[])" ), "\"17\" is not a label" },
      { frrHop( R"("interface":"a","outLabel":1048576)" ), "beyond its largest value 1048575" },
      { frrHop( R"("interface":"a","outLabel":12)" ), "outgoing label: the label 12 is reserved" },
      { frrHop( R"("interface":"a","outLabelStack":[16,3])" ), "one of the labels put on (16/3)" },
      { nativeVia( R"("action":"push","outLabels":[3],"interface":"a")" ), "implicit null" },
      { nativeVia( R"("action":"swap","interface":"a","outLabels":[)" + times( 17, "16" ) + "]" ),
        "an outgoing stack of 17 labels; at most 16" },
      { tableText( { good16001, good16001 } ), "t: label 16001: 2 routes for the stack 16001" },
      // Vias.
      { tableText( { routeOf( 16, { times( 129, goodVia ) } ) } ), "more than 128 vias" },
      { frrHop( R"("outLabel":17,"nexthop":"10.0.0.256")" ), "\"10.0.0.256\" is not an IPv4 or" },
      { frrHop( R"("outLabel":17,"nexthop":"\u001b[31m10.0.0.1")" ), "\"?[31m10.0.0.1\" is not" },
      { frrHop( R"("outLabel":17,"nexthop":"224.0.0.5")" ), "224.0.0.5 is a multicast address" },
      { frrHop( R"("outLabel":17,"nexthop":"ff02::1")" ), "ff02::1 is a multicast address" },
      { frrHop( R"("outLabel":17,"nexthop":"0.0.0.0")" ), "0.0.0.0 is the unspecified address" },
      { frrHop( R"("outLabel":17,"nexthop":"::")" ), ":: is the unspecified address" },
      { frrHop( R"("outLabel":17,"nexthop":"255.255.255.255")" ), "is the broadcast address" },
      { frrHop( R"("outLabel":17,"interface":"")" ), "the interface name is empty" },
      { frrHop( R"("outLabel":17,"interface":"abcdefghijklmnop")" ), "longer than 15 characters" },
      { frrHop( R"("outLabel":17,"interface":"a/b")" ), "has a slash, a blank" },
      { frrHop( R"("outLabel":17,"interface":"a b")" ), "has a slash, a blank" } };
   for ( const auto& [text, complaint] : cases ) {
      SCOPED_TRACE( text.substr( 0, 200 ) );
      const LabelTable table = parse( text );
      EXPECT_THAT( errorText( table.errors ), HasSubstr( complaint ) );
      EXPECT_EQ( table.errors.size(), 1U ) << errorText( table.errors );
      EXPECT_THAT( table.routes, IsEmpty() );
   }
}

TEST( LabelTable, goesOnBehindABadRouteAndCountsWhatItDoesNotList ) {
   const LabelTable table =
      parse( tableText( { routeOf( 17, { R"({"action":"pop"})", "5", "{}" } ), good16001,
                          routeOf( 3, {} ), R"({"label":18})" } ) );
   EXPECT_EQ( errorText( table.errors ),
              "t:1:34: label 17: via 1: neither a next hop nor an interface\n"
              "t:1:34: label 17: via 2: the via is 5, not an object\n"
              "t:1:34: label 17: via 3: the field \"action\" is missing\n"
              "t:1:136: label 3: 3 (implicit null) never stands in a packet, so it cannot be an "
              "incoming label\n"
              "t:1:158: label 18: the field \"vias\" is missing\n" );
   ASSERT_THAT( table.routes, SizeIs( 1 ) );
   EXPECT_EQ( table.routes[0].label(), 16001U );

   const LabelTable many = parse( "[" + times( 250, "0" ) + "," );
   ASSERT_THAT( many.errors, SizeIs( 102 ) );
   EXPECT_THAT( many.errors[100].text(), HasSubstr( "cut off" ) );
   EXPECT_EQ( many.errors[101].text(), "t: and 150 more" );
}

TEST( LabelTable, aForcedFormatIsNotGuessed ) {
   const std::string text = tableText( {}, R"("comment":{},)" );
   EXPECT_THAT( errorText( parseLabelTable( text, "t", LabelTableFormat::frr ).errors ),
                HasSubstr( "\"comment\": the field \"inLabel\"" ) );
   EXPECT_THAT( errorText( parseLabelTable( text, "t", LabelTableFormat::native ).errors ),
                HasSubstr( "the field \"comment\" is unknown" ) );
   for ( const auto format : { LabelTableFormat::frr, LabelTableFormat::native } ) {
      EXPECT_EQ( parseLabelTable( "[]", "t", format ).errors.size(), 1U ) << textOf( format );
   }
   EXPECT_EQ( parseLabelTable( "{}", "t", LabelTableFormat::iproute2 ).errors.size(), 1U );
}

TEST( LabelTable, saysThatAFileIsTooLarge ) {
   const std::string large = ::testing::TempDir() + "large-label-table.json";
   std::ofstream( large ).close();
   ASSERT_EQ( ::truncate( large.c_str(), ( off_t{ 1 } << 30 ) + 1 ), 0 );
   EXPECT_EQ( errorText( loadLabelTable( large ).errors ),
              large + ": the file is larger than 1 GiB\n" );
   std::remove( large.c_str() );
}

/// Every promise that a table makes to the one who applies it.
void checkInvariants( const LabelTable& table ) {
   const auto legal = []( uint32_t label ) { return label <= 1048575 && label != 3; };
   const std::vector< uint32_t >* last = nullptr;
   for ( const LabelRoute& route : table.routes ) {
      ASSERT_TRUE( !route.stack.empty() && route.stack.size() <= maxIncomingLabels );
      ASSERT_TRUE( !last || *last < route.stack );
      last = &route.stack;
      ASSERT_TRUE( std::ranges::all_of( route.stack, legal ) );
      ASSERT_TRUE( route.vias.size() <= maxVias && route.backupVias.size() <= maxVias );
      ASSERT_EQ( route.vias.empty(), route.ignored() || !route.externalFec.empty() );
      for ( const auto* const vias : { &route.vias, &route.backupVias } ) {
         for ( const LabelVia& via : *vias ) {
            ASSERT_EQ( via.outLabels.empty(), via.action == pop );
            ASSERT_EQ( via.payload != none, via.action == pop );
            ASSERT_TRUE( std::ranges::all_of( via.outLabels, legal ) );
            ASSERT_FALSE( via.nextHop.empty() && via.interface.empty() );
            ASSERT_TRUE( via.outlet == LabelOutlet::interface ? via.interface.size() <= 15U
                                                              : via.nextHop.empty() );
         }
      }
   }
   for ( const ImportError& error : table.errors ) {
      ASSERT_FALSE( error.reason.empty() );
      ASSERT_TRUE( std::ranges::all_of( error.text(), []( char c ) { return c >= ' '; } ) );
   }
}

TEST( LabelTable, anyDamageEndsInATableThatKeepsItsPromises ) {
   constexpr int rounds = 4000;
   const std::string splices[] = { "{", "}", "[", "]",   "\"",   ",",
                                   ":", "3", "-", "\\u", "null", "\xff" };
   for ( const std::string form :
         { "labels", "labels-iproute2", "labels-native", "labels-backup" } ) {
      std::string fault;
      const std::string whole = readFile( examplePath( form ), fault ).value();
      for ( unsigned seed = 0; seed < rounds; ++seed ) {
         SCOPED_TRACE( form + ", seed " + std::to_string( seed ) );
         std::mt19937 random( seed );
         std::string text =
            whole.substr( 0, seed % 4 == 0 ? random() % whole.size() : whole.size() );
         for ( auto changes = random() % 4; changes > 0; --changes ) {
            const size_t at = random() % ( text.size() + 1 );
            const std::string& put = splices[random() % std::size( splices )];
            text.replace( at, random() % 3, put );
         }
         const LabelTable table = parse( text );
         ASSERT_NO_FATAL_FAILURE( checkInvariants( table ) );
         ASSERT_FALSE( table.errors.empty() && table.routes.empty() ) << text;
      }
   }
}

} // namespace
} // namespace VelTest
