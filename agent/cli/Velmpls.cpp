#include "agent/cli/Velmpls.h"

#include <algorithm>
#include <exception>
#include <iostream>
#include <new>
#include <numeric>
#include <utility>

#include <CLI/CLI.hpp>

#include "agent/cli/Commands.h"
#include "agent/cli/TableOptions.h"
#include "platform/base/Text.h"

namespace Vel::Agent {

namespace {

/// How many letters have to change, come or go to make one word of the other.
size_t distance( std::string_view one, std::string_view other ) {
   std::vector< size_t > row( other.size() + 1 );
   std::iota( row.begin(), row.end(), size_t{ 0 } );
   for ( size_t i = 0; i < one.size(); ++i ) {
      size_t diagonal = std::exchange( row[0], i + 1 );
      for ( size_t j = 0; j < other.size(); ++j ) {
         const size_t changed = diagonal + ( one[i] == other[j] ? 0 : 1 );
         diagonal = row[j + 1];
         row[j + 1] = std::min( { changed, row[j] + 1, row[j + 1] + 1 } );
      }
   }
   return row.back();
}

/// A first word that is no command: a complaint that says which may have been meant; else empty.
std::string unknownCommand( const CLI::App& app, std::string_view word ) {
   if ( word.empty() || word.starts_with( '-' ) ) {
      return {};
   }
   std::string nearest;
   for ( const CLI::App* const command : app.get_subcommands( {} ) ) {
      const std::string& name = command->get_name();
      if ( name == word ) {
         return {};
      }
      if ( nearest.empty() || distance( word, name ) < distance( word, nearest ) ) {
         nearest = name;
      }
   }
   const bool alike = distance( word, nearest ) <= std::max< size_t >( 2, nearest.size() / 2 );
   return joinText( "velmpls: there is no command \"", word, "\"; ",
                    alike ? "did you mean " + nearest + "? " : std::string(),
                    "`velmpls --help` lists them\n" );
}

int runVelmpls( int argc, char** argv, const std::string& version ) {
   CLI::App app( "Programs MPLS label tables into a software switch and shows what it holds",
                 "velmpls" );
   app.set_version_flag( "--version", "velmpls " + version );
   app.require_subcommand( 1 );
   app.footer( "`velmpls COMMAND --help` explains a command.\n\n"
               "Example:\n"
               "  velmpls program --lfib labels.json --neighbors neighbors.json" );
   CommandRun run;
   addProgramCommand( app, run );
   addForwardCommand( app, run );
   addExplainCommand( app, run );
   addAuditCommand( app, run );
   addImpactCommand( app, run );
   addPlanCommand( app, run );
   addDiffCommand( app, run );
   addSimulateCommand( app, run );
   if ( const std::string fault = unknownCommand( app, argc > 1 ? argv[1] : "" ); !fault.empty() ) {
      std::cerr << fault;
      return ExitStatus::badInput;
   }
   try {
      app.parse( argc, argv );
   } catch ( const CLI::ParseError& stop ) { // help and version come this way too
      return app.exit( stop, std::cout, std::cerr ) == 0 ? ExitStatus::done : ExitStatus::badInput;
   }
   return run();
}

} // namespace

int velmpls( int argc, char** argv, const std::string& version ) {
   try {
      return runVelmpls( argc, argv, version );
   } catch ( const std::bad_alloc& ) {
      std::cerr << "velmpls: out of memory\n";
   } catch ( const std::exception& fault ) {
      std::cerr << "velmpls: " << fault.what() << '\n';
   }
   return ExitStatus::badInput;
}

} // namespace Vel::Agent
