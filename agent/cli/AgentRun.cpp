#include "agent/cli/AgentRun.h"

#include <algorithm>
#include <filesystem>
#include <iostream>

#include <CLI/CLI.hpp>

#include "platform/services/SystemLog.h"

namespace Vel::Agent {

namespace {

constexpr double longestRunSeconds = 1e6;

// The plan of all the texts. When one of them is wrong, a complaint and nothing.
std::optional< Driver::FaultPlan > faultPlan( const std::vector< std::string >& texts,
                                              const Interfaces& interfaces ) {
   Driver::FaultPlan plan;
   const auto find = [&interfaces]( std::string_view name ) {
      return interfaces.intf( std::string( name ) ).value_or( IntfId() );
   };
   for ( const std::string& text : texts ) {
      if ( const auto fault = plan.parse( text, find ) ) {
         std::cerr << "--fault: " << *fault << '\n';
         return std::nullopt;
      }
   }
   return plan;
}

// A fault of a label that is in no table would pass unseen.
std::optional< std::string > unknownLabelFault( const Driver::FaultPlan& faults,
                                                const LfibPlan& plan ) {
   for ( const Driver::Fault& fault : faults.faults() ) {
      if ( fault.kind != Driver::FaultKind::refuseLabel &&
           fault.kind != Driver::FaultKind::forgetLabel ) {
         continue;
      }
      bool known = false;
      for ( size_t i = 0; i < plan.tables(); ++i ) {
         known = known || ( std::ranges::binary_search( plan.table( i ).routes, fault.routeKey, {},
                                                        &PlannedRoute::key ) &&
                            plan.ignoredReason( i, fault.routeKey ).empty() );
      }
      if ( !known ) {
         return joinText( "no table has a route of label ", fault.routeKey, " to forward" );
      }
   }
   return std::nullopt;
}

// CLI::Range takes "nan" for a number between any two.
CLI::Validator between( double low, double high ) {
   const auto fault = [low, high]( const std::string& text ) -> std::string {
      double value = 0;
      return CLI::detail::lexical_cast( text, value ) && value >= low && value <= high
                ? std::string()
                : joinText( "Value ", text, " not in range ", low, " to ", high );
   };
   return { fault, joinText( "FLOAT in [", low, " - ", high, "]" ) };
}

// System log messages reach the operator with the simulated time.
void logToStandardError( const LabelAgent& agent, Progress& progress ) {
   systemLogClockIs( agent.clock() );
   systemLogSinkIs( [&agent, &progress]( const SystemLogMessage& message ) {
      progress.hide();
      std::cerr << "velmpls: at " << agent.clock()->now() << " s: " << textOf( message ) << '\n';
   } );
}

} // namespace

void addRunOptions( CLI::App& app, RunOptions& options ) {
   addTableOptions( app, options.tables );
   app.add_option( "--route-capacity", options.routeCapacity,
                   "Routes that fit into the hardware; no limit when not given" )
      ->type_name( "N" )
      ->check( naturalFault );
   app.add_option( "--adjacency-capacity", options.adjacencyCapacity,
                   "L2 adjacencies that fit into the hardware; no limit when not given" )
      ->type_name( "N" )
      ->check( naturalFault );
   app.add_option( "--fec-capacity", options.fecCapacity,
                   "FECs that fit into the hardware; no limit when not given" )
      ->type_name( "N" )
      ->check( naturalFault );
   app.add_flag_callback(
      "--without-fecs", [&options] { options.tables.withFecs = false; },
      "Hardware without FECs: no backups, next-hop groups, tunnels and external FECs" );
   app.add_option( "--fault", options.faults,
                   "What goes wrong in the hardware: refuse operation N, refuse label L, refuse "
                   "adjacency N, not-ready INTERFACE, late SECONDS, forget label L, route-capacity "
                   "N, adjacency-capacity N, fec-capacity N, link-down INTERFACE, each with from T "
                   "and until T; several with ; between them" )
      ->type_name( "PLAN" )
      ->allow_extra_args( false )
      ->check( emptyFault );
   app.add_option( "--for", options.forSeconds,
                   "Simulated seconds to go on after the last table, to watch what is tried again" )
      ->type_name( "SECONDS" )
      ->check( between( 0.0, longestRunSeconds ) );
}

void addRestartOptions( CLI::App& app, RunOptions& options ) {
   CLI::Option* const state =
      app.add_option( "--hardware-state", options.hardwareStateFile,
                      "File in which the hardware outlives the run: the next run with the same "
                      "file is a restart while hardware goes on forwarding" );
   state->type_name( "FILE" )->check( emptyFault );
   app.add_option(
         "--max-stale-share", options.maxStaleShare,
         "Share of the routes in hardware, 0 to 1, that a restart may remove unasked; all "
         "when not given" )
      ->type_name( "P" )
      ->needs( state )
      ->check( between( 0.0, 1.0 ) );
   app.add_flag( "--preview-sweep", options.previewSweep,
                 "List the routes that a restart would remove, and remove none" )
      ->needs( state );
}

void addHardwareBefore( CLI::App& app, RunOptions& options ) {
   options.readsStateOnly = true;
   app.add_option( "--hardware-state", options.hardwareStateFile,
                   "File in which `velmpls program` has left the hardware: the run is a restart on "
                   "it, and leaves the file as it is" )
      ->type_name( "FILE" )
      ->check( emptyFault );
}

AgentRun::AgentRun( const RunOptions& options, bool progressWanted )
   : options_( options ), progress_( progressWanted && options.tables.trace.empty() ) {
   if ( const auto fault = traceOn( options.tables.trace ) ) {
      std::cerr << *fault << '\n';
      return;
   }
   LoadedTables loaded = loadTables( options.tables, progress_, std::cerr );
   if ( !loaded.usable ) {
      return;
   }
   incomplete_ = loaded.leftOut;
   for ( const Neighbor& neighbor : loaded.neighbors.neighbors ) {
      loaded.plan.interfaces().intfIs( neighbor.interface ); // a fault may name it
   }
   LabelAgentSettings settings;
   settings.hardware.routeCapacity = options.routeCapacity;
   settings.hardware.adjacencyCapacity = options.adjacencyCapacity;
   settings.hardware.fecCapacity = options.fecCapacity;
   settings.withFecs = options.tables.withFecs;
   settings.onProgress = [this]( size_t left ) { progress_.left( left ); };
   auto plan = faultPlan( options.faults, loaded.plan.interfaces() );
   if ( !plan ) {
      return;
   }
   if ( const auto fault = unknownLabelFault( *plan, loaded.plan ) ) {
      std::cerr << "--fault: " << *fault << '\n';
      return;
   }
   settings.hardware.faults = std::move( *plan );
   if ( !options.hardwareStateFile.empty() ) {
      auto recovered = recoveredHardware( loaded.plan.interfaces() );
      if ( !recovered ) {
         return;
      }
      settings.recovered = std::move( *recovered );
      settings.maxStaleShare = options.previewSweep ? 0 : options.maxStaleShare;
   }
   agent_ = std::make_unique< LabelAgent >( std::move( loaded.plan ), settings );
   logToStandardError( *agent_, progress_ );
   fault_ = applyTables( *agent_, loaded.neighbors, options.tables, progress_,
                         options.holdLastTable ? 1 : 0 );
   if ( !fault_ ) {
      progress_.stage( "letting time pass" );
      fault_ = agent_->runFor( options.forSeconds );
   }
   incomplete_ = incomplete_ || fault_.has_value() ||
                 ( agent_->mplsSm().staleSweepHeld() && !options.previewSweep );
}

// What the hardware holds. When that cannot be read, a complaint and nothing.
std::optional< Driver::HwState > AgentRun::recoveredHardware( Interfaces& interfaces ) {
   if ( !options_.tables.withFecs ) {
      std::cerr << "--hardware-state: hardware without FECs starts afresh\n";
      return std::nullopt;
   }
   if ( options_.readsStateOnly && !std::filesystem::exists( options_.hardwareStateFile ) ) {
      std::cerr << options_.hardwareStateFile << ": there is no state of hardware\n";
      return std::nullopt;
   }
   stateFile_.emplace( options_.hardwareStateFile );
   if ( !options_.previewSweep && !options_.readsStateOnly ) {
      if ( const auto fault = stateFile_->take() ) {
         std::cerr << *fault << '\n';
         return std::nullopt;
      }
   }
   std::string fault;
   auto recovered = stateFile_->load( interfaces, fault );
   if ( !recovered ) {
      std::cerr << fault << '\n';
   }
   return recovered;
}

AgentRun::~AgentRun() {
   systemLogSinkIs( {} );
   systemLogClockIs( nullptr );
}

bool AgentRun::leaveHardware() const {
   if ( !stateFile_ || options_.previewSweep ) {
      return true;
   }
   const auto fault = stateFile_->save( agent_->hardware().state(), agent_->interfaces() );
   if ( fault ) {
      std::cerr << *fault << '\n';
   }
   return !fault;
}

void AgentRun::complain() const {
   if ( fault_ ) {
      std::cerr << "velmpls: " << *fault_ << '\n';
   }
   const std::vector< std::string >& breaches = agent_->hardware().breaches();
   if ( !breaches.empty() ) {
      std::cerr << "velmpls: " << breaches.size()
                << " times the hardware was written to wrongly: " << breaches.front() << '\n';
   }
}

} // namespace Vel::Agent
