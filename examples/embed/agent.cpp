// agent FILE [ROOM]: programs the label routes that a publisher keeps in FILE into hardware of its
// own, which has room for ROOM routes and prints what it is told. SIGTERM or SIGINT ends it.

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <cstdlib>
#include <deque>
#include <functional>
#include <iostream>
#include <map>
#include <memory>

#include "mpls/VelMplsSm.h"

namespace {

using namespace Vel;
using Mpls::RouteKey;
using Adjacency = Ptr< Mpls::Hardware::L2Adjacency >;

template< class... Parts >
void say( const Parts&... parts ) {
   std::cout << joinText( parts... ) << std::endl;
}

/// The driver of one VRF. Handlers take down what is written; a task carries it out in that order.
class VrfDriver : MplsHwVrfConfig::Reactor, TimerTask::Reactor {
 public:
   VrfDriver( MplsHwVrfConfig* config, MplsHwVrfStatus* status, Scheduler& scheduler, size_t room )
      : config_( config ),
        status_( status ),
        room_( room ),
        task_( scheduler.taskIs( "driver", TaskPriority::normal ) ) {
      MplsHwVrfConfig::Reactor::notifierIs( config );
      TimerTask::Reactor::notifierIs( task_.get() );
   }

 private:
   void onMplsRouting() override {
      later( [this, on = config_->mplsRouting()] {
         say( "label forwarding ", on ? "on" : "off" );
         status_->mplsRoutingIs( on );
      } );
   }

   void onL2Adjacency( const Adjacency& adjacency ) override {
      if ( config_->l2AdjacencyHas( adjacency ) ) {
         // What it is now: before its turn it may have become something else.
         later( [this, adjacency, ways = adjacency->l2ViaSet(),
                 version = config_->l2Adjacency( adjacency )] {
            for ( const Mpls::Hardware::L2Via& way : ways.l2Via() ) {
               say( "adjacency ", adjacency->index(), " ", way.labelAction, " ", way.labelStack,
                    " to ", way.macAddr, " by ", way.intf );
            }
            status_->l2AdjacencyIs( adjacency, version );
         } );
      } else {
         later( [this, adjacency] {
            say( "adjacency ", adjacency->index(), " removed" );
            status_->l2AdjacencyDel( adjacency );
         } );
      }
   }

   void onRoute( RouteKey key ) override {
      if ( config_->routeHas( key ) ) {
         later( [this, route = config_->route( key )] { program( route ); } );
      } else {
         later( [this, key] {
            say( "label ", key, " removed" );
            status_->routeDel( key );
            status_->unprogrammedRouteDel( key );
         } );
      }
   }

   void program( const MplsHwRoute& route ) {
      const RouteKey key = route.routeKey;
      if ( status_->routeHas( key ) || status_->routes() < room_ ) {
         say( "label ", key, " to adjacency ", route.l2Adjacency->index() );
         status_->unprogrammedRouteDel( key );
         status_->routeIs( route );
      } else if ( config_->routeHas( key ) ) { // else it is not wanted any more
         say( "label ", key, " refused" );
         status_->unprogrammedReasonIs( UnprogrammedReason::RouteFull );
         status_->unprogrammedRouteIs( key );
      }
   }

   void later( std::function< void() > operation ) {
      operations_.push_back( std::move( operation ) );
      task_->runNow();
   }

   void onTaskRun() override {
      for ( ; !operations_.empty() && !task_->shouldYield(); operations_.pop_front() ) {
         operations_.front()();
      }
      if ( !operations_.empty() ) {
         task_->runNow();
      }
   }

   MplsHwVrfConfig* const config_;
   MplsHwVrfStatus* const status_;
   const size_t room_; // for routes
   const Ptr< TimerTask > task_;
   std::deque< std::function< void() > > operations_;
};

/// Has a driver for each VRF. It is there before the library writes anything.
class Hardware : MplsHwConfig::Reactor {
 public:
   Hardware( Ptr< MplsHwConfig > config, Ptr< MplsHwStatus > status, Ptr< Scheduler > scheduler,
             size_t room )
      : status_( status ), scheduler_( scheduler ), room_( room ) {
      notifierIs( config.get() );
   }

 private:
   void onVrfConfig( VrfId id ) override {
      vrf_[id] = std::make_unique< VrfDriver >( notifier()->vrfConfig( id ),
                                                status_->vrfStatusIs( id ), *scheduler_, room_ );
   }

