#include "sim/Campaign.h"

#include <algorithm>
#include <chrono>
#include <deque>
#include <list>

#include <poll.h>

#include "sim/Process.h"

namespace Vel::Sim {

namespace {

using WallClock = std::chrono::steady_clock;

/// Seeds with the same toggles, for one process.
using Share = std::deque< U64 >;
constexpr size_t seedsPerShare = 32;

struct Worker {
   Worker( Share given, const CampaignSettings& settings )
      : share( std::move( given ) ), process( [&]( Reporter& reporter ) {
           for ( const U64 seed : share ) {
              if ( !reporter.run( seed,
                                  drawScenario( seed, settings.profile, settings.eventsPerRun ),
                                  settings.factory ) ) {
                 return;
              }
           }
        } ) {}

   Share share; // the seeds that have not been reported
   Process process;
};

class Conductor {
 public:
   explicit Conductor( const CampaignSettings& settings )
      : settings_( settings ), nextSeed_( settings.seed ) {}

   CampaignResult run() {
      const WallClock::time_point begin = WallClock::now();
      end_ = begin + std::chrono::duration_cast< WallClock::duration >(
                        std::chrono::duration< double >( settings_.seconds ) );
      while ( true ) {
         while ( workers_.size() < std::max( 1U, settings_.jobs ) && wantsMore() ) {
            workers_.emplace_back( nextShare(), settings_ );
         }
         if ( workers_.empty() ) {
            break;
         }
         wait();
      }
      result_.seconds = std::chrono::duration< double >( WallClock::now() - begin ).count();
      return std::move( result_ );
   }

 private:
   bool wantsMore() const {
      return givenEvents_ < settings_.events && result_.failures.size() < settings_.maxFailures &&
             ( settings_.seconds == 0 || WallClock::now() < end_ );
   }

   // Every fourth seed has the same toggles: a block of seeds is four shares.
   Share nextShare() {
      if ( !unfinished_.empty() ) {
         Share rest = std::move( unfinished_.front() );
         unfinished_.pop_front();
         return rest;
      }
      constexpr U64 combinations = 4;
      Share share;
      const U64 left = ( settings_.events - givenEvents_ ) / settings_.eventsPerRun + 1;
      const size_t count = std::clamp< size_t >( left / combinations, 1, seedsPerShare );
      if ( block_.empty() ) {
         block_.resize( combinations );
         for ( U64 i = 0; i < count * combinations; ++i, ++nextSeed_ ) {
            // Shares are taken from the back: the first seed's comes first, since a campaign of one
            // run takes no other.
            block_[combinations - 1 - i % combinations].push_back( nextSeed_ );
         }
      }
      share = std::move( block_.back() );
      block_.pop_back();
      givenEvents_ += share.size() * settings_.eventsPerRun;
      return share;
   }

   void wait() {
      std::vector< pollfd > files;
      for ( const Worker& worker : workers_ ) {
         files.push_back( { worker.process.file(), POLLIN, 0 } );
      }
      constexpr int atMostMillis = 1000;
      ::poll( files.data(), files.size(), atMostMillis );
      auto file = files.begin();
      for ( auto worker = workers_.begin(); worker != workers_.end(); ++file ) {
         if ( file->revents != 0 && !hear( *worker ) ) {
            if ( !worker->share.empty() ) {
               unfinished_.push_back( std::move( worker->share ) ); // a failure has ended it
            }
            worker = workers_.erase( worker );
         } else {
            ++worker;
         }
      }
   }

   /// False when the worker has ended.
   bool hear( Worker& worker ) {
      const bool more = worker.process.read();
      while ( const std::optional< Report > report =
                 more ? worker.process.take() : worker.process.next() ) {
         worker.share.pop_front();
         ++result_.runs;
         result_.frames += report->frames;
         if ( report->failure ) {
            fails( *report );
         } else {
            result_.events += report->events;
         }
         if ( settings_.onProgress ) {
            settings_.onProgress( result_.events );
         }
      }
      return more;
   }

   void fails( const Report& report ) {
      CampaignFailure failure{
         report.seed, drawScenario( report.seed, settings_.profile, settings_.eventsPerRun ),
         *report.failure };
      failure.scenario.events.resize( std::min( failure.scenario.events.size(), report.events ) );
      result_.events += failure.scenario.events.size();
      if ( result_.failures.size() < settings_.maxFailures ) {
         result_.failures.push_back( std::move( failure ) );
      }
   }

   const CampaignSettings& settings_;
   U64 nextSeed_;
   U64 givenEvents_ = 0;
   WallClock::time_point end_;
   std::vector< Share > block_;
   std::list< Share > unfinished_;
   std::list< Worker > workers_;
   CampaignResult result_;
};

} // namespace

CampaignResult runCampaign( const CampaignSettings& settings ) {
   return Conductor( settings ).run();
}

} // namespace Vel::Sim
