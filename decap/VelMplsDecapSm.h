// MplsDecapSm: programs the labels that end here, through a decap helper.
//
// Purpose. A label route whose via does not lead to a next hop pops its label and hands the payload
// to an IP look-up in a VRF, or into a VLAN: plain, EVPN flood, EVPN VLAN-aware and VLAN-aware flood
// (by the payload's 802.1Q tag). For each the machine asks the helper to create one label mapping,
// remembers what it asked for, and lists what the helper refused. It runs beside MplsSm, which
// ignores these via types as this machine ignores those of transit.
//
//    LFIB ──> LfibTrackingSm ──> routeKeyBacklog ──> processRouteKey ──> VelHelper::MplsDecapHelper
//                                      ▲    ▲              │                  │ return code
//    Dot1qTagToVlan maps ──────────────┘    │              ▼                  ▼
//       (a tag: at once)                    │         routeViaType,      unprogrammedRoute ──> retry
//    RouteStatus: vrfStatus (at once)       │         route...Via        in Mpls::LfibHwStatus  every
//                                     unreadRoute (after a second)                              5 s
//
// Inputs (entity: attributes)
//    Mpls::LfibStatus                routes, via sets, vias, dot1qTagToVlanColl
//    Mpls::LfibTrackingStatus        routeKeyBacklog: what has changed; each key is deleted when handled
//    Routing::Hardware::RouteStatus  vrfStatus: a change has the VRF's routes programmed again
// Outputs
//    VelHelper::MplsDecapHelper      creates and deletes that pair, and doEndOfSync once
//    Mpls::LfibHwStatus              unprogrammedRoute, with the helper's reason
//
// How it works. A route is processed by taking its mapping down and creating it again from the LFIB;
// a mapping is never edited. It is taken down only when it is known what the LFIB says now: a route,
// via set or via that cannot be read leaves everything as it is and is looked at again after a
// second. What the LFIB names first and holds later works when it comes, since its arrival brings
// the route back to the backlog; a map that goes leaves its routes without tags.
//
// States of a route          return code   kept in
//    programmed              0             routeViaType and the map of its via type
//    refused                 1 to 3        unprogrammedRoute; a VLAN-aware one also as programmed
//    not for this hardware   above 3       nothing; `codesIgnored` counts
//    unread                                as before, and unreadRoute
//
// A normal life:
//    LFIB writes K          K on the backlog, the task is scheduled
//    processRouteKey( K )   helper: createLabelToVrfMapping( K, red ) -> 3, VRF red is not there
//                           unprogrammedRoute[ K ] with reason 3; doEndOfSync
//    vrfStatus( red )       processRouteKey( K ): create -> 0, programmed
//    LFIB removes K         K on the backlog; deleteLabelToVrfMapping( K, red )
//
// Two routes with the same top label share one mapping, and the one that was created last has it.
// When one of them ends, the other is processed.
//
// Yield points: after each route of the backlog, of the retry and of what could not be read.
// Ownership: holds its inputs, and the indexes; references no record of others.
// Invariants: a route is in at most one of the five via maps, the one of its `routeViaType`; an
// IP-lookup route that is programmed is in the VrfRouteKeySet of its VRF, a refused one in
// `vrfUnprogrammedRouteKeySet`; the two indexes of VLAN-aware routes mirror each other.
// Cost: five label-indexed accesses, three look-ups in the LFIB and two calls of the helper a route;
// about 140 bytes a programmed IP-lookup route. A VRF's change costs its routes, a tag's change the
// routes of its map.

#pragma once

#include <memory>
#include <set>
#include <vector>

#include "decap/VelMplsDecapHelper.h"
#include "platform/entity/ReadOnly.h"
#include "platform/lfib/LfibTracking.h"
#include "platform/seams/HwMplsStatus.h"
#include "platform/seams/RoutingStatus.h"
#include "platform/services/Scheduler.h"

namespace Vel {

/// IP-lookup routes that pop into one VRF.
class VEL_EXPORT VrfRouteKeySet : public Entity {
   // clang-format off
   VEL_ENTITY( VrfRouteKeySet )
   VEL_KEY( L3::VrfName, vrfName )
   VEL_SET( HashSet, Mpls::RouteKey, routeKeySet )
   VEL_ENTITY_END_IN_SOURCE
   // clang-format on

