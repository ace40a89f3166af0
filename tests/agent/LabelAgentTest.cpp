// The agent: what becomes of label tables in the LFIB and in the hardware, and what is said of it.

#include "tests/agent/ProgramFixtures.h"

#include <array>
#include <fstream>
#include <random>
#include <set>

#include <gmock/gmock.h>

#include "tests/Seed.h"

namespace VelTest {
namespace {

using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;

// --- What is read back.

/// Every state, every reason that tables alone can give, and every shape of via.
Programmed everyState() {
   const std::string failed = swapVia( 1, "10.0.1.3", "eth1" );
   const std::string two = R"({"action":"swap","outLabels":[1,2],"nextHop":"10.0.1.2"})";
   const std::string stack = R"({"stack":[16040,24001],"vias":[{"action":"push",
      "outLabels":[17001],"nextHop":"fe80::2","interface":"eth\"2"}]})";
   Programmed made(
      { tableOf(
         { routeOf( 16040, { swapVia( 16040, "10.0.1.2", "eth1" ) } ),
           routeOf( 16041, { failed, swapVia( 16041, "10.0.1.2", "eth1" ) } ),
           routeOf( 16050, { failed } ),
           routeOf( 16051, { failed, swapVia( 1, "10.0.1.9" ), swapVia( 2, "10.0.1.9" ) } ),
           routeOf( 16052, { failed, swapVia( 1, "10.0.1.4", "eth1" ), swapVia( 1, "10.0.1.5" ),
                             swapVia( 1, "10.0.1.6", "eth1" ), swapVia( 1, "fe80::9" ) } ),
           routeOf( 16060, { swapVia( 16060, "10.0.1.2", "eth1" ), two } ),
           routeOf( 16061, { R"({"action":"push","outLabels":[7],"interface":"eth1"})" } ),
           routeOf( 16070, { R"({"action":"pop","interface":"lo"})" } ),
           R"({"label":16071,"kind":"decapsulation"})",
           routeOf( 17000, { R"({"action":"pop","nextHop":"fe80::2"})" } ), stack } ) },
      { neighborOf( "10.0.1.2", "eth1", 2 ),
        { "10.0.1.3", "eth1", {}, false, "FAILED", 0 },
        neighborOf( "fe80::2", "eth\"2", 7, 20 ),
        neighborOf( "fe80::2", "eth3", 8 ) } );
   made.apply( 0 );
   return made;
}

void expectGolden( const std::string& text, const std::string& name ) {
   std::string fault;
   const std::string path = std::string( VELMPLS_SOURCE_DIR ) + "/tests/data/" + name;
   EXPECT_EQ( text, readFile( path, fault ).value_or( fault ) );
}

TEST( ProgramResult, JsonAndTextOfEveryState ) {
   const Programmed made = everyState();
   const ProgramResult result( *made.agent );
   std::ostringstream json;
   EXPECT_TRUE( printJson( json, result ) );
   expectGolden( json.str(), "program-result.json" );
   std::ostringstream text;
   EXPECT_TRUE( printText( text, result ) );
   expectGolden( text.str(), "program-result.txt" );
}

TEST( ProgramResult, NarrowTerminalKeepsTheEssentialColumns ) {
   const Programmed made = everyState();
   std::ostringstream text;
   printText( text, ProgramResult( *made.agent ), { .columns = 80, .colour = true } );
   const std::string title = text.str().substr( 0, text.str().find( '\n' ) );
   EXPECT_EQ( title, "LABEL        STATE                ACTION  OUT    NEXT-HOP  INTERFACE" );
   EXPECT_THAT( text.str(),
                HasSubstr( "\n16040        \033[32mprogrammed\033[0m           swap" ) );
}

