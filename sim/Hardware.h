// Hardware: the hardware layer under test, as the simulation sees it.
//
// The software switch is one; the author of another driver derives from this, gives a factory to
// `Campaign`, and has the driver tried by everything that the simulation draws (docs/simulation.md).
// What a simulated hardware must do beside its driver contract: forward a frame at any moment by
// what is in hardware and nothing else, and hand over what survives the end of its software.

#pragma once

#include <functional>
#include <memory>
#include <vector>

#include "driver/Forwarding.h"
#include "mpls/VelMplsSmHelper.h"
#include "sim/Settings.h"

namespace Vel::Sim {

/// What a hardware layer is built over.
struct HardwareEntities {
   using Resolve = std::function< NextHopInfo( IntfId intf, const IpGenAddr& nextHop ) >;

   Ptr< MplsHwConfig > config;
   Ptr< MplsHwStatus > status;
   Ptr< Scheduler > scheduler;
   Ptr< VelL3Status > l3Status;
   // With FECs only:
   Ptr< FecIdToHwFecIdRequest > fecRequest;
   Ptr< FecIdToHwFecIdResponse > fecResponse;
   Ptr< L3StartupStagePrerequisitesStatus > startup;
   Ptr< VelHelper::MplsRouteSyncMap > routeSyncMap;
   Resolve resolve; ///< the hardware's own table of neighbours
};

/// What stays in hardware when its software ends.
class HardwareMemory {
 public:
   HardwareMemory() = default;
   HardwareMemory( const HardwareMemory& ) = delete;
   HardwareMemory& operator=( const HardwareMemory& ) = delete;
   virtual ~HardwareMemory() = default;
};

struct HardwareFaults {
   size_t routes = 0; ///< room for so many; 0: no limit
   size_t adjacencies = 0;
   size_t fecs = 0;
   std::vector< Mpls::RouteKey > refused; ///< routes
   std::vector< IntfId > notReady;        ///< interfaces by which no adjacency and no FEC may leave
};

/// How much is in hardware.
struct HardwareEntries {
   size_t routes = 0;
   size_t adjacencies = 0;
   size_t fecs = 0;

   size_t all() const { return routes + adjacencies + fecs; }
};

class Hardware {
 public:
   Hardware() = default;
   Hardware( const Hardware& ) = delete;
   Hardware& operator=( const Hardware& ) = delete;
   virtual ~Hardware() = default;

   /// Null without FECs.
   virtual Ptr< VelHelper::MplsSmHelper > helper() = 0;
   virtual std::vector< Driver::OutgoingFrame > forward( VrfId vrfId, Driver::ByteView frame ) = 0;
   /// Nothing waits to be carried out.
   virtual bool idle() const = 0;
   virtual HardwareEntries entries() const = 0;
   virtual std::unique_ptr< HardwareMemory > memory() const = 0;

   virtual void linkIs( IntfId intf, bool up ) = 0;
   /// What `resolve` gives has changed.
   virtual void neighborsChanged() = 0;
   /// Another agent's FEC or tunnel; no vias: it goes.
   virtual void foreignFecIs( Fib::FecId fecId, const std::vector< Fib::FecVia >& vias ) = 0;
   virtual void tunnelIs( IntfId intf, const std::vector< Fib::FecVia >& vias ) = 0;
   /// What hardware has no room for or refuses from now on, in place of what it was told before.
   virtual void faultsAre( const HardwareFaults& faults ) = 0;
};

/// Makes the hardware, on what an earlier one left or, with none, empty.
using HardwareFactory = std::function< std::unique_ptr< Hardware >(
   const HardwareEntities& entities, const Settings& settings, const HardwareMemory* left ) >;

/// The software switch.
std::unique_ptr< Hardware > makeSoftwareHardware( const HardwareEntities& entities,
                                                  const Settings& settings,
                                                  const HardwareMemory* left );

} // namespace Vel::Sim
