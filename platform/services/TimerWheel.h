// TimerWheel: many callbacks after delays, at a coarse grain.
//
// For delays where ten milliseconds do not matter and of which there may be many at once. Time is
// cut into ticks of 10 ms; a callback hangs in one of 256 slots by the tick at which it is due,
// whichever round of the wheel that is. It is called at the first tick that is not before its delay
// has passed and not the current one: never early, a tick late at most while the thread keeps up.
// Callbacks of one tick are called in the order in which they were scheduled.
//
//    const TimerWheel::TimerId id = wheel->schedule( 0.5, [ this ] { expire(); } );
//    wheel->cancel( id );
//
// A callback may schedule and cancel, itself and those of the same tick included; what it schedules
// comes at a later tick. An id is never used twice. Scheduling and cancelling take constant time;
// the wheel's task wakes once a round for each slot in use and not at all while nothing is pending,
// and yields between callbacks.

#pragma once

#include <cstdint>
#include <functional>
#include <vector>

#include "platform/entity/ReadOnly.h"
#include "platform/services/Scheduler.h"

namespace Vel {

class VEL_EXPORT TimerWheel : public WatchedEntity {
 public:
   /// Nothing is told of a wheel: binding to it keeps it.
   class VEL_EXPORT Reactor : public ReactorOf< TimerWheel > {};
   using Callback = std::function< void() >;
   using TimerId = U64; ///< 0 is none

   static constexpr double tickSeconds = 0.010;
   static constexpr U32 slots = 256;
   static constexpr size_t maxPending = 16'000'000;

   // clang-format off
   VEL_ENTITY( TimerWheel )
   VEL_READ_ONLY( U64, pending )   // callbacks that wait
   VEL_READ_ONLY( U64, called )
   VEL_READ_ONLY( U64, cancelled )
   VEL_ENTITY_END
   // clang-format on

 public:
   explicit TimerWheel( Ptr< Scheduler > scheduler, TaskPriority priority = TaskPriority::high );
   ~TimerWheel() override;

   std::string name() const override { return "timerWheel"; }
   Clock* clock() const { return scheduler_->clock(); }
   Scheduler* scheduler() const { return scheduler_.get(); }

   /// Calls once after that many seconds.
   TimerId schedule( double delaySeconds, Callback callback );
   /// Takes the callback back; false when it was called or cancelled already.
   bool cancel( TimerId id );
   bool has( TimerId id ) const { return find( id ) != none; }

 private:
   static constexpr U32 none = 0xFFFF'FFFF;
   static constexpr U32 dueList = slots; // behind the slots: what is due and was not called yet
   static constexpr U32 lists = slots + 1;
   static constexpr U32 indexBits = 24; // of an id; the rest numbers the calls of schedule

   // A callback, or the head of a list of them. Lists are rings, linked by position in `entries_`.
   struct Entry {
      Callback callback;
      U64 tick = 0;
      TimerId id = 0; // 0: free, or a head
      U32 previous = 0;
      U32 next = 0;
   };
   class TaskReactor : public TimerTask::Reactor {
    public:
      explicit TaskReactor( TimerWheel& wheel ) : wheel_( wheel ) {}
      void onTaskRun() override { wheel_.run(); }

    private:
      TimerWheel& wheel_;
   };

   U32 find( TimerId id ) const;
   VEL_HIDDEN U32 takeEntry();
   VEL_HIDDEN Callback release( U32 entry );
   VEL_HIDDEN void link( U32 entry, U32 list );
   VEL_HIDDEN void unlink( U32 entry );
   bool listEmpty( U32 list ) const { return entries_[list].next == list; }
   VEL_HIDDEN void collectDue( U64 tick );
   VEL_HIDDEN void run();
   VEL_HIDDEN void wakeForNext();

   Ptr< Scheduler > scheduler_;
   Ptr< TimerTask > task_;
   std::vector< Entry > entries_;
   std::vector< U32 > free_;
   U64 numbered_ = 0;
   U64 lastTick_ = 0; // slots up to here were looked at
   TaskReactor taskReactor_{ *this };
};

} // namespace Vel
