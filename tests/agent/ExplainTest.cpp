// Explanations: which link of a label's chain is blamed in every state that tables, neighbours and
// hardware can bring about, since when, how often it was tried, and whether the next try comes when
// it is said to.

#include "agent/ExplainPrinter.h"

#include <array>
#include <cstdio>
#include <functional>
#include <sstream>

#include <sys/wait.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "agent/ReportText.h"
#include "tests/agent/MountedRig.h"
#include "tests/agent/ProgramFixtures.h"

namespace VelTest {
namespace {

using ::testing::HasSubstr;
using ::testing::StartsWith;
using Vel::Test::swapVia;
using Vel::Test::viaSetKey;

constexpr U32 label = 16;

/// Route 16 leaves by the neighbour 10.0.0.1 on the interface 1.
class World : public MountedRig {
 public:
   explicit World( const std::string& faults = "", bool withFecs = false, size_t fecCapacity = 0 )
      : MountedRig( { .hardware = planOf( faults, fecCapacity ), .withFecs = withFecs } ) {
      viaSetIs( 1, { swapVia( 1, "10.0.0.1", 1, 100 ) } );
      routeIs( label, 1 );
   }

   void neighbor() { l3.neighborIs( "10.0.0.1", 1, 0x020000000001 ); }
   /// Works up to `seconds` after the start.
   void runUntil( double seconds ) {
      settle( start + seconds - clock->now() );
      clock->nowIs( start + seconds );
   }
   Explanation explain( U32 of = label ) const {
      return { *entities, RouteKey( of ), []( IntfId intf ) { return textOf( intf ); } };
   }
   /// The state and, when there is one, the blocker; times are seconds since the start.
   std::string verdict( U32 of = label ) const {
      const Explanation told = explain( of );
      const ChainLink* const blocker = told.blocker();
      if ( blocker == nullptr ) {
         return std::string( name( told.state() ) );
      }
      const Obstacle& against = blocker->obstacle;
      return joinText( name( told.state() ), told.inHardware() ? "+" : "", " ", blocker->name, " ",
                       timeOf( against.since ), " ", against.tries, " ",
                       against.nextTry != neverTime ? timeOf( against.nextTry )
                                                    : against.waitsFor );
   }

   U64 retried() const {
      return sm->counters()->routesRetried() + sm->counters()->adjacenciesRetried();
   }
   /// The next try that is told is the next one that comes.
   void expectNextTry( double nextTry ) {
      const U64 before = retried();
      runUntil( nextTry - start - 0.0001 );
      EXPECT_EQ( retried(), before );
      runUntil( nextTry - start + 0.0001 );
      EXPECT_GT( retried(), before );
   }

   static constexpr double start = 100.0;

