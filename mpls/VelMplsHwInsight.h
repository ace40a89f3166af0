// MplsHwInsight: what a driver may tell of its hardware beside what the library asks of it.
//
// The library forwards without it. Those who explain, audit or judge what becomes of a label look
// here: a driver that has an answer saves an operator a guess. Nothing has to be overridden; the
// answers given here are those of a driver that keeps to itself.
//
// A driver lets one of its entities have this class as a base too, and whoever builds the agent
// mounts that entity in the EntityManager as "mplsHwInsight". Asked for on the thread of the state
// machine, at any time.

#pragma once

#include <functional>
#include <optional>

#include "mpls/VelMplsHwTypes.h"
#include "platform/seams/FecTables.h"
#include "platform/seams/L3Status.h"

namespace Vel {

class VEL_EXPORT MplsHwInsight {
 public:
   virtual ~MplsHwInsight();

   /// How many operations wait to be carried out; nothing when nobody counts them.
   virtual std::optional< U64 > operationsWaiting() const { return std::nullopt; }

   /// Why the writing of the route, the L2 adjacency or the FEC is refused now; nothing when it is
   /// not, or when the reason of the VRF's status is all there is.
   virtual std::optional< UnprogrammedReason > routeRefusal( VrfId, Mpls::RouteKey ) const {
      return std::nullopt;
   }
   virtual std::optional< UnprogrammedReason > adjacencyRefusal( VrfId, U64 /*index*/ ) const {
      return std::nullopt;
   }
   virtual std::optional< UnprogrammedReason > fecRefusal( Fib::FecId ) const {
      return std::nullopt;
   }
   /// The last writing of the route into a FEC was answered, and hardware does not have it.
   virtual bool routeLost( VrfId, Mpls::RouteKey ) const { return false; }

   /// The driver knows what other agents have made known to hardware. Without that, where their
   /// FECs and tunnels lead is not to be told, and the next three mean nothing.
   virtual bool knowsForeign() const { return false; }
   /// What the FEC of another agent, or the tunnel, is made of; null when it is not there.
   virtual const Fib::Fec* findForeignFec( Fib::FecId ) const { return nullptr; }
   virtual const Fib::Fec* findTunnel( IntfId ) const { return nullptr; }
   /// Each FEC and tunnel of other agents.
   virtual void eachForeign( const std::function< void( const Fib::Fec& ) >& ) const {}

   /// What hardware resolves a next hop to by itself, whether the library watches it or not;
   /// nothing when the L3 layer is to be asked.
   virtual std::optional< NextHopInfo > neighbor( const NextHopKey& ) const { return std::nullopt; }
   /// False: frames that leave by the interface are lost.
   virtual bool linkUp( IntfId ) const { return true; }
};

} // namespace Vel
