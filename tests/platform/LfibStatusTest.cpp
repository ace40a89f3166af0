#include "platform/lfib/LfibStatus.h"

#include <gmock/gmock.h>

#include <atomic>
#include <map>
#include <memory>
#include <stdexcept>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "tests/AssertionsThrow.h"
#include "tests/Seed.h"
#include "tests/platform/LfibFixtures.h"

namespace Mpls {
namespace {

using namespace LfibTest;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::SizeIs;

constexpr size_t all = 1'000'000;

/// Writes down what it hears.
class Log : public LfibStatus::Reactor {
 public:
   explicit Log( const Vel::Ptr< LfibStatus >& status ) { notifierIs( status.get() ); }
   void onLfibRoute( RouteKey key ) override { add( "route", key.topLabel() ); }
   void onLfibViaSet( LfibViaSetKey key ) override { add( "viaSet", key.index() ); }
   void onLfibVia( LfibViaKey key ) override { add( "via", key.index() ); }
   void onDot1qTagToVlanColl( LfibDot1qTagToVlanKey key ) override { add( "map", key.value() ); }
   void onReady() override { add( "ready", notifier()->ready() ); }
   std::vector< std::string > take() { return std::exchange( heard_, {} ); }

 private:
   template< class T >
   void add( const char* what, const T& key ) {
      heard_.push_back( Vel::joinText( what, " ", key ) );
   }
   std::vector< std::string > heard_;
};

struct LfibStatusTest : testing::Test {
   void poll() {
      status->poll( all );
      EXPECT_FALSE( status->pollPending() );
   }
   Region region;
   Vel::Ptr< LfibStatus > status = Vel::make< LfibStatus >( "transitLfib", region.bytes() );
   Log log{ status };
};

TEST_F( LfibStatusTest, eachChangeIsAnnouncedOnceInItsOrder ) {
   poll();
   EXPECT_THAT( log.take(), IsEmpty() );
   region.writer.mplsViaIs( mplsViaOf( 1, 9 ) );
   region.writer.viaSetIs( viaSetOf( 2, 1, 1 ) );
   region.writer.routeIs( { RouteKey( 16 ), viaSetKey( 2 ), 0 } );
   region.writer.routeIs( { RouteKey( 16 ), viaSetKey( 2 ), 0 } ); // no change
   region.writer.routeIs( { RouteKey( 16 ), viaSetKey( 2 ), 1 } );
   EXPECT_THAT( log.take(), IsEmpty() );
   EXPECT_EQ( status->ringLag(), 4 );
   EXPECT_EQ( status->poll( 3 ), 3 );
   EXPECT_THAT( log.take(), ElementsAre( "via 1", "viaSet 2", "route 16" ) );
   EXPECT_TRUE( status->pollPending() );
   EXPECT_EQ( status->poll( 3 ), 1 );
   EXPECT_THAT( log.take(), ElementsAre( "route 16" ) );
   region.writer.routeDel( RouteKey( 16 ) );
   region.writer.routeDel( RouteKey( 16 ) );
   region.writer.viaSetDel( viaSetKey( 2 ) );
   region.writer.viaDel( viaKey( 1 ) );
   poll();
   EXPECT_THAT( log.take(), ElementsAre( "route 16", "viaSet 2", "via 1" ) );
   EXPECT_EQ( status->resyncs(), 1 );
}

TEST_F( LfibStatusTest, firstPollAnnouncesWhatIsThereAndThenThatItIsComplete ) {
   region.writer.routeIs( { RouteKey( MplsLabel( 40 ), MplsLabel( 41 ) ), viaSetKey( 2 ), 0 } );
   region.writer.routeIs( { RouteKey( 16 ), viaSetKey( 2 ), 0 } );
   region.writer.viaSetIs( viaSetOf( 2, 1, 1 ) );
   region.writer.mplsViaIs( mplsViaOf( 1, 9 ) );
   region.writer.extFecViaIs( { viaKey( 7, viaTypeExternalFec ), Fib::FecId( 1 ) } );
   region.writer.dot1qTagToVlanIs( LfibDot1qTagToVlanKey( 5 ), 1, Bridging::VlanIdOrNone( 2 ) );
   region.writer.readyIs( true );
   EXPECT_FALSE( status->ready() );
   EXPECT_EQ( status->poll( 3 ), 3 );
   EXPECT_FALSE( status->ready() );
   poll();
   EXPECT_THAT( log.take(), ElementsAre( "map 5", "via 1", "via 7", "viaSet 2", "route 16",
                                         "route 40", "ready true" ) );
   region.writer.readyIs( false );
   poll();
   EXPECT_THAT( log.take(), ElementsAre( "ready false" ) );
}

TEST_F( LfibStatusTest, readinessIsAnnouncedBehindWhatWasWrittenBeforeIt ) {
   region.writer.routeIs( { RouteKey( 16 ), viaSetKey( 2 ), 0 } );
   EXPECT_EQ( status->poll( 1 ), 1 ); // the walk has begun
   region.writer.viaSetIs( viaSetOf( 2, 0, 0 ) );
   region.writer.readyIs( true );
   poll();
   EXPECT_THAT( log.take(), ElementsAre( "route 16", "viaSet 2", "ready true" ) );
}

/// A look-up may find what has not been announced, and the ring may lose what comes after that.
TEST_F( LfibStatusTest, whatALookUpFoundIsAnnouncedAsGone ) {
   const auto overrun = [this] {
      for ( U32 i = 0; i < 40; ++i ) {
         region.writer.extFecViaIs( { viaKey( 99, viaTypeExternalFec ), Fib::FecId( i + 1 ) } );
      }
   };
   poll();
   region.writer.routeIs( { RouteKey( 16 ), viaSetKey( 2 ), 0 } );
   region.writer.viaSetIs( viaSetOf( 2, 1, 1 ) );
   region.writer.mplsViaIs( mplsViaOf( 1, 9 ) );
   EXPECT_FALSE( !status->lfibRoute( RouteKey( 16 ) ) );
   EXPECT_FALSE( status->lfibViaSet( viaSetKey( 2 ) ).null() );
   EXPECT_FALSE( status->lfibMplsVia( viaKey( 1 ) ).null() );
   region.writer.routeDel( RouteKey( 16 ) );
   region.writer.viaSetDel( viaSetKey( 2 ) );
   region.writer.viaDel( viaKey( 1 ) );
   overrun();
   poll();
   EXPECT_THAT( log.take(), ElementsAre( "route 16", "viaSet 2", "via 1", "via 99" ) );

   // What is known to be gone is not announced again.
   overrun();
   poll();
   EXPECT_THAT( log.take(), ElementsAre( "via 99" ) );
}

TEST_F( LfibStatusTest, dot1qMapFollowsTheTable ) {
   poll();
   class MapLog : public LfibDot1qTagToVlan::Reactor {
    public:
      void onDot1qTagToVlanId( Bridging::VlanId tag ) override { tags.push_back( tag ); }
      std::vector< Bridging::VlanId > tags;
   };
   const LfibDot1qTagToVlanKey key( 5 );
   region.writer.dot1qTagToVlanCollIs( key );
   poll();
   ASSERT_NE( status->dot1qTagToVlanColl( key ), nullptr );
   MapLog mapLog;
   mapLog.notifierIs( status->dot1qTagToVlanColl( key ) );
   region.writer.dot1qTagToVlanIs( key, 7, Bridging::VlanIdOrNone( 70 ) );
   region.writer.dot1qTagToVlanIs( key, 8, Bridging::VlanIdOrNone() );
   region.writer.dot1qTagToVlanIs( key, 7, Bridging::VlanIdOrNone( 71 ) );
   poll();
   // Two changes of tag 7, of which the map saw the last value only.
   EXPECT_THAT( mapLog.tags, ElementsAre( 7, 8 ) );
   EXPECT_EQ( status->dot1qTagToVlanColl( key )->dot1qTagToVlanId( 7 ),
              Bridging::VlanIdOrNone( 71 ) );
   EXPECT_TRUE( status->dot1qTagToVlanColl( key )->dot1qTagToVlanIdHas( 8 ) );
   region.writer.dot1qTagToVlanDel( key, 8 );
   poll();
   EXPECT_FALSE( status->dot1qTagToVlanColl( key )->dot1qTagToVlanIdHas( 8 ) );
   region.writer.dot1qTagToVlanCollDel( key );
   poll();
   EXPECT_EQ( status->dot1qTagToVlanColl( key ), nullptr );
   EXPECT_THAT( log.take(), ElementsAre( "map 5", "map 5" ) );
}

/// Keeps a copy of the LFIB by looking up each key that it hears of. After the last poll the copy
/// must be the region.
class Mirror : public LfibStatus::Reactor {
 public:
   explicit Mirror( const Vel::Ptr< LfibStatus >& status ) { notifierIs( status.get() ); }
   void onLfibRoute( RouteKey key ) override {
      const LfibRoute route = notifier()->lfibRoute( key );
      keep( routes, key, !route ? 0 : route.viaSetKey.word() + route.metric );
   }
   void onLfibViaSet( LfibViaSetKey key ) override {
      const LfibViaSet viaSet = notifier()->lfibViaSet( key );
      keep( viaSets, key, viaSet.null() ? 0 : 1 + viaSet.viaKeys() );
   }
   void onLfibVia( LfibViaKey key ) override {
      const LfibMplsVia via = notifier()->lfibMplsVia( key );
      keep( vias, key, via.null() ? 0 : 1 + via.nextHop.v4() );
   }
   template< class K >
   static void keep( std::map< K, U64 >& copy, K key, U64 value ) {
      value ? void( copy[key] = value ) : void( copy.erase( key ) );
   }
   std::map< RouteKey, U64 > routes;
   std::map< LfibViaSetKey, U64 > viaSets;
   std::map< LfibViaKey, U64 > vias;
};

/// Random writes and polls of random length, with a ring so short that it is often overrun,
/// publishers that come and go, and regions laid out anew.
TEST( LfibStatusModel, mirrorEndsAsTheRegion ) {
   Random random( VelTest::testSeed() );
   for ( int round = 0; round < 40; ++round ) {
      Region region;
      std::vector< std::unique_ptr< LfibWriter > > writers;
      LfibWriter* writer = &region.writer;
      const auto status = Vel::make< LfibStatus >( "lfib", region.bytes() );
      Mirror mirror( status );
      std::map< RouteKey, U64 > routes;
      std::map< LfibViaSetKey, U64 > viaSets;
      std::map< LfibViaKey, U64 > vias;
      std::map< U32, std::map< U32, U32 > > maps;
      for ( int step = 0; step < 400; ++step ) {
         for ( U32 write = random.below( random.oneIn( 4 ) ? 40 : 6 ); write != 0; --write ) {
            const U32 index = random.below( 12 );
            const bool remove = random.oneIn( 3 );
            switch ( random.below( 4 ) ) {
            case 0: {
               const RouteKey key =
                  index < 4 ? RouteKey( MplsLabel( 3 ), MplsLabel( index ) ) : RouteKey( index );
               const LfibRoute route{ key, viaSetKey( random.below( 3 ) ), random.below( 3 ) };
               Mirror::keep( routes, key, remove ? 0 : route.viaSetKey.word() + route.metric );
               remove ? writer->routeDel( key ) : writer->routeIs( route );
               break;
            }
            case 1: {
               const U32 count = random.below( 3 );
               Mirror::keep( viaSets, viaSetKey( index ), remove ? 0 : 1 + count );
               remove ? writer->viaSetDel( viaSetKey( index ) )
                      : writer->viaSetIs( viaSetOf( index, count, 1 ) );
               break;
            }
            case 2: {
               const U32 nextHop = random.below( 3 );
               Mirror::keep( vias, viaKey( index ), remove ? 0 : 1 + nextHop );
               remove ? writer->viaDel( viaKey( index ) )
                      : writer->mplsViaIs( mplsViaOf( index, nextHop ) );
               break;
            }
            default: {
               const LfibDot1qTagToVlanKey key( 1 + index % 2 );
               const auto tag = static_cast< Bridging::VlanId >( index % 5 );
               if ( remove && random.oneIn( 3 ) ) {
                  maps.erase( 1 + index % 2 );
                  writer->dot1qTagToVlanCollDel( key );
               } else if ( remove ) {
                  if ( const auto map = maps.find( 1 + index % 2 ); map != maps.end() ) {
                     map->second.erase( tag );
                  }
                  writer->dot1qTagToVlanDel( key, tag );
               } else {
                  maps[1 + index % 2][tag] = index;
                  writer->dot1qTagToVlanIs(
                     key, tag, Bridging::VlanIdOrNone( static_cast< uint16_t >( index ) ) );
               }
            }
            }
         }
         if ( random.oneIn( 50 ) ) {
            writer = writers.emplace_back( std::make_unique< LfibWriter >( region.bytes() ) ).get();
         } else if ( random.oneIn( 100 ) ) {
            writer =
               writers.emplace_back( std::make_unique< LfibWriter >( region.bytes(), tiny ) ).get();
            routes.clear();
            viaSets.clear();
            vias.clear();
            maps.clear();
         }
         if ( random.oneIn( 2 ) ) {
            const size_t limit = random.below( 20 );
            ASSERT_LE( status->poll( limit ), limit );
         }
      }
      while ( status->pollPending() ) {
         status->poll( 1 + random.below( 5 ) );
      }
      ASSERT_EQ( mirror.routes, routes ) << round;
      ASSERT_EQ( mirror.viaSets, viaSets ) << round;
      ASSERT_EQ( mirror.vias, vias ) << round;
      ASSERT_EQ( status->dot1qTagToVlanColls(), maps.size() );
      for ( const auto& [key, map] : maps ) {
         const LfibDot1qTagToVlan* const copy =
            status->dot1qTagToVlanColl( LfibDot1qTagToVlanKey( key ) );
         ASSERT_EQ( copy->dot1qTagToVlanIds(), map.size() );
         for ( const auto& [tag, vlan] : map ) {
            EXPECT_EQ( copy->dot1qTagToVlanId( static_cast< Bridging::VlanId >( tag ) ).vlanId(),
                       vlan );
         }
      }
      EXPECT_GT( status->resyncs(), 5 );
      EXPECT_EQ( status->corruptions(), 0 );
   }
}

/// The same with a writer on a thread of its own, which goes around the ring while it is read.
TEST( LfibStatusModel, mirrorOfABusyWriterEndsAsTheRegion ) {
   Region region;
   const auto status = Vel::make< LfibStatus >( "lfib", region.bytes() );
   Mirror mirror( status );
   std::map< RouteKey, U64 > routes;
   std::atomic< bool > stop = false;
   std::thread writing( [&, seed = VelTest::testSeed()] {
      Random random( seed );
      for ( int step = 0; step < 100'000; ++step ) {
         const LfibRoute route{ RouteKey( random.below( 20 ) ), viaSetKey( 1 ), random.below( 9 ) };
         const bool remove = random.oneIn( 2 );
         Mirror::keep( routes, route.routeKey, remove ? 0 : route.viaSetKey.word() + route.metric );
         remove ? region.writer.routeDel( route.routeKey ) : region.writer.routeIs( route );
         if ( step % 16 == 0 ) {
            std::this_thread::yield();
         }
      }
      stop = true;
   } );
   while ( !stop || status->pollPending() ) {
      status->poll( 7 );
   }
   writing.join();
   EXPECT_EQ( mirror.routes, routes );
}

TEST_F( LfibStatusTest, damagedRingEntryCostsAWalkAndNoChange ) {
   poll();
   region.writer.routeIs( { RouteKey( 16 ), viaSetKey( 2 ), 0 } );
   region.writer.routeIs( { RouteKey( 17 ), viaSetKey( 2 ), 0 } );
   region.words[region.layout.ring + 3] ^= 1; // the second entry's key
   poll();
   EXPECT_THAT( log.take(), testing::UnorderedElementsAre( "route 16", "route 17" ) );
   EXPECT_EQ( status->corruptions(), 1 );
   EXPECT_EQ( status->resyncs(), 2 );
}

TEST_F( LfibStatusTest, damagedSlotIsCountedToldAndLeftOut ) {
   std::vector< std::string > told;
   status->corruptionHookIs(
      [&]( const LfibCorruption& c ) { told.push_back( Vel::textOf( c ) ); } );
   for ( U32 label = 16; label < 26; ++label ) {
      region.writer.routeIs( { RouteKey( label ), viaSetKey( 2 ), 0 } );
   }
   region.slotAt( LfibTable::route, region.slotOf( LfibTable::route, RouteKey( 20 ).word() ) )[2] ^=
      1;
   poll();
   EXPECT_THAT( log.take(), SizeIs( 9 ) );
   EXPECT_EQ( status->corruptions(), 1 );
   EXPECT_THAT( told, ElementsAre( HasSubstr( "lfibRoute slot " ) ) );
   EXPECT_THAT( told, ElementsAre( HasSubstr( "check" ) ) );
   EXPECT_FALSE( status->lfibRouteEach( []( const LfibRoute& ) {} ) );
   EXPECT_TRUE( !status->lfibRoute( RouteKey( 20 ) ) );
}

/// Another publisher over the same table is no news, however it came to write it; what differs is.
TEST_F( LfibStatusTest, aNewPublisherAnnouncesOnlyWhatDiffers ) {
   Mirror mirror( status ); // looks at what it hears of
   const auto write = []( LfibWriter& writer, U32 nextHop ) {
      writer.mplsViaIs( mplsViaOf( 1, nextHop ) );
      writer.viaSetIs( viaSetOf( 2, 1, 1 ) );
      writer.routeIs( { RouteKey( 16 ), viaSetKey( 2 ), 0 } );
      writer.routeIs( { RouteKey( MplsLabel( 16 ), MplsLabel( 17 ) ), viaSetKey( 2 ), 0 } );
   };
   write( region.writer, 9 );
   poll();
   log.take();
   const U64 announced = status->announced();
   {
      LfibWriter next( region.bytes() );
      poll();
      EXPECT_THAT( log.take(), IsEmpty() );
      EXPECT_GT( status->announced(), announced );
      next.routeIs( { RouteKey( 18 ), viaSetKey( 2 ), 0 } );
      poll();
      EXPECT_THAT( log.take(), ElementsAre( "route 18" ) );
   }
   {
      LfibWriter next( region.bytes(), tiny );
      write( next, 9 );
      poll();
      EXPECT_THAT( log.take(), ElementsAre( "route 18" ) );
   }
   LfibWriter next( region.bytes(), tiny );
   write( next, 10 );
   poll();
   EXPECT_THAT( log.take(), ElementsAre( "via 1" ) );
   // What a user saw ahead of its announcement, which then never came.
   next.mplsViaIs( mplsViaOf( 1, 11 ) );
   EXPECT_EQ( status->lfibMplsVia( viaKey( 1 ) ).nextHop.v4(), 11 );
   next.mplsViaIs( mplsViaOf( 1, 10 ) );
   LfibWriter last( region.bytes() );
   poll();
   EXPECT_THAT( log.take(), ElementsAre( "via 1" ) );
}

/// The region is cleared and laid out by a process that knows nothing of the ones before.
TEST_F( LfibStatusTest, aClearedRegionIsNoticedEachTime ) {
   Mirror mirror( status );
   for ( U32 round = 1; round < 20; ++round ) {
      std::ranges::fill( region.words, 0 );
      LfibWriter writer( region.bytes(), tiny, LfibMemory::zeroed );
      for ( U32 i = 0; i < 8; ++i ) {
         writer.routeIs( { RouteKey( 4 * round + i ), viaSetKey( 2 ), 0 } );
      }
      poll();
      EXPECT_THAT( mirror.routes, SizeIs( 8 ) );
      EXPECT_EQ( mirror.routes.begin()->first, RouteKey( 4 * round ) );
   }
}

/// What has been announced stands while the region is away; nobody is told that it is gone.
TEST_F( LfibStatusTest, whatCannotBeReadIsNotGone ) {
   Mirror mirror( status );
   region.writer.routeIs( { RouteKey( 16 ), viaSetKey( 2 ), 0 } );
   region.writer.readyIs( true );
   poll();
   log.take();
   U64& magic = region.words[LfibHeader::magic];
   const U64 there = std::exchange( magic, 0 );
   for ( int i = 0; i < 3; ++i ) {
      EXPECT_TRUE( status->pollPending() );
      EXPECT_TRUE( !status->lfibRoute( RouteKey( 17 ) ) );
      EXPECT_TRUE( status->unread() );
      EXPECT_FALSE( status->readable() );
      EXPECT_EQ( status->poll( all ), 0 );
   }
   EXPECT_TRUE( status->ready() );
   EXPECT_EQ( status->unreads(), 3 );
   magic = there;
   poll();
   EXPECT_THAT( log.take(), IsEmpty() );
   EXPECT_TRUE( !status->lfibRoute( RouteKey( 17 ) ) );
   EXPECT_FALSE( status->unread() );
}

TEST_F( LfibStatusTest, movesToALargerRegionWithoutALoss ) {
   Mirror mirror( status );
   region.writer.routeIs( { RouteKey( 16 ), viaSetKey( 2 ), 0 } );
   region.writer.routeIs( { RouteKey( 17 ), viaSetKey( 2 ), 0 } );
   poll();
   log.take();
   LfibCapacities more = tiny;
   more.routes = 4000;
   Region larger( more );
   for ( U32 label = 17; label < 20; ++label ) {
      larger.writer.routeIs( { RouteKey( label ), viaSetKey( 2 ), 0 } );
   }
   status->regionIs( larger.bytes().first( 64 ) );
   EXPECT_FALSE( status->attached() );
   EXPECT_TRUE( status->pollPending() );
   EXPECT_EQ( status->poll( all ), 0 );
   status->regionIs( larger.bytes() );
   std::ranges::fill( region.words, 0 );
   poll();
   EXPECT_THAT( log.take(), ElementsAre( "route 16", "route 18", "route 19" ) );
   EXPECT_THAT( mirror.routes, SizeIs( 3 ) );
}

TEST_F( LfibStatusTest, aHandlerMayThrow ) {
   struct Thrower : LfibStatus::Reactor {
      void onLfibRoute( RouteKey key ) override {
         if ( key == RouteKey( 17 ) ) {
            throw std::runtime_error( "no room" );
         }
      }
   };
   Thrower thrower;
   thrower.notifierIs( status.get() );
   for ( U32 label = 16; label < 19; ++label ) {
      region.writer.routeIs( { RouteKey( label ), viaSetKey( 2 ), 0 } );
   }
   EXPECT_THROW( status->poll( all ), std::runtime_error );
   poll();
   EXPECT_THAT( log.take(), ElementsAre( "route 16", "route 17", "route 18" ) );
}

TEST( LfibStatusAttach, regionMayBeLaidOutLater ) {
   std::vector< U64 > words( LfibWriter::bytesNeeded( tiny ) / sizeof( U64 ) );
   const auto bytes = std::as_writable_bytes( std::span( words ) );
   const auto status = Vel::make< LfibStatus >( "lfib", bytes );
   Log log( status );
   EXPECT_FALSE( status->attached() );
   EXPECT_THAT( status->refusedReason(), HasSubstr( "magic" ) );
   EXPECT_EQ( status->poll( all ), 0 );
   EXPECT_TRUE( status->pollPending() );
   EXPECT_TRUE( !status->lfibRoute( RouteKey( 16 ) ) && status->unread() );
   LfibWriter writer( bytes, tiny, LfibMemory::zeroed );
   writer.routeIs( { RouteKey( 16 ), viaSetKey( 2 ), 0 } );
   EXPECT_EQ( status->poll( all ), 1 );
   EXPECT_THAT( log.take(), ElementsAre( "route 16" ) );
   EXPECT_TRUE( status->attached() );
}

TEST_F( LfibStatusTest, handlerMayReleaseTheStatusButNotPoll ) {
   class Meddler : public LfibStatus::Reactor {
    public:
      explicit Meddler( Vel::Ptr< LfibStatus >& last ) : last_( last ) { notifierIs( last.get() ); }
      void onLfibRoute( RouteKey key ) override {
         if ( key.topLabel().value() == 16 ) {
            const VelTest::AssertionsThrow throwing;
            EXPECT_THROW( notifier()->poll( 1 ), VelTest::AssertionThrown );
         } else {
            last_ = nullptr;
            notifierIs( nullptr );
         }
      }

    private:
      Vel::Ptr< LfibStatus >& last_;
   };
   region.writer.routeIs( { RouteKey( 16 ), viaSetKey( 2 ), 0 } );
   region.writer.routeIs( { RouteKey( 17 ), viaSetKey( 2 ), 0 } );
   log.notifierIs( nullptr );
   Meddler meddler( status );
   EXPECT_EQ( status->poll( all ), 2 );
   EXPECT_EQ( status, nullptr );
}

TEST_F( LfibStatusTest, showsItsState ) {
   region.writer.routeIs( { RouteKey( 16 ), viaSetKey( 2 ), 0 } );
   poll();
   region.writer.routeIs( { RouteKey( 17 ), viaSetKey( 2 ), 0 } );
   const std::string text = Vel::printText( *status );
   for ( const auto& [name, value] :
         std::map< std::string, std::string >{ { "lfibRoutes", "2" },
                                               { "ringPosition", "1" },
                                               { "ringLag", "1" },
                                               { "ready", "false" } } ) {
      EXPECT_EQ( Vel::attributeText( *status, name ), value ) << name;
   }
}

} // namespace
} // namespace Mpls
