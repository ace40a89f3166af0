// SoftwareSwitch: a hardware driver whose hardware is made of tables.
//
// It carries out what the library writes into MplsHwConfig and answers in MplsHwStatus, as
// docs/driver-contract.md says; it is the reference for that contract. Handlers only queue what
// changed. A task takes the operations in order, one for each service time, writes the tables and
// then the status. The tables have a capacity, a fault plan may refuse what it likes, and what the
// library does against the contract is a breach, see ConfigWatch.h. Frames are forwarded by the
// tables and by nothing else.
//
//    SoftwareSwitch hardware( mplsHwConfig, mplsHwStatus, scheduler, { .routeCapacity = 1000 } );
//    ... the scheduler runs ...
//    const ForwardResult result = hardware.forward( vrfId, frame );
//
// What is listed as unprogrammed is not in hardware: a route that was there and whose new version
// is refused is taken out. An adjacency is the exception: its old content stays, with the version
// that the status shows, since other routes forward with it.
//
// Who owns a route. A route belongs to whoever wrote it last: the configuration, when its operation
// is carried out, or the helper, which writes at once. A writing of the configuration that is still
// queued when the helper writes the route is dropped. Each takes out only the routes that it owns.
//
// The switch forgets nothing by itself and retries nothing: the library writes again.
//
// Cost: about 70 ns for a route from the handler to the status, 110 ns where the tables touch their
// memory for the first time; 32 bytes while it waits, 40 bytes in tables and status, 16 bytes for
// the checks.

#pragma once

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "driver/FaultPlan.h"
#include "driver/FecUnit.h"
#include "driver/Forwarding.h"
#include "driver/HwTables.h"
#include "driver/SwitchStatus.h"

namespace Vel::Driver {

struct SwitchSettings {
   using Refuse = std::function< UnprogrammedReason( const Operation& ) >;

   size_t routeCapacity = 0;      ///< routes that fit into hardware; 0: no limit
   size_t adjacencyCapacity = 0;  ///< L2 adjacencies that fit; 0: no limit
   size_t fecCapacity = 0;        ///< FECs that fit; 0: no limit
   double serviceTimeSeconds = 0; ///< for each operation
   /// A VRF's status is made while the configuration is being written, not when the queue gets
   /// there.
   bool createStatusAtOnce = true;
   bool breachIsFatal = true; ///< else it is only recorded
   MacAddr macAddr{ 0x02'00'00'00'00'01 };
   /// Asked before an adjacency or a route is written into hardware; anything but `Success`
   /// refuses. Asked before the fault plan.
   Refuse refuse{};
   /// What goes wrong, and when. Its times count from the making of the switch.
   FaultPlan faults{};
};

class SoftwareSwitch {
 public:
   /// Starts with empty hardware or, if hardware has FECs, with what an earlier driver left in it
   /// (`recovered`). It has FECs when their platform is given. What an earlier driver reported in
   /// the status is withdrawn, and what the configuration holds is queued.
   SoftwareSwitch( Ptr< MplsHwConfig > config, Ptr< MplsHwStatus > hwStatus,
                   Ptr< Scheduler > scheduler, SwitchSettings settings = {},
                   FecPlatform fecPlatform = {}, const HwState& recovered = {} );
   SoftwareSwitch( const SoftwareSwitch& ) = delete;
   SoftwareSwitch& operator=( const SoftwareSwitch& ) = delete;
   /// The status stays as it is, as after a driver's sudden end.
   ~SoftwareSwitch();

   /// Forwards a frame that arrived in the VRF.
   ForwardResult forward( VrfId vrfId, ByteView frame );

   const Ptr< SwitchStatus >& status() const { return status_; }
   /// What the library did against the contract, the first thousand of it.
   const std::vector< std::string >& breaches() const { return status_->breachLog_.texts(); }
   /// No operation waits.
   bool idle() const { return queue_.empty(); }
   /// Routes and adjacencies in hardware, all VRFs.
   size_t routes() const { return status_->routes(); }
   size_t adjacencies() const { return status_->adjacencies(); }
   /// The route in hardware, or null.
   const HwRoute* route( VrfId vrfId, Mpls::RouteKey key ) const;
   /// The hardware of a VRF, to walk over; null when there is none.
   const HwVrf* vrf( VrfId vrfId ) const;

   /// The capacities, from the next operation on. What is in hardware stays there.
   void capacityIs( size_t routes, size_t adjacencies );
   /// The fault plan, in place of the one before; its times count from now. Answers are delayed
   /// only by a switch that was made with a plan that was not empty.
   void faultsAre( FaultPlan faults );
   /// What hardware forwards with now, for the driver that comes after this one.
   HwState state() const;

