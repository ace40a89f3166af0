// Explanations: which link of a label's chain is blamed in every state that tables, neighbours and
// hardware can bring about, since when, how often it was tried, and whether the next try comes when
// it is said to.

#include "agent/report/ExplainPrinter.h"

#include <array>
#include <cstdio>

#include <gmock/gmock.h>
#include <nlohmann/json.hpp>

#include "inspect/Audit.h"
#include "tests/agent/ProgramFixtures.h"

namespace VelTest {
namespace {

using namespace Vel::Inspect;

using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::StartsWith;
using Vel::Test::swapVia;

constexpr U32 label = 16;

/// A state machine that no LabelAgent has made, with all that is asked of it mounted: here the LFIB
/// can hold what no label table says. Route 16 leaves by 10.0.0.1 on the interface 1.
class World : public Vel::Test::LabelRig {
 public:
   explicit World( const std::string& faults = "", bool withFecs = false )
      : LabelRig( { .hardware = hardwareWith( faults ), .withFecs = withFecs } ) {
      entities->rootIs( "clock", clock );
      entities->rootIs( "mplsSm", sm );
      entities->rootIs( "transitLfib", lfib );
      entities->rootIs( "lfibHwStatus", lfibHwStatus );
      entities->rootIs( "routingHwMplsStatus", hwMplsStatus );
      entities->rootIs( "routingHwRouteStatus", routeStatus );
      entities->rootIs( "mplsRoutingInfo", routingInfo );
      entities->rootIs( "mplsHwConfig", hwConfig );
      entities->rootIs( "mplsHwStatus", hwStatus );
      entities->rootIs( "velL3Status", l3Status );
      entities->rootIs( "proactiveArpNexthopSm", l3.arp );
      entities->rootIs( "routeReactorConfig", l3.resolver );
      entities->rootIs( "route6ReactorConfig", l3.resolver6 );
      entities->rootIs( "mplsHwInsight", hardware->status() );
      if ( withFecs ) {
         entities->rootIs( "hwFecIdRequest", fecRequest );
         entities->rootIs( "hwFecIdResponse", fecResponse );
      }
      pathIs( 1 );
      routeIs( label, 1 );
   }
   ~World() { entities->rootIs( "mplsSm", nullptr ); }

   void viaSetIs( U32 index, const std::vector< Mpls::LfibMplsVia >& vias, U32 backup = 0,
                  bool usableAsPrimaryVias = true ) {
      Mpls::LfibViaSet viaSet( viaSetKey( index ) );
      for ( const Mpls::LfibMplsVia& via : vias ) {
         writer.mplsViaIs( via );
         viaSet.viaKeyAdd( via.key );
      }
      if ( backup != 0 ) {
         viaSet.backupViaSetKeyIs( viaSetKey( backup ) );
      }
      viaSet.usableAsPrimaryViasIs( usableAsPrimaryVias );
      writer.viaSetIs( viaSet );
   }
   static Mpls::LfibMplsVia viaOut( U32 intf ) {
      return swapVia( intf, joinText( "10.0.0.", intf ), intf, 100 * intf );
   }
   /// Via set N swaps to 10.0.0.N on the interface N; `backup`: the via set that protects it.
   void pathIs( U32 index, U32 backup = 0 ) { viaSetIs( index, { viaOut( index ) }, backup ); }
   /// 10.0.0.N answers on the interface N, for N from 1 to `count`.
   void neighbors( U32 count ) {
      for ( U32 intf = 1; intf <= count; ++intf ) {
         l3.neighborIs( joinText( "10.0.0.", intf ), intf, 0x020000000000 + intf );
      }
   }
   void linkDown( U32 intf ) const { hardware->linkIs( IntfId::ordinary( intf ), false ); }

