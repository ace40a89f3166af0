// HwState: what the hardware forwards with, as a value.
//
// Hardware outlives the software that programs it. A snapshot of one switch, taken at any moment
// and given to the next one, is that: the next driver finds the routes and FECs where the last one
// left them, and forwards by them until it is told otherwise. What waited in the queue of the last
// driver is lost, as in a real switch.
//
// L2 adjacencies are not part of it, nor are the routes over them: hardware without FECs starts
// afresh, and hardware with FECs has such routes only where the library does not update in place.

#pragma once

#include <vector>

#include "driver/HwTables.h"

namespace Vel::Driver {

struct HwState {
   struct Fec {
      U64 hwId = 0;
      std::vector< Fib::FecVia > via; ///< but not the one into the backup
      U64 backupHwId = 0;             ///< 0: no backup
   };
   struct Route {
      VrfId vrfId = 0;
      Mpls::RouteKey key;
      U64 hwId = 0; ///< of the FEC that it forwards into
      FecRouteOperation operation{};
   };

   std::vector< Fec > fecs;
   std::vector< Route > routes;
   std::vector< VrfId > mplsRouting; ///< VRFs in which label forwarding is on
   U64 nextHwId = 1;                 ///< higher than any that was given out

   bool empty() const { return fecs.empty() && routes.empty(); }
};

} // namespace Vel::Driver
