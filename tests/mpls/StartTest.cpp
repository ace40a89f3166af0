// The start with non-stop forwarding: what may happen when, and what never.

#include <cstring>
#include <functional>

#include <gtest/gtest.h>

#include "platform/services/SystemLog.h"
#include "tests/AssertionsThrow.h"
#include "tests/LabelRig.h"

namespace Vel::Test {
namespace {

using VelTest::AssertionsThrow;
using VelTest::AssertionThrown;

TEST( RouteSyncMap, isFinalOnceItIsReady ) {
   const Ptr< VelHelper::MplsRouteSyncMap > map = VelHelper::mplsRouteSyncMapFactory();
   map->adjSyncIdIs( key( 16 ), 5 );
   map->readyIs( true );
   const AssertionsThrow throwing;
   EXPECT_THROW( map->adjSyncIdIs( key( 17 ), 6 ), AssertionThrown );
   EXPECT_THROW( map->adjSyncIdDel( key( 16 ) ), AssertionThrown );
   EXPECT_THROW( map->readyIs( false ), AssertionThrown );
   EXPECT_EQ( map->adjSyncId( key( 16 ) ), 5U );
}

TEST( InputStatus, isReadyWithBothFlagsAndForGood ) {
   const Ptr< VelHelper::MplsRouteSyncMap > map = VelHelper::mplsRouteSyncMapFactory();
   const Ptr< MplsSmInputSummary > summary = mplsSmInputSummaryFactory();
   const Ptr< MplsSmInputStatusSm > sm = mplsSmInputStatusSmFactory( map, summary );
   EXPECT_EQ( summary->status(), MplsSmInputStatus::mplsSmInputNotReady );
   sm->systemLfibReadyIs( true );
   EXPECT_EQ( summary->status(), MplsSmInputStatus::mplsSmInputNotReady );
   map->readyIs( true );
   EXPECT_EQ( summary->status(), MplsSmInputStatus::mplsSmInputReady );
   const AssertionsThrow throwing;
   EXPECT_THROW( sm->systemLfibReadyIs( false ), AssertionThrown );
}

TEST( StartupRecord, stagesOnlyMoveForward ) {
   const Ptr< ManualClock > clock = make< ManualClock >( 10.0 );
   const auto record = mplsSmStartupRecordFactory( "record", Ptr< const Clock >( clock ) );
   record->clearAndInitialize();
   clock->advance( 2 );
   record->updateMplsSmStartupRecord( MplsSmStartupStatus::mplsSmProcessingSyncMap );
   clock->advance( 3 );
   for ( const auto late : { MplsSmStartupStatus::mplsSmUninitialized,
                             MplsSmStartupStatus::mplsSmProcessingSyncMap } ) {
      record->updateMplsSmStartupRecord( late );
   }
   record->updateMplsSmStartupRecord( MplsSmStartupStatus::mplsSmNormal );
   EXPECT_EQ( record->timeTakens(), 2U );
   EXPECT_EQ( record->timeTaken( MplsSmStartupStatus::mplsSmUnknown ), 2.0 );
   EXPECT_EQ( record->timeTaken( MplsSmStartupStatus::mplsSmProcessingSyncMap ), 3.0 );
}

TEST( SyncDone, countsOnlyWhereItIsAwaited ) {
   LabelRig rig( { .withFecs = true, .lfibReady = false, .start = false } );
   rig.inputStatusSm->systemLfibReadyIs( true );
   rig.start();
   rig.settle();
   EXPECT_EQ( rig.sm->mplsSmStartupStatus(), MplsSmStartupStatus::mplsSmProcessingSyncMap );
   rig.startup->adjSyncDoneIs( true ); // too early: ignored
   EXPECT_EQ( rig.sm->mplsSmStartupStatus(), MplsSmStartupStatus::mplsSmProcessingSyncMap );
   rig.writer.readyIs( true );
   rig.settle();
   EXPECT_EQ( rig.sm->mplsSmStartupStatus(), MplsSmStartupStatus::mplsSmWaitingForSyncResponses );
   rig.startup->adjSyncDoneIs( false );
   EXPECT_EQ( rig.sm->mplsSmStartupStatus(), MplsSmStartupStatus::mplsSmWaitingForSyncResponses );
   rig.startup->adjSyncDoneIs( true );
   EXPECT_EQ( rig.sm->mplsSmStartupStatus(), MplsSmStartupStatus::mplsSmNormal );
   const AssertionsThrow throwing;
   EXPECT_THROW( rig.sm->handleInputStatusSummaryReady(), AssertionThrown );
}

// --- What the operator is told of a start that waits.

struct Lack {
   std::string named; ///< what the message says that it waits for; empty: it says nothing
   RigSettings settings{};
   std::function< void( LabelRig& ) > takeAway = []( LabelRig& ) {};
   std::function< void( LabelRig& ) > write = []( LabelRig& ) {};
   bool polled = true;
};

const std::string routing = "mplsRouting of Mpls::RoutingInfo";
const std::string number = "vrfStatus of Routing::Hardware::RouteStatus";

std::vector< Lack > lacks() {
   const auto routingDel = []( LabelRig& rig ) { rig.routingInfo->mplsRoutingDel( rig.vrf ); };
   const auto routingIs = []( LabelRig& rig ) { rig.routingInfo->mplsRoutingIs( rig.vrf, true ); };
   return {
      { .named = "" },
      { .named = "", .settings = { .vrfHasNumber = false, .mplsRouting = false } },
      { .named = routing, .takeAway = routingDel, .write = routingIs },
      { .named = number,
        .settings = { .vrfHasNumber = false },
        .write = []( LabelRig& rig ) { rig.vrfNumberIs(); } },
      { .named = routing + ", " + number,
        .settings = { .vrfHasNumber = false },
        .takeAway = routingDel,
        .write =
           [=]( LabelRig& rig ) {
              rig.vrfNumberIs();
              routingIs( rig );
           } },
      { .named = "vrfStatus of MplsHwStatus, from the driver",
        .settings = { .withHardware = false },
        .write = []( LabelRig& rig ) { rig.status(); } },
      { .named = "the region of Mpls::LfibStatus, from the publisher: the magic number is not "
                 "there: no LFIB, or one that is being laid out",
        .takeAway = []( LabelRig& rig ) { std::memset( rig.memory.data(), 0, sizeof( U64 ) ); },
        .write =
           []( LabelRig& rig ) {
              Mpls::LfibWriter( rig.memory, {} ).routeIs( { key( 16 ), viaSetKey( 1 ), 0 } );
           } },
      { .named = "the first poll of Mpls::LfibStatus", .polled = false },
      { .named = "systemLfibReady of MplsSmInputStatusSm",
        .settings = { .withFecs = true, .lfibReady = false },
        .write =
           []( LabelRig& rig ) {
              rig.writer.readyIs( true );
              rig.inputStatusSm->systemLfibReadyIs( true );
           } },
      { .named = "ready of Mpls::LfibStatus, from the publisher",
        .settings = { .withFecs = true, .lfibReady = false },
        .takeAway = []( LabelRig& rig ) { rig.inputStatusSm->systemLfibReadyIs( true ); },
        .write = []( LabelRig& rig ) { rig.writer.readyIs( true ); } },
      { .named = "adjSyncDone of L3StartupStagePrerequisitesStatus, from the hardware layer",
        .settings = { .hardware = { .serviceTimeSeconds = 30 }, .withFecs = true } },
   };
}

TEST( StartThatWaits, saysWhatForOnceAndThatItGoesOn ) {
   for ( Lack& lack : lacks() ) {
      SCOPED_TRACE( lack.named );
      lack.settings.start = false;
      LabelRig rig( lack.settings );
      std::vector< std::string > said;
      systemLogClockIs( rig.clock );
      systemLogSinkIs( [&said]( const SystemLogMessage& message ) {
         said.push_back( joinText( message.name, " ", message.format ) );
      } );
      rig.routeIs( 16, 1 );
      lack.takeAway( rig );
      rig.start();
      const auto pass = [&]( double seconds ) {
         lack.polled ? rig.settle( seconds )
                     : void( runUntilIdle( *rig.scheduler, *rig.clock, rig.clock->now() + seconds,
                                           1U << 20 ) );
      };
      pass( 4 );
      EXPECT_TRUE( said.empty() ) << "it may still come";
      pass( 10 );
      std::vector< std::string > expected;
      if ( !lack.named.empty() ) {
         expected.push_back( joinText( "ROUTING_MPLS_START_WAITS Label forwarding has not "
                                       "started. It waits for ",
                                       lack.named, "." ) );
      }
      EXPECT_EQ( said, expected );
      lack.write( rig );
      rig.settle( 100 );
      if ( !lack.named.empty() ) {
         expected.emplace_back( "ROUTING_MPLS_START_GOES_ON All that the start of label forwarding "
                                "waited for has been written." );
      }
      EXPECT_EQ( said, expected );
      systemLogSinkIs( {} );
      systemLogClockIs( nullptr );
   }
}

} // namespace
} // namespace Vel::Test
