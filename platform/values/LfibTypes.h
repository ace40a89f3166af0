// Values of the label forwarding information base (LFIB): routes, via sets and vias.
//
// They are what a publisher writes into shared memory and an agent reads, so all are trivially
// copyable and hold no pointers. Keys are words: a via set key and a via key fit one 64-bit word
// each, and hash and compare as integers.

#pragma once

#include <algorithm>
#include <array>
#include <compare>
#include <cstdint>
#include <cstring>
#include <stdexcept>
#include <string>
#include <string_view>

#include "platform/values/FecTypes.h"
#include "platform/values/IpTypes.h"
#include "platform/values/MplsTypes.h"

namespace Mpls {

using Vel::IntfId;
using Vel::IpGenAddr;

/// What a via leads to.
enum class LfibViaType : uint8_t {
   viaTypeUnknown = 0,
   viaTypeMplsIp = 1,
   viaTypeMplsPseudowire = 2,
   viaTypeIpLookup = 3,
   viaTypeVlan = 4,
   viaTypeEvpnVlanAware = 5,
   viaTypeEvpnEthernetSegment = 6,
   viaTypeEvpnVlanFlood = 7,
   viaTypeEvpnVlanAwareFlood = 8,
   viaTypeExternalFec = 10,
};
using enum LfibViaType;

/// Whether packets go on by the via, labelled or not; by the other types they end here.
constexpr bool isTransit( LfibViaType type ) {
   return type == viaTypeMplsIp || type == viaTypeExternalFec;
}

/// How the vias of a set are used together.
enum class LfibViaSetType : uint8_t { unicast = 0, multicast = 1 };

/// What became of a label that ends here, as whoever programs the hardware says. Only these are
/// known; a higher code says that the label is not for this hardware at all.
enum class LfibHwProgrammingReturnCode : uint8_t {
   success = 0,
   tableFull = 1,    ///< tried again later, like the next two
   notSupported = 2, ///< by this platform as it is; also of an agent without hardware
   notReady = 3,     ///< what it leads to is not there
};

/// The routing protocol that made a via set or via.
enum class LfibSource : uint8_t {
   unknown = 0,
   staticConfig = 1,
   ldp = 2,
   rsvp = 3,
   isisSr = 4,
   ospfSr = 5,
   bgpLu = 6, ///< BGP labelled unicast (RFC 8277)
   other = 7,
};

/// Position of a via in its set. A number outside 0 to 127 is refused with a range error.
class LfibViaIndexRange {
 public:
   static constexpr U32 min = 0;
   static constexpr U32 max = 127;
   static constexpr size_t size = 128;

   constexpr LfibViaIndexRange() = default;
   LfibViaIndexRange( U32 value )
      : value_( static_cast< uint8_t >( value ) ) { // NOLINT: a checked number
      if ( value > max ) {
         throw std::range_error( "LfibViaIndexRange::value < LfibViaIndexRange::min or > "
                                 "LfibViaIndexRange::max not allowed" );
      }
   }
   constexpr U32 value() const { return value_; }
   constexpr U64 hash() const { return Vel::mixBits( value_ ); }
   friend constexpr auto operator<=>( const LfibViaIndexRange&,
                                      const LfibViaIndexRange& ) = default;

