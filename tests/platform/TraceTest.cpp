#include "platform/base/Trace.h"

#include <cmath>
#include <limits>
#include <thread>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "platform/values/MplsTypes.h"
#include "tests/AssertionsThrow.h"

namespace {

using namespace Vel;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::Not;

TraceHandle traceHandle( "TraceTestSm" );

class Tracer {
 public:
   void handleEvent( int value ) {
      VEL_TRACE_CALL( traceHandle, 3 );
      VEL_TRACE_CALL( traceHandle, 3, " value ", value );
      VEL_TRACE( traceHandle, 7, "value ", expensive( value ) );
   }
   int evaluations = 0;

 private:
   int expensive( int value ) {
      ++evaluations;
      return value;
   }
};

struct TextChannel : ::testing::Test {
   TextChannel() {
      traceSinkIs( [this]( const TraceLine& line ) {
         lines.push_back( joinText( line.handle, "/", line.level, " ", line.text ) );
         lastSignature = line.signature;
      } );
   }
   ~TextChannel() override {
      traceSinkIs( {} );
      traceSettingIs( "" );
   }
   std::vector< std::string > lines;
   std::string lastSignature;
};

TEST_F( TextChannel, settingDecidesWhichLevelsAreOn ) {
   const TraceHandle other( "TraceTestOther" );
   struct Case {
      const char* setting;
      int levelOn; // highest of traceHandle, -1 for none
      int otherOn;
   };
   for ( const Case& c : { Case{ "TraceTestSm/3", 3, -1 }, Case{ "TraceTestSm/0", 0, -1 },
                           Case{ "*/9", 9, 9 }, Case{ "TraceTestOther/2,TraceTestSm/8", 8, 2 },
                           Case{ "*/1,TraceTestSm/5", 5, 1 }, Case{ "TraceTestSm/5,*/1", 5, 1 },
                           Case{ "TraceTest/9,TraceTestSmX/9", -1, -1 }, Case{ "", -1, -1 } } ) {
      SCOPED_TRACE( c.setting );
      EXPECT_EQ( traceSettingIs( c.setting ), std::nullopt );
      EXPECT_EQ( traceSetting(), c.setting );
      for ( int level = 0; level <= TraceHandle::maxLevel; ++level ) {
         EXPECT_EQ( traceHandle.enabled( level ), level <= c.levelOn ) << level;
         EXPECT_EQ( other.enabled( level ), level <= c.otherOn ) << level;
      }
   }
}

TEST_F( TextChannel, malformedSettingChangesNothing ) {
   traceSettingIs( "TraceTestSm/4" );
   for ( const char* const bad : { "TraceTestSm", "TraceTestSm/", "TraceTestSm/10", "TraceTestSm/x",
                                   "/3", "*/3,", ",*/3", "*/3,,A/2", "A/3/4" } ) {
      const auto error = traceSettingIs( bad );
      ASSERT_TRUE( error ) << bad;
      EXPECT_THAT( *error, HasSubstr( "trace setting" ) );
      EXPECT_TRUE( traceHandle.enabled( 4 ) && !traceHandle.enabled( 5 ) ) << bad;
   }
}

TEST_F( TextChannel, handlesComeAndGo ) {
   traceSettingIs( "TraceTestLate/6" );
   {
      const TraceHandle late( "TraceTestLate" );
      const TraceHandle twin( "TraceTestLate" );
      EXPECT_TRUE( late.enabled( 6 ) && twin.enabled( 6 ) );
      const auto names = traceHandles();
      EXPECT_EQ( std::count( names.begin(), names.end(), "TraceTestLate" ), 1 );
   }
   EXPECT_THAT( traceHandles(), Not( ::testing::Contains( "TraceTestLate" ) ) );
   traceSettingIs( "*/1" ); // does not touch the ones that are gone
}

TEST_F( TextChannel, linesCarrySignatureAndPieces ) {
   Tracer tracer;
   traceSettingIs( "TraceTestSm/3" );
   tracer.handleEvent( 17 );
   EXPECT_EQ( tracer.evaluations, 0 ) << "pieces of a level that is off must not be evaluated";
   ASSERT_EQ( lines.size(), 2U );
   EXPECT_THAT( lines[0],
                ::testing::MatchesRegex( "TraceTestSm/3 void .*Tracer::handleEvent.int." ) );
   EXPECT_EQ( lines[1], lines[0] + " value 17" );
   EXPECT_EQ( "TraceTestSm/3 " + lastSignature, lines[0] );

   traceSettingIs( "TraceTestSm/7" );
   tracer.handleEvent( 18 );
   EXPECT_EQ( lines.back(), "TraceTestSm/7 value 18" );
}

TEST_F( TextChannel, aSinkMayTraceAndReplaceItself ) {
   traceSettingIs( "TraceTestSm/1" );
   const std::string own( 100, 'x' ); // on the heap: goes with the sink that holds it
   traceSinkIs( [this, own]( const TraceLine& ) {
      VEL_TRACE( traceHandle, 1, "from the sink" );
      traceSinkIs( [this]( const TraceLine& line ) { lines.emplace_back( line.text ); } );
      lines.push_back( own );
   } );
   VEL_TRACE( traceHandle, 1, "first" );
   VEL_TRACE( traceHandle, 1, "second" );
   EXPECT_THAT( lines, ElementsAre( own, "second" ) );
}

TEST( RingChannel, showsValuesTimesAndHandles ) {
   traceTimeIs( 12.25 );
   VEL_RING( traceHandle, "nothing" );
   VEL_RING( traceHandle, "values", 7, true, AddressFamily::ipv6, Mpls::MplsLabel( 16040 ) );
   traceTimeIs( 13 );
   VEL_RING( traceHandle, "words", uint64_t{ 1 } << 32, UINT64_MAX, int64_t{ -1 } );
   VEL_RING( traceHandle, "seconds", 10.9, -3.0, std::numeric_limits< double >::infinity(),
             std::nan( "" ) );
   const auto first = traceRingWritten() - 4;
   EXPECT_EQ( traceRingDump( 4 ),
              joinText( "#", first, " 12.250000 TraceTestSm nothing\n", "#", first + 1,
                        " 12.250000 TraceTestSm values 7 1 6 16040\n", "#", first + 2,
                        " 13.000000 TraceTestSm words 0x100000000 0xffffffffffffffff "
                        "0xffffffffffffffff\n",
                        "#", first + 3,
                        " 13.000000 TraceTestSm seconds 10 0 0xffffffffffffffff 0\n" ) );
   EXPECT_EQ( traceRingDump( 0 ), "" );
}

TEST( RingChannel, keepsTheLastLinesOfEachThread ) {
   std::string dump;
   size_t written = 0;
   std::thread( [&] {
      EXPECT_EQ( traceRingDump( 10 ), "" );
      for ( uint64_t i = 0; i < TraceRing::capacity + 10; ++i ) {
         VEL_RING( traceHandle, "line", i );
      }
      dump = traceRingDump( SIZE_MAX );
      written = traceRingWritten();
   } ).join();
   EXPECT_EQ( written, TraceRing::capacity + 10 );
   EXPECT_EQ( std::count( dump.begin(), dump.end(), '\n' ), TraceRing::capacity );
   EXPECT_EQ( dump.substr( 0, dump.find( '\n' ) ), "#10 0.000000 TraceTestSm line 10" );
   EXPECT_THAT( dump, ::testing::EndsWith( "#4105 0.000000 TraceTestSm line 4105\n" ) );
   EXPECT_THAT( traceRingDump( 1 ), Not( HasSubstr( "4105" ) ) );
}

void failWith( int answer ) {
   VEL_ASSERT_TEXT( answer == 42, "answer == 42", "think again", "TraceTestSm",
                    joinText( "q", answer ) );
}

TEST( Assertion, defaultHandlerShowsFailureAndRing ) {
   VEL_RING( traceHandle, "the last thing that happened", 99 );
   EXPECT_EXIT( failWith( 1 ), ::testing::KilledBySignal( SIGABRT ),
                "assertion failed: answer == 42: think again \\[TraceTestSm, q1\\] .*TraceTest.cpp"
                "(.|\n)*TraceTestSm the last thing that happened 99" );
}

TEST( Assertion, handlerThatReturnsOrFailsIsFollowedByAbort ) {
   const auto withHandler = []( AssertionHandler handler ) {
      assertionHandlerIs( handler );
      failWith( 2 );
   };
   EXPECT_EXIT( withHandler( []( const AssertionFailure& ) { std::fputs( "mine", stderr ); } ),
                ::testing::KilledBySignal( SIGABRT ), "mine" );
   EXPECT_EXIT( withHandler( []( const AssertionFailure& ) { failWith( 3 ); } ),
                ::testing::KilledBySignal( SIGABRT ), "q3.*\n.*while another failure" );
}

TEST( Assertion, handlerMayThrowAgainAndAgain ) {
   const VelTest::AssertionsThrow assertionsThrow;
   failWith( 42 );
   for ( int i = 0; i < 2; ++i ) {
      try {
         failWith( i );
         FAIL() << "the assertion holds";
      } catch ( const VelTest::AssertionThrown& thrown ) {
         EXPECT_EQ( thrown.condition, "answer == 42" );
         EXPECT_THAT( thrown.what(), HasSubstr( joinText( "q", i ) ) );
      }
   }
}

} // namespace
