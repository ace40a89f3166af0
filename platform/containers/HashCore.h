// HashCore: how the hash collections of Hash.h store, find and walk their elements.
//
// Elements live in chunks that grow geometrically, linked in insertion order; an open-addressing
// index of 32-bit positions finds them. There is no node per element and no allocation on look-up,
// nothing moves when an element is added, and up to eight elements need no index at all.
//
// Iteration survives mutation. A pass visits the elements that were there when it began and are
// still there when it reaches them; an element that is added, or removed and added again, while the
// pass runs waits for the next one. Erasing any element is allowed, the current one included.
//
// Growth is incremental: the old index is emptied a few buckets at a time while the new one fills,
// so that no single insertion pays for all elements. The elements that the next insertion moves are
// fetched ahead.
//
// Cost: look-up one probe sequence; erase the same plus one step for each pass that is under way;
// about sizeof( key ) + sizeof( value ) + 14 bytes an element.

#pragma once

#include <bit>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <new>
#include <utility>

#include "platform/base/Assert.h"
#include "platform/base/Text.h"
#include "platform/containers/Collection.h"
#include "platform/containers/ListPasses.h"

namespace Vel {

/// What both shapes of hash collection are made of. Use `Hash` and `HashSet`.
template< class K, class V >
class HashCore {
   static constexpr uint32_t none = ListPasses::none;
   static constexpr uint32_t firstChunk = 4;
   static constexpr uint32_t indexFrom = 8; // up to so many elements are found by looking at each
   static constexpr uint32_t migratedPerChange = 8;

   struct Node {
      K key;
      [[no_unique_address]] V value;
      uint32_t previous;
      uint32_t next;
   };

 public:
   using Key = K;

   HashCore() = default;
   HashCore( const HashCore& ) = delete;
   HashCore& operator=( const HashCore& ) = delete;
   ~HashCore() {
      VEL_ASSERT( passes_.empty() );
      clear();
   }

   size_t size() const { return size_; }
   bool empty() const { return size_ == 0; }
   bool has( const K& key ) const { return positionOf( key ) != none; }

   /// Makes room for `count` elements, so that reaching that number does not grow the index. Costs
   /// a walk over the elements that are there.
   void reserve( size_t count ) {
      if ( count > indexFrom && count > buckets_ - buckets_ / 4 ) {
         rebuildIndex( bucketsFor( count ) );
      }
   }

   bool erase( const K& key ) {
      const uint32_t position = positionOf( key );
      if ( position == none ) {
         return false;
      }
      erasePosition( position );
      return true;
   }

   void clear() {
      passes_.allGo();
      // The destructor of an element may write this collection, which is therefore empty and whole
      // before the first element is destroyed.
      Chunks chunks;
      chunks.take( chunks_ );
      uint32_t at = head_;
      index_.reset();
      old_.reset();
      buckets_ = oldBuckets_ = migrated_ = 0;
      size_ = used_ = 0;
      head_ = tail_ = free_ = none;
      while ( at != none ) {
         Node& gone = chunks.node( at );
         at = gone.next;
         std::destroy_at( &gone );
      }
   }

   /// A walk that survives mutation. The collection must outlive it.
   class Pass : private ListPasses::Pass {
    public:
      explicit Pass( const HashCore& owner )
         : ListPasses::Pass( const_cast< HashCore& >( owner ).passes_, owner.head_, owner.tail_ ),
           owner_( const_cast< HashCore& >( owner ) ) {}
      /// Moves to the next element; false at the end.
      bool next() {
         current_ = this->next_;
         if ( current_ == none ) {
            return false;
         }
         this->next_ = current_ == this->last_ ? none : owner_.node( current_ ).next;
         return true;
      }
      /// The current element's key; copy it before erasing the element.
      const K& key() const { return owner_.node( current_ ).key; }
      V& value() const { return owner_.node( current_ ).value; }

    protected:
      HashCore& owner_;
      uint32_t current_ = none;
   };

 protected:
   V* findValue( const K& key ) const {
      const uint32_t position = positionOf( key );
      return position == none ? nullptr : &const_cast< HashCore* >( this )->node( position ).value;
   }

   /// The value under the key, made when absent. The flag tells which. When memory runs out, or the
   /// value's constructor throws, the collection is as before.
   template< class... Args >
   std::pair< V*, bool > emplace( const K& key, Args&&... args ) {
      if ( const uint32_t position = positionOf( key ); position != none ) {
         return { &node( position ).value, false };
      }
      VEL_ASSERT( size_ < none );
      if ( index_ ) {
         growIfFull();
      } else if ( size_ + 1 > indexFrom ) {
         rebuildIndex( bucketsFor( size_ + 1 ) );
      }
      const uint32_t position = takePosition();
      Node* made = nullptr;
      try {
         made = ::new ( static_cast< void* >( &node( position ) ) )
            Node{ key, V( std::forward< Args >( args )... ), tail_, none };
      } catch ( ... ) {
         giveBack( position );
         throw;
      }
      ( tail_ == none ? head_ : node( tail_ ).next ) = position;
      tail_ = position;
      ++size_;
      if ( index_ ) {
         place( position );
         migrate();
      }
      return { &made->value, true };
   }

