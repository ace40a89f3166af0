// Frames: any bytes through a switch with routes of every kind, with and without FECs. The first
// byte picks the switch and the links that are down.

#include <algorithm>
#include <memory>

#include "agent/world/LabelAgent.h"
#include "fuzz/Input.h"

namespace Vel::Fuzz {

using namespace Agent;

namespace {

constexpr std::string_view neighborText = R"([
   {"dst":"10.0.0.1","dev":"a","lladdr":"02:00:00:00:00:01","state":["REACHABLE"]},
   {"dst":"fe80::2","dev":"b","lladdr":"02:00:00:00:00:02","state":["STALE"],"vlan":20}])";

constexpr std::string_view tableText = R"({"velmplsLabelTable":1,"routes":[
   {"label":0,"vias":[{"action":"pop","nextHop":"10.0.0.1","interface":"a"}]},
   {"label":2,"vias":[{"action":"pop","nextHop":"fe80::2","interface":"b"}]},
   {"label":16,"vias":[{"action":"swap","outLabels":[17],"nextHop":"10.0.0.1","interface":"a"},
                       {"action":"swap","outLabels":[18],"nextHop":"fe80::2","interface":"b"}]},
   {"label":17,"vias":[{"action":"pop","nextHop":"10.0.0.1","interface":"a"}]},
   {"label":18,"vias":[{"action":"pop","nextHop":"fe80::2","interface":"b","ttlMode":"pipe"}]},
   {"label":19,"vias":[{"action":"pop","payload":"ipv4","nextHop":"10.0.0.1","interface":"a"}]},
   {"label":20,"vias":[{"action":"push","outLabels":[0],"nextHop":"10.0.0.1","interface":"a"}]},
   {"label":21,"vias":[{"action":"swap","outLabels":[17],"nextHop":"10.0.0.1","interface":"a"}],
    "backupVias":[{"action":"pop","nextHop":"fe80::2","interface":"b"}]},
   {"stack":[16,17],"vias":[{"action":"pop","nextHop":"10.0.0.1","interface":"a"}]},
   {"stack":[16,17,18],"vias":[
      {"action":"swap","outLabels":[1048575],"nextHop":"fe80::2","interface":"b"}]},
   {"label":22,"vias":[{"action":"pop","nextHopGroup":"g"}]},
   {"label":23,"vias":[{"action":"swap","outLabels":[17],"tunnel":"t"}]},
   {"label":24,"vias":[{"action":"pop","payload":"ipv6","ttlMode":"pipe","tunnel":"t"}]},
   {"label":25,"externalFec":"e"}],
   "nextHopGroups":[{"name":"g","vias":[{"nextHop":"10.0.0.1","interface":"a"},
                                        {"nextHop":"fe80::2","interface":"b"}]}],
   "tunnels":[{"name":"t","vias":[
      {"action":"push","outLabels":[18,19],"nextHop":"10.0.0.1","interface":"a"}]}],
   "externalFecs":[{"name":"e","vias":[{"action":"pop","tunnel":"t"}]}]})";

std::unique_ptr< LabelAgent > agentWith( bool fecs ) {
   const NeighborTable neighbors = parseNeighborTable( neighborText, "neighbors" );
   const LabelTable table = parseLabelTable( tableText, "table" );
   VEL_ASSERT( neighbors.errors.empty() && table.errors.empty() );
   LfibPlan plan;
   plan.add( table );
   auto agent =
      std::make_unique< LabelAgent >( std::move( plan ), LabelAgentSettings{ .withFecs = fecs } );
   agent->neighborsAre( neighbors );
   VEL_ASSERT( !agent->apply( 0 ) && !agent->settle() );
   VEL_ASSERT( agent->hardware().routes() >= ( fecs ? 14 : 10 ) );
   return agent;
}

/// What is read of a frame can be written again.
void checkHeaders( ByteView frame ) {
   // A tag behind a tag for priority only, which is not written, would be taken for the first.
   if ( const auto header = Driver::ethernetRead( frame );
        header && ( header->vlanId != 0 || header->etherType != Driver::etherTypeDot1q ) ) {
      Driver::Bytes written;
      Driver::ethernetAppend( written, *header );
      const auto again = Driver::ethernetRead( written );
      VEL_ASSERT( again && again->destination == header->destination &&
                  again->source == header->source && again->vlanId == header->vlanId );
      VEL_ASSERT( header->vlanId != 0 ? again->etherType == header->etherType
                                      : header->size >= again->size );
   }
   for ( size_t at = 0; const auto entry = Driver::labelEntryRead( frame, at ); ++at ) {
      Driver::Bytes written;
      Driver::labelEntryAppend( written, *entry );
      VEL_ASSERT( std::ranges::equal( written, frame.subspan( at, Driver::LabelEntry::size ) ) );
   }
   Driver::ipFlowHash( frame, 0 );
}

void checkForwarding( Driver::SoftwareSwitch& hardware, ByteView frame ) {
   const Driver::ForwardResult result = hardware.forward( LabelAgent::vrfId, frame );
   const bool dropped = result.drop != Driver::DropReason::none;
   VEL_ASSERT( dropped == result.frames.empty() && dropped == !result.text.empty() );
   for ( const Driver::OutgoingFrame& out : result.frames ) {
      const auto header = Driver::ethernetRead( out.bytes );
      VEL_ASSERT( header && header->source == MacAddr( 0x02'00'00'00'00'01 ) );
      VEL_ASSERT( header->vlanId == out.vlanId && !out.intf.empty() );
      VEL_ASSERT( hardware.linkUp( out.intf ) );
   }
   const Driver::ForwardResult again = hardware.forward( LabelAgent::vrfId, frame );
   VEL_ASSERT( again.frames == result.frames && again.text == result.text );
}

} // namespace

void fuzzFrames( ByteView bytes ) {
   static const std::array agents{ agentWith( false ), agentWith( true ) };
   Input input( bytes );
   const uint8_t form = input.byte();
   const LabelAgent& agent = *agents[form & 1];
   Driver::SoftwareSwitch& hardware = agents[form & 1]->hardware();
   const auto linksAre = [&]( bool a, bool b ) {
      hardware.linkIs( *agent.interfaces().intf( "a" ), a );
      hardware.linkIs( *agent.interfaces().intf( "b" ), b );
   };
   linksAre( ( form & 2 ) == 0, ( form & 4 ) == 0 );
   checkHeaders( input.rest() );
   checkForwarding( hardware, input.rest() );
   linksAre( true, true );
}

} // namespace Vel::Fuzz
