// MplsSm: turns the LFIB into hardware entities. The heart of the library.
//
// Purpose. For every label route of the transit LFIB that forwards over MPLS, hold the hardware
// configuration that forwards it as the LFIB says, follow what the driver makes of it, and publish
// the result.
//
//    LFIB route ──> MplsRoute ──> L3Adjacency ──> MplsL2Adjacency ──> MplsHwVrfConfig ──> driver
//    (admission)    one a label   one a via set   one a set of        route, l2Adjacency     │
//         ▲                            │          resolved vias                              │
//    LFIB via set ─────────────────────┘               ▲                MplsHwVrfStatus <────┘
//                                                next hops (ARP/ND,          │
//                                                 route resolver)            └──> published status
//
// Inputs (entity: attributes)
//    Mpls::LfibStatus                   routes, via sets, vias, ready
//    Mpls::RoutingInfo, LfibInfo        mplsRouting; nexthopResolutionAllowDefaultRoute
//    Routing::Hardware::RouteStatus     vrfStatus
//    MplsHwStatus / MplsHwVrfStatus     what is programmed, what is refused
//    VelL3Status                        next hops, resolved addresses, VRF names; adjHwStatus
//    FecIdToHwFecIdResponse             hwFecId
//    VelHelper::MplsRouteSyncMap, MplsSmInputSummary, L3StartupStagePrerequisitesStatus: the start
//
// Outputs
//    MplsHwConfig / MplsHwVrfConfig     all
//    MplsHwVrfStatus                    unprogrammedReason, unprogrammedRoute: beside the driver
//    FecIdToHwFecIdRequest              all; routes into FECs go through VelHelper::MplsSmHelper
//    Mpls::Hardware::Status, Mpls::LfibHwStatus: all
//    RouteReactorConfig, Route6ReactorConfig, ProactiveArpNexthopSm: what is to be resolved
//
// How it works. A handler marks what its event touches in the work sets of `VrfMplsState` and
// schedules a task; it does no work but for what must leave hardware, or change its owner, at once.
// Three tasks drain the sets in slices: "reviewVrf" processes L3 adjacencies, then routes, then L2
// adjacencies, then pending deletions; "reviewUnprogrammedRoute" retries what the driver refused;
// "publishReviewRoutes" publishes. An item leaves its set before it is handled: a yield neither loses
// nor repeats work.
//
// A normal life of route K over via set S:
//    handleLFibRoute( K )   record made, K for review
//    processRouteKey( K )   S has no adjacency: one is made, for review; K waits for it
//    processL3Adj( S )      next hops watched and resolved, bound to an L2 adjacency, which is
//                           programmed; K for review
//    processRouteKey( K )   MplsHwRoute written
//    handleProgrammedRoute  the driver confirms; K for publishing
//    publishRouteKey( K )   the world may know
//
// Yield points: before each item of a work set and after each VRF (`shouldTaskYield`).
// Ownership: see VelMplsRecords.h. Stopping is destruction. Threads: one.
// Cost: a bounded number of label-indexed look-ups a route and stage; nothing grows with the table
// but the full walks at the start, when routing is switched on, and when the VRF's number or status
// changes.
// The work is done by its parts, one class for each topic: see transit/Parts.h.

#pragma once

#include <memory>
#include <string>
#include <vector>

#include "mpls/VelMplsCounters.h"
#include "mpls/VelMplsSmInputs.h"
#include "mpls/VelMplsTypes.h"
#include "platform/entity/ReadOnly.h"
#include "platform/lfib/LfibTracking.h"
#include "platform/services/NumAllocator.h"

