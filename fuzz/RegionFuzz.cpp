// Region: the LFIB's reader on memory that is written while it reads. What it gives is of the key
// that was asked for, and polling ends.

#include <vector>

#include "fuzz/HostileRegion.h"
#include "platform/lfib/LfibStatus.h"

namespace Vel::Fuzz {

using namespace Mpls;

namespace {

/// What this key leads to in any table.
void lookUp( const LfibStatus& lfib, LfibViaKey key ) {
   const auto is = [key]( const auto& via ) { return via.key.empty() || via.key == key; };
   VEL_ASSERT( is( lfib.lfibMplsVia( key ) ) );
   VEL_ASSERT( is( lfib.lfibExtFecVia( key ) ) );
   VEL_ASSERT( is( lfib.lfibPwVia( key ) ) );
   VEL_ASSERT( is( lfib.lfibVlanVia( key ) ) );
   VEL_ASSERT( is( lfib.lfibEvpnVlanAwareVia( key ) ) );
   VEL_ASSERT( is( lfib.lfibEvpnVlanFloodVia( key ) ) );
   VEL_ASSERT( is( lfib.lfibEvpnVlanAwareFloodVia( key ) ) );
   const LfibIpLookupVia ipLookup = lfib.lfibIpLookupVia( key );
   VEL_ASSERT( is( ipLookup ) );
   VEL_ASSERT( ipLookup.vrfName.vrfName().text().size() <= LfibVrfName::maxLength );
}

void lookUp( const LfibStatus& lfib, LfibViaSetKey key ) {
   const LfibViaSet viaSet = lfib.lfibViaSet( key );
   VEL_ASSERT( viaSet.null() || viaSet.key() == key );
   VEL_ASSERT( viaSet.viaKeys() <= LfibViaIndexRange::size );
   for ( U32 i = 0; i < viaSet.viaKeys(); ++i ) {
      lookUp( lfib, viaSet.viaKey( i ) );
   }
}

void lookUp( const LfibStatus& lfib, RouteKey key ) {
   const LfibRoute route = lfib.lfibRoute( key );
   VEL_ASSERT( !route || route.routeKey == key );
   lookUp( lfib, route.viaSetKey );
}

/// Follows what it hears of into the region, which meanwhile may become another.
class Follower : public LfibStatus::Reactor {
 public:
   Follower( LfibStatus& lfib, HostileRegion& region, Input& input )
      : region_( region ), input_( input ) {
      notifierIs( &lfib );
   }
   void onLfibRoute( RouteKey key ) override { follow( key ); }
   void onLfibViaSet( LfibViaSetKey key ) override { follow( key ); }
   void onLfibVia( LfibViaKey key ) override { follow( key ); }

 private:
   template< class Key >
   void follow( Key key ) {
      if ( input_.below( 4 ) == 3 ) {
         region_.step( input_ );
      }
      lookUp( *notifier(), key );
   }

   HostileRegion& region_;
   Input& input_;
};

void walk( const LfibStatus& lfib ) {
   lfib.lfibRouteEach( [&]( const LfibRoute& route ) { lookUp( lfib, route.viaSetKey ); },
                       LfibWalk::skip );
   lfib.lfibViaSetEach( [&]( const LfibViaSet& viaSet ) { lookUp( lfib, viaSet.key() ); } );
}

} // namespace

void fuzzRegion( ByteView bytes ) {
   Input input( bytes );
   std::vector< std::byte > memory( LfibWriter::bytesNeeded( HostileRegion::capacities ) );
   HostileRegion region( memory );
   const auto lfib = make< LfibStatus >( "lfib", std::span< const std::byte >( memory ) );
   const Follower follower( *lfib, region, input );
   while ( !input.empty() ) {
      switch ( input.below( 8 ) ) {
      case 0:
         lfib->poll( input.byte() );
         break;
      case 1:
         lookUp( *lfib, input.routeKey() );
         break;
      case 2:
         walk( *lfib );
         break;
      default:
         region.step( input );
         break;
      }
   }
   for ( int polls = 0; lfib->pollPending(); ++polls ) {
      VEL_ASSERT( polls < 1000 );
      lfib->poll( 64 );
   }
   walk( *lfib );
}

} // namespace Vel::Fuzz
