// LfibTable: one table and the ring as they are read, slot by slot. What lies where is in
// LfibLayout.h.
//
// A slot is word 0, the head, and the element behind it. The head holds the slot's state, the
// element's length, a sequence number and a 32-bit check over all of that, the element and the
// slot's place. A writer enters the head and the words to come into the journal, marks the slot's
// head busy, writes the words and writes the new head. A reader copies the words between two equal
// heads and verifies the check. Of a busy slot it takes what the journal says: the head there names
// the table, the slot and the sequence number by its check, so that what it copies is either what is
// being written or nothing. Then the writer has gone on, and the reader looks again.
//
// Looking again takes long only where the slot's writer is faster than the reader, or where a slot
// is busy that the journal does not know, which no writer of this kind leaves behind. LfibPatience
// bounds it by the clock.
//
// A removed slot stays a stone that probing steps over until it is used again; it becomes empty as
// soon as the slot behind it is. Nothing ever moves, so a reader cannot miss a key that stays.

#pragma once

#include <array>
#include <bit>
#include <chrono>
#include <span>

#include "platform/lfib/LfibLayout.h"

namespace Mpls {

/// A key as the tables hold it. Only tables of two key words look at the second.
struct LfibKey {
   U64 first = 0;
   U64 second = 0;
};

struct LfibSlotHead {
   enum State : U64 { empty = 0, live = 1, removed = 2, busy = 3 };
   static constexpr U64 stateMask = 3;
   static constexpr U64 lowMask = 0xFFFF'FFFF; // all but the check
   static constexpr int lengthShift = 2;
   static constexpr U64 lengthMask = 0xFF;
   static constexpr int sequenceShift = 10;
   static constexpr U64 sequenceStep = U64{ 1 } << sequenceShift;

   static U32 length( U64 head ) { return static_cast< U32 >( head >> lengthShift & lengthMask ); }
   /// The head of a slot's next contents; its check is added by `sealed`.
   static U64 next( U64 head, State state, U32 length ) {
      const U64 sequence = ( head & lowMask & ~( sequenceStep - 1 ) ) + sequenceStep;
      return ( sequence & lowMask ) | U64{ length } << lengthShift | state;
   }
   /// A slot among those of all tables.
   static U64 place( LfibTable table, U32 slot ) {
      return U64{ slot } | static_cast< U64 >( table ) << 32;
   }
   static U64 seed( U64 low, LfibTable table, U32 slot ) {
      return low ^ U64 { slot } << 32 ^ static_cast< U64 >( table ) << 58;
   }
   static U64 sealed( U64 low, LfibTable table, U32 slot, const U64* words ) {
      return low | U64{ lfibCheck( seed( low, table, slot ), words, length( low ) ) } << 32;
   }
};

/// The time that all look-ups of a reader together spend on slots that cannot be read: 200
/// microseconds at once, of which 2% of the time that passes come back. A slot that was given up on
/// is answered at once until its head, or the epoch, is another. Nobody gives up the processor,
/// which may take a scheduler's slice to come back.
class VEL_EXPORT LfibPatience {
 public:
   static constexpr std::chrono::microseconds most{ 200 };
   static constexpr int share = 50;
   /// Looks that cost no reading of the clock.
   static constexpr U32 quickLooks = 64;

   /// Whether to look again. `busyHead` is 0 for a slot that is not busy but changes at each look.
   bool again( LfibTable table, U32 slot, U64 busyHead, U32 looks );
   /// Whether the slot that was given up on last had not been given up on before.
   bool givenUpAnew() const { return givenUpAnew_; }
   /// Another epoch.
   void forget() { givenUp_ = {}; }

 private:
   using Clock = std::chrono::steady_clock;
   struct Place {
      U64 slot = ~U64{ 0 };
      U64 head = 0;
   };
   std::array< Place, 64 > givenUp_; // by the slot's number
   Clock::time_point last_;
   Clock::duration left_ = most;
   bool givenUpAnew_ = false;
};

/// A table as a reader sees it. Without patience, as its writer sees it: what is busy is left over.
class LfibTableView {
 public:
   /// No key stands farther from its home.
   static constexpr U32 maxReach = 1023;

   static constexpr U32 none = 0xFFFF'FFFF;

   enum class Slot : uint8_t { empty, live, removed, rotten };

   LfibTableView() = default;
   LfibTableView( LfibTable table, const U64* region, const LfibLayout& layout,
                  LfibPatience* patience = nullptr )
      : region_( region ),
        table_( table ),
        place_( layout.table[static_cast< size_t >( table )] ),
        shape_( lfibTableShapes[static_cast< size_t >( table )] ),
        journal_( layout.journal ),
        patience_( patience ) {}

