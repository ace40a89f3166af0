// MplsSm: hardware feedback. What the driver reports, label forwarding switched on and off, and how
// a route leaves.

#include "mpls/VelMplsSm.h"
#include "mpls/VelMplsTrace.h"
#include "platform/SystemLog.h"

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

void logIfAllowed( SystemLogHandle& handle ) {
   if ( handle.allowed() ) {
      handle.log();
   }
}

void assertDefaultVrf( const L3::VrfName& vrfName ) {
   MPLS_ASSERT( vrfName == L3::VrfName::defaultVrf(), "vrfName == L3::VrfName::defaultVrf()",
                vrfName.text() );
}

// The VRF of a report that must not be lost: what is configured is the default VRF's, also while it
// has lost its name.
L3::VrfName vrfOf( const MplsHwVrfStatus& status, const MplsSmInputs& inputs ) {
   const L3::VrfName& named = inputs.velL3Status->vrfName( status.vrfId() );
   return named.empty() && inputs.mplsHwConfig->vrfConfigHas( status.vrfId() )
             ? L3::VrfName::defaultVrf()
             : named;
}

} // namespace

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
   if ( VrfMplsState* const vrfState = mplsState( vrf ) ) {
      // The review deletes each; the hardware is told when nothing is pending any more.
      for ( const auto& [key, route] : vrfState->route() ) {
         vrfState->routeKeyForReviewIs( key );
      }
      doMaybeScheduleReview( vrf );
      doMaybeScheduleReviewOrDeleteVrfState( vrf ); // a state without routes has no review to come
   } else if ( MplsHwVrfConfig* const config = velMplsHwVrfConfig( vrf ) ) {
      MPLS_TRACE( 3, "mplsRouting disabled in vrf ", vrf );
      config->mplsRoutingIs( false );
   }
}

