// LfibCodec: LFIB values as the words of a slot. Internal to the library.
//
// The form is canonical: equal values have equal words, so that the writer compares words to see
// whether anything changes. The key's words come first. Whole contents may still come from a
// publisher with other ideas, so decoding believes nothing: keys that are null or belong into
// another table, numbers out of an enumeration, more labels than a stack has or more bits than a
// label has, and a label that never is in a packet (implicit null, RFC 3032 section 2.1) where one
// is put on. The writer refuses what would not be read.

#pragma once

#include <optional>

#include "platform/lfib/LfibTable.h"
#include "platform/values/LfibTypes.h"

namespace Mpls::LfibCodec {

static_assert( std::atomic_ref< U64 >::is_always_lock_free, "a lock would be of one process only" );

/// The tables of vias, and which via type each holds.
inline constexpr std::array viaTables{ LfibTable::mplsVia,
                                       LfibTable::extFecVia,
                                       LfibTable::pwVia,
                                       LfibTable::ipLookupVia,
                                       LfibTable::vlanVia,
                                       LfibTable::evpnVlanAwareVia,
                                       LfibTable::evpnVlanFloodVia,
                                       LfibTable::evpnVlanAwareFloodVia };
LfibViaType viaTypeOf( LfibTable table );
std::optional< LfibTable > tableOf( LfibViaType type );
inline LfibTable tableOf( RouteKey key ) {
   return key.singleLabel() ? LfibTable::route : LfibTable::deepRoute;
}

/// Whether a word is the key of a via set: its top bit is set, and nothing where there is no field.
inline bool viaSetKeyFits( U64 word ) {
   return ( ( word >> 56 ^ 0x80 ) | ( word >> 33 & 0x7F ) ) == 0;
}
/// Whether the words begin with a key of that table.
bool keyFits( LfibTable table, const U64* words );
/// Whether a change on the ring names a key of one of the tables.
bool changeFits( const LfibChange& change );

/// Writes the words of a value, at most `lfibMaxWords`, and returns their number.
U32 encode( const LfibRoute& route, U64* words );
U32 encode( const LfibViaSet& viaSet, U64* words );
U32 encode( const LfibMplsVia& via, U64* words );
U32 encode( const LfibExtFecVia& via, U64* words );
U32 encode( const LfibPwVia& via, U64* words );
U32 encode( const LfibIpLookupVia& via, U64* words );
U32 encode( const LfibVlanVia& via, U64* words );
U32 encode( const LfibEvpnVlanAwareVia& via, U64* words );
/// Reads a value; false when the words are none of that type.
bool decode( const U64* words, U32 length, LfibRoute& out );
bool decode( const U64* words, U32 length, LfibViaSet& out );
bool decode( const U64* words, U32 length, LfibMplsVia& out );
bool decode( const U64* words, U32 length, LfibExtFecVia& out );
bool decode( const U64* words, U32 length, LfibPwVia& out );
bool decode( const U64* words, U32 length, LfibIpLookupVia& out );
bool decode( const U64* words, U32 length, LfibVlanVia& out );
bool decode( const U64* words, U32 length, LfibEvpnVlanAwareVia& out );

inline constexpr Bridging::VlanId maxTag = 4095; // IEEE 802.1Q: 12 bits
/// The content of a tag's element: the VLAN, and that there is one.
inline constexpr U64 vlanPresentBit = 1U << 16;

} // namespace Mpls::LfibCodec
