// Entities: everything that is watched or shared.
//
// What an entity is. A reference-counted object whose attributes are declared one a line; the
// accessor family follows from the line. For an attribute `foo`:
//
//    foo()        its value                                fooIs( value )      writes it
//    foo( key )   a collection's element (null if absent)  fooIs( key, value ) writes or makes one
//    foo()        a collection, to walk over               fooDel( key )       removes one
//    fooHas( key ) membership                              fooDelAll()         removes all in turn
//    foos()       the count                                fooInc( delta )     counts up (counters)
//
// Who hears of it. An entity declares a nested `Reactor` with one virtual handler for each thing
// that can be heard of it. Notification is synchronous, once for each real change, in the order in
// which the reactors were bound: two changes are two notifications. Writing the present value
// notifies nobody. A handler may bind, unbind or destroy reactors (itself included) and write the
// same entity; a reactor bound during a notification hears the next one.
//
// Identity. `name`, `fullName`, `parent`, `parentAttrName` cost nothing until asked for: an entity
// stores its parent and the number of the attribute that holds it, and texts are composed on
// demand. A record of a route carries no string.
//
// Introspection. The same declaration enumerates the attributes by name; see Introspection.h. Each
// declaration stands on a line of its own between VEL_ENTITY and VEL_ENTITY_END, since the line is
// what numbers it.
//
// Threads: one. Counts and notifications are not synchronised.

#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "platform/base/Assert.h"
#include "platform/base/Export.h"
#include "platform/base/Ptr.h"
#include "platform/base/Slab.h"
#include "platform/containers/Hash.h"
#include "platform/containers/LabelIndexed.h"
#include "platform/containers/Ordered.h"
#include "platform/entity/Introspection.h"

namespace Vel {

class Entity;
class ReactorHub;

/// What all reactors have in common: the entity that they are bound to.
class VEL_EXPORT ReactorBase {
 public:
   ReactorBase( const ReactorBase& ) = delete;
   ReactorBase& operator=( const ReactorBase& ) = delete;
   virtual ~ReactorBase();

 protected:
   ReactorBase() = default;
   /// Binds to the entity, or to nothing. The reactor keeps the entity alive.
   void notifierBind( const Entity* notifier );
   const Entity* boundTo() const { return notifier_.get(); }

 private:
   Ptr< const Entity > notifier_;
};

/// A reactor on entities of type `E`. `E::Reactor` derives from it and adds the handlers.
template< class E >
class ReactorOf : public ReactorBase {
 public:
   E* notifier() const { return const_cast< E* >( static_cast< const E* >( boundTo() ) ); }
   void notifierIs( const E* notifier ) { notifierBind( notifier ); }
};

/// The reactors of one entity, in binding order. Holes are left while a notification runs.
class VEL_EXPORT ReactorHub {
 public:
   void add( ReactorBase* reactor ) { reactors_.push_back( reactor ); }
   void remove( ReactorBase* reactor );

   template< class R, class F >
   void notify( const F& call ) {
      const Running running( *this );
      const size_t count = reactors_.size();
      for ( size_t i = 0; i < count; ++i ) {
         if ( ReactorBase* const reactor = reactors_[i] ) {
            call( static_cast< R& >( *reactor ) );
         }
      }
   }

 private:
   void compact();

   // A notification under way, left by return or by exception.
   class Running {
    public:
      explicit Running( ReactorHub& hub ) : hub_( hub ) { ++hub_.depth_; }
      Running( const Running& ) = delete;
      Running& operator=( const Running& ) = delete;
      ~Running() {
         if ( --hub_.depth_ == 0 && hub_.holes_ ) {
            hub_.compact();
         }
      }

    private:
      ReactorHub& hub_;
   };

   std::vector< ReactorBase* > reactors_;
   uint32_t depth_ = 0;
   bool holes_ = false;
};

/// Base of everything that is watched or shared.
class VEL_EXPORT Entity {
 public:
   Entity( const Entity& ) = delete;
   Entity& operator=( const Entity& ) = delete;

   void referenceAcquire() const { ++references_; }
   void referenceRelease() const {
      if ( --references_ == 0 ) {
         delete this;
      }
   }
   uint32_t references() const { return references_; }

   /// The name of the type, as declared.
   virtual std::string_view typeName() const = 0;
   /// The entity's own name: its key, or the name that it was made with.
   virtual std::string name() const { return {}; }
   /// The names from the root down, joined by "/".
   std::string fullName() const;
   Entity* parent() const { return parent_; }
   /// The parent's attribute that holds this entity; empty for a root.
   std::string_view parentAttrName() const;
   const Entity* entity() const { return this; }
   /// Whether the entity may be restored from a backup copy.
   virtual bool hasBackupSupport() const { return false; }

