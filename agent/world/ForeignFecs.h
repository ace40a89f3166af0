// ForeignFecs: plays the other agents, whose next-hop groups, tunnels and FECs label routes lead
// into.
//
// Definitions go to the hardware layer and not through the library, which knows only their names. A
// table of definitions replaces the former one in two steps. New and changed definitions are made
// known at once, so that the routes of the table find them. Definitions that the table lacks stay
// until the routes have left them.
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

   /// `fecs` is null for hardware without FECs, and must outlive this object.
   explicit ForeignFecs( const Driver::SoftwareSwitch& hardware ) : fecs_( hardware.fecUnit() ) {}
   ForeignFecs( const ForeignFecs& ) = delete;
   ForeignFecs& operator=( const ForeignFecs& ) = delete;

   /// Makes known what is new or has changed.
   void definedAre( const std::vector< PlannedForeign >& defined );
   /// Takes back what the last definitions did not name; true when there was something.
   bool takeBackRest();

   /// The vias of the definition; null while it is not known.
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
