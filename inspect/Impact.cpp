#include "inspect/Impact.h"

#include <algorithm>

#include "mpls/VelMplsSm.h"

namespace Vel::Inspect {

using Mpls::Hardware::AdjacencyVia;
using Mpls::Hardware::L2Via;

std::string ImpactTarget::text( const InterfaceName& name ) const {
   return nextHop ? nextHopText( *nextHop, intf, name ) : "interface " + intfText( intf, name );
}

Impact::Impact( const EntityManager& entities, const ImpactTarget& target )
   : target_( target ),
     nextHops_( entities ),
     foreignWays_( entities ),
     hwMplsStatus_( mountedRoot< Mpls::Hardware::Status >( entities, "routingHwMplsStatus" ) ),
     states_( entities ),
     insight_( entities.root< MplsHwInsight >( "mplsHwInsight" ) ),
     state_( mountedRoot< MplsSm >( entities, "mplsSm" ).mplsState( LfibIntent::vrf() ) ),
     adjHwStatus_( nextHops_.status().adjHwStatus().get() ) {
   const auto& numbers =
      mountedRoot< Routing::Hardware::RouteStatus >( entities, "routingHwRouteStatus" );
   if ( numbers.vrfStatusHas( LfibIntent::vrf() ) ) {
      vrfId_ = numbers.vrfStatus( LfibIntent::vrf() );
   }
   known_ = someNextHop( entities );
   if ( !target.nextHop && target.intf.empty() ) {
      return; // nothing was asked for
   }
   findL3Adjacencies();
   findL2Adjacencies();
   std::ranges::sort( labels_, {}, &ImpactedLabel::label );
   std::ranges::sort( l3Adjacencies_, {}, &ImpactedAdjacency::index );
   std::ranges::sort( l2Adjacencies_, {}, &ImpactedAdjacency::index );
   std::ranges::sort( fecs_, {}, &ImpactedFec::fecId );
   for ( const auto& [fecId, labels] : foreignLabels_ ) {
      foreign_.push_back( { fecId, labels } );
   }
   std::ranges::sort( foreign_, {}, &ForeignWay::fecId );
}

// --- The target.

bool Impact::matches( const IpGenAddr& address, IntfId intf ) const {
   return ( !target_.nextHop || address == *target_.nextHop ) &&
          ( target_.intf.empty() || intf == target_.intf );
}

/// The target takes the way out. It may name the neighbour or the via's next hop, and the L3
/// interface or the L2 interface below it.
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
   bool foreign = false;
   foreignWays_.eachNextHop( [&]( const NextHopKey& key ) {
      foreign = foreign || matches( key.addr, key.intf ) ||
                matches( key.addr, foreignWays_.rewrite( key ).l2Intf );
   } );
   if ( foreign ) {
      return true;
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

// --- What is lost.

template< class F >
void Impact::eachWay( const Adjacency& adjacency, const F& call ) {
   for ( const auto& [index, via] : adjacency.via() ) {
      nextHops_.read( via.nextHop, via.intf, ways_ );
      for ( const WayOut& way : ways_ ) {
         if ( insight_ == nullptr || insight_->linkUp( way.intf ) ) {
            call( via, way, goes( via, way ) );
         }
      }
   }
}

WaysLeft Impact::waysOf( const Adjacency& adjacency ) {
   WaysLeft ways;
   for ( const auto& [index, via] : adjacency.via() ) {
      if ( !ForeignWays::leadsElsewhere( via.intf ) ) {
         continue;
      }
      const ForeignEnds ends = foreignWays_.read( via.intf );
      ways.of += ends.exits.size() + !ends.known; // an unknown way counts as one that stays
      ways.left += !ends.known;
      for ( const ForeignExit& exit : ends.exits ) {
         ways.left += !matches( exit.nextHop.addr, exit.nextHop.intf ) &&
                      !matches( exit.nextHop.addr, exit.rewrite.l2Intf );
      }
   }
   eachWay( adjacency, [&]( const AdjacencyVia&, const WayOut&, bool gone ) {
      ++ways.of;
      ways.left += !gone;
   } );
   return ways;
}

void Impact::findL3Adjacencies() {
   for ( const auto& [index, adjacency] : hwMplsStatus_.adjacency() ) {
      const WaysLeft ways = waysOf( *adjacency );
      const L3Adjacency* const l3Adj = state_ ? state_->l3Adjacency( index ) : nullptr;
      if ( ways.hit() ) {
         const L3Adjacency* const backup = l3Adj ? protectorOf( *l3Adj ) : nullptr;
         const bool stays = backup && !waysOf( *hwMplsStatus_.adjacency( backup->index() ) ).none();
         l3Adjacencies_.push_back(
            { index, ways, stays ? std::optional( backup->index() ) : std::nullopt } );
      }
      if ( l3Adj ) {
         addUsers( *l3Adj, ways );
         countForeign( *l3Adj, *adjacency );
      }
   }
}

/// The adjacency whose FEC is the backup of this adjacency's FEC; null when there is none.
const L3Adjacency* Impact::protectorOf( const L3Adjacency& l3Adj ) const {
   const ExternalFecInfo* const fec = l3Adj.extFecInfo().get();
   const L3Adjacency* const backup =
      fec && fec->backupExtFecInfo() ? l3Adj.backupAdj().get() : nullptr;
   return backup && hwMplsStatus_.adjacency( backup->index() ) ? backup : nullptr;
}

bool Impact::leavesByBackup( const L3Adjacency& l3Adj, const WaysLeft& primaries ) const {
   return primaries.of == 0 ||
          ( adjHwStatus_ && vrfId_ &&
            adjHwStatus_->adjHwState( { *vrfId_, l3Adj.extFecInfo()->fecId() } ) ==
               AdjHwState::backupActive );
}

/// The labels that leave by the adjacency now, even if they are meant to leave by another one.
template< class F >
void Impact::eachUser( const L3Adjacency& l3Adj, const F& call ) {
   for ( const Mpls::RouteKey key : l3Adj.routeKey() ) {
      const L3Adjacency* const carrier = state_->carrierOf( key );
      if ( ( carrier == nullptr || carrier == &l3Adj ) && inHardware( key ) ) {
         call( key );
      }
   }
   for ( const Mpls::RouteKey key : l3Adj.carriedRouteKey() ) {
      if ( state_->route( key )->l3Adj().get() != &l3Adj && inHardware( key ) ) {
         call( key );
      }
   }
}

/// Adds the labels and the FEC of the adjacency, with the ways that they leave by now.
void Impact::addUsers( const L3Adjacency& l3Adj, WaysLeft ways ) {
   const L3Adjacency* backup = protectorOf( l3Adj );
   const bool onBackup = backup && leavesByBackup( l3Adj, ways );
   if ( backup ) {
      const WaysLeft ofBackup = waysOf( *hwMplsStatus_.adjacency( backup->index() ) );
      ways = onBackup ? ofBackup : ways;
      backup = onBackup || ofBackup.none() ? nullptr : backup;
   }
   if ( !ways.hit() ) {
      return;
   }
   const std::optional< U64 > by = backup ? std::optional( backup->index() ) : std::nullopt;
   eachUser( l3Adj, [&]( Mpls::RouteKey key ) {
      labels_.push_back( { key, ways, by, onBackup } );
   } );
   if ( l3Adj.extFecInfo() ) {
      addFec( l3Adj.extFecInfo()->fecId(), ways, backup );
   }
}

void Impact::addFec( Fib::FecId fecId, WaysLeft ways, const L3Adjacency* backup ) {
   if ( fecsSeen_.insert( fecId ) ) {
      fecs_.push_back(
         { fecId, ways, backup ? std::optional( backup->extFecInfo()->fecId() ) : std::nullopt } );
   }
}

void Impact::countForeign( const L3Adjacency& l3Adj, const Adjacency& adjacency ) {
   Fib::FecId fecId;
   bool elsewhere = false;
   for ( const auto& [index, via] : adjacency.via() ) {
      elsewhere = elsewhere || ( ForeignWays::leadsElsewhere( via.intf ) &&
                                 !foreignWays_.read( via.intf ).known );
      fecId = std::max( fecId, Fib::FecIdIntfId::intfIdToFecId( via.intf ) ); // of a tunnel: none
   }
   if ( !elsewhere ) {
      return;
   }
   size_t labels = 0;
   eachUser( l3Adj, [&]( Mpls::RouteKey ) { ++labels; } );
   if ( fecId == Fib::FecId() ) {
      tunnelLabels_ += labels;
   } else if ( labels != 0 ) {
      *foreignLabels_.emplace( fecId, size_t{ 0 } ).first += labels;
   }
}

// An L2 via stays while some user of the adjacency still resolves to it.
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

} // namespace Vel::Inspect
