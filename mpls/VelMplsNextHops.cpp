// MplsSm: next hops and L2 adjacencies. What the vias resolve to, and one adjacency for each
// distinct result.

#include "mpls/VelMplsSm.h"
#include "mpls/VelMplsTrace.h"

namespace Vel {

namespace {

// One way out for the via: the neighbour's rewrite and the via's label operation.
Mpls::Hardware::L2Via l2ViaOf( const Mpls::LfibMplsVia& via, const NextHopInfo& info ) {
   return { info.vlanId,     info.l2Intf, info.macAddr,  via.labelAction,
            via.payloadType, via.ttlMode, via.labelStack };
}

} // namespace

// --- Resolution.

Mpls::Hardware::L2ViaSet MplsSm::resolveNextHop( VrfMplsState& vrfState,
                                                 const Mpls::LfibMplsVia& via, U32 nVias,
                                                 L3Adjacency& l3Adj ) {
   return via.intf.empty() ? resolveNextHopWithRR( vrfState, via, nVias, l3Adj )
                           : resolveNextHopWithMNHSM( vrfState, via, nVias, l3Adj );
}

Mpls::Hardware::L2ViaSet MplsSm::resolveNextHopWithRR( VrfMplsState& vrfState,
                                                       const Mpls::LfibMplsVia& via, U32 nVias,
                                                       L3Adjacency& l3Adj ) {
   const L3::VrfName& vrf = vrfState.vrfName();
   const IpGenAddr nextHop = via.nextHop;
   MPLS_TRACE( 7, "resolve nexthop with routeResolver vrf ", vrf, " nextHop ", nextHop, " nVias ",
               nVias, " l3 adj ", l3Adj.index() );
   if ( !vrfState.mplsNextHopHas( { nextHop, IntfId() } ) ) {
      MPLS_TRACE( 3, "add watched addr ", nextHop );
      if ( nextHop.af() == ipv4() ) {
         in_.routeReactorConfig->addWatchedAddr( { vrf, nextHop } );
      } else {
         MPLS_ASSERT( nextHop.af() == ipv6(), "nextHop.af() == ipv6()", textOf( nextHop ) );
         in_.route6ReactorConfig->addWatchedIp6Addr( { vrf, nextHop } );
      }
   }
   const ResolvedAddr& resolved = nextHop.af() == ipv4()
                                     ? in_.velL3Status->resolvedAddr( { vrf, nextHop } )
                                     : in_.velL3Status->resolvedIp6Addr( { vrf, nextHop } );
   Mpls::Hardware::L2ViaSet l2Vias;
   if ( !resolved.prefix.isDefaultRoutePrefix() ||
        in_.lfibInfo->nexthopResolutionAllowDefaultRoute() ) {
      for ( const ResolvedNexthop& found : resolved.nexthop ) {
         MPLS_TRACE( 7, "nexthop ", found.nextHop, " nexthop type ", found.type );
         if ( !found.arp.resolved || found.nextHop.empty() || found.nextHop.isAny() ) {
            MPLS_TRACE( 7, "nexthop ", found.nextHop, " arp is not resolved" );
            MPLS_RING( "nexthop arp not resolved", l3Adj.index() );
            continue;
         }
         const Mpls::Hardware::L2Via l2Via = l2ViaOf( via, found.arp );
         MPLS_TRACE( 7, " hw l2 via ", l2Via );
         MPLS_TRACE( 8, "hw l2 via vlan ", l2Via.vlanId, " intf ", l2Via.intf, " mac ",
                     l2Via.macAddr );
         l2Vias.l2ViaIs( l2Via );
      }
   }
   return writeHwVia( l3Adj, via, std::move( l2Vias ) );
}

Mpls::Hardware::L2ViaSet MplsSm::resolveNextHopWithMNHSM( VrfMplsState& vrfState,
                                                          const Mpls::LfibMplsVia& via, U32 nVias,
                                                          L3Adjacency& l3Adj ) {
   const L3::VrfName& vrf = vrfState.vrfName();
   const IpGenAddr nextHop = via.nextHop;
   MPLS_TRACE( 7, "resolve nexthop with proactiveArpNhSm vrf ", vrf, " nextHop ", nextHop,
               " l3Intf ", via.intf, " nVias ", nVias, " l3 adj ", l3Adj.index() );
   MPLS_ASSERT( nextHop.af() == ipv4() || nextHop.af() == ipv6(),
                "nextHop.af() == ipv4() || nextHop.af() == ipv6()", textOf( via ) );
   if ( !vrfState.mplsNextHopHas( { nextHop, via.intf } ) ) {
      MPLS_TRACE( 3, "add entry (", vrf, ", ", nextHop, ", ", via.intf, ")" );
      in_.proactiveArpNhSm->addEntry( vrf, nextHop, via.intf );
   }
   Mpls::Hardware::L2ViaSet l2Vias;
   const NextHopInfo& info = in_.velL3Status->nextHopInfo( { via.intf, nextHop } );
   if ( info.resolved ) {
      MPLS_TRACE( 7, "nexthop resolved: nexthop ", nextHop, " vlanId ", info.vlanId, " l2Intf ",
                  info.l2Intf, " macAddr ", info.macAddr );
      l2Vias.l2ViaIs( l2ViaOf( via, info ) );
   }
   return writeHwVia( l3Adj, via, std::move( l2Vias ) );
}

// Writes the via behind those that the hardware adjacency has, with what it resolved to.
Mpls::Hardware::L2ViaSet MplsSm::writeHwVia( const L3Adjacency& l3Adj, const Mpls::LfibMplsVia& via,
                                             Mpls::Hardware::L2ViaSet l2Vias ) {
   Mpls::Hardware::Adjacency* const hwAdj = in_.routingHwMplsStatus->adjacency( l3Adj.index() );
   Mpls::Hardware::AdjacencyVia hwVia = hwViaOf( via );
   hwVia.l2Via = l2Vias;
   hwAdj->viaIs( static_cast< U32 >( hwAdj->vias() ), hwVia );
   hwAdj->unresolvedViasIs( hwAdj->unresolvedVias() + ( hwVia.resolved() ? 0 : 1 ) );
   return l2Vias;
}

// --- Changes of what next hops resolve to.

void MplsSm::handleNexthopResolutionAllowDefaultRoute() {
   MPLS_TRACE_CALL( 3 );
   for ( const auto& [vrf, vrfState] : mplsState() ) {
      for ( const auto& [key, nextHop] : vrfState->mplsNextHop() ) {
         queueL3AdjsForReview( *vrfState, nextHop->resolvedByRR() );
      }
      doMaybeScheduleReview( vrf );
   }
}

void MplsSm::handleNextHop( const NextHopKey& key ) {
   MPLS_TRACE( 3, "handle nexthopkey intf: ", key.intf, " addr ", key.addr );
   counters_->nextHopsReceivedInc();
   for ( const auto& [vrf, vrfState] : mplsState() ) {
      if ( const MplsNextHop* const nextHop = vrfState->mplsNextHop( { key.addr, key.intf } ) ) {
         queueL3AdjsForReview( *vrfState, nextHop->resolvedByMNH() );
         doMaybeScheduleReview( vrf );
      }
   }
}

void MplsSm::handleResolvedNexthop( const VrfAndIpGenAddr& vrfAddr ) {
   MPLS_TRACE( 3, "handle resolved nexthop ", vrfAddr );
   counters_->nextHopsReceivedInc();
   MPLS_ASSERT( vrfAddr.ipGenAddr.af() == ipv4() || vrfAddr.ipGenAddr.af() == ipv6(),
                "vrfAddr.ipGenAddr().af() == ipv4() || vrfAddr.ipGenAddr().af() == ipv6()",
                textOf( vrfAddr ) );
   VrfMplsState* const vrfState = mplsState( vrfAddr.vrfName );
   if ( vrfState == nullptr ) {
      MPLS_TRACE( 3, "no state for vrf ", vrfAddr.vrfName );
      return;
   }
   if ( const MplsNextHop* const nextHop =
           vrfState->mplsNextHop( { vrfAddr.ipGenAddr, IntfId() } ) ) {
      queueL3AdjsForReview( *vrfState, nextHop->resolvedByRR() );
      doMaybeScheduleReview( vrfAddr.vrfName );
   }
}

void MplsSm::handleResolvedV4Nexthop( const VrfAndIpAddr& vrfAddr ) {
   handleResolvedNexthop( { vrfAddr.vrfName, vrfAddr.ipAddr } );
}

void MplsSm::handleResolvedV6Nexthop( const VrfAndIpGenAddr& vrfAddr ) {
   handleResolvedNexthop( vrfAddr );
}

void MplsSm::queueL3AdjsForReview( VrfMplsState& vrfState, const HashSet< L3Adjacency* >& l3Adjs ) {
   for ( const L3Adjacency* const l3Adj : l3Adjs ) {
      MPLS_TRACE( 3, "add l3 adj ", l3Adj->index(), " for review" );
      vrfState.l3AdjForReviewIs( l3Adj->index() );
   }
}

// --- L2 adjacencies.

MplsL2Adjacency* MplsSm::newL2Adjacency( VrfMplsState& vrfState ) {
   const U64 index = adjacencyIndex();
   MPLS_TRACE( 3, "create l2 adj ", index );
   adjacencyIndexInc();
   in_.routingHwMplsStatus->l2AdjacencyIs( index );
   return vrfState.l2AdjacencyMake( index );
}

void MplsSm::progHwL2Adj( const L3::VrfName& vrf,
                          const Ptr< Mpls::Hardware::L2Adjacency >& hwL2Adj ) {
   MplsHwVrfConfig* const config = velMplsHwVrfConfig( vrf );
   if ( config == nullptr ) {
      return; // the VRF's number brings everything back
   }
   const U32 version = config->l2Adjacency( hwL2Adj ) + 1; // an absent one counts as 0
   counters_->adjacenciesWrittenInc();
   config->l2AdjacencyIs( hwL2Adj, version );
   MPLS_TRACE( 3, "prog hw L2 adj ", hwL2Adj->index(), " ver ", version );
}

void MplsSm::addRouteKeyToL2Adj( Mpls::RouteKey routeKey, MplsL2Adjacency& l2Adj ) {
   MPLS_TRACE( 7, "add routeKey ", routeKey, " to l2Adj ", l2Adj.index() );
   l2Adj.routeKeyIs( routeKey );
}

void MplsSm::deleteRouteKeyFromL2Adj( Mpls::RouteKey routeKey, MplsL2Adjacency& l2Adj ) {
   MPLS_TRACE( 7, "delete routeKey ", routeKey, " from l2Adj ", l2Adj.index() );
   l2Adj.routeKeyDel( routeKey );
}

void MplsSm::processL2Adj( VrfMplsState& vrfState, U64 index ) {
   MPLS_TRACE( 3, "process l2 adj ", index, " vrf ", vrfState.vrfName() );
   MplsL2Adjacency* const l2Adj = vrfState.l2Adjacency( index );
   MPLS_ASSERT( l2Adj, "l2Adj", textOf( index ) );
   if ( l2Adj->l3Adjacencys() != 0 ) {
      queueL3AdjsForReview( vrfState, l2Adj->l3Adjacency() );
      return;
   }
   MPLS_TRACE( 3, "delete l2 adj ", index );
   // Nothing binds to it any more. An L2 adjacency that waits to be deleted may have a successor
   // with the same vias.
   const auto& mapped = viaSetToHwL2Adj( l2Adj->l2ViaSet() );
   if ( mapped && mapped->index() == index ) {
      viaSetToHwL2AdjDel( l2Adj->l2ViaSet() );
   }
   maybeDeleteL2Adj( vrfState, index );
}

void MplsSm::maybeDeleteL2Adj( VrfMplsState& vrfState, U64 index ) {
   MplsL2Adjacency* const l2Adj = vrfState.l2Adjacency( index );
   MPLS_ASSERT( l2Adj, "l2Adj", textOf( index ) );
   if ( l2Adj->routeKeys() != 0 ) {
      MPLS_TRACE( 3, "schedule l2 adj ", index, " for deletion" );
      vrfState.l2AdjPendingForDeleteIs( index ); // the last of them to leave brings it back
      doMaybeScheduleReview( vrfState.vrfName() );
      return;
   }
   MPLS_TRACE( 3, "delete l2 adj ", index );
   vrfState.l2AdjPendingForDeleteDel( index );
   doDeleteL2Adj( vrfState, index );
}

void MplsSm::processL2AdjPendingDelete( VrfMplsState& vrfState, U64 index ) {
   const MplsL2Adjacency* const l2Adj = vrfState.l2Adjacency( index );
   MPLS_ASSERT( l2Adj, "l2Adj", textOf( index ) );
   if ( l2Adj->routeKeys() != 0 ) {
      return;
   }
   MPLS_TRACE( 3, "delete l2 adj ", index );
   vrfState.l2AdjPendingForDeleteDel( index );
   doDeleteL2Adj( vrfState, index );
   vrfState.l2AdjDeletedInc();
}

void MplsSm::doDeleteL2Adj( VrfMplsState& vrfState, U64 index ) {
   MPLS_TRACE( 3, "doDelete l2 adj ", index );
   const Ptr< Mpls::Hardware::L2Adjacency > hwL2Adj = in_.routingHwMplsStatus->l2Adjacency( index );
   vrfState.l2AdjForReviewDel( index ); // work sets never name the dead
   vrfState.l2AdjVacatedDel( index );
   vrfState.l2AdjacencyDel( index );
   if ( MplsHwVrfConfig* const config = writtenHwVrfConfig( vrfState ) ) {
      config->l2AdjacencyDel( hwL2Adj );
   }
   in_.routingHwMplsStatus->l2AdjacencyDel( index );
}

} // namespace Vel
