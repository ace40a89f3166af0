#include "agent/LfibIntent.h"

#include <algorithm>

namespace Vel::Agent {

namespace {

/// What is wrong with a via, as far as one via alone can be wrong; nothing when it is sound.
std::string_view faultOf( const Mpls::LfibMplsVia& via ) {
   if ( via.null() ) {
      return "is not in the LFIB";
   }
   if ( via.labelStack.stackSize() > 1 ) {
      return "puts on more than one label";
   }
   return via.nextHop.empty() ? "has no next hop" : "";
}

/// The interface stands for something to forward into, which has ways out of its own.
bool leadsElsewhere( const Mpls::LfibMplsVia& via ) {
   return via.intf.kind() == IntfId::Kind::nexthopGroup ||
          via.intf.kind() == IntfId::Kind::dynamicTunnel;
}

void refuse( Intent& intent, IntentKind kind, std::string reason ) {
   intent.kind = kind;
   intent.reason = std::move( reason );
   intent.vias.clear();
   intent.nextHops.clear();
}

} // namespace

void sortEachOnce( std::vector< Mpls::Hardware::L2Via >& vias ) {
   std::ranges::sort( vias );
   vias.erase( std::unique( vias.begin(), vias.end() ), vias.end() );
}

// --- Next hops.

NextHopView::NextHopView( const EntityManager& entities )
   : status_( mountedRoot< VelL3Status >( entities, "velL3Status" ) ),
     info_( entities.root< Mpls::LfibInfo >( "lfibInfo" ) ) {}

void NextHopView::read( const IpGenAddr& nextHop, IntfId intf, std::vector< WayOut >& out ) const {
   out.clear();
   if ( !intf.empty() ) {
      const NextHopInfo& info = status_.nextHopInfo( { intf, nextHop } );
      if ( info.resolved ) {
         out.push_back( { nextHop, intf, &info } );
      }
      return;
   }
   const ResolvedAddr& answer = nextHop.af() == ipv4()
                                   ? status_.resolvedAddr( { LfibIntent::vrf(), nextHop } )
                                   : status_.resolvedIp6Addr( { LfibIntent::vrf(), nextHop } );
   const bool defaultRouteCounts = info_ && info_->nexthopResolutionAllowDefaultRoute();
   if ( answer.prefix.isDefaultRoutePrefix() && !defaultRouteCounts ) {
      return;
   }
   for ( const ResolvedNexthop& found : answer.nexthop ) {
      if ( found.arp.resolved && !found.nextHop.empty() && !found.nextHop.isAny() ) {
         out.push_back( { found.nextHop, found.intf, &found.arp } );
      }
   }
}

// --- Labels.

LfibIntent::LfibIntent( const EntityManager& entities )
   : lfib_( mountedRoot< Mpls::LfibStatus >( entities, "transitLfib" ) ),
     routing_( entities.root< Mpls::RoutingInfo >( "mplsRoutingInfo" ) ),
     nextHops_( entities ) {}

void LfibIntent::read( Mpls::RouteKey key, Intent& intent ) const {
   intent.unresolvedVias = 0;
   intent.reason.clear();
   intent.vias.clear();
   intent.nextHops.clear();
   const Mpls::LfibRoute route = lfib_.lfibRoute( key );
   if ( !route ) {
      return refuse( intent, IntentKind::absent, "the LFIB has no such route" );
   }
   if ( !routing() ) {
      return refuse( intent, IntentKind::notOurs, "label forwarding is off" );
   }
   const Mpls::LfibViaType type = route.viaSetKey.viaType();
   if ( type == Mpls::viaTypeExternalFec ) {
      return refuse( intent, IntentKind::elsewhere, "forwards into a FEC" );
   }
   if ( type != Mpls::viaTypeMplsIp ) {
      return refuse( intent, IntentKind::notOurs, "the route is not for MPLS forwarding" );
   }
   const Mpls::LfibViaSet viaSet = lfib_.lfibViaSet( route.viaSetKey );
   if ( viaSet.null() ) {
      return refuse( intent, IntentKind::awaited, "its via set is not in the LFIB" );
   }
   readVias( viaSet, intent );
   if ( intent.kind == IntentKind::forwarded && route.viaSetKey.multicast() ) {
      refuse( intent, IntentKind::elsewhere, "is replicated" );
   }
}

// A fault of the set comes before one of its vias.
void LfibIntent::readVias( const Mpls::LfibViaSet& viaSet, Intent& intent ) const {
   if ( viaSet.viaKeys() == 0 ) {
      return refuse( intent, IntentKind::unusable, "its via set is empty" );
   }
   for ( U32 i = 0; i < viaSet.viaKeys(); ++i ) {
      if ( viaSet.viaKey( i ).viaType() != viaSet.key().viaType() ) {
         return refuse( intent, IntentKind::unusable, "its via set mixes via types" );
      }
   }
   bool elsewhere = false;
   for ( U32 i = 0; i < viaSet.viaKeys(); ++i ) {
      const Mpls::LfibMplsVia via = lfib_.lfibMplsVia( viaSet.viaKey( i ) );
      if ( leadsElsewhere( via ) ) {
         elsewhere = true;
         continue;
      }
      if ( const std::string_view fault = faultOf( via ); !fault.empty() ) {
         return refuse( intent, IntentKind::unsound, joinText( "via ", i + 1, " ", fault ) );
      }
      addVia( via, intent );
   }
   if ( elsewhere ) {
      return refuse( intent, IntentKind::elsewhere, "forwards into a next-hop group or a tunnel" );
   }
   if ( intent.vias.empty() ) {
      intent.kind = IntentKind::unresolved;
      intent.reason = "no next hop is resolved";
      return;
   }
   intent.kind = IntentKind::forwarded;
   sortEachOnce( intent.vias );
}

void LfibIntent::addVia( const Mpls::LfibMplsVia& via, Intent& intent ) const {
   intent.nextHops.push_back( { via.intf, via.nextHop } );
   nextHops_.read( via.nextHop, via.intf, ways_ );
   intent.unresolvedVias += ways_.empty();
   for ( const WayOut& way : ways_ ) {
      intent.vias.push_back( { way.rewrite->vlanId, way.rewrite->l2Intf, way.rewrite->macAddr,
                               via.labelAction, via.payloadType, via.ttlMode, via.labelStack } );
   }
}

} // namespace Vel::Agent