 private:
   static Driver::SwitchSettings planOf( const std::string& faults, size_t fecCapacity ) {
      Driver::SwitchSettings settings;
      settings.fecCapacity = fecCapacity;
      const auto find = []( std::string_view name ) {
         return IntfId::ordinary( name == "eth1" ? 1 : 2 );
      };
      EXPECT_EQ( settings.faults.parse( faults, find ), std::nullopt );
      return settings;
   }
   static std::string timeOf( double seconds ) {
      std::array< char, 40 > text{};
      std::snprintf( text.data(), text.size(), "%.3f", seconds - start );
      return seconds == neverTime ? "?" : text.data();
   }
};

const ChainLink& linkOf( const Explanation& told, std::string_view name ) {
   const auto at = std::ranges::find( told.links(), name, &ChainLink::name );
   EXPECT_NE( at, told.links().end() ) << name;
   return *at;
}

struct Case {
   std::string faults;
   double seconds; // of work after the route was announced
   std::string verdict;
};

TEST( Explain, EveryFaultOfTheHardware ) {
   const std::string change = "a change of the route, its via set or its next hops";
   for ( const Case& one : std::vector< Case >{
            { "", 1, "programmed" },
            { "refuse label 16", 1, "unprogrammed driver 0.000 2 10.004" },
            { "refuse label 16", 12, "unprogrammed driver 0.000 3 20.005" },
            { "refuse label 16 until 5", 12, "programmed" },
            { "refuse adjacency 1", 1, "unprogrammed l2Adjacency 0.002 3 10.005" },
            { "refuse adjacency 1", 12, "unprogrammed l2Adjacency 0.002 4 20.006" },
            { "not-ready eth1", 1, "unprogrammed l2Adjacency 0.002 3 10.005" },
            { "not-ready eth1 until 5", 12, "programmed" },
            { "not-ready eth2", 1, "programmed" },
            { "refuse operation 1", 1, "programmed" }, // the adjacency, written again at once
            { "refuse operation 2; refuse operation 3 RouteFull", 1,
              "unprogrammed driver 0.000 2 10.004" },
            { "forget label 16", 50, "unprogrammed driver 0.000 1 " + change },
            { "late 100 from 0.001", 1, "unprogrammed driver 0.000 1 the driver's answer" },
            { "late 100 from 0.001", 150, "programmed" },
            { "route-capacity 1; adjacency-capacity 2", 1, "programmed" } } ) {
      SCOPED_TRACE( joinText( one.faults, " for ", one.seconds ) );
      World world( one.faults );
      world.neighbor();
      world.runUntil( one.seconds );
      EXPECT_EQ( world.verdict(), one.verdict );
      const Explanation told = world.explain();
      if ( told.blocker() && told.blocker()->obstacle.nextTry != neverTime ) {
         world.expectNextTry( told.blocker()->obstacle.nextTry );
      }
   }
}

TEST( Explain, WhoDoesNotFitIsToldWhatIsFull ) {
   const std::vector< std::array< std::string, 3 > > cases{
      { "route-capacity 1", "driver", "refused: RouteFull" },
      { "adjacency-capacity 1", "l2Adjacency", "3, refused by the driver: AdjacencyFull" } };
   for ( const auto& [faults, blocker, text] : cases ) {
      World world( faults );
      world.neighbor();
      world.viaSetIs( 2, { swapVia( 2, "10.0.0.1", 1, 200 ) } );
      world.routeIs( 17, 2 );
      world.runUntil( 1 );
      EXPECT_EQ( world.verdict( 16 ), "programmed" );
      const Explanation told = world.explain( 17 );
      ASSERT_NE( told.blocker(), nullptr );
      EXPECT_EQ( told.blocker()->name, blocker );
      EXPECT_EQ( told.blocker()->text, text );
      EXPECT_EQ( linkOf( told, "driver" ).facts["listed"], true );
   }
}

// A run that comes before the interval is over puts the retry off; the time that is told knows it.
TEST( Explain, NextTryWhenWorkComesInBetween ) {
   World world( "refuse label 16" );
   world.neighbor();
   world.runUntil( 4 );
   world.routeIs( 17, 2 ); // over a via set that does not exist
   world.poll();
   const double whileQueued = world.explain().blocker()->obstacle.nextTry;
   world.runUntil( 5 );
   const double afterwards = world.explain().blocker()->obstacle.nextTry;
   EXPECT_NEAR( whileQueued, afterwards, 0.01 );
   EXPECT_GT( afterwards, World::start + 14 );
   world.expectNextTry( afterwards );
}

TEST( Explain, NextHops ) {
   World world;
   world.viaSetIs( 1, { swapVia( 1, "10.0.0.1", 1, 100 ), swapVia( 2, "10.0.0.2", 0, 100 ),
                        swapVia( 3, "10.0.0.2", 0, 101 ) } );
   world.runUntil( 1 );
   EXPECT_EQ( world.verdict(), "unprogrammed nextHops 0.002 0 the neighbour 10.0.0.1 on " +
                                  textOf( IntfId::ordinary( 1 ) ) + " or 10.0.0.2" );
   world.neighbor();
   world.runUntil( 2 );
   EXPECT_EQ( world.verdict(), "partiallyProgrammed" );
   const ChainLink hops = linkOf( world.explain(), "nextHops" );
   EXPECT_TRUE( hops.holds && hops.degraded );
   EXPECT_EQ( hops.text, "1 of 2 resolved" );
   EXPECT_EQ( hops.details.at( 1 ), "10.0.0.2: unresolved since 100.002 s, no way to it" );
   world.l3Status->resolvedAddrIs( { world.vrf, Vel::Test::ip( "10.0.0.2" ) },
                                   { { Vel::Test::ip( "0.0.0.0" ), 0 },
                                     { { Vel::Test::ip( "10.0.0.9" ),
                                         IntfId::ordinary( 1 ),
                                         ResolvedNexthop::Type::viaRouter,
                                         { 0, IntfId::ordinary( 1 ), MacAddr( 9 ), true } } } } );
   EXPECT_THAT( linkOf( world.explain(), "nextHops" ).details.at( 1 ),
                HasSubstr( "only the default route" ) );
   world.l3.neighborIs( "10.0.0.2", 2, 0x020000000002 );
   world.runUntil( 3 );
   EXPECT_EQ( world.verdict(), "programmed" );
   // All gone, one after the other: it is blocked since the last one.
   world.l3.neighborDel( "10.0.0.1", 1 );
   world.runUntil( 4 );
   world.l3.neighborDel( "10.0.0.2", 2 );
   world.runUntil( 5 );
   EXPECT_THAT( world.verdict(), StartsWith( "unprogrammed nextHops 4.001 0 the neighbour" ) );
   EXPECT_THAT( linkOf( world.explain(), "nextHops" ).details.at( 0 ),
                HasSubstr( "since 103.001" ) );
}

TEST( Explain, LfibThatIsAbsentMissingOrNotSane ) {
   const std::string viaSetChange = "a change of the via set in the LFIB";
   World world;
   world.neighbor();
   EXPECT_EQ( world.verdict(), "unprogrammed admission ? 0 the LFIB to announce it" );
   world.poll();
   EXPECT_EQ( world.verdict(), "unprogrammed l3Adjacency 0.000 0 0.001" ) << "queued";
   EXPECT_EQ( world.verdict( 99 ), "absent lfibRoute ? 0 a route for the label in the LFIB" );
   world.routeIs( 17, 2 ); // whose via set does not exist
   world.viaSetIs( 3, {} );
   world.routeIs( 18, 3 );
   Mpls::LfibMplsVia deep = swapVia( 4, "10.0.0.1", 1, 100 );
   deep.labelStack = { 1, 2 };
   world.viaSetIs( 4, { deep } );
   world.routeIs( 19, 4 );
   world.routeIs( RouteKey( 20 ), viaSetKey( 5, Mpls::viaTypeExternalFec ) );
   world.routeIs( RouteKey( 21 ), viaSetKey( 6, Mpls::viaTypeIpLookup ) );
   world.writer.viaSetIs( Mpls::LfibViaSet( viaSetKey( 5, Mpls::viaTypeExternalFec ) ) );
   world.runUntil( 1 );
   EXPECT_EQ( world.verdict(), "programmed" );
   EXPECT_EQ( world.verdict( 17 ), "unprogrammed viaSet 0.001 0 the via set in the LFIB" );
   EXPECT_EQ( world.verdict( 18 ), "unprogrammed admission 0.001 0 " + viaSetChange );
   EXPECT_EQ( world.verdict( 19 ), "unprogrammed admission 0.000 0 " + viaSetChange );
   EXPECT_THAT( linkOf( world.explain( 19 ), "admission" ).text,
                HasSubstr( "more than one label" ) );
   EXPECT_EQ( world.verdict( 20 ), "unprogrammed admission 0.001 0 " + viaSetChange );
   EXPECT_EQ( world.verdict( 21 ), "ignored" );
   EXPECT_TRUE( world.explain( 21 ).asWanted() );
   world.viaSetIs( 1, { deep } ); // in place: what is programmed stays
   world.runUntil( 2 );
   EXPECT_EQ( world.verdict(), "unprogrammed+ admission ? 0 " + viaSetChange );
   EXPECT_TRUE( linkOf( world.explain(), "driver" ).holds );
}

TEST( Explain, StaleHardwareIsToldBelowTheBlocker ) {
   World world( "late 100 from 2" );
   world.neighbor();
   world.runUntil( 1 );
   ASSERT_EQ( world.verdict(), "programmed" );
   world.runUntil( 3 );
   world.writer.routeIs( { RouteKey( label ), viaSetKey( 1 ), 5 } ); // the metric alone
   world.runUntil( 3.5 );
   EXPECT_EQ( world.verdict(), "unprogrammed+ driver ? 1 the driver's answer" );
   world.viaSetIs( 2, { swapVia( 2, "10.0.0.1", 1, 200 ) } );
   world.routeIs( label, 2 );
   world.poll();
   EXPECT_EQ( world.verdict(), "unprogrammed+ l3Adjacency ? 0 3.501" );
   world.runUntil( 4 );
   EXPECT_EQ( world.verdict(), "unprogrammed+ driver ? 2 the driver's answer" );
   EXPECT_EQ( linkOf( world.explain(), "driver" ).text,
              "version 3 is not answered yet, 4 operations wait; version 1 is in hardware" );
   world.routeDel( label );
   world.runUntil( 5 );
   EXPECT_EQ( world.verdict(), "absent+ lfibRoute ? 0 a route for the label in the LFIB" );
   EXPECT_THAT( linkOf( world.explain(), "lfibRoute" ).text, HasSubstr( "is left" ) );
   EXPECT_THAT( linkOf( world.explain(), "driver" ).text, HasSubstr( "is still in hardware" ) );
   world.runUntil( 200 );
   EXPECT_EQ( world.verdict(), "absent lfibRoute ? 0 a route for the label in the LFIB" );
}

TEST( Explain, LabelForwardingSwitchedOff ) {
   World world;
   world.neighbor();
   world.runUntil( 1 );
   world.status()->mplsRoutingIs( false );
   EXPECT_EQ( world.verdict(),
              "unprogrammed hwConfig ? 0 the driver to switch label forwarding on" );
   world.status()->mplsRoutingIs( true );
   world.runUntil( 2 );
   world.routingInfo->mplsRoutingIs( world.vrf, false );
   EXPECT_EQ( world.verdict(), "unprogrammed+ admission ? 0 label forwarding to be switched on" );
   world.runUntil( 3 );
   EXPECT_EQ( world.verdict(), "unprogrammed admission ? 0 label forwarding to be switched on" );
   EXPECT_THAT( linkOf( world.explain(), "hwConfig" ).text, HasSubstr( "off" ) );
}

// Its vias never change, so that the version before forwards as well.
TEST( Explain, RefusedAdjacencyThatIsInHardwareForwards ) {
   World world( "refuse adjacency 1 from 2" );
   world.neighbor();
   world.runUntil( 3 );
   Mpls::LfibMplsVia found = swapVia( 2, "10.0.0.1", 0, 100 ); // by the route resolver: the same
   world.viaSetIs( 2, { found } );
   world.routeIs( 17, 2 );
   world.runUntil( 4 );
   const Explanation told = world.explain();
   EXPECT_EQ( told.state(), ExplainState::programmed );
   EXPECT_TRUE( linkOf( told, "l2Adjacency" ).degraded );
   EXPECT_THAT( linkOf( told, "l2Adjacency" ).text, HasSubstr( "InterfaceNotReady; version 1" ) );
   EXPECT_TRUE( linkOf( told, "driver" ).degraded );
}

// --- Hardware with FECs.

struct FecCase {
   std::string what;
   std::function< void( World& ) > make; // behind which it works for a second
   std::string verdict;                  // of route 16: state, blocker, what it waits for
   std::string link;
   std::string text; // part of that link's
   std::string faults{};
   size_t fecCapacity = 0;
};

Fib::FecId externalFec() {
   return Fib::FecId( U64{ 7 } << 56 | 5 );
}
Fib::FecVia out( U32 intf ) {
   Fib::FecVia via;
   via.nextHop = Vel::Test::ip( joinText( "10.0.0.", intf ) );
   via.intf = IntfId::ordinary( intf );
   return via;
}
void fill( World& world ) { // the only FEC that there is room for
   world.viaSetIs( 9, MountedRig::swapOut( 9, 2 ) );
   world.routeDel( label );
   world.routeIs( 99, 9 );
   world.settle();
   world.routeIs( label, 1 );
}
void protect( World& world ) {
   world.protectedIs( 1, MountedRig::swapOut( 1, 1 ), 2 );
   world.viaSetIs( 2, MountedRig::swapOut( 2, 2 ) );
   world.settle();
}
void external( World& world, bool there ) {
   world.externalIs( label, externalFec() );
   if ( there ) {
      world.hardware->fecUnit()->foreignFecIs( externalFec(), { out( 1 ) } );
      world.settle();
   }
}

TEST( Explain, EveryStateOfAFec ) {
   const std::string answer = "the hardware layer's answer to the request for the FEC";
   const std::string owner = "the agent that owns FEC 7:5 to make it known";
   const std::string second = "ldp/viaTypeMplsIp/unicast/2";
   const auto nothing = []( World& ) {};
   for ( const FecCase& one : std::vector< FecCase >{
            { "all is well", nothing, "programmed", "fec", "10:0, hardware id 1" },
            { "not answered", nothing, "unprogrammed fec: " + answer, "fec",
              "10:0, not answered yet", "late 100" },
            { "no room", fill, "unprogrammed fec: room for another FEC in the hardware", "fec",
              ", not answered yet: AdjacencyFull", "", 1 },
            { "not ready", nothing, "unprogrammed fec: an interface of its vias to become ready",
              "fec", ", not answered yet: InterfaceNotReady", "not-ready eth1" },
            { "refused", nothing, "unprogrammed driver: ", "driver", "refused: InterfaceNotReady",
              "refuse label 16" },
            { "no next hop", []( World& world ) { world.l3.neighborDel( "10.0.0.1", 1 ); },
              "unprogrammed+ nextHops: the neighbour 10.0.0.1 on " +
                 textOf( IntfId::ordinary( 1 ) ),
              "nextHops", "0 of 1 resolved" },
            { "the backup is missing",
              []( World& world ) { world.protectedIs( 1, MountedRig::swapOut( 1, 1 ), 2 ); },
              "unprogrammed l3Adjacency: the via set " + second + " in the LFIB", "l3Adjacency",
              "waits for its backup: backup viaSet idx 2" },
            { "the backup of a backup does not protect",
              []( World& world ) {
                 world.protectedIs( 1, MountedRig::swapOut( 1, 1 ), 2 );
                 world.protectedIs( 2, MountedRig::swapOut( 2, 2 ), 3 );
                 world.viaSetIs( 3, MountedRig::swapOut( 3, 3 ) );
              },
              "programmed", "fec", ", not protected: viaSet idx 2 with backup viaSet idx 3" },
            { "two that protect each other",
              []( World& world ) {
                 world.routeIs( 17, 2 );
                 world.protectedIs( 1, MountedRig::swapOut( 1, 1 ), 2 );
                 world.protectedIs( 2, MountedRig::swapOut( 2, 2 ), 1 );
              },
              "unprogrammed l3Adjacency: the via set " + second + " to lose its own backup",
              "l3Adjacency", "waits for its backup: " },
            { "in order", protect, "programmed", "fec", ", hardware id " },
            { "the backup is in use",
              []( World& world ) {
                 protect( world );
                 world.linkIs( 1, false );
              },
              "partiallyProgrammed", "fec", ", leaves by its backup" },
            { "the backup is in use for want of a next hop",
              []( World& world ) {
                 protect( world );
                 world.l3.neighborDel( "10.0.0.1", 1 );
                 world.hardware->fecUnit()->reportStates();
              },
              "partiallyProgrammed", "nextHops", "0 of 1 resolved; the backup is in use" },
            { "neither its own vias nor a backup",
              []( World& world ) {
                 Mpls::LfibViaSet viaSet( viaSetKey( 1 ) );
                 viaSet.viaKeyAdd( Vel::Test::viaKey( 1 ) );
                 viaSet.usableAsPrimaryViasIs( false );
                 world.writer.viaSetIs( viaSet );
              },
              "unprogrammed+ fec: a backup, or the leave to use its own vias", "fec",
              ": its vias are disabled, and it has no backup" },
            { "both are down",
              []( World& world ) {
                 protect( world );
                 world.linkIs( 1, false );
                 world.linkIs( 2, false );
              },
              "unprogrammed+ fec: a link or a neighbour of its vias or of its backup", "fec",
              "neither its vias nor its backup lead out" },
            { "another agent's, not there yet", []( World& world ) { external( world, false ); },
              "unprogrammed fec: " + owner, "fec", "7:5, of another agent, not there yet" },
            { "another agent's", []( World& world ) { external( world, true ); }, "programmed",
              "nextHops", "the other agent's" },
            { "another agent's, vanished",
              []( World& world ) {
                 external( world, true );
                 world.hardware->fecUnit()->foreignFecDel( externalFec() );
              },
              "unprogrammed fec: " + owner, "fec", "7:5, of another agent, not there yet" },
            { "no room for the FEC of another family, the route stays",
              []( World& world ) {
                 world.settle();
                 world.l3.neighborIs( "fe80::1", 1, 9 );
                 world.viaSetIs( 1, { swapVia( 3, "fe80::1", 1, 100 ) } );
              },
              "partiallyProgrammed", "fec", "; the route stays in FEC 10:0", "", 1 } } ) {
      SCOPED_TRACE( one.what );
      World world( one.faults, true, one.fecCapacity );
      world.neighbors( 3 );
      one.make( world );
      world.settle();
      const Explanation told = world.explain();
      const ChainLink* const blocker = told.blocker();
      EXPECT_EQ( joinText( name( told.state() ), told.inHardware() && blocker ? "+" : "",
                           blocker
                              ? joinText( " ", blocker->name, ": ", blocker->obstacle.waitsFor )
                              : "" ),
                 one.verdict );
      EXPECT_THAT( linkOf( told, one.link ).text, HasSubstr( one.text ) );
      // The L2 adjacency is information: the route does not use it.
      EXPECT_TRUE( linkOf( told, "l2Adjacency" ).holds || told.blocker()->name == "l3Adjacency" );
      if ( told.state() == ExplainState::partiallyProgrammed ) {
         EXPECT_TRUE( linkOf( told, one.link ).degraded );
      }
   }
}

TEST( Explain, FecLinkTellsWhatIsInTheFec ) {
   World world( "", true );
   world.neighbors( 2 );
   const auto pop = []( U32 via, U32 intf ) {
      Mpls::LfibMplsVia made = MountedRig::swapOut( via, intf ).front();
      made.labelAction = MplsLabelAction::pop;
      made.labelStack = {};
      made.payloadType = Mpls::PayloadType::ipv4;
      return std::vector{ made };
   };
   world.protectedIs( 1, pop( 1, 1 ), 2 );
   world.viaSetIs( 2, pop( 2, 2 ) );
   world.settle();
   const ChainLink fec = linkOf( world.explain(), "fec" );
   const std::string backup = fecIdText( world.l3Adj( 2 )->extFecInfo()->fecId() );
   EXPECT_EQ( fec.facts["fecId"], fecIdText( world.l3Adj( 1 )->extFecInfo()->fecId() ) );
   EXPECT_EQ( fec.facts["backupFecId"], backup );
   EXPECT_EQ( fec.facts["popWithRoute"], true );
   EXPECT_EQ( fec.facts["backupState"], "primaryActive" );
   EXPECT_THAT( fec.details, testing::Contains( HasSubstr( "10.0.0.1 on " ) ) );
   EXPECT_THAT( fec.details, testing::Contains( HasSubstr( "backup FEC " + backup ) ) );
   EXPECT_THAT( fec.details, testing::Contains( HasSubstr( "the pop is in the route" ) ) );
   EXPECT_THAT( fec.details, testing::Contains( HasSubstr( ", primaryActive" ) ) );
}

TEST( Explain, RefusedRouteIntoAFecIsTriedWhenItIsSaid ) {
   World world( "not-ready eth1 until 5; refuse label 16 from 4 until 8", true );
   world.neighbor();
   world.runUntil( 6 );
   EXPECT_THAT( world.verdict(), StartsWith( "unprogrammed driver 0.000" ) );
   EXPECT_NE( linkOf( world.explain(), "fec" ).facts["hwId"], 0 );
   world.expectNextTry( world.explain().blocker()->obstacle.nextTry );
   world.runUntil( 40 );
   EXPECT_EQ( world.verdict(), "programmed" );
   EXPECT_TRUE( world.explain().inHardware() );
}

TEST( Explain, SaysWhatIsNotMounted ) {
   World world;
   world.entities->rootIs( "softwareSwitch", nullptr );
   world.entities->rootIs( "velL3Status", nullptr );
   world.runUntil( 1 );
   EXPECT_THAT( world.verdict(), StartsWith( "unprogrammed nextHops" ) ) << "another driver";
   world.entities->rootIs( "mplsHwStatus", nullptr );
   EXPECT_THAT( world.explain().fault(), HasSubstr( "mplsHwStatus" ) );
   std::ostringstream text;
   EXPECT_TRUE( printText( text, world.explain() ) && printJson( text, world.explain() ) );
   EXPECT_THAT( text.str(), HasSubstr( "no \"mplsHwStatus\" is mounted" ) );
}

// Two readers of the same entities: `program` believes the switch's tables, this the reports.
TEST( Explain, AgreesWithTheProgramResult ) {
   for ( const std::string faults :
         { "", "refuse label 16003", "forget label 16004; not-ready to-seattle",
           "adjacency-capacity 4", "route-capacity 4; late 3" } ) {
      for ( const bool withFecs : { false, true } ) {
         LabelAgentSettings settings;
         settings.withFecs = withFecs;
         ASSERT_EQ( settings.hardware.faults.parse(
                       faults, []( std::string_view ) { return IntfId::ordinary( 1 ); } ),
                    std::nullopt );
         Programmed made( { loadLabelTable( examplePath( "labels" ) ),
                            loadLabelTable( examplePath( "labels-link-down" ) ) },
                          {}, settings );
         NeighborTable neighbors = loadNeighborTable( examplePath( "neighbors" ) );
         neighbors.neighbors.pop_back();
         made.agent->neighborsAre( neighbors );
         for ( size_t table = 0; table < 2; ++table ) {
            made.apply( table );
            const ProgramResult result( *made.agent );
            ASSERT_NE( result.routes(), 0U );
            for ( size_t i = 0; i < result.routes(); ++i ) {
               const Explanation told( made.agent->entityManager(), result.key( i ),
                                       []( IntfId intf ) { return textOf( intf ); } );
               EXPECT_EQ( name( told.state() ), name( result.state( i ) ) )
                  << textOf( result.key( i ) ) << ' ' << faults << ' ' << withFecs;
            }
         }
      }
   }
}

// --- What people and programs read.

TEST( Explain, TextAndJsonOfAChain ) {
   World world( "not-ready eth1" );
   world.neighbor();
   world.runUntil( 12.5 );
   std::ostringstream text;
   EXPECT_TRUE( printText( text, world.explain() ) );
   EXPECT_EQ( text.str(), R"(label 16: unprogrammed at 112.500 s, blocked at: L2 adjacency

    LFIB route     ok    in the LFIB, metric 0
    via set        ok    ldp/viaTypeMplsIp/unicast/1, 1 via
    admission      ok    accepted: viaTypeMplsIp, vias are sane
    L3 adjacency   ok    0, of 1 route
    next hops      ok    1 of 1 resolved
                         10.0.0.1 on intf1 -> intf1 02:00:00:00:00:01
=>  L2 adjacency   NO    BLOCKER: 1, refused by the driver: InterfaceNotReady
                         swap 100, intf1 02:00:00:00:00:01
                         since  100.002 s (12.498 s ago)
                         tried  4 times
                         next   at 120.006 s (in 7.506 s)
    configuration  ok    label forwarding is on; route version 4, adjacency version 4 written
    driver         NO    refused: InterfaceNotReady
    published      NO    notProgrammed, L3 adjacency 0
)" );
   std::ostringstream json;
   EXPECT_TRUE( printJson( json, world.explain() ) );
   const auto read = nlohmann::json::parse( json.str() );
   EXPECT_EQ( read["blocker"], "l2Adjacency" );
   const auto& link = read["links"][5];
   EXPECT_EQ( link["blocker"], true );
   EXPECT_EQ( link["tries"], 4 );
   EXPECT_NEAR( link["sinceSeconds"], 100.002, 1e-6 );
   EXPECT_NEAR( link["nextTrySeconds"], 120.006, 1e-6 );
   EXPECT_EQ( link["waitsFor"], nullptr );
   EXPECT_FALSE( read["links"][4].contains( "blocker" ) );
}

TEST( Explain, CommandEndsWithAStatusForTheLabelAlone ) {
   const std::string tables =
      " --lfib " + examplePath( "labels" ) + " --neighbors " + examplePath( "neighbors" );
   const std::vector< std::pair< std::string, int > > cases{
      { "16001", 0 },
      { "16001 --fault 'refuse label 16002'", 0 },
      { "16002 --fault 'refuse label 16002' --format json", 3 },
      { "15", 3 },
      { "16001/1048576", 2 },
      { "none", 2 },
      { "", 2 },
      { "16001 --format xml", 2 },
      { "16001 > /dev/full", 2 } };
   for ( const auto& [arguments, status] : cases ) {
      const std::string command =
         joinText( "'", VELMPLS_PROGRAM, "' explain", tables, " > /dev/null 2>&1 ", arguments );
      const int ended = std::system( command.c_str() ); // NOLINT: a shell is what people use
      EXPECT_EQ( WIFEXITED( ended ) ? WEXITSTATUS( ended ) : -1, status ) << arguments;
   }
   // The label table's own reason for what it does not want forwarded.
   Programmed made( { tableOf( { R"({"label":16071,"kind":"decapsulation"})" } ) } );
   made.apply( 0 );
   const RouteKey key( 16071 );
   const Explanation told(
      made.agent->entityManager(), key, []( IntfId intf ) { return textOf( intf ); },
      made.agent->ignoredReason( key ) );
   EXPECT_EQ( told.state(), ExplainState::ignored );
   EXPECT_EQ( told.blocker(), nullptr );
   EXPECT_THAT( told.links().front().text, HasSubstr( "a decapsulation route ends here" ) );
}

} // namespace
} // namespace VelTest
