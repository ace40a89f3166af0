// MplsSm: L3 adjacencies. One for each via set in use; this room makes, processes and deletes them.

#include "mpls/VelMplsSm.h"
#include "mpls/VelMplsTrace.h"

namespace Vel {

L3Adjacency* MplsSm::newL3Adjacency( VrfMplsState& vrfState ) {
   const U64 index = adjacencyIndex();
   MPLS_TRACE( 3, "create l3 adj ", index );
   adjacencyIndexInc();
   in_.routingHwMplsStatus->adjacencyIs( index );
   return vrfState.l3AdjacencyMake( index );
}

// --- Classification.

L3AdjLFibAdjType MplsSm::lFibAdjTypeOf( const CachedLFibMplsViaColl& vias ) {
   L3AdjLFibAdjType type = L3AdjLFibAdjType::adjTypeRegular;
   for ( const auto& [index, via] : vias.via() ) {
      if ( DynamicTunnelIntfId::isDynamicTunnelIntfId( via.intf ) ) {
         return L3AdjLFibAdjType::adjTypeDynamicTunnel;
      }
      if ( Fib::FecIdIntfId::isNexthopGroupIdIntfId( via.intf ) ) {
         type = L3AdjLFibAdjType::adjTypeNexthopGroup;
      }
   }
   return type;
}

template< class Test >
bool MplsSm::someViaIntf( const L3Adjacency& l3Adj, const Test& test ) const {
   const Mpls::LfibViaSet viaSet = in_.transitLfib->lfibViaSet( l3Adj.lFibViaSetKey() );
   for ( U32 i = 0; i < viaSet.viaKeys(); ++i ) {
      if ( test( in_.transitLfib->lfibMplsVia( viaSet.viaKey( i ) ).intf ) ) {
         return true;
      }
   }
   return false;
}

bool MplsSm::hasDynamicTunnelAdj( const L3Adjacency& l3Adj ) const {
   return someViaIntf( l3Adj, DynamicTunnelIntfId::isDynamicTunnelIntfId );
}

bool MplsSm::hasNHGAdj( const L3Adjacency& l3Adj ) const {
   return someViaIntf( l3Adj, Fib::FecIdIntfId::isNexthopGroupIdIntfId );
}

L3AdjLFibAdjType MplsSm::findL3AdjLFibAdjType( const L3Adjacency* l3Adj ) const {
   if ( l3Adj == nullptr ) {
      return L3AdjLFibAdjType::adjTypeUnknown;
   }
   if ( hasDynamicTunnelAdj( *l3Adj ) ) {
      return L3AdjLFibAdjType::adjTypeDynamicTunnel;
   }
   return hasNHGAdj( *l3Adj ) ? L3AdjLFibAdjType::adjTypeNexthopGroup
                              : L3AdjLFibAdjType::adjTypeRegular;
}

U64 MplsSm::contentDigestOf( const Mpls::LfibViaSet& viaSet ) const {
   U64 digest = mixBits( viaSet.key().word() + ( viaSet.usableAsPrimaryVias() ? 1 : 0 ) );
   digest = mixBits( digest + viaSet.backupViaSetKey().word() );
   for ( U32 i = 0; i < viaSet.viaKeys(); ++i ) {
      const Mpls::LfibViaKey key = viaSet.viaKey( i );
      digest = mixBits( digest + key.word() );
      if ( key.viaType() == Mpls::viaTypeExternalFec ) {
         digest = mixBits( digest + in_.transitLfib->lfibExtFecVia( key ).fecId.value() );
         continue;
      }
      const Mpls::LfibMplsVia via = in_.transitLfib->lfibMplsVia( key );
      digest = mixBits( digest + via.nextHop.hash() );
      digest = mixBits( digest + via.intf.hash() + static_cast< U64 >( via.labelAction ) );
      digest = mixBits( digest + via.labelStack.hash() + static_cast< U64 >( via.payloadType ) * 8 +
                        static_cast< U64 >( via.ttlMode ) );
   }
   return digest;
}

// The LFIB is read ahead of its announcements: what has not been announced yet may have given the
// adjacency's via set another content, that of another label's old way.
bool MplsSm::maybeQueueStaleL3Adj( VrfMplsState& vrfState, Mpls::LfibViaSetKey viaSetKey ) {
   if ( !in_.transitLfib->pollPending() || !vrfState.lFibViaSetToL3AdjHas( viaSetKey ) ) {
      return false;
   }
   L3Adjacency& l3Adj = *vrfState.l3Adjacency( vrfState.lFibViaSetToL3Adj( viaSetKey ) );
   const U64 announced = in_.transitLfib->announced();
   if ( ( announced != 0 && l3Adj.contentSameAt() == announced ) ||
        isAdjPendingForReview( vrfState, l3Adj.index() ) ) {
      return false;
   }
   if ( l3Adj.contentDigest() == contentDigestOf( in_.transitLfib->lfibViaSet( viaSetKey ) ) ) {
      l3Adj.contentSameAtIs( announced );
      return false;
   }
   vrfState.l3AdjForReviewIs( l3Adj.index() );
   return true;
}

bool MplsSm::isAdjPendingForReview( const VrfMplsState& vrfState, U64 index ) const {
   return vrfState.l3AdjForReview( index ) == L3AdjReview::changed;
}

// --- Processing.

bool MplsSm::validateMplsIpL3Adj( const L3Adjacency& l3Adj, const Mpls::LfibViaSet& viaSet,
                                  const Ptr< CachedLFibMplsViaColl >& saneVias ) const {
   const Mpls::LfibViaSetKey key = l3Adj.lFibViaSetKey(); // a via set that is gone has none
   if ( viaSet.null() ) {
      MPLS_TRACE( 3, "lFib viaSet idx ", key.index(), " viaType ", key.viaType(), " deleted" );
      return false;
   }
   MPLS_ASSERT( key.viaType() == Mpls::viaTypeMplsIp,
                "lFibViaSetKey.viaType() == Mpls::viaTypeMplsIp_", textOf( key ) );
   if ( !saneVias ) {
      MPLS_TRACE( 3, "LFib via set ", key.index(), ", type ", key.viaType(), " is not sane" );
      return false;
   }
   if ( saneVias->vias() == 0 ) {
      MPLS_TRACE( 3, "LFib via set ", key.index(), ", type ", key.viaType(), " has no vias" );
      return false;
   }
   MPLS_TRACE( 7, "LFib via set ", key.index(), " via size ", saneVias->vias() );
   return true;
}

void MplsSm::processL3Adj( VrfMplsState& vrfState, U64 index ) {
   MPLS_TRACE( 3, "process l3 adj ", index, " vrf ", vrfState.vrfName() );
   L3Adjacency* const l3Adj = vrfState.l3Adjacency( index );
   MPLS_ASSERT( l3Adj, "l3Adj", textOf( index ) );
   const Mpls::LfibViaSetKey viaSetKey = l3Adj->lFibViaSetKey();
   MPLS_ASSERT( viaSetKey.viaType() == Mpls::viaTypeMplsIp ||
                   viaSetKey.viaType() == Mpls::viaTypeExternalFec,
                "lFibViaSetKey.viaType() == Mpls::viaTypeMplsIp_ || "
                "lFibViaSetKey.viaType() == Mpls::viaTypeExternalFec_",
                textOf( viaSetKey ) );
   const Mpls::LfibViaSet viaSet = in_.transitLfib->lfibViaSet( viaSetKey );
   if ( !l3Adj->used() ) {
      deleteL3Adj( vrfState, index );
      return;
   }
   if ( l3Adj->superseded() ) {
      followVias( vrfState, *l3Adj );
      settleL3Adj( vrfState, *l3Adj );
      return;
   }
   const Ptr< L3Adjacency > backupBefore = l3Adj->backupAdj();
   const Ptr< ExternalFecInfo > fecBefore = l3Adj->extFecInfo();
   l3Adj->contentDigestIs( contentDigestOf( viaSet ) );
   const bool hadOtherVias = l3Adj->otherVias();
   l3Adj->otherViasIs( false );
   const L3AdjOutcome outcome = programL3Adj( vrfState, *l3Adj, viaSet );
   const bool wasOutdated = l3Adj->outdated();
   if ( wasOutdated && outcome == L3AdjOutcome::programmed ) {
      queuePrimaries( vrfState, *l3Adj ); // whose FECs could not name this one's
   }
   l3Adj->outdatedIs( outcome != L3AdjOutcome::programmed );
   if ( l3Adj->outdated() != wasOutdated || l3Adj->otherVias() != hadOtherVias ) {
      publishRoutesOf( vrfState, *l3Adj ); // which leave by part of what is meant, or not any more
   }
   maybeReleaseOutdated( vrfState, *l3Adj );
   if ( outcome != L3AdjOutcome::backedOff ) {
      settleL3Adj( vrfState, *l3Adj );
   }
   const bool programmed = outcome == L3AdjOutcome::programmed;
   const bool changed = l3Adj->backupAdj() != backupBefore || ( programmed && wasOutdated );
   queueWaitingForBackup( vrfState, viaSetKey,
                          changed      ? BackupNews::changed
                          : programmed ? BackupNews::programmed
                                       : BackupNews::looked,
                          l3Adj->extFecInfo() != fecBefore );
}

// What it is made of does not depend on its routes: all that can follow from a route that has left
// is its end, and that of what was kept for the route.
void MplsSm::processL3AdjLeft( VrfMplsState& vrfState, U64 index ) {
   L3Adjacency* const l3Adj = vrfState.l3Adjacency( index );
   MPLS_ASSERT( l3Adj, "l3Adj", textOf( index ) );
   if ( !l3Adj->used() ) {
      deleteL3Adj( vrfState, index );
      return;
   }
   if ( l3Adj->keepsNextHops() ) {
      releaseFormerNextHops( vrfState, *l3Adj );
   }
   maybeReleaseOutdated( vrfState, *l3Adj );
   if ( !l3Adj->superseded() ) {
      queueWaitingForBackup( vrfState, l3Adj->lFibViaSetKey(), BackupNews::looked, false );
   }
}

// Programs the adjacency the way of its via set.
MplsSm::L3AdjOutcome MplsSm::programL3Adj( VrfMplsState& vrfState, L3Adjacency& l3Adj,
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

MplsSm::L3AdjOutcome MplsSm::programExtFecL3Adj( VrfMplsState& vrfState, L3Adjacency& l3Adj,
                                                 const Mpls::LfibViaSet& viaSet ) {
   stopWaitingForBackup( vrfState, l3Adj );
   const Mpls::LfibExtFecVia via = getSaneExtFecVia( l3Adj, viaSet );
   if ( via == Mpls::LfibExtFecVia() ) {
      l3Adj.otherViasIs( true );
      return L3AdjOutcome::backedOff;
   }
   processExtFecL3Adj( vrfState, l3Adj, viaSet, via );
   if ( !viaSet.backupViaSetKey().empty() && viaSet.backupViaSetKey() != viaSet.key() ) {
      waitForBackup( vrfState, l3Adj, viaSet.backupViaSetKey(), BackupAwaits::otherFec );
   }
   return L3AdjOutcome::programmed;
}

MplsSm::L3AdjOutcome MplsSm::programMplsIpL3Adj( VrfMplsState& vrfState, L3Adjacency& l3Adj,
                                                 const Mpls::LfibViaSet& viaSet ) {
   const Ptr< CachedLFibMplsViaColl > saneVias = getSaneMplsIpLFibVias( viaSet );
   if ( !validateMplsIpL3Adj( l3Adj, viaSet, saneVias ) ) {
      stopWaitingForBackup( vrfState, l3Adj ); // who is not to be programmed needs no backup
      l3Adj.otherViasIs( true );
      followVias( vrfState, l3Adj );
      return L3AdjOutcome::kept;
   }
   supersedeIfChanged( vrfState, l3Adj, *saneVias );
   if ( shouldProgramAdjWithHwConfig( l3Adj.lFibViaSetKey(), *saneVias ) ) {
      programL3AdjWithHwConfig( vrfState, l3Adj, viaSet, *saneVias );
      return L3AdjOutcome::programmed;
   }
   if ( !validateAndMaybeUpdateBackupAdjInfo( vrfState, l3Adj, viaSet ) ) {
      l3Adj.otherViasIs( l3Adj.primaryViasDisabled() == saneVias->usableAsPrimaryVias() ||
                         !hasVias( l3Adj, *saneVias ) );
      return followVias( vrfState, l3Adj ) ? L3AdjOutcome::kept : L3AdjOutcome::backedOff;
   }
   processMplsIpL3Adj( vrfState, l3Adj, viaSet, saneVias );
   return L3AdjOutcome::programmed;
}

void MplsSm::programL3AdjWithHwConfig( VrfMplsState& vrfState, L3Adjacency& l3Adj,
                                       const Mpls::LfibViaSet& viaSet,
                                       const CachedLFibMplsViaColl& saneVias ) {
   leaveFecs( vrfState, l3Adj );
   const L3AdjLFibAdjType adjType = lFibAdjTypeOf( saneVias );
   if ( adjType != L3AdjLFibAdjType::adjTypeRegular ) {
      // Next-hop groups and dynamic tunnels are FECs, which this platform does not have.
      MPLS_TRACE( 3, "Unsupported lFib Adj ", adjType );
      // What was programmed of an earlier content is not what the via set says now.
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
   setHwAdjViasForNormalMplsRoute( vrfState, l3Adj, viaSet, vias, adjType );
}

// What an earlier content of the adjacency had to do with FECs ends: its own, those that it
// protects and the one that protects it.
void MplsSm::leaveFecs( VrfMplsState& vrfState, L3Adjacency& l3Adj ) {
   stopWaitingForBackup( vrfState, l3Adj );
   if ( l3Adj.backupAdj() ) {
      deleteBackupAdjInfoFromAdj( vrfState, l3Adj );
   }
   if ( !l3Adj.extFecInfo() ) {
      return;
   }
   vrfState.lFibViaSetToFecIdDel( l3Adj.lFibViaSetKey() );
   bindL3AdjToExtFecInfo( vrfState, l3Adj, nullptr );
   queuePrimaries( vrfState, l3Adj );
}

// An earlier content is kept for those that are in hardware by it, and for nobody else. A wait for a
// review is over too soon for that: to let go and take up again what watches next hops and requests
// FECs would bring just the news that ends in the next review.
void MplsSm::maybeReleaseOutdated( VrfMplsState& vrfState, L3Adjacency& l3Adj ) {
   if ( !l3Adj.outdated() || l3Adj.awaitedBackup().awaits == BackupAwaits::review ||
        l3Adj.primaryAdjs() + l3Adj.carriedRouteKeys() != 0 ||
        ( !l3Adj.extFecInfo() && l3Adj.nextHops() == 0 ) ) {
      return;
   }
   for ( const Mpls::RouteKey routeKey : l3Adj.routeKey() ) {
      if ( inHardware( *vrfState.route( routeKey ) ) && !vrfState.carrierOf( routeKey ) ) {
         return;
      }
   }
   MPLS_TRACE( 3, "l3 adj ", l3Adj.index(), " has nothing that is in use" );
   vrfState.lFibViaSetToFecIdDel( l3Adj.lFibViaSetKey() );
   bindL3AdjToExtFecInfo( vrfState, l3Adj, nullptr );
   if ( !l3Adj.awaitedBackup().holdsBack() ) {
      deleteBackupAdjInfoFromAdj( vrfState, l3Adj );
   }
   releaseVias( vrfState, l3Adj );
   settleL3Adj( vrfState, l3Adj );
}

// The adjacency no longer resolves through anything.
void MplsSm::releaseVias( VrfMplsState& vrfState, L3Adjacency& l3Adj ) {
   unbindL3AdjFromL2Adj( vrfState, l3Adj );
   deleteL3AdjRefs( vrfState, l3Adj );
   l3Adj.nextHopDelAll();
   Mpls::Hardware::Adjacency* const hwAdj = in_.routingHwMplsStatus->adjacency( l3Adj.index() );
   hwAdj->viaDelAll();
   hwAdj->unresolvedViasIs( 0 );
}

// Settles whether the adjacency is programmed, programs its L2 adjacency and queues its routes.
void MplsSm::settleL3Adj( VrfMplsState& vrfState, L3Adjacency& l3Adj ) {
   const L3::VrfName& vrf = vrfState.vrfName();
   Mpls::Hardware::Adjacency* const hwAdj = in_.routingHwMplsStatus->adjacency( l3Adj.index() );
   MPLS_ASSERT( hwAdj, "hwAdj", l3Adj.fullName() );
   if ( l3Adj.l2Adjacency() ) {
      const MplsHwVrfStatus* const status = velMplsHwVrfStatus( vrf );
      l3Adj.unprogrammedIs( status && status->unprogrammedAdjacencyHas( l3Adj.hwL2Adjacency() ) );
      MPLS_TRACE( 3, "prog l2 adj ", l3Adj.l2Adjacency()->index(), " in vrf ", vrf );
      progHwL2Adj( vrf, l3Adj.hwL2Adjacency() );
   } else if ( l3Adj.extFecInfo() && hwAdj->vias() != hwAdj->unresolvedVias() ) {
      l3Adj.unprogrammedIs( false );
   } else {
      MPLS_TRACE( 3, "l3Adj ", l3Adj.index(), " not resolved" );
      l3Adj.unprogrammedIs( true );
   }
   hwAdj->unprogrammedIs( l3Adj.unprogrammed() );
   judgeL3Adj( vrfState, l3Adj );
   for ( const Mpls::RouteKey routeKey : l3Adj.routeKey() ) {
      MPLS_TRACE( 8, "add routeKey ", routeKey, " for review" );
      vrfState.routeKeyForReviewIs( routeKey );
   }
   for ( const Mpls::RouteKey routeKey : l3Adj.carriedRouteKey() ) {
      MPLS_TRACE( 8, "add routeKey ", routeKey, " for review" );
      vrfState.routeKeyForReviewIs( routeKey );
   }
}

// --- Hardware vias.

void MplsSm::setHwAdjacencyVias( VrfMplsState& vrfState, L3Adjacency& l3Adj,
                                 const Mpls::LfibViaSet& viaSet,
                                 const ProgrammableMplsFecVias& vias, L3AdjLFibAdjType adjType ) {
   MPLS_TRACE( 3, " Set hardware info for l3Adj ", l3Adj.index() );
   Mpls::Hardware::Adjacency* const hwAdj = in_.routingHwMplsStatus->adjacency( l3Adj.index() );
   MPLS_ASSERT( hwAdj, "hwAdj", l3Adj.fullName() );
   hwAdj->viaSetTypeIs( viaSet.key().viaSetType() );
   MPLS_ASSERT( viaSet.key().viaType() == Mpls::viaTypeMplsIp,
                "lFibViaSetKey.viaType() == Mpls::viaTypeMplsIp_", textOf( viaSet.key() ) );
   if ( adjType == L3AdjLFibAdjType::adjTypeRegular ) {
      setHwAdjViasForNormalMplsRoute( vrfState, l3Adj, viaSet, vias, adjType );
   } else {
      if ( l3Adj.nextHops() != 0 ) { // its routes stay where they are until the FEC is answered
         carryByFormer( vrfState, l3Adj, routesInHardware( vrfState, l3Adj, false ) );
      }
      releaseVias( vrfState, l3Adj ); // of an earlier content
      for ( const auto& [viaIndex, via] : vias.via() ) {
         Mpls::Hardware::AdjacencyVia hwVia = hwViaOf( via );
         if ( via.labelStack.stackSize() != 0 ) { // a pop has none
            hwVia.labelStack = { singleMplsLabelFromVia( via ).value() };
         }
         hwAdj->viaIs( viaIndex, hwVia );
      }
   }
   setHwBackupAdjStatus( vrfState, l3Adj );
}

MplsLabel MplsSm::singleMplsLabelFromVia( const Mpls::LfibMplsVia& via ) {
   MPLS_ASSERT( via.labelStack.stackSize() == 1, "via.labelStack().stackSize() == 1",
                textOf( via ) );
   return via.labelStack.label( 0 );
}

// What the adjacency has stays as it was, and follows its next hops all the same; true when that
// leads elsewhere now.
bool MplsSm::followVias( VrfMplsState& vrfState, L3Adjacency& l3Adj ) {
   if ( l3Adj.nextHops() == 0 ) {
      return false;
   }
   const Ptr< MplsL2Adjacency > before = l3Adj.l2Adjacency();
   setHwAdjViasForNormalMplsRoute( vrfState, l3Adj, Mpls::LfibViaSet( l3Adj.lFibViaSetKey() ),
                                   viasInHardware( l3Adj ), L3AdjLFibAdjType::adjTypeRegular );
   return l3Adj.l2Adjacency() != before;
}

// The vias that the adjacency was last programmed with.
ProgrammableMplsFecVias MplsSm::viasInHardware( const L3Adjacency& l3Adj ) const {
   ProgrammableMplsFecVias vias;
   for ( const auto& [viaIndex, hwVia] :
         in_.routingHwMplsStatus->adjacency( l3Adj.index() )->via() ) {
      vias.viaIs( viaIndex, viaOf( hwVia ) );
   }
   return vias;
}

bool MplsSm::hasVias( const L3Adjacency& l3Adj, const CachedLFibMplsViaColl& vias ) const {
   const Mpls::Hardware::Adjacency& hwAdj = *in_.routingHwMplsStatus->adjacency( l3Adj.index() );
   U32 at = 0;
   for ( const auto& [viaIndex, via] : vias.via() ) {
      if ( viaOf( hwAdj.via( at++ ) ) != via ) {
         return false;
      }
   }
   return hwAdj.vias() == at;
}

// The adjacency's own routes that are in hardware by it, or else by what it was before.
std::vector< Mpls::RouteKey > MplsSm::routesInHardware( const VrfMplsState& vrfState,
                                                        const L3Adjacency& l3Adj, bool byIt ) {
   std::vector< Mpls::RouteKey > found;
   for ( const Mpls::RouteKey routeKey : l3Adj.routeKey() ) {
      const MplsRoute& route = *vrfState.route( routeKey );
      if ( inHardware( route ) && inHardwareBy( route, l3Adj ) == byIt &&
           vrfState.carrierOf( routeKey ) == nullptr ) {
         found.push_back( routeKey );
      }
   }
   return found;
}

// Whether one of the routes is in hardware by something that the adjacency is not any more, and that
// nobody else keeps for it.
bool MplsSm::someElsewhere( const VrfMplsState& vrfState, const L3Adjacency& l3Adj,
                            const RouteKeyGroup& routes ) {
   for ( const Mpls::RouteKey routeKey : routes ) {
      const MplsRoute& route = *vrfState.route( routeKey );
      const L3Adjacency* const carrier = vrfState.carrierOf( routeKey );
      if ( inHardware( route ) && !inHardwareBy( route, l3Adj ) &&
           ( carrier == nullptr || carrier == &l3Adj ) ) {
         return true;
      }
   }
   return false;
}

// The adjacency's FEC is a next-hop group's.
bool MplsSm::isOfGroup( const L3Adjacency& l3Adj ) {
   return l3Adj.extFecInfo() &&
          l3Adj.extFecInfo()->fecId().adjType() == Fib::AdjType::nexthopGroupAdj;
}

bool MplsSm::inHardware( const MplsRoute& route ) {
   return route.l2Adj() || route.extFecInfo();
}

bool MplsSm::inHardwareBy( const MplsRoute& route, const L3Adjacency& l3Adj ) {
   return route.extFecInfo()
             ? route.extFecInfo() == l3Adj.extFecInfo()
             : route.l2Adj() && route.l2Adj() == l3Adj.l2Adjacency() && !l3Adj.extFecInfo();
}

// A via set whose routes have left may be used again at once, for something else. Those that are
// still in hardware by what it was must not follow: an adjacency of its own goes on carrying them.
void MplsSm::supersedeIfChanged( VrfMplsState& vrfState, L3Adjacency& l3Adj,
                                 const CachedLFibMplsViaColl& vias ) {
   const bool released = l3Adj.nextHops() == 0 && !isOfGroup( l3Adj );
   if ( !released && hasVias( l3Adj, vias ) ) {
      return;
   }
   std::vector< Mpls::RouteKey > left;
   for ( const Mpls::RouteKey routeKey : l3Adj.carriedRouteKey() ) {
      left.push_back( routeKey );
   }
   for ( const Mpls::RouteKey routeKey : l3Adj.routeKey() ) {
      MplsRoute& route = *vrfState.route( routeKey );
      if ( !inHardware( route ) || vrfState.carrierOf( routeKey ) ) {
         continue;
      }
      const Mpls::LfibRoute lfibRoute = in_.transitLfib->lfibRoute( routeKey );
      // Also one that is gone: it may come back before its end is processed.
      if ( !!lfibRoute && lfibRoute.viaSetKey == l3Adj.lFibViaSetKey() ) {
         continue;
      }
      if ( !released ) {
         left.push_back( routeKey );
      } else if ( route.l2Adj() ) {
         takeRouteOut( vrfState, route ); // by what has gone from its adjacency already
      }
   }
   if ( !released ) {
      carryByFormer( vrfState, l3Adj, left );
   }
}

// What the adjacency is until now goes on as another one, for these routes.
void MplsSm::carryByFormer( VrfMplsState& vrfState, L3Adjacency& l3Adj,
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
      bindL3AdjToExtFecInfo( vrfState, former, l3Adj.extFecInfo() );
   } else {
      setHwAdjViasForNormalMplsRoute( vrfState, former, Mpls::LfibViaSet( former.lFibViaSetKey() ),
                                      viasInHardware( l3Adj ), L3AdjLFibAdjType::adjTypeRegular );
   }
   for ( const IpAddrIntfId& key : l3Adj.nextHop() ) { // also those of a still earlier content
      useNextHop( vrfState, former, key );
   }
   // It keeps no backup: one that counts as used by it could take none of its own, and the routes
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

// The via as the LFIB wants it, not resolved.
Mpls::Hardware::AdjacencyVia MplsSm::hwViaOf( const Mpls::LfibMplsVia& via ) {
   return { via.key,         via.nextHop, via.intf,       via.labelAction,
            via.payloadType, via.ttlMode, via.labelStack, {} };
}

Mpls::LfibMplsVia MplsSm::viaOf( const Mpls::Hardware::AdjacencyVia& hwVia ) {
   Mpls::LfibMplsVia via;
   via.key = hwVia.viaKey;
   via.nextHop = hwVia.nextHop;
   via.intf = hwVia.intf;
   via.labelAction = hwVia.labelAction;
   via.payloadType = hwVia.payloadType;
   via.ttlMode = hwVia.ttlMode;
   via.labelStack = hwVia.labelStack;
   return via;
}

void MplsSm::setHwAdjViasForNormalMplsRoute( VrfMplsState& vrfState, L3Adjacency& l3Adj,
                                             const Mpls::LfibViaSet& viaSet,
                                             const ProgrammableMplsFecVias& vias,
                                             L3AdjLFibAdjType adjType ) {
   Mpls::Hardware::Adjacency* const hwAdj = in_.routingHwMplsStatus->adjacency( l3Adj.index() );
   MPLS_ASSERT( hwAdj, "l3Adj", l3Adj.fullName() );
   hwAdj->viaDelAll();
   hwAdj->unresolvedViasIs( 0 );
   hwAdj->viaSetTypeIs( viaSet.key().viaSetType() );
   MPLS_TRACE( 7, "LFib via set ", viaSet.key(), " via size ", vias.vias(),
               "LFib adj type: ", adjType );
   MPLS_TRACE( 7, "LFib adj index ", l3Adj.index(), " via size ", vias.vias(), " adj type ",
               adjType );
   MPLS_ASSERT( adjType == L3AdjLFibAdjType::adjTypeRegular,
                "lFibAdjType == L3AdjLFibAdjType::adjTypeRegular_", l3Adj.fullName() );
   std::vector< Mpls::Hardware::L2Via > exits;
   exits.reserve( vias.vias() );
   for ( const auto& [viaIndex, via] : vias.via() ) {
      MPLS_TRACE( 7, "LFib via ", via );
      const Mpls::Hardware::L2ViaSet resolved =
         resolveNextHop( vrfState, via, static_cast< U32 >( vias.vias() ), l3Adj );
      MPLS_TRACE( 7, "resolved nexthops: ", resolved );
      exits.insert( exits.end(), resolved.l2Via().begin(), resolved.l2Via().end() );
      MPLS_ASSERT( via.nextHop.af() == ipv4() || via.nextHop.af() == ipv6(),
                   "via.nextHop().af() == ipv4() || via.nextHop().af() == ipv6()", textOf( via ) );
      const IpAddrIntfId key{ via.nextHop, via.intf };
      MplsNextHop* const nextHop = useNextHop( vrfState, l3Adj, key );
      if ( !resolved.empty() ) {
         nextHop->unresolvedSinceIs( neverTime );
      } else if ( nextHop->unresolvedSince() == neverTime ) {
         nextHop->unresolvedSinceIs( in_.clock->now() );
      }
   }
   if ( exits.empty() ) {
      unbindL3AdjFromL2Adj( vrfState, l3Adj );
   } else {
      bindL3AdjToL2Adj( vrfState, l3Adj, Mpls::Hardware::L2ViaSet( std::move( exits ) ) );
   }
   releaseFormerNextHops( vrfState, l3Adj );
}

// What the adjacency no longer names is released when no route is in hardware by it any more.
void MplsSm::releaseFormerNextHops( VrfMplsState& vrfState, L3Adjacency& l3Adj ) {
   HashSet< IpAddrIntfId > named;
   for ( const auto& [viaIndex, hwVia] :
         in_.routingHwMplsStatus->adjacency( l3Adj.index() )->via() ) {
      named.insert( { hwVia.nextHop, hwVia.intf } );
   }
   l3Adj.keepsNextHopsIs( l3Adj.nextHops() != named.size() &&
                          ( someElsewhere( vrfState, l3Adj, l3Adj.routeKey() ) ||
                            someElsewhere( vrfState, l3Adj, l3Adj.carriedRouteKey() ) ) );
   if ( l3Adj.keepsNextHops() ) {
      return;
   }
   for ( const IpAddrIntfId& key : l3Adj.nextHop() ) {
      if ( !named.has( key ) ) {
         releaseNextHop( vrfState, l3Adj, key );
         l3Adj.nextHopDel( key );
      }
   }
}

MplsNextHop* MplsSm::useNextHop( VrfMplsState& vrfState, L3Adjacency& l3Adj,
                                 const IpAddrIntfId& key ) {
   MplsNextHop* const nextHop = vrfState.mplsNextHopIs( key );
   l3Adj.nextHopIs( key );
   if ( key.l3Intf.empty() ) {
      nextHop->resolvedByRRIs( &l3Adj );
   } else {
      nextHop->resolvedByMNHIs( &l3Adj );
   }
   return nextHop;
}

// --- Binding to an L2 adjacency.

void MplsSm::bindL3AdjToL2Adj( VrfMplsState& vrfState, L3Adjacency& l3Adj,
                               const Mpls::Hardware::L2ViaSet& l2ViaSet ) {
   MplsL2Adjacency* l2Adj = nullptr;
   Ptr< Mpls::Hardware::L2Adjacency > hwL2Adj = viaSetToHwL2Adj( l2ViaSet );
   if ( hwL2Adj ) {
      l2Adj = vrfState.l2Adjacency( hwL2Adj->index() );
   } else {
      l2Adj = newL2Adjacency( vrfState );
      hwL2Adj = in_.routingHwMplsStatus->l2Adjacency( l2Adj->index() );
      viaSetToHwL2AdjIs( l2ViaSet, hwL2Adj );
   }
   MPLS_ASSERT( l2Adj, "l2Adj", l3Adj.fullName() );
   l2Adj->l3AdjacencyIs( &l3Adj );
   l2Adj->l2ViaSetIs( l2ViaSet );
   hwL2Adj->l2ViaSetIs( l2ViaSet );
   if ( l3Adj.l2Adjacency() != l2Adj ) {
      unbindL3AdjFromL2Adj( vrfState, l3Adj );
   }
   MPLS_TRACE( 7, "l3 adj ", l3Adj.index(), " -> l2 adj ", l2Adj->index() );
   l3Adj.l2AdjacencyIs( l2Adj );
   l3Adj.hwL2AdjacencyIs( hwL2Adj );
   in_.routingHwMplsStatus->adjacency( l3Adj.index() )->l2AdjacencyIs( hwL2Adj );
}

// The L2 adjacency that is left behind is looked at again, and deleted when nothing uses it any
// more.
void MplsSm::unbindL3AdjFromL2Adj( VrfMplsState& vrfState, L3Adjacency& l3Adj ) {
   MplsL2Adjacency* const l2Adj = l3Adj.l2Adjacency().get();
   if ( l2Adj == nullptr ) {
      return;
   }
   l2Adj->l3AdjacencyDel( &l3Adj );
   MPLS_TRACE( 3, "add l2 adj ", l2Adj->index(), " for review" );
   vrfState.l2AdjForReviewIs( l2Adj->index() );
   l3Adj.l2AdjacencyIs( nullptr );
   l3Adj.hwL2AdjacencyIs( nullptr );
   in_.routingHwMplsStatus->adjacency( l3Adj.index() )->l2AdjacencyIs( nullptr );
}

// --- Deletion.

void MplsSm::deleteL3Adj( VrfMplsState& vrfState, U64 index ) {
   MPLS_TRACE( 3, "delete l3 adj ", index, " vrf ", vrfState.vrfName() );
   const Ptr< L3Adjacency > l3Adj = vrfState.l3Adjacency( index );
   MPLS_ASSERT( l3Adj, "l3Adj", textOf( index ) );
   deleteBackupAdjInfoFromAdj( vrfState, *l3Adj );
   stopWaitingForBackup( vrfState, *l3Adj );
   bindL3AdjToExtFecInfo( vrfState, *l3Adj, nullptr );
   unbindL3AdjFromL2Adj( vrfState, *l3Adj );
   deleteL3AdjRefs( vrfState, *l3Adj );
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
      queueWaitingForBackup( vrfState, l3Adj->lFibViaSetKey(), BackupNews::changed, true );
   }
}

void MplsSm::deleteL3AdjRefs( VrfMplsState& vrfState, L3Adjacency& l3Adj ) {
   for ( const IpAddrIntfId& key : l3Adj.nextHop() ) {
      releaseNextHop( vrfState, l3Adj, key );
   }
}

// The adjacency no longer resolves through the next hop; the last one to leave ends the watch.
void MplsSm::releaseNextHop( VrfMplsState& vrfState, L3Adjacency& l3Adj, const IpAddrIntfId& key ) {
   MplsNextHop* const nextHop = vrfState.mplsNextHop( key );
   if ( nextHop == nullptr ) {
      return;
   }
   const L3::VrfName& vrf = vrfState.vrfName();
   if ( nextHop->resolvedByRRDel( &l3Adj ) && nextHop->resolvedByRRs() == 0 ) {
      unwatchWithRR( vrf, nextHop->nextHopIp() );
   }
   if ( nextHop->resolvedByMNHDel( &l3Adj ) && nextHop->resolvedByMNHs() == 0 ) {
      unwatchWithMNHSM( vrf, *nextHop );
   }
   if ( nextHop->resolvedByRRs() == 0 && nextHop->resolvedByMNHs() == 0 ) {
      vrfState.mplsNextHopDel( key );
   }
}

void MplsSm::unwatchWithRR( const L3::VrfName& vrf, const IpGenAddr& nh ) {
   MPLS_TRACE( 3, "remove watched addr ", nh );
   if ( nh.af() == ipv4() ) {
      in_.routeReactorConfig->removeWatchedAddr( { vrf, nh } );
   } else {
      MPLS_ASSERT( nh.af() == ipv6(), "nh.af() == ipv6()", textOf( nh ) );
      in_.route6ReactorConfig->removeWatchedIp6Addr( { vrf, nh } );
   }
}

void MplsSm::unwatchWithMNHSM( const L3::VrfName& vrf, const MplsNextHop& nextHop ) {
   MPLS_TRACE( 3, "remove entry (vrf=", vrf, " nexthop=", nextHop.nextHopIp(),
               " l3Intf=", nextHop.l3Intf(), ") from proactiveArpNhSm" );
   in_.proactiveArpNhSm->removeEntry( vrf, nextHop.nextHopIp(), nextHop.l3Intf() );
}

} // namespace Vel
