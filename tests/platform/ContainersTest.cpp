#include <algorithm>
#include <functional>
#include <set>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "platform/entity/Entity.h"
#include "tests/platform/Shapes.h"

namespace VelTest {
namespace {

using Vel::Ptr;

// --- Elements are made once, stay where they are and end once.

template< class S >
class MapTest : public testing::Test {
 protected:
   MapTest() {
      Vel::nullValueOf< Counted >(); // lives to the end of the program
      Counted::copies = Counted::moves = Counted::badEnds = 0;
      before_ = Counted::alive.size();
   }
   size_t alive() const { return Counted::alive.size() - before_; }

 private:
   size_t before_;
};
using Maps = testing::Types< HashShape< Counted >, LabelShape< Counted >, DeepShape< Counted >,
                             OrderedShape< Counted > >;
TYPED_TEST_SUITE( MapTest, Maps );

TYPED_TEST( MapTest, growthNeitherCopiesNorMoves ) {
   constexpr U32 count = 3000;
   {
      typename TypeParam::Collection map;
      std::vector< const Counted* > places;
      for ( U32 i = 0; i < count; ++i ) {
         const Counted value( static_cast< int >( i ) );
         ASSERT_TRUE( map.set( TypeParam::key( i ), value ) );
         places.push_back( map.find( TypeParam::key( i ) ) );
      }
      EXPECT_EQ( Counted::copies, count );
      EXPECT_EQ( Counted::moves, 0U );
      for ( U32 i = 0; i < count; ++i ) {
         ASSERT_EQ( map.find( TypeParam::key( i ) ), places[i] ) << i;
         ASSERT_EQ( places[i]->value, static_cast< int >( i ) );
      }
      for ( U32 i = 0; i < count; i += 2 ) {
         ASSERT_TRUE( map.erase( TypeParam::key( i ) ) );
      }
      EXPECT_EQ( this->alive(), count / 2 );
      map.clear();
      EXPECT_EQ( this->alive(), 0U );
      TypeParam::put( map, TypeParam::key( 1 ) );
   }
   EXPECT_EQ( this->alive(), 0U );
   EXPECT_EQ( Counted::badEnds, 0U );
}

TYPED_TEST( MapTest, tellsWhetherAWriteChangedAnything ) {
   typename TypeParam::Collection map;
   const auto key = TypeParam::key( 5 );
   EXPECT_FALSE( map.erase( key ) );
   EXPECT_TRUE( map.set( key, Counted( 1 ) ) );
   EXPECT_FALSE( map.set( key, Counted( 1 ) ) );
   EXPECT_TRUE( map.set( key, Counted( 2 ) ) );
   EXPECT_EQ( map.lookup( key ).value, 2 );
   EXPECT_EQ( map.lookup( TypeParam::key( 6 ) ).value, 0 );
   EXPECT_TRUE( map.erase( key ) );
   EXPECT_FALSE( map.erase( key ) );
   EXPECT_TRUE( map.empty() );
}

TEST( EmplaceTest, makesTheValueInPlaceAndOnlyWhenAbsent ) {
   Vel::Hash< U32, Counted > hash;
   Vel::LabelIndexed< RouteKey, Counted > labels;
   Counted::copies = Counted::moves = 0;
   EXPECT_TRUE( hash.emplace( 1, 10 ).second );
   EXPECT_FALSE( hash.emplace( 1, 11 ).second );
   EXPECT_EQ( hash.emplace( 1, 12 ).first->value, 10 );
   for ( const RouteKey key : { SingleLabels::at( 1 ), DeepStacks::at( 1 ) } ) {
      EXPECT_TRUE( labels.emplace( key, 10 ).second );
      EXPECT_FALSE( labels.emplace( key, 11 ).second );
      EXPECT_EQ( labels.emplace( key, 12 ).first->value, 10 );
   }
   EXPECT_EQ( Counted::copies + Counted::moves, 0U );
}

// --- Passes

template< class S >
class PassTest : public testing::Test {
 protected:
   using Collection = typename S::Collection;
   using Keys = std::vector< typename S::Key >;

   void fill( size_t count ) {
      collection.clear();
      for ( U32 i = 0; i < count; ++i ) {
         S::put( collection, S::key( i ) );
      }
   }
   /// The keys in the order in which a pass meets them; `atStep( step )` runs with each.
   template< class F >
   Keys walk( const F& atStep ) {
      Keys met;
      for ( auto pass = collection.pass(); pass.next(); ) {
         met.push_back( pass.key() );
         atStep( met.size() - 1 );
      }
      return met;
   }
   Keys order() {
      return walk( []( size_t ) {} );
   }

