// What MplsDecapSm traces and asserts with. Not for other users.

#pragma once

#include "platform/base/Assert.h"
#include "platform/base/Trace.h"

namespace Vel {

extern TraceHandle velMplsDecapSmTrace;

} // namespace Vel

#define DECAP_TRACE( level, ... ) VEL_TRACE( ::Vel::velMplsDecapSmTrace, level, __VA_ARGS__ )

/// An assertion of MplsDecapSm with its fixed text, about `subject`.
#define DECAP_ASSERT( condition, text, subject )                                                   \
   VEL_ASSERT_TEXT( condition, text, "", "VelMplsDecapSm", ::Vel::joinText( subject ) )
