#include "mpls/transit/Publisher.h"

#include <algorithm>

#include "mpls/VelMplsTrace.h"
#include "mpls/transit/Parts.h"

namespace Vel::Transit {

namespace {

// Which way hardware takes by the FEC. Hardware reports the way of protected FECs, and of any FEC that
// nothing leaves by it. A way that was reported of one of our FECs while it was protected says
// nothing any more when it is not.
AdjHwState hwStateOf( const ExternalFecInfo& info ) {
   const AdjHwState state = info.adjState();
   return info.fecId().ofLabelViaSet() && !info.backupExtFecInfo() && state != AdjHwState::down
             ? AdjHwState::unknown
             : state;
}

} // namespace

void Publisher::runPublishRouteKeysTask() {
   bool stopped = false;
   U64 vrfs = 0;
   for ( auto pass = sm_.routeKeyToBePublishedWork().workPass(); !stopped && pass.next(); ) {
      const L3::VrfName vrf = pass.key();
      const Ptr< VrfMplsState > vrfState = pass.value();
      MPLS_TRACE( 2, "Publishing Routes for vrf: ", vrf );
      sm_.routeKeyToBePublishedDel( vrf );
      if ( sm_.mplsState( vrf ) != vrfState.get() ) {
         continue; // deleted since
      }
      doPublishRouteKeys( *vrfState );
      parts_.review.doMaybeScheduleReviewOrDeleteVrfState( vrf );
      ++vrfs;
      stopped = parts_.review.shouldTaskYield( *sm_.routePublishTask() ) &&
                sm_.routeKeyToBePublisheds() != 0;
   }
   sm_.routePublishTask()->workCountInc( vrfs );
   if ( stopped ) {
      parts_.review.runAgainAtOnce( *sm_.routePublishTask() );
   }
}

void Publisher::doPublishRouteKeys( VrfMplsState& vrfState ) {
   MPLS_TRACE_CALL( 2, " vrf ", vrfState.vrfName() );
   for ( auto pass = vrfState.routeKeyForPublishWork().workPass();
         vrfState.routeKeyForPublishs() != 0 &&
         !parts_.review.shouldTaskYield( *sm_.routePublishTask() ) && pass.next(); ) {
      const Mpls::RouteKey routeKey = pass.key();
      MPLS_RING( "publish routeKey ", routeKey );
      vrfState.routeKeyForPublishDel( routeKey );
      publishRouteKey( vrfState, routeKey );
   }
}

void Publisher::publishRouteKey( VrfMplsState& vrfState, Mpls::RouteKey routeKey ) {
   MPLS_TRACE_CALL( 7, " vrf ", vrfState.vrfName(), " routeKey ", routeKey );
   if ( vrfState.routeKeyForReviewHas( routeKey ) ) {
      MPLS_TRACE( 7, "not publishing routeKey ", routeKey, " since review is pending" );
      return; // the review marks it again
   }
   vrfState.routeKeyPublishedInc();
   sm_.counters()->routesPublishedInc();
   MplsRoute* const route = vrfState.route( routeKey );
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
   Mpls::Hardware::Adjacency* const hwAdj = in_.routingHwMplsStatus->adjacency( l3Adj->index() );
   MPLS_ASSERT( hwAdj, "hwAdj", l3Adj->fullName() );
   ExternalFecInfo* const info = route->extFecInfo().get();
   const bool behind = info && parts_.fecs.isBehind( *info );
   if ( behind ) {
      info->publishedBehindIs( true );
   }
   const WaysOut ways = judgeRoute( vrfState, *route, behind );
   MPLS_TRACE( 7, "publish routeKey ", routeKey, " adj ", l3Adj->index(), " unprogrammed ",
               route->unprogrammed() );
   in_.routingHwMplsStatus->routeIs( { routeKey, hwAdj, info ? info->fecId() : Fib::FecId() } );
   in_.lfibHwStatus->unprogrammedRouteIs(
      { routeKey, route->unprogrammed()   ? Mpls::RouteStatusCode::notProgrammed
                  : ways == WaysOut::some ? Mpls::RouteStatusCode::partiallyProgrammed
                                          : Mpls::RouteStatusCode::programmed } );
}

Publisher::WaysOut Publisher::waysOutOf( const VrfMplsState& vrfState, const MplsRoute& route,
                                         bool behind ) const {
   const WaysOut ways = waysInHardwareOf( route, behind );
   // A route that is carried leaves by what was meant before.
   const bool former =
      route.l3Adj()->otherVias() || vrfState.carrierOf( route.routeKey() ) != nullptr;
   return former ? std::min( ways, WaysOut::some ) : ways;
}

// By the adjacency's own FEC, as far as it depends on next hops, on the backup and on links that
// hardware reports. Where its vias are disabled, the backup is what is meant.
Publisher::WaysOut Publisher::waysOutOf( const L3Adjacency& l3Adj ) const {
   const ExternalFecInfo* const info = l3Adj.extFecInfo().get();
   const Mpls::Hardware::Adjacency& hwAdj = *in_.routingHwMplsStatus->adjacency( l3Adj.index() );
   const AdjHwState hwState = info ? hwStateOf( *info ) : AdjHwState::unknown;
   if ( hwState == AdjHwState::down ) {
      return WaysOut::none;
   }
   if ( !l3Adj.primaryViasDisabled() && hwAdj.unresolvedVias() != hwAdj.vias() ) {
      return hwAdj.unresolvedVias() == 0 && hwState != AdjHwState::backupActive ? WaysOut::all
                                                                                : WaysOut::some;
   }
   const ExternalFecInfo* const backup = info ? info->backupExtFecInfo().get() : nullptr;
   const WaysOut ways = backup ? waysOutOf( *backup ) : WaysOut::none;
   return std::min( ways, WaysOut::some );
}

// Protection is one level deep, and with it the recursion.
Publisher::WaysOut Publisher::waysOutOf( const ExternalFecInfo& info ) const {
   if ( info.hwId() == 0 || hwStateOf( info ) == AdjHwState::down ) {
      return WaysOut::none;
   }
   if ( parts_.fecs.isBehind( info ) ) { // nobody follows what it was
      return WaysOut::some;
   }
   for ( const L3Adjacency* const l3Adj : info.dependentL3Adjacency() ) {
      return waysOutOf( *l3Adj ); // all of them have the same
   }
   return WaysOut::all; // of an earlier content, whose next hops nobody follows any more
}

Publisher::WaysOut Publisher::waysInHardwareOf( const MplsRoute& route, bool behind ) const {
   const L3Adjacency& l3Adj = *route.l3Adj();
   const ExternalFecInfo* const info = route.extFecInfo().get();
   if ( info == nullptr ) {
      return route.l2Adj() == l3Adj.l2Adjacency() &&
                   in_.routingHwMplsStatus->adjacency( l3Adj.index() )->unresolvedVias() == 0
                ? WaysOut::all
                : WaysOut::some;
   }
   if ( info == l3Adj.extFecInfo().get() && behind ) { // nobody follows what it was
      return hwStateOf( *info ) == AdjHwState::down ? WaysOut::none : WaysOut::some;
   }
   if ( info == l3Adj.extFecInfo().get() ) {
      return waysOutOf( l3Adj );
   }
   return waysOutOf( *info ) == WaysOut::none ? WaysOut::none : WaysOut::some;
}

Publisher::WaysOut Publisher::judgeRoute( const VrfMplsState& vrfState, MplsRoute& route,
                                          bool behind ) {
   const WaysOut ways = waysOutOf( vrfState, route, behind );
   if ( !route.extFecInfo() ) {
      return ways;
   }
   const MplsHwVrfStatus* const status = parts_.vrfs.writtenHwVrfStatus( vrfState );
   const bool listed = status && status->unprogrammedRouteHas( route.routeKey() );
   parts_.routes.routeUnprogrammedIs( route,
                                      listed || !route.inFecInHardware() || ways == WaysOut::none );
   return ways;
}

void Publisher::judgeL3Adj( VrfMplsState& vrfState, L3Adjacency& l3Adj ) {
   const auto now = static_cast< U32 >( l3Adj.extFecInfo() ? waysOutOf( l3Adj ) : WaysOut::none );
   if ( now != l3Adj.waysOut() ) {
      l3Adj.waysOutIs( now );
      if ( l3Adj.extFecInfo() ) {
         publishRoutesProtectedBy( vrfState, *l3Adj.extFecInfo() );
      }
   }
}

void Publisher::publishRoutesOf( VrfMplsState& vrfState, const L3Adjacency& l3Adj ) {
   for ( const Mpls::RouteKey routeKey : l3Adj.routeKey() ) {
      vrfState.routeKeyForPublishIs( routeKey );
   }
}

void Publisher::publishRoutesProtectedBy( VrfMplsState& vrfState, const ExternalFecInfo& info ) {
   for ( const ExternalFecInfo* const primary : info.dependentPrimaryExtFecInfo() ) {
      for ( const Mpls::RouteKey routeKey : primary->dependentRouteKey() ) {
         vrfState.routeKeyForPublishIs( routeKey );
      }
   }
}

void Publisher::publishViaSetState( const L3Adjacency& l3Adj ) {
   if ( l3Adj.superseded() ) {
      return;
   }
   const ExternalFecInfo* const info = l3Adj.extFecInfo().get();
   if ( info && info->adjState() != AdjHwState::unknown ) {
      in_.lfibHwStatus->viaSetIs( { l3Adj.lFibViaSetKey(), l3Adj.index(), l3Adj.unprogrammed(),
                                    info->adjState() == AdjHwState::backupActive } );
   } else {
      in_.lfibHwStatus->viaSetDel( l3Adj.lFibViaSetKey() );
   }
}

} // namespace Vel::Transit
