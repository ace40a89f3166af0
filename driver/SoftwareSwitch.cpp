#include "driver/SoftwareSwitch.h"

#include <utility>

#include "platform/base/Trace.h"

namespace Vel::Driver {

using Mpls::RouteKey;

namespace {

TraceHandle traceHandle( "SoftwareSwitch" );

// Withdraws what a driver has reported of a VRF, except the routes listed as unprogrammed.
void withdraw( MplsHwVrfStatus& status ) {
   status.routeDelAll();
   status.unprogrammedAdjacencyDelAll();
   status.l2AdjacencyDelAll();
   status.mplsRoutingIs( false );
}

// The number under which most routes stand. There is one VRF; while its number changes, its routes
// stand under both numbers.
VrfId vrfOfMost( const std::vector< HwState::Route >& routes ) {
   Hash< VrfId, size_t > routesOf;
   VrfId most = 0;
   for ( const HwState::Route& route : routes ) {
      if ( ++*routesOf.emplace( route.vrfId, size_t{ 0 } ).first > routesOf.lookup( most ) ||
           !routesOf.has( most ) ) {
         most = route.vrfId;
      }
   }
   return most;
}

/// Notices that a route has left the list of unprogrammed routes, whoever took it off.
class ListReactor : public MplsHwVrfStatus::Reactor {
 public:
   ListReactor( const MplsHwVrfStatus* status, HwVrf& vrf ) : vrf_( vrf ) { notifierIs( status ); }
   void onUnprogrammedRoute( RouteKey key ) override {
      if ( !notifier()->unprogrammedRouteHas( key ) ) {
         vrf_.listedRoute.erase( key );
         vrf_.refused->refusedRouteDel( key );
      }
   }

 private:
   HwVrf& vrf_;
};

} // namespace

struct SoftwareSwitch::Vrf : HwVrf {
   Vrf( VrfId id, MplsHwVrfStatus* hwStatus, SwitchVrfStatus* refusals )
      : HwVrf( id, hwStatus, refusals ), listReactor( hwStatus, *this ) {}

   ListReactor listReactor;
};

class SoftwareSwitch::ConfigReactor : public MplsHwConfig::Reactor {
 public:
   explicit ConfigReactor( SoftwareSwitch& owner ) : owner_( owner ) {
      notifierIs( owner.config_.get() );
   }
   void onVrfConfig( VrfId vrfId ) override { owner_.handleVrfConfig( vrfId ); }

 private:
   SoftwareSwitch& owner_;
};

class SoftwareSwitch::TaskReactor : public TimerTask::Reactor {
 public:
   TaskReactor( SoftwareSwitch& owner, const TimerTask* task, void ( SoftwareSwitch::*run )() )
      : owner_( owner ), run_( run ) {
      notifierIs( task );
   }
   void onTaskRun() override { ( owner_.*run_ )(); }

