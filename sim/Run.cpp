#include "sim/Run.h"

#include <chrono>

#include "platform/services/FeatureToggle.h"
#include "sim/Process.h"

namespace Vel::Sim {

void togglesAre( const Settings& settings ) {
   featureToggleIs( "MplsNonStopForwarding", settings.nonStop != 0 );
   featureToggleIs( "InPlaceMplsAdjacencyUpdate", settings.inPlace != 0 );
}

Outcome runHere( const Scenario& scenario, const HardwareFactory& factory,
                 const std::function< void( size_t event ) >& before ) {
   Outcome outcome;
   togglesAre( scenario.settings );
   World world( scenario.settings, factory );
   Watch watch( world );
   try {
      for ( const Event& event : scenario.events ) {
         if ( before ) {
            before( outcome.events );
         }
         ++outcome.events;
         if ( event.kind == EventKind::rest ) {
            watch.rest();
         } else if ( event.kind == EventKind::clear ) {
            watch.clear();
         } else {
            world.apply( event );
            watch.after( event );
         }
      }
   } catch ( const Failure& failure ) {
      outcome.failure = failure;
   }
   outcome.frames = watch.framesSent();
   return outcome;
}

Outcome runApart( const Scenario& scenario, const HardwareFactory& factory ) {
   Outcome outcome;
   Process process( [&]( Reporter& reporter ) { reporter.run( 0, scenario, factory ); } );
   while ( const std::optional< Report > report = process.next() ) {
      outcome.events = report->events;
      outcome.frames = report->frames;
      outcome.failure = report->failure;
   }
   return outcome;
}

namespace {

/// Takes out what the failure does not need.
class Shrinker {
   using WallClock = std::chrono::steady_clock;

 public:
   Shrinker( Scenario scenario, const Outcome& outcome, const HardwareFactory& factory,
             double seconds )
      : best_( std::move( scenario ) ),
        check_( outcome.failure->check ),
        factory_( factory ),
        end_( WallClock::now() + std::chrono::duration_cast< WallClock::duration >(
                                    std::chrono::duration< double >( seconds ) ) ) {
      best_.events.resize( outcome.events );
   }

   Scenario run() {
      size_t before = 0;
      do {
         before = best_.events.size();
         for ( size_t size = std::max< size_t >( before / 2, 1 ); size > 0; size /= 2 ) {
            takeOut( size );
         }
      } while ( best_.events.size() < before && !late() );
      for ( U32 Settings::*const setting : { &Settings::serviceMicros, &Settings::lateMillis,
                                             &Settings::questions, &Settings::slowL3 } ) {
         Scenario without = best_;
         without.settings.*setting = 0;
         tryIt( std::move( without ) );
      }
      return best_;
   }

 private:
   bool late() const { return WallClock::now() > end_; }

   bool tryIt( Scenario candidate ) {
      const Outcome outcome = runApart( candidate, factory_ );
      if ( !outcome.failure || outcome.failure->check != check_ ) {
         return false;
      }
      candidate.events.resize( outcome.events );
      best_ = std::move( candidate );
      return true;
   }

   void takeOut( size_t size ) {
      for ( size_t at = best_.events.size(); at > 0 && !late(); ) {
         const size_t first = at > size ? at - size : 0;
         Scenario candidate = best_;
         candidate.events.erase( candidate.events.begin() + static_cast< std::ptrdiff_t >( first ),
                                 candidate.events.begin() + static_cast< std::ptrdiff_t >( at ) );
         tryIt( std::move( candidate ) );
         at = std::min( first, best_.events.size() );
      }
   }

   Scenario best_;
   const std::string check_;
   const HardwareFactory& factory_;
   const WallClock::time_point end_;
};

} // namespace

Scenario shrink( Scenario scenario, const Outcome& outcome, const HardwareFactory& factory,
                 double seconds ) {
   return Shrinker( std::move( scenario ), outcome, factory, seconds ).run();
}

} // namespace Vel::Sim
