#include "agent/ProgramResult.h"

#include <algorithm>

namespace Vel::Agent {

using Mpls::RouteKey;
using Mpls::RouteStatusCode;

namespace {

constexpr size_t namedNextHops = 3; // of those that are not resolved; the rest is counted

std::vector< U32 > labelsOf( const Mpls::LabelStack& stack ) {
   std::vector< U32 > labels( stack.stackSize() );
   for ( size_t i = 0; i < labels.size(); ++i ) {
      labels[i] = stack.label( i ).value();
   }
   return labels;
}

/// "next hops 10.0.1.3 on eth1, 10.0.1.9 and 2 more are not resolved", or nothing.
std::string unresolvedReason( const std::vector< ResultVia >& vias ) {
   std::vector< std::string > hops;
   for ( const ResultVia& via : vias ) {
      if ( via.resolved() ) {
         continue;
      }
      std::string hop = via.nextHop.text();
      if ( !via.interface.empty() ) {
         hop += " on " + via.interface;
      }
      if ( std::ranges::find( hops, hop ) == hops.end() ) {
         hops.push_back( std::move( hop ) );
      }
   }
   if ( hops.empty() ) {
      return {};
   }
   std::string out = hops.size() == 1 ? "next hop " : "next hops ";
   for ( size_t i = 0; i < std::min( hops.size(), namedNextHops ); ++i ) {
      out += ( i == 0 ? "" : ", " ) + hops[i];
   }
   if ( hops.size() > namedNextHops ) {
      out += joinText( " and ", hops.size() - namedNextHops, " more" );
   }
   return out + ( hops.size() == 1 ? " is not resolved" : " are not resolved" );
}

std::string refusedReason( UnprogrammedReason reason, std::string_view what ) {
   switch ( reason ) {
   case UnprogrammedReason::RouteFull:
      return "hardware is full: routes";
   case UnprogrammedReason::AdjacencyFull:
      return "hardware is full: adjacencies";
   case UnprogrammedReason::InterfaceNotReady:
      return "refused by hardware: InterfaceNotReady";
   case UnprogrammedReason::Success:
      break;
   }
   return joinText( "refused by hardware: ", what );
}

} // namespace

std::string_view name( ProgramState state ) {
   switch ( state ) {
   case ProgramState::programmed:
      return "programmed";
   case ProgramState::partiallyProgrammed:
      return "partiallyProgrammed";
   case ProgramState::unprogrammed:
      return "unprogrammed";
   case ProgramState::ignored:
      break;
   }
   return "ignored";
}

/// Where a route stands, everywhere.
struct ProgramResult::Found {
   Mpls::LfibRoute lfib;
   const MplsRoute* record = nullptr;     // what the state machine holds
   const Mpls::RouteInfo* info = nullptr; // what it has published
   const Mpls::Hardware::Route* hwMpls = nullptr;
   const MplsHwRoute* config = nullptr;       // what the hardware was asked for
   const Driver::HwRoute* hardware = nullptr; // what the hardware holds

