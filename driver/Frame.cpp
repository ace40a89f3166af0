#include "driver/Frame.h"

#include <algorithm>

namespace Vel::Driver {

namespace {

constexpr size_t macSize = 6;
constexpr size_t tagSize = 4;
constexpr size_t untaggedHeaderSize = 2 * macSize + 2;

// RFC 791 section 3.1 and RFC 8200 section 3.
constexpr size_t ipv4HeaderSize = 20;
constexpr size_t ipv4FragmentOffset = 6;
constexpr size_t ipv4TtlOffset = 8;
constexpr size_t ipv4ProtocolOffset = 9;
constexpr size_t ipv4ChecksumOffset = 10;
constexpr size_t ipv4AddressOffset = 12;
constexpr size_t ipv6HeaderSize = 40;
constexpr size_t ipv6NextHeaderOffset = 6;
constexpr size_t ipv6HopLimitOffset = 7;
constexpr size_t ipv6AddressOffset = 8;

uint16_t read16( ByteView bytes, size_t offset ) {
   return static_cast< uint16_t >( bytes[offset] << 8 | bytes[offset + 1] );
}
U32 read32( ByteView bytes, size_t offset ) {
   return U32{ read16( bytes, offset ) } << 16 | read16( bytes, offset + 2 );
}
void append16( Bytes& out, uint16_t value ) {
   out.push_back( static_cast< uint8_t >( value >> 8 ) );
   out.push_back( static_cast< uint8_t >( value ) );
}

MacAddr readMac( ByteView bytes, size_t offset ) {
   return MacAddr( U64{ read16( bytes, offset ) } << 32 | read32( bytes, offset + 2 ) );
}
void appendMac( Bytes& out, MacAddr mac ) {
   const auto bytes = mac.bytes();
   out.insert( out.end(), bytes.begin(), bytes.end() );
}

// Transports whose header begins with the two ports: TCP, UDP, DCCP, SCTP, UDP-Lite.
bool hasPorts( uint8_t protocol ) {
   constexpr std::array< uint8_t, 5 > transports{ 6, 17, 33, 132, 136 };
   return std::find( transports.begin(), transports.end(), protocol ) != transports.end();
}

} // namespace

std::optional< EthernetHeader > ethernetRead( ByteView frame ) {
   if ( frame.size() < untaggedHeaderSize ) {
      return std::nullopt;
   }
   EthernetHeader header;
   header.destination = readMac( frame, 0 );
   header.source = readMac( frame, macSize );
   header.etherType = read16( frame, 2 * macSize );
   header.size = untaggedHeaderSize;
   if ( header.etherType == etherTypeDot1q ) {
      if ( frame.size() < untaggedHeaderSize + tagSize ) {
         return std::nullopt;
      }
      header.vlanId = read16( frame, untaggedHeaderSize ) & 0xFFF;
      header.etherType = read16( frame, untaggedHeaderSize + 2 );
      header.size += tagSize;
   }
   return header;
}

void ethernetAppend( Bytes& out, const EthernetHeader& header ) {
   appendMac( out, header.destination );
   appendMac( out, header.source );
   if ( header.vlanId != 0 ) {
      append16( out, etherTypeDot1q );
      append16( out, header.vlanId & 0xFFF );
   }
   append16( out, header.etherType );
}

std::optional< LabelEntry > labelEntryRead( ByteView bytes, size_t offset ) {
   if ( bytes.size() < LabelEntry::size || offset > bytes.size() - LabelEntry::size ) {
      return std::nullopt;
   }
   const U32 word = read32( bytes, offset );
   return LabelEntry{ word >> 12, static_cast< uint8_t >( word >> 9 & 7 ), ( word & 0x100 ) != 0,
                      static_cast< uint8_t >( word ) };
}

void labelEntryAppend( Bytes& out, const LabelEntry& entry ) {
   const U32 word =
      entry.label << 12 | U32{ entry.trafficClass } << 9 | U32{ entry.bottom } << 8 | entry.ttl;
   append16( out, static_cast< uint16_t >( word >> 16 ) );
   append16( out, static_cast< uint16_t >( word ) );
}

AddressFamily ipFamily( ByteView packet ) {
   if ( packet.empty() ) {
      return AddressFamily::unspecified;
   }
   const int version = packet[0] >> 4;
   return version == 4 ? ipv4() : version == 6 ? ipv6() : AddressFamily::unspecified;
}

std::optional< uint8_t > ipTtl( ByteView packet ) {
   const AddressFamily family = ipFamily( packet );
   if ( family == ipv4() && packet.size() >= ipv4HeaderSize ) {
      return packet[ipv4TtlOffset];
   }
   if ( family == ipv6() && packet.size() >= ipv6HeaderSize ) {
      return packet[ipv6HopLimitOffset];
   }
   return std::nullopt;
}

void ipTtlIs( std::span< uint8_t > packet, uint8_t ttl ) {
   VEL_ASSERT( ipTtl( packet ).has_value() );
   if ( ipFamily( packet ) == ipv6() ) {
      packet[ipv6HopLimitOffset] = ttl;
      return;
   }
   const uint16_t before = read16( packet, ipv4TtlOffset );
   packet[ipv4TtlOffset] = ttl;
   const uint16_t after = read16( packet, ipv4TtlOffset );
   // HC' = ~( ~HC + ~m + m' ), in one's complement arithmetic.
   const auto inverted = []( uint16_t word ) { return U32{ word } ^ 0xFFFF; };
   U32 sum = inverted( read16( packet, ipv4ChecksumOffset ) ) + inverted( before ) + after;
   sum = ( sum & 0xFFFF ) + ( sum >> 16 );
   sum = ( sum & 0xFFFF ) + ( sum >> 16 );
   packet[ipv4ChecksumOffset] = static_cast< uint8_t >( ~sum >> 8 );
   packet[ipv4ChecksumOffset + 1] = static_cast< uint8_t >( ~sum );
}

U64 ipFlowHash( ByteView packet, U64 hash ) {
   if ( !ipTtl( packet ) ) {
      return hash;
   }
   const bool v4 = ipFamily( packet ) == ipv4();
   const size_t addresses = v4 ? ipv4AddressOffset : ipv6AddressOffset;
   const size_t addressesEnd = v4 ? ipv4HeaderSize : ipv6HeaderSize;
   for ( size_t at = addresses; at < addressesEnd; at += 4 ) {
      hash = mixBits( hash + read32( packet, at ) );
   }
   const uint8_t protocol = packet[v4 ? ipv4ProtocolOffset : ipv6NextHeaderOffset];
   hash = mixBits( hash + protocol );

   constexpr uint16_t fragmentMask = 0x3FFF; // the offset, and that more fragments follow
   const bool fragment = v4 && ( read16( packet, ipv4FragmentOffset ) & fragmentMask ) != 0;
   const size_t ports = v4 ? size_t{ packet[0] & 0xFU } * 4 : ipv6HeaderSize;
   if ( !fragment && hasPorts( protocol ) && ports >= addressesEnd && packet.size() >= ports + 4 ) {
      hash = mixBits( hash + read32( packet, ports ) );
   }
   return hash;
}

} // namespace Vel::Driver
