// Label tables, neighbours and faults in few words, and an agent that has taken them.

#pragma once

#include <memory>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "agent/report/ProgramResult.h"
#include "agent/report/ResultPrinter.h"
#include "agent/world/LabelAgent.h"
#include "tests/LabelRig.h"

namespace VelTest {

using namespace Vel;
using namespace Vel::Agent;
using Mpls::RouteKey;
using Test::ip;
using Test::viaKey;
using Test::viaSetKey;

inline std::string examplePath( const std::string& name ) {
   return std::string( VELMPLS_SOURCE_DIR ) + "/examples/abilene-denver-" + name + ".json";
}

/// A line each.
inline std::string errorText( const std::vector< ImportError >& errors ) {
   std::string out;
   for ( const ImportError& error : errors ) {
      out += error.text() + "\n";
   }
   return out;
}

// --- The native format.

inline std::string swapVia( uint32_t outLabel, const std::string& nextHop,
                            const std::string& interface = "" ) {
   return joinText( R"({"action":"swap","outLabels":[)", outLabel, R"(],"nextHop":")", nextHop,
                    interface.empty() ? "\"" : R"(","interface":")" + interface + "\"", "}" );
}
inline std::string popVia( const std::string& nextHop, const std::string& interface ) {
   return joinText( R"({"action":"pop","payload":"ipv4","nextHop":")", nextHop,
                    R"(","interface":")", interface, "\"}" );
}
/// Swaps into a "tunnel", or leads into a "nextHopGroup", which does what it does.
inline std::string intoVia( const std::string& kind, const std::string& name ) {
   return joinText( kind == "nextHopGroup" ? R"({")" : R"({"action":"swap","outLabels":[17],")",
                    kind, R"(":")", name, "\"}" );
}
inline std::string joined( const std::vector< std::string >& parts ) {
   std::string out;
   for ( const std::string& part : parts ) {
      out += ( out.empty() ? "" : "," ) + part;
   }
   return out;
}
/// `rest`: further fields, each with a comma before it.
inline std::string routeOf( uint32_t label, const std::vector< std::string >& vias,
                            const std::string& rest = "" ) {
   return joinText( R"({"label":)", label, R"(,"vias":[)", joined( vias ), "]", rest, "}" );
}
inline std::string guardedRoute( uint32_t label, const std::vector< std::string >& vias,
                                 const std::string& backup, const std::string& rest = "" ) {
   return routeOf( label, vias, R"(,"backupVias":[)" + backup + "]" + rest );
}
const std::string primariesDisabled = R"(,"usableAsPrimaryVias":false)";

/// What another agent has under that name; `list`: "tunnels", "nextHopGroups" or "externalFecs".
inline std::string defined( const std::string& list, const std::string& name,
                            const std::string& via ) {
   return joinText( "\"", list, R"(":[{"name":")", name, R"(","vias":[)", via, "]}]," );
}
/// `definitions`: further fields, each with a comma behind it.
inline std::string tableText( const std::vector< std::string >& routes,
                              const std::string& definitions = "" ) {
   return R"({"velmplsLabelTable":1,)" + definitions + R"("routes":[)" + joined( routes ) + "]}";
}
inline LabelTable tableOf( const std::vector< std::string >& routes,
                           const std::string& definitions = "" ) {
   LabelTable table = parseLabelTable( tableText( routes, definitions ), "t" );
   EXPECT_EQ( errorText( table.errors ), "" );
   return table;
}

// --- Neighbours and faults.

inline Neighbor neighborOf( const std::string& address, const std::string& interface,
                            uint8_t lastOfMac, uint16_t vlan = 0 ) {
   return { address, interface, MacAddr( { 2, 0, 0, 0, 0, lastOfMac } ), true, "REACHABLE", vlan };
}
/// Hardware with those faults, in which eth1 is the first interface that there is, and so on.
inline Driver::SwitchSettings hardwareWith( const std::string& faults ) {
   Driver::SwitchSettings hardware{ .breachIsFatal = true };
   const auto fault = hardware.faults.parse( faults, []( std::string_view interface ) {
      return IntfId::ordinary( static_cast< U32 >( interface.back() - '0' ) );
   } );
   EXPECT_EQ( fault, std::nullopt );
   return hardware;
}

// --- The agent.

/// An agent with neighbours, to which tables are applied one after the other.
struct Programmed {
   explicit Programmed( const std::vector< LabelTable >& tables,
                        const std::vector< Neighbor >& neighbors = {}, bool withFecs = true,
                        const std::string& faults = "" ) {
      LfibPlan plan;
      if ( withFecs ) {
         plan.neighborsAre( { neighbors, {} } );
      }
      for ( const LabelTable& table : tables ) {
         plan.add( table );
      }
      agent = std::make_unique< LabelAgent >(
         std::move( plan ),
         LabelAgentSettings{ .hardware = hardwareWith( faults ), .withFecs = withFecs } );
      for ( const Neighbor& neighbor : neighbors ) {
         agent->l3().neighborIs( neighbor );
      }
   }
   void apply( size_t table ) {
      EXPECT_EQ( agent->apply( table ), std::nullopt );
      settle();
   }
   void settle() const { EXPECT_EQ( agent->settle(), std::nullopt ); }
   void runFor( double seconds ) const { EXPECT_EQ( agent->runFor( seconds ), std::nullopt ); }
   IntfId intf( const std::string& name ) const { return *agent->interfaces().intf( name ); }
   bool neighborDel( const std::string& address, const std::string& interface ) const {
      return agent->l3().neighborDel( { intf( interface ), ip( address ) } );
   }

   template< class T >
   T& root( const std::string& rootName ) const {
      return *agent->entityManager().root< T >( rootName );
   }
   Mpls::Hardware::Status& published() const {
      return root< Mpls::Hardware::Status >( "routingHwMplsStatus" );
   }
   void codeIs( uint32_t label, Mpls::RouteStatusCode code ) const {
      root< Mpls::LfibHwStatus >( "lfibHwStatus" )
         .unprogrammedRouteIs( { RouteKey( label ), code } );
   }
   FecIdToHwFecIdRequest& request() const {
      return root< FecIdToHwFecIdRequest >( "hwFecIdRequest" );
   }
   VrfMplsState& state() const {
      return *root< MplsSm >( "mplsSm" ).mplsState( L3::VrfName::defaultVrf() );
   }

   /// "state: reason", or the state alone.
   std::string stateOf( uint32_t label ) const {
      const auto route = ProgramResult( *agent ).route( RouteKey( label ) );
      return !route ? "absent"
                    : joinText( route->state, route->reason.empty() ? "" : ": ", route->reason );
   }
   /// Where a packet with the label goes: "INTERFACE label 17", or "drop".
   std::string forward( uint32_t label ) const {
      const Driver::ForwardResult result =
         agent->hardware().forward( LabelAgent::vrfId, Test::frameOf( label ) );
      if ( result.frames.empty() ) {
         return "drop";
      }
      const Driver::OutgoingFrame& out = result.frames.front();
      const Driver::Bytes& bytes = out.bytes;
      return joinText( agent->interfaces().name( out.intf ), " label ",
                       bytes[14] << 12 | bytes[15] << 4 | bytes[16] >> 4 );
   }

   std::unique_ptr< LabelAgent > agent;
};

} // namespace VelTest
