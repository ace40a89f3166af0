// Operation: one change of the hardware configuration, as it stood when it was written.
//
// The handlers that hear of the configuration only put operations into a queue; a task carries them
// out in order, each after the service time. A million routes pass through here: an operation is
// 32 bytes, the queue grows and shrinks in chunks, and the L2 vias of an adjacency wait in a queue
// of their own.

#pragma once

#include <array>
#include <deque>
#include <functional>
#include <memory>
#include <string>
#include <utility>

#include "driver/HwTables.h"
#include "platform/services/Scheduler.h"

namespace Vel::Driver {

enum class OperationKind : uint8_t {
   vrfMade,
   vrfGone,
   mplsRouting, ///< `enabled` says whether it is wanted
   adjacencyWritten,
   adjacencyRemoved,
   routeWritten,
   routeRemoved,
   fecChanged,
   syncRequested, ///< all requests of a start have been written
   fecsRetried,   ///< FECs that hardware could not make may be possible now
};
} // namespace Vel::Driver

template<>
struct Vel::EnumNames< Vel::Driver::OperationKind > {
   using Kind = Vel::Driver::OperationKind;
   static constexpr std::array< std::pair< Kind, std::string_view >, 10 > names{
      { { Kind::vrfMade, "vrfMade" },
        { Kind::vrfGone, "vrfGone" },
        { Kind::mplsRouting, "mplsRouting" },
        { Kind::adjacencyWritten, "adjacencyWritten" },
        { Kind::adjacencyRemoved, "adjacencyRemoved" },
        { Kind::routeWritten, "routeWritten" },
        { Kind::routeRemoved, "routeRemoved" },
        { Kind::fecChanged, "fecChanged" },
        { Kind::syncRequested, "syncRequested" },
        { Kind::fecsRetried, "fecsRetried" } } };
};

namespace Vel::Driver {

struct Operation {
   OperationKind kind = OperationKind::vrfMade;
   VrfId vrfId = 0;
   U64 number = 0;                 ///< what it is depends on the kind: see the functions below
   Mpls::RouteKey routeKey{};      ///< of a route
   Ptr< HwAdjacency > adjacency{}; ///< an adjacency, or that of a written route

   static Operation ofFec( Fib::FecId fecId ) {
      return { .kind = OperationKind::fecChanged, .number = fecId.value() };
   }
   /// The version of the route or adjacency that was written.
   U64 version() const { return number; }
   /// Label forwarding is to be on.
   bool enabled() const { return number != 0; }
   /// A FEC's operation has no version: it carries out what is requested when it has its turn.
   Fib::FecId fecId() const { return Fib::FecId( number ); }
};
static_assert( sizeof( Operation ) == 32, "a million of them may wait" );
/// "routeWritten vrf 0 routeKey 16001 adjacency 7 version 3", "mplsRouting vrf 0 on"
void appendText( std::string& out, const Operation& operation );

/// First in, first out, in chunks: adding moves nothing, and a queue that is emptied as it is
/// filled stays in one chunk.
template< class T >
class ChunkedQueue {
   static constexpr size_t chunkSize = 1024;
   using Chunk = std::array< T, chunkSize >;

 public:
   size_t size() const { return size_; }
   bool empty() const { return size_ == 0; }
   void push( T value ) {
      if ( last_ == chunks_.size() * chunkSize ) {
         chunks_.push_back( spare_ ? std::move( spare_ ) : std::make_unique< Chunk >() );
      }
      ( *chunks_[last_ / chunkSize] )[last_ % chunkSize] = std::move( value );
      ++last_;
      ++size_;
   }
   const T& front() const { return ( *chunks_.front() )[first_]; }
   T pop() {
      T first = std::move( ( *chunks_.front() )[first_++] );
      if ( --size_ == 0 ) {
         first_ = last_ = 0; // all in the one chunk that is left
      } else if ( first_ == chunkSize ) {
         spare_ = std::move( chunks_.front() );
         chunks_.pop_front();
         first_ = 0;
         last_ -= chunkSize;
      }
      return first;
   }

 private:
   std::deque< std::unique_ptr< Chunk > > chunks_;
   std::unique_ptr< Chunk > spare_;
   size_t size_ = 0;
   size_t first_ = 0; // in the first chunk
   size_t last_ = 0;  // one past the last element, counted from the first chunk's begin
};

/// Operations that wait, first in first out, and the task that comes for them.
class OperationQueue {
 public:
   /// By how many seconds the hardware finishes what is written now later than its service time
   /// asks.
   using Lateness = std::function< double( double now ) >;

   /// The hardware takes `serviceTimeSeconds` for each operation; 0 is no time.
   OperationQueue( Ptr< TimerTask > task, double serviceTimeSeconds )
      : task_( std::move( task ) ), serviceTimeSeconds_( serviceTimeSeconds ) {}
   OperationQueue( const OperationQueue& ) = delete;
   OperationQueue& operator=( const OperationQueue& ) = delete;

   size_t size() const { return waiting_.size(); }
   bool empty() const { return waiting_.empty(); }
   /// How many have been taken out so far: the number of the last one, counted from 1.
   U64 popped() const { return popped_; }
   /// The number that the operation pushed last will have when it is taken out.
   U64 pushed() const { return popped_ + waiting_.size(); }
   void push( Operation operation ) {
      if ( lateness_ ) {
         dueAt_.push( now() + lateness_( now() ) );
      }
      const bool first = waiting_.empty();
      waiting_.push( std::move( operation ) );
      if ( first ) {
         begin();
      }
   }
   /// Sets the lateness of what is written from now on.
   void latenessIs( Lateness lateness );
   /// Adds the writing of an adjacency, with its L2 vias as they are now.
   void pushAdjacency( Operation operation );

   /// Whether the hardware has finished the first operation.
   bool ready() const;
   Operation pop();
   /// The vias of the adjacency operation that `pop` gave last; to be taken once for each.
   Mpls::Hardware::L2ViaSet popViaSet();
   /// Has the task run when the first operation is ready.
   void schedule();

 private:
   double now() const { return task_->scheduler()->clock()->now(); }
   void begin();
   double waitSeconds() const;

   Ptr< TimerTask > task_;
   double serviceTimeSeconds_;
   double readyAt_ = 0; // of the first operation; with a service time only
   U64 popped_ = 0;
   ChunkedQueue< Operation > waiting_;
   Lateness lateness_;
   ChunkedQueue< double > dueAt_; // of each operation that waits; with a lateness only
   std::deque< Mpls::Hardware::L2ViaSet > viaSets_;
};

} // namespace Vel::Driver
