// Room in full hardware. A FEC that waits for its answer may take the place of one that is only
// left by routes which all wait for it: hardware rewrites the one into the other in a single step.
//
//    mayTakeOver   awaited FEC <- FEC of this process that is being left
//    mayReplace    FEC of the process before <- the FEC that its routes wait for; none: it may go
//
// Asked when nothing is queued; withdrawn at once when a route is told otherwise.
// State: FecIdToHwFecIdRequest::mayTakeOver and mayReplace.
// Cost: each time that nothing is queued, the routes of FECs that are being left and not offered;
// after a change during a restart, all FEC requests and all recovered routes.

#pragma once

#include "mpls/transit/Part.h"

namespace Vel::Transit {

/// Offers the places of FECs that are being left.
class FecRoom : private Part {
 public:
   using Part::Part;

   /// What waits for FECs may have changed: the next time that nothing is queued, it is looked at.
   void lookAgain() { recoveredFecsToOffer_ = true; }
   /// Routes that are in the FEC wait for another one's answer.
   void noteLeft( Fib::FecId fecId ) { fecsBeingLeft_.insert( fecId ); }

   void maybeOfferFecs( const VrfMplsState* vrfState );
   /// At once: what has been offered and is wanted again, or wanted by nobody any more.
   void withdrawTakeOvers( const VrfMplsState* vrfState );
   /// The answer is the hardware id of the FEC whose place was offered: hardware has rewritten that
   /// one, and its routes with it. They are in the new FEC from now on, also those that have been
   /// told meanwhile to go elsewhere.
   void takeOverRoutes( VrfMplsState& vrfState, ExternalFecInfo& info );

 private:
   Fib::FecId fecAwaitedByAll( const VrfMplsState& vrfState, const ExternalFecInfo& info ) const;
   void offerFecsBeingLeft( const VrfMplsState& vrfState );
   bool someFecUnanswered() const;
   void offerRecoveredFecs( const VrfMplsState& vrfState );

   bool recoveredFecsToOffer_ = false;
   HashSet< Fib::FecId > fecsBeingLeft_;
};

} // namespace Vel::Transit
