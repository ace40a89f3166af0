// Campaign: scenario after scenario, each from the next seed, in as many processes as there are
// jobs.

#pragma once

#include <functional>
#include <string>
#include <vector>

#include "sim/Draw.h"
#include "sim/Run.h"

namespace Vel::Sim {

struct CampaignSettings {
   U64 seed = 0;           ///< the first; each run has the next one
   U64 events = 1'000'000; ///< in all
   double seconds = 0;     ///< after which no more seeds are given out; 0: no limit
   U32 jobs = 1;           ///< processes at a time
   U32 eventsPerRun = 400;
   U32 maxFailures = 1; ///< after so many it ends
   std::string profile = "all";
   HardwareFactory factory = makeSoftwareHardware;
   /// Told now and then how many events are through.
   std::function< void( U64 events ) > onProgress{};
};

struct CampaignFailure {
   U64 seed = 0;
   Scenario scenario; ///< up to the event that shows it
   Failure failure;
};

struct CampaignResult {
   U64 runs = 0;
   U64 events = 0;
   U64 frames = 0;
   double seconds = 0;
   std::vector< CampaignFailure > failures;
};

CampaignResult runCampaign( const CampaignSettings& settings );

} // namespace Vel::Sim
