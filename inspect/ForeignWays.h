// ForeignWays: the neighbours that frames reach through next-hop groups, external FECs and dynamic
// tunnels, which belong to other agents.
//
// Their owners program them. The label state machine knows only their names; a driver may tell
// their content (MplsHwInsight). Each of them is followed once, as deep as hardware follows it,
// however many vias lead into it.
//
//    const ForeignWays ways( entityManager );
//    const ForeignEnds ends = ways.read( via.intf );
//    if ( ends.known && ends.exits.empty() ) ... ends.why ...
//
// Without such a driver nothing is known of them (`known` is false).
//
// Cost: a look-up for each FEC, tunnel and via on the ways.

#pragma once

#include <functional>
#include <string>
#include <vector>

#include "inspect/Words.h"
#include "mpls/VelMplsHwInsight.h"
#include "platform/entity/EntityManager.h"

namespace Vel::Inspect {

/// A neighbour that frames can reach.
struct ForeignExit {
   NextHopKey nextHop;
   NextHopInfo rewrite;
};

struct ForeignEnds {
   /// The driver told the content of every FEC and tunnel on the ways.
   bool known = true;
   std::vector< ForeignExit > exits; ///< resolved, each once
   std::string why;                  ///< why the last of the ways without an end leads nowhere
};

class ForeignWays {
 public:
   /// Takes "mplsHwInsight" where it is mounted.
   explicit ForeignWays( const EntityManager& entities, InterfaceName name = {} )
      : insight_( entities.root< MplsHwInsight >( "mplsHwInsight" ) ), name_( std::move( name ) ) {}

   /// The interface stands for something of another agent.
   static bool leadsElsewhere( IntfId intf ) {
      return intf.kind() == IntfId::Kind::nexthopGroup ||
             intf.kind() == IntfId::Kind::dynamicTunnel ||
             intf.kind() == IntfId::Kind::hierarchicalFec;
   }
   /// The ends of all ways through what the interface stands for.
   ForeignEnds read( IntfId intf ) const;
   /// The next hops of all vias of other agents.
   void eachNextHop( const std::function< void( const NextHopKey& ) >& call ) const;
   NextHopInfo rewrite( const NextHopKey& key ) const {
      return insight_ ? insight_->neighbor( key ).value_or( NextHopInfo() ) : NextHopInfo();
   }
   /// What the interface stands for, in words: "tunnel east", "FEC 7:5 of another agent".
   std::string text( IntfId intf ) const;

 private:
   const Fib::Fec* find( IntfId intf ) const;
   void addEnd( const Fib::FecVia& via, ForeignEnds& ends ) const;

   bool known() const { return insight_ && insight_->knowsForeign(); }

   const MplsHwInsight* insight_;
   const InterfaceName name_;
};

} // namespace Vel::Inspect
