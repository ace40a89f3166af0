// LfibRegion: the LFIB in a span of memory, as values. A publisher has an LfibWriter, an agent an
// LfibReader.
//
// The span is whatever the owner has: a mapped shared-memory object between processes, heap memory
// within one. It must be aligned to 8 bytes (64 keep a route in one cache line) and as long as
// `LfibWriter::bytesNeeded` says. One writer, any number of readers, no lock; LfibLayout.h and
// LfibTable.h say what lies in it.
//
// A write that changes nothing is no change: nothing is written and the ring does not hear of it.
//
// What a reader finds not to hold is passed to its corruption hook and reads as the null value; a
// walk over a table ends there, look-ups of everything else go on. A slot that is being written
// reads as what is being written.
//
// Null has two meanings, and `unread` says which: what is absent is not in the table, and what could
// not be read may be. The latter is rare: a region that is being laid out anew or is no LFIB, a
// writer that is faster than the reader for as long as the reader is patient.

#pragma once

#include <functional>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "platform/lfib/LfibTable.h"
#include "platform/values/LfibTypes.h"

namespace Mpls {

/// What a corruption hook is told.
struct LfibCorruption {
   std::string_view table;
   U32 slot = 0;
   U64 keyWord = 0; ///< of the key looked for; on a walk, what stands in the slot
   LfibCorruptionReason reason = LfibCorruptionReason::check;
};
VEL_EXPORT void appendText( std::string& out, const LfibCorruption& corruption );

/// What a write did.
enum class LfibWrite : uint8_t {
   unchanged, ///< the table holds this already, or did not hold what was to be removed
   changed,
   full,    ///< the table has as many elements as its capacity, or no free slot near the key's home
   refused, ///< no region, or what no reader would believe: a null key, a key of another table, a
            ///< label of more than 20 bits, implicit null where a label is put on
};

/// What is known of the memory that is laid out.
enum class LfibMemory : uint8_t {
   used,  ///< may hold anything: every word of the span is cleared
   zeroed ///< all zero bits, such as a fresh mapping: the pages of empty tables stay untouched
};

/// The publisher's side. Not copyable: a region has one writer.
class VEL_EXPORT LfibWriter {
 public:
   /// Bytes of a region with these capacities.
   static size_t bytesNeeded( const LfibCapacities& capacities );

   /// Lays the region out anew. Readers that are attached to it resynchronise.
   LfibWriter( std::span< std::byte > region, const LfibCapacities& capacities,
               LfibMemory memory = LfibMemory::used );
   /// Takes over what an earlier publisher left. The element that it was writing when it ended is
   /// written to the end, what does not hold is removed (`dropped`), and readers resynchronise.
   explicit LfibWriter( std::span< std::byte > region );
   LfibWriter( const LfibWriter& ) = delete;
   LfibWriter& operator=( const LfibWriter& ) = delete;

   bool attached() const { return region_ != nullptr; }
   /// Why the region was refused; empty when it was not.
   const std::string& reason() const { return reason_; }

   /// What did not hold and was removed, when the region was taken over or met later: the first
   /// `mostDroppedKept` of it, and the count of all. The keys are those that stood in the slots.
   const std::vector< LfibCorruption >& dropped() const { return dropped_; }
   U64 droppedCount() const { return droppedCount_; }
   static constexpr size_t mostDroppedKept = 1000;

   LfibWrite routeIs( const LfibRoute& route );
   LfibWrite routeDel( RouteKey key );
   LfibWrite viaSetIs( const LfibViaSet& viaSet );
   LfibWrite viaSetDel( LfibViaSetKey key );
   LfibWrite mplsViaIs( const LfibMplsVia& via );
   LfibWrite extFecViaIs( const LfibExtFecVia& via );
   LfibWrite pwViaIs( const LfibPwVia& via );
   LfibWrite ipLookupViaIs( const LfibIpLookupVia& via );
   LfibWrite vlanViaIs( const LfibVlanVia& via );
   LfibWrite evpnVlanAwareViaIs( const LfibEvpnVlanAwareVia& via );
   LfibWrite evpnVlanFloodViaIs( const LfibEvpnVlanFloodVia& via );
   LfibWrite evpnVlanAwareFloodViaIs( const LfibEvpnVlanAwareFloodVia& via );
   /// Removes a via of any type: its key names the table.
   LfibWrite viaDel( LfibViaKey key );
   /// Makes an empty map from tag to VLAN.
   LfibWrite dot1qTagToVlanCollIs( LfibDot1qTagToVlanKey key );
   /// Removes a map with all its tags.
   LfibWrite dot1qTagToVlanCollDel( LfibDot1qTagToVlanKey key );
   /// Maps a tag (0 to 4095), making the map when it is not there. The value may be none.
   LfibWrite dot1qTagToVlanIs( LfibDot1qTagToVlanKey key, Bridging::VlanId tag,
                               Bridging::VlanIdOrNone vlan );
   LfibWrite dot1qTagToVlanDel( LfibDot1qTagToVlanKey key, Bridging::VlanId tag );
   /// States that the initial contents are complete.
   LfibWrite readyIs( bool ready );

