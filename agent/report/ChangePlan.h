// ChangePlan: what a next label table would do to the hardware. The software switch takes the
// table, and the plan compares its content before and after: which labels are added, removed,
// changed or lose their way, how many operations that takes, and how many entries are in use at
// most meanwhile.
//
//    ChangePlan plan( agent );
//    agent.apply( next ) and agent.settle()
//    plan.finish();
//
// A label that leaves by the same ways before and after counts as unchanged, even if its hardware
// entries are rewritten.
//
// Cost: a hash of the ways of each label in hardware, before and after.

#pragma once

#include <iosfwd>
#include <string>
#include <vector>

#include "agent/world/LabelAgent.h"
#include "inspect/LabelState.h"

namespace Vel::Agent {

/// How many entries of a kind are in hardware.
struct PlannedRoom {
   U64 before = 0;
   U64 after = 0;
   U64 most = 0; ///< at a time during the change
};

class ChangePlan {
 public:
   /// A label of the next table that was forwarded, and would no longer be, or by fewer vias.
   struct Loss {
      Mpls::RouteKey label;
      Inspect::LabelState state;
      std::string reason;
   };

   /// Notes the present content of the hardware. The agent must have settled, and outlive the plan.
   explicit ChangePlan( LabelAgent& agent );
   /// Compares the noted content with the present one.
   void finish();

   const std::vector< Mpls::RouteKey >& added() const { return added_; }
   const std::vector< Mpls::RouteKey >& removed() const { return removed_; }
   const std::vector< Mpls::RouteKey >& changed() const { return changed_; }
   const std::vector< Loss >& losses() const { return losses_; }
   size_t unchanged() const { return unchanged_; }
   U64 operations() const { return operations_; } ///< that hardware carries out for the change
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

/// A summary in the first line, then the labels that lose their way, the other labels that change,
/// and the entries in use. False when the stream could not take it.
bool printText( std::ostream& out, const ChangePlan& plan );
/// One JSON object.
bool printJson( std::ostream& out, const ChangePlan& plan );

} // namespace Vel::Agent
