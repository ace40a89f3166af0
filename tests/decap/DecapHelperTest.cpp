// The helpers that a platform derives from.

#include <cstdlib>
#include <functional>
#include <set>

#include <gtest/gtest.h>

#include "decap/VelMplsDecapHelper.h"
#include "tests/AssertionsThrow.h"

namespace {

using namespace Vel;
using VelHelper::MplsDecapHelper;
using ReturnCode = Mpls::LfibHwProgrammingReturnCode;

const MplsLabel someLabel( 16 );
const L3::VrfName red( "red" );

TEST( DecapHelper, whatAPlatformDoesNotImplementIsFatalUnlessThereIsNoHardware ) {
   const VelTest::AssertionsThrow assertionsThrow;
   const auto helper = make< MplsDecapHelper >( "none" );
   EXPECT_FALSE( helper->hasBackupSupport() );
   helper->doEndOfSync();
   using Answer = std::optional< ReturnCode >;
   const struct {
      const char* message;
      std::function< Answer() > call;
   } cases[] = {
      { "Unimplemented createLabelToVrfMapping",
        [&]() -> Answer { return helper->createLabelToVrfMapping( someLabel, red, {} ); } },
      { "Unimplemented deleteLabelToVrfMapping",
        [&]() -> Answer {
           return helper->deleteLabelToVrfMapping( someLabel, red, {} ), Answer();
        } },
      { "Unimplemented createLabelToVlanMapping",
        [&]() -> Answer { return helper->createLabelToVlanMapping( someLabel, 5, false ); } },
      { "Unimplemented delLabelToVlanMapping",
        [&]() -> Answer {
           return helper->deleteLabelToVlanMapping( someLabel, 5, false ), Answer();
        } },
      { "Unimplemented createLabelDot1qToVlanMapping",
        [&]() -> Answer {
           return helper->createLabelDot1qToVlanMapping( someLabel, 1, Bridging::VlanIdOrNone( 5 ),
                                                         false );
        } },
      { "Unimplemented deleteLabelDot1qToVlanMapping",
        [&]() -> Answer {
           return helper->deleteLabelDot1qToVlanMapping( someLabel, 1, false ), Answer();
        } },
      { "Unimplemented createDot1qMapping",
        [&]() -> Answer {
           EXPECT_EQ( helper->createDot1qMapping( nullptr ), Dot1qTagToVlanMapId() );
           return {};
        } },
      { "Unimplemented deleteDot1qMapping",
        [&]() -> Answer { return helper->deleteDot1qMapping( {} ), Answer(); } },
   };
   for ( const auto& each : cases ) {
      SCOPED_TRACE( each.message );
      try {
         each.call();
         ADD_FAILURE() << "nothing thrown";
      } catch ( const VelTest::AssertionThrown& thrown ) {
         EXPECT_EQ( thrown.condition, each.message );
      }
      ::setenv( "VEL_NOOP_AGENT", "1", 1 );
      EXPECT_EQ( each.call().value_or( ReturnCode::notSupported ), ReturnCode::notSupported );
      ::unsetenv( "VEL_NOOP_AGENT" );
   }
}

struct MapIds : ::testing::Test {
   Dot1qTagToVlanMapId idOf( U64 key ) {
      return helper->createDot1qMapping(
         make< Mpls::LfibDot1qTagToVlan >( Mpls::LfibDot1qTagToVlanKey( key ) ).get() );
   }
   Ptr< ManualClock > clock = make< ManualClock >();
   Ptr< Scheduler > scheduler = make< Scheduler >( clock );
   Ptr< VelHelper::MplsDecapHelperStub > helper =
      VelHelper::mplsDecapHelperStubFactory( "stub", make< TimerWheel >( scheduler ) );
};

TEST_F( MapIds, areOneAMapAndRestBeforeTheyComeAgain ) {
   std::set< U32 > ids;
   for ( U64 key = 1; key <= 255; ++key ) {
      ids.insert( idOf( key ).value() );
      EXPECT_EQ( idOf( key ), helper->dot1qMapId( Mpls::LfibDot1qTagToVlanKey( key ) ) );
   }
   EXPECT_EQ( ids.size(), 255U );
   EXPECT_EQ( std::pair( *ids.begin(), *ids.rbegin() ), std::pair( 1U, 255U ) );
   EXPECT_EQ( idOf( 256 ), Dot1qTagToVlanMapId() ) << "all are in use";
   EXPECT_EQ( helper->dot1qMapIds(), 255U );
   const Dot1qTagToVlanMapId freed = idOf( 7 );
   helper->deleteDot1qMapping( freed );
   helper->deleteDot1qMapping( freed ); // is not in use any more
   EXPECT_EQ( helper->dot1qMapIds(), 254U );
   EXPECT_EQ( helper->allocatedMapIds(), 254U );
   EXPECT_EQ( idOf( 256 ), Dot1qTagToVlanMapId() ) << "it rests";
   clock->advance( 10.1 );
   EXPECT_EQ( idOf( 256 ), freed );
}

TEST_F( MapIds, theStubWritesDownWhatItIsAsked ) {
   EXPECT_TRUE( helper->createLabelToVrfLabel().null() );
   for ( const U64 count : { 1U, 2U } ) {
      helper->createLabelToVrfRcIs( static_cast< ReturnCode >( count ) );
      EXPECT_EQ( helper->createLabelToVrfMapping( someLabel, red, Mpls::PayloadType::ipv4 ),
                 static_cast< ReturnCode >( count ) );
      helper->deleteLabelToVrfMapping( someLabel, red, Mpls::PayloadType::ipv6 );
      helper->createLabelToVlanMapping( someLabel, 5, true );
      helper->deleteLabelToVlanMapping( someLabel, 6, true );
      helper->createLabelDot1qToVlanMapping( someLabel, 1, Bridging::VlanIdOrNone( 7 ), true );
      helper->deleteLabelDot1qToVlanMapping( someLabel, 2, true );
      EXPECT_EQ( helper->createLabelToVrfCount() + helper->deleteLabelToVrfCount() +
                    helper->createLabelToVlanCount() + helper->deleteLabelToVlanCount() +
                    helper->createLabelDot1qToVlanCount() + helper->deleteLabelDot1qToVlanCount(),
                 6 * count );
   }
   const std::set< MplsLabel > labels{
      helper->createLabelToVrfLabel(),       helper->deleteLabelToVrfLabel(),
      helper->createLabelToVlanLabel(),      helper->deleteLabelToVlanLabel(),
      helper->createLabelDot1qToVlanLabel(), helper->deleteLabelDot1qToVlanLabel() };
   EXPECT_EQ( labels, std::set{ someLabel } );
   EXPECT_EQ( joinText( helper->createLabelToVrfVrfName(), helper->deleteLabelToVrfVrfName(),
                        helper->createLabelToVrfPayloadType(),
                        helper->deleteLabelToVrfPayloadType() ),
              "redredipv4ipv6" );
   EXPECT_EQ( helper->createLabelToVlanVlanId() * 10 + helper->deleteLabelToVlanVlanId(), 56 );
   EXPECT_EQ( helper->createLabelDot1qToVlanDot1qTag() * 10 +
                 helper->deleteLabelDot1qToVlanDot1qTag(),
              12 );
   EXPECT_EQ( helper->createLabelDot1qToVlanVlanId().vlanId(), 7 );
   EXPECT_TRUE( helper->createLabelToVlanFlood() && helper->deleteLabelToVlanFlood() &&
                helper->createLabelDot1qToVlanFlood() && helper->deleteLabelDot1qToVlanFlood() );
}

} // namespace
