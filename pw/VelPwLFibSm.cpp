#include "pw/VelPwLFibSm.h"

#include <algorithm>
#include <utility>
#include <vector>

#include "pw/VelPwTrace.h"

namespace Vel {

TraceHandle velPwLFibSmTrace( "VelPwLFibSm" );

VEL_ENTITY_SOURCE( PwIntfIdToFecIdCollection )
VEL_ENTITY_SOURCE( PwDecapLabel )
VEL_ENTITY_SOURCE( PwLFibSm )

class PwLFibSm::Reactors {
 public:
   explicit Reactors( PwLFibSm& sm )
      : pwStatus_( sm ), dstPortToHwFecIdResponse_( sm ), pwLfibTrackingStatus_( sm ) {
      pwLfib_.notifierIs( sm.pwLfib().get() );
      pwStatus_.notifierIs( sm.pwStatus().get() );
      dstPortToHwFecIdResponse_.notifierIs( sm.hwFecIdResponse().get() );
   }
   /// From now on; what is on the backlog already is its owner's to handle.
   void trackingIs( const Mpls::LfibTrackingStatus& tracking ) {
      pwLfibTrackingStatus_.notifierIs( &tracking );
   }

 private:
   // Keeps the LFIB mounted.
   class PwLfibReactor : public Mpls::LfibStatus::Reactor {};

   class PwStatusReactor : public Pseudowire::Status::Reactor {
    public:
      explicit PwStatusReactor( PwLFibSm& sm ) : sm_( sm ) {}
      void onLocalConnectorInfo( IntfId pwIntfId ) override {
         sm_.handleConnectorChange( pwIntfId );
      }

    private:
      PwLFibSm& sm_;
   };

   class DstPortToHwFecIdResponseReactor : public FecIdToHwFecIdResponse::Reactor {
    public:
      explicit DstPortToHwFecIdResponseReactor( PwLFibSm& sm ) : sm_( sm ) {}
      void onHwFecId( Fib::FecId fecId ) override { sm_.handleHwFecIdResponse( fecId ); }

    private:
      PwLFibSm& sm_;
   };

   class PwLfibTrackingStatusReactor : public Mpls::LfibTrackingStatus::Reactor {
    public:
      explicit PwLfibTrackingStatusReactor( PwLFibSm& sm ) : sm_( sm ) {}
      void onRouteKeyBacklog( Mpls::RouteKey routeKey ) override {
         if ( notifier()->routeKeyBacklogHas( routeKey ) ) { // else it has just been handled
            sm_.handleLFibRoute( routeKey );
         }
      }

    private:
      PwLFibSm& sm_;
   };

