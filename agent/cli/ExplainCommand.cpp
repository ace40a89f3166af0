// velmpls explain: why a label forwards or does not.

#include "agent/cli/Commands.h"

#include <iostream>
#include <memory>

#include <CLI/CLI.hpp>

#include "agent/cli/AgentRun.h"
#include "agent/report/ExplainPrinter.h"
#include "agent/report/ReportText.h"

namespace Vel::Agent {

namespace {

struct ExplainOptions {
   RunOptions run;
   std::string label;
   std::string format = "text";
};

int runExplain( const ExplainOptions& options ) {
   AgentRun run( options.run );
   if ( !run.usable() ) {
      return ExitStatus::badInput;
   }
   run.progress().hide();
   const LabelAgent& agent = run.agent();
   const Mpls::RouteKey key = *labelOf( options.label );
   const Inspect::Explanation explanation( agent.entityManager(), key, agent.interfaceName(),
                                           agent.ignoredReason( key ) );
   const bool printed =
      reportWritten( options.format == "json"
                        ? printJson( std::cout, explanation )
                        : printText( std::cout, explanation, TextStyle::ofStandardOutput() ) );
   run.complain();
   if ( !printed ) {
      return ExitStatus::badInput;
   }
   return explanation.asWanted() ? ExitStatus::done : ExitStatus::incomplete;
}

} // namespace

void addExplainCommand( CLI::App& app, CommandRun& run ) {
   const auto options = std::make_shared< ExplainOptions >();
   CLI::App* const command =
      addCommand( app, run, "explain",
                  "Program label tables into a software switch, and tell for one label what "
                  "stands between the table and the hardware",
                  options, runExplain );
   command
      ->add_option( "LABEL", options->label,
                    "The incoming label, or up to three with / between them, the top one first" )
      ->required()
      ->type_name( "" )
      ->check( labelFault );
   addRunOptions( *command, options->run );
   addHardwareBefore( *command, options->run );
   addReportFormat( *command, options->format );
   command->footer( "Exit status: 0 the label is forwarded by all of its vias, or is not to be "
                    "forwarded, 2 bad input or\nusage, 3 the label is not forwarded, or only "
                    "partially.\n\n"
                    "Example:\n"
                    "  velmpls explain 16001 --lfib labels.json --neighbors neighbors.json" );
}

} // namespace Vel::Agent
