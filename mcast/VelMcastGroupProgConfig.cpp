#include "mcast/VelMcastGroupProgConfig.h"

namespace Vel {

VEL_ENTITY_SOURCE( McastGroupProgInfo )
VEL_ENTITY_SOURCE( McastGroupProgConfig )

} // namespace Vel
