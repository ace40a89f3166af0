// Random LFIB, next-hop and scheduling events; then what the software switch holds must equal what
// a naive function of the inputs says, the records must keep their invariants, and a frame with
// each label must leave as the LFIB says.
//
// The naive function knows no history. What the state machine keeps deliberately (a via set that
// stops being usable leaves its adjacency as it was) is therefore not asked of the routes
// concerned, until the via set is usable again.

#include <gtest/gtest.h>

#include <algorithm>
#include <optional>
#include <random>
#include <set>
#include <tuple>

#include "tests/LabelRig.h"
#include "tests/model/Churn.h"

namespace Vel::Test {
namespace {

constexpr U32 firstLabel = 16;
constexpr U32 labels = 40;
constexpr U32 viaSets = 10;
constexpr U32 viasPerSet = 3;
constexpr U32 nextHops = 6;

/// One via as the test wants it: next hop number, and what is wrong with it, if anything.
struct WantedVia {
   U32 nextHop = 0;
   U32 outLabel = 0;
   bool pop = false;
   bool byResolver = false; ///< no interface
   enum class Fault { none, twoLabels, noNextHop, missing } fault = Fault::none;
};

struct WantedViaSet {
   bool there = false;
   bool mixed = false; ///< a via reference of another type
   std::vector< WantedVia > vias;
   bool maybeProgrammed = false; ///< it was usable, and has not been seen to be given up since

   bool sane() const { return there && !mixed && !vias.empty(); }
   bool usable() const {
      return sane() && std::all_of( vias.begin(), vias.end(), []( const WantedVia& via ) {
                return via.fault == WantedVia::Fault::none;
             } );
   }
   /// Routes keep what they had, if they had anything.
   bool tainted() const { return sane() && !usable() && maybeProgrammed; }
};

class Model {
 public:
   explicit Model( U64 seed )
      : random_( seed ), wanted_( viaSets ), routes_( labels ), up_( nextHops ) {
      if ( below( 2 ) ) {
         rig.scheduler->maxQueriesPerRunIs( 1 + below( 20 ) );
      }
      rig.scheduler->timeSliceIs( 1e9 );
   }

   void randomEvent() {
      switch ( below( 12 ) ) {
      case 0:
      case 1:
      case 2:
         changeRoute();
         break;
      case 3:
      case 4:
         changeViaSet();
         break;
      case 5:
      case 6:
         changeNeighbor( below( nextHops ), below( 3 ) != 0 );
         break;
      case 7:
         changeNeighborMac( below( nextHops ) );
         break;
      case 8:
         rig.poll();
         break;
      case 9:
         rig.lfib->poll( 1 + below( 5 ) );
         break;
      case 10:
         runALittle();
         break;
      case 11:
         if ( below( 10 ) == 0 ) {
            routing_ = !routing_;
            rig.routingInfo->mplsRoutingIs( rig.vrf, routing_ );
         }
         break;
      }
   }

   void settleAndCheck() {
      rig.settle( 5.0 );
      ASSERT_TRUE( rig.hardware->idle() );
      checkInvariants();
      for ( U32 i = 0; i < labels; ++i ) {
         checkLabel( i );
         maybeProgrammed_[i] = routes_[i].has_value();
      }
      for ( WantedViaSet& want : wanted_ ) {
         want.maybeProgrammed = want.maybeProgrammed && want.sane();
      }
   }

   /// Takes everything away and expects nothing to be left.
   void clearAndCheck() {
      for ( U32 i = 0; i < labels; ++i ) {
         rig.routeDel( firstLabel + i );
      }
      rig.settle( 5.0 );
      EXPECT_EQ( rig.hardware->routes(), 0U );
      EXPECT_EQ( rig.hardware->adjacencies(), 0U );
      EXPECT_EQ( rig.state(), nullptr );
      EXPECT_EQ( rig.l3.arp->entrys(), 0U );
      EXPECT_EQ( rig.l3.rr->watchedAddrs(), 0U );
      EXPECT_EQ( rig.hwMplsStatus->adjacencys(), 0U );
      EXPECT_EQ( rig.hwMplsStatus->l2Adjacencys(), 0U );
      EXPECT_EQ( rig.hwMplsStatus->routes(), 0U );
      EXPECT_EQ( rig.lfibHwStatus->unprogrammedRoutes(), 0U );
      EXPECT_EQ( rig.sm->viaSetToHwL2Adjs(), 0U );
   }

