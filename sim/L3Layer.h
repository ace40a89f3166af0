// L3Layer: answers what the library asks of next hops, from a table of neighbours, at once or when
// it is told to.

#pragma once

#include <map>
#include <memory>
#include <vector>

#include "platform/seams/L3Status.h"

namespace Vel::Sim {

class L3Layer {
 public:
   explicit L3Layer( VelL3Status& status );
   L3Layer( const L3Layer& ) = delete;
   L3Layer& operator=( const L3Layer& ) = delete;
   ~L3Layer();

   void neighborIs( const NextHopKey& neighbor, MacAddr mac );
   void neighborDel( const NextHopKey& neighbor );
   /// The address is reached by the default route only.
   void byDefaultIs( const IpGenAddr& addr, bool byDefault );
   /// Answers wait for `answer` from now on.
   void slowIs( bool slow ) { slow_ = slow; }
   /// Gives at most so many of the answers that wait.
   void answer( size_t count );
   bool answersWait() const { return !waiting_.empty(); }
   /// The neighbour, or with an empty interface one of that address.
   NextHopInfo info( const NextHopKey& neighbor, bool allowDefault ) const;

   const Ptr< ProactiveArpNexthopSm > arp;
   const Ptr< RouteReactorConfig > resolver;
   const Ptr< Route6ReactorConfig > resolver6;

 private:
   class ArpReactor;
   class ResolverReactor;
   class Resolver6Reactor;

   void asked( const NextHopKey& key );
   void give( const NextHopKey& key );
   void giveWatched( const IpGenAddr& addr );

   VelL3Status& status_;
   std::map< NextHopKey, NextHopInfo > neighbor_;
   std::map< IpGenAddr, bool > byDefault_;
   bool slow_ = false;
   std::vector< NextHopKey > waiting_; // an empty interface: a watched address
   std::unique_ptr< ArpReactor > arpReactor_;
   std::unique_ptr< ResolverReactor > resolverReactor_;
   std::unique_ptr< Resolver6Reactor > resolver6Reactor_;
};

} // namespace Vel::Sim
