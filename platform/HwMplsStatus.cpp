#include "platform/HwMplsStatus.h"

namespace Mpls {

namespace Hardware {

ENTITY_SOURCE( AdjacencyBase )
ENTITY_SOURCE( Status )

U64 L2Via::hash() const {
   U64 mixed = Vel::mixBits( intf.value() + vlanId );
   mixed = Vel::mixBits( mixed + macAddr.value() );
   mixed = Vel::mixBits( mixed + ( static_cast< U64 >( labelAction ) << 16 |
                                   static_cast< U64 >( payloadType ) << 8 |
                                   static_cast< U64 >( ttlMode ) ) );
   return Vel::mixBits( mixed + labelStack.hash() );
}

bool L2ViaSet::l2ViaIs( const L2Via& via ) {
   const auto at = std::lower_bound( vias_.begin(), vias_.end(), via );
   if ( at != vias_.end() && *at == via ) {
      return false;
   }
   vias_.insert( at, via );
   return true;
}

U64 L2ViaSet::hash() const {
   U64 mixed = vias_.size();
   for ( const L2Via& via : vias_ ) {
      mixed = Vel::mixBits( mixed + via.hash() );
   }
   return mixed;
}

void appendText( std::string& out, const L2Via& via ) {
   out += Vel::joinText( via.labelAction, " ", via.labelStack, " vlan ", via.vlanId, " intf ",
                         via.intf, " mac ", via.macAddr );
}

void appendText( std::string& out, const L2ViaSet& viaSet ) {
   out += '{';
   std::string_view separator;
   for ( const L2Via& via : viaSet.l2Via() ) {
      out += separator;
      appendText( out, via );
      separator = "; ";
   }
   out += '}';
}

void appendText( std::string& out, const AdjacencyVia& via ) {
   out += Vel::joinText( via.labelAction, " ", via.labelStack, " via ", via.nextHop, " intf ",
                         via.intf, via.resolved() ? " resolved" : " not resolved" );
}

void appendText( std::string& out, const AdjacencyBackupStatus& status ) {
   out += Vel::joinText( "backup ", status.backupIndex );
}

void appendText( std::string& out, const Route& route ) {
   out += Vel::joinText( "adjacency ", route.adjacency ? route.adjacency->index() : 0, " fec ",
                         route.fecId );
}

} // namespace Hardware

ENTITY_SOURCE( LfibHwStatus )

void appendText( std::string& out, const RouteInfo& info ) {
   Vel::appendText( out, info.statusCode );
}

void appendText( std::string& out, const LfibHwViaSet& viaSet ) {
   out += Vel::joinText( "adjacency ", viaSet.adjacency, " unprogrammed ", viaSet.unprogrammed,
                         " backupActive ", viaSet.backupActive );
}

} // namespace Mpls
