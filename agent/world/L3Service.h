// L3Service: answers the library's questions about next hops from a table of neighbours.
//
// The library asks in two ways. A next hop with an interface is an entry of the proactive ARP
// watcher; the answer is the neighbour of that address on that interface. A next hop without one is
// a watched address of the route resolver; the answer is the neighbours of that address on whatever
// interface, as attached hosts (/32 or /128). Only questions are answered, and the answer is
// removed with its question. Hardware with FECs resolves next hops by itself: it calls `info`, and
// `onChange` tells it of every change. A change of a neighbour changes at once the answers that
// name it.
//
// Cost: a look-up for each question, and one for a changed neighbour; while its address is watched,
// one for each interface of the address.

#pragma once

#include <functional>
#include <map>
#include <memory>

#include "agent/import/NeighborTable.h"
#include "agent/world/Interfaces.h"
#include "platform/seams/L3Status.h"

namespace Vel::Agent {

class L3Service {
 public:
   L3Service( Interfaces& interfaces, Ptr< VelL3Status > status,
              const Ptr< ProactiveArpNexthopSm >& arp, const Ptr< RouteReactorConfig >& watched,
              const Ptr< Route6ReactorConfig >& watched6 );
   L3Service( const L3Service& ) = delete;
   L3Service& operator=( const L3Service& ) = delete;
   ~L3Service();

   /// Adds the neighbour, or replaces the one of that address on that interface.
   void neighborIs( const Neighbor& neighbor );
   /// False when there was none.
   bool neighborDel( const NextHopKey& key );
   /// The neighbour, or null.
   const NextHopInfo* neighbor( const NextHopKey& key ) const;
   /// The same as hardware sees it; not resolved when there is no such neighbour, or its interface
   /// is down.
   NextHopInfo info( const NextHopKey& key ) const;
   /// Which interfaces are up; all of them while this is not set.
   void linkUpIs( std::function< bool( IntfId ) > linkUp ) { linkUp_ = std::move( linkUp ); }
   /// Some interface may have gone down or come up.
   void linksChanged();
   /// Called after every change of a neighbour.
   void onChangeIs( std::function< void() > onChange ) { onChange_ = std::move( onChange ); }

 private:
   class ArpReactor;
   class WatchReactor;
   class Watch6Reactor;
   using ByInterface = std::map< IntfId, NextHopInfo >;

   void answer( const NextHopKey& key );
   void answer( const VrfAndIpAddr& watched );
   void answer6( const VrfAndIpGenAddr& watched );
   void neighborChanged( const NextHopKey& key );
   void answerWatched( const IpGenAddr& address );
   ResolvedAddr resolved( const IpGenAddr& address, uint8_t prefixLength ) const;

   Interfaces& interfaces_;
   Ptr< VelL3Status > status_;
   Hash< IpGenAddr, ByInterface > neighbor_;
   std::function< void() > onChange_;
   std::function< bool( IntfId ) > linkUp_;
   std::unique_ptr< ArpReactor > arpReactor_;
   std::unique_ptr< WatchReactor > watchReactor_;
   std::unique_ptr< Watch6Reactor > watch6Reactor_;
};

} // namespace Vel::Agent