   /// Works up to `seconds` after the start.
   void runUntil( double seconds ) {
      settle( start + seconds - clock->now() );
      clock->nowIs( start + seconds );
   }
   Explanation explain( U32 of = label ) const {
      return { *entities, RouteKey( of ), []( IntfId intf ) { return textOf( intf ); } };
   }
   ChainLink link( std::string_view name, U32 of = label ) const {
      const Explanation told = explain( of );
      const auto at = std::ranges::find( told.links(), name, &ChainLink::name );
      EXPECT_NE( at, told.links().end() ) << name;
      return at != told.links().end() ? *at : ChainLink( name, "" );
   }
   /// The state and, when there is one, the blocker; times are seconds since the start.
   std::string verdict( U32 of = label ) const {
      const Explanation told = explain( of );
      const ChainLink* const blocker = told.blocker();
      if ( blocker == nullptr ) {
         return textOf( told.state() );
      }
      const Obstacle& against = blocker->obstacle;
      return joinText( told.state(), told.inHardware() ? "+" : "", " ", blocker->name, " ",
                       timeOf( against.since ), " ", against.tries, " ",
                       against.nextTry != neverTime ? timeOf( against.nextTry )
                                                    : against.waitsFor );
   }
   /// The next try that is told is the next one that comes. Its time.
   double expectNextTry() {
      const double nextTry = explain().blocker()->obstacle.nextTry;
      const auto retried = [&] {
         return sm->counters()->routesRetried() + sm->counters()->adjacenciesRetried();
      };
      const U64 before = retried();
      runUntil( nextTry - start - 0.0001 );
      EXPECT_EQ( retried(), before );
      runUntil( nextTry - start + 0.0001 );
      EXPECT_GT( retried(), before );
      return nextTry;
   }

   static constexpr double start = 100.0;

