// Input: values taken off the front of the bytes that a fuzzer made.

#pragma once

#include "fuzz/Fuzz.h"
#include "platform/values/LfibTypes.h"

namespace Vel::Fuzz {

/// Behind the end everything is 0, so that an input that is cut short still means something.
///
/// Keys and numbers come from a small space, so that what the input says at one place meets what it
/// says at another; now and then they are any word at all.
class Input {
 public:
   explicit Input( ByteView bytes ) : left_( bytes ) {}
   bool empty() const { return left_.empty(); }
   ByteView rest() const { return left_; }

   uint8_t byte() {
      if ( left_.empty() ) {
         return 0;
      }
      const uint8_t first = left_.front();
      left_ = left_.subspan( 1 );
      return first;
   }
   U32 below( U32 limit ) { return byte() % limit; }
   /// Any 64 bits.
   U64 bits() {
      U64 made = 0;
      for ( int i = 0; i < 8; ++i ) {
         made = made << 8 | byte();
      }
      return made;
   }

   Mpls::RouteKey routeKey() {
      const uint8_t form = byte();
      const MplsLabel top( firstLabel + form % labels );
      return form < 0xC0   ? Mpls::RouteKey( top )
             : form < 0xF0 ? Mpls::RouteKey( top, MplsLabel( firstLabel + byte() % labels ) )
                           : Mpls::RouteKey::fromWord( bits() );
   }
   Mpls::LfibViaSetKey viaSetKey() {
      const uint8_t form = byte();
      return form < 0xF0 ? Mpls::LfibViaSetKey( sourceOf( form ), typeOf( form ), form % viaSets )
                         : Mpls::LfibViaSetKey::fromWord( bits() );
   }
   Mpls::LfibViaKey viaKey() {
      const uint8_t form = byte();
      return form < 0xF0 ? Mpls::LfibViaKey( sourceOf( form ), typeOf( form ), form % viaSets )
                         : Mpls::LfibViaKey::fromWord( bits() );
   }
   IntfId intf() {
      const uint8_t form = byte();
      return form < 0x80   ? IntfId::ordinary( form % ( links + 1 ) )
             : form < 0xF0 ? IntfId( static_cast< IntfId::Kind >( form % 8 ), foreignIndex( form ) )
                           : IntfId::fromValue( bits() );
   }
   Fib::FecId fecId() {
      const uint8_t form = byte();
      return form < 0xF0 ? Fib::FecId::fecIdForAdjType( Fib::AdjType::nexthopGroupAdj, form % 4 )
                         : Fib::FecId( bits() );
   }
   IpGenAddr address() {
      const uint8_t form = byte();
      return form < 0x80   ? linkAddress( form % links )
             : form < 0xC0 ? IpGenAddr::fromV6( { 0xFE, 0x80, form } )
             : form < 0xF0 ? IpGenAddr()
                           : IpGenAddr::fromV4( static_cast< U32 >( bits() ) );
   }
   U32 outLabel() {
      const uint8_t form = byte();
      return form < 0xF0 ? form * 16U : static_cast< U32 >( bits() );
   }
   /// A word of any of these kinds.
   U64 word() {
      switch ( below( 8 ) ) {
      case 0:
         return byte();
      case 1:
         return routeKey().word();
      case 2:
         return viaSetKey().word();
      case 3:
         return viaKey().word();
      case 4:
         return intf().value();
      case 5:
         return fecId().value();
      case 6:
         return ~U64{ byte() };
      default:
         return bits();
      }
   }

   static constexpr U32 firstLabel = 16;
   static constexpr U32 labels = 6;
   static constexpr U32 viaSets = 6;
   static constexpr U32 links = 3;
   static IpGenAddr linkAddress( U32 link ) { return IpGenAddr::fromV4( 0x0A000001 + link ); }

 private:
   static constexpr U64 foreignIndex( uint8_t form ) {
      return static_cast< U64 >( Fib::AdjType::nexthopGroupAdj ) << 48 | form % 4;
   }
   static constexpr Mpls::LfibSource sourceOf( uint8_t form ) {
      return form < 0xE0 ? Mpls::LfibSource::ldp : Mpls::LfibSource::bgpLu;
   }
   static constexpr Mpls::LfibViaType typeOf( uint8_t form ) {
      return form < 0xA0   ? Mpls::viaTypeMplsIp
             : form < 0xD0 ? Mpls::viaTypeExternalFec
                           : static_cast< Mpls::LfibViaType >( form % 11 );
   }

   ByteView left_;
};

} // namespace Vel::Fuzz
