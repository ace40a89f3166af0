#include "mpls/VelMplsReactors.h"

#include <functional>

#include "mpls/VelMplsTrace.h"
#include "mpls/transit/Parts.h"

namespace Vel {

class MplsSmReactors::LfibInfoReactor : public Mpls::LfibInfo::Reactor {
 public:
   explicit LfibInfoReactor( MplsSm& sm ) : sm_( sm ) {}
   void onNexthopResolutionAllowDefaultRoute() override {
      sm_.parts().nextHops.handleNexthopResolutionAllowDefaultRoute();
   }

 private:
   MplsSm& sm_;
};

class MplsSmReactors::MplsRoutingInfoReactor : public Mpls::RoutingInfo::Reactor {
 public:
   explicit MplsRoutingInfoReactor( MplsSm& sm ) : sm_( sm ) {}
   void onMplsRouting( L3::VrfName vrf ) override {
      if ( vrf == L3::VrfName::defaultVrf() ) { // no other VRF carries label forwarding
         sm_.handleMplsRouting( sm_.mplsRoutingEnabled( vrf ) );
      }
      sm_.watchStart();
   }

 private:
   MplsSm& sm_;
};

/// The VRF's number may come after its name, be lost, and be another one.
class MplsSmReactors::RouteStatusReactor : public Routing::Hardware::RouteStatus::Reactor {
 public:
   explicit RouteStatusReactor( MplsSm& sm ) : sm_( sm ) {}
   void onVrfStatus( L3::VrfName vrf ) override {
      sm_.handleVrfNumber( vrf );
      sm_.watchStart();
   }

 private:
   MplsSm& sm_;
};

class MplsSmReactors::TransitLfibReactor : public Mpls::LfibStatus::Reactor {
 public:
   explicit TransitLfibReactor( MplsSm& sm ) : sm_( sm ) {}
   void onLfibRoute( Mpls::RouteKey key ) override {
      sm_.handleLFibRoute( key );
      sm_.watchStart();
   }
   void onReady() override {
      if ( sm_.initialized() ) { // a start may have waited for nothing else
         sm_.maybeTransitionToWaitingForSync( L3::VrfName::defaultVrf() );
      }
      sm_.watchStart();
   }

 private:
   MplsSm& sm_;
};

class MplsSmReactors::LfibTrackingStatusReactor : public Mpls::LfibTrackingStatus::Reactor {
 public:
   explicit LfibTrackingStatusReactor( MplsSm& sm ) : sm_( sm ) {}
   void onViaSetKeyBacklog( Mpls::LfibViaSetKey key ) override {
      // The handling itself takes the key out of the backlog; only arrivals are work.
      if ( sm_.initialized() && notifier()->viaSetKeyBacklogHas( key ) ) {
         sm_.handleLFibViaSet( key );
      }
   }

 private:
   MplsSm& sm_;
};

class MplsSmReactors::MplsHwStatusReactor : public MplsHwStatus::Reactor {
 public:
   MplsHwStatusReactor( MplsSm& sm, MplsSmReactors& all ) : sm_( sm ), all_( all ) {}
   void onVrfStatus( VrfId vrfId ) override {
      if ( MplsHwVrfStatus* const status = notifier()->vrfStatus( vrfId ) ) {
         all_.mplsHwVrfStatusIs( status );
      } else {
         all_.mplsHwVrfStatusDel( vrfId );
      }
      sm_.watchStart();
   }

 private:
   MplsSm& sm_;
   MplsSmReactors& all_;
};

class MplsSmReactors::MplsHwVrfStatusReactor : public MplsHwVrfStatus::Reactor {
 public:
   MplsHwVrfStatusReactor( MplsSm& sm, MplsHwVrfStatus* status ) : sm_( sm ) {
      notifierIs( status );
   }
   void onRoute( Mpls::RouteKey key ) override {
      sm_.parts().driverReports.handleProgrammedRoute( *notifier(), key );
   }
   void onUnprogrammedRoute( Mpls::RouteKey key ) override {
      sm_.parts().driverReports.handleUnprogrammedRoute( *notifier(), key );
   }
   void onUnprogrammedAdjacency( const Ptr< Mpls::Hardware::L2Adjacency >& adjacency ) override {
      sm_.parts().driverReports.handleUnprogrammedAdj( *notifier(), adjacency );
   }
   void onMplsRouting() override {
      sm_.handleHwRoutingEnabled( notifier()->vrfId(), notifier()->mplsRouting() );
   }
   void onMcastHwIdSeq( U16 groupId ) override {
      sm_.parts().driverReports.handleMcastId( notifier()->vrfId(), groupId );
   }