 public:
   explicit VrfRouteKeySet( L3::VrfName vrfName ) : vrfName_( vrfName ) {}
};

/// VLAN-aware routes that use one map from 802.1Q tag to VLAN.
class VEL_EXPORT VlanAwareDot1qTagVlanRouteKeySet : public Entity {
   // clang-format off
   VEL_ENTITY( VlanAwareDot1qTagVlanRouteKeySet )
   VEL_KEY( Mpls::LfibDot1qTagToVlanKey, dot1qTagToVlanKey )
   VEL_SET( HashSet, Mpls::RouteKey, routeKeySet )
   VEL_ENTITY_END_IN_SOURCE
   // clang-format on

 public:
   explicit VlanAwareDot1qTagVlanRouteKeySet( Mpls::LfibDot1qTagToVlanKey key )
      : dot1qTagToVlanKey_( key ) {}
};

/// The tags of one VLAN-aware route that are programmed, each with the VLAN that it leads to.
class VEL_EXPORT VlanAwareProgrammedRouteSet : public Entity {
   // clang-format off
   VEL_ENTITY( VlanAwareProgrammedRouteSet )
   VEL_KEY( Mpls::RouteKey, routeKey )
   VEL_COLLECTION( Ordered, Bridging::VlanId, Bridging::VlanIdOrNone, dot1qTagToVlanId )
   VEL_ENTITY_END_IN_SOURCE
   // clang-format on

 public:
   explicit VlanAwareProgrammedRouteSet( Mpls::RouteKey routeKey ) : routeKey_( routeKey ) {}
};

/// The state machine of labels that end here.
class VEL_EXPORT MplsDecapSm : public Entity {
   // clang-format off
   VEL_ENTITY( MplsDecapSm )
   VEL_ATTRIBUTE( bool, initialized )
   VEL_ATTRIBUTE( bool, endOfSync )                                             // the helper has been told
   VEL_ATTRIBUTE_DEFAULT( double, defaultUnprogrammedRetryInterval, { 5.0 } )   // seconds
   VEL_COLLECTION( LabelIndexed, Mpls::RouteKey, Mpls::LfibViaType, routeViaType ) // of what is programmed
   VEL_COLLECTION( LabelIndexed, Mpls::RouteKey, Mpls::LfibIpLookupVia, routeIpLookupVia )
   VEL_COLLECTION( LabelIndexed, Mpls::RouteKey, Mpls::LfibVlanVia, routeVlanVia )
   VEL_COLLECTION( LabelIndexed, Mpls::RouteKey, Mpls::LfibEvpnVlanFloodVia, routeEvpnVlanFloodVia )
   VEL_COLLECTION( LabelIndexed, Mpls::RouteKey, Mpls::LfibEvpnVlanAwareVia, routeEvpnVlanAwareVia )
   VEL_COLLECTION( LabelIndexed, Mpls::RouteKey, Mpls::LfibEvpnVlanAwareFloodVia, routeEvpnVlanAwareFloodVia )
   VEL_ENTITY_COLLECTION( Hash, L3::VrfName, VrfRouteKeySet, vrfRouteKeySet )
   VEL_ENTITY_COLLECTION( Hash, L3::VrfName, VrfRouteKeySet, vrfUnprogrammedRouteKeySet )
   VEL_COLLECTION( LabelIndexed, Mpls::RouteKey, L3::VrfName, unprogrammedVrf ) // the other way round
   VEL_COLLECTION( Hash, Mpls::RouteKey, Mpls::LfibDot1qTagToVlanKey, vlanAwareRouteKeyToDot1qTagVlanKey )
   VEL_ENTITY_COLLECTION( Hash, Mpls::LfibDot1qTagToVlanKey, VlanAwareDot1qTagVlanRouteKeySet, vlanAwareDot1qTagVlanToRouteKeySet )
   VEL_ENTITY_COLLECTION( Hash, Mpls::RouteKey, VlanAwareProgrammedRouteSet, vlanAwareRouteKeyToDot1qTagVlanProgrammed )
   VEL_SET( LabelSet, Mpls::RouteKey, unprogrammedRoute )                       // listed by this machine
   VEL_SET( LabelSet, Mpls::RouteKey, unreadRoute )                             // to be looked at again
   VEL_DERIVED( dot1qTagToVlanColls )                                           // maps that are followed
   VEL_READ_ONLY( Ptr< TimerTask >, reviewRouteKeyBacklog )
   VEL_READ_ONLY( Ptr< TimerTask >, reviewUnprogrammed )
   VEL_READ_ONLY( Ptr< TimerTask >, unreadTask )
   VEL_COUNTER( routesProcessed )
   VEL_COUNTER( mappingsCreated )                                               // a tag counts by itself
   VEL_COUNTER( mappingsDeleted )
   VEL_COUNTER( mappingsRefused )                                               // codes 1 to 3
   VEL_COUNTER( codesIgnored )                                                  // codes above 3
   VEL_COUNTER( lfibUnread )                                                    // times that the LFIB could not be read
   VEL_ENTITY_END_IN_SOURCE
   // clang-format on

