#include "platform/lfib/LfibRegion.h"

#include <algorithm>

#include "platform/lfib/LfibCodec.h"

namespace Mpls {

using namespace LfibCodec;

void appendText( std::string& out, const LfibCorruption& corruption ) {
   out += Vel::joinText( corruption.table, " slot ", corruption.slot, " key ", corruption.keyWord,
                         ": ", corruption.reason );
}

// --- Reader

bool LfibReader::attach( std::span< const std::byte > region ) {
   region_ = nullptr;
   // The epoch comes first: a header that is replaced while it is read is stale at once.
   const bool readable = reinterpret_cast< uintptr_t >( region.data() ) % sizeof( U64 ) == 0 &&
                         region.size() >= LfibHeader::words * sizeof( U64 );
   const U64* const words = reinterpret_cast< const U64* >( region.data() );
   epoch_ = readable ? lfibLoad( words + LfibHeader::epoch ) : 0;
   patience_.forget();
   reason_ = layout_.read( region );
   if ( !reason_.empty() ) {
      return false;
   }
   region_ = words;
   ring_ = LfibRing( region_, layout_ );
   for ( size_t i = 0; i < lfibTables; ++i ) {
      const auto table = static_cast< LfibTable >( i );
      views_[i] = LfibTableView( table, region_, layout_, &patience_ );
   }
   return true;
}

bool LfibReader::stale() const {
   return !attached() || lfibLoad( region_ + LfibHeader::magic ) != LfibHeader::magicValue ||
          lfibLoad( region_ + LfibHeader::epoch ) != epoch_;
}

// In a region that is being laid out anew nothing can be expected to hold. A slot that stays busy is
// told once.
void LfibReader::report( LfibTable table, U32 slot, U64 keyWord,
                         LfibCorruptionReason reason ) const {
   const bool busy = reason == LfibCorruptionReason::busy;
   unread_ = unread_ || busy;
   if ( hook_ && !stale() && !( busy && !patience_.givenUpAnew() ) ) {
      hook_( { lfibTableShapes[static_cast< size_t >( table )].name, slot, keyWord, reason } );
   }
}

void LfibReader::reportRing( U64 position ) const {
   if ( hook_ ) {
      const U64 entry = position & ( layout_.ringEntries - 1 );
      hook_( { "ring", static_cast< U32 >( entry ), position, LfibCorruptionReason::check } );
   }
}

// The slot of the key, or none, and then `unread` says why.
U32 LfibReader::find( LfibTable table, const LfibKey& key, U64* words, U32& length ) const {
   unread_ = false;
   if ( !attached() ) {
      unread_ = true;
      return LfibTableView::none;
   }
   const U32 slot =
      view( table ).find( key, words, length, [&]( U32 rotten, LfibCorruptionReason reason ) {
         report( table, rotten, key.first, reason );
      } );
   if ( slot == LfibTableView::none ) {
      nullIs();
   }
   return slot;
}

// What is not found in a region that is not the one any more may be there.
void LfibReader::nullIs() const {
   unread_ = unread_ || stale();
}

template< class Value >
Value LfibReader::valueAt( LfibTable table, U64 key ) const {
   Value value{};
   std::array< U64, lfibMaxWords > words;
   U32 length = 0;
   const U32 slot = find( table, { key }, words.data(), length );
   if ( slot != LfibTableView::none && !( keyFits( table, words.data() ) &&
                                          decode( words.data(), length, value ) ) ) [[unlikely]] {
      nullIs();
      report( table, slot, key, LfibCorruptionReason::value );
      value = Value();
   }
   return value;
}

LfibRoute LfibReader::route( RouteKey key ) const {
   if ( key.singleLabel() && attached() ) [[likely]] {
      const LfibTableView& table = view( LfibTable::route );
      LfibTableView::Three words;
      if ( table.readThree( table.labelHome( key.topLabel().value() ), words ) &&
           words.first == key.word() && viaSetKeyFits( words.second ) &&
           words.third <= 0xFFFF'FFFF ) [[likely]] {
         return { key, LfibViaSetKey::fromWord( words.second ), static_cast< U32 >( words.third ) };
      }
   }
   return valueAt< LfibRoute >( tableOf( key ), key.word() );
}
LfibViaSet LfibReader::viaSet( LfibViaSetKey key ) const {
   return valueAt< LfibViaSet >( LfibTable::viaSet, key.word() );
}
LfibMplsVia LfibReader::mplsVia( LfibViaKey key ) const {
   return valueAt< LfibMplsVia >( LfibTable::mplsVia, key.word() );
}
LfibExtFecVia LfibReader::extFecVia( LfibViaKey key ) const {
   return valueAt< LfibExtFecVia >( LfibTable::extFecVia, key.word() );
}
LfibPwVia LfibReader::pwVia( LfibViaKey key ) const {
   return valueAt< LfibPwVia >( LfibTable::pwVia, key.word() );
}
LfibIpLookupVia LfibReader::ipLookupVia( LfibViaKey key ) const {
   return valueAt< LfibIpLookupVia >( LfibTable::ipLookupVia, key.word() );
}
LfibVlanVia LfibReader::vlanVia( LfibViaKey key ) const {
   return valueAt< LfibVlanVia >( LfibTable::vlanVia, key.word() );
}
LfibEvpnVlanAwareVia LfibReader::evpnVlanAwareVia( LfibViaKey key ) const {
   return valueAt< LfibEvpnVlanAwareVia >( LfibTable::evpnVlanAwareVia, key.word() );
}
LfibEvpnVlanFloodVia LfibReader::evpnVlanFloodVia( LfibViaKey key ) const {
   return valueAt< LfibEvpnVlanFloodVia >( LfibTable::evpnVlanFloodVia, key.word() );
}
LfibEvpnVlanAwareFloodVia LfibReader::evpnVlanAwareFloodVia( LfibViaKey key ) const {
   return valueAt< LfibEvpnVlanAwareFloodVia >( LfibTable::evpnVlanAwareFloodVia, key.word() );
}

bool LfibReader::has( LfibTable table, const LfibKey& key, U64& content ) const {
   std::array< U64, lfibMaxWords > words;
   U32 length = 0;
   if ( find( table, key, words.data(), length ) == LfibTableView::none ) {
      return false;
   }
   content = length > 2 ? words[2] : 0;
   return true;
}

bool LfibReader::routeHas( RouteKey key ) const {
   U64 content = 0;
   return has( tableOf( key ), { key.word() }, content );
}
bool LfibReader::viaSetHas( LfibViaSetKey key ) const {
   U64 content = 0;
   return has( LfibTable::viaSet, { key.word() }, content );
}
bool LfibReader::viaHas( LfibViaKey key ) const {
   U64 content = 0;
   const auto table = tableOf( key.viaType() );
   return table && has( *table, { key.word() }, content );
}
bool LfibReader::dot1qTagToVlanCollHas( LfibDot1qTagToVlanKey key ) const {
   U64 content = 0;
   return has( LfibTable::dot1q, { key.word(), lfibDot1qMap }, content );
}
std::optional< Bridging::VlanIdOrNone > LfibReader::dot1qTagToVlan( LfibDot1qTagToVlanKey key,
                                                                    Bridging::VlanId tag ) const {
   U64 content = 0;
   if ( !has( LfibTable::dot1q, { key.word(), tag }, content ) ) {
      return std::nullopt;
   }
   return content & vlanPresentBit
             ? Bridging::VlanIdOrNone( static_cast< Bridging::VlanId >( content ) )
             : Bridging::VlanIdOrNone();
}

size_t LfibReader::count( LfibTable table ) const {
   // Bounded, since a user reserves memory by it.
   return attached() ? std::min< U64 >( view( table ).elements(), view( table ).place().capacity )
                     : 0;
}
size_t LfibReader::routes() const {
   return count( LfibTable::route ) + count( LfibTable::deepRoute );
}
size_t LfibReader::vias() const {
   size_t sum = 0;
   for ( const LfibTable table : viaTables ) {
      sum += count( table );
   }
   return sum;
}

// --- Reader: walks

LfibReader::Met LfibReader::walkSlot( const LfibTableView& table, U32 slot, U64* words,
                                      U32& length ) const {
   LfibCorruptionReason reason{};
   words[0] = 0;
   LfibTableView::Slot state = LfibTableView::Slot::live;
   if ( LfibTableView::Three three;
        table.shape().slotWords == 4 && table.readThree( slot, three ) ) {
      words[0] = three.first;
      words[1] = three.second;
      words[2] = three.third;
      length = 3;
   } else {
      state = table.read( slot, words, length, reason );
   }
   if ( state == LfibTableView::Slot::live ) [[likely]] {
      const bool fits = keyFits( table.table(), words );
      const U32 home = table.homeOf( table.keyIn( words ) );
      if ( fits && table.reaches( home, slot ) ) [[likely]] {
         return Met::element;
      }
      const U64 key = words[0];
      if ( fits && ( table.read( slot, words, length, reason ) != LfibTableView::Slot::live ||
                     words[0] != key ) ) {
         return Met::nothing; // it has been removed meanwhile, as what stood before it
      }
      reason = fits ? LfibCorruptionReason::place : LfibCorruptionReason::value;
   } else if ( state != LfibTableView::Slot::rotten ) {
      return Met::nothing;
   }
   report( table.table(), slot, words[0], reason );
   return Met::rotten;
}

bool LfibReader::countHolds( const LfibTableView& table, U64 changes, U64 met ) const {
   // An odd number of changes: the writer was between an element and its count.
   const U64 elements = table.elements();
   if ( elements == met || changes % 2 != 0 || table.changes() != changes ) {
      return true;
   }
   report( table.table(), table.place().slotCount, 0, LfibCorruptionReason::count );
   return false;
}

bool LfibReader::routeOf( const U64* words, U32 length, LfibRoute& out ) {
   return decode( words, length, out );
}
bool LfibReader::viaSetOf( const U64* words, U32 length, LfibViaSet& out ) {
   return decode( words, length, out );
}

bool LfibReader::sliceNext( LfibTable which, U32& slot, size_t& budget, SliceKey& key ) const {
   const LfibTableView& table = view( which );
   std::array< U64, lfibMaxWords > words;
   U32 length = 0;
   while ( budget != 0 ) {
      slot = table.nextUsed( slot );
      if ( slot == table.place().slotCount ) {
         return false;
      }
      --budget;
      if ( walkSlot( table, slot++, words.data(), length ) == Met::element ) {
         const U64 second = table.shape().keyWords == 2 ? words[1] : 0;
         key = { words[0], static_cast< uint16_t >( second ), lfibDigest( words.data(), length ) };
         return true;
      }
   }
   return false;
}

} // namespace Mpls
