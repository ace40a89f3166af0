// System log: the few messages that an operator must see.
//
// A message is declared once, with what it means and what to do about it, and registered when the
// program is loaded, so that the list of all possible messages can be printed. Messages are limited
// in rate: a handle allows one in its interval, and whoever has something to say asks first.
//
//    SystemLogHandle full( { .name = "ROUTING_MPLS_RESOURCE_FULL", .format = "...", ... } );
//    if ( full.allowed() ) {
//       full.log();
//    }
//
// The owner decides where messages go; without a decision they go to standard error. One thread.

#pragma once

#include <cstdint>
#include <functional>
#include <limits>
#include <string>
#include <string_view>
#include <vector>

#include "platform/base/Export.h"
#include "platform/services/Clock.h"

namespace Vel {

/// A declared message. Texts must stay, such as literals.
struct SystemLogMessage {
   std::string_view name;
   int severity = 3; ///< as in RFC 5424 section 6.2.1: 0 emergency to 7 debug, 3 being an error
   double minIntervalSeconds = 1.0; ///< between two of the same
   std::string_view format;         ///< the text
   std::string_view explanation;
   std::string_view recommendedAction; ///< empty: none
};
/// "NAME severity 3: text"
VEL_EXPORT void appendText( std::string& out, const SystemLogMessage& message );

class VEL_EXPORT SystemLogHandle {
 public:
   explicit SystemLogHandle( const SystemLogMessage& message );
   SystemLogHandle( const SystemLogHandle& ) = delete;
   SystemLogHandle& operator=( const SystemLogHandle& ) = delete;
   ~SystemLogHandle();

   const SystemLogMessage& message() const { return message_; }
   /// Whether the interval since the last message has passed. A refusal is counted.
   bool allowed();
   /// Sends the message, with the text in place of its own when one is given.
   void log( std::string_view text = {} );
   uint64_t logged() const { return logged_; }
   uint64_t suppressed() const { return suppressed_; }

 private:
   friend class SystemLogRegistry;
   SystemLogMessage message_;
   double lastSeconds_ = -std::numeric_limits< double >::infinity();
   uint64_t logged_ = 0;
   uint64_t suppressed_ = 0;
};

using SystemLogSink = std::function< void( const SystemLogMessage& ) >;

/// Where messages go. An empty sink restores the default, which writes to standard error.
VEL_EXPORT void systemLogSinkIs( SystemLogSink sink );
/// The clock of the rate limit; null restores the steady one. All messages are allowed anew.
VEL_EXPORT void systemLogClockIs( const Ptr< Clock >& clock );
/// The registered messages, by name.
VEL_EXPORT std::vector< const SystemLogHandle* > systemLogHandles();

} // namespace Vel
