// ImpactPrinter: what would break, for people and for programs. docs/operating.md shows both.

#pragma once

#include <iosfwd>
#include <string>

#include "inspect/Impact.h"

namespace Vel::Agent {

/// The question, as the report repeats it.
struct ImpactQuestion {
   std::string nextHop;   ///< empty: none was given
   std::string interface; ///< empty: none was given
   std::string text;
};

/// A summary in the first line, then who loses all, who changes over to a backup, and who loses
/// some. False when the stream could not take it.
bool printText( std::ostream& out, const Inspect::Impact& impact, const ImpactQuestion& question );
/// One JSON object.
bool printJson( std::ostream& out, const Inspect::Impact& impact, const ImpactQuestion& question );

} // namespace Vel::Agent
