// Trace: how a running system says what it does, in two channels.
//
// The text channel is for people. Each state machine has a handle with levels 0 to 9:
//
//    TraceHandle traceHandle( "VelMplsSm" );
//    VEL_TRACE( traceHandle, 7, "process routeKey ", key, " vrf ", vrf );
//    VEL_TRACE_CALL( traceHandle, 3, " vrf ", vrf ); // "void Vel::MplsSm::review(...) vrf default"
//
// A line is formatted only when its level is on, and goes to a sink that the process's owner sets.
// The setting "VelMplsSm/3,VelMplsDecapSm/8" turns on levels 0 to 3 of the one and 0 to 8 of the
// other; "*" stands for every handle. Handles may appear after the setting that names them. Off, a
// line costs a load and one predictable branch.
//
// The ring channel is for the moment after. It is always on: a line stores the address of a fixed
// text, up to four raw values and the time that was last noted into a ring of 4096 entries of the
// calling thread. Nothing is formatted and no clock is read until somebody asks for a dump (a
// failed assertion does). A line costs a few nanoseconds:
//
//    VEL_RING( traceHandle, "publish routeKey", key );
//
// Values are numbers, truth values, enumerations, pointers, or keys that are one word. A thread's
// ring (256 KiB) is made at its first line and goes with the thread.
//
// Handles, setting and sink belong to one thread; rings are each thread's own.

#pragma once

#include <array>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <type_traits>
#include <vector>

#include "platform/base/Export.h"
#include "platform/base/Text.h"

namespace Vel {

/// Names the source of trace lines. Lives as long as the code that traces: usually a global.
/// Handles of the same name are set together.
class VEL_EXPORT TraceHandle {
 public:
   static constexpr int maxLevel = 9;

   /// `name` must be a text that stays, such as a literal.
   explicit TraceHandle( const char* name );
   TraceHandle( const TraceHandle& ) = delete;
   TraceHandle& operator=( const TraceHandle& ) = delete;
   ~TraceHandle();

   const char* name() const { return name_; }
   /// Whether lines of that level, 0 to 9, are wanted.
   bool enabled( int level ) const { return ( levels_ >> level & 1U ) != 0; }

 private:
   friend class TraceRegistry;
   const char* name_;
   uint32_t levels_ = 0; ///< a bit for each level
};

/// One line of the text channel, valid during the call of the sink.
struct TraceLine {
   std::string_view handle;
   int level;
   std::string_view signature; ///< of the function that traces, as the compiler spells it
   std::string_view text;
   double timeSeconds; ///< as last noted with traceTimeIs

   /// "12.345678 VelMplsSm/3 text"
   VEL_EXPORT std::string formatted() const;
};

using TraceSink = std::function< void( const TraceLine& ) >;

/// Sets which levels are on, in place of the setting before. An empty text turns everything off.
/// On a malformed text nothing changes and the error is returned; a handle that does not exist
/// (yet) is no error.
VEL_EXPORT std::optional< std::string > traceSettingIs( std::string_view setting );
/// The setting in force.
VEL_EXPORT std::string traceSetting();
/// Where lines go. An empty sink restores the default, which writes to standard error. Lines that a
/// sink causes itself are dropped.
VEL_EXPORT void traceSinkIs( TraceSink sink );
/// The names of the handles, each once, sorted.
VEL_EXPORT std::vector< std::string > traceHandles();

/// Notes the time, in seconds, that both channels show with the lines that follow on this thread.
/// The scheduler does.
VEL_EXPORT void traceTimeIs( double seconds );
/// The last lines of the calling thread's ring as text, the oldest first.
VEL_EXPORT std::string traceRingDump( size_t last );
/// How many lines the calling thread has written to its ring.
VEL_EXPORT size_t traceRingWritten();

/// Hands a line to the sink; VEL_TRACE asks first whether the level is on.
[[gnu::cold]] VEL_EXPORT void traceEmit( const TraceHandle& handle, int level,
                                         std::string_view signature, const std::string& text );

/// One line of the ring: a cache line.
struct alignas( 64 ) TraceRingEntry {
   static constexpr size_t maxValues = 4;

