// How the models of random events are driven.

#pragma once

#include <gtest/gtest.h>

#include "tests/Seed.h"

namespace Vel::Test {

/// Random events with checks between them, round after round, each with a seed of its own, until
/// one fails. `Model` is made from a seed and has randomEvent, settleAndCheck and clearAndCheck.
template< class Model >
void churn( uint64_t rounds ) {
   const uint64_t seed = VelTest::testSeed();
   for ( uint64_t round = 0; round < rounds && !testing::Test::HasFailure(); ++round ) {
      SCOPED_TRACE( "round " + std::to_string( round ) );
      Model model( seed + round );
      for ( int check = 0; check < 10 && !testing::Test::HasFailure(); ++check ) {
         for ( int event = 0; event < 40; ++event ) {
            model.randomEvent();
         }
         model.settleAndCheck();
      }
      model.clearAndCheck();
   }
}

} // namespace Vel::Test
