// Label-indexed collections: for what the whole label table passes through.
//
// A key of a single label is its own index. Values live in pages of 64 slots with one occupancy
// word, found by the top label without a hash; a set is the occupancy words alone, one bit a label.
// A summary word says which of 64 pages hold anything, so that a walk skips 64 empty labels, or
// 4,096, at a time. Keys of more than one label are rare and go to a hash collection beside the
// pages.
//
// Adding moves nothing and rehashes nothing; the order of a walk is by label and repeats from run
// to run. Iteration survives mutation: no element is visited twice in a pass, erasing and inserting
// are allowed. An element that is added ahead of the walk is visited, one that is added behind it
// waits for the next pass.
//
// A work pass goes once around, from where the last one stopped: low labels cannot starve high ones
// when slices end early.
//
// Cost: 8 bytes for each 64 labels of the space once the first element is there (128 KiB), then a
// page for each 64 neighbouring labels in use.

#pragma once

#include <array>
#include <bit>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <utility>

#include "platform/containers/Hash.h"
#include "platform/values/MplsTypes.h"

namespace Vel {

/// Which of 2^20 labels are there: an occupancy word for each 64 of them and a summary above.
class LabelBits {
 public:
   static constexpr uint32_t labels = 1U << 20;
   static constexpr uint32_t pages = labels / 64;
   static constexpr uint32_t end = labels;

   uint64_t word( uint32_t page ) const { return data_ ? data_->words[page] : 0; }
   bool test( uint32_t label ) const { return word( label / 64 ) >> ( label % 64 ) & 1; }
   /// Has the memory that `set` needs.
   void prepare() {
      if ( !data_ ) [[unlikely]] {
         data_ = std::make_unique< Data >();
      }
   }
   /// True when the bit was not set.
   bool set( uint32_t label ) {
      prepare();
      uint64_t& word = data_->words[label / 64];
      const uint64_t bit = uint64_t{ 1 } << ( label % 64 );
      if ( word & bit ) {
         return false;
      }
      word |= bit;
      data_->summary[label / 4096] |= uint64_t{ 1 } << ( label / 64 % 64 );
      return true;
   }
   /// True when the bit was set.
   bool reset( uint32_t label ) {
      if ( !test( label ) ) {
         return false;
      }
      uint64_t& word = data_->words[label / 64];
      word &= ~( uint64_t{ 1 } << ( label % 64 ) );
      if ( word == 0 ) {
         data_->summary[label / 4096] &= ~( uint64_t{ 1 } << ( label / 64 % 64 ) );
      }
      return true;
   }
   /// The first label at or after `from`, or `end`.
   uint32_t next( uint32_t from ) const {
      if ( !data_ || from >= labels ) {
         return end;
      }
      const uint32_t page = from / 64;
      if ( const uint64_t rest = data_->words[page] >> ( from % 64 ); rest != 0 ) {
         return from + static_cast< uint32_t >( std::countr_zero( rest ) );
      }
      uint32_t group = ( page + 1 ) / 64;
      if ( group == summaries ) {
         return end;
      }
      uint64_t rest = data_->summary[group] & ~uint64_t{ 0 } << ( ( page + 1 ) % 64 );
      while ( rest == 0 ) {
         if ( ++group == summaries ) {
            return end;
         }
         rest = data_->summary[group];
      }
      const uint32_t found = group * 64 + static_cast< uint32_t >( std::countr_zero( rest ) );
      return found * 64 + static_cast< uint32_t >( std::countr_zero( data_->words[found] ) );
   }
   void clear() { data_.reset(); }

 private:
   static constexpr uint32_t summaries = pages / 64;
   struct Data {
      std::array< uint64_t, pages > words{};
      std::array< uint64_t, summaries > summary{};
   };
   std::unique_ptr< Data > data_;
};

/// The walk that both label-indexed shapes share. `Owner` has `bits_`, `deep_` and `cursor_`.
///
/// A plain pass goes over the labels from 0 and then over the deeper keys. A work pass starts at
/// the cursor, goes on to the deeper keys and comes back to the labels below the cursor.
template< class Owner >
class LabelPass {
 public:
   LabelPass( const Owner& owner, bool work )
      : owner_( const_cast< Owner& >( owner ) ),
        work_( work ),
        start_( work ? owner.cursor_ : 0 ),
        at_( start_ ) {}
   LabelPass( const LabelPass& ) = delete;
   LabelPass& operator=( const LabelPass& ) = delete;

