// Assertions: for broken invariants, and on in every build.
//
// An assertion names the condition that failed, who noticed it (the state machine or the platform)
// and about which object. Before the process ends, the always-on trace ring is dumped, since what
// led to the failure is in it. An embedder may replace the handler (to write a core file elsewhere,
// or to throw in a test); a handler that returns is followed by std::abort.
//
// What the network, the LFIB or the hardware can do wrong is not an assertion: it is handled,
// counted and visible.

#pragma once

#include <string>
#include <string_view>

#include "platform/base/Export.h"

namespace Vel {

/// What an assertion handler is told.
struct AssertionFailure {
   std::string_view condition; ///< the condition that does not hold, as a fixed text
   std::string_view message;   ///< more words, may be empty
   std::string_view component; ///< the state machine or platform service that noticed
   std::string subject;        ///< the entity or key it is about, may be empty
   const char* file;
   int line;

   /// All of it in one line.
   VEL_EXPORT std::string text() const;
};

using AssertionHandler = void ( * )( const AssertionFailure& );

/// Replaces what happens on a failed assertion; returns the handler that was there. Null restores
/// the default, which writes the failure and the trace ring to standard error.
VEL_EXPORT AssertionHandler assertionHandlerIs( AssertionHandler handler );

/// Runs the handler and ends the process.
[[noreturn]] VEL_EXPORT void assertionFailed( const AssertionFailure& failure );

} // namespace Vel

/// Fails with the fixed text of the condition. `component` and `subject` are evaluated only on
/// failure.
#define VEL_ASSERT_TEXT( condition, text, message, component, subject )                            \
   do {                                                                                            \
      if ( !( condition ) ) [[unlikely]] {                                                         \
         ::Vel::assertionFailed(                                                                   \
            { ( text ), ( message ), ( component ), ( subject ), __FILE__, __LINE__ } );           \
      }                                                                                            \
   } while ( false )

/// The plain form, whose text is the condition as written.
#define VEL_ASSERT( condition )                                                                    \
   VEL_ASSERT_TEXT( condition, #condition, "", "platform", std::string() )
