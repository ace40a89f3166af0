// Publishers and readers as processes of their own. Publishers are killed while they write, and
// stopped; their successors take over, or lay out anew with other capacities.

#include <gtest/gtest.h>

#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <csignal>
#include <ctime>
#include <map>
#include <memory>
#include <thread>

#include "platform/lfib/LfibStatus.h"
#include "tests/Seed.h"
#include "tests/platform/LfibFixtures.h"

namespace Mpls {
namespace {

using namespace LfibTest;

constexpr U32 liveLabels = 8; // every publisher has them, all the time
constexpr U32 labelCount = 24;
constexpr U32 sets = 8;
constexpr int kills = 1000;
constexpr size_t readerCount = 4;

/// What the processes say to each other.
struct Shared {
   std::atomic< U64 > layouts = 0; ///< odd while the live labels of a new layout are to come
   std::atomic< U32 > oldest = 0;  ///< the generation that laid the region out last
   std::atomic< bool > stop = false;
   struct Reader {
      std::atomic< U64 > looks = 0, torn = 0, old = 0, lost = 0, corrupt = 0, slow = 0;
      std::atomic< bool > same = false;
   };
   std::array< Reader, readerCount > reader;
};

// A version has its publisher's generation in it, and every content says whether it is whole.
U32 metricOf( U32 label, U32 version ) {
   return static_cast< U32 >( Vel::mixBits( U64{ version } << 32 | label ) );
}
LfibViaSet contentOf( U32 index, U32 version ) {
   return viaSetOf( index, 1 + metricOf( index, version ) % LfibViaIndexRange::size, version );
}

LfibCapacities capacitiesOf( U32 generation ) {
   LfibCapacities capacities = tiny;
   capacities.viaSets <<= generation % 3;
   capacities.routes <<= generation % 2;
   return capacities;
}

void publish( Shared& shared, std::span< std::byte > region, U32 generation, U32 writes ) {
   Random random( generation );
   std::unique_ptr< LfibWriter > writer;
   if ( !random.oneIn( 8 ) ) {
      writer = std::make_unique< LfibWriter >( region );
   }
   if ( !writer || !writer->attached() ) {
      shared.layouts |= 1;
      writer = std::make_unique< LfibWriter >( region, capacitiesOf( generation ) );
      shared.oldest = generation;
   }
   for ( U32 i = 0; i < writes; ++i ) {
      const U32 version = generation << 10 | i % 1024;
      const U32 label = i < liveLabels ? i : random.below( labelCount );
      if ( label >= liveLabels && random.oneIn( 3 ) ) {
         writer->routeDel( RouteKey( label ) );
      } else {
         writer->routeIs( { RouteKey( label ), viaSetKey( version ), metricOf( label, version ) } );
      }
      const U32 index = random.below( sets );
      random.oneIn( 4 ) ? writer->viaSetDel( viaSetKey( index ) )
                        : writer->viaSetIs( contentOf( index, version ) );
      if ( i == liveLabels ) {
         shared.layouts += shared.layouts % 2;
      }
   }
}

/// What a reader's user has of the table.
struct Copy : LfibStatus::Reactor {
   void onLfibRoute( RouteKey key ) override {
      const LfibRoute route = notifier()->lfibRoute( key );
      if ( !route && !notifier()->unread() ) {
         routes.erase( key );
      } else if ( !!route ) {
         routes[key] = route.viaSetKey;
      }
   }
   std::map< RouteKey, LfibViaSetKey > routes;
};

U64 cpuNs() {
   timespec now{};
   clock_gettime( CLOCK_THREAD_CPUTIME_ID, &now );
   return static_cast< U64 >( now.tv_sec ) * 1'000'000'000 + static_cast< U64 >( now.tv_nsec );
}

void look( Shared& shared, Shared::Reader& self, const LfibStatus& status, Random& random ) {
   const U64 layouts = shared.layouts;
   const U32 oldest = shared.oldest;
   const U32 label = random.below( labelCount );
   const U32 index = random.below( sets );
   const U64 begin = cpuNs();
   const LfibRoute route = status.lfibRoute( RouteKey( label ) );
   const bool unread = status.unread();
   const LfibViaSet viaSet = status.lfibViaSet( viaSetKey( index ) );
   self.slow += cpuNs() - begin > 1'000'000;
   ++self.looks;
   if ( !!route ) {
      const U32 version = route.viaSetKey.index();
      self.torn += route.metric != metricOf( label, version );
      self.old += version >> 10 < oldest;
   } else {
      self.lost += !unread && label < liveLabels && layouts % 2 == 0 && shared.layouts == layouts;
   }
   if ( !viaSet.null() ) {
      const U32 version = viaSet.viaKey( 0 ).index();
      self.torn += viaSet != contentOf( index, version );
      self.old += version >> 10 < oldest;
   }
}

void read( Shared& shared, Shared::Reader& self, std::span< const std::byte > region, U64 seed ) {
   const auto status = Vel::make< LfibStatus >( "lfib", region );
   Copy copy;
   copy.notifierIs( status.get() );
   Random random( seed );
   while ( !shared.stop ) {
      status->poll( random.below( 40 ) );
      for ( U32 i = random.below( 40 ); i != 0; --i ) {
         look( shared, self, *status, random );
      }
   }
   while ( status->pollPending() ) {
      status->poll( 100 );
   }
   self.corrupt = status->corruptions();
   std::map< RouteKey, LfibViaSetKey > routes;
   const bool whole = LfibReader( region ).routeEach(
      [&]( const LfibRoute& route ) { routes[route.routeKey] = route.viaSetKey; } );
   self.same = whole && copy.routes == routes && !routes.empty();
}

template< class F >
pid_t process( const F& work ) {
   const pid_t pid = fork();
   if ( pid == 0 ) {
      work();
      _exit( 0 );
   }
   return pid;
}

TEST( LfibProcess, publishersMayBeKilledAtAnyTime ) {
   const U64 seed = VelTest::testSeed();
   Random random( seed );
   size_t bytes = 0;
   for ( U32 generation = 0; generation < 6; ++generation ) {
      bytes = std::max( bytes, LfibWriter::bytesNeeded( capacitiesOf( generation ) ) );
   }
   void* const memory = mmap( nullptr, sizeof( Shared ) + bytes + 64, PROT_READ | PROT_WRITE,
                              MAP_SHARED | MAP_ANONYMOUS, -1, 0 );
   ASSERT_NE( memory, MAP_FAILED );
   Shared& shared = *new ( memory ) Shared;
   const std::span region(
      static_cast< std::byte* >( memory ) + ( sizeof( Shared ) + 63 ) / 64 * 64, bytes );
   publish( shared, region, 1, 100 );
   std::vector< pid_t > reading;
   for ( Shared::Reader& self : shared.reader ) {
      reading.push_back( process( [&] {
         read( shared, self, region, seed + static_cast< U64 >( &self - shared.reader.data() ) );
      } ) );
   }
   U32 generation = 1;
   for ( int i = 0; i < kills; ++i ) {
      const pid_t publisher =
         process( [&] { publish( shared, region, generation + 1, 1U << 30 ); } );
      ++generation;
      std::this_thread::sleep_for( std::chrono::microseconds( 200 + random.below( 2000 ) ) );
      if ( random.oneIn( 4 ) ) {
         kill( publisher, SIGSTOP );
         std::this_thread::sleep_for( std::chrono::microseconds( random.below( 2000 ) ) );
      }
      kill( publisher, SIGKILL );
      waitpid( publisher, nullptr, 0 );
   }
   publish( shared, region, generation + 1, 1000 );
   shared.stop = true;
   for ( const pid_t pid : reading ) {
      int status = 0;
      waitpid( pid, &status, 0 );
      EXPECT_EQ( status, 0 );
   }
   for ( const Shared::Reader& self : shared.reader ) {
      EXPECT_GT( self.looks, 1000 ) << self.slow;
      EXPECT_EQ( self.torn, 0 );
      EXPECT_EQ( self.old, 0 );
      EXPECT_EQ( self.lost, 0 );
      EXPECT_EQ( self.corrupt, 0 );
      EXPECT_TRUE( self.same );
      EXPECT_LE( self.slow, self.looks / 10'000 ); // the kernel's own work counts as the process's
   }
   munmap( memory, sizeof( Shared ) + bytes + 64 );
}

} // namespace
} // namespace Mpls