TEST( ProgramResult, HardwareRefusesAndIsBelieved ) {
   const LabelTable table = tableOf( { routeOf( 100, { swapVia( 1, "10.0.0.1", "a" ) } ),
                                       routeOf( 200, { swapVia( 2, "10.0.0.1", "a" ) } ) } );
   const std::vector< Neighbor > neighbors{ neighborOf( "10.0.0.1", "a", 1 ) };
   struct Case {
      Driver::SwitchSettings hardware;
      std::string second;
   };
   const auto notReady = []( const Driver::Operation& operation ) {
      return operation.kind == Driver::OperationKind::routeWritten &&
                   operation.routeKey == RouteKey( 200 )
                ? UnprogrammedReason::InterfaceNotReady
                : UnprogrammedReason::Success;
   };
   for ( const Case& one : std::vector< Case >{
            { { .routeCapacity = 1 }, "unprogrammed: hardware is full: routes" },
            { { .adjacencyCapacity = 1 }, "unprogrammed: hardware is full: adjacencies" },
            { { .refuse = notReady }, "unprogrammed: refused by hardware: InterfaceNotReady" },
            { { .serviceTimeSeconds = 60 }, "programmed" } } ) {
      Programmed made( { table }, neighbors, { .hardware = one.hardware } );
      made.apply( 0 );
      EXPECT_EQ( made.stateOf( 100 ), "programmed" );
      EXPECT_EQ( made.stateOf( 200 ), one.second );
   }
   // What is published is not believed when the switch says otherwise.
   Programmed made( { table }, neighbors );
   made.apply( 0 );
   const auto& roots = made.agent->entityManager();
   auto& published = *roots.root< Mpls::Hardware::Status >( "routingHwMplsStatus" );
   const Mpls::Hardware::Route second = published.route( RouteKey( 200 ) );
   published.routeIs( { RouteKey( 100 ), second.adjacency, {} } );
   EXPECT_THAT( made.stateOf( 100 ), HasSubstr( "unprogrammed: published as programmed, but" ) );
   EXPECT_EQ( made.stateOf( 200 ), "programmed" );
   second.adjacency->l2Adjacency()->l2ViaSetIs( {} );
   EXPECT_THAT( made.stateOf( 200 ), HasSubstr( "unprogrammed: published as programmed, but" ) );
   roots.root< Mpls::LfibHwStatus >( "lfibHwStatus" )
      ->unprogrammedRouteIs( { RouteKey( 200 ), Mpls::RouteStatusCode::notProgrammed } );
   EXPECT_THAT( made.stateOf( 200 ), HasSubstr( "the hardware still forwards with it" ) );
}

// --- Successive tables.

TEST( LabelAgent, OnlyRoutesWithOtherViasAreProgrammedAgain ) {
   const LabelTable before = loadLabelTable( examplePath( "labels" ) );
   const LabelTable after = loadLabelTable( examplePath( "labels-link-down" ) );
   std::set< uint32_t > expected;
   for ( const LabelRoute& route : before.routes ) {
      const auto same = std::ranges::find( after.routes, route );
      if ( same == after.routes.end() ) {
         expected.insert( route.label() );
      }
   }
   ASSERT_FALSE( expected.empty() );
   ASSERT_LT( expected.size(), before.routes.size() );
   Programmed made( { before, after } );
   made.agent->neighborsAre( loadNeighborTable( examplePath( "neighbors" ) ) );
   made.apply( 0 );
   const auto old = made.versions();
   made.apply( 1 );
   std::set< uint32_t > changed;
   for ( const auto& [label, version] : made.versions() ) {
      if ( !old.contains( label ) || old.at( label ) != version ) {
         changed.insert( label );
      }
   }
   EXPECT_EQ( changed, expected );
   EXPECT_TRUE( ProgramResult( *made.agent ).summary().complete() );
}

