// The start with non-stop forwarding: what may happen when, and what never.

#include <gtest/gtest.h>

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

} // namespace
} // namespace Vel::Test
