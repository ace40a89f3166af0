// Links: which interfaces are up.
//
// An interface is up unless somebody has said otherwise, or the fault plan does.

#pragma once

#include "driver/FaultPlan.h"

namespace Vel::Driver {

class Links {
 public:
   /// The plan and the clock must outlive it.
   Links( const FaultPlan& faults, const Clock& clock ) : faults_( faults ), clock_( clock ) {}

   /// True when that changed anything.
   bool upIs( IntfId intf, bool up ) { return up ? down_.erase( intf ) : down_.insert( intf ); }
   bool up( IntfId intf ) const {
      return !down_.has( intf ) && ( faults_.empty() || !faults_.linkDown( intf, clock_.now() ) );
   }
   /// Every interface is up, and will be.
   bool allUp() const { return down_.empty() && faults_.empty(); }

 private:
   const FaultPlan& faults_;
   const Clock& clock_;
   HashSet< IntfId > down_;
};

} // namespace Vel::Driver
