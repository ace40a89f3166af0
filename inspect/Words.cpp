#include "inspect/Words.h"

namespace Vel::Inspect {

namespace {

/// What a via does with the label: "swap 17", "pop ipv4 uniform".
template< class Via >
void appendOperation( std::string& out, const Via& via ) {
   appendText( out, via.labelAction );
   for ( size_t i = 0; i < via.labelStack.stackSize(); ++i ) {
      out += joinText( i == 0 ? " " : "/", via.labelStack.label( i ) );
   }
   if ( via.payloadType != Mpls::PayloadType::undefined ) {
      out += joinText( " ", via.payloadType );
   }
   if ( via.ttlMode != Mpls::TtlMode::undefined ) {
      out += joinText( " ", via.ttlMode );
   }
}

} // namespace

std::string intfText( IntfId intf, const InterfaceName& name ) {
   return name ? name( intf ) : textOf( intf );
}

std::string viasText( const std::vector< Mpls::Hardware::L2Via >& vias,
                      const InterfaceName& name ) {
   std::string out;
   for ( const Mpls::Hardware::L2Via& via : vias ) {
      out += out.empty() ? "" : ", ";
      appendOperation( out, via );
      out += joinText( " to ", via.macAddr, " on ", intfText( via.intf, name ) );
      if ( via.vlanId != 0 ) {
         out += joinText( " vlan ", via.vlanId );
      }
   }
   return out.empty() ? "no vias" : out;
}

std::string fecIdText( Fib::FecId fecId ) {
   return joinText( fecId.value() >> Fib::adjTypePos(), ":", fecId.index() );
}

std::string fecViasText( const std::vector< Fib::FecVia >& vias, const InterfaceName& name ) {
   std::string out;
   for ( const Fib::FecVia& via : vias ) {
      out += out.empty() ? "" : ", ";
      if ( via.drop ) {
         out += "drop";
         continue;
      }
      const bool plain =
         via.labelAction == MplsLabelAction::none && via.labelStack.stackSize() == 0;
      if ( via.intf.kind() == IntfId::Kind::hierarchicalFec && plain ) {
         out += "into FEC " + fecIdText( Fib::FecIdIntfId::intfIdToFecId( via.intf ) );
         continue;
      }
      appendOperation( out, via );
      out += via.nextHop.empty() ? "" : joinText( " to ", via.nextHop );
      out += via.intf.empty() ? "" : " on " + intfText( via.intf, name );
   }
   return out.empty() ? "no vias" : out;
}

std::string nextHopText( const IpGenAddr& address, IntfId intf, const InterfaceName& name ) {
   return joinText( "next hop ", address,
                    intf.empty() ? std::string() : " on " + intfText( intf, name ) );
}

std::string counted( size_t count, std::string_view one, std::string_view many ) {
   return joinText( count, " ", count == 1 ? one : many );
}

} // namespace Vel::Inspect
