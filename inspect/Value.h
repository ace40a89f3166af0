// Value: facts for programs, in the shape that most formats have.
//
//    Value facts;
//    facts["adjacency"] = 7;
//    facts["refused"] = false;
//    facts["l2Vias"].push_back( "swap 17, eth1" );
//
// A value is nothing, a truth, a natural number, seconds, a text, a list, or a table of names in
// the order in which the names were first used. A printer visits `as()`.

#pragma once

#include <concepts>
#include <string>
#include <string_view>
#include <utility>
#include <variant>
#include <vector>

#include "platform/values/IpTypes.h"

namespace Vel::Inspect {

class Value {
 public:
   using List = std::vector< Value >;
   using Table = std::vector< std::pair< std::string_view, Value > >;

   Value() = default; ///< nothing
   Value( bool value ) : value_( value ) {}
   Value( std::unsigned_integral auto value ) : value_( U64{ value } ) {}
   Value( double seconds ) : value_( seconds ) {}
   Value( std::string text ) : value_( std::move( text ) ) {}
   Value( std::string_view text ) : value_( std::string( text ) ) {}
   Value( const char* text ) : value_( std::string( text ) ) {}
   Value( List list ) : value_( std::move( list ) ) {} ///< also the one way to an empty list

   /// The value of that name, made when there is none. Makes this value a table. The text of the
   /// name must outlive the value.
   Value& operator[]( std::string_view name ) {
      Table& table = of< Table >();
      for ( auto& [there, value] : table ) {
         if ( there == name ) {
            return value;
         }
      }
      table.emplace_back().first = name;
      return table.back().second;
   }
   /// Makes this value a list.
   void push_back( Value value ) { // NOLINT(readability-identifier-naming): as in containers
      of< List >().push_back( std::move( value ) );
   }

   /// The value of that name; null when there is none.
   const Value* find( std::string_view name ) const {
      if ( const Table* const table = std::get_if< Table >( &value_ ) ) {
         for ( const auto& [there, value] : *table ) {
            if ( there == name ) {
               return &value;
            }
         }
      }
      return nullptr;
   }

   const auto& as() const { return value_; }
   friend bool operator==( const Value& a, const Value& b ) { return a.value_ == b.value_; }

 private:
   template< class T >
   T& of() {
      return std::holds_alternative< T >( value_ ) ? std::get< T >( value_ )
                                                   : value_.emplace< T >();
   }

   std::variant< std::monostate, bool, U64, double, std::string, List, Table > value_;
};

} // namespace Vel::Inspect