   /// Enumerates the attributes.
   virtual void visit( AttributeVisitor& visitor ) const = 0;
   /// The attribute with that number, as `parentIs` was given it.
   virtual std::string_view attributeName( uint16_t number ) const = 0;
   /// The reactors; null for a type that nothing is heard of.
   virtual ReactorHub* reactorHub() const { return nullptr; }

   void parentIs( Entity* parent, uint16_t attribute ) {
      parent_ = parent;
      parentAttribute_ = attribute;
   }
   void parentDel() { parent_ = nullptr; }

 protected:
   Entity() = default;
   virtual ~Entity();

   /// Keeps the entity through an operation that may release the last reference to it. Keeps
   /// nothing in its constructor and destructor, where no reference counts.
   Ptr< const Entity > kept() const { return references_ != 0 ? this : nullptr; }

 private:
   /// The last Ptr deletes the entity, so none can be a variable or a member: only `make` makes one
   /// that has this.
   virtual void isMadeByMake() const = 0;

   mutable uint32_t references_ = 0;
   uint16_t parentAttribute_ = 0;
   Entity* parent_ = nullptr;
};

/// Base of the entities that something can be heard of.
class VEL_EXPORT WatchedEntity : public Entity {
 public:
   ReactorHub* reactorHub() const override;

 protected:
   WatchedEntity() = default;
   ~WatchedEntity() override;

   template< class R, class F >
   void notify( const F& call ) const {
      if ( hub_ == nullptr ) [[likely]] {
         return;
      }
      const Ptr< const Entity > keep = kept();
      hub_->notify< R >( call );
   }

 private:
   mutable ReactorHub* hub_ = nullptr; // made for the first reactor
};

/// Names one declaration line of an entity.
template< int Line >
struct AttributeLine {};

/// Enumerates the declarations between two lines.
template< int First, class E, class Visitor, int... Offset >
void visitLines( const E& entity, Visitor& visitor, std::integer_sequence< int, Offset... > ) {
   const auto visitOne = [&]< int Line >( AttributeLine< Line > line ) {
      if constexpr ( requires { entity.visitLine_( line, visitor ); } ) {
         entity.visitLine_( line, visitor );
      }
   };
   ( visitOne( AttributeLine< First + Offset >{} ), ... );
}

/// The name declared on the line with that offset.
template< int First, class E, int... Offset >
std::string_view nameOfLine( uint16_t number, std::integer_sequence< int, Offset... > ) {
   std::string_view found;
   const auto tryOne = [&]< int Line >( AttributeLine< Line > line ) {
      if constexpr ( requires { E::lineName_( line ); } ) {
         if ( Line - First == number ) {
            found = E::lineName_( line );
         }
      }
   };
   ( tryOne( AttributeLine< First + Offset >{} ), ... );
   return found;
}

// What the declaration lines of EntityMacros.h use.
template< class C >
void visitCollection( AttributeVisitor& visitor, std::string_view name, const C& collection ) {
   if ( !visitor.collectionBegin( name, collection.size() ) ) {
      return;
   }
   for ( const auto& [key, value] : collection ) {
      if ( !visitor.wantsMore() ) {
         break;
      }
      visitor.element( textOf( key ), attributeValue( value ) );
   }
   visitor.collectionEnd();
}
template< class C >
void visitSet( AttributeVisitor& visitor, std::string_view name, const C& collection ) {
   if ( !visitor.collectionBegin( name, collection.size() ) ) {
      return;
   }
   for ( const auto& key : collection ) {
      if ( !visitor.wantsMore() ) {
         break;
      }
      visitor.member( attributeValue( key ) );
   }
   visitor.collectionEnd();
}
template< class C >
void visitChildren( AttributeVisitor& visitor, std::string_view name, const C& collection ) {
   if ( !visitor.collectionBegin( name, collection.size() ) ) {
      return;
   }
   for ( const auto& [key, entity] : collection ) {
      if ( !visitor.wantsMore() ) {
         break;
      }
      visitor.child( textOf( key ), *entity );
   }
   visitor.collectionEnd();
}

/// Entities owned by a collection forget their parent when they leave it.
template< class C >
class OwnedEntities : public C {
 public:
   ~OwnedEntities() { orphan(); }
   void clear() {
      orphan();
      C::clear();
   }
   bool erase( const typename C::Key& key ) {
      if ( const auto* const found = this->find( key ) ) {
         ( *found )->parentDel();
         return C::erase( key );
      }
      return false;
   }

 private:
   void orphan() {
      for ( const auto& [key, entity] : *this ) {
         entity->parentDel();
      }
   }
};

} // namespace Vel

#include "platform/entity/EntityMacros.h"
