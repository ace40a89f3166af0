#include "platform/lfib/LfibTable.h"

#include <algorithm>

namespace Mpls {

bool LfibPatience::again( LfibTable table, U32 slot, U64 busyHead, U32 looks ) {
   const U64 number = LfibSlotHead::place( table, slot );
   Place& givenUp = givenUp_[Vel::mixBits( number ) % givenUp_.size()];
   if ( busyHead != 0 && givenUp.slot == number && givenUp.head == busyHead ) {
      givenUpAnew_ = false;
      return false;
   }
   if ( looks < quickLooks ) {
      return true;
   }
   const Clock::time_point now = Clock::now();
   left_ = looks == quickLooks
              ? std::min< Clock::duration >( most, left_ + ( now - last_ ) / share )
              : left_ - ( now - last_ );
   last_ = now;
   if ( left_ > Clock::duration::zero() ) {
      return true;
   }
   left_ = Clock::duration::zero();
   givenUp = { number, busyHead };
   givenUpAnew_ = true;
   return false;
}

U64 LfibTableView::readJournal( U32 slot, U64 busyHead, U64* words ) const {
   const U64* const journal = region_ + journal_;
   const U64 head = lfibLoad( journal + 1 );
   const auto state = static_cast< LfibSlotHead::State >( head & LfibSlotHead::stateMask );
   const U32 length = LfibSlotHead::length( head );
   const U64 low = head & LfibSlotHead::lowMask;
   if ( lfibLoad( journal ) != LfibSlotHead::place( table_, slot ) || state == LfibSlotHead::busy ||
        !fits( state, length ) || low != LfibSlotHead::next( busyHead, state, length ) ) {
      return 0;
   }
   for ( U32 i = 0; i < length; ++i ) {
      words[i] = lfibLoad( journal + 2 + i );
   }
   return LfibSlotHead::sealed( low, table_, slot, words ) == head ? head : 0;
}

U64 LfibRing::entryHead( U64 position, U64 low, U64 keyWord ) {
   const std::array< U64, 2 > words{ low, keyWord };
   return low | U64{ lfibCheck( position, words.data(), 2 ) } << 32;
}

void LfibRing::add( U64* region, U64 position, const LfibChange& change ) const {
   U64* const entry = region + offset_ + 2 * ( position & mask_ );
   const U64 low = static_cast< U64 >( change.kind ) | ( change.removed ? removedBit : 0 ) |
                   U64{ change.tag } << 8;
   lfibStore( entry, entryHead( position, low, change.keyWord ) );
   lfibStore( entry + 1, change.keyWord );
   lfibStore( region + LfibHeader::ringHead, position + 1 );
}

LfibRingRead LfibRing::read( U64 position, std::span< LfibChange > changes, size_t& count ) const {
   // The writer may be writing the entry at its head, which is also the one a whole ring before: a
   // reader may be at most one entry less than a ring behind, before and after reading.
   const U64 available = head() - position;
   count = 0;
   if ( available > mask_ ) {
      return LfibRingRead::overrun;
   }
   const size_t wanted = std::min< size_t >( available, changes.size() );
   bool whole = true;
   for ( size_t i = 0; i < wanted; ++i ) {
      const U64* const entry = region_ + offset_ + 2 * ( ( position + i ) & mask_ );
      const U64 entryHeadWord = lfibLoad( entry );
      const U64 keyWord = lfibLoad( entry + 1 );
      const U64 low = entryHeadWord & 0xFFFF'FFFF;
      whole = whole && entryHead( position + i, low, keyWord ) == entryHeadWord;
      changes[i] = { static_cast< LfibChange::Kind >( low & ( removedBit - 1 ) ),
                     ( low & removedBit ) != 0, static_cast< uint16_t >( low >> 8 ), keyWord };
   }
   if ( head() - position > mask_ ) {
      return LfibRingRead::overrun;
   }
   count = whole ? wanted : 0;
   return whole ? LfibRingRead::good : LfibRingRead::rotten;
}

} // namespace Mpls
