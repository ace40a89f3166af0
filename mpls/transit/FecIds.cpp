#include "mpls/transit/FecIds.h"

#include "mpls/VelMplsTrace.h"
#include "mpls/transit/Parts.h"

namespace Vel::Transit {

namespace {

AddressFamily familyOf( const CachedLFibMplsViaColl& vias ) {
   for ( const auto& [index, via] : vias.via() ) {
      if ( !via.nextHop.empty() ) {
         return via.nextHop.af();
      }
   }
   return ipv4(); // tunnels and groups know their own
}

} // namespace

Fib::FecId FecIds::newFecId( Fib::AdjType type ) {
   while ( true ) {
      const U64 index = sm_.numAllocator()->getNumber();
      VEL_ASSERT_TEXT( index != NumAllocator::invalidNumber(),
                       "index != numAllocator()->invalidNumber()",
                       "FecId range exhausted, Not possible", "VelMplsSm", sm_.name() );
      const Fib::FecId fecId = Fib::FecId::fecIdForAdjType( type, index );
      if ( !answered( fecId ) ) {
         return fecId;
      }
      MPLS_TRACE( 3, "FecId ", fecId, " is still answered, set aside" );
      sm_.fecIdSetAsideIs( fecId );
   }
}

bool FecIds::answered( Fib::FecId fecId ) const {
   return ( in_.hwFecIdResponse && in_.hwFecIdResponse->hwFecIdHas( fecId ) ) ||
          ( sm_.mplsMcastAdjResp() && sm_.mplsMcastAdjResp()->hwFecIdHas( fecId ) );
}

void FecIds::maybeReleaseSetAside( Fib::FecId fecId ) {
   if ( sm_.fecIdSetAsideHas( fecId ) && !answered( fecId ) ) {
      MPLS_TRACE( 3, "FecId ", fecId, " is no longer answered" );
      sm_.fecIdSetAsideDel( fecId );
      sm_.numAllocator()->releaseNumber( fecId.index() );
   }
}

Fib::FecId FecIds::getOrAllocateMplsFecId( Mpls::LfibViaSetKey viaSetKey, VrfMplsState& vrfState,
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

Fib::FecId FecIds::getOrAllocateMplsFecIdPerVia( VrfMplsState& vrfState,
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

Fib::FecId FecIds::getFecIdForRequest( const L3Adjacency& l3Adj,
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

void FecIds::freeMplsFecId( Fib::FecId fecId, VrfMplsState& vrfState ) {
   MPLS_TRACE_CALL( 8, ": fecId: ", fecId );
   if ( !fecId.ofLabelViaSet() ) {
      return; // of a via, or another agent's
   }
   sm_.numAllocator()->releaseNumber( fecId.index() );
   if ( const ExternalFecInfo* const info = vrfState.extFecInfo( fecId ) ) {
      if ( vrfState.lFibViaSetToFecId( info->lFibViaSetKey() ) == fecId ) {
         vrfState.lFibViaSetToFecIdDel( info->lFibViaSetKey() );
      }
   }
}

bool FecIds::usesGroupFec( const CachedLFibMplsViaColl& vias ) {
   return vias.usableAsPrimaryVias() &&
          ViaSets::findL3AdjLFibAdjType( &vias ) == L3AdjLFibAdjType::adjTypeNexthopGroup;
}

} // namespace Vel::Transit
