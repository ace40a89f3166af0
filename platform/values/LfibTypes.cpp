#include "platform/values/LfibTypes.h"

namespace Mpls {

void appendText( std::string& out, const LfibViaSetKey& key ) {
   out += key.empty() ? "none"
                      : Vel::joinText( key.source(), "/", key.viaType(), "/", key.viaSetType(), "/",
                                       key.index() );
}

void appendText( std::string& out, const LfibViaKey& key ) {
   out +=
      key.empty() ? "none" : Vel::joinText( key.source(), "/", key.viaType(), "/", key.index() );
}

// "swap 16040 via 10.0.1.2 intf3", "pop ipv4 uniform via 10.0.1.2"
void appendText( std::string& out, const LfibMplsVia& via ) {
   Vel::appendText( out, via.labelAction );
   if ( via.labelStack.stackSize() != 0 ) {
      out += ' ';
      appendText( out, via.labelStack );
   }
   if ( via.payloadType != PayloadType::undefined ) {
      out += ' ';
      Vel::appendText( out, via.payloadType );
   }
   if ( via.ttlMode != TtlMode::undefined ) {
      out += ' ';
      Vel::appendText( out, via.ttlMode );
   }
   out += " via";
   if ( !via.nextHop.empty() ) {
      out += ' ';
      appendText( out, via.nextHop );
   }
   if ( !via.intf.empty() || via.nextHop.empty() ) {
      out += ' ';
      appendText( out, via.intf );
   }
}

// "via fec:3:42": the adjacency type and the index, as in the text of the FEC's interface.
void appendText( std::string& out, const LfibExtFecVia& via ) {
   out += "via ";
   if ( via.fecId == Fib::FecId() ) {
      out += "none";
   } else {
      out +=
         Vel::joinText( "fec:", via.fecId.value() >> Fib::adjTypePos(), ":", via.fecId.index() );
   }
}

// "pop ipv4 vrf red"
void appendText( std::string& out, const LfibIpLookupVia& via ) {
   out += "pop ";
   if ( via.payloadType != PayloadType::undefined ) {
      out += Vel::joinText( via.payloadType, " " );
   }
   out += Vel::joinText( "vrf ", via.vrfName.vrfName() );
}

void appendText( std::string& out, const LfibVlanVia& via ) {
   out += Vel::joinText( "pop vlan ", via.vlanId );
}

void appendText( std::string& out, const LfibEvpnVlanAwareVia& via ) {
   out += Vel::joinText( "pop dot1qTagToVlan ", via.dot1qTagToVlanKey );
}

} // namespace Mpls
