// Frame: the headers that the data path reads and writes.
//
// Ethernet with at most one 802.1Q tag, MPLS label stack entries, and of IPv4 and IPv6 as much as
// forwarding by label touches: the version, the TTL or hop limit, and what tells flows apart. All
// of it works on plain bytes in network order and never reads past the span that it is given:
// what a frame can lack is answered by an empty value.
//
// Cost: a few loads; nothing is allocated.

#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <vector>

#include "platform/values/MplsTypes.h"

namespace Vel::Driver {

using Bytes = std::vector< uint8_t >;
using ByteView = std::span< const uint8_t >;

/// EtherTypes that the switch knows.
constexpr uint16_t etherTypeIpv4 = 0x0800;
constexpr uint16_t etherTypeDot1q = 0x8100;
constexpr uint16_t etherTypeIpv6 = 0x86DD;
constexpr uint16_t etherTypeMpls = 0x8847; ///< RFC 5332 section 3: downstream-assigned labels

/// The header of a frame, tag included.
struct EthernetHeader {
   MacAddr destination{};
   MacAddr source{};
   Bridging::VlanId vlanId = 0; ///< 0: untagged, or tagged for priority only
   uint16_t etherType = 0;      ///< of what follows the tag
   size_t size = 0;             ///< bytes read
};
/// Reads the header with its tag; nothing when the frame ends before it does.
std::optional< EthernetHeader > ethernetRead( ByteView frame );
/// Writes the header, tagged unless the VLAN is 0. `size` plays no part.
void ethernetAppend( Bytes& out, const EthernetHeader& header );

/// One label stack entry (RFC 3032 section 2.1; RFC 5462 names the traffic class).
struct LabelEntry {
   static constexpr size_t size = 4; ///< bytes

   U32 label = 0;
   uint8_t trafficClass = 0; ///< 3 bits
   bool bottom = false;      ///< of stack
   uint8_t ttl = 0;

   friend bool operator==( const LabelEntry&, const LabelEntry& ) = default;
};
/// Reads the entry that begins at that offset, or nothing when the bytes end first.
std::optional< LabelEntry > labelEntryRead( ByteView bytes, size_t offset );
void labelEntryAppend( Bytes& out, const LabelEntry& entry );

/// Which IP version the first nibble names; unspecified for anything else and for no bytes.
AddressFamily ipFamily( ByteView packet );
/// The TTL or hop limit of an IP packet, or nothing when its fixed header is cut off.
std::optional< uint8_t > ipTtl( ByteView packet );
/// Writes the TTL or hop limit of a packet that `ipTtl` can read; the IPv4 checksum is brought up
/// to date (RFC 1624 section 3), right or wrong as it was.
void ipTtlIs( std::span< uint8_t > packet, uint8_t ttl );
/// Mixes into `hash` what tells flows apart in an IP packet: addresses, protocol, and the ports of
/// the common transports. Fragments carry no ports, so the ports of a fragmented packet stay out.
/// Bytes that are no whole IP header leave the hash as it was.
U64 ipFlowHash( ByteView packet, U64 hash );

} // namespace Vel::Driver