   LfibTable table() const { return table_; }
   const LfibTableShape& shape() const { return shape_; }
   const LfibTablePlace& place() const { return place_; }
   const U64* slotAt( U32 slot ) const {
      return region_ + place_.slots + U64{ slot } * shape_.slotWords;
   }
   U32 after( U32 slot ) const { return ( slot + 1 ) & mask(); }
   U32 before( U32 slot ) const { return ( slot - 1 ) & mask(); }
   U32 distance( U32 home, U32 slot ) const { return ( slot - home ) & mask(); }

   LfibKey keyIn( const U64* words ) const {
      return { words[0], shape_.keyWords == 2 ? words[1] : 0 };
   }
   bool holds( const U64* words, const LfibKey& key ) const {
      return words[0] == key.first && ( shape_.keyWords == 1 || words[1] == key.second );
   }
   /// The slot that the key would stand in if all were free.
   U32 homeOf( const LfibKey& key ) const {
      if ( table_ == LfibTable::route ) {
         return labelHome( static_cast< U32 >( key.first >> 42 ) );
      }
      return static_cast< U32 >( Vel::mixBits( key.first + Vel::mixBits( key.second ) ) >> 16 ) &
             mask();
   }
   U32 labelHome( U32 label ) const {
      if ( place_.slotCount >= labelSpace ) {
         return label & mask();
      }
      // Multiples of the golden ratio: the blocks of a dense range of labels spread evenly.
      const U64 block = label / 8 * 0x9E37'79B9'7F4A'7C15ULL >> ( 67 - std::bit_width( mask() ) );
      return static_cast< U32 >( block ) * 8 + label % 8;
   }
   /// How far from its home a key may stand. Where all labels fit, each has a home of its own.
   U32 reach() const {
      if ( table_ == LfibTable::route && place_.slotCount >= labelSpace ) {
         return 0;
      }
      return place_.slotCount - 1 < maxReach ? place_.slotCount - 1 : maxReach;
   }
   U64 elements() const { return lfibLoad( region_ + counter() ); }
   U64 changes() const { return lfibLoad( region_ + counter() + 1 ); }
   U64 usedGroups( U32 index ) const { return lfibLoad( region_ + place_.used + index ); }

   /// A slot of three words, in registers.
   struct Three {
      U64 first;
      U64 second;
      U64 third;
   };
   /// The usual case of a route in short: true when the slot holds three words, whole at the first
   /// attempt.
   bool readThree( U32 slot, Three& three ) const {
      const U64* const at = region_ + place_.slots + U64{ slot } * 4;
      const U64 head = lfibLoad( at );
      three = { lfibLoad( at + 1 ), lfibLoad( at + 2 ), lfibLoad( at + 3 ) };
      constexpr U64 live = U64{ 3 } << LfibSlotHead::lengthShift | LfibSlotHead::live;
      const U64 low = head & LfibSlotHead::lowMask;
      const U64 check = lfibCheck( LfibSlotHead::seed( low, table_, slot ), three.first,
                                   three.second, three.third );
      return ( head & ( LfibSlotHead::sequenceStep - 1 ) ) == live &&
             ( low | check << 32 ) == head && lfibLoad( at ) == head;
   }

   /// A consistent copy of a slot's words, verified. `words` takes `shape().slotWords - 1` words.
   Slot read( U32 slot, U64* words, U32& length, LfibCorruptionReason& reason ) const {
      const U64* const at = slotAt( slot );
      for ( U32 looks = 1;; ++looks ) {
         const U64 head = lfibLoad( at );
         if ( head == 0 ) {
            return Slot::empty;
         }
         const U64 state = head & LfibSlotHead::stateMask;
         if ( state != LfibSlotHead::busy ) [[likely]] {
            length = LfibSlotHead::length( head );
            if ( !fits( state, length ) ) {
               reason = LfibCorruptionReason::length;
               return Slot::rotten;
            }
            for ( U32 i = 0; i < length; ++i ) {
               words[i] = lfibLoad( at + 1 + i );
            }
            if ( lfibLoad( at ) == head ) [[likely]] {
               const U64 low = head & LfibSlotHead::lowMask;
               if ( LfibSlotHead::sealed( low, table_, slot, words ) != head ) {
                  reason = LfibCorruptionReason::check;
                  return Slot::rotten;
               }
               return slotOf( state );
            }
         } else if ( const U64 coming = readJournal( slot, head, words ); coming != 0 ) {
            length = LfibSlotHead::length( coming );
            return slotOf( coming & LfibSlotHead::stateMask );
         }
         if ( !lookAgain( slot, state == LfibSlotHead::busy ? head : 0, looks ) ) {
            reason = LfibCorruptionReason::busy;
            return Slot::rotten;
         }
      }
   }

