// MplsSm: external FECs and backups. Via sets that forward into another agent's FEC, and via sets
// that protect others.
//
// Protection is one level deep: a backup has no backup, and what has a backup protects nobody. An
// adjacency whose backup is not fit for it backs off: it is left as it is and waits under the
// backup's via set key. What makes the backup fit is an event, the processing of its adjacency or a
// change of its via set, and that event queues those who wait. The wait ends with the adjacency's
// own via set as well.

#include "mpls/VelMplsSm.h"
#include "mpls/VelMplsTrace.h"

#include <algorithm>

namespace Vel {

namespace {

// A backup that is missing or still to be processed is usually on its way. After so many looks in a
// row only news of it brings the adjacency back.
constexpr U32 maxLooksForBackup = 3;

// Ids of our own kinds are ours to give, and an index has to fit into an interface.
bool externalFecIdValid( Fib::FecId fecId ) {
   constexpr U64 indexLimit = U64{ 1 } << 48;
   if ( !fecId.valid() || fecId.index() >= indexLimit ) {
      return false;
   }
   const Fib::AdjType type = fecId.adjType();
   return type != Fib::AdjType::mplsV4Adj && type != Fib::AdjType::mplsV6Adj &&
          type != Fib::AdjType::mplsMcastViaAdj;
}

// The via set that is to protect another; none when it is of a kind that cannot, or the same one.
Mpls::LfibViaSetKey backupKeyOf( const Mpls::LfibViaSet& viaSet ) {
   const Mpls::LfibViaSetKey key = viaSet.backupViaSetKey();
   if ( key == viaSet.key() ) {
      MPLS_TRACE( 3, "viaSet idx ", key.index(), " names itself as its backup; going without" );
      return {};
   }
   const bool usable =
      key.viaType() == Mpls::viaTypeMplsIp || key.viaType() == Mpls::viaTypeExternalFec;
   if ( key.empty() || ( usable && !key.multicast() ) ) {
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

// --- External FECs.

Mpls::LfibExtFecVia MplsSm::getSaneExtFecVia( const L3Adjacency& l3Adj,
                                              const Mpls::LfibViaSet& viaSet ) const {
   const Mpls::LfibViaSetKey viaSetKey = l3Adj.lFibViaSetKey(); // a via set that is gone has none
   if ( viaSet.null() ) {
      MPLS_TRACE( 3, "lFib viaSet idx ", viaSetKey.index(), " viaType ", viaSetKey.viaType(),
                  " deleted" );
      return {};
   }
   MPLS_ASSERT( viaSetKey.viaType() == Mpls::viaTypeExternalFec,
                "lFibViaSetKey.viaType() == Mpls::viaTypeExternalFec_", textOf( viaSetKey ) );
   if ( !forwardingIntoExternalFecsSupported() ) {
      MPLS_TRACE( 3, "External FEC not supported on this platform; skipping l3 adj" );
      return {};
   }
   Mpls::LfibExtFecVia via;
   if ( const std::string fault = extFecLFibViaSetFault( viaSet, via ); !fault.empty() ) {
      MPLS_TRACE( 3, fault, "; skipping l3 adj" );
      return {};
   }
   return via;
}

// Looks for the via of an external-FEC via set; says why there is none.
std::string MplsSm::extFecLFibViaSetFault( const Mpls::LfibViaSet& viaSet,
                                           Mpls::LfibExtFecVia& via ) const {
   const Mpls::LfibViaKey viaKey = viaSet.viaKey( 0 );
   via = in_.transitLfib->lfibExtFecVia( viaKey );
   if ( via == Mpls::LfibExtFecVia() ) {
      return joinText( "lFib via idx ", viaKey.index(), " not found" );
   }
   if ( !externalFecIdValid( via.fecId ) ) {
      return joinText( "lFib via idx ", viaKey.index(), " has invalid external FecId" );
   }
   if ( via.key.viaType() != Mpls::viaTypeExternalFec ) {
      return joinText( "lFib via idx ", viaKey.index(), " is viaType ", via.key.viaType(),
                       " instead of externalFec" );
   }
   if ( viaSet.viaKeys() != 1 ) {
      const Mpls::LfibViaSetKey key = viaSet.key();
      return joinText( "lFib viaSet ", "index ", key.index(), " source ", key.source(), " viaType ",
                       key.viaType(), " viaSetType ", key.viaSetType(), " has ", viaSet.viaKeys(),
                       " vias, but should only have one" );
   }
   return {};
}

void MplsSm::processExtFecL3Adj( VrfMplsState& vrfState, L3Adjacency& l3Adj,
                                 const Mpls::LfibViaSet& viaSet,
                                 const Mpls::LfibExtFecVia& extFecVia ) {
   MPLS_ASSERT( forwardingIntoExternalFecsSupported(), "forwardingIntoExternalFecsSupported()",
                l3Adj.fullName() );
   MPLS_ASSERT( extFecVia != Mpls::LfibExtFecVia(), "extFecVia != Mpls::LfibExtFecVia()",
                l3Adj.fullName() );
   const Fib::FecId fecId = extFecVia.fecId;
   requestHwFecIdAndUpdateDependencyMaps( fecId, Fib::Fec{ fecId, {}, {} }, Fib6::Fec(), vrfState,
                                          l3Adj, viaSet.key() );
   Mpls::Hardware::Adjacency* const hwAdj = in_.routingHwMplsStatus->adjacency( l3Adj.index() );
   hwAdj->viaDelAll();
   hwAdj->unresolvedViasIs( 0 );
   hwAdj->viaSetTypeIs( viaSet.key().viaSetType() );
   Mpls::Hardware::AdjacencyVia via;
   via.viaKey = extFecVia.key;
   via.intf = Fib::FecId::fecIdToHierarchicalIntfId( fecId );
   hwAdj->viaIs( 0, via );
}

void MplsSm::addRouteKeyToExtFecInfo( Mpls::RouteKey routeKey, ExternalFecInfo& info ) {
   MPLS_TRACE( 7, "add routeKey ", routeKey, " to extFecInfo ", info.fecId() );
   info.dependentRouteKeyIs( routeKey );
}

void MplsSm::deleteRouteKeyFromExtFecInfo( Mpls::RouteKey routeKey, ExternalFecInfo& info ) {
   MPLS_TRACE( 7, "delete routeKey ", routeKey, " from extFecInfo ", info.fecId() );
   info.dependentRouteKeyDel( routeKey );
}

// Backups are one level deep, and with them the recursion.
void MplsSm::maybeDeleteExtFecInfo( VrfMplsState& vrfState, Fib::FecId fecId ) {
   MPLS_TRACE( 7, "try to delete ext fec ", fecId );
   const Ptr< ExternalFecInfo > info = vrfState.extFecInfo( fecId );
   MPLS_ASSERT( info, "extFecInfo", textOf( fecId ) );
   if ( info->dependentL3Adjacencys() != 0 || info->dependentRouteKeys() != 0 ||
        info->dependentPrimaryExtFecInfos() != 0 ) {
      return;
   }
   MPLS_TRACE( 3, "delete ext fec ", fecId );
   releaseFormerBackups( vrfState, *info );
   if ( const Ptr< ExternalFecInfo > backup = info->backupExtFecInfo() ) {
      info->backupExtFecInfoIs( nullptr );
      backup->dependentPrimaryExtFecInfoDel( info.get() );
      maybeDeleteExtFecInfo( vrfState, backup->fecId() );
   }
   freeMplsFecId( fecId, vrfState );
   vrfState.extFecInfoDel( fecId );
   if ( forwardingIntoExternalFecsSupported() ) {
      in_.hwFecIdRequest->fecDel( fecId );
      in_.hwFecIdRequest->fec6Del( fecId );
      in_.hwFecIdRequest->hwFecIdRequestDel( fecId );
   }
}

void MplsSm::updateBackupExtInfoForExtFecInfo( VrfMplsState& vrfState, ExternalFecInfo& info,
                                               const Ptr< ExternalFecInfo >& backup ) {
   MPLS_TRACE( 7, "update backup extFecInfo for extFecInfo ", info.fecId() );
   const Ptr< ExternalFecInfo > before = info.backupExtFecInfo();
   if ( before == backup || backup.get() == &info ) {
      return;
   }
   info.backupExtFecInfoIs( backup );
   if ( backup ) {
      backup->dependentPrimaryExtFecInfoIs( &info );
   }
   if ( before &&
        isBehind( info ) ) { // frames may have no other way until hardware has rewritten it
      info.formerBackupIs( before.get() );
   } else if ( before ) {
      before->dependentPrimaryExtFecInfoDel( &info );
      maybeDeleteExtFecInfo( vrfState, before->fecId() );
   }
}

void MplsSm::releaseFormerBackups( VrfMplsState& vrfState, ExternalFecInfo& info ) {
   std::vector< ExternalFecInfo* > formers;
   for ( ExternalFecInfo* const former : info.formerBackup() ) {
      formers.push_back( former );
   }
   info.formerBackupDelAll();
   for ( ExternalFecInfo* const former : formers ) {
      if ( former != info.backupExtFecInfo() ) {
         former->dependentPrimaryExtFecInfoDel( &info );
         maybeDeleteExtFecInfo( vrfState, former->fecId() );
      }
   }
}

// The FEC that protects an external one: that of the backup via set's adjacency, where routes use
// that via set. One level deep.
Ptr< ExternalFecInfo > MplsSm::extFecBackupOf( const VrfMplsState& vrfState,
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

// --- Backups.

bool MplsSm::validateAndMaybeUpdateBackupAdjInfo( VrfMplsState& vrfState, L3Adjacency& l3Adj,
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
BackupAwaits MplsSm::maybeLinkBackupAdj( VrfMplsState& vrfState, L3Adjacency& l3Adj,
                                         Mpls::LfibViaSetKey backupKey ) {
   if ( in_.transitLfib->lfibViaSet( backupKey ).null() ) {
      MPLS_TRACE( 3, "backup viaSet idx ", backupKey.index(), " viaType ", backupKey.viaType(),
                  " missing from lfib" );
      return BackupAwaits::viaSet;
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
      maybeQueueStaleL3Adj( vrfState, backupKey );
   }
   if ( const std::string fault = backupFault( vrfState, l3Adj, backup ); !fault.empty() ) {
      MPLS_TRACE( 3, fault );
      return isAdjPendingForReview( vrfState, backup.index() ) ? BackupAwaits::review
                                                               : BackupAwaits::fitness;
   }
   linkBackupAdj( l3Adj, backup );
   return BackupAwaits::nothing;
}

// Why the backup cannot protect the adjacency now; empty when it can.
std::string MplsSm::backupFault( const VrfMplsState& vrfState, const L3Adjacency& l3Adj,
                                 const L3Adjacency& backup ) const {
   const Mpls::LfibViaSetKey backupKey = backup.lFibViaSetKey();
   if ( isAdjPendingForReview( vrfState, backup.index() ) ) {
      return joinText( "backup viaSet idx ", backupKey.index(), " viaType ", backupKey.viaType(),
                       " waiting to be reviewed, backing off until reviewed" );
   }
   if ( backup.backupAdj() ) {
      return joinText( "backup viaSet idx ", backupKey.index(), " viaType ", backupKey.viaType(),
                       " has a backup so it can't be used as backup right now" );
   }
   return l3Adj.primaryAdjs() != 0 ? alreadyBackup( l3Adj, backupKey ) : std::string();
}

void MplsSm::makeBackupAdj( VrfMplsState& vrfState, L3Adjacency& l3Adj,
                            Mpls::LfibViaSetKey backupKey ) {
   L3Adjacency* const backup = newL3Adjacency( vrfState );
   backup->lFibViaSetKeyIs( backupKey );
   vrfState.lFibViaSetToL3AdjIs( backupKey, backup->index() );
   linkBackupAdj( l3Adj, *backup );
   setHwBackupAdjStatus( vrfState, l3Adj );
   MPLS_TRACE( 3, "backup viaSet idx ", backupKey.index(), " viaType ", backupKey.viaType(),
               " not yet up for review, kicking off review and backing off" );
   vrfState.l3AdjForReviewIs( backup->index() );
}

void MplsSm::linkBackupAdj( L3Adjacency& l3Adj, L3Adjacency& backup ) {
   if ( l3Adj.backupAdj() == &backup ) {
      return;
   }
   l3Adj.backupAdjIs( &backup );
   backup.primaryAdjIs( l3Adj.index() );
   backup.poppingPrimarysInc( l3Adj.labelAction() == MplsLabelAction::pop ? 1 : 0 );
}

void MplsSm::setHwBackupAdjStatus( VrfMplsState&, L3Adjacency& l3Adj ) {
   if ( const L3Adjacency* const backup = l3Adj.backupAdj().get() ) {
      in_.routingHwMplsStatus->adjacencyBackupStatusIs( { l3Adj.index(), backup->index() } );
   } else {
      in_.routingHwMplsStatus->adjacencyBackupStatusDel( l3Adj.index() );
   }
}

void MplsSm::deleteBackupAdjInfoFromAdj( VrfMplsState& vrfState, L3Adjacency& l3Adj ) {
   MPLS_TRACE( 7, "clear backup adj info for primary adj ", l3Adj.index() );
   if ( L3Adjacency* const backup = l3Adj.backupAdj().get() ) {
      backup->primaryAdjDel( l3Adj.index() );
      if ( l3Adj.labelAction() == MplsLabelAction::pop ) {
         backup->poppingPrimarysIs( backup->poppingPrimarys() - 1 );
      }
      vrfState.l3AdjForReviewIs( backup->index() ); // it goes when nothing else uses it
   }
   in_.routingHwMplsStatus->adjacencyBackupStatusDel( l3Adj.index() );
   l3Adj.backupAdjIs( nullptr );
}

// The one that protects it counts who pops.
void MplsSm::labelActionIs( L3Adjacency& l3Adj, MplsLabelAction action ) {
   if ( L3Adjacency* const backup = l3Adj.backupAdj().get();
        backup && l3Adj.labelAction() != action ) {
      const U64 others =
         backup->poppingPrimarys() - ( l3Adj.labelAction() == MplsLabelAction::pop );
      backup->poppingPrimarysIs( others + ( action == MplsLabelAction::pop ) );
   }
   l3Adj.labelActionIs( action );
}

// --- Backing off.

// What the adjacency waits for may come with a look again, for a few looks in a row that were no
// use; then only news brings it back. Adjacencies that wait for each other in a circle would
// otherwise send each other round for ever.
void MplsSm::waitForBackup( VrfMplsState& vrfState, L3Adjacency& l3Adj,
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
      vrfState.l3AdjForReviewIs( l3Adj.index() );
   }
}

void MplsSm::forgetLooksForBackup( L3Adjacency& l3Adj ) {
   AwaitedBackup awaited = l3Adj.awaitedBackup();
   awaited.looks = 0;
   l3Adj.awaitedBackupIs( awaited );
}

void MplsSm::stopWaitingForBackup( VrfMplsState& vrfState, L3Adjacency& l3Adj ) {
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

// The via set's adjacency has been processed, or the via set has changed: who waits for that looks
// again. Processing that changes nothing is news only to those who waited for it: adjacencies that
// are unfit for each other would otherwise keep each other busy for ever.
void MplsSm::queueWaitingForBackup( VrfMplsState& vrfState, Mpls::LfibViaSetKey backupKey,
                                    BackupNews news, bool fecChanged ) {
   const BackupWait* const wait = vrfState.waitsForBackup( backupKey );
   if ( wait == nullptr ) {
      return;
   }
   for ( const U64 index : wait->l3Adjacency() ) {
      L3Adjacency& l3Adj = *vrfState.l3Adjacency( index );
      if ( l3Adj.awaitedBackup().awaits == BackupAwaits::otherFec ) {
         if ( fecChanged ) {
            vrfState.l3AdjForReviewIs( index );
         }
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
         vrfState.l3AdjForReviewIs( index );
      }
   }
}

std::string MplsSm::backupWaitReason( const VrfMplsState& vrfState,
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

// --- What hardware makes of FECs: which way a protected one takes, and that nothing leaves by one.

void MplsSm::handleAdjHwState( const Fib::GlobalFecId& globalFecId ) {
   MPLS_TRACE( 3, "handleAdjHwState", " fecId ", globalFecId );
   MPLS_RING( "US handleAdjHwState fecId", globalFecId.fecId );
   // The VRF may have lost its name, and its number, since it was told.
   const VrfMplsState* const there = mplsState( L3::VrfName::defaultVrf() );
   const ExternalFecInfo* const told = there ? there->extFecInfo( globalFecId.fecId ) : nullptr;
   const bool followed =
      told && told->adjState() != AdjHwState::unknown && told->adjStateVrfId() == globalFecId.vrfId;
   const L3::VrfName vrf = followed ? L3::VrfName::defaultVrf() : vrfOfReport( globalFecId.vrfId );
   if ( vrf != L3::VrfName::defaultVrf() ) {
      MPLS_TRACE( 3, "  not default vrf" );
      MPLS_RING( "US   not default vrf" );
      return;
   }
   VrfMplsState* const vrfState = mplsState( vrf );
   if ( vrfState == nullptr ) {
      MPLS_TRACE( 3, "  no vrf state for vrf ", vrf );
      MPLS_RING( "US   no vrf state for vrf", globalFecId.vrfId );
      return;
   }
   ExternalFecInfo* const info = vrfState->extFecInfo( globalFecId.fecId );
   if ( info == nullptr ) {
      MPLS_TRACE( 3, "  no ext fec info " );
      MPLS_RING( "US   no ext fec info " );
      return;
   }
   info->adjStateIs( in_.velL3Status->adjHwStatus()
                        ? in_.velL3Status->adjHwStatus()->adjHwState( globalFecId )
                        : AdjHwState::unknown );
   info->adjStateVrfIdIs( globalFecId.vrfId );
   for ( const Mpls::RouteKey routeKey : info->dependentRouteKey() ) {
      vrfState->routeKeyForPublishIs( routeKey );
   }
   publishRoutesProtectedBy( *vrfState, *info );
   doMaybeScheduleReview( vrfState->vrfName() );
   const Mpls::LfibViaSetKey viaSetKey = info->lFibViaSetKey();
   if ( ( viaSetKey.empty() || !vrfState->lFibViaSetToL3AdjHas( viaSetKey ) ) &&
        info->dependentL3Adjacencys() == 0 ) {
      MPLS_TRACE( 3, "  invalid via set key ", viaSetKey );
      MPLS_RING( "US   invalid via set key ", viaSetKey );
      return;
   }
   for ( L3Adjacency* const l3Adj : info->dependentL3Adjacency() ) { // several may forward into one
      setHwBackupAdjStatus( *vrfState, *l3Adj );
      publishViaSetState( *l3Adj );
   }
}

// Which way hardware takes by the via set's FEC, where it says so.
void MplsSm::publishViaSetState( const L3Adjacency& l3Adj ) {
   if ( l3Adj.superseded() ) {
      return;
   }
   const ExternalFecInfo* const info = l3Adj.extFecInfo().get();
   if ( info && info->adjState() != AdjHwState::unknown ) {
      in_.lfibHwStatus->viaSetIs( { l3Adj.lFibViaSetKey(), l3Adj.index(), l3Adj.unprogrammed(),
                                    info->adjState() == AdjHwState::backupActive } );
   } else {
      in_.lfibHwStatus->viaSetDel( l3Adj.lFibViaSetKey() );
   }
}

} // namespace Vel
