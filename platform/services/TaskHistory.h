// TaskHistory: what a scheduler's tasks did lately.
//
// The last 64 runs, each with its task, start, duration, work and whether it was asked to yield,
// and a histogram of all durations. The question that it answers is "who held the thread".
// Recording a run costs a few stores; a slot's text keeps its storage, so that after the first lap
// nothing is allocated.

#pragma once

#include <array>
#include <cstdint>
#include <string>
#include <string_view>

#include "platform/entity/Entity.h"
#include "platform/values/IpTypes.h"

namespace Vel {

/// One run of a task.
struct TaskRun {
   std::string task;
   double startSeconds = 0;
   double durationSeconds = 0;
   U64 workCount = 0;
   bool yielded = false;
};
/// "reviewVrf start 12.5 duration 0.001 work 3 yielded"
VEL_EXPORT void appendText( std::string& out, const TaskRun& run );

/// Counts durations by powers of two of a microsecond.
class VEL_EXPORT DurationHistogram {
 public:
   static constexpr size_t buckets = 32;

   void add( double durationSeconds ) { ++counts_[bucketOf( durationSeconds )]; }
   /// The bucket of a duration: 0 below a microsecond, n from 2^(n-1) up to 2^n microseconds, the
   /// last one without end.
   static size_t bucketOf( double durationSeconds );
   U64 count( size_t bucket ) const { return counts_[bucket]; }
   /// Shows the buckets that are not empty, each by the microseconds that it ends before.
   void visit( AttributeVisitor& visitor, std::string_view name ) const;

 private:
   std::array< U64, buckets > counts_{};
};
inline void visitHistogram( AttributeVisitor& visitor, std::string_view name,
                            const DurationHistogram& histogram ) {
   histogram.visit( visitor, name );
}

class VEL_EXPORT TaskHistory : public Entity {
 public:
   static constexpr size_t capacity = 64;

   void add( std::string_view task, double startSeconds, double durationSeconds, U64 workCount,
             bool yielded );
   /// Number of runs that were recorded, those that are no longer kept included.
   U64 recorded() const { return recorded_; }
   /// Number of runs that are kept.
   size_t runs() const {
      return recorded_ < capacity ? static_cast< size_t >( recorded_ ) : capacity;
   }
   /// A kept run, 0 being the oldest.
   const TaskRun& run( size_t index ) const;
   const DurationHistogram& duration() const { return duration_; }

   std::string_view typeName() const override { return "TaskHistory"; }
   std::string name() const override { return "recent"; }
   void visit( AttributeVisitor& visitor ) const override;
   std::string_view attributeName( uint16_t ) const override { return {}; }

 private:
   std::array< TaskRun, capacity > ring_;
   U64 recorded_ = 0;
   DurationHistogram duration_;
};

} // namespace Vel
