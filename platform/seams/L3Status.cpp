#include "platform/seams/L3Status.h"

namespace Vel {

ENTITY_SOURCE( AdjHwStatus )
ENTITY_SOURCE( VelL3Status )
ENTITY_SOURCE( ProactiveArpNexthopSm )
ENTITY_SOURCE( RouteReactorConfig )
ENTITY_SOURCE( Route6ReactorConfig )
ENTITY_SOURCE( L3StartupStagePrerequisitesStatus )

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
