// The neighbours of a router: which MAC address stands behind a next hop, and on which interface.
//
// They come as `ip -j neigh` prints them. Only neighbours with a usable address are `resolved`; the
// others are listed too, since a next hop that the router itself could not resolve explains a label
// that does not forward. `docs/formats.md` describes the format and every complaint.

#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "agent/import/ImportError.h"
#include "platform/values/IpTypes.h"

namespace Vel::Agent {

inline constexpr size_t maxNeighbors = size_t{ 1 } << 20;

struct Neighbor {
   std::string address; ///< canonical text of an IPv4 or IPv6 unicast address
   std::string interface;
   MacAddr mac; ///< zero when there is none
   /// It has a MAC address and its state is neither FAILED nor INCOMPLETE.
   bool resolved = false;
   std::string state; ///< the words of its state, joined by ","; may be empty
   uint16_t vlan = 0; ///< VLAN that its frames carry (IEEE 802.1Q); 0 for none
};

struct NeighborTable {
   std::vector< Neighbor >
      neighbors; ///< in the order of the text; one for an address and interface
   /// Not empty: the table as a whole is not to be applied. `neighbors` then holds what is sound.
   std::vector< ImportError > errors;
};

/// Reads a table. `file` is the name that complaints carry.
NeighborTable parseNeighborTable( std::string_view text, std::string file );
/// The same from a file, or from standard input when the path is "-".
NeighborTable loadNeighborTable( const std::string& path );

} // namespace Vel::Agent
