#include "platform/values/IpTypes.h"

#include <mutex>
#include <set>

#include <algorithm>
#include <string_view>
#include <utility>

#include "platform/base/DecimalText.h"

namespace Vel {

namespace {

constexpr size_t v6Groups = 8;
using Groups = std::array< uint16_t, v6Groups >;

std::optional< U32 > v4Parse( std::string_view text ) {
   U32 address = 0;
   for ( int i = 0; i < 4; ++i ) {
      const size_t dot = i < 3 ? text.find( '.' ) : text.size();
      if ( dot == std::string_view::npos ) {
         return std::nullopt;
      }
      const auto byte = decimalParse( text.substr( 0, dot ), 255 );
      if ( !byte ) {
         return std::nullopt;
      }
      address = address << 8 | static_cast< U32 >( *byte );
      text.remove_prefix( i < 3 ? dot + 1 : dot );
   }
   return address;
}

std::optional< uint8_t > hexDigit( char c ) {
   if ( c >= '0' && c <= '9' ) {
      return static_cast< uint8_t >( c - '0' );
   }
   if ( c >= 'a' && c <= 'f' ) {
      return static_cast< uint8_t >( c - 'a' + 10 );
   }
   if ( c >= 'A' && c <= 'F' ) {
      return static_cast< uint8_t >( c - 'A' + 10 );
   }
   return std::nullopt;
}

/// One to `maxDigits` hexadecimal digits.
std::optional< uint16_t > hexParse( std::string_view text, size_t maxDigits ) {
   if ( text.empty() || text.size() > maxDigits ) {
      return std::nullopt;
   }
   U32 number = 0;
   for ( const char c : text ) {
      const auto digit = hexDigit( c );
      if ( !digit ) {
         return std::nullopt;
      }
      number = number << 4 | *digit;
   }
   return static_cast< uint16_t >( number );
}

void appendHex( std::string& out, U32 number ) {
   std::array< char, 8 > digits;
   const auto end = std::to_chars( digits.data(), digits.data() + digits.size(), number, 16 );
   out.append( digits.data(), end.ptr );
}

void appendV4( std::string& out, U32 address ) {
   for ( int shift = 24; shift >= 0; shift -= 8 ) {
      appendText( out, address >> shift & 0xFF );
      out += shift ? "." : "";
   }
}

/// Groups separated by single colons; the last may be a dotted quad, which fills two.
class GroupReader {
 public:
   /// False when the text is not such a list, or has more groups than an address.
   bool read( std::string_view text, bool mayEndInV4 ) {
      while ( true ) {
         const size_t colon = text.find( ':' );
         if ( !readOne( text.substr( 0, colon ), mayEndInV4 && colon == std::string_view::npos ) ) {
            return false;
         }
         if ( colon == std::string_view::npos ) {
            return true;
         }
         text.remove_prefix( colon + 1 );
      }
   }
   size_t count() const { return count_; }
   const Groups& groups() const { return groups_; }

 private:
   bool readOne( std::string_view text, bool mayBeV4 ) {
      if ( mayBeV4 && text.find( '.' ) != std::string_view::npos ) {
         const auto v4 = v4Parse( text );
         return v4 && add( static_cast< uint16_t >( *v4 >> 16 ) ) &&
                add( static_cast< uint16_t >( *v4 & 0xFFFF ) );
      }
      const auto group = hexParse( text, 4 );
      return group && add( *group );
   }
   bool add( uint16_t group ) {
      if ( count_ == v6Groups ) {
         return false;
      }
      groups_[count_++] = group;
      return true;
   }

