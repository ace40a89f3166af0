// The agent: what becomes of label tables in the LFIB and in the hardware, and what is said of it.

#include "tests/agent/ProgramFixtures.h"

#include <array>
#include <map>
#include <random>

#include <gmock/gmock.h>

#include "inspect/Audit.h"
#include "inspect/Explain.h"
#include "tests/Seed.h"

namespace VelTest {
namespace {

using ::testing::ElementsAre;
using ::testing::HasSubstr;

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
      false );
   made.apply( 0 );
   return made;
}

/// The same where there are FECs: what only they can do, and what they do in another way.
Programmed everyStateWithFecs() {
   const std::string definitions =
      R"("nextHopGroups":[{"name":"g1","vias":[{"action":"swap","outLabels":[500],
            "nextHop":"10.0.1.2"},{"action":"pop","tunnel":"t1"}]},
           {"name":"g2","vias":[{"action":"push","outLabels":[99],"nextHop":"10.0.1.3","interface":"eth1"}]}],
         "tunnels":[{"name":"t1","vias":[{"nextHop":"fe80::2","interface":"eth3"}]},
           {"name":"loop","vias":[{"tunnel":"loop"}]}],
         "externalFecs":[{"name":"x1","vias":[{"action":"pop","nextHop":"10.0.1.2"}]}],)";
   const std::string good = swapVia( 17, "10.0.1.2", "eth1" );
   const std::string failed = swapVia( 1, "10.0.1.3", "eth1" );
   const std::string unknown = swapVia( 1, "10.0.1.9" );
   const auto group = []( const std::string& name ) { return intoVia( "nextHopGroup", name ); };
   const auto tunnel = []( const std::string& name ) { return intoVia( "tunnel", name ); };
   Programmed made(
      { tableOf(
         { routeOf( 100, { swapVia( 18, "fe80::2" ) } ), routeOf( 101, { good, failed } ),
           routeOf( 102, { failed } ), routeOf( 103, { unknown, good, failed } ),
           routeOf( 104, { good, R"({"action":"pop","interface":"eth1"})" } ),
           routeOf( 110, { group( "g1" ) } ), routeOf( 111, { group( "g2" ) } ),
           routeOf( 112, { group( "g9" ) } ), routeOf( 113, { group( "g1" ), group( "g2" ) } ),
           routeOf( 120, { tunnel( "t1" ), tunnel( "t9" ) } ), routeOf( 121, { tunnel( "loop" ) } ),
           R"({"label":130,"externalFec":"x1"})", R"({"label":131,"externalFec":"x9"})",
           guardedRoute( 140, { good }, failed ),
           guardedRoute( 141, { failed }, swapVia( 19, "fe80::2", "eth3" ) ),
           guardedRoute( 142, { good }, failed, primariesDisabled ),
           guardedRoute( 143, { failed }, swapVia( 20, "fe80::2", "eth3" ), primariesDisabled ),
           routeOf( 144, { good }, primariesDisabled ) },
         definitions ) },
      { neighborOf( "10.0.1.2", "eth1", 2 ),
        { "10.0.1.3", "eth1", {}, false, "FAILED", 0 },
        neighborOf( "fe80::2", "eth3", 8 ),
        neighborOf( "fe80::2", "eth2", 7, 20 ) } );
   made.apply( 0 );
   return made;
}

