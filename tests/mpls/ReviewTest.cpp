// Review, retry, feedback and the start.

#include <gtest/gtest.h>

#include "platform/SystemLog.h"
#include "tests/AssertionsThrow.h"
#include "tests/LabelRig.h"

namespace Vel::Test {
namespace {

/// Routes 16 to 16+n-1, each over a via set of its own.
void addRoutes( LabelRig& rig, U32 n ) {
   rig.l3.neighborIs( "10.0.0.1", 1, 0x020000000001 );
   for ( U32 i = 0; i < n; ++i ) {
      rig.viaSetIs( 1 + i, { swapVia( 1 + i, "10.0.0.1", 1, 100 + i ) } );
      rig.routeIs( 16 + i, 1 + i );
   }
}

TEST( Start, findsWhatTheLfibHeldBefore ) {
   LabelRig rig( { .start = false } );
   addRoutes( rig, 3 );
   rig.start();
   EXPECT_TRUE( rig.sm->initialized() );
   EXPECT_EQ( rig.sm->mplsSmStartupStatus(), MplsSmStartupStatus::mplsSmNormal );
   runUntilIdle( *rig.scheduler, *rig.clock, rig.clock->now() + 1, 1000 );
   EXPECT_EQ( rig.hardware->routes(), 3U );
}

TEST( Start, clearsWhatAnEarlierRunLeft ) {
   LabelRig rig( { .withHardware = false, .start = false } );
   MplsHwVrfConfig* const config = rig.hwConfig->vrfConfigIs( LabelRig::vrfId );
   const auto left = make< Mpls::Hardware::L2Adjacency >( U64{ 99 } );
   config->l2AdjacencyIs( left, 1 );
   config->routeIs( { key( 16 ), left, 1 } );
   rig.lfibHwStatus->unprogrammedRouteIs( { key( 16 ), Mpls::RouteStatusCode::programmed } );
   rig.hwMplsStatus->adjacencyIs( 99 );
   rig.start();
   EXPECT_EQ( config->routes() + config->l2Adjacencys(), 0U );
   EXPECT_EQ( rig.lfibHwStatus->unprogrammedRoutes() + rig.hwMplsStatus->adjacencys(), 0U );
}

TEST( Start, withoutAMandatoryInputIsABrokenInvariant ) {
   LabelRig rig( { .start = false } );
   const VelTest::AssertionsThrow throwing;
   for ( const auto drop : { +[]( MplsSmInputs& in ) { in.lfibInfo = nullptr; },
                             +[]( MplsSmInputs& in ) { in.proactiveArpNhSm = nullptr; },
                             +[]( MplsSmInputs& in ) { in.scheduler = nullptr; } } ) {
      MplsSmInputs inputs = rig.inputs();
      drop( inputs );
      EXPECT_THROW( MplsSmIs( inputs ), VelTest::AssertionThrown );
   }
}

TEST( Review, slicesLoseNothingAndRepeatNothing ) {
   LabelRig rig;
   rig.scheduler->maxQueriesPerRunIs( 7 );
   addRoutes( rig, 100 );
   rig.settle( 5 );
   EXPECT_EQ( rig.hardware->routes(), 100U );
   EXPECT_EQ( rig.state()->l3AdjReviewed(), 100U );
   EXPECT_GT( rig.sm->reviewCount(), 20U );
   EXPECT_FALSE( rig.state()->needReview() );
}

TEST( Review, stopsWhileTheAttributeLogIsClogged ) {
   LabelRig rig;
   rig.attrLog->isAttrLogOutCloggedIs( true );
   addRoutes( rig, 3 );
   rig.poll();
   // It looks again once in each review interval, and time goes on.
   EXPECT_LE( runUntilIdle( *rig.scheduler, *rig.clock, rig.clock->now() + 0.1, 100'000 ), 250U );
   EXPECT_EQ( rig.hardware->routes(), 0U );
   rig.attrLog->isAttrLogOutCloggedIs( false );
   rig.settle();
   EXPECT_EQ( rig.hardware->routes(), 3U );
}

TEST( Review, forcedReprogrammingWritesEveryRouteAgain ) {
   LabelRig rig;
   addRoutes( rig, 3 );
   rig.settle();
   const U64 before = rig.route( 17 )->version();
   rig.sm->doForceRouteReprogramming();
   rig.settle();
   EXPECT_EQ( rig.route( 17 )->version(), before + 1 );
   EXPECT_EQ( rig.status()->route( key( 17 ) ).version, before + 1 );
}

TEST( Review, tasksHaveTheNamesAndPriorityThatTheSchedulerShows ) {
   LabelRig rig;
   EXPECT_EQ( rig.sm->vrfTask()->name(), "reviewVrf" );
   EXPECT_EQ( rig.sm->unprogrammedRouteTask()->name(), "reviewUnprogrammedRoute" );
   EXPECT_EQ( rig.sm->routePublishTask()->name(), "publishReviewRoutes" );
   EXPECT_EQ( static_cast< int >( rig.sm->vrfTask()->priority() ), 2 );
   EXPECT_FALSE( rig.sm->vrfTask()->scheduled() );
}

// --- Refused by hardware.

class Retry : public testing::Test {
 protected:
   Retry() : rig( { .hardware = { .routeCapacity = 2 } } ) {
      systemLogClockIs( rig.clock );
      systemLogSinkIs(
         [this]( const SystemLogMessage& message ) { logged.emplace_back( message.name ); } );
      addRoutes( rig, 4 );
      rig.settle();
   }
   ~Retry() override {
      systemLogSinkIs( {} );
      systemLogClockIs( nullptr );
   }
   std::vector< std::string > logged;
   LabelRig rig;
};

TEST_F( Retry, waitsTheWholeIntervalAndNoLonger ) {
   EXPECT_EQ( rig.state()->numUnprogrammedRoute(), 2U );
   EXPECT_EQ( rig.published( 16 ), Mpls::RouteStatusCode::programmed );
   EXPECT_EQ( rig.published( 19 ), Mpls::RouteStatusCode::notProgrammed );
   EXPECT_EQ( logged, std::vector< std::string >{ "ROUTING_MPLS_RESOURCE_FULL" } );
   EXPECT_TRUE( rig.state()->needReviewForUnprogrammedOnly() );
   const U64 tried = rig.state()->unprogRouteRetried();
   rig.settle( 60 );
   // Two routes, once in ten seconds.
   EXPECT_LE( rig.state()->unprogRouteRetried(), tried + 14 );
   EXPECT_GE( rig.state()->unprogRouteRetried(), tried + 10 );
   EXPECT_EQ( logged.size(), 1U );
}

TEST_F( Retry, succeedsSoonAfterRoomAppears ) {
   rig.hardware->capacityIs( 0, 0 );
   rig.settle( 11 );
   EXPECT_EQ( rig.hardware->routes(), 4U );
   EXPECT_EQ( rig.state()->numUnprogrammedRoute(), 0U );
   EXPECT_EQ( rig.status()->unprogrammedReason(), UnprogrammedReason::Success );
   EXPECT_EQ( rig.published( 19 ), Mpls::RouteStatusCode::programmed );
   EXPECT_EQ( logged, ( std::vector< std::string >{ "ROUTING_MPLS_RESOURCE_FULL",
                                                    "ROUTING_MPLS_RESOURCE_NORMAL" } ) );
}

// A state machine that follows another one over the same entities does not count what it has not
// heard of.
TEST_F( Retry, goesOnInTheNextStateMachine ) {
   rig.sm = nullptr;
   rig.start();
   rig.settle();
   EXPECT_EQ( rig.state()->numUnprogrammedRoute(), 2U );
   rig.hardware->capacityIs( 0, 0 );
   rig.settle( 11 );
   EXPECT_EQ( rig.hardware->routes(), 4U );
   EXPECT_EQ( rig.state()->numUnprogrammedRoute(), 0U );
}

TEST_F( Retry, ofADeletedRouteEnds ) {
   rig.routeDel( 18 );
   rig.routeDel( 19 );
   rig.settle();
   EXPECT_EQ( rig.state()->numUnprogrammedRoute(), 0U );
   EXPECT_EQ( rig.status()->unprogrammedRoutes(), 0U );
   EXPECT_EQ( logged.back(), "ROUTING_MPLS_RESOURCE_NORMAL" );
}

TEST( Feedback, ofRoutesAndAdjacenciesUnknownChangesNothing ) {
   LabelRig rig( { .withHardware = false } );
   MplsHwVrfStatus* const status = rig.status();
   const auto stranger = make< Mpls::Hardware::L2Adjacency >( U64{ 77 } );
   status->routeIs( { key( 16 ), stranger, 1 } );
   status->unprogrammedRouteIs( key( 16 ) );
   status->unprogrammedAdjacencyIs( stranger );
   rig.hwStatus->vrfStatusIs( 12 )->routeIs( { key( 16 ), stranger, 1 } ); // a VRF without name
   addRoutes( rig, 1 );
   rig.settle();
   EXPECT_EQ( rig.config()->routes(), 1U );
}

TEST( Feedback, aRouteCountsAsUnprogrammedUntilTheDriverListsIt ) {
   LabelRig rig( { .withHardware = false } );
   rig.status();
   addRoutes( rig, 1 );
   rig.settle();
   EXPECT_TRUE( rig.route( 16 )->unprogrammed() );
   EXPECT_EQ( rig.published( 16 ), Mpls::RouteStatusCode::notProgrammed );
   rig.status()->routeIs( rig.config()->route( key( 16 ) ) );
   rig.settle();
   EXPECT_EQ( rig.published( 16 ), Mpls::RouteStatusCode::programmed );
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

} // namespace
} // namespace Vel::Test
