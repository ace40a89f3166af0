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
// schedules a task; it does no work. Three tasks drain the sets in slices: "reviewVrf" processes L3
// adjacencies, then routes, then L2 adjacencies, then pending deletions; "reviewUnprogrammedRoute"
// retries what the driver refused; "publishReviewRoutes" publishes. An item leaves its set before
// it is handled: a yield neither loses nor repeats work.
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
// but the full walks at the start and when routing is switched on.
// The operations fill several rooms; the sections below name them.

#pragma once

#include <memory>
#include <string>
#include <vector>

#include "mpls/VelMplsCounters.h"
#include "mpls/VelMplsSmInputs.h"
#include "mpls/VelMplsTypes.h"
#include "platform/lfib/LfibTracking.h"
#include "platform/services/NumAllocator.h"

namespace Vel {

class MplsSmReactors;

/// The state machine of transit and IP-lookup label routes.
class VEL_EXPORT MplsSm : public Entity {
   // clang-format off
   ENTITY( MplsSm )
   ATTRIBUTE( bool, initialized )
   DERIVED( mplsSmStartupStatus )
   ATTRIBUTE( Ptr< MplsSmStartupRecord >, mplsSmStartupRecord )
   ATTRIBUTE_DEFAULT( double, reviewInterval, { 0.001 } )                    // seconds
   ATTRIBUTE_DEFAULT( double, reviewQuanta, { 0.025 } )                      // seconds
   ATTRIBUTE_DEFAULT( double, currentReviewInterval, { 0.001 } )             // seconds, the last pull-in
   ATTRIBUTE_DEFAULT( double, defaultUnprogrammedRetryInterval, { 10.0 } )   // seconds
   COUNTER( reviewCount )
   ATTRIBUTE( double, reviewEndTime )                                        // clock time, seconds
   COUNTER( adjacencyIndex )                                                 // the next index, L3 and L2 alike
   SET( HashSet, L3::VrfName, vrfForReview )
   COLLECTION( Hash, L3::VrfName, Ptr< VrfMplsState >, unprogrammedRouteForReview )
   COLLECTION( Hash, L3::VrfName, Ptr< VrfMplsState >, routeKeyToBePublished )
   ENTITY_COLLECTION( Hash, L3::VrfName, VrfMplsState, mplsState )
   COLLECTION( Hash, Mpls::Hardware::L2ViaSet, Ptr< Mpls::Hardware::L2Adjacency >, viaSetToHwL2Adj )
   SET( LabelSet, Mpls::RouteKey, mplsIpRouteKey )                           // accepted from the LFIB
   SET( HashSet, Fib::FecId, fecIdSetAside )                                 // still answered to a former owner; their numbers are in use
   COLLECTION( Hash, Mpls::LfibViaSetKey, double, viaSetAwaited )             // missing or not sane when a route was processed; since when
   SET( LabelSet, Mpls::RouteKey, staleRecoveredRoute )                      // of the recovered ones: not wanted by the LFIB when it was last looked at
   SET( LabelSet, Mpls::RouteKey, recoveredRoute )                           // in the sync map, not written or removed since
   ATTRIBUTE_DEFAULT( double, maxStaleShare, { 1.0 } )                       // of the recovered routes; more are not dropped unasked
   ATTRIBUTE( bool, staleSweepHeld )                                         // for that reason, until it is approved
   ENTITY_END_IN_SOURCE
   // clang-format on

 public:
   explicit MplsSm( MplsSmInputs inputs );
   ~MplsSm() override;
   std::string name() const override { return "mplsSm"; }

