// The data path: what leaves for what comes in, to the byte.
//
// Frames are written as hexadecimal text. A label stack entry reads "03E81 B40": the label, then
// traffic class, bottom of stack and TTL (three bits, one bit, eight bits). 03E81 is 16001.

#include "driver/Forwarding.h"
#include "driver/FlowOrder.h"
#include "driver/SwitchStatus.h"

#include <array>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "tests/driver/Vias.h"

namespace Vel::Driver {
namespace {

using namespace VelTest;
using Mpls::RouteKey;

Bytes fromHex( std::string text ) {
   std::erase( text, ' ' );
   Bytes bytes;
   for ( size_t i = 0; i + 1 < text.size(); i += 2 ) {
      bytes.push_back( static_cast< uint8_t >( std::stoul( text.substr( i, 2 ), nullptr, 16 ) ) );
   }
   return bytes;
}
std::string toHex( ByteView bytes ) {
   std::string text;
   for ( const uint8_t byte : bytes ) {
      text += "0123456789ABCDEF"[byte >> 4];
      text += "0123456789ABCDEF"[byte & 15];
   }
   return text;
}
std::string hex16( size_t value ) {
   return toHex( Bytes{ static_cast< uint8_t >( value >> 8 ), static_cast< uint8_t >( value ) } );
}

const std::string macs = "02000A000001 02000A00000F ";
const std::string in = macs + "8847 ";
const std::string outMacs = "02000A000102 020000000001 ";
const std::string out = outMacs + "8847 ";
// IPv4 with TTL and checksum above a UDP header, and IPv6 with a hop limit and nothing above.
std::string v4( const std::string& ttl, const std::string& checksum ) {
   return "4500001C 00010000 " + ttl + "11" + checksum + "0A000001 0A000002 1F9000350008FFFF";
}
std::string v6( const std::string& hopLimit ) {
   return "60000000 0000 3B" + hopLimit + "20010DB8" + std::string( 56, '0' );
}
const std::string ip = v4( "40", "66CE" );
const std::string one = in + "03E81 B40" + ip;           // 16001, class 5, bottom, TTL 64
const std::string two = in + "03E81 A40 03E82 310" + ip; // above 16002, class 1, bottom, TTL 16

const RouteKey k1( 16001 );
const RouteKey k2( 16002 );
const RouteKey k12( MplsLabel( 16001 ), MplsLabel( 16002 ) );
const RouteKey k123( MplsLabel( 16001 ), MplsLabel( 16002 ), MplsLabel( 16003 ) );

constexpr auto uniform = Mpls::TtlMode::uniform;
constexpr auto pipe = Mpls::TtlMode::pipe;
constexpr auto noMode = Mpls::TtlMode::undefined;
using enum Mpls::PayloadType;

L2Via push( Mpls::LabelStack labels ) {
   return viaOf( MplsLabelAction::push, labels );
}
L2Via pop( Mpls::TtlMode mode, Mpls::PayloadType payload = undefined ) {
   L2Via via = viaOf( MplsLabelAction::pop );
   via.payloadType = payload;
   via.ttlMode = mode;
   return via;
}
L2Via here( L2Via via ) { // for the switch itself
   via.intf = IntfId();
   return via;
}
L2Via tagged( L2Via via ) {
   via.vlanId = 200;
   return via;
}

struct Case {
   std::string name;
   std::vector< std::pair< RouteKey, L2Via > > routes;
   std::string frame;
   std::string result;              ///< the frame that leaves, or the reason in words
   std::optional< L2Via > tunnel{}; ///< that the vias lead into; with FECs only
};

// clang-format off
const std::vector< Case > cases{
   // Swap and push: the stack, its bottom, the class and the TTL.
   { "swap", { { k1, swapTo( { 17 } ) } }, one, out + "00011 B3F" + ip },
   { "swap above another", { { k1, swapTo( { 17 } ) } }, two, out + "00011 A3F 03E82 310" + ip },
   { "swap with two", { { k1, swapTo( { 17, 18 } ) } }, one, out + "00011 A3F 00012 B3F" + ip },
   { "swap to explicit null", { { k1, swapTo( { 0 } ) } }, one, out + "00000 B3F" + ip },
   { "push", { { k1, push( { 17, 18 } ) } }, one, out + "00011 A3F 00012 A3F 03E81 B3F" + ip },
   { "tags", { { k1, tagged( swapTo( { 17 } ) ) } }, macs + "8100 6064 8847 03E81 B40" + ip, outMacs + "8100 00C8 8847 00011 B3F" + ip },
   { "any payload", { { k1, swapTo( { 17 } ) } }, in + "03E81 10200", out + "00011 10100" },

   // Pop with another label below.
   { "uniform", { { k1, pop( uniform ) } }, two, out + "03E82 33F" + ip },
   { "pipe", { { k1, pop( pipe ) } }, two, out + "03E82 310" + ip },
   { "no mode does not raise", { { k1, pop( noMode ) } }, two, out + "03E82 310" + ip },
   { "no mode lowers", { { k1, pop( noMode ) } }, in + "03E81 A05 03E82 310" + ip, out + "03E82 304" + ip },

   // Pop with the payload below.
   { "IPv4 uniform", { { k1, pop( uniform, ipv4 ) } }, in + "03E81 B28" + ip, outMacs + "0800" + v4( "27", "7FCE" ) },
   { "IPv4 uniform raises", { { k1, pop( uniform, ipv4 ) } }, in + "03E81 BFF" + ip, outMacs + "0800" + v4( "FE", "A8CD" ) },
   { "IPv4 no mode does not raise", { { k1, pop( noMode, autoDetect ) } }, in + "03E81 BFF" + ip, outMacs + "0800" + ip },
   { "IPv4 no mode lowers", { { k1, pop( noMode ) } }, in + "03E81 B06" + ip, outMacs + "0800" + v4( "05", "A1CE" ) },
   { "IPv4 pipe", { { k1, pop( pipe, ipv4 ) } }, in + "03E81 B02" + ip, outMacs + "0800" + ip },
   { "IPv6", { { k1, pop( uniform, autoDetect ) } }, in + "03E81 B06" + v6( "40" ), outMacs + "86DD" + v6( "05" ) },

   // Keys of several labels.
   { "longest first", { { k1, swapTo( { 17 } ) }, { k12, swapTo( { 18 } ) } }, two, out + "00012 B3F" + ip },
   { "longer one differs", { { k1, swapTo( { 17 } ) }, { k123, swapTo( { 18 } ) } }, two, out + "00011 A3F 03E82 310" + ip },
   { "pop three", { { k123, pop( uniform, ipv4 ) } }, in + "03E81 028 03E82 0FF 03E83 1FF" + ip, outMacs + "0800" + v4( "27", "7FCE" ) },
   { "push on two", { { k12, push( { 17 } ) } }, two, out + "00011 A3F 03E81 A3F 03E82 310" + ip },

   // A path that ends here: the next label decides.
   { "here uniform", { { k1, here( pop( uniform ) ) }, { k2, swapTo( { 17 } ) } }, two, out + "00011 33F" + ip },
   { "here pipe", { { k1, here( pop( pipe ) ) }, { k2, swapTo( { 17 } ) } }, two, out + "00011 30F" + ip },
   { "here all", { { k1, here( pop( uniform ) ) }, { k2, here( pop( uniform ) ) } }, two, "label 16002 ends here and its via has no interface" },

   // Into a tunnel, which has an operation of its own.
   { "swap, then push", { { k1, swapTo( { 17 } ) } }, one, out + "001F4 A3F 00011 B3F" + ip, push( { 500 } ) },
   { "push, then push", { { k1, push( { 17 } ) } }, one, out + "001F4 A3F 00011 A3F 03E81 B3F" + ip, push( { 500 } ) },
   { "swap, then swap", { { k1, swapTo( { 17 } ) } }, two, out + "001F4 A3F 03E82 310" + ip, swapTo( { 500 } ) },
   { "swap, then pop", { { k1, swapTo( { 17 } ) } }, two, out + "03E82 33F" + ip, pop( uniform ) },
   { "pop uniform, then push", { { k1, pop( uniform ) } }, two, out + "001F4 A3F 03E82 33F" + ip, push( { 500 } ) },
   { "pop pipe, then push", { { k1, pop( pipe ) } }, two, out + "001F4 A3F 03E82 310" + ip, push( { 500 } ) },
   { "IPv4 uniform, then push", { { k1, pop( uniform, ipv4 ) } }, in + "03E81 B28" + ip, out + "001F4 B27" + v4( "27", "7FCE" ), push( { 500 } ) },
   { "IPv4 pipe, then push", { { k1, pop( pipe, ipv4 ) } }, in + "03E81 B28" + ip, out + "001F4 B27" + ip, push( { 500 } ) },

   // What is dropped, and what is said.
   { "TTL 1", { { k1, swapTo( { 17 } ) } }, in + "03E81 B01" + ip, "TTL expired (label 16001, TTL 1)" },
   { "TTL 0", { { k1, pop( pipe, ipv4 ) } }, in + "03E81 B00" + ip, "TTL expired (label 16001, TTL 0)" },
   { "no route", { { k2, swapTo( { 17 } ) } }, one, "no route for label 16001" },
   { "no route below", { { k1, here( pop( pipe ) ) } }, two, "no route for label 16002" },
   { "implicit null", { { RouteKey( 3 ), swapTo( { 17 } ) } }, in + "00003 B40" + ip, "label 3 (implicit null) must not appear" },
   { "not MPLS", {}, macs + "8100 0064 0800" + ip, "not an MPLS frame (EtherType 0x0800)" },
   { "no bottom", { { k1, swapTo( { 17 } ) } }, in + "03E81 A40 03E82 A40", "frame ends within the label stack" },
   { "no payload", { { k1, swapTo( { 17 } ) } }, in + "03E81 B40", "bottom of stack without payload" },
   { "other version", { { k1, pop( uniform, ipv6 ) } }, one, "the payload of label 16001 is no whole ipv6 packet" },
   { "no version", { { k1, pop( pipe ) } }, in + "03E81 B40 00000000", "the payload of label 16001 is no whole IPv4 or IPv6 packet" },
   { "header cut off", { { k1, pop( uniform, ipv4 ) } }, one.substr( 0, one.size() - 30 ), "the payload of label 16001 is no whole ipv4 packet" },
   { "no interface", { { k1, here( swapTo( { 17 } ) ) } }, one, "the via of label 16001 has no interface" },
   { "no label", { { k1, swapTo( {} ) } }, one, "the via of label 16001 has no outgoing label" },
   { "no operation", { { k1, viaOf( MplsLabelAction::none ) } }, one, "the via of label 16001 has no label operation" },
   { "pop with label", { { k1, viaOf( MplsLabelAction::pop, { 17 } ) } }, one, "the via of label 16001 pops and has outgoing labels" },
   { "pushes null", { { k1, push( { 3 } ) } }, one, "the via of label 16001 has the outgoing label 3 (implicit null)" },
};
// clang-format on

void addRoute( HwRouteTable& table, RouteKey key, const L2ViaSet& vias ) {
   const auto adjacency = make< HwAdjacency >( make< Mpls::Hardware::L2Adjacency >( U64{ 1 } ) );
   adjacency->programmed( vias, 1 );
   table.emplace( key, HwRoute{ adjacency, nullptr, { 1 } } );
}

/// Routes into FECs. Every next hop is resolved, by the interface that its via names.
struct FecHardware {
   FaultPlan noFaults;
   Ptr< ManualClock > clock = make< ManualClock >();
   Ptr< Scheduler > scheduler = make< Scheduler >( clock );
   OperationQueue queue{ scheduler->taskIs( "switch", TaskPriority::normal ), 0 };
   Ptr< SwitchStatus > status = make< SwitchStatus >( queue, true );
   Links links{ noFaults, *clock };
   Bridging::VlanId vlanId = 0;
   FecUnit unit{ { make< FecIdToHwFecIdRequest >( "request" ),
                   make< FecIdToHwFecIdResponse >( "response" ), make< VelL3Status >( "l3Status" ),
                   nullptr,
                   [this]( IntfId intf, const IpGenAddr& ) {
                      return NextHopInfo{ vlanId, intf, viaOf( {} ).macAddr, true };
                   } },
                 queue,
                 *status,
                 noFaults,
                 links,
                 *clock };
   HwRouteTable table;