   PwLfibReactor pwLfib_;
   PwStatusReactor pwStatus_;
   DstPortToHwFecIdResponseReactor dstPortToHwFecIdResponse_;
   PwLfibTrackingStatusReactor pwLfibTrackingStatus_;
};

// --- The start

PwLFibSm::PwLFibSm( Ptr< const Mpls::LfibStatus > lfibStatus,
                    Ptr< VelPw::DecapInfoTable > decapInfoTable,
                    Ptr< const Pseudowire::Status > pwStatus, Ptr< FecIdToHwFecIdRequest > request,
                    Ptr< const FecIdToHwFecIdResponse > response, Ptr< TimerWheel > timerWheel )
   : lfibTrackingStatus_( make< Mpls::LfibTrackingStatus >( "PwLFibSm-trackingStatus" ) ),
     pwLfib_( std::move( lfibStatus ) ),
     decapInfoTable_( std::move( decapInfoTable ) ),
     pwStatus_( std::move( pwStatus ) ),
     hwFecIdRequest_( std::move( request ) ),
     hwFecIdResponse_( std::move( response ) ),
     timerWheel_( std::move( timerWheel ) ) {
   handleInitialized();
}

PwLFibSm::~PwLFibSm() {
   if ( timerWheel_ ) {
      timerWheel_->cancel( unreadTimer_ );
   }
}

void PwLFibSm::handleInitialized() {
   PW_TRACE( 3 );
   PW_ASSERT( decapInfoTable_, "decapInfoTable()", "", name() );
   PW_ASSERT( pwLfib_, "pwLfib()", "", name() );
   PW_ASSERT( pwStatus_ && hwFecIdRequest_ && hwFecIdResponse_ && timerWheel_,
              "pwStatus() && hwFecIdRequest() && hwFecIdResponse() && timerWheel()", "", name() );
   clearTablesOfBefore();
   numAllocatorConfig_ = make< NumAllocatorConfig >( U64{ 0 }, U64{ 0xFFFF'FFFF } );
   numAllocatorConfig_->expiryTimeIs( 10.0 );
   numAllocatorStatus_ = make< NumAllocatorStatus >();
   numAllocator_ = make< NumAllocator >( numAllocatorConfig_, numAllocatorStatus_,
                                         Ptr< Clock >( timerWheel_->clock() ) );
   reactors_ = std::make_unique< Reactors >( *this );
   lfibTrackingSm_ = make< Mpls::LfibTrackingSm >(
      "PwLfibSm-TrackingSm", pwLfib_, lfibTrackingStatus_, Mpls::LfibTrackingMode::routes );
   reactors_->trackingIs( *lfibTrackingStatus_ );
   initialized_ = true;
   handleLFibRoute();
}

// Requests of this instance have versions above all of an earlier one, and above what hardware has
// answered should the request table be a new one: nothing of that is taken for an answer to this.
void PwLFibSm::clearTablesOfBefore() {
   U64 last = hwFecIdRequest_->pwRequestVersion();
   for ( const auto& [fecId, answer] : hwFecIdResponse_->hwFecId() ) {
      last = std::max( last, answer.version );
   }
   hwFecIdRequest_->pwRequestVersionIs( last );
   decapInfoTable_->labelToPwDecapInfoDelAll();
   hwFecIdRequest_->fecDelAll();
   hwFecIdRequest_->hwFecIdRequestDelAll();
}

// --- Routes

void PwLFibSm::handleLFibRoute() {
   PW_TRACE( 3, "backlog ", lfibTrackingStatus_->routeKeyBacklogs() );
   for ( const Mpls::RouteKey routeKey : lfibTrackingStatus_->routeKeyBacklog() ) {
      handleLFibRoute( routeKey );
   }
   lfibTrackingStatus_->routeKeyBacklogDelAll();
}

void PwLFibSm::handleLFibRoute( Mpls::RouteKey routeKey ) {
   PW_TRACE( 3, "route ", routeKey );
   unreadRouteKeyDel( routeKey );
   const Mpls::LfibRoute route = pwLfib_->lfibRoute( routeKey );
   if ( !!route || !lookAgainIfUnread( routeKey ) ) {
      handleReadRoute( routeKey, route );
   }
   lfibTrackingStatus_->routeKeyBacklogDel( routeKey );
}

void PwLFibSm::handleReadRoute( Mpls::RouteKey routeKey, const Mpls::LfibRoute& route ) {
   if ( !route ) {
      PW_TRACE( 3, "Deleting route ", routeKey );
   }
   // Only pseudowire routes are remembered: the LFIB may hold a million others.
   const bool ours = route.viaSetKey.viaType() == Mpls::viaTypeMplsPseudowire;
   const MplsLabel label = routeKey.topLabel();
   PwDecapLabel* const routes = ours ? decapLabelIs( label ) : decapLabel( label );
   if ( !ours && !!route && velPwLFibSmTrace.enabled( 7 ) ) {
      pwIntfIdOfRoute( routeKey ); // says why not
   }
   if ( routes == nullptr ) {
      return;
   }
   routes->routeKeyIs( routeKey, ours );
   decideLabel( *routes );
   if ( routes->routeKeys() == 0 ) {
      decapLabelDel( label );
   }
}

// The last in the order of keys comes first: the single label before all that stand on others.
void PwLFibSm::decideLabel( PwDecapLabel& routes ) {
   std::vector< Mpls::RouteKey > routeKeys;
   for ( const Mpls::RouteKey routeKey : routes.routeKey() ) {
      routeKeys.push_back( routeKey );
   }
   for ( auto routeKey = routeKeys.rbegin(); routeKey != routeKeys.rend(); ++routeKey ) {
      if ( maybeAddPwLfibRouteDecapInfo( *routeKey ) ) {
         routes.decidingRouteKeyIs( *routeKey );
         return;
      }
      if ( unreadRouteKeyHas( *routeKey ) && routes.decidingRouteKey() == *routeKey ) {
         return; // what it has brought about stays
      }
   }
   routes.decidingRouteKeyIs( Mpls::RouteKey() );
   withdraw( routes.label() );
}

// Whether the label leads where the route does.
bool PwLFibSm::maybeAddPwLfibRouteDecapInfo( Mpls::RouteKey routeKey ) {
   const std::optional< IntfId > pwIntfId = pwIntfIdOfRoute( routeKey );
   if ( !pwIntfId ) {
      return false;
   }
   const MplsLabel label = routeKey.topLabel();
   PW_TRACE( 7, "mplsPseudowire adj, pwIntfId: ", *pwIntfId );
   if ( PseudowireIntfId::isPortPseudowireIntfId( *pwIntfId ) ) {
      PW_TRACE( 7, "port pw" );
      // The entry first: at no time does it name a hardware FEC that is not requested.
      decapInfoTable_->labelToPwDecapInfoIs( { label, *pwIntfId, {}, {} } );
      removeHwFecIdRequest( label );
      return true;
   }
   if ( decapLabelToVlanPwIntfId( label ) == *pwIntfId ) {
      return true; // its connector has been followed all the time
   }
   withdraw( label );
   PW_ASSERT( decapLabelToVlanPwIntfId( label ) == IntfId(),
              "decapLabelToVlanPwIntfId( label ) == IntfId()", "", textOf( label ) );
   addHwFecIdRequest( label, *pwIntfId );
   return true;
}

// The pseudowire that the route leads into; none if it has not the one shape that can be carried
// out, or cannot be read.
std::optional< IntfId > PwLFibSm::pwIntfIdOfRoute( Mpls::RouteKey routeKey ) {
   unreadRouteKeyDel( routeKey );
   const Mpls::LfibRoute route = pwLfib_->lfibRoute( routeKey );
   if ( !route ) {
      lookAgainIfUnread( routeKey );
      return std::nullopt;
   }
   const Mpls::LfibViaSet viaSet = pwLfib_->lfibViaSet( route.viaSetKey );
   if ( viaSet.null() ) {
      PW_TRACE( 7, "No ViaSet found for key index: ", route.viaSetKey.index() );
      lookAgainIfUnread( routeKey );
      return std::nullopt;
   }
   if ( viaSet.key().viaType() != Mpls::viaTypeMplsPseudowire ) {
      PW_TRACE( 7, "ViaSet viaType was not MplsPseudowire. Was ", viaSet.key().viaType() );
      return std::nullopt;
   }
   if ( viaSet.viaKeys() != 1 ) {
      PW_TRACE( 7, "Pw ViaSet does not have a single via (unsupported)" );
      return std::nullopt;
   }
   const Mpls::LfibViaKey viaKey = viaSet.viaKey( 0 );
   const Mpls::LfibPwVia via = pwLfib_->lfibPwVia( viaKey );
   if ( via.key.empty() ) {
      PW_TRACE( 7, "No pw via found for key index: ", viaKey.index(), " source: ", viaKey.source(),
                " viaType: ", viaKey.viaType() );
      lookAgainIfUnread( routeKey );
      return std::nullopt;
   }
   if ( !PseudowireIntfId::isPortPseudowireIntfId( via.pwIntfId ) &&
        !PseudowireIntfId::isVlanPseudowireIntfId( via.pwIntfId ) ) {
      PW_TRACE( 7, "Pw via is not into a pseudowire: ", via.pwIntfId );
      return std::nullopt;
   }
   return via.pwIntfId;
}

// To be asked after a look-up that gave null: whether that is for want of reading.
bool PwLFibSm::lookAgainIfUnread( Mpls::RouteKey routeKey ) {
   if ( !pwLfib_->unread() ) {
      return false;
   }
   PW_TRACE( 3, "Unread, to be looked at again: ", routeKey );
   unreadRouteKeyIs( routeKey );
   if ( unreadTimer_ == 0 ) {
      unreadTimer_ = timerWheel_->schedule( unreadRetryInterval, [this] { handleUnreadTimer(); } );
   }
   return true;
}

void PwLFibSm::handleUnreadTimer() {
   unreadTimer_ = 0;
   for ( const Mpls::RouteKey routeKey : unreadRouteKey() ) {
      handleLFibRoute( routeKey );
   }
}

void PwLFibSm::withdraw( MplsLabel label ) {
   removeDecapInfoTableEntry( label );
   removeHwFecIdRequest( label );
}

void PwLFibSm::removeDecapInfoTableEntry( MplsLabel label ) {
   if ( decapInfoTable_->labelToPwDecapInfoDel( label ) ) {
      PW_TRACE( 7, "delete decap info for label: ", label );
   }
}

Ptr< PwLFibSm >
PwLFibSmIs( Ptr< const Mpls::LfibStatus > lfibStatus, Ptr< VelPw::DecapInfoTable > decapInfoTable,
            Ptr< const Pseudowire::Status > pwStatus, Ptr< FecIdToHwFecIdRequest > request,
            Ptr< const FecIdToHwFecIdResponse > response, Ptr< TimerWheel > timerWheel ) {
   return make< PwLFibSm >( std::move( lfibStatus ), std::move( decapInfoTable ),
                            std::move( pwStatus ), std::move( request ), std::move( response ),
                            std::move( timerWheel ) );
}

Ptr< PwLFibSm > pwLFibSmFactory( Ptr< const Mpls::LfibStatus > lfibStatus,
                                 Ptr< VelPw::DecapInfoTable > decapInfoTable,
                                 Ptr< const Pseudowire::Status > pwStatus,
                                 Ptr< FecIdToHwFecIdRequest > request,
                                 Ptr< const FecIdToHwFecIdResponse > response,
                                 Ptr< TimerWheel > timerWheel ) {
   return PwLFibSmIs( std::move( lfibStatus ), std::move( decapInfoTable ), std::move( pwStatus ),
                      std::move( request ), std::move( response ), std::move( timerWheel ) );
}

} // namespace Vel
