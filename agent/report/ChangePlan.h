// ChangePlan: what a next label table would do to the hardware, found out by doing it to the software
// switch: which labels would come, go, change and lose their way, how much would be written, and how
// much room it would take at the worst moment.
//
//    ChangePlan plan( agent );        // as things are
//    agent.apply( next ) and agent.settle()
//    plan.finish();
//
// Labels that leave by the same ways before and after are as they are, whatever is rewritten for
// that.
//
// Cost: a hash of the ways of each label in hardware, before and after.

#pragma once

#include <iosfwd>
#include <string>
#include <vector>

#include "agent/world/LabelAgent.h"
#include "inspect/LabelState.h"

namespace Vel::Agent {

/// How many of something there are in hardware.
struct PlannedRoom {
   U64 before = 0;
   U64 after = 0;
   U64 most = 0; ///< at a time, on the way from one to the other
};

class ChangePlan {
 public:
   /// A label that is wanted still, was forwarded, and would not be, or by less than is meant.
   struct Loss {
      Mpls::RouteKey label;
      Inspect::LabelState state;
      std::string reason;
   };

   /// Notes how things are; the agent must outlive the plan, and have settled.
   explicit ChangePlan( LabelAgent& agent );
   /// Compares with how things are now.
   void finish();

   const std::vector< Mpls::RouteKey >& added() const { return added_; }
   const std::vector< Mpls::RouteKey >& removed() const { return removed_; }
   const std::vector< Mpls::RouteKey >& changed() const { return changed_; }
   const std::vector< Loss >& losses() const { return losses_; }
   size_t unchanged() const { return unchanged_; }
   U64 operations() const { return operations_; } ///< that hardware carries out for it
   const PlannedRoom& routes() const { return routes_; }
   const PlannedRoom& l2Adjacencies() const { return l2Adjacencies_; }
   const PlannedRoom& fecs() const { return fecs_; }

 private:
   struct Before {
      U64 ways = 0;
      Inspect::LabelState state = Inspect::LabelState::absent;
      friend bool operator==( const Before&, const Before& ) = default;
   };

   template< class Call >
   void eachInHardware( const Call& call ) const;

   LabelAgent& agent_;
   LabelIndexed< Mpls::RouteKey, Before > before_;
   std::vector< Mpls::RouteKey > added_;
   std::vector< Mpls::RouteKey > removed_;
   std::vector< Mpls::RouteKey > changed_;
   std::vector< Loss > losses_;
   size_t unchanged_ = 0;
   U64 operations_ = 0;
   PlannedRoom routes_;
   PlannedRoom l2Adjacencies_;
   PlannedRoom fecs_;
};

/// A summary in the first line, then the labels that lose their way, the others that change, and the
/// room. False when the stream could not take it.
bool printText( std::ostream& out, const ChangePlan& plan );
/// One JSON object.
bool printJson( std::ostream& out, const ChangePlan& plan );

} // namespace Vel::Agent
