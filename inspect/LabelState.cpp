#include "inspect/LabelState.h"

#include <algorithm>

#include "mpls/VelMplsSm.h"

namespace Vel::Inspect {

using Fib::Fec;
using Fib::FecId;
using Fib::FecVia;
using Mpls::RouteKey;
using Mpls::Hardware::L2Via;

namespace {

constexpr size_t remembered = 4096; // via sets

} // namespace

Mpls::RouteStatusCode codeOf( LabelState state ) {
   return state == LabelState::programmed            ? Mpls::RouteStatusCode::programmed
          : state == LabelState::partiallyProgrammed ? Mpls::RouteStatusCode::partiallyProgrammed
                                                     : Mpls::RouteStatusCode::notProgrammed;
}

LabelStates::LabelStates( const EntityManager& entities )
   : inputs_( entities ),
     fecs_( entities ),
     foreignWays_( entities ),
     nextHops_( entities ),
     insight_( entities.root< MplsHwInsight >( "mplsHwInsight" ) ),
     vrf_( mountedRoot< MplsSm >( entities, "mplsSm" ).mplsState( LfibIntent::vrf() ) ),
     adjHwStatus_( nextHops_.status().adjHwStatus().get() ) {
   const bool hasFecs =
      mountedRoot< MplsSm >( entities, "mplsSm" ).forwardingIntoExternalFecsSupported();
   VEL_ASSERT_TEXT( !hasFecs || ( fecs_.request() && fecs_.response() ), "request && response",
                    "an entity is not mounted", "velmpls", "hwFecIdRequest, hwFecIdResponse" );
   const auto& numbers =
      mountedRoot< Routing::Hardware::RouteStatus >( entities, "routingHwRouteStatus" );
   if ( numbers.vrfStatusHas( LfibIntent::vrf() ) ) {
      vrfId_ = numbers.vrfStatus( LfibIntent::vrf() );
      status_ = mountedRoot< MplsHwStatus >( entities, "mplsHwStatus" ).vrfStatus( vrfId_ );
   }
}

LabelVerdict LabelStates::of( RouteKey key ) {
   const Held held = find( key );
   const Mpls::LfibViaSetKey viaSetKey = inputs_.lfib().lfibRoute( key ).viaSetKey;
   const void* const l3Adjacency = held.record ? held.record->l3Adj().get() : nullptr;
   known_.resize( remembered );
   const U64 hash =
      mixBits( mixBits( viaSetKey.word() ) + reinterpret_cast< uintptr_t >( held.what() ) );
   Known& known = known_[hash % remembered];
   if ( held.refused || viaSetKey.empty() || known.viaSetKey != viaSetKey ||
        known.held != held.what() || known.l3Adjacency != l3Adjacency ) {
      inputs_.read( key, intent_ );
      const LabelVerdict verdict = judge( held, intent_ );
      if ( held.refused ) {
         return verdict;
      }
      known = { viaSetKey, held.what(), l3Adjacency, verdict };
   }
   return known.verdict;
}

LabelVerdict LabelStates::of( RouteKey key, const Intent& intent ) const {
   return judge( find( key ), intent );
}

LabelVerdict LabelStates::judge( const Held& held, const Intent& intent ) const {
   const Ways ways = waysOf( held );
   const bool leaves = ways != Ways::none;
   if ( intent.kind == IntentKind::absent ) {
      return { LabelState::absent, leaves };
   }
   if ( !isTransit( intent.viaSetKey.viaType() ) ) {
      return { LabelState::ignored, leaves };
   }
   if ( !leaves || held.refused ) {
      return { LabelState::unprogrammed, leaves };
   }
   return { ways == Ways::all && isMeant( held, intent ) ? LabelState::programmed
                                                         : LabelState::partiallyProgrammed,
            leaves };
}

// --- What hardware holds.

LabelStates::Held LabelStates::find( RouteKey key ) const {
   Held held;
   held.record = vrf_ ? vrf_->route( key ) : nullptr;
   if ( status_ == nullptr || !status_->mplsRouting() ) {
      return held;
   }
   held.refused = status_->unprogrammedRouteHas( key );
   if ( held.record && held.record->inFecInHardware() ) {
      const bool lost = insight_ && insight_->routeLost( vrfId_, key );
      const ExternalFecInfo* const fec = held.record->extFecInfo().get();
      held.fec = !lost && fecs_.answered( fec->fecId() ) ? fec : nullptr;
   } else if ( const MplsHwRoute* const reported = status_->route().find( key );
               reported && reported->l2Adjacency &&
               status_->l2AdjacencyHas( reported->l2Adjacency ) ) {
      held.l2Adjacency = reported->l2Adjacency.get();
   }
   return held;
}

bool LabelStates::isMeant( const Held& held, const Intent& intent ) const {
   if ( intent.kind != IntentKind::forwarded ) {
      return false;
   }
   if ( held.l2Adjacency ) {
      return !intent.intoFec && intent.unresolvedVias == 0 &&
             held.l2Adjacency->l2ViaSet().l2Via() == intent.vias;
   }
   const L3Adjacency* const l3Adj = held.record->l3Adj().get();
   return intent.intoFec && l3Adj && l3Adj->extFecInfo() == held.fec &&
          l3Adj->lFibViaSetKey() == intent.viaSetKey && fecs_.isAsWanted( intent.fec, *l3Adj );
}

// --- What leads out.

LabelStates::Ways LabelStates::waysOf( const Held& held ) const {
   if ( held.l2Adjacency ) {
      return waysOfL2( *held.l2Adjacency );
   }
   if ( held.fec == nullptr ) {
      return Ways::none;
   }
   const FecId fecId = held.fec->fecId();
   const AdjHwState state = reported( fecId );
   if ( state == AdjHwState::down ) {
      return Ways::none;
   }
   // A change of another agent's FEC may have to wait; hardware keeps the former content meanwhile.
   const bool waits = !fecId.ofLabelViaSet() && insight_ && insight_->fecRefusal( fecId );
   if ( waits || fecs_.behind( fecId ) ) {
      return Ways::some;
   }
   const Ways ways = waysOfFec( fecId );
   return state == AdjHwState::backupActive ? std::min( ways, Ways::some ) : ways;
}

LabelStates::Ways LabelStates::waysOfL2( const Mpls::Hardware::L2Adjacency& adjacency ) const {
   const std::vector< L2Via >& vias = adjacency.l2ViaSet().l2Via();
   const auto up =
      std::ranges::count_if( vias, [&]( const L2Via& via ) { return linkUp( via.intf ); } );
   return up == 0 ? Ways::none : up < std::ssize( vias ) ? Ways::some : Ways::all;
}

LabelStates::Ways LabelStates::waysOfFec( FecId fecId ) const {
   if ( !fecId.ofLabelViaSet() ) { // the FEC's owner answers for the number of its ways
      const ForeignEnds ends = foreignWays_.read( FecId::fecIdToHierarchicalIntfId( fecId ) );
      return !ends.known || !ends.exits.empty() ? Ways::all : Ways::none;
   }
   const Fec* const content = fecs_.requested( fecId );
   if ( content == nullptr ) {
      return Ways::none;
   }
   if ( const Ways ways = waysOfVias( content->via, content->primaryVia().size() );
        ways != Ways::none ) {
      return ways;
   }
   const FecId backup = content->backupFecId;
   if ( !fecs_.answered( backup ) || reported( backup ) == AdjHwState::down ) {
      return Ways::none;
   }
   const Fec* const other = fecs_.requested( backup );
   const bool leads =
      fecs_.behind( backup ) ||
      ( other && waysOfVias( other->via, other->primaryVia().size() ) != Ways::none );
   return leads ? Ways::some : Ways::none;
}

LabelStates::Ways LabelStates::waysOfVias( const std::vector< FecVia >& vias, size_t count ) const {
   size_t open = 0;
   for ( size_t i = 0; i < count; ++i ) {
      open += leadsOut( vias[i] );
   }
   return open == 0 ? Ways::none : open < count ? Ways::some : Ways::all;
}

bool LabelStates::leadsOut( const FecVia& via ) const {
   if ( via.drop ) {
      return false;
   }
   if ( ForeignWays::leadsElsewhere( via.intf ) ) {
      const ForeignEnds ends = foreignWays_.read( via.intf );
      return !ends.known || !ends.exits.empty();
   }
   // Hardware resolves the next hops of FECs by itself.
   if ( const auto info =
           insight_ ? insight_->neighbor( { via.intf, via.nextHop } ) : std::nullopt ) {
      return info->resolved && linkUp( via.intf.empty() ? info->l2Intf : via.intf );
   }
   nextHops_.read( via.nextHop, via.intf, ways_ );
   return std::ranges::any_of( ways_, [&]( const WayOut& way ) { return linkUp( way.intf ); } );
}

AdjHwState LabelStates::reported( FecId fecId ) const {
   return adjHwStatus_ ? fecs_.believed( adjHwStatus_->adjHwState( { vrfId_, fecId } ), fecId )
                       : AdjHwState::unknown;
}

} // namespace Vel::Inspect
