// Hardware that forwards through FECs: requests, answers, changes in place, backups, and FECs of
// other agents.

#include <gtest/gtest.h>

#include "tests/LabelRig.h"

namespace Vel {
namespace {

using namespace Test;
using Mpls::RouteStatusCode;

constexpr U64 macOf( U32 intf ) {
   return 0x02'00'00'00'10'00 + intf;
}

Mpls::LfibMplsVia popVia( U32 index, std::string_view nextHop, U32 intf ) {
   Mpls::LfibMplsVia via = swapVia( index, nextHop, intf, 0 );
   via.labelAction = MplsLabelAction::pop;
   via.labelStack = {};
   via.payloadType = Mpls::PayloadType::ipv4;
   via.ttlMode = Mpls::TtlMode::uniform;
   return via;
}

class FecTest : public testing::Test {
 protected:
   explicit FecTest( RigSettings settings = { .withFecs = true } ) : rig( settings ) {
      for ( U32 intf = 1; intf <= 4; ++intf ) {
         rig.l3.neighborIs( nextHopOf( intf ), intf, macOf( intf ) );
      }
   }
   static std::string nextHopOf( U32 intf ) { return joinText( "10.0.", intf, ".2" ); }
   static Mpls::LfibMplsVia swapOut( U32 via, U32 intf, U32 label ) {
      return swapVia( via, nextHopOf( intf ), intf, label );
   }
   void viaSetIs( U32 index, const std::vector< Mpls::LfibMplsVia >& vias, U32 backup = 0,
                  bool usable = true ) {
      Mpls::LfibViaSet viaSet( viaSetKey( index ) );
      for ( const Mpls::LfibMplsVia& via : vias ) {
         rig.writer.mplsViaIs( via );
         viaSet.viaKeyAdd( via.key );
      }
      if ( backup != 0 ) {
         viaSet.backupViaSetKeyIs( viaSetKey( backup ) );
      }
      viaSet.usableAsPrimaryViasIs( usable );
      rig.writer.viaSetIs( viaSet );
   }
   void extFecViaSetIs( U32 index, const std::vector< Fib::FecId >& fecs ) {
      Mpls::LfibViaSet viaSet( viaSetKey( index, Mpls::viaTypeExternalFec ) );
      for ( U32 i = 0; i < fecs.size(); ++i ) {
         const Mpls::LfibViaKey key = viaKey( index * 10 + i, Mpls::viaTypeExternalFec );
         rig.writer.extFecViaIs( { key, fecs[i] } );
         viaSet.viaKeyAdd( key );
      }
      rig.writer.viaSetIs( viaSet );
   }
   /// What another agent has: out of the interface, with that operation.
   static std::vector< Fib::FecVia > out( U32 intf, U32 label,
                                          MplsLabelAction action = MplsLabelAction::push ) {
      return { { ip( nextHopOf( intf ) ), IntfId::ordinary( intf ), action, { label } } };
   }
   /// Where a frame with the label leaves and with which label: "intf2 label 17", or the reason for
   /// the drop.
   std::string forward( U32 label ) {
      const Driver::ForwardResult result =
         rig.hardware->forward( LabelRig::vrfId, frameOf( label ) );
      if ( result.frames.empty() ) {
         return result.text;
      }
      const Driver::OutgoingFrame& out = result.frames.front();
      if ( out.bytes[12] == 0x08 ) {
         return joinText( out.intf, " ip" );
      }
      return joinText( out.intf, " label ",
                       out.bytes[14] << 12 | out.bytes[15] << 4 | out.bytes[16] >> 4 );
   }
   /// Settles, and checks after every run of a task.
   template< class F >
   void settleWatching( const F& check ) {
      const double until = rig.clock->now() + 1.0;
      rig.poll();
      while ( true ) {
         check();
         if ( rig.scheduler->runOne() ) {
            continue;
         }
         if ( rig.scheduler->nextExpiry() > until ) {
            return;
         }
         rig.clock->nowIs( rig.scheduler->nextExpiry() );
      }
   }
   ExternalFecInfo* fecOf( U32 viaSet ) {
      L3Adjacency* const l3Adj = rig.l3Adj( viaSet );
      return l3Adj ? l3Adj->extFecInfo().get() : nullptr;
   }
   U64 numbersInUse() { return rig.sm->numAllocator()->status()->numberInUses(); }
   void expectNothingLeft() {
      EXPECT_EQ( rig.state(), nullptr );
      EXPECT_EQ( numbersInUse(), 0U );
      EXPECT_EQ( rig.fecRequest->hwFecIdRequests(), 0U );
      EXPECT_EQ( rig.fecRequest->fecs() + rig.fecRequest->fec6s(), 0U );
      EXPECT_EQ( rig.fecResponse->hwFecIds(), 0U );
      EXPECT_EQ( rig.hardware->routes() + rig.hardware->fecUnit()->fecs(), 0U );
      EXPECT_EQ( rig.l3Status->adjHwStatus()->adjHwStates(), 0U );
   }

