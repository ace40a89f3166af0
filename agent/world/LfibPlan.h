// LfibPlan: what all label tables of a run become in the LFIB.
//
// A table is taken in as a list of route keys and via set numbers; after that the table itself is
// no longer needed. Vias and via sets are interned over all tables: routes with equal vias share
// one via set, whatever the order of the vias in the file, and equal vias are one via. So the
// capacities of the region are known before anything is published, and a later table differs from
// an earlier one exactly where a route's via set number differs.
//
// A via without an interface can be programmed only where the hardware layer resolves next hops by
// itself. Where it does not, the plan fills the interfaces in, as routing software does: with
// `neighborsAre`, such a via becomes one via for each interface on which the address is known.
//
// A route with backup vias has a second via set, which the first one names. Definitions of other
// agents are planned with each table; they go to the hardware layer and not into the LFIB.
//
// A route that this router ends instead of forwarding it (the importer says so, or every via pops
// and hands the payload to the router itself: no next hop, interface "lo") gets the via set of an
// IP look-up in the default VRF, with the reason why it is ignored. All other vias are planned as
// they are: the library decides which of them can be programmed.
//
// Cost: 16 bytes a route and table; about 160 bytes a distinct via and 100 a distinct via set.

#pragma once

#include <map>
#include <memory>
#include <set>
#include <string>
#include <unordered_map>
#include <vector>

#include "agent/import/LabelTable.h"
#include "agent/import/NeighborTable.h"
#include "agent/world/Interfaces.h"
#include "platform/lfib/LfibLayout.h"
#include "platform/seams/FecTables.h"
#include "platform/values/LfibTypes.h"

namespace Vel::Agent {

/// A route and the number of its via set.
struct PlannedRoute {
   Mpls::RouteKey key;
   U32 viaSet = 0;
};

/// What a via set consists of.
struct PlannedViaSet {
   static constexpr U32 none = 0xFFFF'FFFF;

   std::vector< U32 > vias; ///< their numbers, ordered by next hop, interface and labels
   U32 backup = none;       ///< number of the via set that protects it
   bool usableAsPrimaryVias = true;

   friend bool operator==( const PlannedViaSet&, const PlannedViaSet& ) = default;
};

/// Another agent's FEC or tunnel: what stands for it, and its ways out.
struct PlannedForeign {
   IntfId intf;
   std::vector< Fib::FecVia > vias;
};

/// One complete table.
struct PlannedTable {
   /// A route that is not forwarded, and the number of the reason.
   struct Ignored {
      Mpls::RouteKey key;
      U32 reason = 0;
   };

   std::vector< PlannedRoute > routes; ///< ascending by key
   std::vector< Ignored > ignored;     ///< ascending by key
   std::vector< PlannedForeign > foreign;
};

class LfibPlan {
 public:
   /// Via set numbers from here on stand for an IP look-up; the payload type is the rest.
   static constexpr U32 ipLookupViaSet = 0x8000'0000;
   /// ... and from here on for an external FEC; its number is the rest.
   static constexpr U32 extFecViaSet = 0x4000'0000;

   LfibPlan() : interfaces_( std::make_unique< Interfaces >() ) {}

   /// Fills interfaces in from these neighbours too, in the tables that are added from here on.
   void neighborsAre( const NeighborTable& neighbors );

   /// Takes a table in and returns its number, from 0.
   size_t add( const LabelTable& table );
   size_t tables() const { return tables_.size(); }
   const PlannedTable& table( size_t number ) const { return *tables_[number]; }
   /// Why the route of that table is ignored; empty when it is not.
   const std::string& ignoredReason( size_t table, Mpls::RouteKey key ) const;

   /// Distinct vias and via sets, numbered from 0.
   size_t vias() const { return vias_.size(); }
   size_t viaSets() const { return viaSets_.size(); }
   /// The via, its key included.
   Mpls::LfibMplsVia via( U32 number ) const;
   /// A via set of vias, whose number stands for no IP look-up and no external FEC.
   const PlannedViaSet& viaSet( U32 number ) const { return *viaSets_[number]; }

   static Mpls::LfibViaKey viaKey( U32 number );
   static Mpls::LfibViaSetKey viaSetKey( U32 number );

   /// The capacities of a region that takes the tables one after the other. The routes of a table
   /// are added before those of the one before it are removed.
   Mpls::LfibCapacities capacities() const;

   Interfaces& interfaces() const { return *interfaces_; }

 private:
   struct ViaHash {
      size_t operator()( const Mpls::LfibMplsVia& via ) const;
   };
   struct ViaSetHash {
      size_t operator()( const PlannedViaSet& viaSet ) const;
   };

   U32 viaSetOf( const LabelRoute& route );
   U32 viaSetOf( const std::vector< LabelVia >& vias, U32 backup, bool usableAsPrimaryVias );
   template< class F >
   void eachWithInterface( const std::vector< LabelVia >& vias, const F& call );
   Mpls::LfibMplsVia contentOf( const LabelVia& via );
   U32 numberOf( const Mpls::LfibMplsVia& content );
   void addForeign( PlannedTable& planned, const ForeignFec& foreign );
   bool viaBefore( U32 left, U32 right ) const;
   U32 ignoredViaSet( PlannedTable& planned, Mpls::RouteKey key, const LabelRoute& route );
   U32 reasonOf( const std::string& text );
   void makeRoomFor( const PlannedTable& added );

   std::unique_ptr< Interfaces > interfaces_; // does not move with the plan
   // The maps own the contents, which do not move.
   std::unordered_map< Mpls::LfibMplsVia, U32, ViaHash > viaNumbers_;
   std::vector< const Mpls::LfibMplsVia* > vias_; // without their keys
   std::unordered_map< PlannedViaSet, U32, ViaSetHash > viaSetNumbers_;
   std::vector< const PlannedViaSet* > viaSets_;
   std::map< std::string, std::set< std::string > > interfacesOf_; // by address
   std::unordered_map< std::string, U32 > reasonNumbers_;
   std::vector< const std::string* > reasons_;
   std::vector< std::unique_ptr< PlannedTable > > tables_;
   PlannedViaSet scratch_;
   size_t externalFecs_ = 0; // the largest number in use
   size_t routesAtOnce_ = 0; // the most, of a single label
   size_t deepRoutesAtOnce_ = 0;
};

} // namespace Vel::Agent
