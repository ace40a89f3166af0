// The invariants of the records, see mpls/VelMplsRecords.h, and of the tables that they are written
// to.

#include "sim/Watch.h"

#include "platform/base/Text.h"

namespace Vel::Sim {

namespace {

template< class... Parts >
void expect( bool holds, const Parts&... parts ) {
   if ( !holds ) [[unlikely]] {
      throw Failure{ "records", joinText( parts... ) };
   }
}

template< class... Parts >
void expectNone( size_t count, const Parts&... parts ) {
   if ( count != 0 ) [[unlikely]] {
      throw Failure{ "left", joinText( count, " ", parts... ) };
   }
}

void checkRoutes( const World& world, const VrfMplsState& state ) {
   const MplsHwConfig& hwConfig = *world.entities().mplsHwConfig;
   for ( const auto& [key, route] : state.route() ) {
      if ( const L3Adjacency* const l3Adj = route->l3Adj().get() ) {
         expect( state.l3Adjacency( l3Adj->index() ) == l3Adj && l3Adj->routeKeyHas( key ),
                 "route ", key, " is not of its L3 adjacency ", l3Adj->index() );
      }
      if ( const MplsL2Adjacency* const l2Adj = route->l2Adj().get() ) {
         expect( state.l2Adjacency( l2Adj->index() ) == l2Adj && l2Adj->routeKeyHas( key ),
                 "route ", key, " is not of its L2 adjacency ", l2Adj->index() );
      }
      if ( const ExternalFecInfo* const info = route->extFecInfo().get() ) {
         expect( state.extFecInfo( info->fecId() ) == info && info->dependentRouteKeyHas( key ),
                 "route ", key, " is not of its FEC ", info->fecId() );
         for ( const auto& [vrfId, config] : hwConfig.vrfConfig() ) {
            expect( !config->routeHas( key ), "route ", key, " is in FEC ", info->fecId(),
                    " and in the configuration" );
         }
      }
   }
}

void checkL3Adjs( const World& world, const VrfMplsState& state ) {
   size_t named = 0;
   for ( const auto& [index, l3Adj] : state.l3Adjacency() ) {
      named += l3Adj->superseded() ? 0 : 1;
      expect( l3Adj->superseded() ? l3Adj->routeKeys() == 0
                                  : state.lFibViaSetToL3AdjHas( l3Adj->lFibViaSetKey() ) &&
                                       state.lFibViaSetToL3Adj( l3Adj->lFibViaSetKey() ) == index,
              "L3 adjacency ", index, " is not that of its via set" );
      expect( world.entities().routingHwMplsStatus->adjacency( index ) != nullptr, "L3 adjacency ",
              index, " has no hardware adjacency" );
      for ( const Mpls::RouteKey key : l3Adj->routeKey() ) {
         const MplsRoute* const route = state.route( key );
         expect( route && route->l3Adj() == l3Adj.get(), "L3 adjacency ", index, " has route ", key,
                 ", which is not its own" );
      }
      if ( const MplsL2Adjacency* const l2Adj = l3Adj->l2Adjacency().get() ) {
         expect( l2Adj->l3AdjacencyHas( l3Adj.get() ), "L3 adjacency ", index,
                 " is not of its L2 adjacency ", l2Adj->index() );
      }
      for ( const IpAddrIntfId& key : l3Adj->nextHop() ) {
         const MplsNextHop* const nextHop = state.mplsNextHop( key );
         expect( nextHop && ( key.l3Intf.empty() ? nextHop->resolvedByRRHas( l3Adj.get() )
                                                 : nextHop->resolvedByMNHHas( l3Adj.get() ) ),
                 "L3 adjacency ", index, " is not of its next hop ", textOf( key ) );
      }
      if ( const L3Adjacency* const backup = l3Adj->backupAdj().get() ) {
         expect( state.l3Adjacency( backup->index() ) == backup && backup->primaryAdjHas( index ),
                 "L3 adjacency ", index, " is not protected by its backup ", backup->index() );
      }
      for ( const U64 primary : l3Adj->primaryAdj() ) {
         expect( state.l3Adjacency( primary ) &&
                    state.l3Adjacency( primary )->backupAdj() == l3Adj.get(),
                 "L3 adjacency ", index, " does not protect ", primary );
      }
      if ( const ExternalFecInfo* const info = l3Adj->extFecInfo().get() ) {
         expect( info->dependentL3AdjacencyHas( l3Adj.get() ), "L3 adjacency ", index,
                 " is not of its FEC ", info->fecId() );
      }
   }
   expect( state.lFibViaSetToL3Adjs() == named, "via sets have ", state.lFibViaSetToL3Adjs(),
           " L3 adjacencies of ", named );
   expect( world.entities().routingHwMplsStatus->adjacencys() == state.l3Adjacencys(),
           "there are more hardware adjacencies than L3 adjacencies" );
}

void checkL2Adjs( const World& world, const VrfMplsState& state ) {
   size_t mapped = 0;
   for ( const auto& [index, l2Adj] : state.l2Adjacency() ) {
      for ( const L3Adjacency* const l3Adj : l2Adj->l3Adjacency() ) {
         expect( state.l3Adjacency( l3Adj->index() ) == l3Adj &&
                    l3Adj->l2Adjacency() == l2Adj.get(),
                 "L2 adjacency ", index, " has an L3 adjacency that is not its own" );
      }
      for ( const Mpls::RouteKey key : l2Adj->routeKey() ) {
         const MplsRoute* const route = state.route( key );
         expect( route && route->l2Adj() == l2Adj.get(), "L2 adjacency ", index, " has route ", key,
                 ", which is not its own" );
      }
      expect( l2Adj->l3Adjacencys() != 0 || state.l2AdjForReviewHas( index ) ||
                 state.l2AdjPendingForDeleteHas( index ),
              "L2 adjacency ", index, " is nobody's and nobody looks at it" );
      const auto& hwL2Adj = world.sm().viaSetToHwL2Adj( l2Adj->l2ViaSet() );
      mapped += hwL2Adj && hwL2Adj->index() == index;
      expect( l2Adj->l3Adjacencys() == 0 || ( hwL2Adj && hwL2Adj->index() == index ),
              "L2 adjacency ", index, " is not that of its via set" );
   }
   expect( world.sm().viaSetToHwL2Adjs() == mapped, "the map of L2 via sets names the dead" );
}

void checkFecs( const World& world, const VrfMplsState& state ) {
   if ( !world.entities().hwFecIdRequest ) {
      return;
   }
   const FecIdToHwFecIdRequest& request = *world.entities().hwFecIdRequest;
   for ( const auto& [fecId, info] : state.extFecInfo() ) {
      expect( info->dependentL3Adjacencys() + info->dependentRouteKeys() +
                    info->dependentPrimaryExtFecInfos() !=
                 0,
              "FEC ", fecId, " is nobody's" );
      expect( request.hwFecIdRequestHas( fecId ), "FEC ", fecId, " is not requested" );
      for ( const Mpls::RouteKey key : info->dependentRouteKey() ) {
         const MplsRoute* const route = state.route( key );
         expect( route && route->extFecInfo() == info.get(), "FEC ", fecId, " has route ", key,
                 ", which is not its own" );
      }
      for ( const L3Adjacency* const l3Adj : info->dependentL3Adjacency() ) {
         expect( state.l3Adjacency( l3Adj->index() ) == l3Adj && l3Adj->extFecInfo() == info.get(),
                 "FEC ", fecId, " has an L3 adjacency that is not its own" );
      }
      for ( const ExternalFecInfo* const primary : info->dependentPrimaryExtFecInfo() ) {
         expect( primary->backupExtFecInfo() == info.get() ||
                    primary->formerBackupHas( info.get() ),
                 "FEC ", fecId, " does not protect what it should" );
      }
      if ( const ExternalFecInfo* const backup = info->backupExtFecInfo().get() ) {
         expect( backup->dependentPrimaryExtFecInfoHas( info.get() ), "FEC ", fecId,
                 " is not protected by its backup" );
      }
   }
   expect( request.hwFecIdRequests() == state.extFecInfos(), "there are ",
           request.hwFecIdRequests(), " requests for ", state.extFecInfos(), " FECs" );
}

void checkWorkSets( const VrfMplsState& state ) {
   for ( const auto& [index, reason] : state.l3AdjForReview() ) {
      expect( state.l3Adjacency( index ) != nullptr, "l3AdjForReview names the dead: ", index );
   }
   for ( const U64 index : state.l2AdjForReview() ) {
      expect( state.l2Adjacency( index ) != nullptr, "l2AdjForReview names the dead: ", index );
   }
   for ( const U64 index : state.l2AdjPendingForDelete() ) {
      expect( state.l2Adjacency( index ) != nullptr,
              "l2AdjPendingForDelete names the dead: ", index );
   }
}

void checkCounts( const World& world, const VrfMplsState* state ) {
   const MplsSmCounters& counters = *world.sm().counters();
   const U64 handled =
      counters.routesAccepted() + counters.routesRemoved() + counters.routesIgnored();
   expect( counters.routesReceived() == handled, "of ", counters.routesReceived(),
           " routes received ", handled, " are accepted, removed or ignored" );
   size_t routes = 0;
   size_t adjacencies = 0;
   for ( const auto& [vrfId, status] : world.entities().mplsHwStatus->vrfStatus() ) {
      routes += status->unprogrammedRoutes();
      adjacencies += status->unprogrammedAdjacencys();
   }
   if ( state ) {
      expect( state->numUnprogrammedRoute() == routes, "numUnprogrammedRoute is ",
              state->numUnprogrammedRoute(), ", and ", routes, " are listed" );
      expect( state->numUnprogrammedAdj() == adjacencies, "numUnprogrammedAdj is ",
              state->numUnprogrammedAdj(), ", and ", adjacencies, " are listed" );
   }
}

} // namespace

void checkRecords( const World& world ) {
   const VrfMplsState* const state = world.state();
   checkCounts( world, state );
   if ( state == nullptr ) {
      return;
   }
   checkRoutes( world, *state );
   checkL3Adjs( world, *state );
   checkL2Adjs( world, *state );
   checkFecs( world, *state );
   checkWorkSets( *state );
}

void checkRecordsAtRest( const World& world ) {
   const VrfMplsState* const state = world.state();
   if ( !world.hardware().idle() ) { // slow hardware is busy with retries of what it refuses
      if ( world.inputs().clean() ) {
         throw Failure{ "rest", "the hardware is still at work" };
      }
      return;
   }
   const Inputs& inputs = world.inputs();
   const MplsHwVrfConfig* const config = world.entities().mplsHwConfig->vrfConfig( world.vrfId() );
   expect( config == nullptr || !inputs.clean() || config->mplsRouting() == inputs.routing,
           "label forwarding is configured as ", config && config->mplsRouting() );
   if ( state == nullptr ) {
      return;
   }
   expectNone( state->l3AdjForReviews(), "L3 adjacencies for review" );
   expectNone( state->l2AdjForReviews(), "L2 adjacencies for review" );
   expectNone( state->routeKeyForReviews(), "routes for review" );
   expectNone( state->routeKeyForPublishs(), "routes for publishing" );
   expectNone( world.sm().unreadRoutes() + world.sm().unreadViaSets(), "keys to be read again" );
   size_t watched = 0;
   for ( const auto& [key, nextHop] : state->mplsNextHop() ) {
      expect( nextHop->resolvedByRRs() + nextHop->resolvedByMNHs() != 0, "next hop ", textOf( key ),
              " is nobody's" );
      watched += key.l3Intf.empty() ? 0 : 1;
   }
   const L3Layer& l3 = world.l3();
   expect( l3.arp->entrys() == watched &&
              l3.resolver->watchedAddrs() + l3.resolver6->watchedIp6Addrs() + watched ==
                 state->mplsNextHops(),
           "what is watched is not what next hops are for" );
   if ( world.entities().hwFecIdRequest ) {
      size_t own = 0;
      for ( const auto& [fecId, info] : state->extFecInfo() ) {
         own += fecId.ofLabelViaSet();
         const HwFecId& answer = world.entities().hwFecIdResponse->hwFecId( fecId );
         expect( info->hwId() == answer.hwId && info->carriedOut() == answer.version, "FEC ", fecId,
                 " has not heard of its answer" );
      }
      expect( world.sm().numAllocator()->status()->numberInUses() == own, "there are ",
              world.sm().numAllocator()->status()->numberInUses(), " numbers for ", own, " FECs" );
   }
   if ( world.inputs().clean() && !world.scheduler().settled() ) {
      throw Failure{ "rest", "a task is still scheduled" };
   }
}

void checkNothingLeft( const World& world ) {
   const MplsSmInputs& in = world.entities();
   if ( world.state() ) {
      throw Failure{ "left", "the VRF's state" };
   }
   expectNone( world.hardware().entries().all(), "entries in hardware" );
   expectNone( world.sm().mplsIpRouteKeys(), "accepted routes" );
   expectNone( world.sm().viaSetToHwL2Adjs(), "L2 via sets" );
   expectNone( world.sm().staleRecoveredRoutes() + world.sm().recoveredRoutes(),
               "routes of before the restart" );
   expectNone( in.routingHwMplsStatus->adjacencys() + in.routingHwMplsStatus->l2Adjacencys() +
                  in.routingHwMplsStatus->routes() +
                  in.routingHwMplsStatus->adjacencyBackupStatuss(),
               "published adjacencies and routes" );
   expectNone( in.lfibHwStatus->unprogrammedRoutes() + in.lfibHwStatus->viaSets(),
               "published states" );
   expectNone( world.l3().arp->entrys() + world.l3().resolver->watchedAddrs() +
                  world.l3().resolver6->watchedIp6Addrs(),
               "watches" );
   for ( const auto& [vrfId, config] : in.mplsHwConfig->vrfConfig() ) {
      expectNone( config->routes() + config->l2Adjacencys(), "configured entries" );
   }
   for ( const auto& [vrfId, status] : in.mplsHwStatus->vrfStatus() ) {
      expectNone( status->routes() + status->l2Adjacencys() + status->unprogrammedRoutes() +
                     status->unprogrammedAdjacencys(),
                  "reported entries" );
   }
   if ( in.hwFecIdRequest ) {
      expectNone( in.hwFecIdRequest->hwFecIdRequests() + in.hwFecIdRequest->fecs() +
                     in.hwFecIdRequest->fec6s() + in.hwFecIdRequest->adjSyncIdMaps() +
                     in.hwFecIdRequest->mayReplaces(),
                  "requests" );
      expectNone( in.hwFecIdResponse->hwFecIds(), "answers" );
      expectNone( in.velL3Status->adjHwStatus()->adjHwStates(), "states of FECs" );
      expectNone( world.sm().numAllocator()->status()->numberInUses(), "FEC numbers in use" );
   }
   if ( !world.scheduler().settled() ) {
      throw Failure{ "rest", "a task is still scheduled" };
   }
}

} // namespace Vel::Sim
