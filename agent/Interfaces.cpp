#include "agent/Interfaces.h"

namespace Vel::Agent {

IntfId Interfaces::intfIs( const std::string& name ) {
   if ( name.empty() ) {
      return {};
   }
   const auto [at, made] = numbers_.try_emplace( name, static_cast< U32 >( names_.size() + 1 ) );
   if ( made ) {
      names_.push_back( &at->first );
   }
   return IntfId::ordinary( at->second );
}

std::optional< IntfId > Interfaces::intf( const std::string& name ) const {
   const auto at = numbers_.find( name );
   if ( at == numbers_.end() ) {
      return std::nullopt;
   }
   return IntfId::ordinary( at->second );
}

std::string Interfaces::name( IntfId intf ) const {
   if ( intf.empty() ) {
      return {};
   }
   const U64 number = intf.payload();
   if ( intf.kind() != IntfId::Kind::ordinary || number == 0 || number > names_.size() ) {
      return textOf( intf );
   }
   return *names_[number - 1];
}

} // namespace Vel::Agent
