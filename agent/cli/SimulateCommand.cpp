// velmpls simulate: the agent and its hardware under random events.

#include <fstream>
#include <iostream>
#include <random>
#include <sstream>
#include <thread>

#include <CLI/CLI.hpp>

#include "agent/cli/Commands.h"
#include "agent/cli/TableOptions.h"
#include "sim/Campaign.h"

namespace Vel::Agent {

namespace {

struct SimulateOptions {
   std::optional< U64 > seed;
   U64 events = 1'000'000;
   U32 eventsPerRun = 400;
   U32 failures = 1;
   double minutes = 0;
   U32 jobs = std::max( 1U, std::thread::hardware_concurrency() );
   std::string profile = "all";
   std::string replay;
   bool shrink = true;
};

std::string failureText( const Sim::Failure& failure ) {
   return joinText( failure.check, ": ", failure.text );
}

/// The rest of the file's name is the seed.
std::string writeFailure( const Sim::CampaignFailure& failure ) {
   const std::string path = joinText( "simulate-", failure.seed, ".events" );
   std::ofstream file( path );
   file << "# seed " << failure.seed << "\n# " << failureText( failure.failure ) << '\n'
        << textOf( failure.scenario );
   return file.flush() ? path : std::string();
}

int simulate( const SimulateOptions& options ) {
   Sim::CampaignSettings settings;
   settings.seed = options.seed ? *options.seed : std::random_device{}() * U64{ 4 };
   settings.events = options.minutes != 0 ? std::numeric_limits< U64 >::max() / 2 : options.events;
   settings.seconds = options.minutes * 60;
   settings.jobs = options.jobs;
   settings.eventsPerRun = options.eventsPerRun;
   settings.maxFailures = options.failures;
   settings.profile = options.profile;
   std::cout << "seed " << settings.seed << ", profile " << settings.profile << ", jobs "
             << settings.jobs << std::endl;
   Sim::CampaignResult result = Sim::runCampaign( settings );
   for ( Sim::CampaignFailure& failure : result.failures ) {
      std::cout << "seed " << failure.seed << " failed at event " << failure.scenario.events.size()
                << ": " << failureText( failure.failure ) << std::endl;
      if ( options.shrink ) {
         Sim::Outcome outcome;
         outcome.failure = failure.failure;
         outcome.events = failure.scenario.events.size();
         constexpr double secondsToShrink = 60;
         failure.scenario =
            Sim::shrink( failure.scenario, outcome, settings.factory, secondsToShrink );
         if ( const Sim::Outcome shrunk = Sim::runApart( failure.scenario, settings.factory );
              shrunk.failure ) {
            failure.failure = *shrunk.failure;
         }
      }
      const std::string path = writeFailure( failure );
      std::cout << "   " << failure.scenario.events.size()
                << " events are enough: " << ( path.empty() ? "they could not be written" : path )
                << '\n';
   }
   std::cout << result.events << " events in " << result.runs << " runs, " << result.frames
             << " frames, " << result.failures.size() << " failures, "
             << static_cast< U64 >( static_cast< double >( result.events ) /
                                    std::max( result.seconds, 1e-3 ) )
             << " events a second" << std::endl;
   return result.failures.empty() ? ExitStatus::done : ExitStatus::failed;
}

int replay( const SimulateOptions& options ) {
   std::ifstream file( options.replay );
   std::ostringstream text;
   text << file.rdbuf();
   if ( !file ) {
      std::cerr << "velmpls simulate: " << options.replay << ": cannot be read\n";
      return ExitStatus::badInput;
   }
   std::string why;
   const std::optional< Sim::Scenario > scenario = Sim::scenarioParse( text.str(), why );
   if ( !scenario ) {
      std::cerr << "velmpls simulate: " << options.replay << ": " << why << '\n';
      return ExitStatus::badInput;
   }
   const Sim::Outcome outcome = Sim::runApart( *scenario, Sim::makeSoftwareHardware );
   const size_t last = std::min( outcome.events, scenario->events.size() );
   for ( size_t at = 0; at < last; ++at ) {
      std::cout << at + 1 << "  " << textOf( scenario->events[at] ) << '\n';
   }
   std::cout << ( outcome.failure ? failureText( *outcome.failure ) : "no failure" ) << '\n';
   return outcome.failure ? ExitStatus::failed : ExitStatus::done;
}

int runSimulate( const SimulateOptions& options ) {
   return options.replay.empty() ? simulate( options ) : replay( options );
}

} // namespace

void addSimulateCommand( CLI::App& app, CommandRun& run ) {
   const auto options = std::make_shared< SimulateOptions >();
   CLI::App* const command =
      addCommand( app, run, "simulate", "Tries the agent and its hardware under random events",
                  options, runSimulate );
   command->add_option( "--seed", options->seed, "The first seed; each run has the next one" )
      ->check( longNaturalFault );
   command->add_option( "--events", options->events, "Events in all" )
      ->capture_default_str()
      ->check( longNaturalFault );
   command->add_option( "--events-per-run", options->eventsPerRun, "Events of one world" )
      ->capture_default_str()
      ->check( CLI::Range( 1, 1'000'000 ) );
   std::string about = "Where to look:";
   for ( const Sim::Profile& profile : Sim::profiles ) {
      about += joinText( "\n  ", profile.name, ": ", profile.about );
   }
   command->add_option( "--profile", options->profile, about )
      ->capture_default_str()
      ->check( []( const std::string& name ) {
         return Sim::isProfile( name ) ? std::string() : "there is no profile \"" + name + "\"";
      } );
   command->add_option( "--minutes", options->minutes, "Go on for so long, instead of --events" )
      ->check( CLI::Range( 0.0, 1e5 ) );
   command->add_option( "--jobs", options->jobs, "Processes at a time" )
      ->capture_default_str()
      ->check( CLI::Range( 1, 256 ) );
   command->add_option( "--failures", options->failures, "End after so many failures" )
      ->capture_default_str()
      ->check( CLI::Range( 1, 1'000'000 ) );
   command->add_flag( "!--no-shrink", options->shrink,
                      "Leave the events of a failure as they are" );
   command->add_option( "--replay", options->replay, "Run the events of a file" )
      ->check( emptyFault );
   command->footer(
      "A failure prints its seed and writes simulate-SEED.events, the fewest events that show it,\n"
      "for --replay. The exit status is 0 without a failure, 1 with one." );
}

} // namespace Vel::Agent
