// FecView: what is requested of FECs, and what stands behind their ids.

#pragma once

#include <vector>

#include "inspect/LfibIntent.h"
#include "mpls/VelMplsRecords.h"
#include "platform/entity/EntityManager.h"

namespace Vel::Inspect {

class FecView {
 public:
   /// Takes "hwFecIdRequest" and "hwFecIdResponse"; hardware without FECs has neither.
   explicit FecView( const EntityManager& entities )
      : request_( entities.root< FecIdToHwFecIdRequest >( "hwFecIdRequest" ) ),
        response_( entities.root< FecIdToHwFecIdResponse >( "hwFecIdResponse" ) ) {}

   /// Requested with its content, and numbered, by this library.
   static bool ours( Fib::FecId fecId ) {
      return fecId.adjType() == Fib::AdjType::mplsV4Adj ||
             fecId.adjType() == Fib::AdjType::mplsV6Adj;
   }
   /// What is requested of one of ours; null when nothing is.
   const Fib::Fec* requested( Fib::FecId fecId ) const;
   /// Hardware has the FEC in some form.
   bool answered( Fib::FecId fecId ) const {
      return response_ && response_->hwFecId( fecId ).hwId != 0;
   }
   /// Hardware has it, but not as it is requested now.
   bool behind( Fib::FecId fecId ) const {
      return answered( fecId ) && request_ &&
             response_->hwFecId( fecId ).version != request_->hwFecIdRequest( fecId ).version;
   }
   /// What hardware says of the FEC, as far as it is of what is requested: which way it takes where
   /// it is protected, and that nothing leaves by it.
   AdjHwState believed( AdjHwState reported, Fib::FecId fecId ) const {
      const Fib::Fec* const content = requested( fecId );
      const bool said =
         !content || content->backupFecId != Fib::FecId() || reported == AdjHwState::down;
      return said ? reported : AdjHwState::unknown;
   }
   /// How many of a FEC's vias are its own, and do not lead into its backup.
   static size_t primaries( const Fib::Fec& content ) {
      return content.via.size() -
             ( content.backupFecId == Fib::FecId() || content.via.empty() ? 0 : 1 );
   }
   /// The FEC's own vias are just these, counting a pop that travels with the routes of the
   /// adjacency.
   static bool hasVias( const Fib::Fec& content, const std::vector< Fib::FecVia >& wanted,
                        const L3Adjacency& l3Adj, bool popWithRoute );
   /// The adjacency's FEC is what is wanted of it, its backup apart.
   bool isAsWanted( const FecIntent& wanted, const L3Adjacency& l3Adj ) const;

   const FecIdToHwFecIdRequest* request() const { return request_; }
   const FecIdToHwFecIdResponse* response() const { return response_; }

 private:
   const FecIdToHwFecIdRequest* request_;
   const FecIdToHwFecIdResponse* response_;
};

} // namespace Vel::Inspect
