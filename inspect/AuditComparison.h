// AuditComparison: one run of an audit. Audit.cpp goes through the labels and stages, AuditFecs.cpp
// knows the stages of routes into FECs.

#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "inspect/Audit.h"
#include "inspect/ForeignWays.h"
#include "inspect/LabelState.h"
#include "inspect/LfibIntent.h"
#include "mpls/VelMplsHwInsight.h"
#include "mpls/VelMplsSm.h"

namespace Vel::Inspect {

/// One run. The members from `key_` to `waitsFor_` are of the label in hand.
class AuditComparison {
   using L2Adj = Mpls::Hardware::L2Adjacency;
   using RouteKey = Mpls::RouteKey;
   using RouteStatusCode = Mpls::RouteStatusCode;

 public:
   AuditComparison( const EntityManager& entities, const InterfaceName& name, size_t limit );
   AuditReport run();

 private:
   std::vector< RouteKey > allLabels() const;
   void readQueues();
   void compareLabel( RouteKey key );
   void findRecords();
   void compareStages();
   void compareWritten();
   void compareReported();
   void compareReportedAdjacency();
   void comparePublished();
   void comparePublishedAdjacency( const Mpls::Hardware::Route& route );
   void comparePublishedVias( const Mpls::Hardware::Adjacency& adjacency,
                              const std::vector< Mpls::Hardware::L2Via >& expected );
   void allowWhatFecsUse();
   void compareRouting();
   void compareL2Adjacencies();
   void compareNextHops();
   void compareWatched( const NextHopKey& key );

   // FECs, AuditFecs.cpp.
   bool byFec() const { return intent_.intoFec || fec_ || ( route_ && route_->extFecInfo() ); }
   void compareFecWritten();
   std::string fecFault() const;
   std::string backupFault( const Fib::Fec& found ) const;
   void compareFecReported();
   void compareFecWays();
   std::string answerFault( Fib::FecId fecId ) const;
   std::string foreignFault() const;
   void comparePublishedFec( const Mpls::Hardware::Route& route );
   void compareFecs();
   void compareFecRecords( HashSet< U64 >& numbers );
   std::string fecText( Fib::FecId fecId ) const;
   std::string fecIntentText() const;

   void needNextHops( bool required );
   bool inHardware() const {
      return byFec() ? route_ && route_->inFecInHardware() : reported_ && !refused_;
   }
   std::string_view queuedFor() const;
   std::string_view excuse( AuditStage stage ) const;
   template< class Expected, class Found >
   void differ( AuditStage stage, const Expected& expected, const Found& found );
   void objectDiffers( AuditStage stage, std::string object, std::string expected,
                       std::string found );

   std::string intentText() const;
   std::string viasOf( const Ptr< L2Adj >& adjacency ) const;
   std::string versionText( const MplsHwRoute& route ) const;
   std::string refusalText() const;
   std::string adjacencyRefusal( U64 index ) const;
   static std::string publishedText( const Mpls::RouteInfo* info );

   const InterfaceName& name_;
   const ForeignWays foreignWays_;
   const size_t limit_;
   const MplsSm& sm_;
   const Mpls::LfibHwStatus& lfibHwStatus_;
   const Mpls::Hardware::Status& hwMplsStatus_;
   const ProactiveArpNexthopSm& arp_;
   const RouteReactorConfig& watched_;
   const Route6ReactorConfig& watched6_;
   const FecView fecs_;
   const LabelStates states_;
   const MplsHwVrfConfig* config_ = nullptr; // null while there is none
   const MplsHwVrfStatus* status_ = nullptr;
   const VrfMplsState* state_ = nullptr;
   const MplsHwInsight* insight_ = nullptr; // null where the driver does not have it
   VrfId vrfId_ = 0;                        // of the configuration

   RouteKey key_;
   Intent intent_;
   const MplsRoute* route_ = nullptr;     // the state machine's records of the label, or null
   const L3Adjacency* l3Adj_ = nullptr;   //
   const ExternalFecInfo* fec_ = nullptr; // the adjacency's, which the route is to go into
   const MplsHwRoute* written_ = nullptr;
   const MplsHwRoute* reported_ = nullptr;
   bool refused_ = false; // listed as unprogrammed
   bool differs_ = false;
   bool fecAgrees_ = false; // the FEC is requested with the content that is wanted
   std::string_view waitsFor_;

   HashSet< const L2Adj* > used_;                   // by written routes
   HashSet< const ExternalFecInfo* > fecsCompared_; // that have the content of their via set
   HashSet< const Mpls::Hardware::Adjacency* >
      viasCompared_;                 // whose vias are those of its L2 adjacency
   Hash< NextHopKey, bool > needed_; // true: must be watched, false: may be
   AuditReport report_;
};

template< class Expected, class Found >
void AuditComparison::differ( AuditStage stage, const Expected& expected, const Found& found ) {
   if ( waitsFor_.empty() ) {
      waitsFor_ = excuse( stage );
   }
   if ( !waitsFor_.empty() ) {
      return;
   }
   differs_ = true;
   ++report_.differenceCount;
   if ( report_.differences.size() < limit_ ) {
      report_.differences.push_back( { key_, {}, stage, expected(), found() } );
   }
}

} // namespace Vel::Inspect