   const Ptr< MplsHwStatus > status_;
   const Ptr< Scheduler > scheduler_;
   const size_t room_;
   std::map< VrfId, std::unique_ptr< VrfDriver > > vrf_;
};

/// Stands in for ARP: every neighbour that the library asks for is there.
class Neighbors : ProactiveArpNexthopSm::Reactor {
 public:
   Neighbors( Ptr< ProactiveArpNexthopSm > asked, Ptr< VelL3Status > answers )
      : answers_( answers ) {
      notifierIs( asked.get() );
   }

 private:
   void onEntry( ProactiveArpEntry entry ) override {
      const NextHopKey neighbor{ entry.intf, entry.addr };
      if ( notifier()->entryHas( entry ) ) {
         const MacAddr mac( 0x0200'0000'0000 + entry.addr.v4() );
         answers_->nextHopInfoIs( neighbor, { 0, entry.intf, mac, true } );
      } else {
         answers_->nextHopInfoDel( neighbor );
      }
   }

   const Ptr< VelL3Status > answers_;
};

/// The table as its publisher has made it: read only, and there as soon as the file has its size.
std::span< const std::byte > mapped( const char* path ) {
   for ( ;; usleep( 10'000 ) ) {
      struct stat is {};
      const int file = open( path, O_RDONLY | O_CLOEXEC );
      if ( file >= 0 && fstat( file, &is ) == 0 && is.st_size != 0 ) {
         const auto bytes = static_cast< size_t >( is.st_size );
         void* const memory = mmap( nullptr, bytes, PROT_READ, MAP_SHARED, file, 0 );
         close( file );
         return { static_cast< const std::byte* >( memory ), memory == MAP_FAILED ? 0 : bytes };
      }
      close( file );
   }
}

volatile std::sig_atomic_t ended = 0;

} // namespace

int main( int argc, char** argv ) {
   if ( argc < 2 ) {
      std::cerr << "usage: agent FILE [ROOM]\n";
      return 2;
   }
   const auto region = mapped( argv[1] );
   const size_t room = argc > 2 ? std::strtoul( argv[2], nullptr, 10 ) : 1000;

   // What the library works on.
   const VrfId vrfId = 1;
   const L3::VrfName vrf = L3::VrfName::defaultVrf();
   const auto lfib = make< Mpls::LfibStatus >( "transitLfib", region );
   const auto routing = make< Mpls::RoutingInfo >( "mplsRoutingInfo" );
   const auto vrfNumbers = make< Routing::Hardware::RouteStatus >( "routingHwRouteStatus" );
   const auto l3Status = make< VelL3Status >( "velL3Status" );
   MplsSmInputs in;
   in.clock = make< SteadyClock >();
   in.scheduler = make< Scheduler >( in.clock );
   in.entityManager = make< EntityManager >();
   in.transitLfib = lfib;
   in.mplsRoutingInfo = routing;
   in.routingHwRouteStatus = vrfNumbers;
   in.velL3Status = l3Status;
   in.lfibInfo = make< Mpls::LfibInfo >( "lfibInfo" );
   in.lfibHwStatus = make< Mpls::LfibHwStatus >( "lfibHwStatus" );
   in.routingHwMplsStatus = make< Mpls::Hardware::Status >( "routingHwMplsStatus" );
   in.routeReactorConfig = make< RouteReactorConfig >( "routeReactorConfig" );
   in.route6ReactorConfig = make< Route6ReactorConfig >( "route6ReactorConfig" );
   in.proactiveArpNhSm = make< ProactiveArpNexthopSm >( "proactiveArpNexthopSm" );
   in.mplsHwConfig = mplsHwConfigFactory( "mplsHwConfig" );
   in.mplsHwStatus = mplsHwStatusFactory( "mplsHwStatus" );

   // The writes that start it.
   routing->mplsRoutingIs( vrf, true );
   vrfNumbers->vrfStatusIs( vrf, vrfId );
   l3Status->vrfNameIs( vrfId, vrf );

   // Those that answer, and the state machine.
   const Neighbors neighbors( in.proactiveArpNhSm, l3Status );
   const Hardware hardware( in.mplsHwConfig, in.mplsHwStatus, in.scheduler, room );
   const Ptr< MplsSm > sm = MplsSmIs( in );

   std::signal( SIGTERM, []( int ) { ended = 1; } );
   std::signal( SIGINT, []( int ) { ended = 1; } );
   while ( !ended ) {
      lfib->poll( 1000 );
      in.scheduler->runDue( 1000 );
      const bool more = lfib->attached() && lfib->pollPending();
      const double idle = more ? 0 : in.scheduler->nextExpiry() - in.clock->now();
      usleep( static_cast< useconds_t >( std::clamp( idle, 0.0, 0.010 ) * 1e6 ) );
   }
   for ( const auto& [key, info] : in.lfibHwStatus->unprogrammedRoute() ) {
      say( "label ", key, " is ", info.statusCode );
   }
}
