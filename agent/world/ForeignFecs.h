// ForeignFecs: plays the other agents, whose next-hop groups, tunnels and FECs label routes lead
// into.
//
// What they have goes to the hardware layer and not through the library, which only names it. A
// table of definitions takes the place of the one before it in two steps: what is new or changed is
// made known at once, so that routes that are about to lead into it find it; what is no longer
// defined stays until the routes have had time to leave it.
//
// Cost: a look-up and a comparison for each definition and table.

#pragma once

#include <map>
#include <vector>

#include "agent/world/LfibPlan.h"
#include "driver/SoftwareSwitch.h"

namespace Vel::Agent {

class ForeignFecs {
 public:
   /// What is known to hardware, by what stands for it.
   using Vias = std::vector< Fib::FecVia >;

   /// Hardware without FECs is told nothing. It must outlive this.
   explicit ForeignFecs( const Driver::SoftwareSwitch& hardware ) : fecs_( hardware.fecUnit() ) {}
   ForeignFecs( const ForeignFecs& ) = delete;
   ForeignFecs& operator=( const ForeignFecs& ) = delete;

   /// Makes known what is new or has changed.
   void definedAre( const std::vector< PlannedForeign >& defined );
   /// Takes back what the last definitions did not name; true when there was something.
   bool takeBackRest();

   /// The vias; null while nobody has made it known.
   const Vias* find( IntfId intf ) const;

 private:
   struct Known {
      Vias vias;
      bool defined = false; // by the last definitions
   };

   void tell( IntfId intf, const Vias* vias );

   Driver::FecUnit* fecs_;
   std::map< IntfId, Known > known_;
};

} // namespace Vel::Agent
