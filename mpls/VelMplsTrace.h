// The trace handle of MplsSm and what its parts trace with. Not for other users.

#pragma once

#include "platform/base/Assert.h"
#include "platform/base/Trace.h"

namespace Vel {

extern TraceHandle velMplsSmTrace;

} // namespace Vel

#define MPLS_TRACE( level, ... ) VEL_TRACE( ::Vel::velMplsSmTrace, level, __VA_ARGS__ )
#define MPLS_TRACE_CALL( level, ... )                                                              \
   VEL_TRACE_CALL( ::Vel::velMplsSmTrace, level __VA_OPT__(, ) __VA_ARGS__ )
#define MPLS_RING( ... ) VEL_RING( ::Vel::velMplsSmTrace, __VA_ARGS__ )

/// An assertion of MplsSm with its fixed text, about `subject`.
#define MPLS_ASSERT( condition, text, subject )                                                    \
   VEL_ASSERT_TEXT( condition, text, "", "VelMplsSm", subject )
