// SwitchHelper: what the software switch supplies to the library beside entities: routes into FECs,
// which it programs at once.

#pragma once

#include "driver/SoftwareSwitch.h"
#include "mpls/VelMplsSmHelper.h"

namespace Vel::Driver {

class SwitchHelper : public VelHelper::MplsSmHelper {
 public:
   static constexpr U32 noMulticastId = 0;
   static constexpr U32 largestReplication = 64; ///< members of a group

   /// The switch must outlive the helper.
   explicit SwitchHelper( SoftwareSwitch& hardware ) : hardware_( hardware ) {}

   std::string_view typeName() const override { return "SwitchHelper"; }
   std::string name() const override { return "switchHelper"; }
   void visit( AttributeVisitor& ) const override {}
   std::string_view attributeName( uint16_t ) const override { return {}; }

   U32 multicastIdNull() const override { return noMulticastId; }
   U32 mcastFeatureFlag() const override { return 0; }
   U32 maxReplicationSize() const override { return largestReplication; }
   UnprogrammedReason createOrUpdateRoute( VrfId vrfId, Mpls::RouteKey key, U64 hwFecId,
                                           MplsLabelAction action, Mpls::PayloadType payloadType,
                                           Mpls::TtlMode ttlMode ) override;
   /// There are no replication groups in this switch.
   UnprogrammedReason updateRoute( VrfId, Mpls::RouteKey, U32 ) override {
      return UnprogrammedReason::RouteFull;
   }
   void deleteRoute( VrfId vrfId, Mpls::RouteKey key ) override;

 private:
   SoftwareSwitch& hardware_;
};

} // namespace Vel::Driver
