// Random operations on every shape, with passes under way, against the standard library's map.

#include <map>
#include <memory>
#include <optional>
#include <random>
#include <set>
#include <vector>

#include <gtest/gtest.h>

#include "tests/Seed.h"
#include "tests/platform/Shapes.h"

namespace VelTest {
namespace {

/// Whether an element that is added now, when the pass has last met `last`, must be met too.
template< class S >
bool metIfAdded( const std::optional< typename S::Key >& last, const typename S::Key& key,
                 bool work ) {
   using Key = typename S::Key;
   using C = typename S::Collection;
   if constexpr ( std::is_base_of_v< Vel::OrderedSet< Key >, C > ||
                  std::is_base_of_v< Vel::Ordered< Key, int >, C > ) {
      return !last || key > *last;
   } else if constexpr ( std::is_same_v< Key, RouteKey > ) {
      return !work && key.singleLabel() && ( !last || ( last->singleLabel() && key > *last ) );
   } else {
      return false;
   }
}

template< class S >
class Model {
   using Collection = typename S::Collection;
   using Key = typename S::Key;
   static constexpr bool label = std::is_same_v< Key, RouteKey >;
   static constexpr bool hash = !label && !requires( const Collection& c ) { c <=> c; };

   struct Walk {
      Walk( Collection& c, bool isWork, std::set< Key > there )
         : pass( isWork ? c.workPass() : c.pass() ),
           work( isWork ),
           mustMeet( std::move( there ) ) {}
      typename Collection::Pass pass;
      bool work;
      std::set< Key > mustMeet; // there since the pass began, or added ahead of it
      std::set< Key > met;
      std::optional< Key > last;
   };

 public:
   Model( uint64_t seed, U32 keys ) : random_( seed ), keys_( keys ) {}

   void run( int steps ) {
      for ( int step = 0; step < steps && !testing::Test::HasFailure(); ++step ) {
         // Long phases that grow and that shrink, so that all sizes up to the number of keys come.
         const bool growing = step / 4000 % 2 == 0;
         const U32 dice = roll( 1000 );
         if ( dice < ( growing ? 500U : 150U ) ) {
            put( S::key( roll( keys_ ) ), static_cast< int >( roll( 3 ) ) );
         } else if ( dice < 650 ) {
            erase( S::key( roll( keys_ ) ) );
         } else if ( dice < 980 ) {
            walkOn();
         } else if ( dice < 998 ) {
            compare();
         } else if ( dice == 998 && roll( 20 ) == 0 ) {
            clear();
         }
      }
      walks_.clear();
      compare();
   }

 private:
   U32 roll( U32 sides ) { return static_cast< U32 >( random_() % sides ); }

   void put( const Key& key, int value ) {
      const auto [at, made] = model_.try_emplace( key, value );
      const bool changed = made || ( S::map && at->second != value );
      at->second = value;
      ASSERT_EQ( S::put( collection_, key, value ), changed );
      for ( const auto& walk : walks_ ) {
         if ( made && metIfAdded< S >( walk->last, key, walk->work ) ) {
            walk->mustMeet.insert( key );
         }
      }
   }
   void erase( const Key& key ) {
      ASSERT_EQ( collection_.erase( key ), model_.erase( key ) == 1 );
      for ( const auto& walk : walks_ ) {
         walk->mustMeet.erase( key );
      }
   }
   void clear() {
      collection_.clear();
      model_.clear();
      for ( const auto& walk : walks_ ) {
         walk->mustMeet.clear();
      }
   }
   void walkOn() {
      if ( walks_.size() < 4 && roll( 8 ) == 0 ) {
         std::set< Key > there;
         for ( const auto& [key, value] : model_ ) {
            there.insert( key );
         }
         walks_.push_back(
            std::make_unique< Walk >( collection_, roll( 2 ) == 0, std::move( there ) ) );
         return;
      }
      if ( walks_.empty() ) {
         return;
      }
      const auto at = walks_.begin() + roll( static_cast< U32 >( walks_.size() ) );
      for ( U32 steps = roll( 40 ); steps > 0; --steps ) {
         if ( !( *at )->pass.next() ) {
            ASSERT_TRUE( ( *at )->mustMeet.empty() ) << ( *at )->mustMeet.size() << " not met";
            walks_.erase( at );
            return;
         }
         ASSERT_NO_FATAL_FAILURE( meet( **at ) );
      }
      if ( roll( 10 ) == 0 ) {
         walks_.erase( at ); // a slice that ends early
      }
   }
   void meet( Walk& walk ) {
      const Key key = walk.pass.key();
      ASSERT_TRUE( model_.contains( key ) );
      ASSERT_TRUE( walk.met.insert( key ).second ) << "met twice";
      ASSERT_TRUE( walk.mustMeet.erase( key ) == 1 || !hash ) << "was added during the pass";
      walk.last = key;
      if constexpr ( S::map ) {
         ASSERT_EQ( walk.pass.value(), model_.at( key ) );
      }
      switch ( roll( 4 ) ) {
      case 0:
         erase( key ); // handled
         break;
      case 1:
         erase( key );
         put( key, 0 ); // queued again while it is handled
         break;
      default:
         break;
      }
   }
   void compare() {
      ASSERT_EQ( collection_.size(), model_.size() );
      for ( U32 i = 0; i < keys_; ++i ) {
         const Key key = S::key( i );
         const auto at = model_.find( key );
         ASSERT_EQ( collection_.has( key ), at != model_.end() );
         if constexpr ( S::map ) {
            ASSERT_EQ( collection_.lookup( key ), at == model_.end() ? 0 : at->second );
         }
      }
      size_t walked = 0;
      for ( auto pass = collection_.pass(); pass.next(); ++walked ) {
         ASSERT_TRUE( model_.contains( pass.key() ) );
      }
      ASSERT_EQ( walked, model_.size() );
   }

   std::mt19937_64 random_;
   U32 keys_;
   Collection collection_;
   std::map< Key, int > model_;
   std::vector< std::unique_ptr< Walk > > walks_; // end before the collection
};

template< class S >
class ContainerModelTest : public testing::Test {};
using All =
   testing::Types< HashShape< int >, LabelShape< int >, DeepShape< int >, MixedShape< int >,
                   OrderedShape< int >, HashSetShape, LabelSetShape, OrderedSetShape >;
TYPED_TEST_SUITE( ContainerModelTest, All );

TYPED_TEST( ContainerModelTest, behavesAsTheModel ) {
   const uint64_t seed = testSeed();
   for ( const U32 keys : { 12U, 100U, 900U } ) {
      SCOPED_TRACE( testing::Message() << "VELMPLS_SEED=" << seed << ", " << keys << " keys" );
      Model< TypeParam >( seed + keys, keys ).run( 24'000 );
   }
}

} // namespace
} // namespace VelTest
