// Event: one thing that happens in a simulated world, as a word and a few numbers.
//
// An event means the same whatever came before it, so that a list of events from which some have
// been taken out is still a list of events. As a line of text it is its word and those of its
// numbers that are not 0:
//
//    viaSet set=3 form=1 backup=5 stamp=417 via0=210 via1=321
//
// The numbers of a via set. `form` is how it is made, see ViaSetForm. `stamp` makes its labels
// different from those of any other content: via i goes out with label 1000 + 4 * stamp + i. A via
// is link * 100 + action * 10 + how; 0 is no via. `action`: 1 swap, 2 pop, 3 push. `how`: 1 has an
// IPv6 next hop, 2 has no interface, 3 both.

#pragma once

#include <array>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "sim/Settings.h"

namespace Vel::Sim {

enum class EventKind : uint8_t {
   // The publisher of the LFIB
   route,
   routeGone,
   viaSet,
   viaSetGone,
   viaGone,
   extViaSet,
   extViaSetGone,
   republish,
   ready,
   corrupt,
   away,
   // The L3 layer
   neighbor,
   resolvedBy,
   defaultRoute,
   answers,
   vrfName,
   vrfNumber,
   routing,
   // The hardware and other agents
   link,
   extFec,
   group,
   tunnel,
   capacity,
   refuse,
   notReady,
   fecAnswer,
   driverRestart,
   // The agent
   agentRestart,
   newStateMachine,
   staleShare,
   approveSweep,
   reprogram,
   clog,
   // Time
   poll,
   run,
   time,
   // What is held to account
   mend,
   rest,
   clear,
};
constexpr size_t eventKinds = static_cast< size_t >( EventKind::clear ) + 1;

/// How a via set is made.
enum class ViaSetForm : uint8_t {
   none = 0,
   nextHops = 1,
   group = 2,      ///< a next-hop group's FEC; its vias have no label operation but a pop
   tunnel = 3,     ///< one dynamic tunnel
   twoLabels = 4,  ///< not sane: a via pushes two labels
   mixedIntfs = 5, ///< not sane: next hops beside a tunnel
   mixedTypes = 6, ///< structurally wrong: via types differ
   empty = 7,      ///< structurally wrong: no vias
};

constexpr size_t maxVias = 3;

struct Event {
   static constexpr size_t maxNumbers = 8;

   EventKind kind = EventKind::rest;
   std::array< U32, maxNumbers > number{};

   friend bool operator==( const Event&, const Event& ) = default;
};
using Events = std::vector< Event >;

/// The word of an event and the names of its numbers.
struct EventShape {
   std::string_view word;
   std::array< std::string_view, Event::maxNumbers > names;
};
const EventShape& shapeOf( EventKind kind );

void appendText( std::string& out, const Event& event );

/// A world and what happens in it: what a failure is replayed from.
struct Scenario {
   Settings settings;
   Events events;
};
/// Lines of settings, then lines of events. Lines that begin with # are comments.
std::string textOf( const Scenario& scenario );
/// The inverse; nothing when a line is wrong, and then `why` says which and what is.
std::optional< Scenario > scenarioParse( std::string_view text, std::string& why );

} // namespace Vel::Sim