   bool next() {
      if ( stage_ == Stage::labels ) {
         if ( nextLabel( LabelBits::end ) ) {
            return true;
         }
         stage_ = Stage::deep;
         deep_.emplace( owner_.deep_ );
         rest( LabelBits::end );
      }
      if ( stage_ == Stage::deep ) {
         if ( deep_->next() ) {
            key_ = deep_->key();
            return true;
         }
         deep_.reset();
         stage_ = Stage::wrapped;
         at_ = 0;
      }
      if ( stage_ == Stage::wrapped && nextLabel( start_ ) ) {
         return true;
      }
      stage_ = Stage::done;
      return false;
   }
   const Mpls::RouteKey& key() const { return key_; }

 protected:
   enum class Stage : uint8_t { labels, deep, wrapped, done };

   bool nextLabel( uint32_t limit ) {
      const uint32_t found = owner_.bits_.next( at_ );
      if ( found >= limit ) {
         return false;
      }
      key_ = Mpls::RouteKey( found );
      at_ = found + 1;
      rest( at_ );
      return true;
   }
   // Sets the label with which the next work pass begins; `LabelBits::end`: with the deeper keys.
   void rest( uint32_t cursor ) {
      if ( work_ ) {
         owner_.cursor_ = cursor;
      }
   }

   Owner& owner_;
   bool work_;
   uint32_t start_;
   uint32_t at_;
   Stage stage_ = Stage::labels;
   Mpls::RouteKey key_;
   std::optional< typename Owner::DeepPass > deep_;
};

/// A collection of values by route key. `K` is always Mpls::RouteKey; it stands here so that all
/// shapes declare alike.
template< class K, class V >
class LabelIndexed {
   static_assert( std::is_same_v< K, Mpls::RouteKey > );
   struct Page {
      alignas( V ) std::array< std::byte, 64 * sizeof( V ) > storage;
      V* slot( uint32_t label ) {
         return reinterpret_cast< V* >( storage.data() ) +
                label % 64; // constructed where the bit is set
      }
   };

 public:
   using Key = Mpls::RouteKey;
   using Value = V;
   struct Element {
      Mpls::RouteKey key;
      V& value;
   };
   using DeepPass = typename Hash< Mpls::RouteKey, V >::Pass;
   class Pass : public LabelPass< LabelIndexed > {
    public:
      using LabelPass< LabelIndexed >::LabelPass;
      V& value() const { return *this->owner_.find( this->key_ ); }
      Element element() const { return { this->key_, value() }; }
   };

   LabelIndexed() = default;
   LabelIndexed( const LabelIndexed& ) = delete;
   LabelIndexed& operator=( const LabelIndexed& ) = delete;
   ~LabelIndexed() { clear(); }

   size_t size() const { return size_ + deep_.size(); }
   bool empty() const { return size() == 0; }
   bool has( Key key ) const {
      return key.singleLabel() ? bits_.test( key.topLabel().value() ) : deep_.has( key );
   }
   V* find( Key key ) const {
      if ( !key.singleLabel() ) [[unlikely]] {
         return const_cast< V* >( deep_.find( key ) );
      }
      const uint32_t label = key.topLabel().value();
      return bits_.test( label ) ? ( *directory_ )[label / 64]->slot( label ) : nullptr;
   }
   const V& lookup( Key key ) const {
      const V* const found = find( key );
      return found ? *found : nullValueOf< V >();
   }