   const MplsSmInputs& inputs() const { return in_; }
   const Ptr< MplsSmCounters >& counters() const { return counters_; }
   MplsSmStartupStatus mplsSmStartupStatus() const { return mplsSmStartupStatus_; }
   void mplsSmStartupStatusIs( MplsSmStartupStatus status );
   TimerTask* vrfTask() const { return vrfTask_.get(); }
   TimerTask* unprogrammedRouteTask() const { return unprogrammedRouteTask_.get(); }
   TimerTask* routePublishTask() const { return routePublishTask_.get(); }
   Mpls::LfibTrackingStatus* lfibTrackingStatus() const { return lfibTrackingStatus_.get(); }
   Mpls::LfibTrackingSm* lfibTrackingSm() const { return lfibTrackingSm_.get(); }
   /// Of FEC indices, none before the state machine is initialized. Config and status hang on it, as
   /// with the one of multicast groups.
   NumAllocator* numAllocator() const { return numAllocator_.get(); }
   NumAllocatorStatus* numAllocatorStatus() const {
      return numAllocator_ ? numAllocator_->status().get() : nullptr;
   }
   NumAllocator* numAllocatorMcastGroupId() const { return numAllocatorMcastGroupId_.get(); }

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

   // --- Frame and initialization (VelMplsSm.cpp)

   void handleInitialized();
   void doInitialize();

   // --- Routes (VelMplsRoutes.cpp)

   void handleLFibRoute( Mpls::RouteKey routeKey );
   void handleLFibRoute();
   void handleLFibViaSet( Mpls::LfibViaSetKey viaSetKey );
   void handleLFibViaSet();
   void handleLFibViaSetHelper( Mpls::LfibViaSetKey viaSetKey, bool fromBacklogNotification );
   bool routeSupported( const Mpls::LfibRoute& route ) const;
   bool isLFibViaSetSane( const Mpls::LfibViaSet& viaSet ) const;
   Ptr< CachedLFibMplsViaColl > getSaneMplsIpLFibVias( const Mpls::LfibViaSet& viaSet ) const;
   /// Why a via set cannot be programmed, in words; empty when it can. For those who explain.
   std::string lFibViaSetFault( Mpls::LfibViaSetKey viaSetKey ) const;
   void processRouteKey( VrfMplsState& vrfState, Mpls::RouteKey routeKey );

   // --- L3 adjacencies (VelMplsL3Adj.cpp)

   L3Adjacency* newL3Adjacency( VrfMplsState& vrfState );
   void processL3Adj( VrfMplsState& vrfState, U64 index );
   /// A route has left it, and that is all that has happened.
   void processL3AdjLeft( VrfMplsState& vrfState, U64 index );
   bool validateMplsIpL3Adj( const L3Adjacency& l3Adj, const Mpls::LfibViaSet& viaSet,
                             const Ptr< CachedLFibMplsViaColl >& saneVias ) const;
   void setHwAdjacencyVias( VrfMplsState& vrfState, L3Adjacency& l3Adj,
                            const Mpls::LfibViaSet& viaSet, const ProgrammableMplsFecVias& vias,
                            L3AdjLFibAdjType adjType );
   void setHwAdjViasForNormalMplsRoute( VrfMplsState& vrfState, L3Adjacency& l3Adj,
                                        const Mpls::LfibViaSet& viaSet,
                                        const ProgrammableMplsFecVias& vias,
                                        L3AdjLFibAdjType adjType );
   L3AdjLFibAdjType findL3AdjLFibAdjType( const L3Adjacency* l3Adj ) const;
   /// The same of vias that are in hand: a dynamic tunnel wins over a next-hop group.
   static L3AdjLFibAdjType lFibAdjTypeOf( const CachedLFibMplsViaColl& vias );
   bool hasNHGAdj( const L3Adjacency& l3Adj ) const;
   bool hasDynamicTunnelAdj( const L3Adjacency& l3Adj ) const;
   bool isAdjPendingForReview( const VrfMplsState& vrfState, U64 index ) const;
   U64 contentDigestOf( const Mpls::LfibViaSet& viaSet ) const;
   /// Whether the adjacency of the via set has to be processed before the route may join it; then
   /// it is queued.
   bool maybeQueueStaleL3Adj( VrfMplsState& vrfState, Mpls::LfibViaSetKey viaSetKey );
   void deleteL3Adj( VrfMplsState& vrfState, U64 index );
   void deleteL3AdjRefs( VrfMplsState& vrfState, L3Adjacency& l3Adj );

   // --- Next hops and L2 adjacencies (VelMplsNextHops.cpp)

