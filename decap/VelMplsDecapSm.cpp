// MplsDecapSm: the frame, its tasks, and which route is processed how.

#include "decap/VelMplsDecapSm.h"

#include <utility>

#include "decap/VelMplsDecapTrace.h"

namespace Vel {

VEL_ENTITY_SOURCE( MplsDecapSm )
VEL_ENTITY_SOURCE( VrfRouteKeySet )
VEL_ENTITY_SOURCE( VlanAwareDot1qTagVlanRouteKeySet )
VEL_ENTITY_SOURCE( VlanAwareProgrammedRouteSet )

TraceHandle velMplsDecapSmTrace( "VelMplsDecapSm" );

namespace {

constexpr TaskPriority taskPriority = TaskPriority::normal; // priority value 2
constexpr double unreadIntervalSeconds = 1.0;

} // namespace

// --- Reactors

/// All reactors of one machine, unbound together when it goes.
class MplsDecapSm::Reactors {
 public:
   explicit Reactors( MplsDecapSm& sm )
      : lfibStatus_( sm ), lfibTrackingStatus_( sm ), routingHwRouteStatus_( sm ) {
      lfibStatus_.notifierIs( sm.lfib_.get() );
      lfibTrackingStatus_.notifierIs( sm.tracking_.get() );
      routingHwRouteStatus_.notifierIs( sm.routeStatus_.get() );
   }
   void taskIs( MplsDecapSm& sm, const Ptr< TimerTask >& task, void ( MplsDecapSm::*run )() ) {
      tasks_.push_back( std::make_unique< TaskReactor >( sm, run ) );
      tasks_.back()->notifierIs( task.get() );
   }
   /// Follows the map, in place of an earlier one with its key; null: none.
   void mapIs( MplsDecapSm& sm, Mpls::LfibDot1qTagToVlanKey key,
               const Mpls::LfibDot1qTagToVlan* map ) {
      maps_.erase( key );
      if ( map != nullptr ) {
         maps_.emplace( key, std::make_unique< Dot1qTagToVlanCollReactor >( sm, map ) );
      }
   }
   size_t maps() const { return maps_.size(); }

 private:
   class LfibStatusReactor : public Mpls::LfibStatus::Reactor {
    public:
      explicit LfibStatusReactor( MplsDecapSm& sm ) : sm_( sm ) {}
      void onDot1qTagToVlanColl( Mpls::LfibDot1qTagToVlanKey key ) override {
         sm_.handleDot1qTagToVlanColl( key );
      }

    private:
      MplsDecapSm& sm_;
   };
   class LfibTrackingStatusReactor : public Mpls::LfibTrackingStatus::Reactor {
    public:
      explicit LfibTrackingStatusReactor( MplsDecapSm& sm ) : sm_( sm ) {}
      void onRouteKeyBacklog( Mpls::RouteKey routeKey ) override {
         if ( notifier()->routeKeyBacklogHas( routeKey ) ) {
            sm_.handleRouteKeyBacklog();
         }
      }

    private:
      MplsDecapSm& sm_;
   };
   class RoutingHwRouteStatusReactor : public Routing::Hardware::RouteStatus::Reactor {
    public:
      explicit RoutingHwRouteStatusReactor( MplsDecapSm& sm ) : sm_( sm ) {}
      void onVrfStatus( L3::VrfName vrfName ) override { sm_.handleVrfStatus( vrfName ); }

    private:
      MplsDecapSm& sm_;
   };
   class Dot1qTagToVlanCollReactor : public Mpls::LfibDot1qTagToVlan::Reactor {
    public:
      Dot1qTagToVlanCollReactor( MplsDecapSm& sm, const Mpls::LfibDot1qTagToVlan* map )
         : sm_( sm ) {
         notifierIs( map );
      }
      void onDot1qTagToVlanId( Bridging::VlanId dot1qTag ) override {
         sm_.handleDot1qTagToVlan( notifier()->key(), dot1qTag );
      }

