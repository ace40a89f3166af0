#include <algorithm>
#include <atomic>
#include <chrono>
#include <random>

#include "platform/lfib/LfibCodec.h"
#include "platform/lfib/LfibRegion.h"

namespace Mpls {

using namespace LfibCodec;

namespace {

LfibChange changeOf( LfibChange::Kind kind, U64 keyWord, uint16_t tag = 0 ) {
   return { kind, false, tag, keyWord };
}

// A number that no publisher has drawn before, on this machine or after its next start: a count
// would come back to what a reader knows when the region is cleared.
U64 epochUnlike( U64 before ) {
   static std::atomic< U64 > drawn = 0;
   std::random_device random; // where it is not random, the clock and the count still differ
   const auto now = std::chrono::system_clock::now().time_since_epoch().count();
   U64 epoch = Vel::mixBits( static_cast< U64 >( now ) + Vel::mixBits( ++drawn ) ) ^
               ( U64{ random() } << 32 | random() );
   while ( epoch == before || epoch == 0 ) {
      ++epoch;
   }
   return epoch;
}

} // namespace

struct LfibWriter::Words {
   std::array< U64, lfibMaxWords > at;
   U32 length = 0;
};

// --- Writer: the region

size_t LfibWriter::bytesNeeded( const LfibCapacities& capacities ) {
   return LfibLayout::of( capacities ).words * sizeof( U64 );
}

LfibWriter::LfibWriter( std::span< std::byte > region, const LfibCapacities& capacities,
                        LfibMemory memory ) {
   const LfibLayout layout = LfibLayout::of( capacities );
   if ( reinterpret_cast< uintptr_t >( region.data() ) % sizeof( U64 ) != 0 ) {
      reason_ = "the region is not aligned to 8 bytes";
      return;
   }
   if ( region.size() < layout.words * sizeof( U64 ) ) {
      reason_ = Vel::joinText( "the region has ", region.size(), " bytes, ",
                               layout.words * sizeof( U64 ), " are needed" );
      return;
   }
   U64* const words = reinterpret_cast< U64* >( region.data() );
   const U64 before = lfibLoad( words + LfibHeader::epoch );
   if ( memory == LfibMemory::used ) {
      // All of the span: readers that still know a larger layout must not find its elements.
      for ( U64 i = LfibHeader::magic; i < region.size() / sizeof( U64 ); ++i ) {
         lfibStore( words + i, 0 );
      }
   }
   layout.write( words );
   lfibStore( words + LfibHeader::epoch, epochUnlike( before ) );
   lfibStore( words + LfibHeader::magic, LfibHeader::magicValue );
   attach( region );
}

LfibWriter::LfibWriter( std::span< std::byte > region ) {
   if ( attach( region ) ) {
      finishJournal();
      for ( size_t i = 0; i < lfibTables; ++i ) {
         recover( static_cast< LfibTable >( i ) );
      }
      epochDraw();
   }
}

bool LfibWriter::attach( std::span< std::byte > region ) {
   reason_ = layout_.read( region );
   if ( !reason_.empty() ) {
      return false;
   }
   region_ = reinterpret_cast< U64* >( region.data() );
   ring_ = LfibRing( region_, layout_ );
   ringHead_ = ring_.head();
   for ( size_t i = 0; i < lfibTables; ++i ) {
      const auto table = static_cast< LfibTable >( i );
      views_[i] = LfibTableView( table, region_, layout_ );
      changes_[i] = views_[i].changes() & ~U64{ 1 };
   }
   return true;
}

// Readers look at everything again.
void LfibWriter::epochDraw() {
   lfibStore( region_ + LfibHeader::epoch, epochUnlike( lfibLoad( region_ + LfibHeader::epoch ) ) );
}

// Readers have taken the element that an ended publisher was writing for written.
void LfibWriter::finishJournal() {
   const U64 place = lfibLoad( region_ + layout_.journal );
   const U64 table = place >> 32;
   const auto slot = static_cast< U32 >( place );
   if ( table >= lfibTables || slot >= views_[table].place().slotCount ) {
      return;
   }
   const LfibTableView& at = views_[table];
   U64* const to = region_ + at.place().slots + U64{ slot } * at.shape().slotWords;
   const U64 busy = lfibLoad( to );
   Words words;
   const U64 head = ( busy & LfibSlotHead::stateMask ) == LfibSlotHead::busy
                       ? at.readJournal( slot, busy, words.at.data() )
                       : 0;
   if ( head != 0 ) {
      for ( U32 i = 0; i < LfibSlotHead::length( head ); ++i ) {
         lfibStore( to + 1 + i, words.at[i] );
      }
      lfibStore( to, head );
   }
}

// Removes what does not hold, and counts anew.
void LfibWriter::recover( LfibTable table ) {
   const LfibTableView& at = view( table );
   Words words;
   LfibCorruptionReason reason{};
   U64 count = 0;
   changeBegins( table );
   for ( U32 slot = at.nextUsed( 0 ); slot < at.place().slotCount;
         slot = at.nextUsed( slot + 1 ) ) {
      words.at[0] = 0;
      const auto state = at.read( slot, words.at.data(), words.length, reason );
      if ( state == LfibTableView::Slot::live ) {
         ++count;
      } else if ( state == LfibTableView::Slot::rotten ) {
         if ( ++droppedCount_ <= mostDroppedKept ) {
            dropped_.push_back( { at.shape().name, slot, words.at[0], reason } );
         }
         slotWrite( at, slot, LfibSlotHead::removed, nullptr, 0 );
      }
   }
   counts_[static_cast< size_t >( table )] = count;
   changeEnds( table, 0 );
}

// --- Writer: slots

void LfibWriter::slotWrite( const LfibTableView& at, U32 slot, LfibSlotHead::State state,
                            const U64* words, U32 length ) {
   U64* const to = region_ + at.place().slots + U64{ slot } * at.shape().slotWords;
   U64* const journal = region_ + layout_.journal;
   const U64 busy = LfibSlotHead::next( lfibLoad( to ), LfibSlotHead::busy, 0 );
   const U64 low = LfibSlotHead::next( busy, state, length );
   const U64 head = LfibSlotHead::sealed( low, at.table(), slot, words );
   lfibStore( journal, LfibSlotHead::place( at.table(), slot ) );
   lfibStore( journal + 1, head );
   for ( U32 i = 0; i < length; ++i ) {
      lfibStore( journal + 2 + i, words[i] );
   }
   lfibStore( to, busy );
   for ( U32 i = 0; i < length; ++i ) {
      lfibStore( to + 1 + i, words[i] );
   }
   lfibStore( to, head );
}

void LfibWriter::ringAdd( const LfibChange& change ) {
   ring_.add( region_, ringHead_, change );
   ++ringHead_;
}

// A table's count and elements differ for a moment; an odd number of changes says so.
void LfibWriter::changeBegins( LfibTable table ) {
   const auto index = static_cast< size_t >( table );
   lfibStore( region_ + LfibHeader::counters + 2 * index + 1, ++changes_[index] );
}
void LfibWriter::changeEnds( LfibTable table, int delta ) {
   const auto index = static_cast< size_t >( table );
   counts_[index] += static_cast< U64 >( static_cast< int64_t >( delta ) );
   lfibStore( region_ + LfibHeader::counters + 2 * index, counts_[index] );
   lfibStore( region_ + LfibHeader::counters + 2 * index + 1, ++changes_[index] );
}

LfibWriter::Spot LfibWriter::spotOf( LfibTable table, const LfibKey& key, Words& present ) {
   Spot spot = spotIn( view( table ), key, present );
   if ( spot.rotten ) [[unlikely]] {
      recover( table ); // it may have been the key
      epochDraw();      // or another one that readers know
      spot = spotIn( view( table ), key, present );
   }
   return spot;
}

LfibWriter::Spot LfibWriter::spotIn( const LfibTableView& at, const LfibKey& key, Words& present ) {
   const U32 home = at.homeOf( key );
   const U32 last = at.reach();
   Spot spot;
   U32 slot = home;
   for ( U32 probe = 0; probe <= last; ++probe, slot = at.after( slot ) ) {
      LfibCorruptionReason reason{};
      const auto state = at.read( slot, present.at.data(), present.length, reason );
      if ( state == LfibTableView::Slot::live ) {
         if ( at.holds( present.at.data(), key ) ) {
            spot.found = slot;
            return spot;
         }
         continue;
      }
      if ( spot.free == LfibTableView::none ) {
         spot.free = slot;
      }
      if ( state == LfibTableView::Slot::rotten ) {
         spot.rotten = true;
      }
      if ( state == LfibTableView::Slot::empty ) {
         break;
      }
   }
   return spot;
}

LfibWrite LfibWriter::put( LfibTable table, const Words& words, const LfibChange& change ) {
   if ( !attached() ) {
      return LfibWrite::refused;
   }
   const LfibTableView& at = view( table );
   Words present;
   const Spot spot = spotOf( table, at.keyIn( words.at.data() ), present );
   if ( spot.found != LfibTableView::none ) {
      if ( words.length == present.length &&
           std::equal( words.at.data(), words.at.data() + words.length, present.at.data() ) ) {
         return LfibWrite::unchanged;
      }
      slotWrite( at, spot.found, LfibSlotHead::live, words.at.data(), words.length );
      ringAdd( change );
      return LfibWrite::changed;
   }
   if ( spot.free == LfibTableView::none || count( table ) >= at.place().capacity ) {
      return LfibWrite::full;
   }
   changeBegins( table );
   U64* const used = region_ + at.place().used + spot.free / 4096;
   const U64 bit = U64{ 1 } << spot.free / 64 % 64;
   if ( const U64 groups = lfibLoad( used ); ( groups & bit ) == 0 ) {
      lfibStore( used, groups | bit );
   }
   slotWrite( at, spot.free, LfibSlotHead::live, words.at.data(), words.length );
   changeEnds( table, 1 );
   ringAdd( change );
   return LfibWrite::changed;
}

LfibWrite LfibWriter::take( LfibTable table, const LfibKey& key, LfibChange change ) {
   if ( !attached() ) {
      return LfibWrite::refused;
   }
   const LfibTableView& at = view( table );
   Words present;
   const Spot spot = spotOf( table, key, present );
   if ( spot.found == LfibTableView::none ) {
      return LfibWrite::unchanged;
   }
   changeBegins( table );
   release( at, spot.found );
   changeEnds( table, -1 );
   change.removed = true;
   ringAdd( change );
   return LfibWrite::changed;
}

void LfibWriter::release( const LfibTableView& at, U32 slot ) {
   Words present;
   LfibCorruptionReason reason{};
   const auto state = [&]( U32 which ) {
      return at.read( which, present.at.data(), present.length, reason );
   };
   if ( state( at.after( slot ) ) != LfibTableView::Slot::empty ) {
      slotWrite( at, slot, LfibSlotHead::removed, nullptr, 0 );
      return;
   }
   // Nothing stands behind it: this slot is empty, and so are the stones in front of it.
   do {
      slotWrite( at, slot, LfibSlotHead::empty, nullptr, 0 );
      slot = at.before( slot );
   } while ( state( slot ) == LfibTableView::Slot::removed );
}

// --- Writer: values

// Refuses what no reader would believe.
template< class Value >
LfibWrite LfibWriter::put( LfibTable table, const Value& value, LfibChange::Kind kind ) {
   Words words;
   words.length = encode( value, words.at.data() );
   Value read;
   if ( !keyFits( table, words.at.data() ) || !decode( words.at.data(), words.length, read ) ) {
      return LfibWrite::refused;
   }
   return put( table, words, changeOf( kind, words.at[0] ) );
}

LfibWrite LfibWriter::routeIs( const LfibRoute& route ) {
   return put( tableOf( route.routeKey ), route, LfibChange::Kind::route );
}

LfibWrite LfibWriter::routeDel( RouteKey key ) {
   return take( tableOf( key ), { key.word() }, changeOf( LfibChange::Kind::route, key.word() ) );
}

LfibWrite LfibWriter::viaSetIs( const LfibViaSet& viaSet ) {
   return put( LfibTable::viaSet, viaSet, LfibChange::Kind::viaSet );
}

LfibWrite LfibWriter::viaSetDel( LfibViaSetKey key ) {
   return take( LfibTable::viaSet, { key.word() },
                changeOf( LfibChange::Kind::viaSet, key.word() ) );
}

LfibWrite LfibWriter::mplsViaIs( const LfibMplsVia& via ) {
   return put( LfibTable::mplsVia, via, LfibChange::Kind::via );
}
LfibWrite LfibWriter::extFecViaIs( const LfibExtFecVia& via ) {
   return put( LfibTable::extFecVia, via, LfibChange::Kind::via );
}
LfibWrite LfibWriter::pwViaIs( const LfibPwVia& via ) {
   return put( LfibTable::pwVia, via, LfibChange::Kind::via );
}
LfibWrite LfibWriter::ipLookupViaIs( const LfibIpLookupVia& via ) {
   return put( LfibTable::ipLookupVia, via, LfibChange::Kind::via );
}
LfibWrite LfibWriter::vlanViaIs( const LfibVlanVia& via ) {
   return put( LfibTable::vlanVia, via, LfibChange::Kind::via );
}
LfibWrite LfibWriter::evpnVlanAwareViaIs( const LfibEvpnVlanAwareVia& via ) {
   return put( LfibTable::evpnVlanAwareVia, via, LfibChange::Kind::via );
}
LfibWrite LfibWriter::evpnVlanFloodViaIs( const LfibEvpnVlanFloodVia& via ) {
   return put( LfibTable::evpnVlanFloodVia, via, LfibChange::Kind::via );
}
LfibWrite LfibWriter::evpnVlanAwareFloodViaIs( const LfibEvpnVlanAwareFloodVia& via ) {
   return put( LfibTable::evpnVlanAwareFloodVia, via, LfibChange::Kind::via );
}

LfibWrite LfibWriter::viaDel( LfibViaKey key ) {
   const auto table = tableOf( key.viaType() );
   if ( !table ) {
      return LfibWrite::refused;
   }
   return take( *table, { key.word() }, changeOf( LfibChange::Kind::via, key.word() ) );
}

LfibWrite LfibWriter::dot1qTagToVlanCollIs( LfibDot1qTagToVlanKey key ) {
   if ( key.empty() ) {
      return LfibWrite::refused;
   }
   Words words;
   words.at[0] = key.word();
   words.at[1] = lfibDot1qMap;
   words.length = 2;
   return put( LfibTable::dot1q, words,
               changeOf( LfibChange::Kind::dot1q, key.word(), lfibDot1qMap ) );
}

LfibWrite LfibWriter::dot1qTagToVlanCollDel( LfibDot1qTagToVlanKey key ) {
   for ( Bridging::VlanId tag = 0; tag <= maxTag; ++tag ) {
      dot1qTagToVlanDel( key, tag );
   }
   return take( LfibTable::dot1q, { key.word(), lfibDot1qMap },
                changeOf( LfibChange::Kind::dot1q, key.word(), lfibDot1qMap ) );
}

LfibWrite LfibWriter::dot1qTagToVlanIs( LfibDot1qTagToVlanKey key, Bridging::VlanId tag,
                                        Bridging::VlanIdOrNone vlan ) {
   if ( tag > maxTag ) {
      return LfibWrite::refused;
   }
   if ( const LfibWrite map = dot1qTagToVlanCollIs( key );
        map == LfibWrite::full || map == LfibWrite::refused ) {
      return map;
   }
   Words words;
   words.at[0] = key.word();
   words.at[1] = tag;
   words.at[2] = vlan.none() ? 0 : vlan.vlanId() | vlanPresentBit;
   words.length = 3;
   return put( LfibTable::dot1q, words, changeOf( LfibChange::Kind::dot1q, key.word(), tag ) );
}

LfibWrite LfibWriter::dot1qTagToVlanDel( LfibDot1qTagToVlanKey key, Bridging::VlanId tag ) {
   return take( LfibTable::dot1q, { key.word(), tag },
                changeOf( LfibChange::Kind::dot1q, key.word(), tag ) );
}

LfibWrite LfibWriter::readyIs( bool ready ) {
   if ( !attached() ) {
      return LfibWrite::refused;
   }
   if ( this->ready() == ready ) {
      return LfibWrite::unchanged;
   }
   lfibStore( region_ + LfibHeader::ready, ready );
   LfibChange change = changeOf( LfibChange::Kind::ready, 0 );
   change.removed = !ready;
   ringAdd( change );
   return LfibWrite::changed;
}

bool LfibWriter::ready() const {
   return attached() && lfibLoad( region_ + LfibHeader::ready ) == 1;
}
size_t LfibWriter::routes() const {
   return count( LfibTable::route ) + count( LfibTable::deepRoute );
}
size_t LfibWriter::vias() const {
   size_t sum = 0;
   for ( const LfibTable table : viaTables ) {
      sum += count( table );
   }
   return sum;
}

} // namespace Mpls