   bool ignored() const { return lfib.viaSetKey.viaType() != Mpls::viaTypeMplsIp; }
   Mpls::Hardware::L2Adjacency* l2Adjacency() const {
      const auto* const adjacency = hwMpls ? hwMpls->adjacency.get() : nullptr;
      return adjacency ? adjacency->l2Adjacency().get() : nullptr;
   }
};

ProgramResult::ProgramResult( const LabelAgent& agent ) : agent_( agent ) {
   routes_.reserve( agent.lfib().lfibRoutes() );
   agent.lfib().lfibRouteEach(
      [this]( const Mpls::LfibRoute& route ) { routes_.push_back( route.routeKey ); },
      Mpls::LfibWalk::skip );
   std::ranges::sort( routes_ );
   states_.reserve( routes_.size() );
   for ( const RouteKey key : routes_ ) {
      const ProgramState state = stateOf( find( key ) );
      states_.push_back( state );
      ++summary_.byState[static_cast< size_t >( state )];
   }
   summary_.routes = routes_.size();
   summary_.l3Adjacencies = agent.hwMplsStatus().adjacencys();
   summary_.l2Adjacencies = agent.hardware().adjacencies();
}

ProgramResult::Found ProgramResult::find( RouteKey key ) const {
   Found found;
   found.lfib = agent_.lfib().lfibRoute( key );
   if ( const VrfMplsState* const state = agent_.mplsSm().mplsState( L3::VrfName::defaultVrf() ) ) {
      found.record = state->route( key );
   }
   found.info = agent_.lfibHwStatus().unprogrammedRoute().find( key );
   found.hwMpls = agent_.hwMplsStatus().route().find( key );
   if ( const MplsHwVrfConfig* const config = agent_.hwConfig() ) {
      found.config = config->route().find( key );
   }
   found.hardware = agent_.hardware().route( LabelAgent::vrfId, key );
   return found;
}

ProgramState ProgramResult::stateOf( const Found& found ) const {
   if ( found.ignored() ) {
      return ProgramState::ignored;
   }
   if ( found.info == nullptr || found.info->statusCode == RouteStatusCode::notProgrammed ||
        !contradiction( found ).empty() ) {
      return ProgramState::unprogrammed;
   }
   return found.info->statusCode == RouteStatusCode::programmed ? ProgramState::programmed
                                                                : ProgramState::partiallyProgrammed;
}

// What the published status says against what the hardware holds.
std::string_view ProgramResult::contradiction( const Found& found ) const {
   if ( found.info == nullptr || found.info->statusCode == RouteStatusCode::notProgrammed ) {
      return found.hardware ? "published as not programmed, but the hardware still forwards with it"
                            : "";
   }
   if ( found.hardware == nullptr ) {
      return "published as programmed, but the hardware does not hold it";
   }
   const Driver::HwAdjacency& held = *found.hardware->adjacency;
   if ( found.l2Adjacency() == nullptr || held.l2Adjacency().get() != found.l2Adjacency() ) {
      return "published as programmed, but the hardware holds it with another adjacency";
   }
   if ( found.config == nullptr || found.config->version != found.hardware->version ) {
      return "published as programmed, but the hardware holds another version of it";
   }
   if ( !held.inHardware() || held.l2Via() != found.l2Adjacency()->l2ViaSet().l2Via() ) {
      return "published as programmed, but the hardware holds other vias for it";
   }
   return "";
}

// --- One route.

void ProgramResult::read( size_t i, ResultRoute& out ) const {
   readRoute( routes_[i], out );
}

std::optional< ResultRoute > ProgramResult::route( RouteKey key ) const {
   if ( !agent_.lfib().lfibRoute( key ) ) {
      return std::nullopt;
   }
   ResultRoute out;
   readRoute( key, out );
   return out;
}

void ProgramResult::readRoute( RouteKey key, ResultRoute& out ) const {
   const Found found = find( key );
   out.key = key;
   out.state = stateOf( found );
   out.reason.clear();
   out.l3Adjacency.reset();
   out.l2Adjacency.reset();
   if ( const L3Adjacency* const l3Adj = found.record ? found.record->l3Adj().get() : nullptr ) {
      out.l3Adjacency = l3Adj->index();
      if ( l3Adj->l2Adjacency() ) {
         out.l2Adjacency = l3Adj->l2Adjacency()->index();
      }
   }
   readVias( found.lfib.viaSetKey, out.vias );
   if ( out.state != ProgramState::programmed ) {
      out.reason = reasonOf( found, out );
   }
}

// From the adjacency, which knows what the vias resolved to; one without vias could not be made of
// the via set, which is then shown as the LFIB has it.
void ProgramResult::readVias( Mpls::LfibViaSetKey viaSetKey, std::vector< ResultVia >& out ) const {
   out.clear();
   const Interfaces& interfaces = agent_.interfaces();
   const VrfMplsState* const state = agent_.mplsSm().mplsState( L3::VrfName::defaultVrf() );
   if ( state && state->lFibViaSetToL3AdjHas( viaSetKey ) ) {
      const U64 index = state->lFibViaSetToL3Adj( viaSetKey );
      if ( const auto* const adjacency = agent_.hwMplsStatus().adjacency( index ) ) {
         for ( const auto& [viaIndex, via] : adjacency->via() ) {
            ResultVia& made = out.emplace_back( ResultVia{ via.labelAction,
                                                           labelsOf( via.labelStack ),
                                                           via.nextHop,
                                                           interfaces.name( via.intf ),
                                                           {} } );
            for ( const Mpls::Hardware::L2Via& l2Via : via.l2Via.l2Via() ) {
               made.exits.push_back(
                  { interfaces.name( l2Via.intf ), l2Via.vlanId, l2Via.macAddr } );
            }
         }
      }
   }
   if ( !out.empty() || viaSetKey.viaType() != Mpls::viaTypeMplsIp ) {
      return;
   }
   const Mpls::LfibViaSet viaSet = agent_.lfib().lfibViaSet( viaSetKey );
   for ( U32 i = 0; i < viaSet.viaKeys(); ++i ) {
      const Mpls::LfibMplsVia via = agent_.lfib().lfibMplsVia( viaSet.viaKey( i ) );
      out.push_back( { via.labelAction,
                       labelsOf( via.labelStack ),
                       via.nextHop,
                       interfaces.name( via.intf ),
                       {} } );
   }
}

// --- Reasons.

std::string ProgramResult::reasonOf( const Found& found, const ResultRoute& route ) const {
   if ( route.state == ProgramState::ignored ) {
      const std::string& reason = agent_.ignoredReason( route.key );
      return !reason.empty() ? reason
                             : joinText( "vias of the type ", found.lfib.viaSetKey.viaType(),
                                         " are not programmed by this version" );
   }
   if ( route.state == ProgramState::partiallyProgrammed ) {
      return unresolvedReason( route.vias );
   }
   std::string reason( contradiction( found ) );
   if ( reason.empty() ) {
      reason = unprogrammedReason( found, route );
   }
   return reason;
}

// In the order of the way into hardware: the first obstacle is the one to remove.
std::string ProgramResult::unprogrammedReason( const Found& found,
                                               const ResultRoute& route ) const {
   if ( const std::string fault = agent_.mplsSm().lFibViaSetFault( found.lfib.viaSetKey );
        !fault.empty() ) {
      return faultReason( fault, route );
   }
   if ( !route.l2Adjacency ) {
      if ( std::string reason = unresolvedReason( route.vias ); !reason.empty() ) {
         return reason;
      }
   }
   // The hardware's own words: the VRF's status has one reason for all that it refuses.
   if ( const Driver::SwitchVrfStatus* const refused =
           agent_.hardware().status()->vrf( LabelAgent::vrfId ) ) {
      Mpls::Hardware::L2Adjacency* const l2Adj = found.l2Adjacency();
      if ( l2Adj && refused->refusedAdjacencyHas( l2Adj->index() ) ) {
         return refusedReason( refused->refusedAdjacency( l2Adj->index() ), "its adjacency" );
      }
      if ( refused->refusedRouteHas( route.key ) ) {
         return refusedReason( refused->refusedRoute( route.key ), "the route" );
      }
   }
   return "not confirmed by hardware yet";
}

// The library says what is wrong with a via set; which via it is follows from what can be wrong
// with vias of ordinary interfaces: too many labels, or no next hop.
std::string ProgramResult::faultReason( const std::string& fault, const ResultRoute& route ) const {
   for ( size_t i = 0; i < route.vias.size(); ++i ) {
      if ( route.vias[i].outLabels.size() > 1 || route.vias[i].nextHop.empty() ) {
         return joinText( "via ", i + 1, ": ", fault );
      }
   }
   return fault;
}

} // namespace Vel::Agent
