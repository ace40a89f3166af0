// ProgramResult: what became of each route of the LFIB, and why.
//
// A result reads the LFIB, the library's records and the hardware, and not the label table, so that
// it shows what is there and not what was wanted. The states are those of inspect/LabelState.h.
//
// A result is a view of a settled agent: it holds the keys and states of the routes and reads the
// rest on demand. It is out of date once the agent goes on.
//
// Cost: 9 bytes and 0.2 microseconds a route; reading one in full takes one or two.

#pragma once

#include <array>
#include <optional>
#include <string>
#include <vector>

#include "agent/world/LabelAgent.h"
#include "inspect/LabelState.h"

namespace Vel::Agent {

/// One way that a via resolved to.
struct ResultExit {
   std::string interface;
   Bridging::VlanId vlan = 0;
   MacAddr mac;
};

/// One via of a route.
struct ResultVia {
   MplsLabelAction action = MplsLabelAction::none;
   std::vector< U32 > outLabels; ///< top first
   IpGenAddr nextHop;            ///< may be empty
   std::string interface;        ///< where the LFIB names one
   /// What it resolved to, empty while its next hop is not resolved. Several when the LFIB names no
   /// interface and the next hop is a neighbour on more than one, or behind what another agent has.
   std::vector< ResultExit > exits;
   std::optional< ForeignFec::Kind > into{}; ///< leads into what another agent has,
   std::string name{};                       ///< the name of that,
   bool there = false;                       ///< the other agent has made it known
   Fib::FecId fec{};                         ///< that the via is part of in hardware, if any

   bool resolved() const { return !exits.empty(); }
};

struct ResultRoute {
   Mpls::RouteKey key;
   Inspect::LabelState state = Inspect::LabelState::unprogrammed;
   std::string reason; ///< for every state but programmed
   std::optional< U64 > l3Adjacency;
   std::optional< U64 > l2Adjacency;
   std::vector< ResultVia > vias;   ///< in the order of the LFIB's via set; none when ignored
   std::vector< ResultVia > backup; ///< of the via set that protects it
   bool usableAsPrimaryVias = true; ///< false: only the backup is to be taken
};

/// The states that a route of the LFIB can be in.
inline constexpr std::array< Inspect::LabelState, 4 > statesOfRoutes{
   Inspect::LabelState::programmed, Inspect::LabelState::partiallyProgrammed,
   Inspect::LabelState::unprogrammed, Inspect::LabelState::ignored };

struct ResultSummary {
   std::array< size_t, 5 > byState{};
   size_t routes = 0;
   size_t l3Adjacencies = 0; ///< via sets that the library has taken up
   size_t l2Adjacencies = 0; ///< in hardware

   size_t of( Inspect::LabelState state ) const { return byState[static_cast< size_t >( state )]; }
   /// Every route that is to be forwarded is in hardware with all of its vias.
   bool complete() const {
      return of( Inspect::LabelState::unprogrammed ) == 0 &&
             of( Inspect::LabelState::partiallyProgrammed ) == 0;
   }
};

/// What a start did with the routes that it found in hardware.
struct ResultStartup {
   struct Stage {
      std::string_view name;
      double seconds = 0; ///< that it lasted
   };
   std::vector< Stage > stages;
   U64 adopted = 0; ///< routes of the table whose hardware entry was kept as it was
   U64 changed = 0; ///< ... was rewritten
   U64 added = 0;   ///< ... was not there before
   U64 stale = 0;   ///< routes that were removed
   std::vector< Mpls::RouteKey > held; ///< stale routes that stay until the operator agrees
};

class ProgramResult {
 public:
   /// The agent must outlive the result, and have settled.
   explicit ProgramResult( const LabelAgent& agent );
   ProgramResult( const ProgramResult& ) = delete;
   ProgramResult& operator=( const ProgramResult& ) = delete;

   const ResultSummary& summary() const { return summary_; }
   ResultStartup startup() const;
   const MplsSmCounters& counters() const { return *agent_.mplsSm().counters(); }
   size_t routes() const { return routes_.size(); }
   /// The keys in label order; a deeper stack stands before a shorter one that it begins with.
   Mpls::RouteKey key( size_t i ) const { return routes_[i]; }
   Inspect::LabelState state( size_t i ) const { return states_[i]; }
   /// The route at that place, with everything. `out` is overwritten and its memory used again.
   void read( size_t i, ResultRoute& out ) const;
   /// The route under that key; nothing when the LFIB has none.
   std::optional< ResultRoute > route( Mpls::RouteKey key ) const;

 private:
   struct Found;
   Found find( Mpls::RouteKey key ) const;
   const Mpls::Hardware::Adjacency* adjacencyOf( Mpls::LfibViaSetKey viaSetKey ) const;
   ResultVia viaInto( MplsLabelAction action, const Mpls::LabelStack& labels,
                      const IpGenAddr& nextHop, IntfId intf ) const;
   void readVias( Mpls::LfibViaSetKey viaSetKey, std::vector< ResultVia >& out ) const;
   void readViasFromLfib( Mpls::LfibViaSetKey viaSetKey, std::vector< ResultVia >& out ) const;
   void readRoute( Mpls::RouteKey key, ResultRoute& out ) const;
   std::string reasonOf( const Found& found, const ResultRoute& route ) const;
   std::string obstacle( const Found& found, const ResultRoute& route ) const;
   std::string backupReason( const Found& found, const ResultRoute& route ) const;
   std::string faultReason( const std::string& fault, const std::vector< ResultVia >& vias ) const;
   std::string unknownNextHopReason( const std::vector< ResultVia >& vias ) const;
   std::string fecReason( const Found& found ) const;
   std::string refusals( const Found& found, Mpls::RouteKey key ) const;

   const LabelAgent& agent_;
   std::vector< Mpls::RouteKey > routes_;
   std::vector< Inspect::LabelState > states_;
   ResultSummary summary_;
   Inspect::InterfaceName name_;
   Inspect::FecView fecs_;
   Inspect::ForeignWays foreignWays_;
   mutable Inspect::LabelStates labelStates_; // keeps answers
};

} // namespace Vel::Agent
