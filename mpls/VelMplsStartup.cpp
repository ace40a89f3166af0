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
// adjSyncDone, the VRF's name and number. Outputs: the request table's adjSyncIdMap, mayReplace,
// mayTakeOver and syncRequestsReady; routes that go, through MplsSmHelper.
//
// Which routes are whose. `recoveredRoute` holds what the process before has programmed and this
// one has neither written nor removed. `staleRecoveredRoute` holds those of them that the LFIB was
// not seen to want: what was missing may come back by more ways than one, so the sweep asks of each
// once more, and takes out what is not wanted then. A route leaves both with its first writing.
//
// Room in full hardware is the other half of this file: what is left with routes that all wait for
// another FEC is offered to that one, be it of the process before (`mayReplace`) or of this one
// (`mayTakeOver`), at a start or later.
//
// Cost: the replay is one look-up a route; a sweep one for each route that is stale; each look for
// what full hardware may take, one walk over the routes of FECs that are being left.

#include "mpls/VelMplsSm.h"
#include "mpls/VelMplsTrace.h"
#include "platform/services/SystemLog.h"

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
   leaveRecoveredVrfId(); // the number may have changed before the inputs were ready
   doMaybeScheduleReview( vrf );
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
      withdrawTakeOvers( vrfState );
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
   syncAnswered_ = true;
   maybeEndSync();
}

// The hardware layer has answered, in the stage that waits for it: the sync ends as soon as hardware
// can be told what goes, and as much may go.
void MplsSm::maybeEndSync() {
   if ( !syncAnswered_ ||
        mplsSmStartupStatus_ != MplsSmStartupStatus::mplsSmWaitingForSyncResponses ) {
      return;
   }
   const L3::VrfName vrf = L3::VrfName::defaultVrf();
   recoveredFecsToOffer_ = true;
   if ( recoveredRoutes() != 0 && !mayNameRoutes( vrf ) ) {
      MPLS_TRACE( 3, "recovered routes wait for the name of vrf ", vrf );
      return;
   }
   forgetWantedStale();
   if ( !maySweepStaleRoutes() ) {
      maybeOfferFecs( mplsState( vrf ) );
      return; // what is stale goes on forwarding
   }
   sweepStaleRoutes();
   in_.hwFecIdRequest->adjSyncIdMapDelAll();
   mplsSmStartupStatusIs( MplsSmStartupStatus::mplsSmNormal );
   MPLS_TRACE( 3, "Transitioned to normal stage" );
   maybeOfferFecs( mplsState( vrf ) );
}

// Nothing is queued: what came back may be enough for a sweep that was held, and what waits for
// FECs is known.
void MplsSm::settleRecovered( const VrfMplsState* vrfState ) {
   if ( staleSweepHeld() && enoughCameBack() ) {
      maybeEndSync(); // what was missing has come after all
   }
   maybeOfferFecs( vrfState );
}

// --- Room.

void MplsSm::maybeOfferFecs( const VrfMplsState* vrfState ) {
   if ( vrfState == nullptr || !in_.hwFecIdRequest ||
        vrfState->routeKeyForReviews() + vrfState->l3AdjForReviews() != 0 ) {
      return;
   }
   offerFecsBeingLeft( *vrfState );
   if ( !recoveredFecsToOffer_ ) {
      return;
   }
   if ( recoveredRoutes() == 0 ) {
      recoveredFecsToOffer_ = false;
      in_.hwFecIdRequest->mayReplaceDelAll();
      return;
   }
   if ( !syncAnswered_ || !mayNameRoutes( vrfState->vrfName() ) ) {
      return; // there is more to offer then
   }
   recoveredFecsToOffer_ = false;
   if ( someFecUnanswered() ) {
      offerRecoveredFecs( *vrfState );
   } else {
      in_.hwFecIdRequest->mayReplaceDelAll();
   }
}

// The FEC that all routes in this one wait for, where hardware may rewrite it for them in one step:
// nothing but these routes leads into it, and neither FEC leaves the pop to them. Else none.
Fib::FecId MplsSm::fecAwaitedByAll( const VrfMplsState& vrfState,
                                    const ExternalFecInfo& info ) const {
   if ( info.dependentL3Adjacencys() + info.dependentPrimaryExtFecInfos() != 0 ||
        info.hwId() == 0 || info.popLabelActionRemoved() ) {
      return {};
   }
   const ExternalFecInfo* awaited = nullptr;
   for ( const Mpls::RouteKey routeKey : info.dependentRouteKey() ) {
      const MplsRoute* const route = vrfState.route( routeKey );
      const L3Adjacency* const l3Adj = route ? route->l3Adj().get() : nullptr;
      const ExternalFecInfo* const wanted = l3Adj ? l3Adj->extFecInfo().get() : nullptr;
      if ( wanted == nullptr || wanted->hwId() != 0 || wanted->popLabelActionRemoved() ||
           ( awaited && awaited != wanted ) || !stillUses( routeKey, *l3Adj ) ) {
         return {};
      }
      awaited = wanted;
   }
   return awaited ? awaited->fecId() : Fib::FecId();
}

