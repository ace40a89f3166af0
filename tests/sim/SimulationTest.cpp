// The simulation: what it has found stays mended, it finds what is planted, and it finds nothing in
// fresh seeds.

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <sstream>

#include "sim/Campaign.h"
#include "tests/Seed.h"

namespace Vel::Sim {
namespace {

std::string contentsOf( const std::filesystem::path& path ) {
   std::ifstream file( path );
   std::ostringstream text;
   text << file.rdbuf();
   return text.str();
}

TEST( Simulation, whatItHasFoundStaysMended ) {
   size_t files = 0;
   for ( const auto& entry :
         std::filesystem::directory_iterator( VELMPLS_SOURCE_DIR "/tests/data/simulation" ) ) {
      std::string why;
      const std::optional< Scenario > scenario = scenarioParse( contentsOf( entry.path() ), why );
      ASSERT_TRUE( scenario ) << entry.path() << ": " << why;
      const Outcome outcome = runApart( *scenario, makeSoftwareHardware );
      EXPECT_FALSE( outcome.failure ) << entry.path() << ", event " << outcome.events << ": "
                                      << outcome.failure->check << ": " << outcome.failure->text;
      ++files;
   }
   EXPECT_GT( files, 10U );
}

// A range of seeds without a failure; what fails in it is new.
TEST( Simulation, knownSeeds ) {
   CampaignSettings settings;
   settings.seed = 40'480;
   settings.events = 60'000;
   const CampaignResult result = runCampaign( settings );
   EXPECT_GE( result.events, settings.events );
   for ( const CampaignFailure& failure : result.failures ) {
      ADD_FAILURE() << "seed " << failure.seed << ": " << failure.failure.check << ": "
                    << failure.failure.text;
   }
}

/// The software switch with a fault of its own.
class Faulty : public Hardware {
 public:
   Faulty( const HardwareEntities& entities, const Settings& settings, const HardwareMemory* left )
      : hardware_( makeSoftwareHardware( entities, settings, left ) ) {}

   Ptr< VelHelper::MplsSmHelper > helper() override { return hardware_->helper(); }
   std::vector< Driver::OutgoingFrame > forward( VrfId vrfId, Driver::ByteView frame ) override {
      auto frames = hardware_->forward( vrfId, frame );
      if ( !frames.empty() && frames[0].intf == IntfId::ordinary( 2 ) ) {
         frames[0].intf = IntfId::ordinary( 1 );
      }
      return frames;
   }
   bool idle() const override { return hardware_->idle(); }
   HardwareEntries entries() const override { return hardware_->entries(); }
   std::unique_ptr< HardwareMemory > memory() const override { return hardware_->memory(); }
   void linkIs( IntfId intf, bool up ) override { hardware_->linkIs( intf, up ); }
   void neighborsChanged() override { hardware_->neighborsChanged(); }
   void foreignFecIs( Fib::FecId fecId, const std::vector< Fib::FecVia >& vias ) override {
      hardware_->foreignFecIs( fecId, vias );
   }
   void tunnelIs( IntfId intf, const std::vector< Fib::FecVia >& vias ) override {
      hardware_->tunnelIs( intf, vias );
   }
   void faultsAre( const HardwareFaults& faults ) override { hardware_->faultsAre( faults ); }

 private:
   std::unique_ptr< Hardware > hardware_;
};

// A driver of somebody else's: its fault is found, by few events, which replay.
TEST( Simulation, findsWhatIsPlantedAndShrinksIt ) {
   CampaignSettings settings;
   settings.seed = VelTest::testSeed();
   settings.factory = []( const HardwareEntities& entities, const Settings& world,
                          const HardwareMemory* left ) -> std::unique_ptr< Hardware > {
      return std::make_unique< Faulty >( entities, world, left );
   };
   const CampaignResult result = runCampaign( settings );
   ASSERT_EQ( result.failures.size(), 1U );
   const CampaignFailure& failure = result.failures[0];
   const Outcome outcome{ failure.failure, failure.scenario.events.size(), 0 };
   const Scenario few = shrink( failure.scenario, outcome, settings.factory, 60 );
   EXPECT_LE( few.events.size(), 40U ) << textOf( few ); // of up to 400
   std::string why;
   const std::optional< Scenario > read = scenarioParse( textOf( few ), why );
   ASSERT_TRUE( read ) << why;
   EXPECT_EQ( read->events, few.events );
   const Outcome again = runApart( *read, settings.factory );
   ASSERT_TRUE( again.failure );
   EXPECT_EQ( again.failure->check, failure.failure.check );
   EXPECT_FALSE( runApart( *read, makeSoftwareHardware ).failure );
}

// A crash and a loop without end are failures of the run that they end.
TEST( Simulation, namesTheRunThatEndsTheProcess ) {
   CampaignSettings settings;
   settings.seed = 1000;
   settings.factory = []( const HardwareEntities&, const Settings&,
                          const HardwareMemory* ) -> std::unique_ptr< Hardware > { std::abort(); };
   const CampaignResult result = runCampaign( settings );
   ASSERT_EQ( result.failures.size(), 1U );
   EXPECT_EQ( result.failures[0].seed, 1000U );
   EXPECT_EQ( result.failures[0].failure.check, "end" );
}

TEST( Simulation, refusesWhatIsNoScenario ) {
   const struct {
      const char* text;
      const char* why;
   } cases[] = {
      { "labels 12\nrouted label=1\n", "line 2: \"routed\" is neither a setting nor an event" },
      { "route lable=1\n", "line 1: \"lable=1\" is no number of route" },
      { "route label=x\n", "line 1: \"label=x\" is no number of route" },
      { "# of 65\n\nlabels 65\n", "line 3: labels takes a number up to 64" },
   };
   for ( const auto& one : cases ) {
      std::string why;
      EXPECT_FALSE( scenarioParse( one.text, why ) ) << one.text;
      EXPECT_EQ( why, one.why );
   }
}

} // namespace
} // namespace Vel::Sim
