// What would break if a next hop or an interface went, told without touching anything.

#include "tests/agent/ProgramFixtures.h"

#include <gmock/gmock.h>

#include <nlohmann/json.hpp>

#include "agent/Impact.h"

namespace VelTest {
namespace {

/// 10.0.0.1 and fe80::1 are one router on a; 10.0.0.2 is on a and on b; 10.0.0.3 is on b; 10.0.0.9
/// is not resolved.
Programmed small() {
   Programmed made(
      { tableOf(
         { routeOf( 100, { swapVia( 21, "10.0.0.1", "a" ) } ),
           routeOf( 101, { swapVia( 21, "10.0.0.1", "a" ) } ),
           routeOf( 102, { swapVia( 21, "fe80::1", "a" ) } ),
           routeOf( 200, { swapVia( 22, "10.0.0.1", "a" ), swapVia( 22, "10.0.0.3", "b" ) } ),
           routeOf( 300, { swapVia( 23, "10.0.0.2" ) } ),
           routeOf( 400, { swapVia( 24, "10.0.0.3", "b" ), swapVia( 24, "10.0.0.9", "b" ) } ),
           routeOf( 500, { swapVia( 25, "fe80::5" ) } ),
           R"({"stack":[600,601],"vias":[)" + swapVia( 26, "10.0.0.3", "b" ) + "]}" } ) },
      { neighborOf( "10.0.0.1", "a", 1 ), neighborOf( "fe80::1", "a", 1 ),
        neighborOf( "10.0.0.2", "a", 2 ), neighborOf( "10.0.0.2", "b", 2 ),
        neighborOf( "10.0.0.3", "b", 3 ), neighborOf( "fe80::5", "c", 5 ) },
      { .withFecs = false } );
   made.apply( 0 );
   return made;
}

ImpactTarget targetOf( const LabelAgent& agent, const std::string& nextHop,
                       const std::string& interface ) {
   ImpactTarget target;
   if ( !nextHop.empty() ) {
      target.nextHop = IpGenAddr::parse( nextHop );
   }
   if ( !interface.empty() ) {
      target.intf = agent.interfaces().intf( interface ).value();
   }
   return target;
}

/// "100 0/1".
template< class Hits, class Key >
std::string hitsText( const Hits& hits, const Key& key ) {
   std::string out;
   for ( const auto& hit : hits ) {
      out += joinText( out.empty() ? "" : ", ", key( hit ), " ", hit.ways.left, "/", hit.ways.of );
   }
   return out;
}
std::string labelsText( const Impact& impact ) {
   return hitsText( impact.labels(), []( const ImpactedLabel& hit ) { return hit.label; } );
}

TEST( Impact, WhoLosesAllAndWhoLosesSome ) {
   struct Case {
      std::string nextHop;
      std::string interface;
      std::string labels;
      std::vector< size_t > l3; ///< ways left of the L3 adjacencies that are hit
      std::vector< size_t > l2;
   };
   const Programmed made = small();
   const Ptr< Mpls::LfibHwStatus > codes(
      made.agent->entityManager().root< Mpls::LfibHwStatus >( "lfibHwStatus" ) );
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
      const Impact impact( made.agent->entityManager(),
                           targetOf( *made.agent, one.nextHop, one.interface ) );
      EXPECT_TRUE( impact.known() );
      EXPECT_EQ( labelsText( impact ), one.labels );
      const auto left = []( const std::vector< ImpactedAdjacency >& hits ) {
         std::vector< size_t > ways;
         for ( const ImpactedAdjacency& hit : hits ) {
            ways.push_back( hit.ways.left );
         }
         std::ranges::sort( ways );
         return ways;
      };
      const auto sorted = []( std::vector< size_t > ways ) {
         std::ranges::sort( ways );
         return ways;
      };
      EXPECT_EQ( left( impact.l3Adjacencies() ), sorted( one.l3 ) );
      EXPECT_EQ( left( impact.l2Adjacencies() ), sorted( one.l2 ) );
   }
   for ( const auto& [nextHop, interface] : std::vector< std::pair< std::string, std::string > >{
            { "10.0.0.8", "" }, { "10.0.0.3", "a" }, { "fe80::9", "" } } ) {
      EXPECT_FALSE(
         Impact( made.agent->entityManager(), targetOf( *made.agent, nextHop, interface ) )
            .known() )
         << nextHop;
   }
}

// The prediction, carried out.
TEST( Impact, ComesTrue ) {
   for ( const std::string address :
         { "10.0.0.1", "fe80::1", "10.0.0.2", "10.0.0.3", "fe80::5" } ) {
      SCOPED_TRACE( address );
      const Programmed made = small();
      std::map< std::string, std::string > expected; // label, state
      ProgramResult before( *made.agent );
      for ( size_t i = 0; i < before.routes(); ++i ) {
         expected[textOf( before.key( i ) )] = name( before.state( i ) );
      }
      const Impact impact( made.agent->entityManager(), targetOf( *made.agent, address, "" ) );
      for ( const ImpactedLabel& hit : impact.labels() ) {
         expected[textOf( hit.label )] = hit.ways.none() ? "unprogrammed" : "partiallyProgrammed";
      }
      for ( const std::string interface : { "a", "b", "c" } ) {
         made.agent->l3().neighborDel(
            { *made.agent->interfaces().intf( interface ), *IpGenAddr::parse( address ) } );
      }
      made.settle();
      const ProgramResult after( *made.agent );
      std::map< std::string, std::string > found;
      for ( size_t i = 0; i < after.routes(); ++i ) {
         found[textOf( after.key( i ) )] = name( after.state( i ) );
      }
      EXPECT_EQ( found, expected );
   }
}

TEST( Impact, TouchesNothing ) {
   const Programmed made = small();
   const auto everything = [&] {
      return Vel::printText( made.agent->entityManager(), { .depth = 20 } );
   };
   const std::string before = everything();
   const Impact impact( made.agent->entityManager(), targetOf( *made.agent, "10.0.0.1", "" ) );
   EXPECT_FALSE( impact.labels().empty() );
   EXPECT_EQ( everything(), before );
   made.settle();
   EXPECT_EQ( everything(), before ) << "and nothing was queued";
}

TEST( Impact, RefusedLabelsLoseNothing ) {
   const Programmed made = small();
   const EntityManager& roots = made.agent->entityManager();
   roots.root< Mpls::LfibHwStatus >( "lfibHwStatus" )
      ->unprogrammedRouteIs( { RouteKey( 101 ), Mpls::RouteStatusCode::notProgrammed } );
   EXPECT_EQ( labelsText( Impact( roots, targetOf( *made.agent, "10.0.0.1", "" ) ) ),
              "100 0/1, 200 1/2" );
}

// --- Hardware with FECs.

/// 100 changes over from a to b, 110 only loses a part, 120 has its backup on a too, 130 is meant
/// to leave by its backup on b; the rest leaves by what other agents have.
Programmed guarded() {
   const auto route = []( uint32_t label, const std::vector< std::string >& vias,
                          const std::string& backup, const std::string& rest = "" ) {
      return joinText( R"({"label":)", label, R"(,"vias":[)", joined( vias ), R"(],"backupVias":[)",
                       backup, "]", rest, "}" );
   };
   Programmed made(
      { tableOf(
         { route( 100, { swapVia( 21, "10.0.0.1", "a" ) }, swapVia( 22, "10.0.0.2", "b" ) ),
           route( 110, { swapVia( 23, "10.0.0.1", "a" ), swapVia( 23, "10.0.0.3", "c" ) },
                  swapVia( 22, "10.0.0.2", "b" ) ),
           route( 120, { swapVia( 24, "10.0.0.1", "a" ) }, swapVia( 25, "10.0.0.4", "a" ) ),
           route( 130, { swapVia( 26, "10.0.0.1", "a" ) }, swapVia( 22, "10.0.0.2", "b" ),
                  R"(,"usableAsPrimaryVias":false)" ),
           routeOf( 140, { R"({"action":"swap","outLabels":[27],"nextHopGroup":"g"})" } ),
           routeOf( 150, { R"({"action":"swap","outLabels":[28],"tunnel":"t"})" } ) },
         R"("nextHopGroups":[{"name":"g","vias":[{"nextHop":"10.0.0.1","interface":"a"}]}],)"
         R"("tunnels":[{"name":"t","vias":[{"nextHop":"10.0.0.1","interface":"a"}]}],)" ) },
      { neighborOf( "10.0.0.1", "a", 1 ), neighborOf( "10.0.0.2", "b", 2 ),
        neighborOf( "10.0.0.3", "c", 3 ), neighborOf( "10.0.0.4", "a", 4 ) } );
   made.apply( 0 );
   return made;
}

/// "loses all; changes over; loses some".
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
   const Programmed made = guarded();
   const EntityManager& roots = made.agent->entityManager();
   const auto fates = [&]( const std::string& interface ) {
      return fatesText( Impact( roots, targetOf( *made.agent, "", interface ) ) );
   };
   EXPECT_EQ( fates( "a" ), "120; 100; 110" );
   EXPECT_EQ( fates( "b" ), "130!; ; " );
   EXPECT_EQ( fates( "c" ), "; ; 110" );
   const Impact impact( roots, targetOf( *made.agent, "", "a" ) );
   ASSERT_EQ( impact.foreign().size(), 1U );
   EXPECT_EQ( impact.foreign().front().labels, 1U );
   EXPECT_EQ( impact.tunnelLabels(), 1U );
   const auto adjacency = [&]( uint32_t label ) {
      return roots.root< MplsSm >( "mplsSm" )
         ->mplsState( L3::VrfName::defaultVrf() )
         ->route( RouteKey( label ) )
         ->l3Adj();
   };
   const std::string fec = fecIdText( adjacency( 100 )->extFecInfo()->fecId() );
   const std::string byFec = fecIdText( adjacency( 100 )->backupAdj()->extFecInfo()->fecId() );
   const U64 by = adjacency( 100 )->backupAdj()->index();
   std::ostringstream text;
   EXPECT_TRUE( printText( text, impact, { "", "a", "interface a" } ) );
   EXPECT_TRUE( text.str().starts_with( joinText(
      "if interface a goes: 1 label loses all ways out, 1 label moves to its backup, 1 label loses "
      "some\n120  stops forwarding\n100  moves to its backup, L3 adjacency ",
      by, "\n110  1 of 2 ways left, protected by L3 adjacency ", by, "\n" ) ) )
      << text.str();
   EXPECT_THAT( text.str(), testing::HasSubstr( "\nFEC " + fec + "  moves to its backup, FEC " +
                                                byFec + "\n" ) );
   EXPECT_THAT( text.str(), testing::HasSubstr( "1 label leaves through FEC 3:" ) );
   EXPECT_THAT( text.str(), testing::HasSubstr( "1 label leaves through tunnels" ) );
   std::ostringstream json;
   EXPECT_TRUE( printJson( json, impact, { "", "a", "interface a" } ) );
   const auto read = nlohmann::json::parse( json.str() );
   EXPECT_EQ( read["loseAll"], nlohmann::json::parse( "[120]" ) );
   EXPECT_EQ( read["protected"][0]["label"], 100 );
   EXPECT_EQ( read["protected"][0]["by"], by );
   EXPECT_EQ( read["fecs"]["protected"][0]["fec"], fec );
   EXPECT_EQ( read["fecs"]["protected"][0]["by"], byFec );
   EXPECT_EQ( read["foreign"][0]["labels"], 1 );
   EXPECT_EQ( read["tunnelLabels"], 1 );

