#include "platform/Slab.h"

#include <algorithm>
#include <cstdint>
#include <cstdlib>

#include "platform/Assert.h"

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
constexpr size_t recordAlignment = alignof( std::max_align_t );
} // namespace

// Chunks are aligned to their size, so that the chunk of a record is found by masking its address.
struct SlabPool::Chunk {
   SlabPool* pool;
   Chunk* next;
};

SlabPool::SlabPool( size_t recordSize )
   : recordSize_( ( std::max( recordSize, sizeof( void* ) ) + recordAlignment - 1 ) /
                  recordAlignment * recordAlignment ) {
   VEL_ASSERT( recordSize_ <= chunkSize / 8 );
}

SlabPool::~SlabPool() {
   while ( chunks_ ) {
      Chunk* const chunk = chunks_;
      chunks_ = chunk->next;
      std::free( chunk );
   }
}

void SlabPool::grow() {
   void* const memory = std::aligned_alloc( chunkSize, chunkSize );
   if ( memory == nullptr ) {
      throw std::bad_alloc();
   }
   chunks_ = new ( memory ) Chunk{ this, chunks_ };
   constexpr size_t header =
      ( sizeof( Chunk ) + recordAlignment - 1 ) / recordAlignment * recordAlignment;
   fresh_ = static_cast< std::byte* >( memory ) + header;
   freshEnd_ = static_cast< std::byte* >( memory ) + chunkSize;
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
