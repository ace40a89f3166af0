#include "platform/services/FeatureToggle.h"

#include <functional>
#include <map>
#include <mutex>

namespace Vel {

namespace {

struct Toggles {
   std::mutex mutex;
   std::map< std::string, bool, std::less<> > byName;
};

// Never destroyed: toggles may be asked for while statics are destroyed.
Toggles& toggles() {
   static Toggles& all = *new Toggles;
   return all;
}

} // namespace

void featureToggleIs( std::string_view name, bool on ) {
   Toggles& all = toggles();
   const std::scoped_lock lock( all.mutex );
   all.byName.insert_or_assign( std::string( name ), on );
}

void featureToggleDel( std::string_view name ) {
   Toggles& all = toggles();
   const std::scoped_lock lock( all.mutex );
   if ( const auto at = all.byName.find( name ); at != all.byName.end() ) {
      all.byName.erase( at );
   }
}

bool featureToggle( std::string_view name, bool defaultOn ) {
   Toggles& all = toggles();
   const std::scoped_lock lock( all.mutex );
   const auto at = all.byName.find( name );
   return at == all.byName.end() ? defaultOn : at->second;
}

std::vector< std::pair< std::string, bool > > featureToggles() {
   Toggles& all = toggles();
   const std::scoped_lock lock( all.mutex );
   return { all.byName.begin(), all.byName.end() };
}

// Of threads that ask at the same time the first one's answer is everybody's.
bool CachedFeatureToggle::ask() {
   const Answer mine = featureToggle( name_, defaultOn_ ) ? Answer::on : Answer::off;
   Answer first = Answer::unknown;
   return ( answer_.compare_exchange_strong( first, mine ) ? mine : first ) == Answer::on;
}

} // namespace Vel