   // Hardware has changed over already: now the label lives by its backup.
   made.agent->hardware().linkIs( *made.agent->interfaces().intf( "a" ), false );
   made.settle();
   EXPECT_EQ( fates( "a" ), "120; ; 110" );
   EXPECT_EQ( fates( "b" ), "100! 130!; ; " );
}

// The prediction, carried out.
TEST( Impact, ComesTrueWithBackups ) {
   const Programmed made = guarded();
   for ( const std::string address : { "10.0.0.1", "10.0.0.4" } ) {
      made.agent->l3().neighborDel(
         { *made.agent->interfaces().intf( "a" ), *IpGenAddr::parse( address ) } );
   }
   made.settle();
   const ProgramResult after( *made.agent );
   for ( const auto& [label, state] :
         std::vector< std::pair< uint32_t, std::string > >{ { 100, "partiallyProgrammed" },
                                                            { 110, "partiallyProgrammed" },
                                                            { 120, "unprogrammed" } } ) {
      EXPECT_EQ( name( after.route( RouteKey( label ) )->state ), state ) << label;
   }
}

TEST( Impact, TextAndJson ) {
   const Programmed made = small();
   const Impact impact( made.agent->entityManager(), targetOf( *made.agent, "", "b" ) );
   const ImpactQuestion question{ "", "b", "interface b" };
   const auto numberOf = [&]( const std::vector< ImpactedAdjacency >& hits, size_t i ) {
      return textOf( hits.at( i ).index );
   };
   std::ostringstream text;
   EXPECT_TRUE( printText( text, impact, question ) );
   EXPECT_TRUE( text.str().starts_with(
      "if interface b goes: 2 labels lose all ways out, 2 labels lose some\n"
      "400  stops forwarding\n"
      "600/601  stops forwarding\n"
      "200  1 of 2 ways left\n"
      "300  1 of 2 ways left\n"
      "L3 adjacency " ) )
      << text.str();
   std::ostringstream json;
   EXPECT_TRUE( printJson( json, impact, question ) );
   const auto hits = [&]( const std::vector< ImpactedAdjacency >& all ) {
      std::string lose;
      std::string some;
      for ( size_t i = 0; i < all.size(); ++i ) {
         std::string& out = all[i].ways.none() ? lose : some;
         out += out.empty() ? "" : ",";
         out += all[i].ways.none() ? numberOf( all, i )
                                   : R"({"index":)" + numberOf( all, i ) + R"(,"left":1,"of":2})";
      }
      return R"({"loseAll":[)" + lose + R"(],"loseSome":[)" + some + R"(],"protected":[]})";
   };
   EXPECT_EQ( json.str(), R"({"nextHop":null,"interface":"b",
"loseAll":[400,[600,601]],"loseSome":[{"label":200,"left":1,"of":2},{"label":300,"left":1,"of":2}],"protected":[],
"l3Adjacencies":)" + hits( impact.l3Adjacencies() ) +
                             ",\n\"l2Adjacencies\":" + hits( impact.l2Adjacencies() ) +
                             ",\n\"fecs\":{\"loseAll\":[],\"loseSome\":[],\"protected\":[]},\n"
                             "\"foreign\":[],\"tunnelLabels\":0}\n" );
}

} // namespace
} // namespace VelTest
