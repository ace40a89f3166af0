// velmpls diff: what differs between two label tables.

#include "agent/cli/Commands.h"

#include <array>
#include <iostream>
#include <memory>

#include <CLI/CLI.hpp>

#include "agent/cli/TableOptions.h"
#include "agent/report/ReportText.h"
#include "agent/report/TableDiff.h"

namespace Vel::Agent {

namespace {

struct DiffOptions {
   std::array< std::string, 2 > files;
   std::string format = "text";
};

int runDiff( const DiffOptions& options ) {
   std::array< LabelTable, 2 > tables;
   bool sound = true;
   for ( size_t i = 0; i < tables.size(); ++i ) {
      tables[i] = loadLabelTable( options.files[i] );
      for ( const ImportError& error : tables[i].errors ) {
         std::cerr << error.text() << '\n';
         sound = false;
      }
   }
   if ( !sound ) {
      return ExitStatus::badInput;
   }
   const std::vector< TableDifference > found = differencesOf( tables[0], tables[1] );
   if ( !reportWritten( options.format == "json" ? printJson( std::cout, found )
                                                 : printText( std::cout, found ) ) ) {
      return ExitStatus::badInput;
   }
   return found.empty() ? ExitStatus::done : ExitStatus::incomplete;
}

} // namespace

void addDiffCommand( CLI::App& app, CommandRun& run ) {
   const auto options = std::make_shared< DiffOptions >();
   CLI::App* const command = addCommand(
      app, run, "diff", "Show what differs between two label tables, of whatever formats", options,
      runDiff );
   for ( size_t i = 0; i < options->files.size(); ++i ) {
      command
         ->add_option( i == 0 ? "BEFORE" : "AFTER", options->files[i],
                       i == 0 ? "Label table; - for standard input"
                              : "The label table to compare it with" )
         ->required()
         ->type_name( "" )
         ->check( emptyFault );
   }
   addReportFormat( *command, options->format );
   command->footer(
      "Exit status: 0 the tables say the same, 2 bad input or usage, 3 they differ.\n\n"
      "Example:\n"
      "  velmpls diff labels-of-yesterday.json labels.json" );
}

} // namespace Vel::Agent
