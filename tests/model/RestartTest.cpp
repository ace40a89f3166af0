// Kill and restart at every point.
//
// The agent is stopped at each event boundary of a start and of a churn, and started again on the
// surviving hardware with another label table. From then on, at every event boundary, each label
// that forwarded as both tables say goes on doing so. In the end the hardware is what a fresh start
// on the new table would have made of it, and nothing else is in it.

#include <gtest/gtest.h>

#include <algorithm>
#include <functional>
#include <map>
#include <random>

#include "platform/SystemLog.h"
#include "tests/LabelRig.h"
#include "tests/Seed.h"

namespace Vel::Test {
namespace {

constexpr U32 links = 4;
constexpr U32 labels = 10;
constexpr U32 firstLabel = 16;

/// A via set: one way out, and one that protects it.
struct Ways {
   U32 link = 1;
   U32 outLabel = 100;
   U32 backupLink = 0; ///< 0: no backup
   friend auto operator<=>( const Ways&, const Ways& ) = default;
};
using Table = std::map< U32, Ways >; // by label

/// A rig that publishes tables, each distinct via set once.
class RestartRig {
 public:
   explicit RestartRig( const Driver::HwState& hardware, RigSettings settings = {} )
      : rig( settingsFor( hardware, std::move( settings ) ) ) {
      rig.scheduler->maxQueriesPerRunIs( 3 ); // many event boundaries
      for ( U32 link = 1; link <= links; ++link ) {
         rig.l3.neighborIs( joinText( "10.0.", link, ".2" ), link, 0x020000000000 + link );
      }
   }

   void tableIs( const Table& table ) {
      for ( U32 label = firstLabel; label < firstLabel + labels; ++label ) {
         if ( table.contains( label ) ) {
            rig.routeIs( label, viaSetOf( table.at( label ) ) );
         } else {
            rig.routeDel( label );
         }
      }
   }

   /// Runs until settled; `check` is asked at every event boundary.
   void run( const std::function< void() >& check ) {
      const double until = rig.clock->now() + 3;
      while ( true ) {
         check();
         if ( rig.lfib->pollPending() && rig.sm && rig.sm->initialized() ) {
            rig.lfib->poll( 2 );
         } else if ( !rig.scheduler->runOne() ) {
            if ( rig.scheduler->nextExpiry() > until ) {
               return;
            }
            rig.clock->nowIs( rig.scheduler->nextExpiry() );
         }
      }
   }

   /// "link/label" where a frame with the label leaves, or nothing.
   std::string forward( U32 label ) {
      const Driver::ForwardResult result =
         rig.hardware->forward( LabelRig::vrfId, frameOf( label ) );
      if ( result.frames.empty() ) {
         return "";
      }
      const Driver::Bytes& out = result.frames[0].bytes;
      return joinText( result.frames[0].intf.payload(), "/",
                       static_cast< U32 >( out[14] << 12 | out[15] << 4 | out[16] >> 4 ) );
   }

   LabelRig rig;

 private:
   static RigSettings settingsFor( const Driver::HwState& hardware, RigSettings settings ) {
      settings.withFecs = true;
      settings.recovered = hardware;
      settings.start = false;
      return settings;
   }
   U32 viaSetOf( const Ways& ways ) {
      const auto [at, made] =
         viaSets_.try_emplace( ways, static_cast< U32 >( viaSets_.size() + 1 ) );
      if ( made ) {
         Mpls::LfibViaSet viaSet( viaSetKey( at->second ) );
         const Mpls::LfibMplsVia via =
            swapVia( at->second, joinText( "10.0.", ways.link, ".2" ), ways.link, ways.outLabel );
         rig.writer.mplsViaIs( via );
         viaSet.viaKeyAdd( via.key );
         if ( ways.backupLink != 0 ) {
            viaSet.backupViaSetKeyIs(
               viaSetKey( viaSetOf( { ways.backupLink, ways.outLabel, 0 } ) ) );
         }
         rig.writer.viaSetIs( viaSet );
      }
      return at->second;
   }

   std::map< Ways, U32 > viaSets_;
};

std::string wayOf( const Ways& ways ) {
   return joinText( ways.link, "/", ways.outLabel );
}

class Restart : public testing::Test {
 protected:
   U32 below( U32 limit ) { return static_cast< U32 >( random_() % limit ); }

   Table randomTable() {
      Table table;
      for ( U32 label = firstLabel; label < firstLabel + labels; ++label ) {
         if ( below( 5 ) != 0 ) {
            table[label] = randomWays();
         }
      }
      return table;
   }
   Ways randomWays() {
      Ways ways{ 1 + below( links ), 100 + below( 2 ), below( 2 ) ? 1 + below( links ) : 0 };
      if ( ways.backupLink == ways.link ) {
         ways.backupLink = 0;
      }
      return ways;
   }
   /// Most routes stay, some change, come or go.
   Table changed( Table table ) {
      for ( U32 label = firstLabel; label < firstLabel + labels; ++label ) {
         switch ( below( 6 ) ) {
         case 0:
            table.erase( label );
            break;
         case 1:
            table[label] = randomWays();
            break;
         default:
            break;
         }
      }
      return table;
   }