 private:
   MplsSm& sm_;
};

class MplsSmReactors::VelL3StatusReactor : public VelL3Status::Reactor {
 public:
   VelL3StatusReactor( MplsSm& sm, MplsSmReactors& all ) : sm_( sm ), all_( all ) {}
   void onAdjHwStatus() override { all_.adjHwStatusIs(); }
   void onNextHopInfo( NextHopKey key ) override { sm_.parts().nextHops.handleNextHop( key ); }
   void onResolvedAddr( VrfAndIpAddr key ) override {
      sm_.parts().nextHops.handleResolvedV4Nexthop( key );
   }
   void onResolvedIp6Addr( VrfAndIpGenAddr key ) override {
      sm_.parts().nextHops.handleResolvedV6Nexthop( key );
   }
   void onVrfName( VrfId vrfId ) override { sm_.handleVrfName( vrfId ); }

 private:
   MplsSm& sm_;
   MplsSmReactors& all_;
};

class MplsSmReactors::AdjHwStatusReactor : public AdjHwStatus::Reactor {
 public:
   AdjHwStatusReactor( MplsSm& sm, AdjHwStatus* status ) : sm_( sm ) { notifierIs( status ); }
   void onAdjHwState( Fib::GlobalFecId id ) override {
      sm_.parts().driverReports.handleAdjHwState( id );
   }

 private:
   MplsSm& sm_;
};

class MplsSmReactors::HwFecIdResponseReactor : public FecIdToHwFecIdResponse::Reactor {
 public:
   explicit HwFecIdResponseReactor( MplsSm& sm ) : sm_( sm ) {}
   void onHwFecId( Fib::FecId fecId ) override { sm_.parts().fecs.handleHwFecIdResponse( fecId ); }

 private:
   MplsSm& sm_;
};

class MplsSmReactors::MplsMcastAdjRespReactor : public FecIdToHwFecIdResponse::Reactor {
 public:
   explicit MplsMcastAdjRespReactor( MplsSm& sm ) : sm_( sm ) {}
   void onHwFecId( Fib::FecId fecId ) override {
      sm_.parts().fecs.handleMplsMcastHwFecIdResp( fecId );
   }

 private:
   MplsSm& sm_;
};

class MplsSmReactors::InputStatusSummaryReactor : public MplsSmInputSummary::Reactor {
 public:
   explicit InputStatusSummaryReactor( MplsSm& sm ) : sm_( sm ) {}
   void onStatus() override {
      // "Not ready" before "ready" is an ordinary start; only a start with non-stop forwarding
      // waits for it.
      if ( sm_.mplsNonStopForwardingSupported() &&
           notifier()->status() == MplsSmInputStatus::mplsSmInputReady ) {
         sm_.handleInputStatusSummaryReady();
      }
   }

 private:
   MplsSm& sm_;
};

class MplsSmReactors::VelL3StartupStagePrereqsReactor
   : public L3StartupStagePrerequisitesStatus::Reactor {
 public:
   explicit VelL3StartupStagePrereqsReactor( MplsSm& sm ) : sm_( sm ) {}
   void onAdjSyncDone() override { sm_.handleSyncDone(); }

 private:
   MplsSm& sm_;
};

/// VrfTaskReactor, UnprogrammedRouteTaskReactor and RoutePublishTaskReactor: a task's run calls its
/// run function.
class MplsSmReactors::TaskReactor : public TimerTask::Reactor {
 public:
   TaskReactor( MplsSm&, std::function< void() > run ) : run_( std::move( run ) ) {}
   void onTaskRun() override { run_(); }

