// NumAllocator: numbers from a range, each to one holder at a time.
//
// A number that was given back rests for the configured expiry time before it is handed out again,
// so that whoever still remembers it does not mistake a new holder for the old one. Numbers that
// have rested go first, the longest rested first; only when there are none is a number used that
// was never handed out.
//
//    auto allocator = make< NumAllocator >( make< NumAllocatorConfig >( 1, 255 ),
//                                           make< NumAllocatorStatus >(), clock );
//    const U64 id = allocator->getNumber();
//    if ( id == allocator->invalidNumber() ) { ... }      // all in use or resting
//    allocator->releaseNumber( id );
//
// The status lists the numbers in use. Others may enter numbers that the allocator has not handed
// out, such as an earlier allocator's: they are in use, are not handed out, and may be released.
//
// Cost: constant time for each operation, amortised, whatever the range. Memory: about 30 bytes for
// each number in use and 16 for each that rests; the range costs nothing.

#pragma once

#include <deque>

#include "platform/entity/Entity.h"
#include "platform/entity/ReadOnly.h"
#include "platform/services/Clock.h"
#include "platform/values/IpTypes.h"

namespace Vel {

class VEL_EXPORT NumAllocatorConfig : public WatchedEntity {
 public:
   class VEL_EXPORT Reactor : public ReactorOf< NumAllocatorConfig > {
    public:
      virtual void onExpiryTime() {}
   };

   // clang-format off
   VEL_ENTITY( NumAllocatorConfig )
   VEL_READ_ONLY( U64, min )
   VEL_READ_ONLY( U64, max )
   VEL_ATTRIBUTE( double, expiryTime, onExpiryTime )  // seconds that a released number rests
   VEL_ENTITY_END
   // clang-format on

 public:
   /// The range, both ends included. The number of all ones is never handed out: it stands for
   /// none.
   NumAllocatorConfig( U64 min, U64 max );
};

class VEL_EXPORT NumAllocatorStatus : public WatchedEntity {
 public:
   class VEL_EXPORT Reactor : public ReactorOf< NumAllocatorStatus > {
    public:
      virtual void onNumberInUse( U64 ) {}
   };

   // clang-format off
   VEL_ENTITY( NumAllocatorStatus )
   VEL_SET( HashSet, U64, numberInUse, onNumberInUse )  // the count is numberInUses()
   VEL_ENTITY_END
   // clang-format on

 public:
   NumAllocatorStatus() = default;
};

class VEL_EXPORT NumAllocator : public Entity {
   // clang-format off
   VEL_ENTITY( NumAllocator )
   VEL_READ_ONLY( Ptr< NumAllocatorConfig >, config )
   VEL_READ_ONLY( Ptr< NumAllocatorStatus >, status )
   VEL_READ_ONLY( U64, exhausted )  // times that there was no number to give
   VEL_ENTITY_END
   // clang-format on

 public:
   NumAllocator( Ptr< NumAllocatorConfig > config, Ptr< NumAllocatorStatus > status,
                 Ptr< Clock > clock );

   /// A number that nobody has, or the invalid number when all are in use or resting.
   U64 getNumber();
   /// Gives a number back. It must be in use.
   void releaseNumber( U64 number );
   static constexpr U64 invalidNumber() { return ~U64{ 0 }; }
   /// How many numbers have been given back and not handed out again.
   size_t resting() const { return resting_.size(); }

 private:
   struct Resting {
      U64 number;
      double since;
   };
   VEL_HIDDEN U64 takeRested();
   VEL_HIDDEN U64 takeFresh();

   Ptr< Clock > clock_;
   std::deque< Resting > resting_; // in the order of release
   U64 fresh_;                     // from here on, numbers were never handed out by this allocator
   HashSet< U64 > releasedAhead_;  // resting, from `fresh_` on: others had entered them as in use
};

} // namespace Vel
