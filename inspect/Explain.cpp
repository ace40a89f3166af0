#include "inspect/ExplainChain.h"

#include <algorithm>
#include <array>
#include <cstdio>
#include <set>

#include "inspect/Words.h"

namespace Vel::Inspect {

using Mpls::RouteKey;

namespace {

constexpr size_t namedNextHops = 3; // in the text of what a link waits for; the rest is counted

Value secondsOrNothing( double seconds ) {
   return seconds == neverTime ? Value() : Value( seconds );
}

} // namespace

// --- Finding.

ChainReader::ChainReader( const EntityManager& roots, RouteKey key,
                          const InterfaceName& interfaceName, std::string ignoredReason )
   : key_( key ),
     interfaceName_( interfaceName ),
     foreignWays_( roots, interfaceName ),
     fecs_( roots ),
     ignoredReason_( std::move( ignoredReason ) ) {
   clock_ = required< Clock >( roots, "clock" );
   sm_ = required< MplsSm >( roots, "mplsSm" );
   lfib_ = required< Mpls::LfibStatus >( roots, "transitLfib" );
   lfibHwStatus_ = required< Mpls::LfibHwStatus >( roots, "lfibHwStatus" );
   hwMpls_ = required< Mpls::Hardware::Status >( roots, "routingHwMplsStatus" );
   hwConfig_ = required< MplsHwConfig >( roots, "mplsHwConfig" );
   hwStatus_ = required< MplsHwStatus >( roots, "mplsHwStatus" );
   l3Status_ = required< VelL3Status >( roots, "velL3Status" );
   numbers_ = required< Routing::Hardware::RouteStatus >( roots, "routingHwRouteStatus" );
   lfibInfo_ = roots.root< Mpls::LfibInfo >( "lfibInfo" );
   insight_ = roots.root< MplsHwInsight >( "mplsHwInsight" );
   if ( fault_.empty() && sm_->forwardingIntoExternalFecsSupported() ) {
      required< FecIdToHwFecIdRequest >( roots, "hwFecIdRequest" );
      required< FecIdToHwFecIdResponse >( roots, "hwFecIdResponse" );
   }
   if ( fault_.empty() ) {
      findVrf();
      findRecords();
   }
}

template< class T >
const T* ChainReader::required( const EntityManager& roots, std::string_view name ) {
   const T* const found = roots.root< T >( name );
   if ( found == nullptr && fault_.empty() ) {
      fault_ = joinText( "no \"", name, "\" is mounted" );
   }
   return found;
}

// The driver knows the VRF by its number: without one nothing was written.
void ChainReader::findVrf() {
   vrf_ = sm_->mplsState( vrfName_ );
   if ( !numbers_->vrfStatusHas( vrfName_ ) ) {
      return;
   }
   vrfId_ = numbers_->vrfStatus( vrfName_ );
   config_ = hwConfig_->vrfConfig( *vrfId_ );
   status_ = hwStatus_->vrfStatus( *vrfId_ );
}

void ChainReader::findRecords() {
   route_ = lfib_->lfibRoute( key_ );
   if ( !!route_ ) {
      viaSet_ = lfib_->lfibViaSet( route_.viaSetKey );
   }
   record_ = vrf_ ? vrf_->route( key_ ) : nullptr;
   l3Adj_ = record_ ? record_->l3Adj().get() : nullptr;
   if ( l3Adj_ ) {
      l2Adj_ = l3Adj_->l2Adjacency().get();
      fec_ = l3Adj_->extFecInfo().get();
      hwAdj_ = hwMpls_->adjacency( l3Adj_->index() );
   }
   written_ = config_ ? config_->route().find( key_ ) : nullptr;
   reported_ = status_ ? status_->route().find( key_ ) : nullptr;
}

// --- Obstacles.

void ChainReader::fails( ChainLink& link, std::string text, double since, std::string waitsFor ) {
   link.text = std::move( text );
   link.obstacle.since = since;
   link.obstacle.waitsFor = std::move( waitsFor );
}

// The VRF's task handles the queued reviews.
void ChainReader::failsUntilReview( ChainLink& link, std::string text ) const {
   fails( link, std::move( text ), recordSince(), "" );
   if ( sm_->vrfTask()->scheduled() ) {
      link.obstacle.nextTry = sm_->vrfTask()->expiry();
   } else {
      link.obstacle.waitsFor = "a change of the route, its via set or its next hops";
   }
}

void ChainReader::failsUntilRetry( ChainLink& link, std::string text, double since,
                                   U64 tries ) const {
   fails( link, std::move( text ), since, "" );
   link.obstacle.tries = tries;
   link.obstacle.nextTry = nextRetry();
   if ( link.obstacle.nextTry == neverTime ) {
      link.obstacle.waitsFor = "a change of the route, its via set or its next hops";
   }
}

// When the task that retries refused routes will do so. A run before the interval is over only
// waits for another interval, and so does the first run after a time without refusals.
double ChainReader::nextRetry() const {
   const double run = sm_->unprogrammedRouteTask()->expiry();
   if ( vrf_ == nullptr || vrf_->numUnprogrammedRoute() == 0 || run == neverExpires ||
        !sm_->unprogrammedRouteForReviewHas( vrfName_ ) ) {
      return neverTime;
   }
   const double interval = vrf_->unprogrammedRetryInterval();
   return vrf_->lastUnprogrammedReview() + interval > run ? run + interval : run;
}

// --- The LFIB.

bool ChainReader::leftOver() const {
   return record_ || written_ || reported_ || lfibHwStatus_->unprogrammedRouteHas( key_ );
}

ChainLink ChainReader::lfibRoute() const {
   ChainLink link( "lfibRoute", "LFIB route" );
   link.facts["inLfib"] = !!route_;
   if ( !route_ ) {
      std::string text = lfib_->attached()
                            ? "not in the LFIB"
                            : joinText( "the LFIB cannot be read: ", lfib_->refusedReason() );
      text += leftOver() ? "; what is left of an earlier route is below" : "";
      fails( link, std::move( text ), neverTime, "a route for the label in the LFIB" );
      return link;
   }
   link.holds = true;
   link.text = joinText( "in the LFIB, metric ", route_.metric );
   link.facts["metric"] = route_.metric;
   if ( !ignoredReason_.empty() ) {
      link.text += "; the label table has it as ignored: " + ignoredReason_;
      link.facts["ignoredReason"] = ignoredReason_;
   }
   return link;
}

double ChainReader::viaSetSince() const {
   return sm_->viaSetAwaitedHas( route_.viaSetKey ) ? sm_->viaSetAwaited( route_.viaSetKey )
                                                    : recordSince();
}

ChainLink ChainReader::viaSet() const {
   ChainLink link( "viaSet", "via set" );
   if ( !route_ ) {
      fails( link, "none: there is no route", neverTime, "the route" );
      return link;
   }
   const std::string key = textOf( route_.viaSetKey );
   link.facts["viaSet"] = key;
   link.facts["inLfib"] = !viaSet_.null();
   if ( viaSet_.null() ) {
      fails( link, key + " is not in the LFIB", viaSetSince(), "the via set in the LFIB" );
      return link;
   }
   link.holds = true;
   link.text = joinText( key, ", ", counted( viaSet_.viaKeys(), "via", "vias" ) );
   link.facts["vias"] = viaSet_.viaKeys();
   return link;
}

// --- Admission.

// Why the via set cannot be programmed; nothing when it can.
std::string ChainReader::viaSetFault() const {
   if ( viaSet_.null() ) {
      return "the via set is missing, so that there is nothing to judge";
   }
   if ( route_.viaSetKey.multicast() && !sm_->forwardingIntoMldpSupported() ) {
      return "replication groups are not supported by this platform";
   }
   return sm_->lFibViaSetFault( route_.viaSetKey );
}

ChainLink ChainReader::admission() const {
   ChainLink link( "admission", "admission" );
   if ( !route_ ) {
      fails( link, "none: there is no route", neverTime, "the route" );
      return link;
   }
   const bool routing = sm_->mplsRoutingEnabled( vrfName_ );
   const bool accepted = sm_->mplsIpRouteKeyHas( key_ );
   link.facts["viaType"] = stringValue( route_.viaSetKey.viaType() );
   link.facts["mplsRouting"] = routing;
   link.facts["accepted"] = accepted;
   if ( ignored() ) {
      link.text =
         joinText( "not for MPLS forwarding: vias of the type ", route_.viaSetKey.viaType() );
      return link;
   }
   if ( !routing ) {
      fails( link, "label forwarding is switched off: no route is accepted", recordSince(),
             "label forwarding to be switched on" );
      return link;
   }
   if ( std::string fault = viaSetFault(); !fault.empty() ) {
      link.facts["fault"] = fault;
      fails( link, "not sane: " + fault, viaSetSince(), "a change of the via set in the LFIB" );
      return link;
   }
   if ( !accepted ) {
      link.facts["changesWaiting"] = lfib_->ringLag();
      fails( link, "not announced to the state machine yet", recordSince(),
             "the LFIB to announce it" );
      return link;
   }
   link.holds = true;
   link.text = joinText( "accepted: ", route_.viaSetKey.viaType(), ", vias are sane" );
   return link;
}

// --- Adjacencies.

ChainLink ChainReader::l3Adjacency() const {
   ChainLink link( "l3Adjacency", "L3 adjacency" );
   if ( l3Adj_ == nullptr ) {
      failsUntilReview( link, "none" );
      return link;
   }
   const U64 index = l3Adj_->index();
   const bool pending = vrf_->isAdjPendingForReview( index );
   link.facts["l3Adjacency"] = index;
   link.facts["routes"] = l3Adj_->routeKeys();
   link.facts["reviewPending"] = pending;
   const std::string why = pending ? textOf( vrf_->l3AdjForReview( index ) ) : std::string();
   if ( pending ) {
      link.facts["reviewReason"] = why;
   }
   if ( !!route_ && l3Adj_->lFibViaSetKey() != route_.viaSetKey ) {
      failsUntilReview( link,
                        joinText( index, ", of the earlier via set ", l3Adj_->lFibViaSetKey() ) );
      return link;
   }
   // An external FEC is protected by its own agent.
   const std::string waits = l3Adj_->lFibViaSetKey().viaType() == Mpls::viaTypeExternalFec
                                ? std::string()
                                : sm_->backupWaitReason( *vrf_, *l3Adj_ );
   if ( !waits.empty() && hwAdj_ && hwAdj_->vias() == 0 ) {
      link.facts["backup"] = waits;
      fails( link, joinText( index, ", waits for its backup: ", waits ), recordSince(),
             backupWaitsFor() );
      return link;
   }
   if ( pending && hwAdj_ && hwAdj_->vias() == 0 && fec_ == nullptr ) {
      failsUntilReview( link, joinText( index, ", not worked out yet" ) );
      return link;
   }
   link.holds = true;
   link.degraded = pending || !waits.empty();
   link.text = joinText( index, ", of ", counted( l3Adj_->routeKeys(), "route", "routes" ),
                         pending ? joinText( "; a review is pending (", why, ")" ) : "" );
   if ( !waits.empty() ) {
      link.facts["backup"] = waits;
      link.text += "; what it has stays until its backup is fit: " + waits;
   }
   return link;
}

std::string ChainReader::nextHopText( const IpGenAddr& address, IntfId intf ) const {
   return intf.empty() ? address.text()
                       : joinText( address, " on ", intfText( intf, interfaceName_ ) );
}

// What the L3 layer knows of a next hop that is not resolved.
std::string ChainReader::unresolvedWhy( const IpGenAddr& address, IntfId intf ) const {
   if ( insight_ && !intf.empty() && !insight_->linkUp( intf ) ) {
      return ", the interface is down";
   }
   if ( !intf.empty() ) {
      const NextHopInfo* const info = l3Status_->nextHopInfo().find( { intf, address } );
      return info == nullptr  ? ", no such neighbour"
             : info->resolved ? ", resolved meanwhile"
                              : ", the neighbour does not answer";
   }
   const ResolvedAddr* const found =
      address.af() == ipv4() ? l3Status_->resolvedAddr().find( { vrfName_, address } )
                             : l3Status_->resolvedIp6Addr().find( { vrfName_, address } );
   if ( found == nullptr || found->nexthop.empty() ) {
      return ", no way to it";
   }
   if ( found->prefix.isDefaultRoutePrefix() &&
        !( lfibInfo_ && lfibInfo_->nexthopResolutionAllowDefaultRoute() ) ) {
      return ", only the default route leads there, and is not to be used";
   }
   const auto resolved = []( const ResolvedNexthop& hop ) { return hop.arp.resolved; };
   return std::ranges::any_of( found->nexthop, resolved ) ? ", resolved meanwhile"
                                                          : ", the neighbour does not answer";
}

std::string ChainReader::exitsText( const Mpls::Hardware::L2ViaSet& exits ) const {
   std::string text;
   for ( const Mpls::Hardware::L2Via& exit : exits.l2Via() ) {
      text += joinText( text.empty() ? "" : ", ", intfText( exit.intf, interfaceName_ ), " " );
      text += exit.vlanId == 0 ? "" : joinText( "vlan ", exit.vlanId, " " );
      text += exit.macAddr.text();
   }
   return text;
}

// Adds a next hop to the link: a line, a fact, and since when the next hop is not resolved.
void ChainReader::readNextHop( const Mpls::Hardware::AdjacencyVia& via, ChainLink& link ) const {
   const MplsNextHop* const record = vrf_->mplsNextHop( { via.nextHop, via.intf } );
   const double since = record ? record->unresolvedSince() : neverTime;
   Value fact;
   fact["nextHop"] = via.nextHop.text();
   fact["interface"] = via.intf.empty() ? Value() : Value( intfText( via.intf, interfaceName_ ) );
   fact["resolved"] = via.resolved();
   std::string line = nextHopText( via.nextHop, via.intf );
   if ( via.resolved() ) {
      line += " -> " + exitsText( via.l2Via );
      for ( const Mpls::Hardware::L2Via& exit : via.l2Via.l2Via() ) {
         Value one;
         one["interface"] = intfText( exit.intf, interfaceName_ );
         one["vlan"] = exit.vlanId;
         one["mac"] = exit.macAddr.text();
         fact["exits"].push_back( std::move( one ) );
      }
   } else {
      fact["unresolvedSinceSeconds"] = secondsOrNothing( since );
      std::array< char, 40 > seconds{};
      if ( since != neverTime ) {
         std::snprintf( seconds.data(), seconds.size(), " since %.3f s", since );
      }
      line += joinText( ": unresolved", seconds.data(), unresolvedWhy( via.nextHop, via.intf ) );
      // The via set has had no next hop since the last one was lost.
      double& all = link.obstacle.since;
      all = all == neverTime ? since : std::max( all, since );
   }
   link.facts["nextHops"].push_back( std::move( fact ) );
   link.details.push_back( std::move( line ) );
}

ChainLink ChainReader::nextHops() const {
   ChainLink link( "nextHops", "next hops" );
   if ( fec_ && hwAdj_ && isForeign() ) {
      readForeign( link );
      return link;
   }
   if ( hwAdj_ == nullptr || hwAdj_->vias() == 0 ) {
      failsUntilReview( link, "none" );
      return link;
   }
   std::set< IpAddrIntfId > seen; // vias that differ in their labels share a next hop
   size_t resolved = 0;
   std::string waitsFor;
   for ( const auto& [index, via] : hwAdj_->via() ) {
      if ( !seen.insert( { via.nextHop, via.intf } ).second ) {
         continue;
      }
      readNextHop( via, link );
      resolved += via.resolved();
      if ( seen.size() <= namedNextHops ) {
         waitsFor += joinText( waitsFor.empty() ? "the neighbour " : " or ",
                               nextHopText( via.nextHop, via.intf ) );
      }
   }
   if ( seen.size() > namedNextHops ) {
      waitsFor += joinText( " or one of ", seen.size() - namedNextHops, " more" );
   }
   link.holds = resolved != 0;
   link.degraded = link.holds && resolved != seen.size();
   link.text = joinText( resolved, " of ", seen.size(), " resolved" );
   link.obstacle.waitsFor = std::move( waitsFor ); // means something while none is resolved
   if ( fec_ ) {
      readFecNextHops( link );
   }
   return link;
}

// The driver's reason where it tells one: the VRF's status has the last reason alone.
UnprogrammedReason ChainReader::adjacencyReason() const {
   const auto told =
      insight_ ? insight_->adjacencyRefusal( *vrfId_, l2Adj_->index() ) : std::nullopt;
   return told.value_or( status_->unprogrammedReason() );
}

UnprogrammedReason ChainReader::routeReason() const {
   const auto told = insight_ ? insight_->routeRefusal( *vrfId_, key_ ) : std::nullopt;
   return told.value_or( status_->unprogrammedReason() );
}

U32 ChainReader::adjacencyWritten() const {
   return config_ && l2Adj_ ? config_->l2Adjacency( l3Adj_->hwL2Adjacency() ) : 0;
}

U32 ChainReader::adjacencyCarriedOut() const {
   return status_ && l2Adj_ ? status_->l2Adjacency( l3Adj_->hwL2Adjacency() ) : 0;
}

bool ChainReader::adjacencyRefused() const {
   return status_ && l2Adj_ && status_->unprogrammedAdjacencyHas( l3Adj_->hwL2Adjacency() );
}

std::string ChainReader::l2ViaText( const Mpls::Hardware::L2Via& via ) const {
   std::string text = textOf( via.labelAction );
   for ( size_t i = 0; i < via.labelStack.stackSize(); ++i ) {
      text += joinText( i == 0 ? " " : "/", via.labelStack.label( i ) );
   }
   Mpls::Hardware::L2ViaSet one;
   one.l2ViaIs( via );
   return text + ", " + exitsText( one );
}

ChainLink ChainReader::l2Adjacency() const {
   ChainLink link( "l2Adjacency", "L2 adjacency" );
   if ( l2Adj_ == nullptr && !fec_ ) {
      failsUntilReview( link, "none" );
      return link;
   }
   if ( l2Adj_ == nullptr ) {
      readFecL2Adjacency( link );
      return link;
   }
   const U32 written = adjacencyWritten();
   const U32 carriedOut = adjacencyCarriedOut();
   const bool refused = adjacencyRefused();
   link.facts["l2Adjacency"] = l2Adj_->index();
   link.facts["refused"] = refused;
   for ( const Mpls::Hardware::L2Via& via : l2Adj_->l2ViaSet().l2Via() ) {
      link.details.push_back( l2ViaText( via ) );
      link.facts["l2Vias"].push_back( link.details.back() );
   }
   link.text = textOf( l2Adj_->index() );
   if ( fec_ ) {
      readFecL2Adjacency( link );
      return link;
   }
   if ( !refused ) {
      link.holds = true;
      return link;
   }
   const UnprogrammedReason reason = adjacencyReason();
   link.facts["reason"] = stringValue( reason );
   link.text += joinText( ", refused by the driver: ", reason );
   if ( carriedOut != 0 ) { // an L2 adjacency keeps its vias for life
      link.holds = link.degraded = true;
      link.text += joinText( "; version ", carriedOut, " with the same vias is in hardware" );
      return link;
   }
   failsUntilRetry( link, link.text, l2Adj_->unprogrammedSince(), written );
   return link;
}

// --- The hardware.

// What is not written for the label; empty when all of it is.
std::string ChainReader::configFault() const {
   if ( config_ == nullptr ) {
      return "the VRF has no configuration";
   }
   if ( !config_->mplsRouting() || status_ == nullptr || !status_->mplsRouting() ) {
      return joinText( "label forwarding is ", config_->mplsRouting() ? "on" : "off",
                       " in the configuration and ",
                       status_ && status_->mplsRouting() ? "on" : "off", " in the driver" );
   }
   if ( fec_ ) {
      return "";
   }
   if ( written_ == nullptr ) {
      return "the route is not written";
   }
   if ( l2Adj_ == nullptr || written_->l2Adjacency != l3Adj_->hwL2Adjacency() ) {
      return joinText( "version ", written_->version, " is written with ",
                       written_->l2Adjacency
                          ? joinText( "the earlier L2 adjacency ", written_->l2Adjacency->index() )
                          : "no L2 adjacency" );
   }
   return adjacencyWritten() == 0 ? "the L2 adjacency is not written" : "";
}

ChainLink ChainReader::hwConfig() const {
   ChainLink link( "hwConfig", "configuration" );
   link.facts["mplsRoutingConfigured"] = config_ && config_->mplsRouting();
   link.facts["mplsRoutingInDriver"] = status_ && status_->mplsRouting();
   if ( written_ ) {
      link.facts["routeVersion"] = written_->version;
   }
   link.facts["adjacencyVersion"] = adjacencyWritten();
   if ( std::string fault = configFault(); !fault.empty() ) {
      failsUntilReview( link, std::move( fault ) );
      if ( config_ && config_->mplsRouting() && ( !status_ || !status_->mplsRouting() ) ) {
         link.obstacle.waitsFor = "the driver to switch label forwarding on";
         link.obstacle.nextTry = neverTime;
      }
      return link;
   }
   link.holds = true;
   link.text = fec_ ? "label forwarding is on; routes into FECs are written by the platform"
                    : joinText( "label forwarding is on; route version ", written_->version,
                                ", adjacency version ", adjacencyWritten(), " written" );
   return link;
}

// The driver does not report the route as it was written.
void ChainReader::readUnconfirmed( ChainLink& link ) const {
   const std::optional< U64 > waiting = operationsWaiting();
   const U64 tries = record_ ? record_->unconfirmedWrites() : 0;
   std::string text = joinText( "version ", written_->version, " is not answered" );
   if ( waiting ) {
      text += *waiting == 0
                 ? ", and nothing waits: the writing is lost"
                 : joinText( " yet, ", counted( *waiting, "operation waits", "operations wait" ) );
   }
   if ( reported_ ) {
      text += joinText( "; version ", reported_->version, " is in hardware" );
   }
   fails( link, std::move( text ), recordSince(),
          waiting == U64{ 0 } ? "a change of the route, its via set or its next hops"
                              : "the driver's answer" );
   link.obstacle.tries = tries;
}

ChainLink ChainReader::driver() const {
   ChainLink link( "driver", "driver" );
   if ( const std::optional< U64 > waiting = operationsWaiting() ) {
      link.facts["operationsWaiting"] = *waiting;
   }
   if ( status_ == nullptr ) {
      fails( link, "the driver has no status of the VRF", recordSince(), "the driver" );
      return link;
   }
   const bool listed = status_->unprogrammedRouteHas( key_ );
   const U32 carriedOut = adjacencyCarriedOut();
   link.facts["listed"] = listed;
   link.facts["routeVersion"] = reported_ ? Value( reported_->version ) : Value();
   link.facts["adjacencyVersion"] = carriedOut;
   if ( listed ) {
      link.facts["reason"] = stringValue( routeReason() );
   }
   if ( fec_ ) {
      readFecRoute( link );
   } else if ( written_ == nullptr ) {
      failsUntilReview( link, "nothing is asked of it" );
      link.text +=
         reported_ ? joinText( ", version ", reported_->version, " is still in hardware" ) : "";
   } else if ( listed ) {
      failsUntilRetry( link, joinText( "refused: ", routeReason() ), recordSince(),
                       record_ ? record_->unconfirmedWrites() : 0 );
   } else if ( reported_ == nullptr || reported_->version != written_->version ||
               reported_->l2Adjacency != written_->l2Adjacency ) {
      readUnconfirmed( link );
   } else {
      link.holds = true;
      link.degraded = carriedOut != adjacencyWritten();
      link.text = joinText( "confirmed with version ", reported_->version, ", adjacency version ",
                            carriedOut,
                            link.degraded ? joinText( " instead of ", adjacencyWritten() ) : "" );
   }
   return link;
}

// --- Publishing.

ChainLink ChainReader::published( LabelState state ) const {
   ChainLink link( "published", "published" );
   const Mpls::RouteInfo* const info = lfibHwStatus_->unprogrammedRoute().find( key_ );
   const Mpls::Hardware::Route* const route = hwMpls_->route().find( key_ );
   const bool pending = publishingPending();
   const auto* const adjacency = route ? route->adjacency.get() : nullptr;
   link.facts["statusCode"] = info ? Value( stringValue( info->statusCode ) ) : Value();
   link.facts["l3Adjacency"] = adjacency ? Value( adjacency->index() ) : Value();
   link.facts["reviewPending"] = pending;
   std::string text = info ? textOf( info->statusCode ) : "nothing";
   text += adjacency ? joinText( ", L3 adjacency ", adjacency->index() ) : "";
   const RouteStatusCode expected = codeOf( state );
   const ExternalFecInfo* const in = record_ ? record_->extFecInfo().get() : nullptr;
   const bool sameFec = route && route->fecId == ( in ? in->fecId() : Fib::FecId() );
   // The library cannot know that one of several tunnels leads nowhere.
   const bool asFarAsKnown = info && info->statusCode == RouteStatusCode::programmed &&
                             state == LabelState::partiallyProgrammed;
   if ( info && adjacency && adjacency == hwAdj_ && sameFec &&
        ( info->statusCode == expected || asFarAsKnown ) &&
        expected != RouteStatusCode::notProgrammed ) {
      link.holds = true;
      link.degraded = pending || asFarAsKnown;
      link.text = text + ( pending ? "; a review is pending" : "" );
      return link;
   }
   failsUntilReview( link, text + ( pending ? "; withheld, a review is pending" : "" ) );
   if ( sm_->routePublishTask()->scheduled() ) {
      link.obstacle.nextTry = std::min( link.obstacle.nextTry, sm_->routePublishTask()->expiry() );
      link.obstacle.waitsFor.clear();
   }
   return link;
}

Explanation::Explanation( const EntityManager& entityManager, RouteKey key,
                          const InterfaceName& interfaceName,
                          const std::optional< std::string >& ignoredReason )
   : key_( key ) {
   const ChainReader reader( entityManager, key, interfaceName, ignoredReason.value_or( "" ) );
   fault_ = reader.fault();
   if ( !fault_.empty() ) {
      return;
   }
   now_ = reader.now();
   inHardware_ = reader.inHardware();
   links_ = { reader.lfibRoute(),   reader.viaSet(),   reader.admission(),
              reader.l3Adjacency(), reader.nextHops(), reader.l2Adjacency() };
   if ( reader.hasFec() ) {
      links_.push_back( reader.fec() );
   }
   links_.push_back( reader.hwConfig() );
   links_.push_back( reader.driver() );
   const LabelStates states( entityManager );
   Intent intent;
   states.inputs().read( key, intent );
   verdict_ = states.of( key, intent );
   links_.push_back( reader.published( verdict_.state ) );
}

const ChainLink* Explanation::blocker() const {
   if ( state() == LabelState::ignored ) {
      return nullptr;
   }
   const auto first = std::ranges::find( links_, false, &ChainLink::holds );
   return first == links_.end() ? nullptr : &*first;
}

} // namespace Vel::Inspect
