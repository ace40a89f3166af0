#include "agent/world/ForeignFecs.h"

namespace Vel::Agent {

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

} // namespace Vel::Agent
