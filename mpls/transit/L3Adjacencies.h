// L3 adjacencies: one for each via set in use. Made by its first route or by the adjacency that it
// protects, processed when anything that it depends on has changed, deleted when nothing uses it.
//
// processL3Adj( index )
//    nobody uses it        deleted
//    superseded            it only carries: its next hops are followed
//    external FEC          bound to that FEC
//    MPLS over IP          its vias are copied and checked, then programmed with an L2 adjacency or
//                          as a FEC; unfit vias leave what is programmed as it was ("outdated")
//    then                  whether it is programmed is settled, its routes are queued, and those that
//                          wait for it as a backup hear of it
//
// A via set whose routes have left may be used again at once, for something else. Routes that are
// still in hardware by what it was must not follow: another adjacency, the superseded one, goes on
// carrying them.
//
// State: VrfMplsState::l3Adjacency, lFibViaSetToL3Adj. Writes Mpls::Hardware::Status::adjacency.
// Cost: one look-up a via and one mark for each of its routes.

#pragma once

#include "mpls/transit/Part.h"

namespace Vel::Transit {

/// Makes, processes and deletes L3 adjacencies.
class L3Adjacencies : private Part {
 public:
   using Part::Part;

   L3Adjacency* newL3Adjacency( VrfMplsState& vrfState );
   /// Whether the adjacency of the via set has to be processed before the route may join it; then
   /// it is queued.
   bool maybeQueueStaleL3Adj( VrfMplsState& vrfState, Mpls::LfibViaSetKey viaSetKey );
   void processL3Adj( VrfMplsState& vrfState, U64 index );
   /// A route has left the adjacency and nothing else has changed: deletes the adjacency, or what it
   /// kept for that route.
   void processL3AdjLeft( VrfMplsState& vrfState, U64 index );

 private:
   /// What processing an adjacency has come to.
   enum class L3AdjOutcome : U32 {
      programmed, ///< as its via set says
      kept,       ///< as it was, since its via set cannot be used
      backedOff   ///< as it was; an event will bring it back
   };
   L3AdjOutcome programL3Adj( VrfMplsState& vrfState, L3Adjacency& l3Adj,
                              const Mpls::LfibViaSet& viaSet );
   L3AdjOutcome programExtFecL3Adj( VrfMplsState& vrfState, L3Adjacency& l3Adj,
                                    const Mpls::LfibViaSet& viaSet );
   L3AdjOutcome programMplsIpL3Adj( VrfMplsState& vrfState, L3Adjacency& l3Adj,
                                    const Mpls::LfibViaSet& viaSet );
   void keepUnread( VrfMplsState& vrfState, L3Adjacency& l3Adj );
   void programL3AdjWithHwConfig( VrfMplsState& vrfState, L3Adjacency& l3Adj,
                                  const Mpls::LfibViaSet& viaSet,
                                  const CachedLFibMplsViaColl& saneVias );
   void processMplsIpL3Adj( VrfMplsState& vrfState, L3Adjacency& l3Adj,
                            const Mpls::LfibViaSet& viaSet,
                            const Ptr< CachedLFibMplsViaColl >& mplsVias );
   void processExtFecL3Adj( VrfMplsState& vrfState, L3Adjacency& l3Adj,
                            const Mpls::LfibViaSet& viaSet, const Mpls::LfibExtFecVia& extFecVia );
   void processMplsMulticastAdj( VrfMplsState& vrfState, U64 index );
   void setHwAdjacencyVias( VrfMplsState& vrfState, L3Adjacency& l3Adj,
                            const Mpls::LfibViaSet& viaSet, const ProgrammableMplsFecVias& vias,
                            L3AdjLFibAdjType adjType );
   void leaveFecs( VrfMplsState& vrfState, L3Adjacency& l3Adj );
   void maybeReleaseOutdated( VrfMplsState& vrfState, L3Adjacency& l3Adj );
   void releaseVias( VrfMplsState& vrfState, L3Adjacency& l3Adj );
   void settleL3Adj( VrfMplsState& vrfState, L3Adjacency& l3Adj );
   bool followVias( VrfMplsState& vrfState, L3Adjacency& l3Adj );
   void supersedeIfChanged( VrfMplsState& vrfState, L3Adjacency& l3Adj,
                            const CachedLFibMplsViaColl& vias );
   void carryByFormer( VrfMplsState& vrfState, L3Adjacency& l3Adj,
                       const std::vector< Mpls::RouteKey >& routes );
   static std::vector< Mpls::RouteKey > routesInHardware( const VrfMplsState& vrfState,
                                                          const L3Adjacency& l3Adj, bool byIt );
   void deleteL3Adj( VrfMplsState& vrfState, U64 index );
};

} // namespace Vel::Transit
