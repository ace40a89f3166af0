// The records that MplsSm keeps for each VRF.
//
//    VrfMplsState ──owns──> route            MplsRoute         one label route
//                           l3Adjacency      L3Adjacency       one via set
//                           l2Adjacency      MplsL2Adjacency   one set of resolved vias
//                           mplsNextHop      MplsNextHop       one watched next hop
//                           extFecInfo       ExternalFecInfo   one external or requested FEC
//
//    MplsRoute ──> L3Adjacency ──> MplsL2Adjacency       counted pointers, towards what is shared
//        └────────────────────────────┘ └─> ExternalFecInfo, backup L3Adjacency
//
// Towards what is shared, records hold counted pointers. Back-references (which routes use an
// adjacency, which adjacencies resolve through a next hop) are keys, indices or plain pointers:
// they own nothing, and the operation that ends a reference removes the back-reference in the same
// step.
//
// Invariants
// 1. A route key is in `a.routeKey` exactly while the route is bound to the L3 adjacency `a`.
// 2. `lFibViaSetToL3Adj[ a.lFibViaSetKey ] == a.index` for every live L3 adjacency that is not
//    superseded.
// 3. `a.l2Adjacency == l2` exactly when `a` is in `l2.l3Adjacency`.
// 4. `a` is in `nh.resolvedByRR` or `nh.resolvedByMNH` only while `nh.nextHopInfo` is in
//    `a.nextHop`.
// 5. `b == a.backupAdj` exactly when `a.index` is in `b.primaryAdj`.
// 6. Work sets never name the dead: an index in `l3AdjForReview`, `l2AdjForReview`,
//    `l2AdjPendingForDelete` or `l2AdjVacated` exists.
// 7. A route key is in `a.carriedRouteKey` only while the route is in hardware by `a` and its own
//    adjacency has not written it. A route has one carrier at most.
// 8. `a.index` is in `waitsForBackup[ a.awaitedBackup.viaSetKey ]` exactly while that key is none.

#pragma once

#include <limits>
#include <memory>
#include <string>

#include "mpls/VelMplsValues.h"
#include "platform/containers/RouteKeyGroups.h"
#include "platform/entity/Entity.h"
#include "platform/seams/FecTables.h"
#include "platform/values/LfibTypes.h"

namespace Vel {

class ExternalFecInfo;
class L3Adjacency;
class MplsL2Adjacency;

/// The sane vias of an LFIB via set, copied out of shared memory.
class VEL_EXPORT CachedLFibMplsViaColl : public Entity {
   // clang-format off
   VEL_ENTITY( CachedLFibMplsViaColl )
   VEL_COLLECTION( Ordered, Mpls::LfibViaIndexRange, Mpls::LfibMplsVia, via )
   VEL_ATTRIBUTE_DEFAULT( bool, usableAsPrimaryVias, { true } )
   VEL_ENTITY_END_IN_SOURCE
   // clang-format on
};

/// One label route that the state machine handles.
class VEL_EXPORT MplsRoute : public Entity {
   // clang-format off
   VEL_IN_SLAB( MplsRoute )
   VEL_ENTITY( MplsRoute )
   VEL_ATTRIBUTE( U32, metric )
   VEL_ATTRIBUTE_DEFAULT( bool, unprogrammed, { true } ) // until the driver reports it, nothing is in hardware
   VEL_ATTRIBUTE( bool, isInstalledWithMulticast )
   VEL_ATTRIBUTE( U16, unconfirmedWrites )               // since the driver last had it in hardware; the count ends at 65,535
   VEL_KEY( Mpls::RouteKey, routeKey )
   VEL_ATTRIBUTE_DEFAULT( double, unprogrammedSince, { neverTime } ) // clock time, seconds
   VEL_ATTRIBUTE( Ptr< L3Adjacency >, l3Adj )
   VEL_ATTRIBUTE( Ptr< MplsL2Adjacency >, l2Adj )
   VEL_ATTRIBUTE( Ptr< ExternalFecInfo >, extFecInfo )
   VEL_COUNTER( version ) // one for each MplsHwRoute written
   VEL_ENTITY_END_IN_SOURCE
   // clang-format on