namespace Vel {

class MplsSmReactors;
namespace Transit {
struct Parts;
}

/// An input, to be read by its name and shown like an attribute.
#define VEL_MPLS_SM_INPUT( foo )                                                                   \
 public:                                                                                           \
   const decltype( MplsSmInputs::foo )& foo() const {                                              \
      return in_.foo;                                                                              \
   }                                                                                               \
   VEL_DERIVED( foo )

/// The state machine of transit and IP-lookup label routes.
class VEL_EXPORT MplsSm : public Entity {
   // clang-format off
   VEL_ENTITY( MplsSm )
   VEL_ATTRIBUTE( bool, initialized )
   VEL_DERIVED( mplsSmStartupStatus )
   VEL_ATTRIBUTE( Ptr< MplsSmStartupRecord >, mplsSmStartupRecord )
   VEL_ATTRIBUTE_DEFAULT( double, reviewInterval, { 0.001 } )                    // seconds
   VEL_ATTRIBUTE_DEFAULT( double, reviewQuanta, { 0.025 } )                      // seconds
   VEL_ATTRIBUTE_DEFAULT( double, currentReviewInterval, { 0.001 } )             // seconds, the last pull-in
   VEL_ATTRIBUTE_DEFAULT( double, defaultUnprogrammedRetryInterval, { 10.0 } )   // seconds
   VEL_COUNTER( reviewCount )
   VEL_ATTRIBUTE( double, reviewEndTime )                                        // clock time, seconds
   VEL_COUNTER( adjacencyIndex )                                                 // the next index, L3 and L2 alike
   VEL_SET( HashSet, L3::VrfName, vrfForReview )
   VEL_COLLECTION( Hash, L3::VrfName, Ptr< VrfMplsState >, unprogrammedRouteForReview )
   VEL_COLLECTION( Hash, L3::VrfName, Ptr< VrfMplsState >, routeKeyToBePublished )
   VEL_ENTITY_COLLECTION( Hash, L3::VrfName, VrfMplsState, mplsState )
   VEL_COLLECTION( Hash, Mpls::Hardware::L2ViaSet, Ptr< Mpls::Hardware::L2Adjacency >, viaSetToHwL2Adj )
   VEL_SET( LabelSet, Mpls::RouteKey, mplsIpRouteKey )                           // accepted from the LFIB
   VEL_SET( HashSet, Fib::FecId, fecIdSetAside )                                 // still answered to a former owner; their numbers are in use
   VEL_COLLECTION( Hash, Mpls::LfibViaSetKey, double, viaSetAwaited )             // missing or not sane when a route was processed; since when
   VEL_SET( LabelSet, Mpls::RouteKey, unreadRoute )                              // to be looked for again: the LFIB could not be read
   VEL_SET( HashSet, Mpls::LfibViaSetKey, unreadViaSet )                         // ... and via sets, or vias of theirs
   VEL_SET( LabelSet, Mpls::RouteKey, staleRecoveredRoute )                      // of the recovered ones: not wanted by the LFIB when it was last looked at
   VEL_SET( LabelSet, Mpls::RouteKey, recoveredRoute )                           // in the sync map, not written or removed since
   VEL_ATTRIBUTE_DEFAULT( double, maxStaleShare, { 1.0 } )                       // of the recovered routes; more are not dropped unasked
   VEL_ATTRIBUTE( bool, staleSweepHeld )                                         // for that reason, until it is approved
   VEL_READ_ONLY( Ptr< TimerTask >, vrfTask )
   VEL_READ_ONLY( Ptr< TimerTask >, unprogrammedRouteTask )
   VEL_READ_ONLY( Ptr< TimerTask >, routePublishTask )
   VEL_READ_ONLY( Ptr< TimerTask >, unreadTask )
   VEL_READ_ONLY( Ptr< TimerTask >, startTask )                                  // scheduled while the start waits and nobody has been told
   VEL_READ_ONLY( Ptr< Mpls::LfibTrackingStatus >, lfibTrackingStatus )
   VEL_READ_ONLY( Ptr< Mpls::LfibTrackingSm >, lfibTrackingSm )
   VEL_READ_ONLY( Ptr< NumAllocatorConfig >, numAllocatorConfig )                // of FEC indices, none before the state machine is initialized
   VEL_READ_ONLY( Ptr< NumAllocatorStatus >, numAllocatorStatus )
   VEL_READ_ONLY( Ptr< NumAllocator >, numAllocator )
   VEL_READ_ONLY( Ptr< NumAllocator >, numAllocatorMcastGroupId )
   VEL_READ_ONLY( Ptr< const FecIdToHwFecIdRequest >, mplsMcastAdjReq )          // as the entity manager has them
   VEL_READ_ONLY( Ptr< const FecIdToHwFecIdResponse >, mplsMcastAdjResp )
   VEL_MPLS_SM_INPUT( lfibInfo )
   VEL_MPLS_SM_INPUT( mplsRoutingInfo )
   VEL_MPLS_SM_INPUT( transitLfib )
   VEL_MPLS_SM_INPUT( lfibHwStatus )
   VEL_MPLS_SM_INPUT( routingHwRouteStatus )
   VEL_MPLS_SM_INPUT( routingHwMplsStatus )
   VEL_MPLS_SM_INPUT( routeReactorConfig )
   VEL_MPLS_SM_INPUT( route6ReactorConfig )
   VEL_MPLS_SM_INPUT( mplsHwConfig )
   VEL_MPLS_SM_INPUT( mplsHwStatus )
   VEL_MPLS_SM_INPUT( velL3Status )
   VEL_MPLS_SM_INPUT( proactiveArpNhSm )
   VEL_MPLS_SM_INPUT( entityManager )
   VEL_MPLS_SM_INPUT( hwFecIdRequest )
   VEL_MPLS_SM_INPUT( hwFecIdResponse )
   VEL_MPLS_SM_INPUT( mplsSmHelper )
   VEL_MPLS_SM_INPUT( mplsRouteSyncMap )
   VEL_MPLS_SM_INPUT( inputStatusSummary )
   VEL_MPLS_SM_INPUT( velL3StartupStagePrereqs )
   VEL_MPLS_SM_INPUT( attrLogSm )
   VEL_MPLS_SM_INPUT( mcastGroupProgConfig )
   VEL_MPLS_SM_INPUT( clock )
   VEL_MPLS_SM_INPUT( scheduler )
   VEL_ENTITY_END_IN_SOURCE
   // clang-format on