TEST( ProgramResult, JsonAndTextOfEveryState ) {
   const auto expectGolden = []( const std::string& text, const std::string& name ) {
      std::string fault;
      const std::string path = std::string( VELMPLS_SOURCE_DIR ) + "/tests/data/" + name;
      EXPECT_EQ( text, readFile( path, fault ).value_or( fault ) );
   };
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

/// 100 and 200 leave by the neighbour 10.0.0.1 on the first interface.
Programmed twoRoutes( bool withFecs, const std::string& faults = "" ) {
   Programmed made( { tableOf( { routeOf( 100, { swapVia( 1, "10.0.0.1", "a" ) } ),
                                 routeOf( 200, { swapVia( 2, "10.0.0.1", "a" ) } ) } ) },
                    { neighborOf( "10.0.0.1", "a", 1 ) }, withFecs, faults );
   made.apply( 0 );
   return made;
}

TEST( ProgramResult, HardwareRefusesAndIsBelieved ) {
   struct Case {
      std::string faults;
      bool withFecs;
      std::string second; ///< what is said of 200; 100 is programmed
   };
   const std::string full = "unprogrammed: hardware is full: ";
   const std::string notReady = "unprogrammed: refused by hardware: InterfaceNotReady";
   for ( const Case& one : std::vector< Case >{
            { "forget label 200", false, "unprogrammed: not confirmed by hardware yet" },
            { "route-capacity 1", true, full + "routes" },
            { "route-capacity 1", false, full + "routes" },
            { "adjacency-capacity 1", true, "programmed" },
            { "adjacency-capacity 1", false, full + "adjacencies" },
            { "fec-capacity 1", true, full + "FECs" },
            { "refuse label 200", true, notReady },
            { "refuse label 200", false, notReady },
            { "late 60", true, "programmed" } } ) {
      const Programmed made = twoRoutes( one.withFecs, one.faults );
      EXPECT_EQ( made.stateOf( 100 ), "programmed" );
      EXPECT_EQ( made.stateOf( 200 ), one.second );
   }
   const Programmed made = twoRoutes( true, "not-ready eth1 until 20" );
   EXPECT_EQ( made.stateOf( 100 ), notReady ) << "of its FEC";
   made.runFor( 20 );
   EXPECT_EQ( made.stateOf( 100 ), "programmed" );
}

// --- Successive tables.

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
   const Mpls::LfibStatus& lfib = made.agent->lfib();
   const auto held = [&] {
      return std::array{ lfib.lfibRoutes(), lfib.lfibViaSets(), lfib.lfibVias(),
                         made.agent->hardware().routes(), made.agent->hardware().adjacencies() };
   };
   made.apply( 0 );
   EXPECT_THAT( held(), ElementsAre( 3, 2, 3, 3, 2 ) );
   const U64 position = lfib.ringPosition();
   made.apply( 1 );
   EXPECT_EQ( lfib.ringPosition(), position ) << "the order of vias is no change";
   made.apply( 2 );
   EXPECT_THAT( held(), ElementsAre( 1, 1, 2, 1, 1 ) );
   made.apply( 3 );
   EXPECT_THAT( held(), ElementsAre( 0, 0, 0, 0, 0 ) );
   EXPECT_EQ( made.root< VelL3Status >( "velL3Status" ).nextHopInfos(), 0U ) << "nobody asks";
   EXPECT_EQ( lfib.corruptions(), 0U );
}

TEST( LabelAgent, TablesThatWereNotPlannedForTakeTheRoomThatIsThere ) {
   const auto many = []( uint32_t count ) {
      LabelVia via;
      via.nextHop = "10.0.0.1";
      LabelTable table;
      for ( uint32_t label = 16; label < 16 + count; ++label ) {
         table.routes.push_back( { { label }, { via }, "" } );
      }
      return table;
   };
   const Programmed made( {} );
   EXPECT_EQ( made.agent->apply( many( 100 ) ), std::nullopt );
   made.settle();
   EXPECT_EQ( made.agent->lfib().lfibRoutes(), 100U );
   EXPECT_EQ( made.agent->mplsSm().mplsSmStartupStatus(), MplsSmStartupStatus::mplsSmNormal );
   EXPECT_THAT( made.agent->apply( many( 5000 ) ).value_or( "" ), HasSubstr( "no room" ) );
   EXPECT_THAT( made.agent->apply( many( 1 ) ).value_or( "" ), HasSubstr( "no room" ) );
   LabelAgent hurried( LfibPlan(), { .maxRuns = 1 } );
   EXPECT_THAT( hurried.apply( many( 1 ) ).value_or( "" ), HasSubstr( "come to rest" ) );
}

// --- What other agents have, and backups.

TEST( LabelAgent, WhatRoutesLeadIntoChangesInPlace ) {
   const auto table = []( const std::string& group ) {
      return tableOf( { routeOf( 100, { intoVia( "nextHopGroup", "g" ) } ) },
                      group.empty() ? "" : defined( "nextHopGroups", "g", group ) );
   };
   Programmed made( { table( swapVia( 1, "10.0.0.1", "a" ) ),
                      table( swapVia( 2, "10.0.0.2", "b" ) ), table( "" ) },
                    { neighborOf( "10.0.0.1", "a", 1 ), neighborOf( "10.0.0.2", "b", 2 ) } );
   made.apply( 0 );
   EXPECT_EQ( made.forward( 100 ), "a label 1" );
   const Fib::FecId fecId = made.published().route( RouteKey( 100 ) ).fecId;
   made.apply( 1 );
   EXPECT_EQ( made.forward( 100 ), "b label 2" );
   EXPECT_EQ( made.published().route( RouteKey( 100 ) ).fecId, fecId );
   made.apply( 2 );
   EXPECT_EQ( made.forward( 100 ), "drop" );
   EXPECT_EQ( made.stateOf( 100 ), "unprogrammed: next-hop group g is not there yet" );
}

