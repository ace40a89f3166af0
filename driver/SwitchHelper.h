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

   /// `vrfId` finds the number of a VRF. The switch must outlive the helper.
   SwitchHelper( SoftwareSwitch& hardware, Ptr< const VelL3Status > l3Status )
      : hardware_( hardware ), l3Status_( std::move( l3Status ) ) {}

   std::string_view typeName() const override { return "SwitchHelper"; }
   std::string name() const override { return "switchHelper"; }
   void visit( AttributeVisitor& ) const override {}
   std::string_view attributeName( uint16_t ) const override { return {}; }

   U32 multicastIdNull() const override { return noMulticastId; }
   U32 mcastFeatureFlag() const override { return 0; }
   U32 maxReplicationSize() const override { return largestReplication; }
   UnprogrammedReason createOrUpdateRoute( const L3::VrfName& vrf, Mpls::RouteKey key, U64 hwFecId,
                                           MplsLabelAction action, Mpls::PayloadType payloadType,
                                           Mpls::TtlMode ttlMode ) override;
   /// There are no replication groups in this switch.
   UnprogrammedReason updateRoute( const L3::VrfName&, Mpls::RouteKey, U32 ) override {
      return UnprogrammedReason::RouteFull;
   }
   void deleteRoute( const L3::VrfName& vrf, Mpls::RouteKey key ) override;

 private:
   bool named( const L3::VrfName& vrf ) const;

   SoftwareSwitch& hardware_;
   Ptr< const VelL3Status > l3Status_;
   mutable Hash< L3::VrfName, VrfId > known_; // also of VRFs that have no name just now
};

} // namespace Vel::Driver