   Mpls::Hardware::L2ViaSet resolveNextHop( VrfMplsState& vrfState, const Mpls::LfibMplsVia& via,
                                            U32 nVias, L3Adjacency& l3Adj );
   Mpls::Hardware::L2ViaSet resolveNextHopWithRR( VrfMplsState& vrfState,
                                                  const Mpls::LfibMplsVia& via, U32 nVias,
                                                  L3Adjacency& l3Adj );
   Mpls::Hardware::L2ViaSet resolveNextHopWithMNHSM( VrfMplsState& vrfState,
                                                     const Mpls::LfibMplsVia& via, U32 nVias,
                                                     L3Adjacency& l3Adj );
   void handleNexthopResolutionAllowDefaultRoute();
   void handleNextHop( const NextHopKey& key );
   void handleResolvedNexthop( const VrfAndIpGenAddr& vrfAddr );
   void handleResolvedV4Nexthop( const VrfAndIpAddr& vrfAddr );
   void handleResolvedV6Nexthop( const VrfAndIpGenAddr& vrfAddr );
   MplsL2Adjacency* newL2Adjacency( VrfMplsState& vrfState );
   void progHwL2Adj( const L3::VrfName& vrf, const Ptr< Mpls::Hardware::L2Adjacency >& hwL2Adj );
   void addRouteKeyToL2Adj( Mpls::RouteKey routeKey, MplsL2Adjacency& l2Adj );
   void deleteRouteKeyFromL2Adj( Mpls::RouteKey routeKey, MplsL2Adjacency& l2Adj );
   void processL2Adj( VrfMplsState& vrfState, U64 index );
   void maybeDeleteL2Adj( VrfMplsState& vrfState, U64 index );
   void processL2AdjPendingDelete( VrfMplsState& vrfState, U64 index );
   void doDeleteL2Adj( VrfMplsState& vrfState, U64 index );

   // --- Hardware feedback (VelMplsFeedback.cpp)

   void handleMplsRouting( bool enabled );
   void handleVrfName( VrfId vrfId );
   /// The VRF's number has come, gone or changed.
   void handleVrfNumber( const L3::VrfName& vrf );
   void handleHwVrfStatus( VrfId vrfId );
   void handleHwVrfStatusGone();
   void handleHwRoutingEnabled( VrfId vrfId, bool routing );
   void handleProgrammedRoute( MplsHwVrfStatus& status, Mpls::RouteKey routeKey );
   void handleUnprogrammedRoute( MplsHwVrfStatus& status, Mpls::RouteKey routeKey );
   void handleUnprogrammedAdj( MplsHwVrfStatus& status,
                               const Ptr< Mpls::Hardware::L2Adjacency >& adjacency );
   void unprogramRouteKey( VrfMplsState& vrfState, Mpls::RouteKey routeKey );
   void deleteRouteKeyAndRoute( VrfMplsState& vrfState, Mpls::RouteKey routeKey );
   void clearRouteMappings( VrfMplsState& vrfState, Mpls::RouteKey routeKey );
   void addUnprogrammedRoute( VrfMplsState& vrfState, Mpls::RouteKey routeKey,
                              UnprogrammedReason reason );

   // --- Review and retry (VelMplsReview.cpp)

   void doMaybeScheduleReview( const L3::VrfName& vrf );
   void doMaybeScheduleReviewOrDeleteVrfState( const L3::VrfName& vrf );
   void doForceRouteReprogramming();
   void runReviewVrfsTask();
   void runUnprogrammedRouteReviewTask();
   bool shouldTaskYield( const TimerTask& task ) const;

   // --- Publishing (VelMplsPublish.cpp)

   void runPublishRouteKeysTask();
   void publishRouteKey( VrfMplsState& vrfState, Mpls::RouteKey routeKey );
   /// Whether hardware has the route in the FEC that it is recorded with, which may have no way
   /// out.
   static bool inFecInHardware( const MplsRoute& route );

   // --- FECs (VelMplsFecs.cpp)

   Fib::FecId getOrAllocateMplsFecId( Mpls::LfibViaSetKey viaSetKey, VrfMplsState& vrfState,
                                      AddressFamily af, bool newFecIdRequired );
   Fib::FecId getOrAllocateMplsFecIdPerVia( VrfMplsState& vrfState, const Mpls::LfibMplsVia& via );
   void freeMplsFecId( Fib::FecId fecId, VrfMplsState& vrfState );
   void handleHwFecIdResponse( Fib::FecId fecId );

