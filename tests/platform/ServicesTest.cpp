// The small services: clocks, feature toggles, the system log.

#include <thread>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "platform/services/Clock.h"
#include "platform/services/FeatureToggle.h"
#include "platform/services/SystemLog.h"
#include "tests/AssertionsThrow.h"

namespace {

using namespace Vel;
using ::testing::ElementsAre;

TEST( Clock, timeDoesNotGoBack ) {
   const VelTest::AssertionsThrow assertionsThrow;
   const auto manual = make< ManualClock >( 10.0 );
   manual->nowIs( 10.0 );
   manual->advance( 0.5 );
   EXPECT_THROW( manual->nowIs( 10.4 ), VelTest::AssertionThrown );
   EXPECT_THROW( manual->advance( -1 ), VelTest::AssertionThrown );
   EXPECT_EQ( manual->now(), 10.5 );

   const auto steady = make< SteadyClock >();
   const double before = steady->now();
   std::this_thread::sleep_for( std::chrono::milliseconds( 5 ) );
   const double passed = steady->now() - before;
   EXPECT_GE( passed, 0.005 );
   EXPECT_LT( passed, 5.0 );
}

constinit CachedFeatureToggle cachedOn( "ServicesTestOn", true );
constinit CachedFeatureToggle cachedOff( "ServicesTestOff", false );

TEST( FeatureToggle, isAskedOnce ) {
   EXPECT_TRUE( cachedOn.enabled() );
   EXPECT_FALSE( cachedOff.enabled() );
   featureToggleIs( "ServicesTestOn", false );
   featureToggleIs( "ServicesTestOff", true );
   EXPECT_FALSE( featureToggle( "ServicesTestOn", true ) );
   EXPECT_TRUE( cachedOn.enabled() && !cachedOff.enabled() ) << "the first answer stays";
   cachedOn.forget();
   cachedOff.forget();
   EXPECT_TRUE( !cachedOn.enabled() && cachedOff.enabled() );
   EXPECT_THAT( featureToggles(), ElementsAre( std::pair( "ServicesTestOff", true ),
                                               std::pair( "ServicesTestOn", false ) ) );
   featureToggleDel( "ServicesTestOn" );
   featureToggleDel( "ServicesTestOff" );
   cachedOn.forget();
   cachedOff.forget();
   EXPECT_TRUE( featureToggle( "ServicesTestOn", true ) && featureToggles().empty() );
}

SystemLogHandle full( { .name = "SERVICES_TEST_FULL",
                        .format = "It is full",
                        .explanation = "There is too much of it. ",
                        .recommendedAction = "Have less. " } );
SystemLogHandle normal( { .name = "SERVICES_TEST_NORMAL",
                          .severity = 5,
                          .minIntervalSeconds = 0,
                          .format = "It is normal.",
                          .explanation = "",
                          .recommendedAction = "" } );

struct SystemLogTest : ::testing::Test {
   SystemLogTest() {
      systemLogClockIs( clock );
      systemLogSinkIs(
         [this]( const SystemLogMessage& message ) { sent.push_back( textOf( message ) ); } );
   }
   ~SystemLogTest() override {
      systemLogSinkIs( {} );
      systemLogClockIs( nullptr );
   }
   static void say( SystemLogHandle& handle ) {
      if ( handle.allowed() ) {
         handle.log();
      }
   }
   Ptr< ManualClock > clock = make< ManualClock >();
   std::vector< std::string > sent;
};

TEST_F( SystemLogTest, eachMessageHasItsInterval ) {
   const uint64_t suppressedBefore = full.suppressed();
   say( full );
   say( full );
   say( normal );
   say( normal );
   clock->advance( 0.999 );
   say( full );
   EXPECT_THAT( sent, ElementsAre( "SERVICES_TEST_FULL severity 3: It is full",
                                   "SERVICES_TEST_NORMAL severity 5: It is normal.",
                                   "SERVICES_TEST_NORMAL severity 5: It is normal." ) );
   EXPECT_EQ( full.suppressed() - suppressedBefore, 2U );
   clock->advance( 0.001 );
   say( full );
   EXPECT_EQ( sent.size(), 4U );
   systemLogClockIs( make< ManualClock >() ); // an earlier time, and it means something else
   EXPECT_TRUE( full.allowed() );
}

TEST_F( SystemLogTest, messagesAreListedWhileTheyExist ) {
   const auto names = [] {
      std::vector< std::string > found;
      for ( const SystemLogHandle* const handle : systemLogHandles() ) {
         if ( handle->message().name.starts_with( "SERVICES_TEST_" ) ) {
            found.emplace_back( handle->message().name );
         }
      }
      return found;
   };
   {
      const SystemLogHandle passing( { .name = "SERVICES_TEST_LOCAL",
                                       .format = "",
                                       .explanation = "",
                                       .recommendedAction = "" } );
      EXPECT_THAT( names(), ElementsAre( "SERVICES_TEST_FULL", "SERVICES_TEST_LOCAL",
                                         "SERVICES_TEST_NORMAL" ) );
   }
   EXPECT_THAT( names(), ElementsAre( "SERVICES_TEST_FULL", "SERVICES_TEST_NORMAL" ) );
}

TEST( SystemLog, goesToStandardErrorUnlessSet ) {
   ::testing::internal::CaptureStderr();
   normal.log();
   EXPECT_EQ( ::testing::internal::GetCapturedStderr(),
              "SERVICES_TEST_NORMAL severity 5: It is normal.\n" );
}

} // namespace
