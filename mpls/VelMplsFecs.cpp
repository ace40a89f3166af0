// MplsSm: where adjacencies are programmed as FECs.
//
// What stands here is the seam: a platform with FECs is recognised, and what would have to be
// programmed as a FEC, an external FEC or a replication group stays unprogrammed and says so. On a
// platform without FECs none of it is reached but the releases, which have nothing to release.

#include "mpls/VelMplsSm.h"
#include "mpls/VelMplsTrace.h"

namespace Vel {

namespace {

void traceWithoutFecs( const L3Adjacency& l3Adj, std::string_view what ) {
   MPLS_TRACE( 3, "l3 adj ", l3Adj.index(), " stays unprogrammed: ", what,
               " are not supported by this version" );
}

} // namespace

// --- L3 adjacencies.

bool MplsSm::programMplsIpL3AdjAsFec( VrfMplsState&, L3Adjacency& l3Adj, const Mpls::LfibViaSet&,
                                      const CachedLFibMplsViaColl& ) {
   traceWithoutFecs( l3Adj, "adjacencies programmed as FECs" );
   return true;
}

bool MplsSm::programExtFecL3Adj( VrfMplsState&, L3Adjacency& l3Adj,
                                 const Mpls::LfibViaSet& viaSet ) {
   if ( !forwardingIntoExternalFecsSupported() ) {
      MPLS_TRACE( 3, "External FEC not supported on this platform; skipping l3 adj" );
      return false;
   }
   traceWithoutFecs( l3Adj, viaSet.null() ? "deleted via sets" : "external FECs" );
   return false;
}

void MplsSm::processMplsMulticastAdj( VrfMplsState& vrfState, U64 index ) {
   traceWithoutFecs( *vrfState.l3Adjacency( index ), "replication groups" );
}

void MplsSm::writeRouteWithFec( VrfMplsState& vrfState, MplsRoute& route, L3Adjacency& l3Adj ) {
   leaveRouteUnprogrammed( vrfState, route, l3Adj );
}

void MplsSm::writeRouteWithMulticast( VrfMplsState& vrfState, MplsRoute& route,
                                      L3Adjacency& l3Adj ) {
   leaveRouteUnprogrammed( vrfState, route, l3Adj );
}

// --- What the hardware layer answers. Without requests there is nothing to answer to.

void MplsSm::handleHwFecIdResponse( Fib::FecId fecId ) {
   if ( !in_.hwFecIdRequest || !in_.hwFecIdRequest->hwFecIdRequestHas( fecId ) ) {
      MPLS_TRACE( 3, "no request for fecId ", fecId );
   }
}

void MplsSm::handleMplsMcastHwFecIdResp( Fib::FecId fecId ) {
   if ( !mplsMcastAdjReq_ || !mplsMcastAdjReq_->fecHas( fecId ) ) {
      MPLS_TRACE( 3, "no request for fecId ", fecId );
   }
}

void MplsSm::handleMcastId( VrfId vrfId, U16 groupId ) {
   const L3::VrfName& vrfName = in_.velL3Status->vrfName( vrfId );
   MPLS_ASSERT( vrfName == L3::VrfName::defaultVrf(), "vrfName == L3::VrfName::defaultVrf()",
                vrfName.text() );
   MPLS_TRACE( 3, mplsStateHas( vrfName ) ? "no multicast group " : "no vrf state for group ",
               groupId );
}

void MplsSm::handleAdjHwState( const Fib::GlobalFecId& globalFecId ) {
   MPLS_TRACE( 3, "handleAdjHwState", " fecId ", globalFecId );
   const L3::VrfName& vrf = in_.velL3Status->vrfName( globalFecId.vrfId );
   if ( vrf != L3::VrfName::defaultVrf() ) {
      MPLS_TRACE( 3, "  not default vrf" );
      return;
   }
   VrfMplsState* const vrfState = mplsState( vrf );
   if ( vrfState == nullptr ) {
      MPLS_TRACE( 3, "  no vrf state for vrf ", vrf );
      return;
   }
   if ( !vrfState->extFecInfoHas( globalFecId.fecId ) ) {
      MPLS_TRACE( 3, "  no ext fec info " );
   }
}

// --- External FECs and backups.

void MplsSm::deleteRouteKeyFromExtFecInfo( Mpls::RouteKey routeKey, ExternalFecInfo& info ) {
   MPLS_TRACE( 7, "delete routeKey ", routeKey, " from extFecInfo ", info.fecId() );
   info.dependentRouteKeyDel( routeKey );
}

void MplsSm::setHwBackupAdjStatus( VrfMplsState&, L3Adjacency& l3Adj ) {
   if ( const L3Adjacency* const backup = l3Adj.backupAdj().get() ) {
      in_.routingHwMplsStatus->adjacencyBackupStatusIs( { l3Adj.index(), backup->index() } );
   } else {
      in_.routingHwMplsStatus->adjacencyBackupStatusDel( l3Adj.index() );
   }
}

void MplsSm::deleteBackupAdjInfoFromAdj( VrfMplsState& vrfState, L3Adjacency& l3Adj ) {
   MPLS_TRACE( 7, "clear backup adj info for primary adj ", l3Adj.index() );
   if ( L3Adjacency* const backup = l3Adj.backupAdj().get() ) {
      backup->primaryAdjDel( l3Adj.index() );
      vrfState.l3AdjForReviewIs( backup->index() ); // it goes when nothing else uses it
   }
   in_.routingHwMplsStatus->adjacencyBackupStatusDel( l3Adj.index() );
   l3Adj.backupAdjIs( nullptr );
}

} // namespace Vel
