#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <functional>
#include <map>
#include <set>
#include <thread>
#include <utility>
#include <vector>

#include "tests/Seed.h"
#include "tests/platform/LfibFixtures.h"

namespace Mpls {
namespace {

using namespace LfibTest;

TEST( LfibRegion, valuesComeBackAsTheyWereWritten ) {
   Region region;
   LfibMplsVia via;
   via.key = viaKey( 3 );
   via.intf = IntfId::ordinary( 7 );
   via.labelAction = MplsLabelAction::push;
   via.payloadType = PayloadType::autoDetect;
   via.ttlMode = TtlMode::pipe;
   for ( const auto& nextHop : { IpGenAddr(), IpGenAddr::fromV4( 0xC0A8'0001 ),
                                 *IpGenAddr::parse( "2001:db8::1234:5678:9abc:def0" ) } ) {
      via.nextHop = nextHop;
      for ( size_t labels = 0; labels <= LabelStack::maxLabels; ++labels ) {
         via.labelStack = LabelStack();
         for ( U32 i = 0; i < labels; ++i ) {
            via.labelStack.push( 0xFFFFF - i );
         }
         ASSERT_EQ( region.writer.mplsViaIs( via ), LfibWrite::changed );
         ASSERT_EQ( region.writer.mplsViaIs( via ), LfibWrite::unchanged );
         ASSERT_EQ( region.reader.mplsVia( via.key ), via ) << labels << nextHop.text();
      }
   }

   for ( const size_t vias : { size_t{ 0 }, size_t{ 1 }, LfibViaIndexRange::size } ) {
      LfibViaSet viaSet = viaSetOf( 9, vias, 50 );
      viaSet.backupViaSetKeyIs( viaSetKey( 10 ) );
      viaSet.usableAsPrimaryViasIs( vias == 1 );
      ASSERT_EQ( region.writer.viaSetIs( viaSet ), LfibWrite::changed );
      ASSERT_EQ( region.reader.viaSet( viaSet.key() ), viaSet );
   }

   const LfibRoute deepest{ RouteKey( MplsLabel( 0 ), MplsLabel( 0 ), MplsLabel( 0 ) ),
                            viaSetKey( 1 ), 5 };
   const LfibIpLookupVia lookup{ viaKey( 1, viaTypeIpLookup ),
                                 LfibVrfName( std::string( 63, 'v' ) ), PayloadType::ipv6 };
   const LfibExtFecVia extFec{ viaKey( 2, viaTypeExternalFec ),
                               Fib::FecId( 0x0A00'0000'0000'0001 ) };
   const LfibPwVia pw{ viaKey( 4, viaTypeMplsPseudowire ),
                       IntfId( IntfId::Kind::vlanPseudowire, 9 ) };
   const LfibVlanVia vlan{ viaKey( 5, viaTypeVlan ), 4094 };
   const LfibVlanVia flood{ viaKey( 5, viaTypeEvpnVlanFlood ), 17 };
   const LfibEvpnVlanAwareVia aware{ viaKey( 6, viaTypeEvpnVlanAware ),
                                     LfibDot1qTagToVlanKey( 77 ) };
   const LfibEvpnVlanAwareVia awareFlood{ viaKey( 6, viaTypeEvpnVlanAwareFlood ),
                                          LfibDot1qTagToVlanKey( 78 ) };
   EXPECT_EQ( region.writer.routeIs( deepest ), LfibWrite::changed );
   EXPECT_EQ( region.writer.ipLookupViaIs( lookup ), LfibWrite::changed );
   EXPECT_EQ( region.writer.extFecViaIs( extFec ), LfibWrite::changed );
   EXPECT_EQ( region.writer.pwViaIs( pw ), LfibWrite::changed );
   EXPECT_EQ( region.writer.vlanViaIs( vlan ), LfibWrite::changed );
   EXPECT_EQ( region.writer.evpnVlanFloodViaIs( flood ), LfibWrite::changed );
   EXPECT_EQ( region.writer.evpnVlanAwareViaIs( aware ), LfibWrite::changed );
   EXPECT_EQ( region.writer.evpnVlanAwareFloodViaIs( awareFlood ), LfibWrite::changed );
   EXPECT_EQ( region.reader.route( deepest.routeKey ), deepest );
   EXPECT_EQ( region.reader.ipLookupVia( lookup.key ), lookup );
   EXPECT_EQ( region.reader.extFecVia( extFec.key ), extFec );
   EXPECT_EQ( region.reader.pwVia( pw.key ), pw );
   EXPECT_EQ( region.reader.vlanVia( vlan.key ), vlan );
   EXPECT_EQ( region.reader.evpnVlanFloodVia( flood.key ), flood );
   EXPECT_EQ( region.reader.evpnVlanAwareVia( aware.key ), aware );
   EXPECT_EQ( region.reader.evpnVlanAwareFloodVia( awareFlood.key ), awareFlood );
   EXPECT_EQ( region.reader.vias(), 8 );

   const LfibDot1qTagToVlanKey map( 77 );
   EXPECT_EQ( region.writer.dot1qTagToVlanIs( map, 0, Bridging::VlanIdOrNone() ),
              LfibWrite::changed );
   EXPECT_EQ( region.writer.dot1qTagToVlanIs( map, 4095, Bridging::VlanIdOrNone( 0 ) ),
              LfibWrite::changed );
   EXPECT_TRUE( region.reader.dot1qTagToVlanCollHas( map ) );
   EXPECT_EQ( region.reader.dot1qTagToVlan( map, 0 ), Bridging::VlanIdOrNone() );
   EXPECT_EQ( region.reader.dot1qTagToVlan( map, 4095 ), Bridging::VlanIdOrNone( 0 ) );
   EXPECT_EQ( region.reader.dot1qTagToVlan( map, 1 ), std::nullopt );
   EXPECT_EQ( region.writer.dot1qTagToVlanCollDel( map ), LfibWrite::changed );
   EXPECT_EQ( region.reader.count( LfibTable::dot1q ), 0 );

   for ( const LfibViaKey key : { via.key, lookup.key, extFec.key, pw.key, vlan.key, flood.key,
                                  aware.key, awareFlood.key } ) {
      EXPECT_EQ( region.writer.viaDel( key ), LfibWrite::changed );
      EXPECT_FALSE( region.reader.viaHas( key ) );
   }
   EXPECT_TRUE( region.corruptions.empty() );
}

TEST( LfibRegion, refusesWhatDoesNotBelong ) {
   Region region;
   EXPECT_EQ( region.writer.routeIs( {} ), LfibWrite::refused );
   EXPECT_EQ( region.writer.viaSetIs( {} ), LfibWrite::refused );
   EXPECT_EQ( region.writer.vlanViaIs( { viaKey( 1, viaTypeEvpnVlanFlood ), 5 } ),
              LfibWrite::refused );
   EXPECT_EQ( region.writer.viaDel( viaKey( 1, viaTypeEvpnEthernetSegment ) ), LfibWrite::refused );
   EXPECT_EQ( region.writer.dot1qTagToVlanIs( LfibDot1qTagToVlanKey( 1 ), 4096, {} ),
              LfibWrite::refused );
   LfibMplsVia via = mplsViaOf( 1, 1 );
   for ( const auto& [action, label] :
         { std::pair( MplsLabelAction::swap, MplsLabel::implicitNull ),
           std::pair( MplsLabelAction::push, MplsLabel::implicitNull ),
           std::pair( MplsLabelAction::swap, MplsLabel::nullValue ) } ) {
      via.labelAction = action;
      via.labelStack = { label };
      EXPECT_EQ( region.writer.mplsViaIs( via ), LfibWrite::refused ) << label;
   }
   EXPECT_EQ( region.writer.routeIs( { RouteKey( 16 ), {}, 0 } ), LfibWrite::refused );
   EXPECT_EQ( region.reader.ring().head(), 0 );
}

/// Random writes in tables that are often full, against maps. Every change is on the ring, and
/// nothing else is.
TEST( LfibRegion, churnAgreesWithMap ) {
   Random random( VelTest::testSeed() );
   for ( int round = 0; round < 4; ++round ) {
      SCOPED_TRACE( round );
      Region region;
      // Labels one table length apart: many keys share a home.
      const auto anyKey = [&] {
         const U32 label = random.below( 4 ) * 0x10000 + random.below( 10 );
         return random.below( 3 ) ? RouteKey( label )
                                  : RouteKey( MplsLabel( 5 ), MplsLabel( label ) );
      };
      std::map< RouteKey, LfibRoute > model;
      U64 changes = 0;
      for ( U32 step = 0; step < 20'000; ++step ) {
         const RouteKey key = anyKey();
         LfibWrite expected = LfibWrite::unchanged;
         if ( random.oneIn( 1 + step / 4000 % 3 ) ) {
            const LfibRoute route{ key, viaSetKey( random.below( 3 ) ), random.below( 2 ) };
            const auto sameShape = std::ranges::count_if( model, [&]( const auto& element ) {
               return element.first.singleLabel() == key.singleLabel();
            } );
            const auto found = model.find( key );
            if ( found == model.end() && sameShape == ( key.singleLabel() ? 24 : 12 ) ) {
               expected = LfibWrite::full;
            } else if ( found == model.end() || found->second != route ) {
               expected = LfibWrite::changed;
               model[key] = route;
            }
            ASSERT_EQ( region.writer.routeIs( route ), expected ) << step;
         } else {
            expected = model.erase( key ) ? LfibWrite::changed : LfibWrite::unchanged;
            ASSERT_EQ( region.writer.routeDel( key ), expected ) << step;
         }
         changes += expected == LfibWrite::changed;
         ASSERT_EQ( region.reader.ring().head(), changes );
         const RouteKey probe = anyKey();
         const auto found = model.find( probe );
         ASSERT_EQ( region.reader.route( probe ),
                    found == model.end() ? LfibRoute() : found->second )
            << step;
         if ( step % 100 == 0 ) {
            std::map< RouteKey, LfibRoute > walked;
            ASSERT_TRUE( region.reader.routeEach( [&]( const LfibRoute& route ) {
               EXPECT_TRUE( walked.emplace( route.routeKey, route ).second );
            } ) );
            ASSERT_EQ( walked, model );
            ASSERT_EQ( region.reader.routes(), model.size() );
         }
      }
      EXPECT_TRUE( region.corruptions.empty() );
      for ( const auto& [key, route] : model ) {
         region.writer.routeDel( key );
      }
      for ( U32 slot = 0; slot < region.reader.slots( LfibTable::route ); ++slot ) {
         ASSERT_EQ( *region.slotAt( LfibTable::route, slot ) & LfibSlotHead::stateMask, 0 )
            << "a look-up steps over nothing in an empty table";
      }
   }
}

TEST( LfibRegion, ringHoldsOneChangeLessThanItsSize ) {
   Region region;
   std::array< LfibChange, 32 > changes;
   size_t count = 0;
   const auto add = [&]( U32 label ) {
      region.writer.routeIs( { RouteKey( label ), viaSetKey( 1 ), 0 } );
   };
   for ( U32 label = 0; label < 15; ++label ) {
      add( label );
   }
   EXPECT_EQ( region.reader.ring().read( 0, changes, count ), LfibRingRead::good );
   ASSERT_EQ( count, 15 );
   EXPECT_EQ( changes[14].keyWord, RouteKey( 14 ).word() );
   add( 15 ); // its successor would be written over the first one
   EXPECT_EQ( region.reader.ring().read( 0, changes, count ), LfibRingRead::overrun );
   EXPECT_EQ( region.reader.ring().read( 1, changes, count ), LfibRingRead::good );
   EXPECT_EQ( region.reader.ring().read( 17, changes, count ), LfibRingRead::overrun );
}

/// With room for all labels a look-up never goes beyond the label's own slot, and walks go by
/// label.
TEST( LfibRegion, fullLabelSpaceNeedsNoProbing ) {
   LfibCapacities all = tiny;
   all.routes = 1U << 20;
   Region region( all );
   Random random( VelTest::testSeed() );
   std::set< U32 > labels{ 0, MplsLabel::maxValue };
   while ( labels.size() < 1000 ) {
      labels.insert( random.below( 1U << 20 ) );
   }
   for ( const U32 label : labels ) {
      ASSERT_EQ( region.writer.routeIs( { RouteKey( label ), viaSetKey( 1 ), label } ),
                 LfibWrite::changed );
   }
   EXPECT_EQ( region.view( LfibTable::route ).reach(), 0 );
   std::vector< U32 > walked;
   EXPECT_TRUE( region.reader.routeEach(
      [&]( const LfibRoute& route ) { walked.push_back( route.metric ); } ) );
   EXPECT_TRUE( std::ranges::equal( walked, labels ) );
}

TEST( LfibRegion, damagedSlotReadsNullAndOthersGoOn ) {
   const auto flip = []( size_t word, int bit ) {
      return [=]( Region& region, LfibTable table, U32 slot ) {
         region.slotAt( table, slot )[word] ^= U64{ 1 } << bit;
      };
   };
   using Inflict = std::function< void( Region&, LfibTable, U32 ) >;
   struct Case {
      const char* name;
      LfibTable table;
      LfibCorruptionReason reason;
      Inflict inflict;
   };
   const auto route = LfibTable::route;
   const auto viaSet = LfibTable::viaSet;
   const auto via = LfibTable::mplsVia;
   const auto check = LfibCorruptionReason::check;
   const auto value = LfibCorruptionReason::value;
   const std::vector< Case > cases{
      { "route: state becomes removed", route, check,
        []( Region& r, LfibTable t, U32 s ) { r.slotAt( t, s )[0] ^= 3; } },
      { "route: state becomes empty", route, check,
        []( Region& r, LfibTable t, U32 s ) { r.slotAt( t, s )[0] ^= 1; } },
      { "route: length", route, check, flip( 0, 2 ) },
      { "route: sequence", route, check, flip( 0, 20 ) },
      { "route: check", route, check, flip( 0, 63 ) },
      { "route: key", route, check, flip( 1, 44 ) },
      { "route: via set key", route, check, flip( 2, 0 ) },
      { "route: metric", route, check, flip( 3, 31 ) },
      { "via set: last reference", viaSet, check, flip( 7, 63 ) },
      { "via set: more references than it can have", viaSet, LfibCorruptionReason::length,
        []( Region& r, LfibTable t, U32 s ) {
           U64& head = r.slotAt( t, s )[0];
           head = ( head & ~( U64{ 0xFF } << 2 ) ) | U64{ 3 + 129 } << 2;
        } },
      { "via set: written by halves", viaSet, LfibCorruptionReason::busy,
        []( Region& r, LfibTable t, U32 s ) { r.slotAt( t, s )[0] |= LfibSlotHead::busy; } },
      { "via set: whole, no references' flags", viaSet, value,
        []( Region& r, LfibTable t, U32 s ) {
           r.forge( t, s, { viaSetKey( 3 ).word(), 0, 2 } );
        } },
      { "via set: whole, too short", viaSet, value,
        []( Region& r, LfibTable t, U32 s ) {
           r.forge( t, s, { viaSetKey( 3 ).word(), 0 } );
        } },
      { "via: whole, 17 labels", via, value,
        []( Region& r, LfibTable t, U32 s ) {
           std::vector< U64 > words{ viaKey( 3 ).word(), 0, 0, 0, U64{ 17 } << 32 };
           words.resize( 14 );
           r.forge( t, s, words );
        } },
      { "via: whole, no such address family", via, value,
        []( Region& r, LfibTable t, U32 s ) {
           r.forge( t, s, { viaKey( 3 ).word(), 0, 0, 0, 5 } );
        } },
      { "via: whole, no such label action", via, value,
        []( Region& r, LfibTable t, U32 s ) {
           r.forge( t, s, { viaKey( 3 ).word(), 0, 0, 0, 4U << 8 } );
        } },
      { "via: whole, swap to implicit null", via, value,
        []( Region& r, LfibTable t, U32 s ) {
           r.forge( t, s, { viaKey( 3 ).word(), 0, 0, 0, 2U << 8 | U64{ 1 } << 32, 3 } );
        } },
      { "via: whole, a label of 21 bits", via, value,
        []( Region& r, LfibTable t, U32 s ) {
           r.forge( t, s, { viaKey( 3 ).word(), 0, 0, 0, 3U << 8 | U64{ 1 } << 32, 1U << 20 } );
        } },
      { "via: whole, an IPv4 next hop of 33 bits", via, value,
        []( Region& r, LfibTable t, U32 s ) {
           r.forge( t, s, { viaKey( 3 ).word(), 0, U64{ 1 } << 32, 0, 4 } );
        } },
      { "route: whole, without a via set", route, value,
        []( Region& r, LfibTable t, U32 s ) {
           r.forge( t, s, { RouteKey( 300 ).word(), 0, 1 } );
        } },
      { "route: whole, a metric of 33 bits", route, value,
        []( Region& r, LfibTable t, U32 s ) {
           r.forge( t, s, { RouteKey( 300 ).word(), viaSetKey( 3 ).word(), U64{ 1 } << 32 } );
        } },
      { "via set: whole, names a null via", viaSet, value,
        []( Region& r, LfibTable t, U32 s ) {
           r.forge( t, s, { viaSetKey( 3 ).word(), 0, 1, viaKey( 1 ).word(), 0 } );
        } },
      { "via set: whole, its backup is no via set", viaSet, value,
        []( Region& r, LfibTable t, U32 s ) {
           r.forge( t, s, { viaSetKey( 3 ).word(), 5, 1, viaKey( 1 ).word() } );
        } },
   };
   for ( const Case& one : cases ) {
      SCOPED_TRACE( one.name );
      Region region;
      for ( U32 i = 1; i <= 10; ++i ) {
         region.writer.routeIs( { RouteKey( 100 * i ), viaSetKey( i ), i } );
         region.writer.viaSetIs( viaSetOf( i, 4, i ) );
         region.writer.mplsViaIs( mplsViaOf( i, i ) );
      }
      const U64 key = one.table == route    ? RouteKey( 300 ).word()
                      : one.table == viaSet ? viaSetKey( 3 ).word()
                                            : viaKey( 3 ).word();
      const U32 slot = region.slotOf( one.table, key );
      ASSERT_NE( slot, LfibTableView::none );
      one.inflict( region, one.table, slot );

      size_t null = 0;
      for ( U32 i = 1; i <= 10; ++i ) {
         const LfibRoute r = region.reader.route( RouteKey( 100 * i ) );
         const LfibViaSet s = region.reader.viaSet( viaSetKey( i ) );
         const LfibMplsVia v = region.reader.mplsVia( viaKey( i ) );
         null += !r + s.null() + v.null();
         EXPECT_TRUE( !r || r.metric == i );
         EXPECT_TRUE( s.null() || s == viaSetOf( i, 4, i ) );
         EXPECT_TRUE( v.null() || v.nextHop.v4() == i );
      }
      EXPECT_EQ( null, 1 );
      ASSERT_FALSE( region.corruptions.empty() );
      for ( const LfibCorruption& corruption : region.corruptions ) {
         EXPECT_EQ( corruption.reason, one.reason );
         EXPECT_EQ( corruption.table, lfibTableShapes[static_cast< size_t >( one.table )].name );
         EXPECT_EQ( corruption.slot, slot );
      }

      size_t walked = 0;
      const auto count = [&]( const auto& ) { ++walked; };
      const auto walk = [&]( LfibWalk how ) {
         walked = 0;
         return one.table == route ? region.reader.routeEach( count, how )
                                   : region.reader.viaSetEach( count, how );
      };
      if ( one.table != via ) {
         EXPECT_FALSE( walk( LfibWalk::stop ) );
         EXPECT_LT( walked, 10 );
         EXPECT_FALSE( walk( LfibWalk::skip ) );
         EXPECT_EQ( walked, 9 );
      }

      // Writing the key again mends the table.
      region.corruptions.clear();
      region.writer.routeIs( { RouteKey( 300 ), viaSetKey( 3 ), 3 } );
      region.writer.viaSetIs( viaSetOf( 3, 4, 3 ) );
      region.writer.mplsViaIs( mplsViaOf( 3, 3 ) );
      EXPECT_EQ( region.reader.route( RouteKey( 300 ) ).metric, 3 );
      EXPECT_EQ( region.reader.viaSet( viaSetKey( 3 ) ), viaSetOf( 3, 4, 3 ) );
      EXPECT_EQ( region.reader.mplsVia( viaKey( 3 ) ).nextHop.v4(), 3 );
      EXPECT_TRUE( walk( LfibWalk::stop ) );
      EXPECT_TRUE( region.corruptions.empty() );
   }
}

TEST( LfibRegion, walkNoticesMisplacedAndMissingElements ) {
   Region region;
   region.writer.routeIs( { RouteKey( 100 ), viaSetKey( 1 ), 1 } );
   const auto ignore = []( const LfibRoute& ) {};
   const U32 slot = region.slotOf( LfibTable::route, RouteKey( 100 ).word() );
   const U32 astray = slot ^ 8;
   region.forge( LfibTable::route, astray, { RouteKey( 100 ).word(), viaSetKey( 2 ).word(), 2 } );
   EXPECT_EQ( region.reader.route( RouteKey( 100 ) ).metric, 1 );
   EXPECT_FALSE( region.reader.routeEach( ignore ) );
   ASSERT_EQ( region.corruptions.size(), 1 );
   EXPECT_EQ( region.corruptions[0].reason, LfibCorruptionReason::place );
   EXPECT_EQ( region.corruptions[0].slot, astray );

   region.corruptions.clear();
   std::fill_n( region.slotAt( LfibTable::route, astray ), 4, 0 );
   std::fill_n( region.slotAt( LfibTable::route, slot ), 4, 0 );
   EXPECT_FALSE( region.reader.routeEach( ignore ) );
   ASSERT_EQ( region.corruptions.size(), 1 );
   EXPECT_EQ( region.corruptions[0].reason, LfibCorruptionReason::count );
}

TEST( LfibRegion, headerThatDoesNotHoldIsRefused ) {
   Region good;
   const size_t size = good.bytes().size();
   const auto refused = [&]( std::span< std::byte > bytes ) {
      LfibReader reader( bytes );
      LfibWriter writer( bytes );
      EXPECT_EQ( reader.attached(), writer.attached() );
      EXPECT_EQ( reader.attached(), reader.reason().empty() );
      EXPECT_TRUE( !reader.route( RouteKey( 1 ) ) );
      EXPECT_EQ( reader.routes(), 0 );
      return !reader.attached();
   };
   EXPECT_FALSE( refused( good.bytes() ) );
   EXPECT_TRUE( refused( {} ) );
   EXPECT_TRUE( refused( good.bytes().first( 64 ) ) );
   EXPECT_TRUE( refused( good.bytes().first( size - 8 ) ) );
   EXPECT_TRUE( refused( good.bytes().subspan( 4, size - 8 ) ) );
   for ( U64 word = 0; word < LfibHeader::places + 3 * lfibTables + 3; ++word ) {
      if ( word > LfibHeader::check && word < LfibHeader::places ) {
         continue; // unused
      }
      for ( const int bit : { 0, 17, 63 } ) {
         good.words[word] ^= U64{ 1 } << bit;
         EXPECT_TRUE( refused( good.bytes() ) ) << word << " " << bit;
         good.words[word] ^= U64{ 1 } << bit;
      }
   }
   // A publisher that means it: the check holds, and the routes lie behind the end.
   LfibLayout beyond = good.layout;
   beyond.table[0].slots = beyond.words - 4;
   beyond.write( good.words.data() );
   EXPECT_TRUE( refused( good.bytes() ) );

   std::vector< std::byte > little( 100 );
   EXPECT_FALSE( LfibWriter( little, tiny ).attached() );
}

TEST( LfibRegion, nextPublisherTakesOverWhatTheLastOneLeft ) {
   Region region;
   for ( U32 i = 0; i < 20; ++i ) {
      region.writer.routeIs( { RouteKey( 16 + i ), viaSetKey( 1 ), i } );
   }
   region.writer.readyIs( true );
   // The publisher ends while it writes label 20.
   const U32 slot = region.slotOf( LfibTable::route, RouteKey( 20 ).word() );
   region.slotAt( LfibTable::route, slot )[0] |= LfibSlotHead::busy;
   EXPECT_TRUE( !region.reader.route( RouteKey( 20 ) ) );
   EXPECT_FALSE( region.reader.stale() );

   LfibWriter next( region.bytes() );
   ASSERT_TRUE( next.attached() );
   EXPECT_TRUE( region.reader.stale() );
   EXPECT_EQ( next.routes(), 19 );
   ASSERT_EQ( next.dropped().size(), 1 );
   EXPECT_EQ( next.dropped()[0].slot, slot );
   EXPECT_TRUE( next.ready() );
   region.corruptions.clear();
   size_t walked = 0;
   EXPECT_TRUE( region.reader.routeEach( [&]( const LfibRoute& ) { ++walked; } ) );
   EXPECT_EQ( walked, 19 );
   EXPECT_EQ( next.routeIs( { RouteKey( 16 ), viaSetKey( 1 ), 0 } ), LfibWrite::unchanged );
   EXPECT_EQ( next.routeIs( { RouteKey( 20 ), viaSetKey( 1 ), 4 } ), LfibWrite::changed );
   EXPECT_EQ( next.routeDel( RouteKey( 35 ) ), LfibWrite::changed );
   EXPECT_EQ( region.reader.routes(), 19 );
   EXPECT_TRUE( region.corruptions.empty() );
}

/// Wherever a writer is killed in the middle of a write: readers have the element as it was to be,
/// nobody waits, and the next publisher writes it to the end.
TEST( LfibRegion, aWriteThatWasCutShortIsTakenForDone ) {
   for ( const bool removal : { false, true } ) {
      for ( size_t done = 0; done <= 7; ++done ) {
         SCOPED_TRACE( done );
         Region region;
         region.writer.viaSetIs( viaSetOf( 1, 4, 10 ) );
         region.writer.viaSetIs( viaSetOf( 2, 4, 20 ) );
         const U32 slot = region.slotOf( LfibTable::viaSet, viaSetKey( 1 ).word() );
         const U64* const at = region.slotAt( LfibTable::viaSet, slot );
         const std::vector< U64 > before( at, at + 8 );
         const LfibViaSet meant = removal ? LfibViaSet() : viaSetOf( 1, 4, 30 );
         removal ? region.writer.viaSetDel( viaSetKey( 1 ) ) : region.writer.viaSetIs( meant );
         region.killedAfter( LfibTable::viaSet, slot, before, removal ? 0 : done );
         EXPECT_EQ( region.reader.viaSet( viaSetKey( 1 ) ), meant );
         EXPECT_FALSE( region.reader.unread() );
         LfibWriter next( region.bytes() );
         EXPECT_EQ( next.droppedCount(), 0 );
         EXPECT_EQ( next.viaSets(), removal ? 1 : 2 );
         EXPECT_EQ( region.reader.viaSet( viaSetKey( 1 ) ), meant );
         EXPECT_EQ( region.reader.viaSet( viaSetKey( 2 ) ), viaSetOf( 2, 4, 20 ) );
         EXPECT_EQ( next.viaSetIs( viaSetOf( 1, 4, 40 ) ), LfibWrite::changed );
         EXPECT_EQ( region.reader.viaSet( viaSetKey( 1 ) ), viaSetOf( 1, 4, 40 ) );
         EXPECT_TRUE( region.corruptions.empty() );
      }
   }
}

/// Slots that stay busy, which no writer leaves behind, cost all look-ups together little.
TEST( LfibRegion, aSlotThatStaysBusyStallsNobody ) {
   Region region;
   region.writer.viaSetIs( viaSetOf( 1, 4, 10 ) );
   region.writer.viaSetIs( viaSetOf( 2, 4, 10 ) );
   const U32 slot = region.slotOf( LfibTable::viaSet, viaSetKey( 1 ).word() );
   U64* const at = region.slotAt( LfibTable::viaSet, slot );
   const U64 head = std::exchange( at[0], at[0] | LfibSlotHead::busy );
   const auto begin = std::chrono::steady_clock::now();
   for ( int i = 0; i < 1000; ++i ) {
      ASSERT_TRUE( region.reader.viaSet( viaSetKey( 1 ) ).null() );
      ASSERT_TRUE( region.reader.unread() );
   }
   EXPECT_LT( std::chrono::steady_clock::now() - begin, std::chrono::milliseconds( 100 ) );
   EXPECT_EQ( region.corruptions.size(), 1 ); // not once a look-up
   ASSERT_FALSE( region.reader.viaSet( viaSetKey( 2 ) ).null() );
   ASSERT_TRUE( region.reader.viaSet( viaSetKey( 5 ) ).null() );
   EXPECT_FALSE( region.reader.unread() ) << "absent";
   at[0] = head;
   EXPECT_EQ( region.reader.viaSet( viaSetKey( 1 ) ), viaSetOf( 1, 4, 10 ) );
}

/// A writer and a reader at once: every value that is read is one that was written, and nothing
/// counts as corrupt.
TEST( LfibRegion, readersNeverSeeHalfAnElement ) {
   Region region;
   std::atomic< bool > stop = false;
   std::thread writing( [&] {
      Random random( 11 );
      for ( int step = 0; step < 200'000; ++step ) {
         const U32 label = random.below( 30 );
         const U32 version = random.below( 1000 );
         switch ( random.below( 4 ) ) {
         case 0:
            region.writer.routeDel( RouteKey( label ) );
            break;
         case 1:
            region.writer.viaSetIs( viaSetOf( label % 8, 1 + version % 128, version ) );
            break;
         default:
            region.writer.routeIs(
               { RouteKey( label ), viaSetKey( version ), version * 7 + label } );
         }
      }
      stop = true;
   } );
   Random random( 12 );
   U64 position = 0;
   size_t reads = 0;
   size_t wrong = 0;
   const auto whole = [&]( const LfibRoute& route ) {
      ++reads;
      wrong += route.metric != route.viaSetKey.index() * 7 + route.routeKey.topLabel().value();
   };
   while ( !stop ) {
      for ( int i = 0; i < 50; ++i ) {
         if ( const LfibRoute route = region.reader.route( RouteKey( random.below( 30 ) ) );
              !!route ) {
            whole( route );
         }
         const LfibViaSet viaSet = region.reader.viaSet( viaSetKey( random.below( 8 ) ) );
         if ( viaSet.null() ) {
            continue;
         }
         const U32 version = viaSet.viaKey( 0 ).index();
         wrong += viaSet != viaSetOf( viaSet.key().index(), 1 + version % 128, version );
      }
      region.reader.routeEach( whole );
      std::array< LfibChange, 4 > changes;
      size_t count = 0;
      const LfibRingRead read = region.reader.ring().read( position, changes, count );
      wrong += read == LfibRingRead::rotten;
      position = read == LfibRingRead::overrun ? region.reader.ring().head() : position + count;
      for ( const LfibChange& change : std::span( changes ).first( count ) ) {
         wrong += change.kind == LfibChange::Kind::route
                     ? RouteKey::fromWord( change.keyWord ).topLabel().value() >= 30
                     : change.kind != LfibChange::Kind::viaSet;
      }
   }
   writing.join();
   EXPECT_EQ( wrong, 0 );
   EXPECT_GT( reads, 1000 );
   for ( const LfibCorruption& corruption : region.corruptions ) {
      // On a machine that takes the processor away from the writer, a slot may stay busy for long.
      EXPECT_EQ( corruption.reason, LfibCorruptionReason::busy ) << Vel::textOf( corruption );
   }
}

} // namespace
} // namespace Mpls
