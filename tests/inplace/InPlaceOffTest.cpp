// Hardware with FECs that cannot change an adjacency in place: ordinary next hops are programmed as
// L2 adjacencies beside the FECs, and a route may move from one to the other.
//
// The toggle is asked once in a process, so these tests have one of their own.

#include <gtest/gtest.h>

#include "platform/services/FeatureToggle.h"
#include "tests/LabelRig.h"

namespace Vel::Test {
namespace {

[[maybe_unused]] const bool inPlaceOff = [] {
   featureToggleIs( "InPlaceMplsAdjacencyUpdate", false );
   return true;
}();

class InPlaceOff : public testing::Test {
 protected:
   InPlaceOff() {
      for ( U32 intf = 1; intf <= 3; ++intf ) {
         rig.l3.neighborIs( nextHopOf( intf ), intf, 0x020000000000 + intf );
      }
      Fib::FecVia out;
      out.nextHop = ip( nextHopOf( 3 ) );
      out.intf = IntfId::ordinary( 3 );
      out.labelAction = MplsLabelAction::push;
      out.labelStack = { 500 };
      rig.hardware->fecUnit()->tunnelIs( tunnel, { out } );
   }
   static std::string nextHopOf( U32 intf ) { return joinText( "10.0.", intf, ".2" ); }
   static Mpls::LfibMplsVia outOf( U32 via, U32 intf ) {
      return swapVia( via, nextHopOf( intf ), intf, 100 + intf );
   }
   Mpls::LfibMplsVia intoTunnel( U32 index ) const {
      Mpls::LfibMplsVia via = swapVia( index, "", 0, 17 );
      via.intf = tunnel;
      return via;
   }
   bool forwards( U32 label ) {
      return !rig.hardware->forward( LabelRig::vrfId, frameOf( label ) ).frames.empty();
   }
   bool intoFec( U32 label ) {
      const Driver::HwRoute* const route = rig.hardware->route( LabelRig::vrfId, key( label ) );
      return route && route->fec;
   }
   /// Settles; the label forwards at every event boundary.
   void settleForwarding( U32 label ) {
      const double until = rig.clock->now() + 1;
      rig.poll();
      while ( true ) {
         ASSERT_TRUE( forwards( label ) );
         if ( rig.scheduler->runOne() ) {
            continue;
         }
         if ( rig.scheduler->nextExpiry() > until ) {
            return;
         }
         rig.clock->nowIs( rig.scheduler->nextExpiry() );
      }
   }

   const IntfId tunnel{ IntfId::Kind::dynamicTunnel, 1 };
   LabelRig rig{ { .withFecs = true } };
};

TEST_F( InPlaceOff, OrdinaryNextHopsAreNoFecs ) {
   rig.viaSetIs( 1, { outOf( 1, 1 ) } );
   rig.viaSetIs( 2, { intoTunnel( 2 ) } );
   Mpls::LfibViaSet ofBgp( { Mpls::LfibSource::bgpLu, Mpls::viaTypeMplsIp, 3 } );
   rig.writer.mplsViaIs( outOf( 3, 2 ) );
   ofBgp.viaKeyAdd( viaKey( 3 ) );
   rig.writer.viaSetIs( ofBgp );
   rig.routeIs( 16, 1 );
   rig.routeIs( 17, 2 );
   rig.routeIs( key( 18 ), ofBgp.key() );
   rig.settle();
   EXPECT_TRUE( forwards( 16 ) && forwards( 17 ) && forwards( 18 ) );
   EXPECT_FALSE( intoFec( 16 ) );
   EXPECT_TRUE( intoFec( 17 ) );
   EXPECT_TRUE( intoFec( 18 ) );
   EXPECT_EQ( rig.config()->routes(), 1U );
}

TEST_F( InPlaceOff, MovingBetweenBothDropsNothing ) {
   rig.viaSetIs( 1, { outOf( 1, 1 ) } );
   rig.viaSetIs( 2, { intoTunnel( 2 ) } );
   rig.routeIs( 16, 1 );
   rig.settle();
   for ( int round = 0; round < 3; ++round ) {
      rig.routeIs( 16, 2 ); // by its via set
      settleForwarding( 16 );
      EXPECT_TRUE( intoFec( 16 ) );
      EXPECT_EQ( rig.config()->routes(), 0U );
      rig.routeIs( 16, 1 );
      settleForwarding( 16 );
      EXPECT_FALSE( intoFec( 16 ) );
      EXPECT_EQ( rig.fecRequest->hwFecIdRequests(), 0U );

      rig.viaSetIs( 1, { intoTunnel( 3 ) } ); // by the content of its via set
      settleForwarding( 16 );
      EXPECT_TRUE( intoFec( 16 ) );
      rig.viaSetIs( 1, { outOf( 1, 1 + static_cast< U32 >( round ) % 2 ) } );
      settleForwarding( 16 );
      EXPECT_FALSE( intoFec( 16 ) );
   }
   EXPECT_EQ( rig.published( 16 ), Mpls::RouteStatusCode::programmed );
   rig.routeDel( 16 );
   rig.settle();
   EXPECT_EQ( rig.state(), nullptr );
   EXPECT_EQ( rig.sm->numAllocator()->status()->numberInUses(), 0U );
   EXPECT_EQ( rig.hardware->routes() + rig.hardware->fecUnit()->fecs(), 0U );
}

} // namespace
} // namespace Vel::Test
