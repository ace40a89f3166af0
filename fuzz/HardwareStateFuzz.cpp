// HardwareState: a file of hardware that outlived its software. What is read from it can be started
// on, and what is then in hardware is written and read back as it is.

#include <array>

#include "agent/world/HardwareState.h"
#include "agent/world/LabelAgent.h"
#include "fuzz/Files.h"
#include "fuzz/Fuzz.h"

namespace Vel::Fuzz {

using namespace Agent;

namespace {

/// Wants some of what a file may hold.
constexpr std::string_view wanted = R"({"velmplsLabelTable":1,"routes":[
   {"label":16,"vias":[{"action":"swap","outLabels":[17],"nextHop":"10.0.0.1","interface":"a"}]},
   {"label":17,"vias":[{"action":"pop","nextHop":"10.0.0.2","interface":"b"}],
    "backupVias":[{"action":"swap","outLabels":[17],"nextHop":"10.0.0.1","interface":"a"}]},
   {"stack":[16,17],"vias":[{"action":"pop","nextHopGroup":"g"}]}],
   "nextHopGroups":[{"name":"g","vias":[{"nextHop":"10.0.0.1","interface":"a"}]}]})";

std::string savedAs( const Files& files, const Driver::HwState& state,
                     const Interfaces& interfaces ) {
   VEL_ASSERT( !HardwareStateFile( files.path( "saved" ) ).save( state, interfaces ) );
   return files.read( "saved" );
}

/// What is written can be read, and says the same.
void checkRoundTrip( const Files& files, const Driver::HwState& state, Interfaces& interfaces ) {
   const std::string saved = savedAs( files, state, interfaces );
   std::string fault;
   const auto again = HardwareStateFile( files.path( "saved" ) ).load( interfaces, fault );
   VEL_ASSERT_TEXT( again.has_value(), "a file that was written can be read", fault, "fuzz",
                    saved );
   VEL_ASSERT( savedAs( files, *again, interfaces ) == saved );
}

} // namespace

void fuzzHardwareState( ByteView bytes ) {
   static const Files files( "state" );
   const HardwareStateFile file( files.write( "state", textIn( bytes ) ) );
   LfibPlan plan;
   plan.add( parseLabelTable( wanted, "wanted" ) );
   std::string fault;
   const auto state = file.load( plan.interfaces(), fault );
   if ( !state ) {
      VEL_ASSERT( fault.starts_with( files.path( "state" ) ) );
      return;
   }
   checkRoundTrip( files, *state, plan.interfaces() );
   if ( state->nextHwId > U64{ 1 } << 61 ) {
      return; // a file may count almost to the largest number that can be read; hardware does not
   }
   LabelAgent agent( std::move( plan ),
                     { .hardware = { .breachIsFatal = true }, .recovered = *state } );
   agent.neighborsAre( parseNeighborTable(
      R"([{"dst":"10.0.0.1","dev":"a","lladdr":"02:00:00:00:00:01","state":["REACHABLE"]}])",
      "n" ) );
   VEL_ASSERT( !agent.apply( 0 ) );
   VEL_ASSERT( !agent.runFor( 30 ) );
   checkRoundTrip( files, agent.hardware().state(), agent.interfaces() );
}

} // namespace Vel::Fuzz
