// MplsSm: hardware feedback. What the driver reports, label forwarding switched on and off, the
// VRF's number, and how a route leaves.
//
// Numbers. The VRF's state remembers the number under which things are written. While the number is
// lost, nothing is written, and what goes is taken out under the remembered one at once. When the
// VRF has another number, everything goes under the former one before it is written anew. All
// configuration is the default VRF's: a report for a number that has any is about it, whatever that
// number is called by now.

#include "mpls/VelMplsSm.h"
#include "mpls/VelMplsTrace.h"
#include "platform/services/SystemLog.h"

#include <algorithm>
#include <utility>

namespace Vel {

namespace {

SystemLogHandle resourceFull( {
   .name = "ROUTING_MPLS_RESOURCE_FULL",
   .severity = 3,
   .minIntervalSeconds = 1.0,
   .format = "Hardware resources are insufficient to program all MPLS routes",
   .explanation =
      "The switch is unable to program all routes due to insufficient hardware resources. "
      "When the switch is unable to program routes due to insufficient hardware "
      "resources, it may drop certain packets. ",
   .recommendedAction =
      "To solve this issue, reconfigure the network to reduce the size of the routing table or the "
      "number of MPLS routes. When the hardware resources is available, the switch automatically "
      "programs any unprogrammed routes in hardware. ",
} );
SystemLogHandle resourceNormal( {
   .name = "ROUTING_MPLS_RESOURCE_NORMAL",
   .severity = 3,
   .minIntervalSeconds = 1.0,
   .format = "All MPLS routes are programmed in hardware.",
   .explanation = "The switch was able to program all the MPLS routes in the hardware and normal "
                  "hardware routing has resumed.",
   .recommendedAction = "",
} );
bool resourceFullLogged = false; // a full message waits for its normal one

void assertDefaultVrf( const L3::VrfName& vrfName ) {
   MPLS_ASSERT( vrfName == L3::VrfName::defaultVrf(), "vrfName == L3::VrfName::defaultVrf()",
                vrfName.text() );
}

} // namespace

// --- Which VRF, under which number.

L3::VrfName MplsSm::vrfOfReport( VrfId vrfId ) const {
   return in_.mplsHwConfig && in_.mplsHwConfig->vrfConfigHas( vrfId )
             ? L3::VrfName::defaultVrf()
             : in_.velL3Status->vrfName( vrfId );
}

MplsHwVrfConfig* MplsSm::writtenHwVrfConfig( const VrfMplsState& vrfState ) const {
   return vrfState.writtenVrfId() == noVrfId
             ? nullptr
             : in_.mplsHwConfig->vrfConfig( static_cast< VrfId >( vrfState.writtenVrfId() ) );
}

MplsHwVrfStatus* MplsSm::writtenHwVrfStatus( const VrfMplsState& vrfState ) const {
   return vrfState.writtenVrfId() == noVrfId
             ? nullptr
             : in_.mplsHwStatus->vrfStatus( static_cast< VrfId >( vrfState.writtenVrfId() ) );
}

void MplsSm::noteVrfNumber( VrfMplsState& vrfState ) {
   if ( in_.routingHwRouteStatus->vrfStatusHas( vrfState.vrfName() ) ) {
      vrfState.writtenVrfIdIs( in_.routingHwRouteStatus->vrfStatus( vrfState.vrfName() ) );
   }
}

void MplsSm::handleVrfNumber( const L3::VrfName& vrf ) {
   MPLS_TRACE_CALL( 3, " vrf ", vrf );
   noteRecoveredVrfId();
   if ( vrf == L3::VrfName::defaultVrf() && initialized() &&
        in_.routingHwRouteStatus->vrfStatusHas( vrf ) ) {
      leaveRecoveredVrfId();
      leaveFormerNumber( vrf );
      if ( VrfMplsState* const vrfState = mplsState( vrf ) ) {
         noteVrfNumber( *vrfState );
      }
      if ( mplsRoutingEnabled( vrf ) ) {
         handleMplsRouting( true );
      }
   }
   if ( VrfMplsState* const vrfState = mplsState( vrf ); vrfState && !initialized() ) {
      noteVrfNumber( *vrfState ); // nothing has been written yet
   }
   maybeSweepNamed( vrf );
}

// What stands under any other number than the VRF's goes: routes, then what they point at, then
// forwarding.
void MplsSm::leaveFormerNumber( const L3::VrfName& vrf ) {
   const VrfId number = in_.routingHwRouteStatus->vrfStatus( vrf );
   VrfMplsState* const vrfState = mplsState( vrf );
   if ( vrfState && vrfState->writtenVrfId() != noVrfId && vrfState->writtenVrfId() != number ) {
      MPLS_TRACE( 3, "vrf ", vrf, " was ", vrfState->writtenVrfId(), " and is ", number );
      for ( const auto& [routeKey, route] : vrfState->route() ) {
         unprogramRouteKey( *vrfState, routeKey );
         routeUnprogrammedIs( *route, true );
         route->unconfirmedWritesIs( 0 );
         vrfState->routeKeyForReviewIs( routeKey );
      }
      doMaybeScheduleReview( vrf );
   }
   for ( const auto& [vrfId, config] : in_.mplsHwConfig->vrfConfig() ) {
      if ( vrfId != number ) {
         config->routeDelAll();
         config->l2AdjacencyDelAll();
         config->mplsRoutingIs( false );
      }
   }
}

// Under whatever number it is on.
void MplsSm::switchOffMplsRouting() {
   for ( const auto& [vrfId, config] : in_.mplsHwConfig->vrfConfig() ) {
      config->mplsRoutingIs( false );
   }
}

// --- Label forwarding switched on and off.

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
            vrfState->l3AdjForReviewIs( index );
         }
      }
      handleLFibRoute();
      return;
   }
   mplsIpRouteKeyDelAll();
   for ( const Mpls::RouteKey routeKey : recoveredRoute() ) {
      dropRecoveredRoute( vrf, routeKey ); // those without a record would be nobody's
   }
   if ( VrfMplsState* const vrfState = mplsState( vrf ) ) {
      // The review deletes each; the hardware is told when nothing is pending any more.
      for ( const auto& [key, route] : vrfState->route() ) {
         vrfState->routeKeyForReviewIs( key );
      }
      doMaybeScheduleReview( vrf );
      doMaybeScheduleReviewOrDeleteVrfState( vrf ); // a state without routes has no review to come
   } else {
      velMplsHwVrfConfig( vrf ); // there from now on, for the driver
      MPLS_TRACE( 3, "mplsRouting disabled in vrf ", vrf );
      switchOffMplsRouting();
   }
}

