// EntityManager: the roots of all entity trees, by name.
//
// Whoever builds an agent mounts its roots here ("mplsHwConfig", "mplsHwStatus", ...); whoever
// wants to look at something asks by path. The manager is an entity itself, so that printing it
// prints everything, and a reactor on it hears roots come and go.
//
// A root is held, not adopted: it has no parent, and lives on after it is taken off while somebody
// else holds it.

#pragma once

#include <string>
#include <string_view>

#include "platform/base/Export.h"
#include "platform/containers/Ordered.h"
#include "platform/entity/Entity.h"

namespace Vel {

/// The roots by name, in the order of the names.
class VEL_EXPORT EntityManager : public WatchedEntity {
 public:
   /// Hears of the roots.
   class VEL_EXPORT Reactor : public ReactorOf< EntityManager > {
    public:
      /// A root was mounted, replaced or taken off.
      virtual void onRoot( const std::string& /*name*/ ) {}
   };

   // clang-format off
   VEL_ENTITY( EntityManager )
   VEL_COLLECTION_( std::string, root, onRoot ) VEL_VISIT_( root, ::Vel::visitChildren )
   VEL_ENTITY_END
   // clang-format on

 public:
   EntityManager() = default;

   /// Mounts a root, in place of one that has the name; an empty pointer takes it off. The name has
   /// no "/".
   void rootIs( std::string name, Ptr< Entity > entity );
   /// The root of that name, or null.
   Entity* root( std::string_view name ) const;
   /// The root of that name as a `T`; null when it is of another type.
   template< class T >
   T* root( std::string_view name ) const {
      return dynamic_cast< T* >( root( name ) );
   }
   /// The entity at "root/attribute/key/...", or null.
   const Entity* entity( std::string_view path ) const;

 private:
   Ordered< std::string, Ptr< Entity > > root_;
};

} // namespace Vel
