#include "platform/services/SystemLog.h"

#include <algorithm>
#include <cstdio>
#include <utility>

namespace Vel {

namespace {

void writeToStandardError( const SystemLogMessage& message ) {
   const std::string text = textOf( message ) + "\n";
   std::fwrite( text.data(), 1, text.size(), stderr );
}

} // namespace

// Handles are made and destroyed with the statics of any file, so this is never destroyed.
class SystemLogRegistry {
 public:
   static SystemLogRegistry& get() {
      static SystemLogRegistry& registry = *new SystemLogRegistry;
      return registry;
   }

   void add( SystemLogHandle& handle ) { handles_.push_back( &handle ); }
   void remove( SystemLogHandle& handle ) { std::erase( handles_, &handle ); }
   const std::vector< SystemLogHandle* >& handles() const { return handles_; }

   double now() const { return clock_->now(); }
   void clockIs( const Ptr< Clock >& clock ) {
      clock_ = clock ? clock : make< SteadyClock >();
      for ( SystemLogHandle* const handle : handles_ ) {
         handle->lastSeconds_ = -std::numeric_limits< double >::infinity();
      }
   }

   SystemLogSink sink = writeToStandardError;

 private:
   std::vector< SystemLogHandle* > handles_;
   Ptr< Clock > clock_ = make< SteadyClock >();
};

void appendText( std::string& out, const SystemLogMessage& message ) {
   out += joinText( message.name, " severity ", message.severity, ": ", message.format );
}

SystemLogHandle::SystemLogHandle( const SystemLogMessage& message ) : message_( message ) {
   SystemLogRegistry::get().add( *this );
}

SystemLogHandle::~SystemLogHandle() {
   SystemLogRegistry::get().remove( *this );
}

bool SystemLogHandle::allowed() {
   if ( SystemLogRegistry::get().now() >= lastSeconds_ + message_.minIntervalSeconds ) {
      return true;
   }
   ++suppressed_;
   return false;
}

void SystemLogHandle::log( std::string_view text ) {
   lastSeconds_ = SystemLogRegistry::get().now();
   ++logged_;
   const SystemLogSink sink = SystemLogRegistry::get().sink; // a copy: the sink may replace itself
   SystemLogMessage message = message_;
   if ( !text.empty() ) {
      message.format = text;
   }
   sink( message );
}

void systemLogSinkIs( SystemLogSink sink ) {
   SystemLogRegistry::get().sink = sink ? std::move( sink ) : SystemLogSink( writeToStandardError );
}

void systemLogClockIs( const Ptr< Clock >& clock ) {
   SystemLogRegistry::get().clockIs( clock );
}

std::vector< const SystemLogHandle* > systemLogHandles() {
   const auto& handles = SystemLogRegistry::get().handles();
   std::vector< const SystemLogHandle* > sorted( handles.begin(), handles.end() );
   std::sort( sorted.begin(), sorted.end(), []( const auto* a, const auto* b ) {
      return a->message().name < b->message().name;
   } );
   return sorted;
}

} // namespace Vel
