#include "platform/services/TimerWheel.h"

#include <algorithm>
#include <cmath>
#include <utility>

namespace Vel {

namespace {

constexpr U64 microsecondsPerTick = 10'000;
constexpr double maxSeconds = 1e12; // a longer delay is cut: nobody sees its end

// Whole microseconds, since a double of seconds cannot hold a tick of ten milliseconds exactly.
U64 microseconds( double seconds ) {
   if ( !( seconds > 0 ) ) {
      return 0;
   }
   return static_cast< U64 >( std::llround( std::min( seconds, maxSeconds ) * 1e6 ) );
}

} // namespace

TimerWheel::TimerWheel( Ptr< Scheduler > scheduler, TaskPriority priority )
   : scheduler_( std::move( scheduler ) ),
     task_( scheduler_->taskIs( "timerWheel", priority ) ),
     entries_( lists ) {
   for ( U32 list = 0; list < lists; ++list ) {
      entries_[list].previous = entries_[list].next = list;
   }
   taskReactor_.notifierIs( task_.get() );
}

TimerWheel::~TimerWheel() {
   // What a callback holds may cancel timers when it is destroyed: all callbacks leave the wheel
   // first.
   std::vector< Callback > gone;
   for ( U32 entry = lists; entry < entries_.size(); ++entry ) {
      if ( entries_[entry].id != 0 ) {
         gone.push_back( release( entry ) );
      }
   }
}

TimerWheel::TimerId TimerWheel::schedule( double delaySeconds, Callback callback ) {
   VEL_ASSERT( callback != nullptr );
   VEL_ASSERT( pending_ < maxPending );
   const double now = clock()->now();
   const U64 current = microseconds( now ) / microsecondsPerTick;
   const U64 due = microseconds( now ) + microseconds( delaySeconds );
   if ( pending_ == 0 ) {
      lastTick_ = current;
   }
   const U32 entry = takeEntry();
   Entry& made = entries_[entry];
   made.callback = std::move( callback );
   made.tick = std::max( ( due + microsecondsPerTick - 1 ) / microsecondsPerTick, current + 1 );
   made.id = ++numbered_ << indexBits | entry;
   link( entry, static_cast< U32 >( made.tick % slots ) );
   ++pending_;
   const TimerId id = made.id;
   task_->runWithLowestDelay( static_cast< double >( made.tick ) * tickSeconds - now );
   return id;
}

bool TimerWheel::cancel( TimerId id ) {
   const U32 entry = find( id );
   if ( entry == none ) {
      return false;
   }
   ++cancelled_;
   const Callback gone = release( entry ); // destroyed last: what it holds may use the wheel
   if ( pending_ == 0 ) {
      task_->cancel();
   }
   return true;
}

U32 TimerWheel::find( TimerId id ) const {
   const U32 entry = static_cast< U32 >( id ) & ( ( U32{ 1 } << indexBits ) - 1 );
   return id != 0 && entry < entries_.size() && entries_[entry].id == id ? entry : none;
}

U32 TimerWheel::takeEntry() {
   if ( !free_.empty() ) {
      const U32 entry = free_.back();
      free_.pop_back();
      return entry;
   }
   entries_.emplace_back();
   return static_cast< U32 >( entries_.size() - 1 );
}

TimerWheel::Callback TimerWheel::release( U32 entry ) {
   unlink( entry );
   entries_[entry].id = 0;
   free_.push_back( entry );
   --pending_;
   return std::exchange( entries_[entry].callback, nullptr );
}

void TimerWheel::link( U32 entry, U32 list ) {
   const U32 last = entries_[list].previous;
   entries_[entry].previous = last;
   entries_[entry].next = list;
   entries_[last].next = entry;
   entries_[list].previous = entry;
}

void TimerWheel::unlink( U32 entry ) {
   const Entry& gone = entries_[entry];
   entries_[gone.previous].next = gone.next;
   entries_[gone.next].previous = gone.previous;
}

// Moves what is due from the slots to the due list, in the order of ticks.
void TimerWheel::collectDue( U64 tick ) {
   const U64 passed = tick - lastTick_;
   std::vector< U32 > due;
   for ( U64 i = 1; i <= std::min< U64 >( passed, slots ); ++i ) {
      const auto slot = static_cast< U32 >( ( lastTick_ + i ) % slots );
      for ( U32 entry = entries_[slot].next; entry != slot; entry = entries_[entry].next ) {
         if ( entries_[entry].tick <= tick ) {
            due.push_back( entry );
         }
      }
   }
   if ( passed > slots ) { // a slot held several rounds
      std::stable_sort( due.begin(), due.end(),
                        [this]( U32 a, U32 b ) { return entries_[a].tick < entries_[b].tick; } );
   }
   for ( const U32 entry : due ) {
      unlink( entry );
      link( entry, dueList );
   }
   lastTick_ = tick;
}

void TimerWheel::run() {
   const Ptr< const Entity > keep = kept(); // a callback may release the last reference
   const U64 tick = microseconds( clock()->now() ) / microsecondsPerTick;
   if ( tick > lastTick_ ) {
      collectDue( tick );
   }
   while ( !listEmpty( dueList ) ) {
      if ( task_->shouldYield() ) {
         task_->runNow();
         return;
      }
      const Callback callback = release( entries_[dueList].next );
      ++called_;
      task_->workCountInc();
      callback();
   }
   wakeForNext();
}

// Wakes for the next slot in use, though all in it may be for a later round.
void TimerWheel::wakeForNext() {
   if ( pending_ == 0 ) {
      return;
   }
   U64 tick = lastTick_ + 1;
   while ( listEmpty( static_cast< U32 >( tick % slots ) ) ) {
      ++tick;
   }
   task_->runWithLowestDelay( static_cast< double >( tick ) * tickSeconds - clock()->now() );
}

} // namespace Vel
