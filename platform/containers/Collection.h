// What every shape of collection shares.

#pragma once

#include <compare>
#include <iterator>
#include <utility>

namespace Vel {

/// The value of a set's elements.
struct Nothing {
   friend constexpr auto operator<=>( Nothing, Nothing ) = default;
};

/// The value that a look-up gives for an absent key.
template< class V >
const V& nullValueOf() {
   static const V value{};
   return value;
}

/// An iterator over anything with `Pass`: the pass itself does the work.
template< class Pass >
class PassIterator {
 public:
   template< class... Args >
   explicit PassIterator( Args&&... args ) : pass_( std::forward< Args >( args )... ) {
      valid_ = pass_.next();
   }
   PassIterator( const PassIterator& ) = delete;
   PassIterator& operator=( const PassIterator& ) = delete;

   decltype( auto ) operator*() { return pass_.element(); }
   PassIterator& operator++() {
      valid_ = pass_.next();
      return *this;
   }
   bool operator!=( std::default_sentinel_t ) const { return valid_; }

 private:
   Pass pass_;
   bool valid_;
};

} // namespace Vel