   // --- External FECs and backups (VelMplsExternalFecs.cpp)

   Mpls::LfibExtFecVia getSaneExtFecVia( const L3Adjacency& l3Adj,
                                         const Mpls::LfibViaSet& viaSet ) const;
   void addRouteKeyToExtFecInfo( Mpls::RouteKey routeKey, ExternalFecInfo& info );
   void deleteRouteKeyFromExtFecInfo( Mpls::RouteKey routeKey, ExternalFecInfo& info );
   void maybeDeleteExtFecInfo( VrfMplsState& vrfState, Fib::FecId fecId );
   /// False: the adjacency's backup is not fit yet, an event will bring the adjacency back.
   bool validateAndMaybeUpdateBackupAdjInfo( VrfMplsState& vrfState, L3Adjacency& l3Adj,
                                             const Mpls::LfibViaSet& viaSet );
   /// Why an adjacency waits for its backup, in words; empty when it does not. For those who
   /// explain.
   std::string backupWaitReason( const VrfMplsState& vrfState, const L3Adjacency& l3Adj ) const;
   void setHwBackupAdjStatus( VrfMplsState& vrfState, L3Adjacency& l3Adj );
   void deleteBackupAdjInfoFromAdj( VrfMplsState& vrfState, L3Adjacency& l3Adj );
   void handleAdjHwState( const Fib::GlobalFecId& globalFecId );

   // --- Multicast (VelMplsMulticast.cpp)

   const Ptr< const FecIdToHwFecIdRequest >& mplsMcastAdjReq() const { return mplsMcastAdjReq_; }
   const Ptr< const FecIdToHwFecIdResponse >& mplsMcastAdjResp() const { return mplsMcastAdjResp_; }
   void processMplsMulticastAdj( VrfMplsState& vrfState, U64 index );
   void handleMplsMcastHwFecIdResp( Fib::FecId fecId );
   void handleMcastId( VrfId vrfId, U16 groupId );

   // --- Start-up (VelMplsStartup.cpp)

   void handleInputStatusSummaryReady();
   void handleMplsRouteSyncMap();
   void maybeTransitionToWaitingForSync( const L3::VrfName& vrf );
   void handleSyncDone();
   /// The VRF has its name, or its number: stale routes may have waited for both.
   void maybeSweepNamed( const L3::VrfName& vrf );
   /// An operator's word that the stale routes may be dropped, however many they are.
   void approveStaleSweep();

 private:
   friend MplsSmReactors;

