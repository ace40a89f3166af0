// Route key groups: a partition of route keys.
//
// Every route uses one L3 adjacency, one L2 adjacency, one via set: a relation from a million keys
// to some thousand groups, of which both directions are asked. One link of 16 bytes a key carries
// both: the group that the key is in, and its neighbours in that group. Links are found by label,
// so that moving a key from one group to another costs a few label-indexed accesses and no hash,
// and a group is walked by following its links.
//
// Invariants: a key is in at most one group of the same links; inserting one that is in another
// group is an assertion. Iteration survives mutation with the rules of Hash: what is added while a
// pass runs waits for the next one.

#pragma once

#include <cstdint>
#include <iterator>
#include <memory>
#include <vector>

#include "platform/base/Assert.h"
#include "platform/containers/Hash.h"
#include "platform/containers/LabelIndexed.h"

namespace Vel {

class RouteKeyGroup;

/// The links that the groups of one relation share.
class RouteKeyLinks {
 public:
   /// The group that the key is in, or null.
   RouteKeyGroup* groupOf( Mpls::RouteKey key ) const {
      const Link* const link = find( key );
      return link ? link->group : nullptr;
   }

 private:
   friend RouteKeyGroup;
   using Id = uint32_t; // a label, or 2^20 plus the slot of a deeper key
   static constexpr Id none = ListPasses::none;
   static constexpr Id firstDeep = LabelBits::labels;

   struct Link {
      RouteKeyGroup* group = nullptr;
      Id previous = none;
      Id next = none;
   };
   struct DeepLink {
      Mpls::RouteKey key;
      Link link;
   };

   const Link* find( Mpls::RouteKey key ) const {
      if ( key.singleLabel() ) [[likely]] {
         return labels_.find( key );
      }
      const Id* const slot = deepIds_.find( key );
      return slot ? &deep_[*slot - firstDeep].link : nullptr;
   }
   Link& at( Id id ) {
      return id < firstDeep ? *labels_.find( Mpls::RouteKey( id ) ) : deep_[id - firstDeep].link;
   }
   Mpls::RouteKey keyOf( Id id ) const {
      return id < firstDeep ? Mpls::RouteKey( id ) : deep_[id - firstDeep].key;
   }
   Id idOf( Mpls::RouteKey key ) const {
      return key.singleLabel() ? key.topLabel().value() : deepIds_.lookup( key );
   }
   Id make( Mpls::RouteKey key, const Link& link ) {
      if ( key.singleLabel() ) [[likely]] {
         labels_.emplace( key, link );
         return key.topLabel().value();
      }
      Id id = freeDeep_;
      if ( id == none ) {
         id = firstDeep + static_cast< Id >( deep_.size() );
         deep_.push_back( { key, link } );
      } else {
         freeDeep_ = at( id ).next;
         deep_[id - firstDeep] = { key, link };
      }
      deepIds_.set( key, id );
      return id;
   }
   void drop( Mpls::RouteKey key, Id id ) {
      if ( key.singleLabel() ) [[likely]] {
         labels_.erase( key );
         return;
      }
      deepIds_.erase( key );
      at( id ).next = freeDeep_;
      freeDeep_ = id;
   }

   LabelIndexed< Mpls::RouteKey, Link > labels_;
   Hash< Mpls::RouteKey, Id > deepIds_;
   std::vector< DeepLink > deep_;
   Id freeDeep_ = none;
};

/// One group: a set of route keys in insertion order.
class RouteKeyGroup {
   using Id = RouteKeyLinks::Id;
   static constexpr Id none = RouteKeyLinks::none;

 public:
   using Key = Mpls::RouteKey;

   explicit RouteKeyGroup( std::shared_ptr< RouteKeyLinks > links )
      : links_( std::move( links ) ) {}
   RouteKeyGroup( const RouteKeyGroup& ) = delete;
   RouteKeyGroup& operator=( const RouteKeyGroup& ) = delete;
   ~RouteKeyGroup() { clear(); }

   size_t size() const { return size_; }
   bool empty() const { return size_ == 0; }
   bool has( Key key ) const { return links_->groupOf( key ) == this; }

   /// True when the key was not there. The key must not be in another group.
   bool insert( Key key ) {
      if ( const RouteKeyGroup* const group = links_->groupOf( key ) ) {
         VEL_ASSERT_TEXT( group == this, "group == this", "a route key is in one group at a time",
                          "RouteKeyGroup", textOf( key.word() ) );
         return false;
      }
      const Id id = links_->make( key, { this, tail_, none } );
      ( tail_ == none ? head_ : links_->at( tail_ ).next ) = id;
      tail_ = id;
      ++size_;
      return true;
   }

   bool erase( Key key ) {
      const RouteKeyLinks::Link* const found = links_->find( key );
      if ( found == nullptr || found->group != this ) {
         return false;
      }
      const RouteKeyLinks::Link link = *found;
      const Id id = links_->idOf( key );
      passes_.elementGoes( id, link.previous, link.next );
      ( link.previous == none ? head_ : links_->at( link.previous ).next ) = link.next;
      ( link.next == none ? tail_ : links_->at( link.next ).previous ) = link.previous;
      links_->drop( key, id );
      --size_;
      return true;
   }

   void clear() {
      while ( head_ != none ) {
         erase( links_->keyOf( head_ ) );
      }
   }

   /// A walk that survives mutation.
   class Pass : private ListPasses::Pass {
    public:
      explicit Pass( const RouteKeyGroup& owner )
         : ListPasses::Pass( const_cast< RouteKeyGroup& >( owner ).passes_, owner.head_,
                             owner.tail_ ),
           owner_( owner ) {}
      bool next() {
         if ( next_ == none ) {
            return false;
         }
         key_ = owner_.links_->keyOf( next_ );
         next_ = next_ == last_ ? none : owner_.links_->at( next_ ).next;
         return true;
      }
      const Key& key() const { return key_; }
      Key element() const { return key_; }

    private:
      const RouteKeyGroup& owner_;
      Key key_;
   };

   Pass pass() const { return Pass( *this ); }
   Pass workPass() { return Pass( *this ); }
   PassIterator< Pass > begin() const { return PassIterator< Pass >( *this ); }
   std::default_sentinel_t end() const { return {}; }

 private:
   std::shared_ptr< RouteKeyLinks > links_;
   ListPasses passes_;
   Id head_ = none;
   Id tail_ = none;
   size_t size_ = 0;
};

/// The group as a shape of set, for an entity's declaration. The entity's constructor gives it the
/// links.
template< class K >
using GroupedRouteKeys = RouteKeyGroup;

} // namespace Vel
