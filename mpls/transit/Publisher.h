// What other agents may know of a route, written when no review is pending for it.
//
// A route that the driver has in hardware may still have no way out: a FEC is in hardware whether
// its vias resolve or not, and whether its backup does. A label without any is unprogrammed, one
// that leaves by part of what the LFIB means, or by an earlier FEC, is partially programmed.
//
// State: MplsSm::routeKeyToBePublished, VrfMplsState::routeKeyForPublish, L3Adjacency::waysOut,
// ExternalFecInfo::publishedBehind. Writes Mpls::Hardware::Status::route and Mpls::LfibHwStatus
// (unprogrammedRoute, viaSet).
// Cost: a bounded number of look-ups a route.

#pragma once

#include "mpls/transit/Part.h"

namespace Vel::Transit {

/// Judges routes and publishes them.
class Publisher : private Part {
 public:
   using Part::Part;

   /// By which of the ways that are meant frames leave.
   enum class WaysOut { none, some, all };

   void runPublishRouteKeysTask();
   void publishRouteKey( VrfMplsState& vrfState, Mpls::RouteKey routeKey );
   /// By which of the ways that are meant the route leaves; in a FEC that leads nowhere it is
   /// unprogrammed. `behind`: hardware has not got what is requested of its FEC.
   WaysOut judgeRoute( const VrfMplsState& vrfState, MplsRoute& route, bool behind );
   /// Notes the ways out of the adjacency's FEC; when they have changed, queues the routes that the
   /// FEC protects. The adjacency's own routes are queued anyway.
   void judgeL3Adj( VrfMplsState& vrfState, L3Adjacency& l3Adj );
   static void publishRoutesOf( VrfMplsState& vrfState, const L3Adjacency& l3Adj );
   /// Queues the routes of the FECs that this one protects: they may leave by it.
   static void publishRoutesProtectedBy( VrfMplsState& vrfState, const ExternalFecInfo& info );
   /// Which way hardware takes by the via set's FEC, where it says so.
   void publishViaSetState( const L3Adjacency& l3Adj );

 private:
   void doPublishRouteKeys( VrfMplsState& vrfState );
   WaysOut waysOutOf( const VrfMplsState& vrfState, const MplsRoute& route, bool behind ) const;
   WaysOut waysOutOf( const L3Adjacency& l3Adj ) const;
   WaysOut waysOutOf( const ExternalFecInfo& info ) const;
   WaysOut waysInHardwareOf( const MplsRoute& route, bool behind ) const;
};

} // namespace Vel::Transit
