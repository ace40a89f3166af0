// LfibStatus: the LFIB as an entity.
//
// Look-ups read the region at once: they give what the publisher has written by now. Notifications
// come from `poll`, which the owner calls when it likes (on a timer, or when the publisher rings a
// bell of the owner's): it turns what stands on the ring of changed keys into notifications, one
// for each change.
//
// A reader that falls a whole ring behind resynchronises: every key that its user knows of and that
// is gone is announced as gone, then everything that is there is announced. The same happens at the
// first poll, and when another publisher takes the region over. What the user knows of is what has
// been announced and what a look-up or a walk has found, which may be ahead of the announcements;
// it is remembered in one bit a label. `poll` cuts a resynchronisation into slices.
//
// What does not hold in the region is counted, told to the corruption hook, and reads as the null
// value.

#pragma once

#include <functional>
#include <optional>
#include <span>
#include <string>
#include <utility>

#include "platform/entity/Entity.h"
#include "platform/lfib/LfibRegion.h"

namespace Mpls {

/// One map from 802.1Q tag to VLAN, as of the last poll.
class VEL_EXPORT LfibDot1qTagToVlan : public Vel::WatchedEntity {
 public:
   class Reactor : public Vel::ReactorOf< LfibDot1qTagToVlan > {
    public:
      virtual void onDot1qTagToVlanId( Bridging::VlanId /*dot1qTag*/ ) {}
   };
   // clang-format off
   VEL_ENTITY( LfibDot1qTagToVlan )
   VEL_KEY( LfibDot1qTagToVlanKey, key )
   VEL_COLLECTION( Ordered, Bridging::VlanId, Bridging::VlanIdOrNone, dot1qTagToVlanId, onDot1qTagToVlanId )
   VEL_ENTITY_END
   // clang-format on
 public:
   explicit LfibDot1qTagToVlan( LfibDot1qTagToVlanKey key ) : key_( key ) {}
};

/// The LFIB of one region.
class VEL_EXPORT LfibStatus : public Vel::WatchedEntity {
 public:
   class Reactor : public Vel::ReactorOf< LfibStatus > {
    public:
      /// A route is new, changed or gone.
      virtual void onLfibRoute( RouteKey /*routeKey*/ ) {}
      /// A via set is new, changed or gone.
      virtual void onLfibViaSet( LfibViaSetKey /*viaSetKey*/ ) {}
      /// A via of any type is new, changed or gone.
      virtual void onLfibVia( LfibViaKey /*viaKey*/ ) {}
      /// A tag-to-VLAN map has come or gone.
      virtual void onDot1qTagToVlanColl( LfibDot1qTagToVlanKey /*key*/ ) {}
      /// The initial contents are complete and announced, or no longer.
      virtual void onReady() {}
   };
   // clang-format off
   VEL_ENTITY( LfibStatus )
   VEL_KEY( std::string, statusName )
 public:
   VEL_DERIVED( attached )
   VEL_DERIVED( refusedReason )
   VEL_DERIVED( lfibRoutes )
   VEL_DERIVED( lfibViaSets )
   VEL_DERIVED( lfibVias )
   VEL_DERIVED( ringPosition )
   VEL_DERIVED( ringLag )
   VEL_DERIVED( pollPending )
   VEL_ATTRIBUTE( bool, ready, onReady )
   VEL_COUNTER( corruptions )
   VEL_COUNTER( resyncs )
   VEL_ENTITY_COLLECTION( Hash, LfibDot1qTagToVlanKey, LfibDot1qTagToVlan, dot1qTagToVlanColl, onDot1qTagToVlanColl )
   VEL_ENTITY_END
   // clang-format on

 public:
   /// Attaches to the region. One that does not hold is refused: nothing is found in it, and `poll`
   /// tries again, since the publisher may be laying it out at the moment.
   LfibStatus( std::string name, std::span< const std::byte > region );

   bool attached() const { return reader_.attached(); }
   /// Why the region is refused; empty when it is not.
   const std::string& refusedReason() const { return reader_.reason(); }
   void corruptionHookIs( std::function< void( const LfibCorruption& ) > hook ) {
      hook_ = std::move( hook );
   }

   // --- Look-ups. A value's null form stands for an absent one.

