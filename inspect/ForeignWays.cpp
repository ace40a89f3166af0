#include "inspect/ForeignWays.h"

#include <algorithm>

namespace Vel::Inspect {

using Fib::Fec;
using Fib::FecVia;

namespace {

constexpr size_t maxDepth = 8; // as in hardware; the FEC that the route forwards into counts

} // namespace

std::string ForeignWays::text( IntfId intf ) const {
   const Fib::FecId fecId = Fib::FecIdIntfId::intfIdToFecId( intf );
   return fecId == Fib::FecId() ? "tunnel " + intfText( intf, name_ )
                                : joinText( "FEC ", fecIdText( fecId ), " of another agent" );
}

const Fec* ForeignWays::find( IntfId intf ) const {
   return DynamicTunnelIntfId::isDynamicTunnelIntfId( intf )
             ? insight_->findTunnel( intf )
             : insight_->findForeignFec( Fib::FecIdIntfId::intfIdToFecId( intf ) );
}

void ForeignWays::addEnd( const FecVia& via, ForeignEnds& ends ) const {
   if ( via.drop ) {
      ends.why = "it drops";
      return;
   }
   const NextHopKey key{ via.intf, via.nextHop };
   const std::optional< NextHopInfo > told = insight_->neighbor( key );
   if ( !told ) {
      ends.known = false;
      return;
   }
   const NextHopInfo& info = *told;
   const IntfId out = via.intf.empty() ? info.l2Intf : via.intf;
   if ( !insight_->linkUp( out ) ) {
      ends.why = "interface " + intfText( out, name_ ) + " is down";
   } else if ( !info.resolved ) {
      ends.why = nextHopText( via.nextHop, via.intf, name_ ) + " is not resolved";
   } else if ( std::ranges::find( ends.exits, key, &ForeignExit::nextHop ) == ends.exits.end() ) {
      ends.exits.push_back( { key, info } );
   }
}

// Breadth first, so that each FEC and tunnel is met by the shortest way to it.
ForeignEnds ForeignWays::read( IntfId intf ) const {
   ForeignEnds ends;
   if ( !known() ) {
      ends.known = false;
      return ends;
   }
   HashSet< IntfId > seen;
   std::vector< IntfId > level{ intf };
   // A route forwards into a group or an external FEC directly, and into a tunnel through its own
   // FEC.
   for ( size_t depth = DynamicTunnelIntfId::isDynamicTunnelIntfId( intf ) ? 1 : 0; !level.empty();
         ++depth ) {
      if ( depth == maxDepth ) {
         ends.why = joinText( text( level.front() ), " lies more than ", maxDepth,
                              " FECs and tunnels deep" );
         break;
      }
      std::vector< IntfId > below;
      for ( const IntfId at : level ) {
         if ( !seen.insert( at ) ) {
            continue;
         }
         const Fec* const there = find( at );
         if ( there == nullptr ) {
            ends.why = text( at ) + " is not there";
            continue;
         }
         for ( const FecVia& via : there->via ) {
            leadsElsewhere( via.intf ) ? below.push_back( via.intf ) : addEnd( via, ends );
         }
      }
      level = std::move( below );
   }
   if ( ends.exits.empty() && ends.why.empty() ) {
      ends.why = "it leads into itself";
   }
   return ends;
}

void ForeignWays::eachNextHop( const std::function< void( const NextHopKey& ) >& call ) const {
   if ( !known() ) {
      return;
   }
   insight_->eachForeign( [&]( const Fec& content ) {
      for ( const FecVia& via : content.via ) {
         if ( !leadsElsewhere( via.intf ) && !via.drop ) {
            call( { via.intf, via.nextHop } );
         }
      }
   } );
}

} // namespace Vel::Inspect