   void sweepStaleRoutes();
   void maybeEndSync();
   void settleRecovered( const VrfMplsState* vrfState );
   void maybeOfferFecs( const VrfMplsState* vrfState );
   bool someFecUnanswered() const;
   void offerRecoveredFecs( const VrfMplsState& vrfState );
   Fib::FecId fecAwaitedByAll( const VrfMplsState& vrfState, const ExternalFecInfo& info ) const;
   void offerFecsBeingLeft( const VrfMplsState& vrfState );
   void withdrawTakeOvers( const VrfMplsState* vrfState );
   void takeOverRoutes( VrfMplsState& vrfState, ExternalFecInfo& info );
   bool maySweepStaleRoutes();
   bool mayNameRoutes( const L3::VrfName& vrf ) const;
   double staleShare( size_t stale ) const;
   bool recoveredRouteWanted( Mpls::RouteKey routeKey ) const;
   void forgetWantedStale();
   bool enoughCameBack();
   void dropRecoveredRoute( const L3::VrfName& vrf, Mpls::RouteKey routeKey );
   bool awaitsNoFec( const L3Adjacency& l3Adj ) const;
   void noteRecoveredVrfId();
   void leaveRecoveredVrfId();
   void deleteRecoveredRoute( Mpls::RouteKey routeKey );
   void recordAdjSyncIds( const VrfMplsState& vrfState );
   VrfMplsState& vrfStateMake( const L3::VrfName& vrf );
   void routeMake( VrfMplsState& vrfState, Mpls::RouteKey routeKey );
   void routeUnprogrammedIs( MplsRoute& route, bool unprogrammed );
   L3::VrfName vrfOfReport( VrfId vrfId ) const;
   MplsHwVrfConfig* writtenHwVrfConfig( const VrfMplsState& vrfState ) const;
   MplsHwVrfStatus* writtenHwVrfStatus( const VrfMplsState& vrfState ) const;
   void noteVrfNumber( VrfMplsState& vrfState );
   void leaveFormerNumber( const L3::VrfName& vrf );
   void switchOffMplsRouting();
   void countListed( VrfMplsState& vrfState ) const;
   void maybeSayResourceFull();
   void sayResourceNormal();
   void retrySoon( VrfMplsState& vrfState );
   void deleteRouteIntoFec( const L3::VrfName& vrf, Mpls::RouteKey routeKey );
   void vrfStateDrop( const L3::VrfName& vrf );
   void clearOutputs();
   L3Adjacency& bindRouteToL3Adj( VrfMplsState& vrfState, MplsRoute& route,
                                  Mpls::LfibViaSetKey viaSetKey );
   std::string collectMplsIpLFibVias( const Mpls::LfibViaSet& viaSet,
                                      CachedLFibMplsViaColl& vias ) const;
   void forgetUnusedViaSets();
   void awaitViaSet( Mpls::LfibViaSetKey viaSetKey );
   void queueRoutesOfViaSet( VrfMplsState& vrfState, Mpls::LfibViaSetKey viaSetKey );
   void dropUnsupportedRoute( const L3::VrfName& vrf, Mpls::RouteKey routeKey );
   bool writeRoute( VrfMplsState& vrfState, MplsRoute& route, L3Adjacency& l3Adj );
   void writeRouteWithL2Adj( VrfMplsState& vrfState, MplsRoute& route, L3Adjacency& l3Adj );
   void writeRouteWithFec( VrfMplsState& vrfState, MplsRoute& route, L3Adjacency& l3Adj );
   void writeRouteWithMulticast( VrfMplsState& vrfState, MplsRoute& route, L3Adjacency& l3Adj );
   void leaveRouteUnprogrammed( VrfMplsState& vrfState, MplsRoute& route, L3Adjacency& l3Adj );
   bool stayInHardware( VrfMplsState& vrfState, MplsRoute& route );
   void stayWithoutViaSet( VrfMplsState& vrfState, MplsRoute& route );
   void stayWithoutNumber( VrfMplsState& vrfState, MplsRoute& route );
   void takeRouteOut( VrfMplsState& vrfState, MplsRoute& route );
   static void maybeCarry( const VrfMplsState& vrfState, L3Adjacency& l3Adj,
                           const MplsRoute& route );
   static void leaveCarrier( VrfMplsState& vrfState, Mpls::RouteKey routeKey );
   static bool isOfGroup( const L3Adjacency& l3Adj );
   static bool inHardware( const MplsRoute& route );
   static bool inHardwareBy( const MplsRoute& route, const L3Adjacency& l3Adj );
   template< class Test >
   bool someViaIntf( const L3Adjacency& l3Adj, const Test& test ) const;
   /// What processing an adjacency has come to.
   enum class L3AdjOutcome : U32 {
      programmed, ///< as its via set says
      kept,       ///< as it was, since its via set cannot be used
      backedOff   ///< as it was; an event will bring it back
   };
   L3AdjOutcome programL3Adj( VrfMplsState& vrfState, L3Adjacency& l3Adj,
                              const Mpls::LfibViaSet& viaSet );
   L3AdjOutcome programExtFecL3Adj( VrfMplsState& vrfState, L3Adjacency& l3Adj,
                                    const Mpls::LfibViaSet& viaSet );
   L3AdjOutcome programMplsIpL3Adj( VrfMplsState& vrfState, L3Adjacency& l3Adj,
                                    const Mpls::LfibViaSet& viaSet );
   bool followVias( VrfMplsState& vrfState, L3Adjacency& l3Adj );
   void maybeReleaseOutdated( VrfMplsState& vrfState, L3Adjacency& l3Adj );
   void releaseFormerNextHops( VrfMplsState& vrfState, L3Adjacency& l3Adj );
   void supersedeIfChanged( VrfMplsState& vrfState, L3Adjacency& l3Adj,
                            const CachedLFibMplsViaColl& vias );
   static MplsNextHop* useNextHop( VrfMplsState& vrfState, L3Adjacency& l3Adj,
                                   const IpAddrIntfId& key );
   bool hasVias( const L3Adjacency& l3Adj, const CachedLFibMplsViaColl& vias ) const;
   ProgrammableMplsFecVias viasInHardware( const L3Adjacency& l3Adj ) const;
   static std::vector< Mpls::RouteKey > routesInHardware( const VrfMplsState& vrfState,
                                                          const L3Adjacency& l3Adj, bool byIt );
   void carryByFormer( VrfMplsState& vrfState, L3Adjacency& l3Adj,
                       const std::vector< Mpls::RouteKey >& routes );
   static bool someElsewhere( const VrfMplsState& vrfState, const L3Adjacency& l3Adj,
                              const RouteKeyGroup& routes );
   void programL3AdjWithHwConfig( VrfMplsState& vrfState, L3Adjacency& l3Adj,
                                  const Mpls::LfibViaSet& viaSet,
                                  const CachedLFibMplsViaColl& saneVias );
   void releaseVias( VrfMplsState& vrfState, L3Adjacency& l3Adj );
   Fib::FecId newFecId( Fib::AdjType type );
   bool answered( Fib::FecId fecId ) const;
   void maybeReleaseSetAside( Fib::FecId fecId );
   bool rewritesOthers( const VrfMplsState& vrfState, const L3Adjacency& l3Adj,
                        const Mpls::LfibViaSet& viaSet, const CachedLFibMplsViaColl& mplsVias,
                        const ExternalFecInfo& info ) const;
   bool takesOverOthers( const VrfMplsState& vrfState, const L3Adjacency& l3Adj,
                         Fib::FecId fecId ) const;
   bool protectsOthers( const VrfMplsState& vrfState, const L3Adjacency& l3Adj,
                        const ExternalFecInfo& primary ) const;
   bool joins( const MplsRoute& route, const L3Adjacency& l3Adj ) const;
   static bool someJoin( const VrfMplsState& vrfState, const L3Adjacency& l3Adj );
   bool stillUses( Mpls::RouteKey routeKey, const L3Adjacency& l3Adj ) const;
   static void answerIs( ExternalFecInfo& info, const HwFecId& answer );
   static bool isAnswer( const ExternalFecInfo& info, const HwFecId& answer );
   void queueWaitingForFec( VrfMplsState& vrfState, ExternalFecInfo& info );
   void releaseFormerBackups( VrfMplsState& vrfState, ExternalFecInfo& info );
   bool isBehind( const ExternalFecInfo& info ) const;
   bool waitsForFec( VrfMplsState& vrfState, MplsRoute& route, L3Adjacency& l3Adj );
   Fib::FecId getFecIdForRequest( const L3Adjacency& l3Adj, const CachedLFibMplsViaColl& lFibVias,
                                  VrfMplsState& vrfState, bool newFecIdRequired );
   Fib::FecId getBackupFecIdForRequest( const Mpls::LfibViaSet& viaSet,
                                        const VrfMplsState& vrfState ) const;
   Fib::FecId backupFecIdToRequest( const VrfMplsState& vrfState, const L3Adjacency& l3Adj,
                                    const Mpls::LfibViaSet& viaSet, bool popRemoved ) const;
   void processMplsIpL3Adj( VrfMplsState& vrfState, L3Adjacency& l3Adj,
                            const Mpls::LfibViaSet& viaSet,
                            const Ptr< CachedLFibMplsViaColl >& mplsVias );
   static bool shouldRemovePop( const L3Adjacency& l3Adj );
   static bool allPop( const L3Adjacency& backup );
   static void queuePrimaries( VrfMplsState& vrfState, const L3Adjacency& l3Adj );
   static void queuePrimariesOf( VrfMplsState& vrfState, const ExternalFecInfo& info );
   void leaveFecs( VrfMplsState& vrfState, L3Adjacency& l3Adj );
   static bool processRemovePopDependencies( VrfMplsState& vrfState, L3Adjacency& l3Adj );
   void createFecForRequestAndUpdateL3Adj( VrfMplsState& vrfState, L3Adjacency& l3Adj,
                                           const Mpls::LfibViaSet& viaSet,
                                           const CachedLFibMplsViaColl& mplsVias,
                                           Fib::FecId fecId );
   static Fib::Fec fecOf( Fib::FecId fecId, const CachedLFibMplsViaColl& mplsVias, bool popRemoved,
                          Fib::FecId backup );
   ExternalFecInfo& extFecInfoMake( VrfMplsState& vrfState, Fib::FecId fecId );
   void requestHwFecIdAndUpdateDependencyMaps( Fib::FecId fecId, const Fib::Fec& fec4,
                                               const Fib6::Fec& fec6, VrfMplsState& vrfState,
                                               L3Adjacency& l3Adj, Mpls::LfibViaSetKey viaSetKey );
   void recordAdjSyncId( const L3Adjacency& l3Adj, Fib::FecId fecId );
   void bindL3AdjToExtFecInfo( VrfMplsState& vrfState, L3Adjacency& l3Adj,
                               const Ptr< ExternalFecInfo >& info );
   void processHwFecIdResponse( Fib::FecId fecId, VrfMplsState& vrfState );
   void publishViaSetState( const L3Adjacency& l3Adj );
   std::string extFecLFibViaSetFault( const Mpls::LfibViaSet& viaSet,
                                      Mpls::LfibExtFecVia& via ) const;
   void processExtFecL3Adj( VrfMplsState& vrfState, L3Adjacency& l3Adj,
                            const Mpls::LfibViaSet& viaSet, const Mpls::LfibExtFecVia& extFecVia );
   void updateBackupExtInfoForExtFecInfo( VrfMplsState& vrfState, ExternalFecInfo& info,
                                          const Ptr< ExternalFecInfo >& backup );
   Ptr< ExternalFecInfo > extFecBackupOf( const VrfMplsState& vrfState, const ExternalFecInfo& info,
                                          Mpls::LfibViaSetKey viaSetKey ) const;
   std::string backupFault( const VrfMplsState& vrfState, const L3Adjacency& l3Adj,
                            const L3Adjacency& backup ) const;
   BackupAwaits maybeLinkBackupAdj( VrfMplsState& vrfState, L3Adjacency& l3Adj,
                                    Mpls::LfibViaSetKey backupKey );
   void makeBackupAdj( VrfMplsState& vrfState, L3Adjacency& l3Adj, Mpls::LfibViaSetKey backupKey );
   static void linkBackupAdj( L3Adjacency& l3Adj, L3Adjacency& backup );
   static void labelActionIs( L3Adjacency& l3Adj, MplsLabelAction action );
   void waitForBackup( VrfMplsState& vrfState, L3Adjacency& l3Adj, Mpls::LfibViaSetKey backupKey,
                       BackupAwaits awaits );
   void stopWaitingForBackup( VrfMplsState& vrfState, L3Adjacency& l3Adj );
   static void forgetLooksForBackup( L3Adjacency& l3Adj );
   /// What those who wait for a backup are told of its adjacency.
   enum class BackupNews : U32 {
      looked,     ///< it has been reviewed, and is as it was
      programmed, ///< it is as its via set says
      changed     ///< it can protect, or no longer
   };
   void queueWaitingForBackup( VrfMplsState& vrfState, Mpls::LfibViaSetKey backupKey,
                               BackupNews news, bool fecChanged );
   void settleL3Adj( VrfMplsState& vrfState, L3Adjacency& l3Adj );
   static MplsLabel singleMplsLabelFromVia( const Mpls::LfibMplsVia& via );
   static Mpls::Hardware::AdjacencyVia hwViaOf( const Mpls::LfibMplsVia& via );
   static Mpls::LfibMplsVia viaOf( const Mpls::Hardware::AdjacencyVia& hwVia );
   Mpls::Hardware::L2ViaSet writeHwVia( const L3Adjacency& l3Adj, const Mpls::LfibMplsVia& via,
                                        Mpls::Hardware::L2ViaSet l2Vias );
   void bindL3AdjToL2Adj( VrfMplsState& vrfState, L3Adjacency& l3Adj,
                          const Mpls::Hardware::L2ViaSet& l2ViaSet );
   void unbindL3AdjFromL2Adj( VrfMplsState& vrfState, L3Adjacency& l3Adj );
   void releaseNextHop( VrfMplsState& vrfState, L3Adjacency& l3Adj, const IpAddrIntfId& key );
   void unwatchWithRR( const L3::VrfName& vrf, const IpGenAddr& nh );
   void unwatchWithMNHSM( const L3::VrfName& vrf, const MplsNextHop& nextHop );
   void queueL3AdjsForReview( VrfMplsState& vrfState, const HashSet< L3Adjacency* >& l3Adjs );
   void doReviewVrf( const L3::VrfName& vrf );
   void doReviewUnprogrammedRoutes( VrfMplsState& vrfState );
   void retryUnprogrammed( VrfMplsState& vrfState );
   void unprogramRouteIntoFec( const VrfMplsState& vrfState, Mpls::RouteKey routeKey );
   bool retryAdjacencies( VrfMplsState& vrfState, MplsHwVrfStatus& status );
   bool retryRoutes( VrfMplsState& vrfState, MplsHwVrfStatus& status );
   void doPublishRouteKeys( VrfMplsState& vrfState );
   void queueForPublishing( VrfMplsState& vrfState );
   enum class WaysOut { none, some, all };
   WaysOut waysOutOf( const VrfMplsState& vrfState, const MplsRoute& route, bool behind ) const;
   WaysOut waysInHardwareOf( const MplsRoute& route, bool behind ) const;
   WaysOut waysOutOf( const L3Adjacency& l3Adj ) const;
   WaysOut waysOutOf( const ExternalFecInfo& info ) const;
   WaysOut judgeRoute( const VrfMplsState& vrfState, MplsRoute& route, bool behind );
   void judgeL3Adj( VrfMplsState& vrfState, L3Adjacency& l3Adj );
   static void publishRoutesOf( VrfMplsState& vrfState, const L3Adjacency& l3Adj );
   static void publishRoutesProtectedBy( VrfMplsState& vrfState, const ExternalFecInfo& info );
   void runAgainAtOnce( TimerTask& task ) const;

