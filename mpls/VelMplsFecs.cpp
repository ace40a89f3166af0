// MplsSm: FECs. Adjacencies that are programmed as FECs get an identifier, request a hardware FEC
// with it, and are found again by it when the hardware layer answers.
//
//    L3Adjacency ──> ExternalFecInfo (one for each FEC id) ──request──> FecIdToHwFecIdRequest
//                        │ hwId <──────────────answer─────────────────── FecIdToHwFecIdResponse
//    MplsRoute ──────────┘ createOrUpdateRoute( hwId )
//
// Every FEC id has its record, also those that this library allocates: the record is how an answer
// finds its adjacencies and routes, and its end is the end of the id. An adjacency whose FEC id
// changes is bound to the new record at once; its routes move when the new one is answered, and the
// old record goes with the last of them. What changes within a FEC keeps the id, and hardware
// replaces the content in place; but never under a label that means something else: while a label
// that has left is still in the FEC, or behind a FEC that it protects, new content gets a new id.
// And a label that comes waits, where it is, until hardware has carried out what is requested of
// the FEC: an answer names the version that stands behind the id.
//
// A number that was given back may be used again while its former FEC is still answered. Such a
// number is set aside until the answer is withdrawn, so that no answer is taken for another's.
//
// Pop. Where a popping adjacency is protected by a popping one, the pop cannot be in the FECs,
// since a frame would meet it once for the primary and once for the backup's own routes; it
// travels with the routes instead. Both sides have to agree: until the backup's FEC has no pop
// either, the primary goes without the backup.

#include "mpls/VelMplsSm.h"
#include "mpls/VelMplsTrace.h"

