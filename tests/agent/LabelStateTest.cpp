// The state of a label is what its frames do: random tables, neighbours and faults, and many flows
// with every label. Whoever says something of the label agrees.

#include <random>
#include <set>

#include <gmock/gmock.h>

#include "inspect/Audit.h"
#include "inspect/Explain.h"
#include "inspect/Impact.h"
#include "tests/Seed.h"
#include "tests/agent/ProgramFixtures.h"

namespace VelTest {
namespace {

using Inspect::LabelState;

/// Draws tables whose label operations can be told apart: every via puts on a label of its own.
class Draw {
 public:
   /// What is put on by the vias of a route, or behind them.
   struct Route {
      std::set< uint32_t > own;
      bool usable = true;
   };

   explicit Draw( uint64_t seed ) : random_( seed ) {}

   size_t upTo( size_t many ) { return random_() % many; }
   bool oneIn( size_t many ) { return upTo( many ) == 0; }
   std::string intf() { return joinText( "eth", 1 + upTo( 3 ) ); }

   /// To one of three neighbours, each on its interface.
   std::string via( Route* route = nullptr ) {
      const size_t at = 1 + upTo( 3 );
      if ( route ) {
         route->own.insert( nextLabel_ );
      }
      return swapVia( nextLabel_++, joinText( "10.0.0.", at ), joinText( "eth", at ) );
   }
   std::string intoTunnel( Route* route = nullptr ) {
      if ( route ) {
         route->own.insert( nextLabel_ );
      }
      return joinText( R"({"action":"swap","outLabels":[)", nextLabel_++, R"(],"tunnel":"f)",
                       upTo( 3 ), "\"}" );
   }
   /// Whose operation is its own.
   std::string into( const std::string& kind, Route& route ) {
      const std::string name = joinText( "f", upTo( 3 ) );
      route.own = { puts_[kind + "s" + name] };
      return joinText( "\"", kind, "\":\"", name, "\"" );
   }
   std::string definitions() {
      std::string text;
      puts_.clear();
      for ( const std::string list : { "tunnels", "nextHopGroups", "externalFecs" } ) {
         std::vector< std::string > each;
         for ( const std::string name : { "f0", "f1" } ) { // f2 is never there
            if ( !oneIn( 4 ) ) {
               puts_[list + name] = nextLabel_;
               each.push_back(
                  joinText( R"({"name":")", name, R"(","vias":[)", foreignVia( list ), "]}" ) );
            }
         }
         text += joinText( "\"", list, "\":[", joined( each ), "]," );
      }
      return text;
   }
   std::string route( uint32_t label, bool withFecs, Route& route ) {
      if ( withFecs && oneIn( 6 ) ) {
         return joinText( R"({"label":)", label, ",", into( "externalFec", route ), "}" );
      }
      std::vector< std::string > vias;
      if ( withFecs && oneIn( 5 ) ) {
         vias.push_back( "{" + into( "nextHopGroup", route ) + "}" );
      } else {
         const bool tunnels = withFecs && oneIn( 3 );
         do {
            vias.push_back( tunnels ? intoTunnel( &route ) : via( &route ) );
         } while ( vias.size() < 3 && oneIn( 2 ) );
      }
      route.usable = !oneIn( 6 );
      const std::string rest = route.usable ? "" : primariesDisabled;
      return oneIn( 3 )
                ? guardedRoute( label, vias, oneIn( 3 ) && withFecs ? intoTunnel() : via(), rest )
                : routeOf( label, vias, rest );
   }
   std::string faults() {
      std::vector< std::string > each;
      while ( oneIn( 2 ) ) {
         const std::vector< std::string > kinds{
            "link-down " + intf(), "not-ready " + intf(),
            "route-capacity 4",    "adjacency-capacity 3",
            "fec-capacity 3",      joinText( "refuse label ", 100 + upTo( 8 ) ),
            "link-down " + intf(), joinText( "forget label ", 100 + upTo( 8 ) ) };
         each.push_back( kinds[upTo( kinds.size() )] );
      }
      std::string text;
      for ( const std::string& fault : each ) {
         text += ( text.empty() ? "" : "; " ) + fault;
      }
      return text;
   }

 private:
   std::string foreignVia( const std::string& list ) {
      const size_t at = 1 + upTo( 3 );
      const std::string to =
         oneIn( 3 ) ? joinText( R"("tunnel":"f)", upTo( 3 ), "\"}" )
                    : joinText( R"("nextHop":"10.0.0.)", at, R"(","interface":"eth)", at, "\"}" );
      return list == "tunnels"
                ? "{" + to
                : joinText( R"({"action":"swap","outLabels":[)", nextLabel_++, "],", to );
   }

   std::mt19937_64 random_;
   uint32_t nextLabel_ = 1000;
   std::map< std::string, uint32_t >
      puts_; // what each definition of this table puts on; 0: it is not there
};

