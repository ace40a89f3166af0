#include "platform/lfib/LfibLayout.h"

#include <algorithm>
#include <bit>

namespace Mpls {

namespace {

constexpr U32 maxCapacity = 1U << 24;
constexpr U32 labelSpace = 1U << 20;
constexpr U32 minSlots = 16; // two blocks of labels
constexpr U32 wordsPerPlace = 3;
constexpr U32 ringWord = lfibTables * wordsPerPlace; // behind the places
constexpr U32 placeWords = ringWord + 3;
constexpr U64 cacheLineWords = 8;
static_assert( LfibHeader::places + placeWords <= LfibHeader::epoch );
static_assert( LfibHeader::counters + 2 * lfibTables <= LfibHeader::words );

std::array< U32, lfibTables > capacitiesByTable( const LfibCapacities& c ) {
   return { std::min( c.routes, labelSpace ),
            c.deepRoutes,
            c.viaSets,
            c.mplsVias,
            c.extFecVias,
            c.pwVias,
            c.ipLookupVias,
            c.vlanVias,
            c.evpnVlanAwareVias,
            c.evpnVlanFloodVias,
            c.evpnVlanAwareFloodVias,
            c.dot1qEntries };
}

U64 usedWords( U32 slotCount ) {
   return ( U64{ slotCount } + 4095 ) / 4096;
}

/// Takes `count` words that begin at a cache line.
U64 takeWords( U64& end, U64 count ) {
   const U64 start = ( end + cacheLineWords - 1 ) / cacheLineWords * cacheLineWords;
   end = start + count;
   return start;
}

std::array< U64, placeWords > wordsOf( const LfibLayout& layout ) {
   std::array< U64, placeWords > words;
   for ( size_t i = 0; i < lfibTables; ++i ) {
      const LfibTablePlace& place = layout.table[i];
      words[i * wordsPerPlace] = place.used;
      words[i * wordsPerPlace + 1] = place.slots;
      words[i * wordsPerPlace + 2] = place.slotCount | U64{ place.capacity } << 32;
   }
   words[ringWord] = layout.ring;
   words[ringWord + 1] = layout.ringEntries;
   words[ringWord + 2] = layout.journal;
   return words;
}

U64 headerCheck( U64 bytes, const std::array< U64, placeWords >& words ) {
   const U64 first = lfibCheck( bytes, words.data(), placeWords );
   return first << 32 | lfibCheck( first, words.data(), placeWords );
}

bool within( U64 start, U64 count, U64 words ) {
   return start >= LfibHeader::words && start <= words && count <= words - start;
}

/// A header with a check that holds was written by a publisher; this one may still be no friend.
bool placesHold( const LfibLayout& layout ) {
   for ( size_t i = 0; i < lfibTables; ++i ) {
      const LfibTablePlace& place = layout.table[i];
      const U64 slotWords = lfibTableShapes[i].slotWords;
      if ( !std::has_single_bit( place.slotCount ) || place.slotCount < minSlots ||
           place.capacity > place.slotCount ||
           !within( place.used, usedWords( place.slotCount ), layout.words ) ||
           !within( place.slots, place.slotCount * slotWords, layout.words ) ) {
         return false;
      }
   }
   return layout.ringEntries <= layout.words && std::has_single_bit( layout.ringEntries ) &&
          within( layout.ring, 2 * layout.ringEntries, layout.words ) &&
          within( layout.journal, lfibJournalWords, layout.words );
}

} // namespace

LfibLayout LfibLayout::of( const LfibCapacities& capacities ) {
   LfibLayout made;
   U64 end = LfibHeader::words;
   const auto byTable = capacitiesByTable( capacities );
   for ( size_t i = 0; i < lfibTables; ++i ) {
      LfibTablePlace& place = made.table[i];
      place.capacity = std::min( byTable[i], maxCapacity );
      place.slotCount = std::bit_ceil( std::max( 2 * place.capacity, minSlots ) );
      if ( i == static_cast< size_t >( LfibTable::route ) ) {
         place.slotCount = std::min( place.slotCount, labelSpace ); // no two labels share a home
      }
      place.used = takeWords( end, usedWords( place.slotCount ) );
      place.slots = takeWords( end, U64{ place.slotCount } * lfibTableShapes[i].slotWords );
   }
   made.ringEntries = std::bit_ceil( std::clamp( capacities.ringEntries, U32{ 8 }, maxCapacity ) );
   made.ring = takeWords( end, 2 * made.ringEntries );
   made.journal = takeWords( end, lfibJournalWords );
   made.words = end;
   return made;
}

void LfibLayout::write( U64* region ) const {
   const auto placed = wordsOf( *this );
   lfibStore( region + LfibHeader::version, LfibHeader::versionValue );
   lfibStore( region + LfibHeader::bytes, words * sizeof( U64 ) );
   for ( U32 i = 0; i < placeWords; ++i ) {
      lfibStore( region + LfibHeader::places + i, placed[i] );
   }
   lfibStore( region + LfibHeader::check, headerCheck( words * sizeof( U64 ), placed ) );
}

std::string LfibLayout::read( std::span< const std::byte > region ) {
   if ( reinterpret_cast< uintptr_t >( region.data() ) % sizeof( U64 ) != 0 ) {
      return "the region is not aligned to 8 bytes";
   }
   if ( region.size() < LfibHeader::words * sizeof( U64 ) ) {
      return "the region is shorter than a header";
   }
   const U64* const at = reinterpret_cast< const U64* >( region.data() );
   if ( lfibLoad( at + LfibHeader::magic ) != LfibHeader::magicValue ) {
      return "the magic number is not there: no LFIB, or one that is being laid out";
   }
   if ( const U64 version = lfibLoad( at + LfibHeader::version );
        version != LfibHeader::versionValue ) {
      return Vel::joinText( "layout version ", version, ", not ", LfibHeader::versionValue );
   }
   const U64 bytes = lfibLoad( at + LfibHeader::bytes );
   std::array< U64, placeWords > placed;
   for ( U32 i = 0; i < placeWords; ++i ) {
      placed[i] = lfibLoad( at + LfibHeader::places + i );
   }
   if ( lfibLoad( at + LfibHeader::check ) != headerCheck( bytes, placed ) ) {
      return "the header's check does not hold";
   }
   if ( bytes > region.size() ) {
      return Vel::joinText( "the LFIB has ", bytes, " bytes, the region ", region.size() );
   }
   words = bytes / sizeof( U64 );
   for ( size_t i = 0; i < lfibTables; ++i ) {
      const U64 counts = placed[i * wordsPerPlace + 2];
      table[i] = { placed[i * wordsPerPlace], placed[i * wordsPerPlace + 1],
                   static_cast< U32 >( counts ), static_cast< U32 >( counts >> 32 ) };
   }
   ring = placed[ringWord];
   ringEntries = placed[ringWord + 1];
   journal = placed[ringWord + 2];
   return placesHold( *this ) ? std::string() : "a table does not lie within the region";
}

} // namespace Mpls
