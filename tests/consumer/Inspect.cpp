// A user's agent that asks why a label does not forward: all entities are made and mounted by hand,
// and no driver answers.

#include <cstdio>
#include <vector>

#include "inspect/Audit.h"
#include "inspect/Explain.h"
#include "inspect/Impact.h"
#include "mpls/VelMplsSm.h"
#include "platform/lfib/LfibRegion.h"

using namespace Vel;

template< class T >
Ptr< T > mounted( EntityManager& roots, const char* name, Ptr< T > made ) {
   roots.rootIs( name, made );
   return made;
}

int main() {
   const Mpls::LfibCapacities capacities{};
   std::vector< std::byte > memory( Mpls::LfibWriter::bytesNeeded( capacities ) );
   Mpls::LfibWriter writer( memory, capacities );
   const auto roots = make< EntityManager >();
   const auto clock = mounted( *roots, "clock", make< ManualClock >( 1.0 ) );
   const auto scheduler = make< Scheduler >( Ptr< Clock >( clock ) );
   MplsSmInputs in{};
   in.clock = clock;
   in.scheduler = scheduler;
   in.entityManager = roots;
   const auto lfib =
      mounted( *roots, "transitLfib",
               make< Mpls::LfibStatus >( "transitLfib", std::span< const std::byte >( memory ) ) );
   in.transitLfib = lfib;
   in.lfibInfo = make< Mpls::LfibInfo >( "lfibInfo" );
   const auto routing =
      mounted( *roots, "mplsRoutingInfo", make< Mpls::RoutingInfo >( "routing" ) );
   routing->mplsRoutingIs( L3::VrfName::defaultVrf(), true );
   in.mplsRoutingInfo = routing;
   in.lfibHwStatus =
      mounted( *roots, "lfibHwStatus", make< Mpls::LfibHwStatus >( "lfibHwStatus" ) );
   const auto numbers = mounted( *roots, "routingHwRouteStatus",
                                 make< Routing::Hardware::RouteStatus >( "routeStatus" ) );
   numbers->vrfStatusIs( L3::VrfName::defaultVrf(), 1 );
   in.routingHwRouteStatus = numbers;
   in.routingHwMplsStatus =
      mounted( *roots, "routingHwMplsStatus", make< Mpls::Hardware::Status >( "hwMpls" ) );
   in.routeReactorConfig =
      mounted( *roots, "routeReactorConfig", make< RouteReactorConfig >( "watched" ) );
   in.route6ReactorConfig =
      mounted( *roots, "route6ReactorConfig", make< Route6ReactorConfig >( "watched6" ) );
   in.mplsHwConfig = mounted( *roots, "mplsHwConfig", mplsHwConfigFactory( "mplsHwConfig" ) );
   in.mplsHwStatus = mounted( *roots, "mplsHwStatus", mplsHwStatusFactory( "mplsHwStatus" ) );
   const auto l3 = mounted( *roots, "velL3Status", make< VelL3Status >( "velL3Status" ) );
   l3->vrfNameIs( 1, L3::VrfName::defaultVrf() );
   in.velL3Status = l3;
   in.proactiveArpNhSm =
      mounted( *roots, "proactiveArpNexthopSm", make< ProactiveArpNexthopSm >( "arp" ) );
   Ptr< MplsSm > sm = MplsSmIs( in );
   roots->rootIs( "mplsSm", sm );

   Mpls::LfibMplsVia via;
   via.key = { Mpls::LfibSource::ldp, Mpls::viaTypeMplsIp, 1 };
   via.nextHop = *IpGenAddr::parse( "10.0.0.1" );
   via.intf = IntfId::ordinary( 1 );
   via.labelAction = MplsLabelAction::swap;
   via.labelStack = { 17 };
   writer.mplsViaIs( via );
   Mpls::LfibViaSet viaSet( { Mpls::LfibSource::ldp, Mpls::viaTypeMplsIp, 1 } );
   viaSet.viaKeyAdd( via.key );
   writer.viaSetIs( viaSet );
   const Mpls::RouteKey label( 16 );
   writer.routeIs( { label, viaSet.key(), 0 } );
   while ( lfib->poll( 100 ) != 0 || lfib->pollPending() ) {
   }
   runUntilIdle( *scheduler, *clock, 2.0, 1000 );

   const Inspect::Explanation why( *roots, label, {} );
   const Inspect::ChainLink* const blocker = why.blocker();
   std::printf( "label 16 is %s, %s\n", std::string( name( why.state() ) ).c_str(),
                blocker ? blocker->text.c_str() : "nothing is wrong" );
   const Inspect::AuditReport audit = Inspect::Audit( *roots ).run();
   const Inspect::Impact impact( *roots, { .intf = via.intf } );
   std::printf( "%zu differences, %zu labels would lose ways\n", audit.differenceCount,
                impact.labels().size() );
   roots->rootIs( "mplsSm", nullptr );
   return why.state() == Inspect::LabelState::unprogrammed && blocker &&
                blocker->name == "nextHops" && audit.labels == 1 && impact.labels().empty()
             ? 0
             : 1;
}
