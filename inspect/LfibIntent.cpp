#include "inspect/LfibIntent.h"

#include <algorithm>

#include "mpls/VelMplsSm.h"

namespace Vel::Inspect {

namespace {

/// What is wrong with the via by itself; empty when it is sound.
std::string_view faultOf( const Mpls::LfibMplsVia& via, bool needsInterface ) {
   if ( via.null() ) {
      return "is not in the LFIB";
   }
   if ( via.labelStack.stackSize() > 1 ) {
      return "puts on more than one label";
   }
   if ( via.intf.empty() && needsInterface ) {
      return "has no interface";
   }
   const bool leadsElsewhere = via.intf.kind() == IntfId::Kind::nexthopGroup ||
                               via.intf.kind() == IntfId::Kind::dynamicTunnel;
   return via.nextHop.empty() && !leadsElsewhere ? "has no next hop" : "";
}

bool ofAnotherAgent( Fib::FecId fecId ) {
   constexpr U64 indexLimit = U64{ 1 } << 48; // to fit into an interface
   return fecId.valid() && fecId.index() < indexLimit && !fecId.ofLabelViaSet() &&
          !fecId.isA( Fib::AdjType::mplsMcastViaAdj );
}

Fib::FecVia fecViaOf( const Mpls::LfibMplsVia& via, bool usable ) {
   Fib::FecVia wanted;
   if ( !usable ) {
      wanted.drop = true;
      return wanted;
   }
   wanted.nextHop = via.nextHop;
   wanted.intf = via.intf;
   wanted.labelAction = via.labelAction;
   wanted.labelStack = via.labelStack;
   wanted.payloadType = via.payloadType;
   wanted.ttlMode = via.ttlMode;
   return wanted;
}

void refuse( Intent& intent, IntentKind kind, std::string reason ) {
   intent.kind = kind;
   intent.reason = std::move( reason );
   intent.vias.clear();
   intent.nextHops.clear();
   intent.intoFec = false;
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
     nextHops_( entities ),
     hasFecs_( mountedRoot< MplsSm >( entities, "mplsSm" ).forwardingIntoExternalFecsSupported() ),
     fecsOnly_( mountedRoot< MplsSm >( entities, "mplsSm" ).inPlaceAdjacencyUpdateSupported() ) {}

void LfibIntent::read( Mpls::RouteKey key, Intent& intent ) const {
   intent.kind = IntentKind::forwarded;
   intent.unresolvedVias = 0;
   intent.reason.clear();
   intent.viaSetKey = {};
   intent.vias.clear();
   intent.nextHops.clear();
   intent.intoFec = false;
   const Mpls::LfibRoute route = lfib_.lfibRoute( key );
   if ( !route ) {
      return refuse( intent, IntentKind::absent, "the LFIB has no such route" );
   }
   intent.viaSetKey = route.viaSetKey;
   if ( !routing() ) {
      return refuse( intent, IntentKind::notOurs, "label forwarding is off" );
   }
   const Mpls::LfibViaType type = route.viaSetKey.viaType();
   if ( !isTransit( type ) ) {
      return refuse( intent, IntentKind::notOurs, "the route is not for MPLS forwarding" );
   }
   const Mpls::LfibViaSet viaSet = lfib_.lfibViaSet( route.viaSetKey );
   if ( viaSet.null() ) {
      return refuse( intent, IntentKind::awaited, "its via set is not in the LFIB" );
   }
   if ( viaSet.viaKeys() == 0 ) {
      return refuse( intent, IntentKind::unusable, "its via set is empty" );
   }
   for ( U32 i = 0; i < viaSet.viaKeys(); ++i ) {
      if ( viaSet.viaKey( i ).viaType() != type ) {
         return refuse( intent, IntentKind::unusable, "its via set mixes via types" );
      }
   }
   if ( type == Mpls::viaTypeExternalFec ) {
      return readExternal( viaSet, intent );
   }
   readVias( viaSet, intent );
   if ( intent.kind == IntentKind::forwarded && route.viaSetKey.multicast() ) {
      refuse( intent, IntentKind::elsewhere, "is replicated" );
   }
}

void LfibIntent::readExternal( const Mpls::LfibViaSet& viaSet, Intent& intent ) const {
   if ( !hasFecs_ ) {
      return refuse( intent, IntentKind::unsound, "the hardware has no FECs to forward into" );
   }
   if ( viaSet.viaKeys() != 1 ) {
      return refuse( intent, IntentKind::unsound, "its via set names more than one FEC" );
   }
   const Mpls::LfibExtFecVia via = lfib_.lfibExtFecVia( viaSet.viaKey( 0 ) );
   if ( !ofAnotherAgent( via.fecId ) ) {
      return refuse( intent, IntentKind::unsound, "via 1 names no FEC of another agent" );
   }
   intent.intoFec = true;
   intent.fec = { via.fecId, {}, {}, {}, {} };
}

void LfibIntent::readVias( const Mpls::LfibViaSet& viaSet, Intent& intent ) const {
   Leads leads = Leads::toNextHops;
   if ( std::string fault = collect( viaSet, leads ); !fault.empty() ) {
      return refuse( intent, IntentKind::unsound, std::move( fault ) );
   }
   intent.intoFec = byFec( viaSet.key(), leads );
   const bool usable = viaSet.usableAsPrimaryVias();
   if ( leads == Leads::toNextHops && ( usable || intent.intoFec ) ) {
      for ( const Mpls::LfibMplsVia& via : collected_ ) {
         addWays( via, intent );
      }
      sortEachOnce( intent.vias );
   }
   if ( intent.intoFec ) {
      readFec( viaSet, leads, intent );
   } else if ( leads != Leads::toNextHops ) {
      refuse( intent, IntentKind::unsound, "the hardware has no FECs to forward into" );
   } else if ( !usable ) {
      refuse( intent, IntentKind::unresolved, "its vias are disabled" );
   } else if ( intent.vias.empty() ) {
      intent.kind = IntentKind::unresolved;
      intent.reason = "no next hop is resolved";
   }
}

bool LfibIntent::byFec( Mpls::LfibViaSetKey key, Leads leads ) const {
   return hasFecs_ &&
          ( fecsOnly_ || leads != Leads::toNextHops || key.source() == Mpls::LfibSource::bgpLu );
}

// The set's vias into `collected_`; returns why they cannot be forwarded with.
std::string LfibIntent::collect( const Mpls::LfibViaSet& viaSet, Leads& leads ) const {
   collected_.clear();
   bool groups = false;
   bool tunnels = false;
   for ( U32 i = 0; i < viaSet.viaKeys(); ++i ) {
      const Mpls::LfibMplsVia& via =
         collected_.emplace_back( lfib_.lfibMplsVia( viaSet.viaKey( i ) ) );
      if ( const std::string_view fault = faultOf( via, fecsOnly_ ); !fault.empty() ) {
         return joinText( "via ", i + 1, " ", fault );
      }
      const bool group = via.intf.kind() == IntfId::Kind::nexthopGroup;
      const bool tunnel = via.intf.kind() == IntfId::Kind::dynamicTunnel;
      if ( ( groups || tunnels ) && !group && !tunnel && !via.intf.empty() ) {
         return joinText( "via ", i + 1, " is none into what the vias before it lead into" );
      }
      groups = groups || group;
      tunnels = tunnels || tunnel;
   }
   if ( groups && collected_.size() > 1 ) {
      return "a next-hop group is not its only via";
   }
   const Mpls::LfibMplsVia& first = collected_.front();
   for ( const Mpls::LfibMplsVia& via : collected_ ) {
      if ( tunnels &&
           ( via.labelAction != first.labelAction || via.payloadType != first.payloadType ) ) {
         return "its vias into tunnels do different things with the label";
      }
   }
   leads = groups ? Leads::toGroup : tunnels ? Leads::toTunnel : Leads::toNextHops;
   return {};
}

void LfibIntent::readFec( const Mpls::LfibViaSet& viaSet, Leads leads, Intent& intent ) const {
   FecIntent& fec = intent.fec;
   fec.foreign = {};
   fec.vias.clear();
   fec.backup = {};
   fec.backupVias.clear();
   fec.backupFault.clear();
   if ( leads == Leads::toGroup && viaSet.usableAsPrimaryVias() ) {
      // The group's owner answers for its ways out and its protection.
      fec.foreign = Fib::FecIdIntfId::intfIdToFecId( collected_.front().intf );
      return;
   }
   for ( const Mpls::LfibMplsVia& via : collected_ ) {
      fec.vias.push_back( fecViaOf( via, viaSet.usableAsPrimaryVias() ) );
   }
   fec.backup = viaSet.backupViaSetKey();
   if ( !fec.backup.empty() ) {
      readBackup( fec.backup, fec );
   }
}

// Protection is one level deep, and the backup must be a FEC that this library requests.
void LfibIntent::readBackup( Mpls::LfibViaSetKey key, FecIntent& fec ) const {
   if ( key.viaType() != Mpls::viaTypeMplsIp || key.multicast() ) {
      fec.backupFault = joinText( "the backup is of a kind that cannot be one: ", key );
      return;
   }
   const Mpls::LfibViaSet backup = lfib_.lfibViaSet( key );
   if ( backup.null() ) {
      fec.backupFault = "the backup is not in the LFIB";
      return;
   }
   Leads leads = Leads::toNextHops;
   if ( std::string fault = backup.viaKeys() == 0 ? "it is empty" : collect( backup, leads );
        !fault.empty() ) {
      fec.backupFault = "the backup cannot be forwarded with: " + fault;
   } else if ( leads == Leads::toGroup && backup.usableAsPrimaryVias() ) {
      fec.backupFault = "the backup is a next-hop group, which is another agent's";
   } else if ( !backup.backupViaSetKey().empty() ) {
      fec.backupFault = "the backup has a backup";
   }
   for ( const Mpls::LfibMplsVia& via : collected_ ) {
      fec.backupVias.push_back( fecViaOf( via, backup.usableAsPrimaryVias() ) );
   }
}

void LfibIntent::addWays( const Mpls::LfibMplsVia& via, Intent& intent ) const {
   intent.nextHops.push_back( { via.intf, via.nextHop } );
   nextHops_.read( via.nextHop, via.intf, ways_ );
   intent.unresolvedVias += ways_.empty();
   for ( const WayOut& way : ways_ ) {
      intent.vias.push_back( { way.rewrite->vlanId, way.rewrite->l2Intf, way.rewrite->macAddr,
                               via.labelAction, via.payloadType, via.ttlMode, via.labelStack } );
   }
}

} // namespace Vel::Inspect
