// AnswerRelay: stands between the hardware layer's answers to FEC requests and those who wait for
// them. Answers, and their withdrawals, pass when they are told to, in any order.

#pragma once

#include <algorithm>
#include <utility>
#include <vector>

#include "platform/seams/FecTables.h"

namespace Vel::Sim {

class AnswerRelay : public FecIdToHwFecIdResponse::Reactor {
 public:
   AnswerRelay( Ptr< FecIdToHwFecIdResponse > from, Ptr< FecIdToHwFecIdResponse > to )
      : from_( std::move( from ) ), to_( std::move( to ) ) {
      notifierIs( from_.get() );
   }

   void onHwFecId( Fib::FecId fecId ) override {
      if ( std::ranges::find( waiting_, fecId ) == waiting_.end() ) {
         waiting_.push_back( fecId );
      }
   }
   /// Lets one of the answers that wait pass, as it stands now.
   void pass( size_t pick ) {
      if ( waiting_.empty() ) {
         return;
      }
      const auto at = waiting_.begin() + static_cast< std::ptrdiff_t >( pick % waiting_.size() );
      const Fib::FecId fecId = *at;
      waiting_.erase( at );
      if ( from_->hwFecIdHas( fecId ) ) {
         to_->hwFecIdIs( fecId, from_->hwFecId( fecId ) );
      } else {
         to_->hwFecIdDel( fecId );
      }
   }
   bool answersWait() const { return !waiting_.empty(); }

 private:
   Ptr< FecIdToHwFecIdResponse > from_;
   Ptr< FecIdToHwFecIdResponse > to_;
   std::vector< Fib::FecId > waiting_;
};

} // namespace Vel::Sim
