#include "platform/base/Version.h"

namespace Vel {

int mplsVersion() {
   return VEL_MPLS_VERSION;
}

} // namespace Vel
