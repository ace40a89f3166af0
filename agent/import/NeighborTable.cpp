#include "agent/import/NeighborTable.h"

#include <optional>
#include <unordered_set>
#include <utility>

#include "agent/import/ImportChecks.h"

namespace Vel::Agent {

namespace {

/// Why frames cannot be sent to the address. Empty when they can.
std::string macFault( std::string_view text, const std::optional< MacAddr >& mac ) {
   if ( !mac ) {
      return inQuotes( text ) + " is not an Ethernet MAC address (six groups of two digits)";
   }
   if ( *mac == MacAddr() ) {
      return "the MAC address is all zero";
   }
   if ( ( mac->bytes().front() & 1U ) != 0 ) { // the group bit (IEEE 802 section 8.2)
      return "the MAC address " + std::string( text ) + " is a multicast address";
   }
   return {};
}

class NeighborPieces final : public JsonPieces {
 public:
   NeighborPieces( std::vector< Neighbor >& neighbors, ErrorList& errors )
      : neighbors_( neighbors ), errors_( errors ) {}

   bool opened( JsonKind kind ) override {
      if ( kind != JsonKind::list ) {
         errors_.addWhole( "not a neighbour table: `ip -j neigh` prints a list" );
      }
      return kind == JsonKind::list;
   }
   bool opensList( std::string_view ) override { return false; }
   bool piece( const JsonPiece& piece ) override {
      RecordCheck check( errors_, piece, "neighbour" );
      const std::optional< JsonValue > record = check.record();
      if ( !record ) {
         return true;
      }
      Neighbor neighbor;
      readState( check, *record, neighbor );
      if ( !kernelOwn( *record, neighbor ) ) {
         readRest( check, *record, neighbor );
         if ( check.sound() ) {
            return add( check, std::move( neighbor ), piece.offset );
         }
      }
      return true;
   }

 private:
   static bool stateHas( const Neighbor& neighbor, std::string_view word ) {
      const std::string& state = neighbor.state;
      const size_t at = state.find( word );
      return at != std::string::npos && ( at == 0 || state[at - 1] == ',' ) &&
             ( at + word.size() == state.size() || state[at + word.size()] == ',' );
   }

   static void readState( RecordCheck& check, JsonValue record, Neighbor& neighbor ) {
      const auto state = check.list( record, "state", Need::optional );
      if ( !state ) {
         return;
      }
      for ( const JsonValue word : *state ) {
         if ( !word.is( JsonKind::text ) ) {
            check.complain( "the field \"state\" has " + word.described() + " in it, not a text" );
            return;
         }
         neighbor.state += neighbor.state.empty() ? "" : ",";
         neighbor.state += word.text();
      }
   }

   /// With `nud all`, the kernel lists its fixed mappings of group addresses and of the loopback
   /// too. They have no resolution (NOARP), lead to no neighbour, and are no error.
   static bool kernelOwn( JsonValue record, const Neighbor& neighbor ) {
      const auto lladdr = record.field( "lladdr" );
      if ( !stateHas( neighbor, "NOARP" ) || !lladdr || !lladdr->is( JsonKind::text ) ) {
         return false;
      }
      const std::optional< MacAddr > mac = MacAddr::parse( lladdr->text() );
      return mac && !macFault( lladdr->text(), mac ).empty();
   }

   static void readRest( RecordCheck& check, JsonValue record, Neighbor& neighbor ) {
      constexpr uint64_t largestVlan = 4094; // IEEE 802.1Q: 4095 is reserved
      if ( const auto dst = check.text( record, "dst", Need::required ) ) {
         neighbor.address = check.address( *dst );
      }
      if ( const auto dev = check.text( record, "dev", Need::required ) ) {
         neighbor.interface = check.interface( *dev );
      }
      const auto vlan = check.natural( record, "vlan", Need::optional, largestVlan );
      neighbor.vlan = static_cast< uint16_t >( vlan.value_or( 0 ) );
      const auto lladdr = check.text( record, "lladdr", Need::optional );
      if ( !lladdr ) {
         return;
      }
      const std::optional< MacAddr > mac = MacAddr::parse( *lladdr );
      if ( std::string fault = macFault( *lladdr, mac ); !fault.empty() ) {
         check.complain( std::move( fault ) );
         return;
      }
      neighbor.mac = *mac;
      neighbor.resolved = !stateHas( neighbor, "FAILED" ) && !stateHas( neighbor, "INCOMPLETE" );
   }

   bool add( RecordCheck& check, Neighbor&& neighbor, size_t offset ) {
      if ( !seen_.insert( neighbor.address + ' ' + neighbor.interface ).second ) {
         check.complain( "a second entry for " + neighbor.address + " on " + neighbor.interface );
         return true;
      }
      if ( neighbors_.size() == maxNeighbors ) {
         errors_.addFatal( offset, "more than " + std::to_string( maxNeighbors ) + " neighbours" );
         return false;
      }
      neighbors_.push_back( std::move( neighbor ) );
      return true;
   }

   std::vector< Neighbor >& neighbors_;
   ErrorList& errors_;
   std::unordered_set< std::string > seen_;
};

} // namespace

NeighborTable parseNeighborTable( std::string_view text, std::string file ) {
   NeighborTable table;
   ErrorList errors( std::move( file ), text );
   if ( checkSize( text, errors ) ) {
      NeighborPieces pieces( table.neighbors, errors );
      readJson( text, JsonCut::members, pieces, errors );
   }
   table.errors = errors.take();
   return table;
}

NeighborTable loadNeighborTable( const std::string& path ) {
   std::string fault;
   if ( const std::optional< std::string > text = readFile( path, fault ) ) {
      return parseNeighborTable( *text, inputName( path ) );
   }
   NeighborTable table;
   table.errors.push_back( unreadable( path, fault ) );
   return table;
}

} // namespace Vel::Agent
