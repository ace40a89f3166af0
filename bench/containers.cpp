// What a keyed write, look-up, erasure and walk cost in each shape of collection, over a whole
// label table.
//
//    bench_containers [--elements=1048560] [options of Google Benchmark]
//
// One iteration is one operation on every element; `time/item` is what to read (processor time).
// "floor" is the bare array by label: nothing that holds the same values can be faster. Look-ups
// and erasures go in random order, insertions in order of labels and in random order.

#include <benchmark/benchmark.h>

#include <algorithm>
#include <array>
#include <bit>
#include <cstdint>
#include <ctime>
#include <iostream>
#include <memory>
#include <numeric>
#include <random>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "platform/base/DecimalText.h"
#include "platform/containers/Hash.h"
#include "platform/containers/LabelIndexed.h"

namespace {

using Mpls::RouteKey;
using Vel::U32;
using Vel::U64;

constexpr size_t allLabels = 1'048'560; // all but the reserved ones
size_t elements = allLabels;

/// As large as a hardware route.
struct Value {
   std::array< U64, 4 > words{};
   friend bool operator==( const Value&, const Value& ) = default;
};
Value valueOf( RouteKey key ) {
   return { { key.word(), 1, 2, 3 } };
}

// --- The tables, behind one interface: put, get, remove and the sum of a walk.

struct Floor {
   Floor() : values( Vel::LabelBits::labels ) {}
   void put( RouteKey key ) { values[key.topLabel().value()] = valueOf( key ); }
   U64 get( RouteKey key ) const { return values[key.topLabel().value()].words[0]; }
   void remove( RouteKey key ) { values[key.topLabel().value()] = {}; }
   U64 walk() const {
      return std::accumulate( values.begin(), values.end(), U64{ 0 },
                              []( U64 sum, const Value& value ) { return sum + value.words[0]; } );
   }
   std::vector< Value > values;
};

struct SetFloor {
   SetFloor() : words( Vel::LabelBits::pages ) {}
   static U64 bit( U32 label ) { return U64{ 1 } << label % 64; }
   void put( RouteKey key ) { word( key ) |= bit( key.topLabel().value() ); }
   U64 get( RouteKey key ) { return word( key ) & bit( key.topLabel().value() ); }
   void remove( RouteKey key ) { word( key ) &= ~bit( key.topLabel().value() ); }
   U64 walk() const {
      U64 sum = 0;
      for ( size_t page = 0; page < words.size(); ++page ) {
         for ( U64 rest = words[page]; rest != 0; rest &= rest - 1 ) {
            sum += page * 64 + static_cast< U64 >( std::countr_zero( rest ) );
         }
      }
      return sum;
   }
   U64& word( RouteKey key ) { return words[key.topLabel().value() / 64]; }
   std::vector< U64 > words;
};

template< class C >
struct MapTable {
   void put( RouteKey key ) { map.set( key, valueOf( key ) ); }
   U64 get( RouteKey key ) const { return map.lookup( key ).words[0]; }
   void remove( RouteKey key ) { map.erase( key ); }
   U64 walk() const {
      U64 sum = 0;
      for ( const auto& [key, value] : map ) {
         sum += value.words[0];
      }
      return sum;
   }
   C map;
};
using Labels = MapTable< Vel::LabelIndexed< RouteKey, Value > >;
using GrowingHash = MapTable< Vel::Hash< RouteKey, Value > >;
struct PresizedHash : GrowingHash {
   PresizedHash() { map.reserve( elements ); }
};

struct LabelSetTable {
   void put( RouteKey key ) { set.insert( key ); }
   U64 get( RouteKey key ) const { return set.has( key ); }
   void remove( RouteKey key ) { set.erase( key ); }
   U64 walk() const {
      U64 sum = 0;
      for ( const RouteKey key : set ) {
         sum += key.word();
      }
      return sum;
   }
   Vel::LabelSet<> set;
};

struct StandardMap {
   struct HashOf {
      size_t operator()( RouteKey key ) const { return key.hash(); }
   };
   void put( RouteKey key ) { map.insert_or_assign( key, valueOf( key ) ); }
   U64 get( RouteKey key ) const {
      const auto at = map.find( key );
      return at == map.end() ? 0 : at->second.words[0];
   }
   void remove( RouteKey key ) { map.erase( key ); }
   U64 walk() const {
      U64 sum = 0;
      for ( const auto& [key, value] : map ) {
         sum += value.words[0];
      }
      return sum;
   }
   std::unordered_map< RouteKey, Value, HashOf > map;
};
struct PresizedStandardMap : StandardMap {
   PresizedStandardMap() { map.reserve( elements ); }
};

// --- The operations

const std::vector< RouteKey >& keysInOrder() {
   static const std::vector< RouteKey > keys = [] {
      std::vector< RouteKey > made;
      for ( U32 i = 0; i < elements; ++i ) {
         made.emplace_back( Vel::MplsLabel::firstUnreserved + i );
      }
      return made;
   }();
   return keys;
}

std::vector< RouteKey > shuffled( U32 seed ) {
   std::vector< RouteKey > keys = keysInOrder();
   std::shuffle( keys.begin(), keys.end(), std::mt19937( seed ) );
   return keys;
}
const std::vector< RouteKey >& keysShuffled() {
   static const std::vector< RouteKey > keys = shuffled( 1 );
   return keys;
}
// Another order, so that a random look-up does not follow the order of insertion.
const std::vector< RouteKey >& keysShuffledAgain() {
   static const std::vector< RouteKey > keys = shuffled( 2 );
   return keys;
}

// Processor time, since what else runs on the machine is not what is measured. Its step is a
// microsecond; an operation on a whole table takes a thousand at least.
template< class F >
void timed( benchmark::State& state, const F& operation ) {
   const std::clock_t begin = std::clock();
   operation();
   state.SetIterationTime( static_cast< double >( std::clock() - begin ) / CLOCKS_PER_SEC );
}

void report( benchmark::State& state ) {
   const auto items =
      static_cast< double >( state.iterations() ) * static_cast< double >( elements );
   using benchmark::Counter;
   state.counters["items/s"] = Counter( items, Counter::kIsRate );
   state.counters["time/item"] = Counter( items, Counter::kIsRate | Counter::kInvert );
}

template< class Table >
std::unique_ptr< Table > filled() {
   auto table = std::make_unique< Table >();
   for ( const RouteKey key : keysShuffled() ) {
      table->put( key );
   }
   return table;
}

template< class Table >
void insertAll( benchmark::State& state, const std::vector< RouteKey >& keys ) {
   for ( auto _ : state ) {
      std::unique_ptr< Table > table; // its end is not timed
      timed( state, [&] {
         table = std::make_unique< Table >();
         for ( const RouteKey key : keys ) {
            table->put( key );
         }
         benchmark::ClobberMemory();
      } );
   }
   report( state );
}
template< class Table >
void insertInOrder( benchmark::State& state ) {
   insertAll< Table >( state, keysInOrder() );
}
template< class Table >
void insertRandom( benchmark::State& state ) {
   insertAll< Table >( state, keysShuffled() );
}

template< class Table >
void lookupRandom( benchmark::State& state ) {
   const auto table = filled< Table >();
   for ( auto _ : state ) {
      timed( state, [&] {
         U64 sum = 0;
         for ( const RouteKey key : keysShuffledAgain() ) {
            sum += table->get( key );
         }
         benchmark::DoNotOptimize( sum );
      } );
   }
   report( state );
}

template< class Table >
void eraseRandom( benchmark::State& state ) {
   for ( auto _ : state ) {
      const auto table = filled< Table >();
      timed( state, [&] {
         for ( const RouteKey key : keysShuffledAgain() ) {
            table->remove( key );
         }
         benchmark::ClobberMemory();
      } );
   }
   report( state );
}

template< class Table >
void walk( benchmark::State& state ) {
   const auto table = filled< Table >();
   for ( auto _ : state ) {
      timed( state, [&] { benchmark::DoNotOptimize( table->walk() ); } );
   }
   report( state );
}

template< class Table >
void registerTable( const std::string& name ) {
   using Function = void ( * )( benchmark::State& );
   const std::pair< const char*, Function > operations[] = {
      { "insertInOrder", insertInOrder< Table > },
      { "insertRandom", insertRandom< Table > },
      { "lookupRandom", lookupRandom< Table > },
      { "eraseRandom", eraseRandom< Table > },
      { "walk", walk< Table > },
   };
   for ( const auto& [operation, function] : operations ) {
      benchmark::RegisterBenchmark( ( name + "/" + operation ).c_str(), function )
         ->UseManualTime()
         ->Unit( benchmark::kMillisecond );
   }
}

/// Takes our own option out of the arguments; false when its value is wrong.
bool takeElements( int& argc, char** argv ) {
   constexpr std::string_view option = "--elements=";
   for ( int i = 1; i < argc; ++i ) {
      if ( const std::string_view argument = argv[i]; argument.starts_with( option ) ) {
         const auto count = Vel::decimalParse( argument.substr( option.size() ), allLabels );
         if ( !count || *count == 0 ) {
            std::cerr << "--elements: a number from 1 to " << allLabels << '\n';
            return false;
         }
         elements = *count;
         std::move( argv + i + 1, argv + argc, argv + i );
         --argc;
         return true;
      }
   }
   return true;
}

} // namespace

int main( int argc, char** argv ) {
   if ( !takeElements( argc, argv ) ) {
      return 2;
   }
   registerTable< Floor >( "floor" );
   registerTable< Labels >( "LabelIndexed" );
   registerTable< PresizedHash >( "Hash,presized" );
   registerTable< GrowingHash >( "Hash,growing" );
   registerTable< PresizedStandardMap >( "std::unordered_map,presized" );
   registerTable< StandardMap >( "std::unordered_map,growing" );
   registerTable< SetFloor >( "setFloor" );
   registerTable< LabelSetTable >( "LabelSet" );
   benchmark::Initialize( &argc, argv );
   if ( benchmark::ReportUnrecognizedArguments( argc, argv ) ) {
      return 1;
   }
   benchmark::RunSpecifiedBenchmarks();
   benchmark::Shutdown();
   return 0;
}
