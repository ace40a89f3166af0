// LfibPublisher: writes label tables into an LFIB region, one complete state after the other.
//
// The publisher owns the region, which is large enough for all tables of the plan. Only the
// difference between a table and the one before it is written: first new vias and via sets, then
// routes that are new or have another via set; then the removal of routes, and last that of via
// sets and vias that no route uses. A backup is written before the via set that names it and
// removed after it. So no entry ever names a missing one, and a route whose vias did not change is
// not touched.
//
// Cost: about 60 ns for a route that changes; 3 microseconds, most of them for touching fresh
// memory, when it brings a via set of its own.

#pragma once

#include <cstddef>
#include <cstdlib>
#include <functional>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "agent/world/LfibPlan.h"
#include "platform/lfib/LfibRegion.h"

namespace Vel::Agent {

class LfibPublisher {
 public:
   /// Called after every few thousand writes, so that readers keep up with the ring of changes.
   using Pump = std::function< void() >;

   /// Lays a region out for what the plan holds now. The plan must outlive the publisher.
   explicit LfibPublisher( const LfibPlan& plan );

   std::span< const std::byte > region() const { return region_; }
   /// The number of the table that is published, once there is one.
   std::optional< size_t > table() const { return table_; }

   /// Publishes a table of the plan in place of the one that is there. The region is ready after
   /// the first. A sentence when the region has no room for it: the LFIB then stays between the two
   /// tables, and takes no other.
   [[nodiscard]] std::optional< std::string > publish( size_t table, const Pump& pump = {} );

 private:
   struct Free {
      void operator()( void* memory ) const { std::free( memory ); } // NOLINT: from calloc
   };

   bool acquireViaSet( U32 number );
   void releaseViaSet( U32 number );
   bool written( Mpls::LfibWrite result );
   U32& users( std::vector< U32 >& counts, U32 number ) const;

   const LfibPlan& plan_;
   std::unique_ptr< void, Free > memory_;
   std::span< std::byte > region_;
   std::unique_ptr< Mpls::LfibWriter > writer_;
   std::optional< size_t > table_;
   std::vector< U32 > viaSetUsers_; // routes and protected via sets, by via set number
   std::vector< U32 > extFecUsers_; // routes, by number of the external FEC
   std::vector< U32 > viaUsers_;    // via sets in the region, by via number
   std::string fault_;              // of the table that did not fit
   Pump pump_;
   size_t sincePump_ = 0;
   size_t pumpEvery_ = 0;
};

} // namespace Vel::Agent
