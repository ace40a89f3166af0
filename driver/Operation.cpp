#include "driver/Operation.h"

#include <algorithm>

namespace Vel::Driver {

void appendText( std::string& out, const Operation& operation ) {
   out += joinText( operation.kind, " vrf ", operation.vrfId );
   if ( !operation.routeKey.null() ) {
      out += joinText( " routeKey ", operation.routeKey );
   }
   if ( operation.adjacency ) {
      out += joinText( " adjacency ", operation.adjacency->index() );
   }
   switch ( operation.kind ) {
   case OperationKind::fecChanged:
      out += joinText( " fec ", operation.fecId() );
      break;
   case OperationKind::mplsRouting:
      out += operation.enabled() ? " on" : " off";
      break;
   default:
      out += joinText( " version ", operation.version() );
   }
}

void OperationQueue::pushAdjacency( Operation operation ) {
   viaSets_.push_back( operation.adjacency->l2Adjacency()->l2ViaSet() );
   push( std::move( operation ) );
}

void OperationQueue::latenessIs( Lateness lateness ) {
   VEL_ASSERT( lateness );
   for ( size_t waiting = lateness_ ? 0 : waiting_.size(); waiting != 0; --waiting ) {
      dueAt_.push( now() );
   }
   lateness_ = std::move( lateness );
}

// The queue was empty: the hardware starts on the first operation now.
void OperationQueue::begin() {
   if ( serviceTimeSeconds_ > 0 ) {
      readyAt_ = now() + serviceTimeSeconds_;
   }
   if ( !task_->running() ) {
      task_->runAfter( waitSeconds() );
   }
}

// Seconds until the hardware has finished the first operation.
double OperationQueue::waitSeconds() const {
   const double ready = serviceTimeSeconds_ > 0 ? readyAt_ : 0;
   const double due = lateness_ ? dueAt_.front() : 0;
   return ready > 0 || due > 0 ? std::max( 0.0, std::max( ready, due ) - now() ) : 0;
}

bool OperationQueue::ready() const {
   return !waiting_.empty() && waitSeconds() <= 0;
}

Operation OperationQueue::pop() {
   if ( lateness_ ) {
      dueAt_.pop();
   }
   readyAt_ = std::max( readyAt_, now() - serviceTimeSeconds_ ) + serviceTimeSeconds_;
   ++popped_;
   return waiting_.pop();
}

Mpls::Hardware::L2ViaSet OperationQueue::popViaSet() {
   Mpls::Hardware::L2ViaSet first = std::move( viaSets_.front() );
   viaSets_.pop_front();
   return first;
}

void OperationQueue::schedule() {
   if ( !waiting_.empty() ) {
      task_->runAfter( waitSeconds() );
   }
}

} // namespace Vel::Driver
