// What the driver reports: routes and adjacencies that it has or refuses, and which way hardware
// takes by a FEC.
//
// A report for a route that is not configured that way any more is late and only counted. Lists of
// what is refused are counted as they change; the count decides about retries and about the system
// log, where each full message has its normal one.
//
// State: MplsRoute::unconfirmedWrites, VrfMplsState::numUnprogrammedRoute, numUnprogrammedAdj and
// unprogrammedRetryInterval, ExternalFecInfo::adjState. Writes MplsHwVrfStatus::unprogrammedReason,
// and takes stray keys off unprogrammedRoute.
// Cost: constant for a route; a FEC's state marks the routes that are in the FEC, or protected by it;
// a VRF's status that is made walks all routes.

#pragma once

#include "mpls/transit/Part.h"

namespace Vel::Transit {

/// Follows what the driver reports.
class DriverReports : private Part {
 public:
   using Part::Part;

   /// The driver has made the VRF's status. Routes that were refused while there was none are queued.
   void handleHwVrfStatus( VrfId vrfId );
   /// The driver has removed a VRF's status: what is listed is counted again.
   void handleHwVrfStatusGone();
   void handleProgrammedRoute( MplsHwVrfStatus& status, Mpls::RouteKey routeKey );
   void handleUnprogrammedRoute( MplsHwVrfStatus& status, Mpls::RouteKey routeKey );
   void handleUnprogrammedAdj( MplsHwVrfStatus& status,
                               const Ptr< Mpls::Hardware::L2Adjacency >& adjacency );
   /// Reads what hardware had reported of FECs under the VRF's number before the VRF had that number.
   void readAdjHwStates( VrfMplsState& vrfState );
   void handleAdjHwState( const Fib::GlobalFecId& globalFecId );
   void handleMcastId( VrfId vrfId, U16 groupId );
   /// Sets both counts to what the statuses list; reports then change them by one.
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