namespace Vel {

namespace {

AddressFamily familyOf( const CachedLFibMplsViaColl& vias ) {
   for ( const auto& [index, via] : vias.via() ) {
      if ( !via.nextHop.empty() ) {
         return via.nextHop.af();
      }
   }
   return ipv4(); // tunnels and groups know their own
}

// What all vias do with the label; `none` when they differ.
MplsLabelAction actionOf( const CachedLFibMplsViaColl& vias ) {
   std::optional< MplsLabelAction > action;
   for ( const auto& [index, via] : vias.via() ) {
      if ( action && *action != via.labelAction ) {
         return MplsLabelAction::none;
      }
      action = via.labelAction;
   }
   return action.value_or( MplsLabelAction::none );
}

Fib::FecVia fecViaOf( const Mpls::LfibMplsVia& via ) {
   return { via.nextHop, via.intf, via.labelAction, via.labelStack, via.payloadType,
            via.ttlMode, false };
}

// The adjacency's FEC is a next-hop group's own. One whose vias are disabled must not be forwarded
// into: it gets a FEC of ours, for its backup.
bool usesGroupFec( const CachedLFibMplsViaColl& vias ) {
   return vias.usableAsPrimaryVias() &&
          MplsSm::lFibAdjTypeOf( vias ) == L3AdjLFibAdjType::adjTypeNexthopGroup;
}

Fib::FecVia dropVia() {
   Fib::FecVia via;
   via.drop = true;
   return via;
}

} // namespace

// --- Identifiers.

Fib::FecId MplsSm::newFecId( Fib::AdjType type ) {
   while ( true ) {
      const U64 index = numAllocator_->getNumber();
      VEL_ASSERT_TEXT( index != NumAllocator::invalidNumber(),
                       "index != numAllocator()->invalidNumber()",
                       "FecId range exhausted, Not possible", "VelMplsSm", name() );
      const Fib::FecId fecId = Fib::FecId::fecIdForAdjType( type, index );
      if ( !answered( fecId ) ) {
         return fecId;
      }
      MPLS_TRACE( 3, "FecId ", fecId, " is still answered, set aside" );
      fecIdSetAsideIs( fecId );
   }
}

bool MplsSm::answered( Fib::FecId fecId ) const {
   return ( in_.hwFecIdResponse && in_.hwFecIdResponse->hwFecIdHas( fecId ) ) ||
          ( mplsMcastAdjResp_ && mplsMcastAdjResp_->hwFecIdHas( fecId ) );
}

// Whether anybody requests the id or not: the last answer to its former owner may have gone.
void MplsSm::maybeReleaseSetAside( Fib::FecId fecId ) {
   if ( fecIdSetAsideHas( fecId ) && !answered( fecId ) ) {
      MPLS_TRACE( 3, "FecId ", fecId, " is no longer answered" );
      fecIdSetAsideDel( fecId );
      numAllocator_->releaseNumber( fecId.index() );
   }
}

Fib::FecId MplsSm::getOrAllocateMplsFecId( Mpls::LfibViaSetKey viaSetKey, VrfMplsState& vrfState,
                                           AddressFamily af, bool newFecIdRequired ) {
   MPLS_TRACE_CALL( 8, " vrf ", vrfState.vrfName(), " LfibViaSetKey ", viaSetKey );
   const Fib::AdjType wanted = af == ipv6() ? Fib::AdjType::mplsV6Adj : Fib::AdjType::mplsV4Adj;
   const Fib::FecId cached = vrfState.lFibViaSetToFecId( viaSetKey );
   if ( cached != Fib::FecId() && cached.adjType() == wanted && !newFecIdRequired ) {
      return cached;
   }
   const Fib::FecId fecId = newFecId( wanted );
   vrfState.lFibViaSetToFecIdIs( viaSetKey, fecId ); // the older one goes with its record
   MPLS_TRACE_CALL( 8, ": index: ", fecId.index(), ", fecId: ", fecId );
   return fecId;
}

Fib::FecId MplsSm::getOrAllocateMplsFecIdPerVia( VrfMplsState& vrfState,
                                                 const Mpls::LfibMplsVia& via ) {
   MPLS_TRACE_CALL( 8, " vrf ", vrfState.vrfName(), " via ", via );
   const Fib::FecId cached = vrfState.viaKeyToFecId( via.key );
   if ( cached != Fib::FecId() ) {
      MPLS_TRACE_CALL( 8, ": cachedFecId: ", cached );
      return cached;
   }
   const Fib::FecId fecId = newFecId( Fib::AdjType::mplsMcastViaAdj );
   vrfState.viaKeyToFecIdIs( via.key, fecId );
   MPLS_TRACE_CALL( 8, ": index: ", fecId.index(), ", fecId: ", fecId );
   return fecId;
}

Fib::FecId MplsSm::getFecIdForRequest( const L3Adjacency& l3Adj,
                                       const CachedLFibMplsViaColl& lFibVias,
                                       VrfMplsState& vrfState, bool newFecIdRequired ) {
   const Mpls::LfibViaSetKey viaSetKey = l3Adj.lFibViaSetKey();
   MPLS_ASSERT( viaSetKey.viaType() == Mpls::viaTypeMplsIp,
                "lFibViaSetKey.viaType() == Mpls::viaTypeMplsIp_", textOf( viaSetKey ) );
   if ( !usesGroupFec( lFibVias ) ) {
      return getOrAllocateMplsFecId( viaSetKey, vrfState, familyOf( lFibVias ), newFecIdRequired );
   }
   MPLS_ASSERT( lFibVias.vias() == 1, "lFibVias->vias() == 1", textOf( viaSetKey ) );
   const Mpls::LfibMplsVia& via = ( *lFibVias.via().begin() ).value;
   MPLS_TRACE( 7, "LFib via ", via );
   const IntfId intf = via.intf;
   MPLS_ASSERT( Fib::FecIdIntfId::isNexthopGroupIdIntfId( intf ),
                "FecIdIntfId::isNexthopGroupIdIntfId( intf )", textOf( via ) );
   return Fib::FecIdIntfId::intfIdToFecId( intf );
}

Fib::FecId MplsSm::getBackupFecIdForRequest( const Mpls::LfibViaSet& viaSet,
                                             const VrfMplsState& vrfState ) const {
   const Mpls::LfibViaSetKey backup = viaSet.backupViaSetKey();
   return backup.empty() ? Fib::FecId() : vrfState.lFibViaSetToFecId( backup );
}

void MplsSm::freeMplsFecId( Fib::FecId fecId, VrfMplsState& vrfState ) {
   MPLS_TRACE_CALL( 8, ": fecId: ", fecId );
   const Fib::AdjType type = fecId.adjType();
   if ( type != Fib::AdjType::mplsV4Adj && type != Fib::AdjType::mplsV6Adj ) {
      return; // of a via, or another agent's
   }
   numAllocator_->releaseNumber( fecId.index() );
   if ( const ExternalFecInfo* const info = vrfState.extFecInfo( fecId ) ) {
      if ( vrfState.lFibViaSetToFecId( info->lFibViaSetKey() ) == fecId ) {
         vrfState.lFibViaSetToFecIdDel( info->lFibViaSetKey() );
      }
   }
}

// --- MPLS-over-IP adjacencies as FECs.

void MplsSm::processMplsIpL3Adj( VrfMplsState& vrfState, L3Adjacency& l3Adj,
                                 const Mpls::LfibViaSet& viaSet,
                                 const Ptr< CachedLFibMplsViaColl >& mplsVias ) {
   MPLS_ASSERT( mplsVias, "mplsVias", l3Adj.fullName() );
   MPLS_ASSERT( mplsVias->vias(), "mplsVias->vias()", l3Adj.fullName() );
   MPLS_TRACE( 7, "LFib via set ", viaSet.key(), " via size ", mplsVias->vias() );
   MPLS_TRACE( 7, "LFib adj index ", l3Adj.index(), " via size ", mplsVias->vias() );
   // What a next-hop group does with the label is the group's to say.
   labelActionIs( l3Adj,
                  usesGroupFec( *mplsVias ) ? MplsLabelAction::none : actionOf( *mplsVias ) );
   const bool popMoves = processRemovePopDependencies( vrfState, l3Adj );
   const bool popRemoved = shouldRemovePop( l3Adj );
   Fib::FecId fecId = getFecIdForRequest( l3Adj, *mplsVias, vrfState, popMoves );
   if ( const ExternalFecInfo* const there = vrfState.extFecInfo( fecId );
        there && ( there->popLabelActionRemoved() != popRemoved ||
                   rewritesOthers( vrfState, l3Adj, viaSet, *mplsVias, *there ) ) ) {
      queuePrimariesOf( vrfState, *there ); // which name it as their backup
      fecId = getFecIdForRequest( l3Adj, *mplsVias, vrfState, true );
   }
   if ( fecId.adjType() == Fib::AdjType::nexthopGroupAdj ) {
      vrfState.lFibViaSetToFecIdDel( viaSet.key() ); // of an earlier content; nobody's backup now
   }
   if ( isOfGroup( l3Adj ) && l3Adj.extFecInfo()->fecId() != fecId ) {
      // The group may be the adjacency's again, with another pop, before they have left it.
      carryByFormer( vrfState, l3Adj, routesInHardware( vrfState, l3Adj, true ) );
   }
   const Ptr< ExternalFecInfo > before = l3Adj.extFecInfo();
   const bool backupBefore = before && before->backupExtFecInfo();
   l3Adj.primaryViasDisabledIs( fecId.adjType() != Fib::AdjType::nexthopGroupAdj &&
                                !mplsVias->usableAsPrimaryVias() );
   // Before the content, which depends on it; nothing can have been requested of a new one yet.
   extFecInfoMake( vrfState, fecId ).popLabelActionRemovedIs( popRemoved );
   createFecForRequestAndUpdateL3Adj( vrfState, l3Adj, viaSet, *mplsVias, fecId );
   const bool endedBackup = backupBefore && !l3Adj.extFecInfo()->backupExtFecInfo();
   if ( before != l3Adj.extFecInfo() || endedBackup ) {
      queuePrimaries( vrfState, l3Adj ); // whose FECs name this one, or could not yet
   }
   ProgrammableMplsFecVias vias;
   for ( const auto& [viaIndex, via] : mplsVias->via() ) {
      vias.viaIs( viaIndex, via );
   }
   vias.progActionIs( MplsFecProgAction::programAction );
   setHwAdjacencyVias( vrfState, l3Adj, viaSet, vias, lFibAdjTypeOf( *mplsVias ) );
}

void MplsSm::queuePrimaries( VrfMplsState& vrfState, const L3Adjacency& l3Adj ) {
   for ( const U64 primary : l3Adj.primaryAdj() ) {
      MPLS_TRACE( 3, "add l3 adj ", primary, " for review" );
      vrfState.l3AdjForReviewIs( primary );
   }
}

// The adjacencies whose FECs name this one as their backup.
void MplsSm::queuePrimariesOf( VrfMplsState& vrfState, const ExternalFecInfo& info ) {
   for ( const ExternalFecInfo* const primary : info.dependentPrimaryExtFecInfo() ) {
      for ( const L3Adjacency* const l3Adj : primary->dependentL3Adjacency() ) {
         MPLS_TRACE( 3, "add l3 adj ", l3Adj->index(), " for review" );
         vrfState.l3AdjForReviewIs( l3Adj->index() );
      }
   }
}

// Whether the adjacency's FEC would get another content under the wrong labels: those that forward
// by it and are not the adjacency's, or not any more.
bool MplsSm::rewritesOthers( const VrfMplsState& vrfState, const L3Adjacency& l3Adj,
                             const Mpls::LfibViaSet& viaSet, const CachedLFibMplsViaColl& mplsVias,
                             const ExternalFecInfo& info ) const {
   const Fib::FecId fecId = info.fecId();
   if ( fecId.adjType() == Fib::AdjType::nexthopGroupAdj ) {
      return false; // its content is not ours
   }
   const Fib::FecId backup =
      backupFecIdToRequest( vrfState, l3Adj, viaSet, info.popLabelActionRemoved() );
   const Fib::Fec wanted = fecOf( fecId, mplsVias, info.popLabelActionRemoved(), backup );
   const Fib::Fec& requested = fecId.adjType() == Fib::AdjType::mplsV6Adj
                                  ? in_.hwFecIdRequest->fec6( fecId )
                                  : in_.hwFecIdRequest->fec( fecId );
   if ( wanted == requested ) {
      return false;
   }
   if ( takesOverOthers( vrfState, l3Adj, fecId ) ) {
      return true;
   }
   for ( const Mpls::RouteKey routeKey : info.dependentRouteKey() ) {
      const MplsRoute* const route = vrfState.route( routeKey );
      if ( route->l3Adj().get() != &l3Adj || !stillUses( routeKey, l3Adj ) ) {
         return true;
      }
   }
   for ( const ExternalFecInfo* const primary : info.dependentPrimaryExtFecInfo() ) {
      if ( protectsOthers( vrfState, l3Adj, *primary ) ) {
         return true;
      }
   }
   return false;
}

// Whether hardware may have given the FEC the place of another already, with labels in it that are
// not the adjacency's any more.
bool MplsSm::takesOverOthers( const VrfMplsState& vrfState, const L3Adjacency& l3Adj,
                              Fib::FecId fecId ) const {
   const auto other = [&]( Mpls::RouteKey routeKey ) { return !stillUses( routeKey, l3Adj ); };
   if ( const ExternalFecInfo* const left =
           vrfState.extFecInfo( in_.hwFecIdRequest->mayTakeOver( fecId ) ) ) {
      for ( const Mpls::RouteKey routeKey : left->dependentRouteKey() ) {
         if ( other( routeKey ) ) {
            return true;
         }
      }
   }
   bool offered = false;
   for ( const auto& [syncId, offeredTo] : in_.hwFecIdRequest->mayReplace() ) {
      offered |= offeredTo == fecId;
   }
   for ( const Mpls::RouteKey routeKey : recoveredRoute() ) {
      if ( !offered ) {
         return false;
      }
      const AdjSyncId syncId = in_.mplsRouteSyncMap->adjSyncId( routeKey );
      if ( in_.hwFecIdRequest->mayReplace( syncId ) == fecId && other( routeKey ) ) {
         return true;
      }
   }
   return false;
}

// Whether labels forward by a primary FEC that the adjacency is, or soon is, no backup of.
bool MplsSm::protectsOthers( const VrfMplsState& vrfState, const L3Adjacency& l3Adj,
                             const ExternalFecInfo& primary ) const {
   const L3Adjacency* protectedAdj = nullptr;
   for ( const Mpls::RouteKey routeKey : primary.dependentRouteKey() ) {
      const L3Adjacency* const uses = vrfState.route( routeKey )->l3Adj().get();
      if ( uses == nullptr || uses->extFecInfo().get() != &primary ||
           uses->backupAdj().get() != &l3Adj || !stillUses( routeKey, *uses ) ) {
         return true;
      }
      if ( uses == protectedAdj ) {
         continue;
      }
      const Mpls::LfibViaSet viaSet = in_.transitLfib->lfibViaSet( uses->lFibViaSetKey() );
      if ( viaSet.backupViaSetKey() != l3Adj.lFibViaSetKey() || !isLFibViaSetSane( viaSet ) ) {
         return true; // another backup's by now, or about to go
      }
      protectedAdj = uses;
   }
   return false;
}

// By the LFIB as it is now, which may be ahead of what has been processed.
bool MplsSm::stillUses( Mpls::RouteKey routeKey, const L3Adjacency& l3Adj ) const {
   return in_.transitLfib->lfibRoute( routeKey ).viaSetKey == l3Adj.lFibViaSetKey();
}

// Whether the adjacency's pop has to travel with its routes: when it pops, protects or is
// protected, and all that share the protection pop. With one that does not pop among them, each FEC
// keeps its own operation.
bool MplsSm::shouldRemovePop( const L3Adjacency& l3Adj ) {
   const L3Adjacency* const backup = l3Adj.primaryAdjs() != 0 ? &l3Adj : l3Adj.backupAdj().get();
   return backup && l3Adj.labelAction() == MplsLabelAction::pop && allPop( *backup );
}

bool MplsSm::allPop( const L3Adjacency& backup ) {
   return backup.labelAction() == MplsLabelAction::pop &&
          backup.poppingPrimarys() == backup.primaryAdjs();
}

// Queues the others of the protection where the answer for them has changed as well. True when this
// adjacency needs a new FEC id, since routes that go into the old one have to keep what they have.
bool MplsSm::processRemovePopDependencies( VrfMplsState& vrfState, L3Adjacency& l3Adj ) {
   L3Adjacency* const backup = l3Adj.primaryAdjs() != 0 ? &l3Adj : l3Adj.backupAdj().get();
   const bool removed = backup && allPop( *backup );
   const auto changed = [&]( const L3Adjacency& member ) {
      ExternalFecInfo* const info = member.extFecInfo().get();
      if ( info == nullptr ) {
         return false; // it is still to be processed
      }
      info->shouldRemovePopLabelActionIs( removed && member.labelAction() == MplsLabelAction::pop );
      return info->shouldRemovePopLabelAction() != info->popLabelActionRemoved();
   };
   const auto queueIfChanged = [&]( const L3Adjacency* member ) {
      if ( member && member != &l3Adj && changed( *member ) ) {
         MPLS_TRACE( 3, "add l3 adj ", member->index(), " for review" );
         vrfState.l3AdjForReviewIs( member->index() );
      }
   };
   if ( backup ) {
      queueIfChanged( backup );
      if ( backup->popsTold() != removed ) { // else they have been asked before
         backup->popsToldIs( removed );
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

// The FEC of the backup, once both FECs agree on where the pop is; else none.
Fib::FecId MplsSm::backupFecIdToRequest( const VrfMplsState& vrfState, const L3Adjacency& l3Adj,
                                         const Mpls::LfibViaSet& viaSet, bool popRemoved ) const {
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
bool MplsSm::someJoin( const VrfMplsState& vrfState, const L3Adjacency& l3Adj ) {
   for ( const Mpls::RouteKey routeKey : l3Adj.routeKey() ) {
      if ( vrfState.route( routeKey )->extFecInfo() != l3Adj.extFecInfo() ) {
         return true;
      }
   }
   return false;
}

void MplsSm::createFecForRequestAndUpdateL3Adj( VrfMplsState& vrfState, L3Adjacency& l3Adj,
                                                const Mpls::LfibViaSet& viaSet,
                                                const CachedLFibMplsViaColl& mplsVias,
                                                Fib::FecId fecId ) {
   const bool popRemoved = vrfState.extFecInfo( fecId )->popLabelActionRemoved();
   if ( actionOf( mplsVias ) == MplsLabelAction::pop ) {
      const Mpls::LfibMplsVia& first = ( *mplsVias.via().begin() ).value;
      l3Adj.ttlModeIs( first.ttlMode );
      l3Adj.payloadTypeIs( first.payloadType );
      MPLS_TRACE( 7, "Set ttlMode and payloadType for pop label action, FEC ID: ", fecId,
                  " ttlMode: ", l3Adj.ttlMode(), " payloadType: ", l3Adj.payloadType() );
   } else { // of an earlier content
      l3Adj.ttlModeIs( Mpls::TtlMode::undefined );
      l3Adj.payloadTypeIs( Mpls::PayloadType::undefined );
   }
   if ( popRemoved ) {
      MPLS_TRACE( 7, "Pop action removed from adjacency, FEC ID: ", fecId,
                  " set it when updating route" );
   } else {
      MPLS_TRACE( 7, "Label action set in adjacency, FEC ID: ", fecId );
   }
   Fib::Fec fec{ fecId, {}, {} };
   Fib::FecId backup;
   // A next-hop group's FEC is the group's: what is in it is not ours to say.
   if ( !usesGroupFec( mplsVias ) ) {
      backup = backupFecIdToRequest( vrfState, l3Adj, viaSet, popRemoved );
      fec = fecOf( fecId, mplsVias, popRemoved, backup );
   }
   Fib6::Fec fec6;
   fec6.fecId = fecId;
   if ( fecId.adjType() == Fib::AdjType::mplsV6Adj ) {
      static_cast< Fib::Fec& >( fec6 ) = std::exchange( fec, Fib::Fec{ fecId, {}, {} } );
   }
   requestHwFecIdAndUpdateDependencyMaps( fecId, fec, fec6, vrfState, l3Adj, viaSet.key() );
   updateBackupExtInfoForExtFecInfo( vrfState, *l3Adj.extFecInfo(), vrfState.extFecInfo( backup ) );
}

// The FEC as it is requested: a via for each of the via set, and one for the backup.
Fib::Fec MplsSm::fecOf( Fib::FecId fecId, const CachedLFibMplsViaColl& mplsVias, bool popRemoved,
                        Fib::FecId backup ) {
   Fib::Fec fec{ fecId, {}, {} };
   if ( !mplsVias.usableAsPrimaryVias() ) {
      MPLS_TRACE( 7, "Primary vias disabled, using drop vias" );
   }
   for ( const auto& [viaIndex, via] : mplsVias.via() ) {
      if ( !mplsVias.usableAsPrimaryVias() ) {
         fec.viaAdd( dropVia() );
         continue;
      }
      Fib::FecVia made = fecViaOf( via );
      if ( popRemoved ) {
         made.labelAction = MplsLabelAction::none;
      }
      fec.viaAdd( made );
   }
   if ( backup == Fib::FecId() ) {
      return fec;
   }
   if ( fec.via.size() > Fib::ViaIndex::max ) {
      MPLS_TRACE( 3, "no room for the backup fec ", backup, " beside the vias of fec ", fecId );
      return fec;
   }
   Fib::FecVia via;
   via.intf = Fib::FecId::fecIdToHierarchicalIntfId( backup );
   fec.viaAdd( via );
   fec.backupFecId = backup;
   return fec;
}

// --- Requests.

// The record of a FEC id. A new one takes over what is already answered, which can only be another
// agent's FEC: our own ids are new.
ExternalFecInfo& MplsSm::extFecInfoMake( VrfMplsState& vrfState, Fib::FecId fecId ) {
   if ( ExternalFecInfo* const there = vrfState.extFecInfo( fecId ) ) {
      return *there;
   }
   ExternalFecInfo& made = *vrfState.extFecInfoMake( fecId );
   answerIs( made, in_.hwFecIdResponse->hwFecId( fecId ) );
   if ( const MplsHwVrfConfig* const config = velMplsHwVrfConfig( vrfState.vrfName() ) ) {
      const AdjHwStatus* const states = in_.velL3Status->adjHwStatus().get();
      made.adjStateIs( states ? states->adjHwState( { config->vrfId(), fecId } )
                              : AdjHwState::unknown );
      made.adjStateVrfIdIs( config->vrfId() );
   }
   return made;
}

void MplsSm::requestHwFecIdAndUpdateDependencyMaps( Fib::FecId fecId, const Fib::Fec& fec4,
                                                    const Fib6::Fec& fec6, VrfMplsState& vrfState,
                                                    L3Adjacency& l3Adj,
                                                    Mpls::LfibViaSetKey viaSetKey ) {
   MPLS_TRACE_CALL( 7, " vrf ", vrfState.vrfName(), " FecId ", fecId, " Fec4 ", fec4, " Fec6 ",
                    fec6, " L3Adjacency ", l3Adj.index(), " LFibViaSetKey: ", viaSetKey );
   MPLS_ASSERT( forwardingIntoExternalFecsSupported(), "forwardingIntoExternalFecsSupported()",
                textOf( viaSetKey ) );
   const Ptr< ExternalFecInfo > info = &extFecInfoMake( vrfState, fecId );
   info->lFibViaSetKeyIs( viaSetKey );
   bindL3AdjToExtFecInfo( vrfState, l3Adj, info );
   if ( viaSetKey.viaType() == Mpls::viaTypeExternalFec ) {
      updateBackupExtInfoForExtFecInfo( vrfState, *info,
                                        extFecBackupOf( vrfState, *info, viaSetKey ) );
   }
   FecIdToHwFecIdRequest& request = *in_.hwFecIdRequest;
   const bool differs = ( fec4.empty() ? request.fecHas( fecId ) : request.fec( fecId ) != fec4 ) ||
                        ( fec6.empty() ? request.fec6Has( fecId ) : request.fec6( fecId ) != fec6 );
   if ( !fec4.empty() ) {
      request.fecIs( fec4 ); // an equal one is no change
   } else {
      request.fecDel( fecId );
   }
   if ( !fec6.empty() ) {
      request.fec6Is( fec6 );
   } else {
      request.fec6Del( fecId );
   }
   const HwFecIdRequest* const there = request.hwFecIdRequest().find( fecId );
   const U64 version = there && !differs ? there->version : ++lastFecVersion_;
   request.hwFecIdRequestIs( { fecId, vrfState.vrfName(), version } );
   // Routes are recorded against the FEC that they forward into; until they have come into the new
   // one that is the old one.
   for ( const Mpls::RouteKey routeKey : l3Adj.routeKey() ) {
      const MplsRoute* const route = vrfState.route( routeKey );
      if ( route && route->extFecInfo() && route->extFecInfo() != info ) {
         MPLS_TRACE( 7, "There is conflict between ", route->extFecInfo()->fecId(), " and ",
                     fecId );
      }
   }
   recordAdjSyncId( l3Adj, fecId );
   if ( !isAnswer( *info, in_.hwFecIdResponse->hwFecId( fecId ) ) ) {
      handleHwFecIdResponse( fecId ); // a hardware layer without delay has answered already
   }
}

// What the FEC was before the restart, for the hardware layer to match: the sync id of the first
// route that the sync map holds. At the end of the replay that of most routes takes its place; this
// one stays for what is requested later.
void MplsSm::recordAdjSyncId( const L3Adjacency& l3Adj, Fib::FecId fecId ) {
   if ( !in_.mplsRouteSyncMap || mplsSmStartupStatus_ == MplsSmStartupStatus::mplsSmNormal ) {
      return;
   }
   for ( const Mpls::RouteKey routeKey : l3Adj.routeKey() ) {
      if ( in_.mplsRouteSyncMap->adjSyncIdHas( routeKey ) ) {
         in_.hwFecIdRequest->adjSyncIdMapIs(
            { fecId, in_.mplsRouteSyncMap->adjSyncId( routeKey ) } );
         return;
      }
   }
}

void MplsSm::bindL3AdjToExtFecInfo( VrfMplsState& vrfState, L3Adjacency& l3Adj,
                                    const Ptr< ExternalFecInfo >& info ) {
   const Ptr< ExternalFecInfo > before = l3Adj.extFecInfo();
   if ( before == info ) {
      return;
   }
   l3Adj.extFecInfoIs( info );
   if ( info ) {
      info->dependentL3AdjacencyIs( &l3Adj );
   }
   publishViaSetState( l3Adj );
   if ( before ) {
      before->dependentL3AdjacencyDel( &l3Adj );
      maybeDeleteExtFecInfo( vrfState, before->fecId() );
   }
}

// --- Answers.

void MplsSm::handleHwFecIdResponse( Fib::FecId fecId ) {
   maybeReleaseSetAside( fecId );
   if ( !in_.hwFecIdRequest || !in_.hwFecIdRequest->hwFecIdRequestHas( fecId ) ) {
      MPLS_TRACE( 3, "no request for fecId ", fecId );
      return;
   }
   const L3::VrfName vrf = in_.hwFecIdRequest->hwFecIdRequest( fecId ).vrfName;
   VrfMplsState* const vrfState = mplsState( vrf );
   if ( vrfState == nullptr ) {
      MPLS_TRACE( 3, "no vrf state for vrf ", vrf );
      return;
   }
   const Ptr< ExternalFecInfo > info = vrfState->extFecInfo( fecId );
   const HwFecId& answer = in_.hwFecIdResponse->hwFecId( fecId );
   if ( info && isAnswer( *info, answer ) ) {
      MPLS_TRACE( 3, "FEC response for ", fecId, " has not changed, skip processing" );
      return;
   }
   if ( info && info->hwId() == answer.hwId ) { // what is in it moves with its content
      answerIs( *info, answer );
      queueWaitingForFec( *vrfState, *info );
      doMaybeScheduleReview( vrf );
      return;
   }
   if ( info ) {
      for ( L3Adjacency* const l3Adj : info->dependentL3Adjacency() ) {
         MPLS_TRACE( 3, "add l3 adj ", l3Adj->index(), " for review" );
         vrfState->l3AdjForReviewIs( l3Adj->index() );
         for ( const Mpls::RouteKey routeKey : l3Adj->routeKey() ) {
            vrfState->routeKeyForReviewIs( routeKey );
         }
      }
      for ( const Mpls::RouteKey routeKey : info->dependentRouteKey() ) {
         MPLS_TRACE( 7, "add route ", routeKey, " for review" );
         vrfState->routeKeyForReviewIs( routeKey );
         vrfState->route( routeKey )->unconfirmedWritesInc(); // it was in what the id was before
      }
      publishRoutesProtectedBy( *vrfState, *info );
   }
   processHwFecIdResponse( fecId, *vrfState );
   if ( info ) {
      queueWaitingForFec( *vrfState, *info );
   }
   doMaybeScheduleReview( vrf );
}

void MplsSm::processHwFecIdResponse( Fib::FecId fecId, VrfMplsState& vrfState ) {
   MPLS_TRACE_CALL( 3, " vrf ", vrfState.vrfName(), " FecId ", fecId );
   if ( ExternalFecInfo* const info = vrfState.extFecInfo( fecId ) ) {
      answerIs( *info, in_.hwFecIdResponse->hwFecId( fecId ) ); // withdrawn: 0
      recoveredFecsToOffer_ = true;
      takeOverRoutes( vrfState, *info );
   }
}

void MplsSm::answerIs( ExternalFecInfo& info, const HwFecId& answer ) {
   info.hwIdIs( answer.hwId );
   info.carriedOutIs( answer.version );
   info.syncIdIs( answer.syncId );
}

bool MplsSm::isAnswer( const ExternalFecInfo& info, const HwFecId& answer ) {
   return answer == HwFecId{ info.hwId(), info.carriedOut(), info.syncId() };
}

// Hardware has carried out what is requested of the FEC, or part of it. Routes wait for that; where
// it took its time, it has been published; and what protected the FEC before may go.
void MplsSm::queueWaitingForFec( VrfMplsState& vrfState, ExternalFecInfo& info ) {
   if ( !isBehind( info ) ) {
      releaseFormerBackups( vrfState, info );
      publishRoutesProtectedBy( vrfState, info );
   }
   if ( info.publishedBehind() ) {
      info.publishedBehindIs( false );
      for ( const Mpls::RouteKey routeKey : info.dependentRouteKey() ) {
         vrfState.routeKeyForPublishIs( routeKey );
      }
   }
   if ( !info.joinersWait() ) {
      return;
   }
   info.joinersWaitIs( false );
   for ( const L3Adjacency* const l3Adj : info.dependentL3Adjacency() ) {
      for ( const Mpls::RouteKey routeKey : l3Adj->routeKey() ) {
         MPLS_TRACE( 7, "add route ", routeKey, " for review" );
         vrfState.routeKeyForReviewIs( routeKey );
      }
   }
}

// --- Routes into FECs.

// Hardware has what was requested of the FEC before.
bool MplsSm::isBehind( const ExternalFecInfo& info ) const {
   return info.hwId() != 0 &&
          info.carriedOut() != in_.hwFecIdRequest->hwFecIdRequest( info.fecId() ).version;
}

// What is in hardware stays there, the VRF's number brings everything back. What leads nowhere any
// more goes at once, and what is not there is not in hardware.
void MplsSm::stayWithoutNumber( VrfMplsState& vrfState, MplsRoute& route ) {
   if ( route.extFecInfo() && route.extFecInfo()->hwId() == 0 ) {
      unprogramRouteKey( vrfState, route.routeKey() );
   }
   if ( !inHardware( route ) ) {
      routeUnprogrammedIs( route, true );
   }
}

// Whether hardware does not have the route in the adjacency's FEC yet: it is elsewhere or nowhere, or
// has been refused there.
bool MplsSm::joins( const MplsRoute& route, const L3Adjacency& l3Adj ) const {
   const ExternalFecInfo& info = *l3Adj.extFecInfo();
   if ( route.extFecInfo() == &info ) {
      return !inFecInHardware( route );
   }
   return !recoveredRouteHas( route.routeKey() ) || info.syncId() == 0 ||
          in_.mplsRouteSyncMap->adjSyncId( route.routeKey() ) != info.syncId();
}

// Whether the route cannot be written into the adjacency's FEC yet. Then it stays where it is, if it
// is anywhere, and an event brings it back.
bool MplsSm::waitsForFec( VrfMplsState& vrfState, MplsRoute& route, L3Adjacency& l3Adj ) {
   const Mpls::RouteKey routeKey = route.routeKey();
   ExternalFecInfo& info = *l3Adj.extFecInfo();
   if ( info.hwId() == 0 ) {
      recoveredFecsToOffer_ = true;
      if ( const ExternalFecInfo* const there = route.extFecInfo().get();
           there && there != &info && in_.hwFecIdResponse->hwFecId( there->fecId() ).hwId != 0 ) {
         MPLS_TRACE( 3, "hwId not yet allocated for l3Adj, but route still has hwFecId ",
                     in_.hwFecIdResponse->hwFecId( there->fecId() ).hwId,
                     ", so wait until new extFecInfo response is updated" );
         fecsBeingLeft_.insert( there->fecId() );
      }
      leaveRouteUnprogrammed( vrfState, route, l3Adj );
      return true;
   }
   const bool elsewhere = route.extFecInfo() != &info;
   if ( elsewhere && info.backupExtFecInfo() && !l3Adj.outdated() && l3Adj.backupAdj() &&
        l3Adj.backupAdj()->outdated() ) {
      vrfState.l3AdjForReviewIs( l3Adj.index() ); // the route never had that backup
      vrfState.routeKeyForReviewIs( routeKey );
      return true;
   }
   if ( !isBehind( info ) || !joins( route, l3Adj ) ) {
      return false;
   }
   MPLS_TRACE( 3, "routeKey ", routeKey, " waits until fec ", info.fecId(),
               " is what is requested" );
   info.joinersWaitIs( true );
   if ( elsewhere ) { // else it has been refused there, and is listed
      leaveRouteUnprogrammed( vrfState, route, l3Adj );
   }
   return true;
}

void MplsSm::writeRouteWithFec( VrfMplsState& vrfState, MplsRoute& route, L3Adjacency& l3Adj ) {
   const L3::VrfName& vrf = vrfState.vrfName();
   const Mpls::RouteKey routeKey = route.routeKey();
   const Ptr< ExternalFecInfo > info = l3Adj.extFecInfo();
   if ( !in_.routingHwRouteStatus->vrfStatusHas( vrf ) ) {
      stayWithoutNumber( vrfState, route );
      return;
   }
   if ( waitsForFec( vrfState, route, l3Adj ) ) {
      return;
   }
   MPLS_TRACE( 3, "Create or update route ", routeKey, " fecId: ", info->fecId() );
   recoveredRouteDel( routeKey ); // from here on it is this process's
   recoveredFecsToOffer_ = true;
   const bool wasThere = inFecInHardware( route );
   route.unconfirmedWritesInc();
   counters_->routesWrittenInc();
   // A next-hop group does not pop for us.
   const Mpls::Hardware::Adjacency& hwAdj = *in_.routingHwMplsStatus->adjacency( l3Adj.index() );
   const bool popsHere =
      info->popLabelActionRemoved() ||
      ( isOfGroup( l3Adj ) && hwAdj.via( 0 ).labelAction == MplsLabelAction::pop );
   const UnprogrammedReason reason = in_.mplsSmHelper->createOrUpdateRoute(
      in_.routingHwRouteStatus->vrfStatus( vrf ), routeKey, info->hwId(),
      popsHere ? MplsLabelAction::pop : MplsLabelAction::none, l3Adj.payloadType(),
      l3Adj.ttlMode() );
   if ( reason == UnprogrammedReason::Success ) {
      if ( MplsHwVrfStatus* const status = velMplsHwVrfStatusNonConst( vrf ) ) {
         status->unprogrammedRouteDel( routeKey );
      }
      route.unconfirmedWritesIs( 0 );
      counters_->routesConfirmedInc();
      if ( !wasThere ) {
         retrySoon( vrfState ); // where one found room, others may
      }
   } else {
      MPLS_TRACE( 3, "adding route ", routeKey, " to unprogrammed list, reason ", reason );
      addUnprogrammedRoute( vrfState, routeKey, UnprogrammedReason::RouteFull );
      routeUnprogrammedIs( route, true );
   }
   if ( MplsHwVrfConfig* const config = velMplsHwVrfConfig( vrf ) ) {
      config->routeDel( routeKey ); // the FEC has taken over
   }
   if ( route.extFecInfo() != info ) {
      clearRouteMappings( vrfState, routeKey );
      addRouteKeyToExtFecInfo( routeKey, *info );
      route.extFecInfoIs( info );
   }
   judgeRoute( vrfState, route, isBehind( *info ) );
}

} // namespace Vel