   static Fib::FecVia fecVia( const L2Via& via ) {
      return { {}, via.intf, via.labelAction, via.labelStack, via.payloadType, via.ttlMode };
   }
   HwFec& addRoute( RouteKey key, const std::vector< Fib::FecVia >& vias,
                    FecRouteOperation operation = {} ) {
      const auto fec = make< HwFec >( U64{ 1 } );
      fec->via = vias;
      table.emplace( key, HwRoute{ nullptr, fec, { .operation = operation } } );
      return *fec;
   }
   ForwardResult forward( ByteView frame ) const {
      return forwardFrame( table, frame, MacAddr( 0x02'00'00'00'00'01 ), links, &unit );
   }
};

/// How hardware holds the routes of a case.
enum class Held : uint8_t { adjacency, fec, popBeforeFec };

ForwardResult forward( const Case& test, const Bytes& frame, Held held ) {
   const IntfId tunnel( IntfId::Kind::dynamicTunnel, 1 );
   FecHardware hardware;
   for ( const auto& [key, via] : test.routes ) {
      if ( held == Held::adjacency || via.intf.empty() ) {
         addRoute( hardware.table, key, viaSet( { via } ) );
         continue;
      }
      Fib::FecVia into = FecHardware::fecVia( via );
      FecRouteOperation operation{};
      if ( held == Held::popBeforeFec && via.labelAction == MplsLabelAction::pop ) {
         operation = { via.labelAction, via.payloadType, via.ttlMode };
         into.labelAction = MplsLabelAction::none;
      }
      if ( test.tunnel ) {
         into.intf = tunnel;
         hardware.unit.tunnelIs( tunnel, { FecHardware::fecVia( *test.tunnel ) } );
      }
      hardware.vlanId = via.vlanId;
      hardware.addRoute( key, { into }, operation );
   }
   return hardware.forward( frame );
}

TEST( Forwarding, framesLeaveAsTheViaSays ) {
   for ( const Held held : { Held::adjacency, Held::fec, Held::popBeforeFec } ) {
      for ( const Case& test : cases ) {
         SCOPED_TRACE( joinText( test.name, ", held ", static_cast< int >( held ) ) );
         if ( held == Held::adjacency ? !!test.tunnel : test.result.starts_with( "the via of" ) ) {
            continue; // no FEC takes a via that makes no sense
         }
         const ForwardResult result = forward( test, fromHex( test.frame ), held );
         if ( !test.result.starts_with( outMacs ) ) {
            EXPECT_TRUE( result.frames.empty() && result.drop != DropReason::none );
            EXPECT_EQ( result.text, test.result );
            continue;
         }
         ASSERT_EQ( result.frames.size(), 1U ) << result.text;
         EXPECT_EQ( toHex( result.frames[0].bytes ), toHex( fromHex( test.result ) ) );
         EXPECT_EQ( result.frames[0].intf, IntfId::ordinary( 7 ) );
         EXPECT_EQ( result.frames[0].vlanId, test.routes.back().second.vlanId );
      }
   }
}

// Each copy is exactly as long as what is left of the frame, so that the address sanitizer sees a
// read behind its end.
TEST( Forwarding, framesThatAreCutShortAreDroppedOrForwarded ) {
   for ( const Case& test : cases ) {
      SCOPED_TRACE( test.name );
      const Held held = test.tunnel ? Held::fec : Held::adjacency;
      const Bytes whole = fromHex( test.frame );
      for ( size_t size = 0; size < whole.size(); ++size ) {
         const Bytes cut( whole.begin(), whole.begin() + static_cast< ptrdiff_t >( size ) );
         const ForwardResult result = forward( test, cut, held );
         ASSERT_NE( result.frames.empty(), result.text.empty() ) << size;
         ASSERT_TRUE( size > 18 || result.frames.empty() ) << size;
      }
   }
}

TEST( Forwarding, theChecksumHoldsForEveryPacket ) {
   const auto store = []( Bytes& packet, size_t at, unsigned value ) {
      packet[at] = static_cast< uint8_t >( value >> 8 );
      packet[at + 1] = static_cast< uint8_t >( value );
   };
   for ( unsigned id = 0; id < 0x10000; ++id ) {
      Bytes packet = fromHex( ip.substr( 0, 8 ) );
      packet.resize( 20 );
      packet[8] = 64;
      store( packet, 4, id );
      store( packet, 10, ( 0xFFFF + 0xFFFF - 0x451C - 0x4000 - id ) % 0xFFFF );
      ipTtlIs( packet, static_cast< uint8_t >( 65 + id % 2 ) );
      unsigned sum = 0;
      for ( size_t at = 0; at < packet.size(); at += 2 ) {
         sum += static_cast< unsigned >( packet[at] << 8 | packet[at + 1] );
      }
      ASSERT_EQ( sum % 0xFFFF, 0U ) << "identification " << id;
   }
}

// --- Which of several vias a frame takes.

U32 labelTaken( const std::string& frame ) {
   static FecHardware hardware;
   if ( hardware.table.empty() ) {
      addRoute( hardware.table, k1,
                viaSet( { swapTo( { 1 } ), swapTo( { 2 } ), swapTo( { 0 } ) } ) );
   }
   const ForwardResult result = hardware.forward( fromHex( frame ) );
   return result.frames.empty() ? 99 : labelEntryRead( result.frames[0].bytes, 14 )->label;
}

TEST( Flow, flowsSpreadOverTheVias ) {
   const std::string udp4 = in + "03E81 140 4500001C 00010000 40110000 0A000001 0A00";
   const std::string udp6 = in + "03E81 140 60000000 0008 1140" + std::string( 64, '2' );
   const std::string stack = in + "03E81 040 00007 040 1"; // above an entropy label
   const std::function< std::string( const std::string& ) > frames[]{
      [&]( const std::string& i ) { return udp4 + "0002" + i + "0050"; },
      [&]( const std::string& i ) { return udp4 + i + "00350035"; },
      [&]( const std::string& i ) { return udp6 + "0050" + i; },
      [&]( const std::string& i ) { return stack + i + "100 00"; },
   };
   constexpr size_t flows = 1500;
   for ( const auto& frame : frames ) {
      std::array< size_t, 3 > taken{};
      for ( size_t i = 0; i < flows; ++i ) {
         ++taken.at( labelTaken( frame( hex16( i ) ) ) );
      }
      for ( const size_t count : taken ) {
         EXPECT_NEAR( static_cast< double >( count ), flows / 3.0, flows / 20.0 )
            << frame( "...." );
      }
   }
}

// Two choices in a row use all that they lead to, and what a way carried goes to all the others.
TEST( Flow, choicesAreIndependentAndAWaySpreadsWhenItGoes ) {
   constexpr size_t flows = 6000;
   std::array< std::array< size_t, 2 >, 2 > both{};
   std::array< std::array< size_t, 4 >, 4 > instead{};
   for ( U64 i = 0; i < flows; ++i ) {
      const U64 flow = mixBits( i );
      ++both.at( FlowOrder( flow, 1, 2 ).next() ).at( FlowOrder( flow, 2, 2 ).next() );
      FlowOrder order( flow, 1, 4 );
      const size_t first = order.next();
      ++instead.at( first ).at( order.next() );
   }
   for ( size_t i = 0; i < 4; ++i ) {
      EXPECT_NEAR( static_cast< double >( both.at( i / 2 ).at( i % 2 ) ), flows / 4.0,
                   flows / 40.0 );
      for ( size_t j = 0; j < 4; ++j ) {
         EXPECT_NEAR( static_cast< double >( instead.at( i ).at( j ) ), i == j ? 0 : flows / 12.0,
                      flows / 60.0 );
      }
   }
}

// Vias of a FEC: next hops, each by its interface, or a tunnel of several of them.
using Spread = std::vector< std::vector< U32 > >;
struct Spreading {
   const char* name;
   Spread vias;
   Spread backup;
   std::vector< U32 > down;
   std::map< U64, double > share; ///< of the flows that leave by each interface
};
// clang-format off
const Spreading spreadings[]{
   { "next hops", { { 1 }, { 2 }, { 3 } }, {}, {}, { { 1, 1. / 3 }, { 2, 1. / 3 }, { 3, 1. / 3 } } },
   { "one of them down", { { 1 }, { 2 }, { 3 } }, {}, { 2 }, { { 1, .5 }, { 3, .5 } } },
   { "tunnels", { { 1, 2 }, { 3, 4 } }, {}, {}, { { 1, .25 }, { 2, .25 }, { 3, .25 }, { 4, .25 } } },
   { "a tunnel that is half down", { { 1, 2 }, { 3, 4 } }, {}, { 2 }, { { 1, .5 }, { 3, .25 }, { 4, .25 } } },
   { "a tunnel that is down", { { 1, 2 }, { 3, 4 }, { 5 } }, {}, { 1, 2 }, { { 3, .25 }, { 4, .25 }, { 5, .5 } } },
   { "the backup", { { 1 }, { 2 } }, { { 3 }, { 4, 5 } }, { 1, 2 }, { { 3, .5 }, { 4, .25 }, { 5, .25 } } },
   { "the backup unused", { { 1 }, { 2 } }, { { 3 } }, { 1 }, { { 2, 1 } } },
};
// clang-format on

TEST( Flow, flowsSpreadOverTheWaysOutOfAFec ) {
   for ( const Spreading& test : spreadings ) {
      SCOPED_TRACE( test.name );
      FecHardware hardware;
      U32 tunnels = 0;
      const auto fecVias = [&]( const Spread& spread ) {
         std::vector< Fib::FecVia > vias;
         for ( const std::vector< U32 >& intfs : spread ) {
            std::vector nextHops( intfs.size(), FecHardware::fecVia( push( { 17 } ) ) );
            for ( size_t i = 0; i < intfs.size(); ++i ) {
               nextHops[i].intf = IntfId::ordinary( intfs[i] );
            }
            if ( intfs.size() > 1 ) {
               const IntfId tunnel( IntfId::Kind::dynamicTunnel, ++tunnels );
               hardware.unit.tunnelIs( tunnel, nextHops );
               nextHops[0].intf = tunnel;
            }
            vias.push_back( nextHops[0] );
         }
         return vias;
      };
      HwFec& fec = hardware.addRoute( k1, fecVias( test.vias ) );
      fec.backup = make< HwFec >( U64{ 2 } );
      fec.backup->via = fecVias( test.backup );
      for ( const U32 intf : test.down ) {
         hardware.links.upIs( IntfId::ordinary( intf ), false );
      }
      std::map< U64, double > share;
      constexpr size_t flows = 2000;
      for ( size_t i = 0; i < flows; ++i ) {
         const auto result = hardware.forward( fromHex(
            in + "03E81 140 4500001C 00010000 40110000 0A000001 0A000002 0050" + hex16( i ) ) );
         ASSERT_EQ( result.frames.size(), 1U ) << result.text;
         share[result.frames[0].intf.payload()] += 1. / flows;
      }
      for ( const auto& [intf, expected] : test.share ) {
         EXPECT_NEAR( share[intf], expected, .05 ) << intf;
      }
   }
}

TEST( Flow, aFlowKeepsItsVia ) {
   for ( size_t i = 0; i < 64; ++i ) {
      const auto frame = [i]( const std::string& stack, const std::string& fragment,
                              const std::string& ports ) {
         return in + "03E81 040" + stack + "4500001C" + fragment + "40060000 0A000001 0A00" +
                hex16( i ) + ports;
      };
      const U32 taken = labelTaken( frame( "00014 140", "00010000", "00500051" ) );
      EXPECT_EQ( labelTaken( frame( "00014 F02", "77774000", "00500051" ) ), taken )
         << "TTL, class and identification make no flow";
      EXPECT_EQ( labelTaken( frame( "00001 040 00014 140", "00010000", "00500051" ) ), taken )
         << "nor do special-purpose labels";
      EXPECT_EQ( labelTaken( frame( "00014 140", "00012000", "00500051" ) ),
                 labelTaken( frame( "00014 140", "00010007", "12345678" ) ) )
         << "the fragments of one packet stay together";
   }
}

} // namespace
} // namespace Vel::Driver
