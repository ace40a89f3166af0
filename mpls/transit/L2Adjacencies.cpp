#include "mpls/transit/L2Adjacencies.h"

#include "mpls/VelMplsTrace.h"
#include "mpls/transit/Parts.h"

namespace Vel::Transit {

MplsL2Adjacency* L2Adjacencies::newL2Adjacency( VrfMplsState& vrfState ) {
   const U64 index = sm_.adjacencyIndex();
   MPLS_TRACE( 3, "create l2 adj ", index );
   sm_.adjacencyIndexInc();
   in_.routingHwMplsStatus->l2AdjacencyIs( index );
   return vrfState.l2AdjacencyMake( index );
}

void L2Adjacencies::progHwL2Adj( const L3::VrfName& vrf,
                                 const Ptr< Mpls::Hardware::L2Adjacency >& hwL2Adj ) {
   MplsHwVrfConfig* const config = sm_.velMplsHwVrfConfig( vrf );
   if ( config == nullptr ) {
      return; // the VRF's number brings everything back
   }
   const U32 version = config->l2Adjacency( hwL2Adj ) + 1; // an absent one counts as 0
   sm_.counters()->adjacenciesWrittenInc();
   config->l2AdjacencyIs( hwL2Adj, version );
   MPLS_TRACE( 3, "prog hw L2 adj ", hwL2Adj->index(), " ver ", version );
}

void L2Adjacencies::addRouteKeyToL2Adj( Mpls::RouteKey routeKey, MplsL2Adjacency& l2Adj ) {
   MPLS_TRACE( 7, "add routeKey ", routeKey, " to l2Adj ", l2Adj.index() );
   l2Adj.routeKeyIs( routeKey );
}

void L2Adjacencies::deleteRouteKeyFromL2Adj( Mpls::RouteKey routeKey, MplsL2Adjacency& l2Adj ) {
   MPLS_TRACE( 7, "delete routeKey ", routeKey, " from l2Adj ", l2Adj.index() );
   l2Adj.routeKeyDel( routeKey );
}

void L2Adjacencies::bindL3AdjToL2Adj( VrfMplsState& vrfState, L3Adjacency& l3Adj,
                                      const Mpls::Hardware::L2ViaSet& l2ViaSet ) {
   MplsL2Adjacency* l2Adj = nullptr;
   Ptr< Mpls::Hardware::L2Adjacency > hwL2Adj = sm_.viaSetToHwL2Adj( l2ViaSet );
   if ( hwL2Adj ) {
      l2Adj = vrfState.l2Adjacency( hwL2Adj->index() );
   } else {
      l2Adj = newL2Adjacency( vrfState );
      hwL2Adj = in_.routingHwMplsStatus->l2Adjacency( l2Adj->index() );
      sm_.viaSetToHwL2AdjIs( l2ViaSet, hwL2Adj );
   }
   MPLS_ASSERT( l2Adj, "l2Adj", l3Adj.fullName() );
   l2Adj->l3AdjacencyIs( &l3Adj );
   l2Adj->l2ViaSetIs( l2ViaSet );
   hwL2Adj->l2ViaSetIs( l2ViaSet );
   if ( l3Adj.l2Adjacency() != l2Adj ) {
      unbindL3AdjFromL2Adj( vrfState, l3Adj );
   }
   MPLS_TRACE( 7, "l3 adj ", l3Adj.index(), " -> l2 adj ", l2Adj->index() );
   l3Adj.l2AdjacencyIs( l2Adj );
   l3Adj.hwL2AdjacencyIs( hwL2Adj );
   in_.routingHwMplsStatus->adjacency( l3Adj.index() )->l2AdjacencyIs( hwL2Adj );
}

void L2Adjacencies::unbindL3AdjFromL2Adj( VrfMplsState& vrfState, L3Adjacency& l3Adj ) {
   MplsL2Adjacency* const l2Adj = l3Adj.l2Adjacency().get();
   if ( l2Adj == nullptr ) {
      return;
   }
   l2Adj->l3AdjacencyDel( &l3Adj );
   MPLS_TRACE( 3, "add l2 adj ", l2Adj->index(), " for review" );
   vrfState.l2AdjForReviewIs( l2Adj->index() );
   l3Adj.l2AdjacencyIs( nullptr );
   l3Adj.hwL2AdjacencyIs( nullptr );
   in_.routingHwMplsStatus->adjacency( l3Adj.index() )->l2AdjacencyIs( nullptr );
}

void L2Adjacencies::processL2Adj( VrfMplsState& vrfState, U64 index ) {
   MPLS_TRACE( 3, "process l2 adj ", index, " vrf ", vrfState.vrfName() );
   MplsL2Adjacency* const l2Adj = vrfState.l2Adjacency( index );
   MPLS_ASSERT( l2Adj, "l2Adj", textOf( index ) );
   if ( l2Adj->l3Adjacencys() != 0 ) {
      NextHops::queueL3AdjsForReview( vrfState, l2Adj->l3Adjacency(), L3AdjReview::l2AdjReported );
      return;
   }
   MPLS_TRACE( 3, "delete l2 adj ", index );
   // Nothing binds to it any more. An L2 adjacency that waits to be deleted may have a successor
   // with the same vias.
   const auto& mapped = sm_.viaSetToHwL2Adj( l2Adj->l2ViaSet() );
   if ( mapped && mapped->index() == index ) {
      sm_.viaSetToHwL2AdjDel( l2Adj->l2ViaSet() );
   }
   maybeDeleteL2Adj( vrfState, index );
}

void L2Adjacencies::maybeDeleteL2Adj( VrfMplsState& vrfState, U64 index ) {
   MplsL2Adjacency* const l2Adj = vrfState.l2Adjacency( index );
   MPLS_ASSERT( l2Adj, "l2Adj", textOf( index ) );
   if ( l2Adj->routeKeys() != 0 ) {
      MPLS_TRACE( 3, "schedule l2 adj ", index, " for deletion" );
      vrfState.l2AdjPendingForDeleteIs( index ); // the last of them to leave brings it back
      parts_.review.doMaybeScheduleReview( vrfState.vrfName() );
      return;
   }
   MPLS_TRACE( 3, "delete l2 adj ", index );
   vrfState.l2AdjPendingForDeleteDel( index );
   doDeleteL2Adj( vrfState, index );
}

void L2Adjacencies::processL2AdjPendingDelete( VrfMplsState& vrfState, U64 index ) {
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

void L2Adjacencies::doDeleteL2Adj( VrfMplsState& vrfState, U64 index ) {
   MPLS_TRACE( 3, "doDelete l2 adj ", index );
   const Ptr< Mpls::Hardware::L2Adjacency > hwL2Adj = in_.routingHwMplsStatus->l2Adjacency( index );
   vrfState.l2AdjForReviewDel( index ); // work sets never name the dead
   vrfState.l2AdjVacatedDel( index );
   vrfState.l2AdjacencyDel( index );
   if ( MplsHwVrfConfig* const config = parts_.vrfs.writtenHwVrfConfig( vrfState ) ) {
      config->l2AdjacencyDel( hwL2Adj );
   }
   in_.routingHwMplsStatus->l2AdjacencyDel( index );
}

} // namespace Vel::Transit
