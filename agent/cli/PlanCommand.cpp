// velmpls plan: what a next label table would do to the hardware.

#include "agent/cli/Commands.h"

#include <iostream>
#include <memory>

#include <CLI/CLI.hpp>

#include "agent/cli/AgentRun.h"
#include "agent/report/ChangePlan.h"
#include "agent/report/ReportText.h"

namespace Vel::Agent {

namespace {

struct PlanOptions {
   RunOptions run;
   std::string next;
   std::string format = "text";
};

int runPlan( const PlanOptions& options ) {
   RunOptions withNext = options.run;
   withNext.tables.lfibFiles.push_back( options.next );
   withNext.holdLastTable = true;
   AgentRun run( withNext );
   if ( !run.usable() ) {
      return ExitStatus::badInput;
   }
   LabelAgent& agent = run.agent();
   ChangePlan plan( agent );
   run.progress().stage( "programming " + inputName( options.next ) );
   LabelAgent::Fault fault = agent.apply( agent.plan().tables() - 1 );
   if ( !fault ) {
      fault = agent.settle();
   }
   run.progress().hide();
   if ( fault ) {
      std::cerr << "velmpls: " << *fault << '\n';
      return ExitStatus::incomplete;
   }
   plan.finish();
   const bool printed = reportWritten( options.format == "json" ? printJson( std::cout, plan )
                                                                : printText( std::cout, plan ) );
   run.complain();
   if ( !printed ) {
      return ExitStatus::badInput;
   }
   return plan.losses().empty() && !run.incomplete() ? ExitStatus::done : ExitStatus::incomplete;
}

} // namespace

void addPlanCommand( CLI::App& app, CommandRun& run ) {
   const auto options = std::make_shared< PlanOptions >();
   CLI::App* const command =
      addCommand( app, run, "plan",
                  "Say what a next label table would do to the hardware: labels that come, go, "
                  "change or lose their way, operations, and room",
                  options, runPlan );
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
}

} // namespace Vel::Agent
