// Settings: the axes of a simulated world that hold for its whole life. All are numbers, so that a
// file that replays a failure is a list of words, and shrinking can try 0 for any of them.

#pragma once

#include <array>
#include <string_view>

#include "platform/values/IpTypes.h"

namespace Vel::Sim {

struct Settings {
   U32 fecs = 1;          ///< the hardware has FECs
   U32 inPlace = 1;       ///< the toggle InPlaceMplsAdjacencyUpdate
   U32 nonStop = 1;       ///< the toggle MplsNonStopForwarding
   U32 serviceMicros = 0; ///< that the hardware takes for each operation
   U32 lateMillis = 0;    ///< by which its answers come later
   U32 questions = 0;     ///< after which a task's run has to yield; 0: never
   U32 slowFecs = 0;      ///< FEC requests are answered by an event of their own, in any order
   U32 slowL3 = 0;        ///< next hops are answered by an event of their own, not at once
   U32 ring = 256;        ///< changes that a reader of the LFIB may be behind
   U32 labels = 12;
   U32 viaSets = 8;    ///< MPLS over IP; those above six are of labelled BGP
   U32 extViaSets = 3; ///< into FECs of another agent, as many as there are such FECs
   U32 links = 4;      ///< with a neighbour of each family on each

   friend bool operator==( const Settings&, const Settings& ) = default;
};

/// One setting and its name in files.
struct SettingName {
   std::string_view name;
   U32 Settings::*member;
   U32 max;
};
constexpr std::array< SettingName, 13 > settingNames{ {
   { "fecs", &Settings::fecs, 1 },
   { "inPlace", &Settings::inPlace, 1 },
   { "nonStop", &Settings::nonStop, 1 },
   { "serviceMicros", &Settings::serviceMicros, 10'000'000 },
   { "lateMillis", &Settings::lateMillis, 60'000 },
   { "questions", &Settings::questions, 1000 },
   { "slowFecs", &Settings::slowFecs, 1 },
   { "slowL3", &Settings::slowL3, 1 },
   { "ring", &Settings::ring, 65536 },
   { "labels", &Settings::labels, 64 },
   { "viaSets", &Settings::viaSets, 16 },
   { "extViaSets", &Settings::extViaSets, 8 },
   { "links", &Settings::links, 8 },
} };

} // namespace Vel::Sim
