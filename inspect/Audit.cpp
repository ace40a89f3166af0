#include "inspect/AuditComparison.h"

namespace Vel::Inspect {

using L2Adj = Mpls::Hardware::L2Adjacency;
using Mpls::RouteKey;

AuditComparison::AuditComparison( const EntityManager& entities, const InterfaceName& name,
                                  size_t limit )
   : name_( name ),
     foreignWays_( entities, name ),
     limit_( limit ),
     sm_( mountedRoot< MplsSm >( entities, "mplsSm" ) ),
     lfibHwStatus_( mountedRoot< Mpls::LfibHwStatus >( entities, "lfibHwStatus" ) ),
     hwMplsStatus_( mountedRoot< Mpls::Hardware::Status >( entities, "routingHwMplsStatus" ) ),
     arp_( mountedRoot< ProactiveArpNexthopSm >( entities, "proactiveArpNexthopSm" ) ),
     watched_( mountedRoot< RouteReactorConfig >( entities, "routeReactorConfig" ) ),
     watched6_( mountedRoot< Route6ReactorConfig >( entities, "route6ReactorConfig" ) ),
     fecs_( entities ),
     states_( entities ),
     insight_( entities.root< MplsHwInsight >( "mplsHwInsight" ) ) {
   const auto& numbers =
      mountedRoot< Routing::Hardware::RouteStatus >( entities, "routingHwRouteStatus" );
   if ( numbers.vrfStatusHas( LfibIntent::vrf() ) ) {
      vrfId_ = numbers.vrfStatus( LfibIntent::vrf() );
      config_ = mountedRoot< MplsHwConfig >( entities, "mplsHwConfig" ).vrfConfig( vrfId_ );
      status_ = mountedRoot< MplsHwStatus >( entities, "mplsHwStatus" ).vrfStatus( vrfId_ );
   }
   state_ = sm_.mplsState( LfibIntent::vrf() );
   VEL_ASSERT_TEXT( !sm_.forwardingIntoExternalFecsSupported() ||
                       ( fecs_.request() && fecs_.response() ),
                    "request && response", "an entity is not mounted", "velmpls",
                    "hwFecIdRequest, hwFecIdResponse" );
}

AuditReport AuditComparison::run() {
   readQueues();
   used_.reserve( config_ ? config_->l2Adjacencys() : 0 );
   viasCompared_.reserve( hwMplsStatus_.adjacencys() );
   const std::vector< RouteKey > labels = allLabels();
   report_.labels = labels.size();
   for ( const RouteKey key : labels ) {
      compareLabel( key );
   }
   key_ = RouteKey();
   allowWhatFecsUse();
   compareRouting();
   compareL2Adjacencies();
   compareNextHops();
   compareFecs();
   return std::move( report_ );
}

std::vector< RouteKey > AuditComparison::allLabels() const {
   LabelSet<> found;
   states_.inputs().lfib().lfibRouteEach(
      [&]( const Mpls::LfibRoute& route ) { found.insert( route.routeKey ); },
      Mpls::LfibWalk::skip );
   const auto add = [&]( const auto& collection ) {
      for ( const auto& [key, value] : collection ) {
         found.insert( key );
      }
   };
   if ( config_ ) {
      add( config_->route() );
   }
   if ( status_ ) {
      add( status_->route() );
      for ( const RouteKey key : status_->unprogrammedRoute() ) {
         found.insert( key );
      }
   }
   add( lfibHwStatus_.unprogrammedRoute() );
   add( hwMplsStatus_.route() );
   std::vector< RouteKey > labels;
   labels.reserve( found.size() );
   for ( const RouteKey key : found ) {
      labels.push_back( key );
   }
   std::ranges::sort( labels ); // deeper stacks stand behind all others in the set
   return labels;
}

// --- Pending work.

void AuditComparison::readQueues() {
   AuditQueues& queues = report_.queues;
   queues.lfib = states_.inputs().lfib().ringLag();
   if ( queues.lfib == 0 && states_.inputs().lfib().pollPending() ) {
      queues.lfib = 1; // the walk over the LFIB is not over, and its rest is not counted
   }
   queues.hardware = insight_ ? insight_->operationsWaiting().value_or( 0 ) : 0;
   if ( state_ ) {
      queues.review = state_->routeKeyForReviews() + state_->l3AdjForReviews() +
                      state_->l2AdjForReviews() + state_->l2AdjPendingForDeletes();
      queues.publishing = state_->routeKeyForPublishs();
   }
}

/// The queue in which the label in hand stands, or an adjacency that it depends on.
std::string_view AuditComparison::queuedFor() const {
   if ( report_.queues.review + report_.queues.publishing == 0 ) {
      return {};
   }
   if ( state_->routeKeyForReviewHas( key_ ) ) {
      return "the review of the route";
   }
   if ( state_->routeKeyForPublishHas( key_ ) ) {
      return "publishing";
   }
   if ( l3Adj_ && state_->l3AdjForReviewHas( l3Adj_->index() ) ) {
      return "the review of its L3 adjacency";
   }
   if ( l3Adj_ && l3Adj_->l2Adjacency() &&
        state_->l2AdjForReviewHas( l3Adj_->l2Adjacency()->index() ) ) {
      return "the review of its L2 adjacency";
   }
   if ( l3Adj_ && l3Adj_->backupAdj() &&
        state_->l3AdjForReviewHas( l3Adj_->backupAdj()->index() ) ) {
      return "the review of its backup";
   }
   return {};
}

/// Pending work that may explain a difference at that stage. Whether the work concerns the label or
/// object in hand is not known.
std::string_view AuditComparison::excuse( AuditStage stage ) const {
   const AuditQueues& queues = report_.queues;
   if ( stage != AuditStage::reported && queues.lfib != 0 ) {
      return "the LFIB's announcements";
   }
   if ( stage != AuditStage::written && queues.hardware != 0 ) {
      return "the hardware";
   }
   return {};
}

void AuditComparison::objectDiffers( AuditStage stage, std::string object, std::string expected,
                                     std::string found ) {
   std::string_view waitsFor = excuse( stage );
   if ( waitsFor.empty() && stage == AuditStage::written && report_.queues.review != 0 ) {
      waitsFor = "a review";
   }
   if ( !waitsFor.empty() ) {
      ++report_.pendingCount;
      if ( report_.pendings.size() < limit_ ) {
         report_.pendings.push_back( { {}, std::move( object ), waitsFor } );
      }
      return;
   }
   ++report_.differenceCount;
   if ( report_.differences.size() < limit_ ) {
      report_.differences.push_back(
         { {}, std::move( object ), stage, std::move( expected ), std::move( found ) } );
   }
}

// --- One label.

void AuditComparison::compareLabel( RouteKey key ) {
   key_ = key;
   states_.inputs().read( key, intent_ );
   findRecords();
   differs_ = false;
   fecAgrees_ = false;
   waitsFor_ = queuedFor();
   compareStages();
   // A FEC that does not agree may await its review, and so its next hops may not be watched yet.
   needNextHops( !byFec() || fecAgrees_ );
   if ( differs_ ) {
      ++report_.differing;
   } else if ( !waitsFor_.empty() ) {
      ++report_.pending;
      ++report_.pendingCount;
      if ( report_.pendings.size() < limit_ ) {
         report_.pendings.push_back( { key_, {}, waitsFor_ } );
      }
   } else {
      ++report_.agree;
      report_.elsewhere += intent_.kind == IntentKind::elsewhere;
   }
}

void AuditComparison::findRecords() {
   route_ = state_ ? state_->route( key_ ) : nullptr;
   l3Adj_ = route_ ? route_->l3Adj().get() : nullptr;
   fec_ = l3Adj_ ? l3Adj_->extFecInfo().get() : nullptr;
   written_ = config_ ? config_->route().find( key_ ) : nullptr;
   reported_ = status_ ? status_->route().find( key_ ) : nullptr;
   refused_ = status_ && status_->unprogrammedRouteHas( key_ );
}

void AuditComparison::compareStages() {
   if ( byFec() ) {
      compareFecWritten();
      compareFecReported();
      comparePublished();
      return;
   }
   compareWritten();
   if ( intent_.kind != IntentKind::elsewhere || written_ ) {
      compareReported();
      comparePublished();
   }
}

void AuditComparison::needNextHops( bool required ) {
   for ( const NextHopKey& nextHop : intent_.nextHops ) {
      bool& must = *needed_.emplace( nextHop, false ).first;
      must = must || required;
   }
}

void AuditComparison::compareWritten() {
   const auto expected = [&] { return intentText(); };
   const auto found = [&]( std::string_view text ) {
      differ( AuditStage::written, expected, [&] { return std::string( text ); } );
   };
   if ( !written_ ) {
      if ( intent_.kind == IntentKind::forwarded ) {
         found( "no route" );
      }
      return;
   }
   const Ptr< L2Adj >& adjacency = written_->l2Adjacency;
   if ( adjacency ) {
      used_.insert( adjacency.get() );
   }
   if ( intent_.kind != IntentKind::forwarded ) {
      differ( AuditStage::written, expected, [&] { return viasOf( adjacency ); } );
   } else if ( !adjacency ) {
      found( "a route without an L2 adjacency" );
   } else if ( !config_->l2AdjacencyHas( adjacency ) ) {
      found( joinText( "L2 adjacency ", adjacency->index(), ", which is not written" ) );
   } else if ( adjacency->l2ViaSet().l2Via() != intent_.vias ) {
      differ( AuditStage::written, expected, [&] { return viasOf( adjacency ); } );
   }
}

void AuditComparison::compareReported() {
   if ( !written_ ) {
      if ( reported_ || refused_ ) {
         differ(
            AuditStage::reported, [] { return std::string( "no route" ); },
            [&] { return reported_ ? versionText( *reported_ ) : refusalText(); } );
      }
      return;
   }
   const auto expected = [&] { return versionText( *written_ ); };
   if ( refused_ ) {
      differ( AuditStage::reported, expected, [&] { return refusalText(); } );
   } else if ( !reported_ ) {
      differ( AuditStage::reported, expected, [] { return std::string( "no answer" ); } );
   } else if ( *reported_ != *written_ ) {
      differ( AuditStage::reported, expected, [&] { return versionText( *reported_ ); } );
   } else {
      compareReportedAdjacency();
   }
}

// Hardware may keep the former version of an adjacency that it refused, and the routes into it.
void AuditComparison::compareReportedAdjacency() {
   const Ptr< L2Adj >& adjacency = written_->l2Adjacency;
   if ( !adjacency || !config_->l2AdjacencyHas( adjacency ) ) {
      return; // the comparison with what is written has reported it
   }
   const U32 wanted = config_->l2Adjacency( adjacency );
   const U32* const carriedOut = status_->l2Adjacency().find( adjacency );
   const bool listed = status_->unprogrammedAdjacencyHas( adjacency );
   if ( carriedOut && *carriedOut == wanted && !listed ) {
      return;
   }
   const U64 index = adjacency->index();
   differ(
      AuditStage::reported,
      [&] { return joinText( "L2 adjacency ", index, " in version ", wanted ); },
      [&] {
         return joinText( carriedOut ? joinText( "version ", *carriedOut ) : "no such adjacency",
                          listed ? ", " + adjacencyRefusal( index ) : "" );
      } );
}

void AuditComparison::comparePublished() {
   const Mpls::RouteInfo* const info = lfibHwStatus_.unprogrammedRoute().find( key_ );
   const Mpls::Hardware::Route* const route = hwMplsStatus_.route().find( key_ );
   const bool held = inHardware();
   const auto differs = [&]( std::string_view expected, std::string_view found ) {
      differ(
         AuditStage::published, [&] { return std::string( expected ); },
         [&] { return std::string( found ); } );
   };
   if ( !intent_.accepted() ) {
      if ( info || route ) {
         differs( "nothing", publishedText( info ) );
      }
      return;
   }
   // The code follows from the earlier stages: a difference that they have reported is not
   // repeated.
   const bool said = differs_ || !status_ || !status_->mplsRouting();
   const RouteStatusCode code = codeOf( states_.of( key_, intent_ ).state );
   if ( !info && !route && code == RouteStatusCode::notProgrammed &&
        intent_.kind == IntentKind::awaited ) {
      return; // without its via set the route may not have been published yet
   }
   const bool same =
      info && ( info->statusCode == code ||
                ( said && held == ( info->statusCode != RouteStatusCode::notProgrammed ) ) );
   if ( !same ) {
      differs( textOf( code ), publishedText( info ) );
   }
   if ( !route ) {
      differs( "a published route", "none" );
   } else if ( held && byFec() ) {
      comparePublishedFec( *route );
   } else if ( held ) {
      comparePublishedAdjacency( *route );
   }
}

void AuditComparison::comparePublishedAdjacency( const Mpls::Hardware::Route& route ) {
   const Mpls::Hardware::Adjacency* const adjacency = route.adjacency.get();
   const L2Adj* const l2Adj = adjacency ? adjacency->l2Adjacency().get() : nullptr;
   const auto indexText = []( const L2Adj* of ) {
      return of ? joinText( "L2 adjacency ", of->index() ) : std::string( "no L2 adjacency" );
   };
   if ( l2Adj == nullptr || l2Adj != reported_->l2Adjacency.get() ) {
      differ(
         AuditStage::published, [&] { return indexText( reported_->l2Adjacency.get() ); },
         [&] { return indexText( l2Adj ); } );
      return;
   }
   comparePublishedVias( *adjacency, l2Adj->l2ViaSet().l2Via() );
}

void AuditComparison::comparePublishedVias( const Mpls::Hardware::Adjacency& adjacency,
                                            const std::vector< Mpls::Hardware::L2Via >& expected ) {
   if ( viasCompared_.has( &adjacency ) ) {
      return;
   }
   std::vector< Mpls::Hardware::L2Via > vias;
   for ( const auto& [index, via] : adjacency.via() ) {
      vias.insert( vias.end(), via.l2Via.l2Via().begin(), via.l2Via.l2Via().end() );
   }
   sortEachOnce( vias );
   if ( vias == expected ) {
      viasCompared_.insert( &adjacency );
      return;
   }
   differ(
      AuditStage::published, [&] { return viasText( expected, name_ ); },
      [&] { return viasText( vias, name_ ); } );
}

// --- Label forwarding as a whole, adjacencies and next hops.

void AuditComparison::compareRouting() {
   const auto text = []( bool on ) { return std::string( on ? "on" : "off" ); };
   const bool written = config_ && config_->mplsRouting();
   const bool reported = status_ && status_->mplsRouting();
   if ( written != states_.inputs().routing() ) {
      objectDiffers( AuditStage::written, "label forwarding", text( states_.inputs().routing() ),
                     text( written ) );
   }
   if ( reported != written ) {
      objectDiffers( AuditStage::reported, "label forwarding", text( written ), text( reported ) );
   }
}

// An adjacency that is programmed as a FEC, or that protects another, has an L2 adjacency and next
// hops that no written route leads to.
void AuditComparison::allowWhatFecsUse() {
   if ( !state_ ) {
      return;
   }
   for ( const auto& [index, l3Adj] : state_->l3Adjacency() ) {
      if ( l3Adj->primaryAdjs() == 0 && !l3Adj->extFecInfo() ) {
         continue;
      }
      if ( l3Adj->hwL2Adjacency() ) {
         used_.insert( l3Adj->hwL2Adjacency().get() );
      }
      for ( const IpAddrIntfId& nextHop : l3Adj->nextHop() ) {
         needed_.emplace( { nextHop.l3Intf, nextHop.ipGenAddr }, false );
      }
   }
}

void AuditComparison::compareL2Adjacencies() {
   const auto object = []( const Ptr< L2Adj >& adjacency ) {
      return joinText( "L2 adjacency ", adjacency->index() );
   };
   if ( config_ ) {
      for ( const auto& [adjacency, version] : config_->l2Adjacency() ) {
         if ( !used_.has( adjacency.get() ) ) {
            objectDiffers( AuditStage::written, object( adjacency ), "none: no route uses it",
                           viasOf( adjacency ) );
         }
      }
   }
   if ( !status_ ) {
      return;
   }
   const auto written = [&]( const Ptr< L2Adj >& adjacency ) {
      return config_ && config_->l2AdjacencyHas( adjacency );
   };
   for ( const auto& [adjacency, version] : status_->l2Adjacency() ) {
      if ( !written( adjacency ) ) {
         objectDiffers( AuditStage::reported, object( adjacency ), "none",
                        joinText( "version ", version ) );
      }
   }
   for ( const Ptr< L2Adj >& adjacency : status_->unprogrammedAdjacency() ) {
      if ( !written( adjacency ) ) {
         objectDiffers( AuditStage::reported, object( adjacency ), "none",
                        adjacencyRefusal( adjacency->index() ) );
      }
   }
}

void AuditComparison::compareNextHops() {
   for ( const ProactiveArpEntry& entry : arp_.entry() ) {
      compareWatched( { entry.intf, entry.addr } );
   }
   for ( const VrfAndIpAddr& entry : watched_.watchedAddr() ) {
      compareWatched( { {}, entry.ipAddr } );
   }
   for ( const VrfAndIpGenAddr& entry : watched6_.watchedIp6Addr() ) {
      compareWatched( { {}, entry.ipGenAddr } );
   }
   // compareWatched() has removed the next hops that are watched.
   for ( const auto& [key, required] : needed_ ) {
      if ( required ) {
         objectDiffers( AuditStage::written, nextHopText( key.addr, key.intf, name_ ), "watched",
                        "not watched" );
      }
   }
}

void AuditComparison::compareWatched( const NextHopKey& key ) {
   if ( !needed_.erase( key ) ) {
      objectDiffers( AuditStage::written, nextHopText( key.addr, key.intf, name_ ),
                     "not watched: no label needs it", "watched" );
   }
}

// --- Words.

std::string AuditComparison::intentText() const {
   if ( intent_.intoFec ) {
      return fecIntentText();
   }
   return intent_.kind == IntentKind::forwarded ? viasText( intent_.vias, name_ )
                                                : "no route: " + intent_.reason;
}

std::string AuditComparison::viasOf( const Ptr< L2Adj >& adjacency ) const {
   return adjacency ? viasText( adjacency->l2ViaSet().l2Via(), name_ )
                    : "a route without an L2 adjacency";
}

std::string AuditComparison::versionText( const MplsHwRoute& route ) const {
   return joinText( "version ", route.version, " with ",
                    route.l2Adjacency ? joinText( "L2 adjacency ", route.l2Adjacency->index() )
                                      : "no L2 adjacency" );
}

// The status has one reason for all refusals; a driver with MplsHwInsight tells the reason of each.
std::string AuditComparison::refusalText() const {
   const auto told = insight_ ? insight_->routeRefusal( vrfId_, key_ ) : std::nullopt;
   return joinText( "refused: ", told.value_or( status_->unprogrammedReason() ) );
}

std::string AuditComparison::adjacencyRefusal( U64 index ) const {
   const auto told = insight_ ? insight_->adjacencyRefusal( vrfId_, index ) : std::nullopt;
   return joinText( "refused: ", told.value_or( status_->unprogrammedReason() ) );
}

std::string AuditComparison::publishedText( const Mpls::RouteInfo* info ) {
   return info ? textOf( info->statusCode ) : "no status";
}

AuditReport Audit::run( size_t limit ) const {
   return AuditComparison( entities_, name_, limit ).run();
}

} // namespace Vel::Inspect
