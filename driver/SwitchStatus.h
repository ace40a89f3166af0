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
   ENTITY( SwitchStatus )
   DERIVED( queueLength )             // operations that wait
   READ_ONLY( U64, operations )       // carried out, refused ones included
   READ_ONLY( U64, refused )          // adjacencies and routes that did not go into hardware
   READ_ONLY( U64, forgotten )        // operations that were lost, by the fault plan
   READ_ONLY( U64, routes )           // in hardware, all VRFs
   READ_ONLY( U64, adjacencies )      // in hardware, all VRFs
   READ_ONLY( U64, fecs )             // in hardware
   READ_ONLY( U64, mostRoutes )       // that there were at a time, since `forgetMost`
   READ_ONLY( U64, mostAdjacencies )
   READ_ONLY( U64, mostFecs )
   READ_ONLY( U64, fecsAdopted )      // of an earlier driver, taken over as they were
   READ_ONLY( U64, routesAdopted )    // of an earlier driver, taken over as they were
   READ_ONLY( U64, routesChanged )    // of an earlier driver, rewritten
   READ_ONLY( U64, routesAdded )      // into FECs, not there before
   READ_ONLY( U64, routesStale )      // of an earlier driver, removed
   COLLECTION( Hash, Fib::FecId, UnprogrammedReason, waitingFec ) // requested and not possible now
   COLLECTION( Hash, Fib::FecId, Fib::Fec, foreignFec ) // what other agents have made known
   COLLECTION( Hash, IntfId, Fib::Fec, tunnel )         // ... and their tunnels
   DERIVED( breaches )                // of the contract, by the library
   READ_ONLY( U64, framesForwarded )
   READ_ONLY( U64, framesDropped )
   ENTITY_COLLECTION( Hash, VrfId, SwitchVrfStatus, vrf )
   ENTITY_END
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

   const OperationQueue* queue_; // null once the switch is gone
   BreachLog breachLog_;
   std::function< NextHopInfo( IntfId, const IpGenAddr& ) >
      resolve_;                   // null once the switch is gone, as the next
   const Links* links_ = nullptr; //
};

} // namespace Vel::Driver
