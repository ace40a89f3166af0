#include "agent/world/LabelAgent.h"

#include <utility>

#include "driver/SwitchHelper.h"

namespace Vel::Agent {

namespace {

// Items that a task handles in one run, and changes of the LFIB that are announced at once: small
// enough that progress can be shown, large enough to cost nothing.
constexpr size_t sliceItems = 8192;
// A retry that is due within this time is work, since entries have become free; a regular retry is
// due after 10 s.
constexpr double soonSeconds = 1.0;
constexpr double atRest = -1; // no time to wait for

/// Makes a root and mounts it under its name.
template< class T >
Ptr< T > mounted( EntityManager& entityManager, const std::string& name ) {
   auto made = make< T >( name );
   entityManager.rootIs( name, made );
   return made;
}

} // namespace

LabelAgent::LabelAgent( LfibPlan plan, LabelAgentSettings settings )
   : settings_( std::move( settings ) ),
     plan_( std::move( plan ) ),
     publisher_( plan_ ),
     clock_( make< ManualClock >() ),
     scheduler_( make< Scheduler >( clock_ ) ),
     entityManager_( make< EntityManager >() ),
     lfib_( make< Mpls::LfibStatus >( "transitLfib", publisher_.region() ) ) {
   scheduler_->maxQueriesPerRunIs( sliceItems );
   entityManager_->rootIs( "clock", clock_ );
   entityManager_->rootIs( "scheduler", scheduler_ );
   entityManager_->rootIs( "transitLfib", lfib_ );
   MplsSmInputs inputs = makeEntities();
   l3_ = std::make_unique< L3Service >(
      plan_.interfaces(), entityManager_->root< VelL3Status >( "velL3Status" ),
      inputs.proactiveArpNhSm, inputs.routeReactorConfig, inputs.route6ReactorConfig );
   switch_ = std::make_unique< Driver::SoftwareSwitch >(
      inputs.mplsHwConfig, inputs.mplsHwStatus, scheduler_, settings_.hardware,
      fecPlatform( inputs ), settings_.recovered );
   entityManager_->rootIs( "mplsHwInsight", switch_->status() );
   l3_->linkUpIs( [this]( IntfId intf ) { return switch_->linkUp( intf ); } );
   switch_->onLinksIs( [this] { l3_->linksChanged(); } );
   foreignFecs_ = std::make_unique< ForeignFecs >( *switch_ );
   if ( Driver::FecUnit* const fecs = switch_->fecUnit() ) {
      inputs.mplsSmHelper = make< Driver::SwitchHelper >( *switch_ );
      l3_->onChangeIs( [fecs] { fecs->reportStates(); } );
   }
   mplsSm_ = MplsSmIs( std::move( inputs ) );
   mplsSm_->maxStaleShareIs( settings_.maxStaleShare );
   entityManager_->rootIs( "mplsSm", mplsSm_ );
   entityManager_->rootIs( "mplsSmCounters", mplsSm_->counters() );
   startFault_ = settle(); // label forwarding is on in hardware before the first table comes
}

// Writers are destroyed before their readers. The state machine holds the entity manager, and so
// has to be taken off it.
LabelAgent::~LabelAgent() {
   entityManager_->rootIs( "mplsSm", nullptr );
   mplsSm_ = nullptr;
   foreignFecs_.reset();
   l3_->onChangeIs( {} );
   l3_->linkUpIs( {} );
   switch_.reset();
   l3_.reset();
}

MplsSmInputs LabelAgent::makeEntities() {
   EntityManager& roots = *entityManager_;
   const L3::VrfName& vrf = L3::VrfName::defaultVrf();
   MplsSmInputs inputs;
   inputs.lfibInfo = mounted< Mpls::LfibInfo >( roots, "lfibInfo" );
   const auto routing = mounted< Mpls::RoutingInfo >( roots, "mplsRoutingInfo" );
   routing->mplsRoutingIs( vrf, true );
   inputs.mplsRoutingInfo = routing;
   inputs.transitLfib = lfib_;
   inputs.lfibHwStatus = mounted< Mpls::LfibHwStatus >( roots, "lfibHwStatus" );
   const auto vrfs = mounted< Routing::Hardware::RouteStatus >( roots, "routingHwRouteStatus" );
   vrfs->vrfStatusIs( vrf, vrfId );
   inputs.routingHwRouteStatus = vrfs;
   inputs.routingHwMplsStatus = mounted< Mpls::Hardware::Status >( roots, "routingHwMplsStatus" );
   inputs.routeReactorConfig = mounted< RouteReactorConfig >( roots, "routeReactorConfig" );
   inputs.route6ReactorConfig = mounted< Route6ReactorConfig >( roots, "route6ReactorConfig" );
   inputs.mplsHwConfig = mounted< MplsHwConfig >( roots, "mplsHwConfig" );
   inputs.mplsHwStatus = mounted< MplsHwStatus >( roots, "mplsHwStatus" );
   const auto l3Status = mounted< VelL3Status >( roots, "velL3Status" );
   l3Status->vrfNameIs( vrfId, vrf );
   inputs.velL3Status = l3Status;
   inputs.proactiveArpNhSm = mounted< ProactiveArpNexthopSm >( roots, "proactiveArpNexthopSm" );
   inputs.entityManager = entityManager_;
   inputs.clock = clock_;
   inputs.scheduler = scheduler_;
   if ( settings_.withFecs ) {
      l3Status->adjHwStatusIs( make< AdjHwStatus >() );
      addFecEntities( inputs );
   }
   return inputs;
}

// The switch reports which routes have survived. The state machine may begin at once: its start
// ends only when the first table is complete.
void LabelAgent::addFecEntities( MplsSmInputs& inputs ) {
   EntityManager& roots = *entityManager_;
   inputs.hwFecIdRequest = mounted< FecIdToHwFecIdRequest >( roots, "hwFecIdRequest" );
   inputs.hwFecIdResponse = mounted< FecIdToHwFecIdResponse >( roots, "hwFecIdResponse" );
   const auto syncMap = VelHelper::mplsRouteSyncMapFactory();
   roots.rootIs( "mplsRouteSyncMap", syncMap );
   inputs.mplsRouteSyncMap = syncMap;
   const auto summary = mplsSmInputSummaryFactory();
   roots.rootIs( "mplsSmInputSummary", summary );
   inputs.inputStatusSummary = summary;
   inputStatus_ = mplsSmInputStatusSmFactory( syncMap, summary );
   inputStatus_->systemLfibReadyIs( true );
   startup_ = make< L3StartupStagePrerequisitesStatus >();
   roots.rootIs( "velL3StartupStagePrereqs", startup_ );
   inputs.velL3StartupStagePrereqs = startup_;
}

// Empty when the hardware has no FECs.
Driver::FecPlatform LabelAgent::fecPlatform( const MplsSmInputs& inputs ) {
   if ( !settings_.withFecs ) {
      return {};
   }
   return { inputs.hwFecIdRequest,
            entityManager_->root< FecIdToHwFecIdResponse >( "hwFecIdResponse" ),
            entityManager_->root< VelL3Status >( "velL3Status" ),
            startup_,
            [this]( IntfId intf, const IpGenAddr& nextHop ) {
               return l3_->info( { intf, nextHop } );
            },
            entityManager_->root< VelHelper::MplsRouteSyncMap >( "mplsRouteSyncMap" ),
            interfaceName() };
}

// --- Tables.

void LabelAgent::neighborsAre( const NeighborTable& table ) {
   if ( settings_.withFecs ) {
      plan_.neighborsAre( table );
   }
   Driver::FecUnit* const fecs = switch_->fecUnit();
   l3_->onChangeIs( {} ); // one call for all neighbours, below
   for ( const Neighbor& neighbor : table.neighbors ) {
      l3_->neighborIs( neighbor );
   }
   if ( fecs ) {
      fecs->reportStates();
      l3_->onChangeIs( [fecs] { fecs->reportStates(); } );
   }
}

LabelAgent::Fault LabelAgent::apply( size_t table ) {
   if ( startFault_ ) {
      return startFault_;
   }
   foreignFecs_->definedAre( plan_.table( table ).foreign );
   if ( !publisher_.table() ) {
      return publisher_.publish( table ); // readers wait until the LFIB is complete
   }
   return publisher_.publish( table, [this] {
      while ( lfib_->pollPending() ) {
         lfib_->poll( sliceItems );
      }
   } );
}

LabelAgent::Fault LabelAgent::apply( const LabelTable& table ) {
   return apply( plan_.add( table ) );
}

const std::string& LabelAgent::ignoredReason( Mpls::RouteKey key ) const {
   return publisher_.table() ? plan_.ignoredReason( *publisher_.table(), key )
                             : nullValueOf< std::string >();
}

// --- Work.

size_t LabelAgent::pendingWork() const {
   size_t pending = lfib_->ringLag() + switch_->status()->queueLength();
   if ( const VrfMplsState* const state = mplsSm_->mplsState( L3::VrfName::defaultVrf() ) ) {
      pending += state->routeKeyForReviews() + state->routeKeyForPublishs() +
                 state->l3AdjForReviews() + state->l2AdjForReviews();
   }
   return pending;
}

bool LabelAgent::workLeft() const {
   return lfib_->pollPending() || !switch_->idle() || mplsSm_->vrfTask()->scheduled() ||
          mplsSm_->routePublishTask()->scheduled() ||
          mplsSm_->unprogrammedRouteTask()->expiry() - clock_->now() < soonSeconds;
}

LabelAgent::Fault LabelAgent::settle() {
   const auto next = [this] { return workLeft() ? scheduler_->nextExpiry() : atRest; };
   Fault fault = work( next );
   // Only now has every route of the former table left the definitions.
   return !fault && foreignFecs_->takeBackRest() ? work( next ) : fault;
}

LabelAgent::Fault LabelAgent::runFor( double seconds ) {
   if ( Fault fault = settle() ) {
      return fault;
   }
   const double end = clock_->now() + seconds;
   Fault fault = work(
      [this, end] { return scheduler_->nextExpiry() <= end ? scheduler_->nextExpiry() : atRest; } );
   if ( !fault ) {
      clock_->nowIs( end );
   }
   return fault;
}

// Does what is due and moves the clock to what `next` says, until that is `atRest`.
template< class Next >
LabelAgent::Fault LabelAgent::work( const Next& next ) {
   for ( size_t run = 0; run < settings_.maxRuns; ++run ) {
      lfib_->poll( sliceItems );
      if ( settings_.onProgress ) {
         settings_.onProgress( pendingWork() );
      }
      if ( scheduler_->runOne() || lfib_->pollPending() ) {
         continue;
      }
      const double until = next();
      if ( until == atRest ) {
         return std::nullopt;
      }
      if ( until == neverExpires ) {
         return joinText( "the agent is stuck with ", pendingWork(),
                          " items of work that no task is going to take up" );
      }
      clock_->nowIs( until );
   }
   return joinText( "the agent has not come to rest after ", settings_.maxRuns,
                    " runs of its tasks; ", pendingWork(), " items of work are left" );
}

} // namespace Vel::Agent