   LabelRig rig;

 private:
   using WayOut = std::tuple< IntfId, MacAddr, MplsLabelAction, Mpls::LabelStack >;

   U32 below( U32 limit ) { return static_cast< U32 >( random_() % limit ); }

   // --- Events

   void changeRoute() {
      const U32 i = below( labels );
      if ( routes_[i] && below( 3 ) == 0 ) {
         routes_[i].reset();
         rig.routeDel( firstLabel + i );
         return;
      }
      const U32 viaSet = below( viaSets + 1 );
      if ( viaSet == viaSets ) { // a route that another state machine handles
         routes_[i] = viaSets;
         rig.routeIs( key( firstLabel + i ), viaSetKey( 1, Mpls::viaTypeVlan ) );
         return;
      }
      // A route that has been programmed keeps what it has while its new via set is missing or
      // unusable.
      if ( maybeProgrammed_[i] && !wanted_[viaSet].usable() ) {
         return;
      }
      routes_[i] = viaSet;
      maybeProgrammed_[i] = true;
      rig.routeIs( firstLabel + i, viaSet + 1 );
   }

   WantedVia randomVia( bool maybeFaulty ) {
      WantedVia via{ below( nextHops ), 100 + below( 3 ), below( 4 ) == 0, below( 3 ) == 0 };
      if ( maybeFaulty && below( 6 ) == 0 ) {
         via.fault = static_cast< WantedVia::Fault >( 1 + below( 3 ) );
      }
      return via;
   }

   void changeViaSet() {
      const U32 i = below( viaSets );
      WantedViaSet next;
      next.there = true;
      next.mixed = below( 12 ) == 0;
      for ( U32 v = below( 8 ) == 0 ? 0 : 1 + below( viasPerSet ); v > 0; --v ) {
         next.vias.push_back( randomVia( true ) );
      }
      next.maybeProgrammed = next.usable() || wanted_[i].maybeProgrammed;
      wanted_[i] = next;
      writeViaSet( i );
   }

   void writeViaSet( U32 i ) {
      const WantedViaSet& want = wanted_[i];
      Mpls::LfibViaSet viaSet( viaSetKey( i + 1 ) );
      for ( U32 v = 0; v < want.vias.size(); ++v ) {
         const Mpls::LfibMplsVia via = viaOf( i, v );
         if ( want.vias[v].fault == WantedVia::Fault::missing ) {
            rig.writer.viaDel( via.key );
         } else {
            rig.writer.mplsViaIs( via );
         }
         viaSet.viaKeyAdd( via.key );
      }
      if ( want.mixed ) {
         viaSet.viaKeyAdd( viaKey( 1, Mpls::viaTypeVlan ) );
      }
      rig.writer.viaSetIs( viaSet );
   }

   Mpls::LfibMplsVia viaOf( U32 viaSet, U32 v ) const {
      const WantedVia& want = wanted_[viaSet].vias[v];
      Mpls::LfibMplsVia via =
         swapVia( viaSet * viasPerSet + v + 1, addressOf( want.nextHop ),
                  want.byResolver ? 0 : intfOf( want.nextHop ), want.outLabel );
      if ( want.pop ) {
         via.labelAction = MplsLabelAction::pop;
         via.labelStack = {};
      }
      if ( want.fault == WantedVia::Fault::twoLabels ) {
         via.labelStack = { 100, 101 };
      } else if ( want.fault == WantedVia::Fault::noNextHop ) {
         via.nextHop = IpGenAddr();
      }
      return via;
   }

   static std::string addressOf( U32 nextHop ) {
      return ( nextHop % 2 ? "fe80::" : "10.0.0." ) + std::to_string( nextHop + 1 );
   }
   static U32 intfOf( U32 nextHop ) { return 1 + nextHop % 3; }

