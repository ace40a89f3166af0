#include "driver/SwitchStatus.h"

namespace Vel::Driver {

namespace {

// What a collection has under the key, or nothing.
template< class Collection, class Key >
auto optionally( const Collection& collection, const Key& key ) {
   const auto* const found = collection.find( key );
   return found ? std::optional( *found ) : std::nullopt;
}

} // namespace

std::optional< UnprogrammedReason > SwitchStatus::routeRefusal( VrfId vrfId,
                                                                Mpls::RouteKey key ) const {
   const SwitchVrfStatus* const of = vrf( vrfId );
   return of ? optionally( of->refusedRoute(), key ) : std::nullopt;
}

std::optional< UnprogrammedReason > SwitchStatus::adjacencyRefusal( VrfId vrfId, U64 index ) const {
   const SwitchVrfStatus* const of = vrf( vrfId );
   return of ? optionally( of->refusedAdjacency(), index ) : std::nullopt;
}

std::optional< UnprogrammedReason > SwitchStatus::fecRefusal( Fib::FecId fecId ) const {
   return optionally( waitingFec(), fecId );
}

bool SwitchStatus::routeLost( VrfId vrfId, Mpls::RouteKey key ) const {
   const SwitchVrfStatus* const of = vrf( vrfId );
   return of && of->lostRouteHas( key );
}

void SwitchStatus::eachForeign( const std::function< void( const Fib::Fec& ) >& call ) const {
   for ( const auto& [fecId, content] : foreignFec() ) {
      call( content );
   }
   for ( const auto& [intf, content] : tunnel() ) {
      call( content );
   }
}

} // namespace Vel::Driver
