// Metrics: what was counted on the way from the LFIB into hardware, under the names that people and
// monitoring read.

#pragma once

#include <iosfwd>
#include <span>
#include <string_view>

#include "agent/report/ProgramResult.h"

namespace Vel::Agent {

/// One counter of the state machine.
struct CounterName {
   std::string_view name;   ///< in the JSON result
   std::string_view metric; ///< in the metrics, behind "velmpls_" and before "_total"
   std::string_view help;
   const uint64_t& ( MplsSmCounters::*value )() const;
};
/// All of them, in the order of the stages.
std::span< const CounterName > counterNames();

/// Writes all metrics in the text form of Prometheus (exposition format 0.0.4): counters with
/// `_total`, times in seconds, no label that grows with the table. False when it could not be
/// written.
bool printMetrics( std::ostream& out, const LabelAgent& agent, const ProgramResult& result );

} // namespace Vel::Agent
