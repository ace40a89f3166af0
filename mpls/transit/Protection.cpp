#include "mpls/transit/Protection.h"

#include <algorithm>

#include "mpls/VelMplsTrace.h"
#include "mpls/transit/Parts.h"

namespace Vel::Transit {

namespace {

// A backup that is missing or still to be processed is usually on its way. After so many looks in a
// row only news of it brings the adjacency back.
constexpr U32 maxLooksForBackup = 3;

// The via set that is to protect another; none when it is of a kind that cannot, or the same one.
Mpls::LfibViaSetKey backupKeyOf( const Mpls::LfibViaSet& viaSet ) {
   const Mpls::LfibViaSetKey key = viaSet.backupViaSetKey();
   if ( key == viaSet.key() ) {
      MPLS_TRACE( 3, "viaSet idx ", key.index(), " names itself as its backup; going without" );
      return {};
   }
   if ( key.empty() || ( isTransit( key.viaType() ) && !key.multicast() ) ) {
      return key;
   }
   MPLS_TRACE( 3, "backup viaSet idx ", key.index(), " viaType ", key.viaType(),
               " cannot protect; going without" );
   return {};
}

std::string alreadyBackup( const L3Adjacency& l3Adj, Mpls::LfibViaSetKey backupKey ) {
   return joinText( "viaSet idx ", l3Adj.lFibViaSetKey().index(), " with backup viaSet idx ",
                    backupKey.index(),
                    " is already a backup adj, backing off until input is sane" );
}

} // namespace

bool Protection::validateAndMaybeUpdateBackupAdjInfo( VrfMplsState& vrfState, L3Adjacency& l3Adj,
                                                      const Mpls::LfibViaSet& viaSet ) {
   if ( viaSet.null() ) {
      const Mpls::LfibViaSetKey key = l3Adj.lFibViaSetKey();
      MPLS_TRACE( 3, "lFib viaSet idx ", key.index(), " viaType ", key.viaType(), " deleted" );
      return false;
   }
   const Mpls::LfibViaSetKey backupKey = backupKeyOf( viaSet );
   if ( l3Adj.backupAdj() && l3Adj.backupAdj()->lFibViaSetKey() != backupKey ) {
      deleteBackupAdjInfoFromAdj( vrfState, l3Adj );
   }
   if ( backupKey.empty() ) {
      stopWaitingForBackup( vrfState, l3Adj );
      return true;
   }
   if ( const BackupAwaits awaits = maybeLinkBackupAdj( vrfState, l3Adj, backupKey );
        awaits != BackupAwaits::nothing ) {
      waitForBackup( vrfState, l3Adj, backupKey, awaits );
      return false;
   }
   stopWaitingForBackup( vrfState, l3Adj );
   setHwBackupAdjStatus( vrfState, l3Adj );
   return true;
}

// Links the two where the backup is fit; says what there is to wait for where it is not.
BackupAwaits Protection::maybeLinkBackupAdj( VrfMplsState& vrfState, L3Adjacency& l3Adj,
                                             Mpls::LfibViaSetKey backupKey ) {
   if ( in_.transitLfib->lfibViaSet( backupKey ).null() ) {
      const bool unread = in_.transitLfib->unread();
      if ( unread ) {
         sm_.keepUnread( backupKey );
      }
      // What cannot be read is still there for whom it protects.
      if ( !unread || !vrfState.lFibViaSetToL3AdjHas( backupKey ) ) {
         MPLS_TRACE( 3, "backup viaSet idx ", backupKey.index(), " viaType ", backupKey.viaType(),
                     " missing from lfib" );
         return BackupAwaits::viaSet;
      }
   }
   if ( !vrfState.lFibViaSetToL3AdjHas( backupKey ) ) {
      if ( l3Adj.primaryAdjs() != 0 ) {
         // With a backup of its own it would be unfit for those that it protects, and they would
         // keep it so. Via sets that name each other in a circle would even go on making each
         // other's adjacencies after the last route has gone.
         MPLS_TRACE( 3, alreadyBackup( l3Adj, backupKey ) );
         return BackupAwaits::fitness;
      }
      makeBackupAdj( vrfState, l3Adj, backupKey );
      return BackupAwaits::review;
   }
   L3Adjacency& backup = *vrfState.l3Adjacency( vrfState.lFibViaSetToL3Adj( backupKey ) );
   if ( l3Adj.backupAdj() != &backup ) {
      parts_.l3Adjacencies.maybeQueueStaleL3Adj( vrfState, backupKey );
   }
   if ( const std::string fault = backupFault( vrfState, l3Adj, backup ); !fault.empty() ) {
      MPLS_TRACE( 3, fault );
      return vrfState.isAdjPendingForReview( backup.index() ) ? BackupAwaits::review
                                                              : BackupAwaits::fitness;
   }
   linkBackupAdj( l3Adj, backup );
   return BackupAwaits::nothing;
}

// Why the backup cannot protect the adjacency now; empty when it can.
std::string Protection::backupFault( const VrfMplsState& vrfState, const L3Adjacency& l3Adj,
                                     const L3Adjacency& backup ) const {
   const Mpls::LfibViaSetKey backupKey = backup.lFibViaSetKey();
   if ( vrfState.isAdjPendingForReview( backup.index() ) ) {
      return joinText( "backup viaSet idx ", backupKey.index(), " viaType ", backupKey.viaType(),
                       " waiting to be reviewed, backing off until reviewed" );
   }
   if ( backup.backupAdj() ) {
      return joinText( "backup viaSet idx ", backupKey.index(), " viaType ", backupKey.viaType(),
                       " has a backup so it can't be used as backup right now" );
   }
   return l3Adj.primaryAdjs() != 0 ? alreadyBackup( l3Adj, backupKey ) : std::string();
}

void Protection::makeBackupAdj( VrfMplsState& vrfState, L3Adjacency& l3Adj,
                                Mpls::LfibViaSetKey backupKey ) {
   L3Adjacency* const backup = parts_.l3Adjacencies.newL3Adjacency( vrfState );
   backup->lFibViaSetKeyIs( backupKey );
   vrfState.lFibViaSetToL3AdjIs( backupKey, backup->index() );
   linkBackupAdj( l3Adj, *backup );
   setHwBackupAdjStatus( vrfState, l3Adj );
   MPLS_TRACE( 3, "backup viaSet idx ", backupKey.index(), " viaType ", backupKey.viaType(),
               " not yet up for review, kicking off review and backing off" );
   vrfState.l3AdjForReviewIs( backup->index(), L3AdjReview::made );
}

void Protection::linkBackupAdj( L3Adjacency& l3Adj, L3Adjacency& backup ) {
   if ( l3Adj.backupAdj() == &backup ) {
      return;
   }
   l3Adj.backupAdjIs( &backup );
   backup.primaryAdjIs( l3Adj.index() );
   backup.poppingPrimarysInc( popsAlike( l3Adj, backup ) ? 1 : 0 );
}

void Protection::setHwBackupAdjStatus( VrfMplsState&, L3Adjacency& l3Adj ) {
   if ( const L3Adjacency* const backup = l3Adj.backupAdj().get() ) {
      in_.routingHwMplsStatus->adjacencyBackupStatusIs( { l3Adj.index(), backup->index() } );
   } else {
      in_.routingHwMplsStatus->adjacencyBackupStatusDel( l3Adj.index() );
   }
}

void Protection::deleteBackupAdjInfoFromAdj( VrfMplsState& vrfState, L3Adjacency& l3Adj ) {
   MPLS_TRACE( 7, "clear backup adj info for primary adj ", l3Adj.index() );
   if ( L3Adjacency* const backup = l3Adj.backupAdj().get() ) {
      backup->primaryAdjDel( l3Adj.index() );
      if ( popsAlike( l3Adj, *backup ) ) {
         backup->poppingPrimarysIs( backup->poppingPrimarys() - 1 );
      }
      // It goes when nothing else uses it.
      vrfState.l3AdjForReviewIs( backup->index(), L3AdjReview::protectionChanged );
   }
   in_.routingHwMplsStatus->adjacencyBackupStatusDel( l3Adj.index() );
   l3Adj.backupAdjIs( nullptr );
}

void Protection::labelActionIs( VrfMplsState& vrfState, L3Adjacency& l3Adj, MplsLabelAction action,
                                const PopForm& popForm ) {
   l3Adj.labelActionIs( action );
   if ( l3Adj.popForm() == popForm ) {
      return;
   }
   L3Adjacency* const backup = l3Adj.backupAdj().get();
   const U64 before = backup && popsAlike( l3Adj, *backup ) ? 1 : 0;
   l3Adj.popFormIs( popForm );
   if ( backup ) {
      const U64 now = popsAlike( l3Adj, *backup ) ? 1 : 0;
      backup->poppingPrimarysIs( backup->poppingPrimarys() - before + now );
   }
   U64 alike = 0;
   for ( const U64 primary : l3Adj.primaryAdj() ) {
      alike += popsAlike( *vrfState.l3Adjacency( primary ), l3Adj ) ? 1 : 0;
   }
   l3Adj.poppingPrimarysIs( alike );
}

bool Protection::popsAlike( const L3Adjacency& l3Adj, const L3Adjacency& backup ) {
   return l3Adj.popForm().pops && l3Adj.popForm() == backup.popForm();
}

void Protection::waitForBackup( VrfMplsState& vrfState, L3Adjacency& l3Adj,
                                Mpls::LfibViaSetKey backupKey, BackupAwaits awaits ) {
   AwaitedBackup awaited{ backupKey, awaits, 0 };
   if ( l3Adj.backupAwaited() == backupKey ) {
      awaited.looks = l3Adj.awaitedBackup().looks;
   } else {
      stopWaitingForBackup( vrfState, l3Adj );
      vrfState.waitsForBackupIs( backupKey )->l3AdjacencyIs( l3Adj.index() );
   }
   if ( awaits == BackupAwaits::viaSet || awaits == BackupAwaits::review ) {
      awaited.looks = std::min( awaited.looks + 1, maxLooksForBackup + 1 );
   }
   l3Adj.awaitedBackupIs( awaited );
   if ( awaits == BackupAwaits::viaSet && awaited.looks <= maxLooksForBackup ) {
      vrfState.l3AdjForReviewIs( l3Adj.index(), L3AdjReview::backupLooked );
   }
}

void Protection::forgetLooksForBackup( L3Adjacency& l3Adj ) {
   AwaitedBackup awaited = l3Adj.awaitedBackup();
   awaited.looks = 0;
   l3Adj.awaitedBackupIs( awaited );
}

void Protection::stopWaitingForBackup( VrfMplsState& vrfState, L3Adjacency& l3Adj ) {
   const Mpls::LfibViaSetKey backupKey = l3Adj.backupAwaited();
   if ( backupKey.empty() ) {
      return;
   }
   BackupWait* const wait = vrfState.waitsForBackup( backupKey );
   MPLS_ASSERT( wait && wait->l3AdjacencyHas( l3Adj.index() ),
                "vrfState.waitsForBackup( backupKey )->l3AdjacencyHas( l3Adj.index() )",
                l3Adj.fullName() );
   wait->l3AdjacencyDel( l3Adj.index() );
   if ( wait->l3Adjacencys() == 0 ) {
      vrfState.waitsForBackupDel( backupKey );
   }
   l3Adj.awaitedBackupIs( {} );
}

void Protection::queueWaitingForBackup( VrfMplsState& vrfState, Mpls::LfibViaSetKey backupKey,
                                        BackupNews news ) {
   const BackupWait* const wait = vrfState.waitsForBackup( backupKey );
   if ( wait == nullptr ) {
      return;
   }
   for ( const U64 index : wait->l3Adjacency() ) {
      L3Adjacency& l3Adj = *vrfState.l3Adjacency( index );
      if ( l3Adj.awaitedBackup().awaits == BackupAwaits::otherFec ) {
         continue;
      }
      const bool awaitsReview = l3Adj.awaitedBackup().awaits == BackupAwaits::review;
      const bool fit =
         news == BackupNews::changed || ( news == BackupNews::programmed && awaitsReview );
      if ( fit ) {
         forgetLooksForBackup( l3Adj );
      }
      if ( fit || ( awaitsReview && l3Adj.awaitedBackup().looks <= maxLooksForBackup ) ) {
         MPLS_TRACE( 3, "add l3 adj ", index, " for review" );
         vrfState.l3AdjForReviewIs( index,
                                    fit ? L3AdjReview::backupNews : L3AdjReview::backupLooked );
      }
   }
}

void Protection::queueWaitingForOtherFec( VrfMplsState& vrfState, Mpls::LfibViaSetKey backupKey ) {
   const BackupWait* const wait = vrfState.waitsForBackup( backupKey );
   if ( wait == nullptr ) {
      return;
   }
   for ( const U64 index : wait->l3Adjacency() ) {
      if ( vrfState.l3Adjacency( index )->awaitedBackup().awaits == BackupAwaits::otherFec ) {
         vrfState.l3AdjForReviewIs( index, L3AdjReview::backupNews );
      }
   }
}

std::string Protection::backupWaitReason( const VrfMplsState& vrfState,
                                          const L3Adjacency& l3Adj ) const {
   if ( !l3Adj.awaitedBackup().holdsBack() ) {
      return {};
   }
   const Mpls::LfibViaSetKey backupKey = l3Adj.backupAwaited();
   if ( in_.transitLfib->lfibViaSet( backupKey ).null() ) {
      return joinText( "backup viaSet idx ", backupKey.index(), " viaType ", backupKey.viaType(),
                       " missing from lfib" );
   }
   if ( !vrfState.lFibViaSetToL3AdjHas( backupKey ) ) {
      return l3Adj.primaryAdjs() != 0
                ? alreadyBackup( l3Adj, backupKey )
                : joinText( "backup viaSet idx ", backupKey.index(), " is still to be processed" );
   }
   std::string fault = backupFault(
      vrfState, l3Adj, *vrfState.l3Adjacency( vrfState.lFibViaSetToL3Adj( backupKey ) ) );
   return fault.empty() ? joinText( "backup viaSet idx ", backupKey.index(), " has to go first" )
                        : fault;
}

void Protection::queuePrimaries( VrfMplsState& vrfState, const L3Adjacency& l3Adj ) {
   for ( const U64 primary : l3Adj.primaryAdj() ) {
      MPLS_TRACE( 3, "add l3 adj ", primary, " for review" );
      vrfState.l3AdjForReviewIs( primary, L3AdjReview::backupNews );
   }
}

void Protection::queuePrimariesOf( VrfMplsState& vrfState, const ExternalFecInfo& info ) {
   for ( const ExternalFecInfo* const primary : info.dependentPrimaryExtFecInfo() ) {
      for ( const L3Adjacency* const l3Adj : primary->dependentL3Adjacency() ) {
         MPLS_TRACE( 3, "add l3 adj ", l3Adj->index(), " for review" );
         vrfState.l3AdjForReviewIs( l3Adj->index(), L3AdjReview::backupNews );
      }
   }
}

Ptr< ExternalFecInfo > Protection::extFecBackupOf( const VrfMplsState& vrfState,
                                                   const ExternalFecInfo& info,
                                                   Mpls::LfibViaSetKey viaSetKey ) const {
   const Mpls::LfibViaSetKey backupKey = backupKeyOf( in_.transitLfib->lfibViaSet( viaSetKey ) );
   if ( backupKey.empty() || !vrfState.lFibViaSetToL3AdjHas( backupKey ) ||
        info.dependentPrimaryExtFecInfos() != 0 ) {
      return nullptr;
   }
   const Ptr< ExternalFecInfo > backup =
      vrfState.l3Adjacency( vrfState.lFibViaSetToL3Adj( backupKey ) )->extFecInfo();
   return backup && !backup->backupExtFecInfo() ? backup : nullptr;
}

Fib::FecId Protection::getBackupFecIdForRequest( const Mpls::LfibViaSet& viaSet,
                                                 const VrfMplsState& vrfState ) const {
   const Mpls::LfibViaSetKey backup = viaSet.backupViaSetKey();
   return backup.empty() ? Fib::FecId() : vrfState.lFibViaSetToFecId( backup );
}

Fib::FecId Protection::backupFecIdToRequest( const VrfMplsState& vrfState, const L3Adjacency& l3Adj,
                                             const Mpls::LfibViaSet& viaSet,
                                             bool popRemoved ) const {
   const Fib::FecId fecId = getBackupFecIdForRequest( viaSet, vrfState );
   const ExternalFecInfo* const backup = vrfState.extFecInfo( fecId );
   if ( !l3Adj.backupAdj() || backup == nullptr ||
        l3Adj.backupAdj()->extFecInfo().get() != backup ) { // an earlier adjacency's
      return {};
   }
   const ExternalFecInfo* const own = l3Adj.extFecInfo().get();
   if ( l3Adj.backupAdj()->outdated() &&
        ( !own || own->backupExtFecInfo().get() != backup || someJoin( vrfState, l3Adj ) ) ) {
      MPLS_TRACE( 3, "skipping adding backup fec to fec request for l3 adj ", l3Adj.index(),
                  " until fec ", fecId, " is what its via set says" );
      return {};
   }
   if ( backup->backupExtFecInfo() ) { // of an earlier content; FECs never lead in a circle
      MPLS_TRACE( 3, "skipping adding backup fec to fec request for l3 adj ", l3Adj.index(),
                  " until fec ", fecId, " has lost its own" );
      return {};
   }
   if ( backup->popLabelActionRemoved() != popRemoved ) {
      MPLS_TRACE( 3, "skipping adding backup fec to fec request for l3 adj ", l3Adj.index(),
                  " until backup adj popLabelActionRemoved matches ", popRemoved );
      MPLS_ASSERT( vrfState.l3AdjForReviewHas( l3Adj.backupAdj()->index() ),
                   "vrfMplsState->l3AdjForReviewHas( l3Adj->backupAdj()->index() )",
                   l3Adj.fullName() );
      return {};
   }
   return fecId;
}

// Whether some of the adjacency's routes are still to come into its FEC.
bool Protection::someJoin( const VrfMplsState& vrfState, const L3Adjacency& l3Adj ) {
   for ( const Mpls::RouteKey routeKey : l3Adj.routeKey() ) {
      if ( vrfState.route( routeKey )->extFecInfo() != l3Adj.extFecInfo() ) {
         return true;
      }
   }
   return false;
}

bool Protection::shouldRemovePop( const L3Adjacency& l3Adj ) {
   const L3Adjacency* const backup = l3Adj.primaryAdjs() != 0 ? &l3Adj : l3Adj.backupAdj().get();
   return backup && l3Adj.labelAction() == MplsLabelAction::pop && allPop( *backup );
}

bool Protection::allPop( const L3Adjacency& backup ) {
   return backup.popForm().pops && backup.poppingPrimarys() == backup.primaryAdjs();
}

bool Protection::processRemovePopDependencies( VrfMplsState& vrfState, L3Adjacency& l3Adj ) {
   const auto changed = []( const L3Adjacency& member ) {
      ExternalFecInfo* const info = member.extFecInfo().get();
      if ( info == nullptr ) {
         return false; // it is still to be processed
      }
      info->shouldRemovePopLabelActionIs( shouldRemovePop( member ) );
      return info->shouldRemovePopLabelAction() != info->popLabelActionRemoved();
   };
   const auto queueIfChanged = [&]( const L3Adjacency* member ) {
      if ( member && member != &l3Adj && changed( *member ) ) {
         MPLS_TRACE( 3, "add l3 adj ", member->index(), " for review" );
         vrfState.l3AdjForReviewIs( member->index(), L3AdjReview::protectionChanged );
      }
   };
   if ( L3Adjacency* const backup = l3Adj.primaryAdjs() != 0 ? &l3Adj : l3Adj.backupAdj().get() ) {
      queueIfChanged( backup );
      if ( backup->popsTold() != allPop( *backup ) ) { // else they have been asked before
         backup->popsToldIs( allPop( *backup ) );
         for ( const U64 index : backup->primaryAdj() ) {
            queueIfChanged( vrfState.l3Adjacency( index ) );
         }
      }
   }
   if ( !changed( l3Adj ) ) {
      return false;
   }
   MPLS_TRACE( 3, "remove pop from extFecInfo for l3 adj ", l3Adj.index(), " changed to ",
               l3Adj.extFecInfo()->shouldRemovePopLabelAction(), ", request new fec id" );
   return true;
}

} // namespace Vel::Transit
