#include "fuzz/HostileRegion.h"

namespace Vel::Fuzz {

using namespace Mpls;

HostileRegion::HostileRegion( std::span< std::byte > memory )
   : memory_( memory ), layout_( LfibLayout::of( capacities ) ) {
   writer_.emplace( memory_, capacities );
}

void HostileRegion::step( Input& input ) {
   switch ( input.below( 16 ) ) {
   case 0:
   case 1:
      writer_->routeIs( { input.routeKey(), input.viaSetKey(), input.byte() } );
      break;
   case 2:
   case 3: {
      LfibViaSet viaSet( input.viaSetKey() );
      const uint8_t form = input.byte();
      if ( form & 0x10 ) {
         viaSet.backupViaSetKeyIs( input.viaSetKey() );
      }
      viaSet.usableAsPrimaryViasIs( ( form & 0x20 ) == 0 );
      for ( int i = 0; i < form % 4; ++i ) {
         viaSet.viaKeyAdd( input.viaKey() );
      }
      writer_->viaSetIs( viaSet );
      break;
   }
   case 4:
   case 5: {
      LfibMplsVia via{ input.viaKey(), input.address(), input.intf(), {} };
      via.labelAction = static_cast< MplsLabelAction >( input.below( 5 ) );
      for ( U32 labels = input.below( 4 ); labels != 0; --labels ) {
         via.labelStack.push( input.outLabel() );
      }
      const uint8_t form = input.byte();
      via.payloadType = static_cast< PayloadType >( form & 7 );
      via.ttlMode = static_cast< TtlMode >( form >> 3 & 3 );
      writer_->mplsViaIs( via );
      break;
   }
   case 6:
      writer_->extFecViaIs( { input.viaKey(), input.fecId() } );
      break;
   case 7:
      writeOtherVia( input );
      break;
   case 8:
      removeOne( input );
      break;
   case 9:
      writer_->readyIs( input.below( 2 ) == 0 );
      break;
   case 10:
      forgeElement( input );
      break;
   case 11:
      forgeChange( input );
      break;
   case 12:
      forgeLayout( input );
      break;
   case 13:
      damageWord( input );
      break;
   case 14: {
      U64* const field = words() + input.byte() % LfibHeader::words;
      lfibStore( field, input.word() );
      break;
   }
   case 15:
      if ( input.below( 2 ) == 0 ) {
         writer_.emplace( memory_ ); // takes over what is there, if it can
      } else {
         writer_.emplace( memory_, capacities );
      }
      break;
   }
}

void HostileRegion::removeOne( Input& input ) {
   switch ( input.below( 4 ) ) {
   case 0:
      writer_->routeDel( input.routeKey() );
      break;
   case 1:
      writer_->viaSetDel( input.viaSetKey() );
      break;
   case 2:
      writer_->viaDel( input.viaKey() );
      break;
   case 3: {
      const LfibDot1qTagToVlanKey map( input.below( 3 ) );
      writer_->dot1qTagToVlanDel( map, input.byte() );
      break;
   }
   }
}

void HostileRegion::writeOtherVia( Input& input ) {
   const LfibViaKey key = input.viaKey();
   switch ( key.viaType() ) {
   case viaTypeIpLookup:
      writer_->ipLookupViaIs(
         { key, LfibVrfName( "default" ), static_cast< PayloadType >( input.below( 5 ) ) } );
      break;
   case viaTypeMplsPseudowire:
      writer_->pwViaIs( { key, input.intf() } );
      break;
   case viaTypeVlan:
      writer_->vlanViaIs( { key, input.byte() } );
      break;
   case viaTypeEvpnVlanAware:
      writer_->evpnVlanAwareViaIs( { key, LfibDot1qTagToVlanKey( input.below( 3 ) ) } );
      break;
   default: {
      const LfibDot1qTagToVlanKey map( input.below( 3 ) );
      const Bridging::VlanId tag = input.byte();
      writer_->dot1qTagToVlanIs( map, tag, Bridging::VlanIdOrNone( input.byte() ) );
      break;
   }
   }
}

void HostileRegion::forgeElement( Input& input ) {
   const size_t table = input.below( lfibTables );
   const LfibTablePlace& place = layout_.table[table];
   const LfibTableView view( static_cast< LfibTable >( table ), words(), layout_ );
   const U32 length = input.below( view.shape().slotWords );
   std::array< U64, lfibMaxWords > element{};
   for ( U32 i = 0; i < length; ++i ) {
      element[i] = input.word();
   }
   const uint8_t where = input.byte();
   const U32 home = where < 0x80 ? view.homeOf( view.keyIn( element.data() ) ) : 0;
   const U32 slot = ( home + where % 16 ) & ( place.slotCount - 1 );
   U64* const at = const_cast< U64* >( view.slotAt( slot ) );
   std::copy_n( element.begin(), length, at + 1 );
   const U32 state = input.below( 8 ); // a live one, as a rule
   const U64 low = LfibSlotHead::next(
      at[0], state < 4 ? static_cast< LfibSlotHead::State >( state ) : LfibSlotHead::live, length );
   lfibStore( at, LfibSlotHead::sealed( low, view.table(), slot, element.data() ) );
   words()[place.used] |= U64{ 1 } << slot / 64;
}

void HostileRegion::forgeChange( Input& input ) {
   LfibChange change;
   change.kind = static_cast< LfibChange::Kind >( input.below( 7 ) );
   const uint8_t form = input.byte();
   change.removed = ( form & 1 ) != 0;
   change.tag = form & 2 ? lfibDot1qMap : form;
   change.keyWord = input.word();
   const LfibRing ring( words(), layout_ );
   ring.add( words(), ring.head(), change );
}

/// The check holds, and readers attach again.
void HostileRegion::forgeLayout( Input& input ) {
   LfibLayout forged = layout_;
   LfibTablePlace& place = forged.table[input.below( lfibTables )];
   switch ( input.below( 8 ) ) {
   case 0:
      place.used = input.word();
      break;
   case 1:
      place.slots = place.slots + input.byte() - 128;
      break;
   case 2:
      place.slotCount = 1U << input.below( 32 );
      break;
   case 3:
      place.capacity = static_cast< U32 >( input.word() );
      break;
   case 4:
      forged.ring = forged.ring + input.byte() - 128;
      break;
   case 5:
      forged.ringEntries = U64{ 1 } << input.below( 64 );
      break;
   case 6:
      forged.words = input.word();
      break;
   case 7:
      forged.journal = forged.journal + input.byte() - 128;
      break;
   }
   forged.write( words() );
   lfibStore( words() + LfibHeader::epoch, lfibLoad( words() + LfibHeader::epoch ) + 1 );
}

void HostileRegion::damageWord( Input& input ) {
   const size_t page = input.byte();
   const size_t at = ( page << 8 | input.byte() ) % ( memory_.size() / sizeof( U64 ) );
   const uint8_t form = input.byte();
   lfibStore( words() + at, form < 0x80 ? words()[at] ^ U64{ 1 } << form % 64 : input.word() );
}

} // namespace Vel::Fuzz