   Collection collection;
};
using All =
   testing::Types< HashShape< int >, LabelShape< int >, DeepShape< int >, MixedShape< int >,
                   OrderedShape< int >, HashSetShape, LabelSetShape, OrderedSetShape >;
TYPED_TEST_SUITE( PassTest, All );

// Hash collections find up to 8 elements without an index: both sides of that, and a longer one.
constexpr std::array< size_t, 5 > sizes{ 1, 2, 8, 9, 21 };

TYPED_TEST( PassTest, erasingAnyElementAtAnyStep ) {
   for ( const size_t size : sizes ) {
      for ( size_t step = 0; step < size; ++step ) {
         for ( size_t victim = 0; victim < size; ++victim ) {
            this->fill( size );
            const auto order = this->order();
            auto expected = order;
            if ( victim > step ) {
               expected.erase( expected.begin() + static_cast< ptrdiff_t >( victim ) );
            }
            const auto met = this->walk( [&]( size_t at ) {
               if ( at == step ) {
                  EXPECT_TRUE( this->collection.erase( order[victim] ) );
               }
            } );
            ASSERT_EQ( met, expected ) << victim << " of " << size << " at step " << step;
         }
      }
   }
}

TYPED_TEST( PassTest, erasingAllBehindAPlaceEndsThePass ) {
   for ( const size_t size : sizes ) {
      for ( size_t step = 0; step < size; ++step ) {
         for ( size_t from = 0; from < size; ++from ) {
            this->fill( size );
            auto expected = this->order();
            const auto order = expected;
            expected.resize( std::max( step + 1, from ) );
            const auto met = this->walk( [&]( size_t at ) {
               for ( size_t i = at == step ? size : 0; i > from; --i ) { // the last one first
                  this->collection.erase( order[i - 1] );
               }
            } );
            ASSERT_EQ( met, expected ) << from << " of " << size << " at step " << step;
         }
      }
      this->fill( size );
      EXPECT_EQ( this->walk( [&]( size_t ) { this->collection.clear(); } ).size(), 1U );
   }
}

TYPED_TEST( PassTest, whatIsQueuedAgainWaitsForTheNextPass ) {
   for ( const size_t size : sizes ) {
      this->fill( size );
      const auto order = this->order();
      for ( int round = 0; round < 3; ++round ) {
         size_t handled = 0;
         for ( auto pass = this->collection.workPass(); pass.next(); ++handled ) {
            const auto key = pass.key();
            this->collection.erase( key );
            for ( auto ahead = this->collection.pass(); ahead.next(); ) {
               ASSERT_TRUE( this->collection.has( ahead.key() ) );
            }
            TypeParam::put( this->collection, key );
         }
         ASSERT_EQ( handled, size );
      }
      ASSERT_EQ( this->collection.size(), size );
   }
}

TYPED_TEST( PassTest, insertingWhileWalkingMeetsNothingTwice ) {
   this->fill( 9 );
   const auto order = this->order();
   U32 next = 9;
   const auto met = this->walk( [&]( size_t ) {
      for ( int i = 0; i < 5 && next < 300; ++i ) {
         TypeParam::put( this->collection, TypeParam::key( next++ ) );
      }
   } );
   auto unique = met;
   std::sort( unique.begin(), unique.end() );
   EXPECT_EQ( std::unique( unique.begin(), unique.end() ), unique.end() );
   for ( const auto& key : order ) {
      EXPECT_NE( std::find( met.begin(), met.end(), key ), met.end() );
   }
}

TYPED_TEST( PassTest, passesDoNotDisturbEachOther ) {
   constexpr size_t size = 9;
   for ( size_t step = 0; step < size; ++step ) {
      this->fill( size );
      const auto order = this->order();
      typename TestFixture::Keys expected;
      for ( size_t i = 0; i < size; ++i ) {
         if ( i <= step || i % 2 == 0 ) {
            expected.push_back( order[i] );
         }
      }
      const auto met = this->walk( [&]( size_t at ) {
         if ( at != step ) {
            return;
         }
         const auto inner = this->walk( [&]( size_t innerAt ) {
            if ( innerAt % 2 == 1 ) {
               this->collection.erase( order[innerAt] );
            }
         } );
         EXPECT_EQ( inner, order );
      } );
      ASSERT_EQ( met, expected ) << step;
   }
}

TEST( HashTest, walksInOrderOfInsertionAndLeavesWhatIsAddedToTheNextPass ) {
   Vel::HashSet< U32 > set;
   for ( const U32 key : { 30U, 10U, 20U } ) {
      set.insert( key );
   }
   set.erase( 10 );
   set.insert( 10 );
   std::vector< U32 > met;
   for ( const U32 key : set ) {
      met.push_back( key );
      set.insert( key + 1 );
   }
   EXPECT_EQ( met, ( std::vector< U32 >{ 30, 20, 10 } ) );
   EXPECT_EQ( set.size(), 6U );
}

TEST( OrderedTest, walksInOrderOfKeysAndMeetsWhatIsAddedAhead ) {
   Vel::OrderedSet< U32 > set;
   for ( const U32 key : { 30U, 10U, 20U } ) {
      set.insert( key );
   }
   std::vector< U32 > met;
   for ( const U32 key : set ) {
      met.push_back( key );
      set.insert( key == 20 ? 25 : 5 );
   }
   EXPECT_EQ( met, ( std::vector< U32 >{ 10, 20, 25, 30 } ) );

   Vel::OrderedSet< U32 > other;
   other.insert( 6 );
   EXPECT_LT( set, other ); // 5 before 6
}

// --- Look-up through the index of a hash collection

TEST( HashTest, findsEverythingWhileTheIndexMoves ) {
   // Every size stands at another point between two growths; a third leaves and comes back there.
   for ( U32 size = 1; size < 420; ++size ) {
      Vel::Hash< U32, U32 > hash;
      for ( U32 i = 0; i < size; ++i ) {
         hash.set( Numbers::at( i ), i );
      }
      for ( U32 i = 0; i < size; i += 3 ) {
         ASSERT_TRUE( hash.erase( Numbers::at( i ) ) );
      }
      for ( U32 i = 0; i < size; ++i ) {
         ASSERT_EQ( hash.has( Numbers::at( i ) ), i % 3 != 0 ) << i << " of " << size;
      }
      for ( U32 i = 0; i < size; ++i ) {
         ASSERT_EQ( hash.set( Numbers::at( i ), i ), i % 3 == 0 ) << i << " of " << size;
      }
      ASSERT_EQ( hash.size(), size );
   }
}

TEST( HashTest, makesRoomAtAnyTime ) {
   for ( U32 size = 0; size < 120; ++size ) {
      Vel::HashSet< U32 > set;
      for ( U32 i = 0; i < 200; ++i ) {
         if ( i == size ) {
            set.reserve( 150 );
         }
         ASSERT_TRUE( set.insert( Numbers::at( i ) ) );
      }
      for ( U32 i = 0; i < 200; ++i ) {
         ASSERT_TRUE( set.has( Numbers::at( i ) ) ) << i << ", room made at " << size;
      }
      for ( U32 i = 0; i < 200; ++i ) {
         ASSERT_TRUE( set.erase( Numbers::at( i ) ) );
         ASSERT_FALSE( set.has( Numbers::at( i ) ) ) << i << ", room made at " << size;
      }
   }
}

/// Keys that all want one of the last two buckets.
struct Clash {
   U32 id;
   uint64_t hash() const { return ~uint64_t{ 0 } - id % 2; }
   friend bool operator==( Clash, Clash ) = default;
};

TEST( HashTest, closesGapsAcrossTheEndOfTheIndex ) {
   constexpr U32 count = 24;
   for ( U32 stride = 1; stride < count; ++stride ) {
      Vel::HashSet< Clash > set;
      std::set< U32 > model;
      for ( U32 id = 0; id < count; ++id ) {
         set.insert( { id } );
         model.insert( id );
      }
      for ( U32 id = 0; !model.empty(); id = ( id + stride ) % count ) {
         while ( !model.contains( id ) ) {
            id = ( id + 1 ) % count;
         }
         ASSERT_TRUE( set.erase( { id } ) );
         model.erase( id );
         for ( U32 other = 0; other < count; ++other ) {
            ASSERT_EQ( set.has( { other } ), model.contains( other ) )
               << other << " without " << id;
         }
      }
   }
}

// --- Labels

TEST( LabelSetTest, findsLabelsOnBothSidesOfEveryBorder ) {
   const std::set< U32 > borders{ 0,    1,    63,   64,     65,      4095,    4096,
                                  4097, 8191, 8192, 524287, 1048512, 1048574, 1048575 };
   Vel::LabelSet<> set;
   for ( const U32 label : borders ) {
      EXPECT_TRUE( set.insert( RouteKey( label ) ) );
      EXPECT_FALSE( set.insert( RouteKey( label ) ) );
   }
   std::vector< U32 > met;
   for ( const RouteKey key : set ) {
      met.push_back( key.topLabel().value() );
   }
   EXPECT_EQ( met, std::vector< U32 >( borders.begin(), borders.end() ) );
   for ( const U32 label : borders ) {
      EXPECT_TRUE( set.erase( RouteKey( label ) ) );
      EXPECT_FALSE( set.has( RouteKey( label ) ) );
   }
   EXPECT_TRUE( set.empty() );
   for ( auto pass = set.pass(); pass.next(); ) {
      ADD_FAILURE() << "met " << Vel::textOf( pass.key() );
   }
}

TEST( LabelSetTest, theNullKeyAndDeepKeysAreKeysOfTheirOwn ) {
   Vel::LabelSet<> set;
   const RouteKey single( 16040 );
   const RouteKey deep( MplsLabel( 16040 ), MplsLabel( 3 ) );
   for ( const RouteKey key : { single, deep, RouteKey() } ) {
      EXPECT_FALSE( set.has( key ) );
      EXPECT_TRUE( set.insert( key ) );
   }
   EXPECT_EQ( set.size(), 3U );
   EXPECT_TRUE( set.erase( single ) );
   EXPECT_TRUE( set.has( deep ) );
   EXPECT_TRUE( set.has( RouteKey() ) );
}

TEST( LabelSetTest, aWorkPassGoesOnWhereTheLastOneStopped ) {
   Vel::LabelSet<> set;
   for ( const U32 label : { 10U, 20U, 30U } ) {
      set.insert( RouteKey( label ) );
   }
   set.insert( { MplsLabel( 7 ), MplsLabel( 8 ) } );
   // Each slice handles some and queues them all again.
   const auto slice = [&]( size_t count ) {
      std::string met;
      for ( auto pass = set.workPass(); count > 0 && pass.next(); --count ) {
         const RouteKey key = pass.key();
         set.erase( key );
         set.insert( key );
         met += Vel::joinText( key, " " );
      }
      return met;
   };
   EXPECT_EQ( slice( 2 ), "10 20 " );
   EXPECT_EQ( slice( 9 ), "30 7/8 10 20 " );
   EXPECT_EQ( slice( 1 ), "30 " );
   EXPECT_EQ( slice( 1 ), "7/8 " );
   EXPECT_EQ( slice( 2 ), "7/8 10 " ); // the end of the labels is where the deep keys begin
   EXPECT_EQ( slice( 1 ), "20 " );
   EXPECT_EQ( slice( 9 ), "30 7/8 10 20 " );
}

// --- Elements whose end writes the collection

class Ender : public Vel::Entity {
 public:
   explicit Ender( std::function< void() > onEnd ) : onEnd_( std::move( onEnd ) ) {}
   ~Ender() override { onEnd_(); }
   std::string_view typeName() const override { return "Ender"; }
   void visit( Vel::AttributeVisitor& ) const override {}
   std::string_view attributeName( uint16_t ) const override { return {}; }

