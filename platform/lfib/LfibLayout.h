// LfibLayout: how the LFIB lies in memory. Tables of slots and a ring of changed keys, all words.
//
// A region is one span of 64-bit words that one publisher writes and any number of agents read,
// between processes or on the heap. Words are read and written as atomics, so a region may change
// under a reader at any time; nothing in it is a pointer, and nothing that is read from it is used
// before it has been checked.
//
// A table is an array of slots with open addressing and linear probing; a look-up ends at the first
// empty slot. All zero bits are an empty slot, so that fresh memory is an empty table; a bit for
// each 64 slots says where something has ever been written, so that a walk leaves the rest
// untouched.
//
// The journal holds what the writer is about to write into one slot, before it marks that slot.
// Readers that meet the slot half-written take the element from there, so a writer that is stopped
// or killed in the middle of a write takes nothing away.
//
// Single labels stand in blocks of 8 neighbours, and from half of the label space on each label has
// a home of its own: a look-up is then one cache line, present or absent, and neighbours share it.
//
// Cost: a slot is 32 bytes for a route, 128 for an MPLS via, 1,056 for a via set. A table has two
// slots for each element of its capacity, so that probing stays short.

#pragma once

#include <array>
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <span>
#include <string>
#include <string_view>

#include "platform/base/Export.h"
#include "platform/values/IpTypes.h"

namespace Mpls {

using Vel::U32;
using Vel::U64;

enum class LfibTable : uint8_t {
   route,     ///< keys of a single label
   deepRoute, ///< keys of two and three labels
   viaSet,
   mplsVia,
   extFecVia,
   pwVia,
   ipLookupVia,
   vlanVia,
   evpnVlanAwareVia,
   evpnVlanFloodVia,
   evpnVlanAwareFloodVia,
   dot1q, ///< one element a map and tag, and one for the map
};
constexpr size_t lfibTables = 12;

/// What does not hold.
enum class LfibCorruptionReason : uint8_t {
   busy = 1,   ///< a slot that is being written, and could not be read in time
   check = 2,  ///< the contents are not the ones that were written
   length = 3, ///< more contents than the table's elements can have
   place = 4,  ///< an element where no look-up finds it
   value = 5,  ///< whole contents with a number out of its range
   count = 6,  ///< a walk met another number of elements than the table has
};

/// How many elements each table takes.
struct LfibCapacities {
   U32 routes = 4096; ///< keys of a single label; at most 2^20
   U32 deepRoutes = 256;
   U32 viaSets = 512;
   U32 mplsVias = 2048;
   U32 extFecVias = 256;
   U32 pwVias = 64;
   U32 ipLookupVias = 64;
   U32 vlanVias = 64;
   U32 evpnVlanAwareVias = 64;
   U32 evpnVlanFloodVias = 64;
   U32 evpnVlanAwareFloodVias = 64;
   U32 dot1qEntries = 256; ///< tags of all maps together, plus one a map
   U32 ringEntries = 4096; ///< changes that a reader may be behind; rounded up to a power of two
};

/// A change as the ring reports it.
struct LfibChange {
   enum class Kind : uint8_t { route = 1, viaSet = 2, via = 3, dot1q = 4, ready = 5 };
   Kind kind = Kind::ready;
   bool removed = false; ///< the key has left its table
   uint16_t tag = 0;     ///< of kind dot1q: the tag, or `lfibDot1qMap` for the map itself
   U64 keyWord = 0;
};
constexpr uint16_t lfibDot1qMap = 0xFFFF;

// --- Words

/// Acquire and release on every word cost nothing on the machines that order loads and stores
/// anyway, and let the sequence numbers do without fences.
inline U64 lfibLoad( const U64* word ) {
   return std::atomic_ref< U64 >( *const_cast< U64* >( word ) ).load( std::memory_order_acquire );
}
inline void lfibStore( U64* word, U64 value ) {
   std::atomic_ref< U64 >( *word ).store( value, std::memory_order_release );
}

/// A 32-bit check over words. Every word counts with an odd factor of its own, so that a change of
/// any one word shows for certain before the fold and with all but 2^-32 behind it.
class LfibCheck {
 public:
   explicit constexpr LfibCheck( U64 seed ) : sum_( seed * factor_ ) {}
   constexpr void add( U64 word ) {
      factor_ += 0xD1B5'4A32'D192'ED02ULL;
      sum_ += ( word ^ factor_ >> 7 ) * factor_;
   }
   constexpr U32 value() const { return static_cast< U32 >( Vel::mixBits( sum_ ) >> 32 ); }
   constexpr U64 digest() const { return Vel::mixBits( sum_ ); }

