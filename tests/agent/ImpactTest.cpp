// What would break if a next hop or an interface went, told without touching anything.

#include "tests/agent/ProgramFixtures.h"

#include <map>

#include <gmock/gmock.h>

#include "agent/report/ImpactPrinter.h"

namespace VelTest {
namespace {

using namespace Vel::Inspect;

/// An agent that can be asked what goes with a next hop, an interface, or a next hop on one.
struct Asked : Programmed {
   Asked( const LabelTable& table, const std::vector< Neighbor >& neighbors, bool withFecs )
      : Programmed( { table }, neighbors, withFecs ), known( neighbors ) {
      apply( 0 );
   }
   Impact impact( const std::string& nextHop, const std::string& interface ) const {
      ImpactTarget target;
      target.nextHop = IpGenAddr::parse( nextHop );
      target.intf = interface.empty() ? IntfId() : intf( interface );
      return { agent->entityManager(), target };
   }
   std::map< std::string, std::string > states() const {
      std::map< std::string, std::string > out;
      const ProgramResult result( *agent );
      for ( size_t i = 0; i < result.routes(); ++i ) {
         out[textOf( result.key( i ) )] = stringValue( result.state( i ) );
      }
      return out;
   }

   const std::vector< Neighbor > known;
};

/// Without FECs: 10.0.0.1 and fe80::1 are one router on a; 10.0.0.2 is on a and on b; 10.0.0.3 is
/// on b; 10.0.0.9 is not resolved.
Asked small() {
   return {
      tableOf( { routeOf( 100, { swapVia( 21, "10.0.0.1", "a" ) } ),
                 routeOf( 101, { swapVia( 21, "10.0.0.1", "a" ) } ),
                 routeOf( 102, { swapVia( 21, "fe80::1", "a" ) } ),
                 routeOf( 200, { swapVia( 22, "10.0.0.1", "a" ), swapVia( 22, "10.0.0.3", "b" ) } ),
                 routeOf( 300, { swapVia( 23, "10.0.0.2" ) } ),
                 routeOf( 400, { swapVia( 24, "10.0.0.3", "b" ), swapVia( 24, "10.0.0.9", "b" ) } ),
                 routeOf( 500, { swapVia( 25, "fe80::5" ) } ),
                 R"({"stack":[600,601],"vias":[)" + swapVia( 26, "10.0.0.3", "b" ) + "]}" } ),
      { neighborOf( "10.0.0.1", "a", 1 ), neighborOf( "fe80::1", "a", 1 ),
        neighborOf( "10.0.0.2", "a", 2 ), neighborOf( "10.0.0.2", "b", 2 ),
        neighborOf( "10.0.0.3", "b", 3 ), neighborOf( "fe80::5", "c", 5 ) },
      false };
}

/// With FECs: 100 changes over from a to b, 110 only loses a part, 120 has its backup on a too, 130
/// is meant to leave by its backup on b; the rest leaves on d by what other agents have.
Asked guarded() {
   const std::string byB = swapVia( 22, "10.0.0.2", "b" );
   const std::string byD =
      R"({"action":"push","outLabels":[99],"nextHop":"10.0.0.5","interface":"d"})";
   return {
      tableOf(
         { guardedRoute( 100, { swapVia( 21, "10.0.0.1", "a" ) }, byB ),
           guardedRoute( 110, { swapVia( 23, "10.0.0.1", "a" ), swapVia( 23, "10.0.0.3", "c" ) },
                         byB ),
           guardedRoute( 120, { swapVia( 24, "10.0.0.1", "a" ) }, swapVia( 25, "10.0.0.4", "a" ) ),
           guardedRoute( 130, { swapVia( 26, "10.0.0.1", "a" ) }, byB, primariesDisabled ),
           routeOf( 140, { intoVia( "nextHopGroup", "g" ) } ),
           routeOf( 150, { intoVia( "tunnel", "t" ) } ) },
         defined( "nextHopGroups", "g", byD ) + defined( "tunnels", "t", byD ) ),
      { neighborOf( "10.0.0.1", "a", 1 ), neighborOf( "10.0.0.2", "b", 2 ),
        neighborOf( "10.0.0.3", "c", 3 ), neighborOf( "10.0.0.4", "a", 4 ),
        neighborOf( "10.0.0.5", "d", 5 ) },
      true };
}

/// "100 0/1, 200 1/2": what is left of the ways of each.
std::string labelsText( const Impact& impact ) {
   std::string out;
   for ( const ImpactedLabel& hit : impact.labels() ) {
      out += joinText( out.empty() ? "" : ", ", hit.label, " ", hit.ways.left, "/", hit.ways.of );
   }
   return out;
}
std::vector< size_t > waysLeft( const std::vector< ImpactedAdjacency >& hits ) {
   std::vector< size_t > left;
   for ( const ImpactedAdjacency& hit : hits ) {
      left.push_back( hit.ways.left );
   }
   return left;
}

TEST( Impact, WhoLosesAllAndWhoLosesSome ) {
   struct Case {
      std::string nextHop;
      std::string interface;
      std::string labels;
      std::vector< size_t > l3; ///< ways left of the L3 adjacencies that are hit
      std::vector< size_t > l2;
   };
   const Asked made = small();
   for ( const Case& one : std::vector< Case >{
            // 102 leaves by the same L2 adjacency as 100 and 101, and keeps it.
            { "10.0.0.1", "", "100 0/1, 101 0/1, 200 1/2", { 0, 1 }, { 1 } },
            { "10.0.0.1", "a", "100 0/1, 101 0/1, 200 1/2", { 0, 1 }, { 1 } },
            { "fe80::1", "", "102 0/1", { 0 }, {} },
            { "10.0.0.2", "", "300 0/2", { 0 }, { 0 } },
            { "10.0.0.2", "b", "300 1/2", { 1 }, { 1 } },
            { "10.0.0.3", "", "200 1/2, 400 0/1, 600/601 0/1", { 1, 0, 0 }, { 1, 0, 0 } },
            { "10.0.0.9", "", "", {}, {} },
            { "fe80::5", "", "500 0/1", { 0 }, { 0 } },
            { "", "a", "100 0/1, 101 0/1, 102 0/1, 200 1/2, 300 1/2", { 0, 0, 1, 1 }, { 0, 1, 1 } },
            { "", "c", "500 0/1", { 0 }, { 0 } } } ) {
      SCOPED_TRACE( one.nextHop + " " + one.interface );
      const Impact impact = made.impact( one.nextHop, one.interface );
      EXPECT_TRUE( impact.known() );
      EXPECT_EQ( labelsText( impact ), one.labels );
      EXPECT_THAT( waysLeft( impact.l3Adjacencies() ),
                   testing::UnorderedElementsAreArray( one.l3 ) );
      EXPECT_THAT( waysLeft( impact.l2Adjacencies() ),
                   testing::UnorderedElementsAreArray( one.l2 ) );
   }
   EXPECT_FALSE( made.impact( "10.0.0.8", "" ).known() );
   EXPECT_FALSE( made.impact( "10.0.0.3", "a" ).known() );
   EXPECT_FALSE( made.impact( "fe80::9", "" ).known() );
}

// The prediction, carried out.
TEST( Impact, ComesTrue ) {
   const auto expectTrue = []( const Asked& made, const std::string& nextHop,
                               const std::string& interface ) {
      SCOPED_TRACE( nextHop + interface );
      std::map< std::string, std::string > expected = made.states();
      const Impact impact = made.impact( nextHop, interface );
      for ( const ImpactedLabel& hit : impact.labels() ) {
         expected[textOf( hit.label )] = losesAll( hit ) ? "unprogrammed" : "partiallyProgrammed";
      }
      for ( const Neighbor& neighbor : made.known ) {
         if ( neighbor.address == nextHop || neighbor.interface == interface ) {
            made.neighborDel( neighbor.address, neighbor.interface );
         }
      }
      made.settle();
      EXPECT_EQ( made.states(), expected );
   };
   for ( const std::string nextHop :
         { "10.0.0.1", "fe80::1", "10.0.0.2", "10.0.0.3", "fe80::5" } ) {
      expectTrue( small(), nextHop, "" );
   }
   for ( const std::string interface : { "a", "b", "c" } ) {
      expectTrue( guarded(), "", interface );
   }
}

/// "loses all; changes over; loses some"; "!": is on its backup.
std::string fatesText( const Impact& impact ) {
   std::string all;
   std::string over;
   std::string some;
   for ( const ImpactedLabel& hit : impact.labels() ) {
      std::string& out = losesAll( hit ) ? all : changesOver( hit ) ? over : some;
      out += joinText( out.empty() ? "" : " ", hit.label, hit.onBackup ? "!" : "" );
   }
   return all + "; " + over + "; " + some;
}

TEST( Impact, WhoHasABackupChangesOver ) {
   const Asked made = guarded();
   const auto fates = [&]( const std::string& interface ) {
      return fatesText( made.impact( "", interface ) );
   };
   EXPECT_EQ( fates( "a" ), "120; 100; 110" );
   EXPECT_EQ( fates( "b" ), "130!; ; " );
   EXPECT_EQ( fates( "c" ), "; ; 110" );
   // Hardware has changed over already: now the label lives by its backup.
   made.agent->hardware().linkIs( made.intf( "a" ), false );
   made.settle();
   EXPECT_EQ( fates( "a" ), "; ; " ); // 120 has lost both of its ways, and is known to have
   EXPECT_EQ( fates( "b" ), "100! 130!; ; " );
}

TEST( Impact, TextAndJson ) {
   const Asked made = guarded();
   const Impact impact = made.impact( "", "a" );
   const ImpactQuestion question{ "", "a", "interface a" };
   std::ostringstream out;
   EXPECT_EQ( labelsText( made.impact( "10.0.0.5", "" ) ), "140 0/1, 150 0/1" );
   EXPECT_TRUE( printText( out, impact, question ) && printJson( out, impact, question ) );
   EXPECT_EQ( out.str(),
              R"(if interface a goes: 1 label loses all ways out, 1 label moves to its backup, )"
              R"(1 label loses some
120  stops forwarding
100  moves to its backup, L3 adjacency 6
110  1 of 2 ways left, protected by L3 adjacency 6
L3 adjacency 2  0 of 1 way left
L3 adjacency 7  0 of 1 way left
L3 adjacency 0  moves to its backup, L3 adjacency 6
L3 adjacency 3  moves to its backup, L3 adjacency 6
L3 adjacency 1  1 of 2 ways left, protected by L3 adjacency 6
L2 adjacency 9  0 of 1 way left
L2 adjacency 10  0 of 1 way left
L2 adjacency 12  0 of 1 way left
L2 adjacency 13  0 of 1 way left
L2 adjacency 11  1 of 2 ways left
FEC 10:2  0 of 1 way left
FEC 10:6  0 of 1 way left
FEC 10:3  moves to its backup, FEC 10:1
FEC 10:4  1 of 2 ways left, protected by FEC 10:1
{"nextHop":null,"interface":"a",
"loseAll":[120],"loseSome":[{"label":110,"left":1,"of":2}],"protected":[{"label":100,"by":6}],
"l3Adjacencies":{"loseAll":[2,7],"loseSome":[{"index":1,"left":1,"of":2}],)"
              R"("protected":[{"index":0,"by":6},{"index":3,"by":6}]},
"l2Adjacencies":{"loseAll":[9,10,12,13],"loseSome":[{"index":11,"left":1,"of":2}],"protected":[]},
"fecs":{"loseAll":["10:2","10:6"],"loseSome":[{"fec":"10:4","left":1,"of":2}],)"
              R"("protected":[{"fec":"10:3","by":"10:1"}]},
"foreign":[],"tunnelLabels":0}
)" );
}

} // namespace
} // namespace VelTest
