// MplsSm: the frame, its start, and the capabilities that its parts ask for.

#include "mpls/VelMplsSm.h"

#include <utility>

#include "mpls/VelMplsReactors.h"
#include "mpls/VelMplsTrace.h"
#include "mpls/transit/Parts.h"
#include "platform/services/FeatureToggle.h"

namespace Vel {

VEL_ENTITY_SOURCE( MplsSm )
VEL_ENTITY_SOURCE( MplsSmCounters )

TraceHandle velMplsSmTrace( "VelMplsSm" );

namespace {

// Each is asked once and holds for the life of the process.
constinit CachedFeatureToggle nonStopForwardingToggle( "MplsNonStopForwarding", true );
constinit CachedFeatureToggle inPlaceAdjacencyUpdateToggle( "InPlaceMplsAdjacencyUpdate", true );

constexpr TaskPriority taskPriority = TaskPriority::normal; // priority value 2
constexpr double patienceAtStartSeconds = 5.0;
constexpr U64 maxFecIndex = 0xFFFF'FFFF;
constexpr double fecIndexExpirySeconds = 10.0;
constexpr U64 minMcastGroupId = 1;
constexpr U64 maxMcastGroupId = 65535;
constexpr double mcastGroupIdExpirySeconds = 60.0;

} // namespace

Ptr< MplsSm > MplsSmIs( MplsSmInputs inputs ) {
   return make< MplsSm >( std::move( inputs ) );
}

MplsSm::MplsSm( MplsSmInputs inputs )
   : in_( std::move( inputs ) ), parts_( std::make_unique< Transit::Parts >( *this ) ) {
   MPLS_ASSERT( in_.scheduler && in_.clock, "scheduler() && clock()", name() );
   MPLS_ASSERT( in_.mplsHwStatus && in_.velL3Status, "mplsHwStatus() && velL3Status()", name() );
   MPLS_ASSERT( in_.lfibHwStatus, "lfibHwStatus()", name() );
   MPLS_ASSERT( in_.routingHwRouteStatus, "routingHwRouteStatus()", name() );
   MPLS_ASSERT( in_.routingHwMplsStatus, "routingHwMplsStatus()", name() );
   MPLS_ASSERT( in_.routeReactorConfig, "routeReactorConfig()", name() );
   MPLS_ASSERT( in_.route6ReactorConfig, "route6ReactorConfig()", name() );
   if ( in_.entityManager ) {
      mplsMcastAdjReq_ = in_.entityManager->root< FecIdToHwFecIdRequest >( "mplsMcastAdjReq" );
      mplsMcastAdjResp_ = in_.entityManager->root< FecIdToHwFecIdResponse >( "mplsMcastAdjResp" );
   }
   vrfTask_ = in_.scheduler->taskIs( "reviewVrf", taskPriority );
   unprogrammedRouteTask_ = in_.scheduler->taskIs( "reviewUnprogrammedRoute", taskPriority );
   routePublishTask_ = in_.scheduler->taskIs( "publishReviewRoutes", taskPriority );
   unreadTask_ = in_.scheduler->taskIs( "lookForUnread", taskPriority );
   startTask_ = in_.scheduler->taskIs( "watchStart", TaskPriority::low );
   startTask_->runAfter( patienceAtStartSeconds );
   lfibTrackingStatus_ = make< Mpls::LfibTrackingStatus >( "MplsSm-trackingStatus" );
   // What was listed for an earlier run was counted there. Nobody hears of it yet.
   for ( const auto& [vrfId, status] : in_.mplsHwStatus->vrfStatus() ) {
      status->unprogrammedRouteDelAll();
      status->unprogrammedReasonIs( UnprogrammedReason::Success );
   }
   parts_->driverReports.sayResourceNormal();
   parts_->recovery.noteRecoveredVrfId();
   reactors_ = std::make_unique< MplsSmReactors >( *this );
   reactors_->mplsHwVrfStatusReconcile();
   reactors_->adjHwStatusIs();
   handleInitialized();
   watchStart();
}

// Reactors go first, so that nothing calls in while the records go; tasks go with their last
// pointer.
MplsSm::~MplsSm() {
   reactors_.reset();
   lfibTrackingSm_ = nullptr;
   unprogrammedRouteForReviewDelAll();
   routeKeyToBePublishedDelAll();
   for ( const auto& [vrf, vrfState] : mplsState() ) {
      for ( const auto& [key, nextHop] : vrfState->mplsNextHop() ) {
         // Whoever comes next asks for what it needs.
         if ( key.l3Intf.empty() ) {
            parts_->nextHops.unwatchWithRR( vrf, key.ipGenAddr );
         } else {
            parts_->nextHops.unwatchWithMNHSM( vrf, *nextHop );
         }
      }
   }
}

// --- The start.

void MplsSm::handleInitialized() {
   MPLS_TRACE_CALL( 3 );
   mplsSmStartupRecordIs( mplsSmStartupRecordFactory( "MplsSmStartupRecord", in_.clock ) );
   mplsSmStartupRecord()->clearAndInitialize();
   if ( !mplsNonStopForwardingSupported() ) {
      MPLS_TRACE( 3, "NSF toggle disabled, or FEC forwarding not supported, normal processing" );
      mplsSmStartupStatusIs( MplsSmStartupStatus::mplsSmNormal );
      doInitialize();
      return;
   }
   MPLS_ASSERT( in_.inputStatusSummary, "inputStatusSummary()", name() );
   if ( in_.inputStatusSummary->status() == MplsSmInputStatus::mplsSmInputReady ) {
      MPLS_TRACE( 3, "Input is ready, start the sync " );
      handleInputStatusSummaryReady();
   } else {
      MPLS_TRACE( 3, "Input not ready yet " );
      mplsSmStartupStatusIs( MplsSmStartupStatus::mplsSmUninitialized );
   }
}

void MplsSm::mplsSmStartupStatusIs( MplsSmStartupStatus status ) {
   if ( mplsSmStartupStatus_ == status ) {
      return;
   }
   mplsSmStartupStatus_ = status;
   mplsSmStartupRecord()->updateMplsSmStartupRecord( status );
   watchStart();
}

void MplsSm::doInitialize() {
   MPLS_TRACE_CALL( 3 );
   MPLS_ASSERT( !initialized(), "!initialized()", name() );
   MPLS_ASSERT( in_.clock, "clock_", name() );
   MPLS_ASSERT( in_.proactiveArpNhSm, "proactiveArpNhSm()", name() );
   clearOutputs();
   if ( in_.hwFecIdRequest && !mplsNonStopForwardingSupported() ) {
      // There is nothing to wait for: the hardware layer clears what it held, and answers at once.
      in_.hwFecIdRequest->startsAfreshIs( true );
      in_.hwFecIdRequest->syncRequestsReadyIs( true );
   }
   MPLS_ASSERT( in_.lfibInfo && in_.transitLfib && in_.mplsRoutingInfo && in_.mplsHwConfig,
                "lfibInfo() && transitLfib() && mplsRoutingInfo() && mplsHwConfig()", name() );
   if ( in_.routingHwRouteStatus->vrfStatusHas( L3::VrfName::defaultVrf() ) ) {
      parts_->vrfs.leaveFormerNumber( L3::VrfName::defaultVrf() );
   }
   handleMplsRouting( mplsRoutingEnabled( L3::VrfName::defaultVrf() ) );
   parts_->nextHops.handleNexthopResolutionAllowDefaultRoute();
   numAllocatorConfigIs( 0, maxFecIndex );
   numAllocatorStatusIs();
   numAllocatorIs();
   lfibTrackingSm_ = make< Mpls::LfibTrackingSm >(
      "MplsSm-TrackingSm", in_.transitLfib, lfibTrackingStatus_, Mpls::LfibTrackingMode::viaSets );
   auto mcastGroupIds = make< NumAllocatorConfig >( minMcastGroupId, maxMcastGroupId );
   mcastGroupIds->expiryTimeIs( mcastGroupIdExpirySeconds );
   numAllocatorMcastGroupId_ =
      make< NumAllocator >( std::move( mcastGroupIds ), make< NumAllocatorStatus >(), in_.clock );
   initializedIs( true );
   handleLFibViaSet();
   handleMplsRouteSyncMap();
   // What was queued while nothing could be scheduled yet.
   parts_->review.doMaybeScheduleReview( L3::VrfName::defaultVrf() );
}

// Clears what an earlier run may have left in the outputs.
void MplsSm::clearOutputs() {
   if ( in_.mplsHwConfig ) {
      for ( const auto& [vrfId, config] : in_.mplsHwConfig->vrfConfig() ) {
         config->routeDelAll(); // before what they point at
         config->l2AdjacencyDelAll();
      }
   }
   in_.routingHwMplsStatus->l2AdjacencyDelAll();
   in_.routingHwMplsStatus->adjacencyDelAll();
   in_.routingHwMplsStatus->routeDelAll();
   in_.routingHwMplsStatus->adjacencyBackupStatusDelAll();
   in_.lfibHwStatus->unprogrammedRouteDelAll();
   in_.lfibHwStatus->viaSetDelAll();
   if ( in_.hwFecIdRequest ) {
      in_.hwFecIdRequest->syncRequestsReadyIs( false );
      in_.hwFecIdRequest->startsAfreshIs( false );
      in_.hwFecIdRequest->fecDelAll();
      in_.hwFecIdRequest->fec6DelAll();
      in_.hwFecIdRequest->hwFecIdRequestDelAll();
      in_.hwFecIdRequest->adjSyncIdMapDelAll();
      in_.hwFecIdRequest->mayReplaceDelAll();
      in_.hwFecIdRequest->mayTakeOverDelAll();
   }
}

void MplsSm::numAllocatorConfigIs( U64 min, U64 max ) {
   numAllocatorConfig_ = make< NumAllocatorConfig >( min, max );
   numAllocatorConfig_->expiryTimeIs( fecIndexExpirySeconds );
}

void MplsSm::numAllocatorStatusIs() {
   numAllocatorStatus_ = make< NumAllocatorStatus >();
}

void MplsSm::numAllocatorIs() {
   MPLS_ASSERT( numAllocatorConfig_ && numAllocatorStatus_,
                "numAllocatorConfig() && numAllocatorStatus()", name() );
   numAllocator_ = make< NumAllocator >( numAllocatorConfig_, numAllocatorStatus_, in_.clock );
}

// --- Capabilities: constant while the inputs do not change.

bool MplsSm::forwardingIntoExternalFecsSupported() const {
   return in_.hwFecIdRequest && in_.hwFecIdResponse && in_.mplsSmHelper;
}

bool MplsSm::forwardingIntoMldpSupported() const {
   return mplsMcastAdjReq_ && mplsMcastAdjResp_ && in_.mplsSmHelper;
}

bool MplsSm::mplsNonStopForwardingSupported() const {
   return nonStopForwardingToggle.enabled() && forwardingIntoExternalFecsSupported();
}

bool MplsSm::inPlaceAdjacencyUpdateSupported() const {
   return inPlaceAdjacencyUpdateToggle.enabled() && forwardingIntoExternalFecsSupported();
}

bool MplsSm::shouldProgramAdjWithHwConfig( Mpls::LfibViaSetKey viaSetKey,
                                           const CachedLFibMplsViaColl& vias ) const {
   MPLS_ASSERT( viaSetKey.viaType() == Mpls::viaTypeMplsIp,
                "lFibViaSetKey.viaType() == Mpls::viaTypeMplsIp_", textOf( viaSetKey ) );
   if ( !forwardingIntoExternalFecsSupported() ) {
      return true;
   }
   return Transit::ViaSets::findL3AdjLFibAdjType( &vias ) == L3AdjLFibAdjType::adjTypeRegular &&
          !inPlaceAdjacencyUpdateSupported() && viaSetKey.source() != Mpls::LfibSource::bgpLu;
}

// --- Per-VRF entities.

MplsHwVrfConfig* MplsSm::velMplsHwVrfConfig( const L3::VrfName& vrf ) {
   if ( !in_.routingHwRouteStatus->vrfStatusHas( vrf ) ) {
      return nullptr; // the VRF has no number yet
   }
   return in_.mplsHwConfig->vrfConfigIs( in_.routingHwRouteStatus->vrfStatus( vrf ) );
}

const MplsHwVrfStatus* MplsSm::velMplsHwVrfStatus( const L3::VrfName& vrf ) const {
   return const_cast< MplsSm* >( this )->velMplsHwVrfStatusNonConst( vrf );
}

MplsHwVrfStatus* MplsSm::velMplsHwVrfStatusNonConst( const L3::VrfName& vrf ) {
   if ( !in_.routingHwRouteStatus->vrfStatusHas( vrf ) ) {
      return nullptr;
   }
   return in_.mplsHwStatus->vrfStatus( in_.routingHwRouteStatus->vrfStatus( vrf ) );
}

bool MplsSm::mplsRoutingEnabled( const L3::VrfName& vrf ) const {
   return in_.mplsRoutingInfo->mplsRouting( vrf );
}

// --- For those who ask from outside.

std::string MplsSm::lFibViaSetFault( Mpls::LfibViaSetKey viaSetKey ) const {
   return parts_->viaSets.lFibViaSetFault( viaSetKey );
}

std::string MplsSm::backupWaitReason( const VrfMplsState& vrfState,
                                      const L3Adjacency& l3Adj ) const {
   return parts_->protection.backupWaitReason( vrfState, l3Adj );
}

void MplsSm::approveStaleSweep() {
   parts_->recovery.approveStaleSweep();
}

void MplsSm::doForceRouteReprogramming() {
   parts_->review.doForceRouteReprogramming();
}

void MplsSm::processRouteKey( VrfMplsState& vrfState, Mpls::RouteKey routeKey ) {
   parts_->routes.processRouteKey( vrfState, routeKey );
}

void MplsSm::publishRouteKey( VrfMplsState& vrfState, Mpls::RouteKey routeKey ) {
   parts_->publisher.publishRouteKey( vrfState, routeKey );
}

} // namespace Vel
