// Interfaces: the numbers that names go by inside.
//
// A label table and a neighbour table name interfaces, the library numbers them. Each name gets the
// next number when it is first asked for, and keeps it. Numbers are of this process only.
//
// What other agents have is named and numbered in the same way, each kind for itself. To the
// library a next-hop group is an interface that stands for the group's FEC, a tunnel an interface
// of its own kind, and an external FEC a FEC id of a type that no other FEC here has.

#pragma once

#include <array>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "agent/import/LabelTable.h"
#include "platform/values/FecTypes.h"

namespace Vel::Agent {

class Interfaces {
 public:
   Interfaces() = default;
   Interfaces( const Interfaces& ) = delete;
   Interfaces& operator=( const Interfaces& ) = delete;

   /// The interface of that name; one that was not known gets a number. Empty for an empty name.
   IntfId intfIs( const std::string& name );
   /// The interface of that name, if it is known.
   std::optional< IntfId > intf( const std::string& name ) const;
   /// What stands for another agent's FEC or tunnel of that name; a new one gets a number.
   IntfId foreignIs( ForeignFec::Kind kind, const std::string& name );
   /// Its name; empty for the empty interface, and the library's text for one that has none here.
   std::string name( IntfId intf ) const;
   size_t size() const { return ordinary_.texts.size(); }

   /// What kind of thing of another agent it stands for; nothing for an ordinary interface.
   static std::optional< ForeignFec::Kind > foreignKind( IntfId intf );
   /// The external FEC of a number, and the interface that stands for it.
   static Fib::FecId externalFec( U32 number );
   static U32 numberOf( Fib::FecId externalFec ) {
      return static_cast< U32 >( externalFec.index() );
   }

 private:
   /// Names in the order in which they were first asked for, from number 1.
   struct Names {
      std::unordered_map< std::string, U32 > numbers;
      std::vector< const std::string* > texts; // the map's keys do not move

      U32 numberIs( const std::string& name );
      const std::string* find( U64 number ) const;
   };

   Names ordinary_;
   std::array< Names, 3 > foreign_; // by kind
};

} // namespace Vel::Agent
