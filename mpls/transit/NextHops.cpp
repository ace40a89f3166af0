#include "mpls/transit/NextHops.h"

#include <utility>
#include <vector>

#include "mpls/VelMplsTrace.h"
#include "mpls/transit/Parts.h"

namespace Vel::Transit {

namespace {

// One way out for the via: the neighbour's rewrite and the via's label operation.
Mpls::Hardware::L2Via l2ViaOf( const Mpls::LfibMplsVia& via, const NextHopInfo& info ) {
   return { info.vlanId,     info.l2Intf, info.macAddr,  via.labelAction,
            via.payloadType, via.ttlMode, via.labelStack };
}

} // namespace

Mpls::Hardware::L2ViaSet NextHops::resolveNextHop( VrfMplsState& vrfState,
                                                   const Mpls::LfibMplsVia& via, U32 nVias,
                                                   L3Adjacency& l3Adj ) {
   return via.intf.empty() ? resolveNextHopWithRR( vrfState, via, nVias, l3Adj )
                           : resolveNextHopWithMNHSM( vrfState, via, nVias, l3Adj );
}

Mpls::Hardware::L2ViaSet NextHops::resolveNextHopWithRR( VrfMplsState& vrfState,
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

Mpls::Hardware::L2ViaSet NextHops::resolveNextHopWithMNHSM( VrfMplsState& vrfState,
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
Mpls::Hardware::L2ViaSet NextHops::writeHwVia( const L3Adjacency& l3Adj,
                                               const Mpls::LfibMplsVia& via,
                                               Mpls::Hardware::L2ViaSet l2Vias ) {
   Mpls::Hardware::Adjacency* const hwAdj = in_.routingHwMplsStatus->adjacency( l3Adj.index() );
   Mpls::Hardware::AdjacencyVia hwVia = hwViaOf( via );
   hwVia.l2Via = l2Vias;
   hwAdj->viaIs( static_cast< U32 >( hwAdj->vias() ), hwVia );
   hwAdj->unresolvedViasIs( hwAdj->unresolvedVias() + ( hwVia.resolved() ? 0 : 1 ) );
   return l2Vias;
}

void NextHops::setHwAdjViasForNormalMplsRoute( VrfMplsState& vrfState, L3Adjacency& l3Adj,
                                               const Mpls::LfibViaSet& viaSet,
                                               const ProgrammableMplsFecVias& vias,
                                               L3AdjLFibAdjType adjType ) {
   Mpls::Hardware::Adjacency* const hwAdj = in_.routingHwMplsStatus->adjacency( l3Adj.index() );
   MPLS_ASSERT( hwAdj, "l3Adj", l3Adj.fullName() );
   hwAdj->viaDelAll();
   hwAdj->unresolvedViasIs( 0 );
   hwAdj->viaSetTypeIs( viaSet.key().viaSetType() );
   MPLS_TRACE( 7, "LFib via set ", viaSet.key(), " via size ", vias.vias(),
               "LFib adj type: ", adjType );
   MPLS_TRACE( 7, "LFib adj index ", l3Adj.index(), " via size ", vias.vias(), " adj type ",
               adjType );
   MPLS_ASSERT( adjType == L3AdjLFibAdjType::adjTypeRegular,
                "lFibAdjType == L3AdjLFibAdjType::adjTypeRegular_", l3Adj.fullName() );
   std::vector< Mpls::Hardware::L2Via > exits;
   exits.reserve( vias.vias() );
   for ( const auto& [viaIndex, via] : vias.via() ) {
      MPLS_TRACE( 7, "LFib via ", via );
      const Mpls::Hardware::L2ViaSet resolved =
         resolveNextHop( vrfState, via, static_cast< U32 >( vias.vias() ), l3Adj );
      MPLS_TRACE( 7, "resolved nexthops: ", resolved );
      exits.insert( exits.end(), resolved.l2Via().begin(), resolved.l2Via().end() );
      MPLS_ASSERT( via.nextHop.af() == ipv4() || via.nextHop.af() == ipv6(),
                   "via.nextHop().af() == ipv4() || via.nextHop().af() == ipv6()", textOf( via ) );
      const IpAddrIntfId key{ via.nextHop, via.intf };
      MplsNextHop* const nextHop = useNextHop( vrfState, l3Adj, key );
      if ( !resolved.empty() ) {
         nextHop->unresolvedSinceIs( neverTime );
      } else if ( nextHop->unresolvedSince() == neverTime ) {
         nextHop->unresolvedSinceIs( in_.clock->now() );
      }
   }
   if ( exits.empty() ) {
      parts_.l2Adjacencies.unbindL3AdjFromL2Adj( vrfState, l3Adj );
   } else {
      parts_.l2Adjacencies.bindL3AdjToL2Adj( vrfState, l3Adj,
                                             Mpls::Hardware::L2ViaSet( std::move( exits ) ) );
   }
   releaseFormerNextHops( vrfState, l3Adj );
}

ProgrammableMplsFecVias NextHops::viasInHardware( const L3Adjacency& l3Adj ) const {
   ProgrammableMplsFecVias vias;
   for ( const auto& [viaIndex, hwVia] :
         in_.routingHwMplsStatus->adjacency( l3Adj.index() )->via() ) {
      vias.viaIs( viaIndex, viaOf( hwVia ) );
   }
   return vias;
}

bool NextHops::hasVias( const L3Adjacency& l3Adj, const CachedLFibMplsViaColl& vias ) const {
   const Mpls::Hardware::Adjacency& hwAdj = *in_.routingHwMplsStatus->adjacency( l3Adj.index() );
   U32 at = 0;
   for ( const auto& [viaIndex, via] : vias.via() ) {
      if ( viaOf( hwAdj.via( at++ ) ) != via ) {
         return false;
      }
   }
   return hwAdj.vias() == at;
}

Mpls::Hardware::AdjacencyVia NextHops::hwViaOf( const Mpls::LfibMplsVia& via ) {
   return { via.key,         via.nextHop, via.intf,       via.labelAction,
            via.payloadType, via.ttlMode, via.labelStack, {} };
}

Mpls::LfibMplsVia NextHops::viaOf( const Mpls::Hardware::AdjacencyVia& hwVia ) {
   Mpls::LfibMplsVia via;
   via.key = hwVia.viaKey;
   via.nextHop = hwVia.nextHop;
   via.intf = hwVia.intf;
   via.labelAction = hwVia.labelAction;
   via.payloadType = hwVia.payloadType;
   via.ttlMode = hwVia.ttlMode;
   via.labelStack = hwVia.labelStack;
   return via;
}

MplsLabel NextHops::singleMplsLabelFromVia( const Mpls::LfibMplsVia& via ) {
   MPLS_ASSERT( via.labelStack.stackSize() == 1, "via.labelStack().stackSize() == 1",
                textOf( via ) );
   return via.labelStack.label( 0 );
}

MplsNextHop* NextHops::useNextHop( VrfMplsState& vrfState, L3Adjacency& l3Adj,
                                   const IpAddrIntfId& key ) {
   MplsNextHop* const nextHop = vrfState.mplsNextHopIs( key );
   l3Adj.nextHopIs( key );
   if ( key.l3Intf.empty() ) {
      nextHop->resolvedByRRIs( &l3Adj );
   } else {
      nextHop->resolvedByMNHIs( &l3Adj );
   }
   return nextHop;
}

void NextHops::releaseFormerNextHops( VrfMplsState& vrfState, L3Adjacency& l3Adj ) {
   HashSet< IpAddrIntfId > named;
   for ( const auto& [viaIndex, hwVia] :
         in_.routingHwMplsStatus->adjacency( l3Adj.index() )->via() ) {
      named.insert( { hwVia.nextHop, hwVia.intf } );
   }
   l3Adj.keepsNextHopsIs( l3Adj.nextHops() != named.size() &&
                          ( someElsewhere( vrfState, l3Adj, l3Adj.routeKey() ) ||
                            someElsewhere( vrfState, l3Adj, l3Adj.carriedRouteKey() ) ) );
   if ( l3Adj.keepsNextHops() ) {
      return;
   }
   for ( const IpAddrIntfId& key : l3Adj.nextHop() ) {
      if ( !named.has( key ) ) {
         releaseNextHop( vrfState, l3Adj, key );
         l3Adj.nextHopDel( key );
      }
   }
}

// Whether one of the routes is in hardware by something that the adjacency is not any more, and
// that nobody else keeps for it.
bool NextHops::someElsewhere( const VrfMplsState& vrfState, const L3Adjacency& l3Adj,
                              const RouteKeyGroup& routes ) {
   for ( const Mpls::RouteKey routeKey : routes ) {
      const MplsRoute& route = *vrfState.route( routeKey );
      const L3Adjacency* const carrier = vrfState.carrierOf( routeKey );
      if ( route.inHardware() && !route.inHardwareBy( l3Adj ) &&
           ( carrier == nullptr || carrier == &l3Adj ) ) {
         return true;
      }
   }
   return false;
}

void NextHops::deleteL3AdjRefs( VrfMplsState& vrfState, L3Adjacency& l3Adj ) {
   for ( const IpAddrIntfId& key : l3Adj.nextHop() ) {
      releaseNextHop( vrfState, l3Adj, key );
   }
}

// The adjacency no longer resolves through the next hop; the last one to leave ends the watch.
void NextHops::releaseNextHop( VrfMplsState& vrfState, L3Adjacency& l3Adj,
                               const IpAddrIntfId& key ) {
   MplsNextHop* const nextHop = vrfState.mplsNextHop( key );
   if ( nextHop == nullptr ) {
      return;
   }
   const L3::VrfName& vrf = vrfState.vrfName();
   if ( nextHop->resolvedByRRDel( &l3Adj ) && nextHop->resolvedByRRs() == 0 ) {
      unwatchWithRR( vrf, nextHop->nextHopIp() );
   }
   if ( nextHop->resolvedByMNHDel( &l3Adj ) && nextHop->resolvedByMNHs() == 0 ) {
      unwatchWithMNHSM( vrf, *nextHop );
   }
   if ( nextHop->resolvedByRRs() == 0 && nextHop->resolvedByMNHs() == 0 ) {
      vrfState.mplsNextHopDel( key );
   }
}

void NextHops::unwatchWithRR( const L3::VrfName& vrf, const IpGenAddr& nh ) {
   MPLS_TRACE( 3, "remove watched addr ", nh );
   if ( nh.af() == ipv4() ) {
      in_.routeReactorConfig->removeWatchedAddr( { vrf, nh } );
   } else {
      MPLS_ASSERT( nh.af() == ipv6(), "nh.af() == ipv6()", textOf( nh ) );
      in_.route6ReactorConfig->removeWatchedIp6Addr( { vrf, nh } );
   }
}

void NextHops::unwatchWithMNHSM( const L3::VrfName& vrf, const MplsNextHop& nextHop ) {
   MPLS_TRACE( 3, "remove entry (vrf=", vrf, " nexthop=", nextHop.nextHopIp(),
               " l3Intf=", nextHop.l3Intf(), ") from proactiveArpNhSm" );
   in_.proactiveArpNhSm->removeEntry( vrf, nextHop.nextHopIp(), nextHop.l3Intf() );
}

void NextHops::queueL3AdjsForReview( VrfMplsState& vrfState, const HashSet< L3Adjacency* >& l3Adjs,
                                     L3AdjReview why ) {
   for ( const L3Adjacency* const l3Adj : l3Adjs ) {
      MPLS_TRACE( 3, "add l3 adj ", l3Adj->index(), " for review" );
      vrfState.l3AdjForReviewIs( l3Adj->index(), why );
   }
}

void NextHops::handleNexthopResolutionAllowDefaultRoute() {
   MPLS_TRACE_CALL( 3 );
   for ( const auto& [vrf, vrfState] : sm_.mplsState() ) {
      for ( const auto& [key, nextHop] : vrfState->mplsNextHop() ) {
         queueL3AdjsForReview( *vrfState, nextHop->resolvedByRR(), L3AdjReview::nextHopChanged );
      }
      parts_.review.doMaybeScheduleReview( vrf );
   }
}

void NextHops::handleNextHop( const NextHopKey& key ) {
   MPLS_TRACE( 3, "handle nexthopkey intf: ", key.intf, " addr ", key.addr );
   sm_.counters()->nextHopsReceivedInc();
   for ( const auto& [vrf, vrfState] : sm_.mplsState() ) {
      if ( const MplsNextHop* const nextHop = vrfState->mplsNextHop( { key.addr, key.intf } ) ) {
         queueL3AdjsForReview( *vrfState, nextHop->resolvedByMNH(), L3AdjReview::nextHopChanged );
         parts_.review.doMaybeScheduleReview( vrf );
      }
   }
}

void NextHops::handleResolvedNexthop( const VrfAndIpGenAddr& vrfAddr ) {
   MPLS_TRACE( 3, "handle resolved nexthop ", vrfAddr );
   sm_.counters()->nextHopsReceivedInc();
   MPLS_ASSERT( vrfAddr.ipGenAddr.af() == ipv4() || vrfAddr.ipGenAddr.af() == ipv6(),
                "vrfAddr.ipGenAddr().af() == ipv4() || vrfAddr.ipGenAddr().af() == ipv6()",
                textOf( vrfAddr ) );
   VrfMplsState* const vrfState = sm_.mplsState( vrfAddr.vrfName );
   if ( vrfState == nullptr ) {
      MPLS_TRACE( 3, "no state for vrf ", vrfAddr.vrfName );
      return;
   }
   if ( const MplsNextHop* const nextHop =
           vrfState->mplsNextHop( { vrfAddr.ipGenAddr, IntfId() } ) ) {
      queueL3AdjsForReview( *vrfState, nextHop->resolvedByRR(), L3AdjReview::nextHopChanged );
      parts_.review.doMaybeScheduleReview( vrfAddr.vrfName );
   }
}

void NextHops::handleResolvedV4Nexthop( const VrfAndIpAddr& vrfAddr ) {
   handleResolvedNexthop( { vrfAddr.vrfName, vrfAddr.ipAddr } );
}

void NextHops::handleResolvedV6Nexthop( const VrfAndIpGenAddr& vrfAddr ) {
   handleResolvedNexthop( vrfAddr );
}

} // namespace Vel::Transit