   LabelRig rig;
};

TEST_F( FecTest, RouteForwardsIntoItsFecAndLeavesNothingBehind ) {
   viaSetIs( 1, { swapOut( 1, 1, 17 ) } );
   rig.routeIs( 16001, 1 );
   rig.routeIs( 16002, 1 );
   rig.settle();
   EXPECT_EQ( rig.sm->mplsSmStartupStatus(), MplsSmStartupStatus::mplsSmNormal );
   EXPECT_EQ( forward( 16001 ), "intf1 label 17" );
   EXPECT_EQ( rig.published( 16001 ), RouteStatusCode::programmed );
   EXPECT_EQ( rig.config()->routes(), 0U );
   EXPECT_EQ( fecOf( 1 )->dependentRouteKeys(), 2U );
   EXPECT_EQ( numbersInUse(), 1U );

   rig.routeDel( 16001 );
   rig.settle();
   EXPECT_EQ( forward( 16001 ), "no route for label 16001" );
   EXPECT_EQ( forward( 16002 ), "intf1 label 17" );
   rig.routeDel( 16002 );
   rig.settle();
   expectNothingLeft();
}

TEST_F( FecTest, ChangeKeepsTheFecAndItsRoutesForwarding ) {
   viaSetIs( 1, { swapOut( 1, 1, 17 ) } );
   rig.routeIs( 16001, 1 );
   rig.settle();
   const Fib::FecId fecId = fecOf( 1 )->fecId();
   const U64 hwId = fecOf( 1 )->hwId();

   viaSetIs( 1, { swapOut( 2, 2, 18 ) } );
   settleWatching( [&] {
      const std::string out = forward( 16001 );
      EXPECT_TRUE( out == "intf1 label 17" || out == "intf2 label 18" ) << out;
   } );
   EXPECT_EQ( forward( 16001 ), "intf2 label 18" );
   EXPECT_EQ( fecOf( 1 )->fecId(), fecId );
   EXPECT_EQ( fecOf( 1 )->hwId(), hwId );

   // Another address family is another FEC; routes move when it is answered, and the old one goes.
   rig.l3.neighborIs( "fe80::2", 3, macOf( 3 ) );
   viaSetIs( 1, { swapVia( 3, "fe80::2", 3, 19 ) } );
   settleWatching( [&] { EXPECT_NE( forward( 16001 ).find( " label " ), std::string::npos ); } );
   EXPECT_EQ( forward( 16001 ), "intf3 label 19" );
   EXPECT_EQ( fecOf( 1 )->fecId().adjType(), Fib::AdjType::mplsV6Adj );
   EXPECT_EQ( numbersInUse(), 1U );
   EXPECT_EQ( rig.fecRequest->fecs(), 0U );
   EXPECT_EQ( rig.fecRequest->fec6s(), 1U );
}

TEST_F( FecTest, BackupTakesOverBeforeTheLfibKnows ) {
   viaSetIs( 1, { swapOut( 1, 1, 17 ) }, 2 );
   viaSetIs( 2, { swapOut( 2, 2, 18 ) } );
   rig.routeIs( 16001, 1 );
   rig.settle();
   EXPECT_EQ( forward( 16001 ), "intf1 label 17" );
   const Fib::GlobalFecId global{ LabelRig::vrfId, fecOf( 1 )->fecId() };
   EXPECT_EQ( rig.l3Status->adjHwStatus()->adjHwState( global ), AdjHwState::primaryActive );
   EXPECT_EQ( rig.hwMplsStatus->adjacencyBackupStatus( rig.l3Adj( 1 )->index() ).backupIndex,
              rig.l3Adj( 2 )->index() );

   rig.hardware->linkIs( IntfId::ordinary( 1 ), false );
   EXPECT_EQ( forward( 16001 ), "intf2 label 18" );
   EXPECT_EQ( rig.l3Status->adjHwStatus()->adjHwState( global ), AdjHwState::backupActive );
   EXPECT_TRUE( rig.lfibHwStatus->viaSet( viaSetKey( 1 ) ).backupActive );

   // The routing software catches up: another primary, no backup.
   viaSetIs( 1, { swapOut( 3, 3, 19 ) } );
   settleWatching( [&] {
      const std::string out = forward( 16001 );
      EXPECT_TRUE( out == "intf2 label 18" || out == "intf3 label 19" ) << out;
   } );
   EXPECT_EQ( forward( 16001 ), "intf3 label 19" );
   EXPECT_EQ( rig.l3Adj( 2 ), nullptr );
   EXPECT_EQ( numbersInUse(), 1U );
   rig.routeDel( 16001 );
   rig.settle();
   expectNothingLeft();
}

TEST_F( FecTest, DisabledPrimaryViasLeaveByTheBackup ) {
   viaSetIs( 1, { swapOut( 1, 1, 17 ) }, 2, false );
   viaSetIs( 2, { swapOut( 2, 2, 18 ) } );
   rig.routeIs( 16001, 1 );
   rig.settle();
   EXPECT_EQ( forward( 16001 ), "intf2 label 18" );
   viaSetIs( 1, { swapOut( 1, 1, 17 ) }, 2, true );
   rig.settle();
   EXPECT_EQ( forward( 16001 ), "intf1 label 17" );
}

TEST_F( FecTest, PopTravelsWithTheRouteWhereBothSidesPop ) {
   viaSetIs( 1, { popVia( 1, nextHopOf( 1 ), 1 ) }, 3 );
   viaSetIs( 3, { popVia( 3, nextHopOf( 3 ), 3 ) } );
   rig.routeIs( 16001, 1 );
   rig.routeIs( 16003, 3 );
   rig.settle();
   EXPECT_TRUE( fecOf( 1 )->popLabelActionRemoved() );
   EXPECT_TRUE( fecOf( 3 )->popLabelActionRemoved() );
   const auto expectPrimaryAndBackup = [&]( const std::string& primary ) {
      EXPECT_EQ( forward( 16001 ), primary );
      EXPECT_EQ( forward( 16003 ), "intf3 ip" );
      rig.hardware->linkIs( IntfId::ordinary( 1 ), false );
      EXPECT_EQ( forward( 16001 ), "intf3 ip" );
      rig.hardware->linkIs( IntfId::ordinary( 1 ), true );
   };
   expectPrimaryAndBackup( "intf1 ip" );

   // A primary that swaps joins: with the pop in the first two routes it could not be protected.
   viaSetIs( 2, { swapOut( 2, 2, 18 ) }, 3 );
   rig.routeIs( 16002, 2 );
   settleWatching( [&] {
      EXPECT_EQ( forward( 16001 ), "intf1 ip" );
      EXPECT_EQ( forward( 16003 ), "intf3 ip" );
   } );
   EXPECT_FALSE( fecOf( 1 )->popLabelActionRemoved() );
   EXPECT_FALSE( fecOf( 3 )->popLabelActionRemoved() );
   expectPrimaryAndBackup( "intf1 ip" );
   rig.hardware->linkIs( IntfId::ordinary( 2 ), false );
   EXPECT_EQ( forward( 16002 ), "intf3 ip" );
   EXPECT_EQ( numbersInUse(), 3U );
}

// The TTL mode of a pop reaches hardware with the via and with the route, wherever the pop leads. It
// travels with the route only where the backup pops alike: else one of both would get the other's.
TEST_F( FecTest, PopLaysBareWithItsTtlMode ) {
   using Mpls::TtlMode;
   const Fib::FecId group = Fib::FecId::fecIdForAdjType( Fib::AdjType::nexthopGroupAdj, 9 );
   const IntfId tunnel( IntfId::Kind::dynamicTunnel, 4 );
   rig.hardware->fecUnit()->foreignFecIs( group, out( 2, 500 ) );
   rig.hardware->fecUnit()->tunnelIs( tunnel, out( 2, 500 ) );
   const auto ttlOf = []( TtlMode mode ) { return mode == TtlMode::uniform ? 63 : 64; };
   const auto ttlBelow = [&]( U32 label ) {
      const auto frames = rig.hardware->forward( LabelRig::vrfId, frameOf( label ) ).frames;
      return frames.size() != 1 ? -1 : frames[0].bytes.at( frames[0].bytes[12] == 0x08 ? 22 : 26 );
   };
   const auto popWith = [&]( U32 index, U32 intf, TtlMode mode ) {
      Mpls::LfibMplsVia via = popVia( index, nextHopOf( intf ), intf );
      via.ttlMode = mode;
      return via;
   };
   U32 index = 20;
   for ( const IntfId intf :
         { IntfId::ordinary( 1 ), tunnel, Fib::FecId::fecIdToNexthopGroupIntfId( group ) } ) {
      for ( const TtlMode mode : { TtlMode::uniform, TtlMode::pipe } ) {
         for ( const TtlMode backup : { TtlMode::undefined, TtlMode::uniform, TtlMode::pipe } ) {
            const bool swaps = backup == TtlMode::undefined;
            const U32 backupIndex = ++index;
            viaSetIs( backupIndex, { swaps ? swapOut( backupIndex, 3, 19 )
                                           : popWith( backupIndex, 3, backup ) } );
            Mpls::LfibMplsVia via = popWith( ++index, 1, mode );
            if ( intf != IntfId::ordinary( 1 ) ) {
               via.nextHop = {};
               via.intf = intf;
            }
            viaSetIs( index, { via }, backupIndex );
            rig.routeIs( 16000 + index, index );
            rig.settle();
            SCOPED_TRACE( joinText( intf, " ", mode, " backup ", backup ) );
            EXPECT_EQ( fecOf( index )->popLabelActionRemoved(),
                       backup == mode && intf.kind() != IntfId::Kind::nexthopGroup );
            EXPECT_EQ( ttlBelow( 16000 + index ), ttlOf( mode ) );
            if ( intf == IntfId::ordinary( 1 ) && !swaps ) {
               rig.hardware->linkIs( intf, false );
               EXPECT_EQ( ttlBelow( 16000 + index ), ttlOf( backup ) );
               rig.hardware->linkIs( intf, true );
            }
         }
      }
   }
}

TEST_F( FecTest, UnfitBackupsSettle ) {
   const auto waits = [&]( U32 viaSet ) {
      return rig.sm->backupWaitReason( *rig.state(), *rig.l3Adj( viaSet ) );
   };
   // The backup's via set is not there yet.
   viaSetIs( 1, { swapOut( 1, 1, 17 ) }, 2 );
   rig.routeIs( 16001, 1 );
   rig.settle();
   EXPECT_EQ( rig.published( 16001 ), RouteStatusCode::notProgrammed );
   EXPECT_EQ( waits( 1 ), "backup viaSet idx 2 viaType viaTypeMplsIp missing from lfib" );
   EXPECT_LE( rig.state()->l3AdjReviewed(), 6U ); // not for ever
   viaSetIs( 2, { swapOut( 2, 2, 18 ) } );
   rig.settle();
   EXPECT_EQ( forward( 16001 ), "intf1 label 17" );

   // The backup gets a backup of its own: it stays what it is, a backup.
   viaSetIs( 2, { swapOut( 2, 2, 18 ) }, 3 );
   viaSetIs( 3, { swapOut( 3, 3, 19 ) } );
   rig.settle();
   EXPECT_EQ( forward( 16001 ), "intf1 label 17" );
   EXPECT_EQ( waits( 2 ), "viaSet idx 2 with backup viaSet idx 3 is already a backup adj, backing "
                          "off until input is sane" );
   viaSetIs( 2, { swapOut( 2, 2, 18 ) } );
   rig.settle();
   EXPECT_EQ( rig.l3Adj( 3 ), nullptr );

   // Two that protect each other: the one that was first is programmed.
   viaSetIs( 4, { swapOut( 4, 3, 20 ) }, 5 );
   viaSetIs( 5, { swapOut( 5, 4, 21 ) }, 4 );
   rig.routeIs( 16004, 4 );
   rig.routeIs( 16005, 5 );
   rig.settle();
   EXPECT_NE( waits( 4 ) + waits( 5 ), "" );
   EXPECT_EQ( rig.state()->l3AdjForReviews(), 0U );
   viaSetIs( 5, { swapOut( 5, 4, 21 ) } );
   rig.settle();
   EXPECT_EQ( forward( 16004 ), "intf3 label 20" );
   EXPECT_EQ( forward( 16005 ), "intf4 label 21" );
   rig.hardware->linkIs( IntfId::ordinary( 3 ), false );
   EXPECT_EQ( forward( 16004 ), "intf4 label 21" );

   for ( const U32 label : { 16001U, 16004U, 16005U } ) {
      rig.routeDel( label );
   }
   rig.settle();
   expectNothingLeft();
}

// A backup of whatever kind, fit or not: its primary is not left waiting.
TEST_F( FecTest, BackupsOfOtherKindsLeaveThePrimaryForwarding ) {
   Mpls::LfibMplsVia twoLabels = swapOut( 3, 3, 0 );
   twoLabels.labelStack = { 5, 6 };
   viaSetIs( 3, { twoLabels } );
   extFecViaSetIs( 4, { Fib::FecId( U64{ 7 } << 56 | 5 ) } );
   const auto protectedBy = [&]( U32 viaSet, Mpls::LfibViaSetKey backup ) {
      Mpls::LfibViaSet set( viaSetKey( viaSet ) );
      const Mpls::LfibMplsVia via = swapOut( viaSet + 100, 1, viaSet );
      rig.writer.mplsViaIs( via );
      set.viaKeyAdd( via.key );
      set.backupViaSetKeyIs( backup );
      rig.writer.viaSetIs( set );
      rig.routeIs( 16000 + viaSet, viaSet );
   };
   Mpls::LfibViaSet lookup( viaSetKey( 9, Mpls::viaTypeIpLookup ) );
   lookup.viaKeyAdd( viaKey( 9, Mpls::viaTypeIpLookup ) );
   rig.writer.viaSetIs( lookup );
   protectedBy( 11, viaSetKey( 3 ) );                           // not sane
   protectedBy( 12, viaSetKey( 4, Mpls::viaTypeExternalFec ) ); // another agent's, not there
   protectedBy( 13, viaSetKey( 9, Mpls::viaTypeIpLookup ) );    // another state machine's
   rig.settle();
   for ( const U32 viaSet : { 11U, 12U, 13U } ) {
      EXPECT_EQ( forward( 16000 + viaSet ), joinText( "intf1 label ", viaSet ) );
   }
}

// The looks that one missing backup used up are not missing for the next.
TEST_F( FecTest, EachBackupIsWaitedForAnew ) {
   viaSetIs( 1, { swapOut( 1, 1, 17 ) } );
   rig.routeIs( 16001, 1 );
   rig.settle();
   viaSetIs( 1, { swapOut( 2, 2, 18 ) }, 2 ); // never comes
   rig.settle();
   EXPECT_EQ( forward( 16001 ), "intf1 label 17" );
   viaSetIs( 3, { swapOut( 3, 3, 19 ) } );
   viaSetIs( 1, { swapOut( 4, 4, 20 ) }, 3 );
   rig.settle();
   EXPECT_EQ( forward( 16001 ), "intf4 label 20" );
   rig.hardware->linkIs( IntfId::ordinary( 4 ), false );
   EXPECT_EQ( forward( 16001 ), "intf3 label 19" );
}

// Ids from outside never reach our own numbers, nor an assertion.
TEST_F( FecTest, IdsThatNobodyMayNameAreRefused ) {
   viaSetIs( 1, { swapOut( 1, 1, 17 ) } );
   rig.routeIs( 16001, 1 );
   rig.settle();
   U32 viaSet = 20;
   for ( const Fib::FecId fecId : { fecOf( 1 )->fecId(), Fib::FecId( U64{ 22 } << 56 | 1 ),
                                    Fib::FecId( U64{ 7 } << 56 | U64{ 1 } << 48 ),
                                    Fib::FecId( U64{ 99 } << 56 | 1 ), Fib::FecId() } ) {
      extFecViaSetIs( ++viaSet, { fecId } );
      rig.routeIs( key( 16000 + viaSet ), viaSetKey( viaSet, Mpls::viaTypeExternalFec ) );
   }
   for ( const U64 type : { 10U, 99U } ) {
      Mpls::LfibMplsVia intoGroup = swapVia( ++viaSet, "", 0, 17 );
      intoGroup.intf = IntfId( IntfId::Kind::nexthopGroup, type << 48 | 1 );
      viaSetIs( viaSet, { intoGroup } );
      rig.routeIs( 16000 + viaSet, viaSet );
   }
   rig.settle();
   EXPECT_EQ( rig.hardware->routes(), 1U );
   EXPECT_EQ( forward( 16001 ), "intf1 label 17" );
   for ( ; viaSet > 20; --viaSet ) {
      EXPECT_EQ( rig.published( 16000 + viaSet ), RouteStatusCode::notProgrammed );
      rig.routeDel( 16000 + viaSet );
   }
   rig.routeDel( 16001 );
   rig.settle();
   expectNothingLeft();
}

TEST_F( FecTest, ExternalFecsComeAndGo ) {
   const Fib::FecId first( U64{ 7 } << 56 | 5 );
   const Fib::FecId second( U64{ 7 } << 56 | 6 );
   Driver::FecUnit& fecs = *rig.hardware->fecUnit();
   extFecViaSetIs( 1, { first } );
   rig.routeIs( key( 16001 ), viaSetKey( 1, Mpls::viaTypeExternalFec ) );
   rig.settle();
   EXPECT_EQ( rig.published( 16001 ), RouteStatusCode::notProgrammed );

   fecs.foreignFecIs( first, out( 1, 31 ) ); // late
   rig.settle();
   EXPECT_EQ( forward( 16001 ), "intf1 label 31" );
   EXPECT_EQ( rig.published( 16001 ), RouteStatusCode::programmed );
   EXPECT_EQ( numbersInUse(), 0U );

   fecs.foreignFecIs( second, out( 2, 32 ) ); // the route moves to another one without a gap
   extFecViaSetIs( 1, { second } );
   settleWatching( [&] { EXPECT_NE( forward( 16001 ).find( " label " ), std::string::npos ); } );
   EXPECT_EQ( forward( 16001 ), "intf2 label 32" );
   EXPECT_FALSE( rig.fecRequest->hwFecIdRequestHas( first ) );

   for ( const bool numbered : { true, false } ) { // vanishes, also while the VRF has no number
      if ( !numbered ) {
         rig.routeStatus->vrfStatusDel( rig.vrf );
      }
      fecs.foreignFecDel( second );
      rig.settle();
      EXPECT_EQ( rig.published( 16001 ), RouteStatusCode::notProgrammed );
      EXPECT_EQ( rig.hardware->routes(), 0U );
      rig.vrfNumberIs();
      fecs.foreignFecIs( second, out( 2, 32 ) );
      rig.settle();
      EXPECT_EQ( forward( 16001 ), "intf2 label 32" );
   }

   extFecViaSetIs( 1, { first, second } ); // not sane: what is programmed stays
   rig.settle();
   EXPECT_EQ( rig.sm->lFibViaSetFault( viaSetKey( 1, Mpls::viaTypeExternalFec ) ),
              "lFib viaSet index 1 source ldp viaType viaTypeExternalFec viaSetType unicast has 2 "
              "vias, but should only have one" );
   rig.routeDel( 16001 );
   rig.settle();
   expectNothingLeft();
}

TEST_F( FecTest, NextHopGroupsAndTunnels ) {
   const Fib::FecId group = Fib::FecId::fecIdForAdjType( Fib::AdjType::nexthopGroupAdj, 9 );
   const IntfId tunnel( IntfId::Kind::dynamicTunnel, 4 );
   Driver::FecUnit& fecs = *rig.hardware->fecUnit();
   fecs.foreignFecIs( group, out( 2, 500 ) );
   fecs.tunnelIs( tunnel, out( 2, 500 ) );

   Mpls::LfibMplsVia intoTunnel = swapVia( 1, "", 0, 17 );
   intoTunnel.intf = tunnel;
   Mpls::LfibMplsVia swapsIntoGroup = swapVia( 2, "", 0, 17 );
   swapsIntoGroup.intf = Fib::FecId::fecIdToNexthopGroupIntfId( group );
   Mpls::LfibMplsVia intoGroup = swapsIntoGroup;
   intoGroup.labelAction = MplsLabelAction::none;
   intoGroup.labelStack = {};
   viaSetIs( 1, { intoTunnel } );
   viaSetIs( 2, { intoGroup } );
   rig.routeIs( 16001, 1 );
   rig.routeIs( 16002, 2 );
   rig.settle();
   EXPECT_EQ( forward( 16001 ), "intf2 label 500" );
   EXPECT_EQ( forward( 16002 ), "intf2 label 500" );
   EXPECT_EQ( numbersInUse(), 1U ); // the group brings its own
   swapsIntoGroup.key = viaKey( 9 );
   viaSetIs( 3, { swapsIntoGroup } ); // the group could not do it
   rig.routeIs( 16003, 3 );
   rig.settle();
   EXPECT_EQ( forward( 16003 ), "no route for label 16003" );
   EXPECT_EQ( rig.sm->lFibViaSetFault( viaSetKey( 3 ) ),
              "a next-hop group has its own label operation, only a pop may come before it" );
   // From next hops to a tunnel and back: nothing is watched any more than needed.
   viaSetIs( 1, { swapOut( 3, 3, 19 ) } );
   rig.settle();
   EXPECT_EQ( forward( 16001 ), "intf3 label 19" );
   EXPECT_EQ( rig.l3.arp->entrys(), 1U );
   viaSetIs( 1, { intoTunnel } );
   rig.settle();
   EXPECT_EQ( forward( 16001 ), "intf2 label 500" );
   EXPECT_EQ( rig.l3.arp->entrys(), 0U );
   EXPECT_EQ( rig.config()->l2Adjacencys(), 0U );
}

class SmallFecTest : public FecTest {
 protected:
   SmallFecTest()
      : FecTest( { .hardware = { .routeCapacity = 2, .fecCapacity = 1 }, .withFecs = true } ) {}
};

TEST_F( SmallFecTest, RoomComesBackByItself ) {
   viaSetIs( 1, { swapOut( 1, 1, 17 ) } );
   viaSetIs( 2, { swapOut( 2, 2, 18 ) } );
   for ( const U32 label : { 16001U, 16002U, 16003U } ) {
      rig.routeIs( label, 1 );
   }
   rig.settle();
   rig.routeIs( 16004, 2 );
   rig.settle();
   EXPECT_EQ( rig.hardware->routes(), 2U );
   EXPECT_EQ( rig.published( 16003 ), RouteStatusCode::notProgrammed );
   EXPECT_EQ( rig.status()->unprogrammedReason(), UnprogrammedReason::RouteFull );
   EXPECT_EQ( rig.published( 16004 ), RouteStatusCode::notProgrammed ); // no room for its FEC
   for ( const U32 label : { 16001U, 16002U, 16003U } ) {
      rig.routeDel( label );
   }
   rig.settle();
   EXPECT_EQ( forward( 16004 ), "intf2 label 18" );
   EXPECT_EQ( rig.published( 16004 ), RouteStatusCode::programmed );
   EXPECT_EQ( rig.status()->unprogrammedRoutes(), 0U );
   EXPECT_EQ( rig.hardware->status()->vrf( LabelRig::vrfId )->refusedRoutes(), 0U );
}

} // namespace
} // namespace Vel
