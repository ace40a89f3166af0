#include "platform/entity/EntityManager.h"

#include <utility>

#include "platform/base/Assert.h"
#include "platform/entity/Introspection.h"

namespace Vel {

void EntityManager::rootIs( std::string name, Ptr< Entity > entity ) {
   VEL_ASSERT_TEXT( !name.empty() && name.find( '/' ) == std::string::npos,
                    "a root's name is a step of a path", "", "EntityManager", name );
   if ( !entity ) {
      rootDel( std::move( name ) );
      return;
   }
   if ( root_.set( name, entity ) ) {
      notify< Reactor >( [&]( Reactor& reactor ) { reactor.onRoot( name ); } );
   }
}

Entity* EntityManager::root( std::string_view name ) const {
   return root_.lookup( std::string( name ) ).get();
}

const Entity* EntityManager::entity( std::string_view path ) const {
   const size_t slash = path.find( '/' );
   const Entity* const found = root( path.substr( 0, slash ) );
   if ( found == nullptr || slash == std::string_view::npos ) {
      return found;
   }
   return entityAt( *found, path.substr( slash + 1 ) );
}

} // namespace Vel
