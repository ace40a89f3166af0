#include "driver/SwitchHelper.h"

namespace Vel::Driver {

UnprogrammedReason SwitchHelper::createOrUpdateRoute( VrfId vrfId, Mpls::RouteKey key, U64 hwFecId,
                                                      MplsLabelAction action,
                                                      Mpls::PayloadType payloadType,
                                                      Mpls::TtlMode ttlMode ) {
   return hardware_.fecRouteIs( vrfId, key, hwFecId, { action, payloadType, ttlMode } );
}

void SwitchHelper::deleteRoute( VrfId vrfId, Mpls::RouteKey key ) {
   hardware_.fecRouteDel( vrfId, key );
}

} // namespace Vel::Driver
