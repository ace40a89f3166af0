// A label state machine with everything around it, for tests: the LFIB on the heap, an L3 layer
// that answers from a table, the software switch, and a clock that moves when told.

#pragma once

#include <memory>
#include <vector>

#include "driver/SwitchHelper.h"
#include "mpls/VelMplsInputStatusSm.h"
#include "mpls/VelMplsSm.h"
#include "platform/lfib/LfibRegion.h"
#include "sim/L3Layer.h"

namespace Vel::Test {

inline IpGenAddr ip( std::string_view text ) {
   return *IpGenAddr::parse( text );
}
inline Mpls::RouteKey key( U32 label ) {
   return Mpls::RouteKey( label );
}
inline Mpls::LfibViaSetKey viaSetKey( U32 index, Mpls::LfibViaType type = Mpls::viaTypeMplsIp ) {
   return { Mpls::LfibSource::ldp, type, index };
}
inline Mpls::LfibViaKey viaKey( U32 index, Mpls::LfibViaType type = Mpls::viaTypeMplsIp ) {
   return { Mpls::LfibSource::ldp, type, index };
}
inline Mpls::LfibMplsVia swapVia( U32 index, std::string_view nextHop, U32 intf, U32 outLabel ) {
   Mpls::LfibMplsVia via;
   via.key = viaKey( index );
   via.nextHop = nextHop.empty() ? IpGenAddr() : ip( nextHop );
   via.intf = intf == 0 ? IntfId() : IntfId::ordinary( intf );
   via.labelAction = MplsLabelAction::swap;
   via.labelStack = { outLabel };
   return via;
}

/// The simulation's L3 layer, with neighbours in the words of the tests.
class L3Layer : public Sim::L3Layer {
 public:
   using Sim::L3Layer::L3Layer;

   void neighborIs( std::string_view address, U32 intf, U64 mac ) {
      Sim::L3Layer::neighborIs( { IntfId::ordinary( intf ), ip( address ) }, MacAddr( mac ) );
   }
   void neighborDel( std::string_view address, U32 intf ) {
      Sim::L3Layer::neighborDel( { IntfId::ordinary( intf ), ip( address ) } );
   }
};

/// An Ethernet frame with that one label, TTL 64, above an IPv4 packet without payload.
inline Driver::Bytes frameOf( U32 label, U32 flow = 1 ) {
   Driver::Bytes frame( 12, 2 );
   const U32 entry = label << 12 | 1U << 8 | 64U;
   for ( const U32 byte :
         { 0x88U, 0x47U, entry >> 24, entry >> 16 & 0xFFU, entry >> 8 & 0xFFU, entry & 0xFFU } ) {
      frame.push_back( static_cast< uint8_t >( byte ) );
   }
   frame.insert( frame.end(), { 0x45, 0,  0, 20, 0,   0, 0, 0,
                                64,   17, 0, 0,  192, 0, 2, static_cast< uint8_t >( flow ),
                                192,  0,  2, 2 } );
   return frame;
}

struct RigSettings {
   Mpls::LfibCapacities capacities{};
   Driver::SwitchSettings hardware{};
   bool withHardware = true; ///< else the test plays the driver
   bool withFecs = false;    ///< the hardware has FECs
   bool lfibReady = true;    ///< with FECs: the LFIB has its initial contents from the beginning
   Driver::HwState recovered{};
   bool vrfHasNumber = true;
   bool mplsRouting = true;
   bool start = true; ///< make the state machine at once
};

class LabelRig {
 public:
   explicit LabelRig( RigSettings settings = {} )
      : memory( Mpls::LfibWriter::bytesNeeded( settings.capacities ) ),
        writer( memory, settings.capacities ) {
      l3Status->adjHwStatusIs( make< AdjHwStatus >() );
      if ( settings.vrfHasNumber ) {
         vrfNumberIs();
      }
      routingInfo->mplsRoutingIs( vrf, settings.mplsRouting );
      if ( settings.withHardware ) {
         Driver::FecPlatform fecs;
         if ( settings.withFecs ) {
            fecs = { fecRequest,
                     fecResponse,
                     l3Status,
                     startup,
                     [this]( IntfId intf, const IpGenAddr& nextHop ) {
                        return l3.info( { intf, nextHop }, true );
                     },
                     syncMap };
         }
         hardware = std::make_unique< Driver::SoftwareSwitch >(
            hwConfig, hwStatus, scheduler, settings.hardware, fecs, settings.recovered );
      }
      if ( settings.withFecs ) {
         helper = make< Driver::SwitchHelper >( *hardware );
         inputStatusSm = mplsSmInputStatusSmFactory( syncMap, inputSummary );
         if ( settings.lfibReady ) {
            inputStatusSm->systemLfibReadyIs( true );
            writer.readyIs( true );
         }
      }
      if ( settings.start ) {
         start();
      }
   }
   ~LabelRig() { sm = nullptr; }

