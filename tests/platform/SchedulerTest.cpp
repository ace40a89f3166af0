#include "platform/services/Scheduler.h"

#include <functional>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "platform/entity/Introspection.h"
#include "tests/AssertionsThrow.h"

namespace {

using namespace Vel;
using ::testing::ElementsAre;
using ::testing::HasSubstr;

class Worker : public TimerTask::Reactor {
 public:
   Worker( Scheduler& scheduler, std::string name, TaskPriority priority,
           std::function< void( TimerTask& ) > work = {} )
      : work_( std::move( work ) ) {
      notifierIs( scheduler.taskIs( std::move( name ), priority ).get() );
   }
   TimerTask* operator->() const { return notifier(); }
   void onTaskRun() override {
      if ( work_ ) {
         work_( *notifier() );
      }
   }

 private:
   std::function< void( TimerTask& ) > work_;
};

// How many of `limit` questions a run answers with "go on".
U64 questionsUntilYield( const TimerTask& task, U64 limit = 1000 ) {
   U64 asked = 0;
   while ( asked < limit && !task.shouldYield() ) {
      ++asked;
   }
   return asked;
}

struct SchedulerTest : ::testing::Test {
   static constexpr auto urgent = TaskPriority::urgent;
   static constexpr auto high = TaskPriority::high;
   static constexpr auto normal = TaskPriority::normal;
   static constexpr auto low = TaskPriority::low;

   std::function< void( TimerTask& ) > note() {
      return [this]( TimerTask& task ) { ran.push_back( task.name() ); };
   }
   size_t runAll() { return scheduler->runDue( 1000 ); }

