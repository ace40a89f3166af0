// velmpls audit: does the hardware hold what the LFIB wants?

#include "agent/cli/Commands.h"

#include <iostream>
#include <memory>

#include <CLI/CLI.hpp>

#include "agent/cli/AgentRun.h"
#include "agent/report/AuditPrinter.h"
#include "agent/report/Progress.h"
#include "agent/report/ReportText.h"

namespace Vel::Agent {

namespace {

struct AuditOptions {
   RunOptions run;
   std::string format = "text";
   size_t limit = 100;
};

int runAudit( const AuditOptions& options ) {
   Progress progress( options.run.tables.trace.empty() );
   const AgentRun run( options.run, progress );
   if ( !run.usable() ) {
      return ExitStatus::badInput;
   }
   const LabelAgent& agent = run.agent();
   progress.stage( "comparing" );
   const Inspect::Audit audit(
      agent.entityManager(), [&agent]( IntfId intf ) { return agent.interfaces().name( intf ); } );
   const Inspect::AuditReport report = audit.run( options.limit );
   progress.hide();
   const bool printed =
      options.format == "json" ? printJson( std::cout, report ) : printText( std::cout, report );
   run.complain();
   if ( !printed ) {
      std::cerr << "velmpls: the result could not be written\n";
      return ExitStatus::badInput;
   }
   const bool agrees = report.clean() && !run.incomplete() && agent.hardware().breaches().empty();
   return agrees ? ExitStatus::done : ExitStatus::incomplete;
}

} // namespace

void addAuditCommand( CLI::App& app, CommandRun& run ) {
   CLI::App* const command =
      app.add_subcommand( "audit", "Program label tables into a software switch, and compare for "
                                   "each label what the LFIB wants, what was written for the "
                                   "hardware, what it reports and what is published" );
   const auto options = std::make_shared< AuditOptions >();
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
   command->callback( [options, &run] { run = [options] { return runAudit( *options ); }; } );
}

} // namespace Vel::Agent
