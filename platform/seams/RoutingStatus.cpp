#include "platform/seams/RoutingStatus.h"

namespace Mpls {

VEL_ENTITY_SOURCE( LfibInfo )
VEL_ENTITY_SOURCE( RoutingInfo )

} // namespace Mpls

namespace Routing::Hardware {

VEL_ENTITY_SOURCE( RouteStatus )

} // namespace Routing::Hardware
