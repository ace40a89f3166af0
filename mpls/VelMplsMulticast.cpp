// MplsSm: replication groups. What stands here is the seam: a via set that replicates stays
// unprogrammed and says so.

#include "mpls/VelMplsSm.h"
#include "mpls/VelMplsTrace.h"

namespace Vel {

void MplsSm::processMplsMulticastAdj( VrfMplsState& vrfState, U64 index ) {
   MPLS_TRACE( 3, "l3 adj ", vrfState.l3Adjacency( index )->index(),
               " stays unprogrammed: replication groups are not supported by this version" );
}

void MplsSm::writeRouteWithMulticast( VrfMplsState& vrfState, MplsRoute& route,
                                      L3Adjacency& l3Adj ) {
   leaveRouteUnprogrammed( vrfState, route, l3Adj );
}

// Without requests there is nothing to answer to.
void MplsSm::handleMplsMcastHwFecIdResp( Fib::FecId fecId ) {
   maybeReleaseSetAside( fecId );
   if ( !mplsMcastAdjReq_ || !mplsMcastAdjReq_->fecHas( fecId ) ) {
      MPLS_TRACE( 3, "no request for fecId ", fecId );
   }
}

void MplsSm::handleMcastId( VrfId vrfId, U16 groupId ) {
   const L3::VrfName vrfName = vrfOfReport( vrfId );
   if ( vrfName.empty() ) {
      MPLS_TRACE( 3, "no name for vrf ", vrfId, " of group ", groupId );
      return;
   }
   MPLS_ASSERT( vrfName == L3::VrfName::defaultVrf(), "vrfName == L3::VrfName::defaultVrf()",
                vrfName.text() );
   MPLS_TRACE( 3, mplsStateHas( vrfName ) ? "no multicast group " : "no vrf state for group ",
               groupId );
}

} // namespace Vel
