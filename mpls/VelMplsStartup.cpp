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
// adjSyncDone, the VRF's name and number. Output: syncRequestsReady. What else is
// written at a start: transit/Recovery.h (adjSyncIdMap, routes that go), transit/FecRoom.h (mayReplace,
// mayTakeOver).
//
// Cost: the replay is one look-up a route.

#include "mpls/VelMplsSm.h"

#include <utility>

#include "mpls/VelMplsTrace.h"
#include "mpls/transit/Parts.h"
#include "platform/services/SystemLog.h"

namespace Vel {

namespace {

SystemLogHandle startWaits( {
   .name = "ROUTING_MPLS_START_WAITS",
   .severity = 5,
   .minIntervalSeconds = 1.0,
   .format = "Label forwarding has not started: something that it needs is not written.",
   .explanation = "Label routes are not programmed before each neighbouring layer has written what "
                  "the message names.",
   .recommendedAction = "Where label forwarding is not in use there is nothing to do. Else look at "
                        "the agents that write what is missing.",
} );
SystemLogHandle startGoesOn( {
   .name = "ROUTING_MPLS_START_GOES_ON",
   .severity = 5,
   .minIntervalSeconds = 1.0,
   .format = "All that the start of label forwarding waited for has been written.",
   .explanation = "Label routes are programmed from now on.",
   .recommendedAction = "",
} );

} // namespace

// A start that waits looks like one that has nothing to do.
void MplsSm::sayWhatStartWaitsFor() {
   const std::string missing = startWaitsFor();
   if ( missing.empty() ) {
      return;
   }
   startAwaited_ = true;
   if ( startWaits.allowed() ) {
      startWaits.log( joinText( "Label forwarding has not started. It waits for ", missing, "." ) );
   }
}

void MplsSm::watchStart() {
   if ( ( !startTask_->scheduled() && !startAwaited_ ) ||
        mplsSmStartupStatus_ != MplsSmStartupStatus::mplsSmNormal || !startWaitsFor().empty() ) {
      return;
   }
   startTask_->cancel();
   if ( std::exchange( startAwaited_, false ) && startGoesOn.allowed() ) {
      startGoesOn.log();
   }
}

// What can be written now and is not; nothing where label forwarding is not wanted.
std::string MplsSm::startWaitsFor() const {
   std::string missing;
   const auto waitsFor = [&missing]( const auto&... what ) {
      missing += joinText( missing.empty() ? "" : ", ", what... );
   };
   const L3::VrfName& vrf = L3::VrfName::defaultVrf();
   const Mpls::LfibStatus* const lfib = in_.transitLfib.get();
   if ( !lfib || !in_.mplsRoutingInfo ) {
      return missing; // asserted when the start needs them
   }
   if ( !in_.mplsRoutingInfo->mplsRoutingHas( vrf ) ) {
      waitsFor( "mplsRouting of Mpls::RoutingInfo" );
   } else if ( !mplsRoutingEnabled( vrf ) ) {
      return missing;
   }
   if ( !in_.routingHwRouteStatus->vrfStatusHas( vrf ) ) {
      waitsFor( "vrfStatus of Routing::Hardware::RouteStatus" );
   } else if ( !forwardingIntoExternalFecsSupported() && !velMplsHwVrfStatus( vrf ) ) {
      waitsFor( "vrfStatus of MplsHwStatus, from the driver" );
   }
   if ( !lfib->attached() ) {
      waitsFor( "the region of Mpls::LfibStatus, from the publisher: ", lfib->refusedReason() );
   } else if ( lfib->resyncs() == 0 ) {
      waitsFor( "the first poll of Mpls::LfibStatus" );
   }
   const MplsSmStartupStatus stage = mplsSmStartupStatus_;
   if ( stage == MplsSmStartupStatus::mplsSmUninitialized ) {
      waitsFor( in_.mplsRouteSyncMap && !in_.mplsRouteSyncMap->ready()
                   ? "ready of MplsRouteSyncMap, from the hardware layer"
                   : "systemLfibReady of MplsSmInputStatusSm" );
   } else if ( stage == MplsSmStartupStatus::mplsSmProcessingSyncMap && !lfib->ready() ) {
      waitsFor( "ready of Mpls::LfibStatus, from the publisher" );
   } else if ( stage == MplsSmStartupStatus::mplsSmWaitingForSyncResponses ) {
      if ( in_.velL3StartupStagePrereqs && !in_.velL3StartupStagePrereqs->adjSyncDone() ) {
         waitsFor( "adjSyncDone of L3StartupStagePrerequisitesStatus, from the hardware layer" );
      }
      if ( recoveredRoutes() != 0 && !parts_->vrfs.mayNameRoutes( vrf ) ) {
         waitsFor( "vrfName of VelL3Status" );
      }
   }
   return missing;
}

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
      if ( !lfibRoute && in_.transitLfib->unread() && mplsRoutingEnabled( vrf ) ) {
         keepUnread( routeKey );
      } else if ( !lfibRoute || !parts_->viaSets.routeSupported( lfibRoute ) ||
                  !mplsRoutingEnabled( vrf ) ) {
         staleRecoveredRouteIs( routeKey ); // stays in hardware for now
      } else {
         handleLFibRoute( routeKey );
      }
   }
   parts_->recovery
      .leaveRecoveredVrfId(); // the number may have changed before the inputs were ready
   parts_->review.doMaybeScheduleReview( vrf );
   maybeTransitionToWaitingForSync( vrf );
}

void MplsSm::maybeTransitionToWaitingForSync( const L3::VrfName& vrf ) {
   VrfMplsState* const vrfState = mplsState( vrf );
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
      parts_->fecRoom.withdrawTakeOvers( vrfState );
      if ( routeKeys + l3Adjs == 0 ) {
         parts_->recovery.settleRecovered( vrfState );
      }
      return;
   }
   MPLS_TRACE( 3, "No route or L3Adj for review, moving to waitingForSync stage" );
   mplsSmStartupStatusIs( MplsSmStartupStatus::mplsSmWaitingForSyncResponses );
   if ( vrfState ) {
      for ( const auto& [index, l3Adj] : vrfState->l3Adjacency() ) {
         parts_->recovery.recordAdjSyncId( *l3Adj ); // its routes are all there only now
      }
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
   parts_->recovery.syncAnsweredIs( true );
   parts_->recovery.maybeEndSync();
}

} // namespace Vel
