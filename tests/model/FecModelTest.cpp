// Random churn on hardware with FECs: via sets of every kind, backups in and out of order, FECs of
// other agents, links and neighbours that come and go. Then the records, the requests, the answers
// and the numbers in use must agree with each other, a frame must leave as the inputs say, and in
// the end nothing may be left.
//
// Protection that is not in order (a backup with a backup, two that protect each other) settles in
// a state that depends on what came first; of such labels only the records are asked.

#include <gtest/gtest.h>

#include <algorithm>
#include <optional>
#include <random>
#include <set>

#include "tests/LabelRig.h"
#include "tests/model/Churn.h"

namespace Vel::Test {
namespace {

constexpr U32 firstLabel = 16;
constexpr U32 labels = 30;
constexpr U32 viaSets = 8; // MPLS over IP, numbered from 1
constexpr U32 extFecs = 3; // external-FEC via sets, numbered from 1, as the FECs that they name
constexpr U32 links = 4;   // numbered from 1; one neighbour of each family on each
constexpr U32 maxVias = 3;

Fib::FecId extFecId( U32 number ) {
   return Fib::FecId( U64{ 7 } << 56 | number );
}
Fib::FecId groupId( U32 number ) {
   return Fib::FecId::fecIdForAdjType( Fib::AdjType::nexthopGroupAdj, number );
}
IntfId tunnelIntf() {
   return { IntfId::Kind::dynamicTunnel, 1 };
}

struct WantedVia {
   U32 link = 1;
   U32 outLabel = 0; ///< 0: pop
   bool v6 = false;
};

struct WantedViaSet {
   enum class Kind { none, nextHops, group, tunnel } kind = Kind::none;
   std::vector< WantedVia > vias;
   U32 backup = 0;
   bool usable = true;
};

class FecModel {
 public:
   explicit FecModel( U64 seed ) : random_( seed ) {
      if ( below( 2 ) ) {
         rig.scheduler->maxQueriesPerRunIs( 1 + below( 20 ) );
      }
      rig.scheduler->timeSliceIs( 1e9 );
      for ( U32 link = 1; link <= links; ++link ) {
         neighborsAre( link, true );
      }
      rig.hardware->fecUnit()->tunnelIs( tunnelIntf(), { foreignVia( 4 ) } );
   }

   void randomEvent() {
      switch ( below( 11 ) ) {
      case 0:
      case 1:
      case 2:
         changeRoute();
         break;
      case 3:
      case 4:
      case 5:
         changeViaSet( 1 + below( viaSets ) );
         break;
      case 6:
         neighborsAre( 1 + below( links ), below( 3 ) != 0 );
         break;
      case 7:
         linkIs( 1 + below( links ), below( 2 ) != 0 );
         break;
      case 8:
         changeForeign();
         break;
      case 9:
         rig.lfib->poll( 1 + below( 5 ) );
         break;
      case 10:
         rig.clock->advance( 0.0005 * below( 5 ) );
         rig.scheduler->runDue( 1 + below( 4 ) );
         break;
      }
   }

   void settleAndCheck() {
      rig.settle( 30 );
      ASSERT_TRUE( rig.hardware->idle() );
      checkRecords();
      for ( U32 i = 0; i < labels; ++i ) {
         checkLabel( i );
      }
   }

   void clearAndCheck() {
      for ( U32 i = 0; i < labels; ++i ) {
         rig.routeDel( firstLabel + i );
         rig.writer.routeDel( key( firstLabel + i ) );
      }
      rig.settle( 30 );
      EXPECT_EQ( rig.state(), nullptr );
      EXPECT_EQ( rig.hardware->routes(), 0U );
      EXPECT_EQ( rig.hardware->fecUnit()->fecs(), 0U );
      EXPECT_EQ( rig.sm->numAllocator()->status()->numberInUses(), 0U );
      EXPECT_EQ( rig.fecRequest->hwFecIdRequests(), 0U );
      EXPECT_EQ( rig.fecRequest->fecs() + rig.fecRequest->fec6s(), 0U );
      EXPECT_EQ( rig.fecResponse->hwFecIds(), 0U );
      EXPECT_EQ( rig.l3Status->adjHwStatus()->adjHwStates(), 0U );
      EXPECT_EQ( rig.hwMplsStatus->adjacencyBackupStatuss(), 0U );
      EXPECT_EQ( rig.hwMplsStatus->adjacencys() + rig.hwMplsStatus->l2Adjacencys(), 0U );
      EXPECT_EQ( rig.l3.arp->entrys(), 0U );
      EXPECT_EQ( rig.lfibHwStatus->viaSets(), 0U );
   }

