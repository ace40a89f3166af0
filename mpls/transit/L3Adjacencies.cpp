#include "mpls/transit/L3Adjacencies.h"

#include <optional>
#include <vector>

#include "mpls/VelMplsTrace.h"
#include "mpls/transit/Parts.h"

namespace Vel::Transit {

L3Adjacency* L3Adjacencies::newL3Adjacency( VrfMplsState& vrfState ) {
   const U64 index = sm_.adjacencyIndex();
   MPLS_TRACE( 3, "create l3 adj ", index );
   sm_.adjacencyIndexInc();
   in_.routingHwMplsStatus->adjacencyIs( index );
   return vrfState.l3AdjacencyMake( index );
}

// The LFIB is read ahead of its announcements: what has not been announced yet may have given the
// adjacency's via set another content, that of another label's old way.
bool L3Adjacencies::maybeQueueStaleL3Adj( VrfMplsState& vrfState, Mpls::LfibViaSetKey viaSetKey ) {
   if ( !in_.transitLfib->pollPending() || !vrfState.lFibViaSetToL3AdjHas( viaSetKey ) ) {
      return false;
   }
   L3Adjacency& l3Adj = *vrfState.l3Adjacency( vrfState.lFibViaSetToL3Adj( viaSetKey ) );
   const U64 announced = in_.transitLfib->announced();
   if ( ( announced != 0 && l3Adj.contentSameAt() == announced ) ||
        vrfState.isAdjPendingForReview( l3Adj.index() ) ) {
      return false;
   }
   const std::optional< U64 > digest =
      parts_.viaSets.contentDigestOf( in_.transitLfib->lfibViaSet( viaSetKey ) );
   if ( !digest ) {
      return false; // nothing can be said of it now
   }
   if ( l3Adj.contentDigest() == *digest ) {
      l3Adj.contentSameAtIs( announced );
      return false;
   }
   vrfState.l3AdjForReviewIs( l3Adj.index(), L3AdjReview::viaSetChanged );
   return true;
}

void L3Adjacencies::processL3Adj( VrfMplsState& vrfState, U64 index ) {
   MPLS_TRACE( 3, "process l3 adj ", index, " vrf ", vrfState.vrfName() );
   L3Adjacency* const l3Adj = vrfState.l3Adjacency( index );
   MPLS_ASSERT( l3Adj, "l3Adj", textOf( index ) );
   const Mpls::LfibViaSetKey viaSetKey = l3Adj->lFibViaSetKey();
   MPLS_ASSERT( isTransit( viaSetKey.viaType() ),
                "lFibViaSetKey.viaType() == Mpls::viaTypeMplsIp_ || "
                "lFibViaSetKey.viaType() == Mpls::viaTypeExternalFec_",
                textOf( viaSetKey ) );
   if ( !l3Adj->used() ) {
      deleteL3Adj( vrfState, index );
      return;
   }
   if ( l3Adj->superseded() ) {
      followVias( vrfState, *l3Adj );
      settleL3Adj( vrfState, *l3Adj );
      return;
   }
   const Mpls::LfibViaSet viaSet = in_.transitLfib->lfibViaSet( viaSetKey );
   const std::optional< U64 > digest = parts_.viaSets.contentDigestOf( viaSet );
   if ( !digest ) {
      keepUnread( vrfState, *l3Adj );
      return;
   }
   const Ptr< L3Adjacency > backupBefore = l3Adj->backupAdj();
   const Ptr< ExternalFecInfo > fecBefore = l3Adj->extFecInfo();
   l3Adj->contentDigestIs( *digest );
   const bool hadOtherVias = l3Adj->otherVias();
   l3Adj->otherViasIs( false );
   const L3AdjOutcome outcome = programL3Adj( vrfState, *l3Adj, viaSet );
   const bool wasOutdated = l3Adj->outdated();
   if ( wasOutdated && outcome == L3AdjOutcome::programmed ) {
      Protection::queuePrimaries( vrfState, *l3Adj ); // whose FECs could not name this one's
   }
   l3Adj->outdatedIs( outcome != L3AdjOutcome::programmed );
   if ( l3Adj->outdated() != wasOutdated || l3Adj->otherVias() != hadOtherVias ) {
      // Its routes leave by part of what is meant from now on, or not any more.
      Publisher::publishRoutesOf( vrfState, *l3Adj );
   }
   maybeReleaseOutdated( vrfState, *l3Adj );
   if ( outcome != L3AdjOutcome::backedOff ) {
      settleL3Adj( vrfState, *l3Adj );
   }
   const bool programmed = outcome == L3AdjOutcome::programmed;
   const bool changed = l3Adj->backupAdj() != backupBefore || ( programmed && wasOutdated );
   Protection::queueWaitingForBackup( vrfState, viaSetKey,
                                      changed      ? Protection::BackupNews::changed
                                      : programmed ? Protection::BackupNews::programmed
                                                   : Protection::BackupNews::looked );
   if ( l3Adj->extFecInfo() != fecBefore ) {
      Protection::queueWaitingForOtherFec( vrfState, viaSetKey );
   }
}

// The adjacency stays what it is, and follows its next hops with the routes that are in hardware by
// it: their review may find that they cannot be read either.
void L3Adjacencies::keepUnread( VrfMplsState& vrfState, L3Adjacency& l3Adj ) {
   sm_.keepUnread( l3Adj.lFibViaSetKey() );
   const std::vector< Mpls::RouteKey > routes = routesInHardware( vrfState, l3Adj, true );
   if ( followVias( vrfState, l3Adj ) ) {
      settleL3Adj( vrfState, l3Adj );
      for ( const Mpls::RouteKey routeKey : routes ) {
         parts_.routeWriter.writeRoute( vrfState, *vrfState.route( routeKey ), l3Adj );
      }
   }
}

// What an adjacency is made of does not depend on its routes. When one has left, only two things can
// end: the adjacency, and what it kept for that route.
void L3Adjacencies::processL3AdjLeft( VrfMplsState& vrfState, U64 index ) {
   L3Adjacency* const l3Adj = vrfState.l3Adjacency( index );
   MPLS_ASSERT( l3Adj, "l3Adj", textOf( index ) );
   if ( !l3Adj->used() ) {
      deleteL3Adj( vrfState, index );
      return;
   }
   if ( l3Adj->keepsNextHops() ) {
      parts_.nextHops.releaseFormerNextHops( vrfState, *l3Adj );
   }
   maybeReleaseOutdated( vrfState, *l3Adj );
   if ( !l3Adj->superseded() ) {
      Protection::queueWaitingForBackup( vrfState, l3Adj->lFibViaSetKey(),
                                         Protection::BackupNews::looked );
   }
}

// Programs the adjacency the way of its via set.
L3Adjacencies::L3AdjOutcome L3Adjacencies::programL3Adj( VrfMplsState& vrfState, L3Adjacency& l3Adj,
                                                         const Mpls::LfibViaSet& viaSet ) {
   const Mpls::LfibViaSetKey viaSetKey = l3Adj.lFibViaSetKey();
   if ( viaSetKey.viaType() == Mpls::viaTypeExternalFec ) {
      return programExtFecL3Adj( vrfState, l3Adj, viaSet );
   }
   if ( viaSetKey.multicast() ) {
      processMplsMulticastAdj( vrfState, l3Adj.index() );
      return L3AdjOutcome::programmed;
   }
   return programMplsIpL3Adj( vrfState, l3Adj, viaSet );
}

L3Adjacencies::L3AdjOutcome L3Adjacencies::programExtFecL3Adj( VrfMplsState& vrfState,
                                                               L3Adjacency& l3Adj,
                                                               const Mpls::LfibViaSet& viaSet ) {
   parts_.protection.stopWaitingForBackup( vrfState, l3Adj );
   const Mpls::LfibExtFecVia via = parts_.viaSets.getSaneExtFecVia( l3Adj, viaSet );
   if ( via == Mpls::LfibExtFecVia() ) {
      l3Adj.otherViasIs( true );
      return L3AdjOutcome::backedOff;
   }
   processExtFecL3Adj( vrfState, l3Adj, viaSet, via );
   if ( !viaSet.backupViaSetKey().empty() && viaSet.backupViaSetKey() != viaSet.key() ) {
      parts_.protection.waitForBackup( vrfState, l3Adj, viaSet.backupViaSetKey(),
                                       BackupAwaits::otherFec );
   }
   return L3AdjOutcome::programmed;
}

L3Adjacencies::L3AdjOutcome L3Adjacencies::programMplsIpL3Adj( VrfMplsState& vrfState,
                                                               L3Adjacency& l3Adj,
                                                               const Mpls::LfibViaSet& viaSet ) {
   const Ptr< CachedLFibMplsViaColl > saneVias = parts_.viaSets.getSaneMplsIpLFibVias( viaSet );
   if ( !saneVias && in_.transitLfib->unread() ) {
      sm_.keepUnread( l3Adj.lFibViaSetKey() ); // a via that could be read a moment ago
   }
   if ( !parts_.viaSets.validateMplsIpL3Adj( l3Adj, viaSet, saneVias ) ) {
      // An adjacency that is not programmed needs no backup.
      parts_.protection.stopWaitingForBackup( vrfState, l3Adj );
      l3Adj.otherViasIs( true );
      followVias( vrfState, l3Adj );
      return L3AdjOutcome::kept;
   }
   supersedeIfChanged( vrfState, l3Adj, *saneVias );
   if ( sm_.shouldProgramAdjWithHwConfig( l3Adj.lFibViaSetKey(), *saneVias ) ) {
      programL3AdjWithHwConfig( vrfState, l3Adj, viaSet, *saneVias );
      return L3AdjOutcome::programmed;
   }
   if ( !parts_.protection.validateAndMaybeUpdateBackupAdjInfo( vrfState, l3Adj, viaSet ) ) {
      l3Adj.otherViasIs( l3Adj.primaryViasDisabled() == saneVias->usableAsPrimaryVias() ||
                         !parts_.nextHops.hasVias( l3Adj, *saneVias ) );
      return followVias( vrfState, l3Adj ) ? L3AdjOutcome::kept : L3AdjOutcome::backedOff;
   }
   processMplsIpL3Adj( vrfState, l3Adj, viaSet, saneVias );
   return L3AdjOutcome::programmed;
}

void L3Adjacencies::programL3AdjWithHwConfig( VrfMplsState& vrfState, L3Adjacency& l3Adj,
                                              const Mpls::LfibViaSet& viaSet,
                                              const CachedLFibMplsViaColl& saneVias ) {
   leaveFecs( vrfState, l3Adj );
   const L3AdjLFibAdjType adjType = ViaSets::findL3AdjLFibAdjType( &saneVias );
   if ( adjType != L3AdjLFibAdjType::adjTypeRegular ) {
      // Next-hop groups and dynamic tunnels are FECs, which this platform does not have.
      MPLS_TRACE( 3, "Unsupported lFib Adj ", adjType );
      // What is programmed is of an earlier content of the via set.
      releaseVias( vrfState, l3Adj );
      return;
   }
   l3Adj.primaryViasDisabledIs( !saneVias.usableAsPrimaryVias() );
   ProgrammableMplsFecVias vias; // no backup stands in for disabled ones here
   if ( !l3Adj.primaryViasDisabled() ) {
      for ( const auto& [viaIndex, via] : saneVias.via() ) {
         vias.viaIs( viaIndex, via );
      }
   }
   parts_.nextHops.setHwAdjViasForNormalMplsRoute( vrfState, l3Adj, viaSet, vias, adjType );
}

void L3Adjacencies::processMplsIpL3Adj( VrfMplsState& vrfState, L3Adjacency& l3Adj,
                                        const Mpls::LfibViaSet& viaSet,
                                        const Ptr< CachedLFibMplsViaColl >& mplsVias ) {
   MPLS_ASSERT( mplsVias, "mplsVias", l3Adj.fullName() );
   MPLS_ASSERT( mplsVias->vias(), "mplsVias->vias()", l3Adj.fullName() );
   MPLS_TRACE( 7, "LFib via set ", viaSet.key(), " via size ", mplsVias->vias() );
   MPLS_TRACE( 7, "LFib adj index ", l3Adj.index(), " via size ", mplsVias->vias() );
   // The agent that made a next-hop group decides what happens to the label.
   const bool ofGroup = FecIds::usesGroupFec( *mplsVias );
   Protection::labelActionIs( vrfState, l3Adj,
                              ofGroup ? MplsLabelAction::none : ViaSets::actionOf( *mplsVias ),
                              ofGroup ? PopForm() : ViaSets::popFormOf( *mplsVias ) );
   const bool popMoves = Protection::processRemovePopDependencies( vrfState, l3Adj );
   const bool popRemoved = Protection::shouldRemovePop( l3Adj );
   Fib::FecId fecId = parts_.fecIds.getFecIdForRequest( l3Adj, *mplsVias, vrfState, popMoves );
   if ( const ExternalFecInfo* const there = vrfState.extFecInfo( fecId );
        there && ( there->popLabelActionRemoved() != popRemoved ||
                   parts_.fecs.rewritesOthers( vrfState, l3Adj, viaSet, *mplsVias, *there ) ) ) {
      Protection::queuePrimariesOf( vrfState, *there ); // which name it as their backup
      fecId = parts_.fecIds.getFecIdForRequest( l3Adj, *mplsVias, vrfState, true );
   }
   if ( fecId.adjType() == Fib::AdjType::nexthopGroupAdj ) {
      // The id of the FEC that an earlier content had: no adjacency is to be protected by that FEC.
      vrfState.lFibViaSetToFecIdDel( viaSet.key() );
   }
   if ( l3Adj.isOfGroup() && l3Adj.extFecInfo()->fecId() != fecId ) {
      // The group may be the adjacency's again, with another pop, before they have left it.
      carryByFormer( vrfState, l3Adj, routesInHardware( vrfState, l3Adj, true ) );
   }
   const Ptr< ExternalFecInfo > before = l3Adj.extFecInfo();
   const bool backupBefore = before && before->backupExtFecInfo();
   l3Adj.primaryViasDisabledIs( fecId.adjType() != Fib::AdjType::nexthopGroupAdj &&
                                !mplsVias->usableAsPrimaryVias() );
   // Before the content, which depends on it; nothing can have been requested of a new one yet.
   parts_.fecs.extFecInfoMake( vrfState, fecId ).popLabelActionRemovedIs( popRemoved );
   parts_.fecs.createFecForRequestAndUpdateL3Adj( vrfState, l3Adj, viaSet, *mplsVias, fecId );
   const bool endedBackup = backupBefore && !l3Adj.extFecInfo()->backupExtFecInfo();
   if ( before != l3Adj.extFecInfo() || endedBackup ) {
      Protection::queuePrimaries( vrfState, l3Adj ); // whose FECs name this one, or could not yet
   }
   ProgrammableMplsFecVias vias;
   for ( const auto& [viaIndex, via] : mplsVias->via() ) {
      vias.viaIs( viaIndex, via );
   }
   vias.progActionIs( MplsFecProgAction::programAction );
   setHwAdjacencyVias( vrfState, l3Adj, viaSet, vias,
                       ViaSets::findL3AdjLFibAdjType( mplsVias.get() ) );
}

void L3Adjacencies::processExtFecL3Adj( VrfMplsState& vrfState, L3Adjacency& l3Adj,
                                        const Mpls::LfibViaSet& viaSet,
                                        const Mpls::LfibExtFecVia& extFecVia ) {
   MPLS_ASSERT( sm_.forwardingIntoExternalFecsSupported(), "forwardingIntoExternalFecsSupported()",
                l3Adj.fullName() );
   MPLS_ASSERT( extFecVia != Mpls::LfibExtFecVia(), "extFecVia != Mpls::LfibExtFecVia()",
                l3Adj.fullName() );
   const Fib::FecId fecId = extFecVia.fecId;
   parts_.fecs.requestHwFecIdAndUpdateDependencyMaps( fecId, Fib::Fec{ fecId, {}, {} }, Fib6::Fec(),
                                                      vrfState, l3Adj, viaSet.key() );
   Mpls::Hardware::Adjacency* const hwAdj = in_.routingHwMplsStatus->adjacency( l3Adj.index() );
   hwAdj->viaDelAll();
   hwAdj->unresolvedViasIs( 0 );
   hwAdj->viaSetTypeIs( viaSet.key().viaSetType() );
   Mpls::Hardware::AdjacencyVia via;
   via.viaKey = extFecVia.key;
   via.intf = Fib::FecId::fecIdToHierarchicalIntfId( fecId );
   hwAdj->viaIs( 0, via );
}

void L3Adjacencies::processMplsMulticastAdj( VrfMplsState& vrfState, U64 index ) {
   MPLS_TRACE( 3, "l3 adj ", vrfState.l3Adjacency( index )->index(),
               " stays unprogrammed: replication groups are not supported by this version" );
}

void L3Adjacencies::setHwAdjacencyVias( VrfMplsState& vrfState, L3Adjacency& l3Adj,
                                        const Mpls::LfibViaSet& viaSet,
                                        const ProgrammableMplsFecVias& vias,
                                        L3AdjLFibAdjType adjType ) {
   MPLS_TRACE( 3, " Set hardware info for l3Adj ", l3Adj.index() );
   Mpls::Hardware::Adjacency* const hwAdj = in_.routingHwMplsStatus->adjacency( l3Adj.index() );
   MPLS_ASSERT( hwAdj, "hwAdj", l3Adj.fullName() );
   MPLS_ASSERT( viaSet.key().viaType() == Mpls::viaTypeMplsIp,
                "lFibViaSetKey.viaType() == Mpls::viaTypeMplsIp_", textOf( viaSet.key() ) );
   if ( adjType == L3AdjLFibAdjType::adjTypeRegular ) {
      parts_.nextHops.setHwAdjViasForNormalMplsRoute( vrfState, l3Adj, viaSet, vias, adjType );
   } else {
      if ( l3Adj.nextHops() != 0 ) { // its routes stay where they are until the FEC is answered
         carryByFormer( vrfState, l3Adj, routesInHardware( vrfState, l3Adj, false ) );
      }
      hwAdj->viaSetTypeIs( viaSet.key().viaSetType() );
      releaseVias( vrfState, l3Adj ); // of an earlier content
      for ( const auto& [viaIndex, via] : vias.via() ) {
         Mpls::Hardware::AdjacencyVia hwVia = NextHops::hwViaOf( via );
         if ( via.labelStack.stackSize() != 0 ) { // a pop has none
            hwVia.labelStack = { NextHops::singleMplsLabelFromVia( via ).value() };
         }
         hwAdj->viaIs( viaIndex, hwVia );
      }
   }
   parts_.protection.setHwBackupAdjStatus( vrfState, l3Adj );
}

// What an earlier content of the adjacency had to do with FECs ends: its own, those that it
// protects and the one that protects it.
void L3Adjacencies::leaveFecs( VrfMplsState& vrfState, L3Adjacency& l3Adj ) {
   parts_.protection.stopWaitingForBackup( vrfState, l3Adj );
   if ( l3Adj.backupAdj() ) {
      parts_.protection.deleteBackupAdjInfoFromAdj( vrfState, l3Adj );
   }
   if ( !l3Adj.extFecInfo() ) {
      return;
   }
   vrfState.lFibViaSetToFecIdDel( l3Adj.lFibViaSetKey() );
   parts_.fecs.bindL3AdjToExtFecInfo( vrfState, l3Adj, nullptr );
   Protection::queuePrimaries( vrfState, l3Adj );
}

// An earlier content is kept only for routes that are in hardware by it. It is kept as well while the
// adjacency waits for the review of its backup, which comes soon: releasing the next hops and the
// FEC, and asking for them again, would cause the very events that lead to the next review.
void L3Adjacencies::maybeReleaseOutdated( VrfMplsState& vrfState, L3Adjacency& l3Adj ) {
   if ( !l3Adj.outdated() || l3Adj.awaitedBackup().awaits == BackupAwaits::review ||
        l3Adj.primaryAdjs() + l3Adj.carriedRouteKeys() != 0 ||
        ( !l3Adj.extFecInfo() && l3Adj.nextHops() == 0 ) ) {
      return;
   }
   for ( const Mpls::RouteKey routeKey : l3Adj.routeKey() ) {
      if ( vrfState.route( routeKey )->inHardware() && !vrfState.carrierOf( routeKey ) ) {
         return;
      }
   }
   MPLS_TRACE( 3, "l3 adj ", l3Adj.index(), " has nothing that is in use" );
   vrfState.lFibViaSetToFecIdDel( l3Adj.lFibViaSetKey() );
   parts_.fecs.bindL3AdjToExtFecInfo( vrfState, l3Adj, nullptr );
   if ( !l3Adj.awaitedBackup().holdsBack() ) {
      parts_.protection.deleteBackupAdjInfoFromAdj( vrfState, l3Adj );
   }
   releaseVias( vrfState, l3Adj );
   settleL3Adj( vrfState, l3Adj );
}

// The adjacency no longer resolves through anything.
void L3Adjacencies::releaseVias( VrfMplsState& vrfState, L3Adjacency& l3Adj ) {
   parts_.l2Adjacencies.unbindL3AdjFromL2Adj( vrfState, l3Adj );
   parts_.nextHops.deleteL3AdjRefs( vrfState, l3Adj );
   l3Adj.nextHopDelAll();
   Mpls::Hardware::Adjacency* const hwAdj = in_.routingHwMplsStatus->adjacency( l3Adj.index() );
   hwAdj->viaDelAll();
   hwAdj->unresolvedViasIs( 0 );
}

// Settles whether the adjacency is programmed, programs its L2 adjacency and queues its routes.
void L3Adjacencies::settleL3Adj( VrfMplsState& vrfState, L3Adjacency& l3Adj ) {
   const L3::VrfName& vrf = vrfState.vrfName();
   Mpls::Hardware::Adjacency* const hwAdj = in_.routingHwMplsStatus->adjacency( l3Adj.index() );
   MPLS_ASSERT( hwAdj, "hwAdj", l3Adj.fullName() );
   if ( l3Adj.l2Adjacency() ) {
      const MplsHwVrfStatus* const status = sm_.velMplsHwVrfStatus( vrf );
      l3Adj.unprogrammedIs( status && status->unprogrammedAdjacencyHas( l3Adj.hwL2Adjacency() ) );
      MPLS_TRACE( 3, "prog l2 adj ", l3Adj.l2Adjacency()->index(), " in vrf ", vrf );
      parts_.l2Adjacencies.progHwL2Adj( vrf, l3Adj.hwL2Adjacency() );
   } else if ( l3Adj.extFecInfo() && hwAdj->vias() != hwAdj->unresolvedVias() ) {
      l3Adj.unprogrammedIs( false );
   } else {
      MPLS_TRACE( 3, "l3Adj ", l3Adj.index(), " not resolved" );
      l3Adj.unprogrammedIs( true );
   }
   hwAdj->unprogrammedIs( l3Adj.unprogrammed() );
   parts_.publisher.judgeL3Adj( vrfState, l3Adj );
   for ( const Mpls::RouteKey routeKey : l3Adj.routeKey() ) {
      MPLS_TRACE( 8, "add routeKey ", routeKey, " for review" );
      vrfState.routeKeyForReviewIs( routeKey );
   }
   for ( const Mpls::RouteKey routeKey : l3Adj.carriedRouteKey() ) {
      MPLS_TRACE( 8, "add routeKey ", routeKey, " for review" );
      vrfState.routeKeyForReviewIs( routeKey );
   }
}

// What the adjacency has stays as it was, and follows its next hops all the same; true when that
// leads elsewhere now.
bool L3Adjacencies::followVias( VrfMplsState& vrfState, L3Adjacency& l3Adj ) {
   if ( l3Adj.nextHops() == 0 ) {
      return false;
   }
   const Ptr< MplsL2Adjacency > before = l3Adj.l2Adjacency();
   parts_.nextHops.setHwAdjViasForNormalMplsRoute(
      vrfState, l3Adj, Mpls::LfibViaSet( l3Adj.lFibViaSetKey() ),
      parts_.nextHops.viasInHardware( l3Adj ), L3AdjLFibAdjType::adjTypeRegular );
   return l3Adj.l2Adjacency() != before;
}

// A via set whose routes have left may be used again at once, for something else. Those that are
// still in hardware by what it was must not follow: an adjacency of its own goes on carrying them.
void L3Adjacencies::supersedeIfChanged( VrfMplsState& vrfState, L3Adjacency& l3Adj,
                                        const CachedLFibMplsViaColl& vias ) {
   const bool released = l3Adj.nextHops() == 0 && !l3Adj.isOfGroup();
   if ( !released && parts_.nextHops.hasVias( l3Adj, vias ) ) {
      return;
   }
   std::vector< Mpls::RouteKey > left;
   for ( const Mpls::RouteKey routeKey : l3Adj.carriedRouteKey() ) {
      left.push_back( routeKey );
   }
   for ( const Mpls::RouteKey routeKey : l3Adj.routeKey() ) {
      MplsRoute& route = *vrfState.route( routeKey );
      if ( !route.inHardware() || vrfState.carrierOf( routeKey ) ) {
         continue;
      }
      const Mpls::LfibRoute lfibRoute = in_.transitLfib->lfibRoute( routeKey );
      // A route that is gone counts as one that left: it may come back, over another via set, before
      // its end is processed.
      if ( !!lfibRoute && lfibRoute.viaSetKey == l3Adj.lFibViaSetKey() ) {
         continue;
      }
      if ( !released ) {
         left.push_back( routeKey );
      } else if ( route.l2Adj() ) {
         // The adjacency has released already what the route is in hardware by.
         parts_.routeWriter.takeRouteOut( vrfState, route );
      }
   }
   if ( !released ) {
      carryByFormer( vrfState, l3Adj, left );
   }
}

// Another adjacency takes over what this one is until now, and carries these routes.
void L3Adjacencies::carryByFormer( VrfMplsState& vrfState, L3Adjacency& l3Adj,
                                   const std::vector< Mpls::RouteKey >& routes ) {
   if ( routes.empty() ) {
      return;
   }
   L3Adjacency& former = *newL3Adjacency( vrfState );
   MPLS_TRACE( 3, "l3 adj ", former.index(), " carries ", routes.size(), " routes of l3 adj ",
               l3Adj.index(), ", whose via set has changed" );
   former.lFibViaSetKeyIs( l3Adj.lFibViaSetKey() );
   former.supersededIs( true );
   if ( l3Adj.nextHops() == 0 ) { // a group: its pop is written with its routes
      Mpls::Hardware::Adjacency& hwAdj = *in_.routingHwMplsStatus->adjacency( former.index() );
      hwAdj.viaIs( 0, in_.routingHwMplsStatus->adjacency( l3Adj.index() )->via( 0 ) );
      former.payloadTypeIs( l3Adj.payloadType() );
      former.ttlModeIs( l3Adj.ttlMode() );
      parts_.fecs.bindL3AdjToExtFecInfo( vrfState, former, l3Adj.extFecInfo() );
   } else {
      parts_.nextHops.setHwAdjViasForNormalMplsRoute(
         vrfState, former, Mpls::LfibViaSet( former.lFibViaSetKey() ),
         parts_.nextHops.viasInHardware( l3Adj ), L3AdjLFibAdjType::adjTypeRegular );
   }
   for ( const IpAddrIntfId& key : l3Adj.nextHop() ) { // also those of a still earlier content
      NextHops::useNextHop( vrfState, former, key );
   }
   // The superseded adjacency keeps no backup: that could take none of its own, and the routes
   // that it carries may wait for just that.
   for ( const Mpls::RouteKey routeKey : routes ) {
      l3Adj.carriedRouteKeyDel( routeKey );
      former.carriedRouteKeyIs( routeKey );
   }
   if ( !l3Adj.used() ) {
      vrfState.l3AdjLeftIs( l3Adj.index() ); // it was kept for them
   }
   settleL3Adj( vrfState, former );
}

// The adjacency's own routes that are in hardware by it, or else by what it was before.
std::vector< Mpls::RouteKey > L3Adjacencies::routesInHardware( const VrfMplsState& vrfState,
                                                               const L3Adjacency& l3Adj,
                                                               bool byIt ) {
   std::vector< Mpls::RouteKey > found;
   for ( const Mpls::RouteKey routeKey : l3Adj.routeKey() ) {
      const MplsRoute& route = *vrfState.route( routeKey );
      if ( route.inHardware() && route.inHardwareBy( l3Adj ) == byIt &&
           vrfState.carrierOf( routeKey ) == nullptr ) {
         found.push_back( routeKey );
      }
   }
   return found;
}

void L3Adjacencies::deleteL3Adj( VrfMplsState& vrfState, U64 index ) {
   MPLS_TRACE( 3, "delete l3 adj ", index, " vrf ", vrfState.vrfName() );
   const Ptr< L3Adjacency > l3Adj = vrfState.l3Adjacency( index );
   MPLS_ASSERT( l3Adj, "l3Adj", textOf( index ) );
   parts_.protection.deleteBackupAdjInfoFromAdj( vrfState, *l3Adj );
   parts_.protection.stopWaitingForBackup( vrfState, *l3Adj );
   parts_.fecs.bindL3AdjToExtFecInfo( vrfState, *l3Adj, nullptr );
   parts_.l2Adjacencies.unbindL3AdjFromL2Adj( vrfState, *l3Adj );
   parts_.nextHops.deleteL3AdjRefs( vrfState, *l3Adj );
   l3Adj->nextHopDelAll();
   if ( !l3Adj->superseded() ) {
      vrfState.lFibViaSetToL3AdjDel( l3Adj->lFibViaSetKey() );
      in_.lfibHwStatus->viaSetDel( l3Adj->lFibViaSetKey() );
   }
   in_.routingHwMplsStatus->adjacencyBackupStatusDel( index );
   in_.routingHwMplsStatus->adjacencyDel( index );
   vrfState.l3AdjForReviewDel( index ); // work sets never name the dead
   vrfState.l3AdjacencyDel( index );
   if ( !l3Adj->superseded() ) {
      Protection::queueWaitingForBackup( vrfState, l3Adj->lFibViaSetKey(),
                                         Protection::BackupNews::changed );
      Protection::queueWaitingForOtherFec( vrfState, l3Adj->lFibViaSetKey() );
   }
}

} // namespace Vel::Transit
