// Draw: what happens in a world, from a seed. The same seed and profile draw the same, on every
// machine.

#pragma once

#include <string_view>

#include "sim/Event.h"

namespace Vel::Sim {

/// Where a simulation looks: which events it draws, how often, and in which worlds.
struct Profile {
   std::string_view name;
   std::string_view about;
};
constexpr std::array< Profile, 8 > profiles{ {
   { "all", "one of the others, drawn by the seed" },
   { "mixed", "a little of everything" },
   { "protection", "backups, also of each other, of themselves and in chains" },
   { "identity", "via set indices, labels and FEC ids used again at once; slow hardware" },
   { "vrf", "the VRF's name and number lost, back and changed; forwarding switched off and on" },
   { "restart", "agents that restart at every point, with and without non-stop forwarding" },
   { "room", "hardware that is full or refuses" },
   { "lfib", "publishers that restart and readers that fall behind" },
} };
bool isProfile( std::string_view name );

/// The toggles of a seed, in two bits. Toggles hold for a process, so only seeds with equal ones
/// may run in the same process.
constexpr U32 togglesOf( U64 seed ) {
   return seed % 4;
}
/// About so many events; a few more where several belong together.
Scenario drawScenario( U64 seed, std::string_view profile, size_t events );

} // namespace Vel::Sim
