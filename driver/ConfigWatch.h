// ConfigWatch: hears what the library writes for one VRF, checks it and queues it.
//
// The checks are those that the contract gives a driver the right to rely on, judged write by write
// in the order of the writes, while the writer is still on the stack:
//
//    - an L2 adjacency is written before a route points at it and removed after the last route has
//      left it;
//    - the version of a route, and of an adjacency, grows with every write while it is there;
//    - a written route has an adjacency, and a written adjacency has L2 vias.
//
// A breach is a fault of the library. It is recorded as a sentence and is fatal unless the owner
// wants to see it.
//
// Cost: a count for each adjacency and 16 bytes for each route, one look-up in both for each write.

#pragma once

#include <string>
#include <vector>

#include "driver/Operation.h"

namespace Vel::Driver {

/// The library's breaches of the contract.
class BreachLog {
 public:
   static constexpr size_t maxTexts = 1000; ///< the rest is counted

   explicit BreachLog( bool fatal ) : fatal_( fatal ) {}
   void add( std::string text );
   const std::vector< std::string >& texts() const { return texts_; }
   U64 count() const { return count_; }

 private:
   bool fatal_;
   U64 count_ = 0;
   std::vector< std::string > texts_;
};

class ConfigWatch : public MplsHwVrfConfig::Reactor {
 public:
   /// Queues what the configuration holds already: routing, adjacencies, then routes.
   ConfigWatch( const MplsHwVrfConfig& config, OperationQueue& queue, BreachLog& breaches );

   void onMplsRouting() override;
   void onL2Adjacency( const Ptr< Mpls::Hardware::L2Adjacency >& adjacency ) override;
   void onRoute( Mpls::RouteKey key ) override;

   const MplsHwVrfConfig& config() const { return *notifier(); }

 private:
   /// An adjacency that the configuration holds, or that routes still point at.
   struct Adjacency {
      Ptr< HwAdjacency > hwAdjacency; ///< what operations name
      U32 version = 0;
      bool present = false;
      U64 routes = 0;
   };
   /// A route as it was last written.
   struct Route {
      Adjacency* adjacency = nullptr;
      U64 version = 0;
   };

   void adjacencyWritten( const Ptr< Mpls::Hardware::L2Adjacency >& adjacency, U32 version );
   void adjacencyRemoved( const Ptr< Mpls::Hardware::L2Adjacency >& adjacency );
   void routeWritten( const MplsHwRoute& route );
   void routeRemoved( Mpls::RouteKey key );
   Adjacency& adjacencyIs( const Ptr< Mpls::Hardware::L2Adjacency >& adjacency );
   Adjacency* adjacencyOf( const MplsHwRoute& route );
   void leave( Adjacency* adjacency );
   void breach( const std::string& subject, const std::string& what );

   OperationQueue& queue_;
   BreachLog& breaches_;
   Hash< Ptr< Mpls::Hardware::L2Adjacency >, Adjacency > adjacency_; // never moves an element
   LabelIndexed< Mpls::RouteKey, Route > route_;
};

} // namespace Vel::Driver
