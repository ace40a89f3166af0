// Ptr: shared ownership of an entity by an intrusive count.
//
// The count is not atomic: an agent's entities live on one thread. A Ptr is one word, copying it is
// one increment of memory that the entity's user touches anyway, and a raw pointer can be turned
// back into a Ptr at any time.

#pragma once

#include <cstddef>
#include <type_traits>
#include <utility>

#include "platform/base/Text.h"

namespace Vel {

template< class T >
class Ptr {
 public:
   constexpr Ptr() = default;
   constexpr Ptr( std::nullptr_t ) {
   } // NOLINT(google-explicit-constructor): an empty pointer is a value
   Ptr( T* object ) : object_( object ) { acquire(); } // NOLINT: entities carry their own count
   Ptr( const Ptr& other ) : object_( other.object_ ) { acquire(); }
   Ptr( Ptr&& other ) noexcept : object_( std::exchange( other.object_, nullptr ) ) {}
   template< class U >
   requires std::is_convertible_v< U*, T* > Ptr( const Ptr< U >& other )
      : object_( other.get() ) { // NOLINT: as with raw pointers
      acquire();
   }
   ~Ptr() { release(); }

   Ptr& operator=( const Ptr& other ) {
      Ptr( other ).swap( *this );
      return *this;
   }
   Ptr& operator=( Ptr&& other ) noexcept {
      Ptr( std::move( other ) ).swap( *this );
      return *this;
   }

   T* get() const { return object_; }
   T* operator->() const { return object_; }
   T& operator*() const { return *object_; }
   explicit operator bool() const { return object_ != nullptr; }
   void swap( Ptr& other ) noexcept { std::swap( object_, other.object_ ); }

   uint64_t hash() const { return mixBits( reinterpret_cast< uintptr_t >( object_ ) ); }

   friend bool operator==( const Ptr& a, const Ptr& b ) { return a.object_ == b.object_; }
   friend bool operator==( const Ptr& a, const T* b ) { return a.object_ == b; }
   friend bool operator==( const Ptr& a, std::nullptr_t ) { return a.object_ == nullptr; }

 private:
   void acquire() {
      if ( object_ ) {
         object_->referenceAcquire();
      }
   }
   void release() {
      if ( object_ ) {
         object_->referenceRelease();
      }
   }

   T* object_ = nullptr;
};

/// What `make` makes of an entity type, which is abstract so that nothing else can make one.
template< class T >
class Made final : public T {
 public:
   template< class... Args >
   explicit Made( Args&&... args ) : T( std::forward< Args >( args )... ) {}

 private:
   void isMadeByMake() const override {}
};

/// Makes an entity, owned by the returned pointer.
template< class T, class... Args >
Ptr< T > make( Args&&... args ) {
   if constexpr ( std::is_abstract_v< T > ) {
      return Ptr< T >( new Made< T >( std::forward< Args >( args )... ) );
   } else {
      return Ptr< T >( new T( std::forward< Args >( args )... ) );
   }
}

} // namespace Vel