   MplsSmInputs inputs() {
      MplsSmInputs in{ lfibInfo,    routingInfo,  lfib,     lfibHwStatus, routeStatus, hwMplsStatus,
                       l3.resolver, l3.resolver6, hwConfig, hwStatus,     l3Status,    l3.arp,
                       entities,    nullptr,      nullptr,  nullptr,      nullptr,     nullptr,
                       nullptr,     attrLog,      nullptr,  clock,        scheduler };
      if ( helper ) {
         in.hwFecIdRequest = fecRequest;
         in.hwFecIdResponse = fecResponse;
         in.mplsSmHelper = helper;
         in.mplsRouteSyncMap = syncMap;
         in.inputStatusSummary = inputSummary;
         in.velL3StartupStagePrereqs = startup;
      }
      return in;
   }
   void start() { sm = MplsSmIs( inputs() ); }
   void vrfNumberIs() {
      routeStatus->vrfStatusIs( vrf, vrfId );
      l3Status->vrfNameIs( vrfId, vrf );
   }

   // --- The LFIB

   void viaSetIs( U32 index, const std::vector< Mpls::LfibMplsVia >& vias ) {
      Mpls::LfibViaSet viaSet( viaSetKey( index ) );
      for ( const Mpls::LfibMplsVia& via : vias ) {
         writer.mplsViaIs( via );
         viaSet.viaKeyAdd( via.key );
      }
      writer.viaSetIs( viaSet );
   }
   void routeIs( U32 label, U32 viaSet ) { routeIs( key( label ), viaSetKey( viaSet ) ); }
   void routeIs( Mpls::RouteKey routeKey, Mpls::LfibViaSetKey viaSet ) {
      writer.routeIs( { routeKey, viaSet, 0 } );
   }
   void routeDel( U32 label ) { writer.routeDel( key( label ) ); }

   // --- Time

   /// Announces what the LFIB holds, and runs nothing.
   void poll() {
      do {
         lfib->poll( 1U << 20 );
      } while ( lfib->attached() && lfib->pollPending() );
   }
   /// Announces, and runs everything that is due up to `seconds` from now, but no retry that lies
   /// further off.
   void settle( double seconds = 1.0 ) {
      const double until = clock->now() + seconds;
      poll();
      runUntilIdle( *scheduler, *clock, until, 1U << 20 );
   }

   // --- What came of it

   VrfMplsState* state() { return sm->mplsState( vrf ); }
   MplsRoute* route( U32 label ) { return state() ? state()->route( key( label ) ) : nullptr; }
   L3Adjacency* l3Adj( U32 viaSet ) {
      return state() && state()->lFibViaSetToL3AdjHas( viaSetKey( viaSet ) )
                ? state()->l3Adjacency( state()->lFibViaSetToL3Adj( viaSetKey( viaSet ) ) )
                : nullptr;
   }
   MplsHwVrfConfig* config() { return hwConfig->vrfConfig( vrfId ); }
   MplsHwVrfStatus* status() { return hwStatus->vrfStatusIs( vrfId ); }
   /// The published code, or nothing.
   std::optional< Mpls::RouteStatusCode > published( U32 label ) {
      if ( !lfibHwStatus->unprogrammedRouteHas( key( label ) ) ) {
         return std::nullopt;
      }
      return lfibHwStatus->unprogrammedRoute( key( label ) ).statusCode;
   }

