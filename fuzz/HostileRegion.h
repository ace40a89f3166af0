// HostileRegion: an LFIB in memory that another process writes as it likes.
//
// Random words would be turned away by the checks, so steps are those of a publisher: elements that
// are whole in form and any in content, keys in the wrong table, changes that are none, layouts
// that lie. Between them single words are damaged.

#pragma once

#include <optional>
#include <span>

#include "fuzz/Input.h"
#include "platform/lfib/LfibRegion.h"

namespace Vel::Fuzz {

class HostileRegion {
 public:
   /// As small as a region gets: laying one out is most of what a short input costs.
   static constexpr Mpls::LfibCapacities capacities{ .routes = 8,
                                                     .deepRoutes = 8,
                                                     .viaSets = 8,
                                                     .mplsVias = 8,
                                                     .extFecVias = 8,
                                                     .pwVias = 8,
                                                     .ipLookupVias = 8,
                                                     .vlanVias = 8,
                                                     .evpnVlanAwareVias = 8,
                                                     .evpnVlanFloodVias = 8,
                                                     .evpnVlanAwareFloodVias = 8,
                                                     .dot1qEntries = 8,
                                                     .ringEntries = 16 };

   /// Lays it out anew. The memory must have the size that `capacities` need.
   explicit HostileRegion( std::span< std::byte > memory );

   /// Writes one thing.
   void step( Input& input );

 private:
   U64* words() const { return reinterpret_cast< U64* >( memory_.data() ); }
   void removeOne( Input& input );
   void writeOtherVia( Input& input );
   void forgeElement( Input& input );
   void forgeChange( Input& input );
   void forgeLayout( Input& input );
   void damageWord( Input& input );

   std::span< std::byte > memory_;
   Mpls::LfibLayout layout_; // of the true region
   std::optional< Mpls::LfibWriter > writer_;
};

} // namespace Vel::Fuzz
