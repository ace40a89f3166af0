#include "agent/report/ProgramResult.h"

#include <algorithm>

namespace Vel::Agent {

using Inspect::LabelState;
using Mpls::RouteKey;

namespace {

constexpr size_t namedNextHops = 3; // of those that are not resolved; the rest is counted

std::vector< U32 > labelsOf( const Mpls::LabelStack& stack ) {
   std::vector< U32 > labels( stack.stackSize() );
   for ( size_t i = 0; i < labels.size(); ++i ) {
      labels[i] = stack.label( i ).value();
   }
   return labels;
}

/// "tunnel t1 is not there yet".
std::string foreignReason( const ResultVia& via ) {
   return joinText( nounOf( *via.into ), " ", via.name,
                    via.there ? " has no way out" : " is not there yet" );
}

/// "next hops 10.0.1.3 on eth1, 10.0.1.9 and 2 more are not resolved", or nothing.
std::string unresolvedReason( const std::vector< ResultVia >& vias ) {
   std::vector< std::string > hops;
   for ( const ResultVia& via : vias ) {
      if ( via.resolved() ) {
         continue;
      }
      if ( via.into ) {
         return foreignReason( via ); // the library refuses sets with both kinds of vias
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

/// Where a route stands.
struct ProgramResult::Found {
   Mpls::LfibRoute lfib;
   const MplsRoute* record = nullptr; // what the state machine holds

   const L3Adjacency* l3Adj() const { return record ? record->l3Adj().get() : nullptr; }
   const ExternalFecInfo* fec() const {
      return record && record->inFecInHardware() ? record->extFecInfo().get() : nullptr;
   }
   /// False while the route stays in the FEC of its former vias, until hardware has the present
   /// FEC.
   bool inItsFec() const { return fec() && l3Adj() && l3Adj()->extFecInfo() == fec(); }
};

ProgramResult::ProgramResult( const LabelAgent& agent )
   : agent_( agent ),
     name_( agent.interfaceName() ),
     fecs_( agent.entityManager() ),
     foreignWays_( agent.entityManager(), name_ ),
     labelStates_( agent.entityManager() ) {
   routes_.reserve( agent.lfib().lfibRoutes() );
   agent.lfib().lfibRouteEach(
      [this]( const Mpls::LfibRoute& route ) { routes_.push_back( route.routeKey ); },
      Mpls::LfibWalk::skip );
   std::ranges::sort( routes_ );
   states_.reserve( routes_.size() );
   for ( const RouteKey key : routes_ ) {
      const LabelState state = labelStates_.of( key ).state;
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
   return found;
}

ResultStartup ProgramResult::startup() const {
   ResultStartup startup;
   const Driver::SwitchStatus& hardware = *agent_.hardware().status();
   for ( const auto& [stage, seconds] : agent_.mplsSm().mplsSmStartupRecord()->timeTaken() ) {
      startup.stages.push_back( { stringValue( stage ), seconds } );
   }
   startup.adopted = hardware.routesAdopted();
   startup.changed = hardware.routesChanged();
   startup.added = hardware.routesAdded();
   startup.stale = hardware.routesStale();
   for ( const RouteKey key : agent_.mplsSm().staleRecoveredRoute() ) {
      startup.held.push_back( key );
   }
   return startup;
}

const Mpls::Hardware::Adjacency* ProgramResult::adjacencyOf( Mpls::LfibViaSetKey viaSetKey ) const {
   const VrfMplsState* const state = agent_.mplsSm().mplsState( L3::VrfName::defaultVrf() );
   return state && state->lFibViaSetToL3AdjHas( viaSetKey )
             ? agent_.hwMplsStatus().adjacency( state->lFibViaSetToL3Adj( viaSetKey ) )
             : nullptr;
}

// --- One route.

void ProgramResult::read( size_t i, ResultRoute& out ) const {
   readRoute( routes_[i], out );
}

std::optional< ResultRoute > ProgramResult::route( RouteKey key ) const {
   if ( !agent_.lfib().lfibRoute( key ) ) {
      return std::nullopt;
   }
   ResultRoute out{};
   readRoute( key, out );
   return out;
}

void ProgramResult::readRoute( RouteKey key, ResultRoute& out ) const {
   const Found found = find( key );
   out.key = key;
   out.state = labelStates_.of( key ).state;
   out.reason.clear();
   out.l3Adjacency.reset();
   out.l2Adjacency.reset();
   if ( const L3Adjacency* const l3Adj = found.l3Adj() ) {
      out.l3Adjacency = l3Adj->index();
      if ( l3Adj->l2Adjacency() ) {
         out.l2Adjacency = l3Adj->l2Adjacency()->index();
      }
   }
   readVias( found.lfib.viaSetKey, out.vias );
   const Mpls::LfibViaSet viaSet = agent_.lfib().lfibViaSet( found.lfib.viaSetKey );
   out.usableAsPrimaryVias = viaSet.null() || viaSet.usableAsPrimaryVias();
   out.backup.clear();
   if ( !viaSet.null() && !viaSet.backupViaSetKey().empty() ) {
      readVias( viaSet.backupViaSetKey(), out.backup );
   }
   if ( found.inItsFec() ) {
      const Fib::Fec* const content = fecs_.requested( found.fec()->fecId() );
      for ( ResultVia& via : out.vias ) {
         via.fec = found.fec()->fecId();
      }
      for ( ResultVia& via : out.backup ) {
         via.fec = content ? content->backupFecId : Fib::FecId();
      }
   }
   if ( out.state != LabelState::programmed ) {
      out.reason = reasonOf( found, out );
   }
}

// The adjacency knows what the vias resolved to. It has no vias when the library could not make
// them of the via set; the result then shows the via set as the LFIB has it.
void ProgramResult::readVias( Mpls::LfibViaSetKey viaSetKey, std::vector< ResultVia >& out ) const {
   out.clear();
   const Interfaces& interfaces = agent_.interfaces();
   if ( const Mpls::Hardware::Adjacency* const adjacency = adjacencyOf( viaSetKey ) ) {
      for ( const auto& [viaIndex, via] : adjacency->via() ) {
         ResultVia& made =
            out.emplace_back( viaInto( via.labelAction, via.labelStack, via.nextHop, via.intf ) );
         for ( const Mpls::Hardware::L2Via& l2Via : via.l2Via.l2Via() ) {
            made.exits.push_back( { interfaces.name( l2Via.intf ), l2Via.vlanId, l2Via.macAddr } );
         }
         if ( made.into ) {
            for ( const Inspect::ForeignExit& exit : foreignWays_.read( via.intf ).exits ) {
               made.exits.push_back( { interfaces.name( exit.rewrite.l2Intf ), exit.rewrite.vlanId,
                                       exit.rewrite.macAddr } );
            }
         }
      }
   }
   if ( out.empty() ) {
      readViasFromLfib( viaSetKey, out );
   }
}

void ProgramResult::readViasFromLfib( Mpls::LfibViaSetKey viaSetKey,
                                      std::vector< ResultVia >& out ) const {
   if ( !isTransit( viaSetKey.viaType() ) ) {
      return;
   }
   const Mpls::LfibViaSet viaSet = agent_.lfib().lfibViaSet( viaSetKey );
   for ( U32 i = 0; i < viaSet.viaKeys(); ++i ) {
      if ( viaSetKey.viaType() == Mpls::viaTypeExternalFec ) {
         const Fib::FecId fecId = agent_.lfib().lfibExtFecVia( viaSet.viaKey( i ) ).fecId;
         out.push_back( viaInto( MplsLabelAction::none, {}, IpGenAddr(),
                                 Fib::FecId::fecIdToHierarchicalIntfId( fecId ) ) );
         continue;
      }
      const Mpls::LfibMplsVia via = agent_.lfib().lfibMplsVia( viaSet.viaKey( i ) );
      out.push_back( viaInto( via.labelAction, via.labelStack, via.nextHop, via.intf ) );
   }
}

// The via without its exits.
ResultVia ProgramResult::viaInto( MplsLabelAction action, const Mpls::LabelStack& labels,
                                  const IpGenAddr& nextHop, IntfId intf ) const {
   ResultVia via{ action, labelsOf( labels ), nextHop, {}, {} };
   via.into = Interfaces::foreignKind( intf );
   ( via.into ? via.name : via.interface ) = agent_.interfaces().name( intf );
   via.there = via.into && agent_.foreignFecs().find( intf ) != nullptr;
   return via;
}

// --- Reasons.

std::string ProgramResult::reasonOf( const Found& found, const ResultRoute& route ) const {
   if ( route.state == LabelState::ignored ) {
      const std::string& reason = agent_.ignoredReason( route.key );
      return !reason.empty() ? reason
                             : joinText( "vias of the type ", found.lfib.viaSetKey.viaType(),
                                         " are not programmed by this version" );
   }
   const L3Adjacency* const l3Adj = found.l3Adj();
   if ( route.state == LabelState::partiallyProgrammed &&
        ( ( found.fec() && !found.inItsFec() ) || ( l3Adj && l3Adj->otherVias() ) ) ) {
      return "forwards by what hardware had: " + obstacle( found, route );
   }
   if ( route.state == LabelState::partiallyProgrammed ) {
      std::string reason =
         unresolvedReason( route.usableAsPrimaryVias ? route.vias : route.backup );
      if ( reason.empty() && found.inItsFec() && !route.usableAsPrimaryVias ) {
         return "its vias are disabled, it leaves by its backup";
      }
      return reason.empty() ? obstacle( found, route ) : reason;
   }
   return obstacle( found, route );
}

// In the order of the way into hardware: the first obstacle is the one to remove.
std::string ProgramResult::obstacle( const Found& found, const ResultRoute& route ) const {
   if ( const std::string fault = agent_.mplsSm().lFibViaSetFault( found.lfib.viaSetKey );
        !fault.empty() ) {
      return faultReason( fault, route.vias );
   }
   if ( std::string reason = backupReason( found, route ); !reason.empty() ) {
      return reason;
   }
   const auto open = []( const std::vector< ResultVia >& vias ) {
      return std::ranges::any_of( vias, &ResultVia::resolved );
   };
   if ( !( route.usableAsPrimaryVias && open( route.vias ) ) && !open( route.backup ) ) {
      if ( std::string reason = unresolvedReason(
              route.usableAsPrimaryVias || route.backup.empty() ? route.vias : route.backup );
           !reason.empty() ) {
         return reason;
      }
   }
   if ( std::string reason = fecReason( found ); !reason.empty() ) {
      return reason;
   }
   if ( std::string reason = refusals( found, route.key ); !reason.empty() ) {
      return reason;
   }
   if ( !found.inItsFec() && !route.vias.empty() && route.vias.front().into ) {
      // The backup leads somewhere, but the FEC of a group has no backup of this library.
      if ( std::string reason = unresolvedReason( route.vias ); !reason.empty() ) {
         return reason;
      }
   }
   if ( found.fec() && !found.inItsFec() ) {
      return "its FEC is not there yet; hardware still forwards by the one that it had";
   }
   return !route.usableAsPrimaryVias ? "its vias are disabled, and no backup is in hardware"
                                     : "not confirmed by hardware yet";
}

// Why the route waits for its backup; empty when it does not.
std::string ProgramResult::backupReason( const Found& found, const ResultRoute& route ) const {
   const VrfMplsState* const state = agent_.mplsSm().mplsState( L3::VrfName::defaultVrf() );
   const L3Adjacency* const l3Adj = found.l3Adj();
   std::string reason =
      state && l3Adj ? agent_.mplsSm().backupWaitReason( *state, *l3Adj ) : std::string();
   if ( reason.empty() ) {
      return reason;
   }
   const std::string fault = agent_.mplsSm().lFibViaSetFault( l3Adj->backupAwaited() );
   return fault.empty() ? reason : "its backup: " + faultReason( fault, route.backup );
}

// Asks the hardware, since the VRF's status has one reason for all refusals.
std::string ProgramResult::refusals( const Found& found, RouteKey key ) const {
   const Driver::SwitchVrfStatus* const refused =
      agent_.hardware().status()->vrf( LabelAgent::vrfId );
   if ( refused == nullptr ) {
      return {};
   }
   const L3Adjacency* const l3Adj = found.l3Adj();
   const bool intoFec = l3Adj && l3Adj->extFecInfo();
   const MplsL2Adjacency* const l2Adj = l3Adj ? l3Adj->l2Adjacency().get() : nullptr;
   if ( l2Adj && !intoFec && refused->refusedAdjacencyHas( l2Adj->index() ) ) {
      return refusedReason( refused->refusedAdjacency( l2Adj->index() ), "its adjacency" );
   }
   return refused->refusedRouteHas( key )
             ? refusedReason( refused->refusedRoute( key ), "the route" )
             : std::string();
}

// Why hardware does not have the route's FEC as it is requested; empty when it does.
std::string ProgramResult::fecReason( const Found& found ) const {
   const L3Adjacency* const l3Adj = found.l3Adj();
   const ExternalFecInfo* const info = l3Adj ? l3Adj->extFecInfo().get() : nullptr;
   const Driver::SwitchStatus& status = *agent_.hardware().status();
   if ( info == nullptr || !status.waitingFecHas( info->fecId() ) ) {
      return {};
   }
   const UnprogrammedReason reason = status.waitingFec( info->fecId() );
   return reason == UnprogrammedReason::AdjacencyFull ? "hardware is full: FECs"
                                                      : refusedReason( reason, "its FEC" );
}

// The library says what is wrong with a via set, and not with which via. A via is wrong when it has
// too many labels, no next hop, or no interface where hardware needs one. An interface is missing
// when the neighbour is unknown, from which the plan would have filled it in.
std::string ProgramResult::faultReason( const std::string& fault,
                                        const std::vector< ResultVia >& vias ) const {
   for ( size_t i = 0; i < vias.size(); ++i ) {
      const ResultVia& via = vias[i];
      const bool named =
         via.into || ( !via.nextHop.empty() && !( agent_.withFecs() && via.interface.empty() ) );
      if ( via.outLabels.size() <= 1 && named ) {
         continue;
      }
      return via.outLabels.size() > 1 || via.nextHop.empty()
                ? joinText( "via ", i + 1, ": ", fault )
                : unknownNextHopReason( vias );
   }
   return fault;
}

std::string ProgramResult::unknownNextHopReason( const std::vector< ResultVia >& vias ) const {
   std::vector< ResultVia > unresolved;
   for ( const ResultVia& via : vias ) {
      const std::optional< IntfId > intf = agent_.interfaces().intf( via.interface );
      if ( !intf || !agent_.l3().info( { *intf, via.nextHop } ).resolved ) {
         unresolved.push_back( via );
      }
   }
   return unresolvedReason( unresolved );
}

} // namespace Vel::Agent
