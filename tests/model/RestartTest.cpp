// Kill and restart at every point.
//
// The agent is stopped at each event boundary of a start and of a churn, and started again on the
// surviving hardware with another label table. From then on, at every event boundary, each label
// that forwarded as both tables say goes on doing so. In the end the hardware is what a fresh start
// on the new table would have made of it, and nothing else is in it.

#include <algorithm>

#include "platform/services/SystemLog.h"
#include "tests/model/RestartRig.h"

namespace Vel::Test {
namespace {

TEST_F( Restart, atEveryPointOfAStartAndOfAChange ) {
   for ( int round = 0; round < 50 && !HasFailure(); ++round ) {
      SCOPED_TRACE( joinText( "round ", round ) );
      const Table first = randomTable();
      const Table second = changed( first );
      const Table third = changed( second );
      // What each boundary leaves behind, of a start and then of a change; while the change is
      // under way a label may be at either.
      std::vector< Driver::HwState > left;
      RestartRig rig( {} );
      rig.tableIs( first );
      rig.rig.start();
      rig.run( [&] { left.push_back( rig.rig.hardware->state() ); } );
      const size_t ofStart = left.size();
      rig.tableIs( second );
      rig.run( [&] { left.push_back( rig.rig.hardware->state() ); } );
      for ( size_t point = 0; point < left.size() && !HasFailure(); ++point ) {
         SCOPED_TRACE( joinText( "killed at ", point, " of ", left.size() ) );
         restart( left[point], point < ofStart ? first : second, third );
      }
   }
   EXPECT_GT( points_, 2000 );
}

// The LFIB changes at each boundary of the restart itself. No label is dark that all three tables
// have, and one that is the same in all of them never leaves its way.
TEST_F( Restart, whileTheLfibChanges ) {
   int points = 0;
   for ( int round = 0; round < 12 && !HasFailure(); ++round ) {
      const Table first = randomTable();
      const Table second = changed( first );
      const Table third = changed( second );
      const Driver::HwState left = programmed( first );
      bool reached = true;
      for ( int point = 0; reached && !HasFailure(); ++point, ++points ) {
         SCOPED_TRACE( joinText( "round ", round, " point ", point ) );
         RestartRig next( left );
         next.tableIs( second );
         next.rig.start();
         int at = 0;
         next.run( [&] {
            if ( at++ == point ) {
               next.tableIs( third );
            }
            for ( const auto& [label, ways] : third ) {
               if ( first.contains( label ) && second.contains( label ) ) {
                  const std::string got = next.forward( label );
                  const Ways& was = first.at( label );
                  ASSERT_TRUE( got == wayOf( ways ) || got == wayOf( second.at( label ) ) ||
                               got == wayOf( was ) )
                     << "label " << label << " leaves by '" << got << "'";
               }
            }
         } );
         reached = at > point;
         if ( reached ) {
            expectAsFresh( next, third );
         }
      }
   }
   EXPECT_GT( points, 200 );
}

// However slow hardware is, and however short the slices are.
TEST_F( Restart, neverSwitchesForwardingOff ) {
   const Table table = tableOf( "16:1/100+2 17:3/101" );
   const Driver::HwState left = programmed( table );
   for ( const U32 queries : { 1U, 2U, 5U } ) {
      for ( const double serviceTime : { 0.0, 0.01 } ) {
         RestartRig next( left, { .hardware = { .serviceTimeSeconds = serviceTime } } );
         next.rig.scheduler->maxQueriesPerRunIs( queries );
         next.tableIs( table );
         next.rig.start();
         next.run( [&] { ASSERT_EQ( next.forward( 16 ), "1/100" ) << queries; } );
      }
   }
}

// The FEC that a label was in stays its own, whoever joins it.
TEST_F( Restart, leavesALabelThatOthersJoin ) {
   RestartRig next( programmed( tableOf( "16:1/100 17:2/100 18:2/100" ) ) );
   next.tableIs( tableOf( "16:1/100 17:1/100 18:1/100" ) );
   next.rig.start();
   next.run( [] {} );
   EXPECT_EQ( next.rig.hardware->status()->routesAdopted(), 1U );
   EXPECT_EQ( next.rig.hardware->status()->routesChanged(), 2U );
}

// What was taken over is not rewritten under a label that is to keep it.
TEST_F( Restart, leavesAHeldLabelWhereItIs ) {
   const auto publish = []( LabelRig& rig, U32 via, U32 link ) {
      rig.viaSetIs( 1, { swapVia( via, joinText( "10.0.", link, ".2" ), link, 100 ) } );
      rig.routeIs( 16, 1 );
   };
   RestartRig rig( {} );
   publish( rig.rig, 1, 1 );
   rig.rig.routeIs( 17, 1 );
   rig.rig.start();
   rig.run( [] {} );
   RestartRig next( rig.rig.hardware->state() );
   publish( next.rig, 1, 1 );
   next.rig.start();
   next.rig.sm->maxStaleShareIs( 0.1 );
   next.run( [] {} );
   ASSERT_TRUE( next.rig.sm->staleSweepHeld() );
   publish( next.rig, 2, 3 );
   next.run( [&] { ASSERT_EQ( next.forward( 17 ), "1/100" ); } );
   EXPECT_EQ( next.forward( 16 ), "3/100" );
   next.rig.sm->approveStaleSweep();
   next.run( [] {} );
   EXPECT_EQ( next.forward( 17 ), "" );
   EXPECT_EQ( next.rig.hardware->state().fecs.size(), 1U );
}

// A recovered route that goes while the VRF has lost its name goes with the name's return.
TEST_F( Restart, dropsWhatGoesWhileTheNameIsLost ) {
   RestartRig next( programmed( tableOf( "16:1/100" ) ) );
   next.rig.routeIs( 16, 99 ); // its via set is still to come
   next.rig.start();
   next.run( [] {} );
   ASSERT_EQ( next.rig.sm->mplsSmStartupStatus(), MplsSmStartupStatus::mplsSmNormal );
   EXPECT_EQ( next.forward( 16 ), "1/100" );
   next.rig.l3Status->vrfNameDel( LabelRig::vrfId );
   next.rig.routeDel( 16 );
   next.run( [] {} );
   next.rig.vrfNumberIs();
   next.run( [] {} );
   EXPECT_EQ( next.rig.hardware->routes(), 0U );
   EXPECT_EQ( next.rig.hardware->state().fecs.size(), 0U );
}

// What is left at any time is something that can be started on, also when a FEC of others has gone.
TEST_F( Restart, startsOnWhateverIsLeft ) {
   const Fib::FecId group = Fib::FecId::fecIdForAdjType( Fib::AdjType::nexthopGroupAdj, 5 );
   Mpls::LfibMplsVia into = swapVia( 1, "", 0, 0 );
   into.intf = Fib::FecId::fecIdToNexthopGroupIntfId( group );
   into.labelAction = MplsLabelAction::pop;
   into.labelStack = {};
   into.payloadType = Mpls::PayloadType::ipv4;
   Fib::FecVia out;
   out.nextHop = ip( "10.0.1.2" );
   out.intf = IntfId::ordinary( 1 );
   out.labelAction = MplsLabelAction::push;
   out.labelStack = { 300 };
   RestartRig rig( {} );
   rig.rig.viaSetIs( 1, { into } );
   rig.rig.routeIs( 16, 1 );
   rig.rig.hardware->fecUnit()->foreignFecIs( group, { out } );
   rig.rig.start();
   rig.run( [] {} );
   ASSERT_NE( rig.forward( 16 ), "" );
   rig.rig.hardware->fecUnit()->foreignFecDel( group );
   rig.run( [&] {
      const Driver::HwState left = rig.rig.hardware->state();
      for ( const Driver::HwState::Route& route : left.routes ) {
         ASSERT_TRUE( std::ranges::any_of(
            left.fecs, [&]( const auto& fec ) { return fec.hwId == route.hwId; } ) );
      }
   } );
}

// A recovered route that hardware refuses to move is out of it, and counted once it is written.
TEST_F( Restart, countsARefusedRouteWhenItIsWritten ) {
   RestartRig next( programmed( tableOf( "16:1/100" ) ) );
   next.rig.hardware->refuseIs( []( const Driver::Operation& operation ) {
      return operation.kind == Driver::OperationKind::routeWritten ? UnprogrammedReason::RouteFull
                                                                   : UnprogrammedReason::Success;
   } );
   next.tableIs( tableOf( "16:2/100" ) );
   next.rig.start();
   next.run( [] {} );
   EXPECT_EQ( next.forward( 16 ), "" );
   EXPECT_EQ( next.rig.hardware->status()->routesChanged(), 0U );
   next.rig.hardware->refuseIs( {} );
   next.rig.settle( 20.0 );
   EXPECT_EQ( next.forward( 16 ), "2/100" );
   EXPECT_EQ( next.rig.hardware->status()->routesChanged(), 1U );
}

TEST_F( Restart, onTheSameTableTouchesNothing ) {
   const Table table = randomTable();
   RestartRig rig( {} );
   rig.tableIs( table );
   rig.rig.start();
   rig.run( [] {} );
   const Driver::HwState left = rig.rig.hardware->state();
   RestartRig next( left );
   next.tableIs( table );
   next.rig.start();
   next.run( [] {} );
   EXPECT_EQ( next.rig.hardware->status()->routesAdopted(), table.size() );
   EXPECT_EQ( next.rig.hardware->status()->routesChanged(), 0U );
   EXPECT_EQ( next.rig.hardware->status()->fecsAdopted(), left.fecs.size() );
}

// Inputs that come late, or never: hardware goes on as it was.
TEST_F( Restart, waitsForWhatItNeeds ) {
   const Table table{ { 16, { 1, 100, 2 } }, { 17, { 3, 101, 0 } } };
   RestartRig rig( {} );
   rig.tableIs( table );
   rig.rig.start();
   rig.run( [] {} );
   RestartRig next( rig.rig.hardware->state(), { .lfibReady = false } );
   const auto forwarding = [&] {
      ASSERT_EQ( next.forward( 16 ), "1/100" );
      ASSERT_EQ( next.forward( 17 ), "3/101" );
   };
   next.rig.start();
   next.run( forwarding );
   EXPECT_EQ( next.rig.sm->mplsSmStartupStatus(), MplsSmStartupStatus::mplsSmUninitialized );
   next.rig.inputStatusSm->systemLfibReadyIs( true ); // the LFIB itself is still empty
   next.run( forwarding );
   EXPECT_EQ( next.rig.sm->mplsSmStartupStatus(), MplsSmStartupStatus::mplsSmProcessingSyncMap );
   EXPECT_EQ( next.rig.sm->staleRecoveredRoutes(), 2U );
   next.tableIs( { { 16, { 1, 100, 2 } } } );
   next.run( forwarding );
   EXPECT_EQ( next.rig.sm->staleRecoveredRoutes(), 1U );
   next.rig.writer.readyIs( true );
   next.run( [] {} );
   EXPECT_EQ( next.rig.sm->mplsSmStartupStatus(), MplsSmStartupStatus::mplsSmNormal );
   EXPECT_EQ( next.forward( 16 ), "1/100" );
   EXPECT_EQ( next.forward( 17 ), "" );
   EXPECT_EQ( next.rig.sm->mplsSmStartupRecord()->timeTakens(), 4U );
}

TEST_F( Restart, takesItsInputsInEveryOrder ) {
   const Table table{ { 16, { 1, 100, 2 } }, { 17, { 3, 101, 0 } } };
   const Table now{ { 16, { 1, 100, 2 } }, { 18, { 4, 101, 0 } } };
   RestartRig rig( {} );
   rig.tableIs( table );
   rig.rig.start();
   rig.run( [] {} );
   const Driver::HwState left = rig.rig.hardware->state();
   std::vector< int > order{ 0, 1, 2, 3 };
   do {
      if ( std::ranges::find( order, 3 ) < std::ranges::find( order, 2 ) ) {
         continue; // an LFIB that calls itself whole without its routes has lost them
      }
      SCOPED_TRACE( joinText( order[0], order[1], order[2], order[3] ) );
      RestartRig next( left, { .lfibReady = false } );
      bool started = false;
      for ( const int input : order ) {
         switch ( input ) {
         case 0:
            next.rig.start();
            started = true;
            break;
         case 1:
            next.rig.inputStatusSm->systemLfibReadyIs( true );
            break;
         case 2:
            next.tableIs( now );
            break;
         default:
            next.rig.writer.readyIs( true );
            break;
         }
         if ( started ) {
            next.run( [&] { ASSERT_EQ( next.forward( 16 ), "1/100" ); } );
         }
      }
      EXPECT_EQ( next.rig.sm->mplsSmStartupStatus(), MplsSmStartupStatus::mplsSmNormal );
      expectAsFresh( next, now );
   } while ( std::ranges::next_permutation( order ).found );
}

// What was in hardware and cannot be programmed any more goes, whichever way it became so.
TEST_F( Restart, leavesNothingOfWhatItCannotWrite ) {
   Table table;
   for ( const U32 label : { 16U, 17U, 18U, 19U } ) {
      table[label] = { 1 + label % links, 100, 0 };
   }
   RestartRig rig( {} );
   rig.tableIs( table );
   rig.rig.start();
   rig.run( [] {} );
   RestartRig next( rig.rig.hardware->state() );
   next.tableIs( table );
   Mpls::LfibMplsVia twoLabels = swapVia( 90, "10.0.1.2", 1, 0 );
   twoLabels.labelStack = { 100, 101 };
   next.rig.viaSetIs( 90, { twoLabels } );
   next.rig.routeIs( 16, 90 );
   next.rig.routeIs( key( 17 ), viaSetKey( 1, Mpls::viaTypeVlan ) );
   next.rig.start();
   next.rig.lfib->poll( 1U << 20 );
   next.rig.routeDel( 18 ); // after it was taken in, before it is written
   next.run( [&] { ASSERT_EQ( next.forward( 19 ), wayOf( table[19] ) ); } );
   EXPECT_EQ( next.rig.hardware->routes(), 1U );
   EXPECT_EQ( next.rig.hardware->state().fecs.size(), 1U );
   EXPECT_EQ( next.rig.hardware->status()->routesStale(), 3U );
   EXPECT_EQ( next.rig.sm->recoveredRoutes(), 0U );
}

// The sweep is hardware's to carry out, which knows a VRF by its number.
TEST_F( Restart, sweepsOnceTheVrfHasItsNumber ) {
   RestartRig rig( {} );
   rig.tableIs( { { 16, { 1, 100, 0 } }, { 17, { 2, 100, 0 } } } );
   rig.rig.start();
   rig.run( [] {} );
   RestartRig next( rig.rig.hardware->state(), { .vrfHasNumber = false } );
   next.tableIs( { { 16, { 1, 100, 0 } } } );
   next.rig.start();
   next.run( [&] { ASSERT_EQ( next.forward( 17 ), "2/100" ); } );
   EXPECT_EQ( next.rig.sm->mplsSmStartupStatus(),
              MplsSmStartupStatus::mplsSmWaitingForSyncResponses );
   next.tableIs( tableOf( "18:3/100" ) ); // one more goes, and one comes
   next.run( [&] { ASSERT_EQ( next.forward( 16 ), "1/100" ); } );
   next.rig.vrfNumberIs();
   next.run( [] {} );
   EXPECT_EQ( next.rig.sm->mplsSmStartupStatus(), MplsSmStartupStatus::mplsSmNormal );
   expectAsFresh( next, tableOf( "18:3/100" ) );
   EXPECT_EQ( next.rig.hardware->status()->routesStale(), 2U );

   next.rig.l3Status->vrfNameDel( LabelRig::vrfId ); // a name that is lost takes nothing with it
   next.tableIs( {} );
   next.run( [] {} );
   EXPECT_EQ( next.rig.hardware->routes(), 0U );
}

TEST_F( Restart, doesNotDropMoreThanItMay ) {
   const Table table{ { 16, { 1, 100, 0 } }, { 17, { 2, 100, 0 } }, { 18, { 3, 100, 0 } } };
   RestartRig rig( {} );
   rig.tableIs( table );
   rig.rig.start();
   rig.run( [] {} );
   const Driver::HwState left = rig.rig.hardware->state();
   const auto startWith = [&]( RestartRig& next, const Table& now, double maxStaleShare ) {
      next.tableIs( now );
      next.rig.start();
      next.rig.sm->maxStaleShareIs( maxStaleShare );
      next.run( [] {} );
   };
   std::vector< std::string > logged;
   systemLogClockIs( make< ManualClock >() ); // whatever was logged before
   systemLogSinkIs( [&]( const SystemLogMessage& message ) {
      logged.push_back( std::string( message.format ) );
   } );
   RestartRig held( left );
   startWith( held, { { 16, { 1, 100, 0 } } }, 0.2 );
   EXPECT_TRUE( held.rig.sm->staleSweepHeld() );
   EXPECT_EQ( held.forward( 18 ), "3/100" );
   ASSERT_FALSE( logged.empty() );
   EXPECT_EQ( logged.back().substr( 0, 7 ), "2 of 3 " );
   held.tableIs( { { 16, { 4, 101, 0 } }, { 17, { 2, 100, 0 } } } ); // life goes on
   held.run( [] {} );
   EXPECT_EQ( held.forward( 16 ), "4/101" );
   EXPECT_EQ( held.rig.sm->staleRecoveredRoutes(), 1U );
   held.rig.sm->approveStaleSweep();
   held.run( [] {} );
   EXPECT_EQ( held.forward( 18 ), "" );
   EXPECT_EQ( held.rig.sm->mplsSmStartupStatus(), MplsSmStartupStatus::mplsSmNormal );

   RestartRig back( left ); // what was missing comes after all
   startWith( back, {}, 0.5 );
   EXPECT_TRUE( back.rig.sm->staleSweepHeld() );
   back.tableIs( table );
   back.run( [&] { ASSERT_EQ( back.forward( 18 ), "3/100" ); } );
   EXPECT_EQ( back.rig.sm->mplsSmStartupStatus(), MplsSmStartupStatus::mplsSmNormal );
   EXPECT_EQ( back.rig.hardware->status()->routesStale(), 0U );
   EXPECT_EQ( back.rig.hardware->status()->routesAdopted(), 3U );
   systemLogSinkIs( {} );
   systemLogClockIs( nullptr );
}

} // namespace
} // namespace Vel::Test
