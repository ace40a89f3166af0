// What the label state machine works on: the entities of the layers around it. Whoever runs the
// state machine makes them, and they outlive it.

#pragma once

#include "mcast/VelMcastGroupProgConfig.h"
#include "mpls/VelMplsHwTypes.h"
#include "mpls/VelMplsSmHelper.h"
#include "platform/entity/EntityManager.h"
#include "platform/lfib/LfibStatus.h"
#include "platform/seams/AttrLog.h"
#include "platform/seams/FecTables.h"
#include "platform/seams/RoutingStatus.h"
#include "platform/services/Scheduler.h"

namespace Vel {

/// What MplsSm is built from. Optional ones may be empty: they switch capabilities off.
struct MplsSmInputs {
   Ptr< const Mpls::LfibInfo > lfibInfo;
   Ptr< const Mpls::RoutingInfo > mplsRoutingInfo;
   Ptr< const Mpls::LfibStatus > transitLfib;
   Ptr< Mpls::LfibHwStatus > lfibHwStatus;
   Ptr< const Routing::Hardware::RouteStatus > routingHwRouteStatus;
   Ptr< Mpls::Hardware::Status > routingHwMplsStatus;
   Ptr< RouteReactorConfig > routeReactorConfig;
   Ptr< Route6ReactorConfig > route6ReactorConfig;
   Ptr< MplsHwConfig > mplsHwConfig;
   Ptr< MplsHwStatus > mplsHwStatus;
   Ptr< const VelL3Status > velL3Status;
   Ptr< ProactiveArpNexthopSm > proactiveArpNhSm;
   Ptr< EntityManager > entityManager;
   Ptr< FecIdToHwFecIdRequest > hwFecIdRequest;                             ///< optional
   Ptr< const FecIdToHwFecIdResponse > hwFecIdResponse;                     ///< optional
   Ptr< VelHelper::MplsSmHelper > mplsSmHelper;                             ///< optional
   Ptr< const VelHelper::MplsRouteSyncMap > mplsRouteSyncMap;               ///< non-stop forwarding
   Ptr< const MplsSmInputSummary > inputStatusSummary;                      ///< non-stop forwarding
   Ptr< const L3StartupStagePrerequisitesStatus > velL3StartupStagePrereqs; ///< non-stop forwarding
   Ptr< const AttrLogSm > attrLogSm;                                        ///< optional
   Ptr< McastGroupProgConfig > mcastGroupProgConfig;                        ///< multicast
   Ptr< Clock > clock;
   Ptr< Scheduler > scheduler;
};

} // namespace Vel
