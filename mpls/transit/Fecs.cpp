#include "mpls/transit/Fecs.h"

#include <utility>
#include <vector>

#include "mpls/VelMplsTrace.h"
#include "mpls/transit/Parts.h"

namespace Vel::Transit {

namespace {

Fib::FecVia fecViaOf( const Mpls::LfibMplsVia& via ) {
   return { via.nextHop, via.intf, via.labelAction, via.labelStack, via.payloadType,
            via.ttlMode, false };
}

Fib::FecVia dropVia() {
   Fib::FecVia via;
   via.drop = true;
   return via;
}

} // namespace

ExternalFecInfo& Fecs::extFecInfoMake( VrfMplsState& vrfState, Fib::FecId fecId ) {
   if ( ExternalFecInfo* const there = vrfState.extFecInfo( fecId ) ) {
      return *there;
   }
   ExternalFecInfo& made = *vrfState.extFecInfoMake( fecId );
   made.answerIs( in_.hwFecIdResponse->hwFecId( fecId ) );
   if ( const MplsHwVrfConfig* const config = sm_.velMplsHwVrfConfig( vrfState.vrfName() ) ) {
      const AdjHwStatus* const states = in_.velL3Status->adjHwStatus().get();
      made.adjStateIs( states ? states->adjHwState( { config->vrfId(), fecId } )
                              : AdjHwState::unknown );
      made.adjStateVrfIdIs( config->vrfId() );
   }
   return made;
}

bool Fecs::rewritesOthers( const VrfMplsState& vrfState, const L3Adjacency& l3Adj,
                           const Mpls::LfibViaSet& viaSet, const CachedLFibMplsViaColl& mplsVias,
                           const ExternalFecInfo& info ) const {
   const Fib::FecId fecId = info.fecId();
   if ( fecId.adjType() == Fib::AdjType::nexthopGroupAdj ) {
      return false; // its content is not ours
   }
   const Fib::FecId backup = parts_.protection.backupFecIdToRequest( vrfState, l3Adj, viaSet,
                                                                     info.popLabelActionRemoved() );
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
      if ( route->l3Adj().get() != &l3Adj || !parts_.viaSets.stillUses( routeKey, l3Adj ) ) {
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
bool Fecs::takesOverOthers( const VrfMplsState& vrfState, const L3Adjacency& l3Adj,
                            Fib::FecId fecId ) const {
   const auto other = [&]( Mpls::RouteKey routeKey ) {
      return !parts_.viaSets.stillUses( routeKey, l3Adj );
   };
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
   for ( const Mpls::RouteKey routeKey : sm_.recoveredRoute() ) {
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
bool Fecs::protectsOthers( const VrfMplsState& vrfState, const L3Adjacency& l3Adj,
                           const ExternalFecInfo& primary ) const {
   const L3Adjacency* protectedAdj = nullptr;
   for ( const Mpls::RouteKey routeKey : primary.dependentRouteKey() ) {
      const L3Adjacency* const uses = vrfState.route( routeKey )->l3Adj().get();
      if ( uses == nullptr || uses->extFecInfo().get() != &primary ||
           uses->backupAdj().get() != &l3Adj || !parts_.viaSets.stillUses( routeKey, *uses ) ) {
         return true;
      }
      if ( uses == protectedAdj ) {
         continue;
      }
      const Mpls::LfibViaSet viaSet = in_.transitLfib->lfibViaSet( uses->lFibViaSetKey() );
      if ( viaSet.backupViaSetKey() != l3Adj.lFibViaSetKey() ||
           !parts_.viaSets.isLFibViaSetSane( viaSet ) ) {
         return true; // another backup's by now, or about to go
      }
      protectedAdj = uses;
   }
   return false;
}

void Fecs::createFecForRequestAndUpdateL3Adj( VrfMplsState& vrfState, L3Adjacency& l3Adj,
                                              const Mpls::LfibViaSet& viaSet,
                                              const CachedLFibMplsViaColl& mplsVias,
                                              Fib::FecId fecId ) {
   const bool popRemoved = vrfState.extFecInfo( fecId )->popLabelActionRemoved();
   if ( ViaSets::actionOf( mplsVias ) == MplsLabelAction::pop ) {
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
   // The agent that made a next-hop group decides what is in the group's FEC.
   if ( !FecIds::usesGroupFec( mplsVias ) ) {
      backup = parts_.protection.backupFecIdToRequest( vrfState, l3Adj, viaSet, popRemoved );
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
Fib::Fec Fecs::fecOf( Fib::FecId fecId, const CachedLFibMplsViaColl& mplsVias, bool popRemoved,
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
   fec.backupAdd( backup );
   return fec;
}

void Fecs::requestHwFecIdAndUpdateDependencyMaps( Fib::FecId fecId, const Fib::Fec& fec4,
                                                  const Fib6::Fec& fec6, VrfMplsState& vrfState,
                                                  L3Adjacency& l3Adj,
                                                  Mpls::LfibViaSetKey viaSetKey ) {
   MPLS_TRACE_CALL( 7, " vrf ", vrfState.vrfName(), " FecId ", fecId, " Fec4 ", fec4, " Fec6 ",
                    fec6, " L3Adjacency ", l3Adj.index(), " LFibViaSetKey: ", viaSetKey );
   MPLS_ASSERT( sm_.forwardingIntoExternalFecsSupported(), "forwardingIntoExternalFecsSupported()",
                textOf( viaSetKey ) );
   const Ptr< ExternalFecInfo > info = &extFecInfoMake( vrfState, fecId );
   info->lFibViaSetKeyIs( viaSetKey );
   bindL3AdjToExtFecInfo( vrfState, l3Adj, info );
   if ( viaSetKey.viaType() == Mpls::viaTypeExternalFec ) {
      updateBackupExtInfoForExtFecInfo(
         vrfState, *info, parts_.protection.extFecBackupOf( vrfState, *info, viaSetKey ) );
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
   // Routes are recorded against the FEC that they forward into: the old one until they have come
   // into the new one.
   if ( velMplsSmTrace.enabled( 7 ) ) [[unlikely]] { // the walk is for nothing else
      for ( const Mpls::RouteKey routeKey : l3Adj.routeKey() ) {
         const MplsRoute* const route = vrfState.route( routeKey );
         if ( route && route->extFecInfo() && route->extFecInfo() != info ) {
            MPLS_TRACE( 7, "There is conflict between ", route->extFecInfo()->fecId(), " and ",
                        fecId );
         }
      }
   }
   parts_.recovery.recordAdjSyncId( l3Adj );
   if ( !info->isAnswer( in_.hwFecIdResponse->hwFecId( fecId ) ) ) {
      handleHwFecIdResponse( fecId ); // a hardware layer without delay has answered already
   }
}

void Fecs::bindL3AdjToExtFecInfo( VrfMplsState& vrfState, L3Adjacency& l3Adj,
                                  const Ptr< ExternalFecInfo >& info ) {
   const Ptr< ExternalFecInfo > before = l3Adj.extFecInfo();
   if ( before == info ) {
      return;
   }
   l3Adj.extFecInfoIs( info );
   if ( info ) {
      info->dependentL3AdjacencyIs( &l3Adj );
   }
   parts_.publisher.publishViaSetState( l3Adj );
   if ( before ) {
      before->dependentL3AdjacencyDel( &l3Adj );
      maybeDeleteExtFecInfo( vrfState, before->fecId() );
   }
}

void Fecs::addRouteKeyToExtFecInfo( Mpls::RouteKey routeKey, ExternalFecInfo& info ) {
   MPLS_TRACE( 7, "add routeKey ", routeKey, " to extFecInfo ", info.fecId() );
   info.dependentRouteKeyIs( routeKey );
}

void Fecs::deleteRouteKeyFromExtFecInfo( Mpls::RouteKey routeKey, ExternalFecInfo& info ) {
   MPLS_TRACE( 7, "delete routeKey ", routeKey, " from extFecInfo ", info.fecId() );
   info.dependentRouteKeyDel( routeKey );
}

void Fecs::maybeDeleteExtFecInfo( VrfMplsState& vrfState, Fib::FecId fecId ) {
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
   parts_.fecIds.freeMplsFecId( fecId, vrfState );
   vrfState.extFecInfoDel( fecId );
   if ( sm_.forwardingIntoExternalFecsSupported() ) {
      in_.hwFecIdRequest->fecDel( fecId );
      in_.hwFecIdRequest->fec6Del( fecId );
      in_.hwFecIdRequest->hwFecIdRequestDel( fecId );
   }
}

void Fecs::updateBackupExtInfoForExtFecInfo( VrfMplsState& vrfState, ExternalFecInfo& info,
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

void Fecs::releaseFormerBackups( VrfMplsState& vrfState, ExternalFecInfo& info ) {
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

void Fecs::handleHwFecIdResponse( Fib::FecId fecId ) {
   parts_.fecIds.maybeReleaseSetAside( fecId );
   if ( !in_.hwFecIdRequest || !in_.hwFecIdRequest->hwFecIdRequestHas( fecId ) ) {
      MPLS_TRACE( 3, "no request for fecId ", fecId );
      return;
   }
   const L3::VrfName vrf = in_.hwFecIdRequest->hwFecIdRequest( fecId ).vrfName;
   VrfMplsState* const vrfState = sm_.mplsState( vrf );
   if ( vrfState == nullptr ) {
      MPLS_TRACE( 3, "no vrf state for vrf ", vrf );
      return;
   }
   const Ptr< ExternalFecInfo > info = vrfState->extFecInfo( fecId );
   const HwFecId& answer = in_.hwFecIdResponse->hwFecId( fecId );
   if ( info && info->isAnswer( answer ) ) {
      MPLS_TRACE( 3, "FEC response for ", fecId, " has not changed, skip processing" );
      return;
   }
   if ( info && info->hwId() == answer.hwId ) { // what is in it moves with its content
      info->answerIs( answer );
      queueWaitingForFec( *vrfState, *info );
      parts_.review.doMaybeScheduleReview( vrf );
      return;
   }
   if ( info ) {
      for ( L3Adjacency* const l3Adj : info->dependentL3Adjacency() ) {
         MPLS_TRACE( 3, "add l3 adj ", l3Adj->index(), " for review" );
         vrfState->l3AdjForReviewIs( l3Adj->index(), L3AdjReview::fecAnswered );
         for ( const Mpls::RouteKey routeKey : l3Adj->routeKey() ) {
            vrfState->routeKeyForReviewIs( routeKey );
         }
      }
      for ( const Mpls::RouteKey routeKey : info->dependentRouteKey() ) {
         MPLS_TRACE( 7, "add route ", routeKey, " for review" );
         vrfState->routeKeyForReviewIs( routeKey );
         vrfState->route( routeKey )->unconfirmedWritesInc(); // it was in what the id was before
      }
      Publisher::publishRoutesProtectedBy( *vrfState, *info );
   }
   processHwFecIdResponse( fecId, *vrfState );
   if ( info ) {
      queueWaitingForFec( *vrfState, *info );
   }
   parts_.review.doMaybeScheduleReview( vrf );
}

void Fecs::processHwFecIdResponse( Fib::FecId fecId, VrfMplsState& vrfState ) {
   MPLS_TRACE_CALL( 3, " vrf ", vrfState.vrfName(), " FecId ", fecId );
   if ( ExternalFecInfo* const info = vrfState.extFecInfo( fecId ) ) {
      info->answerIs( in_.hwFecIdResponse->hwFecId( fecId ) ); // withdrawn: 0
      parts_.fecRoom.lookAgain();
      parts_.fecRoom.takeOverRoutes( vrfState, *info );
   }
}

void Fecs::handleMplsMcastHwFecIdResp( Fib::FecId fecId ) {
   parts_.fecIds.maybeReleaseSetAside( fecId );
   if ( !sm_.mplsMcastAdjReq() || !sm_.mplsMcastAdjReq()->fecHas( fecId ) ) {
      MPLS_TRACE( 3, "no request for fecId ", fecId );
   }
}

// Hardware has carried out what is requested of the FEC, or part of it. Three wait for that: routes
// that are to come into the FEC, routes that were published while hardware was behind, and the
// backups that protected the FEC before.
void Fecs::queueWaitingForFec( VrfMplsState& vrfState, ExternalFecInfo& info ) {
   if ( !isBehind( info ) ) {
      releaseFormerBackups( vrfState, info );
      Publisher::publishRoutesProtectedBy( vrfState, info );
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

bool Fecs::isBehind( const ExternalFecInfo& info ) const {
   return info.hwId() != 0 &&
          info.carriedOut() != in_.hwFecIdRequest->hwFecIdRequest( info.fecId() ).version;
}

} // namespace Vel::Transit