   LabelRig rig{ { .withFecs = true } };

 private:
   U32 below( U32 limit ) { return static_cast< U32 >( random_() % limit ); }

   static std::string addressOf( U32 link, bool v6 ) {
      return joinText( v6 ? "fe80::" : "10.0.0.", link );
   }
   static Fib::FecVia foreignVia( U32 link ) {
      Fib::FecVia via;
      via.nextHop = ip( addressOf( link, false ) );
      via.intf = IntfId::ordinary( link );
      via.labelAction = MplsLabelAction::push;
      via.labelStack = { 900 + link };
      return via;
   }

   // --- Events

   void changeRoute() {
      const U32 i = below( labels );
      if ( below( 4 ) == 0 ) {
         routes_[i].reset();
         rig.routeDel( firstLabel + i );
         return;
      }
      if ( below( 5 ) == 0 ) {
         const U32 number = 1 + below( extFecs );
         routes_[i] = Route{ true, number };
         writeExtFecViaSet( number );
         rig.routeIs( key( firstLabel + i ), viaSetKey( number, Mpls::viaTypeExternalFec ) );
         return;
      }
      const U32 viaSet = 1 + below( viaSets );
      if ( wanted( viaSet ).kind == WantedViaSet::Kind::none ) {
         changeViaSet( viaSet );
      }
      routes_[i] = Route{ false, viaSet };
      rig.routeIs( firstLabel + i, viaSet );
   }

   void writeExtFecViaSet( U32 number ) {
      const Mpls::LfibViaKey via = viaKey( number, Mpls::viaTypeExternalFec );
      rig.writer.extFecViaIs( { via, extFecId( number ) } );
      Mpls::LfibViaSet viaSet( viaSetKey( number, Mpls::viaTypeExternalFec ) );
      viaSet.viaKeyAdd( via );
      rig.writer.viaSetIs( viaSet );
   }

   void changeViaSet( U32 number ) {
      WantedViaSet next;
      next.kind = static_cast< WantedViaSet::Kind >( below( 5 ) == 0 ? 2 + below( 2 ) : 1 );
      const bool v6 = below( 3 ) == 0;
      for ( U32 i = 1 + ( next.kind == WantedViaSet::Kind::nextHops ? below( maxVias ) : 0 ); i > 0;
            --i ) {
         next.vias.push_back( { 1 + below( links ), below( 3 ) == 0 ? 0 : 100 + below( 3 ), v6 } );
      }
      next.backup = below( 2 ) == 0 ? 1 + below( viaSets ) : 0;
      next.usable = below( 8 ) != 0;
      wanted( number ) = next;
      Mpls::LfibViaSet viaSet( viaSetKey( number ) );
      viaSet.usableAsPrimaryViasIs( next.usable );
      if ( next.backup != 0 ) {
         viaSet.backupViaSetKeyIs( viaSetKey( next.backup ) );
      }
      for ( U32 i = 0; i < next.vias.size(); ++i ) {
         const Mpls::LfibMplsVia via = viaOf( number, next, i );
         rig.writer.mplsViaIs( via );
         viaSet.viaKeyAdd( via.key );
      }
      rig.writer.viaSetIs( viaSet );
   }

   static Mpls::LfibMplsVia viaOf( U32 number, const WantedViaSet& set, U32 i ) {
      const WantedVia& want = set.vias[i];
      Mpls::LfibMplsVia via =
         swapVia( number * maxVias + i, addressOf( want.link, want.v6 ), want.link, want.outLabel );
      if ( want.outLabel == 0 && set.kind == WantedViaSet::Kind::nextHops ) {
         via.labelAction = MplsLabelAction::pop;
         via.labelStack = {};
      }
      if ( set.kind != WantedViaSet::Kind::nextHops ) {
         via.nextHop = {};
         via.labelStack = { 100 };
         via.intf = set.kind == WantedViaSet::Kind::tunnel
                       ? tunnelIntf()
                       : Fib::FecId::fecIdToNexthopGroupIntfId( groupId( 1 ) );
      }
      return via;
   }