   /// "interface/label" where a frame with the label leaves, label 0 without one; or nothing.
   std::string leavesBy( U32 label ) {
      const Driver::ForwardResult result = hardware->forward( vrfId, frameOf( label ) );
      if ( result.frames.empty() ) {
         return "";
      }
      const Driver::Bytes& out = result.frames[0].bytes;
      const U32 outLabel =
         out[12] == 0x08 ? 0 : static_cast< U32 >( out[14] << 12 | out[15] << 4 | out[16] >> 4 );
      return joinText( result.frames[0].intf.payload(), "/", outLabel );
   }

   const L3::VrfName vrf = L3::VrfName::defaultVrf();
   static constexpr VrfId vrfId = 7;

   std::vector< std::byte > memory;
   Mpls::LfibWriter writer;
   Ptr< ManualClock > clock = make< ManualClock >( 100.0 );
   Ptr< Scheduler > scheduler = make< Scheduler >( Ptr< Clock >( clock ) );
   Ptr< Mpls::LfibStatus > lfib =
      make< Mpls::LfibStatus >( "transitLfib", std::span< const std::byte >( memory ) );
   Ptr< Mpls::LfibInfo > lfibInfo = make< Mpls::LfibInfo >( "lfibInfo" );
   Ptr< Mpls::RoutingInfo > routingInfo = make< Mpls::RoutingInfo >( "routingInfo" );
   Ptr< Mpls::LfibHwStatus > lfibHwStatus = make< Mpls::LfibHwStatus >( "lfibHwStatus" );
   Ptr< Routing::Hardware::RouteStatus > routeStatus =
      make< Routing::Hardware::RouteStatus >( "routeStatus" );
   Ptr< Mpls::Hardware::Status > hwMplsStatus = make< Mpls::Hardware::Status >( "hwMplsStatus" );
   Ptr< MplsHwConfig > hwConfig = mplsHwConfigFactory( "mplsHwConfig" );
   Ptr< MplsHwStatus > hwStatus = mplsHwStatusFactory( "mplsHwStatus" );
   Ptr< VelL3Status > l3Status = make< VelL3Status >( "velL3Status" );
   Ptr< EntityManager > entities = make< EntityManager >();
   Ptr< AttrLogSm > attrLog = make< AttrLogSm >();
   Ptr< FecIdToHwFecIdRequest > fecRequest = make< FecIdToHwFecIdRequest >( "fecRequest" );
   Ptr< FecIdToHwFecIdResponse > fecResponse = make< FecIdToHwFecIdResponse >( "fecResponse" );
   Ptr< L3StartupStagePrerequisitesStatus > startup = make< L3StartupStagePrerequisitesStatus >();
   Ptr< VelHelper::MplsRouteSyncMap > syncMap = VelHelper::mplsRouteSyncMapFactory();
   Ptr< MplsSmInputSummary > inputSummary = mplsSmInputSummaryFactory();
   Ptr< MplsSmInputStatusSm > inputStatusSm;
   Ptr< Driver::SwitchHelper > helper;
   L3Layer l3{ *l3Status };
   std::unique_ptr< Driver::SoftwareSwitch > hardware;
   Ptr< MplsSm > sm;
};

/// Routes 16 to 16+n-1, each over a via set of its own.
inline void addRoutes( LabelRig& rig, U32 n ) {
   rig.l3.neighborIs( "10.0.0.1", 1, 0x020000000001 );
   for ( U32 i = 0; i < n; ++i ) {
      rig.viaSetIs( 1 + i, { swapVia( 1 + i, "10.0.0.1", 1, 100 + i ) } );
      rig.routeIs( 16 + i, 1 + i );
   }
}

} // namespace Vel::Test
