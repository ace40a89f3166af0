// Two of the three cooperative tasks: the one that drains the sets for review, and the one that tries
// again what is refused. The third publishes (Publisher.h).
//
// Scheduling. `doMaybeScheduleReview` is the one entry: whoever queues work calls it. The VRF then
// waits in `vrfForReview` for "reviewVrf", and in `unprogrammedRouteForReview` for
// "reviewUnprogrammedRoute" while routes are not in hardware.
//
//    queued, anything           ──> both, after reviewInterval
//    only unprogrammed routes   ──> the second, after the VRF's retry interval
//
// Retry interval of a VRF: 0 until something is refused, then `defaultUnprogrammedRetryInterval`; cut to
// `reviewInterval` when something that was not in hardware has found room. The first unprogrammed
// route after a clean period starts the interval instead of being retried at once.
//
// An item leaves its set before it is handled: a yield neither loses nor repeats work.
//
// State: MplsSm::vrfForReview, unprogrammedRouteForReview; VrfMplsState::lastUnprogrammedReview,
// unprogrammedRetryInterval, retryRoutesFirst, adjRetried.

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
   /// Runs the task again at once after it was cut short; not while the log is clogged: then the run
   /// that has been scheduled for the VRF goes on.
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
