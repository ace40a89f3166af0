// The driver contract, as the software switch keeps it and as it asks the library to.

#include "driver/SoftwareSwitch.h"

#include <algorithm>
#include <deque>
#include <functional>
#include <map>
#include <random>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/Seed.h"
#include "tests/driver/Vias.h"

namespace Vel::Driver {
namespace {

using namespace VelTest;
using Mpls::RouteKey;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using Adjacency = Ptr< Mpls::Hardware::L2Adjacency >;
using enum UnprogrammedReason;

/// Writes down what a VRF's status says, in the order in which it is said: a route with its
/// version, an arrival on a list with the reason of that moment.
class Listener : public MplsHwVrfStatus::Reactor {
 public:
   std::vector< std::string > heard;
   void onMplsRouting() override { say( "routing ", notifier()->mplsRouting() ); }
   void onRoute( RouteKey key ) override {
      const MplsHwRoute* const route = notifier()->route().find( key );
      say( "route ", key, route ? " v" + textOf( route->version ) : " gone" );
   }
   void onUnprogrammedRoute( RouteKey key ) override {
      sayListed( notifier()->unprogrammedRouteHas( key ), key );
      EXPECT_FALSE( notifier()->unprogrammedRouteHas( key ) && notifier()->routeHas( key ) );
   }
   void onUnprogrammedAdjacency( const Adjacency& adjacency ) override {
      sayListed( notifier()->unprogrammedAdjacencyHas( adjacency ), "adj" + adjacency->name() );
   }

 private:
   template< class K >
   void sayListed( bool listed, const K& key ) {
      listed ? say( "list ", key, " ", notifier()->unprogrammedReason() ) : say( "unlist ", key );
   }
   template< class... T >
   void say( const T&... words ) {
      heard.push_back( joinText( words... ) );
   }
};

class SwitchTest : public testing::Test {
 protected:
   void start( const SwitchSettings& settings = {} ) {
      hardware = std::make_unique< SoftwareSwitch >( config, hwStatus, scheduler, settings );
      vrfConfig();
   }
   MplsHwVrfConfig& vrfConfig() { return *config->vrfConfigIs( 0 ); }
   MplsHwVrfStatus& vrfStatus() { return *hwStatus->vrfStatus( 0 ); }
   const SwitchStatus& counters() { return *hardware->status(); }
   void run() {
      listener.notifierIs( hwStatus->vrfStatus( 0 ) );
      runUntilIdle( *scheduler, *clock, 1e9, 1'000'000 );
   }
   /// Lets everything be carried out; what the status said since the last call.
   std::vector< std::string > heard() {
      run();
      return std::exchange( listener.heard, {} );
   }

   Adjacency adjacency( U64 index, U32 outLabel = 100 ) {
      auto made = make< Mpls::Hardware::L2Adjacency >( index );
      made->l2ViaSetIs( viaSet( { swapTo( { outLabel } ) } ) );
      return made;
   }
   U64 write( const Adjacency& adjacency ) {
      const U32 version = vrfConfig().l2Adjacency( adjacency ) + 1;
      vrfConfig().l2AdjacencyIs( adjacency, version );
      return version;
   }
   U64 write( U32 label, const Adjacency& adjacency ) {
      const U64 version = vrfConfig().route( RouteKey( label ) ).version + 1;
      vrfConfig().routeIs( { RouteKey( label ), adjacency, version } );
      return version;
   }
   void remove( const Adjacency& adjacency ) { vrfConfig().l2AdjacencyDel( adjacency ); }
   void remove( U32 label ) { vrfConfig().routeDel( RouteKey( label ) ); }
   /// The label with which a frame of that label leaves; 0 when it is dropped.
   U32 leavesWith( U32 label ) {
      Bytes frame;
      ethernetAppend( frame, { .etherType = etherTypeMpls } );
      labelEntryAppend( frame, { label, 0, true, 64 } );
      frame.push_back( 0 );
      const ForwardResult result = hardware->forward( 0, frame );
      return result.frames.empty() ? 0 : labelEntryRead( result.frames[0].bytes, 14 )->label;
   }

