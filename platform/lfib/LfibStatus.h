// LfibStatus: the LFIB as an entity.
//
// Look-ups read the region at once: they give what the publisher has written by now. Notifications
// come from `poll`, which the owner calls when it likes (on a timer, or when the publisher rings a
// bell of the owner's): it turns what stands on the ring of changed keys into notifications, one
// for each change.
//
// A reader that falls a whole ring behind resynchronises: every key that its user knows of and that
// is gone is announced as gone, then everything that is there and not as the user knows it. The same
// happens at the first poll, and when another publisher takes the region over: over an unchanged
// table nothing is announced. What the user knows of is what has been announced and what a look-up
// or a walk has found, which may be ahead of the announcements. Of each key 64 bits are remembered:
// a digest of the content that look-ups have found since the last announcement, or that they have
// found more than one. `poll` cuts a resynchronisation into slices.
//
// While the region cannot be read, because a publisher lays it out anew or because it is no LFIB,
// what has been announced stands: look-ups give null and `unread` says why.
//
// What does not hold in the region is counted, told to the corruption hook, and reads as the null
// value.

#pragma once

#include <functional>
#include <optional>
#include <span>
#include <string>
#include <utility>

#include "platform/containers/LabelIndexed.h"
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
   VEL_DERIVED( unreads )
   VEL_COUNTER( resyncs )
   VEL_ENTITY_COLLECTION( Hash, LfibDot1qTagToVlanKey, LfibDot1qTagToVlan, dot1qTagToVlanColl, onDot1qTagToVlanColl )
   VEL_ENTITY_END
   // clang-format on

 public:
   /// Attaches to the region. One that does not hold is refused: nothing is found in it, and `poll`
   /// tries again, since the publisher may be laying it out at the moment.
   LfibStatus( std::string name, std::span< const std::byte > region );
   /// Goes over to another region, such as a larger one with the same table: the next poll announces
   /// what differs. The region of before is not read any more. One that does not hold is refused as
   /// at the start.
   void regionIs( std::span< const std::byte > region );

   bool attached() const { return reader_.attached(); }
   /// Why the region is refused; empty when it is not.
   const std::string& refusedReason() const { return reader_.reason(); }
   void corruptionHookIs( std::function< void( const LfibCorruption& ) > hook ) {
      hook_ = std::move( hook );
   }

   // --- Look-ups. A value's null form stands for an absent one, unless `unread`.

   LfibRoute lfibRoute( RouteKey key ) const {
      const LfibRoute route = reader_.route( key );
      if ( !!route ) [[likely]] {
         learn( routes_, key, digestOf( route ) );
      } else {
         learnNull( routes_, key );
      }
      return route;
   }
   LfibViaSet lfibViaSet( LfibViaSetKey key ) const;
   LfibMplsVia lfibMplsVia( LfibViaKey key ) const;
   LfibExtFecVia lfibExtFecVia( LfibViaKey key ) const;
   LfibPwVia lfibPwVia( LfibViaKey key ) const;
   LfibIpLookupVia lfibIpLookupVia( LfibViaKey key ) const;
   LfibVlanVia lfibVlanVia( LfibViaKey key ) const;
   LfibEvpnVlanAwareVia lfibEvpnVlanAwareVia( LfibViaKey key ) const;
   LfibEvpnVlanFloodVia lfibEvpnVlanFloodVia( LfibViaKey key ) const;
   LfibEvpnVlanAwareFloodVia lfibEvpnVlanAwareFloodVia( LfibViaKey key ) const;
   /// Whether the last look-up that gave null could not read what is there. Absence is no reason to
   /// forget the key then: look again later.
   bool unread() const { return reader_.unread(); }
   /// Whether the region holds and is the one that the last poll saw.
   bool readable() const { return !reader_.stale(); }
   /// How many look-ups could not read what is there.
   U64 unreads() const { return unreads_; }
   size_t lfibRoutes() const { return reader_.routes(); }
   size_t lfibViaSets() const { return reader_.viaSets(); }
   size_t lfibVias() const { return reader_.vias(); }
   /// Calls `call( const LfibRoute& )` in the table's order; false when the walk ended at something
   /// that does not hold. What a walk misses because the region cannot be read is announced later.
   template< class F >
   bool lfibRouteEach( const F& call, LfibWalk walk = LfibWalk::stop ) const {
      const bool whole = reader_.routeEach(
         [&]( const LfibRoute& route ) {
            learn( routes_, route.routeKey, digestOf( route ) );
            call( route );
         },
         walk );
      walked();
      return whole;
   }
   /// The same of via sets.
   template< class F >
   bool lfibViaSetEach( const F& call, LfibWalk walk = LfibWalk::stop ) const {
      const bool whole = reader_.viaSetEach(
         [&]( const LfibViaSet& viaSet ) {
            learn( viaSets_, viaSet.key(), digestOf( viaSet ) );
            call( viaSet );
         },
         walk );
      walked();
      return whole;
   }

   // --- Notifications

   /// Announces at most `limit` changes and returns how many. A handler must not poll; what it throws
   /// goes through, and the next poll goes on behind the change that it was told.
   ///
   /// A resynchronisation also looks at keys that need no announcement: at most 16 for each of
   /// `limit`, plus 4,096.
   size_t poll( size_t limit );
   /// Whether there is more to do; also while the region is refused, which each poll tries again.
   bool pollPending() const;
   /// A number that grows with every change that is announced in the region, seen or not, and with
   /// every publisher; 0 while there is none. What was read before it grows is followed by an
   /// announcement if it is not the same any more.
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

   // What is known of a key in place of a digest: that users may know different contents of it, or
   // an older one; that it has been announced, and nobody has looked.
   static constexpr U64 unsure = 0;
   static constexpr U64 announcedOnly = 1;

   static U64 digestOf( const LfibRoute& route ) {
      const std::array< U64, 3 > words{ route.routeKey.word(), route.viaSetKey.word(),
                                        route.metric };
      return lfibDigest( words.data(), 3 );
   }
   static U64 digestOf( const LfibViaSet& viaSet );
   /// A look-up has found this content.
   template< class Known, class Key >
   static void learn( Known& known, Key key, U64 digest ) {
      const auto [at, made] = known.emplace( key );
      if ( made ) {
         *at = unsure; // its announcement is still to come
      } else if ( *at != digest ) [[unlikely]] {
         *at = *at == announcedOnly ? digest : unsure;
      }
   }
   /// A look-up has found nothing.
   template< class Known, class Key >
   void learnNull( Known& known, Key key ) const {
      if ( U64* const at = known.find( key ) ) {
         *at = unsure;
      }
      if ( reader_.unread() ) [[unlikely]] {
         ++unreads_;
         missed_ = missed_ || reader_.stale();
      }
   }
   /// Somebody has walked over a table. A walk ahead of the announcements may have missed a key that
   /// is back, as it was, before its end is announced.
   void walked() const {
      walkedBlind_ = walkedBlind_ || reader_.stale();
      walkedAhead_ = walkedAhead_ || pollPending();
   }
   /// A key has been announced.
   template< class Known, class Key >
   static void announcedIs( Known& known, Key key, bool present ) {
      present ? void( *known.emplace( key ).first = announcedOnly ) : void( known.erase( key ) );
   }
   /// Whether users may know another content than this one.
   template< class Known, class Key >
   bool differs( const Known& known, Key key, U64 digest ) const {
      const U64* const at = known.find( key );
      return announceAll_ || at == nullptr || *at != digest;
   }
   /// Whether a key that users know of has left the region.
   template< class Known, class Key >
   bool gone( Known& known, Key key, bool has ) const;
   template< class Via >
   Via viaAt( Via ( LfibReader::*lookUp )( LfibViaKey ) const, LfibViaKey key ) const;
   VEL_HIDDEN void attach();
   VEL_HIDDEN bool fillBatch();
   VEL_HIDDEN void announce( const LfibChange& change );
   VEL_HIDDEN void announceRoute( RouteKey key, bool present );
   VEL_HIDDEN void announceViaSet( LfibViaSetKey key, bool present );
   VEL_HIDDEN void announceVia( LfibViaKey key, bool present );
   VEL_HIDDEN void announceDot1q( LfibDot1qTagToVlanKey key, uint16_t tag, bool present );
   VEL_HIDDEN void resyncStart();
   VEL_HIDDEN void stageIs( Stage stage );
   VEL_HIDDEN bool resyncStep( size_t& budget );
   VEL_HIDDEN bool stageStep( size_t& budget );
   template< class Pass, class F >
   bool sweep( Pass& pass, size_t& budget, const F& announcedGone );
   template< class F >
   bool walk( LfibTable last, size_t& budget, const F& announced );
   VEL_HIDDEN void sweepDot1q();

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
   bool announceAll_ = false; // by this resynchronisation
   // While the region could not be read, somebody has looked a key up, or walked over a table.
   mutable bool missed_ = false;
   mutable bool walkedBlind_ = false;
   mutable bool walkedAhead_ = false; // since everything was announced
   U64 announcedBefore_ = 0;          // in regions and by publishers of before
   mutable U64 announced_ = 0;
   mutable U64 unreads_ = 0;
   // What has been announced or found by a look-up, and not been announced as gone since.
   mutable Vel::LabelIndexed< RouteKey, U64 > routes_;
   mutable Vel::Hash< LfibViaSetKey, U64 > viaSets_;
   mutable Vel::Hash< LfibViaKey, U64 > vias_;
   std::optional< Vel::LabelIndexed< RouteKey, U64 >::Pass > routePass_;
   std::optional< Vel::Hash< LfibViaSetKey, U64 >::Pass > viaSetPass_;
   std::optional< Vel::Hash< LfibViaKey, U64 >::Pass > viaPass_;
};

} // namespace Mpls