   /// Whether a look-up that begins at `home` comes as far as `slot`.
   bool reaches( U32 home, U32 slot ) const {
      if ( distance( home, slot ) > reach() ) {
         return false;
      }
      while ( home != slot && !ends( home ) ) {
         home = after( home );
      }
      return home == slot;
   }

   /// The head and the words that are being written into a slot with that busy head; 0 when the
   /// journal does not hold them.
   VEL_EXPORT U64 readJournal( U32 slot, U64 busyHead, U64* words ) const;

   /// Finds a key and copies its element: the slot, or `none`. What does not hold on the way is
   /// passed to `rotten` and stepped over.
   template< class F >
   U32 find( const LfibKey& key, U64* words, U32& length, const F& rotten ) const {
      const U32 limit = reach();
      U32 slot = homeOf( key );
      for ( U32 probe = 0;; ++probe, slot = after( slot ) ) {
         LfibCorruptionReason reason{};
         const Slot state = read( slot, words, length, reason );
         if ( state == Slot::live ) [[likely]] {
            if ( holds( words, key ) ) {
               return slot;
            }
         } else if ( state == Slot::empty ) {
            return none;
         } else if ( state == Slot::rotten ) {
            rotten( slot, reason );
         }
         if ( probe == limit ) {
            return none;
         }
      }
   }

   /// The first slot at or after `slot` in a group of 64 that has ever been written, or the number
   /// of slots.
   U32 nextUsed( U32 slot ) const {
      while ( slot < place_.slotCount ) {
         const U32 group = slot / 64;
         const U64 rest = usedGroups( group / 64 ) >> group % 64;
         if ( rest & 1 ) [[likely]] {
            return slot;
         }
         slot = rest ? ( group + static_cast< U32 >( std::countr_zero( rest ) ) ) * 64
                     : ( group / 64 + 1 ) * 64 * 64;
      }
      return place_.slotCount;
   }

 private:
   static constexpr U32 labelSpace = 1U << 20;
   U32 mask() const { return place_.slotCount - 1; }
   bool fits( U64 state, U32 length ) const {
      return length < shape_.slotWords &&
             ( state != LfibSlotHead::live || length >= shape_.keyWords );
   }
   static Slot slotOf( U64 state ) {
      return state == LfibSlotHead::live      ? Slot::live
             : state == LfibSlotHead::removed ? Slot::removed
                                              : Slot::empty;
   }
   /// Whether a look-up ends at the slot: nothing stands behind it.
   bool ends( U32 slot ) const {
      const U64 head = lfibLoad( slotAt( slot ) );
      const U64 low = head & LfibSlotHead::lowMask;
      return head == 0 || ( ( low & ( LfibSlotHead::sequenceStep - 1 ) ) == LfibSlotHead::empty &&
                            LfibSlotHead::sealed( low, table_, slot, nullptr ) == head );
   }
   bool lookAgain( U32 slot, U64 busyHead, U32 looks ) const {
      return patience_ ? patience_->again( table_, slot, busyHead, looks ) : false;
   }
   U64 counter() const { return LfibHeader::counters + 2 * static_cast< U64 >( table_ ); }

   const U64* region_ = nullptr;
   LfibTable table_ = LfibTable::route;
   LfibTablePlace place_;
   LfibTableShape shape_{ {}, 1, 4 };
   U64 journal_ = 0;
   LfibPatience* patience_ = nullptr;
};

// --- The ring

/// What reading the ring gives.
enum class LfibRingRead : uint8_t {
   good,    ///< as many changes as were there
   overrun, ///< the writer has gone around: changes are lost
   rotten,  ///< an entry does not hold
};

class VEL_EXPORT LfibRing {
 public:
   LfibRing() = default;
   LfibRing( const U64* region, const LfibLayout& layout )
      : region_( region ), offset_( layout.ring ), mask_( layout.ringEntries - 1 ) {}

   /// The position of the next change that will be written.
   U64 head() const { return lfibLoad( region_ + LfibHeader::ringHead ); }
   /// Copies changes from `position` on, at most as many as fit; `count` says how many.
   LfibRingRead read( U64 position, std::span< LfibChange > changes, size_t& count ) const;
   /// Writes a change and moves the head, which was at `position`. For the one writer.
   void add( U64* region, U64 position, const LfibChange& change ) const;

 private:
   static constexpr U64 removedBit = 0x80;
   static U64 entryHead( U64 position, U64 low, U64 keyWord );

   const U64* region_ = nullptr;
   U64 offset_ = 0;
   U64 mask_ = 0;
};

} // namespace Mpls
