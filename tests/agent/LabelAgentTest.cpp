// The agent: what becomes of label tables in the LFIB and in the hardware, and what is said of it.

#include "tests/agent/ProgramFixtures.h"

#include <set>

#include <gmock/gmock.h>

namespace VelTest {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;
using enum ProgramState;

// --- What is read back.

/// Every state, every reason that a table alone can give, and every shape of via.
Programmed everyState() {
   const std::string gone = swapVia( 1, "10.0.1.3", "eth1" );
   Programmed made(
      { tableOf(
         routeOf( 16040, swapVia( 16040, "10.0.1.2", "eth1" ) ) + "," +
         routeOf( 16041, gone + "," + swapVia( 16041, "10.0.1.2", "eth1" ) ) + "," +
         routeOf( 16050, gone ) + "," +
         routeOf( 16051, gone + "," + swapVia( 1, "10.0.1.9" ) + "," + swapVia( 2, "10.0.1.9" ) ) +
         "," +
         routeOf( 16052, gone + "," + swapVia( 1, "10.0.1.4", "eth1" ) + "," +
                            swapVia( 1, "10.0.1.5", "eth1" ) + "," +
                            swapVia( 1, "10.0.1.6", "eth1" ) + "," + swapVia( 1, "fe80::9" ) ) +
         "," + routeOf( 16060, swapVia( 16060, "10.0.1.2", "eth1" ) +
                                  R"(,{"action":"swap","outLabels":[1,2],"nextHop":"10.0.1.2"})" ) +
         "," + routeOf( 16061, R"({"action":"push","outLabels":[7],"interface":"eth1"})" ) + "," +
         routeOf( 16070, R"({"action":"pop","interface":"lo"})" ) + R"(,
            {"label":16071,"kind":"decapsulation"},)" +
         routeOf( 17000, swapVia( 3, "fe80::2" ) ) + R"(,
            {"stack":[16040,24001],"vias":[
               {"action":"push","outLabels":[17001],"nextHop":"fe80::2","interface":"eth\"2"}]})" ) },
      { neighborOf( "10.0.1.2", "eth1", 2 ),
        { "10.0.1.3", "eth1", {}, false, "FAILED", 0 },
        neighborOf( "fe80::2", "eth\"2", 7, 20 ),
        neighborOf( "fe80::2", "eth3", 8 ) } );
   made.apply( 0 );
   return made;
}

TEST( ProgramResult, JsonOfEveryState ) {
   std::ostringstream out;
   EXPECT_TRUE( printJson( out, ProgramResult( *everyState().agent ) ) );
   EXPECT_EQ( out.str(), R"()" );
}

TEST( ProgramResult, TextOfEveryState ) {
   std::ostringstream out;
   EXPECT_TRUE( printText( out, ProgramResult( *everyState().agent ) ) );
   EXPECT_EQ( out.str(), R"()" );
}

} // namespace
} // namespace VelTest
