// velmpls program: what hardware would hold of a label table.

#include "agent/cli/Commands.h"

#include <fstream>
#include <iostream>
#include <memory>

#include <CLI/CLI.hpp>

#include "agent/cli/AgentRun.h"
#include "agent/report/Metrics.h"
#include "agent/report/ProgramResult.h"
#include "agent/report/ReportText.h"
#include "agent/report/ResultPrinter.h"

namespace Vel::Agent {

using Inspect::LabelState;

namespace {

struct ProgramOptions {
   RunOptions run;
   std::string format = "text";
   std::string metricsFile; // empty: none
   bool quiet = false;
   std::vector< std::string > labels; // to be shown; none: all
   std::vector< std::string > states; // the same
};

std::optional< LabelState > stateOf( const std::string& text ) {
   const std::optional< LabelState > state = enumParse< LabelState >( text );
   return state != LabelState::absent ? state : std::nullopt;
}

/// Nothing, with a complaint, when a label is in no table.
std::optional< ResultFilter > filterOf( const ProgramOptions& options,
                                        const ProgramResult& result ) {
   ResultFilter filter;
   for ( const std::string& text : options.labels ) {
      filter.labels.push_back( *labelOf( text ) );
      if ( !result.route( filter.labels.back() ) ) {
         std::cerr << "--label: the table has no route of label " << text << '\n';
         return std::nullopt;
      }
   }
   for ( const std::string& text : options.states ) {
      filter.states.push_back( *stateOf( text ) );
   }
   return filter;
}

bool printResult( const ProgramResult& result, const ProgramOptions& options,
                  const ResultFilter& filter ) {
   if ( options.quiet ) {
      return true;
   }
   const bool restarts = !options.run.hardwareStateFile.empty();
   return reportWritten(
      options.format == "json"
         ? printJson( std::cout, result, restarts, filter )
         : printText( std::cout, result, TextStyle::ofStandardOutput(), restarts, filter ) );
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
   AgentRun run( options.run, !options.quiet );
   if ( !run.usable() ) {
      return ExitStatus::badInput;
   }
   run.progress().stage( "reading back" );
   const ProgramResult result( run.agent() );
   run.progress().hide();
   const std::optional< ResultFilter > filter = filterOf( options, result );
   if ( !filter ) {
      return ExitStatus::badInput;
   }
   if ( !run.leaveHardware() ) {
      run.complain();
      return ExitStatus::badInput; // the next run would not find what the result shows
   }
   const bool printed = printResult( result, options, *filter );
   run.complain();
   if ( !printed ) {
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
   const auto options = std::make_shared< ProgramOptions >();
   CLI::App* const command =
      addCommand( app, run, "program",
                  "Program label tables into a software switch, and show for each label what "
                  "the hardware holds and why not",
                  options, runProgram );
   addRunOptions( *command, options->run );
   addRestartOptions( *command, options->run );
   addReportFormat( *command, options->format );
   command
      ->add_option( "--metrics", options->metricsFile,
                    "Write what was counted to the file, in the text form of Prometheus; - for "
                    "standard output" )
      ->type_name( "FILE" )
      ->check( emptyFault );
   command
      ->add_option( "--label", options->labels,
                    "Show this label only, or up to three with / between them; several times for "
                    "several. The summary is of all" )
      ->type_name( "LABEL" )
      ->allow_extra_args( false )
      ->check( labelFault );
   command
      ->add_option( "--state", options->states,
                    "Show labels in this state only: programmed, partiallyProgrammed, unprogrammed "
                    "or ignored; several times for several" )
      ->type_name( "STATE" )
      ->allow_extra_args( false )
      ->check( []( const std::string& text ) {
         return stateOf( text ) ? std::string() : "\"" + text + "\" is no state of a label";
      } );
   command->add_flag( "--quiet", options->quiet,
                      "No result and no progress, only the exit status" );
   command->footer( "Exit status: 0 every route is programmed (ignored ones aside), 2 bad input or "
                    "usage, 3 some route is\nnot programmed, or only partially.\n\n"
                    "Example:\n"
                    "  vtysh -c 'show mpls table json' > labels.json\n"
                    "  ip -j neigh > neighbors.json\n"
                    "  velmpls program --lfib labels.json --neighbors neighbors.json" );
}

} // namespace Vel::Agent
