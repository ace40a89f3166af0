// MplsSm: the start with non-stop forwarding. Hardware goes on forwarding while the routes of the
// process before are taken over: replayed from the sync map, requested again, answered, and dropped
// where the LFIB no longer holds them.
//
//    mplsSmUnknown ──inputs not ready──> mplsSmUninitialized ──inputs ready──┐
//        │  └────────────────inputs ready────────────────────────────────────┤
//        │                                                                   ▼
//        │ no non-stop forwarding                              mplsSmProcessingSyncMap
//        │                                                                   │
//        │                                         nothing queued, LFIB complete
//        ▼                                                                   ▼
//    mplsSmNormal <──adjSyncDone, stale routes removed── mplsSmWaitingForSyncResponses
//
// Inputs: MplsSmInputSummary::status, MplsRouteSyncMap, LfibStatus::ready, the stage prerequisites'
// adjSyncDone, the VRF's name and number. Outputs: the request table's adjSyncIdMap, mayReplace and
// syncRequestsReady; routes that go, through MplsSmHelper.
//
// Which routes are whose. `recoveredRoute` holds what the process before has programmed and this
// one has neither written nor removed; `staleRecoveredRoute`, within it, what the LFIB does not
// hold and the sweep takes out. A route leaves the first with its first writing.
//
// Cost: the replay is one look-up a route; a sweep, and each look for what full hardware may take,
// one walk over what is left in the set.

#include "mpls/VelMplsSm.h"
#include "mpls/VelMplsTrace.h"
#include "platform/SystemLog.h"