 private:
   static std::string timeOf( double seconds ) {
      std::array< char, 40 > text{};
      std::snprintf( text.data(), text.size(), "%.3f", seconds - start );
      return seconds == neverTime ? "?" : text.data();
   }
};

TEST( Explain, EveryFaultOfTheHardware ) {
   struct Case {
      std::string faults;
      double seconds; ///< of work after the route was announced
      std::string verdict;
   };
   const std::string change = "a change of the route, its via set or its next hops";
   for ( const Case& one : std::vector< Case >{
            { "", 1, "programmed" },
            { "refuse label 16", 1, "unprogrammed driver 0.000 2 10.004" },
            { "refuse label 16", 12, "unprogrammed driver 0.000 3 20.005" },
            { "refuse label 16 until 5", 12, "programmed" },
            { "refuse adjacency 1", 1, "unprogrammed l2Adjacency 0.002 3 10.005" },
            { "refuse adjacency 1", 12, "unprogrammed l2Adjacency 0.002 4 20.006" },
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
      world.neighbors( 1 );
      world.runUntil( one.seconds );
      EXPECT_EQ( world.verdict(), one.verdict );
      const Explanation told = world.explain();
      if ( told.blocker() && told.blocker()->obstacle.nextTry != neverTime ) {
         world.expectNextTry();
      }
   }
}

TEST( Explain, WhoDoesNotFitIsToldWhatIsFull ) {
   const std::vector< std::pair< std::string, std::string > > cases{
      { "route-capacity 1", "refused: RouteFull" },
      { "adjacency-capacity 1", "3, refused by the driver: AdjacencyFull" } };
   for ( const auto& [faults, text] : cases ) {
      World world( faults );
      world.neighbors( 2 );
      world.pathIs( 2 );
      world.routeIs( 17, 2 );
      world.runUntil( 1 );
      EXPECT_EQ( world.verdict( 16 ), "programmed" );
      EXPECT_EQ( world.explain( 17 ).blocker()->text, text );
      EXPECT_EQ( world.link( "driver", 17 ).facts["listed"], true );
   }
}

// A run that comes before the interval is over puts the retry off; the time that is told knows it.
TEST( Explain, NextTryWhenWorkComesInBetween ) {
   World world( "refuse label 16" );
   world.neighbors( 1 );
   world.runUntil( 4 );
   world.routeIs( 17, 2 ); // over a via set that does not exist
   world.poll();
   const double whileQueued = world.explain().blocker()->obstacle.nextTry;
   world.runUntil( 5 );
   const double afterwards = world.expectNextTry();
   EXPECT_NEAR( whileQueued, afterwards, 0.01 );
   EXPECT_GT( afterwards, World::start + 14 );
}

TEST( Explain, NextHops ) {
   World world;
   world.viaSetIs( 1, { swapVia( 1, "10.0.0.1", 1, 100 ), swapVia( 2, "10.0.0.2", 0, 100 ),
                        swapVia( 3, "10.0.0.2", 0, 101 ) } );
   world.runUntil( 1 );
   EXPECT_EQ( world.verdict(),
              "unprogrammed nextHops 0.002 0 the neighbour 10.0.0.1 on intf1 or 10.0.0.2" );
   world.neighbors( 1 );
   world.runUntil( 2 );
   EXPECT_EQ( world.verdict(), "partiallyProgrammed" );
   const ChainLink hops = world.link( "nextHops" );
   EXPECT_TRUE( hops.holds && hops.degraded );
   EXPECT_EQ( hops.text, "1 of 2 resolved" );
   EXPECT_EQ( hops.details.at( 1 ), "10.0.0.2: unresolved since 100.002 s, no way to it" );
   const IntfId first = IntfId::ordinary( 1 );
   world.l3Status->resolvedAddrIs( { world.vrf, ip( "10.0.0.2" ) },
                                   { { ip( "0.0.0.0" ), 0 },
                                     { { ip( "10.0.0.9" ),
                                         first,
                                         ResolvedNexthop::Type::viaRouter,
                                         { 0, first, MacAddr( 9 ), true } } } } );
   EXPECT_THAT( world.link( "nextHops" ).details.at( 1 ), HasSubstr( "only the default route" ) );
   world.l3.neighborIs( "10.0.0.2", 2, 0x020000000002 );
   world.runUntil( 3 );
   EXPECT_EQ( world.verdict(), "programmed" );
   // All gone, one after the other: it is blocked since the last one.
   world.l3.neighborDel( "10.0.0.1", 1 );
   world.runUntil( 4 );
   world.l3.neighborDel( "10.0.0.2", 2 );
   world.runUntil( 5 );
   EXPECT_THAT( world.verdict(), StartsWith( "unprogrammed nextHops 4.001 0 the neighbour" ) );
   EXPECT_THAT( world.link( "nextHops" ).details.at( 0 ), HasSubstr( "since 103.001" ) );
}

TEST( Explain, LfibThatIsAbsentMissingOrNotSane ) {
   const std::string viaSetChange = "a change of the via set in the LFIB";
   World world;
   world.neighbors( 1 );
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
   world.writer.routeIs( { RouteKey( 21 ), viaSetKey( 6, Mpls::viaTypeIpLookup ), 0 } );
   world.runUntil( 1 );
   EXPECT_EQ( world.verdict(), "programmed" );
   EXPECT_EQ( world.verdict( 17 ), "unprogrammed viaSet 0.001 0 the via set in the LFIB" );
   EXPECT_EQ( world.verdict( 18 ), "unprogrammed admission 0.001 0 " + viaSetChange );
   EXPECT_EQ( world.verdict( 19 ), "unprogrammed admission 0.000 0 " + viaSetChange );
   EXPECT_THAT( world.link( "admission", 19 ).text, HasSubstr( "more than one label" ) );
   EXPECT_EQ( world.verdict( 21 ), "ignored" );
   EXPECT_TRUE( world.explain( 21 ).asWanted() );
   world.viaSetIs( 1, { deep } ); // in place: what is programmed stays
   world.runUntil( 2 );
   EXPECT_EQ( world.verdict(), "partiallyProgrammed+ admission ? 0 " + viaSetChange );
   EXPECT_TRUE( world.link( "driver" ).holds );
}

TEST( Explain, StaleHardwareIsToldBelowTheBlocker ) {
   World world( "late 100 from 2" );
   world.neighbors( 1 );
   world.runUntil( 1 );
   ASSERT_EQ( world.verdict(), "programmed" );
   world.runUntil( 3 );
   world.writer.routeIs( { RouteKey( label ), viaSetKey( 1 ), 5 } ); // the metric alone
   world.runUntil( 3.5 );
   EXPECT_EQ( world.verdict(), "programmed+ driver ? 1 the driver's answer" );
   world.viaSetIs( 2, { swapVia( 2, "10.0.0.1", 1, 200 ) } );
   world.routeIs( label, 2 );
   world.poll();
   EXPECT_EQ( world.verdict(), "partiallyProgrammed+ l3Adjacency ? 0 3.501" );
   world.runUntil( 4 );
   EXPECT_EQ( world.verdict(), "partiallyProgrammed+ driver ? 2 the driver's answer" );
   EXPECT_EQ( world.link( "driver" ).text,
              "version 3 is not answered yet, 4 operations wait; version 1 is in hardware" );
   world.routeDel( label );
   world.runUntil( 5 );
   EXPECT_EQ( world.verdict(), "absent+ lfibRoute ? 0 a route for the label in the LFIB" );
   EXPECT_THAT( world.link( "lfibRoute" ).text, HasSubstr( "is left" ) );
   EXPECT_THAT( world.link( "driver" ).text, HasSubstr( "is still in hardware" ) );
   world.runUntil( 200 );
   EXPECT_EQ( world.verdict(), "absent lfibRoute ? 0 a route for the label in the LFIB" );
}

TEST( Explain, LabelForwardingSwitchedOff ) {
   World world;
   world.neighbors( 1 );
   world.runUntil( 1 );
   world.status()->mplsRoutingIs( false );
   EXPECT_EQ( world.verdict(),
              "unprogrammed hwConfig ? 0 the driver to switch label forwarding on" );
   world.status()->mplsRoutingIs( true );
   world.runUntil( 2 );
   world.routingInfo->mplsRoutingIs( world.vrf, false );
   EXPECT_EQ( world.verdict(),
              "partiallyProgrammed+ admission ? 0 label forwarding to be switched on" );
   world.runUntil( 3 );
   EXPECT_EQ( world.verdict(), "unprogrammed admission ? 0 label forwarding to be switched on" );
   EXPECT_THAT( world.link( "hwConfig" ).text, HasSubstr( "off" ) );
}

// Its vias never change, so that the version before forwards as well.
TEST( Explain, RefusedAdjacencyThatIsInHardwareForwards ) {
   World world( "refuse adjacency 1 from 2" );
   world.neighbors( 1 );
   world.runUntil( 3 );
   world.viaSetIs( 2, { swapVia( 2, "10.0.0.1", 0, 100 ) } ); // by the route resolver: the same
   world.routeIs( 17, 2 );
   world.runUntil( 4 );
   EXPECT_EQ( world.verdict(), "programmed" );
   EXPECT_TRUE( world.link( "l2Adjacency" ).degraded );
   EXPECT_THAT( world.link( "l2Adjacency" ).text, HasSubstr( "InterfaceNotReady; version 1" ) );
   EXPECT_TRUE( world.link( "driver" ).degraded );
}

// --- Hardware with FECs.

/// Three neighbours, and the route into a FEC.
class FecWorld : public World {
 public:
   explicit FecWorld( const std::string& faults = "" ) : World( faults, true ) { neighbors( 3 ); }
   void protect() {
      pathIs( 1, 2 );
      pathIs( 2 );
      settle();
   }
   /// What is told, and what the audit finds first, a second later: parts of them.
   void expect( const std::string& told, const std::string& audit = "clean" ) {
      settle();
      EXPECT_THAT( this->told(), HasSubstr( told ) );
      EXPECT_THAT( audited(), HasSubstr( audit ) );
      // The L2 adjacency is information: the route does not use it.
      EXPECT_TRUE( link( "l2Adjacency" ).holds || explain().blocker()->name == "l3Adjacency" );
   }

 private:
   /// Of the blocker, else of the first link that is degraded, else of the FEC.
   std::string told() const {
      const Explanation now = explain();
      const std::string state = textOf( now.state() );
      if ( const ChainLink* const blocker = now.blocker() ) {
         return joinText( state, now.inHardware() ? "+ " : " ", blocker->name, " ", blocker->text,
                          "; waits for ", blocker->obstacle.waitsFor );
      }
      const auto degraded = std::ranges::find( now.links(), true, &ChainLink::degraded );
      return degraded == now.links().end()
                ? joinText( state, " ", link( "fec" ).text )
                : joinText( state, " ", degraded->name, " ", degraded->text );
   }
   std::string audited() const {
      const AuditReport report = Audit( *entities ).run();
      if ( report.differences.empty() ) {
         return "clean";
      }
      const AuditFinding& first = report.differences.front();
      return joinText( first.label, " ", first.stage, ": ", first.expected, " / ", first.found );
   }
};

TEST( Explain, FecThatHardwareHasNotGot ) {
   FecWorld().expect( "programmed 10:0, hardware id 1" );
   FecWorld( "late 100" )
      .expect( "unprogrammed fec 10:0, not answered yet; waits for the hardware layer's answer" );
   FecWorld( "not-ready eth1" )
      .expect( "not answered yet: InterfaceNotReady; waits for an interface of its vias to become",
               "no answer for FEC 10:0, refused: InterfaceNotReady" );

   FecWorld full( "fec-capacity 1" );
   full.viaSetIs( 9, { swapVia( 9, "10.0.0.2", 2, 200 ) } );
   full.routeDel( label );
   full.routeIs( 99, 9 );
   full.settle();
   full.routeIs( label, 1 );
   full.expect(
      "unprogrammed fec 10:1, not answered yet: AdjacencyFull; waits for room for another",
      "16 written -> reported: a route into FEC 10:1 / no answer for FEC 10:1, refused: " );

   FecWorld otherFamily( "fec-capacity 1" );
   otherFamily.settle();
   otherFamily.l3.neighborIs( "fe80::1", 1, 9 );
   otherFamily.viaSetIs( 1, { swapVia( 3, "fe80::1", 1, 100 ) } );
   otherFamily.expect( "programmed 11:1, hardware id 1" ); // in the place of the one before it

   FecWorld leavesOthers( "fec-capacity 1" );
   leavesOthers.routeIs( 99, 1 );
   leavesOthers.settle();
   leavesOthers.viaSetIs( 9, { swapVia( 9, "10.0.0.1", 1, 200 ) } );
   leavesOthers.routeIs( label, 9 );
   leavesOthers.expect(
      "partiallyProgrammed fec 10:1, not answered yet: AdjacencyFull; the route stays in FEC 10:0, "
      "waiting for room for another FEC in the hardware, or for the others in FEC 10:0, which is "
      "still wanted, to leave it",
      "refused: AdjacencyFull, a route into FEC 10:0 stays" );

   FecWorld behind( "not-ready eth2" );
   behind.viaSetIs( 9, { swapVia( 9, "10.0.0.1", 1, 200 ) } );
   behind.routeIs( 99, 9 );
   behind.settle();
   behind.viaSetIs( 9, { swapVia( 9, "10.0.0.2", 2, 200 ) } );
   behind.settle();
   behind.routeIs( label, 9 ); // it stays where it is, and nobody counts that as a lack of room
   const std::string notYet =
      "partiallyProgrammed fec 10:1, hardware id 2, not yet what is requested: InterfaceNotReady; ";
   behind.expect(
      notYet + "the route stays in FEC 10:0, waiting for an interface of its vias",
      "16 written -> reported: a route into FEC 10:1 / version 2 instead of 3 of FEC 10:1, " );
   FecWorld keeps( "not-ready eth2" );
   keeps.settle();
   keeps.viaSetIs( 1, { swapVia( 1, "10.0.0.2", 2, 200 ) } );
   keeps.expect(
      "partiallyProgrammed fec 10:0, hardware id 1, not yet what is requested: "
      "InterfaceNotReady; frames leave by what was in FEC 10:0, waiting for an interface",
      "version 1 instead of 2 of FEC 10:0, refused: InterfaceNotReady" );

   FecWorld refused( "refuse label 16" );
   refused.expect( "unprogrammed driver refused: InterfaceNotReady; waits for ",
                   "a route into FEC 10:0 / refused: InterfaceNotReady" );
   refused.expectNextTry();
}

TEST( Explain, FecThatLeadsNowhereOrIsProtected ) {
   FecWorld noNextHop;
   noNextHop.l3.neighborDel( "10.0.0.1", 1 );
   noNextHop.expect(
      "unprogrammed+ nextHops 0 of 1 resolved; waits for the neighbour 10.0.0.1 on" );

   FecWorld noBackup;
   noBackup.pathIs( 1, 2 );
   noBackup.expect(
      "missing from lfib; waits for the via set ldp/viaTypeMplsIp/unicast/2 in the",
      "on intf1, backup ldp/viaTypeMplsIp/unicast/2 / no FEC, waits for its backup: " );

   FecWorld chained;
   chained.pathIs( 1, 2 );
   chained.pathIs( 2, 3 );
   chained.pathIs( 3 );
   chained.expect( "programmed fec 10:0, hardware id 1, not protected: viaSet idx 2 with backup",
                   ", without a backup: the backup has a backup" );

   FecWorld mutual;
   mutual.pathIs( 1, 2 );
   mutual.pathIs( 2, 1 );
   mutual.routeIs( 17, 2 );
   mutual.expect( "; waits for the via set ldp/viaTypeMplsIp/unicast/2 to lose its own backup",
                  "/ no FEC, waits for its backup: backup viaSet idx 2" );

   FecWorld linkDown;
   linkDown.protect();
   linkDown.linkDown( 1 );
   linkDown.expect( "partiallyProgrammed fec 10:1, hardware id 2, leaves by its backup" );
   linkDown.linkDown( 2 );
   linkDown.expect( "unprogrammed+ fec 10:1, hardware id 2: neither its vias nor its backup lead "
                    "out; waits for a link or a neighbour of its vias or of its backup" );

   FecWorld neighborGone;
   neighborGone.protect();
   neighborGone.l3.neighborDel( "10.0.0.1", 1 );
   neighborGone.hardware->fecUnit()->reportStates();
   neighborGone.expect( "partiallyProgrammed nextHops 0 of 1 resolved; the backup is in use" );

   FecWorld disabled;
   disabled.viaSetIs( 1, { World::viaOut( 1 ) }, 0, false );
   disabled.expect(
      ": its vias are disabled, and it has no backup; waits for a backup, or the leave" );
}

TEST( Explain, FecOfAnotherAgent ) {
   const Fib::FecId externalFec( U64{ 7 } << 56 | 5 );
   FecWorld world;
   Mpls::LfibViaSet viaSet( viaSetKey( 1, Mpls::viaTypeExternalFec ) );
   viaSet.viaKeyAdd( viaKey( 1, Mpls::viaTypeExternalFec ) );
   world.writer.extFecViaIs( { viaSet.viaKey( 0 ), externalFec } );
   world.writer.viaSetIs( viaSet );
   world.writer.routeIs( { RouteKey( label ), viaSet.key(), 0 } );
   world.expect( "fec 7:5, of another agent, not there yet; waits for the agent that owns FEC 7:5",
                 "no answer for FEC 7:5 of another agent" );
   Fib::FecVia out;
   out.nextHop = ip( "10.0.0.77" );
   out.intf = IntfId::ordinary( 1 );
   world.hardware->fecUnit()->foreignFecIs( externalFec, { out } );
   world.expect( "nextHops FEC 7:5 of another agent leads nowhere: next hop 10.0.0.77 on",
                 "FEC 7:5 of another agent leads nowhere" );
   world.l3.neighborIs( "10.0.0.77", 1, 77 );
   world.hardware->fecUnit()->reportStates();
   world.expect( "programmed 7:5, hardware id 1, of another agent" );
   EXPECT_EQ( world.link( "nextHops" ).text, "the other agent's, or the tunnel's" );
   world.hardware->fecUnit()->foreignFecDel( externalFec );
   world.expect( "unprogrammed fec 7:5, of another agent, not there yet", "no answer for FEC 7:5" );
}

TEST( Explain, FecLinkTellsWhatIsInTheFec ) {
   FecWorld world;
   for ( const U32 index : { 1U, 2U } ) {
      Mpls::LfibMplsVia pop = World::viaOut( index );
      pop.labelAction = MplsLabelAction::pop;
      pop.labelStack = {};
      pop.payloadType = Mpls::PayloadType::ipv4;
      world.viaSetIs( index, { pop }, index == 1 ? 2 : 0 );
   }
   world.settle();
   const ChainLink fec = world.link( "fec" );
   const std::string backup = fecIdText( world.l3Adj( 2 )->extFecInfo()->fecId() );
   EXPECT_EQ( *fec.facts.find( "fecId" ), fecIdText( world.l3Adj( 1 )->extFecInfo()->fecId() ) );
   EXPECT_EQ( *fec.facts.find( "backupFecId" ), backup );
   EXPECT_EQ( *fec.facts.find( "popWithRoute" ), true );
   EXPECT_EQ( *fec.facts.find( "backupState" ), "primaryActive" );
   EXPECT_THAT( fec.details,
                ElementsAre( HasSubstr( "10.0.0.1 on " ), HasSubstr( "backup FEC " + backup ),
                             "the pop is in the route, not in the FEC",
                             HasSubstr( ", primaryActive" ) ) );
}

TEST( Explain, SaysWhatIsNotMounted ) {
   World world;
   world.entities->rootIs( "mplsHwInsight", nullptr );
   world.runUntil( 1 );
   EXPECT_THAT( world.verdict(), StartsWith( "unprogrammed nextHops" ) ) << "another driver";
   world.entities->rootIs( "mplsHwStatus", nullptr );
   std::ostringstream text;
   EXPECT_TRUE( printText( text, world.explain() ) && printJson( text, world.explain() ) );
   EXPECT_THAT( text.str(), HasSubstr( "no \"mplsHwStatus\" is mounted" ) );
}

// --- What people and programs read.

TEST( Explain, TextAndJsonOfAChain ) {
   World world( "not-ready eth1" );
   world.neighbors( 1 );
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
   EXPECT_EQ( read["links"][5]["blocker"], true );
   EXPECT_EQ( read["links"][5]["tries"], 4 );
   EXPECT_NEAR( read["links"][5]["sinceSeconds"], 100.002, 1e-6 );
   EXPECT_NEAR( read["links"][5]["nextTrySeconds"], 120.006, 1e-6 );
   EXPECT_EQ( read["links"][5]["waitsFor"], nullptr );
   EXPECT_FALSE( read["links"][4].contains( "blocker" ) );
}

} // namespace
} // namespace VelTest
