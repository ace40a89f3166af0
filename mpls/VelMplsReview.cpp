// MplsSm: review and retry. Three cooperative tasks drain the work sets in slices.
//
// Scheduling. `doMaybeScheduleReview` is the one entry: whoever queues work calls it. The VRF then
// waits in `vrfForReview` for "reviewVrf", and in `unprogrammedRouteForReview` for
// "reviewUnprogrammedRoute" while routes are not in hardware.
//
//    queued, anything           ──> both, after reviewInterval
//    only unprogrammed routes   ──> the second, after the VRF's retry interval
//
// Retry interval of a VRF: 0 until the first retry, then `defaultUnprogrammedRetryInterval`; cut to
// `reviewInterval` when something that was not in hardware has found room. The first unprogrammed route
// after a clean period starts the interval instead of being retried at once.

#include "mpls/VelMplsSm.h"
#include "mpls/VelMplsTrace.h"

#include <limits>

namespace Vel {

// --- The scheduling decision.

void MplsSm::doMaybeScheduleReview( const L3::VrfName& vrf ) {
   MPLS_TRACE_CALL( 2, " vrf ", vrf );
   if ( !initialized() ) {
      return;
   }
   VrfMplsState* const vrfState = mplsState( vrf );
   if ( vrfState == nullptr ) {
      return;
   }
   if ( !vrfState->needReview() ) {
      MPLS_TRACE( 2, "nothing to review in vrf ", vrf );
      return;
   }
   double delay = reviewInterval();
   if ( vrfState->needReviewForUnprogrammedOnly() ) {
      delay = vrfState->unprogrammedRetryInterval();
      MPLS_TRACE( 2, "Only unprogrammed routes need review in vrf ", vrf,
                  ". The review interval is  ", delay, " seconds." );
   } else {
      MPLS_TRACE( 2, " Review interval for vrf ", vrf, " is ", delay, " seconds." );
      vrfForReviewIs( vrf, true );
      vrfTask_->runWithLowestDelay( delay );
   }
   if ( vrfState->numUnprogrammedRoute() != 0 ) {
      MPLS_TRACE( 2, "Schedule unprogrammedRoutes to be published in vrf ", vrf );
      unprogrammedRouteForReviewIs( vrf, vrfState );
      const double expiryBefore = unprogrammedRouteTask_->expiry();
      unprogrammedRouteTask_->runWithLowestDelay( delay );
      if ( expiryBefore > unprogrammedRouteTask_->expiry() ) {
         currentReviewIntervalIs( delay );
      }
      MPLS_RING( "doMaybeScheduleReview The reviewInterval is (us) ", delay * 1e6 );
   }
}

void MplsSm::doMaybeScheduleReviewOrDeleteVrfState( const L3::VrfName& vrf ) {
   MPLS_TRACE_CALL( 2, " vrf ", vrf );
   if ( !initialized() ) {
      return;
   }
   VrfMplsState* const vrfState = mplsState( vrf );
   if ( vrfState == nullptr ) {
      return;
   }
   MPLS_ASSERT( vrf == L3::VrfName::defaultVrf(), "vrf == L3::VrfName::defaultVrf()", vrf.text() );
   if ( vrfState->needReview() ) {
      doMaybeScheduleReview( vrf );
      return;
   }
   if ( !mplsRoutingEnabled( vrf ) ) {
      MPLS_TRACE( 3, "disable mplsRouting in vrf ", vrf );
      switchOffMplsRouting();
   }
   if ( vrfState->idle() ) {
      MPLS_TRACE( 3, "delete state for vrf ", vrf );
      vrfStateDrop( vrf );
   }
}

void MplsSm::doForceRouteReprogramming() {
   MPLS_TRACE_CALL( 3 );
   for ( const auto& [vrf, vrfState] : mplsState() ) {
      for ( const auto& [routeKey, route] : vrfState->route() ) {
         vrfState->routeKeyForReviewIs( routeKey, true );
      }
      doMaybeScheduleReview( vrf );
   }
}

namespace {

bool attrLogClogged( const MplsSmInputs& inputs ) {
   return inputs.attrLogSm && inputs.attrLogSm->isAttrLogOutClogged();
}

} // namespace

bool MplsSm::shouldTaskYield( const TimerTask& task ) const {
   if ( in_.scheduler->runningTask() != &task || task.shouldYield() ) {
      return true;
   }
   return attrLogClogged( in_ );
}

// A run that was cut short goes on at once. While the log is clogged it would only be cut short
// again: the delayed run that whoever was put back has scheduled will do.
void MplsSm::runAgainAtOnce( TimerTask& task ) const {
   if ( !attrLogClogged( in_ ) ) {
      task.runNow();
   }
}

// --- "reviewVrf".

void MplsSm::runReviewVrfsTask() {
   reviewCountInc( 1 );
   reviewEndTimeIs( in_.clock->now() + reviewQuanta() );
   bool stopped = false;
   U64 vrfs = 0;
   for ( auto pass = vrfForReviewWork().workPass(); !stopped && pass.next(); ) {
      const L3::VrfName vrf = pass.key();
      MPLS_TRACE( 2, "review vrf ", vrf );
      vrfForReviewDel( vrf );
      doReviewVrf( vrf );
      doMaybeScheduleReviewOrDeleteVrfState( vrf );
      ++vrfs;
      stopped = shouldTaskYield( *vrfTask_ ) && vrfForReviews() != 0;
   }
   vrfTask_->workCountInc( vrfs );
   if ( stopped ) {
      runAgainAtOnce( *vrfTask_ );
   }
}

void MplsSm::doReviewVrf( const L3::VrfName& vrf ) {
   const Ptr< VrfMplsState > vrfState = mplsState( vrf );
   if ( !vrfState || !vrfState->needReview() ) {
      if ( vrfState ) {
         MPLS_TRACE( 2, "nothing to be reviewed for vrf ", vrf );
      }
      maybeTransitionToWaitingForSync( vrf ); // it may have been waiting for what is gone
      return;
   }
   vrfState->vrfReviewCountInc();
   // In this order: a route is looked at after the adjacency that it points at, and L2 adjacencies
   // are deleted last, when no route of this slice can take a new reference to them.
   MPLS_TRACE( 2, "review l3 adj in vrf ", vrf );
   for ( auto pass = vrfState->l3AdjForReviewWork().workPass();
         vrfState->l3AdjForReviews() != 0 && !shouldTaskYield( *vrfTask_ ) && pass.next(); ) {
      const U64 index = pass.key();
      const L3AdjReview why = pass.value();
      vrfState->l3AdjForReviewDel( index );
      if ( why == L3AdjReview::routeLeft ) {
         processL3AdjLeft( *vrfState, index );
      } else {
         processL3Adj( *vrfState, index );
      }
      vrfState->l3AdjReviewedInc();
      counters_->adjacenciesReviewedInc();
   }
   MPLS_TRACE( 2, "review routeKey in vrf ", vrf );
   for ( auto pass = vrfState->routeKeyForReviewWork().workPass();
         vrfState->routeKeyForReviews() != 0 && !shouldTaskYield( *vrfTask_ ) && pass.next(); ) {
      const Mpls::RouteKey routeKey = pass.key();
      vrfState->routeKeyForReviewDel( routeKey );
      processRouteKey( *vrfState, routeKey );
      vrfState->routeKeyReviewedInc();
      counters_->routesReviewedInc();
   }
   maybeTransitionToWaitingForSync( vrf );
   MPLS_TRACE( 2, "review l2 adj in vrf ", vrf );
   for ( auto pass = vrfState->l2AdjForReviewWork().workPass();
         vrfState->l2AdjForReviews() != 0 && !shouldTaskYield( *vrfTask_ ) && pass.next(); ) {
      const U64 index = pass.key();
      vrfState->l2AdjForReviewDel( index );
      processL2Adj( *vrfState, index );
      vrfState->l2AdjReviewedInc();
   }
   MPLS_TRACE( 2, "review l2 adj pending for deletion in vrf ", vrf );
   for ( auto pass = vrfState->l2AdjVacatedWork().workPass();
         vrfState->l2AdjVacateds() != 0 && !shouldTaskYield( *vrfTask_ ) && pass.next(); ) {
      const U64 index = pass.key();
      vrfState->l2AdjVacatedDel( index );
      processL2AdjPendingDelete( *vrfState, index );
   }
   queueForPublishing( *vrfState );
}

void MplsSm::queueForPublishing( VrfMplsState& vrfState ) {
   MPLS_TRACE( 2, "Schedule routeKey to be published in vrf ", vrfState.vrfName() );
   if ( vrfState.routeKeyForPublishs() != 0 ) {
      routeKeyToBePublishedIs( vrfState.vrfName(), &vrfState );
      routePublishTask_->runNow();
   }
}

// --- "reviewUnprogrammedRoute".

void MplsSm::runUnprogrammedRouteReviewTask() {
   bool stopped = false;
   U64 vrfs = 0;
   for ( auto pass = unprogrammedRouteForReviewWork().workPass(); !stopped && pass.next(); ) {
      const L3::VrfName vrf = pass.key();
      const Ptr< VrfMplsState > vrfState = pass.value();
      unprogrammedRouteForReviewDel( vrf );
      if ( mplsState( vrf ) != vrfState.get() ) {
         continue; // deleted since
      }
      doReviewUnprogrammedRoutes( *vrfState );
      doMaybeScheduleReviewOrDeleteVrfState( vrf );
      ++vrfs;
      stopped = shouldTaskYield( *unprogrammedRouteTask_ ) && unprogrammedRouteForReviews() != 0;
   }
   unprogrammedRouteTask_->workCountInc( vrfs );
   if ( stopped ) {
      runAgainAtOnce( *unprogrammedRouteTask_ );
   }
}

void MplsSm::doReviewUnprogrammedRoutes( VrfMplsState& vrfState ) {
   const double now = in_.clock->now();
   if ( vrfState.numUnprogrammedRoute() == 0 ) {
      vrfState.lastUnprogrammedReviewIs( std::numeric_limits< double >::infinity() );
      MPLS_TRACE( 2, "no unprogrammed route to review" );
      return;
   }
   if ( vrfState.lastUnprogrammedReview() > std::numeric_limits< double >::max() ) {
      vrfState.lastUnprogrammedReviewIs( now );
      MPLS_TRACE( 2, "schedule review for unprogrammed routes" );
      return;
   }
   if ( vrfState.lastUnprogrammedReview() + vrfState.unprogrammedRetryInterval() > now ) {
      MPLS_TRACE( 2, "schedule review for unprogrammed routes" );
      return;
   }
   MPLS_TRACE( 2,
               "Set unprogrammedRetryInterval to default: ", defaultUnprogrammedRetryInterval() );
   vrfState.unprogrammedRetryIntervalIs( defaultUnprogrammedRetryInterval() );
   MPLS_TRACE( 2, "review unprogrammed routes ", vrfState.numUnprogrammedRoute() );
   vrfState.lastUnprogrammedReviewIs( now );
   maybeSayResourceFull();
   retryUnprogrammed( vrfState );
   queueForPublishing( vrfState );
}

// Writes again what the driver has listed: adjacencies first, since routes need them. When a slice
// is too short for all of them, the next one begins with the others, so that neither waits for ever
// for the other.
void MplsSm::retryUnprogrammed( VrfMplsState& vrfState ) {
   const Ptr< MplsHwVrfStatus > status = velMplsHwVrfStatusNonConst( vrfState.vrfName() );
   if ( !status || velMplsHwVrfConfig( vrfState.vrfName() ) == nullptr ) {
      return;
   }
   const bool routesFirst = vrfState.retryRoutesFirst();
   const bool whole =
      routesFirst ? retryRoutes( vrfState, *status ) && retryAdjacencies( vrfState, *status )
                  : retryAdjacencies( vrfState, *status ) && retryRoutes( vrfState, *status );
   vrfState.retryRoutesFirstIs( !whole && !routesFirst );
}

// False when the slice was too short. A round goes over all of them before any has another turn.
bool MplsSm::retryAdjacencies( VrfMplsState& vrfState, MplsHwVrfStatus& status ) {
   const MplsHwVrfConfig& config = *velMplsHwVrfConfig( vrfState.vrfName() );
   for ( auto pass = status.unprogrammedAdjacencyWork().workPass(); pass.next(); ) {
      // A copy: the driver may take it off the list while it is written again.
      const Ptr< Mpls::Hardware::L2Adjacency > adjacency( pass.key().get() );
      if ( vrfState.adjRetriedHas( adjacency->index() ) ) {
         continue;
      }
      if ( shouldTaskYield( *unprogrammedRouteTask_ ) ) {
         return false;
      }
      MPLS_RING( "retry unprogrammed adj ", adjacency->index() );
      if ( config.l2AdjacencyHas( adjacency ) ) {
         progHwL2Adj( vrfState.vrfName(), adjacency );
      }
      vrfState.adjRetriedIs( adjacency->index() );
      vrfState.unprogAdjRetriedInc();
      counters_->adjacenciesRetriedInc();
   }
   vrfState.adjRetriedDelAll();
   return true;
}

// The set's own cursor goes round.
bool MplsSm::retryRoutes( VrfMplsState& vrfState, MplsHwVrfStatus& status ) {
   auto pass = status.unprogrammedRouteWork().workPass();
   while ( status.unprogrammedRoutes() != 0 ) {
      if ( shouldTaskYield( *unprogrammedRouteTask_ ) ) {
         return false;
      }
      if ( !pass.next() ) {
         break;
      }
      const Mpls::RouteKey routeKey = pass.key();
      MPLS_RING( "retry unprogrammed routeKey ", routeKey );
      processRouteKey( vrfState, routeKey );
      vrfState.unprogRouteRetriedInc();
      counters_->routesRetriedInc();
   }
   return true;
}

} // namespace Vel
