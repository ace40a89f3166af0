#include "platform/seams/FecTables.h"

namespace Fib {

void appendText( std::string& out, const FecVia& via ) {
   if ( via.drop ) {
      out += "drop";
      return;
   }
   out += Vel::joinText( via.labelAction, " ", via.labelStack, " via ", via.nextHop, " intf ",
                         via.intf );
}

void appendText( std::string& out, const Fec& fec ) {
   out += '{';
   std::string_view separator;
   for ( const FecVia& via : fec.via ) {
      out += separator;
      appendText( out, via );
      separator = "; ";
   }
   out += Vel::joinText( "} backup ", fec.backupFecId );
   if ( !fec.decapConnector.empty() ) {
      out += Vel::joinText( " connector ", fec.decapConnector );
   }
}

} // namespace Fib

namespace Vel {

VEL_ENTITY_SOURCE( FecIdToHwFecIdRequest )
VEL_ENTITY_SOURCE( FecIdToHwFecIdResponse )

} // namespace Vel
