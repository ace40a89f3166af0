// velmpls plan: what a next label table would do to the hardware, before anybody does it.

#include "agent/cli/Commands.h"

#include <iostream>
#include <memory>

#include <CLI/CLI.hpp>

#include "agent/cli/AgentRun.h"
#include "agent/report/ChangePlan.h"
#include "agent/report/Progress.h"
#include "agent/report/ReportText.h"

namespace Vel::Agent {

namespace {

struct PlanOptions {
   RunOptions run;
   std::string next;
   std::string format = "text";
};

int runPlan( PlanOptions options ) {
   Progress progress( options.run.tables.trace.empty() );
   options.run.tables.lfibFiles.push_back( options.next );
   options.run.holdLastTable = true;
   const AgentRun run( options.run, progress );
   if ( !run.usable() ) {
      return ExitStatus::badInput;
   }
   LabelAgent& agent = run.agent();
   ChangePlan plan( agent );
   progress.stage( "programming " + inputName( options.next ) );
   LabelAgent::Fault fault = agent.apply( agent.plan().tables() - 1 );
   if ( !fault ) {
      fault = agent.settle();
   }
   progress.hide();
   if ( fault ) {
      std::cerr << "velmpls: " << *fault << '\n';
      return ExitStatus::incomplete;
   }
   plan.finish();
   const bool printed =
      options.format == "json" ? printJson( std::cout, plan ) : printText( std::cout, plan );
   run.complain();
   if ( !printed ) {
      std::cerr << "velmpls: the plan could not be written\n";
      return ExitStatus::badInput;
   }
   return plan.losses().empty() && !run.incomplete() ? ExitStatus::done : ExitStatus::incomplete;
}

} // namespace

void addPlanCommand( CLI::App& app, CommandRun& run ) {
   CLI::App* const command = app.add_subcommand(
      "plan", "Say what a next label table would do to the hardware: labels that "
              "come, go, change or lose their way, operations, and room" );
   const auto options = std::make_shared< PlanOptions >();
   addRunOptions( *command, options->run );
   addHardwareBefore( *command, options->run );
   command->add_option( "--next", options->next, "The label table that is to come after --lfib" )
      ->required()
      ->type_name( "FILE" )
      ->check( emptyFault );
   addReportFormat( *command, options->format );
   command->footer( "Exit status: 0 no label loses its way, 2 bad input or usage, 3 one does.\n\n"
                    "Example:\n"
                    "  velmpls plan --lfib now.json --next next.json --neighbors neighbors.json" );
   command->callback( [options, &run] { run = [options] { return runPlan( *options ); }; } );
}

} // namespace Vel::Agent
