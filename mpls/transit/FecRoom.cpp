#include "mpls/transit/FecRoom.h"

#include "mpls/VelMplsTrace.h"
#include "mpls/transit/Parts.h"

namespace Vel::Transit {

void FecRoom::maybeOfferFecs( const VrfMplsState* vrfState ) {
   if ( vrfState == nullptr || !in_.hwFecIdRequest ||
        vrfState->routeKeyForReviews() + vrfState->l3AdjForReviews() != 0 ) {
      return;
   }
   offerFecsBeingLeft( *vrfState );
   if ( !recoveredFecsToOffer_ ) {
      return;
   }
   if ( sm_.recoveredRoutes() == 0 ) {
      recoveredFecsToOffer_ = false;
      in_.hwFecIdRequest->mayReplaceDelAll();
      return;
   }
   if ( !parts_.recovery.syncAnswered() || !parts_.vrfs.mayNameRoutes( vrfState->vrfName() ) ) {
      return; // there is more to offer then
   }
   recoveredFecsToOffer_ = false;
   if ( someFecUnanswered() ) {
      offerRecoveredFecs( *vrfState );
   } else {
      in_.hwFecIdRequest->mayReplaceDelAll();
   }
}

// The FEC that all routes in this one wait for, where hardware may rewrite it for them in one step:
// nothing but these routes leads into it, and neither FEC leaves the pop to them. Else none.
Fib::FecId FecRoom::fecAwaitedByAll( const VrfMplsState& vrfState,
                                     const ExternalFecInfo& info ) const {
   if ( info.dependentL3Adjacencys() + info.dependentPrimaryExtFecInfos() != 0 ||
        info.hwId() == 0 || info.popLabelActionRemoved() ) {
      return {};
   }
   const ExternalFecInfo* awaited = nullptr;
   for ( const Mpls::RouteKey routeKey : info.dependentRouteKey() ) {
      const MplsRoute* const route = vrfState.route( routeKey );
      const L3Adjacency* const l3Adj = route ? route->l3Adj().get() : nullptr;
      const ExternalFecInfo* const wanted = l3Adj ? l3Adj->extFecInfo().get() : nullptr;
      if ( wanted == nullptr || wanted->hwId() != 0 || wanted->popLabelActionRemoved() ||
           ( awaited && awaited != wanted ) || !parts_.viaSets.stillUses( routeKey, *l3Adj ) ) {
         return {};
      }
      awaited = wanted;
   }
   return awaited ? awaited->fecId() : Fib::FecId();
}

// Hardware that is full of FECs gives a FEC that is awaited the place of the one whose routes await
// it.
void FecRoom::offerFecsBeingLeft( const VrfMplsState& vrfState ) {
   HashSet< Fib::FecId > offered;
   for ( const auto& [awaited, left] : in_.hwFecIdRequest->mayTakeOver() ) {
      if ( recoveredFecsToOffer_ && // else none of their routes has been told otherwise
           fecAwaitedByAll( vrfState, *vrfState.extFecInfo( left ) ) != awaited ) {
         in_.hwFecIdRequest->mayTakeOverDel( awaited );
      } else {
         offered.insert( left );
      }
   }
   for ( const Fib::FecId left : fecsBeingLeft_ ) {
      const ExternalFecInfo* const info = vrfState.extFecInfo( left );
      if ( info == nullptr || info->dependentRouteKeys() == 0 ) {
         fecsBeingLeft_.erase( left );
         continue;
      }
      if ( offered.has( left ) ) {
         continue;
      }
      const Fib::FecId awaited = fecAwaitedByAll( vrfState, *info );
      if ( awaited != Fib::FecId() && !in_.hwFecIdRequest->mayTakeOverHas( awaited ) ) {
         MPLS_TRACE( 3, "FecId ", awaited, " may take over the place of ", left );
         in_.hwFecIdRequest->mayTakeOverIs( awaited, left );
      }
   }
}

void FecRoom::withdrawTakeOvers( const VrfMplsState* vrfState ) {
   if ( !in_.hwFecIdRequest ) {
      return;
   }
   for ( const auto& [awaited, left] : in_.hwFecIdRequest->mayTakeOver() ) {
      const ExternalFecInfo* const before = vrfState ? vrfState->extFecInfo( left ) : nullptr;
      const ExternalFecInfo* const next = vrfState ? vrfState->extFecInfo( awaited ) : nullptr;
      if ( before == nullptr || before->dependentL3Adjacencys() != 0 || next == nullptr ||
           next->dependentL3Adjacencys() == 0 || next->hwId() != 0 ) {
         in_.hwFecIdRequest->mayTakeOverDel( awaited );
         recoveredFecsToOffer_ = true;
      }
   }
}

void FecRoom::takeOverRoutes( VrfMplsState& vrfState, ExternalFecInfo& info ) {
   const Fib::FecId left = in_.hwFecIdRequest->mayTakeOver( info.fecId() );
   ExternalFecInfo* const before = vrfState.extFecInfo( left );
   if ( before == nullptr || info.hwId() == 0 || before->hwId() != info.hwId() ) {
      return;
   }
   MPLS_TRACE( 3, "FecId ", info.fecId(), " has taken over the routes of ", left );
   in_.hwFecIdRequest->mayTakeOverDel( info.fecId() );
   fecsBeingLeft_.insert( info.fecId() );
   const Ptr< ExternalFecInfo > now = &info;
   for ( const Mpls::RouteKey routeKey : before->dependentRouteKey() ) {
      parts_.fecs.deleteRouteKeyFromExtFecInfo( routeKey, *before );
      parts_.fecs.addRouteKeyToExtFecInfo( routeKey, info );
      if ( MplsRoute* const route = vrfState.route( routeKey ) ) {
         route->extFecInfoIs( now );
      }
   }
   parts_.fecs.maybeDeleteExtFecInfo( vrfState, left );
}

bool FecRoom::someFecUnanswered() const {
   for ( const auto& [fecId, request] : in_.hwFecIdRequest->hwFecIdRequest() ) {
      if ( in_.hwFecIdResponse->hwFecId( fecId ).hwId == 0 ) {
         return true;
      }
   }
   return false;
}

// At a start also where they wait for several: where all routes that are left in an old FEC wait
// for new ones, hardware may take it, rewriting it where they wait for the same one, and else
// taking it out. Asked once the hardware layer has matched what it could, and nothing is queued.
void FecRoom::offerRecoveredFecs( const VrfMplsState& vrfState ) {
   struct Waiting {
      Fib::FecId fecId; // for this one; for several: none
      bool all = true;
   };
   Hash< AdjSyncId, Waiting > left;
   for ( const Mpls::RouteKey routeKey : sm_.recoveredRoute() ) {
      const MplsRoute* const route = vrfState.route( routeKey );
      const L3Adjacency* const l3Adj = route ? route->l3Adj().get() : nullptr;
      const ExternalFecInfo* const info = l3Adj ? l3Adj->extFecInfo().get() : nullptr;
      const bool waits = info && info->hwId() == 0 && parts_.viaSets.stillUses( routeKey, *l3Adj );
      const auto [there, first] = left.emplace( in_.mplsRouteSyncMap->adjSyncId( routeKey ) );
      there->all &= waits;
      if ( waits && ( first || there->fecId == info->fecId() ) ) {
         there->fecId = info->fecId();
      } else {
         there->fecId = Fib::FecId();
      }
   }
   for ( const auto& [syncId, fecId] : in_.hwFecIdRequest->mayReplace() ) {
      const Waiting* const there = left.find( syncId );
      if ( there == nullptr || !there->all ) {
         in_.hwFecIdRequest->mayReplaceDel( syncId );
      }
   }
   for ( const auto& [syncId, waiting] : left ) {
      if ( waiting.all ) {
         MPLS_TRACE( 3, "FecId ", waiting.fecId, " may replace what was ", syncId );
         in_.hwFecIdRequest->mayReplaceIs( syncId, waiting.fecId );
      }
   }
}

} // namespace Vel::Transit