// Hardware that is full of FECs gives a FEC that is awaited the place of the one whose routes await
// it.
void MplsSm::offerFecsBeingLeft( const VrfMplsState& vrfState ) {
   HashSet< Fib::FecId > offered;
   for ( const auto& [awaited, left] : in_.hwFecIdRequest->mayTakeOver() ) {
      if ( recoveredFecsToOffer_ && // else none of their routes has been told otherwise
           fecAwaitedByAll( vrfState, *vrfState.extFecInfo( left ) ) != awaited ) {
         in_.hwFecIdRequest->mayTakeOverDel( awaited );
      } else {
         offered.insert( left );
      }
   }
   for ( const Fib::FecId left : fecsBeingLeft_ ) {
      const ExternalFecInfo* const info = vrfState.extFecInfo( left );
      if ( info == nullptr || info->dependentRouteKeys() == 0 ) {
         fecsBeingLeft_.erase( left );
         continue;
      }
      if ( offered.has( left ) ) {
         continue;
      }
      const Fib::FecId awaited = fecAwaitedByAll( vrfState, *info );
      if ( awaited != Fib::FecId() && !in_.hwFecIdRequest->mayTakeOverHas( awaited ) ) {
         MPLS_TRACE( 3, "FecId ", awaited, " may take over the place of ", left );
         in_.hwFecIdRequest->mayTakeOverIs( awaited, left );
      }
   }
}

// At once: what has been offered and is wanted again, or wanted by nobody any more.
void MplsSm::withdrawTakeOvers( const VrfMplsState* vrfState ) {
   if ( !in_.hwFecIdRequest ) {
      return;
   }
   for ( const auto& [awaited, left] : in_.hwFecIdRequest->mayTakeOver() ) {
      const ExternalFecInfo* const before = vrfState ? vrfState->extFecInfo( left ) : nullptr;
      const ExternalFecInfo* const next = vrfState ? vrfState->extFecInfo( awaited ) : nullptr;
      if ( before == nullptr || before->dependentL3Adjacencys() != 0 || next == nullptr ||
           next->dependentL3Adjacencys() == 0 || next->hwId() != 0 ) {
         in_.hwFecIdRequest->mayTakeOverDel( awaited );
         recoveredFecsToOffer_ = true;
      }
   }
}

// The answer is the hardware id of the FEC whose place was offered: hardware has rewritten that one,
// and its routes with it. They are in the new FEC from now on, also those that have been told
// meanwhile to go elsewhere.
void MplsSm::takeOverRoutes( VrfMplsState& vrfState, ExternalFecInfo& info ) {
   const Fib::FecId left = in_.hwFecIdRequest->mayTakeOver( info.fecId() );
   ExternalFecInfo* const before = vrfState.extFecInfo( left );
   if ( before == nullptr || info.hwId() == 0 || before->hwId() != info.hwId() ) {
      return;
   }
   MPLS_TRACE( 3, "FecId ", info.fecId(), " has taken over the routes of ", left );
   in_.hwFecIdRequest->mayTakeOverDel( info.fecId() );
   fecsBeingLeft_.insert( info.fecId() );
   const Ptr< ExternalFecInfo > now = &info;
   for ( const Mpls::RouteKey routeKey : before->dependentRouteKey() ) {
      deleteRouteKeyFromExtFecInfo( routeKey, *before );
      addRouteKeyToExtFecInfo( routeKey, info );
      if ( MplsRoute* const route = vrfState.route( routeKey ) ) {
         route->extFecInfoIs( now );
      }
   }
   maybeDeleteExtFecInfo( vrfState, left );
}

bool MplsSm::someFecUnanswered() const {
   for ( const auto& [fecId, request] : in_.hwFecIdRequest->hwFecIdRequest() ) {
      if ( in_.hwFecIdResponse->hwFecId( fecId ).hwId == 0 ) {
         return true;
      }
   }
   return false;
}

// At a start also where they wait for several: where all routes that are left in an old FEC wait for
// new ones, hardware may take it, rewriting it where they wait for the same one, and else taking it
// out. Asked once the hardware layer has matched what it could, and nothing is queued.
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
      const bool waits = info && info->hwId() == 0 && stillUses( routeKey, *l3Adj );
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

// --- What is stale.

