#include "platform/services/Clock.h"

#include <chrono>

namespace Vel {

void Clock::visit( AttributeVisitor& visitor ) const {
   visitor.attribute( "now", attributeValue( now() ) );
}

double SteadyClock::now() const {
   return std::chrono::duration< double >( std::chrono::steady_clock::now().time_since_epoch() )
      .count();
}

void ManualClock::nowIs( double seconds ) {
   VEL_ASSERT_TEXT( seconds >= now_, "seconds >= now()", "time does not go backwards", "clock",
                    joinText( seconds, " after ", now_ ) );
   now_ = seconds;
}

} // namespace Vel
