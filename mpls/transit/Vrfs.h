// Which VRF a report is about, and under which number things are written.
//
// The VRF's state remembers the number under which things are written. While the number is lost,
// nothing is written, and what goes is taken out under the remembered one at once. When the VRF has
// another number, everything goes under the former one before it is written anew. All configuration
// is the default VRF's: a report for a number that has any configuration is about it, whatever that
// number is called by now.
//
// State: MplsSm::mplsState, VrfMplsState::writtenVrfId. Switches MplsHwVrfConfig::mplsRouting
// off, and removes what stands under a former number.
// Cost: a change of the number walks all routes; everything else is one look-up.

#pragma once

#include "mpls/transit/Part.h"

namespace Vel::Transit {

/// The VRFs' states, names and numbers.
class Vrfs : private Part {
 public:
   using Part::Part;

   /// Label forwarding is the default VRF's alone.
   static void assertDefaultVrf( const L3::VrfName& vrfName );

   L3::VrfName vrfOfReport( VrfId vrfId ) const;
   MplsHwVrfConfig* writtenHwVrfConfig( const VrfMplsState& vrfState ) const;
   MplsHwVrfStatus* writtenHwVrfStatus( const VrfMplsState& vrfState ) const;
   void noteVrfNumber( VrfMplsState& vrfState );
   /// What stands under any other number than the VRF's goes: routes, then what they point at, then
   /// forwarding.
   void leaveFormerNumber( const L3::VrfName& vrf );
   /// Under whatever number it is on.
   void switchOffMplsRouting();
   VrfMplsState& vrfStateMake( const L3::VrfName& vrf );
   /// A VRF's state goes with everything that names the VRF.
   void vrfStateDrop( const L3::VrfName& vrf );
   /// A route into a FEC is known to hardware by the VRF's name and number.
   bool mayNameRoutes( const L3::VrfName& vrf ) const;
};

} // namespace Vel::Transit
