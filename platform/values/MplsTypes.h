// Labels, label stacks and the key of a label route.

#pragma once

#include <algorithm>
#include <array>
#include <compare>
#include <cstdint>
#include <initializer_list>
#include <optional>
#include <span>
#include <string>
#include <string_view>

#include "platform/base/Assert.h"
#include "platform/values/IpTypes.h"

namespace Vel {

/// A 20-bit label value (RFC 3032 section 2.1), or the null label, one past the largest.
class MplsLabel {
 public:
   static constexpr U32 nullValue = 0x100000;
   static constexpr U32 maxValue = 0xFFFFF;
   static constexpr U32 explicitNullIpv4 = 0; ///< RFC 3032 section 2.1
   static constexpr U32 routerAlert = 1;      ///< RFC 3032 section 2.1
   static constexpr U32 explicitNullIpv6 = 2; ///< RFC 3032 section 2.1
   static constexpr U32 implicitNull = 3;     ///< RFC 3032 section 2.1: never in a packet
   static constexpr U32 firstUnreserved = 16; ///< RFC 3032 section 2.1: 0 to 15 are reserved

   constexpr MplsLabel() = default;
   constexpr explicit MplsLabel( U32 value ) : value_( value ) {}
   constexpr U32 value() const { return value_; }
   constexpr bool null() const { return value_ >= nullValue; }
   constexpr U64 hash() const { return mixBits( value_ ); }
   friend constexpr auto operator<=>( const MplsLabel&, const MplsLabel& ) = default;

 private:
   U32 value_ = nullValue;
};
inline void appendText( std::string& out, MplsLabel label ) {
   appendText( out, label.value() );
}

/// What a via does to the incoming label.
enum class MplsLabelAction : uint8_t {
   none = 0,
   pop = 1,  ///< takes it off
   swap = 2, ///< takes it off and puts the outgoing labels on
   push = 3, ///< leaves it and puts the outgoing labels on top
};
template<>
struct EnumNames< MplsLabelAction > {
   static constexpr std::array< std::pair< MplsLabelAction, std::string_view >, 4 > names{
      { { MplsLabelAction::none, "none" },
        { MplsLabelAction::pop, "pop" },
        { MplsLabelAction::swap, "swap" },
        { MplsLabelAction::push, "push" } } };
};

} // namespace Vel

namespace Mpls {

using Vel::MplsLabel;
using Vel::MplsLabelAction;
using Vel::U32;
using Vel::U64;

/// What a pop lays bare.
enum class PayloadType : uint8_t { undefined = 0, ipv4 = 1, ipv6 = 2, autoDetect = 3 };

/// How the TTL of the popped entry travels on (RFC 3443 sections 3.1 to 3.3).
enum class TtlMode : uint8_t { undefined = 0, uniform = 1, pipe = 2 };

/// Labels of one via, top first. Trivially copyable, since it also lives in shared memory.
class LabelStack {
 public:
   static constexpr size_t maxLabels = 16;

   constexpr LabelStack() = default;
   constexpr LabelStack( std::initializer_list< U32 > labels ) {
      for ( const U32 label : labels ) {
         push( label );
      }
   }
   /// Adds below what is there; false when the stack is full.
   constexpr bool push( U32 label ) {
      if ( size_ == maxLabels ) {
         return false;
      }
      labels_[size_++] = label;
      return true;
   }
   constexpr size_t stackSize() const { return size_; }
   /// The label at depth `i`, 0 being the top.
   constexpr MplsLabel label( size_t i ) const {
      return i < size_ ? MplsLabel( labels_[i] ) : MplsLabel();
   }
   friend constexpr auto operator<=>( const LabelStack&, const LabelStack& ) = default;
   constexpr U64 hash() const {
      U64 mixed = size_;
      for ( size_t i = 0; i < size_; ++i ) {
         mixed = Vel::mixBits( mixed + labels_[i] );
      }
      return mixed;
   }

 private:
   std::array< U32, maxLabels >
      labels_{}; // unused entries stay 0, so that equal stacks have equal arrays
   U32 size_ = 0;
};
VEL_EXPORT void appendText( std::string& out, const LabelStack& stack );

/// Key of one label route: the incoming label stack, top label first, up to three labels, in one
/// word.
///
/// The top label holds the most significant bits, so that the order of the words is the order of
/// labels. An absent label is the null label 0x100000, which sorts a single label behind the deeper
/// stacks that begin with it.
class RouteKey {
 public:
   static constexpr size_t maxLabels = 3;

   constexpr RouteKey() = default;
   constexpr explicit RouteKey( MplsLabel top ) : word_( single( top.value() ) ) {}
   constexpr explicit RouteKey( U32 top ) : word_( single( top ) ) {}
   constexpr RouteKey( MplsLabel top, MplsLabel second, MplsLabel third = MplsLabel() )
      : word_( U64{ top.value() } << 2 * bits | U64{ second.value() } << bits | third.value() ) {}
   static constexpr RouteKey fromWord( U64 word ) {
      RouteKey made;
      made.word_ = word;
      return made;
   }

   constexpr MplsLabel topLabel() const {
      return MplsLabel( static_cast< U32 >( word_ >> 2 * bits ) );
   }
   constexpr MplsLabel label( size_t depth ) const {
      return depth < maxLabels
                ? MplsLabel( static_cast< U32 >( word_ >> ( 2 - depth ) * bits ) & labelMask )
                : MplsLabel();
   }
   /// Exactly one label: what the label-indexed collections find without a hash.
   constexpr bool singleLabel() const {
      return ( word_ & restMask ) == restNull && word_ >> 2 * bits <= MplsLabel::maxValue;
   }
   constexpr bool null() const { return word_ == single( MplsLabel::nullValue ); }
   constexpr U64 word() const { return word_; }
   constexpr U64 hash() const { return Vel::mixBits( word_ ); }
   friend constexpr auto operator<=>( const RouteKey&, const RouteKey& ) = default;

 private:
   static constexpr int bits = 21;
   static constexpr U32 labelMask = ( U32{ 1 } << bits ) - 1;
   static constexpr U64 restMask = ( U64{ 1 } << 2 * bits ) - 1;
   static constexpr U64 restNull = U64{ MplsLabel::nullValue } << bits | MplsLabel::nullValue;
   static constexpr U64 single( U32 top ) { return U64{ top } << 2 * bits | restNull; }

   U64 word_ = single( MplsLabel::nullValue );
};
/// "16040", "16040/24001", or "none".
VEL_EXPORT void appendText( std::string& out, const RouteKey& key );
/// The inverse of the text form.
VEL_EXPORT std::optional< RouteKey > routeKeyParse( std::string_view text );

} // namespace Mpls

template<>
struct Vel::EnumNames< Mpls::PayloadType > {
   static constexpr std::array< std::pair< Mpls::PayloadType, std::string_view >, 4 > names{
      { { Mpls::PayloadType::undefined, "undefined" },
        { Mpls::PayloadType::ipv4, "ipv4" },
        { Mpls::PayloadType::ipv6, "ipv6" },
        { Mpls::PayloadType::autoDetect, "autoDetect" } } };
};
template<>
struct Vel::EnumNames< Mpls::TtlMode > {
   static constexpr std::array< std::pair< Mpls::TtlMode, std::string_view >, 3 > names{
      { { Mpls::TtlMode::undefined, "undefined" },
        { Mpls::TtlMode::uniform, "uniform" },
        { Mpls::TtlMode::pipe, "pipe" } } };
};
