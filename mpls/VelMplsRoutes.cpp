// MplsSm: routes. From a change in the LFIB to the work sets, and from the work set to one hardware
// route.

#include "mpls/VelMplsSm.h"
#include "mpls/VelMplsTrace.h"

namespace Vel {

// --- Entry: what the LFIB announces.

void MplsSm::handleLFibRoute( Mpls::RouteKey routeKey ) {
   const L3::VrfName& vrf = L3::VrfName::defaultVrf();
   MPLS_TRACE_CALL( 3, " vrf ", vrf, " routeKey ", routeKey );
   // Whoever walks the LFIB meets again what has been announced.
   const U64 news = !walksLfib_ || !mplsIpRouteKeyHas( routeKey ) ? 1 : 0;
   counters_->routesReceivedInc( news );
   if ( !mplsRoutingEnabled( vrf ) ) {
      MPLS_TRACE( 3, "mplsRouting disable in vrf ", vrf );
      counters_->routesIgnoredInc( news );
      return;
   }
   const Mpls::LfibRoute lfibRoute = in_.transitLfib->lfibRoute( routeKey );
   if ( !lfibRoute ) {
      if ( !mplsIpRouteKeyHas( routeKey ) ) {
         MPLS_TRACE( 7, "Ignoring LFIB route ", routeKey );
         counters_->routesIgnoredInc( news );
         // Wanted when it was last asked, by an LFIB that is read ahead of its announcements.
         dropRecoveredRoute( vrf, routeKey );
         return;
      }
      counters_->routesRemovedInc();
      MPLS_TRACE( 3, "delete LFIB route ", routeKey );
      mplsIpRouteKeyDel( routeKey );
   } else if ( !routeSupported( lfibRoute ) ) {
      counters_->routesIgnoredInc( news );
      dropUnsupportedRoute( vrf, routeKey );
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
      routeMake( vrfStateMake( vrf ), routeKey );
   }
   MPLS_TRACE( 7, "routeKey for review ", routeKey );
   if ( VrfMplsState* const vrfState = mplsState( vrf ) ) {
      vrfState->routeKeyForReviewIs( routeKey );
   }
   doMaybeScheduleReview( vrf );
}

// The route's record, made when there is none.
void MplsSm::routeMake( VrfMplsState& vrfState, Mpls::RouteKey routeKey ) {
   MplsRoute* const route = vrfState.routeIs( routeKey );
   if ( route->unprogrammed() && route->unprogrammedSince() == neverTime ) {
      route->unprogrammedSinceIs( in_.clock->now() );
   }
}

void MplsSm::routeUnprogrammedIs( MplsRoute& route, bool unprogrammed ) {
   if ( route.unprogrammed() != unprogrammed ) {
      route.unprogrammedIs( unprogrammed );
      route.unprogrammedSinceIs( unprogrammed ? in_.clock->now() : neverTime );
   }
}

// A route whose via set leads to what another state machine handles is none of ours (any more).
void MplsSm::dropUnsupportedRoute( const L3::VrfName& vrf, Mpls::RouteKey routeKey ) {
   mplsIpRouteKeyDel( routeKey );
   dropRecoveredRoute( vrf, routeKey );
   VrfMplsState* const vrfState = mplsState( vrf );
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
      deleteRouteKeyAndRoute( *vrfState, routeKey );
   }
   if ( queued || accepted ) { // what was published of it was withheld while it was queued
      vrfState->routeKeyForPublishIs( routeKey );
      doMaybeScheduleReview( vrf );
   }
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
   handleLFibViaSetHelper( viaSetKey, true );
}