   Listener listener;
   Ptr< MplsHwConfig > config = mplsHwConfigFactory( "config" );
   Ptr< MplsHwStatus > hwStatus = mplsHwStatusFactory( "status" );
   Ptr< ManualClock > clock = make< ManualClock >();
   Ptr< Scheduler > scheduler = make< Scheduler >( clock );
   std::unique_ptr< SoftwareSwitch > hardware;
   Adjacency a = adjacency( 1 );
   Adjacency b = adjacency( 2, 200 );
};

TEST_F( SwitchTest, aRouteIsMadeChangedAndRemoved ) {
   start();
   vrfConfig().mplsRoutingIs( true );
   write( a );
   write( 16, a );
   EXPECT_FALSE( vrfStatus().mplsRouting() || vrfStatus().routeHas( RouteKey( 16 ) ) );
   EXPECT_EQ( counters().queueLength(), 4U );
   EXPECT_THAT( heard(), ElementsAre( "routing true", "route 16 v1" ) );
   EXPECT_EQ( vrfStatus().l2Adjacency( a ), 1U );

   write( b );
   write( 16, b );
   remove( a );
   EXPECT_EQ( leavesWith( 16 ), 100U );
   EXPECT_THAT( heard(), ElementsAre( "route 16 v2" ) );
   EXPECT_EQ( vrfStatus().route( RouteKey( 16 ) ), ( MplsHwRoute{ RouteKey( 16 ), b, 2 } ) );
   EXPECT_FALSE( vrfStatus().l2AdjacencyHas( a ) );
   EXPECT_EQ( leavesWith( 16 ), 200U );

   vrfConfig().mplsRoutingIs( false );
   EXPECT_THAT( heard(), ElementsAre( "routing false" ) );
   EXPECT_EQ( leavesWith( 16 ), 0U );
   remove( 16 );
   remove( b );
   EXPECT_THAT( heard(), ElementsAre( "route 16 gone" ) );
   EXPECT_EQ( hardware->routes() + hardware->adjacencies(), 0U );
   EXPECT_EQ( counters().operations(), 10U );
   EXPECT_EQ( a->references(), 1U ) << "forgotten";
}

TEST_F( SwitchTest, theStatusOfAVrfAppearsAtOnceOrInItsTurn ) {
   for ( const bool atOnce : { true, false } ) {
      config->vrfConfigDel( 0 );
      run();
      start( { .createStatusAtOnce = atOnce } );
      EXPECT_EQ( hwStatus->vrfStatusHas( 0 ), atOnce );
      run();
      EXPECT_TRUE( hwStatus->vrfStatusHas( 0 ) );
   }
}

TEST_F( SwitchTest, eachOperationTakesTheServiceTime ) {
   clock->nowIs( 0.3 );
   start( { .serviceTimeSeconds = 10 } ); // the first operation is the VRF itself
   write( a );
   const auto operationsAt = [&]( double seconds ) {
      runUntilIdle( *scheduler, *clock, seconds, 1000 );
      clock->nowIs( seconds );
      return counters().operations();
   };
   EXPECT_EQ( operationsAt( 10.2 ), 0U );
   EXPECT_EQ( operationsAt( 10.4 ), 1U );
   write( 16, a );
   EXPECT_EQ( operationsAt( 20.4 ), 2U );
   write( 17, a );
   clock->nowIs( 45 ); // the thread was held up, the hardware was not
   EXPECT_EQ( operationsAt( 45 ), 4U );
   EXPECT_TRUE( scheduler->settled() );
   remove( 16 );
   EXPECT_EQ( operationsAt( 54.9 ), 4U );
   EXPECT_EQ( operationsAt( 55 ), 5U );
   remove( 17 );
   FaultPlan late;
   ASSERT_FALSE( late.parse( "late 100", {} ) );
   hardware->faultsAre( late ); // holds for what is written from now on
   write( 18, a );
   EXPECT_EQ( operationsAt( 65 ), 6U );
   EXPECT_EQ( operationsAt( 154.9 ), 6U );
   EXPECT_EQ( operationsAt( 155 ), 7U );
}

TEST_F( SwitchTest, aLongQueueIsCarriedOutInSlices ) {
   scheduler->maxQueriesPerRunIs( 40 );
   start();
   write( a );
   for ( U32 i = 0; i < 7500; ++i ) {
      write( i % 5000, a );
      if ( i % 50 == 0 ) { // faster than the driver is
         const U64 before = counters().operations();
         scheduler->runOne();
         EXPECT_LE( counters().operations() - before, 40U );
      }
   }
   EXPECT_GT( counters().queueLength(), 1500U );
   run();
   EXPECT_EQ( hardware->routes(), 5000U );
   for ( const auto& [key, route] : hardware->vrf( 0 )->route ) {
      ASSERT_EQ( route.version, key.topLabel().value() < 2500 ? 2U : 1U );
   }
}

// --- What hardware refuses.

TEST_F( SwitchTest, aRouteThatDoesNotFitIsListedUntilItIsProgrammed ) {
   start( { .routeCapacity = 2 } );
   write( a );
   for ( const U32 label : { 16U, 17U, 18U, 16U } ) { // a route that is there needs no room
      write( label, a );
   }
   EXPECT_THAT( heard(),
                ElementsAre( "route 16 v1", "route 17 v1", "list 18 RouteFull", "route 16 v2" ) );
   write( 18, a );
   EXPECT_THAT( heard(), IsEmpty() ) << "still listed";
   remove( 17 );
   EXPECT_THAT( heard(), ElementsAre( "route 17 gone" ) ) << "nothing is retried";
   write( 18, a );
   EXPECT_THAT( heard(), ElementsAre( "unlist 18", "route 18 v3" ) );
   EXPECT_EQ( counters().refused(), 2U );
}

TEST_F( SwitchTest, routesOfARefusedAdjacencyAreRefusedForItsReason ) {
   start( { .adjacencyCapacity = 1 } );
   write( a );
   write( b );
   remove( b );
   EXPECT_THAT( heard(), IsEmpty() ) << "gone before it was refused";
   write( b );
   write( 16, a );
   write( 17, b );
   EXPECT_THAT( heard(),
                ElementsAre( "list adj2 AdjacencyFull", "route 16 v1", "list 17 AdjacencyFull" ) );
   write( b );
   write( 16, b ); // what is listed is not in hardware
   EXPECT_THAT( heard(), ElementsAre( "route 16 gone", "list 16 AdjacencyFull" ) );
   remove( a );
   write( b );
   write( 17, b );
   EXPECT_THAT( heard(), ElementsAre( "unlist adj2", "unlist 17", "route 17 v2" ) );
   EXPECT_EQ( vrfStatus().l2Adjacency( b ), 3U );
}

TEST_F( SwitchTest, theLibraryListsKeysTooAndTakesThemOff ) {
   start( { .routeCapacity = 1 } );
   write( a );
   write( 16, a );
   write( 17, a );
   write( 18, a );
   heard();
   for ( const U32 label : { 17U, 18U } ) {
      remove( label );
      vrfStatus().unprogrammedRouteDel( RouteKey( label ) );
   }
   vrfStatus().unprogrammedRouteIs( RouteKey( 17 ) ); // for a reason of its own
   remove( 16 );
   EXPECT_THAT( heard(),
                ElementsAre( "unlist 17", "unlist 18", "list 17 RouteFull", "route 16 gone" ) );
   write( 17, a );
   EXPECT_THAT( heard(), ElementsAre( "unlist 17", "route 17 v1" ) );
}

// --- Beginnings and ends.

TEST_F( SwitchTest, aVrfThatGoesIsWithdrawnAndMayComeBack ) {
   start( { .routeCapacity = 1 } );
   for ( int round = 0; round < 2; ++round ) { // first it is back before the driver gets there
      write( a );
      write( 16, a );
      write( 17, a );
      heard();
      EXPECT_EQ( vrfStatus().routes(), 1U );
      config->vrfConfigDel( 0 );
   }
   EXPECT_THAT( heard(), ElementsAre( "unlist 17", "route 16 gone" ) );
   EXPECT_EQ( hwStatus->vrfStatuss(), 0U );
   EXPECT_EQ( hardware->routes() + hardware->adjacencies(), 0U );
   EXPECT_EQ( a->references(), 1U );
}

TEST_F( SwitchTest, aNewDriverStartsOver ) {
   start( { .routeCapacity = 1 } );
   vrfConfig().mplsRoutingIs( true );
   write( a );
   write( 16, a );
   write( 17, a );
   hwStatus->vrfStatusIs( 5 );
   heard();
   vrfStatus().unprogrammedRouteIs( RouteKey( 99 ) ); // the library's own
   const Ptr< SwitchStatus > old = hardware->status();
   hardware.reset();
   EXPECT_EQ( old->queueLength(), 0U );
   write( 18, a );
   EXPECT_THAT( heard(), ElementsAre( "list 99 RouteFull" ) );
   start();
   EXPECT_FALSE( hwStatus->vrfStatusHas( 5 ) );
   EXPECT_THAT( heard(), ElementsAre( "route 16 gone", "routing false", "unlist 17", "routing true",
                                      "route 16 v1", "route 17 v1", "route 18 v1" ) );
}

// --- What the library must not do.

TEST_F( SwitchTest, everyBreachIsNamed ) {
   const auto route = [this]( U32 label, const Adjacency& to, U64 version ) {
      vrfConfig().routeIs( { RouteKey( label ), to, version } );
   };
   const auto l2Adjacency = [this]( const Adjacency& written, U32 version ) {
      vrfConfig().l2AdjacencyIs( written, version );
   };
   const auto empty = make< Mpls::Hardware::L2Adjacency >( U64{ 3 } );
   // clang-format off
   const std::pair< std::function< void() >, std::string > breaches[] = {
      { [&] { route( 17, b, 1 ); }, "route 17: version 1 points at L2 adjacency 2, which is not in the configuration" },
      { [&] { route( 16, b, 6 ); }, "route 16: version 6 points at L2 adjacency 2, which is not in the configuration" },
      { [&] { remove( a ); }, "L2 adjacency 1: removed while 1 routes point at it" },
      { [&] { route( 16, a, 4 ); }, "route 16: version 4 written over version 5" },
      { [&] { l2Adjacency( b, 1 ); route( 16, b, 5 ); }, "route 16: version 5 written over version 5" },
      { [&] { route( 16, nullptr, 6 ); }, "route 16: version 6 written without an L2 adjacency" },
      { [&] { l2Adjacency( a, 2 ); }, "L2 adjacency 1: version 2 written over version 3" },
      { [&] { l2Adjacency( empty, 1 ); }, "L2 adjacency 3: version 1 written without L2 vias" },
      { [&] { l2Adjacency( nullptr, 1 ); }, "L2 adjacency: written without an entity" },
   };
   // clang-format on
   for ( const auto& [breach, text] : breaches ) {
      config->vrfConfigDel( 0 );
      start( { .breachIsFatal = false } );
      l2Adjacency( a, 3 );
      route( 16, a, 5 );
      breach();
      EXPECT_THAT( hardware->breaches(), ElementsAre( "vrf 0: " + text ) );
      // The switch lives on, and so do the counts: what follows in order is no breach.
      run();
      remove( 17 );
      remove( 16 );
      vrfConfig().l2AdjacencyDelAll();
      run();
      EXPECT_EQ( counters().breaches(), 1U ) << text;
      EXPECT_EQ( hardware->routes() + hardware->adjacencies(), 0U ) << text;
   }
}

TEST_F( SwitchTest, aBreachIsFatalByDefault ) {
   testing::GTEST_FLAG( death_test_style ) = "threadsafe";
   start();
   EXPECT_DEATH( write( 16, a ), "route 16: version 1 points at L2 adjacency 1" );
}

// --- Random operations: after each slice the switch holds and says what a naive driver would after
// as many operations.

class RandomSwitchTest : public SwitchTest {
 protected:
   // What is in hardware by name ("16", "adj2"), and "listed 16" for what is listed.
   using State = std::map< std::string, std::string >;

