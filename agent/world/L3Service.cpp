#include "agent/world/L3Service.h"

namespace Vel::Agent {

class L3Service::ArpReactor : public ProactiveArpNexthopSm::Reactor {
 public:
   explicit ArpReactor( L3Service& owner, const ProactiveArpNexthopSm* sm ) : owner_( owner ) {
      notifierIs( sm );
   }
   void onEntry( ProactiveArpEntry entry ) override { owner_.answer( { entry.intf, entry.addr } ); }

 private:
   L3Service& owner_;
};

class L3Service::WatchReactor : public RouteReactorConfig::Reactor {
 public:
   explicit WatchReactor( L3Service& owner, const RouteReactorConfig* config ) : owner_( owner ) {
      notifierIs( config );
   }
   void onWatchedAddr( VrfAndIpAddr watched ) override { owner_.answer( watched ); }

 private:
   L3Service& owner_;
};

class L3Service::Watch6Reactor : public Route6ReactorConfig::Reactor {
 public:
   explicit Watch6Reactor( L3Service& owner, const Route6ReactorConfig* config ) : owner_( owner ) {
      notifierIs( config );
   }
   void onWatchedIp6Addr( VrfAndIpGenAddr watched ) override { owner_.answer6( watched ); }

 private:
   L3Service& owner_;
};

L3Service::L3Service( Interfaces& interfaces, Ptr< VelL3Status > status,
                      const Ptr< ProactiveArpNexthopSm >& arp,
                      const Ptr< RouteReactorConfig >& watched,
                      const Ptr< Route6ReactorConfig >& watched6 )
   : interfaces_( interfaces ),
     status_( std::move( status ) ),
     arpReactor_( std::make_unique< ArpReactor >( *this, arp.get() ) ),
     watchReactor_( std::make_unique< WatchReactor >( *this, watched.get() ) ),
     watch6Reactor_( std::make_unique< Watch6Reactor >( *this, watched6.get() ) ) {
   for ( const ProactiveArpEntry& entry : arp->entry() ) {
      answer( { entry.intf, entry.addr } );
   }
   for ( const VrfAndIpAddr& address : watched->watchedAddr() ) {
      answer( address );
   }
   for ( const VrfAndIpGenAddr& address : watched6->watchedIp6Addr() ) {
      answer6( address );
   }
}

L3Service::~L3Service() = default;

// --- Neighbours.

void L3Service::neighborIs( const Neighbor& neighbor ) {
   const std::optional< IpGenAddr > address = IpGenAddr::parse( neighbor.address );
   if ( !address ) {
      return; // the table holds only addresses
   }
   const IntfId intf = interfaces_.intfIs( neighbor.interface );
   const NextHopInfo info{ .vlanId = neighbor.vlan,
                           .l2Intf = intf,
                           .macAddr = neighbor.mac,
                           .resolved = neighbor.resolved };
   ByInterface& there = *neighbor_.emplace( *address ).first;
   const auto [at, made] = there.try_emplace( intf, info );
   if ( made || at->second != info ) {
      at->second = info;
      neighborChanged( { intf, *address } );
   }
}

bool L3Service::neighborDel( const NextHopKey& key ) {
   ByInterface* const there = neighbor_.find( key.addr );
   if ( there == nullptr || there->erase( key.intf ) == 0 ) {
      return false;
   }
   if ( there->empty() ) {
      neighbor_.erase( key.addr );
   }
   neighborChanged( key );
   return true;
}

const NextHopInfo* L3Service::neighbor( const NextHopKey& key ) const {
   const ByInterface* const there = neighbor_.find( key.addr );
   if ( there == nullptr ) {
      return nullptr;
   }
   const auto at = there->find( key.intf );
   return at == there->end() ? nullptr : &at->second;
}

NextHopInfo L3Service::info( const NextHopKey& key ) const {
   const NextHopInfo* const known = neighbor( key );
   NextHopInfo info = known ? *known : NextHopInfo();
   info.resolved = info.resolved && ( !linkUp_ || linkUp_( key.intf ) );
   return info;
}

void L3Service::linksChanged() {
   for ( const auto& [address, there] : neighbor_ ) {
      for ( const auto& [intf, known] : there ) {
         answer( NextHopKey{ intf, address } );
      }
      answerWatched( address );
   }
}

void L3Service::neighborChanged( const NextHopKey& key ) {
   answer( key );
   answerWatched( key.addr );
   if ( onChange_ ) {
      onChange_();
   }
}

void L3Service::answerWatched( const IpGenAddr& address ) {
   if ( address.af() == ipv4() ) {
      answer( VrfAndIpAddr{ L3::VrfName::defaultVrf(), address } );
   } else {
      answer6( { L3::VrfName::defaultVrf(), address } );
   }
}

// --- Answers. Questions and neighbours come and go in any order, so each answer looks for both.

void L3Service::answer( const NextHopKey& key ) {
   const NextHopInfo* const known = neighbor( key );
   const bool asked =
      arpReactor_->notifier()->entryHas( { L3::VrfName::defaultVrf(), key.addr, key.intf } );
   if ( asked && known ) {
      status_->nextHopInfoIs( key, info( key ) );
   } else {
      status_->nextHopInfoDel( key );
   }
}

void L3Service::answer( const VrfAndIpAddr& watched ) {
   const bool asked = watchReactor_->notifier()->watchedAddrHas( watched );
   if ( asked && neighbor_.has( watched.ipAddr ) ) {
      status_->resolvedAddrIs( watched, resolved( watched.ipAddr, 32 ) );
   } else {
      status_->resolvedAddrDel( watched );
   }
}

void L3Service::answer6( const VrfAndIpGenAddr& watched ) {
   const bool asked = watch6Reactor_->notifier()->watchedIp6AddrHas( watched );
   if ( asked && neighbor_.has( watched.ipGenAddr ) ) {
      status_->resolvedIp6AddrIs( watched, resolved( watched.ipGenAddr, 128 ) );
   } else {
      status_->resolvedIp6AddrDel( watched );
   }
}

ResolvedAddr L3Service::resolved( const IpGenAddr& address, uint8_t prefixLength ) const {
   ResolvedAddr found{ { address, prefixLength }, {} };
   if ( const ByInterface* const there = neighbor_.find( address ) ) {
      for ( const auto& [intf, known] : *there ) {
         found.nexthop.push_back(
            { address, intf, ResolvedNexthop::Type::attached, info( { intf, address } ) } );
      }
   }
   return found;
}

} // namespace Vel::Agent
