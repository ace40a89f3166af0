// A restart on hardware that is full: what has changed fits in as it did before, and what has not
// is left alone.

#include "tests/model/RestartRig.h"

namespace Vel::Test {
namespace {

class RestartRoom : public Restart {
 protected:
   /// Starts again in hardware that has room for what it holds, and no more.
   static RigSettings full( const Driver::HwState& left ) {
      return { .hardware = { .fecCapacity = left.fecs.size() } };
   }
};

TEST_F( RestartRoom, isMadeForWhatHasChanged ) {
   const struct {
      const char* name;
      Table before;
      Table now;
      size_t changed;
   } cases[] = {
      { "another way and another backup", tableOf( "16:1/100+2 17:1/100+2 18:3/101 19:3/101" ),
        tableOf( "16:2/100+1 17:2/100+1 18:3/101 19:3/101" ), 2 },
      { "one route of an old FEC is gone", tableOf( "16:1/100+2 18:3/101 19:3/101 20:4/101" ),
        tableOf( "16:1/100+2 19:2/101 20:4/101" ), 1 },
      { "into the FEC of others", tableOf( "16:1/100+2 18:3/101 19:3/101 20:4/101" ),
        tableOf( "16:1/100+2 18:2/101 19:2/101 20:2/101" ), 3 },
      { "everything", tableOf( "16:1/100+2 17:3/101 18:4/101" ),
        tableOf( "16:3/100 17:4/100+1 18:2/100" ), 3 },
      { "no two routes stay together", tableOf( "16:1/100 17:1/100 18:2/100 19:2/100 20:3/101" ),
        tableOf( "16:3/100 17:4/100 18:3/100 19:4/100 20:3/101" ), 4 },
      { "the backup of another", tableOf( "16:1/100+2 18:1/100+2 17:2/100" ),
        tableOf( "16:1/100+3 18:3/101 17:4/101" ), 3 },
   };
   for ( const auto& one : cases ) {
      SCOPED_TRACE( one.name );
      const Table& before = one.before;
      const Table& now = one.now;
      const Driver::HwState left = programmed( before );
      RigSettings settings = full( left );
      settings.hardware.fecCapacity = std::max( left.fecs.size(), programmed( now ).fecs.size() );
      RestartRig next( left, settings );
      next.tableIs( now );
      next.rig.start();
      next.run( [&] {
         for ( const auto& [label, ways] : now ) {
            if ( before.at( label ) == ways ) {
               ASSERT_EQ( next.forward( label ), wayOf( ways ) );
            }
         }
      } );
      expectAsFresh( next, now );
      EXPECT_EQ( next.rig.hardware->status()->routesChanged(), one.changed );
      EXPECT_EQ( next.rig.fecRequest->mayReplaces(), 0U );
   }
}

// What cannot be decided when the sync is over is decided when it can be.
TEST_F( RestartRoom, isMadeLaterToo ) {
   const Driver::HwState left = programmed( tableOf( "16:1/100 17:1/100 18:3/100" ) );
   Driver::FaultPlan notReady;
   ASSERT_FALSE( notReady.parse( "not-ready eth until 1; not-ready eth until 2",
                                 []( std::string_view ) { return IntfId::ordinary( 2 ); } ) );
   RigSettings settings = full( left );
   settings.hardware.faults = notReady;
   RestartRig next( left, settings );
   next.tableIs( tableOf( "16:2/100 17:2/101 18:3/100" ) );
   next.rig.start();
   next.run( [&] { ASSERT_EQ( next.forward( 18 ), "3/100" ); } );
   next.tableIs( tableOf( "16:2/100 18:3/100" ) );
   next.run( [&] { ASSERT_EQ( next.forward( 18 ), "3/100" ); } );
   EXPECT_EQ( next.forward( 16 ), "2/100" );
   EXPECT_EQ( next.forward( 17 ), "" );
}

// A FEC of before that still protects what has not changed is nobody else's to rewrite, also while
// the via set of what it protects is still to come.
TEST_F( RestartRoom, isNotMadeOfAProtectionInUse ) {
   const auto publish = []( LabelRig& rig, bool whole ) {
      const Mpls::LfibMplsVia first = swapVia( 1, "10.0.1.2", 1, 100 );
      rig.viaSetIs( 2, { swapVia( 2, "10.0.2.2", 2, 100 ) } );
      rig.viaSetIs( 4, { swapVia( 4, "10.0.4.2", 4, 101 ) } );
      rig.routeIs( 16, 1 );
      if ( whole ) {
         rig.writer.mplsViaIs( first );
         Mpls::LfibViaSet viaSet( viaSetKey( 1 ) );
         viaSet.viaKeyAdd( first.key );
         viaSet.backupViaSetKeyIs( viaSetKey( 2 ) );
         rig.writer.viaSetIs( viaSet );
      }
   };
   RestartRig rig( {} );
   publish( rig.rig, true );
   rig.rig.routeIs( 17, 2 );
   rig.rig.start();
   rig.run( [] {} );
   const Driver::HwState left = rig.rig.hardware->state();
   ASSERT_EQ( left.fecs.size(), 2U );
   RestartRig next( left, full( left ) );
   publish( next.rig, false );
   next.rig.routeIs( 17, 4 );
   next.rig.start();
   next.run( [&] { ASSERT_EQ( next.forward( 16 ), "1/100" ); } );
   next.rig.hardware->linkIs( IntfId::ordinary( 1 ), false );
   EXPECT_EQ( next.forward( 16 ), "2/100" );
   publish( next.rig, true );
   next.run( [&] { ASSERT_EQ( next.forward( 16 ), "2/100" ); } );
   EXPECT_FALSE( next.rig.route( 16 )->unprogrammed() );
}

// Where not all of it would fit, nothing that forwards is given up for it.
TEST_F( RestartRoom, isNotMadeInVain ) {
   const Table before = tableOf( "16:1/100+2 18:1/100+2 17:2/100" );
   const Driver::HwState left = programmed( before );
   RestartRig next( left, full( left ) );
   next.tableIs( tableOf( "16:1/100+3 18:3/101 17:4/101" ) );
   next.rig.start();
   next.run( [&] { ASSERT_EQ( next.forward( 16 ), "1/100" ); } );
}

TEST_F( RestartRoom, isNotMadeInVainWhileTheSweepIsHeld ) {
   const Driver::HwState left = programmed( tableOf( "16:1/100 17:1/100 18:2/100" ) );
   RestartRig next( left, full( left ) );
   next.tableIs( tableOf( "16:3/100 17:4/100" ) );
   next.rig.start();
   next.rig.sm->maxStaleShareIs( 0.1 );
   next.run( [&] {
      for ( const U32 label : { 16U, 17U, 18U } ) {
         ASSERT_NE( next.forward( label ), "" ) << label;
      }
   } );
   ASSERT_TRUE( next.rig.sm->staleSweepHeld() );
   next.rig.sm->approveStaleSweep();
   next.run( [] {} );
   expectAsFresh( next, tableOf( "16:3/100 17:4/100" ) );
}

TEST_F( RestartRoom, isNotNeededForWhatComesBack ) {
   const Table table = tableOf( "16:1/100+2 17:3/100" );
   for ( const bool isFull : { false, true } ) {
      SCOPED_TRACE( isFull );
      const Driver::HwState left = programmed( table );
      RestartRig next( left, isFull ? full( left ) : RigSettings{} );
      next.rig.start();
      next.rig.sm->maxStaleShareIs( 0.5 );
      next.run( [] {} );
      ASSERT_TRUE( next.rig.sm->staleSweepHeld() );
      next.tableIs( table );
      next.run( [&] { ASSERT_EQ( next.forward( 16 ), "1/100" ); } );
      EXPECT_EQ( next.rig.sm->mplsSmStartupStatus(), MplsSmStartupStatus::mplsSmNormal );
      EXPECT_EQ( next.rig.hardware->status()->routesAdopted(), 2U );
      EXPECT_FALSE( next.rig.route( 16 )->unprogrammed() );
   }
}

} // namespace
} // namespace Vel::Test
