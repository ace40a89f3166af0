// MplsSm: publishing. What other agents may know of a route, written when no review is pending for
// it.

#include "mpls/VelMplsSm.h"
#include "mpls/VelMplsTrace.h"

#include <algorithm>

namespace Vel {

namespace {

// Which way hardware takes. It says so of FECs that are protected, and of others that nothing leaves
// by them; which of two ways one of ours took that is not protected any more is of the time before.
AdjHwState hwStateOf( const ExternalFecInfo& info ) {
   const bool ours =
      info.fecId().isA( Fib::AdjType::mplsV4Adj ) || info.fecId().isA( Fib::AdjType::mplsV6Adj );
   const AdjHwState state = info.adjState();
   return ours && !info.backupExtFecInfo() && state != AdjHwState::down ? AdjHwState::unknown
                                                                        : state;
}

} // namespace

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
   ExternalFecInfo* const info = route->extFecInfo().get();
   const bool behind = info && isBehind( *info );
   if ( behind ) {
      info->publishedBehindIs( true );
   }
   const WaysOut ways = judgeRoute( vrfState, *route, behind );
   MPLS_TRACE( 7, "publish routeKey ", routeKey, " adj ", l3Adj->index(), " unprogrammed ",
               route->unprogrammed() );
   Mpls::Hardware::Adjacency* const hwAdj = in_.routingHwMplsStatus->adjacency( l3Adj->index() );
   MPLS_ASSERT( hwAdj, "hwAdj", l3Adj->fullName() );
   in_.routingHwMplsStatus->routeIs( { routeKey, hwAdj, info ? info->fecId() : Fib::FecId() } );
   in_.lfibHwStatus->unprogrammedRouteIs(
      { routeKey, route->unprogrammed()   ? Mpls::RouteStatusCode::notProgrammed
                  : ways == WaysOut::some ? Mpls::RouteStatusCode::partiallyProgrammed
                                          : Mpls::RouteStatusCode::programmed } );
}

// --- Whether frames leave.
//
// A route that the driver has in hardware may still have no way out: a FEC is in hardware whether
// its vias resolve or not, and whether its backup does. A label without any is unprogrammed, one
// that leaves by part of what the LFIB means, or by an earlier FEC, is partially programmed.

bool MplsSm::inFecInHardware( const MplsRoute& route ) {
   return route.extFecInfo() && route.unconfirmedWrites() == 0;
}

MplsSm::WaysOut MplsSm::waysOutOf( const VrfMplsState& vrfState, const MplsRoute& route,
                                   bool behind ) const {
   const WaysOut ways = waysInHardwareOf( route, behind );
   // Carried until its own via set can take it, it leaves by what was meant before.
   const bool former =
      route.l3Adj()->otherVias() || vrfState.carrierOf( route.routeKey() ) != nullptr;
   return former ? std::min( ways, WaysOut::some ) : ways;
}

MplsSm::WaysOut MplsSm::waysInHardwareOf( const MplsRoute& route, bool behind ) const {
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

// By the adjacency's own FEC, as far as it depends on next hops, on the backup and on links that
// hardware reports. Where its vias are disabled, the backup is what is meant.
MplsSm::WaysOut MplsSm::waysOutOf( const L3Adjacency& l3Adj ) const {
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
MplsSm::WaysOut MplsSm::waysOutOf( const ExternalFecInfo& info ) const {
   if ( info.hwId() == 0 || hwStateOf( info ) == AdjHwState::down ) {
      return WaysOut::none;
   }
   if ( isBehind( info ) ) { // nobody follows what it was
      return WaysOut::some;
   }
   for ( const L3Adjacency* const l3Adj : info.dependentL3Adjacency() ) {
      return waysOutOf( *l3Adj ); // all of them have the same
   }
   return WaysOut::all; // of an earlier content, whose next hops nobody follows any more
}

// By which of the ways that are meant the route leaves; in a FEC that leads nowhere it is
// unprogrammed. `behind`: hardware has not got what is requested of its FEC.
MplsSm::WaysOut MplsSm::judgeRoute( const VrfMplsState& vrfState, MplsRoute& route, bool behind ) {
   const WaysOut ways = waysOutOf( vrfState, route, behind );
   if ( !route.extFecInfo() ) {
      return ways;
   }
   const MplsHwVrfStatus* const status = writtenHwVrfStatus( vrfState );
   const bool listed = status && status->unprogrammedRouteHas( route.routeKey() );
   routeUnprogrammedIs( route, listed || !inFecInHardware( route ) || ways == WaysOut::none );
   return ways;
}

// The adjacency has been processed; its own routes are looked at anyway.
void MplsSm::judgeL3Adj( VrfMplsState& vrfState, L3Adjacency& l3Adj ) {
   const auto now = static_cast< U32 >( l3Adj.extFecInfo() ? waysOutOf( l3Adj ) : WaysOut::none );
   if ( now != l3Adj.waysOut() ) {
      l3Adj.waysOutIs( now );
      if ( l3Adj.extFecInfo() ) {
         publishRoutesProtectedBy( vrfState, *l3Adj.extFecInfo() );
      }
   }
}

void MplsSm::publishRoutesOf( VrfMplsState& vrfState, const L3Adjacency& l3Adj ) {
   for ( const Mpls::RouteKey routeKey : l3Adj.routeKey() ) {
      vrfState.routeKeyForPublishIs( routeKey );
   }
}

// Whether the FEC leads out may be what keeps the labels that it protects forwarding.
void MplsSm::publishRoutesProtectedBy( VrfMplsState& vrfState, const ExternalFecInfo& info ) {
   for ( const ExternalFecInfo* const primary : info.dependentPrimaryExtFecInfo() ) {
      for ( const Mpls::RouteKey routeKey : primary->dependentRouteKey() ) {
         vrfState.routeKeyForPublishIs( routeKey );
      }
   }
}

} // namespace Vel
