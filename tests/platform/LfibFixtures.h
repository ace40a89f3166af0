// What the LFIB tests share: short forms of keys and values, and a region on the heap.

#pragma once

#include <algorithm>
#include <random>
#include <span>
#include <vector>

#include "platform/lfib/LfibRegion.h"

namespace Mpls::LfibTest {

inline LfibViaSetKey viaSetKey( U32 index ) {
   return { LfibSource::bgpLu, viaTypeMplsIp, index };
}
inline LfibViaKey viaKey( U32 index, LfibViaType type = viaTypeMplsIp ) {
   return { LfibSource::bgpLu, type, index };
}
inline LfibMplsVia mplsViaOf( U32 index, U32 nextHop ) {
   LfibMplsVia made;
   made.key = viaKey( index );
   made.nextHop = IpGenAddr::fromV4( nextHop );
   return made;
}
inline LfibViaSet viaSetOf( U32 index, size_t vias, U32 firstVia ) {
   LfibViaSet made( viaSetKey( index ) );
   for ( size_t i = 0; i < vias; ++i ) {
      made.viaKeyAdd( viaKey( firstVia + static_cast< U32 >( i ) ) );
   }
   return made;
}

inline constexpr LfibCapacities tiny{ .routes = 24,
                                      .deepRoutes = 12,
                                      .viaSets = 16,
                                      .mplsVias = 16,
                                      .extFecVias = 4,
                                      .dot1qEntries = 16,
                                      .ringEntries = 16 };

/// A region on the heap, with what a test needs to reach into it.
struct Region {
   explicit Region( const LfibCapacities& capacities = tiny )
      : words( LfibWriter::bytesNeeded( capacities ) / sizeof( U64 ), 0xAAAA'5555'AAAA'5555ULL ),
        writer( bytes(), capacities ),
        reader( bytes() ) {
      layout.read( bytes() );
      reader.corruptionHookIs( [this]( const LfibCorruption& c ) { corruptions.push_back( c ); } );
   }
   std::span< std::byte > bytes() { return std::as_writable_bytes( std::span( words ) ); }
   LfibTableView view( LfibTable table ) { return { table, words.data(), layout }; }
   /// The slot in which the key stands.
   U32 slotOf( LfibTable table, U64 key ) {
      std::array< U64, lfibMaxWords > element;
      U32 length = 0;
      return view( table ).find( { key }, element.data(), length,
                                 []( U32, LfibCorruptionReason ) {} );
   }
   U64* slotAt( LfibTable table, U32 slot ) {
      return const_cast< U64* >( view( table ).slotAt( slot ) );
   }
   /// A slot as a publisher with other ideas would write it: whole, and wrong.
   void forge( LfibTable table, U32 slot, const std::vector< U64 >& element ) {
      U64* const at = slotAt( table, slot );
      std::copy( element.begin(), element.end(), at + 1 );
      const U64 low =
         LfibSlotHead::next( at[0], LfibSlotHead::live, static_cast< U32 >( element.size() ) );
      at[0] = LfibSlotHead::sealed( low, table, slot, element.data() );
   }

   /// The slot as the writer leaves it when it is killed after so many words of what it has written
   /// into the slot last; `before` is what stood there.
   void killedAfter( LfibTable table, U32 slot, const std::vector< U64 >& before, size_t done ) {
      U64* const at = slotAt( table, slot );
      std::copy( before.begin() + static_cast< ptrdiff_t >( 1 + done ), before.end(),
                 at + 1 + done );
      at[0] = LfibSlotHead::next( before[0], LfibSlotHead::busy, 0 );
   }

   std::vector< U64 > words;
   LfibWriter writer;
   LfibReader reader;
   LfibLayout layout;
   std::vector< LfibCorruption > corruptions;
};

/// Random numbers that replay from a seed.
class Random {
 public:
   explicit Random( uint64_t seed ) : engine_( seed ) {}
   U32 below( U32 limit ) { return static_cast< U32 >( engine_() % limit ); }
   bool oneIn( U32 limit ) { return below( limit ) == 0; }

 private:
   std::mt19937_64 engine_;
};

} // namespace Mpls::LfibTest
