// FaultPlan: what goes wrong in the software switch, and when.
//
// A plan is a list of faults, from a text of clauses (docs/formats.md) or put together by a test.
// Times are seconds since the plan was started; a fault without times holds for ever.
//
//    refuse operation 7 RouteFull      refuse label 16001 until 25      refuse adjacency 3
//    not-ready eth1 from 5 until 8     late 0.5                         forget label 16002
//    route-capacity 100 from 15        adjacency-capacity 8 from 15     fec-capacity 8 until 20
//    link-down eth1 from 30
//
// Whatever a plan says, the switch keeps the driver contract: it refuses, it is slow, it is full.
// `forget` is the exception that proves the rule: hardware that loses an operation gives no answer.
//
// Cost: nothing for an empty plan; each operation asks every fault of the plan otherwise.

#pragma once

#include <functional>
#include <limits>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "driver/Operation.h"

namespace Vel::Driver {

enum class FaultKind : uint8_t {
   refuseOperation,   ///< the writing of that number, counted over adjacencies and routes from 1
   refuseLabel,       ///< each writing of that route
   refuseAdjacency,   ///< each writing of that L2 adjacency
   notReady,          ///< each writing of an adjacency or FEC that leaves by that interface
   late,              ///< answers to what is written come so many seconds later
   forgetLabel,       ///< each writing of that route is lost
   linkDown,          ///< the interface is down
   routeCapacity,     ///< `number` is the capacity instead
   adjacencyCapacity, ///< `number` is the capacity instead
   fecCapacity,       ///< `number` is the capacity instead
};

struct Fault {
   FaultKind kind = FaultKind::late;
   U64 number = 0; ///< of the operation, index of the adjacency, or capacity (0: no limit)
   Mpls::RouteKey routeKey{};
   IntfId intf{};
   double seconds = 0; ///< of lateness
   UnprogrammedReason reason = UnprogrammedReason::InterfaceNotReady;
   double from = 0;
   double until = std::numeric_limits< double >::infinity();
};

class FaultPlan {
 public:
   /// Gives the interface of that name; empty when there is none.
   using FindIntf = std::function< IntfId( std::string_view name ) >;

   bool empty() const { return faults_.empty(); }
   const std::vector< Fault >& faults() const { return faults_; }
   void add( const Fault& fault ) { faults_.push_back( fault ); }
   void clear() { faults_.clear(); }
   /// Adds the clauses of the text, separated by ";" or line ends. A sentence when one of them is
   /// wrong; then none is added.
   std::optional< std::string > parse( std::string_view text, const FindIntf& findIntf );

   /// The time from which times count, in seconds of the clock.
   void startIs( double seconds ) { start_ = seconds; }
   /// Why the writing of an adjacency or a route is refused, or `Success`. Asked once for each:
   /// it counts. `vias` are those of a written adjacency, else null.
   UnprogrammedReason refusal( const Operation& operation, const Mpls::Hardware::L2ViaSet* vias,
                               double now );
   bool forgets( const Operation& operation, double now ) const;
   /// Seconds by which the answer to what is written now comes later.
   double lateness( double now ) const;
   bool notReady( IntfId intf, double now ) const {
      return onInterface( FaultKind::notReady, intf, now );
   }
   bool linkDown( IntfId intf, double now ) const {
      return onInterface( FaultKind::linkDown, intf, now );
   }
   /// The next time at which a fault begins or ends; infinite when none does.
   double nextChange( double now ) const;
   /// The capacity of that kind, or `otherwise` when the plan has nothing to say.
   size_t capacity( FaultKind kind, double now, size_t otherwise ) const;

 private:
   bool holds( const Fault& fault, double now ) const {
      return now >= start_ + fault.from && now < start_ + fault.until;
   }

   bool onInterface( FaultKind kind, IntfId intf, double now ) const;

   std::vector< Fault > faults_;
   U64 writings_ = 0;
   double start_ = 0;
};

} // namespace Vel::Driver
