// The audit: it must agree with what is sound, and find what anybody does to any stage behind the
// state machine's back.

#include "tests/agent/MountedRig.h"
#include "tests/agent/ProgramFixtures.h"

#include <cstdlib>
#include <functional>
#include <random>

#include <sys/wait.h>

#include <gmock/gmock.h>

#include "agent/Audit.h"
#include "tests/Seed.h"

namespace VelTest {
namespace {

using Mpls::RouteStatusCode;
using ::testing::AllOf;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using L2Adj = Mpls::Hardware::L2Adjacency;

AuditReport audited( const LabelAgent& agent, size_t limit = 100 ) {
   return Audit( agent.entityManager(),
                 [&]( IntfId intf ) { return agent.interfaces().name( intf ); } )
      .run( limit );
}

/// "100 intent -> written: expected / found", a line each.
std::vector< std::string > linesOf( const AuditReport& report ) {
   std::vector< std::string > lines;
   for ( const AuditFinding& one : report.differences ) {
      lines.push_back( joinText( one.label.null() ? one.object : textOf( one.label ), " ",
                                 name( one.stage ), ": ", one.expected, " / ", one.found ) );
   }
   return lines;
}

/// The stages, "label stage" or "object stage", in order.
std::vector< std::string > stagesOf( const AuditReport& report ) {
   std::vector< std::string > stages;
   for ( const AuditFinding& found : report.differences ) {
      const std::string object = found.object.substr( 0, found.object.find_last_of( ' ' ) );
      const std::string subject = !found.label.null()                  ? textOf( found.label )
                                  : found.object == "label forwarding" ? found.object
                                  : object.starts_with( "next hop" )   ? "next hop"
                                                                       : object;
      stages.push_back( joinText( subject, " ", name( found.stage ) ) );
      EXPECT_NE( found.expected, found.found );
   }
   return stages;
}

/// Without FECs. A route over all vias, one over a part of them, an unresolved, an unsound and an
/// ignored one.
struct Audited : Programmed {
   explicit Audited( Driver::SwitchSettings hardware = {} )
      : Programmed( { tableOf( { routeOf( 100, { swapVia( 21, "10.0.0.1", "a" ) } ),
                                 routeOf( 200, { swapVia( 22, "10.0.0.1", "a" ),
                                                 swapVia( 22, "10.0.0.9", "a" ) } ),
                                 routeOf( 300, { swapVia( 23, "fe80::2" ) } ),
                                 routeOf( 400, { swapVia( 24, "10.0.0.9" ) } ),
                                 routeOf( 500, { R"({"action":"push","outLabels":[27],)"
                                                 R"("interface":"a"})" } ),
                                 R"({"stack":[600,601],"vias":[{"action":"pop",)"
                                 R"("payload":"ipv4","nextHop":"10.0.0.1","interface":"a"}]})",
                                 R"({"label":700,"kind":"decapsulation"})" } ) },
                    { neighborOf( "10.0.0.1", "a", 1 ), neighborOf( "fe80::2", "b", 2, 20 ) },
                    { .hardware = std::move( hardware ), .withFecs = false } ) {
      apply( 0 );
   }
   template< class T >
   T& root( const std::string& rootName ) const {
      return *agent->entityManager().root< T >( rootName );
   }
   MplsHwVrfConfig& config() const {
      return *root< MplsHwConfig >( "mplsHwConfig" ).vrfConfig( LabelAgent::vrfId );
   }
   MplsHwVrfStatus& status() const {
      return *root< MplsHwStatus >( "mplsHwStatus" ).vrfStatus( LabelAgent::vrfId );
   }
   Mpls::Hardware::Status& published() const {
      return root< Mpls::Hardware::Status >( "routingHwMplsStatus" );
   }
   Ptr< L2Adj > adjacencyOf( uint32_t label ) const {
      return config().route( RouteKey( label ) ).l2Adjacency;
   }
   VrfMplsState& state() const {
      return *root< MplsSm >( "mplsSm" ).mplsState( L3::VrfName::defaultVrf() );
   }
};

TEST( Audit, AgreesWithWhatIsSoundWhateverBecameOfIt ) {
   const Audited made;
   const AuditReport report = audited( *made.agent );
   EXPECT_THAT( linesOf( report ), IsEmpty() );
   EXPECT_TRUE( report.clean() );
   EXPECT_EQ( report.labels, 7U );
   EXPECT_EQ( report.agree, 7U );
   for ( const std::string name : { "labels", "labels-iproute2", "labels-native" } ) {
      Programmed example( { loadLabelTable( examplePath( name ) ),
                            loadLabelTable( examplePath( "labels-link-down" ) ) } );
      example.agent->neighborsAre( loadNeighborTable( examplePath( "neighbors" ) ) );
      for ( const size_t table : { size_t{ 0 }, size_t{ 1 } } ) {
         example.apply( table );
         EXPECT_TRUE( audited( *example.agent ).clean() ) << name;
      }
   }
}

// The state machine gets there by events, the audit by looking: they must meet.
TEST( Audit, AgreesAfterWhateverHistory ) {
   std::mt19937_64 random( testSeed() );
   const auto below = [&]( uint64_t end ) { return random() % end; };
   const auto address = [&] { return "10.0.0." + std::to_string( 1 + below( 4 ) ); };
   const auto pop = []( const std::string& nextHop, const std::string& interface ) {
      return joinText( R"({"action":"pop","payload":"ipv4","nextHop":")", nextHop,
                       R"(","interface":")", interface, "\"}" );
   };
   for ( int round = 0; round < 16; ++round ) {
      const bool withFecs = round % 2 != 0;
      std::vector< LabelTable > tables;
      for ( int table = 0; table < 8; ++table ) {
         std::vector< std::string > routes;
         for ( uint32_t label = 16; label < 40; ++label ) {
            std::vector< std::string > vias;
            for ( uint64_t via = below( 4 ); via > 0; --via ) {
               vias.push_back( swapVia( static_cast< uint32_t >( 100 + below( 3 ) ), address(),
                                        below( 3 ) == 0 ? ""
                                        : below( 2 )    ? "a"
                                                        : "b" ) );
            }
            if ( below( 12 ) == 0 ) {
               vias.emplace_back( R"({"action":"swap","outLabels":[28],"interface":"a"})" );
            }
            if ( below( 6 ) == 0 ) {
               vias = { pop( address(), "a" ) };
            }
            if ( !vias.empty() && withFecs && below( 3 ) == 0 ) {
               const std::string backup =
                  below( 2 ) ? pop( "10.0.0.2", "b" ) : swapVia( 100, address(), "a" );
               routes.push_back( joinText(
                  R"({"label":)", label, R"(,"vias":[)", joined( vias ), R"(],"backupVias":[)",
                  backup, R"(],"usableAsPrimaryVias":)", below( 4 ) ? "true" : "false", "}" ) );
            } else if ( !vias.empty() ) {
               routes.push_back( routeOf( label, vias ) );
            }
         }
         tables.push_back( tableOf( routes ) );
      }
      Programmed made( tables, {}, { .withFecs = withFecs } );
      for ( size_t table = 0; table < tables.size(); ++table ) {
         Neighbor neighbor = neighborOf( address(), below( 2 ) ? "a" : "b",
                                         static_cast< uint8_t >( 1 + below( 2 ) ) );
         neighbor.resolved = below( 3 ) != 0;
         made.agent->l3().neighborIs( neighbor );
         made.apply( table );
         const AuditReport report = audited( *made.agent );
         ASSERT_THAT( linesOf( report ), IsEmpty() );
         ASSERT_TRUE( report.clean() );
      }
   }
}

TEST( Audit, FindsWhatEachStageWasDoneTo ) {
   struct Case {
      std::string what;
      std::function< void( const Audited& ) > tamper;
      std::vector< std::string > stages; ///< "label stage", in order
   };
   const std::string written = " intent -> written";
   const std::string reported = " written -> reported";
   const std::string published = " reported -> published";
   const std::vector< Case > cases{
      { "a route is written with another adjacency",
        []( const Audited& made ) {
           MplsHwRoute route = made.config().route( RouteKey( 100 ) );
           route.l2Adjacency = made.adjacencyOf( 300 );
           ++route.version;
           made.config().routeIs( route );
           made.settle();
        },
        // Nothing else used the adjacency that it left.
        { "100" + written, "100" + published, "L2 adjacency" + written } },
      { "a route is not written",
        []( const Audited& made ) {
           made.config().routeDel( RouteKey( 200 ) );
           made.settle();
        },
        { "200" + written, "200" + published, "L2 adjacency" + written } },
      { "routes are written that nobody wants: of no label, unresolved, ignored",
        []( const Audited& made ) {
           for ( const uint32_t label : { 99U, 400U, 700U } ) {
              made.config().routeIs( { RouteKey( label ), made.adjacencyOf( 100 ), 1 } );
           }
           made.settle();
        },
        // The state machine hears that 400 is in hardware, and publishes its code.
        { "99" + written, "400" + written, "400" + published, "700" + written } },
      { "an L2 via set has another MAC address",
        []( const Audited& made ) {
           Mpls::Hardware::L2Via via = made.adjacencyOf( 300 )->l2ViaSet().l2Via().front();
           via.macAddr = MacAddr( 0x02'00'00'00'00'99 );
           Mpls::Hardware::L2ViaSet vias;
           vias.l2ViaIs( via );
           made.adjacencyOf( 300 )->l2ViaSetIs( vias );
        },
        { "300" + written, "300" + published } },
      { "an L2 via set pops instead of swapping",
        []( const Audited& made ) {
           Mpls::Hardware::L2Via via = made.adjacencyOf( 300 )->l2ViaSet().l2Via().front();
           via.labelAction = MplsLabelAction::pop;
           via.labelStack = {};
           Mpls::Hardware::L2ViaSet vias;
           vias.l2ViaIs( via );
           made.adjacencyOf( 300 )->l2ViaSetIs( vias );
        },
        { "300" + written, "300" + published } },
      { "the driver has carried out another version, and another adjacency's",
        []( const Audited& made ) {
           MplsHwRoute route = made.status().route( RouteKey( 100 ) );
           route.version += 7;
           made.status().routeIs( route );
           made.settle();
           const Ptr< L2Adj > adjacency = made.adjacencyOf( 300 );
           made.status().l2AdjacencyIs( adjacency, made.status().l2Adjacency( adjacency ) + 1 );
        },
        { "100" + reported, "300" + reported } },
      { "the driver reports what nobody wrote",
        []( const Audited& made ) {
           made.status().routeIs( { RouteKey( 99 ), made.adjacencyOf( 100 ), 3 } );
           made.status().l2AdjacencyIs( Ptr< L2Adj >( new L2Adj( 1000 ) ), 3 );
           made.settle();
        },
        { "99" + reported, "L2 adjacency" + reported } },
      { "the driver lists a route as unprogrammed",
        []( const Audited& made ) {
           made.status().unprogrammedReasonIs( UnprogrammedReason::RouteFull );
           made.status().unprogrammedRouteIs( RouteKey( 100 ) );
           EXPECT_EQ( made.agent->runFor( 0.1 ), std::nullopt );
        },
        { "100" + reported } },
      { "the published codes are not those of the hardware",
        []( const Audited& made ) {
           auto& codes = made.root< Mpls::LfibHwStatus >( "lfibHwStatus" );
           codes.unprogrammedRouteIs( { RouteKey( 100 ), RouteStatusCode::notProgrammed } );
           codes.unprogrammedRouteIs( { RouteKey( 200 ), RouteStatusCode::programmed } );
           codes.unprogrammedRouteIs( { RouteKey( 400 ), RouteStatusCode::programmed } );
           codes.unprogrammedRouteDel( RouteKey( 500 ) );
           codes.unprogrammedRouteIs( { RouteKey( 700 ), RouteStatusCode::notProgrammed } );
        },
        { "100" + published, "200" + published, "400" + published, "500" + published,
          "700" + published } },
      { "published routes are not those of the hardware",
        []( const Audited& made ) {
           const Mpls::Hardware::Route other = made.published().route( RouteKey( 200 ) );
           made.published().routeIs( { RouteKey( 100 ), other.adjacency, {} } );
           made.published().routeIs( { RouteKey( 800 ), other.adjacency, {} } );
           made.published().routeDel( RouteKey( 300 ) );
        },
        { "100" + published, "300" + published, "800" + published } },
      { "an adjacency that nothing uses",
        []( const Audited& made ) {
           const Ptr< L2Adj > adjacency( new L2Adj( 1000 ) );
           adjacency->l2ViaSetIs( made.adjacencyOf( 100 )->l2ViaSet() );
           made.config().l2AdjacencyIs( adjacency, 1 );
           made.settle();
        },
        { "L2 adjacency" + written } },
      { "next hops that are watched for nobody, and one that is not watched",
        []( const Audited& made ) {
           const L3::VrfName& vrf = L3::VrfName::defaultVrf();
           const IpGenAddr address = *IpGenAddr::parse( "10.0.0.77" );
           made.root< ProactiveArpNexthopSm >( "proactiveArpNexthopSm" )
              .addEntry( vrf, address, *made.agent->interfaces().intf( "a" ) );
           made.root< RouteReactorConfig >( "routeReactorConfig" )
              .addWatchedAddr( { vrf, address } );
           made.root< Route6ReactorConfig >( "route6ReactorConfig" )
              .removeWatchedIp6Addr( { vrf, *IpGenAddr::parse( "fe80::2" ) } );
           made.settle();
        },
        { "next hop" + written, "next hop" + written, "next hop" + written } },
      { "label forwarding was never switched on",
        []( const Audited& made ) { made.status().mplsRoutingIs( false ); },
        { "label forwarding" + reported } } };
   for ( const Case& one : cases ) {
      SCOPED_TRACE( one.what );
      const Audited made;
      one.tamper( made );
      const AuditReport report = audited( *made.agent );
      EXPECT_EQ( stagesOf( report ), one.stages ) << testing::PrintToString( linesOf( report ) );
      EXPECT_FALSE( report.clean() );
   }
}

TEST( Audit, RefusedRoutesDifferOnceAndSayWhy ) {
   const auto lines = []( Driver::SwitchSettings hardware ) {
      const Audited made( std::move( hardware ) );
      return linesOf( audited( *made.agent ) );
   };
   const auto refuse = []( uint32_t label ) {
      Driver::SwitchSettings hardware;
      hardware.refuse = [label]( const Driver::Operation& operation ) {
         return operation.kind == Driver::OperationKind::routeWritten &&
                      operation.routeKey == RouteKey( label )
                   ? UnprogrammedReason::InterfaceNotReady
                   : UnprogrammedReason::Success;
      };
      return hardware;
   };
   EXPECT_THAT( lines( refuse( 200 ) ),
                ElementsAre( AllOf( HasSubstr( "200 written -> reported: version " ),
                                    HasSubstr( " / refused: InterfaceNotReady" ) ) ) );
   EXPECT_THAT( lines( { .routeCapacity = 3 } ),
                ElementsAre( HasSubstr( " / refused: RouteFull" ) ) );
   Driver::SwitchSettings forgetful;
   EXPECT_EQ(
      forgetful.faults.parse( "forget label 100", []( std::string_view ) { return IntfId(); } ),
      std::nullopt );
   EXPECT_THAT( lines( forgetful ), ElementsAre( AllOf( HasSubstr( "100 written -> reported" ),
                                                        HasSubstr( " / no answer" ) ) ) );
   // Routes go on with what an adjacency was before it was refused.
   const Audited made;
   made.agent->hardware().refuseIs( []( const Driver::Operation& operation ) {
      return operation.kind == Driver::OperationKind::adjacencyWritten
                ? UnprogrammedReason::AdjacencyFull
                : UnprogrammedReason::Success;
   } );
   made.config().l2AdjacencyIs( made.adjacencyOf( 300 ), 9 );
   EXPECT_EQ( made.agent->runFor( 0.1 ), std::nullopt );
   EXPECT_THAT( linesOf( audited( *made.agent ) ),
                ElementsAre( AllOf( HasSubstr( "300 written -> reported: L2 adjacency " ),
                                    HasSubstr( ", refused: AdjacencyFull" ) ) ) );
}

TEST( Audit, WhatIsOnItsWayIsPendingAndNoDifference ) {
   struct Case {
      std::string what;
      std::function< void( const Audited& ) > unsettle;
      std::string waitsFor;
   };
   const auto write = []( const Audited& made ) { // what the driver has not got to
      MplsHwRoute route = made.config().route( RouteKey( 100 ) );
      ++route.version;
      made.config().routeIs( route );
   };
   for ( const Case& one : std::vector< Case >{
            { "queued for review",
              []( const Audited& made ) { made.state().routeKeyForReviewIs( RouteKey( 100 ) ); },
              "the review of the route" },
            { "queued for publishing",
              []( const Audited& made ) { made.state().routeKeyForPublishIs( RouteKey( 100 ) ); },
              "publishing" },
            { "its adjacency is queued",
              []( const Audited& made ) {
                 const MplsRoute* const route = made.state().route( RouteKey( 100 ) );
                 made.state().l3AdjForReviewIs( route->l3Adj()->index() );
              },
              "the review of its L3 adjacency" },
            { "another MAC address, which nobody has acted on",
              []( const Audited& made ) {
                 made.agent->l3().neighborIs( neighborOf( "10.0.0.1", "a", 9 ) );
              },
              "the review of its L3 adjacency" },
            { "written, not carried out", write, "the hardware" } } ) {
      SCOPED_TRACE( one.what );
      const Audited made;
      one.unsettle( made );
      const AuditReport report = audited( *made.agent );
      EXPECT_THAT( linesOf( report ), IsEmpty() );
      ASSERT_FALSE( report.pendings.empty() );
      EXPECT_EQ( report.pendings.front().label, RouteKey( 100 ) );
      EXPECT_EQ( report.pendings.front().waitsFor, one.waitsFor );
      EXPECT_FALSE( report.queues.empty() );
      EXPECT_FALSE( report.clean() );
      EXPECT_EQ( report.agree + report.pending, report.labels );
   }
}

// --- Routes into FECs.

/// Protected, with the pop in the routes, IPv6, in part unresolved, into what other agents have, by
/// the backup alone, and unsound.
struct IntoFecs : Programmed {
   explicit IntoFecs( Driver::SwitchSettings hardware = {} )
      : Programmed( { table() },
                    { neighborOf( "10.0.0.1", "a", 1 ), neighborOf( "10.0.0.2", "b", 2 ),
                      neighborOf( "fe80::2", "b", 2 ), neighborOf( "10.0.0.3", "c", 3 ) },
                    { .hardware = std::move( hardware ) } ) {
      apply( 0 );
   }
   static LabelTable table() {
      const auto pop = []( const std::string& nextHop, const std::string& interface ) {
         return joinText( R"({"action":"pop","payload":"ipv4","nextHop":")", nextHop,
                          R"(","interface":")", interface, "\"}" );
      };
      const auto guarded = []( uint32_t label, const std::string& via, const std::string& backup,
                               const std::string& rest = "" ) {
         return joinText( R"({"label":)", label, R"(,"vias":[)", via, R"(],"backupVias":[)", backup,
                          "]", rest, "}" );
      };
      return tableOf(
         { guarded( 100, swapVia( 21, "10.0.0.1", "a" ), swapVia( 22, "10.0.0.2", "b" ) ),
           guarded( 200, pop( "10.0.0.1", "a" ), pop( "10.0.0.3", "c" ) ),
           routeOf( 300, { swapVia( 23, "fe80::2", "b" ) } ),
           routeOf( 400, { swapVia( 24, "10.0.0.1", "a" ), swapVia( 24, "10.0.0.9", "a" ) } ),
           routeOf( 500, { R"({"action":"swap","outLabels":[25],"nextHopGroup":"g"})" } ),
           routeOf( 510, { R"({"action":"swap","outLabels":[26],"tunnel":"t"})" } ),
           R"({"label":520,"externalFec":"x"})",
           guarded( 530, swapVia( 27, "10.0.0.1", "a" ), swapVia( 28, "10.0.0.2", "b" ),
                    R"(,"usableAsPrimaryVias":false)" ),
           routeOf( 600, { swapVia( 29, "10.0.0.8" ) } ) },
         R"("nextHopGroups":[{"name":"g","vias":[{"nextHop":"10.0.0.1","interface":"a"}]}],)"
         R"("tunnels":[{"name":"t","vias":[{"nextHop":"10.0.0.1","interface":"a"}]}],)"
         R"("externalFecs":[{"name":"x","vias":[{"nextHop":"10.0.0.1","interface":"a"}]}],)" );
   }
   template< class T >
   T& root( const std::string& rootName ) const {
      return *agent->entityManager().root< T >( rootName );
   }
   const MplsSm& sm() const { return root< MplsSm >( "mplsSm" ); }
   VrfMplsState& state() const {
      return *root< MplsSm >( "mplsSm" ).mplsState( L3::VrfName::defaultVrf() );
   }
   FecIdToHwFecIdRequest& request() const {
      return root< FecIdToHwFecIdRequest >( "hwFecIdRequest" );
   }
   FecIdToHwFecIdResponse& response() const {
      return root< FecIdToHwFecIdResponse >( "hwFecIdResponse" );
   }
   Mpls::Hardware::Status& published() const {
      return root< Mpls::Hardware::Status >( "routingHwMplsStatus" );
   }
   ExternalFecInfo& fecOf( uint32_t label ) const {
      return *state().route( RouteKey( label ) )->l3Adj()->extFecInfo();
   }
   /// Does something to the content of the label's FEC as it is requested.
   template< class F >
   void rewrite( uint32_t label, const F& change ) const {
      Fib::Fec fec = request().fec( fecOf( label ).fecId() );
      change( fec );
      request().fecIs( fec );
      settle();
   }
};

TEST( Audit, AgreesWithRoutesIntoFecs ) {
   const IntoFecs made;
   ASSERT_TRUE( made.fecOf( 200 ).popLabelActionRemoved() );
   const AuditReport report = audited( *made.agent );
   EXPECT_THAT( linesOf( report ), IsEmpty() );
   EXPECT_TRUE( report.clean() );
   EXPECT_EQ( report.agree, 9U );
   EXPECT_EQ( report.elsewhere, 0U );
}

TEST( Audit, FindsWhatEachStageOfAFecWasDoneTo ) {
   struct Case {
      std::string what;
      std::function< void( const IntoFecs& ) > tamper;
      std::vector< std::string > stages;
      std::string found; ///< part of the first one's text
   };
   const std::string written = " intent -> written";
   const std::string reported = " written -> reported";
   const std::string published = " reported -> published";
   const Fib::FecId strange( U64{ 10 } << 56 | 77 );
   for ( const Case& one : std::vector< Case >{
            { "another label goes on",
              []( const IntoFecs& made ) {
                 made.rewrite( 100, []( Fib::Fec& fec ) { fec.via[0].labelStack = { 99 }; } );
              },
              { "100" + written },
              "swap 99 to 10.0.0.1 on a" },
            { "a via is missing",
              []( const IntoFecs& made ) {
                 made.rewrite( 400, []( Fib::Fec& fec ) { fec.via.pop_back(); } );
              },
              { "400" + written },
              "swap 24 to 10.0.0.1 on a" },
            { "the backup is missing",
              []( const IntoFecs& made ) {
                 made.rewrite( 100, []( Fib::Fec& fec ) {
                    fec.via.pop_back();
                    fec.backupFecId = {};
                 } );
              },
              { "100" + written },
              ", without a backup" },
            { "a pop in the FEC and in the routes",
              []( const IntoFecs& made ) {
                 made.rewrite(
                    200, []( Fib::Fec& fec ) { fec.via[0].labelAction = MplsLabelAction::pop; } );
              },
              { "200" + written },
              "pop ipv4" },
            { "a pop in neither",
              []( const IntoFecs& made ) { made.fecOf( 200 ).popLabelActionRemovedIs( false ); },
              { "200" + written },
              "none" },
            { "vias that are not to be used are",
              []( const IntoFecs& made ) {
                 made.rewrite( 530, []( Fib::Fec& fec ) { fec.via[0] = fec.via[1]; } );
              },
              { "530" + written },
              "into FEC" },
            { "a FEC and a number that nothing uses",
              [strange]( const IntoFecs& made ) {
                 made.request().fecIs( { strange, { {} }, {} } );
                 made.request().hwFecIdRequestIs( { strange, L3::VrfName::defaultVrf() } );
                 made.sm().numAllocator()->getNumber();
                 made.settle();
              },
              { "FEC" + written, "FEC number" + written },
              "requested" },
            { "content without a request, and an answer",
              [strange]( const IntoFecs& made ) {
                 made.request().fecIs( { strange, { {} }, {} } );
                 made.settle();
                 made.response().hwFecIdIs( strange, { 9 } );
              },
              { "FEC" + written, "FEC" + reported },
              "none" },
            { "a number in use is given back",
              []( const IntoFecs& made ) {
                 made.sm().numAllocator()->releaseNumber( made.fecOf( 100 ).fecId().index() );
              },
              { "FEC" + written },
              "not in use" },
            { "the answer is withdrawn",
              []( const IntoFecs& made ) {
                 made.response().hwFecIdDel( made.fecOf( 300 ).fecId() );
                 made.settle();
              },
              { "300" + reported },
              "no answer for FEC 11:" },
            { "another answer, which the state machine has not got to see",
              []( const IntoFecs& made ) { made.fecOf( 300 ).hwIdIs( 99 ); },
              { "300" + reported },
              ", and 99 in use" },
            { "the record says that the route is not in hardware",
              []( const IntoFecs& made ) {
                 made.state().route( RouteKey( 520 ) )->unprogrammedIs( true );
              },
              { "520" + reported, "520" + published },
              "no route" },
            { "another FEC is published, and another code",
              []( const IntoFecs& made ) {
                 Mpls::Hardware::Route route = made.published().route( RouteKey( 500 ) );
                 route.fecId = made.fecOf( 300 ).fecId();
                 made.published().routeIs( route );
                 made.root< Mpls::LfibHwStatus >( "lfibHwStatus" )
                    .unprogrammedRouteIs( { RouteKey( 400 ), RouteStatusCode::programmed } );
              },
              { "400" + published, "500" + published },
              "programmed" },
            { "another adjacency is published",
              []( const IntoFecs& made ) {
                 Mpls::Hardware::Route route = made.published().route( RouteKey( 510 ) );
                 route.adjacency = made.published().route( RouteKey( 300 ) ).adjacency;
                 made.published().routeIs( route );
              },
              { "510" + published },
              "L3 adjacency" } } ) {
      SCOPED_TRACE( one.what );
      const IntoFecs made;
      one.tamper( made );
      const AuditReport report = audited( *made.agent );
      ASSERT_EQ( stagesOf( report ), one.stages ) << testing::PrintToString( linesOf( report ) );
      EXPECT_THAT( report.differences.front().found, HasSubstr( one.found ) );
   }
}

TEST( Audit, SaysWhyAFecIsNotAsWanted ) {
   using Vel::Test::RigSettings;
   struct Case {
      std::string what;
      std::function< void( MountedRig& ) > make;
      std::vector< std::string > lines; ///< part of each, in order
      Driver::SwitchSettings hardware{};
   };
   const auto two = []( MountedRig& rig ) {
      rig.viaSetIs( 1, MountedRig::swapOut( 1, 1 ) );
      rig.routeIs( 16, 1 );
      rig.settle();
      rig.viaSetIs( 2, MountedRig::swapOut( 2, 2 ) );
      rig.routeIs( 17, 2 );
   };
   Driver::SwitchSettings notReady;
   EXPECT_EQ( notReady.faults.parse( "not-ready b",
                                     []( std::string_view ) { return IntfId::ordinary( 2 ); } ),
              std::nullopt );
   Driver::SwitchSettings refuses;
   EXPECT_EQ(
      refuses.faults.parse( "refuse label 17", []( std::string_view ) { return IntfId(); } ),
      std::nullopt );
   for ( const Case& one : std::vector< Case >{
            { "no room",
              two,
              { "17 written -> reported: a route into FEC 10:1 / no answer for FEC "
                "10:1, refused: AdjacencyFull" },
              { .fecCapacity = 1 } },
            { "not ready",
              two,
              { "no answer for FEC 10:1, refused: InterfaceNotReady" },
              notReady },
            { "refused", two, { "a route into FEC 10:1 / refused: InterfaceNotReady" }, refuses },
            { "another agent's FEC is not there",
              []( MountedRig& rig ) { rig.externalIs( 16, Fib::FecId( U64{ 7 } << 56 | 5 ) ); },
              { "no answer for FEC 7:5 of another agent" } },
            { "the backup is missing",
              []( MountedRig& rig ) {
                 rig.protectedIs( 1, MountedRig::swapOut( 1, 1 ), 2 );
                 rig.routeIs( 16, 1 );
              },
              { "16 intent -> written: swap 100 to 10.0.0.1 on intf1, backup "
                "ldp/viaTypeMplsIp/unicast/2 / no FEC, waits for its backup: backup viaSet idx 2 "
                "viaType viaTypeMplsIp missing from lfib" } },
            { "the backup has a backup",
              []( MountedRig& rig ) {
                 rig.protectedIs( 1, MountedRig::swapOut( 1, 1 ), 2 );
                 rig.protectedIs( 2, MountedRig::swapOut( 2, 2 ), 3 );
                 rig.viaSetIs( 3, MountedRig::swapOut( 3, 3 ) );
                 rig.routeIs( 16, 1 );
              },
              { ", without a backup: the backup has a backup" } },
            { "mutual backups",
              []( MountedRig& rig ) {
                 rig.protectedIs( 1, MountedRig::swapOut( 1, 1 ), 2 );
                 rig.protectedIs( 2, MountedRig::swapOut( 2, 2 ), 1 );
                 rig.routeIs( 16, 1 );
                 rig.routeIs( 17, 2 );
              },
              { "16 intent -> written", "17 intent -> written" } },
            { "the FEC of another family has no room, and the route stays",
              []( MountedRig& rig ) {
                 rig.viaSetIs( 1, MountedRig::swapOut( 1, 1 ) );
                 rig.routeIs( 16, 1 );
                 rig.settle();
                 rig.l3.neighborIs( "fe80::1", 1, 9 );
                 rig.viaSetIs( 1, { Vel::Test::swapVia( 3, "fe80::1", 1, 100 ) } );
              },
              { "no answer for FEC 11:1, refused: AdjacencyFull, a route into FEC 10:0 stays" },
              { .fecCapacity = 1 } } } ) {
      SCOPED_TRACE( one.what );
      MountedRig rig( { .hardware = one.hardware, .withFecs = true } );
      rig.neighbors( 3 );
      one.make( rig );
      rig.settle();
      const std::vector< std::string > lines = linesOf( Audit( *rig.entities ).run() );
      ASSERT_EQ( lines.size(), one.lines.size() ) << testing::PrintToString( lines );
      for ( size_t i = 0; i < lines.size(); ++i ) {
         EXPECT_THAT( lines[i], HasSubstr( one.lines[i] ) );
      }
   }
}

TEST( Audit, TextAndJsonCountWhatTheLimitLeavesOut ) {
   const Audited made;
   for ( const uint32_t label : { 98U, 99U } ) {
      made.root< Mpls::LfibHwStatus >( "lfibHwStatus" )
         .unprogrammedRouteIs( { RouteKey( label ), RouteStatusCode::programmed } );
   }
   made.state().routeKeyForPublishIs( RouteKey( 300 ) );
   const AuditReport report = audited( *made.agent, 1 );
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

TEST( Audit, CommandsEndWithTheStatusOfWhatTheyFound ) {
   const std::string labels = " --lfib " + examplePath( "labels" );
   const std::string all = labels + " --neighbors " + examplePath( "neighbors" );
   for ( const auto& [arguments, status] : std::vector< std::pair< std::string, int > >{
            { "audit" + all, 0 },
            { "audit" + labels, 0 },
            { "audit --fault 'refuse label 16002' --limit 0 --format json" + all, 3 },
            { "audit --without-fecs" + all, 0 },
            { "audit --without-fecs --fault 'forget label 16002'" + all, 3 },
            { "audit --route-capacity 9" + all, 3 },
            { "audit", 2 },
            { "audit --limit -1" + all, 2 },
            { "audit" + all + " > /dev/full #", 2 },
            { "impact --next-hop 10.3.6.6 --interface to-kansas-city" + all, 0 },
            { "impact --interface to-seattle --format json" + labels, 0 },
            { "impact" + all, 2 },
            { "impact --next-hop 10.3.6" + all, 2 },
            { "impact --next-hop 10.3.6.7" + all, 2 },
            { "impact --next-hop 10.3.6.6 --interface to-seattle" + all, 2 },
            { "impact --interface eth9" + all, 2 } } ) {
      const std::string command =
         joinText( "'", VELMPLS_PROGRAM, "' ", arguments, " > /dev/null 2> /dev/null" );
      const int ended = std::system( command.c_str() ); // NOLINT: a shell is what people use
      EXPECT_EQ( WIFEXITED( ended ) ? WEXITSTATUS( ended ) : -1, status ) << arguments;
   }
}

} // namespace
} // namespace VelTest
