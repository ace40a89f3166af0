// Run: one scenario, from its world to its last event, in a process of its own.
//
// A process of its own, because two toggles of the library are asked once and hold for the life of
// the process, and because what goes wrong may end it: a failed assertion, a crash and a loop
// without end are failures like any other.

#pragma once

#include <functional>
#include <optional>

#include "sim/Hardware.h"
#include "sim/Watch.h"

namespace Vel::Sim {

/// What became of a scenario.
struct Outcome {
   std::optional< Failure > failure;
   size_t events = 0; ///< carried out; with a failure the last one shows it
   U64 frames = 0;
};

/// Runs the scenario here and now. The process's toggles must be those of the scenario, or not have
/// been asked yet. `before` is told of each event.
Outcome runHere( const Scenario& scenario, const HardwareFactory& factory,
                 const std::function< void( size_t event ) >& before = {} );
/// The same in a process of its own.
Outcome runApart( const Scenario& scenario, const HardwareFactory& factory );

/// Sets the toggles of the scenario for this process.
void togglesAre( const Settings& settings );

/// The scenario without the events and settings that it does not need to fail by the same check.
/// Takes at most about so many seconds.
Scenario shrink( Scenario scenario, const Outcome& outcome, const HardwareFactory& factory,
                 double seconds );

} // namespace Vel::Sim
