#include "platform/services/NumAllocator.h"

#include <algorithm>
#include <utility>

namespace Vel {

NumAllocatorConfig::NumAllocatorConfig( U64 min, U64 max )
   : min_( min ), max_( std::min( max, NumAllocator::invalidNumber() - 1 ) ) {
   VEL_ASSERT_TEXT( min_ <= max_, "min <= max", "the range is empty", "NumAllocator",
                    joinText( min, " to ", max ) );
}

NumAllocator::NumAllocator( Ptr< NumAllocatorConfig > config, Ptr< NumAllocatorStatus > status,
                            Ptr< Clock > clock )
   : config_( std::move( config ) ), status_( std::move( status ) ), clock_( std::move( clock ) ) {
   VEL_ASSERT( config_ != nullptr && status_ != nullptr && clock_ != nullptr );
   fresh_ = config_->min();
}

U64 NumAllocator::getNumber() {
   U64 number = takeRested();
   if ( number == invalidNumber() ) {
      number = takeFresh();
   }
   if ( number == invalidNumber() ) {
      ++exhausted_;
      return number;
   }
   status_->numberInUseIs( number );
   return number;
}

U64 NumAllocator::takeRested() {
   if ( resting_.empty() || resting_.front().since + config_->expiryTime() > clock_->now() ) {
      return invalidNumber();
   }
   const U64 number = resting_.front().number;
   resting_.pop_front();
   releasedAhead_.erase( number );
   return number;
}

U64 NumAllocator::takeFresh() {
   while ( fresh_ <= config_->max() ) {
      const U64 number = fresh_++;
      if ( !status_->numberInUseHas( number ) && !releasedAhead_.erase( number ) ) {
         return number;
      }
   }
   return invalidNumber();
}

void NumAllocator::releaseNumber( U64 number ) {
   const bool wasInUse = status_->numberInUseDel( number );
   VEL_ASSERT_TEXT( wasInUse, "numberInUseHas( number )", "a number is released that is not in use",
                    "NumAllocator", textOf( number ) );
   if ( number < config_->min() || number > config_->max() ) {
      return;
   }
   resting_.push_back( { number, clock_->now() } );
   if ( number >= fresh_ ) {
      releasedAhead_.insert( number );
   }
}

} // namespace Vel
