// Clock: where time comes from.
//
// Everything that waits asks a Clock, so that a test or a simulation decides what time it is. Times
// are seconds as a double, from an origin that means nothing in itself; they never go backwards. A
// double tells microseconds apart for centuries.
//
//    auto clock = make< ManualClock >();
//    clock->advance( 10.0 );        // ten seconds pass, nothing else happens
//
// Cost: the steady clock takes one system time query (about 20 ns), the manual one a load; both a
// virtual call.

#pragma once

#include "platform/entity/Entity.h"

namespace Vel {

class VEL_EXPORT Clock : public WatchedEntity {
 public:
   /// Nothing is told of a clock: binding to it keeps it.
   class VEL_EXPORT Reactor : public ReactorOf< Clock > {};

   /// The time, in seconds.
   virtual double now() const = 0;

   void visit( AttributeVisitor& visitor ) const override;
   std::string_view attributeName( uint16_t ) const override { return {}; }
   std::string name() const override { return "clock"; }
};

/// The machine's monotonic clock.
class VEL_EXPORT SteadyClock : public Clock {
 public:
   double now() const override;
   std::string_view typeName() const override { return "SteadyClock"; }
};

/// A clock that moves when told.
class VEL_EXPORT ManualClock : public Clock {
 public:
   explicit ManualClock( double start = 0 ) : now_( start ) {}
   double now() const override { return now_; }
   std::string_view typeName() const override { return "ManualClock"; }

   /// Sets the time, never back.
   void nowIs( double seconds );
   /// Lets time pass.
   void advance( double seconds ) { nowIs( now_ + seconds ); }

 private:
   double now_;
};

} // namespace Vel
