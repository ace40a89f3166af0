#include <cstring>
#include <functional>
#include <memory>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "platform/entity/Entity.h"
#include "platform/entity/EntityManager.h"
#include "tests/AssertionsThrow.h"

namespace VelTest {
namespace {

using Mpls::RouteKey;
using Vel::Ptr;
using Vel::U32;

struct Route {
   RouteKey routeKey;
   U32 version = 0;
   friend bool operator==( const Route&, const Route& ) = default;
};
void appendText( std::string& out, const Route& route ) {
   Vel::appendText( out, route.version );
}

class Leaf : public Vel::Entity {
   VEL_ENTITY( Leaf )
   VEL_KEY( U32, id )
   VEL_ATTRIBUTE( U32, color )
   VEL_ENTITY_END
   VEL_IN_SLAB( Leaf )

 public:
   static inline size_t alive = 0;
   explicit Leaf( U32 id, U32 color = 0 ) : id_( id ), color_( color ) { ++alive; }
   ~Leaf() override { --alive; }
};

// A variable of it would be deleted with the last Ptr, and again at the end of its block.
static_assert( !std::is_constructible_v< Leaf, U32 > );

class Tree : public Vel::WatchedEntity {
 public:
   class Reactor : public Vel::ReactorOf< Tree > {
    public:
      virtual void onState() {}
      virtual void onWeight( U32 ) {}
      virtual void onRoute( RouteKey ) {}
      virtual void onFlag( RouteKey ) {}
      virtual void onLeaf( U32 ) {}
   };
   VEL_ENTITY( Tree )
   VEL_ATTRIBUTE( U32, state, onState )
   VEL_COLLECTION( Hash, U32, U32, weight, onWeight )
   VEL_VALUES( LabelIndexed, RouteKey, Route, routeKey, route, onRoute )
   VEL_SET( LabelSet, RouteKey, flag, onFlag )
   VEL_ENTITY_COLLECTION( Ordered, U32, Leaf, leaf, onLeaf )
   VEL_ENTITY_COLLECTION( Hash, U32, Self_, branch )
   VEL_ENTITY_END

 public:
   static inline size_t alive = 0;
   explicit Tree( U32 id = 0 ) : id_( id ) { ++alive; }
   ~Tree() override {
      stateIs( 99 ); // changes what was watched, when nobody can listen any more
      weightDelAll();
      --alive;
   }
   std::string name() const override { return Vel::joinText( "tree", id_ ); }

 private:
   U32 id_;
};

/// Writes down what it hears, and then does what the test says.
class Ear : public Tree::Reactor {
 public:
   Ear( std::string& heard, char name, Tree* tree ) : heard_( heard ), name_( name ) {
      notifierIs( tree );
   }
   void onState() override { hear( Vel::joinText( "state=", notifier()->state() ) ); }
   void onWeight( U32 key ) override {
      hear( Vel::joinText( "weight", key, notifier()->weightHas( key ) ? "+" : "-" ) );
   }
   void onRoute( RouteKey key ) override { hear( Vel::joinText( "route", key ) ); }
   void onFlag( RouteKey key ) override { hear( Vel::joinText( "flag", key ) ); }
   void onLeaf( U32 key ) override { hear( Vel::joinText( "leaf", key ) ); }

   std::function< void() > then;

