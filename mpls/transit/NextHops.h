// Next hops: what the vias of an adjacency resolve to.
//
// A via without an interface is resolved by the route resolver (watched addresses, resolvedAddr),
// one with an interface by ARP or ND on it (ProactiveArpNexthopSm, nextHopInfo). The first
// adjacency that needs a next hop starts the watch, the last one to leave ends it. What an
// adjacency names no longer is kept while routes are in hardware by it.
//
// State: VrfMplsState::mplsNextHop, L3Adjacency::nextHop and keepsNextHops. Writes the hardware
// adjacency's vias.
// Cost: one look-up a via; a change of a next hop marks the adjacencies that resolve through it.

#pragma once

#include "mpls/transit/Part.h"

namespace Vel::Transit {

/// Watches and resolves next hops.
class NextHops : private Part {
 public:
   using Part::Part;

   void setHwAdjViasForNormalMplsRoute( VrfMplsState& vrfState, L3Adjacency& l3Adj,
                                        const Mpls::LfibViaSet& viaSet,
                                        const ProgrammableMplsFecVias& vias,
                                        L3AdjLFibAdjType adjType );
   /// The vias that the adjacency was last programmed with.
   ProgrammableMplsFecVias viasInHardware( const L3Adjacency& l3Adj ) const;
   bool hasVias( const L3Adjacency& l3Adj, const CachedLFibMplsViaColl& vias ) const;
   /// The via as the LFIB wants it, not resolved.
   static Mpls::Hardware::AdjacencyVia hwViaOf( const Mpls::LfibMplsVia& via );
   static MplsLabel singleMplsLabelFromVia( const Mpls::LfibMplsVia& via );
   static MplsNextHop* useNextHop( VrfMplsState& vrfState, L3Adjacency& l3Adj,
                                   const IpAddrIntfId& key );
   /// What the adjacency no longer names is released when no route is in hardware by it any more.
   void releaseFormerNextHops( VrfMplsState& vrfState, L3Adjacency& l3Adj );
   void deleteL3AdjRefs( VrfMplsState& vrfState, L3Adjacency& l3Adj );
   void unwatchWithRR( const L3::VrfName& vrf, const IpGenAddr& nh );
   void unwatchWithMNHSM( const L3::VrfName& vrf, const MplsNextHop& nextHop );
   static void queueL3AdjsForReview( VrfMplsState& vrfState, const HashSet< L3Adjacency* >& l3Adjs,
                                     L3AdjReview why );
   void handleNexthopResolutionAllowDefaultRoute();
   void handleNextHop( const NextHopKey& key );
   void handleResolvedV4Nexthop( const VrfAndIpAddr& vrfAddr );
   void handleResolvedV6Nexthop( const VrfAndIpGenAddr& vrfAddr );

 private:
   Mpls::Hardware::L2ViaSet resolveNextHop( VrfMplsState& vrfState, const Mpls::LfibMplsVia& via,
                                            U32 nVias, L3Adjacency& l3Adj );
   Mpls::Hardware::L2ViaSet resolveNextHopWithRR( VrfMplsState& vrfState,
                                                  const Mpls::LfibMplsVia& via, U32 nVias,
                                                  L3Adjacency& l3Adj );
   Mpls::Hardware::L2ViaSet resolveNextHopWithMNHSM( VrfMplsState& vrfState,
                                                     const Mpls::LfibMplsVia& via, U32 nVias,
                                                     L3Adjacency& l3Adj );
   Mpls::Hardware::L2ViaSet writeHwVia( const L3Adjacency& l3Adj, const Mpls::LfibMplsVia& via,
                                        Mpls::Hardware::L2ViaSet l2Vias );
   static Mpls::LfibMplsVia viaOf( const Mpls::Hardware::AdjacencyVia& hwVia );
   static bool someElsewhere( const VrfMplsState& vrfState, const L3Adjacency& l3Adj,
                              const RouteKeyGroup& routes );
   void releaseNextHop( VrfMplsState& vrfState, L3Adjacency& l3Adj, const IpAddrIntfId& key );
   void handleResolvedNexthop( const VrfAndIpGenAddr& vrfAddr );
};

} // namespace Vel::Transit
