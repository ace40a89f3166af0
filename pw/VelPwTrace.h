// The trace handle of PwLFibSm and what it traces with. Not for other users.

#pragma once

#include "platform/base/Assert.h"
#include "platform/base/Trace.h"

namespace Vel {

extern TraceHandle velPwLFibSmTrace;

} // namespace Vel

/// A line that begins with the name of the enclosing function.
#define PW_TRACE( level, ... )                                                                     \
   VEL_TRACE( ::Vel::velPwLFibSmTrace, level, __func__, ": " __VA_OPT__(, ) __VA_ARGS__ )

/// An assertion of PwLFibSm with its fixed text, about `subject`.
#define PW_ASSERT( condition, text, message, subject )                                             \
   VEL_ASSERT_TEXT( condition, text, message, "VelPwLFibSm", subject )
