// FEC identifiers and the interfaces that stand for FECs.

#pragma once

#include <cstdint>
#include <string>

#include "platform/base/Assert.h"
#include "platform/values/IpTypes.h"

namespace Fib {

using Vel::IntfId;
using Vel::U32;
using Vel::U64;

/// Kind of adjacency that a FEC id names.
enum class AdjType : uint8_t {
   none = 0,
   nexthopGroupAdj = 3,
   mplsV4Adj = 10,       ///< FEC of an IPv4 label via set
   mplsV6Adj = 11,       ///< FEC of an IPv6 label via set
   pwDecapAdj = 15,      ///< decap connector of a pseudowire
   mplsMcastViaAdj = 22, ///< FEC of a single via
};
constexpr U32 adjTypeMax() {
   return 24;
}
constexpr int adjTypePos() {
   return 56;
}

/// 64-bit FEC identifier: adjacency type in the top 8 bits, index in the low 56. 0 means none.
class FecId {
 public:
   constexpr FecId() = default;
   constexpr explicit FecId( U64 value ) : value_( value ) {}
   /// Asserts that the type is below `adjTypeMax()`.
   static FecId fecIdForAdjType( AdjType type, U64 index ) {
      const FecId made( static_cast< U64 >( type ) << adjTypePos() | ( index & indexMask ) );
      made.check();
      return made;
   }
   constexpr bool valid() const { return value_ != 0 && value_ >> adjTypePos() < adjTypeMax(); }
   constexpr U64 value() const { return value_; }
   constexpr U64 index() const { return value_ & indexMask; }
   /// Asserts that the type is below `adjTypeMax()`.
   AdjType adjType() const {
      check();
      return static_cast< AdjType >( value_ >> adjTypePos() );
   }
   /// The same without assertion: whether the id is one of that type.
   constexpr bool isA( AdjType type ) const {
      return value_ >> adjTypePos() == static_cast< U64 >( type );
   }
   /// Whether it is the FEC of a label via set, whose ids this library gives and whose content it
   /// requests.
   constexpr bool ofLabelViaSet() const {
      return isA( AdjType::mplsV4Adj ) || isA( AdjType::mplsV6Adj );
   }
   /// The interface that forwards into this FEC. The index must fit in 48 bits.
   static IntfId fecIdToHierarchicalIntfId( FecId fecId ) {
      return fecId.toIntf( IntfId::Kind::hierarchicalFec );
   }
   static IntfId fecIdToNexthopGroupIntfId( FecId fecId ) {
      return fecId.toIntf( IntfId::Kind::nexthopGroup );
   }
   constexpr U64 hash() const { return Vel::mixBits( value_ ); }
   friend constexpr auto operator<=>( const FecId&, const FecId& ) = default;

 private:
   static constexpr U64 indexMask = ( U64{ 1 } << 56 ) - 1;
   static constexpr int intfTypeShift = 48;

   void check() const {
      VEL_ASSERT_TEXT( ( value_ >> adjTypePos() ) < adjTypeMax(),
                       "(value_ >> Fib::adjTypePos()) < Fib::adjTypeMax()", "", "Fib::FecId",
                       Vel::textOf( value_ ) );
   }
   IntfId toIntf( IntfId::Kind kind ) const {
      check();
      VEL_ASSERT( index() < U64{ 1 } << intfTypeShift );
      return { kind, ( value_ >> adjTypePos() ) << intfTypeShift | index() };
   }

   U64 value_ = 0;
   friend struct FecIdIntfId;
};
inline void appendText( std::string& out, FecId fecId ) {
   Vel::appendText( out, fecId.value() );
}

/// Interfaces whose payload is a FEC id.
struct FecIdIntfId {
   static constexpr bool isNexthopGroupIdIntfId( IntfId intf ) {
      return intf.kind() == IntfId::Kind::nexthopGroup;
   }
   static constexpr bool isHierarchicalIntfId( IntfId intf ) {
      return intf.kind() == IntfId::Kind::hierarchicalFec;
   }
   /// The FEC that the interface stands for; none for any other kind.
   static constexpr FecId intfIdToFecId( IntfId intf ) {
      if ( !isNexthopGroupIdIntfId( intf ) && !isHierarchicalIntfId( intf ) ) {
         return FecId();
      }
      const U64 type = intf.payload() >> FecId::intfTypeShift;
      const U64 index = intf.payload() & ( ( U64{ 1 } << FecId::intfTypeShift ) - 1 );
      return FecId( type << adjTypePos() | index );
   }
};

} // namespace Fib