namespace Vel {

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

void MplsSm::handleInputStatusSummaryReady() {
   MPLS_TRACE_CALL( 3, ": " );
   VEL_ASSERT_TEXT( in_.inputStatusSummary->status() == MplsSmInputStatus::mplsSmInputReady,
                    "inputStatusSummary()->status() == MplsSmInputStatus::mplsSmInputReady_",
                    "We only ever expect this to happen once, to the ready state only.",
                    "VelMplsSm", name() );
   VEL_ASSERT_TEXT( mplsSmStartupStatus_ < MplsSmStartupStatus::mplsSmProcessingSyncMap,
                    "mplsSmStartupStatus() == MplsSmStartupStatus::mplsSmUninitialized_ || "
                    "mplsSmStartupStatus() == MplsSmStartupStatus::mplsSmUnknown_",
                    "Unless input is ready, we should never have gone past these stages",
                    "VelMplsSm", name() );
   mplsSmStartupStatusIs( MplsSmStartupStatus::mplsSmProcessingSyncMap );
   doInitialize();
}

void MplsSm::handleMplsRouteSyncMap() {
   if ( mplsSmStartupStatus_ != MplsSmStartupStatus::mplsSmProcessingSyncMap ) {
      return;
   }
   MPLS_TRACE_CALL( 3 );
   MPLS_ASSERT( staleRecoveredRoutes() == 0, "staleRecoveredRoutes() == 0", name() );
   MPLS_ASSERT( in_.inputStatusSummary->status() == MplsSmInputStatus::mplsSmInputReady,
                "inputStatusSummary()->status() == MplsSmInputStatus::mplsSmInputReady_", name() );
   const L3::VrfName vrf = L3::VrfName::defaultVrf();
   for ( const auto& [routeKey, syncId] : in_.mplsRouteSyncMap->adjSyncId() ) {
      const Mpls::LfibRoute lfibRoute = in_.transitLfib->lfibRoute( routeKey );
      recoveredRouteIs( routeKey );
      if ( !lfibRoute || !routeSupported( lfibRoute ) || !mplsRoutingEnabled( vrf ) ) {
         staleRecoveredRouteIs( routeKey ); // stays in hardware for now
      } else {
         handleLFibRoute( routeKey );
      }
   }
   doMaybeScheduleReview( vrf );
   maybeTransitionToWaitingForSync( vrf );
}

void MplsSm::maybeTransitionToWaitingForSync( const L3::VrfName& vrf ) {
   const VrfMplsState* const vrfState = mplsState( vrf );
   MPLS_TRACE( 3, "vrf: ", vrf, ", mplsStateExists: ", vrfState != nullptr );
   const size_t routeKeys = vrfState ? vrfState->routeKeyForReviews() : 0;
   const size_t l3Adjs = vrfState ? vrfState->l3AdjForReviews() : 0;
   const bool quiesced = in_.transitLfib->ready();
   if ( mplsSmStartupStatus_ != MplsSmStartupStatus::mplsSmProcessingSyncMap || routeKeys != 0 ||
        l3Adjs != 0 || !quiesced ) {
      MPLS_TRACE(
         3, "Not moving to waitingForSync stage - mplsSmStartupStatus: ", mplsSmStartupStatus_,
         ", routeKeyForReviews(): ", routeKeys, ", vrfMplsState->l3AdjForReviews(): ", l3Adjs,
         ", inputLfibQuiesced: ", quiesced );
      if ( routeKeys + l3Adjs == 0 ) {
         settleRecovered( vrfState );
      }
      return;
   }
   MPLS_TRACE( 3, "No route or L3Adj for review, moving to waitingForSync stage" );
   mplsSmStartupStatusIs( MplsSmStartupStatus::mplsSmWaitingForSyncResponses );
   if ( vrfState ) {
      recordAdjSyncIds( *vrfState );
   }
   in_.hwFecIdRequest->syncRequestsReadyIs( true );
}

void MplsSm::handleSyncDone() {
   MPLS_TRACE_CALL( 3, ": " );
   const bool done = in_.velL3StartupStagePrereqs->adjSyncDone();
   if ( !done || mplsSmStartupStatus_ != MplsSmStartupStatus::mplsSmWaitingForSyncResponses ) {
      MPLS_TRACE( 3, "adjSyncDone transitioned to ", done, ", mplsSmStartupStatus is ",
                  mplsSmStartupStatus_, ", NOT transitioning to normal stage for VelMplsSm" );
      return;
   }
   const L3::VrfName vrf = L3::VrfName::defaultVrf();
   recoveredFecsToOffer_ = true;
   if ( recoveredRoutes() != 0 && !mayNameRoutes( vrf ) ) {
      MPLS_TRACE( 3, "recovered routes wait for the name of vrf ", vrf );
      return;
   }
   if ( !maySweepStaleRoutes() ) {
      maybeOfferRecoveredFecs( mplsState( vrf ) );
      return; // what is stale goes on forwarding
   }
   sweepStaleRoutes();
   in_.hwFecIdRequest->adjSyncIdMapDelAll();
   mplsSmStartupStatusIs( MplsSmStartupStatus::mplsSmNormal );
   MPLS_TRACE( 3, "Transitioned to normal stage" );
   maybeOfferRecoveredFecs( mplsState( vrf ) );
}

// Nothing is queued: what came back may be enough for a sweep that was held, and what waits for
// FECs is known.
void MplsSm::settleRecovered( const VrfMplsState* vrfState ) {
   if ( staleSweepHeld() && staleShare() <= maxStaleShare() ) {
      handleSyncDone(); // what was missing has come after all
   }
   maybeOfferRecoveredFecs( vrfState );
}

// Hardware that has no room for another FEC could never make the new ones of routes whose old one
// fills their place. Where all routes that are left in an old FEC wait for new ones, hardware may
// take it: rewrite it where they wait for the same one, else take it out. Asked once the hardware
// layer has matched what it could, and nothing is queued.
void MplsSm::maybeOfferRecoveredFecs( const VrfMplsState* vrfState ) {
   if ( !recoveredFecsToOffer_ || vrfState == nullptr || !in_.velL3StartupStagePrereqs ||
        !in_.velL3StartupStagePrereqs->adjSyncDone() || !mayNameRoutes( vrfState->vrfName() ) ||
        vrfState->routeKeyForReviews() + vrfState->l3AdjForReviews() != 0 ) {
      return;
   }
   recoveredFecsToOffer_ = false;
   if ( recoveredRoutes() != 0 && someFecUnanswered() ) {
      offerRecoveredFecs( *vrfState );
   } else {
      in_.hwFecIdRequest->mayReplaceDelAll();
   }
}

bool MplsSm::someFecUnanswered() const {
   for ( const auto& [fecId, request] : in_.hwFecIdRequest->hwFecIdRequest() ) {
      if ( in_.hwFecIdResponse->hwFecId( fecId ).hwId == 0 ) {
         return true;
      }
   }
   return false;
}

void MplsSm::offerRecoveredFecs( const VrfMplsState& vrfState ) {
   struct Waiting {
      Fib::FecId fecId; // for this one; for several: none
      bool all = true;
   };
   Hash< AdjSyncId, Waiting > left;
   for ( const Mpls::RouteKey routeKey : recoveredRoute() ) {
      const MplsRoute* const route = vrfState.route( routeKey );
      const L3Adjacency* const l3Adj = route ? route->l3Adj().get() : nullptr;
      const ExternalFecInfo* const info = l3Adj ? l3Adj->extFecInfo().get() : nullptr;
      const bool waits = info && info->hwId() == 0;
      const auto [there, first] = left.emplace( in_.mplsRouteSyncMap->adjSyncId( routeKey ) );
      there->all &= waits;
      if ( waits && ( first || there->fecId == info->fecId() ) ) {
         there->fecId = info->fecId();
      } else {
         there->fecId = Fib::FecId();
      }
   }
   for ( const auto& [syncId, fecId] : in_.hwFecIdRequest->mayReplace() ) {
      const Waiting* const there = left.find( syncId );
      if ( there == nullptr || !there->all ) {
         in_.hwFecIdRequest->mayReplaceDel( syncId );
      }
   }
   for ( const auto& [syncId, waiting] : left ) {
      if ( waiting.all ) {
         MPLS_TRACE( 3, "FecId ", waiting.fecId, " may replace what was ", syncId );
         in_.hwFecIdRequest->mayReplaceIs( syncId, waiting.fecId );
      }
   }
}

void MplsSm::maybeSweepNamed( const L3::VrfName& vrf ) {
   if ( !in_.velL3StartupStagePrereqs || !mayNameRoutes( vrf ) ) {
      return;
   }
   recoveredFecsToOffer_ = true;
   if ( mplsSmStartupStatus_ == MplsSmStartupStatus::mplsSmWaitingForSyncResponses &&
        in_.velL3StartupStagePrereqs->adjSyncDone() ) {
      handleSyncDone();
   } else if ( mplsSmStartupStatus_ == MplsSmStartupStatus::mplsSmNormal ) {
      sweepStaleRoutes(); // what went while the name was lost
   }
}

// A route into a FEC is known to hardware by the VRF's name and number.
bool MplsSm::mayNameRoutes( const L3::VrfName& vrf ) const {
   return in_.routingHwRouteStatus->vrfStatusHas( vrf ) &&
          in_.velL3Status->vrfNameHas( in_.routingHwRouteStatus->vrfStatus( vrf ) );
}

// An LFIB that comes up nearly empty would take nearly everything out of hardware.
bool MplsSm::maySweepStaleRoutes() {
   const size_t stale = staleRecoveredRoutes();
   if ( stale == 0 ) {
      staleSweepHeldIs( false );
      return true;
   }
   const size_t recovered = in_.mplsRouteSyncMap->adjSyncIds();
   const double share = staleShare();
   staleSweepHeldIs( !( share <= maxStaleShare() ) ); // no number holds as well
   SystemLogHandle& handle = staleSweepHeld() ? staleSweepWaits : staleSweep;
   const std::string text =
      joinText( stale, " of ", recovered, " routes that were in hardware before the restart (",
                share, ") are not in the LFIB any more. ",
                staleSweepHeld() ? joinText( "That is more than ", maxStaleShare(),
                                             ": they stay until the sweep is approved." )
                                 : std::string( "They are removed." ) );
   MPLS_TRACE( 2, text );
   if ( handle.allowed() ) {
      handle.log( text );
   }
   return !staleSweepHeld();
}

double MplsSm::staleShare() const {
   const size_t recovered = in_.mplsRouteSyncMap->adjSyncIds();
   return recovered == 0
             ? 0
             : static_cast< double >( staleRecoveredRoutes() ) / static_cast< double >( recovered );
}

// A recovered route that is not to be forwarded any more, and that this process has not written:
// hardware holds it as the one before left it. Before the sync is over it goes with the others.
void MplsSm::dropRecoveredRoute( const L3::VrfName& vrf, Mpls::RouteKey routeKey ) {
   if ( !recoveredRouteHas( routeKey ) ) {
      return;
   }
   if ( mplsSmStartupStatus_ != MplsSmStartupStatus::mplsSmNormal || !mayNameRoutes( vrf ) ) {
      staleRecoveredRouteIs( routeKey );
      return;
   }
   recoveredRouteDel( routeKey );
   recoveredFecsToOffer_ = true;
   deleteRouteIntoFec( vrf, routeKey );
}

// What each FEC was before the restart, for the hardware layer to match: the sync id of most of its
// adjacency's routes, which are all there only now.
void MplsSm::recordAdjSyncIds( const VrfMplsState& vrfState ) {
   for ( const auto& [index, l3Adj] : vrfState.l3Adjacency() ) {
      if ( !l3Adj->extFecInfo() ) {
         continue;
      }
      Hash< AdjSyncId, U64 > routesOf;
      AdjSyncIdEntry entry{ l3Adj->extFecInfo()->fecId(), 0 };
      U64 most = 0;
      for ( const Mpls::RouteKey routeKey : l3Adj->routeKey() ) {
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
}

void MplsSm::approveStaleSweep() {
   MPLS_TRACE_CALL( 2 );
   maxStaleShareIs( 1.0 );
   if ( staleSweepHeld() ) {
      handleSyncDone();
   }
}

void MplsSm::sweepStaleRoutes() {
   const L3::VrfName vrf = L3::VrfName::defaultVrf();
   for ( const Mpls::RouteKey routeKey : staleRecoveredRoute() ) {
      if ( !recoveredRouteDel( routeKey ) ) {
         continue; // written since
      }
      // The configuration of this process never held it: what is in hardware goes by the helper.
      if ( VrfMplsState* const vrfState = mplsState( vrf ) ) {
         unprogramRouteKey( *vrfState, routeKey );
      }
      deleteRouteIntoFec( vrf, routeKey );
   }
   staleRecoveredRouteDelAll();
}

} // namespace Vel
