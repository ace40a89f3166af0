// What the LFIB says of a via set, and whether it can be programmed.
//
// Reads the transit LFIB and the capabilities; has no state and changes nothing. A via set is
// copied out of shared memory before it is used: what is checked is what is programmed.
//
// Cost: one look-up a via.

#pragma once

#include <optional>

#include "mpls/transit/Part.h"

namespace Vel::Transit {

/// Reads via sets: admission, sanity, the vias in hand.
class ViaSets : private Part {
 public:
   using Part::Part;

   /// What all vias do with the label; `none` when they differ.
   static MplsLabelAction actionOf( const CachedLFibMplsViaColl& vias );
   /// How all vias pop; none when they do not, or not alike.
   static PopForm popFormOf( const CachedLFibMplsViaColl& vias );
   /// A dynamic tunnel wins over a next-hop group; of no vias the type is unknown.
   static L3AdjLFibAdjType findL3AdjLFibAdjType( const CachedLFibMplsViaColl* vias );

   bool routeSupported( const Mpls::LfibRoute& route ) const;
   bool isLFibViaSetSane( const Mpls::LfibViaSet& viaSet ) const;
   Ptr< CachedLFibMplsViaColl > getSaneMplsIpLFibVias( const Mpls::LfibViaSet& viaSet ) const;
   /// Why a via set cannot be programmed, in words; empty when it can. For those who explain.
   std::string lFibViaSetFault( Mpls::LfibViaSetKey viaSetKey ) const;
   /// Tells contents apart, the vias' included; nothing when the via set that was just looked up, or
   /// one of its vias, cannot be read.
   std::optional< U64 > contentDigestOf( const Mpls::LfibViaSet& viaSet ) const;
   /// By the LFIB as it is now, which may be ahead of what has been processed.
   bool stillUses( Mpls::RouteKey routeKey, const L3Adjacency& l3Adj ) const;
   bool validateMplsIpL3Adj( const L3Adjacency& l3Adj, const Mpls::LfibViaSet& viaSet,
                             const Ptr< CachedLFibMplsViaColl >& saneVias ) const;
   Mpls::LfibExtFecVia getSaneExtFecVia( const L3Adjacency& l3Adj,
                                         const Mpls::LfibViaSet& viaSet ) const;

 private:
   std::string collectMplsIpLFibVias( const Mpls::LfibViaSet& viaSet,
                                      CachedLFibMplsViaColl& vias ) const;
   std::string extFecLFibViaSetFault( const Mpls::LfibViaSet& viaSet,
                                      Mpls::LfibExtFecVia& via ) const;
};

} // namespace Vel::Transit
