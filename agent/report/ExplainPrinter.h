// ExplainPrinter: an explanation for people and for programs. docs/operating.md shows both.

#pragma once

#include <iosfwd>

#include "agent/report/ResultPrinter.h"
#include "inspect/Explain.h"

namespace Vel::Agent {

/// A line for each link, the blocker marked in the margin and with what it waits for below it.
/// False when the stream could not take it.
bool printText( std::ostream& out, const Inspect::Explanation& explanation,
                const TextStyle& style = {} );
/// One JSON object.
bool printJson( std::ostream& out, const Inspect::Explanation& explanation );

} // namespace Vel::Agent
