#include "agent/Impact.h"

#include <algorithm>

#include "mpls/VelMplsSm.h"

namespace Vel::Agent {

using Mpls::Hardware::AdjacencyVia;
using Mpls::Hardware::L2Via;

std::string ImpactTarget::text( const InterfaceName& name ) const {
   return nextHop ? nextHopText( *nextHop, intf, name ) : "interface " + name( intf );
}

Impact::Impact( const EntityManager& entities, const ImpactTarget& target )
   : target_( target ),
     nextHops_( entities ),
     hwMplsStatus_( mountedRoot< Mpls::Hardware::Status >( entities, "routingHwMplsStatus" ) ),
     lfibHwStatus_( mountedRoot< Mpls::LfibHwStatus >( entities, "lfibHwStatus" ) ),
     state_( mountedRoot< MplsSm >( entities, "mplsSm" ).mplsState( LfibIntent::vrf() ) ) {
   known_ = someNextHop( entities );
   if ( !target.nextHop && target.intf.empty() ) {
      return; // nothing goes
   }
   findL3Adjacencies();
   findL2Adjacencies();
   std::ranges::sort( labels_, {}, &ImpactedLabel::label );
   std::ranges::sort( l3Adjacencies_, {}, &ImpactedAdjacency::index );
   std::ranges::sort( l2Adjacencies_, {}, &ImpactedAdjacency::index );
   std::ranges::sort( fecs_, {}, &ImpactedFec::fecId );
}

// --- What goes.

bool Impact::matches( const IpGenAddr& address, IntfId intf ) const {
   return ( !target_.nextHop || address == *target_.nextHop ) &&
          ( target_.intf.empty() || intf == target_.intf );
}

/// The way goes by its own neighbour, or by the next hop that the via names; by the L3 interface or
/// by the L2 interface below it.
bool Impact::goes( const AdjacencyVia& via, const WayOut& way ) const {
   return matches( way.neighbor, way.intf ) || matches( way.neighbor, way.rewrite->l2Intf ) ||
          matches( via.nextHop, way.intf ) || matches( via.nextHop, way.rewrite->l2Intf );
}

bool Impact::someNextHop( const EntityManager& entities ) const {
   const VelL3Status& l3 = nextHops_.status();
   for ( const auto& [key, info] : l3.nextHopInfo() ) {
      if ( matches( key.addr, key.intf ) || matches( key.addr, info.l2Intf ) ) {
         return true;
      }
   }
   const auto& arp = mountedRoot< ProactiveArpNexthopSm >( entities, "proactiveArpNexthopSm" );
   for ( const ProactiveArpEntry& entry : arp.entry() ) {
      if ( matches( entry.addr, entry.intf ) ) {
         return true;
      }
   }
   const auto resolvesThere = [&]( const IpGenAddr& watched, const ResolvedAddr& answer ) {
      return std::ranges::any_of( answer.nexthop, [&]( const ResolvedNexthop& found ) {
         return matches( watched, found.intf ) || matches( found.nextHop, found.intf ) ||
                matches( watched, found.arp.l2Intf ) || matches( found.nextHop, found.arp.l2Intf );
      } );
   };
   for ( const auto& [key, answer] : l3.resolvedAddr() ) {
      if ( resolvesThere( key.ipAddr, answer ) ) {
         return true;
      }
   }
   for ( const auto& [key, answer] : l3.resolvedIp6Addr() ) {
      if ( resolvesThere( key.ipGenAddr, answer ) ) {
         return true;
      }
   }
   if ( !target_.nextHop || !target_.intf.empty() ) {
      return false;
   }
   const VrfAndIpGenAddr watched{ LfibIntent::vrf(), *target_.nextHop };
   return mountedRoot< RouteReactorConfig >( entities, "routeReactorConfig" )
             .watchedAddrHas( { watched.vrfName, watched.ipGenAddr } ) ||
          mountedRoot< Route6ReactorConfig >( entities, "route6ReactorConfig" )
             .watchedIp6AddrHas( watched );
}

// --- Who loses.

template< class F >
void Impact::eachWay( const Adjacency& adjacency, const F& call ) {
   for ( const auto& [index, via] : adjacency.via() ) {
      nextHops_.read( via.nextHop, via.intf, ways_ );
      for ( const WayOut& way : ways_ ) {
         call( via, way, goes( via, way ) );
      }
   }
}

WaysLeft Impact::waysOf( const Adjacency& adjacency ) {
   WaysLeft ways;
   eachWay( adjacency, [&]( const AdjacencyVia&, const WayOut&, bool gone ) {
      ++ways.of;
      ways.left += !gone;
   } );
   return ways;
}

void Impact::findL3Adjacencies() {
   for ( const auto& [index, adjacency] : hwMplsStatus_.adjacency() ) {
      ImpactedAdjacency hit{ index, waysOf( *adjacency ), {} };
      if ( !hit.ways.hit() ) {
         continue;
      }
      if ( const L3Adjacency* const l3Adj = state_ ? state_->l3Adjacency( index ) : nullptr ) {
         hit.protectedBy = protectorOf( *l3Adj );
         addUsers( *l3Adj, hit );
      }
      l3Adjacencies_.push_back( hit );
   }
}

/// The backup, if that would not go as well.
std::optional< U64 > Impact::protectorOf( const L3Adjacency& l3Adj ) {
   const L3Adjacency* const backup = l3Adj.backupAdj().get();
   const Adjacency* const adjacency = backup ? hwMplsStatus_.adjacency( backup->index() ) : nullptr;
   if ( adjacency == nullptr || waysOf( *adjacency ).none() ) {
      return std::nullopt;
   }
   return backup->index();
}

void Impact::addUsers( const L3Adjacency& l3Adj, const ImpactedAdjacency& hit ) {
   for ( const Mpls::RouteKey key : l3Adj.routeKey() ) {
      const Mpls::RouteInfo* const info = lfibHwStatus_.unprogrammedRoute().find( key );
      if ( info && info->statusCode != Mpls::RouteStatusCode::notProgrammed ) {
         labels_.push_back( { key, hit.ways, hit.protectedBy } );
      }
   }
   if ( !l3Adj.extFecInfo() ) {
      return;
   }
   const Fib::FecId fecId = l3Adj.extFecInfo()->fecId();
   const auto same = std::ranges::find( fecs_, fecId, &ImpactedFec::fecId );
   if ( same == fecs_.end() ) {
      fecs_.push_back( { fecId, hit.ways, hit.protectedBy } );
   }
}

// An L2 via stays as long as something that uses the adjacency still comes to it.
void Impact::findL2Adjacencies() {
   Hash< const L2Adjacency*, std::vector< char > > stays; // in the order of the set's vias
   for ( const ImpactedAdjacency& hit : l3Adjacencies_ ) {
      if ( const L2Adjacency* const l2Adj =
              hwMplsStatus_.adjacency( hit.index )->l2Adjacency().get() ) {
         stays.set( l2Adj, std::vector< char >( l2Adj->l2ViaSet().l2Vias() ) );
      }
   }
   for ( const auto& [index, adjacency] : hwMplsStatus_.adjacency() ) {
      const L2Adjacency* const l2Adj = adjacency->l2Adjacency().get();
      std::vector< char >* const marks = l2Adj ? stays.find( l2Adj ) : nullptr;
      if ( marks == nullptr ) {
         continue;
      }
      const std::vector< L2Via >& vias = l2Adj->l2ViaSet().l2Via();
      eachWay( *adjacency, [&]( const AdjacencyVia& via, const WayOut& way, bool gone ) {
         const L2Via l2Via{ way.rewrite->vlanId, way.rewrite->l2Intf, way.rewrite->macAddr,
                            via.labelAction,     via.payloadType,     via.ttlMode,
                            via.labelStack };
         const auto at = std::ranges::lower_bound( vias, l2Via );
         if ( !gone && at != vias.end() && *at == l2Via ) {
            ( *marks )[static_cast< size_t >( at - vias.begin() )] = 1;
         }
      } );
   }
   for ( const auto& [l2Adj, marks] : stays ) {
      const auto left = static_cast< size_t >( std::ranges::count( marks, 1 ) );
      if ( left < marks.size() ) {
         l2Adjacencies_.push_back( { l2Adj->index(), { left, marks.size() }, {} } );
      }
   }
}

} // namespace Vel::Agent
