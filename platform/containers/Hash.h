// Hash and HashSet: the collections for everything that is not the whole label table.
//
// Elements keep their insertion order and stay where they are; a pass over them survives mutation.
// HashCore.h says how, and what it costs.

#pragma once

#include <iterator>

#include "platform/containers/HashCore.h"

namespace Vel {

/// A keyed collection in insertion order.
template< class K, class V >
class Hash : public HashCore< K, V > {
   using Core = HashCore< K, V >;

 public:
   using Value = V;
   struct Element {
      K key;
      V& value;
   };
   class Pass : public Core::Pass {
    public:
      using Core::Pass::Pass;
      Element element() const { return { this->key(), this->value() }; }
   };

   /// The value under the key, or null.
   V* find( const K& key ) { return this->findValue( key ); }
   const V* find( const K& key ) const { return this->findValue( key ); }
   /// The value under the key, or a default one.
   const V& lookup( const K& key ) const {
      const V* const found = this->findValue( key );
      return found ? *found : nullValueOf< V >();
   }
   /// Writes; true when that changed anything.
   bool set( const K& key, const V& value ) {
      const auto [slot, made] = this->emplace( key, value );
      if ( made ) {
         return true;
      }
      if ( *slot == value ) {
         return false;
      }
      *slot = value;
      return true;
   }
   using Core::emplace;

   Pass pass() const { return Pass( *this ); }
   /// Insertion order is fair already: what is queued again goes to the end.
   Pass workPass() { return Pass( *this ); }
   PassIterator< Pass > begin() const { return PassIterator< Pass >( *this ); }
   std::default_sentinel_t end() const { return {}; }
};

/// A set in insertion order.
template< class K >
class HashSet : public HashCore< K, Nothing > {
   using Core = HashCore< K, Nothing >;

 public:
   class Pass : public Core::Pass {
    public:
      using Core::Pass::Pass;
      K element() const { return this->key(); }
   };
   /// True when the key was not there.
   bool insert( const K& key ) { return this->emplace( key ).second; }
   Pass pass() const { return Pass( *this ); }
   Pass workPass() { return Pass( *this ); }
   PassIterator< Pass > begin() const { return PassIterator< Pass >( *this ); }
   std::default_sentinel_t end() const { return {}; }
};

} // namespace Vel
