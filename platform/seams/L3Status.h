// The L3 layer as label forwarding sees it: which next hops it is asked to watch, and what they
// resolve to.
//
// Two services resolve next hops. The proactive ARP watcher takes (VRF, address, interface) entries
// and answers in `VelL3Status::nextHopInfo`. The route resolver takes watched addresses and answers
// in `resolvedAddr` (IPv4) and `resolvedIp6Addr` (IPv6). Requests and answers are both entities:
// whoever runs the services reacts to the first and writes the second.

#pragma once

#include <compare>
#include <string>
#include <vector>

#include "platform/entity/Entity.h"
#include "platform/values/FecTypes.h"
#include "platform/values/IpTypes.h"

namespace Vel {

/// A neighbour: an address on an interface.
struct NextHopKey {
   IntfId intf;
   IpGenAddr addr;
   U64 hash() const { return mixBits( intf.hash() + addr.hash() ); }
   friend auto operator<=>( const NextHopKey&, const NextHopKey& ) = default;
};
inline void appendText( std::string& out, const NextHopKey& key ) {
   out += joinText( key.addr, " ", key.intf );
}

/// What is known of a neighbour (RFC 826, RFC 4861): the rewrite of frames to it.
struct NextHopInfo {
   Bridging::VlanId vlanId = 0;
   IntfId l2Intf;
   MacAddr macAddr;
   bool resolved = false;
   friend bool operator==( const NextHopInfo&, const NextHopInfo& ) = default;
};
VEL_EXPORT void appendText( std::string& out, const NextHopInfo& info );

/// A VRF and an IPv4 address.
struct VrfAndIpAddr {
   L3::VrfName vrfName;
   IpGenAddr ipAddr;
   U64 hash() const { return mixBits( vrfName.hash() + ipAddr.hash() ); }
   friend bool operator==( const VrfAndIpAddr&, const VrfAndIpAddr& ) = default;
};
inline void appendText( std::string& out, const VrfAndIpAddr& key ) {
   out += joinText( key.vrfName, " ", key.ipAddr );
}

/// A VRF and an address of either family.
struct VrfAndIpGenAddr {
   L3::VrfName vrfName;
   IpGenAddr ipGenAddr;
   U64 hash() const { return mixBits( vrfName.hash() + ipGenAddr.hash() ); }
   friend bool operator==( const VrfAndIpGenAddr&, const VrfAndIpGenAddr& ) = default;
};
inline void appendText( std::string& out, const VrfAndIpGenAddr& key ) {
   out += joinText( key.vrfName, " ", key.ipGenAddr );
}

/// One next hop that the route resolver found for a watched address.
struct ResolvedNexthop {
   enum class Type : uint8_t { unknown = 0, attached = 1, viaRouter = 2 };
   IpGenAddr nextHop;
   IntfId intf;
   Type type = Type::unknown;
   NextHopInfo arp; ///< the neighbour entry of `nextHop`
   friend bool operator==( const ResolvedNexthop&, const ResolvedNexthop& ) = default;
};

/// What the route resolver says of a watched address: the route that covers it and its next hops.
struct ResolvedAddr {
   IpGenPrefix prefix;
   std::vector< ResolvedNexthop > nexthop;
   friend bool operator==( const ResolvedAddr&, const ResolvedAddr& ) = default;
};
VEL_EXPORT void appendText( std::string& out, const ResolvedAddr& resolved );

/// State of a FEC's adjacency in hardware.
enum class AdjHwState : uint8_t { unknown = 0, primaryActive = 1, backupActive = 2, down = 3 };
template<>
struct EnumNames< AdjHwState > {
   static constexpr std::array< std::pair< AdjHwState, std::string_view >, 4 > names{
      { { AdjHwState::unknown, "unknown" },
        { AdjHwState::primaryActive, "primaryActive" },
        { AdjHwState::backupActive, "backupActive" },
        { AdjHwState::down, "down" } } };
};
template<>
struct EnumNames< ResolvedNexthop::Type > {
   static constexpr std::array< std::pair< ResolvedNexthop::Type, std::string_view >, 3 > names{
      { { ResolvedNexthop::Type::unknown, "unknown" },
        { ResolvedNexthop::Type::attached, "attached" },
        { ResolvedNexthop::Type::viaRouter, "viaRouter" } } };
};

} // namespace Vel

namespace Fib {

/// A FEC id and the VRF that it is in.
struct GlobalFecId {
   Vel::VrfId vrfId = 0;
   FecId fecId;
   U64 hash() const { return Vel::mixBits( fecId.hash() + vrfId ); }
   friend auto operator<=>( const GlobalFecId&, const GlobalFecId& ) = default;
};
inline void appendText( std::string& out, const GlobalFecId& id ) {
   out += Vel::joinText( id.vrfId, ":", id.fecId );
}

} // namespace Fib

namespace Vel {

/// The hardware states of adjacencies, by FEC.
class VEL_EXPORT AdjHwStatus : public WatchedEntity {
 public:
   class Reactor : public ReactorOf< AdjHwStatus > {
    public:
      virtual void onAdjHwState( Fib::GlobalFecId ) {}
   };

