// L2 adjacencies: one for each distinct set of resolved vias, shared by the L3 adjacencies that
// resolve to it. It outlives them until the last route that is in hardware by it has been moved.
//
//    bound by an L3 adjacency ──none binds it any more──> pending deletion ──last route left──> deleted
//
// State: VrfMplsState::l2Adjacency, l2AdjPendingForDelete, l2AdjVacated, MplsSm::viaSetToHwL2Adj.
// Writes Mpls::Hardware::Status::l2Adjacency and MplsHwVrfConfig::l2Adjacency.
// Cost: one look-up; a report of the driver marks the L3 adjacencies that are bound to it.

#pragma once

#include "mpls/transit/Part.h"

namespace Vel::Transit {

/// Shared sets of resolved vias.
class L2Adjacencies : private Part {
 public:
   using Part::Part;

   void progHwL2Adj( const L3::VrfName& vrf, const Ptr< Mpls::Hardware::L2Adjacency >& hwL2Adj );
   void addRouteKeyToL2Adj( Mpls::RouteKey routeKey, MplsL2Adjacency& l2Adj );
   void deleteRouteKeyFromL2Adj( Mpls::RouteKey routeKey, MplsL2Adjacency& l2Adj );
   void bindL3AdjToL2Adj( VrfMplsState& vrfState, L3Adjacency& l3Adj,
                          const Mpls::Hardware::L2ViaSet& l2ViaSet );
   /// The L2 adjacency that is left behind is looked at again, and deleted when nothing uses it any
   /// more.
   void unbindL3AdjFromL2Adj( VrfMplsState& vrfState, L3Adjacency& l3Adj );
   void processL2Adj( VrfMplsState& vrfState, U64 index );
   void processL2AdjPendingDelete( VrfMplsState& vrfState, U64 index );

 private:
   MplsL2Adjacency* newL2Adjacency( VrfMplsState& vrfState );
   void maybeDeleteL2Adj( VrfMplsState& vrfState, U64 index );
   void doDeleteL2Adj( VrfMplsState& vrfState, U64 index );
};

} // namespace Vel::Transit
