// LFIB tracking: which via sets, or which routes, have to be looked at again.
//
// A route's forwarding is spread over three tables: the route names a via set, the via set names
// vias. A state machine wants to hear of one thing only. The tracker watches an LfibStatus, keeps
// the relations between the three, and fills one backlog in the tracking status:
//
//   routes    a route enters `routeKeyBacklog` when it is added, changed or removed, or when its
//             via set, or a via that its via set names, is.
//   viaSets   a via set enters `viaSetKeyBacklog` when it is added, changed or removed, or when a
//             via that it names is. Routes are heard of from the LfibStatus itself;
//             `viaSetKeyToRouteKeySet` says which use a via set.
//
// Whoever handles an entry deletes it from the backlog; an entry that stands there already is not
// announced again.
//
// Cost: 16 bytes and some four label-indexed accesses a route; a via set keeps a list of its vias,
// a via a set of the via sets that name it.

#pragma once

#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "platform/containers/RouteKeyGroups.h"
#include "platform/entity/Entity.h"
#include "platform/lfib/LfibStatus.h"

namespace Mpls {

enum class LfibTrackingMode : uint32_t { routes = 1, viaSets = 2 };

/// What the tracker has found. Written by LfibTrackingSm; the user deletes what it has handled.
class VEL_EXPORT LfibTrackingStatus : public Vel::WatchedEntity {
 public:
   class Reactor : public Vel::ReactorOf< LfibTrackingStatus > {
    public:
      virtual void onRouteKeyBacklog( RouteKey /*routeKey*/ ) {}
      virtual void onViaSetKeyBacklog( LfibViaSetKey /*viaSetKey*/ ) {}
   };
   // clang-format off
   VEL_ENTITY( LfibTrackingStatus )
   VEL_KEY( std::string, statusName )
   VEL_SET( LabelSet, Mpls::RouteKey, routeKeyBacklog, onRouteKeyBacklog )
   VEL_SET( HashSet, Mpls::LfibViaSetKey, viaSetKeyBacklog, onViaSetKeyBacklog )
 public:
   // NOLINTNEXTLINE(readability-identifier-naming): the name that a declaration line gives
   void visitLine_( Vel::AttributeLine< __LINE__ >, Vel::AttributeVisitor& v ) const { visitGroups( v ); }
   VEL_ENTITY_END
   // clang-format on

 public:
   explicit LfibTrackingStatus( std::string name );

   /// The routes that use the via set, whether the LFIB has it or not; null when none does.
   const Vel::RouteKeyGroup* viaSetKeyToRouteKeySet( LfibViaSetKey key ) const {
      const std::unique_ptr< Group >* const found = groups_.find( key );
      return found ? found->get() : nullptr;
   }
   /// The via set that the route uses; empty for a route that is not there.
   LfibViaSetKey viaSetKeyOfRoute( RouteKey key ) const {
      const Vel::RouteKeyGroup* const group = links_->groupOf( key );
      return group ? static_cast< const Group* >( group )->viaSetKey : LfibViaSetKey();
   }
   /// How many via sets are used by a route.
   size_t viaSetKeyToRouteKeySets() const { return groups_.size(); }
   /// For the tracker: the route uses this via set now, or none.
   void viaSetKeyOfRouteIs( RouteKey key, LfibViaSetKey viaSetKey );

 private:
   struct Group : Vel::RouteKeyGroup {
      Group( std::shared_ptr< Vel::RouteKeyLinks > links, LfibViaSetKey key )
         : RouteKeyGroup( std::move( links ) ), viaSetKey( key ) {}
      LfibViaSetKey viaSetKey;
   };

   void visitGroups( Vel::AttributeVisitor& visitor ) const;

   std::shared_ptr< Vel::RouteKeyLinks > links_;
   Vel::Hash< LfibViaSetKey, std::unique_ptr< Group > > groups_;
};

/// Fills an LfibTrackingStatus from an LfibStatus, from its construction to its end.
class VEL_EXPORT LfibTrackingSm : public Vel::Entity {
   // clang-format off
   VEL_ENTITY( LfibTrackingSm )
   VEL_KEY( std::string, smName )
   VEL_ATTRIBUTE_DEFAULT( LfibTrackingMode, mode, { LfibTrackingMode::routes } )
   VEL_ENTITY_END
   // clang-format on

 public:
   /// Enters what the LFIB holds into the backlog.
   LfibTrackingSm( std::string name, Vel::Ptr< const LfibStatus > lfibStatus,
                   Vel::Ptr< LfibTrackingStatus > lfibTrackingStatus, LfibTrackingMode mode );
   ~LfibTrackingSm() override;

   const Vel::Ptr< const LfibStatus >& lfibStatus() const { return lfib_; }
   const Vel::Ptr< LfibTrackingStatus >& lfibTrackingStatus() const { return tracking_; }

 private:
   class LfibReactor : public LfibStatus::Reactor {
    public:
      explicit LfibReactor( LfibTrackingSm& sm ) : sm_( sm ) {}
      void onLfibRoute( RouteKey key ) override { sm_.handleRoute( key ); }
      void onLfibViaSet( LfibViaSetKey key ) override { sm_.handleViaSet( key ); }
      void onLfibVia( LfibViaKey key ) override { sm_.handleVia( key ); }

    private:
      LfibTrackingSm& sm_;
   };

   VEL_HIDDEN void handleRoute( RouteKey key );
   VEL_HIDDEN void handleViaSet( LfibViaSetKey key );
   VEL_HIDDEN void handleVia( LfibViaKey key );
   VEL_HIDDEN void routeIs( RouteKey key, const LfibRoute& route );
   VEL_HIDDEN void viasOfViaSetIs( LfibViaSetKey key, const LfibViaSet& viaSet );
   VEL_HIDDEN void backlogIs( LfibViaSetKey key );

   /// The via sets that name a via: nearly always one.
   class ViaUsers {
    public:
      bool empty() const { return more_ ? more_->empty() : one_.empty(); }
      void insert( LfibViaSetKey key );
      void erase( LfibViaSetKey key );
      template< class Visit >
      void forEach( const Visit& visit ) const {
         if ( !more_ ) {
            visit( one_ );
            return;
         }
         for ( const LfibViaSetKey key : *more_ ) {
            visit( key );
         }
      }

    private:
      LfibViaSetKey one_; // while there are not more
      std::unique_ptr< Vel::HashSet< LfibViaSetKey > > more_;
   };

   Vel::Ptr< const LfibStatus > lfib_;
   Vel::Ptr< LfibTrackingStatus > tracking_;
   Vel::Hash< LfibViaSetKey, std::vector< LfibViaKey > > viasOfViaSet_; // each via once
   Vel::Hash< LfibViaKey, ViaUsers > viaSetsOfVia_;
   LfibReactor reactor_;
};

} // namespace Mpls

template<>
struct Vel::EnumNames< Mpls::LfibTrackingMode > {
   static constexpr std::array< std::pair< Mpls::LfibTrackingMode, std::string_view >, 2 > names{
      { { Mpls::LfibTrackingMode::routes, "routes" },
        { Mpls::LfibTrackingMode::viaSets, "viaSets" } } };
};