void MplsSm::handleHwRoutingEnabled( VrfId vrfId, bool routing ) {
   MPLS_TRACE_CALL( 3, " vrfId ", vrfId, " routing ", routing );
   if ( !in_.velL3Status->vrfNameHas( vrfId ) ) {
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
   if ( VrfMplsState* const vrfState = mplsState( vrf );
        vrfState && forwardingIntoExternalFecsSupported() ) {
      for ( const auto& [routeKey, route] : vrfState->route() ) {
         vrfState->routeKeyForReviewIs( routeKey ); // routes into FECs wait for the name
      }
      doMaybeScheduleReview( vrf );
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

void MplsSm::handleProgrammedRoute( MplsHwVrfStatus& status, Mpls::RouteKey routeKey ) {
   MPLS_TRACE_CALL( 3, " routeKey ", routeKey );
   const L3::VrfName& vrfName = in_.velL3Status->vrfName( status.vrfId() );
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
   if ( route->extFecInfo() ) {
      counters_->reportsLateInc(); // of the time before it went into a FEC
      return;
   }
   counters_->routesConfirmedInc();
   if ( reported->version < route->version() ) {
      counters_->reportsLateInc();
   } else {
      route->unconfirmedWritesIs( 0 );
   }
   routeUnprogrammedIs( *route, false );
   MPLS_TRACE( 8, "add routeKey ", routeKey, " for review" );
   vrfState->routeKeyForPublishIs( routeKey );
   doMaybeScheduleReview( vrfName );
   if ( vrfState->numUnprogrammedRoute() != 0 ) {
      // Where one found room, others may.
      MPLS_TRACE( 3, "vrf ", vrfName, " unprogrammedRetryIntervalIs ", reviewInterval() );
      vrfState->unprogrammedRetryIntervalIs( reviewInterval() );
   }
}

void MplsSm::handleUnprogrammedRoute( MplsHwVrfStatus& status, Mpls::RouteKey routeKey ) {
   MPLS_TRACE_CALL( 3, " routeKey ", routeKey );
   const L3::VrfName vrfName = vrfOf( status, in_ );
   assertDefaultVrf( vrfName );
   VrfMplsState* const vrfState = mplsState( vrfName );
   MplsRoute* const route = vrfState ? vrfState->route( routeKey ) : nullptr;
   if ( route == nullptr ) {
      MPLS_TRACE( 3, "no vrf state or routeKey" );
      counters_->reportsLateInc();
      return;
   }
   const bool unprogrammed = status.unprogrammedRouteHas( routeKey );
   if ( unprogrammed ) {
      MPLS_TRACE( 3, "routeKey ", routeKey, " not programmed in  vrf ", vrfName );
      vrfState->unprogrammedRetryIntervalIs( defaultUnprogrammedRetryInterval() );
   } else {
      MPLS_TRACE( 3, "routeKey ", routeKey, " removed from unprog collection in vrf ", vrfName );
   }
   counters_->routesRefusedInc( unprogrammed );
   routeUnprogrammedIs( *route, unprogrammed );
   vrfState->routeKeyForPublishIs( routeKey );
   const U64 preUnprogrammed = vrfState->numUnprogrammedRoute();
   const UnprogrammedReason reason = status.unprogrammedReason();
   MPLS_ASSERT( !( preUnprogrammed == 0 && !unprogrammed ),
                "! (preUnprogrammed == 0 && delta == -1 )", textOf( routeKey ) );
   if ( preUnprogrammed == 0 ) {
      if ( reason == UnprogrammedReason::AdjacencyFull ||
           reason == UnprogrammedReason::RouteFull ) {
         logIfAllowed( resourceFull );
         resourceFullLogged = true;
      }
      MPLS_TRACE( 2, "Schedule review for unprog routes, reason ", reason );
   } else if ( preUnprogrammed == 1 && !unprogrammed ) {
      if ( resourceFullLogged ) {
         logIfAllowed( resourceNormal );
         resourceFullLogged = false;
      }
      status.unprogrammedReasonIs( UnprogrammedReason::Success );
      MPLS_TRACE( 3, "Resource-Normal" );
   }
   vrfState->numUnprogrammedRouteIs( unprogrammed ? preUnprogrammed + 1 : preUnprogrammed - 1 );
   doMaybeScheduleReview( vrfName );
}

void MplsSm::handleUnprogrammedAdj( MplsHwVrfStatus& status,
                                    const Ptr< Mpls::Hardware::L2Adjacency >& adjacency ) {
   const U64 id = adjacency->index();
   MPLS_TRACE_CALL( 3, " adjacency ", id );
   const L3::VrfName vrfName = vrfOf( status, in_ );
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
      const MplsHwVrfConfig* const config = velMplsHwVrfConfig( vrfName );
      if ( vrfState->numUnprogrammedRoute() != 0 && config && config->mplsRouting() &&
           config->l2AdjacencyHas( adjacency ) ) {
         MPLS_TRACE( 3, "vrf ", vrfName, " unprogrammedRetryIntervalIs ", reviewInterval() );
         vrfState->unprogrammedRetryIntervalIs( reviewInterval() );
      }
   }
   doMaybeScheduleReview( vrfName );
}

// --- How a route leaves.

void MplsSm::unprogramRouteKey( VrfMplsState& vrfState, Mpls::RouteKey routeKey ) {
   const L3::VrfName& vrf = vrfState.vrfName();
   MPLS_TRACE_CALL( 3, " vrf ", vrf, " routeKey ", routeKey );
   MPLS_RING( "unprogram routeKey from vrf ", routeKey );
   if ( MplsHwVrfConfig* const config = velMplsHwVrfConfig( vrf ) ) {
      config->routeDel( routeKey );
   }
   if ( MplsHwVrfStatus* const status = velMplsHwVrfStatusNonConst( vrf ) ) {
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
   in_.mplsSmHelper->deleteRoute( vrfState.vrfName(), routeKey );
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
