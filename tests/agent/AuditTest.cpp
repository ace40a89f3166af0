// The audit: it must agree with what is sound, and find what anybody does to any stage behind the
// state machine's back. ExplainTest and LabelAgentTest ask it too, in every state of theirs.

#include "tests/agent/ProgramFixtures.h"

#include <functional>

#include <gmock/gmock.h>

#include "agent/report/AuditPrinter.h"

namespace VelTest {
namespace {

using namespace Vel::Inspect;

using Mpls::RouteStatusCode;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::StartsWith;
using L2Adj = Mpls::Hardware::L2Adjacency;

const std::string written = " intent -> written";
const std::string reported = " written -> reported";
const std::string published = " reported -> published";

/// "100 intent -> written: expected / found", a line each.
std::vector< std::string > linesOf( const AuditReport& report ) {
   std::vector< std::string > lines;
   for ( const AuditFinding& one : report.differences ) {
      EXPECT_NE( one.expected, one.found );
      lines.push_back( joinText( one.label.null() ? one.object : textOf( one.label ), " ",
                                 one.stage, ": ", one.expected, " / ", one.found ) );
   }
   return lines;
}

/// Without FECs: a route over all vias, one over a part of them, an unresolved, an unsound and an
/// ignored one.
LabelTable plainTable() {
   return tableOf(
      { routeOf( 100, { swapVia( 21, "10.0.0.1", "a" ) } ),
        routeOf( 200, { swapVia( 22, "10.0.0.1", "a" ), swapVia( 22, "10.0.0.9", "a" ) } ),
        routeOf( 300, { swapVia( 23, "fe80::2" ) } ), routeOf( 400, { swapVia( 24, "10.0.0.9" ) } ),
        routeOf( 500, { R"({"action":"push","outLabels":[27],"interface":"a"})" } ),
        R"({"stack":[600,601],"vias":[)" + popVia( "10.0.0.1", "a" ) + "]}",
        R"({"label":700,"kind":"decapsulation"})" } );
}

/// Protected, with the pop in the routes, IPv6, in part unresolved, into what other agents have, by
/// the backup alone, and unsound.
LabelTable fecTable() {
   const std::string out =
      R"({"action":"push","outLabels":[99],"nextHop":"10.0.0.1","interface":"a"})";
   const std::string byB = swapVia( 22, "10.0.0.2", "b" );
   return tableOf(
      { guardedRoute( 100, { swapVia( 21, "10.0.0.1", "a" ) }, byB ),
        guardedRoute( 110, { swapVia( 31, "10.0.0.1", "a" ) }, byB ),
        guardedRoute( 200, { popVia( "10.0.0.1", "a" ) }, popVia( "10.0.0.3", "c" ) ),
        guardedRoute( 210, { popVia( "10.0.0.2", "b" ) }, popVia( "10.0.0.3", "c" ) ),
        routeOf( 300, { swapVia( 23, "fe80::2", "b" ) } ),
        routeOf( 310, { swapVia( 33, "fe80::2", "b" ) } ),
        routeOf( 400, { swapVia( 24, "10.0.0.1", "a" ), swapVia( 24, "10.0.0.9", "a" ) } ),
        routeOf( 500, { intoVia( "nextHopGroup", "g" ) } ),
        routeOf( 510, { intoVia( "tunnel", "t" ) } ), R"({"label":520,"externalFec":"x"})",
        guardedRoute( 530, { swapVia( 27, "10.0.0.1", "a" ) }, swapVia( 28, "10.0.0.2", "b" ),
                      primariesDisabled ),
        routeOf( 600, { swapVia( 29, "10.0.0.8" ) } ) },
      defined( "nextHopGroups", "g", out ) + defined( "tunnels", "t", out ) +
         defined( "externalFecs", "x", out ) );
}

/// An agent, and what it takes to do something behind its back.
struct Audited : Programmed {
   explicit Audited( bool withFecs = false, const std::string& faults = "" )
      : Programmed( { withFecs ? fecTable() : plainTable() },
                    { neighborOf( "10.0.0.1", "a", 1 ), neighborOf( "10.0.0.2", "b", 2 ),
                      neighborOf( "fe80::2", "b", 2, 20 ), neighborOf( "10.0.0.3", "c", 3 ) },
                    withFecs, faults ) {
      apply( 0 );
   }
   AuditReport report( size_t limit = 100 ) const {
      return Audit( agent->entityManager(), agent->interfaceName() ).run( limit );
   }
   /// Each line begins with the first text of its pair and has the second one in it.
   void expectLines( const std::vector< std::pair< std::string, std::string > >& expected ) const {
      const std::vector< std::string > lines = linesOf( report() );
      ASSERT_EQ( lines.size(), expected.size() ) << testing::PrintToString( lines );
      for ( size_t i = 0; i < lines.size(); ++i ) {
         EXPECT_THAT( lines[i], StartsWith( expected[i].first ) );
         EXPECT_THAT( lines[i], HasSubstr( expected[i].second ) );
      }
   }

