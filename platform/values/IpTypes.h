// Addresses and interfaces: the value types that every layer shares.

#pragma once

#include <array>
#include <compare>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "platform/base/Export.h"
#include "platform/base/Text.h"

namespace Vel {

using U16 = uint16_t;
using U32 = uint32_t;
using U64 = uint64_t;

/// Number of a VRF in the routing layer.
using VrfId = U32;

enum class AddressFamily : uint8_t { unspecified = 0, ipv4 = 4, ipv6 = 6 };
constexpr AddressFamily ipv4() {
   return AddressFamily::ipv4;
}
constexpr AddressFamily ipv6() {
   return AddressFamily::ipv6;
}

template<>
struct EnumNames< AddressFamily > {
   static constexpr std::array< std::pair< AddressFamily, std::string_view >, 3 > names{
      { { AddressFamily::unspecified, "unspecified" },
        { AddressFamily::ipv4, "ipv4" },
        { AddressFamily::ipv6, "ipv6" } } };
};

/// An IPv4 or IPv6 address, or none (the default). Trivially copyable, since it also lives in
/// shared memory.
class IpGenAddr {
 public:
   constexpr IpGenAddr() = default;

   /// From the four bytes of an IPv4 address, in host order.
   static constexpr IpGenAddr fromV4( U32 address ) {
      IpGenAddr made;
      made.low_ = address;
      made.af_ = AddressFamily::ipv4;
      return made;
   }
   /// From the 16 bytes of an IPv6 address, in network order.
   VEL_EXPORT static IpGenAddr fromV6( const std::array< uint8_t, 16 >& bytes );
   /// From text: dotted quad (RFC 791) or the forms of RFC 4291 section 2.2; nothing when it is
   /// neither.
   VEL_EXPORT static std::optional< IpGenAddr > parse( std::string_view text );

   constexpr AddressFamily af() const { return af_; }
   constexpr bool empty() const { return af_ == AddressFamily::unspecified; }
   /// The bytes 0.0.0.0 or ::.
   constexpr bool isAny() const { return high_ == 0 && low_ == 0; }
   constexpr U32 v4() const { return static_cast< U32 >( low_ ); }
   VEL_EXPORT std::array< uint8_t, 16 > v6() const;

   constexpr U64 hash() const {
      return mixBits( high_ + mixBits( low_ + static_cast< U64 >( af_ ) ) );
   }
   /// The shortest text form (RFC 5952 for IPv6); empty for no address.
   VEL_EXPORT std::string text() const;

   friend constexpr bool operator==( const IpGenAddr&, const IpGenAddr& ) = default;
   friend constexpr auto operator<=>( const IpGenAddr& a, const IpGenAddr& b ) {
      if ( const auto order = a.af_ <=> b.af_; order != 0 ) {
         return order;
      }
      if ( const auto order = a.high_ <=> b.high_; order != 0 ) {
         return order;
      }
      return a.low_ <=> b.low_;
   }

 private:
   U64 high_ = 0;
   U64 low_ = 0;
   AddressFamily af_ = AddressFamily::unspecified;
};
inline void appendText( std::string& out, const IpGenAddr& address ) {
   out += address.text();
}

/// A network prefix; only what next-hop resolution asks of one.
struct IpGenPrefix {
   IpGenAddr address;
   uint8_t length = 0; ///< bits

   /// 0.0.0.0/0 or ::/0.
   constexpr bool isDefaultRoutePrefix() const { return length == 0 && !address.empty(); }
   friend constexpr bool operator==( const IpGenPrefix&, const IpGenPrefix& ) = default;
};
VEL_EXPORT void appendText( std::string& out, const IpGenPrefix& prefix );

/// An Ethernet address, in the low 48 bits.
class MacAddr {
 public:
   constexpr MacAddr() = default;
   constexpr explicit MacAddr( U64 value ) : value_( value & 0xFFFF'FFFF'FFFFULL ) {}
   constexpr explicit MacAddr( const std::array< uint8_t, 6 >& bytes ) {
      for ( const uint8_t byte : bytes ) {
         value_ = value_ << 8 | byte;
      }
   }
   /// "02:00:0a:00:01:02"; nothing when the text is not such an address.
   VEL_EXPORT static std::optional< MacAddr > parse( std::string_view text );
   constexpr U64 value() const { return value_; }
   VEL_EXPORT std::array< uint8_t, 6 > bytes() const;
   VEL_EXPORT std::string text() const;
   constexpr U64 hash() const { return mixBits( value_ ); }
   friend constexpr auto operator<=>( const MacAddr&, const MacAddr& ) = default;

