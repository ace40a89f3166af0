#include "mpls/transit/Routes.h"

#include "mpls/VelMplsTrace.h"
#include "mpls/transit/Parts.h"

namespace Vel::Transit {

void Routes::processRouteKey( VrfMplsState& vrfState, Mpls::RouteKey routeKey ) {
   const L3::VrfName& vrf = vrfState.vrfName();
   MPLS_TRACE_CALL( 3, " vrf ", vrf, " routeKey ", routeKey );
   MPLS_TRACE( 7, "process routeKey ", routeKey );
   vrfState.routeKeyForPublishIs( routeKey );
   MplsRoute* const route = vrfState.route( routeKey );
   if ( route == nullptr ) {
      MPLS_TRACE( 3, "routeKey ", routeKey, " not in vrf ", vrf );
      if ( !parts_.recovery.recoveredRouteWanted( routeKey ) ) {
         parts_.recovery.dropRecoveredRoute( vrf, routeKey );
      }
      return;
   }
   if ( !sm_.mplsRoutingEnabled( vrf ) ) {
      MPLS_TRACE( 3, "mplsRouting disabled in vrf ", vrf );
      parts_.routeWriter.deleteRouteKeyAndRoute( vrfState, routeKey );
      return;
   }
   const Mpls::LfibRoute lfibRoute = in_.transitLfib->lfibRoute( routeKey );
   if ( !lfibRoute && in_.transitLfib->unread() ) {
      keepUnread( vrfState, *route );
      return;
   }
   if ( !!lfibRoute && !parts_.viaSets.routeSupported( lfibRoute ) ) {
      // Another state machine handles the route by now; the announcement is still to come.
      sm_.mplsIpRouteKeyDel( routeKey );
      parts_.routeWriter.deleteRouteKeyAndRoute( vrfState, routeKey );
      return;
   }
   if ( !!lfibRoute ) {
      // The LFIB is read ahead of its announcements: a route that was announced as gone may be
      // back, and its next end must not be ignored as that of a stranger.
      sm_.mplsIpRouteKeyIs( routeKey );
   }
   const Mpls::LfibViaSet viaSet =
      !lfibRoute ? Mpls::LfibViaSet() : in_.transitLfib->lfibViaSet( lfibRoute.viaSetKey );
   if ( !!lfibRoute && viaSet.null() && in_.transitLfib->unread() ) {
      keepUnread( vrfState, *route );
      return;
   }
   if ( !lfibRoute || ( !viaSet.null() && !parts_.viaSets.isLFibViaSetSane( viaSet ) ) ) {
      MPLS_TRACE( 3, "route (", routeKey, ") ", "does not exist in system LFIB or via not sane " );
      if ( !!lfibRoute ) {
         awaitViaSet( lfibRoute.viaSetKey );
      }
      parts_.routeWriter.deleteRouteKeyAndRoute( vrfState, routeKey );
      return;
   }
   if ( viaSet.null() ) {
      awaitViaSet( lfibRoute.viaSetKey ); // its arrival queues the route again
      MPLS_TRACE( 3, "via set for route (", routeKey,
                  ") does not exist in system LFIB, delay processing" );
      stayWithoutViaSet( vrfState, *route );
      return;
   }
   const L3Adjacency* const bound = route->l3Adj().get();
   const bool joins =
      !bound || bound->lFibViaSetKey() != viaSet.key() || !route->inHardwareBy( *bound );
   if ( joins &&
        ( parts_.l3Adjacencies.maybeQueueStaleL3Adj( vrfState, viaSet.key() ) ||
          parts_.l3Adjacencies.maybeQueueStaleL3Adj( vrfState, viaSet.backupViaSetKey() ) ) ) {
      vrfState.routeKeyForReviewIs( routeKey );
      return;
   }
   route->metricIs( lfibRoute.metric );
   L3Adjacency& l3Adj = bindRouteToL3Adj( vrfState, *route, lfibRoute.viaSetKey );
   const bool wasElsewhere = route->inHardware() && !route->inHardwareBy( l3Adj );
   const bool waits = !parts_.routeWriter.writeRoute( vrfState, *route, l3Adj );
   // The route may be in the FEC of a next-hop group by another via set.
   const bool byIt = route->inHardwareBy( l3Adj ) && !( waits && l3Adj.isOfGroup() );
   if ( !route->inHardware() || byIt ) {
      RouteWriter::leaveCarrier( vrfState, routeKey );
      if ( wasElsewhere && l3Adj.keepsNextHops() ) {
         vrfState.l3AdjLeftIs( l3Adj.index() ); // it may have been for this route
      }
   }
}

void Routes::routeMake( VrfMplsState& vrfState, Mpls::RouteKey routeKey ) {
   MplsRoute* const route = vrfState.routeIs( routeKey );
   if ( route->unprogrammed() && route->unprogrammedSince() == neverTime ) {
      route->unprogrammedSinceIs( in_.clock->now() );
   }
}

void Routes::routeUnprogrammedIs( MplsRoute& route, bool unprogrammed ) {
   if ( route.unprogrammed() != unprogrammed ) {
      route.unprogrammedIs( unprogrammed );
      route.unprogrammedSinceIs( unprogrammed ? in_.clock->now() : neverTime );
   }
}

void Routes::dropUnsupportedRoute( const L3::VrfName& vrf, Mpls::RouteKey routeKey ) {
   sm_.mplsIpRouteKeyDel( routeKey );
   parts_.recovery.dropRecoveredRoute( vrf, routeKey );
   VrfMplsState* const vrfState = sm_.mplsState( vrf );
   if ( vrfState == nullptr ) {
      return;
   }
   const bool queued = vrfState->routeKeyForReviewDel( routeKey );
   if ( queued ) {
      MPLS_TRACE( 3, "removing ", routeKey, " from review" );
      MPLS_TRACE( 7, "removing routeKey from review" );
   }
   const bool accepted = vrfState->routeHas( routeKey );
   if ( accepted ) { // before: no two state machines hold one label
      parts_.routeWriter.deleteRouteKeyAndRoute( *vrfState, routeKey );
   }
   if ( queued || accepted ) { // what was published of it was withheld while it was queued
      vrfState->routeKeyForPublishIs( routeKey );
      parts_.review.doMaybeScheduleReview( vrf );
   }
}

void Routes::queueRoutesOfViaSet( VrfMplsState& vrfState, Mpls::LfibViaSetKey viaSetKey ) {
   const RouteKeyGroup* const users = sm_.lfibTrackingStatus()->viaSetKeyToRouteKeySet( viaSetKey );
   if ( users == nullptr ) {
      return;
   }
   for ( const Mpls::RouteKey routeKey : *users ) {
      if ( sm_.mplsIpRouteKeyHas( routeKey ) ) {
         routeMake( vrfState, routeKey );
         vrfState.routeKeyForReviewIs( routeKey );
      }
   }
}

// The route goes on forwarding by the adjacency that it is in hardware by, and follows it. Into
// another one it is not written: it may be meant for a third by now.
void Routes::keepUnread( VrfMplsState& vrfState, MplsRoute& route ) {
   sm_.keepUnread( route.routeKey() );
   L3Adjacency* const bound = route.l3Adj().get();
   if ( vrfState.carrierOf( route.routeKey() ) ) {
      parts_.routeWriter.stayInHardware( vrfState, route );
   } else if ( bound && route.inHardwareBy( *bound ) ) {
      parts_.routeWriter.writeRoute( vrfState, route, *bound );
   }
}

// What hardware has of the route stays there, carried by the adjacency by which it came in.
void Routes::stayWithoutViaSet( VrfMplsState& vrfState, MplsRoute& route ) {
   L3Adjacency* const bound = route.l3Adj().get();
   if ( bound == nullptr || !route.inHardware() ) {
      // Also off the list of those to be retried.
      parts_.routeWriter.takeRouteOut( vrfState, route );
      return;
   }
   RouteWriter::maybeCarry( vrfState, *bound, route );
   if ( !parts_.routeWriter.stayInHardware( vrfState, route ) ) {
      parts_.routeWriter.takeRouteOut( vrfState, route );
   }
}

// The via set's arrival, or its mending, queues its routes again.
void Routes::awaitViaSet( Mpls::LfibViaSetKey viaSetKey ) {
   if ( sm_.viaSetAwaiteds() >= viaSetsAwaitedLimit_ ) {
      forgetUnusedViaSets();
   }
   if ( !sm_.viaSetAwaitedHas( viaSetKey ) ) {
      sm_.viaSetAwaitedIs( viaSetKey, in_.clock->now() );
   }
}

// A route that goes does not take its via set off the list of those that are awaited: what no route
// uses any more is looked for now and then.
void Routes::forgetUnusedViaSets() {
   for ( const auto& [viaSetKey, since] : sm_.viaSetAwaited() ) {
      if ( !sm_.lfibTrackingStatus()->viaSetKeyToRouteKeySet( viaSetKey ) ) {
         sm_.viaSetAwaitedDel( viaSetKey );
      }
   }
   viaSetsAwaitedLimit_ = 64 + 2 * sm_.viaSetAwaiteds();
}

// Binds the route to the adjacency of its via set, which is made when there is none.
L3Adjacency& Routes::bindRouteToL3Adj( VrfMplsState& vrfState, MplsRoute& route,
                                       Mpls::LfibViaSetKey viaSetKey ) {
   const Mpls::RouteKey routeKey = route.routeKey();
   if ( L3Adjacency* const bound = route.l3Adj().get() ) {
      if ( bound->lFibViaSetKey() == viaSetKey ) {
         return *bound;
      }
      MPLS_TRACE( 3, "viaSetKey changed" );
      MPLS_TRACE( 3, "remove routeKey ", routeKey, " from l3Adj index ", bound->index() );
      bound->routeKeyDel( routeKey );
      RouteWriter::maybeCarry( vrfState, *bound, route ); // until another one is written
      if ( sm_.recoveredRouteHas( routeKey ) ) {
         // The offer was made for routes that all wait for one FEC; this one waits for another now.
         in_.hwFecIdRequest->mayReplaceDel( in_.mplsRouteSyncMap->adjSyncId( routeKey ) );
      }
      vrfState.l3AdjLeftIs( bound->index() ); // it may have been its last user
      route.l3AdjIs( nullptr );
   }
   L3Adjacency* l3Adj = nullptr;
   if ( vrfState.lFibViaSetToL3AdjHas( viaSetKey ) ) {
      l3Adj = vrfState.l3Adjacency( vrfState.lFibViaSetToL3Adj( viaSetKey ) );
      if ( sm_.lfibTrackingStatus()->viaSetKeyOfRoute( routeKey ) != viaSetKey ) {
         // The move is still to be announced, and with it may be a change of the via set that
         // belongs to it.
         vrfState.l3AdjForReviewIs( l3Adj->index(), L3AdjReview::viaSetChanged );
      }
   } else {
      l3Adj = parts_.l3Adjacencies.newL3Adjacency( vrfState );
      MPLS_TRACE( 3, "add new adj ", l3Adj->index(), " for review" );
      l3Adj->lFibViaSetKeyIs( viaSetKey );
      vrfState.l3AdjForReviewIs( l3Adj->index(), L3AdjReview::made );
      vrfState.lFibViaSetToL3AdjIs( viaSetKey, l3Adj->index() );
   }
   l3Adj->routeKeyIs( routeKey );
   route.l3AdjIs( l3Adj );
   MPLS_TRACE( 7, "L3 adj index ", l3Adj->index(), " routeKey ", routeKey, " adj " );
   return *l3Adj;
}

} // namespace Vel::Transit
