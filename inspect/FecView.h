// FecView: the requests for FECs, and what hardware has answered.

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

   /// The content that is requested of a FEC of this library; null when none is.
   const Fib::Fec* requested( Fib::FecId fecId ) const;
   /// Hardware has the FEC in some form.
   bool answered( Fib::FecId fecId ) const {
      return response_ && response_->hwFecId( fecId ).hwId != 0;
   }
   /// Hardware has the FEC, but not as it is requested now.
   bool behind( Fib::FecId fecId ) const {
      return answered( fecId ) && request_ &&
             response_->hwFecId( fecId ).version != request_->hwFecIdRequest( fecId ).version;
   }
   /// The report of hardware as far as it counts: which way a protected FEC takes, and of any FEC
   /// that no frame leaves by it.
   AdjHwState believed( AdjHwState reported, Fib::FecId fecId ) const {
      const Fib::Fec* const content = requested( fecId );
      const bool said =
         !content || content->backupFecId != Fib::FecId() || reported == AdjHwState::down;
      return said ? reported : AdjHwState::unknown;
   }
   /// The vias that do not lead into the backup are those that are wanted, with the pop where the
   /// adjacency's routes carry it.
   static bool hasVias( const Fib::Fec& content, const std::vector< Fib::FecVia >& wanted,
                        const L3Adjacency& l3Adj, bool popWithRoute );
   /// The adjacency's FEC has the content that is wanted; the backup is not compared.
   bool isAsWanted( const FecIntent& wanted, const L3Adjacency& l3Adj ) const;

   const FecIdToHwFecIdRequest* request() const { return request_; }
   const FecIdToHwFecIdResponse* response() const { return response_; }

 private:
   const FecIdToHwFecIdRequest* request_;
   const FecIdToHwFecIdResponse* response_;
};

} // namespace Vel::Inspect