 private:
   U64 value_ = 0;
};
inline void appendText( std::string& out, const MacAddr& mac ) {
   out += mac.text();
}

/// An L3 interface. Beside ordinary interfaces there are the ones that stand for something to
/// forward into: a next-hop group or another FEC (the FEC's adjacency type and index are part of
/// the value), a dynamic tunnel, a pseudowire. The kind is in the top 8 bits; the value 0 is the
/// empty interface.
class IntfId {
 public:
   enum class Kind : uint8_t {
      none = 0,
      ordinary = 1,
      nexthopGroup = 2,    ///< payload: a FEC id, see FecIdIntfId
      hierarchicalFec = 3, ///< payload: a FEC id
      dynamicTunnel = 4,
      portPseudowire = 5,
      vlanPseudowire = 6,
   };

   constexpr IntfId() = default;
   constexpr IntfId( Kind kind, U64 payload )
      : value_( static_cast< U64 >( kind ) << kindShift | ( payload & payloadMask ) ) {}
   static constexpr IntfId ordinary( U32 number ) { return { Kind::ordinary, number }; }
   static constexpr IntfId fromValue( U64 value ) {
      IntfId made;
      made.value_ = value;
      return made;
   }

   constexpr bool empty() const { return value_ == 0; }
   constexpr Kind kind() const { return static_cast< Kind >( value_ >> kindShift ); }
   constexpr U64 payload() const { return value_ & payloadMask; }
   constexpr U64 value() const { return value_; }
   constexpr U64 hash() const { return mixBits( value_ ); }
   friend constexpr auto operator<=>( const IntfId&, const IntfId& ) = default;

 private:
   static constexpr int kindShift = 56;
   static constexpr U64 payloadMask = ( U64{ 1 } << kindShift ) - 1;
   U64 value_ = 0;
};
/// "intf7", "nhg...", or "none".
VEL_EXPORT void appendText( std::string& out, const IntfId& intf );
/// The inverse of the text form.
VEL_EXPORT std::optional< IntfId > intfIdParse( std::string_view text );

struct DynamicTunnelIntfId {
   static constexpr bool isDynamicTunnelIntfId( IntfId intf ) {
      return intf.kind() == IntfId::Kind::dynamicTunnel;
   }
};

struct PseudowireIntfId {
   static constexpr bool isPortPseudowireIntfId( IntfId intf ) {
      return intf.kind() == IntfId::Kind::portPseudowire;
   }
   static constexpr bool isVlanPseudowireIntfId( IntfId intf ) {
      return intf.kind() == IntfId::Kind::vlanPseudowire;
   }
};

} // namespace Vel

namespace Bridging {

/// IEEE 802.1Q VLAN identifier, 1 to 4094; 0 stands for untagged.
using VlanId = uint16_t;

/// A VLAN or none.
class VlanIdOrNone {
 public:
   constexpr VlanIdOrNone() = default;
   constexpr explicit VlanIdOrNone( VlanId vlan ) : vlan_( vlan ), present_( true ) {}
   constexpr bool none() const { return !present_; }
   constexpr VlanId vlanId() const { return vlan_; }
   friend constexpr auto operator<=>( const VlanIdOrNone&, const VlanIdOrNone& ) = default;

 private:
   VlanId vlan_ = 0;
   bool present_ = false;
};
inline void appendText( std::string& out, VlanIdOrNone vlan ) {
   if ( vlan.none() ) {
      out += "none";
   } else {
      Vel::appendText( out, vlan.vlanId() );
   }
}

} // namespace Bridging

namespace L3 {

/// Name of a VRF. All label forwarding lives in `defaultVrf()`.
///
/// One word: equal names share one text, which stays for the life of the process, so that names
/// compare and hash as pointers on the path of every route. Making one from text takes a lock and a
/// look-up.
class VrfName {
 public:
   VrfName() = default;
   VEL_EXPORT explicit VrfName( std::string_view name );
   VEL_EXPORT static const VrfName& defaultVrf();
   VEL_EXPORT const std::string& text() const;
   bool empty() const { return text_ == nullptr; }
   Vel::U64 hash() const { return Vel::mixBits( reinterpret_cast< uintptr_t >( text_ ) ); }
   friend bool operator==( const VrfName&, const VrfName& ) = default;
   friend auto operator<=>( const VrfName& a, const VrfName& b ) { return a.text() <=> b.text(); }

 private:
   const std::string* text_ = nullptr; // null for the empty name
};
inline void appendText( std::string& out, const VrfName& vrf ) {
   out += vrf.text();
}

} // namespace L3
