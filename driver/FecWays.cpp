// FecUnit: the way that a frame takes through FECs and tunnels, and whether there is one.

#include "driver/FecUnit.h"
#include "driver/FlowOrder.h"
#include "driver/SwitchStatus.h"

namespace Vel::Driver {

using Fib::FecId;
using Fib::FecVia;
using Mpls::Hardware::L2Via;

namespace {

constexpr U32 maxDepth = 8; // of FECs and tunnels in each other

} // namespace

/// The FECs and tunnels that a search for a way out has come to, so that each is followed once:
/// where one has led nowhere, it leads nowhere from another place either.
struct FecUnit::Search {
   struct Met {
      U32 depth = 0;
      bool open = true; // it is being followed
   };
   const void* first; // the FEC that the search begins with, outside `met`: most meet no other
   Hash< const void*, Met > met{};
};

/// What a frame meets on a way: `popped` labels come off, `pushed` ones go on, and it leaves by
/// `exit`.
struct FecUnit::Way {
   U64 hash;
   U32 depth = 0;
   Search* search = nullptr;
   U32 popped = 0;
   bool laysBare = false;       // a pop has uncovered what lies below the labels
   std::vector< U32 > pushed{}; // top first
   Mpls::PayloadType payloadType = Mpls::PayloadType::undefined;
   Mpls::TtlMode ttlMode = Mpls::TtlMode::undefined;
   NextHopInfo exit{};

