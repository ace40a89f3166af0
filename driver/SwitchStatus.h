// SwitchStatus: what the software switch counts and what it refuses, for those who look in from
// outside.

#pragma once

#include <functional>

#include "driver/ConfigWatch.h"
#include "driver/HwTables.h"
#include "driver/Links.h"
#include "driver/Operation.h"
#include "mpls/VelMplsHwInsight.h"
#include "platform/entity/ReadOnly.h"
#include "platform/seams/FecTables.h"

namespace Vel::Driver {

/// What the switch counts, and what it tells of itself.
class SwitchStatus : public Entity, public MplsHwInsight {
   // clang-format off
   VEL_ENTITY( SwitchStatus )
   VEL_DERIVED( queueLength )             // operations that wait
   VEL_READ_ONLY( U64, operations )       // carried out, refused ones included
   VEL_READ_ONLY( U64, refused )          // adjacencies and routes that did not go into hardware
   VEL_READ_ONLY( U64, forgotten )        // operations that were lost, by the fault plan
   VEL_READ_ONLY( U64, routes )           // in hardware, all VRFs
   VEL_READ_ONLY( U64, adjacencies )      // in hardware, all VRFs
   VEL_READ_ONLY( U64, fecs )             // in hardware
   VEL_READ_ONLY( U64, mostRoutes )       // the most at any time since `forgetMost`
   VEL_READ_ONLY( U64, mostAdjacencies )
   VEL_READ_ONLY( U64, mostFecs )
   VEL_READ_ONLY( U64, fecsAdopted )      // of an earlier driver, taken over as they were
   VEL_READ_ONLY( U64, routesAdopted )    // of an earlier driver, taken over as they were
   VEL_READ_ONLY( U64, routesChanged )    // of an earlier driver, rewritten
   VEL_READ_ONLY( U64, routesAdded )      // into FECs, not there before
   VEL_READ_ONLY( U64, routesStale )      // of an earlier driver, removed
   VEL_COLLECTION( Hash, Fib::FecId, UnprogrammedReason, waitingFec ) // requested, not possible now
   VEL_COLLECTION( Hash, Fib::FecId, Fib::Fec, foreignFec ) // what other agents have made known
   VEL_COLLECTION( Hash, IntfId, Fib::Fec, tunnel )         // ... and their tunnels
   VEL_DERIVED( breaches )                // of the contract, by the library
   VEL_READ_ONLY( U64, framesForwarded )
   VEL_READ_ONLY( U64, framesDropped )
   VEL_ENTITY_COLLECTION( Hash, VrfId, SwitchVrfStatus, vrf )
   VEL_ENTITY_END
   // clang-format on

 public:
   SwitchStatus( const OperationQueue& queue, bool breachIsFatal )
      : queue_( &queue ), breachLog_( breachIsFatal ) {}
   std::string name() const override { return "softwareSwitch"; }
   U64 queueLength() const { return queue_ ? queue_->size() : 0; }
   U64 breaches() const { return breachLog_.count(); }

   std::optional< U64 > operationsWaiting() const override { return queueLength(); }
   std::optional< UnprogrammedReason > routeRefusal( VrfId vrfId,
                                                     Mpls::RouteKey key ) const override;
   std::optional< UnprogrammedReason > adjacencyRefusal( VrfId vrfId, U64 index ) const override;
   std::optional< UnprogrammedReason > fecRefusal( Fib::FecId fecId ) const override;
   bool routeLost( VrfId vrfId, Mpls::RouteKey key ) const override;
   bool knowsForeign() const override { return true; }
   const Fib::Fec* findForeignFec( Fib::FecId fecId ) const override {
      return foreignFec().find( fecId );
   }
   const Fib::Fec* findTunnel( IntfId intf ) const override { return tunnel().find( intf ); }
   void eachForeign( const std::function< void( const Fib::Fec& ) >& call ) const override;
   std::optional< NextHopInfo > neighbor( const NextHopKey& key ) const override {
      return resolve_ ? std::optional( resolve_( key.intf, key.addr ) ) : std::nullopt;
   }
   bool linkUp( IntfId intf ) const override { return links_ == nullptr || links_->up( intf ); }

 private:
   friend class SoftwareSwitch;
   friend class FecUnit;

   const OperationQueue* queue_; // null once the switch is gone, as are `resolve_` and `links_`
   BreachLog breachLog_;
   std::function< NextHopInfo( IntfId, const IpGenAddr& ) > resolve_;
   const Links* links_ = nullptr;
};

} // namespace Vel::Driver
