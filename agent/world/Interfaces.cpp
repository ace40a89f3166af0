#include "agent/world/Interfaces.h"

namespace Vel::Agent {

using Fib::FecId;
using Kind = ForeignFec::Kind;

namespace {

constexpr U64 externalFecType = 7; // none of the library's own adjacency types

} // namespace

U32 Interfaces::Names::numberIs( const std::string& name ) {
   const auto [at, made] = numbers.try_emplace( name, static_cast< U32 >( texts.size() + 1 ) );
   if ( made ) {
      texts.push_back( &at->first );
   }
   return at->second;
}

const std::string* Interfaces::Names::find( U64 number ) const {
   return number == 0 || number > texts.size() ? nullptr : texts[number - 1];
}

IntfId Interfaces::intfIs( const std::string& name ) {
   return name.empty() ? IntfId() : IntfId::ordinary( ordinary_.numberIs( name ) );
}

std::optional< IntfId > Interfaces::intf( const std::string& name ) const {
   const auto at = ordinary_.numbers.find( name );
   if ( at == ordinary_.numbers.end() ) {
      return std::nullopt;
   }
   return IntfId::ordinary( at->second );
}

IntfId Interfaces::foreignIs( Kind kind, const std::string& name ) {
   const U32 number = foreign_.at( static_cast< size_t >( kind ) ).numberIs( name );
   switch ( kind ) {
   case Kind::nextHopGroup:
      return FecId::fecIdToNexthopGroupIntfId(
         FecId::fecIdForAdjType( Fib::AdjType::nexthopGroupAdj, number ) );
   case Kind::tunnel:
      return { IntfId::Kind::dynamicTunnel, number };
   case Kind::externalFec:
      break;
   }
   return FecId::fecIdToHierarchicalIntfId( externalFec( number ) );
}

FecId Interfaces::externalFec( U32 number ) {
   return FecId( externalFecType << Fib::adjTypePos() | number );
}

std::optional< Kind > Interfaces::foreignKind( IntfId intf ) {
   switch ( intf.kind() ) {
   case IntfId::Kind::nexthopGroup:
      return Kind::nextHopGroup;
   case IntfId::Kind::dynamicTunnel:
      return Kind::tunnel;
   case IntfId::Kind::hierarchicalFec:
      return Kind::externalFec;
   default:
      return std::nullopt;
   }
}

std::string Interfaces::name( IntfId intf ) const {
   if ( intf.empty() ) {
      return {};
   }
   const std::string* found = nullptr;
   if ( intf.kind() == IntfId::Kind::ordinary ) {
      found = ordinary_.find( intf.payload() );
   } else if ( const std::optional< Kind > kind = foreignKind( intf ) ) {
      const FecId fecId = Fib::FecIdIntfId::intfIdToFecId( intf );
      const bool ours = *kind != Kind::externalFec || fecId == externalFec( numberOf( fecId ) );
      const U64 number = *kind == Kind::tunnel ? intf.payload() : fecId.index();
      found = ours ? foreign_.at( static_cast< size_t >( *kind ) ).find( number ) : nullptr;
   }
   return found ? *found : textOf( intf );
}

} // namespace Vel::Agent