   /// Adds a via's label operation behind those of the way so far.
   void add( const FecVia& via ) {
      if ( via.labelAction == MplsLabelAction::pop || via.labelAction == MplsLabelAction::swap ) {
         if ( pushed.empty() ) {
            ++popped;
         } else {
            pushed.erase( pushed.begin() );
         }
         if ( pushed.empty() && popped != 0 && !laysBare ) {
            laysBare = via.labelAction == MplsLabelAction::pop;
            payloadType = via.payloadType;
            ttlMode = via.ttlMode;
         }
      }
      for ( size_t i = via.labelStack.stackSize(); i > 0; --i ) {
         pushed.insert( pushed.begin(), via.labelStack.label( i - 1 ).value() );
      }
   }
};

AdjHwState FecUnit::stateOf( const HwFec& fec ) const {
   std::string why;
   Search search{ .first = &fec };
   Way primary{ .hash = 0, .depth = 1, .search = &search };
   if ( follow( fec.via, primary, why ) ) {
      return AdjHwState::primaryActive;
   }
   Way backup{ .hash = 0, .depth = 1, .search = &search };
   return fec.backup && follow( *fec.backup, backup, why ) ? AdjHwState::backupActive
                                                           : AdjHwState::down;
}

bool FecUnit::wayOut( const HwRoute& route, U64 flowHash, L2Via& out, std::string& why ) const {
   Search search{ .first = route.fec.get() };
   Way way{ .hash = flowHash, .search = &search };
   FecVia first;
   first.labelAction = route.operation.action;
   first.payloadType = route.operation.payloadType;
   first.ttlMode = route.operation.ttlMode;
   way.add( first );
   if ( !follow( *route.fec, way, why ) ) {
      return false;
   }
   if ( way.popped > 1 ) {
      why = joinText( "FEC ", route.fec->fecId, " takes more than the label of the route off" );
      return false;
   }
   out.intf = way.exit.l2Intf;
   out.vlanId = way.exit.vlanId;
   out.macAddr = way.exit.macAddr;
   out.payloadType = way.payloadType;
   out.ttlMode = way.ttlMode;
   out.labelStack = {};
   for ( const U32 label : way.pushed ) {
      if ( !out.labelStack.push( label ) ) {
         why = "more labels would go on than hardware can put there";
         return false;
      }
   }
   // After a pop it is a pop also when labels go on above: what it uncovered has to get its TTL.
   out.labelAction = way.popped == 0
                        ? way.pushed.empty() ? MplsLabelAction::none : MplsLabelAction::push
                     : way.laysBare || way.pushed.empty() ? MplsLabelAction::pop
                                                          : MplsLabelAction::swap;
   return true;
}

// Whether to follow the FEC or tunnel that the way has come to; if not, `why` says what is wrong
// with it. One that led nowhere is followed again where it is met less deep, since its ways may
// have been too deep.
bool FecUnit::enter( const void* what, const std::function< std::string() >& name, Way& way,
                     std::string& why ) {
   Search& search = *way.search;
   if ( ++way.depth > maxDepth ) {
      why = joinText( name(), " lies more than ", maxDepth, " FECs and tunnels deep" );
      return false;
   }
   if ( what == search.first ) {
      if ( way.depth == 1 ) {
         return true;
      }
      why = name() + " leads into itself";
      return false;
   }
   const auto [met, first] = search.met.emplace( what );
   if ( !first && met->open ) {
      why = name() + " leads into itself";
      return false;
   }
   if ( !first && met->depth <= way.depth ) {
      return false; // `why` says it already
   }
   *met = { way.depth, true };
   return true;
}

// The FEC or tunnel was followed in vain; a way that is found ends the search.
void FecUnit::leave( const void* what, const Way& way ) {
   if ( Search::Met* const met = way.search->met.find( what ) ) {
      met->open = false;
   }
}

bool FecUnit::follow( const HwFec& fec, Way& way, std::string& why ) const {
   if ( !enter(
           &fec, [&] { return joinText( "FEC ", fec.fecId ); }, way, why ) ) {
      return false;
   }
   const Way before = way;
   if ( follow( fec.via, way, why ) ) {
      return true;
   }
   way = before;
   if ( fec.backup && follow( *fec.backup, way, why ) ) {
      return true;
   }
   leave( &fec, before );
   return false;
}

bool FecUnit::followTunnel( IntfId intf, Way& way, std::string& why ) const {
   const Fib::Fec* const tunnel = status_.tunnel().find( intf );
   if ( tunnel == nullptr ) {
      why = joinText( "tunnel ", nameOf( intf ), " is not there" );
      return false;
   }
   if ( !enter(
           tunnel, [&] { return "tunnel " + nameOf( intf ); }, way, why ) ) {
      return false;
   }
   const Way before = way;
   if ( follow( tunnel->via, way, why ) ) {
      return true;
   }
   leave( tunnel, before );
   return false;
}

// Follows one of the usable vias, picked by the flow.
bool FecUnit::follow( const std::vector< FecVia >& vias, Way& way, std::string& why ) const {
   const Way before = way;
   FlowOrder order( before.hash, before.depth, vias.size() );
   for ( size_t tried = 0; tried < vias.size(); ++tried ) {
      way = before;
      if ( follow( vias[order.next()], way, why ) ) {
         return true;
      }
   }
   if ( vias.empty() ) {
      why = "a FEC without vias";
   }
   return false;
}

std::string FecUnit::nameOf( IntfId intf ) const {
   return platform_.intfName ? platform_.intfName( intf ) : textOf( intf );
}

bool FecUnit::follow( const FecVia& via, Way& way, std::string& why ) const {
   if ( via.drop ) {
      why = "the primary vias are disabled";
      return false;
   }
   way.add( via );
   switch ( via.intf.kind() ) {
   case IntfId::Kind::hierarchicalFec:
   case IntfId::Kind::nexthopGroup: {
      const FecId fecId = Fib::FecIdIntfId::intfIdToFecId( via.intf );
      const HwFec* const next = fec( fecId );
      if ( next == nullptr ) {
         why = joinText( "FEC ", fecId, " is not there" );
         return false;
      }
      return follow( *next, way, why );
   }
   case IntfId::Kind::dynamicTunnel:
      return followTunnel( via.intf, way, why );
   default:
      break;
   }
   way.exit = platform_.resolve ? platform_.resolve( via.intf, via.nextHop ) : NextHopInfo();
   // A via without an interface leaves by the one that its next hop is found on.
   const IntfId intf = via.intf.empty() ? way.exit.l2Intf : via.intf;
   if ( !links_.up( intf ) ) {
      why = joinText( "interface ", nameOf( intf ), " is down" );
      return false;
   }
   if ( !way.exit.resolved ) {
      why = joinText( "next hop ", via.nextHop, " on ", nameOf( via.intf ), " is not resolved" );
   }
   return way.exit.resolved;
}

} // namespace Vel::Driver
