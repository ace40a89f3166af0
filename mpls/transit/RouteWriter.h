// How a route comes into hardware, stays there and leaves.
//
// A route is written the way its adjacency is programmed: into its FEC (through MplsSmHelper), with
// its L2 adjacency (MplsHwVrfConfig::route), or by a replication group. It is recorded with what
// hardware has it by (MplsRoute::l2Adj, MplsRoute::extFecInfo), which is not always what its
// adjacency is now:
//
//    carried    its own adjacency cannot take it yet; the one that it left, the carrier, keeps what
//               the route is in hardware by, and follows next hops for it
//    waiting    its FEC is not answered, or is behind what is requested of it
//    kept       the via set is missing or unfit: what is in hardware stays
//
// Make before break: what a route leaves is released when the route has been written elsewhere.
//
// State: MplsRoute (l2Adj, extFecInfo, unprogrammed, version, unconfirmedWrites),
// L3Adjacency::carriedRouteKey. A route has one carrier at most.
// Writes MplsHwVrfConfig::route, MplsHwVrfStatus::unprogrammedRoute and unprogrammedReason.
// Cost: a bounded number of look-ups a route.

#pragma once

#include "mpls/transit/Part.h"

namespace Vel::Transit {

/// Writes routes, leaves them where they are, takes them out.
class RouteWriter : private Part {
 public:
   using Part::Part;

   /// Writes the route the way its adjacency is programmed: by its multicast group, into its FEC,
   /// or with its L2 adjacency. An outdated or unreviewed adjacency takes no new route: then the
   /// answer is false, and the route stays as it is.
   bool writeRoute( VrfMplsState& vrfState, MplsRoute& route, L3Adjacency& l3Adj );
   /// The route stays in hardware with what it has while there is nothing else for it yet. It
   /// follows the adjacency that it has it from: a change of that one's next hops is one of its
   /// own. False when there is no way out that it could stay with.
   bool stayInHardware( VrfMplsState& vrfState, MplsRoute& route );
   /// An adjacency that has let go of what the route is in hardware by carries nothing: the route
   /// would go with whatever its via set says next.
   static void maybeCarry( const VrfMplsState& vrfState, L3Adjacency& l3Adj,
                           const MplsRoute& route );
   /// Ends the carrying. The carrier is queued: it may have been kept for this route only.
   static void leaveCarrier( VrfMplsState& vrfState, Mpls::RouteKey routeKey );
   void takeRouteOut( VrfMplsState& vrfState, MplsRoute& route );
   void unprogramRouteKey( VrfMplsState& vrfState, Mpls::RouteKey routeKey );
   void deleteRouteKeyAndRoute( VrfMplsState& vrfState, Mpls::RouteKey routeKey );

 private:
   void writeRouteWithL2Adj( VrfMplsState& vrfState, MplsRoute& route, L3Adjacency& l3Adj );
   void writeRouteWithFec( VrfMplsState& vrfState, MplsRoute& route, L3Adjacency& l3Adj );
   void writeRouteWithMulticast( VrfMplsState& vrfState, MplsRoute& route, L3Adjacency& l3Adj );
   bool joins( const MplsRoute& route, const L3Adjacency& l3Adj ) const;
   bool waitsForFec( VrfMplsState& vrfState, MplsRoute& route, L3Adjacency& l3Adj );
   void leaveRouteUnprogrammed( VrfMplsState& vrfState, MplsRoute& route, L3Adjacency& l3Adj );
   void stayWithoutNumber( VrfMplsState& vrfState, MplsRoute& route );
   void unprogramRouteIntoFec( const VrfMplsState& vrfState, Mpls::RouteKey routeKey );
   void deleteRouteIntoFec( const L3::VrfName& vrf, Mpls::RouteKey routeKey );
   void clearRouteMappings( VrfMplsState& vrfState, Mpls::RouteKey routeKey );
   void addUnprogrammedRoute( VrfMplsState& vrfState, Mpls::RouteKey routeKey,
                              UnprogrammedReason reason );

   U64 lastRouteVersion_ = 0; // the largest of any route that is gone
};

} // namespace Vel::Transit