 private:
   U64 factor_ = 0x9E37'79B9'7F4A'7C15ULL;
   U64 sum_;
};
inline U32 lfibCheck( U64 seed, const U64* words, U32 length ) {
   LfibCheck check( seed );
   for ( U32 i = 0; i < length; ++i ) {
      check.add( words[i] );
   }
   return check.value();
}
inline U32 lfibCheck( U64 seed, U64 first, U64 second, U64 third ) {
   LfibCheck check( seed );
   check.add( first );
   check.add( second );
   check.add( third );
   return check.value();
}

/// Tells contents apart: 64 bits over an element's words, its key included.
inline U64 lfibDigest( const U64* words, U32 length ) {
   LfibCheck check( length );
   for ( U32 i = 0; i < length; ++i ) {
      check.add( words[i] );
   }
   return check.digest();
}

// --- Geometry

/// What the layout fixes about a table.
struct LfibTableShape {
   std::string_view name;
   U32 keyWords;
   U32 slotWords; ///< with the head
};
constexpr std::array< LfibTableShape, lfibTables > lfibTableShapes{ {
   { "lfibRoute", 1, 4 },
   { "lfibDeepRoute", 1, 4 },
   { "lfibViaSet", 1, 132 },
   { "lfibMplsVia", 1, 16 },
   { "lfibExtFecVia", 1, 4 },
   { "lfibPwVia", 1, 4 },
   { "lfibIpLookupVia", 1, 12 },
   { "lfibVlanVia", 1, 4 },
   { "lfibEvpnVlanAwareVia", 1, 4 },
   { "lfibEvpnVlanFloodVia", 1, 4 },
   { "lfibEvpnVlanAwareFloodVia", 1, 4 },
   { "dot1qTagToVlan", 2, 4 },
} };
/// The most words of an element, with its key.
constexpr U32 lfibMaxWords = 131;
constexpr U64 lfibJournalWords = 2 + lfibMaxWords;

/// Where one table lies. Offsets are in words from the start of the region.
struct LfibTablePlace {
   U64 used = 0;      ///< a bit for each 64 slots: one of them has been written
   U64 slots = 0;     ///< the first slot
   U32 slotCount = 0; ///< a power of two
   U32 capacity = 0;  ///< elements
};

/// Word offsets of the header.
struct LfibHeader {
   static constexpr U64 magicValue = 0x314C'4249'464C'7056ULL;
   static constexpr U64 versionValue = 2;
   static constexpr U64 magic = 0; ///< 0 while the region is being laid out
   static constexpr U64 version = 1;
   static constexpr U64 bytes = 2; ///< of the whole region
   static constexpr U64 check = 3; ///< over words 1, 2 and the places
   /// Three words a table, then the ring's offset and size, and the journal's offset.
   static constexpr U64 places = 8;
   /// Drawn anew by each publisher, never twice the same: another one makes readers look at
   /// everything again.
   static constexpr U64 epoch = 48;
   static constexpr U64 ready = 49; ///< the initial contents are complete
   static constexpr U64 ringHead = 56;
   static constexpr U64 counters = 64; ///< two words a table: elements, and changes
   static constexpr U64 words = 88;
};

/// The places of everything. Read once from a header that holds, then trusted.
struct VEL_EXPORT LfibLayout {
   std::array< LfibTablePlace, lfibTables > table;
   U64 ring = 0;
   U64 ringEntries = 0; ///< a power of two; two words each
   U64 journal = 0;     ///< table and slot, the head to come, the element
   U64 words = 0;       ///< of the whole region

   static LfibLayout of( const LfibCapacities& capacities );
   /// Reads a header. Empty when it holds, else what is wrong with it.
   std::string read( std::span< const std::byte > region );
   /// Writes a header without its magic number.
   void write( U64* region ) const;
};

} // namespace Mpls

template<>
struct Vel::EnumNames< Mpls::LfibCorruptionReason > {
   static constexpr std::array< std::pair< Mpls::LfibCorruptionReason, std::string_view >, 6 >
      names{ { { Mpls::LfibCorruptionReason::busy, "busy" },
               { Mpls::LfibCorruptionReason::check, "check" },
               { Mpls::LfibCorruptionReason::length, "length" },
               { Mpls::LfibCorruptionReason::place, "place" },
               { Mpls::LfibCorruptionReason::value, "value" },
               { Mpls::LfibCorruptionReason::count, "count" } } };
};