   /// Restarts on what is left and holds everything to account.
   void restart( const Driver::HwState& left, const Table& before, const Table& now ) {
      RestartRig next( left );
      std::map< U32, std::string > unchanged;
      for ( const auto& [label, ways] : now ) {
         const auto was = before.find( label );
         if ( was != before.end() && was->second == ways &&
              next.forward( label ) == wayOf( ways ) ) {
            unchanged[label] = wayOf( ways );
         }
      }
      const auto check = [&] {
         for ( const auto& [label, way] : unchanged ) {
            ASSERT_EQ( next.forward( label ), way ) << "label " << label;
         }
      };
      next.tableIs( now );
      next.rig.start();
      next.run( check );
      ASSERT_EQ( next.rig.sm->mplsSmStartupStatus(), MplsSmStartupStatus::mplsSmNormal );
      expectAsFresh( next, now );
      const Driver::SwitchStatus& status = *next.rig.hardware->status();
      EXPECT_EQ( status.routesAdopted() + status.routesChanged() + status.routesStale(),
                 left.routes.size() );
      EXPECT_EQ( next.rig.fecRequest->adjSyncIdMaps(), 0U );
      EXPECT_EQ( next.rig.sm->staleRecoveredRoutes(), 0U );
      ++points_;
   }

   static void expectAsFresh( RestartRig& rig, const Table& now ) {
      for ( U32 label = firstLabel; label < firstLabel + labels; ++label ) {
         EXPECT_EQ( rig.forward( label ), now.contains( label ) ? wayOf( now.at( label ) ) : "" )
            << "label " << label;
      }
      std::set< Ways > sets;
      for ( const auto& [label, ways] : now ) {
         sets.insert( ways );
         if ( ways.backupLink != 0 ) {
            sets.insert( { ways.backupLink, ways.outLabel, 0 } );
         }
      }
      EXPECT_EQ( rig.rig.hardware->routes(), now.size() );
      EXPECT_EQ( rig.rig.hardware->state().fecs.size(), sets.size() ); // and no FEC of before
   }

   std::mt19937_64 random_{ VelTest::testSeed() };
   int points_ = 0;
};

TEST_F( Restart, atEveryPointOfAStartAndOfAChange ) {
   for ( int round = 0; round < 20 && !HasFailure(); ++round ) {
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
   EXPECT_GT( points_, 500 );
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

// What was programmed in full hardware, and has changed since, fits in as it did before.
TEST_F( Restart, changesFullHardware ) {
   const Table table{ { 16, { 1, 100, 2 } },
                      { 17, { 1, 100, 2 } },
                      { 18, { 3, 101, 0 } },
                      { 19, { 3, 101, 0 } },
                      { 20, { 4, 101, 0 } } };
   RestartRig rig( {} );
   rig.tableIs( table );
   rig.rig.start();
   rig.run( [] {} );
   const Driver::HwState left = rig.rig.hardware->state();
   const struct {
      const char* name;
      Table now;
      size_t changed;
   } cases[] = {
      { "another way and another backup",
        { { 16, { 2, 100, 1 } },
          { 17, { 2, 100, 1 } },
          { 18, { 3, 101, 0 } },
          { 19, { 3, 101, 0 } },
          { 20, { 4, 101, 0 } } },
        2 },
      { "one route of an old FEC is gone",
        { { 16, { 1, 100, 2 } },
          { 17, { 1, 100, 2 } },
          { 19, { 2, 101, 0 } },
          { 20, { 4, 101, 0 } } },
        1 },
      { "into the FEC of others",
        { { 16, { 1, 100, 2 } },
          { 17, { 1, 100, 2 } },
          { 18, { 2, 101, 0 } },
          { 19, { 2, 101, 0 } },
          { 20, { 2, 101, 0 } } },
        3 },
      { "everything",
        { { 16, { 3, 100, 0 } },
          { 17, { 3, 100, 0 } },
          { 18, { 4, 100, 1 } },
          { 19, { 4, 100, 1 } },
          { 20, { 2, 100, 0 } } },
        5 },
   };
   for ( const auto& [name, now, changed] : cases ) {
      SCOPED_TRACE( name );
      RestartRig next( left, { .hardware = { .fecCapacity = left.fecs.size() } } );
      next.tableIs( now );
      next.rig.start();
      next.run( [&] {
         for ( const auto& [label, ways] : now ) {
            if ( table.at( label ) == ways ) {
               ASSERT_EQ( next.forward( label ), wayOf( ways ) );
            }
         }
      } );
      next.run( [] {} );
      expectAsFresh( next, now );
      EXPECT_EQ( next.rig.hardware->status()->routesChanged(), changed );
      EXPECT_EQ( next.rig.fecRequest->mayReplaces(), 0U );
   }
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
   next.rig.vrfNumberIs();
   next.run( [&] { ASSERT_EQ( next.forward( 16 ), "1/100" ); } );
   EXPECT_EQ( next.rig.sm->mplsSmStartupStatus(), MplsSmStartupStatus::mplsSmNormal );
   EXPECT_EQ( next.forward( 17 ), "" );
   EXPECT_EQ( next.rig.hardware->status()->routesAdopted(), 1U );
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
}

} // namespace
} // namespace Vel::Test
