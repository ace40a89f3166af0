#include "agent/report/Progress.h"

#include <algorithm>
#include <cstdio>
#include <utility>

#include <unistd.h>

namespace Vel::Agent {

namespace {

constexpr auto quiet = std::chrono::seconds( 1 );
constexpr auto betweenUpdates = std::chrono::milliseconds( 100 );
constexpr size_t barCells = 24;

} // namespace

Progress::Progress( bool wanted ) : on_( wanted && isatty( STDERR_FILENO ) != 0 ) {}

void Progress::hide() {
   if ( std::exchange( shown_, false ) ) {
      std::fputs( "\r\033[K", stderr );
   }
}

void Progress::stage( std::string what ) {
   what_ = std::move( what );
   most_ = 0;
   done_ = 0;
   lastShown_ = {};
   show();
}

void Progress::left( size_t work ) {
   most_ = std::max( most_, work );
   if ( most_ != 0 ) {
      done_ =
         std::max( done_, 1.0 - static_cast< double >( work ) / static_cast< double >( most_ ) );
   }
   show();
}

void Progress::show() {
   if ( !on_ ) {
      return;
   }
   const Clock::time_point now = Clock::now();
   if ( now - start_ < quiet || now - lastShown_ < betweenUpdates ) {
      return;
   }
   lastShown_ = now;
   shown_ = true;
   const auto cells = static_cast< size_t >( done_ * barCells );
   std::string bar( cells, '#' );
   bar.resize( barCells, '.' );
   std::fprintf( stderr, "\r\033[K[%s] %3d%% %.60s", bar.c_str(), static_cast< int >( done_ * 100 ),
                 what_.c_str() );
   std::fflush( stderr );
}

} // namespace Vel::Agent
