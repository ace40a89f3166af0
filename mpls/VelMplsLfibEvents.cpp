// MplsSm: what the LFIB announces, from there to the work sets.

#include "mpls/VelMplsSm.h"
#include "mpls/VelMplsTrace.h"
#include "mpls/transit/Parts.h"

namespace Vel {

void MplsSm::handleLFibRoute( Mpls::RouteKey routeKey ) {
   const L3::VrfName& vrf = L3::VrfName::defaultVrf();
   MPLS_TRACE_CALL( 3, " vrf ", vrf, " routeKey ", routeKey );
   const Mpls::LfibRoute lfibRoute = in_.transitLfib->lfibRoute( routeKey );
   if ( !lfibRoute && in_.transitLfib->unread() ) {
      keepUnread( routeKey );
      return;
   }
   // A walk over the LFIB meets again what has been announced.
   const U64 news = !walksLfib_ || !lfibRoute || !mplsIpRouteKeyHas( routeKey ) ? 1 : 0;
   counters_->routesReceivedInc( news );
   if ( !mplsRoutingEnabled( vrf ) ) {
      MPLS_TRACE( 3, "mplsRouting disable in vrf ", vrf );
      counters_->routesIgnoredInc( news );
      return;
   }
   if ( !lfibRoute ) {
      if ( !mplsIpRouteKeyHas( routeKey ) ) {
         MPLS_TRACE( 7, "Ignoring LFIB route ", routeKey );
         counters_->routesIgnoredInc( news );
         // Wanted when it was last asked, by an LFIB that is read ahead of its announcements.
         parts_->recovery.dropRecoveredRoute( vrf, routeKey );
         return;
      }
      counters_->routesRemovedInc();
      MPLS_TRACE( 3, "delete LFIB route ", routeKey );
      mplsIpRouteKeyDel( routeKey );
   } else if ( !parts_->viaSets.routeSupported( lfibRoute ) ) {
      counters_->routesIgnoredInc( news );
      parts_->routes.dropUnsupportedRoute( vrf, routeKey );
      return;
   } else {
      counters_->routesAcceptedInc( news );
      mplsIpRouteKeyIs( routeKey );
      if ( mplsSmStartupStatus_ != MplsSmStartupStatus::mplsSmNormal &&
           staleRecoveredRouteHas( routeKey ) ) {
         MPLS_TRACE_CALL( 3, ": ", "Remove from stale routes" );
         staleRecoveredRouteDel( routeKey );
      }
      MPLS_TRACE( 3, "add/update LFIB route ", routeKey );
      parts_->routes.routeMake( parts_->vrfs.vrfStateMake( vrf ), routeKey );
   }
   MPLS_TRACE( 7, "routeKey for review ", routeKey );
   if ( VrfMplsState* const vrfState = mplsState( vrf ) ) {
      vrfState->routeKeyForReviewIs( routeKey );
   }
   parts_->review.doMaybeScheduleReview( vrf );
}

void MplsSm::handleLFibRoute() {
   MPLS_TRACE_CALL( 3, " for vrf ", L3::VrfName::defaultVrf() );
   // One that does not hold must not keep the others out: nobody else may announce them.
   walksLfib_ = true;
   in_.transitLfib->lfibRouteEach(
      [this]( const Mpls::LfibRoute& route ) { handleLFibRoute( route.routeKey ); },
      Mpls::LfibWalk::skip );
   walksLfib_ = false;
}

void MplsSm::handleLFibViaSet( Mpls::LfibViaSetKey viaSetKey ) {
   MPLS_TRACE_CALL( 3, " vrf ", L3::VrfName::defaultVrf(), " key ", viaSetKey );
   counters_->viaSetsReceivedInc( lfibTrackingStatus_ ? 1 : 0 );
   handleLFibViaSetHelper( viaSetKey, true );
}

void MplsSm::handleLFibViaSet() {
   MPLS_TRACE_CALL( 3, " vrf ", L3::VrfName::defaultVrf() );
   for ( const Mpls::LfibViaSetKey key : lfibTrackingStatus_->viaSetKeyBacklog() ) {
      counters_->viaSetsReceivedInc();
      handleLFibViaSetHelper( key, false );
   }
   lfibTrackingStatus_->viaSetKeyBacklogDelAll();
}

void MplsSm::handleLFibViaSetHelper( Mpls::LfibViaSetKey viaSetKey, bool fromBacklogNotification ) {
   const L3::VrfName& vrf = L3::VrfName::defaultVrf();
   MPLS_TRACE_CALL( 3, " vrf ", vrf, " key ", viaSetKey );
   if ( !lfibTrackingStatus_ ) {
      return;
   }
   if ( fromBacklogNotification ) {
      lfibTrackingStatus_->viaSetKeyBacklogDel( viaSetKey );
   }
   if ( !mplsRoutingEnabled( vrf ) ) {
      MPLS_TRACE( 3, "mplsRouting disabled in vrf ", vrf, "; Not processing viaSet" );
      return;
   }
   if ( !mplsStateHas( vrf ) && !lfibTrackingStatus_->viaSetKeyToRouteKeySet( viaSetKey ) ) {
      MPLS_TRACE( 7, "No mplsState for vrf, and viaSet not used by any route" );
      return;
   }
   VrfMplsState& vrfState = parts_->vrfs.vrfStateMake( vrf );
   // The LFIB is read ahead of its announcements: another route may have found the via set, and
   // made its adjacency, before this change of it is announced to those that did not.
   const bool awaited = viaSetAwaitedDel( viaSetKey );
   if ( vrfState.lFibViaSetToL3AdjHas( viaSetKey ) ) {
      const U64 index = vrfState.lFibViaSetToL3Adj( viaSetKey );
      Transit::Protection::forgetLooksForBackup( *vrfState.l3Adjacency( index ) );
      vrfState.l3AdjForReviewIs( index, L3AdjReview::viaSetChanged );
   } else {
      MPLS_TRACE( 3, "No L3Adj for viaSet. Scheduling all user Routes" );
   }
   if ( awaited || !vrfState.lFibViaSetToL3AdjHas( viaSetKey ) ) {
      parts_->routes.queueRoutesOfViaSet( vrfState, viaSetKey );
   }
   Transit::Protection::queueWaitingForBackup( vrfState, viaSetKey,
                                               Transit::Protection::BackupNews::changed );
   Transit::Protection::queueWaitingForOtherFec( vrfState, viaSetKey );
   parts_->review.doMaybeScheduleReviewOrDeleteVrfState( vrf ); // its users may be others' routes
}

void MplsSm::keepUnread( Mpls::RouteKey routeKey ) {
   MPLS_TRACE( 3, "LFIB route ", routeKey, " cannot be read" );
   counters_->lfibUnreadInc();
   unreadRouteIs( routeKey );
   unreadTask_->runWithLowestDelay( unreadInterval );
}

void MplsSm::keepUnread( Mpls::LfibViaSetKey viaSetKey ) {
   MPLS_TRACE( 3, "LFIB via set ", viaSetKey, " cannot be read" );
   counters_->lfibUnreadInc();
   unreadViaSetIs( viaSetKey );
   unreadTask_->runWithLowestDelay( unreadInterval );
}

// As if it were announced now; what still cannot be read waits for the next time.
void MplsSm::handleUnread() {
   if ( !in_.transitLfib->readable() ) {
      unreadTask_->runWithLowestDelay( unreadInterval );
      return;
   }
   bool stopped = false;
   const auto goOn = [&]( size_t left ) {
      stopped = stopped || ( left != 0 && parts_->review.shouldTaskYield( *unreadTask_ ) );
      return left != 0 && !stopped;
   };
   for ( auto pass = unreadViaSetWork().workPass(); goOn( unreadViaSets() ) && pass.next(); ) {
      const Mpls::LfibViaSetKey viaSetKey = pass.key();
      unreadViaSetDel( viaSetKey );
      handleLFibViaSetHelper( viaSetKey, false );
   }
   walksLfib_ = true; // it has been announced before
   for ( auto pass = unreadRouteWork().workPass(); goOn( unreadRoutes() ) && pass.next(); ) {
      const Mpls::RouteKey routeKey = pass.key();
      unreadRouteDel( routeKey );
      handleLFibRoute( routeKey );
      reviewIfThere( routeKey );
   }
   walksLfib_ = false;
   if ( unreadRoutes() + unreadViaSets() != 0 ) {
      unreadTask_->runWithLowestDelay( stopped ? reviewInterval() : unreadInterval );
   }
}

// Of a route whose end was announced, only the review could not be finished.
void MplsSm::reviewIfThere( Mpls::RouteKey routeKey ) {
   const L3::VrfName& vrf = L3::VrfName::defaultVrf();
   VrfMplsState* const vrfState = mplsState( vrf );
   if ( vrfState && vrfState->routeHas( routeKey ) && !unreadRouteHas( routeKey ) ) {
      vrfState->routeKeyForReviewIs( routeKey );
      parts_->review.doMaybeScheduleReview( vrf );
   }
}

} // namespace Vel