   Groups groups_{};
   size_t count_ = 0;
};

std::optional< Groups > v6Parse( std::string_view text ) {
   const size_t gap = text.find( "::" );
   GroupReader head;
   if ( gap == std::string_view::npos ) {
      if ( !head.read( text, true ) || head.count() != v6Groups ) {
         return std::nullopt;
      }
      return head.groups();
   }
   const std::string_view before = text.substr( 0, gap );
   const std::string_view after = text.substr( gap + 2 );
   GroupReader tail;
   if ( ( !before.empty() && !head.read( before, false ) ) ||
        ( !after.empty() && !tail.read( after, true ) ) ||
        head.count() + tail.count() >= v6Groups ) { // "::" stands for at least one group
      return std::nullopt;
   }
   Groups groups = head.groups();
   std::copy_n( tail.groups().begin(), tail.count(),
                groups.begin() + static_cast< ptrdiff_t >( v6Groups - tail.count() ) );
   return groups;
}

/// The longest run of two or more zero groups, the first of equals (RFC 5952 section 4.2): begin
/// and length.
std::pair< size_t, size_t > longestZeros( const Groups& groups ) {
   std::pair< size_t, size_t > longest{ 0, 0 };
   for ( size_t begin = 0; begin < v6Groups; ++begin ) {
      size_t length = 0;
      while ( begin + length < v6Groups && groups[begin + length] == 0 ) {
         ++length;
      }
      if ( length >= 2 && length > longest.second ) {
         longest = { begin, length };
      }
   }
   return longest;
}

void appendV6( std::string& out, const Groups& groups ) {
   const auto [zerosAt, zeros] = longestZeros( groups );
   // ::ffff:0:0/96 holds IPv4 addresses, which people read as such (RFC 5952 section 5).
   const bool mapped = zerosAt == 0 && zeros == 5 && groups[5] == 0xFFFF;
   const size_t hexGroups = mapped ? 6 : v6Groups;
   for ( size_t i = 0; i < hexGroups; ) {
      if ( zeros != 0 && i == zerosAt ) {
         out += "::";
         i += zeros;
         continue;
      }
      appendHex( out, groups[i++] );
      if ( i < v6Groups && !( zeros != 0 && i == zerosAt ) ) {
         out += ':';
      }
   }
   if ( mapped ) {
      appendV4( out, U32{ groups[6] } << 16 | groups[7] );
   }
}

} // namespace

IpGenAddr IpGenAddr::fromV6( const std::array< uint8_t, 16 >& bytes ) {
   IpGenAddr made;
   for ( size_t i = 0; i < bytes.size(); ++i ) {
      U64& half = i < 8 ? made.high_ : made.low_;
      half = half << 8 | bytes[i];
   }
   made.af_ = AddressFamily::ipv6;
   return made;
}

std::optional< IpGenAddr > IpGenAddr::parse( std::string_view text ) {
   if ( text.find( ':' ) == std::string_view::npos ) {
      const auto v4 = v4Parse( text );
      return v4 ? std::optional( fromV4( *v4 ) ) : std::nullopt;
   }
   const auto groups = v6Parse( text );
   if ( !groups ) {
      return std::nullopt;
   }
   IpGenAddr made;
   for ( size_t i = 0; i < v6Groups; ++i ) {
      U64& half = i < v6Groups / 2 ? made.high_ : made.low_;
      half = half << 16 | ( *groups )[i];
   }
   made.af_ = AddressFamily::ipv6;
   return made;
}

std::array< uint8_t, 16 > IpGenAddr::v6() const {
   std::array< uint8_t, 16 > bytes;
   for ( size_t i = 0; i < bytes.size(); ++i ) {
      const U64 half = i < 8 ? high_ : low_;
      bytes[i] = static_cast< uint8_t >( half >> ( 56 - 8 * ( i % 8 ) ) );
   }
   return bytes;
}

std::string IpGenAddr::text() const {
   std::string out;
   if ( af_ == AddressFamily::ipv4 ) {
      appendV4( out, v4() );
   } else if ( af_ == AddressFamily::ipv6 ) {
      Groups groups;
      for ( size_t i = 0; i < v6Groups; ++i ) {
         const U64 half = i < v6Groups / 2 ? high_ : low_;
         groups[i] = static_cast< uint16_t >( half >> ( 48 - 16 * ( i % 4 ) ) );
      }
      appendV6( out, groups );
   }
   return out;
}

void appendText( std::string& out, const IpGenPrefix& prefix ) {
   if ( prefix.address.empty() ) {
      out += "none";
      return;
   }
   out += prefix.address.text();
   out += '/';
   appendText( out, prefix.length );
}

std::optional< MacAddr > MacAddr::parse( std::string_view text ) {
   constexpr size_t length = 17;
   if ( text.size() != length ) {
      return std::nullopt;
   }
   U64 value = 0;
   for ( size_t at = 0; at < length; at += 3 ) {
      const auto high = hexDigit( text[at] );
      const auto low = hexDigit( text[at + 1] );
      if ( !high || !low || ( at + 2 < length && text[at + 2] != ':' ) ) {
         return std::nullopt;
      }
      value = value << 8 | static_cast< U64 >( *high << 4 | *low );
   }
   return MacAddr( value );
}

std::array< uint8_t, 6 > MacAddr::bytes() const {
   std::array< uint8_t, 6 > bytes;
   for ( size_t i = 0; i < bytes.size(); ++i ) {
      bytes[i] = static_cast< uint8_t >( value_ >> ( 40 - 8 * i ) );
   }
   return bytes;
}

std::string MacAddr::text() const {
   std::string out;
   for ( const uint8_t byte : bytes() ) {
      out += out.empty() ? "" : ":";
      out += byte < 0x10 ? "0" : "";
      appendHex( out, byte );
   }
   return out;
}

namespace {

// In the payload of a FEC's interface: the FEC's adjacency type above its index.
constexpr int fecTypeShift = 48;
constexpr U64 fecIndexMax = ( U64{ 1 } << fecTypeShift ) - 1;
constexpr U64 payloadMax = ( U64{ 1 } << 56 ) - 1;

struct IntfForm {
   IntfId::Kind kind;
   std::string_view prefix;
   bool fec; // the payload is a FEC: "TYPE:INDEX"
};
constexpr std::array< IntfForm, 6 > intfForms{
   { { IntfId::Kind::ordinary, "intf", false },
     { IntfId::Kind::nexthopGroup, "nhg:", true },
     { IntfId::Kind::hierarchicalFec, "fec:", true },
     { IntfId::Kind::dynamicTunnel, "tunnel", false },
     { IntfId::Kind::portPseudowire, "portPw", false },
     { IntfId::Kind::vlanPseudowire, "vlanPw", false } } };
// What came from damaged memory still has a text that can be read back: "kind200:17".
constexpr std::string_view otherKind = "kind";

/// "NUMBER:NUMBER", the first shifted above the second.
std::optional< U64 > pairParse( std::string_view text, U64 firstMax, U64 secondMax, int shift ) {
   const size_t colon = text.find( ':' );
   if ( colon == std::string_view::npos ) {
      return std::nullopt;
   }
   const auto first = decimalParse( text.substr( 0, colon ), firstMax );
   const auto second = decimalParse( text.substr( colon + 1 ), secondMax );
   if ( !first || !second ) {
      return std::nullopt;
   }
   return *first << shift | *second;
}

std::optional< IntfId > intfIdParseLoosely( std::string_view text ) {
   for ( const IntfForm& form : intfForms ) {
      if ( text.starts_with( form.prefix ) ) {
         const std::string_view rest = text.substr( form.prefix.size() );
         const auto payload = form.fec ? pairParse( rest, 0xFF, fecIndexMax, fecTypeShift )
                                       : decimalParse( rest, payloadMax );
         return payload ? std::optional( IntfId( form.kind, *payload ) ) : std::nullopt;
      }
   }
   if ( text.starts_with( otherKind ) ) {
      const auto value = pairParse( text.substr( otherKind.size() ), 0xFF, payloadMax, 56 );
      return value ? std::optional( IntfId::fromValue( *value ) ) : std::nullopt;
   }
   return text == "none" ? std::optional( IntfId() ) : std::nullopt;
}

} // namespace

void appendText( std::string& out, const IntfId& intf ) {
   if ( intf.empty() ) {
      out += "none";
      return;
   }
   const auto* const form =
      std::find_if( intfForms.begin(), intfForms.end(),
                    [&]( const IntfForm& candidate ) { return candidate.kind == intf.kind(); } );
   if ( form == intfForms.end() ) {
      out += otherKind;
      appendText( out, static_cast< U32 >( intf.kind() ) );
      out += ':';
      appendText( out, intf.payload() );
      return;
   }
   out += form->prefix;
   if ( form->fec ) {
      appendText( out, intf.payload() >> fecTypeShift );
      out += ':';
   }
   appendText( out, form->fec ? intf.payload() & fecIndexMax : intf.payload() );
}

std::optional< IntfId > intfIdParse( std::string_view text ) {
   const auto intf = intfIdParseLoosely( text );
   // Each interface has one text: "kind1:7" is not another name of "intf7".
   return intf && textOf( *intf ) == text ? intf : std::nullopt;
}

} // namespace Vel

namespace L3 {

namespace {

// The texts of all names that were ever made; there are tens. Never destroyed: names may outlive
// static destruction.
const std::string* intern( std::string_view name ) {
   static std::mutex& mutex = *new std::mutex;
   static std::set< std::string, std::less<> >& texts = *new std::set< std::string, std::less<> >;
   const std::lock_guard< std::mutex > lock( mutex );
   const auto at = texts.find( name );
   return at != texts.end() ? &*at : &*texts.emplace( name ).first;
}

} // namespace

VrfName::VrfName( std::string_view name ) : text_( name.empty() ? nullptr : intern( name ) ) {}

const VrfName& VrfName::defaultVrf() {
   static const VrfName vrf( "default" );
   return vrf;
}

const std::string& VrfName::text() const {
   static const std::string& none = *new std::string;
   return text_ ? *text_ : none;
}

} // namespace L3