 private:
   uint8_t value_ = 0;
};
inline void appendText( std::string& out, LfibViaIndexRange index ) {
   Vel::appendText( out, index.value() );
}

/// Key of a via set: source, via type, via set type and index in one word. The default is the empty
/// key.
class LfibViaSetKey {
 public:
   constexpr LfibViaSetKey() = default;
   constexpr LfibViaSetKey( LfibSource source, LfibViaType viaType, U32 index,
                            LfibViaSetType setType = LfibViaSetType::unicast )
      : word_( U64{ 1 } << 63 | static_cast< U64 >( source ) << 48 |
               static_cast< U64 >( viaType ) << 40 | static_cast< U64 >( setType ) << 32 | index ) {
   }
   static constexpr LfibViaSetKey fromWord( U64 word ) {
      LfibViaSetKey made;
      made.word_ = word;
      return made;
   }
   constexpr LfibSource source() const { return static_cast< LfibSource >( word_ >> 48 & 0xFF ); }
   constexpr LfibViaType viaType() const {
      return static_cast< LfibViaType >( word_ >> 40 & 0xFF );
   }
   constexpr LfibViaSetType viaSetType() const {
      return static_cast< LfibViaSetType >( word_ >> 32 & 0xFF );
   }
   constexpr U32 index() const { return static_cast< U32 >( word_ ); }
   constexpr bool multicast() const { return viaSetType() == LfibViaSetType::multicast; }
   constexpr bool empty() const { return word_ == 0; }
   constexpr U64 word() const { return word_; }
   constexpr U64 hash() const { return Vel::mixBits( word_ ); }
   friend constexpr auto operator<=>( const LfibViaSetKey&, const LfibViaSetKey& ) = default;

 private:
   U64 word_ = 0; // the top bit is set in every key that is not empty
};
VEL_EXPORT void appendText( std::string& out, const LfibViaSetKey& key );

/// Key of a via: source, via type and index in one word. The default is the empty key.
class LfibViaKey {
 public:
   constexpr LfibViaKey() = default;
   constexpr LfibViaKey( LfibSource source, LfibViaType viaType, U32 index )
      : word_( U64{ 1 } << 63 | static_cast< U64 >( source ) << 48 |
               static_cast< U64 >( viaType ) << 40 | index ) {}
   static constexpr LfibViaKey fromWord( U64 word ) {
      LfibViaKey made;
      made.word_ = word;
      return made;
   }
   constexpr LfibSource source() const { return static_cast< LfibSource >( word_ >> 48 & 0xFF ); }
   constexpr LfibViaType viaType() const {
      return static_cast< LfibViaType >( word_ >> 40 & 0xFF );
   }
   constexpr U32 index() const { return static_cast< U32 >( word_ ); }
   constexpr bool empty() const { return word_ == 0; }
   constexpr U64 word() const { return word_; }
   constexpr U64 hash() const { return Vel::mixBits( word_ ); }
   friend constexpr auto operator<=>( const LfibViaKey&, const LfibViaKey& ) = default;

 private:
   U64 word_ = 0;
};
VEL_EXPORT void appendText( std::string& out, const LfibViaKey& key );

/// One label route: its key and the via set that it forwards with. Null when the key is.
struct LfibRoute {
   RouteKey routeKey;
   LfibViaSetKey viaSetKey;
   U32 metric = 0;

   constexpr bool operator!() const { return routeKey.null(); }
   friend constexpr bool operator==( const LfibRoute&, const LfibRoute& ) = default;
};

/// A via set: up to 128 via references, shared by every route that forwards alike.
///
/// Copying copies only the references in use: look-ups return it by value on the path of every
/// route.
class LfibViaSet {
 public:
   LfibViaSet() {
   } // NOLINT(modernize-use-equals-default): the reference array stays uninitialised on purpose
   explicit LfibViaSet( LfibViaSetKey key ) : key_( key ) {}
   LfibViaSet( const LfibViaSet& other ) { *this = other; }
   LfibViaSet& operator=( const LfibViaSet& other ) {
      key_ = other.key_;
      backupViaSetKey_ = other.backupViaSetKey_;
      usableAsPrimaryVias_ = other.usableAsPrimaryVias_;
      count_ = other.count_;
      std::copy_n( other.viaKeys_.begin(), count_, viaKeys_.begin() );
      return *this;
   }
   ~LfibViaSet() = default;

   LfibViaSetKey key() const { return key_; }
   bool null() const { return key_.empty(); }
   LfibViaSetKey backupViaSetKey() const { return backupViaSetKey_; }
   void backupViaSetKeyIs( LfibViaSetKey key ) { backupViaSetKey_ = key; }
   bool usableAsPrimaryVias() const { return usableAsPrimaryVias_; }
   void usableAsPrimaryViasIs( bool usable ) { usableAsPrimaryVias_ = usable; }