/// The labels that frames leave with, of many flows; 0 for a frame that does not leave.
std::set< uint32_t > outLabels( const Programmed& made, uint32_t label ) {
   std::set< uint32_t > found;
   for ( U32 flow = 0; flow < 48; ++flow ) {
      const Driver::ForwardResult result =
         made.agent->hardware().forward( LabelAgent::vrfId, Test::frameOf( label, flow ) );
      const Driver::Bytes* const bytes =
         result.frames.empty() ? nullptr : &result.frames.front().bytes;
      found.insert( !bytes ? 0
                           : static_cast< uint32_t >( ( *bytes )[14] << 12 | ( *bytes )[15] << 4 |
                                                      ( *bytes )[16] >> 4 ) );
   }
   return found;
}

/// By what left alone.
LabelState stateByFrames( const std::set< uint32_t >& left, const Draw::Route& route ) {
   if ( left == std::set< uint32_t >{ 0 } ) {
      return LabelState::unprogrammed;
   }
   return route.usable && left == route.own ? LabelState::programmed
                                            : LabelState::partiallyProgrammed;
}

TEST( LabelState, IsWhatFramesDo ) {
   const uint64_t seed = testSeed();
   std::array< size_t, 3 > seen{};
   for ( uint64_t round = 0; round < 1000; ++round ) {
      Draw draw( seed + round );
      const bool withFecs = !draw.oneIn( 4 );
      std::map< uint32_t, Draw::Route > routes;
      std::string text;
      std::vector< LabelTable > tables;
      for ( size_t i = draw.upTo( 2 ); i < 2; ++i ) { // what the first one had may still forward
         std::vector< std::string > texts;
         routes.clear();
         const std::string definitions = draw.definitions();
         for ( uint32_t label = 100; label < 108; ++label ) {
            texts.push_back( draw.route( label, withFecs, routes[label] ) );
         }
         text += tableText( texts, definitions ) + "\n";
         tables.push_back( tableOf( texts, definitions ) );
      }
      std::vector< Neighbor > neighbors;
      for ( uint8_t at = 1; at <= 3; ++at ) {
         neighbors.push_back(
            neighborOf( joinText( "10.0.0.", U32{ at } ), joinText( "eth", U32{ at } ), at ) );
         neighbors.back().resolved = !draw.oneIn( 5 );
      }
      const std::string faults = draw.faults();
      const U32 flips = static_cast< U32 >( draw.upTo( 4 ) );
      SCOPED_TRACE(
         joinText( "VELMPLS_SEED=", seed + round, " ", faults, " eth", flips, "\n", text ) );
      Programmed made( tables, neighbors, withFecs, faults );
      for ( size_t i = 0; i < tables.size(); ++i ) {
         made.apply( i );
      }
      if ( flips != 0 ) {
         made.agent->hardware().linkIs( made.intf( joinText( "eth", flips ) ), false );
         made.settle();
      }
      const EntityManager& entities = made.agent->entityManager();
      std::set< RouteKey > told; // by the audit: the library cannot know what is behind tunnels
      for ( const Inspect::AuditFinding& one : Inspect::Audit( entities ).run().differences ) {
         ASSERT_TRUE( one.stage != Inspect::AuditStage::published ||
                      faults.find( "forget" ) != std::string::npos )
            << textOf( one.label ) << one.object << ": " << one.expected << " / " << one.found;
         if ( one.found.find( "leads nowhere" ) != std::string::npos ||
              one.found.find( "as it was before" ) != std::string::npos ) {
            told.insert( one.label );
         }
      }
      const ProgramResult result( *made.agent );
      std::set< RouteKey > hit;
      for ( const std::string intf : { "eth1", "eth2", "eth3" } ) {
         const Inspect::Impact impact( entities, { .intf = made.intf( intf ) } );
         for ( const Inspect::ImpactedLabel& one : impact.labels() ) {
            hit.insert( one.label );
         }
      }
      for ( const auto& [label, route] : routes ) {
         const RouteKey key( label );
         const LabelState state = stateByFrames( outLabels( made, label ), route );
         ++seen[static_cast< size_t >( state )];
         ASSERT_EQ( textOf( Inspect::LabelStates( entities ).of( key ).state ), textOf( state ) )
            << label << ": " << made.stateOf( label );
         ASSERT_EQ( textOf( result.route( key )->state ), textOf( state ) ) << label;
         ASSERT_EQ( textOf( Inspect::Explanation( entities, key, {} ).state() ), textOf( state ) )
            << label;
         if ( state !=
              LabelState::partiallyProgrammed ) { // else it may leave by what nobody can tell
            ASSERT_EQ( hit.contains( key ), state == LabelState::programmed ) << label;
         }
         if ( faults.find( joinText( "forget label ", label ) ) == std::string::npos ) {
            const auto code = made.root< Mpls::LfibHwStatus >( "lfibHwStatus" )
                                 .unprogrammedRoute( key )
                                 .statusCode;
            const std::string publishedAs = textOf( code );
            ASSERT_TRUE( ( publishedAs == "notProgrammed" ? "unprogrammed" : publishedAs ) ==
                            stringValue( state ) ||
                         ( publishedAs == "programmed" &&
                           state == LabelState::partiallyProgrammed && told.contains( key ) ) )
               << label << ": " << publishedAs << ", " << made.stateOf( label );
         }
      }
   }
   EXPECT_THAT( seen, ::testing::Each( ::testing::Gt( 400U ) ) );
}

} // namespace
} // namespace VelTest