 public:
   MplsDecapSm( Ptr< VelHelper::MplsDecapHelper > mplsDecapHelper,
                Ptr< const Mpls::LfibStatus > lfibStatus, Ptr< Scheduler > scheduler,
                Ptr< Mpls::LfibTrackingStatus > lfibTrackingStatus,
                Ptr< Mpls::LfibHwStatus > lfibHwStatus,
                Ptr< const Routing::Hardware::RouteStatus > routeStatus );
   ~MplsDecapSm() override;
   std::string name() const override { return "mplsDecapSm"; }

   const Ptr< VelHelper::MplsDecapHelper >& mplsDecapHelper() const { return helper_; }
   const Ptr< const Mpls::LfibStatus >& lfibStatus() const { return lfib_; }
   const Ptr< Scheduler >& scheduler() const { return scheduler_; }
   const Ptr< Mpls::LfibTrackingStatus >& lfibTrackingStatus() const { return tracking_; }
   const Ptr< Mpls::LfibHwStatus >& lfibHwStatus() const { return lfibHwStatus_; }
   size_t dot1qTagToVlanColls() const;

   /// Starts the machine; what stands on the backlog is programmed, and then the helper hears of the
   /// end of sync. To be called once, when the LFIB's initial contents are announced.
   void handleInitialized();

   // --- What the reactors call

   void handleRouteKeyBacklog();
   void handleVrfStatus( L3::VrfName vrfName );
   /// A map has come, or gone.
   void handleDot1qTagToVlanColl( Mpls::LfibDot1qTagToVlanKey key );
   /// One entry of a map has come, changed or gone.
   void handleDot1qTagToVlan( Mpls::LfibDot1qTagToVlanKey key, Bridging::VlanId dot1qTag );

 private:
   class Reactors;
   using ReturnCode = Mpls::LfibHwProgrammingReturnCode;

   // Tasks.
   VEL_HIDDEN void doReviewRouteKeyBacklog();
   VEL_HIDDEN void doReviewUnprogrammed();
   VEL_HIDDEN void handleUnread();

   // Steps.
   VEL_HIDDEN void processRouteKey( Mpls::RouteKey routeKey );
   /// Takes down what is programmed for the route.
   VEL_HIDDEN void deleteRoute( Mpls::RouteKey routeKey );
   VEL_HIDDEN void processRouteKeyBacklog( Mpls::RouteKey routeKey );
   VEL_HIDDEN void processViaSet( Mpls::RouteKey routeKey, const Mpls::LfibViaSet& viaSet );
   VEL_HIDDEN void processIpLookupVia( Mpls::RouteKey routeKey, Mpls::LfibViaKey viaKey );
   VEL_HIDDEN void processVlanVia( Mpls::RouteKey routeKey, Mpls::LfibViaKey viaKey );
   VEL_HIDDEN void processEvpnVlanFloodVia( Mpls::RouteKey routeKey, Mpls::LfibViaKey viaKey );
   VEL_HIDDEN void processEvpnVlanAwareVia( Mpls::RouteKey routeKey, Mpls::LfibViaKey viaKey );
   VEL_HIDDEN void processEvpnVlanAwareFloodVia( Mpls::RouteKey routeKey, Mpls::LfibViaKey viaKey );
   template< class Via >
   void processVia( Mpls::RouteKey routeKey, Mpls::LfibViaKey viaKey, const Via& via,
                    void ( MplsDecapSm::*create )( Mpls::RouteKey, const Via& ) );