   /// The value under the key, made when absent. The flag tells which.
   template< class... Args >
   std::pair< V*, bool > emplace( Key key, Args&&... args ) {
      if ( !key.singleLabel() ) [[unlikely]] {
         return deep_.emplace( key, std::forward< Args >( args )... );
      }
      const uint32_t label = key.topLabel().value();
      if ( bits_.test( label ) ) {
         return { ( *directory_ )[label / 64]->slot( label ), false };
      }
      if ( !directory_ ) [[unlikely]] {
         directory_ = std::make_unique< Directory >();
      }
      std::unique_ptr< Page >& page = ( *directory_ )[label / 64];
      if ( !page ) {
         page.reset( new Page ); // not value-initialised: slots are made one by one
      }
      bits_.prepare();
      V* const made = std::construct_at( page->slot( label ), std::forward< Args >( args )... );
      bits_.set( label );
      ++size_;
      return { made, true };
   }
   bool set( Key key, const V& value ) {
      const auto [slot, made] = emplace( key, value );
      if ( made ) {
         return true;
      }
      if ( *slot == value ) {
         return false;
      }
      *slot = value;
      return true;
   }
   bool erase( Key key ) {
      if ( !key.singleLabel() ) [[unlikely]] {
         return deep_.erase( key );
      }
      const uint32_t label = key.topLabel().value();
      if ( !bits_.reset( label ) ) {
         return false;
      }
      --size_;
      std::unique_ptr< Page >& page = ( *directory_ )[label / 64];
      // Destroyed when the collection is whole again, since the destructor may write it.
      [[maybe_unused]] V last = std::move( *page->slot( label ) );
      std::destroy_at( page->slot( label ) );
      if ( bits_.word( label / 64 ) == 0 ) {
         page.reset();
      }
      return true;
   }
   void clear() {
      // The collection is emptied first, since the destructor of a value may write it.
      const LabelBits bits = std::move( bits_ );
      const std::unique_ptr< Directory > directory = std::move( directory_ );
      size_ = 0;
      deep_.clear();
      for ( uint32_t label = bits.next( 0 ); label != LabelBits::end;
            label = bits.next( label + 1 ) ) {
         std::destroy_at( ( *directory )[label / 64]->slot( label ) );
      }
   }

   Pass pass() const { return Pass( *this, false ); }
   Pass workPass() { return Pass( *this, true ); }
   PassIterator< Pass > begin() const { return PassIterator< Pass >( *this, false ); }
   std::default_sentinel_t end() const { return {}; }

 private:
   friend class LabelPass< LabelIndexed >;
   using Directory = std::array< std::unique_ptr< Page >, LabelBits::pages >;

   LabelBits bits_;
   std::unique_ptr< Directory > directory_;
   size_t size_ = 0;
   uint32_t cursor_ = 0;
   Hash< Mpls::RouteKey, V > deep_;
};

/// A set of route keys.
template< class K = Mpls::RouteKey >
class LabelSet {
   static_assert( std::is_same_v< K, Mpls::RouteKey > );

 public:
   using Key = Mpls::RouteKey;
   using DeepPass = HashSet< Mpls::RouteKey >::Pass;
   class Pass : public LabelPass< LabelSet > {
    public:
      using LabelPass< LabelSet >::LabelPass;
      Mpls::RouteKey element() const { return this->key_; }
   };

   size_t size() const { return size_ + deep_.size(); }
   bool empty() const { return size() == 0; }
   bool has( Key key ) const {
      return key.singleLabel() ? bits_.test( key.topLabel().value() ) : deep_.has( key );
   }
   /// True when the key was not there.
   bool insert( Key key ) {
      if ( !key.singleLabel() ) [[unlikely]] {
         return deep_.insert( key );
      }
      const bool made = bits_.set( key.topLabel().value() );
      size_ += made;
      return made;
   }
   bool erase( Key key ) {
      if ( !key.singleLabel() ) [[unlikely]] {
         return deep_.erase( key );
      }
      const bool gone = bits_.reset( key.topLabel().value() );
      size_ -= gone;
      return gone;
   }
   void clear() {
      bits_.clear();
      size_ = 0;
      deep_.clear();
   }

   Pass pass() const { return Pass( *this, false ); }
   Pass workPass() { return Pass( *this, true ); }
   PassIterator< Pass > begin() const { return PassIterator< Pass >( *this, false ); }
   std::default_sentinel_t end() const { return {}; }

 private:
   friend class LabelPass< LabelSet >;

   LabelBits bits_;
   size_t size_ = 0;
   uint32_t cursor_ = 0;
   HashSet< Mpls::RouteKey > deep_;
};

} // namespace Vel
