// A state machine that no LabelAgent has made, with all that is asked of it mounted: explanations
// and audits need the entities alone. Here the LFIB can hold what no label table says.

#pragma once

#include <string>
#include <vector>

#include "tests/LabelRig.h"

namespace VelTest {

class MountedRig : public Vel::Test::LabelRig {
 public:
   explicit MountedRig( const Vel::Test::RigSettings& settings ) : LabelRig( settings ) {
      entities->rootIs( "clock", clock );
      entities->rootIs( "mplsSm", sm );
      entities->rootIs( "transitLfib", lfib );
      entities->rootIs( "lfibHwStatus", lfibHwStatus );
      entities->rootIs( "routingHwMplsStatus", hwMplsStatus );
      entities->rootIs( "routingHwRouteStatus", routeStatus );
      entities->rootIs( "mplsHwConfig", hwConfig );
      entities->rootIs( "mplsHwStatus", hwStatus );
      entities->rootIs( "velL3Status", l3Status );
      entities->rootIs( "proactiveArpNexthopSm", l3.arp );
      entities->rootIs( "routeReactorConfig", l3.rr );
      entities->rootIs( "route6ReactorConfig", l3.rr6 );
      entities->rootIs( "softwareSwitch", hardware->status() );
      if ( settings.withFecs ) {
         entities->rootIs( "hwFecIdRequest", fecRequest );
         entities->rootIs( "hwFecIdResponse", fecResponse );
      }
   }
   ~MountedRig() { entities->rootIs( "mplsSm", nullptr ); }

   /// A via set with a backup.
   void protectedIs( Vel::U32 index, const std::vector< Mpls::LfibMplsVia >& vias,
                     Vel::U32 backup ) {
      Mpls::LfibViaSet viaSet( Vel::Test::viaSetKey( index ) );
      for ( const Mpls::LfibMplsVia& via : vias ) {
         writer.mplsViaIs( via );
         viaSet.viaKeyAdd( via.key );
      }
      viaSet.backupViaSetKeyIs( Vel::Test::viaSetKey( backup ) );
      writer.viaSetIs( viaSet );
   }
   /// A label that leaves by the FEC of another agent.
   void externalIs( Vel::U32 label, Fib::FecId fecId ) {
      const Mpls::LfibViaSetKey key = Vel::Test::viaSetKey( label, Mpls::viaTypeExternalFec );
      Mpls::LfibViaSet viaSet( key );
      viaSet.viaKeyAdd( Vel::Test::viaKey( label, Mpls::viaTypeExternalFec ) );
      writer.extFecViaIs( { viaSet.viaKey( 0 ), fecId } );
      writer.viaSetIs( viaSet );
      routeIs( Mpls::RouteKey( label ), key );
   }
   /// Swaps that leave by the interface, where 10.0.0.INTF answers.
   static std::vector< Mpls::LfibMplsVia > swapOut( Vel::U32 via, Vel::U32 intf ) {
      return { Vel::Test::swapVia( via, Vel::joinText( "10.0.0.", intf ), intf, 100 * intf ) };
   }
   void neighbors( Vel::U32 count ) {
      for ( Vel::U32 intf = 1; intf <= count; ++intf ) {
         l3.neighborIs( Vel::joinText( "10.0.0.", intf ), intf, 0x020000000000 + intf );
      }
   }
   void linkIs( Vel::U32 intf, bool up ) const {
      hardware->linkIs( Vel::IntfId::ordinary( intf ), up );
   }
};

} // namespace VelTest
