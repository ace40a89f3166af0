#include "sim/L3Layer.h"

#include <algorithm>

namespace Vel::Sim {

class L3Layer::ArpReactor : public ProactiveArpNexthopSm::Reactor {
 public:
   explicit ArpReactor( L3Layer& owner ) : owner_( owner ) { notifierIs( owner.arp.get() ); }
   void onEntry( ProactiveArpEntry entry ) override { owner_.asked( { entry.intf, entry.addr } ); }

 private:
   L3Layer& owner_;
};

class L3Layer::ResolverReactor : public RouteReactorConfig::Reactor {
 public:
   explicit ResolverReactor( L3Layer& owner ) : owner_( owner ) {
      notifierIs( owner.resolver.get() );
   }
   void onWatchedAddr( VrfAndIpAddr key ) override { owner_.asked( { IntfId(), key.ipAddr } ); }

 private:
   L3Layer& owner_;
};

class L3Layer::Resolver6Reactor : public Route6ReactorConfig::Reactor {
 public:
   explicit Resolver6Reactor( L3Layer& owner ) : owner_( owner ) {
      notifierIs( owner.resolver6.get() );
   }
   void onWatchedIp6Addr( VrfAndIpGenAddr key ) override {
      owner_.asked( { IntfId(), key.ipGenAddr } );
   }

 private:
   L3Layer& owner_;
};

L3Layer::L3Layer( VelL3Status& status )
   : arp( make< ProactiveArpNexthopSm >( "arp" ) ),
     resolver( make< RouteReactorConfig >( "routeReactorConfig" ) ),
     resolver6( make< Route6ReactorConfig >( "route6ReactorConfig" ) ),
     status_( status ),
     arpReactor_( std::make_unique< ArpReactor >( *this ) ),
     resolverReactor_( std::make_unique< ResolverReactor >( *this ) ),
     resolver6Reactor_( std::make_unique< Resolver6Reactor >( *this ) ) {}

L3Layer::~L3Layer() = default;

void L3Layer::neighborIs( const NextHopKey& neighbor, MacAddr mac ) {
   neighbor_[neighbor] = { 0, neighbor.intf, mac, true };
   asked( neighbor );
   asked( { IntfId(), neighbor.addr } );
}

void L3Layer::neighborDel( const NextHopKey& neighbor ) {
   neighbor_.erase( neighbor );
   asked( neighbor );
   asked( { IntfId(), neighbor.addr } );
}

void L3Layer::byDefaultIs( const IpGenAddr& addr, bool byDefault ) {
   byDefault_[addr] = byDefault;
   asked( { IntfId(), addr } );
}

void L3Layer::asked( const NextHopKey& key ) {
   if ( !slow_ ) {
      give( key );
   } else if ( std::ranges::find( waiting_, key ) == waiting_.end() ) {
      waiting_.push_back( key );
   }
}

void L3Layer::answer( size_t count ) {
   for ( ; count != 0 && !waiting_.empty(); --count ) {
      const NextHopKey key = waiting_.front();
      waiting_.erase( waiting_.begin() );
      give( key );
   }
}

// Answers for the neighbour or address, or withdraws the answer when nobody asks for it any more.
void L3Layer::give( const NextHopKey& key ) {
   if ( key.intf.empty() ) {
      giveWatched( key.addr );
   } else if ( arp->entryHas( { L3::VrfName::defaultVrf(), key.addr, key.intf } ) ) {
      status_.nextHopInfoIs( key, info( key, true ) );
   } else {
      status_.nextHopInfoDel( key );
   }
}

void L3Layer::giveWatched( const IpGenAddr& addr ) {
   const L3::VrfName vrf = L3::VrfName::defaultVrf();
   const bool v4 = addr.af() == ipv4();
   ResolvedAddr resolved;
   const auto byDefault = byDefault_.find( addr );
   resolved.prefix =
      byDefault != byDefault_.end() && byDefault->second
         ? IpGenPrefix{ v4 ? *IpGenAddr::parse( "0.0.0.0" ) : *IpGenAddr::parse( "::" ), 0 }
         : IpGenPrefix{ addr, static_cast< uint8_t >( v4 ? 32 : 128 ) };
   for ( const auto& [key, info] : neighbor_ ) {
      if ( key.addr == addr ) {
         resolved.nexthop.push_back( { addr, key.intf, ResolvedNexthop::Type::attached, info } );
      }
   }
   if ( v4 && resolver->watchedAddrHas( { vrf, addr } ) ) {
      status_.resolvedAddrIs( { vrf, addr }, resolved );
   } else if ( v4 ) {
      status_.resolvedAddrDel( { vrf, addr } );
   } else if ( resolver6->watchedIp6AddrHas( { vrf, addr } ) ) {
      status_.resolvedIp6AddrIs( { vrf, addr }, resolved );
   } else {
      status_.resolvedIp6AddrDel( { vrf, addr } );
   }
}

NextHopInfo L3Layer::info( const NextHopKey& neighbor, bool allowDefault ) const {
   const auto byDefault = byDefault_.find( neighbor.addr );
   if ( neighbor.intf.empty() && byDefault != byDefault_.end() && byDefault->second &&
        !allowDefault ) {
      return {};
   }
   for ( const auto& [key, info] : neighbor_ ) {
      if ( key.addr == neighbor.addr && ( neighbor.intf.empty() || key.intf == neighbor.intf ) ) {
         return info;
      }
   }
   return {};
}

} // namespace Vel::Sim