TEST( LabelAgent, EqualViasShareAViaSetAndLeaveWithTheirLastRoute ) {
   const std::string a = swapVia( 7, "10.0.0.1", "a" );
   const std::string b = swapVia( 7, "10.0.0.1", "b" );
   const std::string c = swapVia( 7, "10.0.0.2", "a" );
   Programmed made( { tableOf( { routeOf( 100, { a, b, c } ), routeOf( 101, { c, a, b } ),
                                 routeOf( 102, { b, c } ) } ),
                      tableOf( { routeOf( 100, { c, b, a } ), routeOf( 101, { b, a, c } ),
                                 routeOf( 102, { c, b } ) } ),
                      tableOf( { routeOf( 102, { b, c } ) } ), tableOf( {} ) },
                    { neighborOf( "10.0.0.1", "a", 1 ), neighborOf( "10.0.0.1", "b", 2 ) } );
   const auto held = [&] {
      const Mpls::LfibStatus& lfib = made.agent->lfib();
      return std::array{ lfib.lfibRoutes(), lfib.lfibViaSets(), lfib.lfibVias(),
                         made.agent->hardware().routes(), made.agent->hardware().adjacencies() };
   };
   made.apply( 0 );
   EXPECT_THAT( held(), ElementsAre( 3, 2, 3, 3, 2 ) );
   const U64 position = made.agent->lfib().ringPosition();
   made.apply( 1 );
   EXPECT_EQ( made.agent->lfib().ringPosition(), position ) << "the order of vias is no change";
   made.apply( 2 );
   EXPECT_THAT( held(), ElementsAre( 1, 1, 2, 1, 1 ) );
   made.apply( 3 );
   EXPECT_THAT( held(), ElementsAre( 0, 0, 0, 0, 0 ) );
   const auto* const l3 = made.agent->entityManager().root< VelL3Status >( "velL3Status" );
   EXPECT_EQ( l3->nextHopInfos(), 0U ) << "nobody asks any more";
   EXPECT_EQ( made.agent->lfib().corruptions(), 0U );
}

TEST( LabelAgent, TablesThatWereNotPlannedForTakeTheRoomThatIsThere ) {
   Programmed made( {} );
   const auto many = [&]( uint32_t count ) {
      LabelTable table;
      for ( uint32_t label = 16; label < 16 + count; ++label ) {
         LabelVia via;
         via.nextHop = "10.0.0.1";
         table.routes.push_back( { { label }, { via }, "" } );
      }
      return table;
   };
   EXPECT_EQ( made.agent->apply( many( 100 ) ), std::nullopt );
   made.settle();
   EXPECT_EQ( made.agent->lfib().lfibRoutes(), 100U );
   EXPECT_THAT( made.agent->apply( many( 5000 ) ).value_or( "" ), HasSubstr( "no room" ) );
   EXPECT_THAT( made.agent->apply( many( 1 ) ).value_or( "" ), HasSubstr( "no room" ) );
   Programmed hurried( {}, {}, { .maxRuns = 1 } );
   EXPECT_THAT( hurried.agent->apply( many( 1 ) ).value_or( "" ), HasSubstr( "come to rest" ) );
}

// --- Next hops.

TEST( LabelAgent, NeighborsComeAndGo ) {
   Programmed made( { tableOf( { routeOf( 100, { swapVia( 1, "10.0.0.1", "a" ) } ),
                                 routeOf( 101, { swapVia( 1, "10.0.0.1" ) } ),
                                 routeOf( 102, { swapVia( 1, "fe80::1" ) } ) } ) } );
   made.apply( 0 );
   L3Service& l3 = made.agent->l3();
   const auto states = [&] {
      made.settle();
      return std::vector{ made.stateOf( 100 ), made.stateOf( 101 ), made.stateOf( 102 ) };
   };
   const std::string no = "unprogrammed: next hop ";
   const std::string is = " is not resolved";
   EXPECT_THAT( states(), ElementsAre( no + "10.0.0.1 on a" + is, no + "10.0.0.1" + is,
                                       no + "fe80::1" + is ) );
   l3.neighborIs( neighborOf( "10.0.0.1", "b", 2 ) );
   l3.neighborIs( neighborOf( "fe80::1", "b", 3 ) );
   EXPECT_THAT( states(), ElementsAre( no + "10.0.0.1 on a" + is, "programmed", "programmed" ) );
   l3.neighborIs( neighborOf( "10.0.0.1", "a", 1 ) );
   EXPECT_THAT( states(), ElementsAre( "programmed", "programmed", "programmed" ) );
   EXPECT_EQ( ProgramResult( *made.agent ).route( RouteKey( 101 ) )->vias.at( 0 ).exits.size(),
              2U );
   const IntfId b = *made.agent->interfaces().intf( "b" );
   EXPECT_TRUE( l3.neighborDel( { b, *IpGenAddr::parse( "fe80::1" ) } ) );
   EXPECT_FALSE( l3.neighborDel( { b, *IpGenAddr::parse( "fe80::1" ) } ) );
   Neighbor failed = neighborOf( "10.0.0.1", "a", 1 );
   failed.resolved = false;
   l3.neighborIs( failed );
   EXPECT_THAT( states(),
                ElementsAre( no + "10.0.0.1 on a" + is, "programmed", no + "fe80::1" + is ) );
}