 public:
   explicit MplsSm( MplsSmInputs inputs );
   ~MplsSm() override;
   std::string name() const override { return "mplsSm"; }

   const MplsSmInputs& inputs() const { return in_; }
   const Ptr< MplsSmCounters >& counters() const { return counters_; }
   MplsSmStartupStatus mplsSmStartupStatus() const { return mplsSmStartupStatus_; }
   VEL_HIDDEN void mplsSmStartupStatusIs( MplsSmStartupStatus status );

   // --- Capabilities

   bool forwardingIntoExternalFecsSupported() const;
   bool forwardingIntoMldpSupported() const;
   bool mplsNonStopForwardingSupported() const;
   bool inPlaceAdjacencyUpdateSupported() const;
   /// Whether the adjacency is programmed as an L2 adjacency through `MplsHwVrfConfig` rather than
   /// as a FEC.
   bool shouldProgramAdjWithHwConfig( Mpls::LfibViaSetKey viaSetKey,
                                      const CachedLFibMplsViaColl& vias ) const;

   // --- Per-VRF entities

   /// The VRF's configuration, made when absent; null while the VRF has no number.
   MplsHwVrfConfig* velMplsHwVrfConfig( const L3::VrfName& vrf );
   const MplsHwVrfStatus* velMplsHwVrfStatus( const L3::VrfName& vrf ) const;
   MplsHwVrfStatus* velMplsHwVrfStatusNonConst( const L3::VrfName& vrf );
   /// Whether label forwarding is configured in the VRF.
   bool mplsRoutingEnabled( const L3::VrfName& vrf ) const;

   // --- The start (VelMplsSm.cpp, VelMplsStartup.cpp)

   VEL_HIDDEN void doInitialize();
   VEL_HIDDEN void handleInputStatusSummaryReady();
   VEL_HIDDEN void maybeTransitionToWaitingForSync( const L3::VrfName& vrf );
   VEL_HIDDEN void handleSyncDone();
   /// Something that the start may have waited for has been written.
   VEL_HIDDEN void watchStart();
   /// Tells the operator what the start waits for.
   VEL_HIDDEN void sayWhatStartWaitsFor();
   /// An operator's word that the stale routes may be dropped, however many they are.
   void approveStaleSweep();

