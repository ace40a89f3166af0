// ForeignWays: where frames get to through what other agents have: next-hop groups, external FECs,
// dynamic tunnels.
//
// The hardware has been told of these by their owners, and its driver may tell what it knows
// (MplsHwInsight); the label state machine only names them. Each is followed once, as deep as hardware does,
// whatever leads into it and how often.
//
//    const ForeignWays ways( entityManager );
//    const ForeignEnds ends = ways.read( via.intf );
//    if ( ends.known && ends.exits.empty() ) ... ends.why ...
//
// Without a driver that tells nothing is known of them, and nobody says that they lead nowhere.
//
// Cost: a look-up for each FEC, tunnel and via that is behind the one asked for.

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
   /// All that is behind it could be looked at.
   bool known = true;
   std::vector< ForeignExit > exits; ///< resolved, each once
   std::string why;                  ///< of the last way that leads nowhere
};

class ForeignWays {
 public:
   /// Takes "mplsHwInsight" where it is mounted.
   explicit ForeignWays( const EntityManager& entities, InterfaceName name = {} )
      : insight_( entities.root< MplsHwInsight >( "mplsHwInsight" ) ), name_( std::move( name ) ) {}

   /// What stands behind the interface is another agent's.
   static bool leadsElsewhere( IntfId intf ) {
      return intf.kind() == IntfId::Kind::nexthopGroup ||
             intf.kind() == IntfId::Kind::dynamicTunnel ||
             intf.kind() == IntfId::Kind::hierarchicalFec;
   }
   /// The ends of all ways through what stands behind the interface.
   ForeignEnds read( IntfId intf ) const;
   /// The next hops that the vias of other agents name, whoever leads into these.
   void eachNextHop( const std::function< void( const NextHopKey& ) >& call ) const;
   NextHopInfo rewrite( const NextHopKey& key ) const {
      return insight_ ? insight_->neighbor( key ).value_or( NextHopInfo() ) : NextHopInfo();
   }
   /// What stands behind the interface, in words: "tunnel east", "FEC 7:5 of another agent".
   std::string text( IntfId intf ) const;

 private:
   const Fib::Fec* find( IntfId intf ) const;
   void addEnd( const Fib::FecVia& via, ForeignEnds& ends ) const;

   bool known() const { return insight_ && insight_->knowsForeign(); }

   const MplsHwInsight* insight_;
   const InterfaceName name_;
};

} // namespace Vel::Inspect
