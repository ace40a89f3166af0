#include "inspect/ExplainChain.h"

#include "inspect/Words.h"

namespace Vel::Inspect {

using Fib::FecId;

// Which way hardware reports that the FEC takes. Of a FEC without a backup the report counts only
// when no way leads out.
AdjHwState ChainReader::hwState() const {
   const AdjHwStatus* const states = l3Status_->adjHwStatus().get();
   return states && fec_ && vrfId_
             ? fecs_.believed( states->adjHwState( { *vrfId_, fec_->fecId() } ), fec_->fecId() )
             : AdjHwState::unknown;
}

bool ChainReader::isForeign() const {
   if ( !fec_->fecId().ofLabelViaSet() ) {
      return true;
   }
   for ( const auto& [index, via] : hwAdj_->via() ) {
      if ( via.intf.kind() == IntfId::Kind::dynamicTunnel ) {
         return true;
      }
   }
   return false;
}

// --- Protection.

std::string ChainReader::backupWaitsFor() const {
   const Mpls::LfibViaSetKey key = l3Adj_->backupAwaited();
   const std::string backup = textOf( key );
   if ( lfib_->lfibViaSet( key ).null() ) {
      return "the via set " + backup + " in the LFIB";
   }
   const L3Adjacency* const adjacency = vrf_->lFibViaSetToL3AdjHas( key )
                                           ? vrf_->l3Adjacency( vrf_->lFibViaSetToL3Adj( key ) )
                                           : nullptr;
   if ( adjacency && vrf_->l3AdjForReviewHas( adjacency->index() ) ) {
      return "the review of the via set " + backup;
   }
   if ( adjacency && adjacency->backupAdj() ) {
      return "the via set " + backup + " to lose its own backup";
   }
   return l3Adj_->primaryAdjs() != 0 ? "no via set to have this one as its backup, or this one none"
                                     : "the review of the via set " + backup;
}

void ChainReader::readProtection( ChainLink& link ) const {
   if ( const L3Adjacency* const backup = l3Adj_->backupAdj().get() ) {
      const AdjHwState state = hwState();
      link.facts["backupAdjacency"] = backup->index();
      link.facts["backupState"] = stringValue( state );
      link.details.push_back(
         joinText( "backup: L3 adjacency ", backup->index(),
                   state == AdjHwState::unknown ? "" : joinText( ", ", state ) ) );
   }
   if ( l3Adj_->primaryAdjs() != 0 ) {
      link.facts["protects"] = l3Adj_->primaryAdjs();
      link.details.push_back( joinText(
         "protects ", counted( l3Adj_->primaryAdjs(), "L3 adjacency", "L3 adjacencies" ) ) );
   }
}

// ", not protected: ..." where the via set names a backup and the FEC does not; else nothing.
std::string ChainReader::protectionLack() const {
   const Fib::Fec* const content = fecs_.requested( fec_->fecId() );
   if ( content == nullptr || content->backupFecId != FecId() || viaSet_.null() ||
        viaSet_.backupViaSetKey().empty() ) {
      return {};
   }
   const L3Adjacency* const backup = l3Adj_->backupAdj().get();
   std::string why = sm_->backupWaitReason( *vrf_, *l3Adj_ );
   if ( why.empty() && backup ) {
      why = sm_->backupWaitReason( *vrf_, *backup );
   }
   return joinText( ", not protected", why.empty() ? "" : ": " + why );
}

// --- Links that read otherwise with a FEC.

// Groups, tunnels and external FECs belong to other agents. The label is blocked when they lead
// nowhere.
void ChainReader::readForeign( ChainLink& link ) const {
   link.text = "the other agent's, or the tunnel's";
   std::string fault;
   size_t exits = 0;
   bool known = true;
   for ( const auto& [index, via] : hwAdj_->via() ) {
      if ( !ForeignWays::leadsElsewhere( via.intf ) ) {
         known = false; // a next hop of the route itself: the L3 layer knows it
         continue;
      }
      const ForeignEnds ends = foreignWays_.read( via.intf );
      known = known && ends.known;
      exits += ends.exits.size();
      fault = joinText( foreignWays_.text( via.intf ), " leads nowhere: ", ends.why );
      for ( const ForeignExit& exit : ends.exits ) {
         link.details.push_back( nextHopText( exit.nextHop.addr, exit.nextHop.intf ) );
      }
   }
   // Without a hardware id the FEC is the blocker.
   link.holds = !known || exits != 0 || fec_->hwId() == 0;
   if ( !link.holds ) {
      fails( link, std::move( fault ), neverTime, "the agent that owns it to lead out again" );
   }
}

// Hardware resolves the next hops of a FEC. The route needs one of them, or the backup.
void ChainReader::readFecNextHops( ChainLink& link ) const {
   if ( !primariesUsable() ) {
      link.holds = true;
      link.degraded = false;
      link.text += "; not used: the primary vias are disabled";
   } else if ( !link.holds && hwState() == AdjHwState::backupActive ) {
      link.holds = link.degraded = true;
      link.text += "; the backup is in use";
   }
}

void ChainReader::readFecL2Adjacency( ChainLink& link ) const {
   link.holds = true;
   link.text = l2Adj_ ? joinText( l2Adj_->index(), ", not used: the route goes into a FEC" )
                      : "none, and none needed: the route goes into a FEC";
}

// --- The FEC.

ChainLink ChainReader::fec() const {
   ChainLink link( "fec", "FEC" );
   if ( record_->extFecInfo() ) {
      link.facts["routeFecId"] = fecIdText( record_->extFecInfo()->fecId() );
   }
   if ( fec_ == nullptr ) {
      failsUntilReview( link, joinText( "none yet; the route is in FEC ",
                                        fecIdText( record_->extFecInfo()->fecId() ) ) );
      return link;
   }
   const std::string id = fecIdText( fec_->fecId() );
   link.facts["fecId"] = id;
   link.facts["hwId"] = fec_->hwId();
   link.text = joinText( id, ", hardware id ", fec_->hwId() );
   readFecContent( link );
   readProtection( link );
   if ( fec_->hwId() == 0 ) {
      link.text = id;
      readUnanswered( link );
   } else if ( behind() && hwState() != AdjHwState::down ) {
      readUnanswered( link );
   } else if ( const Fib::Fec* const content = fecs_.requested( fec_->fecId() );
               content && !primariesUsable() && content->backupFecId == FecId() ) {
      fails( link, link.text + ": its vias are disabled, and it has no backup", recordSince(),
             "a backup, or the leave to use its own vias" );
   } else if ( hwState() == AdjHwState::down ) {
      const Fib::Fec* const own = fecs_.requested( fec_->fecId() );
      const bool hasBackup = own && own->backupFecId != FecId();
      fails( link,
             link.text + ( hasBackup ? ": neither its vias nor its backup lead out"
                                     : ": nothing leads out of it" ),
             neverTime,
             hasBackup ? "a link or a neighbour of its vias or of its backup"
                       : "a link or a neighbour of its vias" );
   } else {
      const std::string lack = protectionLack();
      link.holds = true;
      link.degraded = byBackupOnly() || !lack.empty();
      link.text += byBackupOnly() ? ", leaves by its backup" : "";
      link.text += lack;
   }
   return link;
}

void ChainReader::readFecContent( ChainLink& link ) const {
   const FecId fecId = fec_->fecId();
   const Fib::Fec* const content = fecs_.requested( fecId );
   if ( !fecId.ofLabelViaSet() ) {
      link.text += ", of another agent";
   }
   if ( content ) {
      for ( size_t i = 0; i < content->primaryVia().size(); ++i ) {
         link.details.push_back( fecViasText( { content->via[i] }, interfaceName_ ) );
         link.facts["vias"].push_back( link.details.back() );
      }
      if ( content->backupFecId != FecId() ) {
         const Fib::Fec* const backup = fecs_.requested( content->backupFecId );
         link.facts["backupFecId"] = fecIdText( content->backupFecId );
         link.details.push_back(
            joinText( "backup FEC ", fecIdText( content->backupFecId ), ": ",
                      backup ? fecViasText( backup->via, interfaceName_ ) : "not requested" ) );
      }
   }
   const bool groupPops = fecId.adjType() == Fib::AdjType::nexthopGroupAdj && hwAdj_ &&
                          hwAdj_->via( 0 ).labelAction == MplsLabelAction::pop;
   const bool pops = fec_->popLabelActionRemoved() || groupPops;
   link.facts["popWithRoute"] = pops;
   if ( pops ) {
      link.details.emplace_back( "the pop is in the route, not in the FEC" );
   }
}

// The route may take over the place of its former FEC when no other route needs that FEC.
std::string ChainReader::roomText() const {
   std::string text = "room for another FEC in the hardware";
   const ExternalFecInfo* const in = inOlderFec() ? record_->extFecInfo().get() : nullptr;
   if ( in == nullptr || fecs_.request()->mayTakeOverHas( fec_->fecId() ) ) {
      return text;
   }
   return joinText( text, ", or for the others in FEC ", fecIdText( in->fecId() ),
                    in->dependentL3Adjacencys() + in->dependentPrimaryExtFecInfos() != 0
                       ? ", which is still wanted, to leave it"
                       : " to wait for the same one, or to leave it" );
}

// Hardware has no answer for the FEC, or has it with its former content.
void ChainReader::readUnanswered( ChainLink& link ) const {
   const FecId fecId = fec_->fecId();
   std::string waitsFor = "the hardware layer's answer to the request for the FEC";
   link.text += behind()                ? ", not yet what is requested"
                : fecId.ofLabelViaSet() ? ", not answered yet"
                                        : ", of another agent, not there yet";
   if ( const auto reason = insight_ ? insight_->fecRefusal( fecId ) : std::nullopt ) {
      link.facts["reason"] = stringValue( *reason );
      link.text += joinText( ": ", *reason );
      waitsFor = *reason == UnprogrammedReason::InterfaceNotReady
                    ? "an interface of its vias to become ready"
                    : roomText();
   } else if ( !fecId.ofLabelViaSet() ) {
      waitsFor = joinText( "the agent that owns FEC ", fecIdText( fecId ), " to make it known" );
   }
   if ( inFec() && ( behind() || inOlderFec() ) ) {
      link.holds = link.degraded = true;
      link.text += joinText(
         inOlderFec() ? "; the route stays in FEC " : "; frames leave by what was in FEC ",
         fecIdText( record_->extFecInfo()->fecId() ), ", waiting for ", waitsFor );
      return;
   }
   fails( link, link.text, recordSince(), std::move( waitsFor ) );
}

// Routes into FECs are written by calls that answer at once, and have no versions.
void ChainReader::readFecRoute( ChainLink& link ) const {
   if ( inFec() && writingLost() ) {
      fails( link, "the writing is lost: it was answered, and hardware does not have it", neverTime,
             "a change of the route, its via set or its next hops" );
   } else if ( inFec() ) {
      link.holds = true;
      link.degraded = inOlderFec();
      link.text = link.degraded ? joinText( "the route forwards into the FEC of before, ",
                                            fecIdText( record_->extFecInfo()->fecId() ) )
                                : "the route forwards into the FEC";
   } else if ( status_->unprogrammedRouteHas( key_ ) ) {
      failsUntilRetry( link, joinText( "refused: ", routeReason() ), recordSince(),
                       record_->unconfirmedWrites() );
   } else {
      failsUntilReview( link, "the route is not written" );
   }
}

} // namespace Vel::Inspect
