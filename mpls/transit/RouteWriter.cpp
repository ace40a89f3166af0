#include "mpls/transit/RouteWriter.h"

#include <algorithm>

#include "mpls/VelMplsTrace.h"
#include "mpls/transit/Parts.h"

namespace Vel::Transit {

bool RouteWriter::writeRoute( VrfMplsState& vrfState, MplsRoute& route, L3Adjacency& l3Adj ) {
   const L3Adjacency* const carrier = vrfState.carrierOf( route.routeKey() );
   const bool byIt = route.inHardwareBy( l3Adj ) && ( carrier == nullptr || carrier == &l3Adj );
   // A route with an L2 adjacency also has it by a former adjacency, which follows next hops.
   const bool has =
      byIt || ( carrier == nullptr && route.l2Adj() && !route.extFecInfo() && !l3Adj.extFecInfo() );
   if ( !has && ( l3Adj.outdated() || vrfState.isAdjPendingForReview( l3Adj.index() ) ) ) {
      leaveRouteUnprogrammed( vrfState, route, l3Adj );
      return false;
   }
   if ( l3Adj.lFibViaSetKey().multicast() && sm_.forwardingIntoMldpSupported() ) {
      writeRouteWithMulticast( vrfState, route, l3Adj );
   } else if ( l3Adj.extFecInfo() && sm_.forwardingIntoExternalFecsSupported() ) {
      writeRouteWithFec( vrfState, route, l3Adj );
   } else if ( l3Adj.l2Adjacency() && sm_.velMplsHwVrfConfig( vrfState.vrfName() ) ) {
      writeRouteWithL2Adj( vrfState, route, l3Adj );
   } else if ( route.l2Adj() && route.l2Adj() == l3Adj.l2Adjacency() ) {
      MPLS_TRACE( 7, "routeKey ", route.routeKey(), " stays until the vrf has its number again" );
   } else {
      leaveRouteUnprogrammed( vrfState, route, l3Adj );
   }
   return true;
}

void RouteWriter::writeRouteWithL2Adj( VrfMplsState& vrfState, MplsRoute& route,
                                       L3Adjacency& l3Adj ) {
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
      parts_.l2Adjacencies.addRouteKeyToL2Adj( routeKey, *l2Adj );
   }
   // Before the write: a driver without delay answers within it. What is new to the configuration
   // is to be confirmed, whatever the driver still reports of an earlier writing.
   const MplsHwVrfStatus* const status = sm_.velMplsHwVrfStatus( vrf );
   MplsHwVrfConfig* const config = sm_.velMplsHwVrfConfig( vrf );
   if ( status == nullptr || status->unprogrammedRouteHas( routeKey ) ||
        !config->routeHas( routeKey ) ) {
      parts_.routes.routeUnprogrammedIs( route, true );
   }
   // The VRF had no number when it was bound, or hardware refused it while no route needed it: one
   // that leaves another way for it does not wait for a retry.
   if ( !config->l2AdjacencyHas( l3Adj.hwL2Adjacency() ) || ( moves && l3Adj.unprogrammed() ) ) {
      parts_.l2Adjacencies.progHwL2Adj( vrf, l3Adj.hwL2Adjacency() );
   }
   if ( route.version() == 0 ) { // no report of an earlier life of the label fits
      route.versionIs( lastRouteVersion_ );
   }
   route.versionInc();
   route.unconfirmedWritesInc();
   sm_.counters()->routesWrittenInc();
   MPLS_TRACE( 3, "prog routeKey ", routeKey, " l2 adj ", l2Adj->index(), " unprogrammed ",
               route.unprogrammed() );
   sm_.recoveredRouteDel( routeKey ); // from here on it is this process's
   parts_.fecRoom.lookAgain();
   config->routeIs( { routeKey, l3Adj.hwL2Adjacency(), route.version() } );
   if ( fecBefore ) {
      parts_.fecs.deleteRouteKeyFromExtFecInfo( routeKey, *fecBefore );
      parts_.fecs.maybeDeleteExtFecInfo( vrfState, fecBefore->fecId() );
   }
}

