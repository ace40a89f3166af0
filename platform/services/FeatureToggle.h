// Feature toggles: behaviour that an owner can turn off.
//
// The owner says so by name before the code asks; a toggle that nobody set has the default that the
// code names. The code asks through a cached toggle, so that the answer is one for the life of the
// process, and free:
//
//    constinit CachedFeatureToggle nonStopForwarding( "MplsNonStopForwarding", true );
//    if ( nonStopForwarding.enabled() ) ...
//
// May be used from any thread.

#pragma once

#include <atomic>
#include <cstdint>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "platform/base/Export.h"

namespace Vel {

/// Sets a toggle for the whole process. Code that has asked already keeps its answer.
VEL_EXPORT void featureToggleIs( std::string_view name, bool on );
/// Forgets a setting; the default holds again.
VEL_EXPORT void featureToggleDel( std::string_view name );
/// What the toggle is set to, or the default.
VEL_EXPORT bool featureToggle( std::string_view name, bool defaultOn );
/// The toggles that are set, by name.
VEL_EXPORT std::vector< std::pair< std::string, bool > > featureToggles();

/// A toggle that is asked once.
class VEL_EXPORT CachedFeatureToggle {
 public:
   /// `name` must be a text that stays, such as a literal.
   constexpr CachedFeatureToggle( const char* name, bool defaultOn )
      : name_( name ), defaultOn_( defaultOn ) {}

   bool enabled() {
      const Answer answer = answer_.load( std::memory_order_relaxed );
      return answer == Answer::unknown ? ask() : answer == Answer::on;
   }
   /// Asks again next time. For tests.
   void forget() { answer_.store( Answer::unknown ); }
   const char* name() const { return name_; }

 private:
   enum class Answer : uint8_t { unknown, off, on };
   bool ask();

   const char* name_;
   bool defaultOn_;
   std::atomic< Answer > answer_{ Answer::unknown };
};

} // namespace Vel
