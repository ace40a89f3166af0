// The software switch as simulated hardware.

#include "driver/SoftwareSwitch.h"
#include "driver/SwitchHelper.h"
#include "sim/Hardware.h"

namespace Vel::Sim {

namespace {

struct SwitchMemory : HardwareMemory {
   Driver::HwState state;
};

Driver::FaultPlan planOf( const HardwareFaults& faults, const Settings& settings ) {
   Driver::FaultPlan plan;
   if ( settings.lateMillis != 0 ) {
      plan.add( { .kind = Driver::FaultKind::late, .seconds = settings.lateMillis / 1e3 } );
   }
   const auto capacity = [&]( Driver::FaultKind kind, size_t limit ) {
      if ( limit != 0 ) {
         plan.add( { .kind = kind, .number = limit } );
      }
   };
   capacity( Driver::FaultKind::routeCapacity, faults.routes );
   capacity( Driver::FaultKind::adjacencyCapacity, faults.adjacencies );
   capacity( Driver::FaultKind::fecCapacity, faults.fecs );
   for ( const Mpls::RouteKey key : faults.refused ) {
      plan.add( { .kind = Driver::FaultKind::refuseLabel, .routeKey = key } );
   }
   for ( const IntfId intf : faults.notReady ) {
      plan.add( { .kind = Driver::FaultKind::notReady, .intf = intf } );
   }
   return plan;
}

class SoftwareHardware : public Hardware {
 public:
   SoftwareHardware( const HardwareEntities& entities, const Settings& settings,
                     const HardwareMemory* left )
      : settings_( settings ),
        switch_(
           entities.config, entities.status, entities.scheduler,
           { .serviceTimeSeconds = settings.serviceMicros / 1e6, .faults = planOf( {}, settings ) },
           { entities.fecRequest, entities.fecResponse, entities.l3Status, entities.startup,
             entities.resolve, entities.routeSyncMap },
           left ? static_cast< const SwitchMemory& >( *left ).state : Driver::HwState() ) {
      if ( settings.fecs != 0 ) {
         helper_ = make< Driver::SwitchHelper >( switch_ );
      }
   }

   Ptr< VelHelper::MplsSmHelper > helper() override { return helper_; }
   std::vector< Driver::OutgoingFrame > forward( VrfId vrfId, Driver::ByteView frame ) override {
      return switch_.forward( vrfId, frame ).frames;
   }
   bool idle() const override { return switch_.idle(); }
   HardwareEntries entries() const override {
      return { switch_.routes(), switch_.adjacencies(), switch_.status()->fecs() };
   }
   std::unique_ptr< HardwareMemory > memory() const override {
      auto memory = std::make_unique< SwitchMemory >();
      memory->state = switch_.state();
      return memory;
   }
   void linkIs( IntfId intf, bool up ) override { switch_.linkIs( intf, up ); }
   void neighborsChanged() override {
      if ( Driver::FecUnit* const fecs = switch_.fecUnit() ) {
         fecs->reportStates();
      }
   }
   void foreignFecIs( Fib::FecId fecId, const std::vector< Fib::FecVia >& vias ) override {
      if ( Driver::FecUnit* const fecs = switch_.fecUnit() ) {
         vias.empty() ? fecs->foreignFecDel( fecId ) : fecs->foreignFecIs( fecId, vias );
      }
   }
   void tunnelIs( IntfId intf, const std::vector< Fib::FecVia >& vias ) override {
      if ( Driver::FecUnit* const fecs = switch_.fecUnit() ) {
         vias.empty() ? fecs->tunnelDel( intf ) : fecs->tunnelIs( intf, vias );
      }
   }
   void faultsAre( const HardwareFaults& faults ) override {
      switch_.faultsAre( planOf( faults, settings_ ) );
   }

 private:
   const Settings settings_;
   Driver::SoftwareSwitch switch_;
   Ptr< Driver::SwitchHelper > helper_;
};

} // namespace

std::unique_ptr< Hardware > makeSoftwareHardware( const HardwareEntities& entities,
                                                  const Settings& settings,
                                                  const HardwareMemory* left ) {
   return std::make_unique< SoftwareHardware >( entities, settings, left );
}

} // namespace Vel::Sim