 private:
   void hear( const std::string& what ) {
      heard_ += Vel::joinText( std::string( 1, name_ ), ":", what, " " );
      if ( const auto action = then ) { // a copy, which may outlive the reactor
         action();
      }
   }
   std::string& heard_;
   char name_;
};

TEST( NotificationTest, comesOnceForEachRealChange ) {
   struct Case {
      const char* what;
      std::function< void( Tree& ) > write;
      const char* heard;
   };
   const RouteKey key( 16 );
   const std::vector< Case > cases{
      { "an attribute", []( Tree& t ) { t.stateIs( 1 ), t.stateIs( 1 ), t.stateIs( 2 ); },
        "a:state=1 a:state=2 " },
      { "the initial value", []( Tree& t ) { t.stateIs( 0 ); }, "" },
      { "a collection",
        []( Tree& t ) { t.weightIs( 1, 5 ), t.weightIs( 1, 5 ), t.weightIs( 1, 6 ); },
        "a:weight1+ a:weight1+ " },
      { "a deletion", []( Tree& t ) { t.weightIs( 1, 5 ), t.weightDel( 1 ), t.weightDel( 1 ); },
        "a:weight1+ a:weight1- " },
      { "a deletion of all",
        []( Tree& t ) { t.weightIs( 1, 5 ), t.weightIs( 2, 5 ), t.weightDelAll(); },
        "a:weight1+ a:weight2+ a:weight1- a:weight2- " },
      { "values",
        [&]( Tree& t ) {
           t.routeIs( { key, 1 } ), t.routeIs( { key, 1 } ), t.routeIs( { key, 2 } );
        },
        "a:route16 a:route16 " },
      { "a set", [&]( Tree& t ) { t.flagIs( key ), t.flagIs( key ), t.flagDel( key ); },
        "a:flag16 a:flag16 " },
      { "a member that is false",
        [&]( Tree& t ) { t.flagIs( key, false ), t.flagIs( key ), t.flagIs( key, false ); },
        "a:flag16 a:flag16 " },
      { "entities", []( Tree& t ) { t.leafIs( 1 ), t.leafIs( 1 ), t.leafDel( 1 ), t.leafDel( 1 ); },
        "a:leaf1 a:leaf1 " },
   };
   for ( const Case& one : cases ) {
      const auto tree = Vel::make< Tree >();
      std::string heard;
      const Ear ear( heard, 'a', tree.get() );
      one.write( *tree );
      EXPECT_EQ( heard, one.heard ) << one.what;
   }
}

TEST( NotificationTest, survivesWhatHandlersDoToReactors ) {
   // a, b and c are bound in that order, d is not; a's handler does something at the first change.
   using Ears = std::vector< std::unique_ptr< Ear > >;
   struct Case {
      const char* what;
      std::function< void( Ears&, Tree* ) > inA;
      const char* first;
      const char* second;
   };
   const std::vector< Case > cases{
      { "nothing", []( Ears&, Tree* ) {}, "abc", "abc" },
      { "unbind the next", []( Ears& e, Tree* ) { e[1]->notifierIs( nullptr ); }, "ac", "ac" },
      { "destroy the next", []( Ears& e, Tree* ) { e[1].reset(); }, "ac", "ac" },
      { "destroy the last", []( Ears& e, Tree* ) { e[2].reset(); }, "ab", "ab" },
      { "unbind itself", []( Ears& e, Tree* ) { e[0]->notifierIs( nullptr ); }, "abc", "bc" },
      { "destroy itself", []( Ears& e, Tree* ) { e[0].reset(); }, "abc", "bc" },
      { "destroy all", []( Ears& e, Tree* ) { e.clear(); }, "a", "" },
      { "bind another", []( Ears& e, Tree* t ) { e[3]->notifierIs( t ); }, "abc", "abcd" },
      { "bind the next again",
        []( Ears& e, Tree* t ) { e[1]->notifierIs( nullptr ), e[1]->notifierIs( t ); }, "ac",
        "acb" },
      { "bind one that is bound", []( Ears& e, Tree* t ) { e[1]->notifierIs( t ); }, "abc", "abc" },
   };
   for ( const Case& one : cases ) {
      const auto tree = Vel::make< Tree >();
      std::string heard;
      Ears ears;
      for ( const char name : { 'a', 'b', 'c', 'd' } ) {
         ears.push_back(
            std::make_unique< Ear >( heard, name, name == 'd' ? nullptr : tree.get() ) );
      }
      const auto namesHeard = [&]( U32 state ) {
         heard.clear();
         tree->stateIs( state );
         std::string names;
         for ( size_t at = heard.find( ':' ); at != std::string::npos;
               at = heard.find( ':', at + 1 ) ) {
            names += heard[at - 1];
         }
         return names;
      };
      ears[0]->then = [&, first = true]() mutable {
         if ( tree->state() == 1 && std::exchange( first, false ) ) {
            one.inA( ears, tree.get() );
         }
      };
      EXPECT_EQ( namesHeard( 1 ), one.first ) << one.what;
      EXPECT_EQ( namesHeard( 2 ), one.second ) << one.what;
   }
}

TEST( NotificationTest, ofAWriteInAHandlerComesAtOnce ) {
   const auto tree = Vel::make< Tree >();
   std::string heard;
   Ear a( heard, 'a', tree.get() );
   const Ear b( heard, 'b', tree.get() );
   a.then = [&] { tree->weightDel( 1 ); };
   tree->weightIs( 1, 5 );
   EXPECT_EQ( heard, "a:weight1+ a:weight1- b:weight1- b:weight1- " );

   // Each key once, although the handler removes others and makes new ones.
   heard.clear();
   a.then = nullptr;
   for ( U32 key = 1; key <= 4; ++key ) {
      tree->weightIs( key, 5 );
   }
   a.then = [&] {
      if ( !tree->weightHas( 1 ) && tree->weightHas( 3 ) ) {
         tree->weightDel( 3 );
         tree->weightIs( 5, 5 );
      }
   };
   heard.clear();
   tree->weightDelAll();
   EXPECT_EQ( heard, "a:weight1- a:weight3- b:weight3- a:weight5+ b:weight5+ b:weight1- "
                     "a:weight2- b:weight2- a:weight4- b:weight4- " );
   EXPECT_EQ( tree->weights(), 1U );
}

TEST( NotificationTest, keepsAnEntityThatIsReleasedInIt ) {
   const std::vector< std::function< void( Tree& ) > > writes{
      []( Tree& t ) { t.stateIs( 1 ); },
      []( Tree& t ) { t.weightDelAll(); },
      []( Tree& t ) { t.flagDelAll(); },
      []( Tree& t ) { t.leafDelAll(); },
      []( Tree& t ) { EXPECT_NE( t.leafIs( 9 ), nullptr ); },
   };
   for ( const auto& write : writes ) {
      Ptr< Tree > tree = Vel::make< Tree >();
      for ( const U32 key : { 1U, 2U, 3U } ) {
         tree->weightIs( key, 1 );
         tree->flagIs( RouteKey( key ) );
         tree->leafIs( key );
      }
      std::string heard;
      Ear ear( heard, 'a', tree.get() );
      Ptr< Leaf > keep; // the new leaf must outlive its tree for the caller to look at it
      ear.then = [&] {
         keep = ear.notifier()->leaf( 9 );
         ear.notifierIs( nullptr );
         EXPECT_EQ( Tree::alive, 1U );
      };
      Tree& only = *tree;
      tree = nullptr; // the reactor holds the last reference
      EXPECT_EQ( Tree::alive, 1U );
      write( only );
      EXPECT_EQ( Tree::alive, 0U );
   }
}

TEST( NotificationTest, isWholeAgainAfterAHandlerThrew ) {
   const auto tree = Vel::make< Tree >();
   std::string heard;
   Ear a( heard, 'a', tree.get() );
   auto b = std::make_unique< Ear >( heard, 'b', tree.get() );
   a.then = [&] {
      b.reset();
      throw std::runtime_error( "handler" );
   };
   EXPECT_THROW( tree->stateIs( 1 ), std::runtime_error );
   a.then = nullptr;
   tree->stateIs( 2 );
   EXPECT_EQ( heard, "a:state=1 a:state=2 " );
}

TEST( ReactorTest, refusesAnEntityThatNothingIsHeardOf ) {
   class LeafReactor : public Vel::ReactorOf< Leaf > {};
   const auto leaf = Vel::make< Leaf >( 1U );
   const AssertionsThrow throwing;
   LeafReactor reactor;
   EXPECT_THROW( reactor.notifierIs( leaf.get() ), AssertionThrown );
   EXPECT_EQ( reactor.notifier(), nullptr );
}

TEST( EntityTest, composesItsNameFromItsPlace ) {
   const auto tree = Vel::make< Tree >( 7U );
   Leaf* const leaf = tree->branchIs( 4 )->leafIs( 5 );
   EXPECT_EQ( leaf->fullName(), "tree7/branch/tree4/leaf/5" );
   EXPECT_EQ( leaf->parentAttrName(), "leaf" );
   EXPECT_EQ( leaf->parent()->parentAttrName(), "branch" );
   EXPECT_EQ( tree->parentAttrName(), "" );
}

TEST( EntityTest, thatLeavesItsCollectionForgetsItsParent ) {
   const std::vector< std::function< void( Ptr< Tree >& ) > > ways{
      []( Ptr< Tree >& t ) { t->leafDel( 5 ); },
      []( Ptr< Tree >& t ) { t->leafDelAll(); },
      []( Ptr< Tree >& t ) { t->leafWork().clear(); },
      []( Ptr< Tree >& t ) { t = nullptr; },
   };
   for ( const auto& leave : ways ) {
      Ptr< Tree > tree = Vel::make< Tree >();
      const Ptr< Leaf > leaf = tree->leafIs( 5, 3U );
      EXPECT_EQ( leaf->parent(), tree.get() );
      leave( tree );
      EXPECT_EQ( leaf->parent(), nullptr );
      EXPECT_EQ( leaf->fullName(), "5" );
      EXPECT_EQ( leaf->color(), 3U );
   }
   EXPECT_EQ( Leaf::alive, 0U );
}

TEST( EntityCollectionTest, makesAnEntityOnce ) {
   const auto tree = Vel::make< Tree >();
   Leaf* const leaf = tree->leafIs( 5, 3U );
   EXPECT_EQ( tree->leafIs( 5, 4U ), leaf );
   EXPECT_EQ( leaf->color(), 3U );
   EXPECT_EQ( tree->leaf( 6 ), nullptr );
   const Ptr< Leaf > kept = leaf;
   tree->leafDel( 5 );
   Leaf* const second = tree->leafIs( 5, 4U );
   EXPECT_NE( second, leaf );
   EXPECT_EQ( second->parent(), tree.get() );
   EXPECT_EQ( kept->parent(), nullptr );
}

TEST( EntityCollectionTest, givesNullWhenAHandlerHasRemovedTheNewEntity ) {
   const auto tree = Vel::make< Tree >();
   std::string heard;
   Ear ear( heard, 'a', tree.get() );
   ear.then = [&] { tree->leafDel( 5 ); };
   EXPECT_EQ( tree->leafIs( 5 ), nullptr );
   EXPECT_EQ( Leaf::alive, 0U );
}

// --- Slabs

TEST( SlabTest, entitiesOutliveTheirParentAndTheirThread ) {
   constexpr U32 count = 3000; // several chunks
   std::vector< Ptr< Leaf > > kept;
   std::thread( [&] {
      const auto tree = Vel::make< Tree >();
      for ( U32 i = 0; i < count; ++i ) {
         const Ptr< Leaf > leaf = tree->leafIs( i, i * 3 );
         if ( i % 3 == 0 ) {
            kept.push_back( leaf );
         }
      }
   } ).join();
   EXPECT_EQ( Leaf::alive, kept.size() );
   for ( const auto& leaf : kept ) {
      ASSERT_EQ( leaf->color(), leaf->id() * 3 );
   }
   kept.clear();
   EXPECT_EQ( Leaf::alive, 0U );
}

TEST( SlabTest, recordsAreAlignedAndApart ) {
   for ( const size_t size : { 1U, 24U, 96U, 1000U, 8192U } ) {
      auto* const pool = new Vel::SlabPool( size, alignof( std::max_align_t ) );
      std::vector< std::byte* > records;
      const auto fill = [&]( size_t count ) {
         while ( records.size() < count ) {
            records.push_back( static_cast< std::byte* >( pool->allocate() ) );
            std::memset( records.back(), static_cast< int >( records.size() & 0xFF ), size );
         }
      };
      fill( 300 );
      for ( int i = 0; i < 100; ++i ) {
         Vel::SlabPool::release( records.back() );
         records.pop_back();
      }
      fill( 400 );
      for ( size_t i = 0; i < records.size(); ++i ) {
         ASSERT_EQ( reinterpret_cast< uintptr_t >( records[i] ) % alignof( std::max_align_t ), 0U );
         for ( const size_t at : { size_t{ 0 }, size - 1 } ) {
            ASSERT_EQ( records[i][at], static_cast< std::byte >( ( i + 1 ) & 0xFF ) );
         }
      }
      pool->ownerEnds();
      for ( std::byte* const record : records ) {
         Vel::SlabPool::release( record );
      }
   }
}

// --- The roots

TEST( EntityManagerTest, holdsRootsByName ) {
   class Ears : public Vel::EntityManager::Reactor {
    public:
      void onRoot( const std::string& name ) override { heard += name + " "; }
      std::string heard;
   };
   const auto manager = Vel::make< Vel::EntityManager >();
   Ears ears;
   ears.notifierIs( manager.get() );
   const auto tree = Vel::make< Tree >();
   manager->rootIs( "oak", tree );
   manager->rootIs( "oak", tree );
   manager->rootIs( "ash", Vel::make< Leaf >( 1U ) );
   EXPECT_EQ( manager->root( "oak" ), tree.get() );
   EXPECT_EQ( manager->root< Tree >( "oak" ), tree.get() );
   EXPECT_EQ( manager->root< Tree >( "ash" ), nullptr ); // of another type
   EXPECT_EQ( manager->root( "elm" ), nullptr );
   EXPECT_EQ( manager->entity( "oak" ), tree.get() );
   EXPECT_EQ( manager->entity( "oak/leaf/3" ), nullptr );
   EXPECT_EQ( manager->entity( "oak/branch/2/leaf/3" ), nullptr );
   const Leaf* const leaf = tree->branchIs( 2 )->leafIs( 3 );
   EXPECT_EQ( manager->entity( "oak/branch/2/leaf/3" ), leaf );
   EXPECT_EQ( manager->entity( "elm/leaf/3" ), nullptr );
   manager->rootIs( "oak", Vel::make< Tree >() );
   manager->rootIs( "oak", nullptr );
   EXPECT_FALSE( manager->rootHas( "oak" ) );
   EXPECT_EQ( manager->roots(), 1U );
   EXPECT_EQ( ears.heard, "oak ash oak oak " );
}

} // namespace
} // namespace VelTest
