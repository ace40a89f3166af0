// L3 adjacencies, next hops and L2 adjacencies: sharing, resolution, and what is released when.

#include <gtest/gtest.h>

#include <set>

#include "mpls/transit/Parts.h"
#include "tests/LabelRig.h"

namespace Vel::Test {
namespace {

class Adjacency : public testing::Test {
 protected:
   Adjacency() {
      rig.l3.neighborIs( "10.0.0.1", 1, 0x020000000001 );
      rig.l3.neighborIs( "10.0.0.2", 2, 0x020000000002 );
   }
   /// One route over one via set of those vias, settled.
   L3Adjacency* over( U32 viaSet, const std::vector< Mpls::LfibMplsVia >& vias ) {
      rig.viaSetIs( viaSet, vias );
      rig.routeIs( 100 + viaSet, viaSet );
      rig.settle();
      return rig.l3Adj( viaSet );
   }
   const std::vector< Mpls::Hardware::L2Via >& hwVias( L3Adjacency* l3Adj ) {
      return l3Adj->hwL2Adjacency()->l2ViaSet().l2Via();
   }
   Mpls::Hardware::Adjacency* hwAdj( L3Adjacency* l3Adj ) {
      return rig.hwMplsStatus->adjacency( l3Adj->index() );
   }
   LabelRig rig;
};

TEST_F( Adjacency, waysOutThatAreEqualCollapseAndAreShared ) {
   L3Adjacency* const a =
      over( 1, { swapVia( 1, "10.0.0.1", 1, 5 ), swapVia( 2, "10.0.0.1", 1, 5 ) } );
   L3Adjacency* const b = over( 2, { swapVia( 3, "10.0.0.1", 1, 5 ) } );
   ASSERT_TRUE( a->l2Adjacency() );
   EXPECT_EQ( a->l2Adjacency(), b->l2Adjacency() );
   EXPECT_EQ( hwVias( a ).size(), 1U );
   EXPECT_EQ( hwAdj( a )->vias(), 2U );
   L3Adjacency* const c = over( 3, { swapVia( 4, "10.0.0.1", 1, 6 ) } );
   EXPECT_NE( a->l2Adjacency(), c->l2Adjacency() ); // another label is another way out
}

TEST_F( Adjacency, indicesOfBothKindsAreNeverReused ) {
   std::set< U64 > seen;
   for ( int round = 0; round < 3; ++round ) {
      L3Adjacency* const l3Adj = over( 1, { swapVia( 1, "10.0.0.1", 1, 5 ) } );
      EXPECT_TRUE( seen.insert( l3Adj->index() ).second );
      EXPECT_TRUE( seen.insert( l3Adj->l2Adjacency()->index() ).second );
      rig.routeDel( 101 );
      rig.settle();
   }
   EXPECT_EQ( rig.sm->adjacencyIndex(), 6U );
}

TEST_F( Adjacency, withoutUserGoesWithAllThatItHeld ) {
   over( 1, { swapVia( 1, "10.0.0.1", 1, 5 ), swapVia( 2, "10.0.0.9", 0, 5 ) } );
   over( 2, { swapVia( 3, "10.0.0.1", 1, 6 ) } );
   EXPECT_EQ( rig.l3.arp->entrys(), 1U );
   EXPECT_EQ( rig.l3.resolver->watchedAddrs(), 1U );
   rig.routeDel( 101 );
   rig.settle();
   EXPECT_EQ( rig.l3Adj( 1 ), nullptr );
   EXPECT_EQ( rig.hwMplsStatus->adjacencys(), 1U );
   EXPECT_EQ( rig.l3.resolver->watchedAddrs(), 0U );
   EXPECT_EQ( rig.l3.arp->entrys(), 1U ); // the other adjacency still resolves through it
   rig.routeDel( 102 );
   rig.settle();
   EXPECT_EQ( rig.l3.arp->entrys(), 0U );
   EXPECT_EQ( rig.state(), nullptr );
}

TEST_F( Adjacency, releasesTheNextHopsThatItsViaSetNoLongerNames ) {
   over( 1, { swapVia( 1, "10.0.0.1", 1, 5 ) } );
   rig.viaSetIs( 1, { swapVia( 1, "10.0.0.2", 2, 5 ) } );
   rig.settle();
   EXPECT_EQ( rig.l3Adj( 1 )->nextHops(), 1U );
   EXPECT_EQ( rig.state()->mplsNextHops(), 1U );
   EXPECT_TRUE( rig.l3.arp->entryHas( { rig.vrf, ip( "10.0.0.2" ), IntfId::ordinary( 2 ) } ) );
   EXPECT_EQ( rig.l3.arp->entrys(), 1U );
}

TEST_F( Adjacency, followsItsNextHops ) {
   L3Adjacency* const l3Adj =
      over( 1, { swapVia( 1, "10.0.0.1", 1, 5 ), swapVia( 2, "10.0.0.3", 3, 5 ) } );
   EXPECT_EQ( rig.published( 101 ), Mpls::RouteStatusCode::partiallyProgrammed );
   EXPECT_EQ( hwVias( l3Adj ).size(), 1U );
   rig.l3.neighborIs( "10.0.0.3", 3, 0x020000000003 );
   rig.settle();
   EXPECT_EQ( hwVias( l3Adj ).size(), 2U );
   EXPECT_EQ( rig.published( 101 ), Mpls::RouteStatusCode::programmed );
   rig.l3.neighborIs( "10.0.0.3", 3, 0x0200000000AA ); // another MAC address
   rig.settle();
   EXPECT_EQ( rig.hardware->adjacencies(), 1U );
   rig.l3.neighborDel( "10.0.0.3", 3 );
   rig.l3.neighborDel( "10.0.0.1", 1 );
   rig.settle();
   EXPECT_FALSE( l3Adj->l2Adjacency() );
   EXPECT_TRUE( l3Adj->unprogrammed() );
   EXPECT_EQ( rig.hardware->routes(), 0U );
   EXPECT_EQ( rig.hardware->adjacencies(), 0U );
   EXPECT_EQ( rig.published( 101 ), Mpls::RouteStatusCode::notProgrammed );
   rig.l3.neighborIs( "10.0.0.1", 1, 0x020000000001 );
   rig.settle();
   EXPECT_EQ( rig.published( 101 ), Mpls::RouteStatusCode::partiallyProgrammed );
}

TEST_F( Adjacency, thatLosesItsL3AdjacencyWaitsForItsRoutes ) {
   L3Adjacency* const l3Adj = over( 1, { swapVia( 1, "10.0.0.1", 1, 5 ) } );
   const U64 old = l3Adj->l2Adjacency()->index();
   rig.viaSetIs( 1, { swapVia( 1, "10.0.0.2", 2, 5 ) } );
   rig.poll();
   rig.sm->parts().l3Adjacencies.processL3Adj( *rig.state(), l3Adj->index() );
   ASSERT_NE( l3Adj->l2Adjacency()->index(), old );
   EXPECT_TRUE( rig.state()->l2AdjForReviewHas( old ) );
   rig.state()->l2AdjForReviewDel( old );
   rig.sm->parts().l2Adjacencies.processL2Adj( *rig.state(), old );
   EXPECT_TRUE( rig.state()->l2AdjPendingForDeleteHas( old ) ); // route 101 still points at it
   EXPECT_TRUE( rig.state()->l2AdjacencyHas( old ) );
   const U64 deleted = rig.state()->l2AdjDeleted();
   rig.settle();
   EXPECT_FALSE( rig.state()->l2AdjacencyHas( old ) );
   EXPECT_EQ( rig.state()->l2AdjDeleted(), deleted + 1 );
   EXPECT_EQ( rig.hwMplsStatus->l2Adjacencys(), 1U );
}

TEST_F( Adjacency, reprogrammingRaisesTheVersionEachTime ) {
   L3Adjacency* const l3Adj = over( 1, { swapVia( 1, "10.0.0.1", 1, 5 ) } );
   const U32 before = rig.config()->l2Adjacency( l3Adj->hwL2Adjacency() );
   rig.sm->parts().l2Adjacencies.progHwL2Adj( rig.vrf, l3Adj->hwL2Adjacency() );
   rig.sm->parts().l2Adjacencies.progHwL2Adj( rig.vrf, l3Adj->hwL2Adjacency() );
   EXPECT_EQ( rig.config()->l2Adjacency( l3Adj->hwL2Adjacency() ), before + 2 );
}

TEST_F( Adjacency, takesTheDefaultRouteOnlyWhereAllowed ) {
   over( 1, { swapVia( 1, "198.51.100.1", 0, 5 ) } );
   const NextHopInfo arp{ 0, IntfId::ordinary( 1 ), MacAddr( 0x020000000001 ), true };
   const ResolvedAddr byDefault{
      { ip( "0.0.0.0" ), 0 },
      { { ip( "10.0.0.1" ), IntfId::ordinary( 1 ), ResolvedNexthop::Type::viaRouter, arp } } };
   rig.l3Status->resolvedAddrIs( { rig.vrf, ip( "198.51.100.1" ) }, byDefault );
   rig.settle();
   EXPECT_EQ( rig.hardware->routes(), 0U );
   rig.lfibInfo->nexthopResolutionAllowDefaultRouteIs( true );
   rig.settle();
   EXPECT_EQ( rig.hardware->routes(), 1U );
   rig.lfibInfo->nexthopResolutionAllowDefaultRouteIs( false );
   rig.settle();
   EXPECT_EQ( rig.hardware->routes(), 0U );
}

TEST_F( Adjacency, resolvesThroughTheRouteResolverInBothFamilies ) {
   rig.l3.neighborIs( "2001:db8::1", 3, 0x020000000003 );
   L3Adjacency* const l3Adj =
      over( 1, { swapVia( 1, "10.0.0.1", 0, 5 ), swapVia( 2, "2001:db8::1", 0, 5 ) } );
   EXPECT_EQ( hwVias( l3Adj ).size(), 2U );
   EXPECT_EQ( rig.l3.resolver->watchedAddrs(), 1U );
   EXPECT_EQ( rig.l3.resolver6->watchedIp6Addrs(), 1U );
   rig.l3.neighborDel( "2001:db8::1", 3 );
   rig.settle();
   EXPECT_EQ( hwVias( l3Adj ).size(), 1U );
}

// --- Via sets that cannot be programmed.

Mpls::LfibMplsVia with( Mpls::LfibMplsVia via, IntfId intf ) {
   via.intf = intf;
   return via;
}
Mpls::LfibMplsVia withTwoLabels( Mpls::LfibMplsVia via ) {
   via.labelStack = { 1, 2 };
   return via;
}

TEST_F( Adjacency, saysWhyAViaSetCannotBeProgrammed ) {
   const IntfId tunnel( IntfId::Kind::dynamicTunnel, 1 );
   const IntfId group = Fib::FecId::fecIdToNexthopGroupIntfId(
      Fib::FecId::fecIdForAdjType( Fib::AdjType::nexthopGroupAdj, 4 ) );
   const auto good = swapVia( 1, "10.0.0.1", 1, 5 );
   const auto nhg = with( swapVia( 2, "10.0.0.1", 1, 5 ), group );
   auto nhgOnly = nhg;
   nhgOnly.labelAction = MplsLabelAction::none;
   nhgOnly.labelStack = {};
   const auto nhg2 = with( swapVia( 3, "10.0.0.1", 1, 5 ), group );
   const auto dyn = with( swapVia( 4, "10.0.0.1", 1, 5 ), tunnel );
   auto dynPop = with( swapVia( 5, "10.0.0.1", 1, 5 ), tunnel );
   dynPop.labelAction = MplsLabelAction::pop;
   auto dynPayload = with( swapVia( 6, "10.0.0.1", 1, 5 ), tunnel );
   dynPayload.payloadType = Mpls::PayloadType::ipv4;
   const auto operating = []( uint16_t index, MplsLabelAction action, bool hasLabel ) {
      auto via = swapVia( index, "10.0.0.1", 1, 5 );
      via.labelAction = action;
      if ( !hasLabel ) {
         via.labelStack = {};
      }
      return via;
   };
   const struct {
      std::vector< Mpls::LfibMplsVia > vias;
      const char* fault;
   } cases[] = {
      { { good, withTwoLabels( swapVia( 7, "10.0.0.1", 1, 5 ) ) },
        "Vias with more than one label is not supported" },
      { { swapVia( 8, "", 0, 5 ) }, "L3 interface and nexthop are not set, via is invalid" },
      { { swapVia( 9, "", 1, 5 ) }, "nexthop is not set, via is invalid" },
      { { nhg, dyn }, "Mix of dynamic tunnel and NHG via is not supported" },
      { { dyn, nhg }, "Mix of dynamic tunnel and NHG via is not supported" },
      { { nhg, good }, "Mix of tunnel and non-tunnel via is not supported" },
      { { nhg, nhg2 }, "Only one NHG via is supported now" },
      { { dyn, dynPop },
        "Adjacencies of dynamic tunnel should have the samelabel action. The conflicting "
        "labelActions are: swap and pop" },
      { { dyn, dynPayload },
        "Adjacencies of dynamic tunnel should have the samepayloadTypes. The conflicting "
        "payloadTypes are: undefined and ipv4" },
      { { dyn }, "Unsupported lFib Adj adjTypeDynamicTunnel" },
      { { nhg }, "a next-hop group has its own label operation, only a pop may come before it" },
      { { nhgOnly }, "Unsupported lFib Adj adjTypeNexthopGroup" },
      { { operating( 10, MplsLabelAction::none, false ) }, "the via has no label action" },
      { { good, operating( 11, MplsLabelAction::swap, false ) }, "the via has no outgoing label" },
      { { operating( 12, MplsLabelAction::push, false ) }, "the via has no outgoing label" },
      { { operating( 13, MplsLabelAction::pop, true ) }, "the via pops and has a label" },
   };
   U32 viaSet = 1;
   for ( const auto& each : cases ) {
      SCOPED_TRACE( each.fault );
      L3Adjacency* const l3Adj = over( viaSet, each.vias );
      EXPECT_EQ( rig.sm->lFibViaSetFault( viaSetKey( viaSet ) ), each.fault );
      ASSERT_NE( l3Adj, nullptr );
      EXPECT_TRUE( l3Adj->unprogrammed() );
      EXPECT_FALSE( rig.config()->routeHas( key( 100 + viaSet ) ) );
      ++viaSet;
   }
   EXPECT_EQ( rig.hardware->routes(), 0U );
}

TEST_F( Adjacency, thatStopsBeingSaneStaysAsItWas ) {
   over( 1, { swapVia( 1, "10.0.0.1", 1, 5 ) } );
   rig.viaSetIs( 1, { withTwoLabels( swapVia( 1, "10.0.0.1", 1, 5 ) ) } );
   rig.settle();
   EXPECT_EQ( rig.hardware->routes(), 1U );
}

TEST_F( Adjacency, thatBecomesATunnelLeavesHardware ) {
   over( 1, { swapVia( 1, "10.0.0.1", 1, 5 ) } );
   rig.viaSetIs(
      1, { with( swapVia( 1, "10.0.0.1", 1, 5 ), IntfId( IntfId::Kind::dynamicTunnel, 1 ) ) } );
   rig.settle();
   EXPECT_EQ( rig.hardware->routes() + rig.hardware->adjacencies(), 0U );
   EXPECT_EQ( rig.published( 101 ), Mpls::RouteStatusCode::notProgrammed );
   EXPECT_EQ( rig.l3.arp->entrys(), 0U );
}

} // namespace
} // namespace Vel::Test
