#include "platform/lfib/LfibTracking.h"

#include <algorithm>

namespace Mpls {

LfibTrackingStatus::LfibTrackingStatus( std::string name )
   : statusName_( std::move( name ) ), links_( std::make_shared< Vel::RouteKeyLinks >() ) {}

void LfibTrackingStatus::viaSetKeyOfRouteIs( RouteKey key, LfibViaSetKey viaSetKey ) {
   if ( auto* const old = static_cast< Group* >( links_->groupOf( key ) ) ) {
      if ( old->viaSetKey == viaSetKey ) {
         return;
      }
      old->erase( key );
      if ( old->empty() ) {
         groups_.erase( old->viaSetKey );
      }
   }
   if ( viaSetKey.empty() ) {
      return;
   }
   const auto [group, made] = groups_.emplace( viaSetKey );
   if ( made ) {
      *group = std::make_unique< Group >( links_, viaSetKey );
   }
   ( *group )->insert( key );
}

// The routes of a via set may be the whole table: their number is what a reader wants.
void LfibTrackingStatus::visitGroups( Vel::AttributeVisitor& visitor ) const {
   if ( !visitor.collectionBegin( "viaSetKeyToRouteKeySet", groups_.size() ) ) {
      return;
   }
   for ( const auto& [key, group] : groups_ ) {
      visitor.element( Vel::textOf( key ), Vel::attributeValue( group->size() ) );
   }
   visitor.collectionEnd();
}

LfibTrackingSm::LfibTrackingSm( std::string name, Vel::Ptr< const LfibStatus > lfibStatus,
                                Vel::Ptr< LfibTrackingStatus > lfibTrackingStatus,
                                LfibTrackingMode mode )
   : smName_( std::move( name ) ),
     mode_( mode ),
     lfib_( std::move( lfibStatus ) ),
     tracking_( std::move( lfibTrackingStatus ) ),
     reactor_( *this ) {
   VEL_ASSERT( lfib_ && tracking_ );
   reactor_.notifierIs( lfib_.get() );
   viasOfViaSet_.reserve( lfib_->lfibViaSets() );
   viaSetsOfVia_.reserve( lfib_->lfibVias() );
   // Routes first: in route mode a via set queues the routes that use it, and these are queued
   // already. One element that does not hold must not keep the others out.
   lfib_->lfibRouteEach( [this]( const LfibRoute& route ) { routeIs( route.routeKey, route ); },
                         LfibWalk::skip );
   lfib_->lfibViaSetEach(
      [this]( const LfibViaSet& viaSet ) {
         viasOfViaSetIs( viaSet.key(), viaSet );
         backlogIs( viaSet.key() );
      },
      LfibWalk::skip );
}

LfibTrackingSm::~LfibTrackingSm() = default;

// Of what cannot be read, what was read before stands: it is announced again when it can.
void LfibTrackingSm::handleRoute( RouteKey key ) {
   const LfibRoute route = lfib_->lfibRoute( key );
   if ( !!route || !lfib_->unread() ) {
      routeIs( key, route );
   }
}

void LfibTrackingSm::routeIs( RouteKey key, const LfibRoute& route ) {
   tracking_->viaSetKeyOfRouteIs( key, route.viaSetKey );
   if ( mode_ == LfibTrackingMode::routes ) {
      tracking_->routeKeyBacklogIs( key );
   }
}

void LfibTrackingSm::handleViaSet( LfibViaSetKey key ) {
   const LfibViaSet viaSet = lfib_->lfibViaSet( key );
   if ( !viaSet.null() || !lfib_->unread() ) {
      viasOfViaSetIs( key, viaSet );
   }
   backlogIs( key );
}

void LfibTrackingSm::handleVia( LfibViaKey key ) {
   if ( const ViaUsers* const users = viaSetsOfVia_.find( key ) ) {
      users->forEach( [this]( LfibViaSetKey user ) { backlogIs( user ); } );
   }
}

void LfibTrackingSm::backlogIs( LfibViaSetKey key ) {
   if ( mode_ == LfibTrackingMode::viaSets ) {
      tracking_->viaSetKeyBacklogIs( key );
      return;
   }
   if ( const Vel::RouteKeyGroup* const routes = tracking_->viaSetKeyToRouteKeySet( key ) ) {
      for ( const RouteKey routeKey : *routes ) {
         tracking_->routeKeyBacklogIs( routeKey );
      }
   }
}

void LfibTrackingSm::ViaUsers::insert( LfibViaSetKey key ) {
   if ( !more_ && ( one_.empty() || one_ == key ) ) {
      one_ = key;
      return;
   }
   if ( !more_ ) {
      more_ = std::make_unique< Vel::HashSet< LfibViaSetKey > >();
      more_->insert( one_ );
   }
   more_->insert( key );
}

void LfibTrackingSm::ViaUsers::erase( LfibViaSetKey key ) {
   if ( more_ ) {
      more_->erase( key );
   } else if ( one_ == key ) {
      one_ = LfibViaSetKey();
   }
}

void LfibTrackingSm::viasOfViaSetIs( LfibViaSetKey key, const LfibViaSet& viaSet ) {
   std::vector< LfibViaKey > vias;
   vias.reserve( viaSet.viaKeys() );
   for ( U32 i = 0; i < viaSet.viaKeys(); ++i ) {
      vias.push_back( viaSet.viaKey( i ) );
   }
   std::ranges::sort( vias );
   vias.erase( std::unique( vias.begin(), vias.end() ), vias.end() ); // weights repeat a via

   const std::vector< LfibViaKey >& before = viasOfViaSet_.lookup( key );
   if ( before == vias ) {
      return;
   }
   for ( const LfibViaKey via : before ) {
      ViaUsers* const users = viaSetsOfVia_.find( via );
      users->erase( key );
      if ( users->empty() ) {
         viaSetsOfVia_.erase( via );
      }
   }
   for ( const LfibViaKey via : vias ) {
      viaSetsOfVia_.emplace( via ).first->insert( key );
   }
   if ( vias.empty() ) {
      viasOfViaSet_.erase( key );
   } else {
      *viasOfViaSet_.emplace( key ).first = std::move( vias );
   }
}

} // namespace Mpls
