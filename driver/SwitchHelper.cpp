#include "driver/SwitchHelper.h"

namespace Vel::Driver {

bool SwitchHelper::named( const L3::VrfName& vrf ) const {
   for ( const auto& [id, name] : l3Status_->vrfName() ) {
      if ( name == vrf ) {
         known_.set( vrf, id );
         return true;
      }
   }
   return false;
}

UnprogrammedReason SwitchHelper::createOrUpdateRoute( const L3::VrfName& vrf, Mpls::RouteKey key,
                                                      U64 hwFecId, MplsLabelAction action,
                                                      Mpls::PayloadType payloadType,
                                                      Mpls::TtlMode ttlMode ) {
   return named( vrf ) ? hardware_.fecRouteIs( known_.lookup( vrf ), key, hwFecId,
                                               { action, payloadType, ttlMode } )
                       : UnprogrammedReason::InterfaceNotReady;
}

void SwitchHelper::deleteRoute( const L3::VrfName& vrf, Mpls::RouteKey key ) {
   if ( named( vrf ) || known_.has( vrf ) ) { // what was written under a name goes without it
      hardware_.fecRouteDel( known_.lookup( vrf ), key );
   }
}

} // namespace Vel::Driver
