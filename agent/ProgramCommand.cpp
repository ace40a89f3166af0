// velmpls program: what hardware would hold of a label table.

#include "agent/Commands.h"

#include <iostream>
#include <memory>

#include <CLI/CLI.hpp>

#include "agent/ProgramResult.h"
#include "agent/Progress.h"
#include "agent/ResultPrinter.h"
#include "agent/TableOptions.h"

namespace Vel::Agent {

namespace {

struct ProgramOptions {
   TableOptions tables;
   std::string format = "text";
   bool quiet = false;
};

bool printResult( const ProgramResult& result, const ProgramOptions& options ) {
   if ( options.quiet ) {
      return true;
   }
   return options.format == "json" ? printJson( std::cout, result )
                                   : printText( std::cout, result, TextStyle::ofStandardOutput() );
}

int runProgram( const ProgramOptions& options ) {
   if ( const auto fault = traceOn( options.tables.trace ) ) {
      std::cerr << *fault << '\n';
      return ExitStatus::badInput;
   }
   auto progress = std::make_unique< Progress >( !options.quiet && options.tables.trace.empty() );
   LoadedTables loaded = loadTables( options.tables, *progress, std::cerr );
   if ( !loaded.usable ) {
      return ExitStatus::badInput;
   }
   LabelAgentSettings settings;
   settings.onProgress = [&progress]( size_t left ) {
      if ( progress ) {
         progress->left( left );
      }
   };
   LabelAgent agent( std::move( loaded.plan ), settings );
   const LabelAgent::Fault fault =
      applyTables( agent, loaded.neighbors, options.tables, *progress );
   progress->stage( "reading back" );
   const ProgramResult result( agent );
   progress.reset();
   const bool printed = printResult( result, options );
   if ( fault ) {
      std::cerr << "velmpls: " << *fault << '\n';
   }
   const std::vector< std::string >& breaches = agent.hardware().breaches();
   if ( !breaches.empty() ) {
      std::cerr << "velmpls: " << breaches.size()
                << " times the hardware was written to wrongly: " << breaches.front() << '\n';
   }
   if ( !printed ) {
      std::cerr << "velmpls: the result could not be written\n";
      return ExitStatus::badInput;
   }
   const bool complete =
      result.summary().complete() && !loaded.leftOut && !fault && breaches.empty();
   return complete ? ExitStatus::done : ExitStatus::incomplete;
}

} // namespace

void addProgramCommand( CLI::App& app, CommandRun& run ) {
   CLI::App* const command =
      app.add_subcommand( "program", "Program label tables into a software switch, and show for "
                                     "each label what the hardware holds and why not" );
   const auto options = std::make_shared< ProgramOptions >();
   addTableOptions( *command, options->tables );
   command
      ->add_option( "--format", options->format,
                    "Form of the result: text (when not given) or json" )
      ->type_name( "FORM" )
      ->check( []( const std::string& form ) {
         return form == "text" || form == "json"
                   ? std::string()
                   : "\"" + form + "\" is not a form of the result; there are text and json";
      } );
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