   void changeNeighbor( U32 nextHop, bool up ) {
      up_[nextHop] = up;
      if ( up ) {
         rig.l3.neighborIs( addressOf( nextHop ), intfOf( nextHop ), macs_[nextHop] );
      } else {
         rig.l3.neighborDel( addressOf( nextHop ), intfOf( nextHop ) );
      }
   }
   void changeNeighborMac( U32 nextHop ) {
      macs_[nextHop] = 0x020000000000 + below( 4 ); // few, so that ways out coincide
      if ( up_[nextHop] ) {
         changeNeighbor( nextHop, true );
      }
   }
   void runALittle() {
      rig.clock->advance( 0.0005 * below( 5 ) );
      rig.scheduler->runDue( 1 + below( 4 ) );
   }

   // --- The naive function

   std::set< WayOut > waysOutOf( U32 viaSet ) const {
      std::set< WayOut > ways;
      for ( U32 v = 0; v < wanted_[viaSet].vias.size(); ++v ) {
         const WantedVia& want = wanted_[viaSet].vias[v];
         if ( up_[want.nextHop] ) {
            const Mpls::LfibMplsVia via = viaOf( viaSet, v );
            ways.emplace( IntfId::ordinary( intfOf( want.nextHop ) ),
                          MacAddr( macs_[want.nextHop] ), via.labelAction, via.labelStack );
         }
      }
      return ways;
   }
   bool someViaDown( U32 viaSet ) const {
      return std::any_of( wanted_[viaSet].vias.begin(), wanted_[viaSet].vias.end(),
                          [&]( const WantedVia& via ) { return !up_[via.nextHop]; } );
   }

   // --- Checks

   void checkLabel( U32 i ) {
      SCOPED_TRACE( "label " + std::to_string( firstLabel + i ) );
      const Driver::HwRoute* const held =
         rig.hardware->route( LabelRig::vrfId, key( firstLabel + i ) );
      const auto published = rig.published( firstLabel + i );
      const bool accepted = routing_ && routes_[i] && *routes_[i] < viaSets;
      if ( !accepted || ( wanted_[*routes_[i]].there && !wanted_[*routes_[i]].sane() ) ) {
         EXPECT_EQ( held, nullptr );
         EXPECT_FALSE( published );
         EXPECT_EQ( rig.route( firstLabel + i ), nullptr );
         return;
      }
      const WantedViaSet& want = wanted_[*routes_[i]];
      if ( want.tainted() ) {
         return;
      }
      const std::set< WayOut > ways =
         want.usable() ? waysOutOf( *routes_[i] ) : std::set< WayOut >();
      if ( ways.empty() ) {
         EXPECT_EQ( held, nullptr );
         if ( want.there ) {
            EXPECT_EQ( published, Mpls::RouteStatusCode::notProgrammed );
         }
         return;
      }
      ASSERT_NE( held, nullptr );
      std::set< WayOut > heldWays;
      for ( const Mpls::Hardware::L2Via& via : held->adjacency->l2Via() ) {
         heldWays.emplace( via.intf, via.macAddr, via.labelAction, via.labelStack );
      }
      EXPECT_EQ( heldWays, ways );
      EXPECT_EQ( published, someViaDown( *routes_[i] ) ? Mpls::RouteStatusCode::partiallyProgrammed
                                                       : Mpls::RouteStatusCode::programmed );
      checkFrame( firstLabel + i, ways );
   }

   void checkFrame( U32 label, const std::set< WayOut >& ways ) {
      const Driver::ForwardResult result =
         rig.hardware->forward( LabelRig::vrfId, frameOf( label ) );
      ASSERT_EQ( result.frames.size(), 1U ) << result.text;
      const Driver::OutgoingFrame& out = result.frames[0];
      const bool popped = out.bytes[12] == 0x08;
      const U32 outLabel = static_cast< U32 >( out.bytes[14] ) << 12 |
                           static_cast< U32 >( out.bytes[15] ) << 4 | out.bytes[16] >> 4;
      U64 mac = 0;
      for ( size_t byte = 0; byte < 6; ++byte ) {
         mac = mac << 8 | out.bytes[byte];
      }
      const WayOut way =
         popped ? WayOut( out.intf, MacAddr( mac ), MplsLabelAction::pop, {} )
                : WayOut( out.intf, MacAddr( mac ), MplsLabelAction::swap, { outLabel } );
      EXPECT_TRUE( ways.contains( way ) ) << "left with label " << outLabel;
   }

