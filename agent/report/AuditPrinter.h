// AuditPrinter: an audit's report for people and for programs. docs/operating.md shows both.

#pragma once

#include <iosfwd>

#include "inspect/Audit.h"

namespace Vel::Agent {

/// A summary in the first line, then a line for each difference. False when the stream could not
/// take it.
bool printText( std::ostream& out, const Inspect::AuditReport& report );
/// One JSON object, a line for each difference.
bool printJson( std::ostream& out, const Inspect::AuditReport& report );

} // namespace Vel::Agent
