#include "mpls/transit/Review.h"

#include <limits>

#include "mpls/VelMplsTrace.h"
#include "mpls/transit/Parts.h"

namespace Vel::Transit {

namespace {

bool attrLogClogged( const MplsSmInputs& inputs ) {
   return inputs.attrLogSm && inputs.attrLogSm->isAttrLogOutClogged();
}

} // namespace

void Review::doMaybeScheduleReview( const L3::VrfName& vrf ) {
   MPLS_TRACE_CALL( 2, " vrf ", vrf );
   VrfMplsState* const vrfState = sm_.initialized() ? sm_.mplsState( vrf ) : nullptr;
   if ( vrfState == nullptr ) {
      return;
   }
   if ( !vrfState->needReview() ) {
      MPLS_TRACE( 2, "nothing to review in vrf ", vrf );
      return;
   }
   double delay = sm_.reviewInterval();
   if ( vrfState->needReviewForUnprogrammedOnly() ) {
      delay = vrfState->unprogrammedRetryInterval();
      MPLS_TRACE( 2, "Only unprogrammed routes need review in vrf ", vrf,
                  ". The review interval is  ", delay, " seconds." );
   } else {
      MPLS_TRACE( 2, " Review interval for vrf ", vrf, " is ", delay, " seconds." );
      sm_.vrfForReviewIs( vrf, true );
      sm_.vrfTask()->runWithLowestDelay( delay );
   }
   if ( vrfState->numUnprogrammedRoute() != 0 ) {
      MPLS_TRACE( 2, "Schedule unprogrammedRoutes to be published in vrf ", vrf );
      sm_.unprogrammedRouteForReviewIs( vrf, vrfState );
      const double expiryBefore = sm_.unprogrammedRouteTask()->expiry();
      sm_.unprogrammedRouteTask()->runWithLowestDelay( delay );
      if ( expiryBefore > sm_.unprogrammedRouteTask()->expiry() ) {
         sm_.currentReviewIntervalIs( delay );
      }
      MPLS_RING( "doMaybeScheduleReview The reviewInterval is (us) ", delay * 1e6 );
   }
}

void Review::doMaybeScheduleReviewOrDeleteVrfState( const L3::VrfName& vrf ) {
   MPLS_TRACE_CALL( 2, " vrf ", vrf );
   VrfMplsState* const vrfState = sm_.initialized() ? sm_.mplsState( vrf ) : nullptr;
   if ( vrfState == nullptr ) {
      return;
   }
   MPLS_ASSERT( vrf == L3::VrfName::defaultVrf(), "vrf == L3::VrfName::defaultVrf()", vrf.text() );
   if ( vrfState->needReview() ) {
      doMaybeScheduleReview( vrf );
      return;
   }
   if ( !sm_.mplsRoutingEnabled( vrf ) ) {
      MPLS_TRACE( 3, "disable mplsRouting in vrf ", vrf );
      parts_.vrfs.switchOffMplsRouting();
   }
   if ( vrfState->idle() ) {
      MPLS_TRACE( 3, "delete state for vrf ", vrf );
      parts_.vrfs.vrfStateDrop( vrf );
   }
}

void Review::doForceRouteReprogramming() {
   MPLS_TRACE_CALL( 3 );
   for ( const auto& [vrf, vrfState] : sm_.mplsState() ) {
      for ( const auto& [routeKey, route] : vrfState->route() ) {
         vrfState->routeKeyForReviewIs( routeKey, true );
      }
      doMaybeScheduleReview( vrf );
   }
}

bool Review::shouldTaskYield( const TimerTask& task ) const {
   if ( in_.scheduler->runningTask() != &task || task.shouldYield() ) {
      return true;
   }
   return attrLogClogged( in_ );
}

void Review::runAgainAtOnce( TimerTask& task ) const {
   if ( !attrLogClogged( in_ ) ) {
      task.runNow();
   }
}

void Review::runReviewVrfsTask() {
   sm_.reviewCountInc( 1 );
   sm_.reviewEndTimeIs( in_.clock->now() + sm_.reviewQuanta() );
   bool stopped = false;
   U64 vrfs = 0;
   for ( auto pass = sm_.vrfForReviewWork().workPass(); !stopped && pass.next(); ) {
      const L3::VrfName vrf = pass.key();
      MPLS_TRACE( 2, "review vrf ", vrf );
      sm_.vrfForReviewDel( vrf );
      doReviewVrf( vrf );
      doMaybeScheduleReviewOrDeleteVrfState( vrf );
      ++vrfs;
      stopped = shouldTaskYield( *sm_.vrfTask() ) && sm_.vrfForReviews() != 0;
   }
   sm_.vrfTask()->workCountInc( vrfs );
   if ( stopped ) {
      runAgainAtOnce( *sm_.vrfTask() );
   }
}

void Review::doReviewVrf( const L3::VrfName& vrf ) {
   const Ptr< VrfMplsState > vrfState = sm_.mplsState( vrf );
   if ( !vrfState || !vrfState->needReview() ) {
      if ( vrfState ) {
         MPLS_TRACE( 2, "nothing to be reviewed for vrf ", vrf );
      }
      sm_.maybeTransitionToWaitingForSync( vrf ); // it may have been waiting for what is gone
      return;
   }
   vrfState->vrfReviewCountInc();
   // In this order: a route is looked at after the adjacency that it points at, and L2 adjacencies
   // are deleted last, when no route of this slice can take a new reference to them.
   MPLS_TRACE( 2, "review l3 adj in vrf ", vrf );
   for ( auto pass = vrfState->l3AdjForReviewWork().workPass();
         vrfState->l3AdjForReviews() != 0 && !shouldTaskYield( *sm_.vrfTask() ) && pass.next(); ) {
      const U64 index = pass.key();
      const L3AdjReview why = pass.value();
      vrfState->l3AdjForReviewDel( index );
      if ( why == L3AdjReview::routeLeft ) {
         parts_.l3Adjacencies.processL3AdjLeft( *vrfState, index );
      } else {
         parts_.l3Adjacencies.processL3Adj( *vrfState, index );
      }
      vrfState->l3AdjReviewedInc();
      sm_.counters()->adjacenciesReviewedInc();
   }
   MPLS_TRACE( 2, "review routeKey in vrf ", vrf );
   for ( auto pass = vrfState->routeKeyForReviewWork().workPass();
         vrfState->routeKeyForReviews() != 0 && !shouldTaskYield( *sm_.vrfTask() ) &&
         pass.next(); ) {
      const Mpls::RouteKey routeKey = pass.key();
      vrfState->routeKeyForReviewDel( routeKey );
      parts_.routes.processRouteKey( *vrfState, routeKey );
      vrfState->routeKeyReviewedInc();
      sm_.counters()->routesReviewedInc();
   }
   sm_.maybeTransitionToWaitingForSync( vrf );
   MPLS_TRACE( 2, "review l2 adj in vrf ", vrf );
   for ( auto pass = vrfState->l2AdjForReviewWork().workPass();
         vrfState->l2AdjForReviews() != 0 && !shouldTaskYield( *sm_.vrfTask() ) && pass.next(); ) {
      const U64 index = pass.key();
      vrfState->l2AdjForReviewDel( index );
      parts_.l2Adjacencies.processL2Adj( *vrfState, index );
      vrfState->l2AdjReviewedInc();
   }
   MPLS_TRACE( 2, "review l2 adj pending for deletion in vrf ", vrf );
   for ( auto pass = vrfState->l2AdjVacatedWork().workPass();
         vrfState->l2AdjVacateds() != 0 && !shouldTaskYield( *sm_.vrfTask() ) && pass.next(); ) {
      const U64 index = pass.key();
      vrfState->l2AdjVacatedDel( index );
      parts_.l2Adjacencies.processL2AdjPendingDelete( *vrfState, index );
   }
   queueForPublishing( *vrfState );
}

void Review::queueForPublishing( VrfMplsState& vrfState ) {
   MPLS_TRACE( 2, "Schedule routeKey to be published in vrf ", vrfState.vrfName() );
   if ( vrfState.routeKeyForPublishs() != 0 ) {
      sm_.routeKeyToBePublishedIs( vrfState.vrfName(), &vrfState );
      sm_.routePublishTask()->runNow();
   }
}

void Review::runUnprogrammedRouteReviewTask() {
   bool stopped = false;
   U64 vrfs = 0;
   for ( auto pass = sm_.unprogrammedRouteForReviewWork().workPass(); !stopped && pass.next(); ) {
      const L3::VrfName vrf = pass.key();
      const Ptr< VrfMplsState > vrfState = pass.value();
      sm_.unprogrammedRouteForReviewDel( vrf );
      if ( sm_.mplsState( vrf ) != vrfState.get() ) {
         continue; // deleted since
      }
      doReviewUnprogrammedRoutes( *vrfState );
      doMaybeScheduleReviewOrDeleteVrfState( vrf );
      ++vrfs;
      stopped =
         shouldTaskYield( *sm_.unprogrammedRouteTask() ) && sm_.unprogrammedRouteForReviews() != 0;
   }
   sm_.unprogrammedRouteTask()->workCountInc( vrfs );
   if ( stopped ) {
      runAgainAtOnce( *sm_.unprogrammedRouteTask() );
   }
}

void Review::doReviewUnprogrammedRoutes( VrfMplsState& vrfState ) {
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
   MPLS_TRACE(
      2, "Set unprogrammedRetryInterval to default: ", sm_.defaultUnprogrammedRetryInterval() );
   vrfState.unprogrammedRetryIntervalIs( sm_.defaultUnprogrammedRetryInterval() );
   MPLS_TRACE( 2, "review unprogrammed routes ", vrfState.numUnprogrammedRoute() );
   vrfState.lastUnprogrammedReviewIs( now );
   parts_.driverReports.maybeSayResourceFull();
   retryUnprogrammed( vrfState );
   queueForPublishing( vrfState );
}

// Writes again what the driver has listed: adjacencies first, since routes need them. When a slice
// is too short for all of them, the next one begins with the others, so that neither waits for ever
// for the other.
void Review::retryUnprogrammed( VrfMplsState& vrfState ) {
   const Ptr< MplsHwVrfStatus > status = sm_.velMplsHwVrfStatusNonConst( vrfState.vrfName() );
   if ( !status || sm_.velMplsHwVrfConfig( vrfState.vrfName() ) == nullptr ) {
      return;
   }
   const bool routesFirst = vrfState.retryRoutesFirst();
   const bool whole =
      routesFirst ? retryRoutes( vrfState, *status ) && retryAdjacencies( vrfState, *status )
                  : retryAdjacencies( vrfState, *status ) && retryRoutes( vrfState, *status );
   vrfState.retryRoutesFirstIs( !whole && !routesFirst );
}

// False when the slice was too short. Each adjacency is written again once before any of them is
// written twice.
bool Review::retryAdjacencies( VrfMplsState& vrfState, MplsHwVrfStatus& status ) {
   const MplsHwVrfConfig& config = *sm_.velMplsHwVrfConfig( vrfState.vrfName() );
   for ( auto pass = status.unprogrammedAdjacencyWork().workPass(); pass.next(); ) {
      // A copy: the driver may take it off the list while it is written again.
      const Ptr< Mpls::Hardware::L2Adjacency > adjacency( pass.key().get() );
      if ( vrfState.adjRetriedHas( adjacency->index() ) ) {
         continue;
      }
      if ( shouldTaskYield( *sm_.unprogrammedRouteTask() ) ) {
         return false;
      }
      MPLS_RING( "retry unprogrammed adj ", adjacency->index() );
      if ( config.l2AdjacencyHas( adjacency ) ) {
         parts_.l2Adjacencies.progHwL2Adj( vrfState.vrfName(), adjacency );
      }
      vrfState.adjRetriedIs( adjacency->index() );
      vrfState.unprogAdjRetriedInc();
      sm_.counters()->adjacenciesRetriedInc();
   }
   vrfState.adjRetriedDelAll();
   return true;
}

// A pass over the set goes on where the last one stopped, so that no route is left out for ever.
bool Review::retryRoutes( VrfMplsState& vrfState, MplsHwVrfStatus& status ) {
   auto pass = status.unprogrammedRouteWork().workPass();
   while ( status.unprogrammedRoutes() != 0 ) {
      if ( shouldTaskYield( *sm_.unprogrammedRouteTask() ) ) {
         return false;
      }
      if ( !pass.next() ) {
         break;
      }
      const Mpls::RouteKey routeKey = pass.key();
      MPLS_RING( "retry unprogrammed routeKey ", routeKey );
      parts_.routes.processRouteKey( vrfState, routeKey );
      vrfState.unprogRouteRetriedInc();
      sm_.counters()->routesRetriedInc();
   }
   return true;
}

} // namespace Vel::Transit