 public:
   explicit MplsRoute( Mpls::RouteKey routeKey );
   ~MplsRoute() override;
   /// Hardware has it, or is to have it, by something.
   bool inHardware() const { return l2Adj_ || extFecInfo_; }
   /// And that is what the adjacency is now.
   bool inHardwareBy( const L3Adjacency& l3Adj ) const;
   /// Hardware has it in the FEC that it is recorded with, which may have no way out.
   bool inFecInHardware() const { return extFecInfo_ && unconfirmedWrites_ == 0; }
   void unconfirmedWritesInc() {
      if ( unconfirmedWrites_ != std::numeric_limits< U16 >::max() ) {
         unconfirmedWritesIs( static_cast< U16 >( unconfirmedWrites_ + 1 ) );
      }
   }
};

/// A next hop that some adjacency resolves through.
class VEL_EXPORT MplsNextHop : public Entity {
   // clang-format off
   VEL_ENTITY( MplsNextHop )
   VEL_KEY( IpAddrIntfId, nextHopInfo )
   VEL_ATTRIBUTE_DEFAULT( double, unresolvedSince, { neverTime } ) // clock time, seconds; never while it is resolved
   VEL_DERIVED( nextHopIp )
   VEL_DERIVED( l3Intf )
   VEL_SET( HashSet, L3Adjacency*, resolvedByRR )  // through the route resolver: vias without an interface
   VEL_SET( HashSet, L3Adjacency*, resolvedByMNH ) // through the proactive ARP watcher: vias with one
   VEL_ENTITY_END_IN_SOURCE
   // clang-format on

 public:
   explicit MplsNextHop( IpAddrIntfId key ) : nextHopInfo_( key ) {}
   const IpGenAddr& nextHopIp() const { return nextHopInfo_.ipGenAddr; }
   const IntfId& l3Intf() const { return nextHopInfo_.l3Intf; }
};

/// A set of resolved L2 vias and who uses it.
class VEL_EXPORT MplsL2Adjacency : public Entity {
   // clang-format off
   VEL_ENTITY( MplsL2Adjacency )
   VEL_KEY( U64, index )
   VEL_ATTRIBUTE_DEFAULT( double, unprogrammedSince, { neverTime } ) // clock time, seconds; never while it is not refused
   VEL_ATTRIBUTE( Mpls::Hardware::L2ViaSet, l2ViaSet )
   VEL_SET( HashSet, L3Adjacency*, l3Adjacency )
   VEL_SET( GroupedRouteKeys, Mpls::RouteKey, routeKey )
   VEL_ENTITY_END_IN_SOURCE
   // clang-format on

 public:
   MplsL2Adjacency( U64 index, std::shared_ptr< RouteKeyLinks > links )
      : index_( index ), routeKey_( std::move( links ) ) {}
};

/// A replication group of one multicast adjacency.
class VEL_EXPORT MulticastGroupInfo : public Entity {
   // clang-format off
   VEL_ENTITY( MulticastGroupInfo )
   VEL_KEY( U16, groupId )
   VEL_ATTRIBUTE( U32, mcastHwId )
   VEL_SET( HashSet, Fib::FecId, fecId )
   VEL_SET( HashSet, Fib::FecId, tearDownFec ) // to be removed once the group no longer uses them
   VEL_ENTITY_END_IN_SOURCE
   // clang-format on

 public:
   MulticastGroupInfo( U16 groupId, U32 mcastHwId )
      : groupId_( groupId ), mcastHwId_( mcastHwId ) {}
};

/// The FEC of one via of a multicast adjacency.
class VEL_EXPORT MulticastFecInfo : public Entity {
   // clang-format off
   VEL_ENTITY( MulticastFecInfo )
   VEL_KEY( Fib::FecId, fecId )
   VEL_ATTRIBUTE( U64, hwId ) // the outlif; 0 until the hardware layer answers
   VEL_SET( HashSet, U16, dependMcastGroupId )
   VEL_ENTITY_END_IN_SOURCE
   // clang-format on

 public:
   explicit MulticastFecInfo( Fib::FecId fecId ) : fecId_( fecId ) {}
};

/// Routes that an adjacency carries for others; leads from the route to the adjacency.
class CarriedGroup : public RouteKeyGroup {
 public:
   CarriedGroup( std::shared_ptr< RouteKeyLinks > links, L3Adjacency& carrier )
      : RouteKeyGroup( std::move( links ) ), carrier_( carrier ) {}
   L3Adjacency& carrier() const { return carrier_; }

