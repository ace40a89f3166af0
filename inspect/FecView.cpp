#include "inspect/FecView.h"

#include <algorithm>

namespace Vel::Inspect {

using Fib::Fec;
using Fib::FecId;
using Fib::FecVia;

namespace {

Fib::AdjType wantedType( const std::vector< FecVia >& vias ) {
   const auto named = std::ranges::find_if( vias, []( const FecVia& via ) {
      return !via.nextHop.empty(); // a tunnel has next hops of its own
   } );
   return named != vias.end() && named->nextHop.af() == ipv6() ? Fib::AdjType::mplsV6Adj
                                                               : Fib::AdjType::mplsV4Adj;
}

} // namespace

const Fec* FecView::requested( FecId fecId ) const {
   if ( request_ == nullptr || !fecId.ofLabelViaSet() ) {
      return nullptr;
   }
   return fecId.adjType() == Fib::AdjType::mplsV6Adj ? request_->fec6().find( fecId )
                                                     : request_->fec().find( fecId );
}

// Where the routes carry the pop, hardware pops first and then does what the FEC says. The payload
// of the pop is that of the adjacency.
bool FecView::hasVias( const Fec& content, const std::vector< FecVia >& wanted,
                       const L3Adjacency& l3Adj, bool popWithRoute ) {
   if ( content.primaryVia().size() != wanted.size() ) {
      return false;
   }
   for ( size_t i = 0; i < wanted.size(); ++i ) {
      FecVia via = content.via[i];
      if ( popWithRoute && !via.drop ) {
         if ( via.labelAction != MplsLabelAction::none || via.labelStack.stackSize() != 0 ) {
            return false; // the FEC would take off or put on labels after the pop
         }
         via.labelAction = MplsLabelAction::pop;
         via.payloadType = l3Adj.payloadType();
         via.ttlMode = l3Adj.ttlMode();
      }
      if ( via != wanted[i] ) {
         return false;
      }
   }
   return true;
}

bool FecView::isAsWanted( const FecIntent& wanted, const L3Adjacency& l3Adj ) const {
   const ExternalFecInfo* const fec = l3Adj.extFecInfo().get();
   if ( fec == nullptr || wanted.foreign != FecId() ) {
      return fec && fec->fecId() == wanted.foreign;
   }
   const Fec* const content = requested( fec->fecId() );
   // Vias that drop have no next hops to tell the address family from.
   const bool drops = !wanted.vias.empty() && wanted.vias.front().drop;
   return content && hasVias( *content, wanted.vias, l3Adj, fec->popLabelActionRemoved() ) &&
          ( drops || fec->fecId().adjType() == wantedType( wanted.vias ) );
}

} // namespace Vel::Inspect
