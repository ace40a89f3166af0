#include "platform/seams/L3Status.h"

namespace Vel {

VEL_ENTITY_SOURCE( AdjHwStatus )
VEL_ENTITY_SOURCE( VelL3Status )
VEL_ENTITY_SOURCE( ProactiveArpNexthopSm )
VEL_ENTITY_SOURCE( RouteReactorConfig )
VEL_ENTITY_SOURCE( Route6ReactorConfig )
VEL_ENTITY_SOURCE( L3StartupStagePrerequisitesStatus )

void appendText( std::string& out, const NextHopInfo& info ) {
   if ( !info.resolved ) {
      out += "not resolved";
      return;
   }
   out += joinText( "vlan ", info.vlanId, " intf ", info.l2Intf, " mac ", info.macAddr );
}

void appendText( std::string& out, const ResolvedAddr& resolved ) {
   out += joinText( resolved.prefix, " {" );
   std::string_view separator;
   for ( const ResolvedNexthop& nexthop : resolved.nexthop ) {
      out += joinText( separator, nexthop.nextHop, " ", nexthop.intf, " ", nexthop.arp );
      separator = "; ";
   }
   out += '}';
}

} // namespace Vel
