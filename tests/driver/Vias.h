// L2 vias for the tests of the driver.

#pragma once

#include <initializer_list>

#include "platform/seams/HwMplsStatus.h"

namespace VelTest {

using Mpls::Hardware::L2Via;
using Mpls::Hardware::L2ViaSet;
using Vel::IntfId;

/// A via out of interface 7 to 02:00:0a:00:01:02, untagged.
inline L2Via viaOf( Vel::MplsLabelAction action, Mpls::LabelStack labels = {} ) {
   L2Via via;
   via.intf = IntfId::ordinary( 7 );
   via.macAddr = Vel::MacAddr( 0x02'00'0A'00'01'02 );
   via.labelAction = action;
   via.labelStack = labels;
   return via;
}
inline L2Via swapTo( Mpls::LabelStack labels ) {
   return viaOf( Vel::MplsLabelAction::swap, labels );
}
inline L2ViaSet viaSet( std::initializer_list< L2Via > vias ) {
   L2ViaSet made;
   for ( const L2Via& via : vias ) {
      made.l2ViaIs( via );
   }
   return made;
}

} // namespace VelTest
