// LfibIntent: what the inputs say shall happen to a label.
//
// The LFIB names a label's vias, and the L3 layer resolves their next hops. From the two follow the
// L2 vias by which frames with the label shall leave, and the content of the FEC where the hardware
// has FECs. LfibIntent is naive on purpose: it goes from the label to the ways out each time, and
// remembers nothing. It shares no code with the state machine, which reaches the same result by
// events, records and work sets, so that a comparison of the two finds faults of either. It asks
// the state machine only whether the hardware has FECs.
//
//    const LfibIntent inputs( entityManager );
//    Intent intent;
//    inputs.read( routeKey, intent );
//
// NextHopView resolves the next hops.
//
// Cost: a look-up for the route, one for the via set and two for each via; for the backup the same
// without the resolution.

#pragma once

#include <string>
#include <vector>

#include "platform/base/Assert.h"
#include "platform/entity/EntityManager.h"
#include "platform/lfib/LfibStatus.h"
#include "platform/seams/FecTables.h"
#include "platform/seams/HwMplsStatus.h"
#include "platform/seams/L3Status.h"
#include "platform/seams/RoutingStatus.h"

namespace Vel::Inspect {

/// One neighbour that a next hop resolves to.
struct WayOut {
   IpGenAddr neighbor; ///< the next hop itself, or the router on the way to it
   IntfId intf;        ///< the L3 interface it was found on
   const NextHopInfo* rewrite =
      nullptr; ///< never null; lives as long as the L3 status is left alone
};

/// What next hops resolve to, as the L3 layer answers now.
class NextHopView {
 public:
   /// Takes "velL3Status", and "lfibInfo" where it is mounted.
   explicit NextHopView( const EntityManager& entities );
   /// The resolved ways out of a via with that next hop and interface; an empty interface: the
   /// route resolver's. `out` is overwritten and its memory used again.
   void read( const IpGenAddr& nextHop, IntfId intf, std::vector< WayOut >& out ) const;
   const VelL3Status& status() const { return status_; }

 private:
   const VelL3Status& status_;
   const Mpls::LfibInfo* info_;
};

enum class IntentKind : uint8_t {
   absent,     ///< the LFIB has no such route
   notOurs,    ///< not for MPLS forwarding, or label forwarding is off
   unusable,   ///< the via set has no vias or mixes types: the route does not count
   awaited,    ///< the via set is not in the LFIB
   unsound,    ///< some via cannot be forwarded with
   unresolved, ///< no next hop is resolved
   forwarded,  ///< by `vias`
   elsewhere   ///< into a replication group, which is not followed
};

/// What a via set asks of its FEC.
struct FecIntent {
   /// The FEC of another agent, whose content is that agent's; else none.
   Fib::FecId foreign;
   /// In via order, each with its whole operation; a drop for each where the primary vias may not
   /// be used.
   std::vector< Fib::FecVia > vias;
   Mpls::LfibViaSetKey backup;            ///< the via set that shall protect it; empty: none
   std::vector< Fib::FecVia > backupVias; ///< of the backup
   std::string backupFault;               ///< why the backup cannot be one; empty when it can
};

struct Intent {
   IntentKind kind = IntentKind::absent;
   std::string reason;                        ///< why it is not forwarded; empty when it is
   Mpls::LfibViaSetKey viaSetKey;             ///< empty where there is no route
   std::vector< Mpls::Hardware::L2Via > vias; ///< sorted, each once; of `forwarded` only
   size_t unresolvedVias = 0;                 ///< vias of the LFIB without a way out
   std::vector< NextHopKey > nextHops;        ///< that have to be watched for it
   bool intoFec = false; ///< forwarded by `fec`, whose next hops hardware resolves
   FecIntent fec;

   /// The route is published, if only as not programmed.
   bool accepted() const {
      return kind != IntentKind::absent && kind != IntentKind::notOurs &&
             kind != IntentKind::unusable;
   }
};

class LfibIntent {
 public:
   /// Takes "transitLfib", "mplsSm", what NextHopView takes, and "mplsRoutingInfo" where it is
   /// mounted.
   explicit LfibIntent( const EntityManager& entities );

   /// `intent` is overwritten and its memory used again.
   void read( Mpls::RouteKey key, Intent& intent ) const;
   /// Label forwarding is wanted.
   bool routing() const { return routing_ == nullptr || routing_->mplsRouting( vrf() ); }
   const Mpls::LfibStatus& lfib() const { return lfib_; }
   static const L3::VrfName& vrf() { return L3::VrfName::defaultVrf(); }

 private:
   enum class Leads : uint8_t { toNextHops, toGroup, toTunnel };

   void readExternal( const Mpls::LfibViaSet& viaSet, Intent& intent ) const;
   void readVias( const Mpls::LfibViaSet& viaSet, Intent& intent ) const;
   std::string collect( const Mpls::LfibViaSet& viaSet, Leads& leads ) const;
   void readFec( const Mpls::LfibViaSet& viaSet, Leads leads, Intent& intent ) const;
   void readBackup( Mpls::LfibViaSetKey key, FecIntent& fec ) const;
   void addWays( const Mpls::LfibMplsVia& via, Intent& intent ) const;
   bool byFec( Mpls::LfibViaSetKey key, Leads leads ) const;

   const Mpls::LfibStatus& lfib_;
   const Mpls::RoutingInfo* routing_;
   NextHopView nextHops_;
   const bool hasFecs_;
   const bool fecsOnly_;                                // next hops are FECs too
   mutable std::vector< WayOut > ways_;                 // memory for one via
   mutable std::vector< Mpls::LfibMplsVia > collected_; // ... and for one via set
};

/// Sorts, and removes repetitions.
void sortEachOnce( std::vector< Mpls::Hardware::L2Via >& vias );

/// The root of that name. It must be mounted, and of that type.
template< class T >
const T& mountedRoot( const EntityManager& entities, std::string_view name ) {
   const T* const root = entities.root< T >( name );
   VEL_ASSERT_TEXT( root, "root", "an entity is not mounted", "velmpls", std::string( name ) );
   return *root;
}

} // namespace Vel::Inspect