 private:
   L3Adjacency& carrier_;
};
template< class K >
using CarriedRouteKeys = CarriedGroup;

/// One via set as it is programmed.
class VEL_EXPORT L3Adjacency : public Entity {
   // clang-format off
   VEL_ENTITY( L3Adjacency )
   VEL_KEY( U64, index )
   VEL_ATTRIBUTE( Mpls::LfibViaSetKey, lFibViaSetKey )
   VEL_ATTRIBUTE( Ptr< ExternalFecInfo >, extFecInfo )
   VEL_ATTRIBUTE( MplsLabelAction, labelAction )
   VEL_ATTRIBUTE( PopForm, popForm )  // none where it does not pop, or where its vias pop in different ways
   VEL_ATTRIBUTE( Mpls::PayloadType, payloadType )
   VEL_ATTRIBUTE( Mpls::TtlMode, ttlMode )
   VEL_ATTRIBUTE( Ptr< MplsL2Adjacency >, l2Adjacency )
   VEL_SET( HashSet, IpAddrIntfId, nextHop )
   VEL_ATTRIBUTE( bool, keepsNextHops ) // of an earlier content, by which routes are still in hardware
   VEL_ATTRIBUTE( Ptr< Mpls::Hardware::L2Adjacency >, hwL2Adjacency )
   VEL_ATTRIBUTE( bool, unprogrammed )
   VEL_ATTRIBUTE( bool, primaryViasDisabled ) // nothing leaves by its own vias
   VEL_ATTRIBUTE( U32, waysOut )              // of its FEC: 0 none, 1 some, 2 all that is meant
   VEL_SET( GroupedRouteKeys, Mpls::RouteKey, routeKey )
   VEL_SET( CarriedRouteKeys, Mpls::RouteKey, carriedRouteKey ) // in hardware by this one until their own adjacency can take them
   VEL_ATTRIBUTE( U64, contentDigest ) // of its via set and vias when it was last processed
   VEL_ATTRIBUTE( U64, contentSameAt ) // how much the LFIB had announced when they were last seen to be the same
   VEL_ATTRIBUTE( bool, outdated )    // what it has, if anything, is not what its via set says now
   VEL_ATTRIBUTE( bool, otherVias )   // outdated, and frames that leave by it do so by other vias
   VEL_ATTRIBUTE( bool, superseded )  // its via set has another content by now; it only carries
   VEL_SET( HashSet, U64, primaryAdj ) // the adjacencies that this one protects
   VEL_ATTRIBUTE( Ptr< L3Adjacency >, backupAdj )
   VEL_ATTRIBUTE( AwaitedBackup, awaitedBackup )
   VEL_COUNTER( poppingPrimarys )      // of those that it protects, how many pop as it does
   VEL_ATTRIBUTE( bool, popsTold )     // what those that it protects were last told: all pop
   VEL_ATTRIBUTE( Ptr< MulticastGroupInfo >, multicastGroupInfo )
   VEL_ENTITY_END_IN_SOURCE
   // clang-format on

 public:
   L3Adjacency( U64 index, std::shared_ptr< RouteKeyLinks > links,
                std::shared_ptr< RouteKeyLinks > carriedLinks );
   ~L3Adjacency() override;
   /// A route, or an adjacency that it protects, needs it.
   bool used() const { return routeKeys() + carriedRouteKeys() + primaryAdjs() != 0; }
   /// Its FEC is a next-hop group's.
   bool isOfGroup() const;
   Mpls::LfibViaSetKey backupAwaited() const { return awaitedBackup_.viaSetKey; }
};

/// The adjacencies whose awaited backup is made of one via set.
class VEL_EXPORT BackupWait : public Entity {
   // clang-format off
   VEL_ENTITY( BackupWait )
   VEL_KEY( Mpls::LfibViaSetKey, viaSetKey )
   VEL_SET( HashSet, U64, l3Adjacency )
   VEL_ENTITY_END_IN_SOURCE
   // clang-format on

