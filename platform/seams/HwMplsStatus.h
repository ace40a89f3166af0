// The hardware MPLS status and the LFIB's hardware status: what other agents read of programmed
// label forwarding.
//
// `Mpls::Hardware::Status` holds the adjacencies and the published routes; `Mpls::LfibHwStatus`
// says for each published route whether it made it into hardware. `Mpls::Hardware::L2Adjacency` is
// also what the driver is given to program.

#pragma once

#include <compare>
#include <cstdint>
#include <string>
#include <vector>

#include "platform/entity/Entity.h"
#include "platform/values/LfibTypes.h"

namespace Mpls {

namespace Hardware {

/// One resolved way out: where the frame goes, and what happens to its label on the way. Two vias
/// that differ only in the outgoing label are two vias.
struct L2Via {
   Bridging::VlanId vlanId = 0; ///< 0: untagged
   IntfId intf;                 ///< the L2 interface
   Vel::MacAddr macAddr;        ///< the next hop's
   MplsLabelAction labelAction = MplsLabelAction::none;
   PayloadType payloadType = PayloadType::undefined; ///< with a pop
   TtlMode ttlMode = TtlMode::undefined;             ///< with a pop
   LabelStack labelStack;                            ///< outgoing labels, top first

   VEL_EXPORT U64 hash() const;
   friend auto operator<=>( const L2Via&, const L2Via& ) = default;
};
VEL_EXPORT void appendText( std::string& out, const L2Via& via );

/// An ordered set of L2 vias; equal ways out collapse.
///
/// A value whose copies share what they hold until one of them is changed: the same set stands in
/// the records, in the entities, in the driver's queue and in its tables. One thread.
class VEL_EXPORT L2ViaSet {
 public:
   L2ViaSet() = default;
   explicit L2ViaSet( std::vector< L2Via > vias );

   /// Adds the via; true when it was not there.
   bool l2ViaIs( const L2Via& via );
   const std::vector< L2Via >& l2Via() const { return shared_ ? shared_->vias : none_; }
   size_t l2Vias() const { return l2Via().size(); }
   bool empty() const { return l2Via().empty(); }
   U64 hash() const { return shared_ ? shared_->hash() : 0; }
   friend bool operator==( const L2ViaSet& a, const L2ViaSet& b ) {
      return a.shared_ == b.shared_ || ( a.hash() == b.hash() && a.l2Via() == b.l2Via() );
   }
   friend auto operator<=>( const L2ViaSet& a, const L2ViaSet& b ) {
      return a.l2Via() <=> b.l2Via();
   }

 private:
   struct VEL_EXPORT Shared {
      explicit Shared( std::vector< L2Via > sorted ) : vias( std::move( sorted ) ) {}
      U64 hash() const;
      void referenceAcquire() const { ++references_; }
      void referenceRelease() const {
         if ( --references_ == 0 ) {
            delete this;
         }
      }
      U32 references() const { return references_; }

      std::vector< L2Via > vias;
      mutable U64 hash_ = 0; // 0: not asked for yet

    private:
      mutable U32 references_ = 0;
   };
   static const std::vector< L2Via > none_;

   Vel::Ptr< Shared > shared_; // null: empty
};
VEL_EXPORT void appendText( std::string& out, const L2ViaSet& viaSet );

/// What both kinds of hardware adjacency have.
class VEL_EXPORT AdjacencyBase : public Vel::Entity {
   // clang-format off
   VEL_ENTITY( AdjacencyBase )
   VEL_KEY( U64, index )
   VEL_ATTRIBUTE( bool, unprogrammed )
   VEL_ENTITY_END_IN_SOURCE
   // clang-format on

 protected:
   explicit AdjacencyBase( U64 index ) : index_( index ) {}
};

/// An L2 adjacency: one L2 via set, programmed once and shared by all that resolve to it.
class VEL_EXPORT L2Adjacency : public AdjacencyBase {
   // clang-format off
   VEL_ENTITY( L2Adjacency )
   VEL_ATTRIBUTE( L2ViaSet, l2ViaSet )
   VEL_ENTITY_END_OVER( AdjacencyBase )
   // clang-format on

 public:
   explicit L2Adjacency( U64 index ) : AdjacencyBase( index ) {}
};

/// One via of an adjacency as the LFIB wants it, and whether its next hop is resolved.
struct AdjacencyVia {
   LfibViaKey viaKey;
   IpGenAddr nextHop;
   IntfId intf;
   MplsLabelAction labelAction = MplsLabelAction::none;
   PayloadType payloadType = PayloadType::undefined;
   TtlMode ttlMode = TtlMode::undefined;
   LabelStack labelStack;
   L2ViaSet l2Via; ///< what it resolved to; empty while the next hop is unresolved
   bool resolved() const { return !l2Via.empty(); }
   friend bool operator==( const AdjacencyVia&, const AdjacencyVia& ) = default;
};
VEL_EXPORT void appendText( std::string& out, const AdjacencyVia& via );

/// An adjacency: the vias of one via set, in via-index order.
class VEL_EXPORT Adjacency : public AdjacencyBase {
   // clang-format off
   VEL_ENTITY( Adjacency )
   VEL_ATTRIBUTE( LfibViaSetType, viaSetType )
   VEL_COLLECTION( Ordered, LfibViaIndexRange, AdjacencyVia, via )
   VEL_ATTRIBUTE( U32, unresolvedVias ) // how many elements of `via` have no resolved next hop
   VEL_ATTRIBUTE( Vel::Ptr< L2Adjacency >, l2Adjacency )
   VEL_ENTITY_END_OVER( AdjacencyBase )
   // clang-format on

