#include "platform/base/Trace.h"

#include <algorithm>
#include <cstdio>
#include <utility>

namespace Vel {

constinit thread_local TraceRing* traceRingOfThread = nullptr;

namespace {

constinit thread_local bool ringEnded = false; // the thread is ending: no new ring
constinit thread_local bool inSink = false;

struct RingOwner {
   ~RingOwner() {
      ringEnded = true;
      delete std::exchange( traceRingOfThread, nullptr );
   }
};

struct InSink {
   InSink() { inSink = true; }
   ~InSink() { inSink = false; }
   InSink( const InSink& ) = delete;
   InSink& operator=( const InSink& ) = delete;
};

void appendSeconds( std::string& out, double seconds ) {
   std::array< char, 64 > text;
   const int length = std::snprintf( text.data(), text.size(), "%.6f", seconds );
   out.append( text.data(), std::min( static_cast< size_t >( length ), text.size() - 1 ) );
}

// Counts and labels read best in decimal, keys and addresses in hexadecimal.
void appendRingValue( std::string& out, uint64_t value ) {
   constexpr uint64_t decimalBelow = uint64_t{ 1 } << 32;
   std::array< char, 24 > digits;
   if ( value >= decimalBelow ) {
      out += "0x";
   }
   const auto end = std::to_chars( digits.data(), digits.data() + digits.size(), value,
                                   value < decimalBelow ? 10 : 16 );
   out.append( digits.data(), end.ptr );
}

void writeToStandardError( const TraceLine& line ) {
   const std::string text = line.formatted() + "\n";
   std::fwrite( text.data(), 1, text.size(), stderr );
}

} // namespace

// The registered handles, and the setting. Handles and their users may be made and destroyed with
// the statics of any file, so the registry is never destroyed.
class TraceRegistry {
 public:
   struct Item {
      std::string handle;
      int level;
   };

   static TraceRegistry& get() {
      static TraceRegistry& registry = *new TraceRegistry;
      return registry;
   }

   void add( TraceHandle& handle ) {
      handles_.push_back( &handle );
      apply( handle );
   }
   void remove( TraceHandle& handle ) { std::erase( handles_, &handle ); }
   void settingIs( std::string_view text, std::vector< Item > items ) {
      setting_ = text;
      items_ = std::move( items );
      for ( TraceHandle* const handle : handles_ ) {
         apply( *handle );
      }
   }
   const std::string& setting() const { return setting_; }
   const std::vector< TraceHandle* >& handles() const { return handles_; }

   TraceSink sink = writeToStandardError;

 private:
   void apply( TraceHandle& handle ) const {
      int level = -1;
      for ( const Item& item : items_ ) {
         if ( item.handle == "*" || item.handle == handle.name() ) {
            level = std::max( level, item.level );
         }
      }
      handle.levels_ = ( 1U << ( level + 1 ) ) - 1;
   }

   std::vector< TraceHandle* > handles_;
   std::vector< Item > items_;
   std::string setting_;
};

TraceHandle::TraceHandle( const char* name ) : name_( name ) {
   TraceRegistry::get().add( *this );
}

TraceHandle::~TraceHandle() {
   TraceRegistry::get().remove( *this );
}

std::string TraceLine::formatted() const {
   std::string out;
   appendSeconds( out, timeSeconds );
   out += joinText( " ", handle, "/", level, " ", text );
   return out;
}

std::optional< std::string > traceSettingIs( std::string_view setting ) {
   std::vector< TraceRegistry::Item > items;
   std::string_view rest = setting;
   while ( !rest.empty() ) {
      const size_t comma = rest.find( ',' );
      const std::string_view item = rest.substr( 0, comma );
      const size_t slash = item.find( '/' );
      const std::string_view level =
         slash == std::string_view::npos ? std::string_view() : item.substr( slash + 1 );
      if ( slash == 0 || level.size() != 1 || level[0] < '0' || level[0] > '9' ) {
         return joinText( "trace setting '", item, "': expected HANDLE/LEVEL, LEVEL from 0 to ",
                          TraceHandle::maxLevel );
      }
      items.push_back( { std::string( item.substr( 0, slash ) ), level[0] - '0' } );
      if ( comma == std::string_view::npos ) {
         break;
      }
      rest.remove_prefix( comma + 1 );
      if ( rest.empty() ) {
         return std::string( "trace setting: nothing after the last comma" );
      }
   }
   TraceRegistry::get().settingIs( setting, std::move( items ) );
   return std::nullopt;
}

std::string traceSetting() {
   return TraceRegistry::get().setting();
}

void traceSinkIs( TraceSink sink ) {
   TraceRegistry::get().sink = sink ? std::move( sink ) : TraceSink( writeToStandardError );
}

std::vector< std::string > traceHandles() {
   std::vector< std::string > names;
   for ( const TraceHandle* const handle : TraceRegistry::get().handles() ) {
      names.emplace_back( handle->name() );
   }
   std::sort( names.begin(), names.end() );
   names.erase( std::unique( names.begin(), names.end() ), names.end() );
   return names;
}

void traceEmit( const TraceHandle& handle, int level, std::string_view signature,
                const std::string& text ) {
   if ( inSink ) {
      return;
   }
   const InSink guard;
   const TraceSink sink = TraceRegistry::get().sink; // a copy: the sink may replace itself
   const TraceRing* const ring = traceRingOfThread;
   sink( { handle.name(), level, signature, text, ring ? ring->timeSeconds : 0 } );
}

void traceTimeIs( double seconds ) {
   TraceRing* const ring = traceRingOfThread ? traceRingOfThread : traceRingMake();
   if ( ring ) {
      ring->timeSeconds = seconds;
   }
}

TraceRing* traceRingMake() {
   if ( ringEnded ) {
      return nullptr;
   }
   [[maybe_unused]] static thread_local RingOwner owner;
   traceRingOfThread = new TraceRing; // its entries are not touched before they are written
   return traceRingOfThread;
}

std::string traceRingDump( size_t last ) {
   std::string out;
   const TraceRing* const ring = traceRingOfThread;
   if ( ring == nullptr ) {
      return out;
   }
   const uint64_t count = std::min< uint64_t >( { last, ring->written, TraceRing::capacity } );
   for ( uint64_t sequence = ring->written - count; sequence < ring->written; ++sequence ) {
      const TraceRingEntry& entry = ring->entries[sequence % TraceRing::capacity];
      out += joinText( "#", entry.sequence(), " " );
      appendSeconds( out, entry.timeSeconds );
      out += joinText( " ", entry.handle, " ", entry.text );
      for ( size_t i = 0; i < entry.count(); ++i ) {
         out += ' ';
         appendRingValue( out, entry.values[i] );
      }
      out += '\n';
   }
   return out;
}

size_t traceRingWritten() {
   return traceRingOfThread ? traceRingOfThread->written : 0;
}

} // namespace Vel