   void neighborsAre( U32 link, bool there ) {
      neighbor_[link] = there;
      for ( const bool v6 : { false, true } ) {
         if ( there ) {
            rig.l3.neighborIs( addressOf( link, v6 ), link, 0x020000000000 + link );
         } else {
            rig.l3.neighborDel( addressOf( link, v6 ), link );
         }
      }
      rig.hardware->fecUnit()->reportStates();
   }
   void linkIs( U32 link, bool up ) {
      up_[link] = up;
      rig.hardware->linkIs( IntfId::ordinary( link ), up );
   }
   void changeForeign() {
      Driver::FecUnit& fecs = *rig.hardware->fecUnit();
      const U32 number = below( extFecs + 1 );
      const Fib::FecId fecId = number == 0 ? groupId( 1 ) : extFecId( number );
      foreign_[number] = below( 3 ) == 0 ? 0 : 1 + below( links );
      if ( foreign_[number] == 0 ) {
         fecs.foreignFecDel( fecId );
      } else {
         fecs.foreignFecIs( fecId, { foreignVia( foreign_[number] ) } );
      }
   }

   // --- The naive function

   struct Route {
      bool external = false;
      U32 viaSet = 0;
   };
   WantedViaSet& wanted( U32 number ) { return wanted_[number]; }
   bool out( U32 link ) const { return link != 0 && up_[link] && neighbor_[link]; }

   /// Where frames may leave by the via set's own vias, as "link/label"; 0 is no label.
   std::set< std::string > waysOf( const WantedViaSet& set ) const {
      std::set< std::string > ways;
      const auto add = [&]( U32 link, U32 label ) {
         if ( out( link ) ) {
            ways.insert( joinText( link, "/", label ) );
         }
      };
      switch ( set.kind ) {
      case WantedViaSet::Kind::none:
         break;
      case WantedViaSet::Kind::nextHops:
         for ( const WantedVia& via : set.vias ) {
            add( via.link, via.outLabel );
         }
         break;
      case WantedViaSet::Kind::group:
         add( foreign_[0], 900 + foreign_[0] );
         break;
      case WantedViaSet::Kind::tunnel:
         add( 4, 904 );
         break;
      }
      return ways;
   }

   /// What the protection of the via set comes to does not depend on what came first.
   bool inOrder( U32 number ) const {
      const WantedViaSet& set = wanted_[number];
      if ( set.backup == 0 ) {
         return true;
      }
      const WantedViaSet& backup = wanted_[set.backup];
      const bool isBackup =
         std::any_of( wanted_.begin() + 1, wanted_.end(),
                      [&]( const auto& other ) { return other.backup == number; } );
      return set.backup != number && !isBackup && backup.backup == 0 &&
             backup.kind != WantedViaSet::Kind::none;
   }

   // --- Checks

   std::string describe( const Route& route ) const {
      if ( route.external ) {
         return joinText( "external ", route.viaSet, " link ", foreign_[route.viaSet] );
      }
      std::string text;
      for ( U32 number = route.viaSet; number != 0 && text.size() < 200;
            number = wanted_[number].backup ) {
         const WantedViaSet& set = wanted_[number];
         text += joinText( "via set ", number, " kind ", static_cast< U32 >( set.kind ), " usable ",
                           set.usable, " backup ", set.backup, ":" );
         for ( const WantedVia& via : set.vias ) {
            text += joinText( " ", via.link, "/", via.outLabel, via.v6 ? " v6" : "" );
         }
         text += "; ";
      }
      return text;
   }
   void checkLabel( U32 i ) {
      SCOPED_TRACE( joinText( "label ", firstLabel + i ) );
      const std::string left = rig.leavesBy( firstLabel + i );
      if ( !routes_[i] ) {
         EXPECT_EQ( left, "" );
         EXPECT_FALSE( rig.published( firstLabel + i ) );
         return;
      }
      if ( const MplsRoute* const route = rig.route( firstLabel + i );
           route && route->extFecInfo() && route->l3Adj() &&
           route->extFecInfo() != route->l3Adj()->extFecInfo() ) {
         return; // it stays where it was while the FEC that it is to go to is not there
      }
      std::set< std::string > ways;
      if ( routes_[i]->external ) {
         const U32 link = foreign_[routes_[i]->viaSet];
         if ( out( link ) ) {
            ways.insert( joinText( link, "/", 900 + link ) );
         }
      } else {
         const WantedViaSet& set = wanted( routes_[i]->viaSet );
         if ( !inOrder( routes_[i]->viaSet ) ) {
            return;
         }
         if ( set.usable ) {
            ways = waysOf( set );
         }
         // A next-hop group is its owner's and is protected by nobody else, and as a backup it has
         // no FEC id of ours to be named by.
         const WantedViaSet& backup = wanted( set.backup );
         if ( ways.empty() && set.kind != WantedViaSet::Kind::group && set.backup != 0 &&
              backup.kind != WantedViaSet::Kind::group && backup.usable ) {
            ways = waysOf( backup );
         }
         if ( set.kind == WantedViaSet::Kind::group && !set.usable ) {
            return; // whether its vias are used is the owner's affair
         }
      }
      if ( ways.empty() ) {
         EXPECT_EQ( left, "" ) << describe( *routes_[i] );
      } else {
         EXPECT_TRUE( ways.contains( left ) )
            << "left as \"" << left << "\" and not as " << *ways.begin();
      }
   }

