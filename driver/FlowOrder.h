// FlowOrder: which of several ways a flow takes.
//
// Every way of every level has a weight of its own for each flow; the heaviest that can be used is
// taken. So flows spread evenly, at each level of one look-up whatever way they took at the one
// above. The flows of a way that goes down spread over all the others, and no other flow moves.

#pragma once

#include <limits>

#include "platform/values/IpTypes.h"

namespace Vel::Driver {

/// The ways of one level in the order in which a flow tries them. Allocates nothing; each step
/// costs one look at all of them.
class FlowOrder {
 public:
   /// `level`: how many choices the flow has made before, on its way through this switch.
   FlowOrder( U64 flowHash, U32 level, size_t ways )
      : seed_( scattered( flowHash + ( level + U64{ 1 } ) * step ) ), ways_( ways ) {}

   /// The next way to try; at most as often as there are ways.
   size_t next() {
      size_t best = ways_;
      U64 bestWeight = 0;
      for ( size_t way = 0; way < ways_; ++way ) {
         const U64 weight = scattered( seed_ + way * step );
         const bool untried =
            first_ || weight < lastWeight_ || ( weight == lastWeight_ && way > last_ );
         if ( untried && ( best == ways_ || weight > bestWeight ) ) {
            best = way;
            bestWeight = weight;
         }
      }
      first_ = false;
      last_ = best;
      lastWeight_ = bestWeight;
      return best;
   }

 private:
   static constexpr U64 step = 0x9E37'79B9'7F4A'7C15ULL;
   /// Neighbouring words come out as if they had nothing to do with each other.
   static U64 scattered( U64 word ) {
      word = ( word ^ word >> 30 ) * 0xBF58'476D'1CE4'E5B9ULL;
      word = ( word ^ word >> 27 ) * 0x94D0'49BB'1331'11EBULL;
      return word ^ word >> 31;
   }

   U64 seed_;
   size_t ways_;
   bool first_ = true;
   size_t last_ = 0;
   U64 lastWeight_ = std::numeric_limits< U64 >::max();
};

} // namespace Vel::Driver
