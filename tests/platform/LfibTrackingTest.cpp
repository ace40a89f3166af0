#include "platform/lfib/LfibTracking.h"

#include <gtest/gtest.h>

#include <array>
#include <map>
#include <set>
#include <string>
#include <vector>

#include "tests/Seed.h"
#include "tests/platform/LfibFixtures.h"

namespace Mpls {
namespace {

using namespace LfibTest;

/// The LFIB as plain values, and what a via set, or a route, amounts to.
struct Model {
   std::map< RouteKey, LfibRoute > routes;
   std::map< LfibViaSetKey, LfibViaSet > viaSets;
   std::map< LfibViaKey, U32 > vias;

   std::string meaning( LfibViaSetKey key ) const {
      const auto found = viaSets.find( key );
      if ( found == viaSets.end() ) {
         return "absent";
      }
      std::string text = Vel::textOf( found->second.backupViaSetKey().word() );
      for ( U32 i = 0; i < found->second.viaKeys(); ++i ) {
         const auto via = vias.find( found->second.viaKey( i ) );
         text += Vel::joinText( ", ", found->second.viaKey( i ).word(), "=",
                                via == vias.end() ? std::string( "absent" )
                                                  : Vel::textOf( via->second ) );
      }
      return text;
   }
   std::string meaning( RouteKey key ) const {
      const auto found = routes.find( key );
      return found == routes.end()
                ? "absent"
                : Vel::joinText( found->second.metric, " ", found->second.viaSetKey.word(), " ",
                                 meaning( found->second.viaSetKey ) );
   }
};

constexpr U32 viaSetCount = 8;
constexpr U32 viaCount = 10;
RouteKey routeKey( U32 i ) {
   return i < 8 ? RouteKey( MplsLabel( 900 ), MplsLabel( i ), MplsLabel( 1 ) )
                : RouteKey( 100 * i );
}
constexpr U32 routeCount = 20;

void writeSomething( Random& random, LfibWriter& writer, Model& model ) {
   const bool remove = random.oneIn( 4 );
   switch ( random.below( 4 ) ) {
   case 0: {
      const LfibViaSetKey key = viaSetKey( random.below( viaSetCount ) );
      if ( remove ) {
         model.viaSets.erase( key );
         writer.viaSetDel( key );
         break;
      }
      LfibViaSet viaSet( key );
      viaSet.backupViaSetKeyIs( random.oneIn( 3 ) ? viaSetKey( 50 ) : LfibViaSetKey() );
      for ( U32 i = random.below( 5 ); i != 0; --i ) {
         viaSet.viaKeyAdd( viaKey( random.below( viaCount ) ) ); // some via more than once
      }
      model.viaSets[key] = viaSet;
      writer.viaSetIs( viaSet );
      break;
   }
   case 1: {
      const U32 index = random.below( viaCount );
      if ( remove ) {
         model.vias.erase( viaKey( index ) );
         writer.viaDel( viaKey( index ) );
      } else {
         writer.mplsViaIs( mplsViaOf( index, model.vias[viaKey( index )] = random.below( 3 ) ) );
      }
      break;
   }
   default: {
      const RouteKey key = routeKey( random.below( routeCount ) );
      if ( remove ) {
         model.routes.erase( key );
         writer.routeDel( key );
      } else {
         const LfibRoute route{ key, viaSetKey( random.below( viaSetCount ) ), random.below( 2 ) };
         model.routes[key] = route;
         writer.routeIs( route );
      }
   }
   }
}

template< class Key, class Backlog >
std::set< Key > members( const Backlog& backlog ) {
   std::set< Key > made;
   for ( const Key key : backlog ) {
      made.insert( key );
   }
   return made;
}

void expectMembership( const LfibTrackingStatus& tracking, const Model& model ) {
   std::map< LfibViaSetKey, std::set< RouteKey > > users;
   for ( const auto& [key, route] : model.routes ) {
      users[route.viaSetKey].insert( key );
   }
   ASSERT_EQ( tracking.viaSetKeyToRouteKeySets(), users.size() );
   for ( U32 i = 0; i < viaSetCount; ++i ) {
      const Vel::RouteKeyGroup* const routes = tracking.viaSetKeyToRouteKeySet( viaSetKey( i ) );
      const auto expected = users.find( viaSetKey( i ) );
      ASSERT_EQ( routes != nullptr, expected != users.end() );
      if ( routes ) {
         ASSERT_EQ( members< RouteKey >( *routes ), expected->second );
         ASSERT_EQ( routes->size(), expected->second.size() );
      }
   }
}

/// Random writes; the backlog is emptied now and then. Whatever means something else than when it
/// was last taken from the backlog is in it again, and what nobody touched is not.
class LfibTrackingModel : public testing::TestWithParam< LfibTrackingMode > {};

TEST_P( LfibTrackingModel, backlogHasWhatChanged ) {
   const bool byRoute = GetParam() == LfibTrackingMode::routes;
   Random random( VelTest::testSeed() );
   for ( int round = 0; round < 30; ++round ) {
      LfibCapacities capacities = tiny;
      capacities.ringEntries = round % 2 ? 16 : 4096; // overruns, or none
      Region region( capacities );
      Model model;
      for ( U32 i = random.below( 60 ); i != 0; --i ) {
         writeSomething( random, region.writer, model );
      }
      const auto lfib = Vel::make< LfibStatus >( "lfib", region.bytes() );
      if ( random.oneIn( 2 ) ) {
         lfib->poll( random.below( 30 ) );
      }
      const auto tracking = Vel::make< LfibTrackingStatus >( "tracking" );
      const auto sm = Vel::make< LfibTrackingSm >( "tracker", lfib, tracking, GetParam() );

      Model taken; // as it was when the backlog was last emptied: nothing, so that all there is
                   // must be in the backlog
      bool emptied = false;
      for ( int step = 0; step < 60; ++step ) {
         const U64 resyncs = lfib->resyncs();
         std::set< LfibViaSetKey > touched;
         std::set< RouteKey > touchedRoutes;
         for ( U32 i = random.below( 12 ); i != 0; --i ) {
            const Model before = model;
            writeSomething( random, region.writer, model );
            for ( U32 k = 0; k < viaSetCount; ++k ) {
               if ( before.meaning( viaSetKey( k ) ) != model.meaning( viaSetKey( k ) ) ) {
                  touched.insert( viaSetKey( k ) );
               }
            }
            for ( U32 k = 0; k < routeCount; ++k ) {
               if ( before.meaning( routeKey( k ) ) != model.meaning( routeKey( k ) ) ) {
                  touchedRoutes.insert( routeKey( k ) );
               }
            }
         }
         do {
            lfib->poll( 1 + random.below( 40 ) );
         } while ( lfib->pollPending() );
         ASSERT_NO_FATAL_FAILURE( expectMembership( *tracking, model ) );

         const auto viaSets = members< LfibViaSetKey >( tracking->viaSetKeyBacklog() );
         const auto routes = members< RouteKey >( tracking->routeKeyBacklog() );
         ASSERT_TRUE( byRoute ? viaSets.empty() : routes.empty() );
         for ( U32 k = 0; k < viaSetCount && !byRoute; ++k ) {
            const LfibViaSetKey key = viaSetKey( k );
            if ( taken.meaning( key ) != model.meaning( key ) ) {
               ASSERT_TRUE( viaSets.contains( key ) ) << step;
            }
         }
         for ( U32 k = 0; k < routeCount && byRoute; ++k ) {
            if ( taken.meaning( routeKey( k ) ) != model.meaning( routeKey( k ) ) ) {
               ASSERT_TRUE( routes.contains( routeKey( k ) ) ) << step;
            }
         }
         // A walk announces everything; a step without one announces what was written.
         if ( emptied && lfib->resyncs() == resyncs ) {
            for ( const LfibViaSetKey key : viaSets ) {
               ASSERT_TRUE( touched.contains( key ) ) << step;
            }
            for ( const RouteKey key : routes ) {
               ASSERT_TRUE( touchedRoutes.contains( key ) ) << step;
            }
         }
         emptied = random.oneIn( 2 );
         if ( emptied ) {
            tracking->viaSetKeyBacklogDelAll();
            tracking->routeKeyBacklogDelAll();
            taken = model;
         }
      }
   }
}
INSTANTIATE_TEST_SUITE_P( Modes, LfibTrackingModel,
                          testing::Values( LfibTrackingMode::routes, LfibTrackingMode::viaSets ),
                          []( const auto& tested ) {
                             return std::string( Vel::stringValue( tested.param ) );
                          } );

} // namespace
} // namespace Mpls
