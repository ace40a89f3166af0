// Labels that end here, through the state machine to a helper that does nothing.
//
//    BM_decapTable/N/M    N labels that pop into M VRFs, a via set each VRF: from the first
//                         notification to the last mapping; nanoseconds and heap bytes a label
//                         (tracking and what the reader remembers included)
//    BM_vrfChange/N/M     one VRF's status changes: its N / M labels are programmed again

#include <benchmark/benchmark.h>

#include <memory>

#include "bench/Measure.h"
#include "decap/VelMplsDecapSm.h"

namespace Vel {
namespace {

constexpr U32 firstLabel = 16;

class IdleHelper : public VelHelper::MplsDecapHelper {
   VEL_ENTITY( IdleHelper )
   VEL_ENTITY_END_OVER( MplsDecapHelper )

 public:
   IdleHelper() : MplsDecapHelper( "idle" ) {}
   U64 calls = 0;

   ReturnCode createLabelToVrfMapping( MplsLabel, L3::VrfName, Mpls::PayloadType ) override {
      ++calls;
      return ReturnCode::success;
   }
   void deleteLabelToVrfMapping( MplsLabel, L3::VrfName, Mpls::PayloadType ) override { ++calls; }
};

std::string vrfOf( U32 number ) {
   return "vrf" + std::to_string( number );
}

struct Rig {
   Rig( U32 labels, U32 vrfs ) {
      const Mpls::LfibCapacities capacities{ .routes = labels + labels / 8 + 64,
                                             .viaSets = 2 * vrfs,
                                             .ipLookupVias = 2 * vrfs,
                                             .ringEntries = 1U << 16 };
      memory.resize( Mpls::LfibWriter::bytesNeeded( capacities ) / sizeof( U64 ) + 1 );
      Mpls::LfibWriter writer( std::as_writable_bytes( std::span( memory ) ), capacities );
      for ( U32 vrf = 0; vrf < vrfs; ++vrf ) {
         const Mpls::LfibIpLookupVia via{
            { Mpls::LfibSource::staticConfig, Mpls::viaTypeIpLookup, vrf },
            Mpls::LfibVrfName( vrfOf( vrf ) ),
            Mpls::PayloadType::autoDetect };
         writer.ipLookupViaIs( via );
         Mpls::LfibViaSet viaSet( viaSetKey( vrf ) );
         viaSet.viaKeyAdd( via.key );
         writer.viaSetIs( viaSet );
      }
      for ( U32 i = 0; i < labels; ++i ) {
         writer.routeIs( { Mpls::RouteKey( firstLabel + i ), viaSetKey( i % vrfs ), 0 } );
      }
   }
   static Mpls::LfibViaSetKey viaSetKey( U32 vrf ) {
      return { Mpls::LfibSource::staticConfig, Mpls::viaTypeIpLookup, vrf };
   }
   void start() {
      lfib = make< Mpls::LfibStatus >( "lfib", std::as_bytes( std::span( memory ) ) );
      tracking = make< Mpls::LfibTrackingStatus >( "tracking" );
      trackingSm = make< Mpls::LfibTrackingSm >( "trackingSm", lfib, tracking,
                                                 Mpls::LfibTrackingMode::routes );
      while ( lfib->pollPending() ) { // the machine starts when all has been announced
         lfib->poll( 1U << 16 );
      }
      sm = MplsDecapSmIs( helper, lfib, scheduler, tracking, hwStatus, routeStatus );
      sm->handleInitialized();
      runUntilIdle( *scheduler, *clock, clock->now() + 1.0, 1U << 30 );
   }

   std::vector< U64 > memory;
   Ptr< Mpls::LfibStatus > lfib;
   Ptr< Mpls::LfibTrackingStatus > tracking;
   Ptr< Mpls::LfibTrackingSm > trackingSm;
   Ptr< Mpls::LfibHwStatus > hwStatus = make< Mpls::LfibHwStatus >( "hwStatus" );
   Ptr< Routing::Hardware::RouteStatus > routeStatus =
      make< Routing::Hardware::RouteStatus >( "routeStatus" );
   Ptr< ManualClock > clock = make< ManualClock >();
   Ptr< Scheduler > scheduler = make< Scheduler >( clock );
   Ptr< IdleHelper > helper = make< IdleHelper >();
   Ptr< MplsDecapSm > sm;
};

void BM_decapTable( benchmark::State& state ) {
   const auto labels = static_cast< U32 >( state.range( 0 ) );
   double bytes = 0;
   for ( auto _ : state ) {
      Rig rig( labels, static_cast< U32 >( state.range( 1 ) ) );
      const size_t before = heapBytes();
      state.SetIterationTime( secondsOf( [&] { rig.start(); } ) );
      bytes = static_cast< double >( heapBytes() - before ) / labels;
      if ( rig.sm->routeViaTypes() != labels || rig.helper->calls != labels ) {
         state.SkipWithError( "not every label is programmed" );
         break;
      }
   }
   state.SetItemsProcessed( state.iterations() * labels );
   state.counters["bytes/label"] = bytes;
}
BENCHMARK( BM_decapTable )
   ->Args( { 1'000, 10 } )
   ->Args( { 100'000, 1'000 } )
   ->UseManualTime()
   ->Unit( benchmark::kMillisecond );

void BM_vrfChange( benchmark::State& state ) {
   const auto vrfs = static_cast< U32 >( state.range( 1 ) );
   Rig rig( static_cast< U32 >( state.range( 0 ) ), vrfs );
   rig.start();
   const U64 before = rig.helper->calls;
   VrfId number = 1;
   for ( auto _ : state ) {
      rig.routeStatus->vrfStatusIs( L3::VrfName( vrfOf( number % vrfs ) ), number );
      ++number;
   }
   state.counters["calls"] = static_cast< double >( rig.helper->calls - before ) /
                             static_cast< double >( state.iterations() );
}
BENCHMARK( BM_vrfChange )->Args( { 100'000, 1'000 } )->Unit( benchmark::kMicrosecond );

} // namespace
} // namespace Vel
