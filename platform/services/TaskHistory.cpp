#include "platform/services/TaskHistory.h"

#include <algorithm>
#include <bit>

namespace Vel {

void appendText( std::string& out, const TaskRun& run ) {
   out += joinText( run.task, " start ", run.startSeconds, " duration ", run.durationSeconds,
                    " work ", run.workCount, run.yielded ? " yielded" : "" );
}

size_t DurationHistogram::bucketOf( double durationSeconds ) {
   const double microseconds = durationSeconds * 1e6;
   constexpr auto lastBegins = static_cast< double >( U64{ 1 } << ( buckets - 2 ) );
   if ( microseconds >= lastBegins ) {
      return buckets - 1;
   }
   return microseconds >= 1
             ? static_cast< size_t >( std::bit_width( static_cast< U64 >( microseconds ) ) )
             : 0;
}

void DurationHistogram::visit( AttributeVisitor& visitor, std::string_view name ) const {
   const auto used =
      std::count_if( counts_.begin(), counts_.end(), []( U64 count ) { return count != 0; } );
   if ( !visitor.collectionBegin( name, static_cast< size_t >( used ) ) ) {
      return;
   }
   for ( size_t bucket = 0; bucket < buckets && visitor.wantsMore(); ++bucket ) {
      if ( counts_[bucket] != 0 ) {
         const std::string below = bucket == buckets - 1 ? "more" : textOf( U64{ 1 } << bucket );
         visitor.element( below, attributeValue( counts_[bucket] ) );
      }
   }
   visitor.collectionEnd();
}

void TaskHistory::add( std::string_view task, double startSeconds, double durationSeconds,
                       U64 workCount, bool yielded ) {
   TaskRun& run = ring_[recorded_++ % capacity];
   run.task.assign( task );
   run.startSeconds = startSeconds;
   run.durationSeconds = durationSeconds;
   run.workCount = workCount;
   run.yielded = yielded;
   duration_.add( durationSeconds );
}

const TaskRun& TaskHistory::run( size_t index ) const {
   VEL_ASSERT( index < runs() );
   return ring_[( recorded_ - runs() + index ) % capacity];
}

void TaskHistory::visit( AttributeVisitor& visitor ) const {
   visitor.attribute( "recorded", attributeValue( recorded_ ) );
   duration_.visit( visitor, "durationMicroseconds" );
   if ( visitor.collectionBegin( "run", runs() ) ) {
      for ( size_t i = 0; i < runs() && visitor.wantsMore(); ++i ) {
         visitor.element( textOf( recorded_ - runs() + i ), attributeValue( run( i ) ) );
      }
      visitor.collectionEnd();
   }
}

} // namespace Vel