TEST( LabelAgent, BackupTakesOverForLinksAndNeighbors ) {
   const auto route = []( uint32_t label, uint32_t backup ) {
      return guardedRoute( label, { swapVia( 1, "10.0.0.1" ) },
                           swapVia( backup, "10.0.0.2", "b" ) );
   };
   Programmed made( { tableOf( { route( 100, 2 ), route( 101, 44 ), route( 102, 2 ) } ) },
                    { neighborOf( "10.0.0.1", "a", 1 ), neighborOf( "10.0.0.2", "b", 2 ) } );
   made.apply( 0 );
   // Equal vias with another backup are another via set.
   EXPECT_EQ( made.agent->lfib().lfibViaSets(), 4U );
   EXPECT_EQ( made.agent->lfib().lfibVias(), 3U );
   const auto ways = [&] {
      const auto& viaSets = made.agent->lfibHwStatus().viaSet();
      int onBackup = 0;
      for ( const auto& [key, viaSet] : viaSets ) {
         onBackup += viaSet.backupActive;
      }
      return joinText( made.forward( 100 ), ", ", made.forward( 101 ), ", ", onBackup );
   };
   made.agent->hardware().linkIs( made.intf( "a" ), false );
   EXPECT_EQ( ways(), "b label 2, b label 44, 2" );
   made.agent->hardware().linkIs( made.intf( "a" ), true );
   EXPECT_EQ( ways(), "a label 1, a label 1, 0" );
   EXPECT_TRUE( made.neighborDel( "10.0.0.1", "a" ) );
   EXPECT_EQ( ways(), "b label 2, b label 44, 2" ) << "hardware is told of neighbours";
   made.settle();
   EXPECT_EQ( made.stateOf( 100 ), "partiallyProgrammed: next hop 10.0.0.1 on a is not resolved" );
}

