#include <algorithm>
#include <stdexcept>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "platform/values/LfibTypes.h"

namespace VelTest {
namespace {

using Fib::AdjType;
using Fib::FecId;
using Fib::FecIdIntfId;
using Vel::AddressFamily;
using Vel::IntfId;
using Vel::IpGenAddr;
using Vel::MacAddr;
using Vel::MplsLabel;
using Vel::textOf;
using Vel::U32;
using Vel::U64;
using namespace Mpls;

// --- Addresses

TEST( IpGenAddrTest, readsAndWritesTheShortestForm ) {
   const std::pair< std::string_view, std::string_view > cases[] = {
      { "0.0.0.0", "0.0.0.0" },
      { "10.0.1.255", "10.0.1.255" },
      { "::", "::" },
      { "::1", "::1" },
      { "1::", "1::" },
      { "0:0:0:0:0:0:0:0", "::" },
      { "2001:DB8:0:0:8:800:200C:417A", "2001:db8::8:800:200c:417a" },
      { "2001:0db8::0001", "2001:db8::1" },
      { "2001:db8:0:1:1:1:1:1", "2001:db8:0:1:1:1:1:1" }, // a single zero group stays
      { "2001:db8::1:1:1:1:1", "2001:db8:0:1:1:1:1:1" },
      { "2001:0:0:1:0:0:0:1", "2001:0:0:1::1" },       // the longest run
      { "2001:db8:0:0:1:0:0:1", "2001:db8::1:0:0:1" }, // the first of equals
      { "1:2:3:4:5:6:7::", "1:2:3:4:5:6:7:0" },
      { "::2:3:4:5:6:7:8", "0:2:3:4:5:6:7:8" },
      { "1:2:3:4:5:6::", "1:2:3:4:5:6::" },
      { "::ffff:10.0.1.2", "::ffff:10.0.1.2" },
      { "::FFFF:a00:102", "::ffff:10.0.1.2" },
      { "::10.0.1.2", "::a00:102" },
      { "64:ff9b::192.0.2.33", "64:ff9b::c000:221" },
      { "1:2:3:4:5:6:7.8.9.10", "1:2:3:4:5:6:708:90a" },
      { "fe80::ffff:0:1", "fe80::ffff:0:1" },
   };
   for ( const auto& [text, shortest] : cases ) {
      const auto address = IpGenAddr::parse( text );
      ASSERT_TRUE( address ) << text;
      EXPECT_EQ( address->text(), shortest );
      EXPECT_EQ( IpGenAddr::parse( shortest ), address );
      const bool v6 = text.find( ':' ) != std::string_view::npos;
      EXPECT_EQ( address->af(), v6 ? AddressFamily::ipv6 : AddressFamily::ipv4 ) << text;
      if ( v6 ) {
         EXPECT_EQ( IpGenAddr::fromV6( address->v6() ), address ) << text;
      }
   }
   EXPECT_EQ( IpGenAddr::parse( "10.0.1.2" )->v4(), 0x0A000102U );
   EXPECT_EQ( IpGenAddr::parse( "1::ff" )->v6()[1], 1 );
   EXPECT_EQ( IpGenAddr::parse( "1::ff" )->v6()[15], 0xFF );
   EXPECT_EQ( IpGenAddr().text(), "" );
   EXPECT_NE( IpGenAddr::parse( "::" ), IpGenAddr::parse( "0.0.0.0" ) );
}

TEST( IpGenAddrTest, refusesWhatIsNoAddress ) {
   for ( const std::string_view text : { "",
                                         ".",
                                         "1.2.3",
                                         "1.2.3.",
                                         "1.2.3.4.5",
                                         "1.2.3.256",
                                         "1.2.3.04",
                                         "1.2.3.-4",
                                         "+1.2.3.4",
                                         "1.2.3.4 ",
                                         " 1.2.3.4",
                                         "1..2.3",
                                         "0x1.2.3.4",
                                         "a.b.c.d",
                                         ":",
                                         ":::",
                                         ":1",
                                         "1:",
                                         "1:::2",
                                         "1::2::3",
                                         "12345::",
                                         "g::",
                                         "1:2:3:4:5:6:7",
                                         "1:2:3:4:5:6:7:8:9",
                                         "1:2:3:4::5:6:7:8",
                                         "::1:2:3:4:5:6:7:8",
                                         "1:2:3:4:5:6:7:1.2.3.4",
                                         "1.2.3.4::",
                                         "::1.2.3.4:5",
                                         "::1.2.3",
                                         "fe80::1%eth0",
                                         "::/0",
                                         "[::1]",
                                         "1:2:3:4:5:6:7:",
                                         ":1:2:3:4:5:6:7" } ) {
      EXPECT_FALSE( IpGenAddr::parse( text ) ) << text;
   }
}

TEST( IpGenAddrTest, sortsByFamilyThenBytes ) {
   std::vector< IpGenAddr > sorted;
   for ( const char* text : { "1.2.3.4", "200.0.0.1", "::", "::1", "0:0:0:1::", "8000::" } ) {
      sorted.push_back( *IpGenAddr::parse( text ) );
   }
   EXPECT_TRUE( std::is_sorted( sorted.begin(), sorted.end() ) );
}

TEST( MacAddrTest, readsAndWrites ) {
   const auto mac = MacAddr::parse( "02:00:0A:ff:01:0c" );
   ASSERT_TRUE( mac );
   EXPECT_EQ( mac->value(), 0x02000AFF010CU );
   EXPECT_EQ( mac->text(), "02:00:0a:ff:01:0c" );
   EXPECT_EQ( MacAddr( mac->bytes() ), *mac );
   EXPECT_EQ( MacAddr().text(), "00:00:00:00:00:00" );
   for ( const std::string_view text :
         { "", "02:00:0a:ff:01", "02:00:0a:ff:01:0c:00", "2:0:a:ff:1:c", "02-00-0a-ff-01-0c",
           "02:00:0a:ff:01:0g", "02:00:0a:ff:01:0c:", "02000aff010c", "02:00:0a:ff:01: c" } ) {
      EXPECT_FALSE( MacAddr::parse( text ) ) << text;
   }
}

TEST( IpGenPrefixTest, writes ) {
   EXPECT_EQ( textOf( Vel::IpGenPrefix{ *IpGenAddr::parse( "10.0.0.0" ), 8 } ), "10.0.0.0/8" );
   EXPECT_EQ( textOf( Vel::IpGenPrefix{ *IpGenAddr::parse( "::" ), 0 } ), "::/0" );
   EXPECT_EQ( textOf( Vel::IpGenPrefix() ), "none" );
}

TEST( VrfNameTest, isItsText ) {
   std::string text = "red";
   const L3::VrfName red( text );
   text = "blue";
   const L3::VrfName blue( text );
   EXPECT_EQ( red.text(), "red" );
   EXPECT_EQ( red, L3::VrfName( "red" ) );
   EXPECT_EQ( red.hash(), L3::VrfName( "red" ).hash() );
   EXPECT_NE( red, blue );
   EXPECT_LT( blue, red ); // by text, whichever was made first
   EXPECT_EQ( L3::VrfName( "" ), L3::VrfName() );
   EXPECT_EQ( L3::VrfName().text(), "" );
}

// --- Interfaces and FECs

TEST( IntfIdTest, textAndInterfaceAreOneToOne ) {
   const FecId fec = FecId::fecIdForAdjType( AdjType::nexthopGroupAdj, 42 );
   const std::pair< std::string_view, IntfId > cases[] = {
      { "none", IntfId() },
      { "intf7", IntfId::ordinary( 7 ) },
      { "intf4294967295", IntfId::ordinary( 0xFFFFFFFF ) },
      { "nhg:3:42", FecId::fecIdToNexthopGroupIntfId( fec ) },
      { "fec:3:42", FecId::fecIdToHierarchicalIntfId( fec ) },
      { "fec:255:281474976710655", IntfId( IntfId::Kind::hierarchicalFec, ~U64{ 0 } ) },
      { "tunnel0", IntfId( IntfId::Kind::dynamicTunnel, 0 ) },
      { "portPw5", IntfId( IntfId::Kind::portPseudowire, 5 ) },
      { "vlanPw6", IntfId( IntfId::Kind::vlanPseudowire, 6 ) },
      { "kind0:1", IntfId::fromValue( 1 ) },
      { "kind255:72057594037927935", IntfId::fromValue( ~U64{ 0 } ) },
   };
   for ( const auto& [text, intf] : cases ) {
      EXPECT_EQ( textOf( intf ), text );
      EXPECT_EQ( Vel::intfIdParse( text ), intf ) << text;
   }
   for ( const std::string_view text :
         { "", "intf", "intf07", "intf-1", "intf7 ", "Intf7", "7", "intf72057594037927936", "nhg:3",
           "nhg:3:", "nhg:256:1", "nhg:3:281474976710656", "fec:3:42:1", "kind1:7", "kind0:0",
           "kind256:0", "eth0", "none0" } ) {
      EXPECT_FALSE( Vel::intfIdParse( text ) ) << text;
   }
}

TEST( FecIdTest, survivesTheWayThroughAnInterface ) {
   constexpr U64 maxIndex = ( U64{ 1 } << 48 ) - 1;
   for ( const AdjType type : { AdjType::nexthopGroupAdj, AdjType::mplsV4Adj, AdjType::mplsV6Adj,
                                AdjType::pwDecapAdj, AdjType::mplsMcastViaAdj } ) {
      for ( const U64 index : { U64{ 0 }, U64{ 1 }, maxIndex } ) {
         const FecId fec = FecId::fecIdForAdjType( type, index );
         EXPECT_EQ( fec.adjType(), type );
         EXPECT_EQ( fec.index(), index );
         const IntfId group = FecId::fecIdToNexthopGroupIntfId( fec );
         const IntfId hierarchical = FecId::fecIdToHierarchicalIntfId( fec );
         EXPECT_EQ( FecIdIntfId::intfIdToFecId( group ), fec );
         EXPECT_EQ( FecIdIntfId::intfIdToFecId( hierarchical ), fec );
         EXPECT_NE( group, hierarchical );
      }
   }
   EXPECT_EQ( FecIdIntfId::intfIdToFecId( IntfId::ordinary( 7 ) ), FecId() );
   EXPECT_FALSE( FecId( U64{ 24 } << 56 | 1 ).valid() );
   EXPECT_FALSE( FecId().valid() );
}

// --- Labels and route keys

TEST( RouteKeyTest, textAndKeyAreOneToOne ) {
   const std::pair< std::string_view, RouteKey > cases[] = {
      { "none", RouteKey() },
      { "0", RouteKey( 0 ) },
      { "1048575", RouteKey( 1048575 ) },
      { "16040/24001", { MplsLabel( 16040 ), MplsLabel( 24001 ) } },
      { "1048575/0/1048575", { MplsLabel( 1048575 ), MplsLabel( 0 ), MplsLabel( 1048575 ) } },
   };
   for ( const auto& [text, key] : cases ) {
      EXPECT_EQ( textOf( key ), text );
      EXPECT_EQ( routeKeyParse( text ), key ) << text;
      EXPECT_EQ( RouteKey::fromWord( key.word() ), key );
      EXPECT_EQ( key.singleLabel(), text != "none" && text.find( '/' ) == std::string_view::npos );
   }
   for ( const std::string_view text :
         { "", "1048576", "-1", "016", "16/", "/16", "1/2/3/4", "16//17", "16/none", "16 ", "label",
           "18446744073709551616" } ) {
      EXPECT_FALSE( routeKeyParse( text ) ) << text;
   }
}

TEST( RouteKeyTest, takesItsLabelsApart ) {
   const RouteKey key( MplsLabel( 1048575 ), MplsLabel( 5 ), MplsLabel( 1048574 ) );
   EXPECT_EQ( key.topLabel(), MplsLabel( 1048575 ) );
   EXPECT_EQ( key.label( 1 ), MplsLabel( 5 ) );
   EXPECT_EQ( key.label( 2 ), MplsLabel( 1048574 ) );
   EXPECT_TRUE( key.label( 3 ).null() );
   EXPECT_TRUE( RouteKey( 5 ).label( 1 ).null() );
   // What is no label is no index of a table of labels either.
   EXPECT_FALSE( RouteKey( MplsLabel::nullValue ).singleLabel() );
   EXPECT_FALSE( RouteKey( 0x1FFFFF ).singleLabel() );
   EXPECT_FALSE( RouteKey( 0xFFFFFFFF ).singleLabel() );
}

TEST( RouteKeyTest, sortsByLabels ) {
   std::vector< RouteKey > sorted;
   for ( const char* text : { "0", "16/17/18", "16/17", "16/18", "16", "17", "1048575", "none" } ) {
      sorted.push_back( *routeKeyParse( text ) );
   }
   EXPECT_TRUE( std::is_sorted( sorted.begin(), sorted.end() ) );
}

TEST( LabelStackTest, holdsSixteenLabels ) {
   LabelStack stack;
   EXPECT_EQ( textOf( stack ), "none" );
   for ( U32 i = 0; i < LabelStack::maxLabels; ++i ) {
      EXPECT_TRUE( stack.push( i ) );
   }
   EXPECT_FALSE( stack.push( 99 ) );
   EXPECT_EQ( stack.stackSize(), LabelStack::maxLabels );
   EXPECT_TRUE( stack.label( 16 ).null() );
   EXPECT_EQ( textOf( LabelStack{ 16040, 24001 } ), "16040/24001" );
   EXPECT_NE( LabelStack{}, LabelStack{ 0 } );
}

// --- LFIB keys and vias

TEST( LfibKeyTest, packsItsPartsInOrder ) {
   const LfibViaSetKey set( LfibSource::isisSr, viaTypeExternalFec, 0xFFFFFFFF,
                            LfibViaSetType::multicast );
   EXPECT_EQ( set.source(), LfibSource::isisSr );
   EXPECT_EQ( set.viaType(), viaTypeExternalFec );
   EXPECT_EQ( set.viaSetType(), LfibViaSetType::multicast );
   EXPECT_EQ( set.index(), 0xFFFFFFFFU );
   EXPECT_EQ( textOf( set ), "isisSr/viaTypeExternalFec/multicast/4294967295" );
   const LfibViaKey via( LfibSource::other, viaTypeMplsIp, 0xFFFFFFFF );
   EXPECT_EQ( via.source(), LfibSource::other );
   EXPECT_EQ( via.viaType(), viaTypeMplsIp );
   EXPECT_EQ( via.index(), 0xFFFFFFFFU );
   EXPECT_EQ( textOf( via ), "other/viaTypeMplsIp/4294967295" );
   // The key of all zeros is a key; the empty one is not it.
   EXPECT_FALSE( LfibViaSetKey( LfibSource::unknown, viaTypeUnknown, 0 ).empty() );
   EXPECT_FALSE( LfibViaKey( LfibSource::unknown, viaTypeUnknown, 0 ).empty() );
   EXPECT_EQ( textOf( LfibViaSetKey() ), "none" );
   EXPECT_EQ( textOf( LfibViaKey() ), "none" );

   using enum LfibSource;
   using enum LfibViaSetType;
   const std::vector< LfibViaSetKey > sorted{
      LfibViaSetKey(),
      { unknown, viaTypeUnknown, 0 },
      { staticConfig, viaTypeMplsIp, 0xFFFFFFFF, unicast },
      { staticConfig, viaTypeMplsIp, 0, multicast },
      { staticConfig, viaTypeExternalFec, 0, unicast },
      { ldp, viaTypeUnknown, 0, unicast },
   };
   EXPECT_TRUE( std::is_sorted( sorted.begin(), sorted.end() ) );
   EXPECT_LT( LfibViaKey( staticConfig, viaTypeExternalFec, 9 ),
              LfibViaKey( ldp, viaTypeUnknown, 0 ) );
}

TEST( LfibViaIndexRangeTest, refusesNumbersOutsideIt ) {
   EXPECT_EQ( LfibViaIndexRange( 127 ).value(), 127U );
   EXPECT_THROW( LfibViaIndexRange( 128 ), std::range_error );
   EXPECT_THROW( LfibViaIndexRange( 256 ), std::range_error ); // would be 0 in its byte
}

TEST( LfibViaSetTest, refusesThe129thVia ) {
   LfibViaSet set( LfibViaSetKey( LfibSource::ldp, viaTypeMplsIp, 1 ) );
   const auto key = []( U32 index ) { return LfibViaKey( LfibSource::ldp, viaTypeMplsIp, index ); };
   for ( U32 i = 0; i < LfibViaIndexRange::size; ++i ) {
      set.viaKeyAdd( key( i ) );
   }
   EXPECT_THROW( set.viaKeyAdd( key( 128 ) ), std::range_error );
   EXPECT_EQ( set.viaKeys(), 128U );
   LfibViaSet copy = set;
   EXPECT_EQ( copy.viaKey( 127 ), key( 127 ) );
   EXPECT_EQ( copy, set );
   copy.usableAsPrimaryViasIs( false );
   EXPECT_NE( copy, set );
   EXPECT_TRUE( LfibViaSet().viaKey( 0 ).empty() );
}

TEST( LfibViaTest, readsWellInATrace ) {
   LfibMplsVia via;
   EXPECT_EQ( textOf( via ), "none via none" );
   via.labelAction = MplsLabelAction::swap;
   via.labelStack = { 16040 };
   via.nextHop = *IpGenAddr::parse( "10.0.1.2" );
   via.intf = IntfId::ordinary( 3 );
   EXPECT_EQ( textOf( via ), "swap 16040 via 10.0.1.2 intf3" );
   via.nextHop = *IpGenAddr::parse( "2001:db8::2" );
   via.labelStack = { 16040, 24001 };
   via.intf = IntfId();
   EXPECT_EQ( textOf( via ), "swap 16040/24001 via 2001:db8::2" );
   via = LfibMplsVia();
   via.labelAction = MplsLabelAction::pop;
   via.payloadType = PayloadType::ipv4;
   via.ttlMode = TtlMode::uniform;
   via.intf = IntfId( IntfId::Kind::nexthopGroup, U64{ 3 } << 48 | 42 );
   EXPECT_EQ( textOf( via ), "pop ipv4 uniform via nhg:3:42" );
   const FecId fec = FecId::fecIdForAdjType( AdjType::mplsV4Adj, 5 );
   EXPECT_EQ( textOf( LfibExtFecVia{ LfibViaKey(), fec } ), "via fec:10:5" );
   EXPECT_EQ( textOf( LfibExtFecVia() ), "via none" );
}

} // namespace
} // namespace VelTest
