// MplsSm: the VRF, its name and number, and label forwarding in it, switched on and off.

#include "mpls/VelMplsSm.h"
#include "mpls/VelMplsTrace.h"
#include "mpls/transit/Parts.h"

namespace Vel {

void MplsSm::handleVrfNumber( const L3::VrfName& vrf ) {
   MPLS_TRACE_CALL( 3, " vrf ", vrf );
   parts_->recovery.noteRecoveredVrfId();
   if ( vrf == L3::VrfName::defaultVrf() && initialized() &&
        in_.routingHwRouteStatus->vrfStatusHas( vrf ) ) {
      parts_->recovery.leaveRecoveredVrfId();
      parts_->vrfs.leaveFormerNumber( vrf );
      if ( VrfMplsState* const vrfState = mplsState( vrf ) ) {
         parts_->vrfs.noteVrfNumber( *vrfState );
      }
      if ( mplsRoutingEnabled( vrf ) ) {
         handleMplsRouting( true );
      }
      if ( VrfMplsState* const vrfState = mplsState( vrf ) ) {
         parts_->driverReports.readAdjHwStates( *vrfState );
      }
   }
   if ( VrfMplsState* const vrfState = mplsState( vrf ); vrfState && !initialized() ) {
      parts_->vrfs.noteVrfNumber( *vrfState ); // nothing has been written yet
   }
   parts_->recovery.maybeSweepNamed( vrf );
}

void MplsSm::handleMplsRouting( bool enabled ) {
   const L3::VrfName vrf = L3::VrfName::defaultVrf();
   MPLS_TRACE_CALL( 3, " vrf ", vrf, " enabled ", enabled );
   if ( enabled ) {
      if ( MplsHwVrfConfig* const config = velMplsHwVrfConfig( vrf ) ) {
         MPLS_TRACE( 3, "mplsRouting enabled in vrf ", vrf );
         config->mplsRoutingIs( true );
      }
      if ( VrfMplsState* const vrfState = mplsState( vrf ) ) {
         // Changes of via sets went unheard while routing was off; what was not deleted meanwhile
         // may be out of date.
         for ( const auto& [index, l3Adj] : vrfState->l3Adjacency() ) {
            vrfState->l3AdjForReviewIs( index, L3AdjReview::routingOn );
         }
      }
      handleLFibRoute();
      return;
   }
   mplsIpRouteKeyDelAll();
   for ( const Mpls::RouteKey routeKey : recoveredRoute() ) {
      // A recovered route without a record would be nobody's.
      parts_->recovery.dropRecoveredRoute( vrf, routeKey );
   }
   if ( VrfMplsState* const vrfState = mplsState( vrf ) ) {
      // The review deletes each; the hardware is told when nothing is pending any more.
      for ( const auto& [key, route] : vrfState->route() ) {
         vrfState->routeKeyForReviewIs( key );
      }
      parts_->review.doMaybeScheduleReview( vrf );
      // A state without routes has no review to come.
      parts_->review.doMaybeScheduleReviewOrDeleteVrfState( vrf );
   } else {
      velMplsHwVrfConfig( vrf ); // there from now on, for the driver
      MPLS_TRACE( 3, "mplsRouting disabled in vrf ", vrf );
      parts_->vrfs.switchOffMplsRouting();
   }
}

void MplsSm::handleHwRoutingEnabled( VrfId vrfId, bool routing ) {
   MPLS_TRACE_CALL( 3, " vrfId ", vrfId, " routing ", routing );
   if ( !in_.velL3Status->vrfNameHas( vrfId ) ||
        in_.velL3Status->vrfName( vrfId ) != parts_->vrfs.vrfOfReport( vrfId ) ) {
      MPLS_RING( "Vrf name has not been added yet", vrfId );
      return;
   }
   Transit::Vrfs::assertDefaultVrf( in_.velL3Status->vrfName( vrfId ) );
   if ( routing ) {
      MPLS_RING( "platform enabled mplsRouting in vrf ", vrfId );
      handleLFibRoute();
   } else {
      MPLS_RING( "platform disnabled mplsRouting in vrf ", vrfId );
   }
}

void MplsSm::handleVrfName( VrfId vrfId ) {
   MPLS_TRACE_CALL( 3, " vrfId ", vrfId );
   const L3::VrfName vrf = in_.velL3Status->vrfName( vrfId );
   if ( vrf != L3::VrfName::defaultVrf() ) {
      MPLS_TRACE( 3, " Vrf: ", vrf, " is not default. skip." );
      return;
   }
   parts_->recovery.maybeSweepNamed( vrf );
   const MplsHwVrfStatus* const status = in_.mplsHwStatus->vrfStatus( vrfId );
   if ( status && status->mplsRouting() ) {
      MPLS_TRACE( 3, "platform enabled mplsRouting in vrf: ", vrf );
      MPLS_RING( "platform enabled mplsRouting in vrf ", vrfId );
      handleLFibRoute();
   } else {
      MPLS_TRACE( 3, "platform disabled mplsRouting in vrf: ", vrf );
      MPLS_RING( "platform disabled mplsRouting in vrf ", vrfId );
   }
}

} // namespace Vel
