// Impact: what breaks if a next hop or an interface goes?
//
// Impact finds all ways out that the next hop or interface carries, and counts what its users would
// have left. It changes nothing: it compares the published adjacencies with what the L3 layer says
// of their next hops now.
//
// A way out is a neighbour that a via resolves to. A via that is not resolved has none to lose. A
// via without an interface has as many as the route resolver found. An L2 adjacency loses an L2 via
// with the last way out that resolves to it. Labels that are not in hardware lose nothing.
//
// Where the hardware has FECs, a label leaves by its primary vias; it leaves by its backup when no
// primary via is a way out, or when hardware reports that the backup is in use. A label loses the
// ways that it leaves by now; a label that would change over to its backup is protected. Through
// the FECs and tunnels of other agents a label leaves by every neighbour that they lead to. Where
// hardware does not tell their content, the labels are counted and taken for untouched. The same
// goes for a label whose FEC hardware still has with its former content, which is not recorded.
//
//    const Impact impact( entityManager, { .nextHop = address } );
//    if ( impact.known() ) ... impact.labels() ...
//
// Cost: a look-up for each via of all adjacencies, two where the adjacency is hit, and one for each
// label that is hit.

#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <vector>

#include "inspect/ForeignWays.h"
#include "inspect/LabelState.h"
#include "inspect/Words.h"
#include "mpls/VelMplsRecords.h"

namespace Vel::Inspect {

/// The next hop or interface that goes; at least one of the two is set.
struct ImpactTarget {
   std::optional< IpGenAddr > nextHop{}; ///< nothing: every one on the interface
   IntfId intf{};                        ///< empty: every interface that the next hop is on

   /// "next hop 10.0.0.1 on eth1", "interface eth1".
   std::string text( const InterfaceName& name ) const;
};

/// How many ways out there are now, and how many would be left.
struct WaysLeft {
   size_t left = 0;
   size_t of = 0;
   bool none() const { return left == 0; }
   bool hit() const { return left < of; }
   friend bool operator==( const WaysLeft&, const WaysLeft& ) = default;
};

/// The label, adjacency or FEC would change over to its backup.
template< class Hit >
bool changesOver( const Hit& hit ) {
   return hit.ways.none() && hit.protectedBy.has_value();
}
/// The label, adjacency or FEC would be left without a way out.
template< class Hit >
bool losesAll( const Hit& hit ) {
   return hit.ways.none() && !hit.protectedBy;
}

struct ImpactedLabel {
   Mpls::RouteKey label;
   WaysLeft ways;
   std::optional< U64 > protectedBy; ///< L3 adjacency that would take over, or would still stand by
   bool onBackup = false;            ///< the ways are those of its backup, by which it leaves now
};

struct ImpactedAdjacency {
   U64 index = 0;
   WaysLeft ways;
   std::optional< U64 > protectedBy; ///< L3 adjacencies: the one that would take over
};

struct ImpactedFec {
   Fib::FecId fecId;
   WaysLeft ways;
   std::optional< Fib::FecId > protectedBy; ///< the FEC that would take over
};

/// Labels that leave by a FEC whose content hardware does not tell.
struct ForeignWay {
   Fib::FecId fecId; ///< of another agent
   size_t labels = 0;
};

class Impact {
 public:
   /// Looks at the entities, which must be mounted under their names (docs/inspecting.md).
   Impact( const EntityManager& entities, const ImpactTarget& target );

   /// The next hop is watched or resolved somewhere, on the interface when that is given; without
   /// a next hop: some next hop is on the interface.
   bool known() const { return known_; }
   /// All that would lose a way out, in the order of labels and numbers.
   const std::vector< ImpactedLabel >& labels() const { return labels_; }
   const std::vector< ImpactedAdjacency >& l3Adjacencies() const { return l3Adjacencies_; }
   const std::vector< ImpactedAdjacency >& l2Adjacencies() const { return l2Adjacencies_; }
   const std::vector< ImpactedFec >& fecs() const { return fecs_; }
   /// FECs of other agents that labels in hardware leave by and whose content hardware does not
   /// tell, in the order of ids.
   const std::vector< ForeignWay >& foreign() const { return foreign_; }
   /// Labels in hardware that leave by tunnels whose content hardware does not tell.
   size_t tunnelLabels() const { return tunnelLabels_; }

 private:
   using Adjacency = Mpls::Hardware::Adjacency;
   using L2Adjacency = Mpls::Hardware::L2Adjacency;

   bool matches( const IpGenAddr& address, IntfId intf ) const;
   bool goes( const Mpls::Hardware::AdjacencyVia& via, const WayOut& way ) const;
   template< class F >
   void eachWay( const Adjacency& adjacency, const F& call );
   WaysLeft waysOf( const Adjacency& adjacency );
   bool someNextHop( const EntityManager& entities ) const;
   void findL3Adjacencies();
   const L3Adjacency* protectorOf( const L3Adjacency& l3Adj ) const;
   bool inHardware( Mpls::RouteKey key ) { return states_.of( key ).leaves; }
   template< class F >
   void eachUser( const L3Adjacency& l3Adj, const F& call );
   void addUsers( const L3Adjacency& l3Adj, WaysLeft ways );
   void addFec( Fib::FecId fecId, WaysLeft ways, const L3Adjacency* backup );
   void countForeign( const L3Adjacency& l3Adj, const Adjacency& adjacency );
   bool leavesByBackup( const L3Adjacency& l3Adj, const WaysLeft& primaries ) const;
   void findL2Adjacencies();

   const ImpactTarget target_;
   const NextHopView nextHops_;
   const ForeignWays foreignWays_;
   const Mpls::Hardware::Status& hwMplsStatus_;
   LabelStates states_;
   const MplsHwInsight* insight_;   // null where the driver does not have it
   const VrfMplsState* state_;      // null while there is none
   const AdjHwStatus* adjHwStatus_; // null where hardware does not report protection
   std::optional< VrfId > vrfId_;
   std::vector< WayOut > ways_; // memory for one via
   bool known_ = false;
   std::vector< ImpactedLabel > labels_;
   std::vector< ImpactedAdjacency > l3Adjacencies_;
   std::vector< ImpactedAdjacency > l2Adjacencies_;
   std::vector< ImpactedFec > fecs_;
   HashSet< Fib::FecId > fecsSeen_;
   Hash< Fib::FecId, size_t > foreignLabels_;
   std::vector< ForeignWay > foreign_;
   size_t tunnelLabels_ = 0;
};

} // namespace Vel::Inspect
