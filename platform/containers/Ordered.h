// Ordered collections: where order is part of the meaning.
//
// The same interface as the other shapes, in key order. A pass goes by key: erasing and inserting
// are allowed while it runs, nothing is visited twice, and an element added ahead of it is visited.

#pragma once

#include <iterator>
#include <map>
#include <optional>

#include "platform/containers/Hash.h"

namespace Vel {

template< class K, class V >
class OrderedCore {
 public:
   using Key = K;

   size_t size() const { return map_.size(); }
   bool empty() const { return map_.empty(); }
   bool has( const K& key ) const { return map_.find( key ) != map_.end(); }
   // The destructor of an element may write this collection: the element leaves it first.
   bool erase( const K& key ) { return !map_.extract( key ).empty(); }
   void clear() { std::map< K, V >().swap( map_ ); }

   class Pass {
    public:
      explicit Pass( const OrderedCore& owner ) : owner_( const_cast< OrderedCore& >( owner ) ) {}
      bool next() {
         at_ = key_ ? owner_.map_.upper_bound( *key_ ) : owner_.map_.begin();
         if ( at_ == owner_.map_.end() ) {
            return false;
         }
         key_ = at_->first;
         return true;
      }
      const K& key() const { return *key_; }
      V& value() const { return at_->second; }

    protected:
      OrderedCore& owner_;
      std::optional< K > key_;
      typename std::map< K, V >::iterator at_;
   };

   friend bool operator==( const OrderedCore& a, const OrderedCore& b ) { return a.map_ == b.map_; }
   friend auto operator<=>( const OrderedCore& a, const OrderedCore& b ) {
      return a.map_ <=> b.map_;
   }

 protected:
   std::map< K, V > map_;
};

template< class K, class V >
class Ordered : public OrderedCore< K, V > {
   using Core = OrderedCore< K, V >;

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
   V* find( const K& key ) {
      const auto at = this->map_.find( key );
      return at == this->map_.end() ? nullptr : &at->second;
   }
   const V* find( const K& key ) const { return const_cast< Ordered* >( this )->find( key ); }
   const V& lookup( const K& key ) const {
      const V* const found = find( key );
      return found ? *found : nullValueOf< V >();
   }
   bool set( const K& key, const V& value ) {
      const auto [at, made] = this->map_.try_emplace( key, value );
      if ( made ) {
         return true;
      }
      if ( at->second == value ) {
         return false;
      }
      at->second = value;
      return true;
   }
   Pass pass() const { return Pass( *this ); }
   Pass workPass() { return Pass( *this ); }
   PassIterator< Pass > begin() const { return PassIterator< Pass >( *this ); }
   std::default_sentinel_t end() const { return {}; }
};

template< class K >
class OrderedSet : public OrderedCore< K, Nothing > {
   using Core = OrderedCore< K, Nothing >;

 public:
   class Pass : public Core::Pass {
    public:
      using Core::Pass::Pass;
      K element() const { return this->key(); }
   };
   bool insert( const K& key ) { return this->map_.try_emplace( key ).second; }
   Pass pass() const { return Pass( *this ); }
   Pass workPass() { return Pass( *this ); }
   PassIterator< Pass > begin() const { return PassIterator< Pass >( *this ); }
   std::default_sentinel_t end() const { return {}; }
};

} // namespace Vel
