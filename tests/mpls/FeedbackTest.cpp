// Feedback: what the driver reports, retries, the two messages to the operator, and publishing.

#include <gtest/gtest.h>

#include <functional>
#include <sstream>

#include "driver/Misbehave.h"
#include "platform/services/SystemLog.h"
#include "tests/AssertionsThrow.h"
#include "tests/LabelRig.h"

namespace Vel::Test {
namespace {

using Driver::Misbehaviour;
using Mpls::RouteStatusCode;
using Names = std::vector< std::string >;

const std::string full = "ROUTING_MPLS_RESOURCE_FULL";
const std::string normal = "ROUTING_MPLS_RESOURCE_NORMAL";

/// Collects the messages to the operator.
class Logged {
 public:
   explicit Logged( const Ptr< Clock >& clock ) {
      systemLogClockIs( clock );
      systemLogSinkIs(
         [this]( const SystemLogMessage& message ) { names.emplace_back( message.name ); } );
   }
   Logged( const Logged& ) = delete;
   Logged& operator=( const Logged& ) = delete;
   ~Logged() {
      systemLogSinkIs( {} );
      systemLogClockIs( nullptr );
   }
   Names names;
};

// --- A table twice as large as the hardware.

class Full : public testing::Test {
 protected:
   static constexpr U32 capacity = 50;
   static constexpr U32 routes = 2 * capacity;

   Full() : rig( { .hardware = { .routeCapacity = capacity } } ), logged( rig.clock ) {
      addRoutes( rig, routes );
      rig.settle();
   }
   U32 publishedAs( RouteStatusCode code ) {
      U32 count = 0;
      for ( U32 i = 0; i < routes; ++i ) {
         count += rig.published( 16 + i ) == code;
      }
      return count;
   }
   void expectAllIn( U32 count ) {
      EXPECT_EQ( rig.hardware->routes(), count );
      EXPECT_EQ( publishedAs( RouteStatusCode::programmed ), count );
      EXPECT_EQ( publishedAs( RouteStatusCode::notProgrammed ), 0U );
      EXPECT_EQ( rig.state()->numUnprogrammedRoute(), 0U );
      EXPECT_EQ( rig.status()->unprogrammedReason(), UnprogrammedReason::Success );
      EXPECT_EQ( logged.names, ( Names{ full, normal } ) );
   }

