// The seed of a random test: a new one each run, or the one in the environment to run a failure
// again.

#pragma once

#include <cstdint>
#include <cstdlib>
#include <iostream>
#include <random>
#include <string>

namespace VelTest {

/// Prints the seed that it gives. VELMPLS_SEED=number replays.
inline uint64_t testSeed() {
   const char* const given = std::getenv( "VELMPLS_SEED" );
   const uint64_t seed = given ? std::stoull( given ) : std::random_device{}();
   std::cout << "VELMPLS_SEED=" << seed << '\n';
   return seed;
}

} // namespace VelTest