   const char* text;
   const char* handle;
   std::array< uint64_t, maxValues > values;
   double timeSeconds;
   uint64_t sequenceAndCount; ///< the line's number above three bits for the number of values

   uint64_t sequence() const { return sequenceAndCount >> 3; }
   size_t count() const { return sequenceAndCount & 7; }
};

/// A thread's ring.
struct TraceRing {
   static constexpr size_t capacity = 4096;

   uint64_t written = 0;
   double timeSeconds = 0;
   std::array< TraceRingEntry, capacity > entries;
};

// One word of thread-local storage, so that threads with small stacks can be made and the library
// can be loaded late.
extern VEL_EXPORT constinit thread_local TraceRing* traceRingOfThread
   __attribute__( ( tls_model( "initial-exec" ) ) );
/// Makes the calling thread's ring; null when the thread is ending.
[[gnu::cold]] VEL_EXPORT TraceRing* traceRingMake();

/// How a value becomes the word that the ring stores. Seconds and the like are cut to whole
/// numbers.
template< class T >
constexpr uint64_t traceRingValue( const T& value ) {
   if constexpr ( std::is_floating_point_v< T > ) {
      constexpr T end = 18446744073709551616.0; // 2^64
      return value >= end ? UINT64_MAX : value > 0 ? static_cast< uint64_t >( value ) : 0;
   } else if constexpr ( std::is_pointer_v< T > ) {
      return reinterpret_cast< uintptr_t >( value );
   } else if constexpr ( requires { static_cast< uint64_t >( value.word() ); } ) {
      return static_cast< uint64_t >( value.word() );
   } else if constexpr ( requires { static_cast< uint64_t >( value.value() ); } ) {
      return static_cast< uint64_t >( value.value() );
   } else {
      return static_cast< uint64_t >( value );
   }
}

/// Writes a line to the ring. `text` must stay; VEL_RING sees to it.
template< class... T >
void traceRingWrite( const TraceHandle& handle, const char* text, const T&... values ) {
   static_assert( sizeof...( T ) <= TraceRingEntry::maxValues );
   TraceRing* ring = traceRingOfThread;
   if ( ring == nullptr ) [[unlikely]] {
      ring = traceRingMake();
      if ( ring == nullptr ) {
         return;
      }
   }
   const uint64_t sequence = ring->written++;
   TraceRingEntry& entry = ring->entries[sequence % TraceRing::capacity];
   entry.text = text;
   entry.handle = handle.name();
   [[maybe_unused]] size_t i = 0;
   ( ( entry.values[i++] = traceRingValue( values ) ), ... );
   entry.timeSeconds = ring->timeSeconds;
   entry.sequenceAndCount = sequence << 3 | sizeof...( T );
}

} // namespace Vel

/// A line of the text channel: the text forms of the pieces, joined. Evaluates the pieces only when
/// the level is on.
#define VEL_TRACE( handle, level, ... )                                                            \
   do {                                                                                            \
      if ( ( handle ).enabled( level ) ) [[unlikely]] {                                            \
         ::Vel::traceEmit( ( handle ), ( level ), __PRETTY_FUNCTION__,                             \
                           ::Vel::joinText( __VA_ARGS__ ) );                                       \
      }                                                                                            \
   } while ( false )

/// The same with the signature of the enclosing function before the pieces, of which there may be
/// none.
#define VEL_TRACE_CALL( handle, level, ... )                                                       \
   VEL_TRACE( handle, level, __PRETTY_FUNCTION__ __VA_OPT__(, ) __VA_ARGS__ )

/// A line of the ring channel: a literal and up to four values.
#define VEL_RING( handle, text, ... )                                                              \
   ::Vel::traceRingWrite( ( handle ), "" text __VA_OPT__(, ) __VA_ARGS__ )
