// The ids of FECs: given to via sets and vias, kept while their FEC is requested, given back.
//
// A number that was given back may be used again while its former FEC is still answered. Such a
// number is set aside until the answer is withdrawn, so that no answer is taken for another's.
//
// State: MplsSm::numAllocator, fecIdSetAside; VrfMplsState::lFibViaSetToFecId, viaKeyToFecId.
// L3Adjacencies also deletes from the first of these, where an adjacency has no FEC of ours any more.
// Cost: one look-up.

#pragma once

#include "mpls/transit/Part.h"

namespace Vel::Transit {

/// Allocates FEC ids.
class FecIds : private Part {
 public:
   using Part::Part;

   /// The adjacency's FEC is a next-hop group's own. One whose vias are disabled must not be
   /// forwarded into: it gets a FEC of ours, for its backup.
   static bool usesGroupFec( const CachedLFibMplsViaColl& vias );

   /// Releases a number that is set aside when no answer stands under it any more; asked at every
   /// answer, whether anybody requests the id or not.
   void maybeReleaseSetAside( Fib::FecId fecId );
   Fib::FecId getFecIdForRequest( const L3Adjacency& l3Adj, const CachedLFibMplsViaColl& lFibVias,
                                  VrfMplsState& vrfState, bool newFecIdRequired );
   void freeMplsFecId( Fib::FecId fecId, VrfMplsState& vrfState );

 private:
   Fib::FecId newFecId( Fib::AdjType type );
   bool answered( Fib::FecId fecId ) const;
   Fib::FecId getOrAllocateMplsFecId( Mpls::LfibViaSetKey viaSetKey, VrfMplsState& vrfState,
                                      AddressFamily af, bool newFecIdRequired );
   Fib::FecId getOrAllocateMplsFecIdPerVia( VrfMplsState& vrfState, const Mpls::LfibMplsVia& via );
};

} // namespace Vel::Transit