   size_t routes() const;
   size_t viaSets() const { return count( LfibTable::viaSet ); }
   size_t vias() const;
   bool ready() const;

 private:
   struct Words;
   /// Where a key stands, or could.
   struct Spot {
      U32 found = LfibTableView::none;
      U32 free = LfibTableView::none;
      bool rotten = false; ///< a slot on the way does not hold
   };

   size_t count( LfibTable table ) const { return counts_[static_cast< size_t >( table )]; }
   const LfibTableView& view( LfibTable table ) const {
      return views_[static_cast< size_t >( table )];
   }
   VEL_HIDDEN bool attach( std::span< std::byte > region );
   VEL_HIDDEN void epochDraw();
   VEL_HIDDEN void finishJournal();
   VEL_HIDDEN void recover( LfibTable table );
   VEL_HIDDEN Spot spotOf( LfibTable table, const LfibKey& key, Words& present );
   VEL_HIDDEN static Spot spotIn( const LfibTableView& at, const LfibKey& key, Words& present );
   template< class Value >
   LfibWrite put( LfibTable table, const Value& value, LfibChange::Kind kind );
   VEL_HIDDEN LfibWrite put( LfibTable table, const Words& words, const LfibChange& change );
   VEL_HIDDEN LfibWrite take( LfibTable table, const LfibKey& key, LfibChange change );
   VEL_HIDDEN void slotWrite( const LfibTableView& at, U32 slot, LfibSlotHead::State state,
                              const U64* words, U32 length );
   VEL_HIDDEN void release( const LfibTableView& at, U32 slot );
   VEL_HIDDEN void changeBegins( LfibTable table );
   VEL_HIDDEN void changeEnds( LfibTable table, int delta );
   VEL_HIDDEN void ringAdd( const LfibChange& change );

   U64* region_ = nullptr;
   LfibLayout layout_;
   LfibRing ring_;
   std::array< LfibTableView, lfibTables > views_;
   std::array< U64, lfibTables > counts_{};
   std::array< U64, lfibTables > changes_{};
   U64 ringHead_ = 0;
   std::vector< LfibCorruption > dropped_;
   U64 droppedCount_ = 0;
   std::string reason_;
};

/// What a walk does when it meets an element that does not hold.
enum class LfibWalk : uint8_t { stop, skip };

/// A reader's side. Holds no memory of its own but for its patience.
class VEL_EXPORT LfibReader {
 public:
   LfibReader() = default;
   explicit LfibReader( std::span< const std::byte > region ) { attach( region ); }
   LfibReader( const LfibReader& ) = delete;
   LfibReader& operator=( const LfibReader& ) = delete;

   /// Verifies the header and remembers where things lie; false, with a reason, when it does not
   /// hold.
   bool attach( std::span< const std::byte > region );
   bool attached() const { return region_ != nullptr; }
   const std::string& reason() const { return reason_; }
   /// Whether the region is no longer the one that was attached to: laid out anew, or taken over.
   bool stale() const;
   /// Whether the last look-up that gave null could not read what is there. The key may be in the
   /// table: what it stood for is to be kept, and looked up again. For a key that is absent, false.
   bool unread() const { return unread_; }
   void corruptionHookIs( std::function< void( const LfibCorruption& ) > hook ) {
      hook_ = std::move( hook );
   }

   LfibRoute route( RouteKey key ) const;
   LfibViaSet viaSet( LfibViaSetKey key ) const;
   LfibMplsVia mplsVia( LfibViaKey key ) const;
   LfibExtFecVia extFecVia( LfibViaKey key ) const;
   LfibPwVia pwVia( LfibViaKey key ) const;
   LfibIpLookupVia ipLookupVia( LfibViaKey key ) const;
   LfibVlanVia vlanVia( LfibViaKey key ) const;
   LfibEvpnVlanAwareVia evpnVlanAwareVia( LfibViaKey key ) const;
   LfibEvpnVlanFloodVia evpnVlanFloodVia( LfibViaKey key ) const;
   LfibEvpnVlanAwareFloodVia evpnVlanAwareFloodVia( LfibViaKey key ) const;
   bool routeHas( RouteKey key ) const;
   bool viaSetHas( LfibViaSetKey key ) const;
   bool viaHas( LfibViaKey key ) const;
   /// The VLAN of a tag, or nothing when the map does not have the tag.
   std::optional< Bridging::VlanIdOrNone > dot1qTagToVlan( LfibDot1qTagToVlanKey key,
                                                           Bridging::VlanId tag ) const;
   bool dot1qTagToVlanCollHas( LfibDot1qTagToVlanKey key ) const;