 public:
   explicit BackupWait( Mpls::LfibViaSetKey viaSetKey ) : viaSetKey_( viaSetKey ) {}
};

/// A FEC that routes or adjacencies forward into.
class VEL_EXPORT ExternalFecInfo : public Entity {
   // clang-format off
   VEL_ENTITY( ExternalFecInfo )
   VEL_KEY( Fib::FecId, fecId )
   VEL_ATTRIBUTE( U64, hwId ) // what the hardware layer granted; 0 until then
   VEL_ATTRIBUTE( U64, carriedOut )       // the version of the request that stands behind it
   VEL_ATTRIBUTE( AdjSyncId, syncId )     // what it was before a restart, with the routes of that time
   VEL_ATTRIBUTE( bool, joinersWait )     // until hardware has carried out what is requested now
   VEL_ATTRIBUTE( bool, publishedBehind ) // some of its routes, while that was not so
   VEL_SET( HashSet, L3Adjacency*, dependentL3Adjacency )
   VEL_SET( HashSet, ExternalFecInfo*, dependentPrimaryExtFecInfo ) // those that this one protects
   VEL_ATTRIBUTE( Ptr< ExternalFecInfo >, backupExtFecInfo )
   VEL_SET( HashSet, ExternalFecInfo*, formerBackup ) // that hardware may still use, until it has what is requested
   VEL_SET( GroupedRouteKeys, Mpls::RouteKey, dependentRouteKey )
   VEL_ATTRIBUTE( Mpls::LfibViaSetKey, lFibViaSetKey )
   VEL_ATTRIBUTE( AdjHwState, adjState )
   VEL_ATTRIBUTE( VrfId, adjStateVrfId ) // the number under which that was reported
   VEL_ATTRIBUTE( bool, popLabelActionRemoved )
   VEL_ATTRIBUTE( bool, shouldRemovePopLabelAction )
   VEL_ENTITY_END_IN_SOURCE
   // clang-format on

 public:
   ExternalFecInfo( Fib::FecId fecId, std::shared_ptr< RouteKeyLinks > links )
      : fecId_( fecId ), dependentRouteKey_( std::move( links ) ) {}
   void answerIs( const HwFecId& answer ) {
      hwIdIs( answer.hwId );
      carriedOutIs( answer.version );
      syncIdIs( answer.syncId );
   }
   bool isAnswer( const HwFecId& answer ) const {
      return answer == HwFecId{ hwId_, carriedOut_, syncId_ };
   }
};

inline bool L3Adjacency::isOfGroup() const {
   return extFecInfo_ && extFecInfo_->fecId().adjType() == Fib::AdjType::nexthopGroupAdj;
}

inline bool MplsRoute::inHardwareBy( const L3Adjacency& l3Adj ) const {
   return extFecInfo_ ? extFecInfo_ == l3Adj.extFecInfo()
                      : l2Adj_ && l2Adj_ == l3Adj.l2Adjacency() && !l3Adj.extFecInfo();
}

/// Everything that the state machine holds for one VRF.
class VEL_EXPORT VrfMplsState : public Entity {
   // clang-format off
   VEL_ENTITY( VrfMplsState )
   VEL_KEY( L3::VrfName, vrfName )
   VEL_ENTITY_COLLECTION( LabelIndexed, Mpls::RouteKey, MplsRoute, route )
   VEL_ENTITY_COLLECTION( Hash, IpAddrIntfId, MplsNextHop, mplsNextHop )
   VEL_ENTITY_COLLECTION( Hash, U64, L3Adjacency, l3Adjacency )
   VEL_ENTITY_COLLECTION( Hash, U64, MplsL2Adjacency, l2Adjacency )
   VEL_ENTITY_COLLECTION( Hash, Fib::FecId, ExternalFecInfo, extFecInfo )
   VEL_COLLECTION( Hash, Mpls::LfibViaSetKey, U64, lFibViaSetToL3Adj )
   VEL_COLLECTION( Hash, Mpls::LfibViaSetKey, Fib::FecId, lFibViaSetToFecId )
   VEL_COLLECTION( Hash, Mpls::LfibViaKey, Fib::FecId, viaKeyToFecId )
   VEL_SET( LabelSet, Mpls::RouteKey, routeKeyForPublish )
   VEL_SET( LabelSet, Mpls::RouteKey, routeKeyForReview )
   VEL_COLLECTION( Hash, U64, L3AdjReview, l3AdjForReview )
   VEL_SET( HashSet, U64, l2AdjForReview )
   VEL_SET( HashSet, U64, l2AdjPendingForDelete ) // until their last route has left
   VEL_SET( HashSet, U64, l2AdjVacated )          // of those, where it has
   VEL_COUNTER( numUnprogrammedRoute )
   VEL_COUNTER( numUnprogrammedAdj )
   VEL_ATTRIBUTE( double, lastUnprogrammedReview ) // clock time, seconds
   VEL_COUNTER( vrfReviewCount )
   VEL_COUNTER( routeKeyReviewed )
   VEL_COUNTER( routeKeyPublished )
   VEL_COUNTER( l3AdjReviewed )
   VEL_COUNTER( l2AdjReviewed )
   VEL_COUNTER( l2AdjDeleted )
   VEL_COUNTER( unprogRouteRetried )
   VEL_COUNTER( unprogAdjRetried )
   VEL_ATTRIBUTE( double, unprogrammedRetryInterval ) // seconds
   VEL_ATTRIBUTE( bool, retryRoutesFirst )            // the last retry was cut short with the adjacencies first
   VEL_SET( HashSet, U64, adjRetried )                // of the round of retries that is under way
   VEL_ENTITY_COLLECTION( Hash, Fib::FecId, MulticastFecInfo, mcastFecInfo )
   VEL_ENTITY_COLLECTION( Hash, U16, MulticastGroupInfo, multicastGroupInfo )
   VEL_ENTITY_COLLECTION( Hash, Mpls::LfibViaSetKey, BackupWait, waitsForBackup )
   VEL_COLLECTION( Hash, U32, U16, mcastHwIdToGroup )
   VEL_ATTRIBUTE_DEFAULT( U64, writtenVrfId, { noVrfId } ) // the number under which things are written, also while it is lost
   VEL_DERIVED( needReview )
   VEL_DERIVED( needReviewForUnprogrammedOnly )
   VEL_ENTITY_END_IN_SOURCE
   // clang-format on

