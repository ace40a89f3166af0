// One route off the work set: whether it is still wanted, and over which adjacency.
//
// processRouteKey( K ) asks the LFIB for the route and its via set, binds the route's record to the
// via set's adjacency, which is made when there is none, and has RouteWriter write it. The LFIB is
// read ahead of its announcements, so each question is asked anew.
//
// State: VrfMplsState::route, MplsRoute::unprogrammed, MplsSm::viaSetAwaited (via sets that were missing or not sane: their
// arrival, or their mending, queues the routes that use them).
// Cost: a bounded number of look-ups a
// route; the via sets that nobody awaits any more are looked for when as many again have come.

#pragma once

#include "mpls/transit/Part.h"

namespace Vel::Transit {

/// Route records, and the way of one through its processing.
class Routes : private Part {
 public:
   using Part::Part;

   void processRouteKey( VrfMplsState& vrfState, Mpls::RouteKey routeKey );
   /// The route's record, made when there is none.
   void routeMake( VrfMplsState& vrfState, Mpls::RouteKey routeKey );
   void routeUnprogrammedIs( MplsRoute& route, bool unprogrammed );
   /// A route whose via set leads to what another state machine handles is none of ours (any more).
   void dropUnsupportedRoute( const L3::VrfName& vrf, Mpls::RouteKey routeKey );
   /// A route whose via set was not sane has lost its record; it gets another one, and with it
   /// another chance. Routes of other state machines are theirs to look at.
   void queueRoutesOfViaSet( VrfMplsState& vrfState, Mpls::LfibViaSetKey viaSetKey );

 private:
   void keepUnread( VrfMplsState& vrfState, MplsRoute& route );
   void stayWithoutViaSet( VrfMplsState& vrfState, MplsRoute& route );
   void awaitViaSet( Mpls::LfibViaSetKey viaSetKey );
   void forgetUnusedViaSets();
   L3Adjacency& bindRouteToL3Adj( VrfMplsState& vrfState, MplsRoute& route,
                                  Mpls::LfibViaSetKey viaSetKey );

   size_t viaSetsAwaitedLimit_ = 64; // from where those that nobody uses are looked for
};

} // namespace Vel::Transit
