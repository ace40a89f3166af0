#include "agent/world/ForeignFecs.h"

#include <algorithm>
#include <set>

namespace Vel::Agent {

namespace {

constexpr size_t maxDepth = 8; // of tunnels in tunnels, as in hardware

} // namespace

void ForeignFecs::definedAre( const std::vector< PlannedForeign >& defined ) {
   for ( auto& [intf, known] : known_ ) {
      known.defined = false;
   }
   for ( const PlannedForeign& foreign : defined ) {
      const auto [at, made] = known_.try_emplace( foreign.intf );
      Known& known = at->second;
      known.defined = true;
      if ( made || known.vias != foreign.vias ) {
         known.vias = foreign.vias;
         tell( foreign.intf, &known.vias );
      }
   }
}

bool ForeignFecs::takeBackRest() {
   bool any = false;
   for ( auto at = known_.begin(); at != known_.end(); ) {
      if ( at->second.defined ) {
         ++at;
         continue;
      }
      tell( at->first, nullptr );
      at = known_.erase( at );
      any = true;
   }
   return any;
}

// Null: it is gone.
void ForeignFecs::tell( IntfId intf, const Vias* vias ) {
   if ( fecs_ == nullptr ) {
      return;
   }
   if ( DynamicTunnelIntfId::isDynamicTunnelIntfId( intf ) ) {
      vias ? fecs_->tunnelIs( intf, *vias ) : fecs_->tunnelDel( intf );
      return;
   }
   const Fib::FecId fecId = Fib::FecIdIntfId::intfIdToFecId( intf );
   vias ? fecs_->foreignFecIs( fecId, *vias ) : fecs_->foreignFecDel( fecId );
}

const ForeignFecs::Vias* ForeignFecs::find( IntfId intf ) const {
   const auto at = known_.find( intf );
   return at == known_.end() ? nullptr : &at->second.vias;
}

// Level by level, each once, where it is least deep.
std::vector< NextHopInfo > ForeignFecs::exits( IntfId intf ) const {
   std::vector< NextHopInfo > out;
   std::set< IntfId > seen;
   std::vector< IntfId > level{ intf };
   for ( size_t depth = 0; depth < maxDepth && !level.empty(); ++depth ) {
      std::vector< IntfId > below;
      for ( const IntfId at : level ) {
         const Vias* const vias = seen.insert( at ).second ? find( at ) : nullptr;
         for ( size_t i = 0; vias && i < vias->size(); ++i ) {
            const Fib::FecVia& via = ( *vias )[i];
            Interfaces::foreignKind( via.intf ) ? below.push_back( via.intf ) : addExit( via, out );
         }
      }
      level = std::move( below );
   }
   return out;
}

void ForeignFecs::addExit( const Fib::FecVia& via, std::vector< NextHopInfo >& out ) const {
   const KnownNeighbor* const known = l3_.neighbor( { via.intf, via.nextHop } );
   if ( known && known->info.resolved && std::ranges::find( out, known->info ) == out.end() ) {
      out.push_back( known->info );
   }
}

} // namespace Vel::Agent
