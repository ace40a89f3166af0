// Tables in the native format, and an agent that has taken them.

#pragma once

#include <map>
#include <memory>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "agent/LabelAgent.h"
#include "agent/ProgramResult.h"
#include "agent/ResultPrinter.h"

namespace VelTest {

using namespace Vel;
using namespace Vel::Agent;
using Mpls::RouteKey;

inline std::string examplePath( const std::string& name ) {
   return std::string( VELMPLS_SOURCE_DIR ) + "/examples/abilene-denver-" + name + ".json";
}

/// A swap in the native format.
inline std::string swapVia( uint32_t outLabel, const std::string& nextHop,
                            const std::string& interface = "" ) {
   return joinText( R"({"action":"swap","outLabels":[)", outLabel, R"(],"nextHop":")", nextHop,
                    interface.empty() ? "\"" : R"(","interface":")" + interface + "\"", "}" );
}
inline std::string joined( const std::vector< std::string >& parts ) {
   std::string out;
   for ( const std::string& part : parts ) {
      out += ( out.empty() ? "" : "," ) + part;
   }
   return out;
}
inline std::string routeOf( uint32_t label, const std::vector< std::string >& vias ) {
   return joinText( R"({"label":)", label, R"(,"vias":[)", joined( vias ), "]}" );
}
/// A table of routes in the native format; `definitions` are further fields, each with a comma.
inline LabelTable tableOf( const std::vector< std::string >& routes,
                           const std::string& definitions = "" ) {
   LabelTable table = parseLabelTable(
      R"({"velmplsLabelTable":1,)" + definitions + R"("routes":[)" + joined( routes ) + "]}", "t" );
   for ( const ImportError& error : table.errors ) {
      ADD_FAILURE() << error.text();
   }
   return table;
}
inline Neighbor neighborOf( const std::string& address, const std::string& interface,
                            uint8_t lastOfMac, uint16_t vlan = 0 ) {
   return { address, interface, { 2, 0, 0, 0, 0, lastOfMac }, true, "REACHABLE", vlan };
}

/// An agent with neighbours, to which tables are applied one after the other.
struct Programmed {
   explicit Programmed( const std::vector< LabelTable >& tables,
                        const std::vector< Neighbor >& neighbors = {},
                        LabelAgentSettings settings = {} ) {
      LfibPlan plan;
      if ( settings.withFecs ) {
         plan.neighborsAre( { "n", neighbors, {} } );
      }
      for ( const LabelTable& table : tables ) {
         plan.add( table );
      }
      settings.hardware.breachIsFatal = true;
      agent = std::make_unique< LabelAgent >( std::move( plan ), settings );
      for ( const Neighbor& neighbor : neighbors ) {
         agent->l3().neighborIs( neighbor );
      }
   }
   void apply( size_t table ) {
      EXPECT_EQ( agent->apply( table ), std::nullopt );
      settle();
   }
   void settle() const { EXPECT_EQ( agent->settle(), std::nullopt ); }
   /// "state: reason", or the state alone.
   std::string stateOf( uint32_t label ) const {
      const auto route = ProgramResult( *agent ).route( RouteKey( label ) );
      return !route ? "absent"
                    : joinText( name( route->state ), route->reason.empty() ? "" : ": ",
                                route->reason );
   }
   /// What changes when a route is programmed anew: the number of its FEC in hardware, or without
   /// FECs its version.
   std::map< uint32_t, U64 > versions() const {
      std::map< uint32_t, U64 > out;
      for ( const auto& [key, route] : agent->hardware().vrf( LabelAgent::vrfId )->route ) {
         out[key.topLabel().value()] = route.fec ? route.fec->hwId : route.version;
      }
      return out;
   }
   /// Sends an empty IPv4 packet with the label: "INTERFACE label 17", "INTERFACE ip", or "drop".
   std::string forward( uint32_t label ) const {
      Driver::Bytes frame( 12, 2 );
      for ( const uint32_t byte : { 0x88U,
                                    0x47U,
                                    label >> 12,
                                    label >> 4 & 0xFFU,
                                    ( label & 0xFU ) << 4 | 1U,
                                    64U,
                                    0x45U,
                                    0U,
                                    0U,
                                    20U,
                                    0U,
                                    1U,
                                    0U,
                                    0U,
                                    64U,
                                    59U,
                                    0x26U,
                                    0xECU,
                                    10U,
                                    0U,
                                    0U,
                                    1U,
                                    10U,
                                    0U,
                                    0U,
                                    2U } ) {
         frame.push_back( static_cast< uint8_t >( byte ) );
      }
      const Driver::ForwardResult result = agent->hardware().forward( LabelAgent::vrfId, frame );
      if ( result.frames.empty() ) {
         return "drop";
      }
      const Driver::OutgoingFrame& out = result.frames.front();
      const Driver::Bytes& bytes = out.bytes;
      return agent->interfaces().name( out.intf ) +
             ( bytes[12] == 0x08
                  ? " ip"
                  : joinText( " label ", bytes[14] << 12 | bytes[15] << 4 | bytes[16] >> 4 ) );
   }

   std::unique_ptr< LabelAgent > agent;
};

} // namespace VelTest
