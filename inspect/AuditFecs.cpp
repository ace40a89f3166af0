#include "inspect/AuditComparison.h"

namespace Vel::Inspect {

using Fib::FecId;
using Fib::FecVia;

namespace {

bool leadsInto( const FecVia& via, FecId fecId ) {
   FecVia plain;
   plain.intf = FecId::fecIdToHierarchicalIntfId( fecId );
   return via == plain;
}

} // namespace

// --- Intent -> written.

void AuditComparison::compareFecWritten() {
   const auto expected = [&] { return intentText(); };
   if ( written_ ) {
      used_.insert( written_->l2Adjacency.get() );
      differ( AuditStage::written, expected, [&] { return viasOf( written_->l2Adjacency ); } );
   }
   if ( fec_ == nullptr ) {
      differ( AuditStage::written, expected, [&] {
         if ( route_ && route_->extFecInfo() ) {
            return "a route into FEC " + fecIdText( route_->extFecInfo()->fecId() );
         }
         const std::string waits = l3Adj_ ? sm_.backupWaitReason( *state_, *l3Adj_ ) : "";
         return waits.empty() ? "no FEC" : "no FEC, waits for its backup: " + waits;
      } );
      return;
   }
   const std::string fault = intent_.intoFec ? fecFault() : fecText( fec_->fecId() );
   if ( !fault.empty() ) {
      differ( AuditStage::written, expected, [&] { return std::string( fault ); } );
      return;
   }
   fecAgrees_ = true;
   fecsCompared_.insert( fec_ );
}

// How the request differs from what the label wants; empty when it does not.
std::string AuditComparison::fecFault() const {
   const FecId fecId = fec_->fecId();
   if ( l3Adj_->lFibViaSetKey() != intent_.viaSetKey ) {
      return joinText( fecText( fecId ), ", of the via set ", l3Adj_->lFibViaSetKey() );
   }
   if ( fecsCompared_.has( fec_ ) ) {
      return {};
   }
   if ( !fecs_.request()->hwFecIdRequestHas( fecId ) ) {
      return joinText( "FEC ", fecIdText( fecId ), ", which is not requested" );
   }
   if ( intent_.fec.foreign != FecId() ) {
      return fecId == intent_.fec.foreign ? std::string() : fecText( fecId );
   }
   const Fib::Fec* const found = fecs_.requested( fecId );
   if ( found == nullptr ) {
      return joinText( "FEC ", fecIdText( fecId ), " without content" );
   }
   return fecs_.isAsWanted( intent_.fec, *l3Adj_ ) ? backupFault( *found ) : fecText( fecId );
}

std::string AuditComparison::backupFault( const Fib::Fec& found ) const {
   const FecIntent& fec = intent_.fec;
   const FecId backup = found.backupFecId;
   if ( fec.backup.empty() && backup == FecId() ) {
      return {};
   }
   const Fib::Fec* const content = fecs_.requested( backup );
   if ( content && !fec.backup.empty() && leadsInto( found.via.back(), backup ) &&
        FecView::hasVias( *content, fec.backupVias, *l3Adj_, fec_->popLabelActionRemoved() ) ) {
      return {};
   }
   std::string text = fecText( fec_->fecId() );
   if ( backup == FecId() ) {
      const std::string waits = sm_.backupWaitReason( *state_, *l3Adj_ );
      const std::string& why = waits.empty() ? fec.backupFault : waits;
      text += ", without a backup" + ( why.empty() ? "" : ": " + why );
   }
   return text;
}

// --- Written -> reported.

void AuditComparison::compareFecReported() {
   if ( fec_ == nullptr ) {
      return; // compareFecWritten() has reported it
   }
   const FecId fecId = fec_->fecId();
   const ExternalFecInfo* const in = route_->extFecInfo().get();
   const auto into = []( const ExternalFecInfo* fec ) {
      return fec ? "a route into FEC " + fecIdText( fec->fecId() ) : std::string( "no route" );
   };
   const auto expected = [&] { return into( fec_ ); };
   const auto found = [&]( std::string text ) {
      differ( AuditStage::reported, expected,
              [&] { return text + ( in && in != fec_ ? ", " + into( in ) + " stays" : "" ); } );
   };
   if ( std::string fault = answerFault( fecId ); !fault.empty() ) {
      found( std::move( fault ) );
      return;
   }
   const U64 hwId = fecs_.response()->hwFecId( fecId ).hwId;
   if ( hwId != fec_->hwId() ) {
      found( joinText( "hardware id ", hwId, " is granted, and ", fec_->hwId(), " in use" ) );
   } else if ( refused_ ) {
      found( refusalText() );
   } else if ( insight_ && insight_->routeLost( vrfId_, key_ ) ) {
      differ( AuditStage::reported, expected, [] { return std::string( "the writing is lost" ); } );
   } else if ( in != fec_ || !inHardware() ) {
      differ( AuditStage::reported, expected,
              [&] { return inHardware() ? into( in ) : "no route"; } );
   } else {
      compareFecWays();
   }
}

// Hardware has the FEC as requested. Its ways and its backup may still lead nowhere.
void AuditComparison::compareFecWays() {
   if ( const Fib::Fec* const content = fecs_.requested( fec_->fecId() );
        content && content->backupFecId != FecId() ) {
      const std::string fault = answerFault( content->backupFecId );
      if ( !fault.empty() ) {
         differ(
            AuditStage::reported, [&] { return "a route into FEC " + fecIdText( fec_->fecId() ); },
            [&] { return "its backup: " + fault; } );
      }
   }
   if ( const std::string fault = foreignFault(); !fault.empty() ) {
      differ(
         AuditStage::reported, [] { return std::string( "a way out" ); },
         [&] { return std::string( fault ); } );
   }
}

// Which of the label's next-hop groups, tunnels and external FECs leads nowhere, and why. Empty
// when all of them lead out, or when hardware does not tell what is in them.
std::string AuditComparison::foreignFault() const {
   const Mpls::Hardware::Adjacency* const adjacency =
      l3Adj_ ? hwMplsStatus_.adjacency( l3Adj_->index() ) : nullptr;
   for ( U32 i = 0; adjacency && i < adjacency->vias(); ++i ) {
      const IntfId intf = adjacency->via( i ).intf;
      if ( !ForeignWays::leadsElsewhere( intf ) ) {
         continue;
      }
      const ForeignEnds ends = foreignWays_.read( intf );
      if ( ends.known && ends.exits.empty() ) {
         return joinText( foreignWays_.text( intf ), " leads nowhere: ", ends.why );
      }
   }
   return {};
}

// Why hardware does not have the FEC as it is requested; empty when it does.
std::string AuditComparison::answerFault( FecId fecId ) const {
   const HwFecId& answer = fecs_.response()->hwFecId( fecId );
   const U64 wanted = fecs_.request()->hwFecIdRequest( fecId ).version;
   if ( answer.hwId != 0 && answer.version == wanted ) {
      const auto reason =
         insight_ && !fecId.ofLabelViaSet() ? insight_->fecRefusal( fecId ) : std::nullopt;
      return reason ? joinText( "FEC ", fecIdText( fecId ),
                                " of another agent as it was before, refused: ", *reason )
                    : std::string();
   }
   const std::string text = answer.hwId == 0 ? "no answer for FEC " + fecIdText( fecId )
                                             : joinText( "version ", answer.version, " instead of ",
                                                         wanted, " of FEC ", fecIdText( fecId ) );
   if ( const auto reason = insight_ ? insight_->fecRefusal( fecId ) : std::nullopt ) {
      return joinText( text, ", refused: ", *reason );
   }
   return fecId.ofLabelViaSet() ? text : text + " of another agent";
}

// --- Reported -> published.

void AuditComparison::comparePublishedFec( const Mpls::Hardware::Route& route ) {
   const FecId in = route_->extFecInfo()->fecId();
   if ( route.fecId != in ) {
      differ(
         AuditStage::published, [&] { return "FEC " + fecIdText( in ); },
         [&] { return "FEC " + fecIdText( route.fecId ); } );
   }
   const Mpls::Hardware::Adjacency* const adjacency =
      l3Adj_ ? hwMplsStatus_.adjacency( l3Adj_->index() ) : nullptr;
   if ( adjacency == nullptr || route.adjacency.get() != adjacency ) {
      const auto indexText = []( const Mpls::Hardware::Adjacency* of ) {
         return of ? joinText( "L3 adjacency ", of->index() ) : std::string( "no L3 adjacency" );
      };
      differ(
         AuditStage::published, [&] { return indexText( adjacency ); },
         [&] { return indexText( route.adjacency.get() ); } );
   } else if ( fecAgrees_ ) {
      comparePublishedVias( *adjacency, intent_.vias );
   }
}

// --- FECs that no label leads to.

void AuditComparison::compareFecs() {
   if ( fecs_.request() == nullptr || fecs_.response() == nullptr ) {
      return;
   }
   const auto object = []( FecId fecId ) { return "FEC " + fecIdText( fecId ); };
   for ( const auto& [fecId, request] : fecs_.request()->hwFecIdRequest() ) {
      const ExternalFecInfo* const info = state_ ? state_->extFecInfo( fecId ) : nullptr;
      if ( request.vrfName == LfibIntent::vrf() &&
           ( info == nullptr || info->dependentL3Adjacencys() + info->dependentRouteKeys() +
                                      info->dependentPrimaryExtFecInfos() ==
                                   0 ) ) {
         objectDiffers( AuditStage::written, object( fecId ), "not requested: nothing uses it",
                        "requested" );
      }
   }
   const auto compareContents = [&]( const auto& contents ) {
      for ( const auto& [fecId, content] : contents ) {
         if ( !fecs_.request()->hwFecIdRequestHas( fecId ) ) {
            objectDiffers( AuditStage::written, object( fecId ), "no content: it is not requested",
                           fecViasText( content.via, name_ ) );
         }
      }
   };
   compareContents( fecs_.request()->fec() );
   compareContents( fecs_.request()->fec6() );
   for ( const auto& [fecId, answer] : fecs_.response()->hwFecId() ) {
      if ( !fecs_.request()->hwFecIdRequestHas( fecId ) ) {
         objectDiffers( AuditStage::reported, object( fecId ), "no answer: it is not requested",
                        joinText( "hardware id ", answer.hwId ) );
      }
   }
   HashSet< U64 > numbers; // of all FECs
   compareFecRecords( numbers );
   const NumAllocatorStatus* const inUse = sm_.numAllocatorStatus().get();
   if ( inUse == nullptr ) {
      return; // the state machine has not started
   }
   for ( const U64 number : inUse->numberInUse() ) {
      if ( !numbers.has( number ) ) {
         objectDiffers( AuditStage::written, joinText( "FEC number ", number ),
                        "not in use: no FEC has it", "in use" );
      }
   }
}

void AuditComparison::compareFecRecords( HashSet< U64 >& numbers ) {
   if ( state_ == nullptr || sm_.numAllocatorStatus() == nullptr ) {
      return;
   }
   const NumAllocatorStatus& inUse = *sm_.numAllocatorStatus();
   for ( const auto& [fecId, info] : state_->extFecInfo() ) {
      const std::string object = "FEC " + fecIdText( fecId );
      if ( !fecs_.request()->hwFecIdRequestHas( fecId ) && info->dependentRouteKeys() == 0 &&
           info->dependentL3Adjacencys() == 0 ) { // otherwise a label has reported it
         objectDiffers( AuditStage::written, object, "requested", "not requested" );
      }
      if ( fecId.ofLabelViaSet() ) {
         numbers.insert( fecId.index() );
         if ( !inUse.numberInUseHas( fecId.index() ) ) {
            objectDiffers( AuditStage::written, object, "its number in use", "not in use" );
         }
      }
   }
   // The FECs of multicast group members have numbers too.
   for ( const auto& [viaKey, fecId] : state_->viaKeyToFecId() ) {
      numbers.insert( fecId.index() );
   }
}

// --- Words.

std::string AuditComparison::fecText( FecId fecId ) const {
   const std::string text = "FEC " + fecIdText( fecId );
   const Fib::Fec* const content = fecs_.requested( fecId );
   if ( content == nullptr ) {
      return fecId.ofLabelViaSet() ? text + " without content" : text + " of another agent";
   }
   std::string out = joinText( text, ": ", fecViasText( content->via, name_ ) );
   const ExternalFecInfo* const info = state_->extFecInfo( fecId );
   if ( info && info->popLabelActionRemoved() ) {
      out += ", with the pop in the routes";
   }
   const FecId backup = content->backupFecId;
   if ( const Fib::Fec* const other = fecs_.requested( backup ) ) {
      out += joinText( " (", fecViasText( other->via, name_ ), ")" );
   }
   return out;
}

std::string AuditComparison::fecIntentText() const {
   const FecIntent& fec = intent_.fec;
   if ( fec.foreign != FecId() ) {
      return joinText( "FEC ", fecIdText( fec.foreign ), " of another agent" );
   }
   std::string text = fecViasText( fec.vias, name_ );
   if ( !fec.backup.empty() ) {
      text +=
         joinText( ", backup ", fec.backupVias.empty() ? textOf( fec.backup )
                                                       : fecViasText( fec.backupVias, name_ ) );
   }
   return text;
}

} // namespace Vel::Inspect
