// ChainReader: reads the links of an explanation, one after the other. Explain.cpp has those that
// every label has, ExplainFec.cpp what is different where the hardware has FECs.

#pragma once

#include <string>
#include <string_view>

#include "inspect/Explain.h"
#include "inspect/FecView.h"
#include "inspect/ForeignWays.h"
#include "inspect/LfibIntent.h"
#include "mpls/VelMplsHwInsight.h"
#include "mpls/VelMplsSm.h"

namespace Vel::Inspect {

/// The roots, and what each of them holds of the label.
class ChainReader {
   using RouteKey = Mpls::RouteKey;
   using RouteStatusCode = Mpls::RouteStatusCode;

 public:
   ChainReader( const EntityManager& roots, RouteKey key, const InterfaceName& interfaceName,
                std::string ignoredReason );

   const std::string& fault() const { return fault_; }
   double now() const { return clock_->now(); }
   bool ignored() const { return !!route_ && !isTransit( route_.viaSetKey.viaType() ); }
   bool inHardware() const {
      return status_ && status_->mplsRouting() &&
             ( status_->routeHas( key_ ) || ( inFec() && !writingLost() ) );
   }

   ChainLink lfibRoute() const;
   ChainLink viaSet() const;
   ChainLink admission() const;
   ChainLink l3Adjacency() const;
   ChainLink nextHops() const;
   ChainLink l2Adjacency() const;
   bool hasFec() const { return fec_ || ( record_ && record_->extFecInfo() ); }
   ChainLink fec() const;
   ChainLink hwConfig() const;
   ChainLink driver() const;
   ChainLink published( LabelState state ) const;

 private:
   template< class T >
   const T* required( const EntityManager& roots, std::string_view name );
   void findVrf();
   void findRecords();

   std::optional< U64 > operationsWaiting() const {
      return insight_ ? insight_->operationsWaiting() : std::nullopt;
   }
   double recordSince() const { return record_ ? record_->unprogrammedSince() : neverTime; }
   double viaSetSince() const;
   double nextRetry() const;
   bool leftOver() const;
   std::string viaSetFault() const;
   std::string nextHopText( const IpGenAddr& address, IntfId intf ) const;
   std::string unresolvedWhy( const IpGenAddr& address, IntfId intf ) const;
   std::string exitsText( const Mpls::Hardware::L2ViaSet& exits ) const;
   std::string l2ViaText( const Mpls::Hardware::L2Via& via ) const;
   void readNextHop( const Mpls::Hardware::AdjacencyVia& via, ChainLink& link ) const;
   UnprogrammedReason adjacencyReason() const;
   UnprogrammedReason routeReason() const;
   U32 adjacencyWritten() const;
   U32 adjacencyCarriedOut() const;
   bool adjacencyRefused() const;
   std::string configFault() const;
   // FECs and protection, ExplainFec.cpp.
   void readFecContent( ChainLink& link ) const;
   void readProtection( ChainLink& link ) const;
   void readForeign( ChainLink& link ) const;
   void readFecNextHops( ChainLink& link ) const;
   void readFecL2Adjacency( ChainLink& link ) const;
   std::string roomText() const;
   void readUnanswered( ChainLink& link ) const;
   void readFecRoute( ChainLink& link ) const;
   std::string backupWaitsFor() const;
   std::string protectionLack() const;
   AdjHwState hwState() const;
   /// Whether the next hops are those of a next-hop group, a tunnel or an external FEC.
   bool isForeign() const;
   bool primariesUsable() const { return viaSet_.null() || viaSet_.usableAsPrimaryVias(); }
   bool inFec() const { return record_ && record_->inFecInHardware(); }
   /// The driver has answered the last writing into a FEC, and does not have the route.
   bool writingLost() const { return insight_ && vrfId_ && insight_->routeLost( *vrfId_, key_ ); }
   /// The route stays in its former FEC until hardware has the FEC that is wanted now.
   bool inOlderFec() const { return inFec() && record_->extFecInfo() != fec_; }
   /// Hardware has the FEC with its former content.
   bool behind() const { return fec_ && fecs_.behind( fec_->fecId() ); }
   bool byBackupOnly() const {
      return fec_ && primariesUsable() && hwState() == AdjHwState::backupActive;
   }
   void readUnconfirmed( ChainLink& link ) const;
   bool publishingPending() const {
      return vrf_ && ( vrf_->routeKeyForReviewHas( key_ ) || vrf_->routeKeyForPublishHas( key_ ) );
   }

   static void fails( ChainLink& link, std::string text, double since, std::string waitsFor );
   void failsUntilReview( ChainLink& link, std::string text ) const;
   void failsUntilRetry( ChainLink& link, std::string text, double since, U64 tries ) const;

   RouteKey key_;
   const InterfaceName& interfaceName_;
   const ForeignWays foreignWays_;
   const FecView fecs_;
   std::string ignoredReason_;
   std::string fault_;
   // The roots.
   const Clock* clock_ = nullptr;
   const MplsSm* sm_ = nullptr;
   const Mpls::LfibStatus* lfib_ = nullptr;
   const Mpls::LfibHwStatus* lfibHwStatus_ = nullptr;
   const Mpls::Hardware::Status* hwMpls_ = nullptr;
   const MplsHwConfig* hwConfig_ = nullptr;
   const MplsHwStatus* hwStatus_ = nullptr;
   const VelL3Status* l3Status_ = nullptr;
   const Routing::Hardware::RouteStatus* numbers_ = nullptr;
   const Mpls::LfibInfo* lfibInfo_ = nullptr; // may be missing, as may the next
   const MplsHwInsight* insight_ = nullptr;   // a driver may have none
   // What the roots hold of the VRF and the label; null where they hold nothing.
   L3::VrfName vrfName_ = L3::VrfName::defaultVrf();
   std::optional< VrfId > vrfId_;
   const VrfMplsState* vrf_ = nullptr;
   const MplsHwVrfConfig* config_ = nullptr;
   const MplsHwVrfStatus* status_ = nullptr;
   Mpls::LfibRoute route_;
   Mpls::LfibViaSet viaSet_;
   const MplsRoute* record_ = nullptr;
   const L3Adjacency* l3Adj_ = nullptr;
   const MplsL2Adjacency* l2Adj_ = nullptr;
   const ExternalFecInfo* fec_ = nullptr; // the adjacency's, which the route is to go into
   const Mpls::Hardware::Adjacency* hwAdj_ = nullptr;
   const MplsHwRoute* written_ = nullptr;  // what was written for the driver
   const MplsHwRoute* reported_ = nullptr; // what the driver reports to hold
};

} // namespace Vel::Inspect