void MplsSm::maybeSweepNamed( const L3::VrfName& vrf ) {
   if ( !in_.velL3StartupStagePrereqs || !mayNameRoutes( vrf ) ) {
      return;
   }
   recoveredFecsToOffer_ = true;
   maybeEndSync();
   if ( mplsSmStartupStatus_ == MplsSmStartupStatus::mplsSmNormal ) {
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
   const double share = staleShare( stale );
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

double MplsSm::staleShare( size_t stale ) const {
   const size_t recovered = in_.mplsRouteSyncMap->adjSyncIds();
   return recovered == 0 ? 0 : static_cast< double >( stale ) / static_cast< double >( recovered );
}

// The question that decides about a recovered route: whether the LFIB has it now, with something
// that can be forwarded with. A via set that is still to come may be what it has already.
bool MplsSm::recoveredRouteWanted( Mpls::RouteKey routeKey ) const {
   const L3::VrfName& vrf = L3::VrfName::defaultVrf();
   const Mpls::LfibRoute lfibRoute = in_.transitLfib->lfibRoute( routeKey );
   if ( !lfibRoute || !mplsRoutingEnabled( vrf ) || !routeSupported( lfibRoute ) ) {
      return false;
   }
   if ( in_.transitLfib->lfibViaSet( lfibRoute.viaSetKey ).null() ) {
      return true;
   }
   const VrfMplsState* const vrfState = mplsState( vrf );
   const MplsRoute* const route = vrfState ? vrfState->route( routeKey ) : nullptr;
   const L3Adjacency* const l3Adj = route ? route->l3Adj().get() : nullptr;
   const bool looked = l3Adj && !isAdjPendingForReview( *vrfState, l3Adj->index() );
   return !( looked && awaitsNoFec( *l3Adj ) ) && lFibViaSetFault( lfibRoute.viaSetKey ).empty();
}

// The adjacency is of a kind that is programmed with an L2 adjacency: a recovered route over it has
// no FEC to wait for.
bool MplsSm::awaitsNoFec( const L3Adjacency& l3Adj ) const {
   return !inPlaceAdjacencyUpdateSupported() && !l3Adj.extFecInfo() &&
          !l3Adj.awaitedBackup().holdsBack();
}

void MplsSm::forgetWantedStale() {
   for ( const Mpls::RouteKey routeKey : staleRecoveredRoute() ) {
      if ( !recoveredRouteHas( routeKey ) || recoveredRouteWanted( routeKey ) ) {
         staleRecoveredRouteDel( routeKey );
      }
   }
}

// Whether a sweep that was held may go on. Looks no further than the answer takes.
bool MplsSm::enoughCameBack() {
   size_t stale = 0;
   for ( const Mpls::RouteKey routeKey : staleRecoveredRoute() ) {
      if ( !recoveredRouteHas( routeKey ) || recoveredRouteWanted( routeKey ) ) {
         staleRecoveredRouteDel( routeKey );
      } else if ( !( staleShare( ++stale ) <= maxStaleShare() ) ) {
         return false;
      }
   }
   return true;
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
   recoveredFecsToOffer_ = true;
   deleteRecoveredRoute( routeKey );
}

// Where the sync map says no number, what was found is the VRF's under the first that it has.
void MplsSm::noteRecoveredVrfId() {
   const L3::VrfName& vrf = L3::VrfName::defaultVrf();
   if ( recoveredVrfId_ == noVrfId && in_.mplsRouteSyncMap ) {
      recoveredVrfId_ = in_.mplsRouteSyncMap->vrfId();
   }
   if ( recoveredVrfId_ == noVrfId && in_.routingHwRouteStatus->vrfStatusHas( vrf ) ) {
      recoveredVrfId_ = in_.routingHwRouteStatus->vrfStatus( vrf );
   }
}

// What was found under another number than the VRF's is of no use to it.
void MplsSm::leaveRecoveredVrfId() {
   const L3::VrfName& vrf = L3::VrfName::defaultVrf();
   noteRecoveredVrfId();
   if ( recoveredRoutes() == 0 || !in_.routingHwRouteStatus->vrfStatusHas( vrf ) ||
        recoveredVrfId_ == in_.routingHwRouteStatus->vrfStatus( vrf ) ) {
      return;
   }
   for ( const Mpls::RouteKey routeKey : recoveredRoute() ) {
      deleteRecoveredRoute( routeKey );
   }
   staleRecoveredRouteDelAll();
   recoveredFecsToOffer_ = true;
}

void MplsSm::deleteRecoveredRoute( Mpls::RouteKey routeKey ) {
   recoveredRouteDel( routeKey );
   if ( recoveredRoutes() == 0 ) { // there may be no review to come that says so
      in_.hwFecIdRequest->mayReplaceDelAll();
   }
   if ( recoveredVrfId_ != noVrfId ) {
      in_.mplsSmHelper->deleteRoute( static_cast< VrfId >( recoveredVrfId_ ), routeKey );
   }
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
      maybeEndSync();
   }
}

void MplsSm::sweepStaleRoutes() {
   const L3::VrfName vrf = L3::VrfName::defaultVrf();
   forgetWantedStale();
   for ( const Mpls::RouteKey routeKey : staleRecoveredRoute() ) {
      // The configuration of this process never held it: what is in hardware goes by the helper.
      if ( VrfMplsState* const vrfState = mplsState( vrf ) ) {
         unprogramRouteKey( *vrfState, routeKey );
      }
      deleteRecoveredRoute( routeKey );
   }
   staleRecoveredRouteDelAll();
}

} // namespace Vel
