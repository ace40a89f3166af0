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

/// Every state, every reason that tables alone can give, and every shape of via, on hardware
/// without FECs.
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
        neighborOf( "fe80::2", "eth3", 8 ) },
      { .withFecs = false } );
   made.apply( 0 );
   return made;
}

/// The same where there are FECs: what only they can do, and what they do in another way.
Programmed everyStateWithFecs() {
   const std::string definitions =
      R"("nextHopGroups":[{"name":"g1","vias":[{"action":"swap","outLabels":[500],
            "nextHop":"10.0.1.2"},{"action":"pop","tunnel":"t1"}]},
           {"name":"g2","vias":[{"nextHop":"10.0.1.3","interface":"eth1"}]}],
         "tunnels":[{"name":"t1","vias":[{"nextHop":"fe80::2","interface":"eth3"}]},
           {"name":"loop","vias":[{"tunnel":"loop"}]}],
         "externalFecs":[{"name":"x1","vias":[{"action":"pop","nextHop":"10.0.1.2"}]}],)";
   const auto into = []( const std::string& kind, const std::string& name ) {
      return R"({"action":"swap","outLabels":[17],")" + kind + R"(":")" + name + "\"}";
   };
   const auto protectedRoute = []( uint32_t label, const std::string& via,
                                   const std::string& backup, const std::string& rest = "" ) {
      return joinText( R"({"label":)", label, R"(,"vias":[)", via, R"(],"backupVias":[)", backup,
                       "]", rest, "}" );
   };
   const std::string good = swapVia( 17, "10.0.1.2", "eth1" );
   const std::string failed = swapVia( 1, "10.0.1.3", "eth1" );
   const std::string unknown = swapVia( 1, "10.0.1.9" );
   const std::string disabled = R"(,"usableAsPrimaryVias":false)";
   Programmed made(
      { tableOf( { routeOf( 100, { swapVia( 18, "fe80::2" ) } ), routeOf( 101, { good, failed } ),
                   routeOf( 102, { failed } ), routeOf( 103, { unknown, good, failed } ),
                   routeOf( 104, { good, R"({"action":"pop","interface":"eth1"})" } ),
                   routeOf( 110, { into( "nextHopGroup", "g1" ) } ),
                   routeOf( 111, { into( "nextHopGroup", "g2" ) } ),
                   routeOf( 112, { into( "nextHopGroup", "g9" ) } ),
                   routeOf( 113, { into( "nextHopGroup", "g1" ), into( "nextHopGroup", "g2" ) } ),
                   routeOf( 120, { into( "tunnel", "t1" ), into( "tunnel", "t9" ) } ),
                   routeOf( 121, { into( "tunnel", "loop" ) } ),
                   R"({"label":130,"externalFec":"x1"})", R"({"label":131,"externalFec":"x9"})",
                   protectedRoute( 140, good, failed ),
                   protectedRoute( 141, failed, swapVia( 19, "fe80::2", "eth3" ) ),
                   protectedRoute( 142, good, failed, disabled ),
                   protectedRoute( 143, failed, swapVia( 20, "fe80::2", "eth3" ), disabled ),
                   R"({"label":144,"vias":[)" + good + "]" + disabled + "}" },
                 definitions ) },
      { neighborOf( "10.0.1.2", "eth1", 2 ),
        { "10.0.1.3", "eth1", {}, false, "FAILED", 0 },
        neighborOf( "fe80::2", "eth3", 8 ),
        neighborOf( "fe80::2", "eth2", 7, 20 ) } );
   made.apply( 0 );
   return made;
}

void expectGolden( const std::string& text, const std::string& name ) {
   std::string fault;
   const std::string path = std::string( VELMPLS_SOURCE_DIR ) + "/tests/data/" + name;
   EXPECT_EQ( text, readFile( path, fault ).value_or( fault ) );
}

