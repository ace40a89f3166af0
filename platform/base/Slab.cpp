#include "platform/base/Slab.h"

#include <algorithm>
#include <cstdint>
#include <cstdlib>

#include "platform/base/Assert.h"

#if defined( __SANITIZE_ADDRESS__ )
#define VEL_SLAB_PASS_THROUGH 1
#elif defined( __has_feature )
#if __has_feature( address_sanitizer )
#define VEL_SLAB_PASS_THROUGH 1
#endif
#endif

namespace Vel {

namespace {
constexpr size_t chunkSize = size_t{ 64 } << 10;
constexpr size_t mostChunksOfBlock = 16;

size_t roundedUp( size_t size, size_t alignment ) {
   return ( size + alignment - 1 ) / alignment * alignment;
}
} // namespace

// Chunks are aligned to their size, so that the chunk of a record is found by masking its address.
struct SlabPool::Chunk {
   SlabPool* pool;
};

SlabPool::SlabPool( size_t recordSize, size_t alignment )
   : recordSize_( roundedUp( std::max( recordSize, sizeof( void* ) ), alignment ) ),
     alignment_( std::max( alignment, alignof( void* ) ) ) {
   VEL_ASSERT( recordSize_ <= chunkSize / 8 );
}

SlabPool::~SlabPool() {
   for ( std::byte* const block : blocks_ ) {
      std::free( block );
   }
}

// A block of many chunks spares the system a mapping for each.
void SlabPool::grow() {
   if ( chunksLeft_ == 0 ) {
      const size_t chunks = std::clamp< size_t >( chunksOfBlock_ * 2, 1, mostChunksOfBlock );
      void* const memory = std::aligned_alloc( chunkSize, chunks * chunkSize );
      if ( memory == nullptr ) {
         throw std::bad_alloc();
      }
      blocks_.push_back( static_cast< std::byte* >( memory ) );
      chunksOfBlock_ = chunksLeft_ = chunks;
   }
   std::byte* const chunk = blocks_.back() + ( chunksOfBlock_ - chunksLeft_ ) * chunkSize;
   --chunksLeft_;
   new ( chunk ) Chunk{ this };
   fresh_ = chunk + roundedUp( sizeof( Chunk ), alignment_ );
   freshEnd_ = chunk + chunkSize;
}

void* SlabPool::allocate() {
#ifdef VEL_SLAB_PASS_THROUGH
   return ::operator new( recordSize_ );
#else
   ++live_;
   if ( free_ ) {
      void* const record = free_;
      free_ = *static_cast< void** >( record );
      return record;
   }
   if ( fresh_ == nullptr || static_cast< size_t >( freshEnd_ - fresh_ ) < recordSize_ ) {
      grow();
   }
   void* const record = fresh_;
   fresh_ += recordSize_;
   return record;
#endif
}

void SlabPool::release( void* record ) {
#ifdef VEL_SLAB_PASS_THROUGH
   ::operator delete( record );
#else
   const auto address = reinterpret_cast< uintptr_t >( record );
   // NOLINTNEXTLINE(performance-no-int-to-ptr): the chunk is where its alignment says
   SlabPool* const pool = reinterpret_cast< Chunk* >( address & ~( chunkSize - 1 ) )->pool;
   *static_cast< void** >( record ) = pool->free_;
   pool->free_ = record;
   if ( --pool->live_ == 0 && pool->ownerEnded_ ) {
      delete pool;
   }
#endif
}

void SlabPool::ownerEnds() {
   ownerEnded_ = true;
   if ( live_ == 0 ) {
      delete this;
   }
}

} // namespace Vel
