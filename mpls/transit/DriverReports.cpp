#include "mpls/transit/DriverReports.h"

#include <utility>

#include "mpls/VelMplsTrace.h"
#include "mpls/transit/Parts.h"
#include "platform/services/SystemLog.h"

namespace Vel::Transit {

namespace {

SystemLogHandle resourceFull( {
   .name = "ROUTING_MPLS_RESOURCE_FULL",
   .severity = 3,
   .minIntervalSeconds = 1.0,
   .format = "Hardware resources are insufficient to program all MPLS routes",
   .explanation =
      "The switch is unable to program all routes due to insufficient hardware resources. "
      "When the switch is unable to program routes due to insufficient hardware "
      "resources, it may drop certain packets. ",
   .recommendedAction =
      "To solve this issue, reconfigure the network to reduce the size of the routing table or the "
      "number of MPLS routes. When the hardware resources is available, the switch automatically "
      "programs any unprogrammed routes in hardware. ",
} );
SystemLogHandle resourceNormal( {
   .name = "ROUTING_MPLS_RESOURCE_NORMAL",
   .severity = 3,
   .minIntervalSeconds = 1.0,
   .format = "All MPLS routes are programmed in hardware.",
   .explanation = "The switch was able to program all the MPLS routes in the hardware and normal "
                  "hardware routing has resumed.",
   .recommendedAction = "",
} );
bool resourceFullLogged = false; // a full message waits for its normal one

} // namespace

void DriverReports::handleHwVrfStatus( VrfId vrfId ) {
   VrfMplsState* const vrfState = sm_.mplsState( parts_.vrfs.vrfOfReport( vrfId ) );
   if ( vrfState == nullptr ) {
      return;
   }
   countListed( *vrfState );
   for ( const auto& [routeKey, route] : vrfState->route() ) {
      if ( route->unprogrammed() && route->extFecInfo() ) {
         vrfState->routeKeyForReviewIs( routeKey );
      }
   }
   parts_.review.doMaybeScheduleReview( vrfState->vrfName() );
}

void DriverReports::handleHwVrfStatusGone() {
   if ( VrfMplsState* const vrfState = sm_.mplsState( L3::VrfName::defaultVrf() ) ) {
      const bool some = vrfState->numUnprogrammedRoute() != 0;
      countListed( *vrfState );
      if ( some && vrfState->numUnprogrammedRoute() == 0 ) {
         sayResourceNormal();
      }
   }
}

void DriverReports::handleProgrammedRoute( MplsHwVrfStatus& status, Mpls::RouteKey routeKey ) {
   MPLS_TRACE_CALL( 3, " routeKey ", routeKey );
   const L3::VrfName vrfName = parts_.vrfs.vrfOfReport( status.vrfId() );
   if ( vrfName.empty() ) {
      MPLS_TRACE( 3, "no vrf state for vrfId ", status.vrfId() );
      MPLS_RING( "no vrf state vrfId ", status.vrfId() );
      sm_.counters()->reportsLateInc();
      return;
   }
   Vrfs::assertDefaultVrf( vrfName );
   const MplsHwRoute* const reported = status.route().find( routeKey );
   if ( reported == nullptr ) {
      MPLS_TRACE( 3, "routeKey ", routeKey, " unprogrammed from vrf ", vrfName );
      return; // the echo of a deletion
   }
   MPLS_TRACE( 3, "routeKey ", routeKey, " programmed in vrf ", vrfName );
   VrfMplsState* const vrfState = sm_.mplsState( vrfName );
   MplsRoute* const route = vrfState ? vrfState->route( routeKey ) : nullptr;
   if ( route == nullptr ) {
      MPLS_TRACE( 3, "no vrf state or routeKey" );
      sm_.counters()->reportsLateInc();
      return;
   }
   const MplsHwVrfConfig* const config = in_.mplsHwConfig->vrfConfig( status.vrfId() );
   if ( config == nullptr || config->route( routeKey ) != *reported ) {
      MPLS_TRACE( 3, "not of what is configured now" );
      sm_.counters()->reportsLateInc();
      return;
   }
   sm_.counters()->routesConfirmedInc();
   route->unconfirmedWritesIs( 0 );
   parts_.routes.routeUnprogrammedIs( *route, false );
   MPLS_TRACE( 8, "add routeKey ", routeKey, " for review" );
   vrfState->routeKeyForPublishIs( routeKey );
   parts_.review.doMaybeScheduleReview( vrfName );
   retrySoon( *vrfState ); // where one found room, others may
}

void DriverReports::handleUnprogrammedRoute( MplsHwVrfStatus& status, Mpls::RouteKey routeKey ) {
   MPLS_TRACE_CALL( 3, " routeKey ", routeKey );
   const L3::VrfName vrfName = parts_.vrfs.vrfOfReport( status.vrfId() );
   Vrfs::assertDefaultVrf( vrfName );
   VrfMplsState* const vrfState = sm_.mplsState( vrfName );
   MplsRoute* const route = vrfState ? vrfState->route( routeKey ) : nullptr;
   const bool unprogrammed = status.unprogrammedRouteHas( routeKey );
   if ( route == nullptr ) {
      MPLS_TRACE( 3, "no vrf state or routeKey" );
      sm_.counters()->reportsLateInc( unprogrammed );
      status.unprogrammedRouteDel( routeKey ); // nobody would; it has not been counted
      return;
   }
   if ( unprogrammed ) {
      MPLS_TRACE( 3, "routeKey ", routeKey, " not programmed in  vrf ", vrfName );
      vrfState->unprogrammedRetryIntervalIs( sm_.defaultUnprogrammedRetryInterval() );
   } else {
      MPLS_TRACE( 3, "routeKey ", routeKey, " removed from unprog collection in vrf ", vrfName );
   }
   sm_.counters()->routesRefusedInc( unprogrammed );
   const bool former = &status != parts_.vrfs.writtenHwVrfStatus( *vrfState );
   if ( !former ) {
      // A key that leaves the list need not be in hardware: `route` tells that.
      const MplsHwVrfConfig* const config = in_.mplsHwConfig->vrfConfig( status.vrfId() );
      parts_.routes.routeUnprogrammedIs( *route, unprogrammed || config == nullptr ||
                                                    !config->routeHas( routeKey ) ||
                                                    !status.routeHas( routeKey ) );
   }
   vrfState->routeKeyForPublishIs( routeKey );
   const U64 preUnprogrammed = vrfState->numUnprogrammedRoute();
   const UnprogrammedReason reason = status.unprogrammedReason();
   MPLS_ASSERT( !( preUnprogrammed == 0 && !unprogrammed ),
                "! (preUnprogrammed == 0 && delta == -1 )", textOf( routeKey ) );
   if ( preUnprogrammed == 0 ) {
      if ( reason == UnprogrammedReason::AdjacencyFull ||
           reason == UnprogrammedReason::RouteFull ) {
         resourceFullOwed_ = !resourceFullLogged;
         maybeSayResourceFull();
      }
      MPLS_TRACE( 2, "Schedule review for unprog routes, reason ", reason );
   } else if ( preUnprogrammed == 1 && !unprogrammed ) {
      sayResourceNormal();
      status.unprogrammedReasonIs( UnprogrammedReason::Success );
      MPLS_TRACE( 3, "Resource-Normal" );
   }
   vrfState->numUnprogrammedRouteIs( unprogrammed ? preUnprogrammed + 1 : preUnprogrammed - 1 );
   parts_.review.doMaybeScheduleReview( vrfName );
   if ( unprogrammed && former ) {
      status.unprogrammedRouteDel( routeKey ); // there is nothing to try again there
   }
}

void DriverReports::handleUnprogrammedAdj( MplsHwVrfStatus& status,
                                           const Ptr< Mpls::Hardware::L2Adjacency >& adjacency ) {
   const U64 id = adjacency->index();
   MPLS_TRACE_CALL( 3, " adjacency ", id );
   const L3::VrfName vrfName = parts_.vrfs.vrfOfReport( status.vrfId() );
   Vrfs::assertDefaultVrf( vrfName );
   VrfMplsState* const vrfState = sm_.mplsState( vrfName );
   if ( vrfState == nullptr ) {
      MPLS_TRACE( 3, "no vrf state for vrf ", vrfName );
      sm_.counters()->reportsLateInc();
      return;
   }
   const bool unprogrammed = status.unprogrammedAdjacencyHas( adjacency );
   if ( MplsL2Adjacency* const l2Adj = vrfState->l2Adjacency( id ) ) {
      MPLS_TRACE( 3, "add l2 adj ", id, " for review" );
      vrfState->l2AdjForReviewIs( id );
      l2Adj->unprogrammedSinceIs( unprogrammed ? in_.clock->now() : neverTime );
   } else {
      // An adjacency that is removed leaves the driver's list as well.
      sm_.counters()->reportsLateInc( unprogrammed );
   }
   sm_.counters()->adjacenciesRefusedInc( unprogrammed );
   if ( unprogrammed ) {
      MPLS_TRACE( 3, "l2 adj ", id, " not programmed" );
      vrfState->numUnprogrammedAdjInc();
      vrfState->unprogrammedRetryIntervalIs( sm_.defaultUnprogrammedRetryInterval() );
   } else {
      MPLS_TRACE( 3, "l2 adj ", id, " removed from unprogrammedAdj" );
      if ( vrfState->numUnprogrammedAdj() == 0 ) {
         MPLS_TRACE( 3, "l2 adj ", id, " leaves unprogrammedAdj without having arrived" );
      } else {
         vrfState->numUnprogrammedAdjIs( vrfState->numUnprogrammedAdj() - 1 );
      }
      const MplsHwVrfConfig* const config = in_.mplsHwConfig->vrfConfig( status.vrfId() );
      if ( config && config->mplsRouting() && config->l2AdjacencyHas( adjacency ) ) {
         retrySoon( *vrfState );
      }
   }
   parts_.review.doMaybeScheduleReview( vrfName );
}

void DriverReports::readAdjHwStates( VrfMplsState& vrfState ) {
   const AdjHwStatus* const states = in_.velL3Status->adjHwStatus().get();
   if ( states == nullptr || vrfState.writtenVrfId() == noVrfId ) {
      return;
   }
   const auto vrfId = static_cast< VrfId >( vrfState.writtenVrfId() );
   for ( const auto& [fecId, info] : vrfState.extFecInfo() ) {
      const AdjHwState reported = states->adjHwState( { vrfId, fecId } );
      if ( reported != AdjHwState::unknown && reported != info->adjState() ) {
         handleAdjHwState( { vrfId, fecId } );
      }
   }
}

void DriverReports::handleAdjHwState( const Fib::GlobalFecId& globalFecId ) {
   MPLS_TRACE( 3, "handleAdjHwState", " fecId ", globalFecId );
   MPLS_RING( "US handleAdjHwState fecId", globalFecId.fecId );
   // The VRF may have lost its name, and its number, since it was told.
   const VrfMplsState* const there = sm_.mplsState( L3::VrfName::defaultVrf() );
   const ExternalFecInfo* const told = there ? there->extFecInfo( globalFecId.fecId ) : nullptr;
   const bool followed =
      told && told->adjState() != AdjHwState::unknown && told->adjStateVrfId() == globalFecId.vrfId;
   const L3::VrfName vrf =
      followed ? L3::VrfName::defaultVrf() : parts_.vrfs.vrfOfReport( globalFecId.vrfId );
   if ( vrf != L3::VrfName::defaultVrf() ) {
      MPLS_TRACE( 3, "  not default vrf" );
      MPLS_RING( "US   not default vrf" );
      return;
   }
   VrfMplsState* const vrfState = sm_.mplsState( vrf );
   if ( vrfState == nullptr ) {
      MPLS_TRACE( 3, "  no vrf state for vrf ", vrf );
      MPLS_RING( "US   no vrf state for vrf", globalFecId.vrfId );
      return;
   }
   ExternalFecInfo* const info = vrfState->extFecInfo( globalFecId.fecId );
   if ( info == nullptr ) {
      MPLS_TRACE( 3, "  no ext fec info " );
      MPLS_RING( "US   no ext fec info " );
      return;
   }
   info->adjStateIs( in_.velL3Status->adjHwStatus()
                        ? in_.velL3Status->adjHwStatus()->adjHwState( globalFecId )
                        : AdjHwState::unknown );
   info->adjStateVrfIdIs( globalFecId.vrfId );
   for ( const Mpls::RouteKey routeKey : info->dependentRouteKey() ) {
      vrfState->routeKeyForPublishIs( routeKey );
   }
   Publisher::publishRoutesProtectedBy( *vrfState, *info );
   parts_.review.doMaybeScheduleReview( vrfState->vrfName() );
   const Mpls::LfibViaSetKey viaSetKey = info->lFibViaSetKey();
   if ( ( viaSetKey.empty() || !vrfState->lFibViaSetToL3AdjHas( viaSetKey ) ) &&
        info->dependentL3Adjacencys() == 0 ) {
      MPLS_TRACE( 3, "  invalid via set key ", viaSetKey );
      MPLS_RING( "US   invalid via set key ", viaSetKey );
      return;
   }
   for ( L3Adjacency* const l3Adj : info->dependentL3Adjacency() ) { // several may forward into one
      parts_.protection.setHwBackupAdjStatus( *vrfState, *l3Adj );
      parts_.publisher.publishViaSetState( *l3Adj );
   }
}

void DriverReports::handleMcastId( VrfId vrfId, U16 groupId ) {
   const L3::VrfName vrfName = parts_.vrfs.vrfOfReport( vrfId );
   if ( vrfName.empty() ) {
      MPLS_TRACE( 3, "no name for vrf ", vrfId, " of group ", groupId );
      return;
   }
   Vrfs::assertDefaultVrf( vrfName );
   MPLS_TRACE( 3, sm_.mplsStateHas( vrfName ) ? "no multicast group " : "no vrf state for group ",
               groupId );
}

void DriverReports::countListed( VrfMplsState& vrfState ) const {
   U64 routes = 0;
   U64 adjacencies = 0;
   for ( const auto& [vrfId, status] : in_.mplsHwStatus->vrfStatus() ) {
      routes += status->unprogrammedRoutes();
      adjacencies += status->unprogrammedAdjacencys();
   }
   vrfState.numUnprogrammedRouteIs( routes );
   vrfState.numUnprogrammedAdjIs( adjacencies );
}

void DriverReports::maybeSayResourceFull() {
   if ( resourceFullOwed_ && resourceFull.allowed() ) {
      resourceFull.log();
      resourceFullLogged = true;
      resourceFullOwed_ = false;
   }
}

void DriverReports::sayResourceNormal() {
   resourceFullOwed_ = false;
   if ( std::exchange( resourceFullLogged, false ) ) {
      resourceNormal.log();
   }
}

void DriverReports::retrySoon( VrfMplsState& vrfState ) {
   if ( vrfState.numUnprogrammedRoute() != 0 ) {
      MPLS_TRACE( 3, "vrf ", vrfState.vrfName(), " unprogrammedRetryIntervalIs ",
                  sm_.reviewInterval() );
      vrfState.unprogrammedRetryIntervalIs( sm_.reviewInterval() );
   }
}

} // namespace Vel::Transit
