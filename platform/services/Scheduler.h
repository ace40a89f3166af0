// Scheduler: who works next on the one thread, and for how long.
//
// Handlers mark work and schedule a task; tasks do the work in slices. A task is named, has a
// priority, and is either unscheduled or due at one time, its expiry. The scheduler runs the most
// urgent task that is due, the earliest expiry first within a priority, the one scheduled first
// among equals. A task that runs is unscheduled first, so that it may schedule itself again, and
// runs until it returns: cooperation is that it asks `shouldYield` before each item and, when told
// to, leaves the rest, calls `runNow` and returns.
//
//    class ReviewReactor : public TimerTask::Reactor {
//       void onTaskRun() override {
//          for ( auto pass = work.workPass(); pass.next(); ) {
//             if ( notifier()->shouldYield() ) {
//                notifier()->runNow();
//                return;
//             }
//             ...
//             notifier()->workCountInc();
//          }
//       }
//    };
//
// `shouldYield` is asked once for each of a million items, so most answers are one decrement. Every
// 16th question, and the first one after a handler made a more urgent task due, looks at the clock;
// a more urgent task that comes due with time, and the end of the slice, are so noticed at most 16
// items late. Once true it stays true for the run. A task that does not run is always told to
// yield.
//
// The owner of the thread drives: `runOne` or `runDue` when something is due, then it waits until
// `nextExpiry` or for input. Tests move a ManualClock with `runUntilIdle`.
//
// A task keeps its scheduler alive, not the other way round; it leaves the scheduler with its last
// Ptr. Names need not be unique: each `taskIs` makes a task of its own. Finding the next task looks
// at each task; there are tens.

#pragma once

#include <cstdint>
#include <limits>
#include <string>
#include <vector>

#include "platform/entity/Entity.h"
#include "platform/entity/ReadOnly.h"
#include "platform/services/Clock.h"
#include "platform/services/TaskHistory.h"
#include "platform/values/IpTypes.h"

namespace Vel {

class Scheduler;

/// Lower is more urgent.
enum class TaskPriority : uint8_t { urgent = 0, high = 1, normal = 2, low = 3 };

template<>
struct EnumNames< TaskPriority > {
   static constexpr std::array< std::pair< TaskPriority, std::string_view >, 4 > names{
      { { TaskPriority::urgent, "urgent" },
        { TaskPriority::high, "high" },
        { TaskPriority::normal, "normal" },
        { TaskPriority::low, "low" } } };
};

/// The expiry of what is not scheduled.
constexpr double neverExpires = std::numeric_limits< double >::infinity();

/// A task of a scheduler, see `Scheduler::taskIs`. Its reactor does the work.
class VEL_EXPORT TimerTask : public WatchedEntity {
 public:
   class VEL_EXPORT Reactor : public ReactorOf< TimerTask > {
    public:
      virtual void onTaskRun() {}
   };

   // clang-format off
   VEL_ENTITY( TimerTask )
   VEL_KEY( std::string, taskName )
   VEL_READ_ONLY( TaskPriority, priority )
   VEL_READ_ONLY( double, expiry, neverExpires )  // on the clock; +infinity when not scheduled
   VEL_READ_ONLY( bool, running )
   VEL_READ_ONLY( U64, runs )
   VEL_READ_ONLY( U64, yields )                   // runs in which shouldYield was true
   VEL_COUNTER( workCount )                       // whatever the task calls a unit of work
   VEL_READ_ONLY( double, totalRunSeconds )
   VEL_READ_ONLY( double, longestRunSeconds )
   VEL_SHOWN( duration, ::Vel::visitHistogram )
   VEL_ENTITY_END
   // clang-format on

 public:
   /// Due at once, behind what was due before.
   void runNow() { runAfter( 0 ); }
   /// Due after that many seconds, whatever it was before. A negative delay is none; an infinite
   /// one unschedules.
   void runAfter( double delaySeconds );
   /// Due after that many seconds or when it was due already, whichever is earlier.
   void runWithLowestDelay( double delaySeconds );
   /// No longer due.
   void cancel() { expiry_ = neverExpires; }

   bool scheduled() const { return expiry_ != neverExpires; }
   /// Whether the run should end: the time slice is over, a more urgent task is due, or the run has
   /// asked as often as the scheduler's `maxQueriesPerRun` allows. Meant to be asked before each
   /// item; see the head of this file.
   bool shouldYield() const {
      if ( freeQueries_ != 0 ) [[likely]] {
         --freeQueries_;
         return false;
      }
      return yieldCheck();
   }
   const DurationHistogram& duration() const { return duration_; }
   Scheduler* scheduler() const { return scheduler_.get(); }