 private:
   SoftwareSwitch& owner_;
   void ( SoftwareSwitch::*run_ )();
};

// --- The owner's side.

SoftwareSwitch::SoftwareSwitch( Ptr< MplsHwConfig > config, Ptr< MplsHwStatus > hwStatus,
                                Ptr< Scheduler > scheduler, SwitchSettings settings,
                                FecPlatform fecPlatform, const HwState& recovered )
   : config_( std::move( config ) ),
     hwStatus_( std::move( hwStatus ) ),
     settings_( std::move( settings ) ),
     task_( scheduler->taskIs( "softwareSwitch", TaskPriority::normal ) ),
     queue_( task_, settings_.serviceTimeSeconds ),
     status_( make< SwitchStatus >( queue_, settings_.breachIsFatal ) ),
     faultTask_( scheduler->taskIs( "softwareSwitchFaults", TaskPriority::normal ) ),
     links_( settings_.faults, *scheduler->clock() ) {
   taskReactor_ = std::make_unique< TaskReactor >( *this, task_.get(), &SoftwareSwitch::run );
   faultTaskReactor_ =
      std::make_unique< TaskReactor >( *this, faultTask_.get(), &SoftwareSwitch::faultsChanged );
   faultsStart();
   faultTask_->runAfter( settings_.faults.nextChange( now() ) - now() );
   const Ptr< VelHelper::MplsRouteSyncMap > routeSyncMap = fecPlatform.routeSyncMap;
   status_->resolve_ = fecPlatform.resolve;
   status_->links_ = &links_;
   if ( fecPlatform.present() ) {
      fecUnit_ = std::make_unique< FecUnit >( std::move( fecPlatform ), queue_, *status_,
                                              settings_.faults, links_, *scheduler->clock() );
      fecUnit_->capacityIs( settings_.fecCapacity );
      fecUnit_->takeRoutesOutIs( [this]( const HwFec& fec ) { takeRoutesOut( fec ); } );
      fecUnit_->takeFoundOutIs( [this] { takeFoundRoutesOut(); } );
   }
   forgetEarlierDriver();
   if ( fecUnit_ ) {
      recover( recovered, routeSyncMap.get() );
   }
   configReactor_ = std::make_unique< ConfigReactor >( *this );
   for ( const auto& [vrfId, vrfConfig] : config_->vrfConfig() ) {
      handleVrfConfig( vrfId );
   }
}

SoftwareSwitch::~SoftwareSwitch() {
   status_->queue_ = nullptr;
   status_->resolve_ = nullptr;
   status_->links_ = nullptr;
}

// Withdraws what an earlier driver reported. Of the routes listed as unprogrammed, the driver
// listed those that the configuration holds; the others were listed by the library and stay.
void SoftwareSwitch::forgetEarlierDriver() {
   for ( const auto& [vrfId, status] : hwStatus_->vrfStatus() ) {
      withdraw( *status );
      const MplsHwVrfConfig* const config = config_->vrfConfig( vrfId );
      if ( config == nullptr ) {
         hwStatus_->vrfStatusDel( vrfId );
         continue;
      }
      for ( const RouteKey key : status->unprogrammedRoute() ) {
         if ( config->routeHas( key ) ) {
            status->unprogrammedRouteDel( key );
         }
      }
   }
}

// Hardware goes on with what the earlier driver left; the sync map tells the library of the routes.
void SoftwareSwitch::recover( const HwState& state, VelHelper::MplsRouteSyncMap* routeSyncMap ) {
   fecUnit_->recover( state );
   const VrfId vrfWithRoutes = vrfOfMost( state.routes );
   for ( const VrfId vrfId : state.mplsRouting ) {
      makeVrf( vrfId ).mplsRouting = true;
   }
   for ( const HwState::Route& before : state.routes ) {
      if ( fecUnit_->fec( before.hwId ) == nullptr || before.vrfId != vrfWithRoutes ) {
         continue; // the route leads nowhere, or the VRF was about to leave that number
      }
      HwVrf& vrf = makeVrf( before.vrfId );
      HwRoute& route = *vrf.route.emplace( before.key ).first;
      routeMoved( route, nullptr, fecUnit_->fec( before.hwId ) );
      route.operation = before.operation;
      ++status_->routes_;
      recoveredRoute_.insert( before.key );
      ++route.fec->recovered;
      if ( routeSyncMap ) {
         routeSyncMap->adjSyncIdIs( before.key, before.hwId );
      }
   }
   if ( routeSyncMap ) {
      if ( !state.routes.empty() ) {
         routeSyncMap->vrfIdIs( vrfWithRoutes );
      }
      routeSyncMap->readyIs( true );
   }
}

HwState SoftwareSwitch::state() const {
   HwState state;
   if ( !fecUnit_ ) {
      return state;
   }
   fecUnit_->addTo( state );
   for ( const auto& [vrfId, vrf] : vrf_ ) {
      if ( vrf->mplsRouting ) {
         state.mplsRouting.push_back( vrfId );
      }
      for ( const auto& [key, route] : vrf->route ) {
         if ( route.fec && fecUnit_->fec( route.fec->hwId ) ) { // whose FEC was not taken out
            state.routes.push_back( { vrfId, key, route.fec->hwId, route.operation } );
         }
      }
   }
   return state;
}

ForwardResult SoftwareSwitch::forward( VrfId vrfId, ByteView frame ) {
   ForwardResult result;
   if ( const HwVrf* const there = vrf( vrfId ); there && there->mplsRouting ) {
      result = forwardFrame( there->route, frame, settings_.macAddr, links_, fecUnit_.get() );
   } else {
      result.drop = DropReason::routingDisabled;
      result.text = joinText( "label forwarding is off in vrf ", vrfId );
   }
   ++( result.frames.empty() ? status_->framesDropped_ : status_->framesForwarded_ );
   return result;
}

const HwVrf* SoftwareSwitch::vrf( VrfId vrfId ) const {
   const std::unique_ptr< Vrf >* const found = vrf_.find( vrfId );
   return found ? found->get() : nullptr;
}

const HwRoute* SoftwareSwitch::route( VrfId vrfId, RouteKey key ) const {
   const HwVrf* const there = vrf( vrfId );
   return there ? there->route.find( key ) : nullptr;
}

void SoftwareSwitch::capacityIs( size_t routes, size_t adjacencies ) {
   settings_.routeCapacity = routes;
   settings_.adjacencyCapacity = adjacencies;
}

void SoftwareSwitch::faultsAre( FaultPlan faults ) {
   settings_.faults = std::move( faults );
   faultsStart();
   faultsChanged();
}

// Without a plan no operation has a time of its own.
void SoftwareSwitch::faultsStart() {
   settings_.faults.startIs( now() );
   if ( !settings_.faults.empty() ) {
      queue_.latenessIs( [this]( double at ) { return settings_.faults.lateness( at ); } );
   }
}

void SoftwareSwitch::linkIs( IntfId intf, bool up ) {
   if ( links_.upIs( intf, up ) ) {
      linksChanged();
   }
}

// FECs report that they have changed over before anybody else hears of the links.
void SoftwareSwitch::linksChanged() {
   if ( fecUnit_ ) {
      fecUnit_->reportStates();
   }
   if ( onLinks_ ) {
      onLinks_();
   }
}

// --- The queue.

void SoftwareSwitch::handleVrfConfig( VrfId vrfId ) {
   watch_.erase( vrfId );
   const MplsHwVrfConfig* const config = config_->vrfConfig( vrfId );
   if ( config == nullptr ) {
      queue_.push( { .kind = OperationKind::vrfGone, .vrfId = vrfId } );
      return;
   }
   if ( settings_.createStatusAtOnce ) {
      makeVrf( vrfId );
   }
   queue_.push( { .kind = OperationKind::vrfMade, .vrfId = vrfId } );
   if ( !fecUnit_ || !fecUnit_->syncing() ) {
      routingOffUnlessWanted( vrfId );
   }
   watch_.emplace( vrfId, std::make_unique< ConfigWatch >( *config, queue_, status_->breachLog_ ) );
}

// Switches label forwarding off that an earlier driver left on and the configuration does not want:
// no change of the configuration will ever say so. While the library is still starting it may not
// have written the configuration, so this is not asked then.
void SoftwareSwitch::routingOffUnlessWanted( VrfId vrfId ) {
   const HwVrf* const there = vrf( vrfId );
   const MplsHwVrfConfig* const config = config_->vrfConfig( vrfId );
   if ( there && there->mplsRouting && config && !config->mplsRouting() ) {
      queue_.push( { .kind = OperationKind::mplsRouting, .vrfId = vrfId, .number = 0 } );
   }
}

void SoftwareSwitch::run() {
   while ( queue_.ready() && !task_->shouldYield() ) {
      carryOut( queue_.pop() );
      countMost();
      task_->workCountInc();
   }
   if ( queue_.empty() && !overtaken_.empty() ) {
      overtaken_.clear();
   }
   queue_.schedule();
}

void SoftwareSwitch::countMost() {
   SwitchStatus& status = *status_;
   status.mostRoutes_ = std::max( status.mostRoutes_, status.routes_ );
   status.mostAdjacencies_ = std::max( status.mostAdjacencies_, status.adjacencies_ );
   status.mostFecs_ = std::max( status.mostFecs_, status.fecs_ );
}

void SoftwareSwitch::forgetMost() {
   status_->mostRoutes_ = status_->mostAdjacencies_ = status_->mostFecs_ = 0;
   countMost();
}

void SoftwareSwitch::carryOut( Operation operation ) {
   VEL_TRACE( traceHandle, 8, "carry out ", operation );
   ++status_->operations_;
   if ( operation.kind == OperationKind::vrfGone ) {
      removeVrf( operation.vrfId );
      return;
   }
   if ( operation.kind == OperationKind::fecChanged ) {
      fecUnit_->carryOut( operation.fecId() );
      return;
   }
   if ( operation.kind == OperationKind::syncRequested ) {
      fecUnit_->syncRequested();
      for ( const auto& [vrfId, vrf] : vrf_ ) {
         routingOffUnlessWanted( vrfId );
      }
      return;
   }
   if ( operation.kind == OperationKind::fecsRetried ) {
      fecUnit_->retryWaiting();
      return;
   }
   // The VRF is there already when its status is made at once; it is made here when not, and when
   // it went and came back.
   HwVrf& vrf = makeVrf( operation.vrfId );
   switch ( operation.kind ) {
   case OperationKind::vrfMade:
   case OperationKind::vrfGone:
   case OperationKind::fecChanged:
   case OperationKind::syncRequested:
   case OperationKind::fecsRetried:
      break;
   case OperationKind::mplsRouting:
      // Of several changes in a row the last one counts: a library that starts again switches
      // forwarding off and on, and no frame should notice.
      if ( const MplsHwVrfConfig* const config = configOf( vrf ) ) {
         vrf.mplsRouting = config->mplsRouting();
      } else {
         vrf.mplsRouting = operation.enabled();
      }
      vrf.status->mplsRoutingIs( vrf.mplsRouting );
      break;
   case OperationKind::adjacencyWritten:
      writeAdjacency( vrf, operation );
      break;
   case OperationKind::adjacencyRemoved:
      removeAdjacency( vrf, operation );
      break;
   case OperationKind::routeWritten:
      writeRoute( vrf, std::move( operation ) );
      break;
   case OperationKind::routeRemoved:
      removeRoute( vrf, operation.routeKey );
      break;
   }
}

// --- VRFs.

HwVrf& SoftwareSwitch::makeVrf( VrfId vrfId ) {
   if ( lastVrf_ && lastVrf_->vrfId == vrfId ) {
      return *lastVrf_;
   }
   std::unique_ptr< Vrf >* found = vrf_.find( vrfId );
   if ( found == nullptr ) {
      MplsHwVrfStatus* const status = hwStatus_->vrfStatusIs( vrfId );
      SwitchVrfStatus* const refusals = status_->vrfIs( vrfId );
      found = vrf_.emplace( vrfId, std::make_unique< Vrf >( vrfId, status, refusals ) ).first;
   }
   lastVrf_ = found->get();
   return *lastVrf_;
}

void SoftwareSwitch::removeVrf( VrfId vrfId ) {
   std::unique_ptr< Vrf >* const found = vrf_.find( vrfId );
   if ( found == nullptr ) {
      return;
   }
   lastVrf_ = nullptr;
   HwVrf& vrf = **found;
   status_->routes_ -= vrf.route.size();
   status_->adjacencies_ -= vrf.adjacency.size();
   for ( const auto& [key, route] : vrf.route ) {
      claim( key, &route );
      routeMoved( route, nullptr, nullptr );
   }
   vrf.status->unprogrammedRouteDelAll(); // also what the library listed: it cannot any more
   withdraw( *vrf.status );
   hwStatus_->vrfStatusDel( vrfId );
   vrf_.erase( vrfId );
   status_->vrfDel( vrfId );
}

const MplsHwVrfConfig* SoftwareSwitch::configOf( const HwVrf& vrf ) const {
   return config_->vrfConfig( vrf.vrfId );
}

UnprogrammedReason SoftwareSwitch::planned( const Operation& operation,
                                            const Mpls::Hardware::L2ViaSet* vias ) {
   UnprogrammedReason reason = UnprogrammedReason::Success;
   if ( settings_.refuse ) {
      reason = settings_.refuse( operation );
   }
   if ( reason == UnprogrammedReason::Success && !settings_.faults.empty() ) {
      reason = settings_.faults.refusal( operation, vias, now() );
   }
   return reason;
}

double SoftwareSwitch::now() const {
   return task_->scheduler()->clock()->now();
}

size_t SoftwareSwitch::capacity( FaultKind kind ) const {
   const size_t usual =
      kind == FaultKind::routeCapacity ? settings_.routeCapacity : settings_.adjacencyCapacity;
   return settings_.faults.empty() ? usual : settings_.faults.capacity( kind, now(), usual );
}

// --- Adjacencies.

UnprogrammedReason SoftwareSwitch::adjacencyRefusal( const Operation& operation,
                                                     const Mpls::Hardware::L2ViaSet& vias ) {
   if ( vias.empty() ) {
      return UnprogrammedReason::InterfaceNotReady;
   }
   const size_t room = capacity( FaultKind::adjacencyCapacity );
   if ( room != 0 && adjacencies() >= room && !operation.adjacency->inHardware() ) {
      return UnprogrammedReason::AdjacencyFull;
   }
   return planned( operation, &vias );
}

void SoftwareSwitch::writeAdjacency( HwVrf& vrf, const Operation& operation ) {
   HwAdjacency& adjacency = *operation.adjacency;
   const Ptr< Mpls::Hardware::L2Adjacency >& l2Adjacency = adjacency.l2Adjacency();
   const Mpls::Hardware::L2ViaSet vias = queue_.popViaSet();
   const UnprogrammedReason reason = adjacencyRefusal( operation, vias );
   if ( reason != UnprogrammedReason::Success ) {
      ++status_->refused_;
      VEL_RING( traceHandle, "refused l2 adj, reason", adjacency.index(), reason );
      adjacency.refused( reason );
      const MplsHwVrfConfig* const config = configOf( vrf );
      if ( config && config->l2AdjacencyHas( l2Adjacency ) ) {
         vrf.refused->refusedAdjacencyIs( adjacency.index(), reason );
         vrf.status->unprogrammedReasonIs( reason );
         vrf.status->unprogrammedAdjacencyIs( l2Adjacency );
      }
      return;
   }
   vrf.refused->refusedAdjacencyDel( adjacency.index() );
   const auto version = static_cast< U32 >( operation.version() );
   adjacency.programmed( vias, version );
   status_->adjacencies_ += vrf.adjacency.insert( operation.adjacency );
   vrf.status->unprogrammedAdjacencyDel( l2Adjacency );
   vrf.status->l2AdjacencyIs( l2Adjacency, version );
}

void SoftwareSwitch::removeAdjacency( HwVrf& vrf, const Operation& operation ) {
   HwAdjacency& adjacency = *operation.adjacency;
   adjacency.removed();
   if ( vrf.adjacency.erase( operation.adjacency ) ) {
      --status_->adjacencies_;
      vrf.status->l2AdjacencyDel( adjacency.l2Adjacency() );
   }
   vrf.refused->refusedAdjacencyDel( adjacency.index() );
   vrf.status->unprogrammedAdjacencyDel( adjacency.l2Adjacency() );
}

// --- Routes.

UnprogrammedReason SoftwareSwitch::routeRefusal( const HwVrf& vrf, const Operation& operation ) {
   const HwAdjacency* const adjacency = operation.adjacency.get();
   if ( adjacency == nullptr || !adjacency->inHardware() ) {
      return adjacency && adjacency->refusal() != UnprogrammedReason::Success
                ? adjacency->refusal()
                : UnprogrammedReason::InterfaceNotReady;
   }
   const size_t room = capacity( FaultKind::routeCapacity );
   if ( room != 0 && routes() >= room && !vrf.route.has( operation.routeKey ) ) {
      return UnprogrammedReason::RouteFull;
   }
   return planned( operation, nullptr );
}

void SoftwareSwitch::writeRoute( HwVrf& vrf, Operation operation ) {
   const RouteKey key = operation.routeKey;
   if ( overtaken( key ) ) {
      return;
   }
   if ( !settings_.faults.empty() && settings_.faults.forgets( operation, now() ) ) {
      ++status_->forgotten_;
      return;
   }
   const UnprogrammedReason reason = routeRefusal( vrf, operation );
   if ( reason != UnprogrammedReason::Success ) {
      ++status_->refused_;
      VEL_RING( traceHandle, "refused routeKey, reason", key, reason );
      takeRouteOut( vrf, key );
      const MplsHwVrfConfig* const config = configOf( vrf );
      if ( config && config->routeHas( key ) ) {
         vrf.refused->refusedRouteIs( key, reason );
         vrf.listedRoute.insert( key );
         vrf.status->unprogrammedReasonIs( reason );
         vrf.status->unprogrammedRouteIs( key );
      }
      return;
   }
   const MplsHwRoute done{ key, operation.adjacency->l2Adjacency(), operation.version() };
   const auto [route, made] = vrf.route.emplace( key );
   status_->routesChanged_ += claim( key, route ) && countedRoute_.insert( key );
   routeMoved( *route, std::move( operation.adjacency ), nullptr );
   route->version = operation.version();
   status_->routes_ += made;
   vrf.refused->lostRouteDel( key );
   if ( vrf.status->unprogrammedRouteHas( key ) ) { // whoever listed it: it is in hardware now
      vrf.status->unprogrammedRouteDel( key );
   }
   vrf.status->routeIs( done );
}

// A route that forwards into a FEC stays: the helper has written it since, and only the helper
// takes it out.
void SoftwareSwitch::removeRoute( HwVrf& vrf, RouteKey key ) {
   const HwRoute* const route = vrf.route.find( key );
   if ( route == nullptr || !route->fec ) {
      takeRouteOut( vrf, key );
   } else {
      vrf.status->routeDel( key );
   }
   if ( vrf.listedRoute.has( key ) ) { // else this driver has not listed it, or it was taken off
      vrf.status->unprogrammedRouteDel( key );
   }
}

void SoftwareSwitch::takeRouteOut( HwVrf& vrf, RouteKey key ) {
   if ( HwRoute* const route = vrf.route.find( key ) ) {
      if ( route->fec && recoveredRoute_.has( key ) ) {
         foundRouteGoes( *route->fec );
      }
      routeMoved( *route, nullptr, nullptr );
      vrf.route.erase( key );
      --status_->routes_;
      vrf.status->routeDel( key );
   }
}

// Whether the helper has written the route after the operation that is being carried out was
// queued.
bool SoftwareSwitch::overtaken( RouteKey key ) const {
   const U64* const upTo = overtaken_.find( key );
   return upTo && queue_.popped() <= *upTo;
}

void SoftwareSwitch::foundRouteGoes( HwFec& fec ) {
   if ( --fec.recovered == 0 ) {
      fecUnit_->foundRoutesGone();
   }
}

// The route is this driver's from now on; true when it was an earlier one's until now.
bool SoftwareSwitch::claim( RouteKey key, const HwRoute* route ) {
   if ( !recoveredRoute_.erase( key ) ) {
      return false;
   }
   if ( route && route->fec ) {
      foundRouteGoes( *route->fec );
   }
   return true;
}

// Takes the routes of an earlier driver's FEC out of hardware to make room. They still count as
// recovered, until the library writes or removes them.
void SoftwareSwitch::takeRoutesOut( const HwFec& fec ) {
   for ( const auto& [vrfId, vrf] : vrf_ ) {
      for ( const auto& [key, route] : vrf->route ) {
         if ( route.fec.get() == &fec ) {
            takeRouteOut( *vrf, key );
         }
      }
   }
}

bool SoftwareSwitch::someVrfHas( RouteKey key ) const {
   for ( const auto& [vrfId, vrf] : vrf_ ) {
      if ( vrf->route.has( key ) ) {
         return true;
      }
   }
   return false;
}

// Takes all routes of the earlier driver out of hardware, for a library that starts afresh.
void SoftwareSwitch::takeFoundRoutesOut() {
   for ( const auto& [vrfId, vrf] : vrf_ ) {
      for ( const auto& [key, route] : vrf->route ) {
         if ( recoveredRoute_.has( key ) ) {
            takeRouteOut( *vrf, key );
            ++status_->routesStale_;
         }
      }
   }
   recoveredRoute_.clear();
}

void SoftwareSwitch::routeMoved( HwRoute& route, Ptr< HwAdjacency > adjacency, Ptr< HwFec > fec ) {
   if ( fec && fec->routes++ == 0 ) {
      fecUnit_->useChanged( *fec );
   }
   const Ptr< HwFec > left = std::exchange( route.fec, std::move( fec ) );
   route.adjacency = std::move( adjacency );
   if ( left && --left->routes == 0 ) {
      fecUnit_->useChanged( *left );
   }
}

// --- Routes into FECs.

UnprogrammedReason SoftwareSwitch::fecRouteRefusal( const HwVrf& vrf, RouteKey key, HwFec* fec ) {
   if ( fec == nullptr ) {
      return UnprogrammedReason::InterfaceNotReady;
   }
   const size_t room = capacity( FaultKind::routeCapacity );
   if ( room != 0 && routes() >= room && !vrf.route.has( key ) ) {
      return UnprogrammedReason::RouteFull;
   }
   return planned( { .kind = OperationKind::routeWritten, .vrfId = vrf.vrfId, .routeKey = key },
                   nullptr );
}

UnprogrammedReason SoftwareSwitch::fecRouteIs( VrfId vrfId, RouteKey key, U64 hwFecId,
                                               FecRouteOperation operation ) {
   ++status_->operations_;
   HwVrf& vrf = makeVrf( vrfId );
   const Ptr< HwFec > fec = fecUnit_ ? fecUnit_->fec( hwFecId ) : nullptr;
   const HwRoute* const before = vrf.route.find( key );
   const bool same = before && fec && before->fec == fec && before->operation == operation;
   if ( !same && !settings_.faults.empty() &&
        settings_.faults.forgets( { .kind = OperationKind::routeWritten, .routeKey = key },
                                  now() ) ) {
      ++status_->forgotten_;
      vrf.refused->lostRouteIs( key );
      return UnprogrammedReason::Success; // the writing is lost, and the library does not learn it
   }
   vrf.refused->lostRouteDel( key );
   vrf.listedRoute.erase( key ); // if the route is listed, its entry is the library's from now on
   if ( !queue_.empty() ) {
      overtaken_.set( key, queue_.pushed() );
   }
   const UnprogrammedReason reason =
      same ? UnprogrammedReason::Success : fecRouteRefusal( vrf, key, fec.get() );
   if ( reason != UnprogrammedReason::Success ) {
      ++status_->refused_;
      VEL_RING( traceHandle, "refused routeKey, reason", key, reason );
      takeRouteOut( vrf, key );
      vrf.refused->refusedRouteIs( key, reason );
      return reason;
   }
   vrf.refused->refusedRouteDel( key );
   if ( claim( key, before ) ) {
      countedRoute_.insert( key );
      ++( same && !fec->replaced ? status_->routesAdopted_ : status_->routesChanged_ );
   }
   if ( same ) { // there is nothing to write
      return reason;
   }
   if ( before == nullptr || before->fec != fec ) {
      if ( fecUnit_->behind( *fec ) && status_->forgotten_ == 0 ) {
         status_->breachLog_.add( joinText( "route ", key, " comes into FEC ", fec->fecId,
                                            " before what is requested of it is in hardware" ) );
      }
      fecUnit_->routeComes( *fec );
   }
   const auto [route, made] = vrf.route.emplace( key );
   status_->routes_ += made;
   countMost();
   status_->routesAdded_ += made && countedRoute_.insert( key );
   routeMoved( *route, nullptr, fec );
   route->operation = operation;
   fec->routesOperate |= operation.action != MplsLabelAction::none;
   return UnprogrammedReason::Success;
}

void SoftwareSwitch::fecRouteDel( VrfId vrfId, RouteKey key ) {
   ++status_->operations_;
   const std::unique_ptr< Vrf >* const found = vrf_.find( vrfId );
   if ( found == nullptr ) {
      return;
   }
   HwVrf& vrf = **found;
   const HwRoute* const route = vrf.route.find( key );
   if ( route && route->fec ) { // the helper's; one with an adjacency is the configuration's
      takeRouteOut( vrf, key );
      status_->routesStale_ += recoveredRoute_.erase( key );
   } else if ( !someVrfHas( key ) ) {
      recoveredRoute_.erase( key ); // the route has been taken out to make room
   }
   vrf.refused->lostRouteDel( key );
   if ( !vrf.listedRoute.has( key ) ) {
      vrf.refused->refusedRouteDel( key );
   }
}

// A fault has begun or ended.
void SoftwareSwitch::faultsChanged() {
   if ( fecUnit_ ) {
      fecUnit_->retryWaiting();
   }
   linksChanged();
   faultTask_->runAfter( settings_.faults.nextChange( now() ) - now() );
}

} // namespace Vel::Driver
