#include "platform/seams/RoutingStatus.h"

namespace Mpls {

ENTITY_SOURCE( LfibInfo )
ENTITY_SOURCE( RoutingInfo )

} // namespace Mpls

namespace Routing::Hardware {

ENTITY_SOURCE( RouteStatus )

} // namespace Routing::Hardware
