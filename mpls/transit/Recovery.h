// What a process before has left in hardware, from the start to the sweep.
//
// `recoveredRoute` holds what the process before has programmed and this one has neither written
// nor removed. `staleRecoveredRoute` holds those of them that the LFIB was not seen to want: what
// was missing may come back by more ways than one, so the sweep asks of each once more, and takes
// out what is not wanted then. A route leaves both with its first writing.
//
// The sync ends (mplsSmNormal) when the hardware layer has answered, routes can be named by the
// VRF's number and name, and no more is stale than may be dropped unasked.
//
// State: MplsSm::recoveredRoute, staleRecoveredRoute, staleSweepHeld. Writes
// FecIdToHwFecIdRequest::adjSyncIdMap; routes that go, through MplsSmHelper.
// Cost: a sweep reads the route, its via set and its vias of each route that is stale; the sync id of
// a FEC is found by a walk over its adjacency's routes, at each request of the start.

#pragma once

#include "mpls/transit/Part.h"

namespace Vel::Transit {

/// Takes over, and drops, what was in hardware before.
class Recovery : private Part {
 public:
   using Part::Part;

   bool syncAnswered() const { return syncAnswered_; }
   /// The hardware layer has answered all that was requested of it, in the stage that waits for it.
   void syncAnsweredIs( bool answered ) { syncAnswered_ = answered; }

   /// Ends the sync once hardware has answered, routes can be named, and no more is stale than may
   /// be dropped.
   void maybeEndSync();
   /// Nothing is queued: what came back may be enough for a sweep that was held, and what waits for
   /// FECs is known.
   void settleRecovered( const VrfMplsState* vrfState );
   /// The VRF has its name, or its number: stale routes may have waited for both.
   void maybeSweepNamed( const L3::VrfName& vrf );
   /// The question that decides about a recovered route: whether the LFIB has it now, with
   /// something that can be forwarded with. A via set that is still to come may be what it has
   /// already.
   bool recoveredRouteWanted( Mpls::RouteKey routeKey ) const;
   /// The adjacency is of a kind that is programmed with an L2 adjacency: a recovered route over it
   /// has no FEC to wait for.
   bool awaitsNoFec( const L3Adjacency& l3Adj ) const;
   /// A recovered route that is not to be forwarded any more, and that this process has not
   /// written: hardware holds it as the one before left it. Before the sync is over it goes with
   /// the others.
   void dropRecoveredRoute( const L3::VrfName& vrf, Mpls::RouteKey routeKey );
   /// Where the sync map says no number, what was found is the VRF's under the first that it has.
   void noteRecoveredVrfId();
   /// What was found under another number than the VRF's is of no use to it.
   void leaveRecoveredVrfId();
   /// What the adjacency's FEC was before the restart, for the hardware layer to match: the sync id
   /// of most of its routes, as far as they are there.
   void recordAdjSyncId( const L3Adjacency& l3Adj );
   /// An operator's word that the stale routes may be dropped, however many they are.
   void approveStaleSweep();

 private:
   bool maySweepStaleRoutes();
   double staleShare( size_t stale ) const;
   void forgetWantedStale();
   bool enoughCameBack();
   void deleteRecoveredRoute( Mpls::RouteKey routeKey );
   void sweepStaleRoutes();

   U64 recoveredVrfId_ = noVrfId; // under which hardware has what was found in it
   bool syncAnswered_ = false;
};

} // namespace Vel::Transit
