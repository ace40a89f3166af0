#include "driver/SwitchHelper.h"

namespace Vel::Driver {

const VrfId* SwitchHelper::vrfId( const L3::VrfName& vrf ) const {
   for ( const auto& [id, name] : l3Status_->vrfName() ) {
      if ( name == vrf ) {
         found_ = id;
         return &found_;
      }
   }
   return nullptr;
}

UnprogrammedReason SwitchHelper::createOrUpdateRoute( const L3::VrfName& vrf, Mpls::RouteKey key,
                                                      U64 hwFecId, MplsLabelAction action,
                                                      Mpls::PayloadType payloadType,
                                                      Mpls::TtlMode ttlMode ) {
   const VrfId* const id = vrfId( vrf );
   return id ? hardware_.fecRouteIs( *id, key, hwFecId, { action, payloadType, ttlMode } )
             : UnprogrammedReason::InterfaceNotReady;
}

void SwitchHelper::deleteRoute( const L3::VrfName& vrf, Mpls::RouteKey key ) {
   if ( const VrfId* const id = vrfId( vrf ) ) {
      hardware_.fecRouteDel( *id, key );
   }
}

} // namespace Vel::Driver