   LabelRig rig;
   Logged logged;
};

TEST_F( Full, holdsWhatFitsAndTriesTheRestOnceInAnInterval ) {
   EXPECT_EQ( rig.hardware->routes(), capacity );
   EXPECT_EQ( publishedAs( RouteStatusCode::programmed ), capacity );
   EXPECT_EQ( publishedAs( RouteStatusCode::notProgrammed ), capacity );
   EXPECT_TRUE( rig.state()->needReviewForUnprogrammedOnly() );
   constexpr double seconds = 300;
   std::vector< U64 > before;
   for ( U32 i = 0; i < routes; ++i ) {
      before.push_back( rig.route( 16 + i )->version() );
   }
   rig.settle( seconds );
   const auto most = static_cast< U64 >( seconds / rig.sm->defaultUnprogrammedRetryInterval() ) + 1;
   for ( U32 i = 0; i < routes; ++i ) {
      const MplsRoute& route = *rig.route( 16 + i );
      const U64 tries = route.version() - before[i];
      EXPECT_LE( tries, route.unprogrammed() ? most : 0 ) << textOf( route.routeKey() );
      EXPECT_GE( tries, route.unprogrammed() ? most - 2 : 0 ) << textOf( route.routeKey() );
      EXPECT_EQ( route.unconfirmedWrites(), route.unprogrammed() ? tries + before[i] : 0 );
   }
   EXPECT_EQ( logged.names, Names{ full } );
}

TEST_F( Full, settlesByItselfWhenThereIsRoom ) {
   rig.hardware->capacityIs( 0, 0 );
   rig.settle( 11 );
   expectAllIn( routes );
}

TEST_F( Full, settlesByItselfWhenRoutesLeave ) {
   for ( U32 label = 16; rig.route( label ) && !rig.route( label )->unprogrammed(); ++label ) {
      rig.routeDel( label );
   }
   rig.settle( 11 );
   expectAllIn( capacity );
}

TEST_F( Full, isNothingWhenTheRefusedLeave ) {
   for ( U32 label = 16; label < 16 + routes; ++label ) {
      if ( rig.route( label )->unprogrammed() ) {
         rig.routeDel( label );
      }
   }
   rig.settle();
   expectAllIn( capacity );
}

// A state machine that follows another one over the same entities does not count what it has not
// heard of.
TEST_F( Full, isFollowedByTheNextStateMachine ) {
   rig.sm = nullptr;
   rig.start();
   rig.settle();
   EXPECT_EQ( rig.state()->numUnprogrammedRoute(), U64{ capacity } );
   rig.hardware->capacityIs( 0, 0 );
   rig.settle( 11 );
   EXPECT_EQ( rig.hardware->routes(), routes );
   EXPECT_EQ( rig.state()->numUnprogrammedRoute(), 0U );
}

// More refused adjacencies than a slice takes, and refused routes beside them: all have their turn.
TEST( Retry, goesRoundInSlicesThatAreTooShort ) {
   constexpr U32 count = 60;
   LabelRig rig( { .hardware = { .adjacencyCapacity = 2 } } );
   addRoutes( rig, count );
   rig.settle();
   ASSERT_EQ( rig.status()->unprogrammedAdjacencys(), count - 2 );
   rig.scheduler->maxQueriesPerRunIs( 16 );
   rig.settle( 200 ); // twenty passes of about sixteen
   for ( const auto& adjacency : rig.status()->unprogrammedAdjacency() ) {
      EXPECT_GE( rig.config()->l2Adjacency( adjacency ), 3U ) << adjacency->index();
   }
   for ( const Mpls::RouteKey routeKey : rig.status()->unprogrammedRoute() ) {
      EXPECT_GE( rig.state()->route( routeKey )->version(), 2U ) << textOf( routeKey );
   }
   rig.hardware->capacityIs( 0, 0 );
   rig.settle( 200 );
   EXPECT_EQ( rig.hardware->routes(), count );
   EXPECT_EQ( rig.state()->numUnprogrammedAdj(), 0U );
   EXPECT_EQ( rig.state()->adjRetrieds(), 0U );
}

// --- The driver's reports, one by one.

struct Report {
   enum Kind { refused, taken, adjacencyRefused, adjacencyTaken, confirmed } kind;
   U32 label;
   UnprogrammedReason reason = UnprogrammedReason::Success;
};
struct Edge {
   std::string name;
   std::vector< Report > reports;
   Names logged;
   U64 unprogrammedRoutes;
   double retryInterval;
};

class Reports : public testing::TestWithParam< Edge > {
 protected:
   Reports() : rig( { .withHardware = false } ), logged( rig.clock ) {
      rig.status();
      addRoutes( rig, 3 );
      rig.settle();
   }
   void report( const Report& report ) {
      MplsHwVrfStatus& status = *rig.status();
      const MplsHwRoute& route = rig.config()->route( key( report.label ) );
      switch ( report.kind ) {
      case Report::refused:
         status.unprogrammedReasonIs( report.reason );
         status.unprogrammedRouteIs( route.routeKey );
         break;
      case Report::taken:
         status.unprogrammedRouteDel( route.routeKey );
         break;
      case Report::adjacencyRefused:
         status.unprogrammedReasonIs( report.reason );
         status.unprogrammedAdjacencyIs( route.l2Adjacency );
         break;
      case Report::adjacencyTaken:
         status.unprogrammedAdjacencyDel( route.l2Adjacency );
         break;
      case Report::confirmed:
         status.routeIs( route );
         break;
      }
   }
   LabelRig rig;
   Logged logged;
};

using enum UnprogrammedReason;
constexpr double slow = 10;    // defaultUnprogrammedRetryInterval
constexpr double fast = 0.001; // reviewInterval
// clang-format off
const std::vector< Edge > edges{
   { "the first is refused for room", { { Report::refused, 16, RouteFull } }, { full }, 1, slow },
   { "adjacencies are room too", { { Report::refused, 16, AdjacencyFull } }, { full }, 1, slow },
   { "an interface is not", { { Report::refused, 16, InterfaceNotReady } }, {}, 1, slow },
   { "only the first counts", { { Report::refused, 16, InterfaceNotReady }, { Report::refused, 17, RouteFull } }, {}, 2, slow },
   { "one message for many", { { Report::refused, 16, RouteFull }, { Report::refused, 17, RouteFull }, { Report::taken, 16 } }, { full }, 1, slow },
   { "the last one leaves", { { Report::refused, 16, RouteFull }, { Report::refused, 17, RouteFull }, { Report::taken, 17 }, { Report::taken, 16 } }, { full, normal }, 0, slow },
   { "without a full there is no normal", { { Report::refused, 16, InterfaceNotReady }, { Report::taken, 16 } }, {}, 0, slow },
   { "what finds room encourages the others", { { Report::refused, 16, RouteFull }, { Report::confirmed, 17 } }, { full }, 1, fast },
   { "nobody is there to encourage", { { Report::confirmed, 17 } }, {}, 0, 0 },
   { "another refusal sobers", { { Report::refused, 16, RouteFull }, { Report::confirmed, 17 }, { Report::refused, 18, RouteFull } }, { full }, 2, slow },
   { "an adjacency is refused", { { Report::adjacencyRefused, 16, AdjacencyFull } }, {}, 0, slow },
   { "an adjacency that finds room encourages", { { Report::adjacencyRefused, 16, AdjacencyFull }, { Report::refused, 16, AdjacencyFull }, { Report::adjacencyTaken, 16 } }, { full }, 1, fast },
   { "unless no route waits", { { Report::adjacencyRefused, 16, AdjacencyFull }, { Report::adjacencyTaken, 16 } }, {}, 0, slow },
};
// clang-format on

TEST_P( Reports, edge ) {
   for ( const Report& each : GetParam().reports ) {
      report( each );
   }
   EXPECT_EQ( logged.names, GetParam().logged );
   EXPECT_EQ( rig.state()->numUnprogrammedRoute(), GetParam().unprogrammedRoutes );
   EXPECT_EQ( rig.state()->unprogrammedRetryInterval(), GetParam().retryInterval );
   if ( GetParam().unprogrammedRoutes == 0 && !GetParam().logged.empty() ) {
      EXPECT_EQ( rig.status()->unprogrammedReason(), Success );
   }
   for ( const U32 label : { 16U, 17U, 18U } ) { // ends the full message, which is the process's
      report( { Report::taken, label } );
   }
}
INSTANTIATE_TEST_SUITE_P( All, Reports, testing::ValuesIn( edges ), []( const auto& one ) {
   std::string name = one.param.name;
   std::ranges::replace( name, ' ', '_' );
   return name;
} );

TEST( Feedback, ofAnOldVersionIsLateAndNotTheLastWord ) {
   LabelRig rig( { .withHardware = false } );
   rig.status();
   addRoutes( rig, 1 );
   rig.settle();
   const MplsHwRoute first = rig.config()->route( key( 16 ) );
   rig.sm->doForceRouteReprogramming();
   rig.settle();
   EXPECT_EQ( rig.published( 16 ), RouteStatusCode::notProgrammed );
   rig.status()->routeIs( first );
   rig.settle();
   EXPECT_EQ( rig.sm->counters()->reportsLate(), 1U );
   EXPECT_EQ( rig.route( 16 )->unconfirmedWrites(), 2U );
   rig.status()->routeIs( rig.config()->route( key( 16 ) ) );
   rig.settle();
   EXPECT_EQ( rig.route( 16 )->unconfirmedWrites(), 0U );
   EXPECT_EQ( rig.published( 16 ), RouteStatusCode::programmed );
   rig.status()->routeDel( key( 16 ) ); // the echo of a deletion changes nothing
   EXPECT_FALSE( rig.route( 16 )->unprogrammed() );
}

TEST( Publishing, isWithheldWhileAReviewIsPending ) {
   LabelRig rig;
   addRoutes( rig, 1 );
   rig.settle();
   rig.lfibHwStatus->unprogrammedRouteDel( key( 16 ) );
   rig.state()->routeKeyForReviewIs( key( 16 ) );
   rig.sm->publishRouteKey( *rig.state(), key( 16 ) );
   EXPECT_FALSE( rig.published( 16 ) );
}

// --- A driver that does not keep to the contract.

TEST( Misbehaving, aboutWhatIsUnknownChangesNothing ) {
   LabelRig rig( { .withHardware = false } );
   const Logged logged( rig.clock );
   rig.status();
   addRoutes( rig, 1 );
   rig.settle();
   constexpr VrfId unknownVrf = 12; // without a name
   misbehave( *rig.hwStatus, LabelRig::vrfId, Misbehaviour::listsRoute, key( 99 ) );
   misbehave( *rig.hwStatus, LabelRig::vrfId, Misbehaviour::confirmsRoute, key( 99 ) );
   misbehave( *rig.hwStatus, unknownVrf, Misbehaviour::confirmsRoute, key( 16 ) );
   misbehave( *rig.hwStatus, unknownVrf, Misbehaviour::switchesRouting );
   EXPECT_EQ( rig.sm->counters()->reportsLate(), 3U );
   EXPECT_EQ( rig.state()->numUnprogrammedRoute(), 0U );
   EXPECT_FALSE( rig.state()->needReview() );
   EXPECT_FALSE( rig.published( 99 ) );
   EXPECT_EQ( rig.published( 16 ), RouteStatusCode::notProgrammed );
   misbehave( *rig.hwStatus, LabelRig::vrfId, Misbehaviour::listsStrangeAdjacency );
   rig.settle();
   EXPECT_EQ( rig.config()->l2Adjacencys(), 1U );
   EXPECT_EQ( rig.sm->counters()->reportsLate(), 4U );
   EXPECT_EQ( logged.names, Names{} );
   rig.routeDel( 16 );
   rig.settle();
   misbehave( *rig.hwStatus, LabelRig::vrfId, Misbehaviour::listsStrangeAdjacency );
   EXPECT_EQ( rig.sm->counters()->reportsLate(), 5U );
}

TEST( Misbehaving, beyondRepairIsABrokenInvariant ) {
   LabelRig rig( { .withHardware = false } );
   rig.status();
   addRoutes( rig, 1 );
   rig.l3Status->vrfNameIs( 12, L3::VrfName( "red" ) );
   rig.settle();
   misbehave( *rig.hwStatus, LabelRig::vrfId, Misbehaviour::listsRoute, key( 16 ) );
   rig.state()->numUnprogrammedRouteIs( 0 ); // as if it had not been counted
   const VelTest::AssertionsThrow throwing;
   const auto condition = [&]( VrfId vrfId, Misbehaviour kind ) -> std::string {
      try {
         misbehave( *rig.hwStatus, vrfId, kind, key( 16 ) );
      } catch ( const VelTest::AssertionThrown& thrown ) {
         return thrown.condition;
      }
      return "no assertion";
   };
   EXPECT_EQ( condition( LabelRig::vrfId, Misbehaviour::delistsRoute ),
              "! (preUnprogrammed == 0 && delta == -1 )" );
   const std::string otherVrf = "vrfName == L3::VrfName::defaultVrf()";
   EXPECT_EQ( condition( 12, Misbehaviour::listsRoute ), otherVrf );
   EXPECT_EQ( condition( 13, Misbehaviour::listsRoute ), otherVrf ); // has no name at all
   EXPECT_EQ( condition( 12, Misbehaviour::confirmsRoute ), otherVrf );
   EXPECT_EQ( condition( 12, Misbehaviour::listsStrangeAdjacency ), otherVrf );
   EXPECT_EQ( condition( 12, Misbehaviour::switchesRouting ), otherVrf );
}

// --- What is counted.

std::vector< std::pair< std::string, U64 > > countersOf( const LabelRig& rig ) {
   std::istringstream text( printText( *rig.sm->counters() ) );
   std::vector< std::pair< std::string, U64 > > counters( 1 );
   std::getline( text, counters[0].first );
   while ( text >> counters.back().first >> counters.back().second ) {
      counters.push_back( counters.back() );
   }
   return counters;
}

struct Counting {
   const char* event;
   std::function< void( LabelRig& rig ) > happens;
   std::string counted;
   std::string withFecs = counted; ///< empty: does not happen there
};

// clang-format off
const std::vector< Counting > countings{
   { "a route and its via set", []( LabelRig& rig ) { addRoutes( rig, 1 ); },
     "routesReceived 1 routesAccepted 1 routesReviewed 2 routesWritten 1 routesConfirmed 1 routesPublished 1 adjacenciesReviewed 1 adjacenciesWritten 1 viaSetsReceived 1 nextHopsReceived 1",
     "routesReceived 1 routesAccepted 1 routesReviewed 3 routesWritten 1 routesConfirmed 1 routesPublished 1 adjacenciesReviewed 2 adjacenciesWritten 2 viaSetsReceived 1 nextHopsReceived 1" },
   { "the neighbour has another address", []( LabelRig& rig ) { rig.l3.neighborIs( "10.0.0.1", 1, 0x020000000002 ); },
     "routesReviewed 1 routesWritten 1 routesConfirmed 1 routesPublished 1 adjacenciesReviewed 1 adjacenciesWritten 1 nextHopsReceived 1" },
   { "a route of another state machine", []( LabelRig& rig ) { rig.routeIs( key( 17 ), viaSetKey( 1, Mpls::viaTypeVlan ) ); },
     "routesReceived 1 routesIgnored 1" },
   { "it goes", []( LabelRig& rig ) { rig.routeDel( 17 ); }, "routesReceived 1 routesIgnored 1" },
   { "no room for a route, which is tried once more at once", []( LabelRig& rig ) { rig.hardware->capacityIs( 1, 0 ); rig.routeIs( 17, 1 ); },
     "routesReceived 1 routesAccepted 1 routesReviewed 1 routesWritten 2 routesRefused 1 routesRetried 1 routesPublished 2" },
   { "room for it", []( LabelRig& rig ) { rig.hardware->capacityIs( 0, 0 ); rig.settle( 10 ); },
     "routesWritten 1 routesConfirmed 1 routesRetried 1 routesPublished 1" },
   { "it goes", []( LabelRig& rig ) { rig.routeDel( 17 ); },
     "routesReceived 1 routesRemoved 1 routesReviewed 1 routesPublished 1 adjacenciesReviewed 1" },
   { "off", []( LabelRig& rig ) { rig.routingInfo->mplsRoutingIs( rig.vrf, false ); },
     "routesReviewed 1 routesPublished 1 adjacenciesReviewed 1 nextHopsReceived 1" },
   { "a route comes meanwhile", []( LabelRig& rig ) { rig.routeIs( 17, 1 ); }, "routesReceived 1 routesIgnored 1" },
   { "on", []( LabelRig& rig ) { rig.routingInfo->mplsRoutingIs( rig.vrf, true ); },
     "routesReceived 2 routesAccepted 2 routesReviewed 4 routesWritten 2 routesConfirmed 2 routesPublished 2 adjacenciesReviewed 1 adjacenciesWritten 1 nextHopsReceived 1",
     "routesReceived 2 routesAccepted 2 routesReviewed 6 routesWritten 2 routesConfirmed 2 routesPublished 2 adjacenciesReviewed 2 adjacenciesWritten 2 nextHopsReceived 1" },
   { "no room for an adjacency, which is tried once more at once", []( LabelRig& rig ) { rig.hardware->capacityIs( 0, 1 ); rig.viaSetIs( 2, { swapVia( 2, "10.0.0.1", 0, 102 ) } ); rig.routeIs( 18, 2 ); },
     "routesReceived 1 routesAccepted 1 routesReviewed 3 routesWritten 3 routesRefused 1 routesRetried 1 routesPublished 3 adjacenciesReviewed 2 adjacenciesWritten 3 adjacenciesRefused 1 adjacenciesRetried 1 viaSetsReceived 1 nextHopsReceived 1", "" },
};
// clang-format on

TEST( Counters, countEachStageOnce ) {
   for ( const bool withFecs : { false, true } ) {
      LabelRig rig( { .withFecs = withFecs } );
      rig.settle();
      for ( const Counting& step : countings ) {
         const std::string& expected = withFecs ? step.withFecs : step.counted;
         if ( expected.empty() ) {
            continue;
         }
         const auto before = countersOf( rig );
         step.happens( rig );
         rig.settle();
         const auto after = countersOf( rig );
         std::string counted;
         for ( size_t i = 0; i < after.size(); ++i ) {
            if ( const U64 news = after[i].second - before[i].second; news != 0 ) {
               counted += joinText( counted.empty() ? "" : " ", after[i].first, " ", news );
            }
         }
         EXPECT_EQ( counted, expected ) << step.event << ( withFecs ? ", with FECs" : "" );
      }
   }
}

// --- A next hop that comes and goes.

TEST( Flapping, leavesTheStateOfTheLastChange ) {
   for ( const bool present : { true, false } ) {
      LabelRig rig;
      addRoutes( rig, 3 );
      rig.settle();
      for ( int i = 0; i < 1000; ++i ) {
         rig.l3.neighborDel( "10.0.0.1", 1 );
         if ( i < 999 || present ) {
            rig.l3.neighborIs( "10.0.0.1", 1, 0x020000000001 );
         }
         const double until = rig.clock->now() + 0.001;
         runUntilIdle( *rig.scheduler, *rig.clock, until, 1U << 20 );
         rig.clock->nowIs( until );
      }
      rig.settle();
      const size_t expected = present ? 3 : 0;
      EXPECT_EQ( rig.hardware->routes(), expected );
      EXPECT_EQ( rig.hwMplsStatus->l2Adjacencys(), expected );
      EXPECT_EQ( rig.sm->viaSetToHwL2Adjs(), expected );
      EXPECT_EQ( rig.state()->l2Adjacencys(), expected );
      EXPECT_FALSE( rig.state()->needReview() );
      EXPECT_EQ( rig.l3.arp->entrys(), 1U );
      for ( U32 label = 16; label < 19; ++label ) {
         rig.routeDel( label );
      }
      rig.settle();
      EXPECT_EQ( rig.state(), nullptr );
      EXPECT_EQ( rig.l3.arp->entrys(), 0U );
      EXPECT_EQ( rig.hwMplsStatus->adjacencys() + rig.hwMplsStatus->l2Adjacencys(), 0U );
   }
}

} // namespace
} // namespace Vel::Test
