// Routes: what is admitted, when it is processed, and how it leaves.

#include <gtest/gtest.h>

#include "tests/LabelRig.h"

namespace Vel::Test {
namespace {

class Route : public testing::Test {
 protected:
   Route() {
      rig.l3.neighborIs( "10.0.0.1", 1, 0x020000000001 );
      rig.l3.neighborIs( "10.0.0.2", 2, 0x020000000002 );
      rig.viaSetIs( 1, { swapVia( 1, "10.0.0.1", 1, 101 ) } );
      rig.viaSetIs( 2, { swapVia( 2, "10.0.0.2", 2, 102 ) } );
   }
   LabelRig rig;
};

TEST_F( Route, isProgrammedConfirmedAndPublished ) {
   rig.routeIs( 16, 1 );
   rig.settle();
   ASSERT_NE( rig.route( 16 ), nullptr );
   EXPECT_FALSE( rig.route( 16 )->unprogrammed() );
   EXPECT_EQ( rig.config()->route( key( 16 ) ).version, rig.route( 16 )->version() );
   EXPECT_EQ( rig.status()->route( key( 16 ) ), rig.config()->route( key( 16 ) ) );
   EXPECT_EQ( rig.published( 16 ), Mpls::RouteStatusCode::programmed );
   EXPECT_EQ( rig.hwMplsStatus->route( key( 16 ) ).adjacency->index(), rig.l3Adj( 1 )->index() );
}

TEST_F( Route, stackOfTwoLabelsIsARouteOfItsOwn ) {
   const Mpls::RouteKey deep( MplsLabel( 16 ), MplsLabel( 17 ) );
   rig.routeIs( deep, viaSetKey( 1 ) );
   rig.routeIs( 16, 2 );
   rig.settle();
   EXPECT_TRUE( rig.config()->routeHas( deep ) );
   EXPECT_NE( rig.config()->route( deep ).l2Adjacency,
              rig.config()->route( key( 16 ) ).l2Adjacency );
   rig.routeDel( 16 );
   rig.settle();
   EXPECT_TRUE( rig.hardware->route( LabelRig::vrfId, deep ) );
   EXPECT_FALSE( rig.hardware->route( LabelRig::vrfId, key( 16 ) ) );
}

TEST_F( Route, ofAnotherViaTypeIsNotOurs ) {
   rig.routeIs( key( 16 ), viaSetKey( 1, Mpls::viaTypeIpLookup ) );
   rig.routeIs( key( 17 ), viaSetKey( 1, Mpls::viaTypeMplsPseudowire ) );
   rig.settle();
   EXPECT_EQ( rig.sm->mplsIpRouteKeys(), 0U );
   EXPECT_EQ( rig.state(), nullptr );
}

TEST_F( Route, thatBecomesUnsupportedLeavesHardware ) {
   rig.routeIs( 16, 1 );
   rig.settle();
   rig.routeIs( key( 16 ), viaSetKey( 1, Mpls::viaTypeVlan ) );
   rig.settle();
   EXPECT_EQ( rig.hardware->routes(), 0U );
   EXPECT_FALSE( rig.published( 16 ) );
   EXPECT_EQ( rig.state(), nullptr ); // nothing is left, the VRF's state neither
}

// The route is processed again before the LFIB has announced what became of it.
TEST_F( Route, thatBecomesUnsupportedUnannouncedMakesNoAdjacency ) {
   rig.routeIs( 16, 1 );
   rig.settle();
   Mpls::LfibViaSet lookup( viaSetKey( 1, Mpls::viaTypeIpLookup ) );
   lookup.viaKeyAdd( viaKey( 1, Mpls::viaTypeIpLookup ) );
   rig.writer.viaSetIs( lookup );
   rig.routeIs( key( 16 ), lookup.key() );
   rig.sm->doForceRouteReprogramming();
   runUntilIdle( *rig.scheduler, *rig.clock, rig.clock->now() + 1, 1000 );
   EXPECT_EQ( rig.hardware->routes(), 0U );
   rig.settle();
   EXPECT_EQ( rig.state(), nullptr );
}

// It has left the old via set, whose new content may be meant for quite another label.
TEST_F( Route, whoseNewViaSetIsMissingKeepsWhatItHas ) {
   const auto intfOf = [&] {
      const Driver::HwRoute* const route = rig.hardware->route( LabelRig::vrfId, key( 16 ) );
      return route ? route->adjacency->l2Via()[0].intf : IntfId();
   };
   rig.routeIs( 16, 1 );
   rig.settle();
   rig.routeIs( 16, 3 );
   rig.settle();
   EXPECT_EQ( rig.published( 16 ), Mpls::RouteStatusCode::partiallyProgrammed );
   rig.viaSetIs( 1, { swapVia( 1, "10.0.0.2", 2, 101 ) } );
   rig.settle();
   EXPECT_FALSE( rig.state()->needReview() );
   EXPECT_EQ( intfOf(), IntfId::ordinary( 1 ) );
   rig.l3.neighborIs( "10.0.0.1", 1, 0x0200000000AA ); // its next hop is followed ...
   rig.settle();
   EXPECT_EQ( rig.hardware->route( LabelRig::vrfId, key( 16 ) )->adjacency->l2Via()[0].macAddr,
              MacAddr( 0x0200000000AA ) );
   rig.l3.neighborDel( "10.0.0.1", 1 ); // ... to its end
   rig.settle();
   EXPECT_EQ( rig.hardware->routes(), 0U );
}

TEST_F( Route, queuedAndThenUnsupportedIsTakenOffTheQueue ) {
   rig.routeIs( 16, 1 );
   rig.poll();
   ASSERT_TRUE( rig.state()->routeKeyForReviewHas( key( 16 ) ) );
   rig.routeIs( key( 16 ), viaSetKey( 1, Mpls::viaTypeVlan ) );
   rig.poll();
   EXPECT_FALSE( rig.state()->routeKeyForReviewHas( key( 16 ) ) );
   rig.settle();
   EXPECT_EQ( rig.config()->routes() + rig.config()->l2Adjacencys(), 0U );
}

TEST_F( Route, changeOfViaSetMovesItWithoutTakingItOut ) {
   struct Watching : MplsHwVrfConfig::Reactor {
      void onRoute( Mpls::RouteKey routeKey ) override {
         removed |= !notifier()->routeHas( routeKey );
      }
      bool removed = false;
   } watching;
   rig.routeIs( 16, 1 );
   rig.routeIs( 17, 1 );
   rig.settle();
   watching.notifierIs( rig.config() );
   const auto old = rig.config()->route( key( 16 ) ).l2Adjacency;
   rig.routeIs( 16, 2 );
   rig.settle();
   EXPECT_FALSE( watching.removed );
   EXPECT_NE( rig.config()->route( key( 16 ) ).l2Adjacency, old );
   EXPECT_EQ( rig.config()->route( key( 17 ) ).l2Adjacency, old );
   rig.routeIs( 17, 2 );
   rig.settle();
   EXPECT_FALSE( rig.config()->l2AdjacencyHas( old ) ); // its last user has left
   EXPECT_EQ( rig.l3Adj( 1 ), nullptr );
}

TEST_F( Route, waitsForItsViaSet ) {
   rig.routeIs( 16, 3 );
   rig.settle();
   EXPECT_EQ( rig.config()->routes(), 0U );
   rig.viaSetIs( 3, { swapVia( 3, "10.0.0.1", 1, 103 ) } );
   rig.settle();
   EXPECT_EQ( rig.published( 16 ), Mpls::RouteStatusCode::programmed );
}

// The LFIB is read ahead of its announcements: route 17 finds the via set before route 16 is told
// of it. Until then a route goes from one missing via set to the next, all of which it leaves.
TEST_F( Route, waitingForItsViaSetIsNotForgottenWhenAnotherFindsItFirst ) {
   rig.routeIs( 16, 3 );
   rig.settle();
   for ( U32 missing = 100; missing < 600; ++missing ) {
      rig.routeIs( 18, missing );
      rig.settle();
   }
   EXPECT_TRUE( rig.sm->viaSetAwaitedHas( viaSetKey( 3 ) ) );
   EXPECT_LT( rig.sm->viaSetAwaiteds(), 100U );
   rig.routeIs( 17, 3 );
   rig.poll();
   rig.viaSetIs( 3, { swapVia( 3, "10.0.0.1", 1, 103 ) } );
   runUntilIdle( *rig.scheduler, *rig.clock, rig.clock->now() + 1, 1000 );
   ASSERT_NE( rig.l3Adj( 3 ), nullptr );
   rig.settle();
   EXPECT_EQ( rig.published( 16 ), Mpls::RouteStatusCode::programmed );
   EXPECT_EQ( rig.published( 17 ), Mpls::RouteStatusCode::programmed );
}

struct NotSane {
   const char* name;
   Mpls::LfibViaKey
      second; ///< a reference beside a good one; the empty key for no reference at all
};

TEST_F( Route, isDeletedWhileItsViaSetIsNotSaneAndComesBack ) {
   for ( const NotSane& wrong :
         { NotSane{ "no via", {} },
           NotSane{ "a via of another type", viaKey( 9, Mpls::viaTypeVlan ) } } ) {
      SCOPED_TRACE( wrong.name );
      rig.routeIs( 16, 1 );
      rig.settle();
      ASSERT_EQ( rig.hardware->routes(), 1U );
      Mpls::LfibViaSet viaSet( viaSetKey( 1 ) );
      if ( !wrong.second.empty() ) {
         viaSet.viaKeyAdd( viaKey( 1 ) );
         viaSet.viaKeyAdd( wrong.second );
      }
      rig.writer.viaSetIs( viaSet );
      rig.settle();
      EXPECT_EQ( rig.hardware->routes(), 0U );
      EXPECT_EQ( rig.route( 16 ), nullptr );
      rig.viaSetIs( 1, { swapVia( 1, "10.0.0.1", 1, 101 ) } );
      rig.settle();
      EXPECT_EQ( rig.published( 16 ), Mpls::RouteStatusCode::programmed );
   }
}

TEST_F( Route, thatIsBackBeforeItsEndIsProcessedEndsAgain ) {
   rig.routeIs( 16, 1 );
   rig.settle();
   rig.routeDel( 16 );
   rig.poll();
   rig.routeIs( 16, 1 ); // not announced yet when the end is processed
   runUntilIdle( *rig.scheduler, *rig.clock, rig.clock->now() + 0.1, 100 );
   EXPECT_EQ( rig.hardware->routes(), 1U );
   rig.routeDel( 16 );
   rig.settle();
   EXPECT_EQ( rig.hardware->routes(), 0U );
   EXPECT_FALSE( rig.published( 16 ) );
}

TEST_F( Route, deletionOfOneNeverAcceptedChangesNothing ) {
   rig.routeDel( 16 );
   rig.sm->handleLFibRoute( key( 16 ) );
   EXPECT_EQ( rig.state(), nullptr );
}

TEST_F( Route, leavesAndReturnsWithRouting ) {
   rig.routeIs( 16, 1 );
   rig.settle();
   rig.routingInfo->mplsRoutingIs( rig.vrf, false );
   rig.settle();
   EXPECT_EQ( rig.hardware->routes(), 0U );
   EXPECT_FALSE( rig.config()->mplsRouting() );
   EXPECT_EQ( rig.state(), nullptr );
   rig.routeIs( 17, 2 );
   rig.settle();
   EXPECT_EQ( rig.state(), nullptr );
   rig.routingInfo->mplsRoutingIs( rig.vrf, true );
   rig.settle();
   EXPECT_EQ( rig.hardware->routes(), 2U );
   EXPECT_TRUE( rig.status()->mplsRouting() );
}

// While routing is off, changes of via sets go unheard. What was not deleted meanwhile must not
// stay as it was.
TEST_F( Route, followsAViaSetThatChangedWhileRoutingWasOff ) {
   rig.routeIs( 16, 1 );
   rig.settle();
   rig.routingInfo->mplsRoutingIs( rig.vrf, false );
   rig.viaSetIs( 1, { swapVia( 1, "10.0.0.2", 2, 201 ) } );
   rig.poll();
   rig.routingInfo->mplsRoutingIs( rig.vrf, true );
   rig.settle();
   const auto& vias = rig.config()->route( key( 16 ) ).l2Adjacency->l2ViaSet().l2Via();
   ASSERT_EQ( vias.size(), 1U );
   EXPECT_EQ( vias[0].labelStack, Mpls::LabelStack( { 201 } ) );
}

TEST( RouteOfAVrf, withoutNumberWaitsForIt ) {
   LabelRig rig( { .vrfHasNumber = false } );
   rig.l3.neighborIs( "10.0.0.1", 1, 0x020000000001 );
   rig.viaSetIs( 1, { swapVia( 1, "10.0.0.1", 1, 101 ) } );
   rig.routeIs( 16, 1 );
   rig.settle();
   EXPECT_EQ( rig.hwConfig->vrfConfigs(), 0U );
   EXPECT_EQ( rig.published( 16 ), Mpls::RouteStatusCode::notProgrammed );
   rig.vrfNumberIs();
   rig.settle();
   EXPECT_EQ( rig.published( 16 ), Mpls::RouteStatusCode::programmed );
}

// A route in hardware stays there until it is known what its adjacency has become.
TEST_F( Route, staysInHardwareWhileItsAdjacencyIsPending ) {
   rig.routeIs( 16, 1 );
   rig.settle();
   L3Adjacency* const l3Adj = rig.l3Adj( 1 );
   rig.state()->l3AdjForReviewIs( l3Adj->index(), L3AdjReview::viaSetChanged );
   l3Adj->l2AdjacencyIs( nullptr );
   rig.sm->processRouteKey( *rig.state(), key( 16 ) );
   EXPECT_TRUE( rig.config()->routeHas( key( 16 ) ) );
   EXPECT_TRUE( rig.state()->routeKeyForReviewHas( key( 16 ) ) );
   rig.state()->l3AdjForReviewDel( l3Adj->index() );
   rig.sm->processRouteKey( *rig.state(), key( 16 ) );
   EXPECT_FALSE( rig.config()->routeHas( key( 16 ) ) );
}

TEST_F( Route, inACorruptSlotReadsAsAbsentAndTheRestGoesOn ) {
   for ( U32 label = 16; label < 48; ++label ) {
      rig.routeIs( label, 1 );
   }
   rig.settle();
   ASSERT_EQ( rig.hardware->routes(), 32U );
   int corruptions = 0;
   rig.lfib->corruptionHookIs( [&]( const Mpls::LfibCorruption& ) { ++corruptions; } );
   // Flips a bit of route 20's slot: its key word stands in memory once as a key.
   const U64 word = key( 20 ).word();
   for ( size_t at = 0; at + sizeof word <= rig.memory.size(); at += sizeof word ) {
      U64 here = 0;
      std::memcpy( &here, &rig.memory[at], sizeof here );
      if ( here == word ) {
         rig.memory[at + sizeof word] ^= std::byte{ 4 };
         break;
      }
   }
   rig.sm->handleLFibRoute( key( 20 ) );
   rig.routeIs( 48, 2 );
   rig.settle();
   EXPECT_NE( corruptions, 0 );
   EXPECT_EQ( rig.hardware->route( LabelRig::vrfId, key( 20 ) ), nullptr );
   EXPECT_EQ( rig.hardware->routes(), 32U ); // 31 of the old ones and the new one
   // Only the walk brings them back when routing does.
   rig.routingInfo->mplsRoutingIs( rig.vrf, false );
   rig.settle();
   EXPECT_EQ( rig.hardware->routes(), 0U );
   rig.routingInfo->mplsRoutingIs( rig.vrf, true );
   rig.settle();
   EXPECT_EQ( rig.hardware->routes(), 32U );
}

/// The region goes away under the state machine, as when a publisher is stopped while it lays it
/// out. What is in hardware stays, follows its next hop, and the LFIB when that is back.
TEST( RouteUnread, staysUntilTheLfibCanBeReadAgain ) {
   for ( const bool withFecs : { false, true } ) {
      SCOPED_TRACE( withFecs );
      LabelRig rig( { .withFecs = withFecs } );
      addRoutes( rig, 3 );
      rig.settle();
      ASSERT_EQ( rig.hardware->routes(), 3U );
      const auto macOf = [&]( U32 label ) {
         const auto frames = rig.hardware->forward( LabelRig::vrfId, frameOf( label ) ).frames;
         return frames.empty() ? 0 : frames[0].bytes[5];
      };
      const std::byte magic = std::exchange( rig.memory[0], std::byte{ 0 } );
      rig.l3.neighborIs( "10.0.0.1", 1, 0x020000000009 );
      rig.sm->doForceRouteReprogramming();
      rig.sm->handleLFibRoute( key( 17 ) );
      rig.sm->handleLFibViaSet( viaSetKey( 2 ) );
      for ( int i = 0; i < 3; ++i ) {
         rig.settle( 2 );
         EXPECT_EQ( rig.hardware->routes(), 3U );
         EXPECT_EQ( rig.leavesBy( 16 ), "1/100" );
         EXPECT_EQ( rig.leavesBy( 17 ), "1/101" );
         EXPECT_EQ( macOf( 16 ), 9 );
      }
      EXPECT_NE( rig.sm->counters()->lfibUnread(), 0U );
      EXPECT_NE( rig.sm->unreadRoutes(), 0U );
      rig.viaSetIs( 1, { swapVia( 1, "10.0.0.1", 1, 200 ) } );
      rig.routeDel( 18 );
      rig.memory[0] = magic;
      rig.settle( 2 );
      EXPECT_EQ( rig.leavesBy( 16 ), "1/200" );
      EXPECT_EQ( rig.leavesBy( 17 ), "1/101" );
      EXPECT_EQ( rig.hardware->routes(), 2U );
      EXPECT_EQ( rig.sm->unreadRoutes() + rig.sm->unreadViaSets(), 0U );
   }
}

} // namespace
} // namespace Vel::Test