 private:
   std::function< void() > onEnd_;
};

template< class S >
class EndTest : public testing::Test {};
using PtrMaps = testing::Types< HashShape< Ptr< Ender > >, LabelShape< Ptr< Ender > >,
                                DeepShape< Ptr< Ender > >, OrderedShape< Ptr< Ender > > >;
TYPED_TEST_SUITE( EndTest, PtrMaps );

TYPED_TEST( EndTest, findsTheCollectionWhole ) {
   constexpr U32 count = 12;
   for ( const bool clear : { false, true } ) {
      typename TypeParam::Collection map;
      U32 written = 0;
      for ( U32 i = 0; i < count; ++i ) {
         map.set( TypeParam::key( i ), Vel::make< Ender >( [&, i] {
                     EXPECT_FALSE( map.has( TypeParam::key( i ) ) );
                     EXPECT_EQ( map.size(), clear ? written : count - 1 );
                     written += map.set( TypeParam::key( 100 + i ), nullptr );
                  } ) );
      }
      if ( clear ) {
         map.clear();
      } else {
         for ( U32 i = 0; i < count; ++i ) {
            EXPECT_TRUE( map.erase( TypeParam::key( i ) ) );
            EXPECT_EQ( map.size(), count );
         }
      }
      EXPECT_EQ( written, count );
      EXPECT_EQ( map.size(), count );
      for ( U32 i = 0; i < count; ++i ) {
         EXPECT_TRUE( map.has( TypeParam::key( 100 + i ) ) );
      }
   }
}

TEST( KeyEndTest, ofAKeyFindsTheCollectionWhole ) {
   Vel::HashSet< Ptr< Ender > > set;
   size_t sizeAtEnd = 99;
   Ptr< Ender > key = Vel::make< Ender >( [&] { sizeAtEnd = set.size(); } );
   set.insert( key );
   Ender* const raw = key.get();
   key = nullptr;
   EXPECT_TRUE( set.erase( Ptr< Ender >( raw ) ) ); // the argument ends after the call
   EXPECT_EQ( sizeAtEnd, 0U );
   set.insert( Vel::make< Ender >( [&] { sizeAtEnd = set.size(); } ) );
   sizeAtEnd = 99;
   for ( auto pass = set.pass(); pass.next(); ) {
      set.erase( pass.key() );
   }
   EXPECT_EQ( sizeAtEnd, 0U );
}

} // namespace
} // namespace VelTest
