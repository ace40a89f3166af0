#include "platform/services/Scheduler.h"

#include <algorithm>
#include <tuple>
#include <utility>

#include "platform/base/Trace.h"

namespace Vel {

namespace {

// What is not a positive number of seconds is no delay.
double delayOf( double seconds ) {
   return seconds > 0 ? seconds : 0;
}

} // namespace

TimerTask::TimerTask( Scheduler* scheduler, std::string name, TaskPriority priority )
   : taskName_( std::move( name ) ), priority_( priority ), scheduler_( scheduler ) {
   parentIs( scheduler, Scheduler::taskNumber_ );
   scheduler->task_.push_back( this );
}

TimerTask::~TimerTask() {
   std::erase( scheduler_->task_, this );
}

void TimerTask::runAfter( double delaySeconds ) {
   scheduler_->schedule( *this, scheduler_->readClock() + delayOf( delaySeconds ) );
}

void TimerTask::runWithLowestDelay( double delaySeconds ) {
   const double delay = delayOf( delaySeconds );
   // Handlers ask this for every key. The clock's last reading mostly answers, since time has not
   // gone back since then.
   if ( scheduler_->lastNow_ + delay >= expiry_ ) {
      return;
   }
   const double expiry = scheduler_->readClock() + delay;
   if ( expiry < expiry_ ) {
      scheduler_->schedule( *this, expiry );
   }
}

bool TimerTask::yieldCheck() const {
   return !running_ || scheduler_->yieldCheck( *this );
}

/// One run of a task, which is recorded at the end even when the task throws.
class Scheduler::Run {
 public:
   Run( Scheduler& scheduler, TimerTask& task, double start )
      : scheduler_( scheduler ), task_( task ), start_( start ), workBefore_( task.workCount() ) {
      task.expiry_ = neverExpires;
      task.running_ = true;
      scheduler.running_ = &task;
      scheduler.sliceEnd_ = start + scheduler.timeSlice();
      scheduler.moreUrgentExpiry_ = scheduler.moreUrgentExpiry();
      scheduler.queries_ = 0;
      scheduler.yielded_ = false;
      task.freeQueries_ = scheduler.grantedQueries();
   }
   Run( const Run& ) = delete;
   Run& operator=( const Run& ) = delete;
   ~Run() {
      const double duration = scheduler_.readClock() - start_;
      const bool yielded = scheduler_.yielded_;
      task_.running_ = false;
      task_.freeQueries_ = 0;
      ++task_.runs_;
      task_.yields_ += yielded ? 1 : 0;
      task_.totalRunSeconds_ += duration;
      task_.longestRunSeconds_ = std::max( task_.longestRunSeconds_, duration );
      task_.duration_.add( duration );
      scheduler_.running_ = nullptr;
      ++scheduler_.runs_;
      scheduler_.history_->add( task_.taskName(), start_, duration, task_.workCount() - workBefore_,
                                yielded );
   }

