// Interfaces: the numbers that interface names go by inside.
//
// A label table and a neighbour table name interfaces, the library numbers them. Each name gets the
// next number when it is first asked for, and keeps it. Numbers are of this process only.

#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "platform/IpTypes.h"

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
   /// Its name; empty for the empty interface, and the library's text for one that has none here.
   std::string name( IntfId intf ) const;
   size_t size() const { return names_.size(); }

 private:
   std::unordered_map< std::string, U32 > numbers_;
   std::vector< const std::string* > names_; // of number i + 1; the map's keys do not move
};

} // namespace Vel::Agent
