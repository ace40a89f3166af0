// TableDiff: what differs between two label tables, route by route and definition by definition.
//
// Compared is what the tables say, after the differences of their formats are gone: tables of two
// sources can be compared.

#pragma once

#include <iosfwd>
#include <string>
#include <vector>

#include "agent/import/LabelTable.h"

namespace Vel::Agent {

/// A route or a definition that is not the same in both.
struct TableDifference {
   std::string what;   ///< "16040/24001", "tunnel east"
   std::string before; ///< what the first table says; empty: nothing
   std::string after;  ///< what the second one says; empty: nothing
};

/// In the order of labels, then definitions by kind and name.
std::vector< TableDifference > differencesOf( const LabelTable& before, const LabelTable& after );

/// A line for each side of each difference, with - and + in front, and a summary in the last line.
/// False when the stream could not take it.
bool printText( std::ostream& out, const std::vector< TableDifference >& differences );
/// One JSON object.
bool printJson( std::ostream& out, const std::vector< TableDifference >& differences );

} // namespace Vel::Agent
