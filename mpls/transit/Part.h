// The base of the parts of MplsSm.
//
// MplsSm is the entity: it holds all state that others read by name. Its reactors hear the events,
// and it, or a part, marks what they touch. The work is done by the parts, one class for each topic
// (see Parts.h). A part works on the attributes of MplsSm and of the records, and keeps for itself
// only what nobody else needs to see.

#pragma once

#include "mpls/VelMplsSm.h"

namespace Vel::Transit {

struct Parts;

class Part {
 public:
   Part( MplsSm& sm, Parts& parts ) : sm_( sm ), in_( sm.inputs() ), parts_( parts ) {}
   Part( const Part& ) = delete;
   Part& operator=( const Part& ) = delete;

 protected:
   ~Part() = default;

   MplsSm& sm_;
   const MplsSmInputs& in_;
   Parts& parts_;
};

} // namespace Vel::Transit
