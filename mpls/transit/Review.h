// Three cooperative tasks drain the work sets in slices.
//
// Scheduling. `doMaybeScheduleReview` is the one entry: whoever queues work calls it. The VRF then
// waits in `vrfForReview` for "reviewVrf", and in `unprogrammedRouteForReview` for
// "reviewUnprogrammedRoute" while routes are not in hardware.
//
//    queued, anything           ──> both, after reviewInterval
//    only unprogrammed routes   ──> the second, after the VRF's retry interval
//
// Retry interval of a VRF: 0 until the first retry, then `defaultUnprogrammedRetryInterval`; cut to
// `reviewInterval` when something that was not in hardware has found room. The first unprogrammed
// route after a clean period starts the interval instead of being retried at once.
//
// An item leaves its set before it is handled: a yield neither loses nor repeats work.

#pragma once

#include "mpls/transit/Part.h"

namespace Vel::Transit {

/// Drains the work sets, and retries.
class Review : private Part {
 public:
   using Part::Part;

   void doMaybeScheduleReview( const L3::VrfName& vrf );
   void doMaybeScheduleReviewOrDeleteVrfState( const L3::VrfName& vrf );
   void doForceRouteReprogramming();
   bool shouldTaskYield( const TimerTask& task ) const;
   /// A run that was cut short goes on at once. While the log is clogged it would only be cut short
   /// again: the delayed run that whoever was put back has scheduled will do.
   void runAgainAtOnce( TimerTask& task ) const;
   void runReviewVrfsTask();
   void runUnprogrammedRouteReviewTask();

 private:
   void doReviewVrf( const L3::VrfName& vrf );
   void queueForPublishing( VrfMplsState& vrfState );
   void doReviewUnprogrammedRoutes( VrfMplsState& vrfState );
   void retryUnprogrammed( VrfMplsState& vrfState );
   bool retryAdjacencies( VrfMplsState& vrfState, MplsHwVrfStatus& status );
   bool retryRoutes( VrfMplsState& vrfState, MplsHwVrfStatus& status );
};

} // namespace Vel::Transit
