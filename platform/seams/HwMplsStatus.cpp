#include "platform/seams/HwMplsStatus.h"

namespace Mpls {

namespace Hardware {

VEL_ENTITY_SOURCE( AdjacencyBase )
VEL_ENTITY_SOURCE( Status )

U64 L2Via::hash() const {
   U64 mixed = Vel::mixBits( intf.value() + vlanId );
   mixed = Vel::mixBits( mixed + macAddr.value() );
   mixed = Vel::mixBits( mixed + ( static_cast< U64 >( labelAction ) << 16 |
                                   static_cast< U64 >( payloadType ) << 8 |
                                   static_cast< U64 >( ttlMode ) ) );
   return Vel::mixBits( mixed + labelStack.hash() );
}

const std::vector< L2Via > L2ViaSet::none_;

L2ViaSet::L2ViaSet( std::vector< L2Via > vias ) {
   if ( !vias.empty() ) {
      std::ranges::sort( vias );
      vias.erase( std::unique( vias.begin(), vias.end() ), vias.end() );
      shared_ = Vel::make< Shared >( std::move( vias ) );
   }
}

bool L2ViaSet::l2ViaIs( const L2Via& via ) {
   if ( std::ranges::binary_search( l2Via(), via ) ) {
      return false;
   }
   if ( !shared_ || shared_->references() != 1 ) {
      shared_ = Vel::make< Shared >( l2Via() );
   }
   std::vector< L2Via >& vias = shared_->vias;
   vias.insert( std::ranges::lower_bound( vias, via ), via );
   shared_->hash_ = 0;
   return true;
}

U64 L2ViaSet::Shared::hash() const {
   if ( hash_ == 0 ) {
      hash_ = vias.size();
      for ( const L2Via& via : vias ) {
         hash_ = Vel::mixBits( hash_ + via.hash() );
      }
   }
   return hash_;
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

VEL_ENTITY_SOURCE( LfibHwStatus )

void appendText( std::string& out, const RouteInfo& info ) {
   Vel::appendText( out, info.statusCode );
   if ( info.reason != LfibHwProgrammingReturnCode::success ) {
      out += Vel::joinText( " reason ", info.reason );
   }
}

void appendText( std::string& out, const LfibHwViaSet& viaSet ) {
   out += Vel::joinText( "adjacency ", viaSet.adjacency, " unprogrammed ", viaSet.unprogrammed,
                         " backupActive ", viaSet.backupActive );
}

} // namespace Mpls
