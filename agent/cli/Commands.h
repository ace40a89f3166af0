// Commands: the subcommands of velmpls. Each declares its options and says what it does.

#pragma once

#include <functional>

namespace CLI {
class App;
}

namespace Vel::Agent {

/// What a subcommand does once its options have been read; the answer is the exit status.
using CommandRun = std::function< int() >;

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
