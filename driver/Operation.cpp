#include "driver/Operation.h"

namespace Vel::Driver {

void appendText( std::string& out, const Operation& operation ) {
   out += joinText( operation.kind, " vrf ", operation.vrfId );
   if ( !operation.routeKey.null() ) {
      out += joinText( " routeKey ", operation.routeKey );
   }
   if ( operation.adjacency ) {
      out += joinText( " adjacency ", operation.adjacency->index() );
   }
   out += joinText( " version ", operation.version );
}

void OperationQueue::pushAdjacency( Operation operation ) {
   viaSets_.push_back( operation.adjacency->l2Adjacency()->l2ViaSet() );
   push( std::move( operation ) );
}

// The queue was empty: the hardware starts on the first operation now.
void OperationQueue::begin() {
   if ( serviceTimeSeconds_ > 0 ) {
      readyAt_ = now() + serviceTimeSeconds_;
   }
   if ( !task_->running() ) {
      task_->runAfter( serviceTimeSeconds_ );
   }
}

bool OperationQueue::ready() const {
   return !waiting_.empty() && ( serviceTimeSeconds_ <= 0 || readyAt_ <= now() );
}

Operation OperationQueue::pop() {
   readyAt_ += serviceTimeSeconds_; // of the next one, which has waited
   return waiting_.pop();
}

Mpls::Hardware::L2ViaSet OperationQueue::popViaSet() {
   Mpls::Hardware::L2ViaSet first = std::move( viaSets_.front() );
   viaSets_.pop_front();
   return first;
}

void OperationQueue::schedule() {
   if ( !waiting_.empty() ) {
      task_->runAfter( serviceTimeSeconds_ > 0 ? readyAt_ - now() : 0 );
   }
}

} // namespace Vel::Driver