 private:
   Scheduler& scheduler_;
   TimerTask& task_;
   double start_;
   U64 workBefore_;
};

Scheduler::Scheduler( Ptr< Clock > clock )
   : clock_( std::move( clock ) ), history_( make< TaskHistory >() ) {
   VEL_ASSERT( clock_ != nullptr );
   lastNow_ = clock_->now();
   history_->parentIs( this, historyNumber_ );
}

Scheduler::~Scheduler() {
   history_->parentDel();
}

Ptr< TimerTask > Scheduler::taskIs( std::string name, TaskPriority priority ) {
   return make< TimerTask >( this, std::move( name ), priority );
}

double Scheduler::readClock() {
   lastNow_ = std::max( lastNow_, clock_->now() );
   return lastNow_;
}

void Scheduler::schedule( TimerTask& task, double expiry ) {
   task.expiry_ = expiry;
   task.sequence_ = ++scheduled_;
   if ( running_ && task.priority() < running_->priority() ) {
      moreUrgentExpiry_ = std::min( moreUrgentExpiry_, expiry );
      if ( expiry <= lastNow_ ) { // the running task's next question is to look at the clock
         queries_ -= std::exchange( running_->freeQueries_, 0 );
      }
   }
}

TimerTask* Scheduler::mostUrgentDue( double now ) const {
   const auto rank = []( const TimerTask& task ) {
      return std::tuple( task.priority(), task.expiry(), task.sequence_ );
   };
   TimerTask* best = nullptr;
   for ( TimerTask* const task : task_ ) {
      if ( task->expiry() <= now && ( best == nullptr || rank( *task ) < rank( *best ) ) ) {
         best = task;
      }
   }
   return best;
}

double Scheduler::nextExpiry() const {
   double next = neverExpires;
   for ( const TimerTask* const task : task_ ) {
      next = std::min( next, task->expiry() );
   }
   return next;
}

double Scheduler::moreUrgentExpiry() const {
   double next = neverExpires;
   for ( const TimerTask* const task : task_ ) {
      if ( task->priority() < running_->priority() ) {
         next = std::min( next, task->expiry() );
      }
   }
   return next;
}

// How many questions the running task may answer itself, from now on. They count as asked.
uint32_t Scheduler::grantedQueries() {
   U64 granted = queriesPerClockRead - 1;
   if ( maxQueriesPerRun() != 0 ) {
      granted = std::min( granted, maxQueriesPerRun() - std::min( maxQueriesPerRun(), queries_ ) );
   }
   queries_ += granted;
   return static_cast< uint32_t >( granted );
}

bool Scheduler::yieldCheck( const TimerTask& task ) {
   if ( yielded_ ) {
      return true;
   }
   if ( maxQueriesPerRun() != 0 && queries_ >= maxQueriesPerRun() ) {
      yielded_ = true;
      return true;
   }
   const double now = readClock();
   if ( now >= moreUrgentExpiry_ ) {
      moreUrgentExpiry_ = moreUrgentExpiry(); // the task that is due may have been cancelled
   }
   if ( now >= sliceEnd_ || now >= moreUrgentExpiry_ ) {
      yielded_ = true;
      return true;
   }
   ++queries_;
   task.freeQueries_ = grantedQueries();
   return false;
}

bool Scheduler::runOne() {
   VEL_ASSERT_TEXT( running_ == nullptr, "runningTask() == nullptr", "a task runs the scheduler",
                    "scheduler", running_->taskName() );
   const double now = readClock();
   traceTimeIs( now );
   const Ptr< TimerTask > task( mostUrgentDue( now ) ); // keeps the task and this scheduler
   if ( task == nullptr ) {
      return false;
   }
   const Run run( *this, *task, now );
   task->notify< TimerTask::Reactor >( []( TimerTask::Reactor& reactor ) { reactor.onTaskRun(); } );
   return true;
}

size_t Scheduler::runDue( size_t limit ) {
   const Ptr< const Entity > keep = kept();
   size_t runs = 0;
   while ( runs < limit && runOne() ) {
      ++runs;
   }
   return runs;
}

void Scheduler::visitTasks( AttributeVisitor& visitor, std::string_view name,
                            const std::vector< TimerTask* >& tasks ) {
   if ( visitor.collectionBegin( name, tasks.size() ) ) {
      for ( size_t i = 0; i < tasks.size() && visitor.wantsMore(); ++i ) {
         const TimerTask* const task = tasks[i];
         visitor.child( task->taskName(), *task );
      }
      visitor.collectionEnd();
   }
}

void Scheduler::visitHistory( AttributeVisitor& visitor, std::string_view name,
                              const Ptr< TaskHistory >& history ) {
   if ( visitor.collectionBegin( name, 1 ) ) {
      visitor.child( history->name(), *history );
      visitor.collectionEnd();
   }
}

size_t runUntilIdle( Scheduler& scheduler, ManualClock& clock, double untilTime, size_t limit ) {
   const Ptr< Scheduler > keep( &scheduler );
   size_t runs = 0;
   while ( runs < limit ) {
      if ( scheduler.runOne() ) {
         ++runs;
         continue;
      }
      const double next = scheduler.nextExpiry();
      if ( next > untilTime || next == neverExpires ) {
         break;
      }
      clock.nowIs( next );
   }
   return runs;
}

} // namespace Vel
