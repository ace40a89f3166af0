// velmpls audit: does the hardware hold what the LFIB wants?

#include "agent/cli/Commands.h"

#include <iostream>
#include <memory>

#include <CLI/CLI.hpp>

#include "agent/cli/AgentRun.h"
#include "agent/report/AuditPrinter.h"
#include "agent/report/ReportText.h"

namespace Vel::Agent {

namespace {

struct AuditOptions {
   RunOptions run;
   std::string format = "text";
   size_t limit = 100;
};

int runAudit( const AuditOptions& options ) {
   AgentRun run( options.run );
   if ( !run.usable() ) {
      return ExitStatus::badInput;
   }
   const LabelAgent& agent = run.agent();
   run.progress().stage( "comparing" );
   const Inspect::Audit audit( agent.entityManager(), agent.interfaceName() );
   const Inspect::AuditReport report = audit.run( options.limit );
   run.progress().hide();
   const bool printed = reportWritten( options.format == "json" ? printJson( std::cout, report )
                                                                : printText( std::cout, report ) );
   run.complain();
   if ( !printed ) {
      return ExitStatus::badInput;
   }
   const bool agrees = report.clean() && !run.incomplete() && agent.hardware().breaches().empty();
   return agrees ? ExitStatus::done : ExitStatus::incomplete;
}

} // namespace

void addAuditCommand( CLI::App& app, CommandRun& run ) {
   const auto options = std::make_shared< AuditOptions >();
   CLI::App* const command =
      addCommand( app, run, "audit",
                  "Program label tables into a software switch, and compare for each label what"
                  " the LFIB wants, what was written for the hardware, what it reports and what"
                  " is published",
                  options, runAudit );
   addRunOptions( *command, options->run );
   addHardwareBefore( *command, options->run );
   addReportFormat( *command, options->format );
   command
      ->add_option( "--limit", options->limit,
                    "Differences that are shown, 100 when not given; the rest is counted" )
      ->type_name( "N" )
      ->check( naturalFault );
   command->footer( "Exit status: 0 all agree and nothing is pending, 2 bad input or usage, 3 "
                    "something differs or is pending.\n\n"
                    "Example:\n"
                    "  velmpls audit --lfib labels.json --neighbors neighbors.json \\\n"
                    "    --fault 'forget label 16002'" );
}

} // namespace Vel::Agent
