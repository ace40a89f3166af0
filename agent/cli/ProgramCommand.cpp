// velmpls program: what hardware would hold of a label table.

#include "agent/cli/Commands.h"

#include <fstream>
#include <iostream>
#include <memory>

#include <CLI/CLI.hpp>

#include "agent/cli/AgentRun.h"
#include "agent/report/Metrics.h"
#include "agent/report/ProgramResult.h"
#include "agent/report/Progress.h"
#include "agent/report/ReportText.h"
#include "agent/report/ResultPrinter.h"

namespace Vel::Agent {

namespace {

struct ProgramOptions {
   RunOptions run;
   std::string format = "text";
   std::string metricsFile; // empty: none
   bool quiet = false;
};

bool printResult( const ProgramResult& result, const ProgramOptions& options ) {
   if ( options.quiet ) {
      return true;
   }
   const bool restarts = !options.run.hardwareStateFile.empty();
   return options.format == "json"
             ? printJson( std::cout, result, restarts )
             : printText( std::cout, result, TextStyle::ofStandardOutput(), restarts );
}

bool writeMetrics( const LabelAgent& agent, const ProgramResult& result, const std::string& file ) {
   if ( file.empty() ) {
      return true;
   }
   if ( file == "-" ) {
      return printMetrics( std::cout, agent, result );
   }
   std::ofstream out( file );
   return printMetrics( out, agent, result );
}

int runProgram( const ProgramOptions& options ) {
   auto progress =
      std::make_unique< Progress >( !options.quiet && options.run.tables.trace.empty() );
   const AgentRun run( options.run, *progress );
   if ( !run.usable() ) {
      return ExitStatus::badInput;
   }
   progress->stage( "reading back" );
   const ProgramResult result( run.agent() );
   progress->hide();
   if ( !run.leaveHardware() ) {
      run.complain();
      return ExitStatus::badInput; // what would be shown is lost with the hardware
   }
   const bool printed = printResult( result, options );
   run.complain();
   if ( !printed ) {
      std::cerr << "velmpls: the result could not be written\n";
      return ExitStatus::badInput;
   }
   if ( !writeMetrics( run.agent(), result, options.metricsFile ) ) {
      std::cerr << "velmpls: " << options.metricsFile << ": the metrics could not be written\n";
      return ExitStatus::badInput;
   }
   const bool complete =
      result.summary().complete() && !run.incomplete() && run.agent().hardware().breaches().empty();
   if ( !complete && !options.quiet && options.run.tables.neighborFile.empty() ) {
      std::cerr << "velmpls: no neighbours were given (--neighbors): no next hop is resolved\n";
   }
   return complete ? ExitStatus::done : ExitStatus::incomplete;
}

} // namespace

void addProgramCommand( CLI::App& app, CommandRun& run ) {
   CLI::App* const command =
      app.add_subcommand( "program", "Program label tables into a software switch, and show for "
                                     "each label what the hardware holds and why not" );
   const auto options = std::make_shared< ProgramOptions >();
   addRunOptions( *command, options->run );
   addRestartOptions( *command, options->run );
   addReportFormat( *command, options->format );
   command
      ->add_option( "--metrics", options->metricsFile,
                    "Write what was counted to the file, in the text form of Prometheus; - for "
                    "standard output" )
      ->type_name( "FILE" )
      ->check( emptyFault );
   command->add_flag( "--quiet", options->quiet,
                      "No result and no progress, only the exit status" );
   command->footer( "Exit status: 0 every route is programmed (ignored ones aside), 2 bad input or "
                    "usage, 3 some route is\nnot programmed, or only partially.\n\n"
                    "Example:\n"
                    "  vtysh -c 'show mpls table json' > labels.json\n"
                    "  ip -j neigh > neighbors.json\n"
                    "  velmpls program --lfib labels.json --neighbors neighbors.json" );
   command->callback( [options, &run] { run = [options] { return runProgram( *options ); }; } );
}

} // namespace Vel::Agent