   LfibRoute lfibRoute( RouteKey key ) const {
      const LfibRoute route = reader_.route( key );
      if ( !!route ) {
         routes_.insert( key );
      }
      return route;
   }
   LfibViaSet lfibViaSet( LfibViaSetKey key ) const {
      LfibViaSet viaSet = reader_.viaSet( key );
      if ( !viaSet.null() ) {
         viaSets_.insert( key );
      }
      return viaSet;
   }
   LfibMplsVia lfibMplsVia( LfibViaKey key ) const { return viaAt( &LfibReader::mplsVia, key ); }
   LfibExtFecVia lfibExtFecVia( LfibViaKey key ) const {
      return viaAt( &LfibReader::extFecVia, key );
   }
   LfibPwVia lfibPwVia( LfibViaKey key ) const { return viaAt( &LfibReader::pwVia, key ); }
   LfibIpLookupVia lfibIpLookupVia( LfibViaKey key ) const {
      return viaAt( &LfibReader::ipLookupVia, key );
   }
   LfibVlanVia lfibVlanVia( LfibViaKey key ) const { return viaAt( &LfibReader::vlanVia, key ); }
   LfibEvpnVlanAwareVia lfibEvpnVlanAwareVia( LfibViaKey key ) const {
      return viaAt( &LfibReader::evpnVlanAwareVia, key );
   }
   LfibEvpnVlanFloodVia lfibEvpnVlanFloodVia( LfibViaKey key ) const {
      return viaAt( &LfibReader::evpnVlanFloodVia, key );
   }
   LfibEvpnVlanAwareFloodVia lfibEvpnVlanAwareFloodVia( LfibViaKey key ) const {
      return viaAt( &LfibReader::evpnVlanAwareFloodVia, key );
   }
   size_t lfibRoutes() const { return reader_.routes(); }
   size_t lfibViaSets() const { return reader_.viaSets(); }
   size_t lfibVias() const { return reader_.vias(); }
   /// Calls `call( const LfibRoute& )` in the table's order; false when the walk ended at something
   /// that does not hold.
   template< class F >
   bool lfibRouteEach( const F& call, LfibWalk walk = LfibWalk::stop ) const {
      return reader_.routeEach(
         [&]( const LfibRoute& route ) {
            routes_.insert( route.routeKey );
            call( route );
         },
         walk );
   }
   template< class F >
   bool lfibViaSetEach( const F& call, LfibWalk walk = LfibWalk::stop ) const {
      return reader_.viaSetEach(
         [&]( const LfibViaSet& viaSet ) {
            viaSets_.insert( viaSet.key() );
            call( viaSet );
         },
         walk );
   }

   // --- Notifications

   /// Announces at most `limit` changes and returns how many. A handler must not poll.
   ///
   /// A resynchronisation also looks at keys that need no announcement: at most 16 for each of
   /// `limit`, plus 4,096. `pollPending` says whether there is more to do.
   size_t poll( size_t limit );
   bool pollPending() const;
   /// A number that grows with every change that is announced in the region, seen or not; 0 while
   /// there is none. What was read before it grows is followed by an announcement.
   U64 announced() const;
   /// The ring position up to which changes have been announced, and how many stand behind it.
   U64 ringPosition() const { return position_; }
   U64 ringLag() const;

 private:
   // What a resynchronisation does, in this order. Routes leave before what they use, and come
   // after it.
   enum class Stage : uint8_t {
      goneRoutes,
      goneViaSets,
      goneVias,
      goneDot1q,
      dot1q,
      vias,
      viaSets,
      routes,
      done,
   };
   static constexpr size_t batchSize = 32;

   template< class Via >
   Via viaAt( Via ( LfibReader::*lookUp )( LfibViaKey ) const, LfibViaKey key ) const {
      Via via = ( reader_.*lookUp )( key );
      if ( !via.key.empty() ) {
         vias_.insert( key );
      }
      return via;
   }
   bool fillBatch();
   void announce( const LfibChange& change );
   void announceRoute( RouteKey key, bool present );
   void announceViaSet( LfibViaSetKey key, bool present );
   void announceVia( LfibViaKey key, bool present );
   void announceDot1q( LfibDot1qTagToVlanKey key, uint16_t tag, bool present );
   void resyncStart();
   void stageIs( Stage stage );
   bool resyncStep( size_t& budget );
   bool stageStep( size_t& budget );
   template< class Pass, class F >
   bool sweep( Pass& pass, size_t& budget, const F& gone );
   template< class F >
   bool walk( LfibTable last, size_t& budget, const F& found );
   void sweepDot1q();

   LfibReader reader_;
   std::span< const std::byte > region_;
   std::function< void( const LfibCorruption& ) > hook_;
   std::array< LfibChange, batchSize > batch_;
   size_t batchAt_ = 0;
   size_t batchEnd_ = 0;
   U64 position_ = 0; // of the ring: everything before it has been announced
   Stage stage_ = Stage::goneRoutes;
   LfibTable table_ = LfibTable::route;
   U32 slot_ = 0;
   bool started_ = false; // a resynchronisation of this attachment has begun
   bool resyncReady_ = false;
   bool polling_ = false;
   // What has been announced or found by a look-up, and not been announced as gone since.
   mutable Vel::LabelSet< RouteKey > routes_;
   mutable Vel::HashSet< LfibViaSetKey > viaSets_;
   mutable Vel::HashSet< LfibViaKey > vias_;
   std::optional< Vel::LabelSet< RouteKey >::Pass > routePass_;
   std::optional< Vel::HashSet< LfibViaSetKey >::Pass > viaSetPass_;
   std::optional< Vel::HashSet< LfibViaKey >::Pass > viaPass_;
};

} // namespace Mpls