   void checkRecords() {
      VrfMplsState* const state = rig.state();
      if ( state == nullptr ) {
         return;
      }
      EXPECT_TRUE( state->l3AdjForReview().empty() );
      EXPECT_TRUE( state->routeKeyForReview().empty() );
      EXPECT_TRUE( state->l2AdjForReview().empty() );
      EXPECT_TRUE( state->l2AdjPendingForDelete().empty() );
      size_t ours = 0;
      for ( const auto& [fecId, info] : state->extFecInfo() ) {
         SCOPED_TRACE( joinText( "FEC ", fecId ) );
         ours += fecId.adjType() == Fib::AdjType::mplsV4Adj ||
                 fecId.adjType() == Fib::AdjType::mplsV6Adj;
         checkFec( *state, fecId, *info );
      }
      EXPECT_EQ( rig.sm->numAllocator()->status()->numberInUses(), ours );
      EXPECT_LE( state->lFibViaSetToFecIds(), ours ); // routes may still be on an older one
      EXPECT_EQ( rig.fecRequest->hwFecIdRequests(), state->extFecInfos() );
      EXPECT_EQ( rig.fecRequest->fecs() + rig.fecRequest->fec6s(), ours );
      for ( const auto& [index, l3Adj] : state->l3Adjacency() ) {
         checkProtection( *state, *l3Adj );
      }
   }

   void checkFec( const VrfMplsState& state, Fib::FecId fecId, const ExternalFecInfo& info ) {
      EXPECT_NE( info.dependentL3Adjacencys() + info.dependentRouteKeys() +
                    info.dependentPrimaryExtFecInfos(),
                 0U );
      EXPECT_EQ( info.hwId(), rig.fecResponse->hwFecId( fecId ).hwId );
      for ( const Mpls::RouteKey routeKey : info.dependentRouteKey() ) {
         EXPECT_EQ( state.route( routeKey )->extFecInfo().get(), &info );
      }
      for ( const L3Adjacency* const l3Adj : info.dependentL3Adjacency() ) {
         EXPECT_EQ( l3Adj->extFecInfo().get(), &info );
      }
      const ExternalFecInfo* const backup = info.backupExtFecInfo().get();
      const Fib::FecId requested = fecId.adjType() == Fib::AdjType::mplsV6Adj
                                      ? rig.fecRequest->fec6( fecId ).backupFecId
                                      : rig.fecRequest->fec( fecId ).backupFecId;
      EXPECT_EQ( requested, backup ? backup->fecId() : Fib::FecId() );
      if ( backup ) {
         EXPECT_TRUE(
            backup->dependentPrimaryExtFecInfoHas( const_cast< ExternalFecInfo* >( &info ) ) );
         EXPECT_EQ( backup->popLabelActionRemoved(), info.popLabelActionRemoved() );
      }
   }

   static void checkProtection( const VrfMplsState& state, const L3Adjacency& l3Adj ) {
      EXPECT_TRUE( l3Adj.used() );
      if ( const L3Adjacency* const backup = l3Adj.backupAdj().get() ) {
         EXPECT_TRUE( backup->primaryAdjHas( l3Adj.index() ) );
      }
      for ( const U64 primary : l3Adj.primaryAdj() ) {
         EXPECT_EQ( state.l3Adjacency( primary )->backupAdj().get(), &l3Adj );
      }
      if ( !l3Adj.backupAwaited().empty() ) {
         EXPECT_TRUE(
            state.waitsForBackup( l3Adj.backupAwaited() )->l3AdjacencyHas( l3Adj.index() ) );
      }
   }

   std::mt19937_64 random_;
   std::vector< WantedViaSet > wanted_ = std::vector< WantedViaSet >( viaSets + 1 );
   std::vector< std::optional< Route > > routes_ = std::vector< std::optional< Route > >( labels );
   std::vector< bool > neighbor_ = std::vector< bool >( links + 1 );
   std::vector< bool > up_ = std::vector< bool >( links + 1, true );
   std::vector< U32 > foreign_ = std::vector< U32 >( extFecs + 1 ); // the link; 0: not there
};

TEST( FecModel, recordsRequestsAndFramesAgree ) {
   churn< FecModel >( 60 );
}

} // namespace
} // namespace Vel::Test
