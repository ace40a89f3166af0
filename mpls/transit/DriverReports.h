// What the driver reports: routes and adjacencies that it has or refuses, and which way hardware
// takes by a FEC.
//
// A report for a route that is not configured that way any more is late and only counted. Lists of
// what is refused are counted as they change; the count decides about retries and about the system
// log, where each full message has its normal one.
//
// State: MplsRoute::unprogrammed and unconfirmedWrites, VrfMplsState::numUnprogrammedRoute,
// numUnprogrammedAdj, unprogrammedRetryInterval, ExternalFecInfo::adjState. Writes
// MplsHwVrfStatus::unprogrammedReason, and takes stray keys off unprogrammedRoute.
// Cost: constant for a route; a FEC's state marks its routes for publishing.

#pragma once

#include "mpls/transit/Part.h"

namespace Vel::Transit {

/// Follows what the driver reports.
class DriverReports : private Part {
 public:
   using Part::Part;

   /// The driver has made the VRF's status. What was refused without it could not be listed.
   void handleHwVrfStatus( VrfId vrfId );
   /// A VRF's status is gone with what it listed, whose leaving nobody has heard of.
   void handleHwVrfStatusGone();
   void handleProgrammedRoute( MplsHwVrfStatus& status, Mpls::RouteKey routeKey );
   void handleUnprogrammedRoute( MplsHwVrfStatus& status, Mpls::RouteKey routeKey );
   void handleUnprogrammedAdj( MplsHwVrfStatus& status,
                               const Ptr< Mpls::Hardware::L2Adjacency >& adjacency );
   void handleAdjHwState( const Fib::GlobalFecId& globalFecId );
   void handleMcastId( VrfId vrfId, U16 groupId );
   /// From the lists themselves; arrivals and departures go on from there.
   void countListed( VrfMplsState& vrfState ) const;
   /// A full message that may not be said now is owed: the next retry asks again.
   void maybeSayResourceFull();
   /// Each full message has its normal one, which its own limit must not swallow.
   void sayResourceNormal();
   void retrySoon( VrfMplsState& vrfState );

 private:
   bool resourceFullOwed_ = false; // a full message that its limit did not allow
};

} // namespace Vel::Transit
