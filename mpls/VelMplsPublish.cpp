// MplsSm: publishing. What other agents may know of a route, written when no review is pending for
// it.

#include "mpls/VelMplsSm.h"
#include "mpls/VelMplsTrace.h"

namespace Vel {

void MplsSm::runPublishRouteKeysTask() {
   bool stopped = false;
   U64 vrfs = 0;
   for ( auto pass = routeKeyToBePublishedWork().workPass(); !stopped && pass.next(); ) {
      const L3::VrfName vrf = pass.key();
      const Ptr< VrfMplsState > vrfState = pass.value();
      MPLS_TRACE( 2, "Publishing Routes for vrf: ", vrf );
      routeKeyToBePublishedDel( vrf );
      if ( mplsState( vrf ) != vrfState.get() ) {
         continue; // deleted since
      }
      doPublishRouteKeys( *vrfState );
      doMaybeScheduleReviewOrDeleteVrfState( vrf );
      ++vrfs;
      stopped = shouldTaskYield( *routePublishTask_ ) && routeKeyToBePublisheds() != 0;
   }
   routePublishTask_->workCountInc( vrfs );
   if ( stopped ) {
      runAgainAtOnce( *routePublishTask_ );
   }
}

void MplsSm::doPublishRouteKeys( VrfMplsState& vrfState ) {
   MPLS_TRACE_CALL( 2, " vrf ", vrfState.vrfName() );
   for ( auto pass = vrfState.routeKeyForPublishWork().workPass();
         vrfState.routeKeyForPublishs() != 0 && !shouldTaskYield( *routePublishTask_ ) &&
         pass.next(); ) {
      const Mpls::RouteKey routeKey = pass.key();
      MPLS_RING( "publish routeKey ", routeKey );
      vrfState.routeKeyForPublishDel( routeKey );
      publishRouteKey( vrfState, routeKey );
   }
}

void MplsSm::publishRouteKey( VrfMplsState& vrfState, Mpls::RouteKey routeKey ) {
   MPLS_TRACE_CALL( 7, " vrf ", vrfState.vrfName(), " routeKey ", routeKey );
   if ( vrfState.routeKeyForReviewHas( routeKey ) ) {
      MPLS_TRACE( 7, "not publishing routeKey ", routeKey, " since review is pending" );
      return; // the review marks it again
   }
   vrfState.routeKeyPublishedInc();
   counters_->routesPublishedInc();
   const MplsRoute* const route = vrfState.route( routeKey );
   if ( route == nullptr ) {
      MPLS_TRACE( 3, "unpublish routeKey ", routeKey );
      in_.routingHwMplsStatus->routeDel( routeKey );
      in_.lfibHwStatus->unprogrammedRouteDel( routeKey );
      return;
   }
   const L3Adjacency* const l3Adj = route->l3Adj().get();
   if ( l3Adj == nullptr ) {
      MPLS_TRACE( 3, "not publishing routeKey", routeKey, " since l3 adjacency doesn't exist" );
      return;
   }
   MPLS_TRACE( 7, "publish routeKey ", routeKey, " adj ", l3Adj->index(), " unprogrammed ",
               route->unprogrammed() );
   Mpls::Hardware::Adjacency* const hwAdj = in_.routingHwMplsStatus->adjacency( l3Adj->index() );
   MPLS_ASSERT( hwAdj, "hwAdj", l3Adj->fullName() );
   in_.routingHwMplsStatus->routeIs(
      { routeKey, hwAdj, route->extFecInfo() ? route->extFecInfo()->fecId() : Fib::FecId() } );
   // A FEC is in hardware whether its vias resolve or not; with none of them, and no backup, the
   // label does not forward.
   const U32 unresolved = hwAdj->unresolvedVias();
   const bool noWayOut = unresolved != 0 && unresolved == hwAdj->vias() && !l3Adj->backupAdj();
   const Mpls::RouteStatusCode code = route->unprogrammed() || noWayOut
                                         ? Mpls::RouteStatusCode::notProgrammed
                                      : unresolved != 0 ? Mpls::RouteStatusCode::partiallyProgrammed
                                                        : Mpls::RouteStatusCode::programmed;
   in_.lfibHwStatus->unprogrammedRouteIs( { routeKey, code } );
}

} // namespace Vel
