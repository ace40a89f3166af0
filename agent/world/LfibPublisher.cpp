#include "agent/world/LfibPublisher.h"

#include <new>

namespace Vel::Agent {

using Mpls::LfibWrite;

namespace {

constexpr size_t alignment = 64; // a route in one cache line
const std::vector< PlannedRoute > noRoutes;

/// Walks over two tables by key: `call( old, now )`, where one of the two may be null.
template< class F >
bool eachPair( const std::vector< PlannedRoute >& old, const std::vector< PlannedRoute >& now,
               const F& call ) {
   auto a = old.begin();
   auto b = now.begin();
   while ( a != old.end() || b != now.end() ) {
      const bool hasA = a != old.end() && ( b == now.end() || a->key <= b->key );
      const bool hasB = b != now.end() && ( a == old.end() || b->key <= a->key );
      if ( !call( hasA ? &*a : nullptr, hasB ? &*b : nullptr ) ) {
         return false;
      }
      a += hasA;
      b += hasB;
   }
   return true;
}

} // namespace

// calloc() takes zeroed pages from the system, which use no memory until they are written.
LfibPublisher::LfibPublisher( const LfibPlan& plan ) : plan_( plan ) {
   const Mpls::LfibCapacities capacities = plan.capacities();
   const size_t bytes = Mpls::LfibWriter::bytesNeeded( capacities );
   size_t space = bytes + alignment;
   memory_.reset( std::calloc( space, 1 ) ); // NOLINT: zeroed without being touched
   void* start = memory_.get();
   if ( start == nullptr || std::align( alignment, bytes, start, space ) == nullptr ) {
      throw std::bad_alloc();
   }
   region_ = { static_cast< std::byte* >( start ), bytes };
   writer_ = std::make_unique< Mpls::LfibWriter >( region_, capacities, Mpls::LfibMemory::zeroed );
   pumpEvery_ = capacities.ringEntries / 4;
}

std::optional< std::string > LfibPublisher::publish( size_t table, const Pump& pump ) {
   if ( !fault_.empty() ) {
      return fault_;
   }
   pump_ = pump;
   sincePump_ = 0;
   const std::vector< PlannedRoute >& old = table_ ? plan_.table( *table_ ).routes : noRoutes;
   const std::vector< PlannedRoute >& now = plan_.table( table ).routes;
   table_ = table;
   const bool fits =
      eachPair( old, now,
                [&]( const PlannedRoute* was, const PlannedRoute* is ) {
                   return !is || ( was && was->viaSet == is->viaSet ) ||
                          acquireViaSet( is->viaSet );
                } ) &&
      eachPair( old, now, [&]( const PlannedRoute* was, const PlannedRoute* is ) {
         return !is || ( was && was->viaSet == is->viaSet ) ||
                written( writer_->routeIs( { is->key, LfibPlan::viaSetKey( is->viaSet ) } ) );
      } );
   if ( !fits ) {
      fault_ = joinText( "the LFIB has no room for ", now.size(), " routes, ", plan_.viaSets(),
                         " via sets and ", plan_.vias(), " vias" );
      return fault_;
   }
   eachPair( old, now, [&]( const PlannedRoute* was, const PlannedRoute* is ) {
      return !was || is || written( writer_->routeDel( was->key ) );
   } );
   eachPair( old, now, [&]( const PlannedRoute* was, const PlannedRoute* is ) {
      if ( was && !( is && was->viaSet == is->viaSet ) ) {
         releaseViaSet( was->viaSet );
      }
      return true;
   } );
   writer_->readyIs( true );
   return std::nullopt;
}

// --- Via sets by the routes that use them, vias by the via sets.

U32& LfibPublisher::users( std::vector< U32 >& counts, U32 number ) const {
   if ( number >= counts.size() ) {
      counts.resize( size_t{ number } + 1 + number / 2 );
   }
   return counts[number];
}

bool LfibPublisher::acquireViaSet( U32 number ) {
   const Mpls::LfibViaSetKey key = LfibPlan::viaSetKey( number );
   Mpls::LfibViaSet viaSet( key );
   if ( number >= LfibPlan::extFecViaSet && number < LfibPlan::ipLookupViaSet ) {
      const U32 fec = number - LfibPlan::extFecViaSet;
      if ( users( extFecUsers_, fec )++ != 0 ) {
         return true;
      }
      const Mpls::LfibExtFecVia via{ { key.source(), key.viaType(), key.index() },
                                     Interfaces::externalFec( fec ) };
      viaSet.viaKeyAdd( via.key );
      return written( writer_->extFecViaIs( via ) ) && written( writer_->viaSetIs( viaSet ) );
   }
   if ( number >= LfibPlan::ipLookupViaSet ) {
      // There is one for each payload type at most, so they are never released.
      Mpls::LfibIpLookupVia via;
      via.key = { key.source(), key.viaType(), key.index() };
      via.vrfName = Mpls::LfibVrfName( L3::VrfName::defaultVrf().text() );
      via.payloadType = static_cast< Mpls::PayloadType >( key.index() );
      viaSet.viaKeyAdd( via.key );
      return written( writer_->ipLookupViaIs( via ) ) && written( writer_->viaSetIs( viaSet ) );
   }
   if ( users( viaSetUsers_, number )++ != 0 ) {
      return true;
   }
   const PlannedViaSet& planned = plan_.viaSet( number );
   viaSet.usableAsPrimaryViasIs( planned.usableAsPrimaryVias );
   if ( planned.backup != PlannedViaSet::none ) {
      if ( !acquireViaSet( planned.backup ) ) { // which has no backup of its own
         return false;
      }
      viaSet.backupViaSetKeyIs( LfibPlan::viaSetKey( planned.backup ) );
   }
   for ( const U32 via : planned.vias ) {
      if ( users( viaUsers_, via )++ == 0 && !written( writer_->mplsViaIs( plan_.via( via ) ) ) ) {
         return false;
      }
      viaSet.viaKeyAdd( LfibPlan::viaKey( via ) );
   }
   return written( writer_->viaSetIs( viaSet ) );
}

void LfibPublisher::releaseViaSet( U32 number ) {
   if ( number >= LfibPlan::ipLookupViaSet ) {
      return;
   }
   const Mpls::LfibViaSetKey key = LfibPlan::viaSetKey( number );
   const bool externalFec = number >= LfibPlan::extFecViaSet;
   U32& left = externalFec ? users( extFecUsers_, number - LfibPlan::extFecViaSet )
                           : users( viaSetUsers_, number );
   if ( --left != 0 ) {
      return;
   }
   written( writer_->viaSetDel( key ) );
   if ( externalFec ) {
      written( writer_->viaDel( { key.source(), key.viaType(), key.index() } ) );
      return;
   }
   const PlannedViaSet& planned = plan_.viaSet( number );
   for ( const U32 via : planned.vias ) {
      if ( --users( viaUsers_, via ) == 0 ) {
         written( writer_->viaDel( LfibPlan::viaKey( via ) ) );
      }
   }
   if ( planned.backup != PlannedViaSet::none ) {
      releaseViaSet( planned.backup );
   }
}

// Lets the readers catch up now and then; false when the region is full.
bool LfibPublisher::written( LfibWrite result ) {
   if ( pump_ && ++sincePump_ == pumpEvery_ ) {
      sincePump_ = 0;
      pump_();
   }
   return result == LfibWrite::changed || result == LfibWrite::unchanged;
}

} // namespace Vel::Agent