void MplsSm::handleLFibViaSet() {
   MPLS_TRACE_CALL( 3, " vrf ", L3::VrfName::defaultVrf() );
   for ( const Mpls::LfibViaSetKey key : lfibTrackingStatus_->viaSetKeyBacklog() ) {
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
   counters_->viaSetsReceivedInc();
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
   VrfMplsState& vrfState = vrfStateMake( vrf );
   // The LFIB is read ahead of its announcements: another route may have found the via set, and
   // made its adjacency, before this change of it is announced to those that did not.
   const bool awaited = viaSetAwaitedDel( viaSetKey );
   if ( vrfState.lFibViaSetToL3AdjHas( viaSetKey ) ) {
      const U64 index = vrfState.lFibViaSetToL3Adj( viaSetKey );
      forgetLooksForBackup( *vrfState.l3Adjacency( index ) );
      vrfState.l3AdjForReviewIs( index );
   } else {
      MPLS_TRACE( 3, "No L3Adj for viaSet. Scheduling all user Routes" );
   }
   if ( awaited || !vrfState.lFibViaSetToL3AdjHas( viaSetKey ) ) {
      queueRoutesOfViaSet( vrfState, viaSetKey );
   }
   queueWaitingForBackup( vrfState, viaSetKey, BackupNews::changed, true );
   doMaybeScheduleReviewOrDeleteVrfState( vrf ); // its users may be others' routes
}

// A route whose via set was not sane has lost its record; it gets another one, and with it another
// chance. Routes of other state machines are theirs to look at.
void MplsSm::queueRoutesOfViaSet( VrfMplsState& vrfState, Mpls::LfibViaSetKey viaSetKey ) {
   const RouteKeyGroup* const users = lfibTrackingStatus_->viaSetKeyToRouteKeySet( viaSetKey );
   if ( users == nullptr ) {
      return;
   }
   for ( const Mpls::RouteKey routeKey : *users ) {
      if ( mplsIpRouteKeyHas( routeKey ) ) {
         routeMake( vrfState, routeKey );
         vrfState.routeKeyForReviewIs( routeKey );
      }
   }
}

// --- Admission.

bool MplsSm::routeSupported( const Mpls::LfibRoute& route ) const {
   MPLS_ASSERT( !!route, "!!route", name() );
   const Mpls::LfibViaType viaType = route.viaSetKey.viaType();
   if ( viaType == Mpls::viaTypeMplsIp || viaType == Mpls::viaTypeExternalFec ) {
      return true;
   }
   MPLS_TRACE( 7, "Ignoring non mpls-ip and extFec LfibRoute ", route.routeKey );
   return false;
}

bool MplsSm::isLFibViaSetSane( const Mpls::LfibViaSet& viaSet ) const {
   for ( U32 i = 0; i < viaSet.viaKeys(); ++i ) {
      if ( viaSet.viaKey( i ).viaType() != viaSet.key().viaType() ) {
         return false;
      }
   }
   return viaSet.viaKeys() != 0;
}

namespace {

// The kinds of interface that a via set may not mix.
struct IntfKindsSeen {
   bool nexthopGroup = false;
   bool dynamicTunnel = false;
};

// Why the via's interface does not fit, or nothing.
std::string_view intfFault( const Mpls::LfibMplsVia& via, bool inPlaceAdjacencyUpdate,
                            IntfKindsSeen& seen ) {
   if ( via.intf.empty() ) {
      if ( inPlaceAdjacencyUpdate ) {
         return "L3 interface is not set, via is invalid";
      }
      return via.nextHop.empty() ? "L3 interface and nexthop are not set, via is invalid"
                                 : std::string_view(); // the route resolver finds the interface
   }
   if ( Fib::FecIdIntfId::isNexthopGroupIdIntfId( via.intf ) ) {
      if ( !Fib::FecIdIntfId::intfIdToFecId( via.intf ).isA( Fib::AdjType::nexthopGroupAdj ) ) {
         return "the interface names no next-hop group";
      }
      seen.nexthopGroup = true;
      return seen.dynamicTunnel ? "Mix of dynamic tunnel and NHG via is not supported"
                                : std::string_view();
   }
   if ( DynamicTunnelIntfId::isDynamicTunnelIntfId( via.intf ) ) {
      seen.dynamicTunnel = true;
      return seen.nexthopGroup ? "Mix of dynamic tunnel and NHG via is not supported"
                               : std::string_view();
   }
   if ( seen.nexthopGroup || seen.dynamicTunnel ) {
      return "Mix of tunnel and non-tunnel via is not supported";
   }
   // Its next hop has to be resolved on the interface, which takes an address.
   return via.nextHop.empty() ? "nexthop is not set, via is invalid" : std::string_view();
}

// In what the vias of a dynamic tunnel differ, or nothing.
std::string dynamicTunnelFault( const CachedLFibMplsViaColl& vias ) {
   const Mpls::LfibMplsVia* first = nullptr;
   for ( const auto& [index, via] : vias.via() ) {
      if ( first == nullptr ) {
         first = &via;
      }
      if ( via.labelAction != first->labelAction ) {
         return joinText( "Adjacencies of dynamic tunnel should have the same"
                          "label action. The conflicting labelActions are: ",
                          first->labelAction, " and ", via.labelAction );
      }
      if ( via.payloadType != first->payloadType ) {
         return joinText( "Adjacencies of dynamic tunnel should have the same"
                          "payloadTypes. The conflicting payloadTypes are: ",
                          first->payloadType, " and ", via.payloadType );
      }
   }
   return {};
}

} // namespace

// Copies the vias out of the LFIB, up to the first that does not fit; says why it does not.
std::string MplsSm::collectMplsIpLFibVias( const Mpls::LfibViaSet& viaSet,
                                           CachedLFibMplsViaColl& vias ) const {
   IntfKindsSeen seen;
   for ( U32 i = 0; i < viaSet.viaKeys(); ++i ) {
      const Mpls::LfibViaKey viaKey = viaSet.viaKey( i );
      if ( viaKey.viaType() != Mpls::viaTypeMplsIp ) {
         return joinText( "Via ", viaKey.index(), " ViaType ", viaKey.viaType(), " is not mplsIp" );
      }
      const Mpls::LfibMplsVia via = in_.transitLfib->lfibMplsVia( viaKey );
      if ( via.null() ) {
         return joinText( "LfibMplsVia index ", viaKey.index(), ", source ", viaKey.source(),
                          " was not found" );
      }
      if ( via.labelStack.stackSize() > 1 ) {
         return "Vias with more than one label is not supported";
      }
      if ( const std::string_view fault = intfFault( via, inPlaceAdjacencyUpdateSupported(), seen );
           !fault.empty() ) {
         return std::string( fault );
      }
      vias.viaIs( i, via );
   }
   if ( seen.nexthopGroup && vias.vias() > 1 ) {
      return "Only one NHG via is supported now";
   }
   if ( seen.nexthopGroup && ( *vias.via().begin() ).value.labelStack.stackSize() != 0 ) {
      return "a next-hop group has its own label operation, only a pop may come before it";
   }
   return seen.dynamicTunnel ? dynamicTunnelFault( vias ) : std::string();
}

Ptr< CachedLFibMplsViaColl > MplsSm::getSaneMplsIpLFibVias( const Mpls::LfibViaSet& viaSet ) const {
   auto vias = make< CachedLFibMplsViaColl >();
   if ( viaSet.key().viaType() == Mpls::viaTypeMplsIp ) {
      vias->usableAsPrimaryViasIs( viaSet.usableAsPrimaryVias() );
   }
   if ( const std::string fault = collectMplsIpLFibVias( viaSet, *vias ); !fault.empty() ) {
      MPLS_TRACE( 3, fault );
      return nullptr;
   }
   return vias;
}

std::string MplsSm::lFibViaSetFault( Mpls::LfibViaSetKey viaSetKey ) const {
   const Mpls::LfibViaSet viaSet = in_.transitLfib->lfibViaSet( viaSetKey );
   if ( viaSet.null() ) {
      return "the via set is not in the LFIB";
   }
   if ( !isLFibViaSetSane( viaSet ) ) {
      return viaSet.viaKeys() == 0 ? "the via set has no vias" : "the via set mixes via types";
   }
   if ( viaSetKey.viaType() == Mpls::viaTypeExternalFec ) {
      Mpls::LfibExtFecVia via;
      return forwardingIntoExternalFecsSupported() ? extFecLFibViaSetFault( viaSet, via )
                                                   : "External FEC not supported on this platform";
   }
   const auto vias = make< CachedLFibMplsViaColl >();
   if ( std::string fault = collectMplsIpLFibVias( viaSet, *vias ); !fault.empty() ) {
      return fault;
   }
   const L3AdjLFibAdjType adjType = lFibAdjTypeOf( *vias );
   if ( adjType != L3AdjLFibAdjType::adjTypeRegular && !forwardingIntoExternalFecsSupported() ) {
      return joinText( "Unsupported lFib Adj ", adjType );
   }
   return {};
}

// --- Processing: one route off the work set.

void MplsSm::processRouteKey( VrfMplsState& vrfState, Mpls::RouteKey routeKey ) {
   const L3::VrfName& vrf = vrfState.vrfName();
   MPLS_TRACE_CALL( 3, " vrf ", vrf, " routeKey ", routeKey );
   MPLS_TRACE( 7, "process routeKey ", routeKey );
   vrfState.routeKeyForPublishIs( routeKey );
   MplsRoute* const route = vrfState.route( routeKey );
   if ( route == nullptr ) {
      MPLS_TRACE( 3, "routeKey ", routeKey, " not in vrf ", vrf );
      if ( !recoveredRouteWanted( routeKey ) ) {
         dropRecoveredRoute( vrf, routeKey );
      }
      return;
   }
   if ( !mplsRoutingEnabled( vrf ) ) {
      MPLS_TRACE( 3, "mplsRouting disabled in vrf ", vrf );
      deleteRouteKeyAndRoute( vrfState, routeKey );
      return;
   }
   const Mpls::LfibRoute lfibRoute = in_.transitLfib->lfibRoute( routeKey );
   if ( !!lfibRoute && !routeSupported( lfibRoute ) ) {
      // Another state machine's by now; the announcement is still to come.
      mplsIpRouteKeyDel( routeKey );
      deleteRouteKeyAndRoute( vrfState, routeKey );
      return;
   }
   if ( !!lfibRoute ) {
      // The LFIB is read ahead of its announcements: a route that was announced as gone may be
      // back, and its next end must not be ignored as that of a stranger.
      mplsIpRouteKeyIs( routeKey );
   }
   const Mpls::LfibViaSet viaSet =
      !lfibRoute ? Mpls::LfibViaSet() : in_.transitLfib->lfibViaSet( lfibRoute.viaSetKey );
   if ( !lfibRoute || ( !viaSet.null() && !isLFibViaSetSane( viaSet ) ) ) {
      MPLS_TRACE( 3, "route (", routeKey, ") ", "does not exist in system LFIB or via not sane " );
      if ( !!lfibRoute ) {
         awaitViaSet( lfibRoute.viaSetKey );
      }
      deleteRouteKeyAndRoute( vrfState, routeKey );
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
      !bound || bound->lFibViaSetKey() != viaSet.key() || !inHardwareBy( *route, *bound );
   if ( joins && ( maybeQueueStaleL3Adj( vrfState, viaSet.key() ) ||
                   maybeQueueStaleL3Adj( vrfState, viaSet.backupViaSetKey() ) ) ) {
      vrfState.routeKeyForReviewIs( routeKey );
      return;
   }
   route->metricIs( lfibRoute.metric );
   L3Adjacency& l3Adj = bindRouteToL3Adj( vrfState, *route, lfibRoute.viaSetKey );
   const bool wasElsewhere = inHardware( *route ) && !inHardwareBy( *route, l3Adj );
   const bool waits = !writeRoute( vrfState, *route, l3Adj );
   // In the FEC of a group it may have been by another via set.
   const bool byIt = inHardwareBy( *route, l3Adj ) && !( waits && isOfGroup( l3Adj ) );
   if ( !inHardware( *route ) || byIt ) {
      leaveCarrier( vrfState, routeKey );
      if ( wasElsewhere && l3Adj.keepsNextHops() ) {
         vrfState.l3AdjLeftIs( l3Adj.index() ); // it may have been for this route
      }
   }
}

// What is in hardware stays there, carried by the adjacency that it has it from.
void MplsSm::stayWithoutViaSet( VrfMplsState& vrfState, MplsRoute& route ) {
   L3Adjacency* const bound = route.l3Adj().get();
   if ( bound == nullptr || !inHardware( route ) ) {
      takeRouteOut( vrfState, route ); // nor is one that was refused to be tried again before
      return;
   }
   maybeCarry( vrfState, *bound, route );
   if ( !stayInHardware( vrfState, route ) ) {
      takeRouteOut( vrfState, route );
   }
}

// The via set's arrival, or its mending, queues its routes again.
void MplsSm::awaitViaSet( Mpls::LfibViaSetKey viaSetKey ) {
   if ( viaSetAwaiteds() >= viaSetsAwaitedLimit_ ) {
      forgetUnusedViaSets();
   }
   if ( !viaSetAwaitedHas( viaSetKey ) ) {
      viaSetAwaitedIs( viaSetKey, in_.clock->now() );
   }
}

// A route that goes leaves what it waited for; that costs a look now and then.
void MplsSm::forgetUnusedViaSets() {
   for ( const auto& [viaSetKey, since] : viaSetAwaited() ) {
      if ( !lfibTrackingStatus_->viaSetKeyToRouteKeySet( viaSetKey ) ) {
         viaSetAwaitedDel( viaSetKey );
      }
   }
   viaSetsAwaitedLimit_ = 64 + 2 * viaSetAwaiteds();
}

// Binds the route to the adjacency of its via set, which is made when there is none.
L3Adjacency& MplsSm::bindRouteToL3Adj( VrfMplsState& vrfState, MplsRoute& route,
                                       Mpls::LfibViaSetKey viaSetKey ) {
   const Mpls::RouteKey routeKey = route.routeKey();
   if ( L3Adjacency* const bound = route.l3Adj().get() ) {
      if ( bound->lFibViaSetKey() == viaSetKey ) {
         return *bound;
      }
      MPLS_TRACE( 3, "viaSetKey changed" );
      MPLS_TRACE( 3, "remove routeKey ", routeKey, " from l3Adj index ", bound->index() );
      bound->routeKeyDel( routeKey );
      maybeCarry( vrfState, *bound, route ); // until another one is written
      if ( recoveredRouteHas( routeKey ) ) {
         // It was to go with the others; now it is not.
         in_.hwFecIdRequest->mayReplaceDel( in_.mplsRouteSyncMap->adjSyncId( routeKey ) );
      }
      vrfState.l3AdjLeftIs( bound->index() ); // it may have been its last user
      route.l3AdjIs( nullptr );
   }
   L3Adjacency* l3Adj = nullptr;
   if ( vrfState.lFibViaSetToL3AdjHas( viaSetKey ) ) {
      l3Adj = vrfState.l3Adjacency( vrfState.lFibViaSetToL3Adj( viaSetKey ) );
      if ( lfibTrackingStatus_->viaSetKeyOfRoute( routeKey ) != viaSetKey ) {
         // The move is still to be announced, and with it may be a change of the via set that
         // belongs to it.
         vrfState.l3AdjForReviewIs( l3Adj->index() );
      }
   } else {
      l3Adj = newL3Adjacency( vrfState );
      MPLS_TRACE( 3, "add new adj ", l3Adj->index(), " for review" );
      l3Adj->lFibViaSetKeyIs( viaSetKey );
      vrfState.l3AdjForReviewIs( l3Adj->index() );
      vrfState.lFibViaSetToL3AdjIs( viaSetKey, l3Adj->index() );
   }
   l3Adj->routeKeyIs( routeKey );
   route.l3AdjIs( l3Adj );
   MPLS_TRACE( 7, "L3 adj index ", l3Adj->index(), " routeKey ", routeKey, " adj " );
   return *l3Adj;
}

// Writes the route the way its adjacency is programmed: by its multicast group, into its FEC, or
// with its L2 adjacency. What the adjacency has of an earlier content is for those only that have
// it: to others the via set never said so. False when the route waits for that.
bool MplsSm::writeRoute( VrfMplsState& vrfState, MplsRoute& route, L3Adjacency& l3Adj ) {
   const L3Adjacency* const carrier = vrfState.carrierOf( route.routeKey() );
   const bool byIt = inHardwareBy( route, l3Adj ) && ( carrier == nullptr || carrier == &l3Adj );
   // With an L2 adjacency also by a former one: that follows next hops, and goes on after them.
   const bool has =
      byIt || ( carrier == nullptr && route.l2Adj() && !route.extFecInfo() && !l3Adj.extFecInfo() );
   if ( !has && ( l3Adj.outdated() || isAdjPendingForReview( vrfState, l3Adj.index() ) ) ) {
      leaveRouteUnprogrammed( vrfState, route, l3Adj );
      return false;
   }
   if ( l3Adj.lFibViaSetKey().multicast() && forwardingIntoMldpSupported() ) {
      writeRouteWithMulticast( vrfState, route, l3Adj );
   } else if ( l3Adj.extFecInfo() && forwardingIntoExternalFecsSupported() ) {
      writeRouteWithFec( vrfState, route, l3Adj );
   } else if ( l3Adj.l2Adjacency() && velMplsHwVrfConfig( vrfState.vrfName() ) ) {
      writeRouteWithL2Adj( vrfState, route, l3Adj );
   } else if ( route.l2Adj() && route.l2Adj() == l3Adj.l2Adjacency() ) {
      MPLS_TRACE( 7, "routeKey ", route.routeKey(), " stays until the vrf has its number again" );
   } else {
      leaveRouteUnprogrammed( vrfState, route, l3Adj );
   }
   return true;
}

void MplsSm::writeRouteWithL2Adj( VrfMplsState& vrfState, MplsRoute& route, L3Adjacency& l3Adj ) {
   const L3::VrfName& vrf = vrfState.vrfName();
   const Mpls::RouteKey routeKey = route.routeKey();
   MplsL2Adjacency* const l2Adj = l3Adj.l2Adjacency().get();
   // The FEC that the route is in stays requested until the route has been written elsewhere.
   const Ptr< ExternalFecInfo > fecBefore = route.extFecInfo();
   route.extFecInfoIs( nullptr );
   const bool moves = !route.unprogrammed() && route.l2Adj() != l2Adj;
   if ( route.l2Adj() != l2Adj ) {
      clearRouteMappings( vrfState, routeKey );
      route.l2AdjIs( l2Adj );
      addRouteKeyToL2Adj( routeKey, *l2Adj );
   }
   // Before the write: a driver without delay answers within it. What is new to the configuration
   // is to be confirmed, whatever the driver still reports of an earlier writing.
   const MplsHwVrfStatus* const status = velMplsHwVrfStatus( vrf );
   MplsHwVrfConfig* const config = velMplsHwVrfConfig( vrf );
   if ( status == nullptr || status->unprogrammedRouteHas( routeKey ) ||
        !config->routeHas( routeKey ) ) {
      routeUnprogrammedIs( route, true );
   }
   // The VRF had no number when it was bound, or hardware refused it while no route needed it: one
   // that leaves another way for it does not wait for a retry.
   if ( !config->l2AdjacencyHas( l3Adj.hwL2Adjacency() ) || ( moves && l3Adj.unprogrammed() ) ) {
      progHwL2Adj( vrf, l3Adj.hwL2Adjacency() );
   }
   if ( route.version() == 0 ) { // no report of an earlier life of the label fits
      route.versionIs( lastRouteVersion_ );
   }
   route.versionInc();
   route.unconfirmedWritesInc();
   counters_->routesWrittenInc();
   MPLS_TRACE( 3, "prog routeKey ", routeKey, " l2 adj ", l2Adj->index(), " unprogrammed ",
               route.unprogrammed() );
   recoveredRouteDel( routeKey ); // from here on it is this process's
   recoveredFecsToOffer_ = true;
   config->routeIs( { routeKey, l3Adj.hwL2Adjacency(), route.version() } );
   if ( fecBefore ) {
      deleteRouteKeyFromExtFecInfo( routeKey, *fecBefore );
      maybeDeleteExtFecInfo( vrfState, fecBefore->fecId() );
   }
}

void MplsSm::leaveRouteUnprogrammed( VrfMplsState& vrfState, MplsRoute& route,
                                     L3Adjacency& l3Adj ) {
   const Mpls::RouteKey routeKey = route.routeKey();
   if ( l3Adj.outdated() && !l3Adj.awaitedBackup().holdsBack() &&
        lFibViaSetFault( l3Adj.lFibViaSetKey() ).empty() ) {
      vrfState.l3AdjForReviewIs( l3Adj.index() ); // mended, and still to be announced
   }
   if ( isAdjPendingForReview( vrfState, l3Adj.index() ) ) {
      // What is in hardware stays until it is known what shall be.
      MPLS_TRACE( 7, "not removing routeKey ", routeKey,
                  " because adj review is pending. Add routeKey for review again" );
      vrfState.routeKeyForReviewIs( routeKey );
      return;
   }
   if ( ( l3Adj.awaitedBackup().holdsBack() || l3Adj.extFecInfo() ) &&
        stayInHardware( vrfState, route ) ) {
      MPLS_TRACE( 7, "not removing routeKey ", routeKey,
                  " because its adj waits for a backup or its FEC" );
      return; // the end of the wait queues it
   }
   MPLS_TRACE( 3, "unprog routeKey ", routeKey );
   if ( l3Adj.outdated() && ( l3Adj.extFecInfo() || l3Adj.nextHops() != 0 ) ) {
      vrfState.l3AdjLeftIs( l3Adj.index() ); // it may have been the last with an earlier content
   }
   if ( recoveredRouteHas( routeKey ) &&
        ( awaitsNoFec( l3Adj ) || !lFibViaSetFault( l3Adj.lFibViaSetKey() ).empty() ) ) {
      dropRecoveredRoute( vrfState.vrfName(), routeKey ); // else it waits for its FEC in hardware
   }
   takeRouteOut( vrfState, route );
}

// The route stays in hardware with what it has while there is nothing else for it yet. It follows
// the adjacency that it has it from: a change of that one's next hops is one of its own. False when
// there is no way out that it could stay with.
bool MplsSm::stayInHardware( VrfMplsState& vrfState, MplsRoute& route ) {
   L3Adjacency* const carrier = vrfState.carrierOf( route.routeKey() );
   L3Adjacency& by = carrier ? *carrier : *route.l3Adj();
   if ( const ExternalFecInfo* const info = route.extFecInfo().get() ) {
      const MplsHwVrfStatus* const status = writtenHwVrfStatus( vrfState );
      const bool refused = status && status->unprogrammedRouteHas( route.routeKey() );
      const bool other = carrier || by.extFecInfo() != info;
      if ( info->hwId() == 0 || ( other && refused ) ) {
         return false;
      }
      if ( by.extFecInfo() == info ) {
         writeRouteWithFec( vrfState, route, by );
      }
      return true;
   }
   if ( !route.l2Adj() || !by.l2Adjacency() ||
        velMplsHwVrfConfig( vrfState.vrfName() ) == nullptr ) {
      return false;
   }
   if ( by.l2Adjacency() != route.l2Adj() || route.unprogrammed() ) {
      writeRouteWithL2Adj( vrfState, route, by );
   }
   return true;
}

// An adjacency that has let go of what the route is in hardware by carries nothing: the route would
// go with whatever its via set says next.
void MplsSm::maybeCarry( const VrfMplsState& vrfState, L3Adjacency& l3Adj,
                         const MplsRoute& route ) {
   if ( inHardware( route ) && vrfState.carrierOf( route.routeKey() ) == nullptr &&
        ( l3Adj.nextHops() != 0 || l3Adj.extFecInfo() ) ) {
      l3Adj.carriedRouteKeyIs( route.routeKey() );
   }
}

// The adjacency by which it was in hardware may have been kept for nothing else.
void MplsSm::leaveCarrier( VrfMplsState& vrfState, Mpls::RouteKey routeKey ) {
   if ( L3Adjacency* const carrier = vrfState.carrierOf( routeKey ) ) {
      carrier->carriedRouteKeyDel( routeKey );
      vrfState.l3AdjLeftIs( carrier->index() );
   }
}

void MplsSm::takeRouteOut( VrfMplsState& vrfState, MplsRoute& route ) {
   const Mpls::RouteKey routeKey = route.routeKey();
   unprogramRouteKey( vrfState, routeKey );
   routeUnprogrammedIs( route, true );
   route.unconfirmedWritesIs( 0 );
}

} // namespace Vel
