// Lets a test see assertions: while one of these lives, a failed assertion throws instead of ending
// the process.

#pragma once

#include <stdexcept>
#include <string>

#include "platform/base/Assert.h"

namespace VelTest {

/// What a failed assertion throws; `what()` is its whole text.
struct AssertionThrown : std::runtime_error {
   explicit AssertionThrown( const Vel::AssertionFailure& failure )
      : std::runtime_error( failure.text() ), condition( failure.condition ) {}
   std::string condition;
};

class AssertionsThrow {
 public:
   AssertionsThrow()
      : previous_( Vel::assertionHandlerIs(
           []( const Vel::AssertionFailure& failure ) { throw AssertionThrown( failure ); } ) ) {}
   AssertionsThrow( const AssertionsThrow& ) = delete;
   AssertionsThrow& operator=( const AssertionsThrow& ) = delete;
   ~AssertionsThrow() { Vel::assertionHandlerIs( previous_ ); }

 private:
   Vel::AssertionHandler previous_;
};

} // namespace VelTest