 private:
   const std::function< void() > run_;
};

/// Hears nothing: it keeps the clock bound for the tasks.
class MplsSmReactors::ClockReactor : public Clock::Reactor {
 public:
   explicit ClockReactor( MplsSm& ) {}
};

template< class R, class E, class... Args >
void MplsSmReactors::bind( const E& notifier, Args&&... args ) {
   if ( !notifier ) {
      return;
   }
   auto reactor = std::make_unique< R >( sm_, std::forward< Args >( args )... );
   reactor->notifierIs( &*notifier );
   reactors_.push_back( std::move( reactor ) );
}

MplsSmReactors::MplsSmReactors( MplsSm& sm ) : sm_( sm ) {
   const MplsSmInputs& in = sm.inputs();
   bind< LfibInfoReactor >( in.lfibInfo );
   bind< MplsRoutingInfoReactor >( in.mplsRoutingInfo );
   bind< TransitLfibReactor >( in.transitLfib );
   bind< RouteStatusReactor >( in.routingHwRouteStatus );
   bind< LfibTrackingStatusReactor >( Ptr( sm.lfibTrackingStatus() ) );
   bind< MplsHwStatusReactor >( in.mplsHwStatus, *this );
   bind< VelL3StatusReactor >( in.velL3Status, *this );
   bind< HwFecIdResponseReactor >( in.hwFecIdResponse );
   bind< MplsMcastAdjRespReactor >( sm.mplsMcastAdjResp() );
   bind< InputStatusSummaryReactor >( in.inputStatusSummary );
   bind< VelL3StartupStagePrereqsReactor >( in.velL3StartupStagePrereqs );
   bind< TaskReactor >( Ptr( sm.vrfTask() ), [&sm] { sm.parts().review.runReviewVrfsTask(); } );
   bind< TaskReactor >( Ptr( sm.unprogrammedRouteTask() ),
                        [&sm] { sm.parts().review.runUnprogrammedRouteReviewTask(); } );
   bind< TaskReactor >( Ptr( sm.routePublishTask() ),
                        [&sm] { sm.parts().publisher.runPublishRouteKeysTask(); } );
   bind< TaskReactor >( Ptr( sm.unreadTask() ), [&sm] { sm.handleUnread(); } );
   bind< TaskReactor >( Ptr( sm.startTask() ), [&sm] { sm.sayWhatStartWaitsFor(); } );
   bind< ClockReactor >( in.clock );
}

MplsSmReactors::~MplsSmReactors() = default;

void MplsSmReactors::mplsHwVrfStatusIs( MplsHwVrfStatus* status ) {
   VEL_ASSERT_TEXT( status, "_mplsHwVrfStatus",
                    "null _mplsHwVrfStatus parameter to mutator for Vel::MplsSm::mplsHwVrfStatus "
                    "not allowed",
                    "VelMplsSm", std::string() );
   const VrfId vrfId = status->vrfId();
   mplsHwVrfStatus_.erase( vrfId );
   mplsHwVrfStatus_.emplace( vrfId, std::make_unique< MplsHwVrfStatusReactor >( sm_, status ) );
   sm_.parts().driverReports.handleHwVrfStatus( vrfId );
}

void MplsSmReactors::mplsHwVrfStatusDel( VrfId vrfId ) {
   mplsHwVrfStatus_.erase( vrfId );
   sm_.parts().driverReports.handleHwVrfStatusGone();
}

void MplsSmReactors::mplsHwVrfStatusReconcile() {
   const auto& statuses = sm_.inputs().mplsHwStatus->vrfStatus();
   for ( const auto& [vrfId, status] : statuses ) {
      mplsHwVrfStatusIs( status.get() );
   }
   for ( const auto& [vrfId, reactor] : mplsHwVrfStatus_ ) {
      if ( !statuses.has( vrfId ) ) {
         mplsHwVrfStatusDel( vrfId );
      }
   }
}

void MplsSmReactors::adjHwStatusIs() {
   AdjHwStatus* const status = sm_.inputs().velL3Status->adjHwStatus().get();
   adjHwStatus_ = status ? std::make_unique< AdjHwStatusReactor >( sm_, status ) : nullptr;
}

} // namespace Vel