   VEL_HIDDEN void createIpLookupVia( Mpls::RouteKey routeKey, const Mpls::LfibIpLookupVia& via );
   VEL_HIDDEN void createVlanVia( Mpls::RouteKey routeKey, const Mpls::LfibVlanVia& via );
   VEL_HIDDEN void createEvpnVlanFloodVia( Mpls::RouteKey routeKey,
                                           const Mpls::LfibEvpnVlanFloodVia& via );
   VEL_HIDDEN void createEvpnVlanAwareVia( Mpls::RouteKey routeKey,
                                           const Mpls::LfibEvpnVlanAwareVia& via );
   VEL_HIDDEN void createEvpnVlanAwareFloodVia( Mpls::RouteKey routeKey,
                                                const Mpls::LfibEvpnVlanAwareFloodVia& via );
   VEL_HIDDEN void deleteIpLookupVia( Mpls::RouteKey routeKey );
   VEL_HIDDEN void deleteVlanVia( Mpls::RouteKey routeKey );
   VEL_HIDDEN void deleteEvpnVlanFloodVia( Mpls::RouteKey routeKey );
   VEL_HIDDEN void deleteEvpnVlanAwareVia( Mpls::RouteKey routeKey );
   VEL_HIDDEN void deleteEvpnVlanAwareFloodVia( Mpls::RouteKey routeKey );
   template< class Via >
   void deleting( Mpls::RouteKey routeKey, const Via* via ) const;
   /// Counts what the helper answered; true for success, false after listing what is tried again.
   VEL_HIDDEN bool programmed( Mpls::RouteKey routeKey, ReturnCode rc );

   VEL_HIDDEN void recordViaType( Mpls::RouteKey routeKey, Mpls::LfibViaType viaType );
   VEL_HIDDEN void forgetViaType( Mpls::RouteKey routeKey );
   VEL_HIDDEN void vlanAwareIs( Mpls::RouteKey routeKey, Mpls::LfibDot1qTagToVlanKey key,
                                bool flood );
   VEL_HIDDEN void vlanAwareDel( Mpls::RouteKey routeKey, bool flood );
   VEL_HIDDEN void dot1qTagIs( Mpls::RouteKey routeKey, Bridging::VlanId dot1qTag,
                               Bridging::VlanIdOrNone vlanId, bool flood );
   VEL_HIDDEN void dot1qTagDel( Mpls::RouteKey routeKey, Bridging::VlanId dot1qTag, bool flood );
   VEL_HIDDEN void processDot1qTagToVlan( Mpls::LfibDot1qTagToVlanKey key, bool create );
   VEL_HIDDEN std::vector< Mpls::RouteKey > routesOfMap( Mpls::LfibDot1qTagToVlanKey key ) const;

   VEL_HIDDEN void addRouteToUnprogrammed( Mpls::RouteKey routeKey, ReturnCode rc );
   VEL_HIDDEN void deleteRouteFromUnprogrammed( Mpls::RouteKey routeKey );
   VEL_HIDDEN void doEndOfSync();
   VEL_HIDDEN void maybeScheduleUnprogrammedReview();
   VEL_HIDDEN void keepUnread( Mpls::RouteKey routeKey );
   VEL_HIDDEN void queueOthersOfLabel( Mpls::RouteKey routeKey );

   Ptr< VelHelper::MplsDecapHelper > helper_;
   Ptr< const Mpls::LfibStatus > lfib_;
   Ptr< Scheduler > scheduler_;
   Ptr< Mpls::LfibTrackingStatus > tracking_;
   Ptr< Mpls::LfibHwStatus > lfibHwStatus_;
   Ptr< const Routing::Hardware::RouteStatus > routeStatus_;
   Hash< U32, std::set< Mpls::RouteKey > > deeperRoutes_; // programmed, by their top label
   std::unique_ptr< Reactors > reactors_;
};

/// Makes the machine; it is inert until `handleInitialized`.
Ptr< MplsDecapSm > // NOLINTNEXTLINE(readability-identifier-naming)
   VEL_EXPORT MplsDecapSmIs( Ptr< VelHelper::MplsDecapHelper > helper,
                             Ptr< const Mpls::LfibStatus > lfibStatus, Ptr< Scheduler > scheduler,
                             Ptr< Mpls::LfibTrackingStatus > lfibTrackingStatus,
                             Ptr< Mpls::LfibHwStatus > lfibHwStatus,
                             Ptr< const Routing::Hardware::RouteStatus > routeStatus );
Ptr< MplsDecapSm > VEL_EXPORT mplsDecapSmFactory(
   Ptr< VelHelper::MplsDecapHelper > helper, Ptr< const Mpls::LfibStatus > lfibStatus,
   Ptr< Scheduler > scheduler, Ptr< Mpls::LfibTrackingStatus > lfibTrackingStatus,
   Ptr< Mpls::LfibHwStatus > lfibHwStatus,
   Ptr< const Routing::Hardware::RouteStatus > routeStatus );

} // namespace Vel