 private:
   /// The memory of the elements. Most collections stay within the first chunk, which needs no
   /// table of chunks.
   class Chunks {
    public:
      Chunks() = default;
      Chunks( const Chunks& ) = delete;
      Chunks& operator=( const Chunks& ) = delete;
      ~Chunks() {
         for ( uint32_t i = 0; i < size_; ++i ) {
            std::allocator< Node >().deallocate( table_[i], size_t{ firstChunk } << i );
         }
         if ( table_ != &first_ ) {
            delete[] table_;
         }
      }
      Node& node( uint32_t position ) const {
         const uint32_t shifted = position + firstChunk;
         const auto chunk = static_cast< uint32_t >( std::bit_width( shifted ) ) - 3;
         return table_[chunk][shifted - ( firstChunk << chunk )];
      }
      /// Whether there is room for that many elements.
      bool reaches( uint32_t count ) const { return count <= ( firstChunk << size_ ) - firstChunk; }
      void grow() {
         if ( size_ == 1 && table_ == &first_ ) {
            table_ = new Node*[mostChunks];
            table_[0] = first_;
         }
         table_[size_] = std::allocator< Node >().allocate( size_t{ firstChunk } << size_ );
         ++size_;
      }
      /// Takes over the other's memory, and leaves it empty. This one has to be empty.
      void take( Chunks& other ) {
         first_ = other.first_;
         table_ = other.table_ == &other.first_ ? &first_ : other.table_;
         size_ = std::exchange( other.size_, 0 );
         other.table_ = &other.first_;
      }

    private:
      static constexpr uint32_t mostChunks = 30; // each twice the last: enough for 32-bit positions

      Node* first_ = nullptr;
      Node** table_ = &first_;
      uint32_t size_ = 0;
   };

   Node& node( uint32_t position ) const { return chunks_.node( position ); }

   uint32_t takePosition() {
      if ( free_ != none ) {
         const uint32_t position = free_;
         std::memcpy( &free_, static_cast< void* >( &node( position ) ), sizeof free_ );
         return position;
      }
      if ( !chunks_.reaches( used_ + 1 ) ) {
         chunks_.grow();
      }
      return used_++;
   }
   void giveBack( uint32_t position ) {
      std::memcpy( static_cast< void* >( &node( position ) ), &free_, sizeof free_ );
      free_ = position;
   }

   void erasePosition( uint32_t position ) {
      if ( index_ ) {
         unplace( position );
         migrate();
      }
      Node& gone = node( position );
      passes_.elementGoes( position, gone.previous, gone.next );
      ( gone.previous == none ? head_ : node( gone.previous ).next ) = gone.next;
      ( gone.next == none ? tail_ : node( gone.next ).previous ) = gone.previous;
      // Key or value may hold the last reference to something whose destructor writes this
      // collection: they are moved out and destroyed when the collection is whole.
      [[maybe_unused]] K lastKey = std::move( gone.key );
      [[maybe_unused]] V lastValue = std::move( gone.value );
      std::destroy_at( &gone );
      giveBack( position );
      --size_;
   }

   // --- The index. A bucket is 0 when it is empty. Else its low bits, as many as number the
   // buckets, hold a position plus one, and the bits above them a tag: bits of the key's hash, so
   // that a look-up seldom reads an element that is not the one. Positions fit, since there are
   // always more buckets than positions in use. A bucket of the old index that was emptied holds a
   // tag alone.

   static uint32_t bucketsFor( size_t count ) {
      return static_cast< uint32_t >( std::bit_ceil( count + count / 2 + 2 ) );
   }
   static uint32_t homeOf( uint64_t hash, uint32_t buckets ) {
      return static_cast< uint32_t >( hash ) & ( buckets - 1 );
   }
   static uint32_t tagOf( uint64_t hash, uint32_t buckets ) {
      return static_cast< uint32_t >( hash >> 32 ) & ~( buckets - 1 );
   }
   static bool holds( uint32_t bucket, uint32_t buckets ) {
      return ( bucket & ( buckets - 1 ) ) != 0;
   }
   static uint32_t positionIn( uint32_t bucket, uint32_t buckets ) {
      return ( bucket & ( buckets - 1 ) ) - 1;
   }
   static uint32_t emptied( uint32_t buckets ) { return ~( buckets - 1 ); }
   struct Free {
      void operator()( uint32_t* memory ) const { std::free( memory ); }
   };
   using Index = std::unique_ptr< uint32_t[], Free >;
   static Index makeIndex( uint32_t buckets ) {
      // The system zeroes a large index lazily: growth must not cost a walk over a fresh index.
      void* const memory = std::calloc( buckets, sizeof( uint32_t ) );
      if ( memory == nullptr ) {
         throw std::bad_alloc();
      }
      return Index( static_cast< uint32_t* >( memory ) );
   }