   static bool planned( U64 key, U64 version ) { return mixBits( key * 1000 + version ) % 8 == 0; }
   U64 random( U64 bound ) { return engine() % bound; }
   bool full( const std::string& name, bool adjacencies, ptrdiff_t capacity ) {
      const auto counts = [=]( const auto& entry ) {
         return entry.first[0] != 'l' && entry.first.starts_with( "adj" ) == adjacencies;
      };
      return !model.count( name ) &&
             std::count_if( model.begin(), model.end(), counts ) >= capacity;
   }
   void refused( const std::string& name, bool configured ) {
      if ( configured ) {
         model["listed " + name];
      }
   }
   void removed( const std::string& name ) {
      model.erase( name );
      model.erase( "listed " + name );
   }
   void programmed( const std::string& name, const std::string& content ) {
      model[name] = content;
      model.erase( "listed " + name );
   }

   void changeAdjacency( U64 index ) {
      const Adjacency& chosen = entities[index];
      const std::string name = joinText( "adj", index );
      bool used = false;
      for ( const auto& [key, route] : vrfConfig().route() ) {
         used |= route.l2Adjacency == chosen;
      }
      if ( vrfConfig().l2AdjacencyHas( chosen ) && !used && random( 2 ) ) {
         remove( chosen );
         waiting.push_back( [=, this] { removed( name ); } );
         return;
      }
      const auto label = static_cast< U32 >( 100 + random( 900 ) );
      chosen->l2ViaSetIs( viaSet( { swapTo( { label } ) } ) );
      waiting.push_back( [=, this, version = write( chosen )] {
         if ( planned( index, version ) || full( name, true, adjacencyCapacity ) ) {
            refused( name, vrfConfig().l2AdjacencyHas( entities[index] ) );
         } else {
            programmed( name, joinText( "v", version, " to ", label ) );
         }
      } );
   }
   void changeRoute( U32 label, U64 index ) {
      const RouteKey key( label );
      const std::string name = textOf( label );
      const std::string via = joinText( "adj", index );
      if ( vrfConfig().routeHas( key ) && random( 3 ) == 0 ) {
         remove( label );
         if ( random( 2 ) ) { // as the library does
            vrfStatus().unprogrammedRouteDel( key );
            model.erase( "listed " + name );
         }
         waiting.push_back( [=, this] { removed( name ); } );
      } else if ( vrfConfig().l2AdjacencyHas( entities[index] ) ) {
         waiting.push_back( [=, this, version = write( label, entities[index] )] {
            if ( planned( label, version ) || full( name, false, routeCapacity ) ||
                 !model.count( via ) ) {
               model.erase( name );
               refused( name, vrfConfig().routeHas( key ) );
            } else {
               programmed( name, joinText( "v", version, " ", via ) );
            }
         } );
      }
   }

