// Decimal numbers read from text, strictly: what the value types parse their parts with.

#pragma once

#include <charconv>
#include <cstdint>
#include <optional>
#include <string_view>
#include <system_error>

namespace Vel {

/// The number that the whole text spells in decimal digits, without sign, blanks or leading zeros;
/// nothing when it does not, or when the number is larger than `max`.
inline std::optional< uint64_t > decimalParse( std::string_view text, uint64_t max ) {
   if ( text.empty() || ( text.size() > 1 && text.front() == '0' ) ) {
      return std::nullopt;
   }
   uint64_t number = 0;
   const char* const end = text.data() + text.size();
   const auto parsed = std::from_chars( text.data(), end, number );
   if ( parsed.ec != std::errc() || parsed.ptr != end || number > max ) {
      return std::nullopt;
   }
   return number;
}

} // namespace Vel
