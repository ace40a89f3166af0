// StateMachine: the label state machine and the software switch on an LFIB that anything is written
// into. The switch ends the run when it is written to against the driver contract.

#include "fuzz/HostileRegion.h"
#include "tests/LabelRig.h"

namespace Vel::Fuzz {

namespace {

enum World : uint8_t { fecs = 1, scarce = 2, lateReady = 4, routingOff = 8 };

Test::RigSettings settingsOf( uint8_t world ) {
   Test::RigSettings settings{ .capacities = HostileRegion::capacities,
                               .withFecs = ( world & fecs ) != 0,
                               .lfibReady = ( world & lateReady ) == 0,
                               .mplsRouting = ( world & routingOff ) == 0 };
   if ( world & scarce ) {
      settings.hardware.routeCapacity = 3;
      settings.hardware.adjacencyCapacity = 2;
      settings.hardware.fecCapacity = 2;
   }
   return settings;
}

IntfId link( U32 number ) {
   return IntfId::ordinary( 1 + number );
}

void neighborChanges( Test::LabelRig& rig, Input& input ) {
   const U32 number = input.below( Input::links );
   const NextHopKey neighbor{ link( number ), Input::linkAddress( number ) };
   if ( const uint8_t mac = input.byte(); mac != 0 ) {
      rig.l3.Sim::L3Layer::neighborIs( neighbor, MacAddr( mac ) );
   } else {
      rig.l3.Sim::L3Layer::neighborDel( neighbor );
   }
}

/// A next-hop group or a tunnel of another agent comes, changes or goes.
void foreignChanges( Driver::FecUnit& unit, Input& input ) {
   const uint8_t form = input.byte();
   const U32 number = form % Input::links;
   const IntfId tunnel( IntfId::Kind::dynamicTunnel, form % 4 );
   const Fib::FecId fecId = Fib::FecId::fecIdForAdjType( Fib::AdjType::nexthopGroupAdj, form % 4 );
   const std::vector< Fib::FecVia > vias{
      { Input::linkAddress( number ), link( number ), MplsLabelAction::push, { 100 + number } } };
   switch ( form >> 6 ) {
   case 0:
      return unit.foreignFecIs( fecId, vias );
   case 1:
      return unit.foreignFecDel( fecId );
   case 2:
      return unit.tunnelIs( tunnel, vias );
   case 3:
      return unit.tunnelDel( tunnel );
   }
}

} // namespace

void fuzzStateMachine( ByteView bytes ) {
   Input input( bytes );
   Test::LabelRig rig( settingsOf( input.byte() ) );
   for ( U32 number = 0; number < Input::links; ++number ) {
      rig.l3.Sim::L3Layer::neighborIs( { link( number ), Input::linkAddress( number ) },
                                       MacAddr( 1 + number ) );
   }
   HostileRegion region( rig.memory );
   while ( !input.empty() ) {
      switch ( input.below( 16 ) ) {
      case 0:
         rig.settle( input.byte() / 16.0 );
         break;
      case 1:
         rig.lfib->poll( input.byte() );
         break;
      case 2:
         rig.scheduler->runOne();
         break;
      case 3:
         neighborChanges( rig, input );
         break;
      case 4: {
         const uint8_t form = input.byte();
         rig.hardware->linkIs( link( form % Input::links ), form < 0x80 );
         break;
      }
      case 5:
         if ( rig.hardware->fecUnit() != nullptr ) {
            foreignChanges( *rig.hardware->fecUnit(), input );
         }
         break;
      case 6:
         rig.routingInfo->mplsRoutingIs( rig.vrf, input.below( 2 ) == 0 );
         break;
      default:
         region.step( input );
         break;
      }
   }
   rig.settle( 30 );
   for ( U32 label = 0; label < Input::labels; ++label ) {
      // What no switch could carry out is not written to it.
      const Driver::ForwardResult left =
         rig.hardware->forward( rig.vrfId, Test::frameOf( Input::firstLabel + label ) );
      VEL_ASSERT_TEXT( left.drop != Driver::DropReason::badVia, "drop != badVia", left.text, "fuzz",
                       "" );
   }
}

} // namespace Vel::Fuzz