TEST( ProgramResult, JsonAndTextOfEveryState ) {
   for ( const bool withFecs : { false, true } ) {
      const Programmed made = withFecs ? everyStateWithFecs() : everyState();
      const std::string name = withFecs ? "program-result-fecs" : "program-result";
      const ProgramResult result( *made.agent );
      std::ostringstream json;
      EXPECT_TRUE( printJson( json, result ) );
      expectGolden( json.str(), name + ".json" );
      std::ostringstream text;
      EXPECT_TRUE( printText( text, result ) );
      expectGolden( text.str(), name + ".txt" );
   }
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
      bool withFecs = true;
   };
   const auto notReady = []( const Driver::Operation& operation ) {
      return operation.kind == Driver::OperationKind::routeWritten &&
                   operation.routeKey == RouteKey( 200 )
                ? UnprogrammedReason::InterfaceNotReady
                : UnprogrammedReason::Success;
   };
   for ( const Case& one : std::vector< Case >{
            { { .routeCapacity = 1 }, "unprogrammed: hardware is full: routes" },
            { { .routeCapacity = 1 }, "unprogrammed: hardware is full: routes", false },
            { { .adjacencyCapacity = 1 }, "programmed" },
            { { .adjacencyCapacity = 1 }, "unprogrammed: hardware is full: adjacencies", false },
            { { .fecCapacity = 1 }, "unprogrammed: hardware is full: FECs" },
            { { .refuse = notReady }, "unprogrammed: refused by hardware: InterfaceNotReady" },
            { { .refuse = notReady },
              "unprogrammed: refused by hardware: InterfaceNotReady",
              false },
            { { .serviceTimeSeconds = 60 }, "programmed" } } ) {
      Programmed made( { table }, neighbors,
                       { .hardware = one.hardware, .withFecs = one.withFecs } );
      made.apply( 0 );
      EXPECT_EQ( made.stateOf( 100 ), "programmed" );
      EXPECT_EQ( made.stateOf( 200 ), one.second );
   }
}

TEST( ProgramResult, FecThatIsNotReadyIsNamedUntilItIs ) {
   Programmed made( { tableOf( { routeOf( 100, { swapVia( 1, "10.0.0.1", "a" ) } ) } ) },
                    { neighborOf( "10.0.0.1", "a", 1 ) }, [] {
                       LabelAgentSettings settings;
                       Driver::Fault fault{ .kind = Driver::FaultKind::notReady, .until = 20 };
                       fault.intf = IntfId::ordinary( 1 );
                       settings.hardware.faults.add( fault );
                       return settings;
                    }() );
   made.apply( 0 );
   EXPECT_EQ( made.stateOf( 100 ), "unprogrammed: refused by hardware: InterfaceNotReady" );
   EXPECT_EQ( made.agent->runFor( 20 ), std::nullopt );
   EXPECT_EQ( made.stateOf( 100 ), "programmed" );
}

