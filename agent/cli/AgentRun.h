// AgentRun: what every subcommand does before it has something to show: reads the tables, makes the
// agent with the hardware that the options describe, applies the tables and lets time pass.
//
//    AgentRun run( options );
//    if ( !run.usable() ) {
//       return ExitStatus::badInput;
//    }
//    ... run.agent() ...
//
// Complaints and the system log go to standard error. A process has one system log, so one run at a
// time.

#pragma once

#include <memory>
#include <string>
#include <vector>

#include "agent/cli/TableOptions.h"
#include "agent/report/Progress.h"
#include "agent/world/HardwareState.h"

namespace Vel::Agent {

struct RunOptions {
   TableOptions tables;
   size_t routeCapacity = 0;          ///< routes that fit into hardware; 0: no limit
   size_t adjacencyCapacity = 0;      ///< L2 adjacencies that fit; 0: no limit
   size_t fecCapacity = 0;            ///< FECs that fit; 0: no limit
   std::vector< std::string > faults; ///< fault plans, see docs/formats.md
   std::string hardwareStateFile;     ///< keeps the hardware between runs; empty: none
   double maxStaleShare = 1;          ///< of what was in hardware that may be removed unasked
   bool previewSweep = false;         ///< remove none of it, and keep the file as it is
   double forSeconds = 0;             ///< simulated time to go on after the last table has settled
   bool holdLastTable = false;        ///< plan the last table, and do not apply it
   bool readsStateOnly = false;       ///< the file is where the run begins, and stays as it is
};

/// Declares the options, those of the tables included. `options` must outlive the parsing.
void addRunOptions( CLI::App& app, RunOptions& options );
/// Declares the options of hardware that outlives the run.
void addRestartOptions( CLI::App& app, RunOptions& options );
/// Declares the option of hardware that the run begins with, and does not change.
void addHardwareBefore( CLI::App& app, RunOptions& options );

class AgentRun {
 public:
   /// Progress is shown on a terminal unless it is not wanted, or the trace goes there.
   explicit AgentRun( const RunOptions& options, bool progressWanted = true );
   AgentRun( const AgentRun& ) = delete;
   AgentRun& operator=( const AgentRun& ) = delete;
   ~AgentRun();

   /// False: the input was bad, has been complained about, and nothing was applied.
   bool usable() const { return agent_ != nullptr; }
   LabelAgent& agent() const { return *agent_; }
   /// To be hidden before anything is printed.
   Progress& progress() { return progress_; }
   /// Parts of the tables were left out, or the agent did not come to rest, so that the report does
   /// not cover all.
   bool incomplete() const { return incomplete_; }
   /// Leaves the hardware behind for the next run, where that is asked for. False, with a
   /// complaint, when it cannot.
   bool leaveHardware() const;
   /// Complains about what the run could not do and about breaches of the driver contract; after
   /// the result has been shown.
   void complain() const;

 private:
   std::optional< Driver::HwState > recoveredHardware( Interfaces& interfaces );

   const RunOptions options_;
   Progress progress_;
   std::optional< HardwareStateFile > stateFile_; // while hardware outlives the run
   std::unique_ptr< LabelAgent > agent_;
   LabelAgent::Fault fault_;
   bool incomplete_ = false;
};

} // namespace Vel::Agent