    private:
      MplsDecapSm& sm_;
   };
   class TaskReactor : public TimerTask::Reactor {
    public:
      TaskReactor( MplsDecapSm& sm, void ( MplsDecapSm::*run )() ) : sm_( sm ), run_( run ) {}
      void onTaskRun() override { ( sm_.*run_ )(); }

    private:
      MplsDecapSm& sm_;
      void ( MplsDecapSm::*run_ )();
   };

   LfibStatusReactor lfibStatus_;
   LfibTrackingStatusReactor lfibTrackingStatus_;
   RoutingHwRouteStatusReactor routingHwRouteStatus_;
   std::vector< std::unique_ptr< TaskReactor > > tasks_;
   Hash< Mpls::LfibDot1qTagToVlanKey, std::unique_ptr< Dot1qTagToVlanCollReactor > > maps_;
};

// --- The frame

MplsDecapSm::MplsDecapSm( Ptr< VelHelper::MplsDecapHelper > mplsDecapHelper,
                          Ptr< const Mpls::LfibStatus > lfibStatus, Ptr< Scheduler > scheduler,
                          Ptr< Mpls::LfibTrackingStatus > lfibTrackingStatus,
                          Ptr< Mpls::LfibHwStatus > lfibHwStatus,
                          Ptr< const Routing::Hardware::RouteStatus > routeStatus )
   : helper_( std::move( mplsDecapHelper ) ),
     lfib_( std::move( lfibStatus ) ),
     scheduler_( std::move( scheduler ) ),
     tracking_( std::move( lfibTrackingStatus ) ),
     lfibHwStatus_( std::move( lfibHwStatus ) ),
     routeStatus_( std::move( routeStatus ) ),
     reactors_( std::make_unique< Reactors >( *this ) ) {}

MplsDecapSm::~MplsDecapSm() = default;

Ptr< MplsDecapSm > MplsDecapSmIs( Ptr< VelHelper::MplsDecapHelper > helper,
                                  Ptr< const Mpls::LfibStatus > lfibStatus,
                                  Ptr< Scheduler > scheduler,
                                  Ptr< Mpls::LfibTrackingStatus > lfibTrackingStatus,
                                  Ptr< Mpls::LfibHwStatus > lfibHwStatus,
                                  Ptr< const Routing::Hardware::RouteStatus > routeStatus ) {
   return make< MplsDecapSm >( std::move( helper ), std::move( lfibStatus ), std::move( scheduler ),
                               std::move( lfibTrackingStatus ), std::move( lfibHwStatus ),
                               std::move( routeStatus ) );
}

Ptr< MplsDecapSm > mplsDecapSmFactory( Ptr< VelHelper::MplsDecapHelper > helper,
                                       Ptr< const Mpls::LfibStatus > lfibStatus,
                                       Ptr< Scheduler > scheduler,
                                       Ptr< Mpls::LfibTrackingStatus > lfibTrackingStatus,
                                       Ptr< Mpls::LfibHwStatus > lfibHwStatus,
                                       Ptr< const Routing::Hardware::RouteStatus > routeStatus ) {
   return MplsDecapSmIs( std::move( helper ), std::move( lfibStatus ), std::move( scheduler ),
                         std::move( lfibTrackingStatus ), std::move( lfibHwStatus ),
                         std::move( routeStatus ) );
}

void MplsDecapSm::handleInitialized() {
   DECAP_TRACE( 3, "handleInitialized" );
   DECAP_ASSERT( lfib_, "lfibStatus()", name() );
   DECAP_ASSERT( lfibHwStatus_, "lfibHwStatus()", name() );
   DECAP_ASSERT( tracking_, "lfibTrackingStatus()", name() );
   DECAP_ASSERT( scheduler_, "scheduler()", name() );
   DECAP_ASSERT( helper_, "mplsDecapHelper()", name() );
   reviewRouteKeyBacklog_ = scheduler_->taskIs( "reviewRouteKeyBacklog", taskPriority );
   reviewUnprogrammed_ = scheduler_->taskIs( "reviewUnprogrammed", taskPriority );
   unreadTask_ = scheduler_->taskIs( "lookForUnreadDecap", taskPriority );
   reactors_->taskIs( *this, reviewRouteKeyBacklog_, &MplsDecapSm::doReviewRouteKeyBacklog );
   reactors_->taskIs( *this, reviewUnprogrammed_, &MplsDecapSm::doReviewUnprogrammed );
   reactors_->taskIs( *this, unreadTask_, &MplsDecapSm::handleUnread );
   initializedIs( true );
   for ( const auto& [key, map] : lfib_->dot1qTagToVlanColl() ) {
      handleDot1qTagToVlanColl( key );
   }
   reviewRouteKeyBacklog_->runNow();
}

// --- The backlog

void MplsDecapSm::handleRouteKeyBacklog() {
   DECAP_TRACE( 7, "handleRouteKeyBacklog" );
   if ( initialized() ) {
      reviewRouteKeyBacklog_->runWithLowestDelay( 0 );
   }
}

void MplsDecapSm::doReviewRouteKeyBacklog() {
   DECAP_TRACE( 3, "doReviewRouteKeyBacklog" );
   DECAP_ASSERT( initialized(), "initialized()", name() );
   for ( auto pass = tracking_->routeKeyBacklogWork().workPass(); pass.next(); ) {
      const Mpls::RouteKey routeKey = pass.key();
      processRouteKeyBacklog( routeKey );
      reviewRouteKeyBacklog_->workCountInc();
      if ( reviewRouteKeyBacklog_->shouldYield() ) {
         reviewRouteKeyBacklog_->runNow();
         return;
      }
   }
   maybeScheduleUnprogrammedReview();
}

void MplsDecapSm::processRouteKeyBacklog( Mpls::RouteKey routeKey ) {
   DECAP_TRACE( 7, "processRouteKeyBacklog", " route ", routeKey );
   // First, so that what the helper does meanwhile can bring the route back.
   tracking_->routeKeyBacklogDel( routeKey );
   processRouteKey( routeKey );
}

void MplsDecapSm::processRouteKey( Mpls::RouteKey routeKey ) {
   DECAP_ASSERT( initialized(), "initialized()", routeKey );
   DECAP_TRACE( 7, "processRouteKey", " route ", routeKey );
   routesProcessedInc();
   unreadRouteDel( routeKey );
   const bool before = routeViaTypeHas( routeKey );
   const Mpls::LfibRoute route = lfib_->lfibRoute( routeKey );
   const Mpls::LfibViaSet viaSet =
      !route ? Mpls::LfibViaSet() : lfib_->lfibViaSet( route.viaSetKey );
   if ( viaSet.null() && lfib_->unread() ) {
      keepUnread( routeKey );
      return;
   }
   if ( viaSet.viaKeys() == 0 ) {
      deleteRoute( routeKey );
      if ( !route ) {
         DECAP_TRACE( 7, "route was deleted" );
      } else if ( viaSet.null() ) {
         DECAP_TRACE( 7, "via set was deleted" );
      }
   } else {
      processViaSet( routeKey, viaSet );
   }
   if ( before && !routeViaTypeHas( routeKey ) ) {
      queueOthersOfLabel( routeKey );
   }
}

void MplsDecapSm::processViaSet( Mpls::RouteKey routeKey, const Mpls::LfibViaSet& viaSet ) {
   const Mpls::LfibViaKey viaKey = viaSet.viaKey( 0 );
   switch ( viaKey.viaType() ) {
   case Mpls::viaTypeIpLookup:
      return processIpLookupVia( routeKey, viaKey );
   case Mpls::viaTypeVlan:
      return processVlanVia( routeKey, viaKey );
   case Mpls::viaTypeEvpnVlanAware:
      return processEvpnVlanAwareVia( routeKey, viaKey );
   case Mpls::viaTypeEvpnVlanFlood:
      return processEvpnVlanFloodVia( routeKey, viaKey );
   case Mpls::viaTypeEvpnVlanAwareFlood:
      return processEvpnVlanAwareFloodVia( routeKey, viaKey );
   case Mpls::viaTypeEvpnEthernetSegment:
      deleteRoute( routeKey );
      DECAP_TRACE( 7, "Skipping viaType EvpnEthernetSegment" );
      return;
   default:
      deleteRoute( routeKey );
      DECAP_TRACE( 7, "Skipping unsupported via type ", viaKey.viaType() );
   }
}

void MplsDecapSm::keepUnread( Mpls::RouteKey routeKey ) {
   DECAP_TRACE( 3, "LFIB route ", routeKey, " cannot be read" );
   lfibUnreadInc();
   unreadRouteIs( routeKey );
   unreadTask_->runWithLowestDelay( unreadIntervalSeconds );
}

// As if it were announced now; what still cannot be read waits for the next time.
void MplsDecapSm::handleUnread() {
   for ( auto pass = unreadRouteWork().workPass(); lfib_->readable() && pass.next(); ) {
      const Mpls::RouteKey routeKey = pass.key();
      unreadRouteDel( routeKey );
      tracking_->routeKeyBacklogIs( routeKey );
      if ( unreadTask_->shouldYield() && unreadRoutes() != 0 ) {
         unreadTask_->runNow();
         return;
      }
   }
   if ( unreadRoutes() != 0 ) {
      unreadTask_->runWithLowestDelay( unreadIntervalSeconds );
   }
}

// The mapping of the label went with this route; another route may have it now.
void MplsDecapSm::queueOthersOfLabel( Mpls::RouteKey routeKey ) {
   const MplsLabel label = routeKey.topLabel();
   if ( const std::set< Mpls::RouteKey >* const deeper = deeperRoutes_.find( label.value() ) ) {
      for ( const Mpls::RouteKey other : *deeper ) {
         tracking_->routeKeyBacklogIs( other );
      }
   }
   const Mpls::RouteKey single( label.value() );
   if ( single != routeKey && routeViaTypeHas( single ) ) {
      tracking_->routeKeyBacklogIs( single );
   }
}

// --- VRFs

void MplsDecapSm::handleVrfStatus( L3::VrfName vrfName ) {
   DECAP_TRACE( 3, "handleVrfStatus", " vrf ", vrfName );
   if ( !initialized() ) {
      return; // all is on the backlog still
   }
   std::vector< Mpls::RouteKey > routes; // the sets change while the routes are processed
   for ( const VrfRouteKeySet* const set :
         { vrfRouteKeySet( vrfName ), vrfUnprogrammedRouteKeySet( vrfName ) } ) {
      if ( set != nullptr ) {
         for ( const Mpls::RouteKey routeKey : set->routeKeySet() ) {
            routes.push_back( routeKey );
         }
      }
   }
   for ( const Mpls::RouteKey routeKey : routes ) {
      processRouteKey( routeKey );
   }
   maybeScheduleUnprogrammedReview();
}

// --- Maps

size_t MplsDecapSm::dot1qTagToVlanColls() const {
   return reactors_->maps();
}

// A map that goes leaves its routes without tags: they go back to the backlog, so that they wait
// for a map of that key.
void MplsDecapSm::handleDot1qTagToVlanColl( Mpls::LfibDot1qTagToVlanKey key ) {
   DECAP_TRACE( 3, "handleDot1qTagToVlanColl", " key ", key, " handling the entire collection " );
   if ( !initialized() ) {
      return;
   }
   const Mpls::LfibDot1qTagToVlan* const map = lfib_->dot1qTagToVlanColl( key );
   reactors_->mapIs( *this, key, map );
   if ( map == nullptr ) {
      const std::vector< Mpls::RouteKey > routes = routesOfMap( key );
      processDot1qTagToVlan( key, false );
      vlanAwareDot1qTagVlanToRouteKeySetDel( key );
      for ( const Mpls::RouteKey routeKey : routes ) {
         tracking_->routeKeyBacklogIs( routeKey );
      }
      return;
   }
   vlanAwareDot1qTagVlanToRouteKeySetIs( key );
   processDot1qTagToVlan( key, true );
   maybeScheduleUnprogrammedReview();
}

// --- What the helper refused

void MplsDecapSm::addRouteToUnprogrammed( Mpls::RouteKey routeKey, ReturnCode rc ) {
   DECAP_ASSERT( initialized(), "initialized()", routeKey );
   DECAP_TRACE( 3, "addRouteToUnprogrammed", " route ", routeKey, " reason ", rc );
   unprogrammedRouteIs( routeKey );
   lfibHwStatus_->unprogrammedRouteIs( { routeKey, Mpls::RouteStatusCode::notProgrammed, rc } );
}

// The list may be shared: only what this machine wrote is its to remove.
void MplsDecapSm::deleteRouteFromUnprogrammed( Mpls::RouteKey routeKey ) {
   if ( unprogrammedRoutes() == 0 ) {
      DECAP_TRACE( 7, "No unprogrammed routes, nothing to delete" );
      return;
   }
   if ( !unprogrammedRouteDel( routeKey ) ) {
      return;
   }
   if ( const L3::VrfName vrfName = unprogrammedVrf( routeKey ); !vrfName.empty() ) {
      unprogrammedVrfDel( routeKey );
      VrfRouteKeySet* const set = vrfUnprogrammedRouteKeySet( vrfName );
      set->routeKeySetDel( routeKey );
      if ( set->routeKeySets() == 0 ) {
         vrfUnprogrammedRouteKeySetDel( vrfName );
      }
   }
   lfibHwStatus_->unprogrammedRouteDel( routeKey );
}

void MplsDecapSm::doEndOfSync() {
   if ( !endOfSync() ) {
      helper_->doEndOfSync();
      endOfSyncIs( true );
   }
}

void MplsDecapSm::maybeScheduleUnprogrammedReview() {
   DECAP_ASSERT( initialized(), "initialized()", name() );
   DECAP_ASSERT( reviewUnprogrammed_, "reviewUnprogrammed()", name() );
   if ( unprogrammedRoutes() == 0 ) {
      DECAP_TRACE( 7, "no unprogrammed routes, nothing to review" );
      // A VRF may come before the routes of the start have been asked for.
      if ( tracking_->routeKeyBacklogs() == 0 && unreadRoutes() == 0 ) {
         doEndOfSync();
      }
      return;
   }
   if ( reviewUnprogrammed_->scheduled() ) {
      DECAP_TRACE( 7, "unprogrammed review already scheduled" );
      return;
   }
   reviewUnprogrammed_->runAfter( defaultUnprogrammedRetryInterval() );
   DECAP_TRACE( 3, "next unprogrammed review at ", reviewUnprogrammed_->expiry() );
}

void MplsDecapSm::doReviewUnprogrammed() {
   DECAP_TRACE( 3, "doReviewUnprogrammed" );
   DECAP_ASSERT( initialized(), "initialized()", name() );
   DECAP_ASSERT( reviewUnprogrammed_, "task", name() );
   for ( auto pass = unprogrammedRouteWork().workPass(); pass.next(); ) {
      const Mpls::RouteKey routeKey = pass.key();
      processRouteKey( routeKey );
      reviewUnprogrammed_->workCountInc();
      if ( reviewUnprogrammed_->shouldYield() ) {
         reviewUnprogrammed_->runAfter( defaultUnprogrammedRetryInterval() );
         return;
      }
   }
   maybeScheduleUnprogrammedReview();
}

} // namespace Vel
