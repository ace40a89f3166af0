#include "mcast/VelMcastGroupProgConfig.h"

namespace Vel {

ENTITY_SOURCE( McastGroupProgInfo )
ENTITY_SOURCE( McastGroupProgConfig )

} // namespace Vel
