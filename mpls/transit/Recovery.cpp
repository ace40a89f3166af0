#include "mpls/transit/Recovery.h"

#include "mpls/VelMplsTrace.h"
#include "mpls/transit/Parts.h"
#include "platform/services/SystemLog.h"

namespace Vel::Transit {

namespace {

SystemLogHandle staleSweep( {
   .name = "ROUTING_MPLS_STALE_SWEEP",
   .severity = 5,
   .minIntervalSeconds = 1.0,
   .format = "Routes of the time before the restart are removed from hardware.",
   .explanation = "The routing software has come back without these routes.",
   .recommendedAction = "",
} );
SystemLogHandle staleSweepWaits( {
   .name = "ROUTING_MPLS_STALE_SWEEP_HELD",
   .severity = 3,
   .minIntervalSeconds = 1.0,
   .format = "Routes of the time before the restart wait to be removed from hardware.",
   .explanation = "More routes are missing after the restart than may be removed unasked. They go "
                  "on forwarding as before.",
   .recommendedAction =
      "Check that the routing software has come up whole. Then approve the sweep.",
} );

} // namespace

void Recovery::maybeEndSync() {
   if ( !syncAnswered_ ||
        sm_.mplsSmStartupStatus() != MplsSmStartupStatus::mplsSmWaitingForSyncResponses ) {
      return;
   }
   const L3::VrfName vrf = L3::VrfName::defaultVrf();
   parts_.fecRoom.lookAgain();
   if ( sm_.recoveredRoutes() != 0 && !parts_.vrfs.mayNameRoutes( vrf ) ) {
      MPLS_TRACE( 3, "recovered routes wait for the name of vrf ", vrf );
      return;
   }
   forgetWantedStale();
   if ( !maySweepStaleRoutes() ) {
      parts_.fecRoom.maybeOfferFecs( sm_.mplsState( vrf ) );
      return; // what is stale goes on forwarding
   }
   sweepStaleRoutes();
   in_.hwFecIdRequest->adjSyncIdMapDelAll();
   sm_.mplsSmStartupStatusIs( MplsSmStartupStatus::mplsSmNormal );
   MPLS_TRACE( 3, "Transitioned to normal stage" );
   parts_.fecRoom.maybeOfferFecs( sm_.mplsState( vrf ) );
}

void Recovery::settleRecovered( const VrfMplsState* vrfState ) {
   if ( sm_.staleSweepHeld() && enoughCameBack() ) {
      maybeEndSync(); // what was missing has come after all
   }
   parts_.fecRoom.maybeOfferFecs( vrfState );
}

void Recovery::maybeSweepNamed( const L3::VrfName& vrf ) {
   if ( !in_.velL3StartupStagePrereqs || !parts_.vrfs.mayNameRoutes( vrf ) ) {
      return;
   }
   parts_.fecRoom.lookAgain();
   maybeEndSync();
   if ( sm_.mplsSmStartupStatus() == MplsSmStartupStatus::mplsSmNormal ) {
      sweepStaleRoutes(); // what went while the name was lost
   }
}

// An LFIB that comes up nearly empty would take nearly everything out of hardware.
bool Recovery::maySweepStaleRoutes() {
   const size_t stale = sm_.staleRecoveredRoutes();
   if ( stale == 0 ) {
      sm_.staleSweepHeldIs( false );
      return true;
   }
   const size_t recovered = in_.mplsRouteSyncMap->adjSyncIds();
   const double share = staleShare( stale );
   sm_.staleSweepHeldIs( !( share <= sm_.maxStaleShare() ) ); // also where the share is no number
   SystemLogHandle& handle = sm_.staleSweepHeld() ? staleSweepWaits : staleSweep;
   const std::string text =
      joinText( stale, " of ", recovered, " routes that were in hardware before the restart (",
                share, ") are not in the LFIB any more. ",
                sm_.staleSweepHeld() ? joinText( "That is more than ", sm_.maxStaleShare(),
                                                 ": they stay until the sweep is approved." )
                                     : std::string( "They are removed." ) );
   MPLS_TRACE( 2, text );
   if ( handle.allowed() ) {
      handle.log( text );
   }
   return !sm_.staleSweepHeld();
}

double Recovery::staleShare( size_t stale ) const {
   const size_t recovered = in_.mplsRouteSyncMap->adjSyncIds();
   return recovered == 0 ? 0 : static_cast< double >( stale ) / static_cast< double >( recovered );
}

bool Recovery::recoveredRouteWanted( Mpls::RouteKey routeKey ) const {
   const L3::VrfName& vrf = L3::VrfName::defaultVrf();
   if ( !sm_.mplsRoutingEnabled( vrf ) ) {
      return false;
   }
   const Mpls::LfibRoute lfibRoute = in_.transitLfib->lfibRoute( routeKey );
   if ( !lfibRoute && in_.transitLfib->unread() ) {
      sm_.keepUnread( routeKey );
      return true; // as far as anybody knows
   }
   if ( !lfibRoute || !parts_.viaSets.routeSupported( lfibRoute ) ) {
      return false;
   }
   if ( in_.transitLfib->lfibViaSet( lfibRoute.viaSetKey ).null() ) {
      return true;
   }
   const VrfMplsState* const vrfState = sm_.mplsState( vrf );
   const MplsRoute* const route = vrfState ? vrfState->route( routeKey ) : nullptr;
   const L3Adjacency* const l3Adj = route ? route->l3Adj().get() : nullptr;
   const bool looked = l3Adj && !vrfState->isAdjPendingForReview( l3Adj->index() );
   if ( looked && awaitsNoFec( *l3Adj ) ) {
      return false;
   }
   if ( parts_.viaSets.lFibViaSetFault( lfibRoute.viaSetKey ).empty() ) {
      return true;
   }
   const bool unread = in_.transitLfib->unread();
   if ( unread ) {
      sm_.keepUnread( routeKey );
   }
   return unread;
}

bool Recovery::awaitsNoFec( const L3Adjacency& l3Adj ) const {
   return !sm_.inPlaceAdjacencyUpdateSupported() && !l3Adj.extFecInfo() &&
          !l3Adj.awaitedBackup().holdsBack();
}

void Recovery::forgetWantedStale() {
   for ( const Mpls::RouteKey routeKey : sm_.staleRecoveredRoute() ) {
      if ( !sm_.recoveredRouteHas( routeKey ) || recoveredRouteWanted( routeKey ) ) {
         sm_.staleRecoveredRouteDel( routeKey );
      }
   }
}

// Whether a sweep that was held may go on. Looks no further than the answer takes.
bool Recovery::enoughCameBack() {
   size_t stale = 0;
   for ( const Mpls::RouteKey routeKey : sm_.staleRecoveredRoute() ) {
      if ( !sm_.recoveredRouteHas( routeKey ) || recoveredRouteWanted( routeKey ) ) {
         sm_.staleRecoveredRouteDel( routeKey );
      } else if ( !( staleShare( ++stale ) <= sm_.maxStaleShare() ) ) {
         return false;
      }
   }
   return true;
}

void Recovery::dropRecoveredRoute( const L3::VrfName& vrf, Mpls::RouteKey routeKey ) {
   if ( !sm_.recoveredRouteHas( routeKey ) ) {
      return;
   }
   if ( sm_.mplsSmStartupStatus() != MplsSmStartupStatus::mplsSmNormal ||
        !parts_.vrfs.mayNameRoutes( vrf ) ) {
      sm_.staleRecoveredRouteIs( routeKey );
      return;
   }
   parts_.fecRoom.lookAgain();
   deleteRecoveredRoute( routeKey );
}

void Recovery::noteRecoveredVrfId() {
   const L3::VrfName& vrf = L3::VrfName::defaultVrf();
   if ( recoveredVrfId_ == noVrfId && in_.mplsRouteSyncMap ) {
      recoveredVrfId_ = in_.mplsRouteSyncMap->vrfId();
   }
   if ( recoveredVrfId_ == noVrfId && in_.routingHwRouteStatus->vrfStatusHas( vrf ) ) {
      recoveredVrfId_ = in_.routingHwRouteStatus->vrfStatus( vrf );
   }
}

void Recovery::leaveRecoveredVrfId() {
   const L3::VrfName& vrf = L3::VrfName::defaultVrf();
   noteRecoveredVrfId();
   if ( sm_.recoveredRoutes() == 0 || !in_.routingHwRouteStatus->vrfStatusHas( vrf ) ||
        recoveredVrfId_ == in_.routingHwRouteStatus->vrfStatus( vrf ) ) {
      return;
   }
   for ( const Mpls::RouteKey routeKey : sm_.recoveredRoute() ) {
      deleteRecoveredRoute( routeKey );
   }
   sm_.staleRecoveredRouteDelAll();
   parts_.fecRoom.lookAgain();
}

void Recovery::deleteRecoveredRoute( Mpls::RouteKey routeKey ) {
   sm_.recoveredRouteDel( routeKey );
   if ( sm_.recoveredRoutes() == 0 ) { // there may be no review to come that says so
      in_.hwFecIdRequest->mayReplaceDelAll();
   }
   if ( recoveredVrfId_ != noVrfId ) {
      in_.mplsSmHelper->deleteRoute( static_cast< VrfId >( recoveredVrfId_ ), routeKey );
   }
}

void Recovery::recordAdjSyncId( const L3Adjacency& l3Adj ) {
   if ( !in_.mplsRouteSyncMap || !l3Adj.extFecInfo() ||
        sm_.mplsSmStartupStatus() == MplsSmStartupStatus::mplsSmNormal ) {
      return;
   }
   Hash< AdjSyncId, U64 > routesOf;
   AdjSyncIdEntry entry{ l3Adj.extFecInfo()->fecId(), 0 };
   U64 most = 0;
   for ( const Mpls::RouteKey routeKey : l3Adj.routeKey() ) {
      if ( in_.mplsRouteSyncMap->adjSyncIdHas( routeKey ) ) {
         const AdjSyncId syncId = in_.mplsRouteSyncMap->adjSyncId( routeKey );
         const U64 routes = ++*routesOf.emplace( syncId, U64{ 0 } ).first;
         if ( routes > most ) {
            most = routes;
            entry.syncId = syncId;
         }
      }
   }
   if ( most != 0 ) {
      in_.hwFecIdRequest->adjSyncIdMapIs( entry );
   }
}

void Recovery::approveStaleSweep() {
   MPLS_TRACE_CALL( 2 );
   sm_.maxStaleShareIs( 1.0 );
   if ( sm_.staleSweepHeld() ) {
      maybeEndSync();
   }
}

void Recovery::sweepStaleRoutes() {
   const L3::VrfName vrf = L3::VrfName::defaultVrf();
   forgetWantedStale();
   for ( const Mpls::RouteKey routeKey : sm_.staleRecoveredRoute() ) {
      // The configuration of this process never held the route: the helper takes it out.
      if ( VrfMplsState* const vrfState = sm_.mplsState( vrf ) ) {
         parts_.routeWriter.unprogramRouteKey( *vrfState, routeKey );
      }
      deleteRecoveredRoute( routeKey );
   }
   sm_.staleRecoveredRouteDelAll();
}

} // namespace Vel::Transit
