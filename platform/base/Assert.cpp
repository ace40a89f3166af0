#include "platform/base/Assert.h"

#include <atomic>
#include <cstdio>
#include <cstdlib>

#include "platform/base/Text.h"
#include "platform/base/Trace.h"

namespace Vel {

namespace {

constexpr size_t ringLinesShown = 256;

void reportFailure( const AssertionFailure& failure ) {
   const std::string report =
      joinText( failure.text(), "\nlast lines of the trace ring, oldest first:\n",
                traceRingDump( ringLinesShown ) );
   std::fwrite( report.data(), 1, report.size(), stderr );
   std::fflush( stderr );
}

std::atomic< AssertionHandler > currentHandler{ reportFailure };

// A handler that fails itself must not be called again.
constinit thread_local bool handling = false;

struct Handling {
   Handling() { handling = true; }
   ~Handling() { handling = false; }
   Handling( const Handling& ) = delete;
   Handling& operator=( const Handling& ) = delete;
};

} // namespace

std::string AssertionFailure::text() const {
   std::string out = joinText( "assertion failed: ", condition );
   if ( !message.empty() ) {
      out += joinText( ": ", message );
   }
   out += joinText( " [", component );
   if ( !subject.empty() ) {
      out += joinText( ", ", subject );
   }
   out += joinText( "] ", file, ":", line );
   return out;
}

AssertionHandler assertionHandlerIs( AssertionHandler handler ) {
   return currentHandler.exchange( handler ? handler : reportFailure );
}

void assertionFailed( const AssertionFailure& failure ) {
   if ( handling ) {
      const std::string report = failure.text() + "\n(while another failure was handled)\n";
      std::fwrite( report.data(), 1, report.size(), stderr );
      std::abort();
   }
   {
      const Handling guard;
      currentHandler.load()( failure ); // may throw
   }
   std::abort();
}

} // namespace Vel
