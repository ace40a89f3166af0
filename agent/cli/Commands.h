// Commands: the subcommands of velmpls. Each declares its options and says what it does.

#pragma once

#include <functional>
#include <memory>
#include <string>

#include <CLI/CLI.hpp>

namespace Vel::Agent {

/// What a subcommand does once its options have been read; the answer is the exit status.
using CommandRun = std::function< int() >;

/// Adds a subcommand that does `act` with its options, which live as long as it can be run.
template< class Options >
CLI::App* addCommand( CLI::App& app, CommandRun& run, const std::string& name,
                      const std::string& about, const std::shared_ptr< Options >& options,
                      int ( *act )( const Options& ) ) {
   CLI::App* const command = app.add_subcommand( name, about );
   command->callback( [options, act, &run] { run = [options, act] { return act( *options ); }; } );
   return command;
}

/// Each adds itself to `app` and, when it is the one that was called, sets `run`. `run` must
/// outlive the parsing.
void addProgramCommand( CLI::App& app, CommandRun& run );
void addForwardCommand( CLI::App& app, CommandRun& run );
void addExplainCommand( CLI::App& app, CommandRun& run );
void addAuditCommand( CLI::App& app, CommandRun& run );
void addImpactCommand( CLI::App& app, CommandRun& run );
void addPlanCommand( CLI::App& app, CommandRun& run );
void addDiffCommand( CLI::App& app, CommandRun& run );
void addSimulateCommand( CLI::App& app, CommandRun& run );

} // namespace Vel::Agent