 public:
   explicit Adjacency( U64 index ) : AdjacencyBase( index ) {}
};

/// Which adjacency protects another.
struct AdjacencyBackupStatus {
   U64 index = 0;
   U64 backupIndex = 0;
   friend bool operator==( const AdjacencyBackupStatus&, const AdjacencyBackupStatus& ) = default;
};
VEL_EXPORT void appendText( std::string& out, const AdjacencyBackupStatus& status );

/// A published route: its adjacency, and the FEC for a route into one.
struct Route {
   RouteKey routeKey;
   Vel::Ptr< Adjacency > adjacency;
   Fib::FecId fecId;
   friend bool operator==( const Route&, const Route& ) = default;
};
VEL_EXPORT void appendText( std::string& out, const Route& route );

/// The hardware MPLS status. Written by the label state machine.
class VEL_EXPORT Status : public Vel::WatchedEntity {
 public:
   class Reactor : public Vel::ReactorOf< Status > {
    public:
      virtual void onRoute( RouteKey ) {}
      virtual void onAdjacency( U64 ) {}
      virtual void onL2Adjacency( U64 ) {}
   };

   // clang-format off
   VEL_ENTITY( Status )
   VEL_KEY( std::string, statusName )
   VEL_ENTITY_COLLECTION( Hash, U64, L2Adjacency, l2Adjacency, onL2Adjacency )
   VEL_ENTITY_COLLECTION( Hash, U64, Adjacency, adjacency, onAdjacency )
   VEL_VALUES( LabelIndexed, RouteKey, Route, routeKey, route, onRoute )
   VEL_VALUES( Hash, U64, AdjacencyBackupStatus, index, adjacencyBackupStatus )
   VEL_ENTITY_END_IN_SOURCE
   // clang-format on

 public:
   explicit Status( std::string name ) : statusName_( std::move( name ) ) {}
};

} // namespace Hardware

/// Whether a published route is in hardware.
enum class RouteStatusCode : uint8_t {
   programmed = 0,
   notProgrammed = 2,
   partiallyProgrammed = 3, ///< programmed, with part of its vias unresolved
};

/// The published state of one route.
struct RouteInfo {
   RouteKey routeKey;
   RouteStatusCode statusCode = RouteStatusCode::programmed;
   /// Of a label that ends here: why it is not programmed.
   LfibHwProgrammingReturnCode reason = LfibHwProgrammingReturnCode::success;
   friend bool operator==( const RouteInfo&, const RouteInfo& ) = default;
};
VEL_EXPORT void appendText( std::string& out, const RouteInfo& info );

/// The published state of one via set.
struct LfibHwViaSet {
   LfibViaSetKey viaSetKey;
   U64 adjacency = 0;
   bool unprogrammed = false;
   bool backupActive = false;
   friend bool operator==( const LfibHwViaSet&, const LfibHwViaSet& ) = default;
};
VEL_EXPORT void appendText( std::string& out, const LfibHwViaSet& viaSet );

/// The LFIB's hardware status. A published route is always present; its code tells whether it is in
/// hardware.
class VEL_EXPORT LfibHwStatus : public Vel::WatchedEntity {
 public:
   class Reactor : public Vel::ReactorOf< LfibHwStatus > {
    public:
      virtual void onUnprogrammedRoute( RouteKey ) {}
      virtual void onViaSet( LfibViaSetKey ) {}
   };

   // clang-format off
   VEL_ENTITY( LfibHwStatus )
   VEL_KEY( std::string, statusName )
   VEL_VALUES( LabelIndexed, RouteKey, RouteInfo, routeKey, unprogrammedRoute, onUnprogrammedRoute )
   VEL_VALUES( Hash, LfibViaSetKey, LfibHwViaSet, viaSetKey, viaSet, onViaSet )
   VEL_ENTITY_END_IN_SOURCE
   // clang-format on

 public:
   explicit LfibHwStatus( std::string name ) : statusName_( std::move( name ) ) {}
};

} // namespace Mpls

template<>
struct Vel::EnumNames< Mpls::RouteStatusCode > {
   static constexpr std::array< std::pair< Mpls::RouteStatusCode, std::string_view >, 3 > names{
      { { Mpls::RouteStatusCode::programmed, "programmed" },
        { Mpls::RouteStatusCode::notProgrammed, "notProgrammed" },
        { Mpls::RouteStatusCode::partiallyProgrammed, "partiallyProgrammed" } } };
};