TEST( ProgramResult, WhatIsPublishedIsNotBelievedAgainstTheSwitch ) {
   const LabelTable table = tableOf( { routeOf( 100, { swapVia( 1, "10.0.0.1", "a" ) } ),
                                       routeOf( 200, { swapVia( 2, "10.0.0.1", "a" ) } ) } );
   const std::vector< Neighbor > neighbors{ neighborOf( "10.0.0.1", "a", 1 ) };
   for ( const auto& [change, complaint] :
         { std::pair( "fec", "holds it with another FEC" ), std::pair( "via", "holds other vias" ),
           std::pair( "request", "does not hold its FEC" ) } ) {
      Programmed into( { table }, neighbors );
      into.apply( 0 );
      const auto& roots = into.agent->entityManager();
      auto& request = *roots.root< FecIdToHwFecIdRequest >( "hwFecIdRequest" );
      auto& published = *roots.root< Mpls::Hardware::Status >( "routingHwMplsStatus" );
      Mpls::Hardware::Route first = published.route( RouteKey( 100 ) );
      if ( std::string_view( change ) == "fec" ) {
         first.fecId = published.route( RouteKey( 200 ) ).fecId;
         published.routeIs( first );
      } else if ( std::string_view( change ) == "via" ) { // and the switch has no time to follow
         Fib::Fec other = request.fec( first.fecId );
         other.via.front().labelStack = { 99 };
         request.fecIs( other );
      } else {
         const Ptr< Driver::HwFec > kept = into.agent->hardware().fecUnit()->fec( first.fecId );
         kept->routes = 0; // no breach: the switch is not to notice either
         request.hwFecIdRequestDel( first.fecId );
         into.settle();
         ++kept->routes;
      }
      EXPECT_THAT( into.stateOf( 100 ), HasSubstr( complaint ) );
      EXPECT_EQ( into.stateOf( 200 ), "programmed" );
   }
   Programmed made( { table }, neighbors, { .withFecs = false } );
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
   for ( const bool withFecs : { false, true } ) {
      Programmed made( { before, after }, {}, { .withFecs = withFecs } );
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
   EXPECT_EQ( made.agent->mplsSm().mplsSmStartupStatus(), MplsSmStartupStatus::mplsSmNormal );
   EXPECT_THAT( made.agent->apply( many( 5000 ) ).value_or( "" ), HasSubstr( "no room" ) );
   EXPECT_THAT( made.agent->apply( many( 1 ) ).value_or( "" ), HasSubstr( "no room" ) );
   Programmed hurried( {}, {}, { .maxRuns = 1 } );
   EXPECT_THAT( hurried.agent->apply( many( 1 ) ).value_or( "" ), HasSubstr( "come to rest" ) );
}

// --- What other agents have, and backups.

TEST( LabelAgent, DefinitionsComeChangeAndVanishWithTheTables ) {
   const auto table = []( const std::string& group, const std::string& fec ) {
      return tableOf(
         { routeOf( 100, { R"({"action":"swap","outLabels":[17],"nextHopGroup":"g"})" } ),
           R"({"label":200,"externalFec":"x"})",
           routeOf( 300, { swapVia( 1, "10.0.0.1", "a" ) } ) },
         R"("nextHopGroups":[)" + group + R"(],"externalFecs":[)" + fec + "]," );
   };
   const auto defined = []( const std::string& name, const std::string& via ) {
      return R"({"name":")" + name + R"(","vias":[)" + via + "]}";
   };
   const std::string one = swapVia( 1, "10.0.0.1", "a" );
   const std::string two = swapVia( 2, "10.0.0.2", "b" );
   Programmed made( { table( "", "" ), table( defined( "g", one ), defined( "x", two ) ),
                      table( defined( "g", two ), defined( "x", two ) ),
                      table( "", defined( "x", one ) ), tableOf( {} ) },
                    { neighborOf( "10.0.0.1", "a", 1 ), neighborOf( "10.0.0.2", "b", 2 ) } );
   const auto after = [&]( size_t number ) {
      made.apply( number );
      return made.forward( 100 ) + ", " + made.forward( 200 ) + ", " + made.forward( 300 );
   };
   EXPECT_EQ( after( 0 ), "drop, drop, a label 1" );
   EXPECT_EQ( made.stateOf( 200 ), "unprogrammed: external FEC x is not there yet" );
   EXPECT_EQ( after( 1 ), "a label 1, b label 2, a label 1" );
   const auto fecs = made.versions();
   EXPECT_EQ( after( 2 ), "b label 2, b label 2, a label 1" );
   EXPECT_EQ( made.versions(), fecs ) << "a FEC changes in place";
   EXPECT_EQ( after( 3 ), "drop, a label 1, a label 1" );
   EXPECT_EQ( made.stateOf( 100 ), "unprogrammed: next-hop group g is not there yet" );
   EXPECT_EQ( after( 4 ), "drop, drop, drop" );
   EXPECT_EQ( made.agent->hardware().fecUnit()->fecs(), 0U );
   EXPECT_EQ( made.agent->lfib().lfibVias() + made.agent->lfib().lfibViaSets(), 0U );
}

TEST( LabelAgent, BackupTakesOverForLinksAndNeighbors ) {
   const auto route = []( uint32_t label, uint32_t backup ) {
      return joinText( R"({"label":)", label, R"(,"vias":[)", swapVia( 1, "10.0.0.1" ),
                       R"(],"backupVias":[)", swapVia( backup, "10.0.0.2", "b" ), "]}" );
   };
   Programmed made( { tableOf( { route( 100, 2 ), route( 101, 44 ), route( 102, 2 ) } ) },
                    { neighborOf( "10.0.0.1", "a", 1 ), neighborOf( "10.0.0.2", "b", 2 ) } );
   made.apply( 0 );
   // Equal vias with another backup are another via set.
   EXPECT_EQ( made.agent->lfib().lfibViaSets(), 4U );
   EXPECT_EQ( made.agent->lfib().lfibVias(), 3U );
   EXPECT_EQ( made.forward( 100 ) + made.forward( 101 ), "a label 1a label 1" );
   const IntfId a = *made.agent->interfaces().intf( "a" );
   const auto backupActive = [&] {
      int count = 0;
      for ( const auto& [key, viaSet] : made.agent->lfibHwStatus().viaSet() ) {
         count += viaSet.backupActive;
      }
      return count;
   };
   made.agent->hardware().linkIs( a, false );
   EXPECT_EQ( made.forward( 100 ) + made.forward( 101 ), "b label 2b label 44" );
   EXPECT_EQ( backupActive(), 2 );
   made.agent->hardware().linkIs( a, true );
   EXPECT_EQ( backupActive(), 0 );
   EXPECT_TRUE( made.agent->l3().neighborDel( { a, *IpGenAddr::parse( "10.0.0.1" ) } ) );
   EXPECT_EQ( made.forward( 100 ) + made.forward( 101 ), "b label 2b label 44" );
   EXPECT_EQ( backupActive(), 2 ) << "hardware is told of neighbours";
   made.settle();
   EXPECT_EQ( made.stateOf( 100 ), "partiallyProgrammed: next hop 10.0.0.1 on a is not resolved" );
}

TEST( LabelAgent, InterfacesAreFilledInAsFarAsAViaSetHasRoom ) {
   std::vector< Neighbor > neighbors{ neighborOf( "10.0.0.2", "a", 9 ) };
   for ( int i = 0; i < 200; ++i ) {
      neighbors.push_back( neighborOf( "10.0.0.1", "i" + std::to_string( 100 + i ), 1 ) );
   }
   const std::string many = swapVia( 1, "10.0.0.1" );
   Programmed made( { tableOf( { routeOf( 100, { swapVia( 2, "10.0.0.2" ), many } ),
                                 routeOf( 101, { many, many } ),
                                 routeOf( 102, { swapVia( 33, "10.0.0.1", "i299" ) } ) } ) },
                    neighbors );
   made.apply( 0 );
   const ProgramResult result( *made.agent );
   const ResultRoute two = *result.route( RouteKey( 100 ) );
   EXPECT_EQ( two.vias.size(), maxVias );
   EXPECT_EQ( two.vias.front().interface, "i100" );
   EXPECT_EQ( two.vias.back().interface, "a" );
   EXPECT_EQ( result.route( RouteKey( 101 ) )->vias.size(), maxVias );
   EXPECT_EQ( made.forward( 102 ), "i299 label 33" );
   EXPECT_TRUE( result.summary().complete() );
}

// --- Next hops.

TEST( LabelAgent, NeighborsComeAndGo ) {
   Programmed made( { tableOf( { routeOf( 100, { swapVia( 1, "10.0.0.1", "a" ) } ),
                                 routeOf( 101, { swapVia( 1, "10.0.0.1" ) } ),
                                 routeOf( 102, { swapVia( 1, "fe80::1" ) } ) } ) },
                    {}, { .withFecs = false } );
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
   const auto randomVia = [&] {
      const bool pops = below( 4 ) == 0;
      LabelVia via;
      via.action = pops ? LabelOperation::pop : LabelOperation::swap;
      via.payload = pops ? LabelPayload::ipv4 : LabelPayload::none;
      via.outLabels.assign( pops ? 0 : 1 + ( below( 9 ) == 0 ), 100 );
      via.nextHop = below( 9 ) == 0 ? "" : "10.0.0." + std::to_string( 1 + below( 3 ) );
      via.interface = below( 3 ) == 0 && !via.nextHop.empty() ? "" : below( 2 ) ? "a" : "lo";
      return via;
   };
   const auto addVias = [&]( uint64_t count, std::vector< LabelVia >& vias ) {
      const bool foreign = count > 0 && below( 6 ) == 0;
      for ( ; count > 0; --count ) {
         vias.push_back( randomVia() );
         if ( foreign ) {
            vias.back().nextHop.clear();
            vias.back().outlet = below( 2 ) ? LabelOutlet::tunnel : LabelOutlet::nextHopGroup;
            vias.back().interface = below( 2 ) ? "x" : "y";
         }
      }
   };
   LabelTable table;
   for ( const std::string name : { "x", "y" } ) {
      for ( const auto kind : { ForeignFec::Kind::nextHopGroup, ForeignFec::Kind::tunnel,
                                ForeignFec::Kind::externalFec } ) {
         if ( below( 2 ) ) {
            table.foreignFecs.push_back( { kind, name, { randomVia() } } );
         }
      }
   }
   for ( uint32_t label = 16; label < 40; ++label ) {
      LabelRoute route{ { label }, {}, below( 12 ) == 0 ? "ends here" : "" };
      if ( !route.ignored() && below( 8 ) == 0 ) {
         route.externalFec = below( 2 ) ? "x" : "y";
      } else if ( !route.ignored() ) {
         addVias( 1 + below( 3 ), route.vias );
         if ( below( 3 ) == 0 ) { // always fit: an unfit one leaves it open what it protects
            LabelVia via = randomVia();
            via.outLabels.resize( std::min< size_t >( via.outLabels.size(), 1 ) );
            via.nextHop = "10.0.0.1";
            via.interface = below( 2 ) ? "a" : "b";
            route.backupVias.push_back( via );
         }
         route.usableAsPrimaryVias = below( 8 ) != 0;
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
      for ( const auto* const vias : { &route.vias, &route.backup } ) {
         text << " ||";
         for ( const ResultVia& via : *vias ) {
            text << " | " << textOf( via.action ) << ' ' << via.outLabels.size() << ' '
                 << via.nextHop.text() << ' ' << via.interface << via.name << ' '
                 << via.exits.size();
         }
      }
      text << '\n';
   }
   return text.str();
}

TEST( LabelAgent, HistoryLeavesNothingBehind ) {
   Random random( testSeed() );
   for ( int round = 0; round < 40; ++round ) {
      std::vector< LabelTable > tables;
      for ( int i = 0; i < 6; ++i ) {
         tables.push_back( randomTable( random ) );
      }
      tables.emplace_back(); // and everything goes
      const bool withFecs = round % 4 != 0;
      Programmed made( tables, {}, { .withFecs = withFecs } );
      std::map< std::string, Neighbor > known;
      for ( size_t i = 0; i < tables.size(); ++i ) {
         const std::string address = "10.0.0." + std::to_string( 1 + random() % 3 );
         const std::string interface = random() % 2 ? "a" : "b";
         const Neighbor neighbor =
            neighborOf( address, interface, static_cast< uint8_t >( 1 + random() % 3 ) );
         known.insert_or_assign( address + interface, neighbor );
         made.agent->l3().neighborIs( neighbor );
         made.apply( i );
         Programmed fresh( { tables[i] }, {}, { .withFecs = withFecs } );
         for ( const auto& [key, one] : known ) {
            fresh.agent->l3().neighborIs( one );
         }
         fresh.apply( 0 );
         ASSERT_EQ( everythingBut( *made.agent ), everythingBut( *fresh.agent ) );
         EXPECT_EQ( made.agent->hardware().adjacencies(), fresh.agent->hardware().adjacencies() );
         // A route stays in the FEC that it had until the next one is there.
         EXPECT_GE( made.agent->hardware().routes(), fresh.agent->hardware().routes() );
         if ( !withFecs || tables[i].routes.empty() ) {
            EXPECT_EQ( made.agent->hardware().routes(), fresh.agent->hardware().routes() );
            EXPECT_EQ( made.agent->hardware().status()->fecs(), 0U );
         }
         EXPECT_TRUE( made.agent->hardware().breaches().empty() );
      }
   }
}

} // namespace
} // namespace VelTest