void RouteWriter::writeRouteWithFec( VrfMplsState& vrfState, MplsRoute& route,
                                     L3Adjacency& l3Adj ) {
   const L3::VrfName& vrf = vrfState.vrfName();
   const Mpls::RouteKey routeKey = route.routeKey();
   const Ptr< ExternalFecInfo > info = l3Adj.extFecInfo();
   if ( !in_.routingHwRouteStatus->vrfStatusHas( vrf ) ) {
      stayWithoutNumber( vrfState, route );
      return;
   }
   if ( waitsForFec( vrfState, route, l3Adj ) ) {
      return;
   }
   MPLS_TRACE( 3, "Create or update route ", routeKey, " fecId: ", info->fecId() );
   sm_.recoveredRouteDel( routeKey ); // from here on it is this process's
   parts_.fecRoom.lookAgain();
   const bool wasThere = route.inFecInHardware();
   route.unconfirmedWritesInc();
   sm_.counters()->routesWrittenInc();
   // A next-hop group does not pop: the pop is written with the route.
   const Mpls::Hardware::Adjacency& hwAdj = *in_.routingHwMplsStatus->adjacency( l3Adj.index() );
   const bool popsHere =
      info->popLabelActionRemoved() ||
      ( l3Adj.isOfGroup() && hwAdj.via( 0 ).labelAction == MplsLabelAction::pop );
   const UnprogrammedReason reason = in_.mplsSmHelper->createOrUpdateRoute(
      in_.routingHwRouteStatus->vrfStatus( vrf ), routeKey, info->hwId(),
      popsHere ? MplsLabelAction::pop : MplsLabelAction::none, l3Adj.payloadType(),
      l3Adj.ttlMode() );
   if ( reason == UnprogrammedReason::Success ) {
      if ( MplsHwVrfStatus* const status = sm_.velMplsHwVrfStatusNonConst( vrf ) ) {
         status->unprogrammedRouteDel( routeKey );
      }
      route.unconfirmedWritesIs( 0 );
      sm_.counters()->routesConfirmedInc();
      if ( !wasThere ) {
         parts_.driverReports.retrySoon( vrfState ); // where one found room, others may
      }
   } else {
      MPLS_TRACE( 3, "adding route ", routeKey, " to unprogrammed list, reason ", reason );
      addUnprogrammedRoute( vrfState, routeKey, UnprogrammedReason::RouteFull );
      parts_.routes.routeUnprogrammedIs( route, true );
   }
   if ( MplsHwVrfConfig* const config = sm_.velMplsHwVrfConfig( vrf ) ) {
      config->routeDel( routeKey ); // the FEC has taken over
   }
   if ( route.extFecInfo() != info ) {
      clearRouteMappings( vrfState, routeKey );
      parts_.fecs.addRouteKeyToExtFecInfo( routeKey, *info );
      route.extFecInfoIs( info );
   }
   parts_.publisher.judgeRoute( vrfState, route, parts_.fecs.isBehind( *info ) );
}

void RouteWriter::writeRouteWithMulticast( VrfMplsState& vrfState, MplsRoute& route,
                                           L3Adjacency& l3Adj ) {
   leaveRouteUnprogrammed( vrfState, route, l3Adj );
}

// Whether hardware does not have the route in the adjacency's FEC yet: it is elsewhere or nowhere,
// or has been refused there.
bool RouteWriter::joins( const MplsRoute& route, const L3Adjacency& l3Adj ) const {
   const ExternalFecInfo& info = *l3Adj.extFecInfo();
   if ( route.extFecInfo() == &info ) {
      return !route.inFecInHardware();
   }
   return !sm_.recoveredRouteHas( route.routeKey() ) || info.syncId() == 0 ||
          in_.mplsRouteSyncMap->adjSyncId( route.routeKey() ) != info.syncId();
}

// Whether the route cannot be written into the adjacency's FEC yet. Then it stays where it is, if
// it is anywhere, and an event brings it back.
bool RouteWriter::waitsForFec( VrfMplsState& vrfState, MplsRoute& route, L3Adjacency& l3Adj ) {
   const Mpls::RouteKey routeKey = route.routeKey();
   ExternalFecInfo& info = *l3Adj.extFecInfo();
   if ( info.hwId() == 0 ) {
      parts_.fecRoom.lookAgain();
      if ( const ExternalFecInfo* const there = route.extFecInfo().get();
           there && there != &info && in_.hwFecIdResponse->hwFecId( there->fecId() ).hwId != 0 ) {
         MPLS_TRACE( 3, "hwId not yet allocated for l3Adj, but route still has hwFecId ",
                     in_.hwFecIdResponse->hwFecId( there->fecId() ).hwId,
                     ", so wait until new extFecInfo response is updated" );
         parts_.fecRoom.noteLeft( there->fecId() );
      }
      leaveRouteUnprogrammed( vrfState, route, l3Adj );
      return true;
   }
   const bool elsewhere = route.extFecInfo() != &info;
   if ( elsewhere && info.backupExtFecInfo() && !l3Adj.outdated() && l3Adj.backupAdj() &&
        l3Adj.backupAdj()->outdated() ) {
      // The route never had that backup.
      vrfState.l3AdjForReviewIs( l3Adj.index(), L3AdjReview::protectionChanged );
      vrfState.routeKeyForReviewIs( routeKey );
      return true;
   }
   if ( !parts_.fecs.isBehind( info ) || !joins( route, l3Adj ) ) {
      return false;
   }
   MPLS_TRACE( 3, "routeKey ", routeKey, " waits until fec ", info.fecId(),
               " is what is requested" );
   info.joinersWaitIs( true );
   if ( elsewhere ) { // else it has been refused there, and is listed
      leaveRouteUnprogrammed( vrfState, route, l3Adj );
   }
   return true;
}