   size_t viaKeys() const { return count_; }
   LfibViaKey viaKey( LfibViaIndexRange index ) const {
      return index.value() < count_ ? viaKeys_[index.value()] : LfibViaKey();
   }
   /// Appends a reference. A 129th raises the range error of `LfibViaIndexRange`.
   void viaKeyAdd( LfibViaKey key ) {
      const LfibViaIndexRange index( count_ );
      viaKeys_[index.value()] = key;
      ++count_;
   }

   friend bool operator==( const LfibViaSet& a, const LfibViaSet& b ) {
      return a.key_ == b.key_ && a.backupViaSetKey_ == b.backupViaSetKey_ &&
             a.usableAsPrimaryVias_ == b.usableAsPrimaryVias_ && a.count_ == b.count_ &&
             std::equal( a.viaKeys_.begin(), a.viaKeys_.begin() + a.count_, b.viaKeys_.begin() );
   }

 private:
   LfibViaSetKey key_;
   LfibViaSetKey backupViaSetKey_;
   bool usableAsPrimaryVias_ = true;
   U32 count_ = 0;
   std::array< LfibViaKey, LfibViaIndexRange::size > viaKeys_;
};

/// An MPLS-over-IP via: label operation, next hop and interface (either of the latter may be
/// empty).
struct LfibMplsVia {
   LfibViaKey key;
   IpGenAddr nextHop;
   IntfId intf;
   LabelStack labelStack;
   MplsLabelAction labelAction = MplsLabelAction::none;
   PayloadType payloadType = PayloadType::undefined; ///< with a pop
   TtlMode ttlMode = TtlMode::undefined;             ///< with a pop

   constexpr bool null() const { return key.empty(); }
   friend bool operator==( const LfibMplsVia&, const LfibMplsVia& ) = default;
};
VEL_EXPORT void appendText( std::string& out, const LfibMplsVia& via );

/// A via into a FEC that another agent owns.
struct LfibExtFecVia {
   LfibViaKey key;
   Fib::FecId fecId;
   friend bool operator==( const LfibExtFecVia&, const LfibExtFecVia& ) = default;
};
VEL_EXPORT void appendText( std::string& out, const LfibExtFecVia& via );

/// A VRF's name of at most 63 characters, as it stands in shared memory.
class LfibVrfName {
 public:
   static constexpr size_t maxLength = 63;
   constexpr LfibVrfName() = default;
   /// A longer name is refused with a range error.
   explicit LfibVrfName( std::string_view name ) {
      if ( name.size() > maxLength ) {
         throw std::range_error( "VRF name is longer than 63 characters" );
      }
      std::copy( name.begin(), name.end(), text_.begin() );
   }
   L3::VrfName vrfName() const {
      return L3::VrfName( std::string_view( text_.data(), strnlen( text_.data(), maxLength ) ) );
   }
   friend bool operator==( const LfibVrfName&, const LfibVrfName& ) = default;

 private:
   std::array< char, maxLength + 1 > text_{};
};

/// Pop, then look the payload up in a VRF.
struct LfibIpLookupVia {
   LfibViaKey key;
   LfibVrfName vrfName;
   PayloadType payloadType = PayloadType::undefined;
   friend bool operator==( const LfibIpLookupVia&, const LfibIpLookupVia& ) = default;
};

VEL_EXPORT void appendText( std::string& out, const LfibIpLookupVia& via );

/// Pop, then bridge in a VLAN.
struct LfibVlanVia {
   LfibViaKey key;
   Bridging::VlanId vlanId = 0;
   friend bool operator==( const LfibVlanVia&, const LfibVlanVia& ) = default;
};
using LfibEvpnVlanFloodVia = LfibVlanVia;
VEL_EXPORT void appendText( std::string& out, const LfibVlanVia& via );

/// Key of a map from 802.1Q tag to VLAN.
class LfibDot1qTagToVlanKey {
 public:
   constexpr LfibDot1qTagToVlanKey() = default;
   constexpr explicit LfibDot1qTagToVlanKey( U64 value ) : value_( value ) {}
   constexpr U64 value() const { return value_; }
   constexpr bool empty() const { return value_ == 0; }
   constexpr U64 word() const { return value_; }
   constexpr U64 hash() const { return Vel::mixBits( value_ ); }
   friend constexpr auto operator<=>( const LfibDot1qTagToVlanKey&,
                                      const LfibDot1qTagToVlanKey& ) = default;