   bool ready() const { return attached() && lfibLoad( region_ + LfibHeader::ready ) == 1; }
   size_t routes() const;
   size_t viaSets() const { return count( LfibTable::viaSet ); }
   size_t vias() const;
   size_t count( LfibTable table ) const;
   const LfibRing& ring() const { return ring_; }

   /// Walks over one table, in the order of its slots, which repeats for the same writes. False
   /// when the walk ended at something that does not hold. What is written while the walk runs may
   /// be met or not, or be met twice.
   template< class F >
   bool routeEach( const F& call, LfibWalk walk = LfibWalk::stop ) const {
      const bool whole = each( LfibTable::route, call, walk, &routeOf );
      return ( whole || walk == LfibWalk::skip ) &&
             each( LfibTable::deepRoute, call, walk, &routeOf ) && whole;
   }
   template< class F >
   bool viaSetEach( const F& call, LfibWalk walk = LfibWalk::stop ) const {
      return each( LfibTable::viaSet, call, walk, &viaSetOf );
   }

   // --- For LfibStatus: a table in slices, by key

   /// One element of a slice, with its tag in a dot1q table.
   struct SliceKey {
      U64 word = 0;
      uint16_t tag = 0;
      U64 digest = 0; ///< `lfibDigest` of its words
   };
   /// Goes on from `slot` until it has met an element, or looked at `budget` slots. True when it
   /// met one; at the end `slot` is the number of slots. Skips what does not hold.
   bool sliceNext( LfibTable table, U32& slot, size_t& budget, SliceKey& key ) const;
   U32 slots( LfibTable table ) const { return view( table ).place().slotCount; }
   /// Starts to load the slot of a route that will be looked up soon.
   void prefetch( RouteKey key ) const {
      const LfibTableView& table = view( LfibTable::route );
      if ( key.singleLabel() && attached() ) {
         __builtin_prefetch( table.slotAt( table.homeOf( { key.word() } ) ) );
      }
   }
   /// Reports an entry of the ring that does not hold.
   void reportRing( U64 position ) const;

 private:
   const LfibTableView& view( LfibTable table ) const {
      return views_[static_cast< size_t >( table )];
   }
   enum class Met : uint8_t { nothing, element, rotten };

   void report( LfibTable table, U32 slot, U64 keyWord, LfibCorruptionReason reason ) const;
   template< class Value >
   Value valueAt( LfibTable table, U64 key ) const;
   VEL_HIDDEN bool has( LfibTable table, const LfibKey& key, U64& content ) const;
   VEL_HIDDEN U32 find( LfibTable table, const LfibKey& key, U64* words, U32& length ) const;
   VEL_HIDDEN void nullIs() const;
   /// Reads one slot of a walk. What does not hold is reported.
   Met walkSlot( const LfibTableView& table, U32 slot, U64* words, U32& length ) const;
   bool countHolds( const LfibTableView& table, U64 changes, U64 met ) const;
   static bool routeOf( const U64* words, U32 length, LfibRoute& out );
   static bool viaSetOf( const U64* words, U32 length, LfibViaSet& out );

   template< class F, class Value >
   bool each( LfibTable which, const F& call, LfibWalk walk,
              bool ( *decode )( const U64*, U32, Value& ) ) const {
      if ( !attached() ) {
         return true;
      }
      const LfibTableView& table = view( which );
      const U64 changes = table.changes();
      U64 met = 0;
      bool whole = true;
      std::array< U64, lfibMaxWords > words;
      U32 length = 0;
      for ( U32 slot = table.nextUsed( 0 ); slot < table.place().slotCount;
            slot = table.nextUsed( slot + 1 ) ) {
         Met found = walkSlot( table, slot, words.data(), length );
         if ( found == Met::element ) {
            Value value;
            if ( decode( words.data(), length, value ) ) {
               ++met;
               call( static_cast< const Value& >( value ) );
               continue;
            }
            report( which, slot, words[0], LfibCorruptionReason::value );
            found = Met::rotten;
         }
         if ( found == Met::rotten ) {
            whole = false;
            if ( walk == LfibWalk::stop ) {
               return false;
            }
         }
      }
      return whole && countHolds( table, changes, met );
   }

   const U64* region_ = nullptr;
   U64 epoch_ = 0;
   LfibLayout layout_;
   LfibRing ring_;
   std::array< LfibTableView, lfibTables > views_;
   std::function< void( const LfibCorruption& ) > hook_;
   std::string reason_;
   mutable LfibPatience patience_;
   mutable bool unread_ = false;
};

} // namespace Mpls
