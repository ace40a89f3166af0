#include "driver/ConfigWatch.h"

namespace Vel::Driver {

using Mpls::Hardware::L2Adjacency;

namespace {

std::string subjectOf( const Ptr< L2Adjacency >& adjacency ) {
   return joinText( "L2 adjacency ", adjacency );
}
std::string subjectOf( Mpls::RouteKey key ) {
   return joinText( "route ", key );
}

} // namespace

void BreachLog::add( std::string text ) {
   ++count_;
   VEL_ASSERT_TEXT( !fatal_, "the hardware configuration keeps the driver contract", text,
                    "SoftwareSwitch", std::string() );
   if ( texts_.size() < maxTexts ) {
      texts_.push_back( std::move( text ) );
   }
}

ConfigWatch::ConfigWatch( const MplsHwVrfConfig& config, OperationQueue& queue,
                          BreachLog& breaches )
   : queue_( queue ), breaches_( breaches ) {
   notifierIs( &config );
   if ( config.mplsRouting() ) {
      onMplsRouting();
   }
   for ( const auto& [adjacency, version] : config.l2Adjacency() ) {
      adjacencyWritten( adjacency, version );
   }
   for ( const auto& [key, route] : config.route() ) {
      routeWritten( route );
   }
}

void ConfigWatch::onMplsRouting() {
   queue_.push( { .kind = OperationKind::mplsRouting,
                  .vrfId = config().vrfId(),
                  .number = config().mplsRouting() } );
}

void ConfigWatch::onL2Adjacency( const Ptr< L2Adjacency >& adjacency ) {
   if ( const U32* const version = config().l2Adjacency().find( adjacency ) ) {
      adjacencyWritten( adjacency, *version );
   } else {
      adjacencyRemoved( adjacency );
   }
}

void ConfigWatch::onRoute( Mpls::RouteKey key ) {
   if ( const MplsHwRoute* const route = config().route().find( key ) ) {
      routeWritten( *route );
   } else {
      routeRemoved( key );
   }
}

void ConfigWatch::adjacencyWritten( const Ptr< L2Adjacency >& adjacency, U32 version ) {
   if ( !adjacency ) {
      breach( "L2 adjacency", "written without an entity" );
      return; // there is nothing to give to hardware
   }
   Adjacency& known = adjacencyIs( adjacency );
   if ( known.present && version <= known.version ) {
      breach( subjectOf( adjacency ),
              joinText( "version ", version, " written over version ", known.version ) );
   }
   if ( adjacency->l2ViaSet().empty() ) {
      breach( subjectOf( adjacency ), joinText( "version ", version, " written without L2 vias" ) );
   }
   known.version = version;
   known.present = true;
   queue_.pushAdjacency( { .kind = OperationKind::adjacencyWritten,
                           .vrfId = config().vrfId(),
                           .number = version,
                           .adjacency = known.hwAdjacency } );
}

void ConfigWatch::adjacencyRemoved( const Ptr< L2Adjacency >& adjacency ) {
   Adjacency* const known = adjacency_.find( adjacency );
   if ( known == nullptr ) {
      return; // a null adjacency, which was a breach when it was written
   }
   if ( known->routes != 0 ) {
      breach( subjectOf( adjacency ),
              joinText( "removed while ", known->routes, " routes point at it" ) );
   }
   queue_.push( { .kind = OperationKind::adjacencyRemoved,
                  .vrfId = config().vrfId(),
                  .adjacency = known->hwAdjacency } );
   known->present = false;
   if ( known->routes == 0 ) {
      adjacency_.erase( adjacency );
   }
}

void ConfigWatch::routeWritten( const MplsHwRoute& route ) {
   Adjacency* const adjacency = adjacencyOf( route );
   const auto [known, made] = route_.emplace( route.routeKey );
   if ( !made && route.version <= known->version ) {
      breach( subjectOf( route.routeKey ),
              joinText( "version ", route.version, " written over version ", known->version ) );
   }
   known->version = route.version;
   if ( known->adjacency != adjacency ) {
      leave( known->adjacency );
      known->adjacency = adjacency;
      if ( adjacency ) {
         ++adjacency->routes;
      }
   }
   queue_.push( { .kind = OperationKind::routeWritten,
                  .vrfId = config().vrfId(),
                  .number = route.version,
                  .routeKey = route.routeKey,
                  .adjacency = adjacency ? adjacency->hwAdjacency : nullptr } );
}

void ConfigWatch::routeRemoved( Mpls::RouteKey key ) {
   if ( const Route* const known = route_.find( key ) ) {
      leave( known->adjacency );
      route_.erase( key );
   }
   queue_.push(
      { .kind = OperationKind::routeRemoved, .vrfId = config().vrfId(), .routeKey = key } );
}

ConfigWatch::Adjacency& ConfigWatch::adjacencyIs( const Ptr< L2Adjacency >& adjacency ) {
   Adjacency& known = *adjacency_.emplace( adjacency ).first;
   if ( !known.hwAdjacency ) {
      known.hwAdjacency = make< HwAdjacency >( adjacency );
   }
   return known;
}

// The record of the route's adjacency; null for a route without one.
ConfigWatch::Adjacency* ConfigWatch::adjacencyOf( const MplsHwRoute& route ) {
   if ( !route.l2Adjacency ) {
      breach( subjectOf( route.routeKey ),
              joinText( "version ", route.version, " written without an L2 adjacency" ) );
      return nullptr;
   }
   Adjacency* const known = &adjacencyIs( route.l2Adjacency );
   if ( !known->present ) {
      breach( subjectOf( route.routeKey ),
              joinText( "version ", route.version, " points at ", subjectOf( route.l2Adjacency ),
                        ", which is not in the configuration" ) );
   }
   return known;
}

void ConfigWatch::leave( Adjacency* adjacency ) {
   if ( adjacency && --adjacency->routes == 0 && !adjacency->present ) {
      const Ptr< L2Adjacency > key = adjacency->hwAdjacency->l2Adjacency();
      adjacency_.erase( key );
   }
}

void ConfigWatch::breach( const std::string& subject, const std::string& what ) {
   breaches_.add( joinText( "vrf ", config().vrfId(), ": ", subject, ": ", what ) );
}

} // namespace Vel::Driver
