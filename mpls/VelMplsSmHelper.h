// Small entities around MplsSm: what the platform supplies beside entities, and the start-up's
// records.

#pragma once

#include <string>

#include "mpls/VelMplsHwTypes.h"
#include "platform/seams/FecTables.h"
#include "platform/services/Clock.h"

namespace Vel {

/// The stages of a start. They only move forward.
enum class MplsSmStartupStatus : U32 {
   mplsSmUnknown = 0,
   mplsSmUninitialized = 1,           ///< waiting for the inputs
   mplsSmProcessingSyncMap = 2,       ///< replaying the routes that survived a restart
   mplsSmWaitingForSyncResponses = 3, ///< the hardware layer matches what was requested
   mplsSmNormal = 4,
};
template<>
struct EnumNames< MplsSmStartupStatus > {
   static constexpr std::array< std::pair< MplsSmStartupStatus, std::string_view >, 5 > names{
      { { MplsSmStartupStatus::mplsSmUnknown, "mplsSmUnknown" },
        { MplsSmStartupStatus::mplsSmUninitialized, "mplsSmUninitialized" },
        { MplsSmStartupStatus::mplsSmProcessingSyncMap, "mplsSmProcessingSyncMap" },
        { MplsSmStartupStatus::mplsSmWaitingForSyncResponses, "mplsSmWaitingForSyncResponses" },
        { MplsSmStartupStatus::mplsSmNormal, "mplsSmNormal" } } };
};

/// Whether what a start with non-stop forwarding waits for is there.
enum class MplsSmInputStatus : U32 {
   mplsSmInputUnknown = 0,
   mplsSmInputNotReady = 1,
   mplsSmInputReady = 2,
};
template<>
struct EnumNames< MplsSmInputStatus > {
   static constexpr std::array< std::pair< MplsSmInputStatus, std::string_view >, 3 > names{
      { { MplsSmInputStatus::mplsSmInputUnknown, "mplsSmInputUnknown" },
        { MplsSmInputStatus::mplsSmInputNotReady, "mplsSmInputNotReady" },
        { MplsSmInputStatus::mplsSmInputReady, "mplsSmInputReady" } } };
};

/// The summary readiness of the inputs.
class VEL_EXPORT MplsSmInputSummary : public WatchedEntity {
 public:
   class Reactor : public ReactorOf< MplsSmInputSummary > {
    public:
      virtual void onStatus() {}
   };

   // clang-format off
   VEL_ENTITY( MplsSmInputSummary )
   VEL_ATTRIBUTE( MplsSmInputStatus, status, onStatus )
   VEL_ENTITY_END_IN_SOURCE
   // clang-format on
};

/// How long each stage of the start took.
class VEL_EXPORT MplsSmStartupRecord : public WatchedEntity {
 public:
   class Reactor : public ReactorOf< MplsSmStartupRecord > {};

   // clang-format off
   VEL_ENTITY( MplsSmStartupRecord )
   VEL_KEY( std::string, recordName )
   VEL_ATTRIBUTE( MplsSmStartupStatus, lastStage )
   VEL_ATTRIBUTE( double, lastStageTime )                              // clock time, seconds
   VEL_COLLECTION( Ordered, MplsSmStartupStatus, double, timeTaken )   // seconds that a stage lasted
   VEL_ENTITY_END_IN_SOURCE
   // clang-format on

 public:
   MplsSmStartupRecord( std::string name, Ptr< const Clock > clock )
      : recordName_( std::move( name ) ), clock_( std::move( clock ) ) {}
   /// Empties the record and starts it afresh, now.
   void clearAndInitialize();
   /// Notes that a stage begins. A stage that is not later than the last one is traced and not
   /// recorded.
   void updateMplsSmStartupRecord( MplsSmStartupStatus newStage );

 private:
   Ptr< const Clock > clock_;
};

Ptr< MplsSmInputSummary > VEL_EXPORT mplsSmInputSummaryFactory();
Ptr< MplsSmStartupRecord > VEL_EXPORT mplsSmStartupRecordFactory( std::string name,
                                                                  Ptr< const Clock > clock );

} // namespace Vel

namespace VelHelper {

using Vel::Ptr;
using Vel::U32;
using Vel::U64;

/// The routes that were programmed before a restart, each with its adjacency sync id. Written by
/// the hardware layer.
///
/// Once `ready` is true the map does not change and `ready` stays; both are asserted.
class VEL_EXPORT MplsRouteSyncMap : public Vel::WatchedEntity {
 public:
   class Reactor : public Vel::ReactorOf< MplsRouteSyncMap > {
    public:
      virtual void onReady() {}
   };

   // clang-format off
   VEL_ENTITY( MplsRouteSyncMap )
   VEL_DERIVED( ready )
   VEL_ATTRIBUTE_DEFAULT( U64, vrfId, { Vel::noVrfId } ) // the number under which hardware has them, when it knows
   VEL_VISIT_( adjSyncId, ::Vel::visitCollection )
   VEL_ENTITY_END_IN_SOURCE
   // clang-format on

 public:
   const auto& adjSyncId() const { return adjSyncId_; }
   Vel::AdjSyncId adjSyncId( Mpls::RouteKey key ) const { return adjSyncId_.lookup( key ); }
   bool adjSyncIdHas( Mpls::RouteKey key ) const { return adjSyncId_.has( key ); }
   size_t adjSyncIds() const { return adjSyncId_.size(); }
   void adjSyncIdIs( Mpls::RouteKey key, Vel::AdjSyncId syncId );
   void adjSyncIdDel( Mpls::RouteKey key );
   bool ready() const { return ready_; }
   void readyIs( bool ready );

 private:
   void assertNotReady() const;

   Vel::LabelIndexed< Mpls::RouteKey, Vel::AdjSyncId > adjSyncId_;
   bool ready_ = false;
};
Ptr< MplsRouteSyncMap > VEL_EXPORT mplsRouteSyncMapFactory();

/// What the platform supplies to label forwarding that is not an entity write. A driver derives
/// from it. VRFs are named by the number that their configuration has as well: a route goes under
/// the number that it was written with, whatever the VRF's number is by then.
class VEL_EXPORT MplsSmHelper : public Vel::Entity {
 public:
   /// The hardware id that stands for no multicast group.
   virtual U32 multicastIdNull() const = 0;
   /// The feature flag of multicast group requests.
   virtual U32 mcastFeatureFlag() const = 0;
   /// The most members that a replication group can have.
   virtual U32 maxReplicationSize() const = 0;
   /// Points a route at a hardware FEC. The label action is `pop` where the FEC does not pop
   /// itself.
   virtual Vel::UnprogrammedReason createOrUpdateRoute( Vel::VrfId vrfId, Mpls::RouteKey key,
                                                        U64 hwFecId, Vel::MplsLabelAction action,
                                                        Mpls::PayloadType payloadType,
                                                        Mpls::TtlMode ttlMode ) = 0;
   /// Points a route at a multicast group.
   virtual Vel::UnprogrammedReason updateRoute( Vel::VrfId vrfId, Mpls::RouteKey key,
                                                U32 mcastHwId ) = 0;
   /// Takes a route out of hardware, also one that an earlier process programmed.
   virtual void deleteRoute( Vel::VrfId vrfId, Mpls::RouteKey key ) = 0;
};

} // namespace VelHelper