   MplsHwVrfConfig& config() const {
      return *root< MplsHwConfig >( "mplsHwConfig" ).vrfConfig( LabelAgent::vrfId );
   }
   MplsHwVrfStatus& status() const {
      return *root< MplsHwStatus >( "mplsHwStatus" ).vrfStatus( LabelAgent::vrfId );
   }
   FecIdToHwFecIdResponse& response() const {
      return root< FecIdToHwFecIdResponse >( "hwFecIdResponse" );
   }
   NumAllocator& numbers() const { return *root< MplsSm >( "mplsSm" ).numAllocator(); }
   Ptr< L2Adj > adjacencyOf( uint32_t label ) const {
      return config().route( RouteKey( label ) ).l2Adjacency;
   }
   ExternalFecInfo& fecOf( uint32_t label ) const {
      return *state().route( RouteKey( label ) )->l3Adj()->extFecInfo();
   }
   /// The route is written, or written again, with the adjacency of another one.
   void writtenWith( uint32_t label, uint32_t other ) const {
      const U64 version = config().route( RouteKey( label ) ).version;
      config().routeIs( { RouteKey( label ), adjacencyOf( other ), version + 1 } );
   }
   void l2ViaIs( uint32_t label, const std::function< void( Mpls::Hardware::L2Via& ) >& change ) {
      Mpls::Hardware::L2Via via = adjacencyOf( label )->l2ViaSet().l2Via().front();
      change( via );
      Mpls::Hardware::L2ViaSet vias;
      vias.l2ViaIs( via );
      adjacencyOf( label )->l2ViaSetIs( vias );
   }
   void fecIs( uint32_t label, const std::function< void( Fib::Fec& ) >& change ) const {
      Fib::Fec fec = request().fec( fecOf( label ).fecId() );
      change( fec );
      request().fecIs( fec );
   }
   void publishedIs( uint32_t label,
                     const std::function< void( Mpls::Hardware::Route& ) >& change ) const {
      Mpls::Hardware::Route route = published().route( RouteKey( label ) );
      route.routeKey = RouteKey( label );
      change( route );
      published().routeIs( route );
   }
};

TEST( Audit, AgreesWithWhatIsSoundWhateverBecameOfIt ) {
   for ( const bool withFecs : { false, true } ) {
      const Audited made( withFecs );
      const AuditReport report = made.report();
      EXPECT_THAT( linesOf( report ), IsEmpty() );
      EXPECT_TRUE( report.clean() );
      EXPECT_EQ( report.labels, made.agent->lfib().lfibRoutes() );
      EXPECT_EQ( report.agree, report.labels );
      EXPECT_EQ( report.elsewhere, 0U );
   }
}

TEST( Audit, FindsRoutesAndAdjacenciesThatAreWrittenOtherwise ) {
   Audited made;
   made.writtenWith( 100, 300 );
   made.config().routeDel( RouteKey( 200 ) );
   for ( const uint32_t unwanted : { 99U, 400U, 700U } ) {
      made.writtenWith( unwanted, 300 );
   }
   const Ptr< L2Adj > idle = make< L2Adj >( 1000U );
   idle->l2ViaSetIs( made.adjacencyOf( 300 )->l2ViaSet() );
   made.config().l2AdjacencyIs( idle, 1 );
   made.settle();
   made.expectLines( { { "99" + written, "" },
                       { "100" + written, "" },
                       { "100" + published, "" },
                       { "200" + written, "no route" },
                       { "200" + published, "" },
                       { "400" + written, "" },
                       // The state machine hears that it is in hardware, and publishes its code.
                       { "400" + published, "" },
                       { "700" + written, "" },
                       { "L2 adjacency ", written + ": none: no route uses it" },
                       { "L2 adjacency ", written + ": none: no route uses it" },
                       { "L2 adjacency 1000" + written, ": none: no route uses it" } } );
}

TEST( Audit, FindsViasThatAreWrittenOtherwise ) {
   Audited made;
   made.l2ViaIs( 100, []( Mpls::Hardware::L2Via& via ) {
      via.labelAction = MplsLabelAction::pop;
      via.labelStack = {};
   } );
   made.l2ViaIs(
      300, []( Mpls::Hardware::L2Via& via ) { via.macAddr = MacAddr( 0x02'00'00'00'00'99 ); } );
   made.expectLines( { { "100" + written, " / pop" },
                       { "100" + published, "" },
                       { "300" + written, "02:00:00:00:00:99" },
                       { "300" + published, "" } } );
}

TEST( Audit, FindsWhatTheDriverReportsOtherwise ) {
   const Audited made;
   MplsHwRoute route = made.status().route( RouteKey( 100 ) );
   route.version += 7;
   made.status().routeIs( route );
   made.status().routeIs( { RouteKey( 99 ), made.adjacencyOf( 100 ), 3 } );
   made.status().l2AdjacencyIs( make< L2Adj >( 1000U ), 3 );
   made.settle();
   made.status().unprogrammedReasonIs( UnprogrammedReason::RouteFull );
   made.status().unprogrammedRouteIs( RouteKey( 200 ) );
   made.runFor( 0.1 );
   const Ptr< L2Adj > adjacency = made.adjacencyOf( 300 );
   made.status().l2AdjacencyIs( adjacency, made.status().l2Adjacency( adjacency ) + 1 );
   made.expectLines( { { "99" + reported, "no route / version 3" },
                       { "100" + reported, "" },
                       { "200" + reported, "refused: RouteFull" },
                       { "300" + reported, ": L2 adjacency " },
                       { "L2 adjacency 1000" + reported, "none / version 3" } } );
   const Audited off;
   off.status().mplsRoutingIs( false );
   off.expectLines( { { "label forwarding" + reported, "on / off" } } );
}

TEST( Audit, FindsWhatIsPublishedOtherwise ) {
   const Audited made;
   const Mpls::Hardware::Route other = made.published().route( RouteKey( 200 ) );
   made.published().routeIs( { RouteKey( 100 ), other.adjacency, {} } );
   made.codeIs( 200, RouteStatusCode::programmed );
   made.published().routeDel( RouteKey( 300 ) );
   made.codeIs( 400, RouteStatusCode::programmed );
   made.root< Mpls::LfibHwStatus >( "lfibHwStatus" ).unprogrammedRouteDel( RouteKey( 500 ) );
   made.codeIs( 700, RouteStatusCode::notProgrammed );
   made.published().routeIs( { RouteKey( 800 ), other.adjacency, {} } );
   made.expectLines( { { "100" + published, ": L2 adjacency " },
                       { "200" + published, "partiallyProgrammed / programmed" },
                       { "300" + published, "a published route / none" },
                       { "400" + published, "notProgrammed / programmed" },
                       { "500" + published, "notProgrammed / no status" },
                       { "700" + published, "nothing / notProgrammed" },
                       { "800" + published, "nothing / no status" } } );
   const Audited refused;
   refused.codeIs( 100, RouteStatusCode::notProgrammed );
   refused.expectLines( { { "100" + published, "programmed / notProgrammed" } } );
}

TEST( Audit, FindsNextHopsThatAreWatchedForNobodyOrNotWatched ) {
   const Audited made;
   const L3::VrfName& vrf = L3::VrfName::defaultVrf();
   const IpGenAddr address = ip( "10.0.0.77" );
   made.root< ProactiveArpNexthopSm >( "proactiveArpNexthopSm" )
      .addEntry( vrf, address, made.intf( "a" ) );
   made.root< RouteReactorConfig >( "routeReactorConfig" ).addWatchedAddr( { vrf, address } );
   made.root< Route6ReactorConfig >( "route6ReactorConfig" )
      .removeWatchedIp6Addr( { vrf, ip( "fe80::2" ) } );
   made.settle();
   made.expectLines( { { "next hop 10.0.0.77 on a" + written, " / watched" },
                       { "next hop 10.0.0.77" + written, " / watched" },
                       { "next hop fe80::2" + written, " / not watched" } } );
}

TEST( Audit, RefusedRoutesDifferOnceAndSayWhy ) {
   Audited( false, "refuse label 200" )
      .expectLines( { { "200" + reported + ": version ", " / refused: InterfaceNotReady" } } );
   Audited( false, "route-capacity 3" ).expectLines( { { "", " / refused: RouteFull" } } );
   Audited( false, "forget label 100" ).expectLines( { { "100" + reported, " / no answer" } } );
   // Routes go on with what an adjacency was before it was refused.
   const Audited made;
   made.agent->hardware().refuseIs( []( const Driver::Operation& operation ) {
      return operation.kind == Driver::OperationKind::adjacencyWritten
                ? UnprogrammedReason::AdjacencyFull
                : UnprogrammedReason::Success;
   } );
   made.config().l2AdjacencyIs( made.adjacencyOf( 300 ), 9 );
   made.runFor( 0.1 );
   made.expectLines( { { "300" + reported + ": L2 adjacency ", ", refused: AdjacencyFull" } } );
}

TEST( Audit, WhatIsOnItsWayIsPendingAndNoDifference ) {
   const std::vector< std::pair< std::string, std::function< void( const Audited& ) > > > cases{
      { "the review of the route",
        []( const Audited& made ) { made.state().routeKeyForReviewIs( RouteKey( 100 ) ); } },
      { "publishing",
        []( const Audited& made ) { made.state().routeKeyForPublishIs( RouteKey( 100 ) ); } },
      { "the review of its L3 adjacency",
        []( const Audited& made ) {
           const MplsRoute* const route = made.state().route( RouteKey( 100 ) );
           made.state().l3AdjForReviewIs( route->l3Adj()->index(), L3AdjReview::viaSetChanged );
        } },
      { "the review of its L3 adjacency", // for another MAC address, which nobody has acted on
        []( const Audited& made ) {
           made.agent->l3().neighborIs( neighborOf( "10.0.0.1", "a", 9 ) );
        } },
      { "the hardware", []( const Audited& made ) { made.writtenWith( 100, 100 ); } } };
   for ( const auto& [waitsFor, unsettle] : cases ) {
      SCOPED_TRACE( waitsFor );
      const Audited made;
      unsettle( made );
      const AuditReport report = made.report();
      EXPECT_THAT( linesOf( report ), IsEmpty() );
      ASSERT_FALSE( report.pendings.empty() );
      EXPECT_EQ( report.pendings.front().label, RouteKey( 100 ) );
      EXPECT_EQ( report.pendings.front().waitsFor, waitsFor );
      EXPECT_FALSE( report.queues.empty() );
      EXPECT_FALSE( report.clean() );
      EXPECT_EQ( report.agree + report.pending, report.labels );
   }
}

// --- Routes into FECs.

TEST( Audit, FindsFecsThatAreRequestedOtherwise ) {
   const Audited made( true );
   ASSERT_TRUE( made.fecOf( 200 ).popLabelActionRemoved() );
   made.fecIs( 100, []( Fib::Fec& fec ) { fec.via[0].labelStack = { 99 }; } );
   made.fecIs( 110, []( Fib::Fec& fec ) {
      fec.via.pop_back();
      fec.backupFecId = {};
   } );
   made.fecIs( 200, []( Fib::Fec& fec ) { fec.via[0].labelAction = MplsLabelAction::pop; } );
   made.fecOf( 210 ).popLabelActionRemovedIs( false );
   made.fecIs( 400, []( Fib::Fec& fec ) { fec.via.pop_back(); } );
   made.fecIs( 530, []( Fib::Fec& fec ) { fec.via[0] = fec.via[1]; } );
   made.settle();
   made.expectLines( { { "100" + written, "swap 99 to 10.0.0.1 on a" },
                       { "110" + written, ", without a backup" },
                       { "200" + written, "pop ipv4" },
                       { "210" + written, "none" },
                       { "400" + written, "swap 24 to 10.0.0.1 on a" },
                       { "530" + written, "into FEC" } } );
}

TEST( Audit, FindsFecsThatNothingUses ) {
   const Fib::FecId unused( U64{ 10 } << 56 | 77 );
   const Fib::FecId contentOnly( U64{ 10 } << 56 | 78 );
   const Audited made( true );
   const U64 released = made.fecOf( 100 ).fecId().index();
   made.request().fecIs( { unused, { {} }, {} } );
   made.request().hwFecIdRequestIs( { unused, L3::VrfName::defaultVrf() } );
   made.request().fecIs( { contentOnly, { {} }, {} } );
   const auto number = made.numbers().getNumber();
   made.numbers().releaseNumber( released );
   made.settle();
   made.response().hwFecIdIs( contentOnly, { 9 } );
   made.expectLines( { { "FEC 10:77" + written, "not requested: nothing uses it / requested" },
                       { "FEC 10:78" + written, "no content: it is not requested" },
                       { "FEC 10:78" + reported, "no answer: it is not requested" },
                       { "FEC 10:" + textOf( released ) + written, "in use / not in use" },
                       { "FEC number " + textOf( number ) + written, "no FEC has it / in use" } } );
}

TEST( Audit, FindsAnswersAndRoutesIntoFecsThatAreOtherwise ) {
   const Audited made( true );
   made.response().hwFecIdDel( made.fecOf( 300 ).fecId() );
   made.settle();
   made.fecOf( 310 ).hwIdIs( 99 );
   made.codeIs( 400, RouteStatusCode::programmed );
   made.publishedIs( 500, [&]( auto& route ) { route.fecId = made.fecOf( 310 ).fecId(); } );
   made.publishedIs( 510, [&]( auto& route ) {
      route.adjacency = made.published().route( RouteKey( 310 ) ).adjacency;
   } );
   made.state().route( RouteKey( 520 ) )->unconfirmedWritesIs( 1 ); // refused
   made.expectLines( { { "300" + reported, "no answer for FEC 11:" },
                       { "310" + reported, ", and 99 in use" },
                       { "400" + published, "partiallyProgrammed / programmed" },
                       { "500" + published, ": FEC " },
                       { "510" + published, ": L3 adjacency " },
                       { "520" + reported, "no route" },
                       { "520" + published, "notProgrammed / programmed" } } );
}

// --- What people and programs read.

TEST( Audit, TextAndJsonCountWhatTheLimitLeavesOut ) {
   const Audited made;
   made.codeIs( 98, RouteStatusCode::programmed );
   made.codeIs( 99, RouteStatusCode::programmed );
   made.state().routeKeyForPublishIs( RouteKey( 300 ) );
   const AuditReport report = made.report( 1 );
   std::ostringstream text;
   EXPECT_TRUE( printText( text, report ) );
   EXPECT_EQ( text.str(), "9 labels: 6 agree, 2 differ, 1 pending; 2 differences\n"
                          "98  reported -> published: expected nothing; found programmed\n"
                          "and 1 more difference\n"
                          "300  pending: waits for publishing\n"
                          "queued: 1 route to publish\n" );
   std::ostringstream json;
   EXPECT_TRUE( printJson( json, report ) );
   EXPECT_EQ( json.str(), R"({"labels":9,"agree":6,"pending":1,"differing":2,"elsewhere":0,)"
                          R"("differenceCount":2,
"queued":{"lfib":0,"review":0,"publishing":1,"hardware":0},
"differences":[
{"label":98,"stage":"reported -> published","expected":"nothing","found":"programmed"}
],
"pendings":[
{"label":300,"waitsFor":"publishing"}
]}
)" );
}

} // namespace
} // namespace VelTest
