// TableOptions: the options that name the tables of a subcommand, and the tables that are read.

#pragma once

#include <iosfwd>
#include <optional>
#include <string>
#include <vector>

#include "agent/import/LabelTable.h"
#include "agent/import/NeighborTable.h"
#include "agent/world/LabelAgent.h"

namespace CLI {
class App;
}

namespace Vel::Agent {

class Progress;

/// How a run of the program ends.
struct ExitStatus {
   static constexpr int done = 0;
   static constexpr int failed = 1;   ///< a simulation has found a failure
   static constexpr int badInput = 2; ///< or bad usage; nothing was applied
   static constexpr int incomplete =
      3; ///< a route that is to be forwarded is not, or not by all vias
};

struct TableOptions {
   std::vector< std::string > lfibFiles; ///< successive complete states of one label table
   std::string lfibFormat;               ///< empty: found from the contents
   std::string neighborFile;             ///< empty: no neighbours
   bool keepGoing = false;
   bool withFecs = true; ///< the hardware to program has FECs: every via needs an interface
   std::string trace;    ///< trace setting; empty: none
};

/// What is wrong with the text of a number that counts something; empty when nothing is.
std::string naturalFault( const std::string& text );
/// The same with up to 18 digits.
std::string longNaturalFault( const std::string& text );
/// What is wrong with a text that must not be empty; empty when nothing is.
std::string emptyFault( const std::string& text );
/// "16001" or "16001/16002/16003", top label first; nothing for any other text.
std::optional< Mpls::RouteKey > labelOf( const std::string& text );
/// What is wrong with a text that is to be such a label; empty when nothing is.
std::string labelFault( const std::string& text );
/// Declares the options. `options` must outlive the parsing.
void addTableOptions( CLI::App& app, TableOptions& options );
/// Turns the trace on; a sentence when the setting is wrong or names a handle that is not there.
std::optional< std::string > traceOn( const std::string& setting );

/// What was read in.
struct LoadedTables {
   LfibPlan plan;
   NeighborTable neighbors;
   bool usable = true;   ///< false: nothing is to be applied
   bool leftOut = false; ///< something was unsound and left out
};

/// Reads all tables. Complaints are written to `complaints`. With errors the tables are usable only
/// with `keepGoing`, and when something is left of each file.
LoadedTables loadTables( const TableOptions& options, Progress& progress,
                         std::ostream& complaints );

/// Makes the agent's neighbours known, applies the tables of its plan but for the last `held` ones,
/// and settles after each.
LabelAgent::Fault applyTables( LabelAgent& agent, const NeighborTable& neighbors,
                               const TableOptions& options, Progress& progress, size_t held = 0 );

} // namespace Vel::Agent
