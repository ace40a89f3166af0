// Interfaces: the numbers of interface names.
//
// A label table and a neighbour table name interfaces, the library numbers them. Each name gets the
// next number when it is first asked for, and keeps it. Numbers are of this process only.
//
// Groups, tunnels and external FECs of other agents are numbered in the same way, each kind for
// itself. To the library a next-hop group is an interface that stands for the group's FEC, a tunnel
// is an interface of its own kind, and an external FEC is a FEC id of a type that no other FEC has.

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
   /// The interface that stands for another agent's FEC or tunnel; a new name gets a number.
   IntfId foreignIs( ForeignFec::Kind kind, const std::string& name );
   /// The interface's name: empty for the empty interface, the library's text for an unknown one.
   std::string name( IntfId intf ) const;
   size_t size() const { return ordinary_.texts.size(); }

   /// The kind of FEC or tunnel that the interface stands for; nothing for an ordinary interface.
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