TEST( LabelAgent, InterfacesAreFilledInAsFarAsAViaSetHasRoom ) {
   std::vector< Neighbor > neighbors{ neighborOf( "10.0.0.2", "a", 9 ) };
   for ( int i = 100; i < 300; ++i ) {
      neighbors.push_back( neighborOf( "10.0.0.1", "i" + std::to_string( i ), 1 ) );
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

// --- Whatever came before, the end is the same.

using Random = std::mt19937_64;

/// A small world, so that routes share and swap via sets all the time.
LabelTable randomTable( Random& random, bool withForeign ) {
   const std::vector< std::string > vias{
      swapVia( 100, "10.0.0.1" ),
      swapVia( 100, "10.0.0.1", "a" ),
      swapVia( 100, "10.0.0.2", "b" ),
      swapVia( 101, "10.0.0.3", "b" ),
      popVia( "10.0.0.2", "a" ),
      R"({"action":"swap","outLabels":[100,101],"nextHop":"10.0.0.1"})",
      R"({"action":"swap","outLabels":[100],"interface":"a"})" };
   const std::vector< std::string > foreignVias{ intoVia( "tunnel", "x" ),
                                                 intoVia( "nextHopGroup", "x" ) };
   // Always fit: an unfit one leaves it open what it protects.
   const std::vector< std::string > backups{ swapVia( 100, "10.0.0.1", "a" ),
                                             popVia( "10.0.0.1", "b" ) };
   const auto oneIn = [&]( size_t many ) { return random() % many == 0; };
   const auto pick = [&]( const std::vector< std::string >& from ) {
      return from[random() % from.size()];
   };
   std::string definitions;
   for ( const std::string list : { "nextHopGroups", "tunnels", "externalFecs" } ) {
      definitions += withForeign && oneIn( 2 ) ? defined( list, "x", vias[random() % 5] ) : "";
   }
   std::vector< std::string > routes;
   for ( uint32_t label = 16; label < 40; ++label ) {
      const auto& pool = withForeign && oneIn( 6 ) ? foreignVias : vias;
      std::vector< std::string > chosen{ pick( pool ) };
      while ( oneIn( 2 ) ) {
         chosen.push_back( pick( pool ) );
      }
      const std::string enabled = oneIn( 8 ) ? primariesDisabled : "";
      if ( oneIn( 12 ) ) {
         routes.push_back( joinText( R"({"label":)", label, R"(,"kind":"decapsulation"})" ) );
      } else if ( withForeign && oneIn( 8 ) ) {
         routes.push_back( joinText( R"({"label":)", label, R"(,"externalFec":"x"})" ) );
      } else if ( !oneIn( 4 ) ) {
         routes.push_back( oneIn( 3 ) ? guardedRoute( label, chosen, pick( backups ), enabled )
                                      : routeOf( label, chosen, enabled ) );
      }
   }
   return tableOf( routes, definitions );
}

/// Without what depends on what was there before: the numbers, and the ways out of what is not
/// programmed, which may be known because another route still forwards by them.
std::string routeText( const Programmed& made, uint32_t label ) {
   const ResultRoute route = *ProgramResult( *made.agent ).route( RouteKey( label ) );
   std::string text = joinText( label, " ", made.stateOf( label ) );
   const bool programmed = made.stateOf( label ).find( "unprogrammed" ) != 0;
   for ( const auto* const vias : { &route.vias, &route.backup } ) {
      for ( const ResultVia& via : *vias ) {
         text += joinText( " | ", via.action, " to ", via.nextHop, " on ", via.interface, via.name,
                           ", ways out: ", programmed ? via.exits.size() : 0 );
      }
   }
   return text;
}

TEST( LabelAgent, HistoryLeavesNothingBehind ) {
   Random random( testSeed() );
   for ( int round = 0; round < 40; ++round ) {
      const bool withFecs = round % 4 != 0;
      const bool withForeign = round % 2 == 0;
      std::vector< LabelTable > tables;
      for ( int i = 0; i < 6; ++i ) {
         tables.push_back( randomTable( random, withForeign ) );
      }
      tables.emplace_back(); // and everything goes
      Programmed made( tables, {}, withFecs );
      std::map< std::string, Neighbor > known;
      for ( size_t i = 0; i < tables.size(); ++i ) {
         Neighbor neighbor =
            neighborOf( "10.0.0." + std::to_string( 1 + random() % 3 ), random() % 2 ? "a" : "b",
                        static_cast< uint8_t >( 1 + random() % 3 ) );
         neighbor.resolved = random() % 4 != 0;
         known.insert_or_assign( neighbor.address + neighbor.interface, neighbor );
         made.agent->l3().neighborIs( neighbor );
         made.apply( i );
         Programmed fresh( { tables[i] }, {}, withFecs );
         for ( const auto& [key, one] : known ) {
            fresh.agent->l3().neighborIs( one );
         }
         fresh.apply( 0 );
         for ( const LabelRoute& route : tables[i].routes ) {
            if ( made.stateOf( route.label() ).find( "by what hardware had" ) ==
                 std::string::npos ) {
               ASSERT_EQ( routeText( made, route.label() ), routeText( fresh, route.label() ) );
            }
         }
         const LabelAgent& agent = *made.agent;
         // The via set of ignored routes stays.
         EXPECT_LE( agent.lfib().lfibViaSets(), fresh.agent->lfib().lfibViaSets() + 1 );
         // A route stays in the FEC that it had until the next one is there, and so does what the
         // FEC resolves to.
         EXPECT_GE( agent.hardware().adjacencies(), fresh.agent->hardware().adjacencies() );
         EXPECT_GE( agent.hardware().routes(), fresh.agent->hardware().routes() );
         if ( !withFecs || tables[i].routes.empty() ) {
            EXPECT_EQ( agent.hardware().adjacencies(), fresh.agent->hardware().adjacencies() );
            EXPECT_EQ( agent.hardware().routes(), fresh.agent->hardware().routes() );
            EXPECT_EQ( agent.hardware().status()->fecs(), 0U );
         }
         EXPECT_TRUE( agent.hardware().breaches().empty() );
         // The state machine gets there by events, the audit by looking: they must meet.
         ASSERT_TRUE( withForeign || Inspect::Audit( agent.entityManager() ).run().clean() );
      }
   }
}

} // namespace
} // namespace VelTest
