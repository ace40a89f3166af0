// publisher FILE: keeps the label routes of its standard input in the shared memory FILE.
//
//    LABEL NEXT-HOP INTERFACE OUT-LABEL ...   forward the label, over all of these
//    LABEL                                    forward it no more
//    ready                                    this was the whole table; the rest of FILE goes

#include <fcntl.h>
#include <sys/file.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <iostream>
#include <optional>
#include <set>
#include <sstream>

#include "platform/lfib/LfibRegion.h"

namespace {

constexpr uint32_t mostWays = 4; // of one label

[[noreturn]] void fail( const std::string& what ) {
   std::cerr << "publisher: " << what << '\n';
   std::exit( 1 );
}

Mpls::LfibViaSetKey viaSetOf( Mpls::RouteKey label ) {
   return { Mpls::LfibSource::staticConfig, Mpls::viaTypeMplsIp, label.topLabel().value() };
}

Mpls::LfibViaKey viaOf( Mpls::RouteKey label, uint32_t way ) {
   return { Mpls::LfibSource::staticConfig, Mpls::viaTypeMplsIp,
            label.topLabel().value() * mostWays + way };
}

void check( Mpls::LfibWrite written ) {
   if ( written == Mpls::LfibWrite::full || written == Mpls::LfibWrite::refused ) {
      fail( "the table is full, or refuses the route" );
   }
}

// What is pointed at is written before what points at it, and removed after it.
void publish( Mpls::LfibWriter& table, Mpls::RouteKey label, std::istream& ways ) {
   Mpls::LfibViaSet viaSet( viaSetOf( label ) );
   std::string nextHop;
   uint32_t intf = 0;
   uint32_t outLabel = 0;
   uint32_t way = 0;
   for ( ; way < mostWays && ways >> nextHop >> intf >> outLabel; ++way ) {
      Mpls::LfibMplsVia via;
      via.key = viaOf( label, way );
      via.nextHop = Vel::IpGenAddr::parse( nextHop ).value();
      via.intf = Vel::IntfId::ordinary( intf );
      via.labelAction = Vel::MplsLabelAction::swap;
      via.labelStack = { outLabel };
      check( table.mplsViaIs( via ) );
      viaSet.viaKeyAdd( via.key );
   }
   if ( way != 0 ) {
      check( table.viaSetIs( viaSet ) );
      check( table.routeIs( { label, viaSet.key(), 0 } ) );
   } else {
      table.routeDel( label );
      table.viaSetDel( viaSet.key() );
   }
   for ( ; way < mostWays; ++way ) {
      table.viaDel( viaOf( label, way ) );
   }
}

} // namespace

int main( int argc, char** argv ) {
   const Mpls::LfibCapacities capacities{ .routes = 1024, .viaSets = 1024, .mplsVias = 4096 };
   const int file = argc == 2 ? open( argv[1], O_RDWR | O_CREAT | O_CLOEXEC, 0644 ) : -1;
   if ( file < 0 || flock( file, LOCK_EX | LOCK_NB ) != 0 ) {
      fail( "usage: publisher FILE, which no other publisher has" );
   }
   // Never smaller than it is: an agent that has mapped more than the file holds dies of it.
   struct stat was {};
   fstat( file, &was );
   const size_t bytes =
      std::max( Mpls::LfibWriter::bytesNeeded( capacities ), static_cast< size_t >( was.st_size ) );
   if ( ftruncate( file, static_cast< off_t >( bytes ) ) != 0 ) {
      fail( "no room for the table" );
   }
   void* const memory = mmap( nullptr, bytes, PROT_READ | PROT_WRITE, MAP_SHARED, file, 0 );
   if ( memory == MAP_FAILED ) {
      fail( "the table cannot be mapped" );
   }
   const std::span< std::byte > region( static_cast< std::byte* >( memory ), bytes );

   // What an earlier publisher has left stays in force, until this one has its own table.
   std::optional< Mpls::LfibWriter > table( std::in_place, region );
   const bool takenOver = table->attached();
   if ( !takenOver ) {
      table.emplace( region, capacities,
                     was.st_size == 0 ? Mpls::LfibMemory::zeroed : Mpls::LfibMemory::used );
   }
   std::cout << ( takenOver ? "taken over" : "laid out" ) << ", " << table->routes() << " routes"
             << std::endl;

   std::set< Mpls::RouteKey > mine;
   for ( std::string line; std::getline( std::cin, line ); ) {
      std::istringstream words( line );
      uint32_t label = 0;
      if ( words >> label ) {
         mine.emplace( label );
         publish( *table, Mpls::RouteKey( label ), words );
      } else if ( line == "ready" ) {
         std::set< Mpls::RouteKey > gone;
         Mpls::LfibReader( region ).routeEach( [&]( const Mpls::LfibRoute& route ) {
            if ( !mine.contains( route.routeKey ) ) {
               gone.insert( route.routeKey );
            }
         } );
         for ( const Mpls::RouteKey left : gone ) {
            std::istringstream nowhere;
            publish( *table, left, nowhere );
         }
         table->readyIs( true );
         std::cout << "ready, " << table->routes() << " routes" << std::endl;
      }
   }
   // The table outlives the process, and labels go on forwarding.
}
