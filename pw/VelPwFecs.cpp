// PwLFibSm: the FECs of VLAN pseudowires, their ids, and what hardware answers.

#include "pw/VelPwLFibSm.h"
#include "pw/VelPwTrace.h"

namespace Vel {

// Everything is in place before the request is written: hardware may answer at once.
void PwLFibSm::addHwFecIdRequest( MplsLabel label, IntfId pwIntfId ) {
   PW_ASSERT( !PseudowireIntfId::isPortPseudowireIntfId( pwIntfId ),
              "!PseudowireIntfId::isPortPseudowireIntfId( pwIntfId )", "", textOf( pwIntfId ) );
   const Fib::FecId labelFecId = getOrAllocateDecapFecId( label );
   const Fib::DecapConnector connector = pwStatus_->localConnectorInfo( pwIntfId );
   PW_TRACE( 7, "vlan pw decapConnector", connector );
   fecIdToDecapInfoIs( labelFecId, { label, pwIntfId, connector, {} } );
   fecIdToFirstVersionIs( labelFecId, hwFecIdRequest_->pwRequestVersion() + 1 );
   decapLabelToVlanPwIntfIdIs( label, pwIntfId );
   PW_TRACE( 7, "intfIdToFecIdCol->fecIdIs, pwIntfId: ", pwIntfId, ", labelFecId: ", labelFecId );
   pwIntfIdToFecIdIs( pwIntfId )->fecIdIs( labelFecId );
   writeHwFecIdRequest( labelFecId, connector );
}

// An answer to an earlier life of the id may stand there. Whether one stands there that is meant
// for this request is the answer's handler's to find out.
void PwLFibSm::writeHwFecIdRequest( Fib::FecId fecId, const Fib::DecapConnector& connector ) {
   Fib::Fec fec;
   fec.fecId = fecId;
   fec.decapConnector = connector;
   hwFecIdRequest_->fecIs( fec );
   const U64 version = hwFecIdRequest_->pwRequestVersion() + 1;
   hwFecIdRequest_->pwRequestVersionIs( version );
   hwFecIdRequest_->hwFecIdRequestIs( { fecId, L3::VrfName::defaultVrf(), version } );
   if ( hwFecIdResponse_->hwFecIdHas( fecId ) ) {
      handleHwFecIdResponse( fecId );
   }
}

void PwLFibSm::removeHwFecIdRequest( MplsLabel label ) {
   const Fib::FecId labelFecId = dstPortFecRequested( label );
   if ( labelFecId == Fib::FecId() ) {
      return;
   }
   PW_TRACE( 7, "deleting hw fec request: ", labelFecId );
   PW_ASSERT( hwFecIdRequest_->hwFecIdRequestHas( labelFecId ),
              "hwFecIdRequest()->hwFecIdRequestHas( labelFecId )", "", textOf( labelFecId ) );
   dstPortFecRequestedDel( label );
   removeVlanPwIntfIdFromLabel( label, labelFecId );
   fecIdToDecapInfoDel( labelFecId ); // before hardware hears of it: its answer is nobody's now
   fecIdToFirstVersionDel( labelFecId );
   hwFecIdRequest_->fecDel( labelFecId );
   hwFecIdRequest_->hwFecIdRequestDel( labelFecId );
   PW_TRACE( 7, "free of labelFecId ", labelFecId );
   maybeFreeDecapFecId( labelFecId );
}

void PwLFibSm::removeVlanPwIntfIdFromLabel( MplsLabel label, Fib::FecId labelFecId ) {
   const IntfId pwIntfId = decapLabelToVlanPwIntfId( label );
   decapLabelToVlanPwIntfIdDel( label );
   PwIntfIdToFecIdCollection* const fecIds = pwIntfIdToFecId( pwIntfId );
   fecIds->fecIdDel( labelFecId );
   if ( fecIds->fecIds() == 0 ) {
      pwIntfIdToFecIdDel( pwIntfId );
   }
}

Fib::FecId PwLFibSm::getOrAllocateDecapFecId( MplsLabel label ) {
   if ( const Fib::FecId cached = dstPortFecRequested( label ); cached != Fib::FecId() ) {
      PW_TRACE( 8, "cachedFecId: ", cached );
      return cached;
   }
   const U64 index = numAllocator_->getNumber();
   PW_ASSERT( index != NumAllocator::invalidNumber(), "index != numAllocator()->invalidNumber()",
              "FecId range exhausted, Not possible", textOf( label ) );
   const Fib::FecId fecId = Fib::FecId::fecIdForAdjType( Fib::AdjType::pwDecapAdj, index );
   allocatedFecIdIs( fecId );
   dstPortFecRequestedIs( label, fecId );
   PW_TRACE( 7, "decapLabel: ", label, " fecId: ", fecId );
   return fecId;
}

// An id keeps its number while it is answered, so that the answer is not taken for its successor's.
void PwLFibSm::maybeFreeDecapFecId( Fib::FecId fecId ) {
   if ( !allocatedFecIdHas( fecId ) ) {
      return; // hardware answers something that this instance has not asked
   }
   PW_ASSERT( fecId.adjType() == Fib::AdjType::pwDecapAdj,
              "fecId.adjType() == Fib::AdjType::pwDecapAdj", "", textOf( fecId ) );
   if ( hwFecIdRequest_->hwFecIdRequestHas( fecId ) || hwFecIdResponse_->hwFecIdHas( fecId ) ) {
      return;
   }
   allocatedFecIdDel( fecId );
   numAllocator_->releaseNumber( fecId.index() );
   PW_TRACE( 7, "Freed fecId ", fecId );
}

// Whether the answer is to a request of the id's present life.
bool PwLFibSm::answered( Fib::FecId fecId ) const {
   const HwFecId& answer = hwFecIdResponse_->hwFecId( fecId );
   return answer.hwId != 0 && answer.version >= fecIdToFirstVersion( fecId ) &&
          answer.version <= hwFecIdRequest_->hwFecIdRequest( fecId ).version;
}

void PwLFibSm::handleHwFecIdResponse( Fib::FecId fecId ) {
   const HwFecId answer = hwFecIdResponse_->hwFecId( fecId );
   PW_TRACE( 3, "fecId: ", fecId, ", hwFec: ", answer );
   if ( !fecIdToDecapInfoHas( fecId ) ) {
      PW_TRACE( 7, "Ignoring hwFecId response; PwDecapInfo is absent" );
      maybeFreeDecapFecId( fecId );
      return;
   }
   VelPw::PwDecapInfo decapInfo = fecIdToDecapInfo( fecId );
   const bool valid = answered( fecId );
   decapInfo.hwFecId = valid ? answer : HwFecId();
   fecIdToDecapInfoIs( fecId, decapInfo );
   if ( !valid ) {
      removeDecapInfoTableEntry( decapInfo.label );
      return;
   }
   PW_TRACE( 7, "di: ", fecId, ", di( label=", decapInfo.label, ", pwIntfId=", decapInfo.pwIntfId,
             " )" );
   decapInfoTable_->labelToPwDecapInfoIs( decapInfo );
}

void PwLFibSm::handleConnectorChange( IntfId pwIntfId ) {
   const Fib::DecapConnector connector = pwStatus_->localConnectorInfo( pwIntfId );
   PW_TRACE( 3, "pwIntfId: ", pwIntfId, ", decapConnector: ", connector );
   const Ptr< PwIntfIdToFecIdCollection > fecIds( pwIntfIdToFecId( pwIntfId ) );
   if ( !fecIds ) {
      return;
   }
   for ( const Fib::FecId fecId : fecIds->fecId() ) {
      const Fib::Fec requested = hwFecIdRequest_->fec( fecId );
      if ( requested == Fib::Fec() ) {
         PW_TRACE( 3, "No requested fec for ", fecId );
      }
      PW_ASSERT( requested != Fib::Fec(), "requested != Fib::Fec()", "", textOf( fecId ) );
      if ( requested.decapConnector == connector ) {
         continue;
      }
      PW_TRACE( 7, "updating decap connector: ", connector, ", in place fec update: ", fecId );
      VelPw::PwDecapInfo decapInfo = fecIdToDecapInfo( fecId );
      decapInfo.connector = connector;
      fecIdToDecapInfoIs( fecId, decapInfo );
      writeHwFecIdRequest( fecId, connector );
   }
}

} // namespace Vel
