#include "driver/Misbehave.h"

namespace Vel::Driver {

namespace {

constexpr U64 strangeIndex = 999'999'999;

Ptr< Mpls::Hardware::L2Adjacency > stranger() {
   return make< Mpls::Hardware::L2Adjacency >( strangeIndex );
}

} // namespace

void misbehave( MplsHwStatus& status, VrfId vrfId, Misbehaviour kind, Mpls::RouteKey key ) {
   MplsHwVrfStatus& vrf = *status.vrfStatusIs( vrfId );
   switch ( kind ) {
   case Misbehaviour::listsRoute:
      vrf.unprogrammedReasonIs( UnprogrammedReason::RouteFull );
      vrf.unprogrammedRouteIs( key );
      break;
   case Misbehaviour::delistsRoute:
      vrf.unprogrammedRouteDel( key );
      break;
   case Misbehaviour::confirmsRoute:
      vrf.routeIs( { key, stranger(), 1 } );
      break;
   case Misbehaviour::listsStrangeAdjacency:
      vrf.unprogrammedAdjacencyIs( stranger() );
      break;
   case Misbehaviour::switchesRouting:
      vrf.mplsRoutingIs( true );
      break;
   }
}

} // namespace Vel::Driver