void RouteWriter::leaveRouteUnprogrammed( VrfMplsState& vrfState, MplsRoute& route,
                                          L3Adjacency& l3Adj ) {
   const Mpls::RouteKey routeKey = route.routeKey();
   if ( l3Adj.outdated() && !l3Adj.awaitedBackup().holdsBack() &&
        parts_.viaSets.lFibViaSetFault( l3Adj.lFibViaSetKey() ).empty() ) {
      // Mended, and still to be announced.
      vrfState.l3AdjForReviewIs( l3Adj.index(), L3AdjReview::viaSetChanged );
   }
   if ( vrfState.isAdjPendingForReview( l3Adj.index() ) ) {
      // What is in hardware stays until the review has decided what is to be there.
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
   if ( sm_.recoveredRouteHas( routeKey ) &&
        ( parts_.recovery.awaitsNoFec( l3Adj ) ||
          ( !parts_.viaSets.lFibViaSetFault( l3Adj.lFibViaSetKey() ).empty() &&
            !in_.transitLfib->unread() ) ) ) {
      // Else it waits for its FEC in hardware.
      parts_.recovery.dropRecoveredRoute( vrfState.vrfName(), routeKey );
   }
   takeRouteOut( vrfState, route );
}

bool RouteWriter::stayInHardware( VrfMplsState& vrfState, MplsRoute& route ) {
   L3Adjacency* const carrier = vrfState.carrierOf( route.routeKey() );
   L3Adjacency& by = carrier ? *carrier : *route.l3Adj();
   if ( const ExternalFecInfo* const info = route.extFecInfo().get() ) {
      const MplsHwVrfStatus* const status = parts_.vrfs.writtenHwVrfStatus( vrfState );
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
        sm_.velMplsHwVrfConfig( vrfState.vrfName() ) == nullptr ) {
      return false;
   }
   if ( by.l2Adjacency() != route.l2Adj() || route.unprogrammed() ) {
      writeRouteWithL2Adj( vrfState, route, by );
   }
   return true;
}

// The VRF has no number, and nothing can be written. A route that hardware has stays there until the
// number is back; one whose FEC has lost its hardware id goes at once.
void RouteWriter::stayWithoutNumber( VrfMplsState& vrfState, MplsRoute& route ) {
   if ( route.extFecInfo() && route.extFecInfo()->hwId() == 0 ) {
      unprogramRouteKey( vrfState, route.routeKey() );
   }
   if ( !route.inHardware() ) {
      parts_.routes.routeUnprogrammedIs( route, true );
   }
}

void RouteWriter::maybeCarry( const VrfMplsState& vrfState, L3Adjacency& l3Adj,
                              const MplsRoute& route ) {
   if ( route.inHardware() && vrfState.carrierOf( route.routeKey() ) == nullptr &&
        ( l3Adj.nextHops() != 0 || l3Adj.extFecInfo() ) ) {
      l3Adj.carriedRouteKeyIs( route.routeKey() );
   }
}

void RouteWriter::leaveCarrier( VrfMplsState& vrfState, Mpls::RouteKey routeKey ) {
   if ( L3Adjacency* const carrier = vrfState.carrierOf( routeKey ) ) {
      carrier->carriedRouteKeyDel( routeKey );
      vrfState.l3AdjLeftIs( carrier->index() );
   }
}

void RouteWriter::takeRouteOut( VrfMplsState& vrfState, MplsRoute& route ) {
   const Mpls::RouteKey routeKey = route.routeKey();
   unprogramRouteKey( vrfState, routeKey );
   parts_.routes.routeUnprogrammedIs( route, true );
   route.unconfirmedWritesIs( 0 );
}

void RouteWriter::unprogramRouteKey( VrfMplsState& vrfState, Mpls::RouteKey routeKey ) {
   const L3::VrfName& vrf = vrfState.vrfName();
   MPLS_TRACE_CALL( 3, " vrf ", vrf, " routeKey ", routeKey );
   MPLS_RING( "unprogram routeKey from vrf ", routeKey );
   MplsHwVrfConfig* const config = parts_.vrfs.writtenHwVrfConfig( vrfState );
   if ( config && config->routeDel( routeKey ) && sm_.forwardingIntoExternalFecsSupported() ) {
      // The driver may not have come to take it out of the FEC that it was in before.
      deleteRouteIntoFec( vrf, routeKey );
   }
   if ( MplsHwVrfStatus* const status = parts_.vrfs.writtenHwVrfStatus( vrfState ) ) {
      status->unprogrammedRouteDel( routeKey );
   }
   unprogramRouteIntoFec( vrfState, routeKey );
   clearRouteMappings( vrfState, routeKey );
   leaveCarrier( vrfState, routeKey );
}

// A route into a FEC stands not in the configuration, and the FEC may have been requested for another
// VRF.
void RouteWriter::unprogramRouteIntoFec( const VrfMplsState& vrfState, Mpls::RouteKey routeKey ) {
   const MplsRoute* const route = vrfState.route( routeKey );
   if ( !sm_.forwardingIntoExternalFecsSupported() || route == nullptr ) {
      return;
   }
   if ( route->extFecInfo() ) {
      const L3::VrfName& fecVrf =
         in_.hwFecIdRequest->hwFecIdRequest( route->extFecInfo()->fecId() ).vrfName;
      if ( MplsHwVrfStatus* const status = sm_.velMplsHwVrfStatusNonConst( fecVrf ) ) {
         status->unprogrammedRouteDel( routeKey );
      }
   } else if ( route->unconfirmedWrites() == 0 ) {
      return; // else hardware may not have moved it out of a FEC yet
   }
   deleteRouteIntoFec( vrfState.vrfName(), routeKey );
}

void RouteWriter::deleteRouteIntoFec( const L3::VrfName& vrf, Mpls::RouteKey routeKey ) {
   const VrfMplsState* const vrfState = sm_.mplsState( vrf );
   if ( vrfState && vrfState->writtenVrfId() != noVrfId ) {
      in_.mplsSmHelper->deleteRoute( static_cast< VrfId >( vrfState->writtenVrfId() ), routeKey );
   } else if ( in_.routingHwRouteStatus->vrfStatusHas( vrf ) ) {
      in_.mplsSmHelper->deleteRoute( in_.routingHwRouteStatus->vrfStatus( vrf ), routeKey );
   }
}

void RouteWriter::deleteRouteKeyAndRoute( VrfMplsState& vrfState, Mpls::RouteKey routeKey ) {
   MPLS_TRACE_CALL( 3, " routeKey ", routeKey );
   MPLS_TRACE( 3, "delete routeKey ", routeKey );
   parts_.recovery.dropRecoveredRoute( vrfState.vrfName(), routeKey );
   unprogramRouteKey( vrfState, routeKey );
   if ( MplsRoute* const route = vrfState.route( routeKey ) ) {
      if ( L3Adjacency* const l3Adj = route->l3Adj().get() ) {
         l3Adj->routeKeyDel( routeKey );
         vrfState.l3AdjLeftIs( l3Adj->index() );
      }
      lastRouteVersion_ = std::max( lastRouteVersion_, route->version() );
   }
   vrfState.routeDel( routeKey );
}

void RouteWriter::clearRouteMappings( VrfMplsState& vrfState, Mpls::RouteKey routeKey ) {
   MPLS_TRACE( 8, "clear route mappings", " route ", routeKey );
   MplsRoute* const route = vrfState.route( routeKey );
   if ( route == nullptr ) {
      return;
   }
   route->isInstalledWithMulticastIs( false );
   if ( MplsL2Adjacency* const l2Adj = route->l2Adj().get() ) {
      parts_.l2Adjacencies.deleteRouteKeyFromL2Adj( routeKey, *l2Adj );
      if ( l2Adj->routeKeys() == 0 && vrfState.l2AdjPendingForDeleteHas( l2Adj->index() ) ) {
         vrfState.l2AdjVacatedIs( l2Adj->index() );
      }
      route->l2AdjIs( nullptr );
   }
   if ( const Ptr< ExternalFecInfo > info = route->extFecInfo() ) {
      route->extFecInfoIs( nullptr );
      parts_.fecs.deleteRouteKeyFromExtFecInfo( routeKey, *info );
      parts_.fecs.maybeDeleteExtFecInfo( vrfState, info->fecId() );
   }
}

// The reason is written first, so that whoever hears of the key finds it.
void RouteWriter::addUnprogrammedRoute( VrfMplsState& vrfState, Mpls::RouteKey routeKey,
                                        UnprogrammedReason reason ) {
   if ( MplsHwVrfStatus* const status = sm_.velMplsHwVrfStatusNonConst( vrfState.vrfName() ) ) {
      status->unprogrammedReasonIs( reason );
      status->unprogrammedRouteIs( routeKey, true );
   }
}

} // namespace Vel::Transit