 public:
   explicit VrfMplsState( L3::VrfName vrf );
   ~VrfMplsState() override;

   /// Anything is queued, or some route is not in hardware.
   bool needReview() const { return anythingQueued() || numUnprogrammedRoute_ != 0; }
   /// Nothing is queued, but some route is not in hardware.
   bool needReviewForUnprogrammedOnly() const {
      return !anythingQueued() && numUnprogrammedRoute_ != 0;
   }
   /// Nothing is left that a VRF's state is kept for.
   bool idle() const;

   /// The adjacency is queued to be programmed, whatever for.
   bool isAdjPendingForReview( U64 index ) const {
      return l3AdjForReview( index ) > L3AdjReview::routeLeft;
   }
   /// A route has left the adjacency, which may go; whatever else it is queued for counts for more.
   void l3AdjLeftIs( U64 index ) {
      if ( !l3AdjForReviewHas( index ) ) {
         l3AdjForReviewIs( index, L3AdjReview::routeLeft );
      }
   }
   /// By which adjacency a route is in hardware that its own cannot take yet; else null.
   L3Adjacency* carrierOf( Mpls::RouteKey routeKey ) const {
      const RouteKeyGroup* const group = carriedRoutes_->groupOf( routeKey );
      return group ? &static_cast< const CarriedGroup* >( group )->carrier() : nullptr;
   }

   /// Records are made through these, since a record's route key set belongs to the VRF's relation.
   L3Adjacency* l3AdjacencyMake( U64 index ) {
      return l3AdjacencyIs( index, routesOfL3Adj_, carriedRoutes_ );
   }
   MplsL2Adjacency* l2AdjacencyMake( U64 index ) { return l2AdjacencyIs( index, routesOfL2Adj_ ); }
   ExternalFecInfo* extFecInfoMake( Fib::FecId fecId ) {
      return extFecInfoIs( fecId, routesOfExtFec_ );
   }

 private:
   bool anythingQueued() const {
      return !routeKeyForPublish_.empty() || !routeKeyForReview_.empty() ||
             !l3AdjForReview_.empty() || !l2AdjForReview_.empty() || !l2AdjVacated_.empty();
   }

   std::shared_ptr< RouteKeyLinks > routesOfL3Adj_;
   std::shared_ptr< RouteKeyLinks > carriedRoutes_;
   std::shared_ptr< RouteKeyLinks > routesOfL2Adj_;
   std::shared_ptr< RouteKeyLinks > routesOfExtFec_;
};

} // namespace Vel
