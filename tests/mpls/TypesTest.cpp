// The hardware programming model's values, and the texts that are read back.

#include <gtest/gtest.h>

#include "mpls/VelMplsTypes.h"

namespace Vel {
namespace {

TEST( MplsHwRoute, isNullOnlyWhenAllOfItIs ) {
   const auto adjacency = make< Mpls::Hardware::L2Adjacency >( U64{ 5 } );
   EXPECT_TRUE( !MplsHwRoute() );
   for ( const MplsHwRoute& route :
         { MplsHwRoute{ Mpls::RouteKey( 16 ), {}, 0 }, MplsHwRoute{ {}, adjacency, 0 },
           MplsHwRoute{ {}, {}, 1 } } ) {
      EXPECT_FALSE( !route ) << textOf( route );
   }
}

TEST( MplsHwRoute, parsesItsTextForm ) {
   auto adjacency = make< Mpls::Hardware::L2Adjacency >( U64{ 5 } );
   const auto resolver = []( std::string_view text, void* context ) {
      auto* const known = static_cast< Ptr< Mpls::Hardware::L2Adjacency >* >( context );
      return text == "5" ? *known : Ptr< Mpls::Hardware::L2Adjacency >();
   };
   for ( const MplsHwRoute& route :
         { MplsHwRoute{ Mpls::RouteKey( 16040 ), adjacency, 7 }, MplsHwRoute() } ) {
      const std::string text = textOf( route );
      EXPECT_EQ( MplsHwRoute::parse( text, resolver, &adjacency ), route ) << text;
   }
   EXPECT_EQ( textOf( MplsHwRoute{ Mpls::RouteKey( 16040 ), adjacency, 7 } ),
              "Value('Vel::MplsHwRoute', ** {'routeKey': 16040, 'l2Adjacency': 5, 'version': 7})" );
   for ( const char* const wrong :
         { "", "Value('Vel::MplsHwRoute', ** {'routeKey': 1, 'l2Adjacency': 6, 'version': 7})",
           "Value('Vel::MplsHwRoute', ** {'routeKey': x, 'l2Adjacency': 5, 'version': 7})",
           "Value('Vel::MplsHwRoute', ** {'routeKey': 1, 'l2Adjacency': 5, 'version': 7}) " } ) {
      EXPECT_FALSE( MplsHwRoute::parse( wrong, resolver, &adjacency ) ) << wrong;
   }
}

TEST( IpAddrIntfId, parsesItsTextForm ) {
   for ( const IpAddrIntfId& key :
         { IpAddrIntfId{ *IpGenAddr::parse( "10.0.1.2" ), IntfId::ordinary( 3 ) },
           IpAddrIntfId{ *IpGenAddr::parse( "fe80::1" ), IntfId() }, IpAddrIntfId() } ) {
      EXPECT_EQ( IpAddrIntfId::parse( textOf( key ) ), key ) << textOf( key );
   }
   EXPECT_FALSE( IpAddrIntfId::parse(
      "Value('Vel::IpAddrIntfId', ** {'ipGenAddr': 10.0.1, 'l3Intf': intf3})" ) );
}

TEST( MplsHwVrfStatus, countsMulticastChangesAndIsHeardOnlyOfRealOnes ) {
   struct Counting : MplsHwVrfStatus::Reactor {
      void onMcastHwIdSeq( U16 ) override { ++heard; }
      int heard = 0;
   } reactor;
   const auto status = make< MplsHwVrfStatus >( VrfId{ 0 } );
   reactor.notifierIs( status.get() );
   EXPECT_EQ( status->mcastHwIdSeqInc( 4, 0 ), 0U );
   EXPECT_TRUE( status->mcastHwIdSeqHas( 4 ) );
   EXPECT_EQ( reactor.heard, 0 );
   EXPECT_EQ( status->mcastHwIdSeqInc( 4, 0xFFFF'FFFF ), 0xFFFF'FFFFU );
   EXPECT_EQ( status->mcastHwIdSeqInc( 4, 2 ), 1U ); // wraps
   EXPECT_EQ( reactor.heard, 2 );
}

TEST( MplsHwVrfConfig, isHeardOfARouteOnlyWhenItChanges ) {
   struct Counting : MplsHwVrfConfig::Reactor {
      void onRoute( Mpls::RouteKey ) override { ++heard; }
      int heard = 0;
   } reactor;
   const auto config = make< MplsHwVrfConfig >( VrfId{ 0 } );
   reactor.notifierIs( config.get() );
   const MplsHwRoute route{ Mpls::RouteKey( 16 ), make< Mpls::Hardware::L2Adjacency >( U64{ 5 } ),
                            1 };
   config->routeIs( route );
   config->routeIs( route );
   config->routeIs( { route.routeKey, route.l2Adjacency, 2 } );
   EXPECT_EQ( reactor.heard, 2 );
}

} // namespace
} // namespace Vel
