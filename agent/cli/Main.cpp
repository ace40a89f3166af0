// velmpls: a forwarding agent for a person's desk, a lab and CI.

#include <exception>
#include <iostream>
#include <new>

#include <CLI/CLI.hpp>

#include "agent/cli/Commands.h"
#include "agent/cli/TableOptions.h"

namespace {

using Vel::Agent::ExitStatus;

int runVelmpls( int argc, char** argv ) {
   CLI::App app( "Programs MPLS label tables into a software switch and shows what it holds",
                 "velmpls" );
   app.set_version_flag( "--version", "velmpls " VELMPLS_VERSION );
   app.require_subcommand( 1 );
   app.footer( "`velmpls COMMAND --help` explains a command.\n\n"
               "Example:\n"
               "  velmpls program --lfib labels.json --neighbors neighbors.json" );
   Vel::Agent::CommandRun run;
   Vel::Agent::addProgramCommand( app, run );
   Vel::Agent::addForwardCommand( app, run );
   Vel::Agent::addExplainCommand( app, run );
   Vel::Agent::addAuditCommand( app, run );
   Vel::Agent::addImpactCommand( app, run );
   Vel::Agent::addSimulateCommand( app, run );
   try {
      app.parse( argc, argv );
   } catch ( const CLI::ParseError& stop ) { // help and version come this way too
      return app.exit( stop, std::cout, std::cerr ) == 0 ? ExitStatus::done : ExitStatus::badInput;
   }
   return run();
}

} // namespace

int main( int argc, char** argv ) {
   try {
      return runVelmpls( argc, argv );
   } catch ( const std::bad_alloc& ) {
      std::cerr << "velmpls: out of memory\n";
   } catch ( const std::exception& fault ) {
      std::cerr << "velmpls: " << fault.what() << '\n';
   }
   return ExitStatus::badInput;
}
