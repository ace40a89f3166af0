#include "platform/services/NumAllocator.h"

#include <map>
#include <random>
#include <set>

#include <gtest/gtest.h>

#include "tests/AssertionsThrow.h"
#include "tests/Seed.h"

namespace {

using namespace Vel;

struct NumAllocatorTest : ::testing::Test {
   Ptr< NumAllocator > over( U64 min, U64 max, double expiryTime = 10 ) {
      config = make< NumAllocatorConfig >( min, max );
      config->expiryTimeIs( expiryTime );
      return make< NumAllocator >( config, status, clock );
   }
   Ptr< ManualClock > clock = make< ManualClock >();
   Ptr< NumAllocatorConfig > config;
   Ptr< NumAllocatorStatus > status = make< NumAllocatorStatus >();
   static constexpr U64 invalid = NumAllocator::invalidNumber();
};

TEST_F( NumAllocatorTest, aReleasedNumberRests ) {
   const auto numbers = over( 1, 2 );
   const U64 first = numbers->getNumber();
   const U64 second = numbers->getNumber();
   EXPECT_EQ( first + second, 3U );
   EXPECT_EQ( numbers->getNumber(), invalid );
   EXPECT_EQ( numbers->exhausted(), 1U );

   numbers->releaseNumber( second );
   clock->advance( 5 );
   numbers->releaseNumber( first );
   clock->advance( 4.99 );
   EXPECT_EQ( numbers->getNumber(), invalid ) << "9.99 s of 10 s";
   EXPECT_EQ( status->numberInUses(), 0U ) << "the invalid number is not in use";
   clock->advance( 0.01 );
   EXPECT_EQ( numbers->getNumber(), second );
   EXPECT_EQ( numbers->getNumber(), invalid ) << "the other has rested 5 s";
   config->expiryTimeIs( 5 );
   EXPECT_EQ( numbers->getNumber(), first ) << "a new time holds for what rests already";
}

TEST_F( NumAllocatorTest, rangesAtTheEdges ) {
   const auto one = over( 7, 7 );
   EXPECT_EQ( one->getNumber(), 7U );
   EXPECT_EQ( one->getNumber(), invalid );
   const auto top = over( invalid - 2, invalid );
   EXPECT_EQ( top->getNumber(), invalid - 2 );
   EXPECT_EQ( top->getNumber(), invalid - 1 );
   for ( int i = 0; i < 3; ++i ) {
      EXPECT_EQ( top->getNumber(), invalid ) << "all ones is nobody's number";
   }
   EXPECT_FALSE( status->numberInUseHas( invalid ) );
   const auto all = over( 0, invalid, 0 );
   EXPECT_EQ( all->getNumber(), 0U );
   all->releaseNumber( 0 );
   EXPECT_EQ( all->getNumber(), 0U ) << "rested numbers go before fresh ones";
}

TEST_F( NumAllocatorTest, misuseIsAnAssertion ) {
   const VelTest::AssertionsThrow assertionsThrow;
   const auto numbers = over( 1, 100 );
   const U64 number = numbers->getNumber();
   numbers->releaseNumber( number );
   EXPECT_THROW( numbers->releaseNumber( number ), VelTest::AssertionThrown );
   EXPECT_THROW( numbers->releaseNumber( 50 ), VelTest::AssertionThrown );
   EXPECT_EQ( numbers->resting(), 1U );
   EXPECT_THROW( Vel::make< NumAllocatorConfig >( 2U, 1U ), VelTest::AssertionThrown );
}

// Against the plain meaning: what is handed out is in range, nobody's and rested; and only when
// there is no such number is none handed out. The status starts with numbers of an earlier
// allocator, in and out of the range.
TEST_F( NumAllocatorTest, agreesWithTheNaiveModel ) {
   std::mt19937_64 random( VelTest::testSeed() );
   const auto below = [&]( U64 limit ) { return random() % limit; };
   for ( int round = 0; round < 200; ++round ) {
      status = make< NumAllocatorStatus >();
      const U64 min = below( 5 );
      const U64 max = min + below( 40 );
      std::set< U64 > inUse;
      std::map< U64, double > released;
      const auto adopt = [&] {
         const U64 number = below( max + 5 );
         if ( !released.contains( number ) ) {
            inUse.insert( number );
            status->numberInUseIs( number );
         }
      };
      for ( U64 n = below( 12 ); n > 0; --n ) {
         adopt();
      }
      const auto numbers = over( min, max );
      for ( int step = 0; step < 400; ++step ) {
         const U64 action = below( 10 );
         if ( action < 5 ) {
            std::set< U64 > possible;
            for ( U64 n = min; n <= max; ++n ) {
               if ( !inUse.contains( n ) &&
                    ( !released.contains( n ) || released[n] + 10 <= clock->now() ) ) {
                  possible.insert( n );
               }
            }
            const U64 number = numbers->getNumber();
            ASSERT_EQ( number == invalid, possible.empty() );
            if ( number != invalid ) {
               ASSERT_TRUE( possible.contains( number ) ) << number;
               inUse.insert( number );
               released.erase( number );
            }
         } else if ( action < 9 && !inUse.empty() ) {
            const U64 number =
               *std::next( inUse.begin(), static_cast< long >( below( inUse.size() ) ) );
            numbers->releaseNumber( number );
            inUse.erase( number );
            released[number] = clock->now();
         } else if ( below( 20 ) == 0 ) {
            adopt();
         } else {
            clock->advance( static_cast< double >( below( 6 ) ) );
         }
         ASSERT_EQ( status->numberInUses(), inUse.size() );
         ASSERT_LE( numbers->resting(), released.size() );
      }
      for ( const U64 number : inUse ) {
         ASSERT_TRUE( status->numberInUseHas( number ) );
      }
   }
}

} // namespace