void MplsSm::handleHwRoutingEnabled( VrfId vrfId, bool routing ) {
   MPLS_TRACE_CALL( 3, " vrfId ", vrfId, " routing ", routing );
   if ( !in_.velL3Status->vrfNameHas( vrfId ) ||
        in_.velL3Status->vrfName( vrfId ) != vrfOfReport( vrfId ) ) {
      MPLS_RING( "Vrf name has not been added yet", vrfId );
      return;
   }
   assertDefaultVrf( in_.velL3Status->vrfName( vrfId ) );
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
   if ( const MplsHwVrfConfig* const config = velMplsHwVrfConfig( vrf );
        config && initialized() && mplsRoutingEnabled( vrf ) && !config->mplsRouting() ) {
      handleMplsRouting( true ); // nothing could be written while the VRF had no number
   }
   maybeSweepNamed( vrf );
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

// --- What the driver reports.

// The driver has made the VRF's status. What was refused without it could not be listed.
void MplsSm::handleHwVrfStatus( VrfId vrfId ) {
   VrfMplsState* const vrfState = mplsState( vrfOfReport( vrfId ) );
   if ( vrfState == nullptr ) {
      return;
   }
   countListed( *vrfState );
   for ( const auto& [routeKey, route] : vrfState->route() ) {
      if ( route->unprogrammed() && route->extFecInfo() ) {
         vrfState->routeKeyForReviewIs( routeKey );
      }
   }
   doMaybeScheduleReview( vrfState->vrfName() );
}

// A VRF's status is gone with what it listed, whose leaving nobody has heard of.
void MplsSm::handleHwVrfStatusGone() {
   if ( VrfMplsState* const vrfState = mplsState( L3::VrfName::defaultVrf() ) ) {
      const bool some = vrfState->numUnprogrammedRoute() != 0;
      countListed( *vrfState );
      if ( some && vrfState->numUnprogrammedRoute() == 0 ) {
         sayResourceNormal();
      }
   }
}

// From the lists themselves; arrivals and departures go on from there.
void MplsSm::countListed( VrfMplsState& vrfState ) const {
   U64 routes = 0;
   U64 adjacencies = 0;
   for ( const auto& [vrfId, status] : in_.mplsHwStatus->vrfStatus() ) {
      routes += status->unprogrammedRoutes();
      adjacencies += status->unprogrammedAdjacencys();
   }
   vrfState.numUnprogrammedRouteIs( routes );
   vrfState.numUnprogrammedAdjIs( adjacencies );
}

// A full message that may not be said now is owed: the next retry asks again.
void MplsSm::maybeSayResourceFull() {
   if ( resourceFullOwed_ && resourceFull.allowed() ) {
      resourceFull.log();
      resourceFullLogged = true;
      resourceFullOwed_ = false;
   }
}

// Each full message has its normal one, which its own limit must not swallow.
void MplsSm::sayResourceNormal() {
   resourceFullOwed_ = false;
   if ( std::exchange( resourceFullLogged, false ) ) {
      resourceNormal.log();
   }
}

void MplsSm::retrySoon( VrfMplsState& vrfState ) {
   if ( vrfState.numUnprogrammedRoute() != 0 ) {
      MPLS_TRACE( 3, "vrf ", vrfState.vrfName(), " unprogrammedRetryIntervalIs ",
                  reviewInterval() );
      vrfState.unprogrammedRetryIntervalIs( reviewInterval() );
   }
}

void MplsSm::handleProgrammedRoute( MplsHwVrfStatus& status, Mpls::RouteKey routeKey ) {
   MPLS_TRACE_CALL( 3, " routeKey ", routeKey );
   const L3::VrfName vrfName = vrfOfReport( status.vrfId() );
   if ( vrfName.empty() ) {
      MPLS_TRACE( 3, "no vrf state for vrfId ", status.vrfId() );
      MPLS_RING( "no vrf state vrfId ", status.vrfId() );
      counters_->reportsLateInc();
      return;
   }
   assertDefaultVrf( vrfName );
   const MplsHwRoute* const reported = status.route().find( routeKey );
   if ( reported == nullptr ) {
      MPLS_TRACE( 3, "routeKey ", routeKey, " unprogrammed from vrf ", vrfName );
      return; // the echo of a deletion
   }
   MPLS_TRACE( 3, "routeKey ", routeKey, " programmed in vrf ", vrfName );
   VrfMplsState* const vrfState = mplsState( vrfName );
   MplsRoute* const route = vrfState ? vrfState->route( routeKey ) : nullptr;
   if ( route == nullptr ) {
      MPLS_TRACE( 3, "no vrf state or routeKey" );
      counters_->reportsLateInc();
      return;
   }
   const MplsHwVrfConfig* const config = in_.mplsHwConfig->vrfConfig( status.vrfId() );
   if ( config == nullptr || config->route( routeKey ) != *reported ) {
      MPLS_TRACE( 3, "not of what is configured now" );
      counters_->reportsLateInc();
      return;
   }
   counters_->routesConfirmedInc();
   route->unconfirmedWritesIs( 0 );
   routeUnprogrammedIs( *route, false );
   MPLS_TRACE( 8, "add routeKey ", routeKey, " for review" );
   vrfState->routeKeyForPublishIs( routeKey );
   doMaybeScheduleReview( vrfName );
   retrySoon( *vrfState ); // where one found room, others may
}

void MplsSm::handleUnprogrammedRoute( MplsHwVrfStatus& status, Mpls::RouteKey routeKey ) {
   MPLS_TRACE_CALL( 3, " routeKey ", routeKey );
   const L3::VrfName vrfName = vrfOfReport( status.vrfId() );
   assertDefaultVrf( vrfName );
   VrfMplsState* const vrfState = mplsState( vrfName );
   MplsRoute* const route = vrfState ? vrfState->route( routeKey ) : nullptr;
   const bool unprogrammed = status.unprogrammedRouteHas( routeKey );
   if ( route == nullptr ) {
      MPLS_TRACE( 3, "no vrf state or routeKey" );
      counters_->reportsLateInc( unprogrammed );
      status.unprogrammedRouteDel( routeKey ); // nobody would; it has not been counted
      return;
   }
   if ( unprogrammed ) {
      MPLS_TRACE( 3, "routeKey ", routeKey, " not programmed in  vrf ", vrfName );
      vrfState->unprogrammedRetryIntervalIs( defaultUnprogrammedRetryInterval() );
   } else {
      MPLS_TRACE( 3, "routeKey ", routeKey, " removed from unprog collection in vrf ", vrfName );
   }
   counters_->routesRefusedInc( unprogrammed );
   const bool former = &status != writtenHwVrfStatus( *vrfState );
   if ( !former ) {
      // To leave the list is not to be in hardware: that is for `route` to say.
      const MplsHwVrfConfig* const config = in_.mplsHwConfig->vrfConfig( status.vrfId() );
      routeUnprogrammedIs( *route, unprogrammed || config == nullptr ||
                                      !config->routeHas( routeKey ) ||
                                      !status.routeHas( routeKey ) );
   }
   vrfState->routeKeyForPublishIs( routeKey );
   const U64 preUnprogrammed = vrfState->numUnprogrammedRoute();
   const UnprogrammedReason reason = status.unprogrammedReason();
   MPLS_ASSERT( !( preUnprogrammed == 0 && !unprogrammed ),
                "! (preUnprogrammed == 0 && delta == -1 )", textOf( routeKey ) );
   if ( preUnprogrammed == 0 ) {
      if ( reason == UnprogrammedReason::AdjacencyFull ||
           reason == UnprogrammedReason::RouteFull ) {
         resourceFullOwed_ = !resourceFullLogged;
         maybeSayResourceFull();
      }
      MPLS_TRACE( 2, "Schedule review for unprog routes, reason ", reason );
   } else if ( preUnprogrammed == 1 && !unprogrammed ) {
      sayResourceNormal();
      status.unprogrammedReasonIs( UnprogrammedReason::Success );
      MPLS_TRACE( 3, "Resource-Normal" );
   }
   vrfState->numUnprogrammedRouteIs( unprogrammed ? preUnprogrammed + 1 : preUnprogrammed - 1 );
   doMaybeScheduleReview( vrfName );
   if ( unprogrammed && former ) {
      status.unprogrammedRouteDel( routeKey ); // there is nothing to try again there
   }
}

void MplsSm::handleUnprogrammedAdj( MplsHwVrfStatus& status,
                                    const Ptr< Mpls::Hardware::L2Adjacency >& adjacency ) {
   const U64 id = adjacency->index();
   MPLS_TRACE_CALL( 3, " adjacency ", id );
   const L3::VrfName vrfName = vrfOfReport( status.vrfId() );
   assertDefaultVrf( vrfName );
   VrfMplsState* const vrfState = mplsState( vrfName );
   if ( vrfState == nullptr ) {
      MPLS_TRACE( 3, "no vrf state for vrf ", vrfName );
      counters_->reportsLateInc();
      return;
   }
   const bool unprogrammed = status.unprogrammedAdjacencyHas( adjacency );
   if ( MplsL2Adjacency* const l2Adj = vrfState->l2Adjacency( id ) ) {
      MPLS_TRACE( 3, "add l2 adj ", id, " for review" );
      vrfState->l2AdjForReviewIs( id );
      l2Adj->unprogrammedSinceIs( unprogrammed ? in_.clock->now() : neverTime );
   } else {
      counters_->reportsLateInc( unprogrammed ); // one that goes leaves the driver's list as well
   }
   counters_->adjacenciesRefusedInc( unprogrammed );
   if ( unprogrammed ) {
      MPLS_TRACE( 3, "l2 adj ", id, " not programmed" );
      vrfState->numUnprogrammedAdjInc();
      vrfState->unprogrammedRetryIntervalIs( defaultUnprogrammedRetryInterval() );
   } else {
      MPLS_TRACE( 3, "l2 adj ", id, " removed from unprogrammedAdj" );
      if ( vrfState->numUnprogrammedAdj() == 0 ) {
         MPLS_TRACE( 3, "l2 adj ", id, " leaves unprogrammedAdj without having arrived" );
      } else {
         vrfState->numUnprogrammedAdjIs( vrfState->numUnprogrammedAdj() - 1 );
      }
      const MplsHwVrfConfig* const config = in_.mplsHwConfig->vrfConfig( status.vrfId() );
      if ( config && config->mplsRouting() && config->l2AdjacencyHas( adjacency ) ) {
         retrySoon( *vrfState );
      }
   }
   doMaybeScheduleReview( vrfName );
}

// --- How a route leaves.

void MplsSm::unprogramRouteKey( VrfMplsState& vrfState, Mpls::RouteKey routeKey ) {
   const L3::VrfName& vrf = vrfState.vrfName();
   MPLS_TRACE_CALL( 3, " vrf ", vrf, " routeKey ", routeKey );
   MPLS_RING( "unprogram routeKey from vrf ", routeKey );
   MplsHwVrfConfig* const config = writtenHwVrfConfig( vrfState );
   if ( config && config->routeDel( routeKey ) && forwardingIntoExternalFecsSupported() ) {
      // The driver may not have come to take it out of the FEC that it was in before.
      deleteRouteIntoFec( vrf, routeKey );
   }
   if ( MplsHwVrfStatus* const status = writtenHwVrfStatus( vrfState ) ) {
      status->unprogrammedRouteDel( routeKey );
   }
   unprogramRouteIntoFec( vrfState, routeKey );
   clearRouteMappings( vrfState, routeKey );
   leaveCarrier( vrfState, routeKey );
}

// A route into a FEC is not the configuration's, and its FEC may be another VRF's.
void MplsSm::unprogramRouteIntoFec( const VrfMplsState& vrfState, Mpls::RouteKey routeKey ) {
   const MplsRoute* const route = vrfState.route( routeKey );
   if ( !forwardingIntoExternalFecsSupported() || route == nullptr ) {
      return;
   }
   if ( route->extFecInfo() ) {
      const L3::VrfName& fecVrf =
         in_.hwFecIdRequest->hwFecIdRequest( route->extFecInfo()->fecId() ).vrfName;
      if ( MplsHwVrfStatus* const status = velMplsHwVrfStatusNonConst( fecVrf ) ) {
         status->unprogrammedRouteDel( routeKey );
      }
   } else if ( route->unconfirmedWrites() == 0 ) {
      return; // else hardware may not have moved it out of a FEC yet
   }
   deleteRouteIntoFec( vrfState.vrfName(), routeKey );
}

void MplsSm::deleteRouteIntoFec( const L3::VrfName& vrf, Mpls::RouteKey routeKey ) {
   const VrfMplsState* const vrfState = mplsState( vrf );
   if ( vrfState && vrfState->writtenVrfId() != noVrfId ) {
      in_.mplsSmHelper->deleteRoute( static_cast< VrfId >( vrfState->writtenVrfId() ), routeKey );
   } else if ( in_.routingHwRouteStatus->vrfStatusHas( vrf ) ) {
      in_.mplsSmHelper->deleteRoute( in_.routingHwRouteStatus->vrfStatus( vrf ), routeKey );
   }
}

void MplsSm::deleteRouteKeyAndRoute( VrfMplsState& vrfState, Mpls::RouteKey routeKey ) {
   MPLS_TRACE_CALL( 3, " routeKey ", routeKey );
   MPLS_TRACE( 3, "delete routeKey ", routeKey );
   dropRecoveredRoute( vrfState.vrfName(), routeKey );
   unprogramRouteKey( vrfState, routeKey );
   if ( MplsRoute* const route = vrfState.route( routeKey ) ) {
      if ( L3Adjacency* const l3Adj = route->l3Adj().get() ) {
         l3Adj->routeKeyDel( routeKey );
         vrfState.l3AdjLeftIs( l3Adj->index() );
      }
      lastRouteVersion_ = std::max( lastRouteVersion_, route->version() );
   }
   vrfState.routeDel( routeKey );
}

void MplsSm::clearRouteMappings( VrfMplsState& vrfState, Mpls::RouteKey routeKey ) {
   MPLS_TRACE( 8, "clear route mappings", " route ", routeKey );
   MplsRoute* const route = vrfState.route( routeKey );
   if ( route == nullptr ) {
      return;
   }
   route->isInstalledWithMulticastIs( false );
   if ( MplsL2Adjacency* const l2Adj = route->l2Adj().get() ) {
      deleteRouteKeyFromL2Adj( routeKey, *l2Adj );
      if ( l2Adj->routeKeys() == 0 && vrfState.l2AdjPendingForDeleteHas( l2Adj->index() ) ) {
         vrfState.l2AdjVacatedIs( l2Adj->index() );
      }
      route->l2AdjIs( nullptr );
   }
   if ( const Ptr< ExternalFecInfo > info = route->extFecInfo() ) {
      route->extFecInfoIs( nullptr );
      deleteRouteKeyFromExtFecInfo( routeKey, *info );
      maybeDeleteExtFecInfo( vrfState, info->fecId() );
   }
}

// The reason goes first, so that whoever hears of the key sees why.
void MplsSm::addUnprogrammedRoute( VrfMplsState& vrfState, Mpls::RouteKey routeKey,
                                   UnprogrammedReason reason ) {
   if ( MplsHwVrfStatus* const status = velMplsHwVrfStatusNonConst( vrfState.vrfName() ) ) {
      status->unprogrammedReasonIs( reason );
      status->unprogrammedRouteIs( routeKey, true );
   }
}

} // namespace Vel
