// Review and the start.

#include <gtest/gtest.h>

#include "tests/AssertionsThrow.h"
#include "tests/LabelRig.h"

namespace Vel::Test {
namespace {

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

} // namespace
} // namespace Vel::Test