   uint32_t positionOf( const K& key ) const {
      if ( !index_ ) {
         for ( uint32_t at = head_; at != none; at = node( at ).next ) {
            if ( node( at ).key == key ) {
               return at;
            }
         }
         return none;
      }
      const uint64_t hash = hashOf( key );
      const uint32_t found = bucketOf( key, hash, index_.get(), buckets_ );
      if ( found != none ) {
         return positionIn( index_[found], buckets_ );
      }
      if ( old_ ) [[unlikely]] {
         const uint32_t foundOld = bucketOf( key, hash, old_.get(), oldBuckets_ );
         return foundOld == none ? none : positionIn( old_[foundOld], oldBuckets_ );
      }
      return none;
   }

   uint32_t bucketOf( const K& key, uint64_t hash, const uint32_t* index, uint32_t buckets ) const {
      const uint32_t tag = tagOf( hash, buckets );
      uint32_t at = homeOf( hash, buckets );
      for ( uint32_t bucket = index[at]; bucket != 0; bucket = index[at] ) {
         if ( ( bucket & ~( buckets - 1 ) ) == tag && holds( bucket, buckets ) &&
              node( positionIn( bucket, buckets ) ).key == key ) {
            return at;
         }
         at = ( at + 1 ) & ( buckets - 1 );
      }
      return none;
   }

   void place( uint32_t position ) {
      const uint64_t hash = hashOf( node( position ).key );
      uint32_t at = homeOf( hash, buckets_ );
      while ( index_[at] != 0 ) {
         at = ( at + 1 ) & ( buckets_ - 1 );
      }
      index_[at] = tagOf( hash, buckets_ ) | ( position + 1 );
   }

   void unplace( uint32_t position ) {
      const K& key = node( position ).key;
      const uint64_t hash = hashOf( key );
      uint32_t hole = bucketOf( key, hash, index_.get(), buckets_ );
      if ( hole == none ) {
         const uint32_t inOld = bucketOf( key, hash, old_.get(), oldBuckets_ );
         VEL_ASSERT( inOld != none );
         old_[inOld] = emptied( oldBuckets_ );
         return;
      }
      // Closes the gap: whatever would no longer be reached from its home bucket moves up.
      for ( uint32_t at = ( hole + 1 ) & ( buckets_ - 1 ); index_[at] != 0;
            at = ( at + 1 ) & ( buckets_ - 1 ) ) {
         const K& other = node( positionIn( index_[at], buckets_ ) ).key;
         const uint32_t home = homeOf( hashOf( other ), buckets_ );
         if ( ( ( at - home ) & ( buckets_ - 1 ) ) >= ( ( at - hole ) & ( buckets_ - 1 ) ) ) {
            index_[hole] = index_[at];
            hole = at;
         }
      }
      index_[hole] = 0;
   }

   // Makes room for one element more.
   void growIfFull() {
      if ( size_ + 1 <= buckets_ - buckets_ / 4 ) {
         return;
      }
      Index larger = makeIndex( buckets_ * 2 );
      while ( old_ ) {
         migrate();
      }
      old_ = std::move( index_ );
      oldBuckets_ = buckets_;
      migrated_ = 0;
      buckets_ *= 2;
      index_ = std::move( larger );
   }

   void migrate() {
      if ( !old_ ) [[likely]] {
         return;
      }
      for ( uint32_t i = 0; i < migratedPerChange && migrated_ < oldBuckets_; ++i, ++migrated_ ) {
         if ( holds( old_[migrated_], oldBuckets_ ) ) {
            place( positionIn( old_[migrated_], oldBuckets_ ) );
            old_[migrated_] = emptied( oldBuckets_ );
         }
      }
      if ( migrated_ == oldBuckets_ ) {
         old_.reset();
         return;
      }
      for ( uint32_t i = 0; i < migratedPerChange && migrated_ + i < oldBuckets_; ++i ) {
         if ( const uint32_t bucket = old_[migrated_ + i]; holds( bucket, oldBuckets_ ) ) {
            __builtin_prefetch( &node( positionIn( bucket, oldBuckets_ ) ) );
         }
      }
   }

   void rebuildIndex( uint32_t buckets ) {
      index_ = makeIndex( buckets );
      buckets_ = buckets;
      old_.reset();
      for ( uint32_t at = head_; at != none; at = node( at ).next ) {
         place( at );
      }
   }

   Chunks chunks_;
   Index index_;
   Index old_;
   ListPasses passes_;
   uint32_t buckets_ = 0;
   uint32_t oldBuckets_ = 0;
   uint32_t migrated_ = 0;
   uint32_t size_ = 0;
   uint32_t used_ = 0;
   uint32_t head_ = none;
   uint32_t tail_ = none;
   uint32_t free_ = none;
};

} // namespace Vel
