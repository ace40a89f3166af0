// Agents that are stopped and started again on the surviving hardware, for tests.

#pragma once

#include <gtest/gtest.h>

#include <functional>
#include <map>
#include <random>
#include <set>
#include <sstream>

#include "tests/LabelRig.h"
#include "tests/Seed.h"

namespace Vel::Test {

inline constexpr U32 links = 4;
inline constexpr U32 labels = 10;
inline constexpr U32 firstLabel = 16;

/// A via set: one way out, and one that protects it.
struct Ways {
   U32 link = 1;
   U32 outLabel = 100;
   U32 backupLink = 0; ///< 0: no backup
   friend auto operator<=>( const Ways&, const Ways& ) = default;
};
using Table = std::map< U32, Ways >; // by label

/// "16:1/100+2 17:3/101": label, link, outgoing label and the link that protects it.
inline Table tableOf( const std::string& text ) {
   Table table;
   std::istringstream in( text );
   char separator = 0;
   for ( U32 label = 0; in >> label; ) {
      Ways& ways = table[label];
      in >> separator >> ways.link >> separator >> ways.outLabel;
      if ( in.peek() == '+' ) {
         in >> separator >> ways.backupLink;
      }
   }
   return table;
}

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

   std::string forward( U32 label ) { return rig.leavesBy( label ); }

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

inline std::string wayOf( const Ways& ways ) {
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

   /// What hardware holds after a start with the table.
   static Driver::HwState programmed( const Table& table ) {
      RestartRig rig( {} );
      rig.tableIs( table );
      rig.rig.start();
      rig.run( [] {} );
      return rig.rig.hardware->state();
   }

   std::mt19937_64 random_{ VelTest::testSeed() };
   int points_ = 0;
};

} // namespace Vel::Test
