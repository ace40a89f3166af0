#include "mpls/transit/Vrfs.h"

#include "mpls/VelMplsTrace.h"
#include "mpls/transit/Parts.h"

namespace Vel::Transit {

L3::VrfName Vrfs::vrfOfReport( VrfId vrfId ) const {
   return in_.mplsHwConfig && in_.mplsHwConfig->vrfConfigHas( vrfId )
             ? L3::VrfName::defaultVrf()
             : in_.velL3Status->vrfName( vrfId );
}

MplsHwVrfConfig* Vrfs::writtenHwVrfConfig( const VrfMplsState& vrfState ) const {
   return vrfState.writtenVrfId() == noVrfId
             ? nullptr
             : in_.mplsHwConfig->vrfConfig( static_cast< VrfId >( vrfState.writtenVrfId() ) );
}

MplsHwVrfStatus* Vrfs::writtenHwVrfStatus( const VrfMplsState& vrfState ) const {
   return vrfState.writtenVrfId() == noVrfId
             ? nullptr
             : in_.mplsHwStatus->vrfStatus( static_cast< VrfId >( vrfState.writtenVrfId() ) );
}

void Vrfs::noteVrfNumber( VrfMplsState& vrfState ) {
   if ( in_.routingHwRouteStatus->vrfStatusHas( vrfState.vrfName() ) ) {
      vrfState.writtenVrfIdIs( in_.routingHwRouteStatus->vrfStatus( vrfState.vrfName() ) );
   }
}

void Vrfs::leaveFormerNumber( const L3::VrfName& vrf ) {
   const VrfId number = in_.routingHwRouteStatus->vrfStatus( vrf );
   VrfMplsState* const vrfState = sm_.mplsState( vrf );
   if ( vrfState && vrfState->writtenVrfId() != noVrfId && vrfState->writtenVrfId() != number ) {
      MPLS_TRACE( 3, "vrf ", vrf, " was ", vrfState->writtenVrfId(), " and is ", number );
      for ( const auto& [routeKey, route] : vrfState->route() ) {
         parts_.routeWriter.unprogramRouteKey( *vrfState, routeKey );
         parts_.routes.routeUnprogrammedIs( *route, true );
         route->unconfirmedWritesIs( 0 );
         vrfState->routeKeyForReviewIs( routeKey );
      }
      parts_.review.doMaybeScheduleReview( vrf );
   }
   for ( const auto& [vrfId, config] : in_.mplsHwConfig->vrfConfig() ) {
      if ( vrfId != number ) {
         config->routeDelAll();
         config->l2AdjacencyDelAll();
         config->mplsRoutingIs( false );
      }
   }
}

void Vrfs::switchOffMplsRouting() {
   for ( const auto& [vrfId, config] : in_.mplsHwConfig->vrfConfig() ) {
      config->mplsRoutingIs( false );
   }
}

VrfMplsState& Vrfs::vrfStateMake( const L3::VrfName& vrf ) {
   if ( VrfMplsState* const there = sm_.mplsState( vrf ) ) {
      return *there;
   }
   VrfMplsState& made = *sm_.mplsStateIs( vrf );
   noteVrfNumber( made );
   parts_.driverReports.countListed( made );
   return made;
}

void Vrfs::vrfStateDrop( const L3::VrfName& vrf ) {
   sm_.vrfForReviewDel( vrf );
   sm_.unprogrammedRouteForReviewDel( vrf );
   sm_.routeKeyToBePublishedDel( vrf );
   sm_.mplsStateDel( vrf );
}

bool Vrfs::mayNameRoutes( const L3::VrfName& vrf ) const {
   return in_.routingHwRouteStatus->vrfStatusHas( vrf ) &&
          in_.velL3Status->vrfNameHas( in_.routingHwRouteStatus->vrfStatus( vrf ) );
}

void Vrfs::assertDefaultVrf( const L3::VrfName& vrfName ) {
   MPLS_ASSERT( vrfName == L3::VrfName::defaultVrf(), "vrfName == L3::VrfName::defaultVrf()",
                vrfName.text() );
}

} // namespace Vel::Transit
