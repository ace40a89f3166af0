// Introspection: what an entity's declaration lets anybody ask of it.
//
// An entity enumerates its attributes by name to a visitor. On that one mechanism stand the
// printers (text and JSON), the walk by path ("mplsHwConfig/vrfConfig/0") and comparing trees.
// Nothing here is on the path of a route.

#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <type_traits>
#include <variant>

#include "platform/base/Export.h"
#include "platform/base/Ptr.h"
#include "platform/base/Text.h"

namespace Vel {

class Entity;

/// One attribute's value as a reader wants it: a truth value, a number or a text.
using AttributeValue = std::variant< bool, uint64_t, int64_t, double, std::string >;

/// How a type becomes an AttributeValue. Numbers stay numbers, everything else takes its text form.
template< class T >
AttributeValue attributeValue( const T& value ) {
   if constexpr ( std::is_same_v< T, bool > ) {
      return value;
   } else if constexpr ( std::is_unsigned_v< T > ) {
      return static_cast< uint64_t >( value );
   } else if constexpr ( std::is_integral_v< T > ) {
      return static_cast< int64_t >( value );
   } else if constexpr ( std::is_floating_point_v< T > ) {
      return static_cast< double >( value );
   } else {
      return textOf( value );
   }
}
/// A pointer to an entity shows the entity's name: following it is the reader's decision.
template< class T >
void appendText( std::string& out, const Ptr< T >& entity ) {
   out += entity ? entity->name() : std::string( "none" );
}
template< class T >
AttributeValue attributeValue( const Ptr< T >& entity ) {
   return entity ? entity->name() : std::string( "none" );
}
template< class T >
requires std::is_base_of_v< Entity, T > AttributeValue attributeValue( T* const& entity ) {
   return entity ? entity->name() : std::string( "none" );
}

/// Receives an entity's attributes, in the order of declaration.
class VEL_EXPORT AttributeVisitor {
 public:
   virtual ~AttributeVisitor() = default;
   /// A plain attribute.
   virtual void attribute( std::string_view name, const AttributeValue& value ) = 0;
   /// A collection begins; false skips its elements.
   virtual bool collectionBegin( std::string_view name, size_t size ) = 0;
   /// Asked before each element; false ends the collection, whose elements may be a million.
   virtual bool wantsMore() const { return true; }
   /// An element with a value.
   virtual void element( const std::string& key, const AttributeValue& value ) = 0;
   /// An element of a set.
   virtual void member( const AttributeValue& key ) = 0;
   /// An element that is an entity of its own.
   virtual void child( const std::string& key, const Entity& entity ) = 0;
   virtual void collectionEnd() {}
};

/// How much a printer prints.
struct PrintLimits {
   size_t elementsPerCollection = 1000; ///< the rest is counted
   size_t depth = 8;                    ///< levels of entities
};

/// The tree below an entity as indented text.
VEL_EXPORT std::string printText( const Entity& entity, const PrintLimits& limits = {} );
/// The tree below an entity as a JSON object.
VEL_EXPORT std::string printJson( const Entity& entity, const PrintLimits& limits = {} );
/// Follows "attribute/key/attribute/key" down from an entity; null when a step leads nowhere.
VEL_EXPORT const Entity* entityAt( const Entity& root, std::string_view path );
/// The attribute's value as text, or nothing when the entity has no plain attribute of that name.
VEL_EXPORT std::string attributeText( const Entity& entity, std::string_view name );

} // namespace Vel