// --- Whatever came before, the end is the same.

using Random = std::mt19937_64;

/// A small world, so that routes share and swap via sets all the time.
LabelTable randomTable( Random& random ) {
   const auto below = [&]( uint64_t end ) { return random() % end; };
   LabelTable table;
   for ( uint32_t label = 16; label < 40; ++label ) {
      LabelRoute route{ { label }, {}, below( 12 ) == 0 ? "ends here" : "" };
      for ( uint64_t i = route.ignored() ? 0 : 1 + below( 3 ); i > 0; --i ) {
         const bool pops = below( 4 ) == 0;
         LabelVia via;
         via.action = pops ? LabelOperation::pop : LabelOperation::swap;
         via.payload = pops ? LabelPayload::ipv4 : LabelPayload::none;
         via.outLabels.assign( pops ? 0 : 1 + ( below( 9 ) == 0 ), 100 );
         via.nextHop = below( 9 ) == 0 ? "" : "10.0.0." + std::to_string( 1 + below( 3 ) );
         via.interface = below( 3 ) == 0 && !via.nextHop.empty() ? "" : below( 2 ) ? "a" : "lo";
         route.vias.push_back( via );
      }
      if ( below( 4 ) != 0 ) {
         table.routes.push_back( route );
      }
   }
   return table;
}

std::string everythingBut( const LabelAgent& agent ) {
   std::ostringstream text;
   const ProgramResult result( agent );
   ResultRoute route;
   for ( size_t i = 0; i < result.routes(); ++i ) {
      result.read( i, route );
      text << textOf( route.key ) << ' ' << name( route.state ) << ' ' << route.reason;
      for ( const ResultVia& via : route.vias ) {
         text << " | " << textOf( via.action ) << ' ' << via.outLabels.size() << ' '
              << via.nextHop.text() << ' ' << via.interface << ' ' << via.exits.size();
      }
      text << '\n';
   }
   return text.str();
}

TEST( LabelAgent, HistoryLeavesNothingBehind ) {
   Random random( testSeed() );
   for ( int round = 0; round < 20; ++round ) {
      std::vector< LabelTable > tables;
      for ( int i = 0; i < 6; ++i ) {
         tables.push_back( randomTable( random ) );
      }
      Programmed made( tables );
      std::map< std::string, Neighbor > known;
      for ( size_t i = 0; i < tables.size(); ++i ) {
         const std::string address = "10.0.0." + std::to_string( 1 + random() % 3 );
         const std::string interface = random() % 2 ? "a" : "b";
         const Neighbor neighbor =
            neighborOf( address, interface, static_cast< uint8_t >( 1 + random() % 3 ) );
         known.insert_or_assign( address + interface, neighbor );
         made.agent->l3().neighborIs( neighbor );
         made.apply( i );
         Programmed fresh( { tables[i] } );
         for ( const auto& [key, one] : known ) {
            fresh.agent->l3().neighborIs( one );
         }
         fresh.apply( 0 );
         ASSERT_EQ( everythingBut( *made.agent ), everythingBut( *fresh.agent ) );
         EXPECT_EQ( made.agent->hardware().routes(), fresh.agent->hardware().routes() );
         EXPECT_EQ( made.agent->hardware().adjacencies(), fresh.agent->hardware().adjacencies() );
      }
   }
}

} // namespace
} // namespace VelTest