 private:
   friend class Scheduler;
   friend class Made< TimerTask >;
   VEL_HIDDEN TimerTask( Scheduler* scheduler, std::string name, TaskPriority priority );
   ~TimerTask() override;
   bool yieldCheck() const;

   DurationHistogram duration_;
   Ptr< Scheduler > scheduler_;
   U64 sequence_ = 0;                 // of scheduling: the order among equals
   mutable uint32_t freeQueries_ = 0; // shouldYield's answers in hand; 0 unless running
};

class VEL_EXPORT Scheduler : public WatchedEntity {
 public:
   /// Nothing is told of a scheduler; its tasks have reactors.
   class VEL_EXPORT Reactor : public ReactorOf< Scheduler > {};

   static constexpr double defaultTimeSliceSeconds = 0.010;
   /// How many questions of a run share one look at the clock.
   static constexpr U64 queriesPerClockRead = 16;

   // clang-format off
   VEL_ENTITY( Scheduler )
   VEL_ATTRIBUTE_DEFAULT( double, timeSlice, { defaultTimeSliceSeconds } ) // seconds, from next run
   VEL_ATTRIBUTE( U64, maxQueriesPerRun )  // simulation: shouldYield is true after so many; 0: off
   VEL_READ_ONLY( U64, runs )
   VEL_SHOWN( task, ::Vel::Scheduler::visitTasks )
   VEL_SHOWN( history, ::Vel::Scheduler::visitHistory )
   VEL_ENTITY_END
   // clang-format on

 public:
   explicit Scheduler( Ptr< Clock > clock );
   ~Scheduler() override;

   std::string name() const override { return "scheduler"; }
   Clock* clock() const { return clock_.get(); }

   /// Makes a task, unscheduled. It belongs to whoever holds it.
   Ptr< TimerTask > taskIs( std::string name, TaskPriority priority );
   size_t tasks() const { return task_.size(); }

   /// Runs the most urgent task that is due; false when none is. Not to be called by a task.
   bool runOne();
   /// Runs what is due, and what becomes due meanwhile, at most `limit` runs. Returns their number.
   size_t runDue( size_t limit );
   /// When the next task is due, on the clock; +infinity when none is scheduled.
   double nextExpiry() const;
   /// The task that runs, or null.
   TimerTask* runningTask() const { return running_; }
   /// Nothing runs and nothing is scheduled: only an event from outside can start work.
   bool settled() const { return running_ == nullptr && nextExpiry() == neverExpires; }

   const TaskHistory* history() const { return history_.get(); }

 private:
   friend class TimerTask;
   class Run;

   VEL_HIDDEN void schedule( TimerTask& task, double expiry );
   VEL_HIDDEN double readClock();
   VEL_HIDDEN TimerTask* mostUrgentDue( double now ) const;
   VEL_HIDDEN double moreUrgentExpiry() const;
   VEL_HIDDEN uint32_t grantedQueries();
   VEL_HIDDEN bool yieldCheck( const TimerTask& task );
   static void visitTasks( AttributeVisitor& visitor, std::string_view name,
                           const std::vector< TimerTask* >& tasks );
   static void visitHistory( AttributeVisitor& visitor, std::string_view name,
                             const Ptr< TaskHistory >& history );

   Ptr< Clock > clock_;
   std::vector< TimerTask* > task_;
   Ptr< TaskHistory > history_;
   U64 scheduled_ = 0;  // numbers the scheduling of tasks
   double lastNow_ = 0; // the clock's last reading; it has not gone back since
   // Of the current run.
   TimerTask* running_ = nullptr;
   double sliceEnd_ = 0;
   double moreUrgentExpiry_ = neverExpires; // not after the earliest of the more urgent tasks
   U64 queries_ = 0;                        // asked, or granted to the task in advance
   bool yielded_ = false;
};

class ManualClock;

/// Runs what is due, moving the clock from expiry to expiry up to `untilTime`, at most `limit`
/// runs; the clock stays at the last expiry. Returns the number of runs.
VEL_EXPORT size_t runUntilIdle( Scheduler& scheduler, ManualClock& clock, double untilTime,
                                size_t limit );

} // namespace Vel
