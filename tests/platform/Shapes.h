// The shapes of collection behind one interface, so that a rule is tested on all of them.

#pragma once

#include <unordered_set>

#include "platform/containers/Hash.h"
#include "platform/containers/LabelIndexed.h"
#include "platform/containers/Ordered.h"

namespace VelTest {

using Mpls::RouteKey;
using Vel::MplsLabel;
using Vel::U32;

/// A value that keeps account of its copies, moves and ends.
struct Counted {
   static inline size_t copies = 0;
   static inline size_t moves = 0;
   static inline size_t badEnds = 0; // of what was not alive
   static inline std::unordered_set< const Counted* > alive;

   Counted( int number = 0 ) : value( number ) { alive.insert( this ); } // NOLINT: as a number
   Counted( const Counted& other ) : Counted( other.value ) { ++copies; }
   Counted( Counted&& other ) noexcept : Counted( other.value ) { ++moves; }
   Counted& operator=( const Counted& ) = default;
   ~Counted() { badEnds += 1 - alive.erase( this ); }
   friend bool operator==( const Counted& a, const Counted& b ) { return a.value == b.value; }

   int value;
};

// How the i-th key is made: scattered, without repetition.
struct Numbers {
   static U32 at( U32 i ) { return i * 2654435761U; }
};
struct SingleLabels {
   static RouteKey at( U32 i ) { return RouteKey( i * 4099 % ( 1U << 20 ) ); }
};
struct DeepStacks {
   static RouteKey at( U32 i ) {
      return { MplsLabel( i % 7 ), MplsLabel( i ), MplsLabel( i % 3 ) };
   }
};
struct MixedStacks {
   static RouteKey at( U32 i ) { return i % 4 ? SingleLabels::at( i ) : DeepStacks::at( i ); }
};

template< class C, class Keys >
struct Shape {
   using Collection = C;
   using Key = typename C::Key;
   static constexpr bool map = requires { typename C::Value; };

   static Key key( U32 i ) { return Keys::at( i ); }
   static bool put( C& collection, const Key& key, int value = 0 ) {
      if constexpr ( map ) {
         return collection.set( key, typename C::Value( value ) );
      } else {
         return collection.insert( key );
      }
   }
};

template< class V >
using HashShape = Shape< Vel::Hash< U32, V >, Numbers >;
template< class V >
using LabelShape = Shape< Vel::LabelIndexed< RouteKey, V >, SingleLabels >;
template< class V >
using DeepShape = Shape< Vel::LabelIndexed< RouteKey, V >, DeepStacks >;
template< class V >
using MixedShape = Shape< Vel::LabelIndexed< RouteKey, V >, MixedStacks >;
template< class V >
using OrderedShape = Shape< Vel::Ordered< U32, V >, Numbers >;
using HashSetShape = Shape< Vel::HashSet< U32 >, Numbers >;
using LabelSetShape = Shape< Vel::LabelSet<>, MixedStacks >;
using OrderedSetShape = Shape< Vel::OrderedSet< U32 >, Numbers >;

} // namespace VelTest