 private:
   U64 value_ = 0;
};
inline void appendText( std::string& out, LfibDot1qTagToVlanKey key ) {
   Vel::appendText( out, key.value() );
}

/// Pop, then bridge in the VLAN that the payload's tag maps to.
struct LfibEvpnVlanAwareVia {
   LfibViaKey key;
   LfibDot1qTagToVlanKey dot1qTagToVlanKey;
   friend bool operator==( const LfibEvpnVlanAwareVia&, const LfibEvpnVlanAwareVia& ) = default;
};
using LfibEvpnVlanAwareFloodVia = LfibEvpnVlanAwareVia;
VEL_EXPORT void appendText( std::string& out, const LfibEvpnVlanAwareVia& via );

/// Pop, then hand over to a pseudowire.
struct LfibPwVia {
   LfibViaKey key;
   IntfId pwIntfId;
   friend bool operator==( const LfibPwVia&, const LfibPwVia& ) = default;
};

} // namespace Mpls

template<>
struct Vel::EnumNames< Mpls::LfibViaType > {
   static constexpr std::array< std::pair< Mpls::LfibViaType, std::string_view >, 10 > names{
      { { Mpls::viaTypeUnknown, "viaTypeUnknown" },
        { Mpls::viaTypeMplsIp, "viaTypeMplsIp" },
        { Mpls::viaTypeMplsPseudowire, "viaTypeMplsPseudowire" },
        { Mpls::viaTypeIpLookup, "viaTypeIpLookup" },
        { Mpls::viaTypeVlan, "viaTypeVlan" },
        { Mpls::viaTypeEvpnVlanAware, "viaTypeEvpnVlanAware" },
        { Mpls::viaTypeEvpnEthernetSegment, "viaTypeEvpnEthernetSegment" },
        { Mpls::viaTypeEvpnVlanFlood, "viaTypeEvpnVlanFlood" },
        { Mpls::viaTypeEvpnVlanAwareFlood, "viaTypeEvpnVlanAwareFlood" },
        { Mpls::viaTypeExternalFec, "viaTypeExternalFec" } } };
};
template<>
struct Vel::EnumNames< Mpls::LfibHwProgrammingReturnCode > {
   using enum Mpls::LfibHwProgrammingReturnCode;
   static constexpr std::array< std::pair< Mpls::LfibHwProgrammingReturnCode, std::string_view >,
                                4 >
      names{ { { success, "success" },
               { tableFull, "tableFull" },
               { notSupported, "notSupported" },
               { notReady, "notReady" } } };
};
template<>
struct Vel::EnumNames< Mpls::LfibViaSetType > {
   static constexpr std::array< std::pair< Mpls::LfibViaSetType, std::string_view >, 2 > names{
      { { Mpls::LfibViaSetType::unicast, "unicast" },
        { Mpls::LfibViaSetType::multicast, "multicast" } } };
};
template<>
struct Vel::EnumNames< Mpls::LfibSource > {
   static constexpr std::array< std::pair< Mpls::LfibSource, std::string_view >, 8 > names{
      { { Mpls::LfibSource::unknown, "unknown" },
        { Mpls::LfibSource::staticConfig, "static" },
        { Mpls::LfibSource::ldp, "ldp" },
        { Mpls::LfibSource::rsvp, "rsvp" },
        { Mpls::LfibSource::isisSr, "isisSr" },
        { Mpls::LfibSource::ospfSr, "ospfSr" },
        { Mpls::LfibSource::bgpLu, "bgpLu" },
        { Mpls::LfibSource::other, "other" } } };
};
