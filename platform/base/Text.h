// Text forms of values: one customisation point, `appendText( out, value )`, found by
// argument-dependent look-up.
//
// Traces, introspection, assertions and error messages all print through it. Formatting happens
// only when somebody wants to read, so clarity beats speed here.

#pragma once

#include <array>
#include <charconv>
#include <concepts>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <type_traits>
#include <utility>

namespace Vel {

/// Names of an enumeration's values. Specialise with `static constexpr std::array< std::pair< E,
/// std::string_view >, N > names`; `stringValue`, `enumParse` and `appendText` follow.
template< class E >
struct EnumNames;

template< class E >
concept NamedEnum = std::is_enum_v< E > && requires {
   EnumNames< E >::names;
};

/// The name of the value; "unknown" for a number that has none.
template< NamedEnum E >
constexpr std::string_view stringValue( E value ) {
   for ( const auto& [candidate, name] : EnumNames< E >::names ) {
      if ( candidate == value ) {
         return name;
      }
   }
   return "unknown";
}

/// The value with that exact name, or nothing.
template< NamedEnum E >
constexpr std::optional< E > enumParse( std::string_view text ) {
   for ( const auto& [candidate, name] : EnumNames< E >::names ) {
      if ( name == text ) {
         return candidate;
      }
   }
   return std::nullopt;
}

inline void appendText( std::string& out, std::string_view value ) {
   out.append( value );
}
inline void appendText( std::string& out, const char* value ) {
   out.append( value );
}
inline void appendText( std::string& out, const std::string& value ) {
   out.append( value );
}
template< std::same_as< bool > B > // not for what merely converts to a truth value, such as a
                                   // pointer
void appendText( std::string& out, B value ) {
   out.append( value ? "true" : "false" );
}

template< class T >
requires( std::integral< T > && !std::same_as< T, bool > &&
          !std::same_as< T, char > ) void appendText( std::string& out, T value ) {
   std::array< char, 24 > digits; // enough for a sign and 20 digits
   const auto end = std::to_chars( digits.data(), digits.data() + digits.size(), value );
   out.append( digits.data(), end.ptr );
}

inline void appendText( std::string& out, double value ) {
   std::array< char, 40 > digits;
   const auto end = std::to_chars( digits.data(), digits.data() + digits.size(), value );
   out.append( digits.data(), end.ptr );
}

template< NamedEnum E >
void appendText( std::string& out, E value ) {
   out.append( stringValue( value ) );
}

/// The text form of one value.
template< class T >
std::string textOf( const T& value ) {
   std::string out;
   appendText( out, value );
   return out;
}

/// The text forms of several values, one after the other.
template< class... T >
std::string joinText( const T&... values ) {
   std::string out;
   ( appendText( out, values ), ... );
   return out;
}

/// Spreads the bits of a word over the whole word (the finaliser of a multiplicative hash).
constexpr uint64_t mixBits( uint64_t word ) {
   word ^= word >> 32;
   word *= 0x9E3779B97F4A7C15ULL;
   word ^= word >> 29;
   return word;
}

/// Hash of a key: integers and enumerations by their bits, everything else by its own `hash()`.
template< class K >
constexpr uint64_t hashOf( const K& key ) {
   if constexpr ( std::is_enum_v< K > || std::is_integral_v< K > ) {
      return mixBits( static_cast< uint64_t >( key ) );
   } else if constexpr ( std::is_pointer_v< K > ) {
      return mixBits( reinterpret_cast< uintptr_t >( key ) );
   } else {
      return key.hash();
   }
}

} // namespace Vel
