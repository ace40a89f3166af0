// The version of the library: of the headers that a user compiles with, and of the library that its
// program runs with. A program that loads the shared library may meet a later patch version than it
// was compiled with.
//
// The project, its packages and the shared library's name take the version from the three macros.

#pragma once

#include "platform/base/Export.h"

#define VEL_MPLS_VERSION_MAJOR 0
#define VEL_MPLS_VERSION_MINOR 1
#define VEL_MPLS_VERSION_PATCH 0

/// The version as one number, to compare with: 1.2.3 is 10203.
#define VEL_MPLS_VERSION                                                                           \
   ( VEL_MPLS_VERSION_MAJOR * 10000 + VEL_MPLS_VERSION_MINOR * 100 + VEL_MPLS_VERSION_PATCH )

namespace Vel {

/// VEL_MPLS_VERSION of the library that runs.
VEL_EXPORT int mplsVersion();

} // namespace Vel