   // clang-format off
   VEL_ENTITY( AdjHwStatus )
   VEL_COLLECTION( Hash, Fib::GlobalFecId, AdjHwState, adjHwState, onAdjHwState )
   VEL_ENTITY_END_IN_SOURCE
   // clang-format on
};

/// The L3 layer's status.
class VEL_EXPORT VelL3Status : public WatchedEntity {
 public:
   class Reactor : public ReactorOf< VelL3Status > {
    public:
      virtual void onAdjHwStatus() {}
      virtual void onNextHopInfo( NextHopKey ) {}
      virtual void onResolvedAddr( VrfAndIpAddr ) {}
      virtual void onResolvedIp6Addr( VrfAndIpGenAddr ) {}
      virtual void onVrfName( VrfId ) {}
   };

   // clang-format off
   VEL_ENTITY( VelL3Status )
   VEL_KEY( std::string, statusName )
   VEL_ATTRIBUTE( Ptr< AdjHwStatus >, adjHwStatus, onAdjHwStatus )
   VEL_COLLECTION( Hash, NextHopKey, NextHopInfo, nextHopInfo, onNextHopInfo )
   VEL_COLLECTION( Hash, VrfAndIpAddr, ResolvedAddr, resolvedAddr, onResolvedAddr )
   VEL_COLLECTION( Hash, VrfAndIpGenAddr, ResolvedAddr, resolvedIp6Addr, onResolvedIp6Addr )
   VEL_COLLECTION( Hash, VrfId, L3::VrfName, vrfName, onVrfName )
   VEL_ENTITY_END_IN_SOURCE
   // clang-format on

 public:
   explicit VelL3Status( std::string name ) : statusName_( std::move( name ) ) {}
};

/// One entry of the proactive ARP watcher.
struct ProactiveArpEntry {
   L3::VrfName vrfName;
   IpGenAddr addr;
   IntfId intf;
   U64 hash() const { return mixBits( vrfName.hash() + addr.hash() + intf.hash() ); }
   friend bool operator==( const ProactiveArpEntry&, const ProactiveArpEntry& ) = default;
};
inline void appendText( std::string& out, const ProactiveArpEntry& entry ) {
   out += joinText( entry.vrfName, " ", entry.addr, " ", entry.intf );
}

/// The proactive ARP next-hop watcher's entries: neighbours that it keeps resolved.
class VEL_EXPORT ProactiveArpNexthopSm : public WatchedEntity {
 public:
   class Reactor : public ReactorOf< ProactiveArpNexthopSm > {
    public:
      virtual void onEntry( ProactiveArpEntry ) {}
   };

   // clang-format off
   VEL_ENTITY( ProactiveArpNexthopSm )
   VEL_KEY( std::string, smName )
   VEL_SET( HashSet, ProactiveArpEntry, entry, onEntry )
   VEL_ENTITY_END_IN_SOURCE
   // clang-format on

 public:
   explicit ProactiveArpNexthopSm( std::string name ) : smName_( std::move( name ) ) {}
   void addEntry( const L3::VrfName& vrf, IpGenAddr addr, IntfId intf ) {
      entryIs( { vrf, addr, intf } );
   }
   void removeEntry( const L3::VrfName& vrf, IpGenAddr addr, IntfId intf ) {
      entryDel( { vrf, addr, intf } );
   }
};

/// IPv4 addresses that the route resolver watches.
class VEL_EXPORT RouteReactorConfig : public WatchedEntity {
 public:
   class Reactor : public ReactorOf< RouteReactorConfig > {
    public:
      virtual void onWatchedAddr( VrfAndIpAddr ) {}
   };

   // clang-format off
   VEL_ENTITY( RouteReactorConfig )
   VEL_KEY( std::string, configName )
   VEL_SET( HashSet, VrfAndIpAddr, watchedAddr, onWatchedAddr )
   VEL_ENTITY_END_IN_SOURCE
   // clang-format on

 public:
   explicit RouteReactorConfig( std::string name ) : configName_( std::move( name ) ) {}
   void addWatchedAddr( const VrfAndIpAddr& addr ) { watchedAddrIs( addr ); }
   void removeWatchedAddr( const VrfAndIpAddr& addr ) { watchedAddrDel( addr ); }
};

/// IPv6 addresses that the route resolver watches.
class VEL_EXPORT Route6ReactorConfig : public WatchedEntity {
 public:
   class Reactor : public ReactorOf< Route6ReactorConfig > {
    public:
      virtual void onWatchedIp6Addr( VrfAndIpGenAddr ) {}
   };

   // clang-format off
   VEL_ENTITY( Route6ReactorConfig )
   VEL_KEY( std::string, configName )
   VEL_SET( HashSet, VrfAndIpGenAddr, watchedIp6Addr, onWatchedIp6Addr )
   VEL_ENTITY_END_IN_SOURCE
   // clang-format on

 public:
   explicit Route6ReactorConfig( std::string name ) : configName_( std::move( name ) ) {}
   void addWatchedIp6Addr( const VrfAndIpGenAddr& addr ) { watchedIp6AddrIs( addr ); }
   void removeWatchedIp6Addr( const VrfAndIpGenAddr& addr ) { watchedIp6AddrDel( addr ); }
};

/// Start-up stages of the L3 layer.
class VEL_EXPORT L3StartupStagePrerequisitesStatus : public WatchedEntity {
 public:
   class Reactor : public ReactorOf< L3StartupStagePrerequisitesStatus > {
    public:
      virtual void onAdjSyncDone() {}
   };

   // clang-format off
   VEL_ENTITY( L3StartupStagePrerequisitesStatus )
   VEL_ATTRIBUTE( bool, adjSyncDone, onAdjSyncDone )
   VEL_ENTITY_END_IN_SOURCE
   // clang-format on
};

} // namespace Vel