   /// The maxima of the status start again with what is there now.
   void forgetMost();

   /// A link goes down or comes up. Protected FECs change over at once.
   void linkIs( IntfId intf, bool up );
   bool linkUp( IntfId intf ) const { return links_.up( intf ); }
   /// Called when an interface may have gone down or come up.
   void onLinksIs( std::function< void() > onLinks ) { onLinks_ = std::move( onLinks ); }
   /// The FECs; null for hardware without them.
   FecUnit* fecUnit() const { return fecUnit_.get(); }

   /// Points a route at the FEC of that hardware id, at once; says why it cannot. A route that is
   /// refused is not in hardware, whatever was there before.
   UnprogrammedReason fecRouteIs( VrfId vrfId, Mpls::RouteKey key, U64 hwFecId,
                                  FecRouteOperation operation );
   /// Takes a route into a FEC out of hardware.
   void fecRouteDel( VrfId vrfId, Mpls::RouteKey key );
   /// Replaces `SwitchSettings::refuse`, from the next operation on.
   void refuseIs( SwitchSettings::Refuse refuse ) { settings_.refuse = std::move( refuse ); }

 private:
   class ConfigReactor;
   class TaskReactor;
   struct Vrf;

   void forgetEarlierDriver();
   void recover( const HwState& state, VelHelper::MplsRouteSyncMap* routeSyncMap );
   void handleVrfConfig( VrfId vrfId );
   void routingOffUnlessWanted( VrfId vrfId );
   void run();

   HwVrf& makeVrf( VrfId vrfId );
   void removeVrf( VrfId vrfId );
   void carryOut( Operation operation );
   void writeAdjacency( HwVrf& vrf, const Operation& operation );
   void removeAdjacency( HwVrf& vrf, const Operation& operation );
   void writeRoute( HwVrf& vrf, Operation operation );
   void removeRoute( HwVrf& vrf, Mpls::RouteKey key );
   bool overtaken( Mpls::RouteKey key ) const;
   bool claim( Mpls::RouteKey key, const HwRoute* route );
   void takeRoutesOut( const HwFec& fec );
   void takeFoundRoutesOut();
   void foundRouteGoes( HwFec& fec );
   void takeRouteOut( HwVrf& vrf, Mpls::RouteKey key );
   UnprogrammedReason fecRouteRefusal( const HwVrf& vrf, Mpls::RouteKey key, HwFec* fec );
   bool someVrfHas( Mpls::RouteKey key ) const;
   void routeMoved( HwRoute& route, Ptr< HwAdjacency > adjacency, Ptr< HwFec > fec );
   void faultsStart();
   void faultsChanged();
   void linksChanged();
   void countMost();
   UnprogrammedReason adjacencyRefusal( const Operation& operation,
                                        const Mpls::Hardware::L2ViaSet& vias );
   UnprogrammedReason routeRefusal( const HwVrf& vrf, const Operation& operation );
   UnprogrammedReason planned( const Operation& operation, const Mpls::Hardware::L2ViaSet* vias );
   size_t capacity( FaultKind kind ) const;
   double now() const;
   const MplsHwVrfConfig* configOf( const HwVrf& vrf ) const;

   Ptr< MplsHwConfig > config_;
   Ptr< MplsHwStatus > hwStatus_;
   SwitchSettings settings_;
   Ptr< TimerTask > task_;
   OperationQueue queue_;
   Ptr< SwitchStatus > status_;
   Hash< VrfId, std::unique_ptr< Vrf > > vrf_;
   HwVrf* lastVrf_ = nullptr;                  // of the last operation
   LabelSet< Mpls::RouteKey > recoveredRoute_; // of an earlier driver, not written or removed since
   LabelSet< Mpls::RouteKey > countedRoute_;   // into FECs, counted as adopted, changed or added
   /// For a route that the helper wrote: up to the operation of this number, the configuration's
   /// queued writings of the route are dropped. Empty while nothing waits.
   LabelIndexed< Mpls::RouteKey, U64 > overtaken_;
   Ptr< TimerTask > faultTask_; // due when a fault begins or ends
   Links links_;
   std::function< void() > onLinks_;
   std::unique_ptr< FecUnit > fecUnit_;
   // Reactors come last, so that they are destroyed first and hear of nothing by then.
   Hash< VrfId, std::unique_ptr< ConfigWatch > > watch_;
   std::unique_ptr< ConfigReactor > configReactor_;
   std::unique_ptr< TaskReactor > taskReactor_;
   std::unique_ptr< TaskReactor > faultTaskReactor_;
};

} // namespace Vel::Driver