   State actual() {
      State state;
      for ( const RouteKey key : vrfStatus().unprogrammedRoute() ) {
         state[joinText( "listed ", key )];
      }
      for ( const Adjacency& adjacency : vrfStatus().unprogrammedAdjacency() ) {
         state[joinText( "listed adj", adjacency )];
      }
      for ( const auto& [key, route] : vrfStatus().route() ) {
         const U64 index = hardware->route( 0, key )->adjacency->index();
         state[textOf( key )] = joinText( "v", route.version, " adj", index );
      }
      for ( const Ptr< HwAdjacency >& adjacency : hardware->vrf( 0 )->adjacency ) {
         const U32 version = vrfStatus().l2Adjacency( adjacency->l2Adjacency() );
         state[joinText( "adj", adjacency->index() )] =
            joinText( "v", version, " to ", adjacency->l2Via()[0].labelStack );
      }
      return state;
   }

   static constexpr size_t routeCapacity = 20;
   static constexpr size_t adjacencyCapacity = 5;
   std::mt19937_64 engine{ testSeed() };
   std::vector< Adjacency > entities;
   State model;
   std::deque< std::function< void() > > waiting; // what operations that wait will do to the model
};

TEST_F( RandomSwitchTest, theSwitchIsWhatANaiveDriverIs ) {
   for ( U64 index = 0; index < 8; ++index ) {
      entities.push_back( adjacency( index ) );
   }
   start( { .routeCapacity = routeCapacity,
            .adjacencyCapacity = adjacencyCapacity,
            .refuse = []( const Operation& operation ) {
               const U64 key = operation.routeKey.null() ? operation.adjacency->index()
                                                         : operation.routeKey.topLabel().value();
               return planned( key, operation.version() ) ? InterfaceNotReady : Success;
            } } );
   vrfConfig().mplsRoutingIs( true );
   run();
   for ( int round = 0; round < 3000; ++round ) {
      for ( U64 writes = random( 12 ); writes > 0; --writes ) {
         const U64 index = random( entities.size() );
         random( 4 ) ? changeRoute( 16 + static_cast< U32 >( random( 40 ) ), index )
                     : changeAdjacency( index );
      }
      scheduler->maxQueriesPerRunIs( 1 + random( 16 ) );
      scheduler->runOne();
      for ( ; waiting.size() > counters().queueLength(); waiting.pop_front() ) {
         waiting.front()();
      }
      ASSERT_EQ( actual(), model ) << "in round " << round;
   }
   EXPECT_GT( counters().refused(), 1000U );
}

} // namespace
} // namespace Vel::Driver
