// Label routes through the whole library, beside their floor.
//
//    BM_singleRoute       one route's way: written into the LFIB, announced, reviewed, written for
//                         the driver
//    BM_routeTable/N/M    N routes over M via sets of 4 vias over 512 next hops: from the first
//                         notification to the last route that the software switch has confirmed
//                         and the library has published
//    BM_...Floor          the same number of writes of the same sizes into bare arrays by label
//    BM_tableEvent/X      what happens to a table of 1,048,560 routes that is in hardware, to the
//                         last confirmation: all routes go; all move to other via sets; 1,000 move
//                         one by one, one a millisecond; one next hop of 512 is lost; a new
//                         publisher lays out the same table again; the state machine starts with
//                         the table in the LFIB
//
// BM_routeTable prints the ratio to the floor measured in the same run, and the library's bytes a
// route (published and hardware entities included; what the switch's own tables and the LFIB take
// is not).

#include <benchmark/benchmark.h>

#include <cstdint>
#include <memory>
#include <vector>

#include "bench/Measure.h"
#include "tests/LabelRig.h"

namespace Vel {
namespace {

constexpr U32 firstLabel = 16;
constexpr U32 viasPerSet = 4;
constexpr U32 nextHops = 512;
constexpr U32 interfaces = 64;

Test::RigSettings settingsFor( U32 routes, U32 viaSets ) {
   Test::RigSettings settings;
   settings.capacities.routes = std::min( routes + routes / 8 + 64, U32{ 1 } << 20 );
   settings.capacities.viaSets = viaSets * 2;
   settings.capacities.mplsVias = viaSets * viasPerSet * 2;
   settings.capacities.ringEntries = 1U << 16;
   return settings;
}

std::string addressOf( U32 nextHop ) {
   return "10.0." + std::to_string( nextHop / 256 ) + "." + std::to_string( nextHop % 256 );
}

void addViaSets( Test::LabelRig& rig, U32 viaSets ) {
   for ( U32 i = 0; i < nextHops; ++i ) {
      rig.l3.neighborIs( addressOf( i ), 1 + i % interfaces, 0x020000000000 + i );
   }
   for ( U32 i = 0; i < viaSets; ++i ) {
      std::vector< Mpls::LfibMplsVia > vias;
      for ( U32 v = 0; v < viasPerSet; ++v ) {
         const U32 nextHop = ( i * viasPerSet + v * 131 ) % nextHops;
         vias.push_back( Test::swapVia( i * viasPerSet + v + 1, addressOf( nextHop ),
                                        1 + nextHop % interfaces, 16000 + i ) );
      }
      rig.viaSetIs( i + 1, vias );
   }
}

/// Runs until the last route is confirmed and published. Slices end after some thousand items, as
/// they would in time.
void settle( Test::LabelRig& rig ) {
   do {
      rig.lfib->poll( 1U << 16 );
      runUntilIdle( *rig.scheduler, *rig.clock, rig.clock->now() + 1.0, 1U << 30 );
   } while ( rig.lfib->pollPending() );
}

// --- The floor: what a route leaves behind, in the same sizes, written by label and in the same
// order.

struct FloorRecord {
   U64 words[9];
};
struct FloorLink {
   U64 words[2];
};
struct FloorHwRoute {
   U64 words[3];
};
struct FloorQueued {
   U64 words[4];
};

double floorSeconds( U32 routes ) {
   const size_t size = routes;
   std::vector< FloorQueued > lfib( size, { { 1, 2, 3, 4 } } ); // what is read
   double seconds = 0;
   {
      std::vector< FloorRecord > record( size );
      std::vector< FloorLink > tracking( size ), l3( size ), l2( size ), hardware( size ),
         info( size );
      std::vector< FloorHwRoute > config( size ), status( size ), published( size ), watch( size );
      std::vector< FloorQueued > queue( size );
      std::vector< U64 > accepted( size / 64 + 1 ), review( size / 64 + 1 ),
         publish( size / 64 + 1 );
      seconds = secondsOf( [&] {
         for ( size_t i = 0; i < size; ++i ) { // announced
            accepted[i / 64] |= U64{ 1 } << i % 64;
            record[i] = { { lfib[i].words[0], i } };
            tracking[i] = { { i, lfib[i].words[1] } };
            review[i / 64] |= U64{ 1 } << i % 64;
         }
         for ( size_t i = 0; i < size; ++i ) { // reviewed
            review[i / 64] &= ~( U64{ 1 } << i % 64 );
            record[i].words[3] += lfib[i].words[1];
            l3[i] = { { i, 1 } };
            l2[i] = { { i, 2 } };
            config[i] = { { i, 2, 1 } };
            watch[i] = { { i, 2, 1 } };
            queue[i] = { { i, 2, 1, 1 } };
            publish[i / 64] |= U64{ 1 } << i % 64;
         }
         for ( size_t i = 0; i < size; ++i ) { // carried out and confirmed
            hardware[i] = { { queue[i].words[1], 1 } };
            status[i] = { { i, 2, 1 } };
            record[i].words[4] = 1;
            publish[i / 64] |= U64{ 1 } << i % 64;
         }
         for ( size_t i = 0; i < size; ++i ) { // published
            publish[i / 64] &= ~( U64{ 1 } << i % 64 );
            published[i] = { { i, record[i].words[3], 0 } };
            info[i] = { { i, record[i].words[4] } };
         }
         benchmark::ClobberMemory();
      } );
      benchmark::DoNotOptimize( published.data() );
   }
   return seconds;
}

// --- The benchmarks

void BM_routeTable( benchmark::State& state ) {
   const auto routes = static_cast< U32 >( state.range( 0 ) );
   const auto viaSets = static_cast< U32 >( state.range( 1 ) );
   double total = 0;
   double floor = 0;
   double bytes = 0;
   for ( auto _ : state ) {
      Test::LabelRig rig( settingsFor( routes, viaSets ) );
      rig.scheduler->maxQueriesPerRunIs( 20'000 );
      settle( rig );
      addViaSets( rig, viaSets );
      for ( U32 i = 0; i < routes; ++i ) {
         rig.routeIs( firstLabel + i, 1 + i % viaSets );
      }
      const size_t before = heapBytes();
      const double seconds = secondsOf( [&] { settle( rig ); } );
      // The switch's own tables and checks take 24 + 16 bytes a route.
      bytes += static_cast< double >( heapBytes() - before ) / routes - 40;
      if ( rig.hardware->routes() != routes || rig.state()->needReview() ) {
         state.SkipWithError( "not every route was programmed" );
         return;
      }
      state.SetIterationTime( seconds );
      total += seconds;
      floor += floorSeconds( routes );
   }
   state.SetItemsProcessed( static_cast< int64_t >( state.iterations() ) * routes );
   state.counters["ns/route"] = total / static_cast< double >( state.iterations() ) / routes * 1e9;
   state.counters["floor_ns/route"] =
      floor / static_cast< double >( state.iterations() ) / routes * 1e9;
   state.counters["ratio_to_floor"] = total / floor;
   state.counters["bytes/route"] = bytes / static_cast< double >( state.iterations() );
}
BENCHMARK( BM_routeTable )
   ->Args( { 10'000, 100 } )
   ->Args( { 100'000, 1'000 } )
   ->Args( { 1'048'560, 1'000 } )
   ->Args( { 100'000, 100'000 } )
   ->UseManualTime()
   ->Unit( benchmark::kMillisecond );

void BM_routeTableFloor( benchmark::State& state ) {
   const auto routes = static_cast< U32 >( state.range( 0 ) );
   for ( auto _ : state ) {
      state.SetIterationTime( floorSeconds( routes ) );
   }
   state.SetItemsProcessed( static_cast< int64_t >( state.iterations() ) * routes );
}
BENCHMARK( BM_routeTableFloor )->Arg( 1'048'560 )->UseManualTime()->Unit( benchmark::kMillisecond );

void BM_singleRoute( benchmark::State& state ) {
   constexpr U32 table = 100'000;
   Test::LabelRig rig( settingsFor( table + 16, 1'000 ) );
   addViaSets( rig, 1'000 );
   for ( U32 i = 0; i < table; ++i ) {
      rig.routeIs( firstLabel + i, 1 + i % 1'000 );
   }
   settle( rig );
   U32 viaSet = 0;
   for ( auto _ : state ) {
      // The route moves to another via set and is written for the driver.
      viaSet = ( viaSet + 1 ) % 1'000;
      rig.routeIs( firstLabel + 5'000, 1 + viaSet );
      rig.lfib->poll( 16 );
      const U64 version = rig.config()->route( Mpls::RouteKey( firstLabel + 5'000 ) ).version;
      while ( rig.config()->route( Mpls::RouteKey( firstLabel + 5'000 ) ).version == version ) {
         rig.clock->advance( 0.001 ); // the review interval, which takes no time here
         rig.scheduler->runOne();
      }
      state.PauseTiming();
      settle( rig );
      state.ResumeTiming();
   }
}
BENCHMARK( BM_singleRoute )->Unit( benchmark::kMicrosecond );

/// The writes that one route leaves behind, alone.
void BM_singleRouteFloor( benchmark::State& state ) {
   for ( auto _ : state ) {
      state.SetIterationTime( floorSeconds( 1 ) );
   }
}
BENCHMARK( BM_singleRouteFloor )->UseManualTime()->Unit( benchmark::kMicrosecond );

// --- A table in hardware, and what happens to it.

struct TableEvent {
   void ( *written )( Test::LabelRig& rig, U32 routes, U32 viaSets ); ///< outside the time
   void ( *timed )( Test::LabelRig& rig, U32 routes, U32 viaSets );
   U32 routesLeft = 1; ///< for each of the table
   bool startedBefore = true;
};

void settleTimed( Test::LabelRig& rig, U32, U32 ) {
   settle( rig );
}
void deleteAll( Test::LabelRig& rig, U32 routes, U32 ) {
   for ( U32 i = 0; i < routes; ++i ) {
      rig.routeDel( firstLabel + i );
   }
}
void moveAll( Test::LabelRig& rig, U32 routes, U32 viaSets ) {
   for ( U32 i = 0; i < routes; ++i ) {
      rig.routeIs( firstLabel + i, 1 + ( i + 1 ) % viaSets );
   }
}
void moveOneByOne( Test::LabelRig& rig, U32 routes, U32 viaSets ) {
   for ( U32 i = 0; i < 1'000; ++i ) {
      const U32 route = i * 997 % routes;
      rig.routeIs( firstLabel + route, 1 + ( route + 1 + i / 500 ) % viaSets );
      rig.lfib->poll( 1U << 16 );
      runUntilIdle( *rig.scheduler, *rig.clock, rig.clock->now() + 0.001, 1U << 30 );
   }
   settle( rig );
}
void loseNextHop( Test::LabelRig& rig, U32, U32 ) {
   rig.l3.neighborDel( addressOf( 4 ), 1 + 4 % interfaces );
}
void publishAnew( Test::LabelRig& rig, U32 routes, U32 viaSets ) {
   std::destroy_at( &rig.writer );
   Mpls::LfibCapacities capacities = settingsFor( routes, viaSets ).capacities;
   capacities.ringEntries = 1U << 21;
   std::construct_at( &rig.writer, rig.memory, capacities );
   addViaSets( rig, viaSets );
   for ( U32 i = 0; i < routes; ++i ) {
      rig.routeIs( firstLabel + i, 1 + i % viaSets );
   }
}
void start( Test::LabelRig& rig, U32, U32 ) {
   rig.start();
   settle( rig );
}
void nothing( Test::LabelRig&, U32, U32 ) {}

void BM_tableEvent( benchmark::State& state, TableEvent event ) {
   const auto routes = static_cast< U32 >( state.range( 0 ) );
   const auto viaSets = static_cast< U32 >( state.range( 1 ) );
   for ( auto _ : state ) {
      Test::RigSettings settings = settingsFor( routes, viaSets );
      settings.capacities.ringEntries = 1U << 21; // no announcement is lost
      settings.start = event.startedBefore;
      Test::LabelRig rig( settings );
      rig.scheduler->maxQueriesPerRunIs( 20'000 );
      addViaSets( rig, viaSets );
      for ( U32 i = 0; i < routes; ++i ) {
         rig.routeIs( firstLabel + i, 1 + i % viaSets );
      }
      settle( rig );
      event.written( rig, routes, viaSets );
      state.SetIterationTime( secondsOf( [&] { event.timed( rig, routes, viaSets ); } ) );
      if ( rig.hardware->routes() != routes * event.routesLeft || !rig.scheduler->settled() ) {
         state.SkipWithError( "the table is not what it should be" );
         return;
      }
   }
}
void wholeTable( benchmark::internal::Benchmark* bench ) {
   bench->Args( { 1'048'560, 1'000 } )
      ->Iterations( 1 )
      ->Repetitions( 3 )
      ->UseManualTime()
      ->Unit( benchmark::kMillisecond );
}
BENCHMARK_CAPTURE( BM_tableEvent, deletion, { deleteAll, settleTimed, 0 } )->Apply( wholeTable );
BENCHMARK_CAPTURE( BM_tableEvent, move, { moveAll, settleTimed } )->Apply( wholeTable );
BENCHMARK_CAPTURE( BM_tableEvent, churn1000, { nothing, moveOneByOne } )->Apply( wholeTable );
BENCHMARK_CAPTURE( BM_tableEvent, lostNextHop, { loseNextHop, settleTimed } )->Apply( wholeTable );
BENCHMARK_CAPTURE( BM_tableEvent, newPublisher, { publishAnew, settleTimed } )->Apply( wholeTable );
BENCHMARK_CAPTURE( BM_tableEvent, loadedStart, { nothing, start, 1, false } )->Apply( wholeTable );

} // namespace
} // namespace Vel
