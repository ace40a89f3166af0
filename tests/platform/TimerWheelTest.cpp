#include "platform/services/TimerWheel.h"

#include <map>
#include <memory>
#include <random>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/Seed.h"

namespace {

using namespace Vel;
using ::testing::ElementsAre;

struct TimerWheelTest : ::testing::Test {
   // Lets time pass, calling everything when it is due.
   void pass( double seconds ) {
      const double until = clock->now() + seconds;
      runUntilIdle( *scheduler, *clock, until, 1'000'000 );
      clock->nowIs( until );
   }
   TimerWheel::Callback note( std::string what ) {
      return [this, what = std::move( what )] { called.push_back( what ); };
   }

   Ptr< ManualClock > clock = make< ManualClock >( 5.0 );
   Ptr< Scheduler > scheduler = make< Scheduler >( clock );
   Ptr< TimerWheel > wheel = make< TimerWheel >( scheduler );
   std::vector< std::string > called;
};

TEST_F( TimerWheelTest, aLateThreadStillCallsInOrder ) {
   wheel->schedule( 7.0, note( "third round" ) );
   wheel->schedule( 0.05, note( "soon" ) );
   wheel->schedule( 2.61, note( "second round, same slot as soon" ) );
   wheel->schedule( 0.05, note( "soon, too" ) );
   wheel->schedule( 100.0, note( "far" ) );
   clock->advance( 50 );
   scheduler->runDue( 10 );
   EXPECT_THAT( called, ElementsAre( "soon", "soon, too", "second round, same slot as soon",
                                     "third round" ) );
   EXPECT_EQ( wheel->pending(), 1U );
}

TEST_F( TimerWheelTest, callbacksCancelAndSchedule ) {
   TimerWheel::TimerId self = 0;
   TimerWheel::TimerId victim = 0;
   self = wheel->schedule( 0.1, [&] {
      called.emplace_back( "killer" );
      EXPECT_FALSE( wheel->has( self ) ) << "it is being called";
      EXPECT_FALSE( wheel->cancel( self ) );
      EXPECT_TRUE( wheel->cancel( victim ) );
      wheel->schedule( 0, [&] { called.push_back( textOf( clock->now() ) ); } );
      for ( int i = 0; i < 1000; ++i ) { // makes the wheel's memory move
         wheel->cancel( wheel->schedule( 0.5, note( "never" ) ) );
      }
   } );
   victim = wheel->schedule( 0.1, note( "victim" ) );
   wheel->schedule( 0.1, note( "last" ) );
   pass( 1 );
   EXPECT_THAT( called, ElementsAre( "killer", "last", "5.11" ) );
   EXPECT_EQ( wheel->pending(), 0U );
   EXPECT_EQ( wheel->called(), 3U );
   EXPECT_EQ( wheel->cancelled(), 1001U );
}

TEST_F( TimerWheelTest, idsAreNotReused ) {
   const auto old = wheel->schedule( 1, note( "old" ) );
   EXPECT_TRUE( wheel->cancel( old ) );
   const auto fresh = wheel->schedule( 1, note( "new" ) );
   EXPECT_FALSE( wheel->cancel( old ) );
   EXPECT_FALSE( wheel->cancel( 0 ) );
   EXPECT_FALSE( wheel->cancel( 3 ) ) << "a slot's number is no id";
   EXPECT_TRUE( wheel->has( fresh ) );
   pass( 2 );
   EXPECT_THAT( called, ElementsAre( "new" ) );
}

TEST_F( TimerWheelTest, yieldsBetweenCallbacksAndSleepsWhenIdle ) {
   scheduler->maxQueriesPerRunIs( 2 );
   for ( const char* const name : { "1", "2", "3", "4", "5" } ) {
      wheel->schedule( 0.01, note( name ) );
   }
   clock->advance( 1 );
   EXPECT_TRUE( scheduler->runOne() );
   EXPECT_THAT( called, ElementsAre( "1", "2" ) );
   const auto late = wheel->schedule( 9, note( "late" ) );
   EXPECT_EQ( scheduler->runDue( 10 ), 2U );
   EXPECT_THAT( called, ElementsAre( "1", "2", "3", "4", "5" ) );
   EXPECT_FALSE( scheduler->settled() );
   wheel->cancel( late );
   EXPECT_TRUE( scheduler->settled() ) << "an empty wheel wakes nobody";
}

TEST_F( TimerWheelTest, whatCallbacksHoldMayUseTheWheelAsItGoes ) {
   // A callback that holds something whose end cancels another callback.
   const auto pair = [this] {
      const auto other = wheel->schedule( 2, note( "other" ) );
      std::shared_ptr< void > holder(
         nullptr, [&wheel = *wheel, other]( void* ) { wheel.cancel( other ); } );
      return wheel->schedule( 1, [holder] {} );
   };
   EXPECT_TRUE( wheel->cancel( pair() ) );
   EXPECT_EQ( wheel->pending(), 0U );
   pair();
   wheel = nullptr;
   EXPECT_EQ( scheduler->tasks(), 0U );
}

TEST_F( TimerWheelTest, aCallbackMayReleaseTheWheel ) {
   wheel->schedule( 0.1, [this] { wheel = nullptr; } );
   wheel->schedule( 0.1, note( "same tick" ) );
   wheel->schedule( 0.2, note( "after the wheel" ) );
   pass( 1 );
   EXPECT_EQ( wheel, nullptr );
   EXPECT_THAT( called, ElementsAre( "same tick" ) );
}

// Random delays and cancellations: each callback comes once, never before its time and at most a
// tick after it.
TEST_F( TimerWheelTest, everyCallbackComesInTime ) {
   std::mt19937_64 random( VelTest::testSeed() );
   std::map< TimerWheel::TimerId, double > due;
   const auto below = [&]( double limit ) {
      return std::uniform_real_distribution< double >( 0, limit )( random );
   };
   for ( int step = 0; step < 5000; ++step ) {
      const double delay = below( 1 ) < 0.9 ? below( 3 ) : below( 30 );
      const auto id = std::make_shared< TimerWheel::TimerId >();
      const double at = clock->now() + delay;
      *id = wheel->schedule( delay, [&, id, at] {
         EXPECT_EQ( due.erase( *id ), 1U );
         EXPECT_GE( clock->now(), at - 1e-6 );
         EXPECT_LE( clock->now(), at + TimerWheel::tickSeconds + 1e-6 );
      } );
      due[*id] = at;
      if ( below( 1 ) < 0.3 ) {
         const auto victim =
            due.lower_bound( static_cast< U64 >( below( 1 ) * static_cast< double >( *id ) ) );
         if ( victim != due.end() ) {
            EXPECT_TRUE( wheel->cancel( victim->first ) );
            due.erase( victim );
         }
      }
      if ( below( 1 ) < 0.5 ) {
         pass( below( 0.03 ) );
      }
      ASSERT_EQ( wheel->pending(), due.size() );
   }
   pass( 31 );
   EXPECT_TRUE( due.empty() );
   EXPECT_TRUE( scheduler->settled() );
}

} // namespace
