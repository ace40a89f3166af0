// Settings and identifiers that the routing layer publishes.

#pragma once

#include <string>

#include "platform/entity/Entity.h"
#include "platform/values/IpTypes.h"

namespace Mpls {

/// LFIB-wide settings.
class VEL_EXPORT LfibInfo : public Vel::WatchedEntity {
 public:
   class Reactor : public Vel::ReactorOf< LfibInfo > {
    public:
      virtual void onNexthopResolutionAllowDefaultRoute() {}
   };

   // clang-format off
   VEL_ENTITY( LfibInfo )
   VEL_KEY( std::string, infoName )
   VEL_ATTRIBUTE( bool, nexthopResolutionAllowDefaultRoute, onNexthopResolutionAllowDefaultRoute )
   VEL_ENTITY_END_IN_SOURCE
   // clang-format on

 public:
   explicit LfibInfo( std::string name ) : infoName_( std::move( name ) ) {}
};

/// In which VRFs MPLS routing is configured.
class VEL_EXPORT RoutingInfo : public Vel::WatchedEntity {
 public:
   class Reactor : public Vel::ReactorOf< RoutingInfo > {
    public:
      virtual void onMplsRouting( L3::VrfName ) {}
   };

   // clang-format off
   VEL_ENTITY( RoutingInfo )
   VEL_KEY( std::string, infoName )
   VEL_COLLECTION( Hash, L3::VrfName, bool, mplsRouting, onMplsRouting )
   VEL_ENTITY_END_IN_SOURCE
   // clang-format on

 public:
   explicit RoutingInfo( std::string name ) : infoName_( std::move( name ) ) {}
};

} // namespace Mpls

namespace Routing::Hardware {

/// Which number each VRF has in hardware.
class VEL_EXPORT RouteStatus : public Vel::WatchedEntity {
 public:
   class Reactor : public Vel::ReactorOf< RouteStatus > {
    public:
      virtual void onVrfStatus( L3::VrfName ) {}
   };

   // clang-format off
   VEL_ENTITY( RouteStatus )
   VEL_KEY( std::string, statusName )
   VEL_COLLECTION( Hash, L3::VrfName, Vel::VrfId, vrfStatus, onVrfStatus )
   VEL_ENTITY_END_IN_SOURCE
   // clang-format on

 public:
   explicit RouteStatus( std::string name ) : statusName_( std::move( name ) ) {}
};

} // namespace Routing::Hardware