   void checkInvariants() {
      VrfMplsState* const state = rig.state();
      if ( state == nullptr ) {
         return;
      }
      EXPECT_TRUE( state->l3AdjForReview().empty() );
      EXPECT_TRUE( state->l2AdjForReview().empty() );
      EXPECT_TRUE( state->l2AdjPendingForDelete().empty() );
      EXPECT_TRUE( state->routeKeyForReview().empty() );
      EXPECT_TRUE( state->routeKeyForPublish().empty() );
      size_t routesOfL3 = 0;
      for ( const auto& [index, l3Adj] : state->l3Adjacency() ) {
         EXPECT_EQ( state->lFibViaSetToL3Adj( l3Adj->lFibViaSetKey() ), index );
         EXPECT_NE( l3Adj->routeKeys(), 0U );
         for ( const Mpls::RouteKey routeKey : l3Adj->routeKey() ) {
            EXPECT_EQ( state->route( routeKey )->l3Adj(), l3Adj.get() );
            ++routesOfL3;
         }
         for ( const IpAddrIntfId& nextHop : l3Adj->nextHop() ) {
            const MplsNextHop* const record = state->mplsNextHop( nextHop );
            ASSERT_NE( record, nullptr );
            EXPECT_TRUE( nextHop.l3Intf.empty() ? record->resolvedByRRHas( l3Adj.get() )
                                                : record->resolvedByMNHHas( l3Adj.get() ) );
         }
      }
      EXPECT_EQ( state->lFibViaSetToL3Adjs(), state->l3Adjacencys() );
      size_t bound = 0;
      for ( const auto& [routeKey, route] : state->route() ) {
         bound += route->l3Adj() ? 1 : 0;
      }
      EXPECT_EQ( bound, routesOfL3 );
      for ( const auto& [index, l2Adj] : state->l2Adjacency() ) {
         EXPECT_NE( l2Adj->l3Adjacencys(), 0U );
         for ( const L3Adjacency* const l3Adj : l2Adj->l3Adjacency() ) {
            EXPECT_EQ( l3Adj->l2Adjacency(), l2Adj.get() );
         }
         for ( const Mpls::RouteKey routeKey : l2Adj->routeKey() ) {
            EXPECT_EQ( state->route( routeKey )->l2Adj(), l2Adj.get() );
         }
      }
      EXPECT_EQ( rig.sm->viaSetToHwL2Adjs(), state->l2Adjacencys() );
      EXPECT_EQ( rig.config()->l2Adjacencys(), state->l2Adjacencys() );
      size_t watched = 0;
      for ( const auto& [nextHop, record] : state->mplsNextHop() ) {
         EXPECT_NE( record->resolvedByRRs() + record->resolvedByMNHs(), 0U );
         watched += nextHop.l3Intf.empty() ? 0 : 1;
      }
      EXPECT_EQ( rig.l3.arp->entrys(), watched );
      EXPECT_EQ( rig.l3.rr->watchedAddrs() + rig.l3.rr6->watchedIp6Addrs() + watched,
                 state->mplsNextHops() );
   }

   std::mt19937_64 random_;
   std::vector< WantedViaSet > wanted_;
   std::vector< std::optional< U32 > > routes_; // the via set; viaSets for one of another kind
   std::vector< bool > maybeProgrammed_ = std::vector< bool >( labels );
   std::vector< bool > up_;
   std::vector< U64 > macs_ = std::vector< U64 >( nextHops, 0x020000000000 );
   bool routing_ = true;
};

TEST( ForwardingModel, hardwareHoldsWhatTheInputsSay ) {
   churn< Model >( 40 );
}

} // namespace
} // namespace Vel::Test
