// LfibCodec: LFIB values as the words of a slot. Internal to the library.
//
// The form is canonical: equal values have equal words, so that the writer compares words to see
// whether anything changes. The key's words come first. Decoding verifies what the type of a field
// does not: numbers out of an enumeration, more labels than a stack has. Whole contents may still
// come from a publisher with other ideas.

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

/// The content of a tag's element: the VLAN, and that there is one.
inline constexpr U64 vlanPresentBit = 1U << 16;

} // namespace Mpls::LfibCodec