   // --- What the LFIB announces (VelMplsLfibEvents.cpp)

   VEL_HIDDEN void handleLFibRoute( Mpls::RouteKey routeKey );
   /// All of its routes.
   VEL_HIDDEN void handleLFibRoute();
   VEL_HIDDEN void handleLFibViaSet( Mpls::LfibViaSetKey viaSetKey );
   /// All that wait in the backlog.
   VEL_HIDDEN void handleLFibViaSet();
   /// The LFIB could not be read. What is there of the route, or of the via set and its users, stays
   /// as it is and is looked at again when it can be read, at the latest after `unreadInterval`.
   VEL_HIDDEN void keepUnread( Mpls::RouteKey routeKey );
   VEL_HIDDEN void keepUnread( Mpls::LfibViaSetKey viaSetKey );
   /// Looks again at what could not be read.
   VEL_HIDDEN void handleUnread();
   static constexpr double unreadInterval = 1; // seconds

   // --- The VRF, and label forwarding in it (VelMplsVrfEvents.cpp)

   VEL_HIDDEN void handleMplsRouting( bool enabled );
   VEL_HIDDEN void handleVrfName( VrfId vrfId );
   /// The VRF's number has come, gone or changed.
   VEL_HIDDEN void handleVrfNumber( const L3::VrfName& vrf );
   VEL_HIDDEN void handleHwRoutingEnabled( VrfId vrfId, bool routing );

   // --- For those who ask from outside

   /// Queues every route to be written again.
   void doForceRouteReprogramming();
   /// Processes the route now instead of in the next run of its task.
   void processRouteKey( VrfMplsState& vrfState, Mpls::RouteKey routeKey );
   /// Publishes the route now instead of in the next run of its task, unless it is to be reviewed.
   void publishRouteKey( VrfMplsState& vrfState, Mpls::RouteKey routeKey );
   /// Why a via set cannot be programmed, in words; empty when it can.
   std::string lFibViaSetFault( Mpls::LfibViaSetKey viaSetKey ) const;
   /// Why an adjacency waits for its backup, in words; empty when it does not.
   std::string backupWaitReason( const VrfMplsState& vrfState, const L3Adjacency& l3Adj ) const;

   /// Inside the library only.
   Transit::Parts& parts() const { return *parts_; }

 private:
   VEL_HIDDEN void handleInitialized();
   VEL_HIDDEN void handleMplsRouteSyncMap();
   // The allocator of FEC indices is made of its range, of what is in use, and of the clock.
   VEL_HIDDEN void numAllocatorConfigIs( U64 min, U64 max );
   VEL_HIDDEN void numAllocatorStatusIs();
   VEL_HIDDEN void numAllocatorIs();
   void numAllocatorDel() { numAllocator_ = nullptr; }
   void numAllocatorConfigDel() { numAllocatorConfig_ = nullptr; }
   void numAllocatorStatusDel() { numAllocatorStatus_ = nullptr; }
   VEL_HIDDEN void clearOutputs();
   VEL_HIDDEN std::string startWaitsFor() const;
   VEL_HIDDEN void reviewIfThere( Mpls::RouteKey routeKey );
   VEL_HIDDEN void handleLFibViaSetHelper( Mpls::LfibViaSetKey viaSetKey,
                                           bool fromBacklogNotification );

   const MplsSmInputs in_;
   const Ptr< MplsSmCounters > counters_ = make< MplsSmCounters >();
   bool walksLfib_ = false;    // over all of its routes
   bool startAwaited_ = false; // the operator has been told, and it has not begun since
   MplsSmStartupStatus mplsSmStartupStatus_ = MplsSmStartupStatus::mplsSmUnknown;
   const std::unique_ptr< Transit::Parts > parts_;
   std::unique_ptr< MplsSmReactors > reactors_;
};

#undef VEL_MPLS_SM_INPUT

/// Makes the state machine, which starts at once.
VEL_EXPORT Ptr< MplsSm > MplsSmIs( MplsSmInputs inputs ); // NOLINT(readability-identifier-naming)

} // namespace Vel