   const MplsSmInputs in_;
   const Ptr< MplsSmCounters > counters_ = make< MplsSmCounters >();
   U64 recoveredVrfId_ = noVrfId;        // under which hardware has what was found in it
   bool syncAnswered_ = false;           // in the stage that waits for it
   bool recoveredFecsToOffer_ = false;   // what waits for FECs may have changed
   HashSet< Fib::FecId > fecsBeingLeft_; // by routes that wait for another one's answer
   size_t viaSetsAwaitedLimit_ = 64;     // from where those that nobody uses are looked for
   U64 lastRouteVersion_ = 0;            // the largest of any route that is gone
   bool walksLfib_ = false;              // over all of its routes
   U64 lastFecVersion_ = 0;              // of all FEC requests
   bool resourceFullOwed_ = false;       // a full message that its limit did not allow
   MplsSmStartupStatus mplsSmStartupStatus_ = MplsSmStartupStatus::mplsSmUnknown;
   Ptr< Mpls::LfibTrackingStatus > lfibTrackingStatus_;
   Ptr< Mpls::LfibTrackingSm > lfibTrackingSm_;
   Ptr< NumAllocator > numAllocator_;
   Ptr< NumAllocator > numAllocatorMcastGroupId_;
   Ptr< const FecIdToHwFecIdRequest > mplsMcastAdjReq_;
   Ptr< const FecIdToHwFecIdResponse > mplsMcastAdjResp_;
   Ptr< TimerTask > vrfTask_;
   Ptr< TimerTask > unprogrammedRouteTask_;
   Ptr< TimerTask > routePublishTask_;
   std::unique_ptr< MplsSmReactors > reactors_;
};

/// Makes the state machine, which starts at once.
VEL_EXPORT Ptr< MplsSm > MplsSmIs( MplsSmInputs inputs ); // NOLINT(readability-identifier-naming)

} // namespace Vel
