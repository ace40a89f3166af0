#include "platform/lfib/LfibCodec.h"

#include <algorithm>
#include <bit>
#include <cstring>

namespace Mpls::LfibCodec {

namespace {

struct AddressWords {
   U64 first = 0;
   U64 second = 0;
};
using AddressBytes = std::array< uint8_t, sizeof( AddressWords ) >;
AddressWords wordsOf( const IpGenAddr& address ) {
   return address.af() == Vel::AddressFamily::ipv6 ? std::bit_cast< AddressWords >( address.v6() )
                                                   : AddressWords{ address.v4(), 0 };
}
IpGenAddr addressOf( const AddressWords& words, U64 family ) {
   switch ( family ) {
   case 4:
      return IpGenAddr::fromV4( static_cast< U32 >( words.first ) );
   case 6:
      return IpGenAddr::fromV6( std::bit_cast< AddressBytes >( words ) );
   default:
      return {};
   }
}

bool viaKeyFits( U64 word ) {
   return word >> 56 == 0x80 && ( word >> 32 & 0xFF ) == 0;
}
bool routeKeyFits( U64 word, bool single ) {
   constexpr U64 field = ( U64{ 1 } << 21 ) - 1;
   const U64 top = word >> 42;
   const U64 second = word >> 21 & field;
   const U64 third = word & field;
   const bool oneLabel = second == MplsLabel::nullValue;
   return single == oneLabel && top <= MplsLabel::maxValue && second <= MplsLabel::nullValue &&
          third <= MplsLabel::nullValue && ( !oneLabel || third == MplsLabel::nullValue );
}

bool tagFits( U64 tag ) {
   return tag <= maxTag || tag == lfibDot1qMap;
}

// Labels that a via puts on a packet.
bool labelFits( U64 label, MplsLabelAction action ) {
   const bool putOn = action == MplsLabelAction::swap || action == MplsLabelAction::push;
   return label <= MplsLabel::maxValue && !( putOn && label == MplsLabel::implicitNull );
}

} // namespace

bool keyFits( LfibTable table, const U64* words ) {
   switch ( table ) {
   case LfibTable::route:
   case LfibTable::deepRoute:
      return routeKeyFits( words[0], table == LfibTable::route );
   case LfibTable::viaSet:
      return viaSetKeyFits( words[0] );
   case LfibTable::dot1q:
      return words[0] != 0 && tagFits( words[1] );
   default:
      return viaKeyFits( words[0] ) &&
             LfibViaKey::fromWord( words[0] ).viaType() == viaTypeOf( table );
   }
}

bool changeFits( const LfibChange& change ) {
   const std::array< U64, 2 > words{ change.keyWord, change.tag };
   switch ( change.kind ) {
   case LfibChange::Kind::route:
      return keyFits( tableOf( RouteKey::fromWord( words[0] ) ), words.data() );
   case LfibChange::Kind::viaSet:
      return keyFits( LfibTable::viaSet, words.data() );
   case LfibChange::Kind::via: {
      const auto table = tableOf( LfibViaKey::fromWord( words[0] ).viaType() );
      return table && keyFits( *table, words.data() );
   }
   case LfibChange::Kind::dot1q:
      return keyFits( LfibTable::dot1q, words.data() );
   case LfibChange::Kind::ready:
      return true;
   }
   return false;
}

LfibViaType viaTypeOf( LfibTable table ) {
   switch ( table ) {
   case LfibTable::mplsVia:
      return viaTypeMplsIp;
   case LfibTable::extFecVia:
      return viaTypeExternalFec;
   case LfibTable::pwVia:
      return viaTypeMplsPseudowire;
   case LfibTable::ipLookupVia:
      return viaTypeIpLookup;
   case LfibTable::vlanVia:
      return viaTypeVlan;
   case LfibTable::evpnVlanAwareVia:
      return viaTypeEvpnVlanAware;
   case LfibTable::evpnVlanFloodVia:
      return viaTypeEvpnVlanFlood;
   case LfibTable::evpnVlanAwareFloodVia:
      return viaTypeEvpnVlanAwareFlood;
   default:
      return viaTypeUnknown;
   }
}

std::optional< LfibTable > tableOf( LfibViaType type ) {
   const auto* const found = std::ranges::find( viaTables, type, viaTypeOf );
   return found == viaTables.end() ? std::nullopt : std::optional( *found );
}

U32 encode( const LfibRoute& route, U64* words ) {
   words[0] = route.routeKey.word();
   words[1] = route.viaSetKey.word();
   words[2] = route.metric;
   return 3;
}
bool decode( const U64* words, U32 length, LfibRoute& out ) {
   out = { RouteKey::fromWord( words[0] ), LfibViaSetKey::fromWord( words[1] ),
           static_cast< U32 >( words[2] ) };
   return length == 3 && viaSetKeyFits( words[1] ) && words[2] <= 0xFFFF'FFFF;
}

U32 encode( const LfibViaSet& viaSet, U64* words ) {
   words[0] = viaSet.key().word();
   words[1] = viaSet.backupViaSetKey().word();
   words[2] = viaSet.usableAsPrimaryVias();
   const auto count = static_cast< U32 >( viaSet.viaKeys() );
   for ( U32 i = 0; i < count; ++i ) {
      words[3 + i] = viaSet.viaKey( i ).word();
   }
   return 3 + count;
}
bool decode( const U64* words, U32 length, LfibViaSet& out ) {
   if ( length < 3 || length - 3 > LfibViaIndexRange::size || words[2] > 1 ||
        ( words[1] != 0 && !viaSetKeyFits( words[1] ) ) ||
        !std::all_of( words + 3, words + length, viaKeyFits ) ) {
      return false;
   }
   out = LfibViaSet( LfibViaSetKey::fromWord( words[0] ) );
   out.backupViaSetKeyIs( LfibViaSetKey::fromWord( words[1] ) );
   out.usableAsPrimaryViasIs( words[2] == 1 );
   for ( U32 i = 3; i < length; ++i ) {
      out.viaKeyAdd( LfibViaKey::fromWord( words[i] ) );
   }
   return true;
}

U32 encode( const LfibMplsVia& via, U64* words ) {
   const AddressWords nextHop = wordsOf( via.nextHop );
   const auto labels = static_cast< U32 >( via.labelStack.stackSize() );
   words[0] = via.key.word();
   words[1] = via.intf.value();
   words[2] = nextHop.first;
   words[3] = nextHop.second;
   words[4] = static_cast< U64 >( via.nextHop.af() ) | static_cast< U64 >( via.labelAction ) << 8 |
              static_cast< U64 >( via.payloadType ) << 16 |
              static_cast< U64 >( via.ttlMode ) << 24 | U64{ labels } << 32;
   for ( U32 i = 0; i < labels; i += 2 ) {
      const U64 second = i + 1 < labels ? via.labelStack.label( i + 1 ).value() : 0;
      words[5 + i / 2] = via.labelStack.label( i ).value() | second << 32;
   }
   return 5 + ( labels + 1 ) / 2;
}
bool decode( const U64* words, U32 length, LfibMplsVia& out ) {
   if ( length < 5 ) {
      return false;
   }
   const auto field = [&]( int shift ) { return words[4] >> shift & 0xFF; };
   const U64 labels = words[4] >> 32;
   const U64 family = field( 0 );
   if ( labels > LabelStack::maxLabels || length != 5 + ( labels + 1 ) / 2 ||
        ( family != 0 && family != 4 && family != 6 ) ||
        ( family != 6 && ( words[3] != 0 || words[2] > ( family == 4 ? 0xFFFF'FFFF : 0 ) ) ) ||
        field( 8 ) > static_cast< U64 >( MplsLabelAction::push ) ||
        field( 16 ) > static_cast< U64 >( PayloadType::autoDetect ) ||
        field( 24 ) > static_cast< U64 >( TtlMode::pipe ) ) {
      return false;
   }
   out.key = LfibViaKey::fromWord( words[0] );
   out.intf = IntfId::fromValue( words[1] );
   out.nextHop = addressOf( { words[2], words[3] }, family );
   out.labelAction = static_cast< MplsLabelAction >( field( 8 ) );
   out.payloadType = static_cast< PayloadType >( field( 16 ) );
   out.ttlMode = static_cast< TtlMode >( field( 24 ) );
   out.labelStack = LabelStack();
   for ( U32 i = 0; i < labels; ++i ) {
      const auto label = static_cast< U32 >( words[5 + i / 2] >> 32 * ( i % 2 ) );
      if ( !labelFits( label, out.labelAction ) ) {
         return false;
      }
      out.labelStack.push( label );
   }
   return true;
}

U32 encode( const LfibExtFecVia& via, U64* words ) {
   words[0] = via.key.word();
   words[1] = via.fecId.value();
   return 2;
}
bool decode( const U64* words, U32 length, LfibExtFecVia& out ) {
   out = { LfibViaKey::fromWord( words[0] ), Fib::FecId( words[1] ) };
   return length == 2;
}

U32 encode( const LfibPwVia& via, U64* words ) {
   words[0] = via.key.word();
   words[1] = via.pwIntfId.value();
   return 2;
}
bool decode( const U64* words, U32 length, LfibPwVia& out ) {
   out = { LfibViaKey::fromWord( words[0] ), IntfId::fromValue( words[1] ) };
   return length == 2;
}

constexpr U32 vrfNameWords = ( LfibVrfName::maxLength + 1 ) / sizeof( U64 );
U32 encode( const LfibIpLookupVia& via, U64* words ) {
   words[0] = via.key.word();
   words[1] = static_cast< U64 >( via.payloadType );
   static_assert( sizeof( LfibVrfName ) == vrfNameWords * sizeof( U64 ) );
   std::memcpy( words + 2, &via.vrfName, sizeof via.vrfName );
   return 2 + vrfNameWords;
}
bool decode( const U64* words, U32 length, LfibIpLookupVia& out ) {
   if ( length != 2 + vrfNameWords || words[1] > static_cast< U64 >( PayloadType::autoDetect ) ) {
      return false;
   }
   out.key = LfibViaKey::fromWord( words[0] );
   out.payloadType = static_cast< PayloadType >( words[1] );
   std::memcpy( static_cast< void* >( &out.vrfName ), words + 2, sizeof out.vrfName );
   return true;
}

U32 encode( const LfibVlanVia& via, U64* words ) {
   words[0] = via.key.word();
   words[1] = via.vlanId;
   return 2;
}
bool decode( const U64* words, U32 length, LfibVlanVia& out ) {
   out = { LfibViaKey::fromWord( words[0] ), static_cast< Bridging::VlanId >( words[1] ) };
   return length == 2 && words[1] <= 0xFFFF;
}

U32 encode( const LfibEvpnVlanAwareVia& via, U64* words ) {
   words[0] = via.key.word();
   words[1] = via.dot1qTagToVlanKey.value();
   return 2;
}
bool decode( const U64* words, U32 length, LfibEvpnVlanAwareVia& out ) {
   out = { LfibViaKey::fromWord( words[0] ), LfibDot1qTagToVlanKey( words[1] ) };
   return length == 2;
}

} // namespace Mpls::LfibCodec