   Ptr< ManualClock > clock = make< ManualClock >( 100.0 );
   Ptr< Scheduler > scheduler = make< Scheduler >( clock );
   std::vector< std::string > ran;
};

TEST_F( SchedulerTest, runsByPriorityThenExpiryThenOrderOfScheduling ) {
   Worker later( *scheduler, "normal, later", normal, note() );
   Worker first( *scheduler, "normal, first", normal, note() );
   Worker second( *scheduler, "normal, second", normal, note() );
   Worker lowest( *scheduler, "low, earliest", low, note() );
   Worker most( *scheduler, "urgent, last", urgent, note() );
   Worker future( *scheduler, "not due", urgent, note() );
   lowest->runNow();
   later->runAfter( 2 );
   second->runAfter( 1 );
   first->runAfter( 1 );
   second->runAfter( 1 );            // scheduled anew: now behind its equal
   first->runWithLowestDelay( 1.5 ); // keeps its expiry and its place
   most->runAfter( 3 );
   future->runAfter( 3.5 );
   EXPECT_EQ( scheduler->nextExpiry(), 100.0 );
   clock->advance( 3 );
   runAll();
   EXPECT_THAT( ran, ElementsAre( "urgent, last", "normal, first", "normal, second",
                                  "normal, later", "low, earliest" ) );
   EXPECT_EQ( scheduler->nextExpiry(), 103.5 );
   EXPECT_FALSE( scheduler->settled() );
   future->cancel();
   EXPECT_TRUE( scheduler->settled() );
}

TEST_F( SchedulerTest, delays ) {
   struct Case {
      const char* what;
      double present; // delay that the task is scheduled with at 100 s; infinite: not scheduled
      double passes;  // seconds until the second call
      double delay;   // of the second call
      double lowest;  // expiry after runWithLowestDelay
      double after;   // expiry after runAfter
   };
   const double inf = neverExpires;
   for ( const Case& c :
         { Case{ "unscheduled", inf, 1, 5, 106, 106 }, Case{ "earlier is kept", 3, 1, 5, 103, 106 },
           Case{ "later is pulled in", 9, 1, 5, 106, 106 },
           Case{ "overdue is kept", 3, 50, 0, 103, 150 },
           Case{ "equal is kept", 6, 1, 5, 106, 106 },
           Case{ "negative is none", 9, 1, -2, 101, 101 },
           Case{ "infinite is never", inf, 1, inf, inf, inf },
           Case{ "infinite against finite", 9, 1, inf, 109, inf } } ) {
      SCOPED_TRACE( c.what );
      for ( const bool lowest : { true, false } ) {
         const auto time = make< ManualClock >( 100.0 );
         const auto tasks = make< Scheduler >( Ptr< Clock >( time ) );
         const auto task = tasks->taskIs( "t", normal );
         task->runAfter( c.present );
         time->advance( c.passes );
         lowest ? task->runWithLowestDelay( c.delay ) : task->runAfter( c.delay );
         EXPECT_EQ( task->expiry(), lowest ? c.lowest : c.after ) << lowest;
         EXPECT_EQ( task->scheduled(), task->expiry() != inf );
         EXPECT_EQ( tasks->nextExpiry(), task->expiry() );
      }
   }
}

TEST_F( SchedulerTest, aTaskMaySelfScheduleAndTakesTurnsWithItsEquals ) {
   const auto again = [this]( TimerTask& task ) {
      EXPECT_TRUE( task.running() && !task.scheduled() );
      EXPECT_EQ( scheduler->runningTask(), &task );
      ran.push_back( task.name() );
      task.runNow();
   };
   Worker a( *scheduler, "a", normal, again );
   Worker b( *scheduler, "b", normal, again );
   a->runNow();
   b->runNow();
   EXPECT_EQ( scheduler->runDue( 5 ), 5U );
   EXPECT_THAT( ran, ElementsAre( "a", "b", "a", "b", "a" ) );
   EXPECT_EQ( scheduler->runningTask(), nullptr );
   EXPECT_TRUE( a->shouldYield() ) << "it does not run";
}

TEST_F( SchedulerTest, aTaskThatGoesIsNotRun ) {
   auto gone = std::make_unique< Worker >( *scheduler, "gone", normal, note() );
   Worker killer( *scheduler, "killer", high, [&]( TimerTask& ) { gone.reset(); } );
   Worker cancelled( *scheduler, "cancelled", normal, note() );
   ( *gone )->runNow();
   killer->runNow();
   cancelled->runNow();
   cancelled->cancel();
   EXPECT_EQ( runAll(), 1U );
   EXPECT_EQ( scheduler->tasks(), 2U );
   EXPECT_TRUE( ran.empty() );
}

TEST_F( SchedulerTest, aTaskMayEndItselfAndItsScheduler ) {
   std::unique_ptr< Worker > suicide;
   suicide = std::make_unique< Worker >( *scheduler, "suicide", normal, [&]( TimerTask& task ) {
      task.runNow();
      scheduler = nullptr;
      suicide.reset();
   } );
   ( *suicide )->runNow();
   Scheduler& last = *scheduler;
   EXPECT_EQ( last.runDue( 1 ), 1U );
   EXPECT_EQ( scheduler, nullptr );
}

TEST_F( SchedulerTest, sliceEndsWithTheClock ) {
   scheduler->timeSliceIs( 0.5 );
   U64 afterTime = 0;
   Worker task( *scheduler, "t", normal, [&]( TimerTask& self ) {
      EXPECT_EQ( questionsUntilYield( self ), 1000U ) << "no time has passed";
      clock->advance( 0.499 );
      EXPECT_EQ( questionsUntilYield( self ), 1000U );
      clock->advance( 0.002 );
      afterTime = questionsUntilYield( self );
   } );
   for ( int run = 0; run < 2; ++run ) { // a new run is a new slice
      task->runNow();
      runAll();
      EXPECT_LT( afterTime, Scheduler::queriesPerClockRead );
   }
   EXPECT_EQ( task->yields(), 2U );
}

TEST_F( SchedulerTest, moreUrgentTaskEndsARun ) {
   Worker rival( *scheduler, "rival", high, note() );
   Worker equal( *scheduler, "equal", normal, note() );
   Worker less( *scheduler, "less", low, note() );
   Worker task( *scheduler, "t", normal, [&]( TimerTask& self ) {
      equal->runNow();
      less->runNow();
      EXPECT_EQ( questionsUntilYield( self ), 1000U ) << "nobody more urgent is due";

      rival->runAfter( 0.001 ); // comes due with time: seen when the clock is looked at
      EXPECT_EQ( questionsUntilYield( self ), 1000U );
      clock->advance( 0.001 );
      rival->cancel();
      EXPECT_EQ( questionsUntilYield( self ), 1000U ) << "it was cancelled";

      EXPECT_FALSE( self.shouldYield() );
      rival->runNow(); // seen at the next question
      EXPECT_EQ( questionsUntilYield( self ), 0U );
      rival->cancel();
      EXPECT_TRUE( self.shouldYield() ) << "once true, always true";
      rival->runNow();
      self.runNow();
   } );
   task->runNow();
   scheduler->runOne();
   EXPECT_EQ( task->yields(), 1U );
   task->cancel();
   runAll();
   EXPECT_THAT( ran, ElementsAre( "rival", "equal", "less" ) );
}

TEST_F( SchedulerTest, moreUrgentTaskThatWasScheduledBeforeTheRun ) {
   Worker rival( *scheduler, "rival", urgent );
   U64 asked = 0;
   Worker task( *scheduler, "t", low, [&]( TimerTask& self ) {
      clock->advance( 0.005 );
      asked = questionsUntilYield( self );
   } );
   rival->runAfter( 0.005 );
   task->runNow();
   scheduler->runOne();
   EXPECT_LT( asked, Scheduler::queriesPerClockRead );
}

TEST_F( SchedulerTest, queryLimitIsExact ) {
   U64 asked = 0;
   bool rivalToo = false;
   Worker rival( *scheduler, "rival", high );
   Worker task( *scheduler, "t", normal, [&]( TimerTask& self ) {
      if ( rivalToo ) { // a look at the clock out of turn must not miscount
         EXPECT_FALSE( self.shouldYield() );
         rival->runNow();
         rival->cancel();
         asked = 1;
      } else {
         asked = 0;
      }
      asked += questionsUntilYield( self );
   } );
   for ( const bool withRival : { false, true } ) {
      rivalToo = withRival;
      for ( const U64 limit : { 1U, 2U, 14U, 15U, 16U, 17U, 31U, 32U, 33U, 100U } ) {
         scheduler->maxQueriesPerRunIs( limit );
         task->runNow();
         runAll();
         EXPECT_EQ( asked, limit ) << withRival;
      }
   }
   scheduler->maxQueriesPerRunIs( 0 );
   task->runNow();
   runAll();
   EXPECT_EQ( asked, 1001U );
}

TEST_F( SchedulerTest, runsAreRecorded ) {
   Worker task( *scheduler, "reviewVrf", normal, [&]( TimerTask& self ) {
      self.workCountInc( 3 );
      clock->advance( 0.003 );
      questionsUntilYield( self, 20 );
   } );
   for ( int i = 0; i < 70; ++i ) {
      scheduler->timeSliceIs( i == 69 ? 0.002 : 1.0 );
      task->runNow();
      runAll();
   }
   const TaskHistory& history = *scheduler->history();
   EXPECT_EQ( history.recorded(), 70U );
   EXPECT_EQ( history.runs(), TaskHistory::capacity );
   EXPECT_NEAR( history.run( 0 ).startSeconds, 100 + 6 * 0.003, 1e-9 );
   const TaskRun& last = history.run( TaskHistory::capacity - 1 );
   EXPECT_EQ( last.task, "reviewVrf" );
   EXPECT_NEAR( last.startSeconds, 100 + 69 * 0.003, 1e-9 );
   EXPECT_NEAR( last.durationSeconds, 0.003, 1e-9 );
   EXPECT_EQ( last.workCount, 3U );
   EXPECT_TRUE( last.yielded && !history.run( TaskHistory::capacity - 2 ).yielded );
   EXPECT_EQ( history.duration().count( DurationHistogram::bucketOf( 0.003 ) ), 70U );
   EXPECT_EQ( task->workCount(), 210U );
   EXPECT_EQ( task->runs(), 70U );
   EXPECT_EQ( task->yields(), 1U );
   EXPECT_NEAR( task->longestRunSeconds(), 0.003, 1e-9 );
   EXPECT_EQ( attributeText( *scheduler, "runs" ), "70" );
   const Entity* const shown = entityAt( *scheduler, "task/reviewVrf" );
   ASSERT_EQ( shown, task.notifier() );
   EXPECT_EQ( attributeText( *shown, "priority" ), "normal" );
   EXPECT_EQ( shown->fullName(), "scheduler/task/reviewVrf" );
   EXPECT_THAT( printText( *scheduler ), HasSubstr( "work 3 yielded" ) );
}

TEST( DurationHistogram, bucketsArePowersOfTwoMicroseconds ) {
   const std::pair< double, size_t > cases[] = {
      { -1, 0 },     { 0, 0 },      { 0.9e-6, 0 },       { 1.1e-6, 1 },
      { 2.1e-6, 2 }, { 3.9e-6, 2 }, { 4.1e-6, 3 },       { 0.001, 10 },
      { 1.0, 20 },   { 1e9, 31 },   { neverExpires, 31 } };
   for ( const auto& [seconds, bucket] : cases ) {
      EXPECT_EQ( DurationHistogram::bucketOf( seconds ), bucket ) << seconds;
   }
}

TEST_F( SchedulerTest, brokenRunsLeaveTheSchedulerUsable ) {
   const VelTest::AssertionsThrow assertionsThrow;
   Worker nested( *scheduler, "nested", normal, [&]( TimerTask& ) { scheduler->runOne(); } );
   Worker fine( *scheduler, "fine", normal, note() );
   nested->runNow();
   fine->runNow();
   EXPECT_THROW( scheduler->runOne(), VelTest::AssertionThrown );
   EXPECT_EQ( scheduler->runningTask(), nullptr );
   EXPECT_EQ( runAll(), 1U );
   EXPECT_THAT( ran, ElementsAre( "fine" ) );
}

TEST_F( SchedulerTest, runUntilIdleMovesTheClockFromExpiryToExpiry ) {
   std::vector< double > times;
   Worker every( *scheduler, "every", normal, [&]( TimerTask& self ) {
      times.push_back( clock->now() );
      self.runAfter( 2.5 );
   } );
   every->runAfter( 1 );
   EXPECT_EQ( runUntilIdle( *scheduler, *clock, 106.0, 100 ), 3U );
   EXPECT_THAT( times, ElementsAre( 101.0, 103.5, 106.0 ) );
   EXPECT_EQ( clock->now(), 106.0 ) << "the next expiry is beyond";
   EXPECT_EQ( runUntilIdle( *scheduler, *clock, 1e6, 7 ), 7U ) << "limited";
   every->cancel();
   EXPECT_EQ( runUntilIdle( *scheduler, *clock, neverExpires, 7 ), 0U );
}

} // namespace
