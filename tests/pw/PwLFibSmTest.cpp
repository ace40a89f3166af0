// Pseudowire labels: single moves in tables, and random events that overlap, held against a naive
// function of the tables.

#include "pw/VelPwLFibSm.h"

#include <gtest/gtest.h>

#include <map>
#include <vector>

#include "tests/Seed.h"
#include "tests/platform/LfibFixtures.h"

namespace Vel {
namespace {

using Mpls::RouteKey;
using Mpls::LfibTest::Random;
using Mpls::LfibTest::Region;

IntfId portPw( U32 i ) {
   return { IntfId::Kind::portPseudowire, i };
}
IntfId vlanPw( U32 i ) {
   return { IntfId::Kind::vlanPseudowire, i };
}
Mpls::LfibViaKey viaKey( U32 i ) {
   return { Mpls::LfibSource::ldp, Mpls::viaTypeMplsPseudowire, i };
}
/// Sets from 8 on are of another type.
Mpls::LfibViaSetKey viaSetKey( U32 i ) {
   return { Mpls::LfibSource::ldp, i < 8 ? Mpls::viaTypeMplsPseudowire : Mpls::viaTypeVlan, i };
}
Fib::DecapConnector connector( U32 i ) {
   return { IntfId::ordinary( i ), Bridging::VlanIdOrNone( static_cast< U16 >( i ) ), 9 };
}

/// A pseudowire state machine with everything around it; the test plays hardware.
struct PwRig {
   PwRig() { start(); }

   void start() {
      sm = nullptr;
      sm = pwLFibSmFactory( lfib, table, pwStatus, request, response, wheel );
   }
   void viaSetIs( U32 i, const std::vector< U32 >& vias ) {
      Mpls::LfibViaSet viaSet( viaSetKey( i ) );
      for ( const U32 via : vias ) {
         viaSet.viaKeyAdd( viaKey( via ) );
      }
      region.writer.viaSetIs( viaSet );
   }
   /// Label `16 + i` into the pseudowire, by a via set and a via of its own.
   void labelIs( U32 i, IntfId pwIntfId ) {
      region.writer.pwViaIs( { viaKey( i ), pwIntfId } );
      viaSetIs( i, { i } );
      region.writer.routeIs( { RouteKey( 16 + i ), viaSetKey( i ), ++announced } );
      poll();
   }
   void poll() {
      do {
         lfib->poll( 1000 );
      } while ( lfib->attached() && lfib->readable() && lfib->pollPending() );
   }
   void pass( double seconds ) { runUntilIdle( *scheduler, *clock, clock->now() + seconds, 1000 ); }
   Fib::FecId fecId( U32 label ) { return sm->dstPortFecRequested( MplsLabel( label ) ); }
   U64 version( Fib::FecId id ) { return request->hwFecIdRequest( id ).version; }
   void answer( Fib::FecId id, U64 hwId ) { response->hwFecIdIs( id, { hwId, version( id ), 0 } ); }
   const VelPw::PwDecapInfo& entry( U32 label ) {
      return table->labelToPwDecapInfo( MplsLabel( label ) );
   }

   Region region;
   U32 announced = 0;
   Ptr< ManualClock > clock = make< ManualClock >( 100.0 );
   Ptr< Scheduler > scheduler = make< Scheduler >( Ptr< Clock >( clock ) );
   Ptr< TimerWheel > wheel = make< TimerWheel >( scheduler );
   Ptr< Mpls::LfibStatus > lfib = make< Mpls::LfibStatus >( "pwLfib", region.bytes() );
   Ptr< VelPw::DecapInfoTable > table = make< VelPw::DecapInfoTable >( "decap" );
   Ptr< Pseudowire::Status > pwStatus = make< Pseudowire::Status >( "pw" );
   Ptr< FecIdToHwFecIdRequest > request = make< FecIdToHwFecIdRequest >( "request" );
   Ptr< FecIdToHwFecIdResponse > response = make< FecIdToHwFecIdResponse >( "response" );
   Ptr< PwLFibSm > sm;
};

// The empty interface stands for a route that has lost its via.
TEST( PwLFibSm, labelMovesBetweenPseudowires ) {
   const std::vector< IntfId > ends{ portPw( 1 ), portPw( 2 ), vlanPw( 1 ),
                                     vlanPw( 2 ), IntfId(),    IntfId::ordinary( 1 ) };
   const auto isVlan = PseudowireIntfId::isVlanPseudowireIntfId;
   const auto isPort = PseudowireIntfId::isPortPseudowireIntfId;
   for ( U32 i = 0; i < ends.size() * ends.size() * 2; ++i ) {
      const IntfId from = ends[i / 2 % ends.size()];
      const IntfId to = ends[i / 2 / ends.size()];
      const bool answeredBefore = i % 2 == 0;
      SCOPED_TRACE( joinText( from, " to ", to, " answered ", answeredBefore ) );
      PwRig rig;
      rig.labelIs( 0, from );
      const Fib::FecId before = rig.fecId( 16 );
      const HwFecId answer{ 7, rig.version( before ), 0 };
      ASSERT_EQ( before != Fib::FecId(), isVlan( from ) );
      if ( isVlan( from ) && answeredBefore ) {
         rig.response->hwFecIdIs( before, answer );
         ASSERT_EQ( rig.entry( 16 ).hwFecId, answer );
      }
      to.empty() ? void( rig.region.writer.viaDel( viaKey( 0 ) ) ) : rig.labelIs( 0, to );
      rig.poll();
      if ( from == to ) {
         EXPECT_EQ( rig.fecId( 16 ), before );
         EXPECT_EQ( rig.version( before ), answer.version );
         continue;
      }
      EXPECT_EQ( rig.entry( 16 ).pwIntfId, isPort( to ) ? to : IntfId() );
      EXPECT_EQ( rig.request->hwFecIdRequests(), isVlan( to ) ? 1U : 0U );
      EXPECT_EQ( rig.request->fecs(), isVlan( to ) ? 1U : 0U );
      if ( isVlan( from ) ) {
         EXPECT_EQ( rig.sm->allocatedFecIdHas( before ), answeredBefore );
         rig.response->hwFecIdIs( before, answer ); // where it was not answered: too late
         EXPECT_EQ( rig.entry( 16 ).pwIntfId, isPort( to ) ? to : IntfId() );
         rig.response->hwFecIdDel( before );
         EXPECT_FALSE( rig.sm->allocatedFecIdHas( before ) );
      }
      if ( isVlan( to ) ) {
         ASSERT_NE( rig.fecId( 16 ), before );
         rig.answer( rig.fecId( 16 ), 8 );
         EXPECT_EQ( rig.entry( 16 ).pwIntfId, to );
         EXPECT_EQ( rig.entry( 16 ).hwFecId.hwId, 8U );
      }
   }
}

TEST( PwLFibSm, anAnswerCountsOnlyForThePresentLifeOfItsId ) {
   struct Case {
      const char* what;
      U64 hwId;
      int version; // from the one before the life began
      bool counts;
   };
   for ( const Case& tried : { Case{ "carried out", 1, 2, true },
                               { "before the connector changed", 1, 1, true },
                               { "to an earlier life", 1, 0, false },
                               { "to no request", 1, 3, false },
                               { "none", 0, 2, false } } ) {
      SCOPED_TRACE( tried.what );
      PwRig rig;
      rig.response->hwFecIdIs( Fib::FecId::fecIdForAdjType( Fib::AdjType::pwDecapAdj, 0 ),
                               { 5, 40, 0 } ); // left behind by an instance before
      rig.start();
      rig.labelIs( 0, vlanPw( 1 ) );
      const Fib::FecId id = rig.fecId( 16 );
      const U64 before = rig.version( id ) - 1;
      EXPECT_GE( before, 40U );
      rig.pwStatus->localConnectorInfoIs( vlanPw( 1 ), connector( 1 ) );
      EXPECT_EQ( rig.table->labelToPwDecapInfos(), 0U );
      rig.answer( id, 4 );
      ASSERT_EQ( rig.table->labelToPwDecapInfos(), 1U );
      rig.response->hwFecIdIs( id,
                               { tried.hwId, before + static_cast< U64 >( tried.version ), 0 } );
      EXPECT_EQ( rig.table->labelToPwDecapInfos(), tried.counts ? 1U : 0U );
   }
}

TEST( PwLFibSm, aConnectorThatComesChangesAndGoesRewritesItsFecsInPlace ) {
   PwRig rig;
   rig.labelIs( 0, vlanPw( 1 ) );
   rig.labelIs( 1, vlanPw( 2 ) );
   const Fib::FecId id = rig.fecId( 16 );
   const U64 otherVersion = rig.version( rig.fecId( 17 ) );
   rig.answer( id, 7 );
   EXPECT_NE( rig.request->fec( id ), Fib::Fec() ); // with its connector still unknown
   for ( const Fib::DecapConnector& now :
         { connector( 1 ), connector( 2 ), Fib::DecapConnector() } ) {
      const U64 version = rig.version( id );
      now.empty() ? void( rig.pwStatus->localConnectorInfoDel( vlanPw( 1 ) ) )
                  : rig.pwStatus->localConnectorInfoIs( vlanPw( 1 ), now );
      EXPECT_EQ( rig.fecId( 16 ), id );
      EXPECT_GT( rig.version( id ), version );
      EXPECT_EQ( rig.entry( 16 ).connector, now );
      EXPECT_EQ( rig.entry( 16 ).hwFecId.hwId, 7U );
   }
   EXPECT_EQ( rig.version( rig.fecId( 17 ) ), otherVersion );
}

/// Something of label 16 cannot be read: the writer was killed there, or lays the region out anew.
U64& spoilt( PwRig& rig, U32 what ) {
   using Mpls::LfibTable;
   const std::pair< LfibTable, U64 > places[] = { { LfibTable::route, RouteKey( 16 ).word() },
                                                  { LfibTable::viaSet, viaSetKey( 0 ).word() },
                                                  { LfibTable::pwVia, viaKey( 0 ).word() } };
   const U32 slot = rig.region.slotOf( places[what].first, places[what].second );
   return slot == Mpls::LfibTableView::none ? rig.region.words[Mpls::LfibHeader::magic]
                                            : *rig.region.slotAt( places[what].first, slot );
}

TEST( PwLFibSm, whatCannotBeReadStaysAndIsLookedAtAgain ) {
   for ( U32 what = 0; what < 3; ++what ) {
      SCOPED_TRACE( what );
      PwRig rig;
      rig.labelIs( 0, portPw( 1 ) );
      U64& word = spoilt( rig, what );
      const U64 whole = std::exchange( word, word | Mpls::LfibSlotHead::busy );
      rig.sm->handleLFibRoute( RouteKey( 16 ) );
      for ( int i = 0; i < 3; ++i ) {
         rig.pass( 1.5 );
         EXPECT_EQ( rig.entry( 16 ).pwIntfId, portPw( 1 ) );
         EXPECT_TRUE( rig.sm->unreadRouteKeyHas( RouteKey( 16 ) ) );
      }
      EXPECT_LE( rig.wheel->called(), 6U );
      word = whole;
      rig.region.writer.viaDel( viaKey( 0 ) ); // and nobody polls
      rig.pass( 1.5 );
      EXPECT_EQ( rig.table->labelToPwDecapInfos(), 0U );
      EXPECT_EQ( rig.wheel->pending(), 0U );
   }
}

// --- Random events

/// Makes the events, plays hardware, and knows what should come of it.
class Simulation : private FecIdToHwFecIdRequest::Reactor {
 public:
   explicit Simulation( U64 seed ) : random_( seed ) { notifierIs( rig_.request.get() ); }

   void step() {
      switch ( random_.below( 14 ) ) {
      case 0:
      case 1:
      case 2:
         return writeRoute( anyKey() );
      case 3:
         return writeViaSet( random_.oneIn( 6 ) ? 8 : random_.below( 4 ) );
      case 4:
         return writeVia( random_.below( 4 ) );
      case 5: {
         const IntfId pw = vlanPw( random_.below( 3 ) );
         return random_.oneIn( 3 )
                   ? void( rig_.pwStatus->localConnectorInfoDel( pw ) )
                   : rig_.pwStatus->localConnectorInfoIs( pw, connector( 1 + random_.below( 3 ) ) );
      }
      case 6:
         return rig_.pass( random_.below( 12 ) );
      case 7:
         return void( rig_.lfib->poll( 1 + random_.below( 3 ) ) );
      case 8:
         return random_.oneIn( 5 ) ? rig_.start() : rig_.poll();
      case 9:
         prompt_ = random_.oneIn( 3 );
         return;
      case 10:
         return random_.oneIn( 3 ) ? beUnreadable() : rig_.poll();
      default:
         return answerSomething();
      }
   }

   void check() {
      const PwLFibSm& sm = *rig_.sm;
      std::map< IntfId, size_t > fecIds;
      for ( const auto& [label, id] : sm.dstPortFecRequested() ) {
         const VelPw::PwDecapInfo& info = sm.fecIdToDecapInfo( id );
         ASSERT_EQ( info.label, label );
         ASSERT_EQ( info.pwIntfId, sm.decapLabelToVlanPwIntfId( label ) );
         ASSERT_TRUE( sm.pwIntfIdToFecId( info.pwIntfId )->fecIdHas( id ) );
         ++fecIds[info.pwIntfId];
         ASSERT_TRUE( sm.allocatedFecIdHas( id ) && rig_.request->hwFecIdRequestHas( id ) );
         const Fib::Fec& fec = rig_.request->fec( id );
         ASSERT_EQ( fec.fecId, id );
         ASSERT_EQ( fec.decapConnector, rig_.pwStatus->localConnectorInfo( info.pwIntfId ) );
         ASSERT_EQ( info.connector, fec.decapConnector );
         const HwFecId& answer = rig_.response->hwFecId( id );
         const bool valid = answer.hwId != 0 && answer.version >= firstVersion_[id] &&
                            answer.version <= rig_.version( id );
         ASSERT_EQ( info.hwFecId, valid ? answer : HwFecId() );
         ASSERT_EQ( rig_.entry( label.value() ), valid ? info : VelPw::PwDecapInfo() );
      }
      const size_t count = sm.dstPortFecRequesteds();
      ASSERT_EQ( sm.fecIdToDecapInfos(), count );
      ASSERT_EQ( sm.fecIdToFirstVersions(), count );
      ASSERT_EQ( sm.decapLabelToVlanPwIntfIds(), count );
      ASSERT_EQ( rig_.request->fecs(), count );
      ASSERT_EQ( rig_.request->hwFecIdRequests(), count );
      ASSERT_EQ( sm.pwIntfIdToFecIds(), fecIds.size() );
      for ( const auto& [pw, ids] : fecIds ) {
         ASSERT_EQ( sm.pwIntfIdToFecId( pw )->fecIds(), ids );
      }
      for ( const Fib::FecId id : sm.allocatedFecId() ) {
         ASSERT_TRUE( rig_.request->hwFecIdRequestHas( id ) || rig_.response->hwFecIdHas( id ) );
      }
      ASSERT_EQ( sm.numAllocatorStatus()->numberInUses(), sm.allocatedFecIds() );
      for ( U32 label = 16; label < 19 && !rig_.lfib->pollPending(); ++label ) {
         const IntfId pw = pseudowireOf( MplsLabel( label ) );
         const bool port = PseudowireIntfId::isPortPseudowireIntfId( pw );
         ASSERT_EQ( sm.decapLabelToVlanPwIntfId( MplsLabel( label ) ), port ? IntfId() : pw );
         if ( port || pw.empty() ) {
            ASSERT_EQ( rig_.entry( label ).pwIntfId, pw );
         }
      }
   }

   /// Hardware catches up with all that is asked of it.
   void comeToRest() {
      rig_.poll();
      rig_.response->hwFecIdDelAll();
      for ( const auto& [id, asked] : rig_.request->hwFecIdRequest() ) {
         rig_.answer( id, ++hwId_ );
      }
      check();
      ASSERT_EQ( rig_.sm->allocatedFecIds(), rig_.request->hwFecIdRequests() );
      ASSERT_EQ( rig_.sm->unreadRouteKeys(), 0U );
   }

 private:
   /// Thinks of an answer; at times it is there before the asker goes on.
   void onHwFecIdRequest( Fib::FecId id ) override {
      if ( !rig_.request->hwFecIdRequestHas( id ) ) {
         for ( const auto& [label, info] : rig_.table->labelToPwDecapInfo() ) {
            EXPECT_FALSE( info.hwFecId.hwId != 0 && info.hwFecId == rig_.response->hwFecId( id ) );
         }
         firstVersion_.erase( id );
         if ( prompt_ ) {
            rig_.response->hwFecIdDel( id );
         }
         return;
      }
      EXPECT_GT( rig_.version( id ), lastVersion_ );
      lastVersion_ = rig_.version( id );
      firstVersion_.try_emplace( id, lastVersion_ );
      answers_.push_back( { id, { ++hwId_, lastVersion_, 0 } } );
      if ( prompt_ ) {
         rig_.response->hwFecIdIs( id, answers_.back().second );
      }
   }

   RouteKey anyKey() {
      const MplsLabel label( 16 + random_.below( 3 ) );
      switch ( random_.below( 4 ) ) {
      case 0:
         return { label, MplsLabel( 20 ) };
      case 1:
         return { label, MplsLabel( 20 ), MplsLabel( 21 ) };
      default:
         return RouteKey( label );
      }
   }
   void writeRoute( RouteKey key, bool anew = false ) {
      if ( anew || random_.oneIn( 3 ) ) {
         routes_.erase( key );
         rig_.region.writer.routeDel( key );
      }
      if ( !random_.oneIn( 4 ) ) {
         routes_[key] = random_.oneIn( 6 ) ? 8 : random_.below( 4 );
         rig_.region.writer.routeIs( { key, viaSetKey( routes_[key] ), 0 } );
      }
   }
   void writeViaSet( U32 i, bool anew = false ) {
      if ( anew || random_.oneIn( 3 ) ) {
         viaSets_.erase( i );
         rig_.region.writer.viaSetDel( viaSetKey( i ) );
      }
      if ( !random_.oneIn( 4 ) ) {
         viaSets_[i].assign( random_.oneIn( 4 ) ? random_.below( 3 ) : 1, random_.below( 4 ) );
         rig_.viaSetIs( i, viaSets_[i] );
      }
   }
   void writeVia( U32 i, bool anew = false ) {
      if ( anew || random_.oneIn( 3 ) ) {
         vias_.erase( i );
         rig_.region.writer.viaDel( viaKey( i ) );
      }
      if ( !random_.oneIn( 4 ) ) {
         const IntfId ends[] = { portPw( 0 ), portPw( 1 ), vlanPw( 0 ),
                                 vlanPw( 1 ), vlanPw( 2 ), IntfId::ordinary( 1 ) };
         vias_[i] = ends[random_.below( 6 )];
         rig_.region.writer.pwViaIs( { viaKey( i ), vias_[i] } );
      }
   }
   void answerSomething() {
      if ( random_.oneIn( 20 ) ) { // what nobody has asked for
         const Fib::FecId id( U64{ random_.below( 30 ) } << 56 | random_.below( 5 ) );
         return rig_.response->hwFecIdIs( id, { ++hwId_, random_.below( 50 ), 0 } );
      }
      if ( answers_.empty() ) {
         return;
      }
      // One of the latest: in time or not, the present life's or an earlier one's, or once more.
      const size_t back = 1 + random_.below( 8 ) % answers_.size();
      const auto& [id, answer] = answers_[answers_.size() - back];
      switch ( random_.below( 6 ) ) {
      case 0:
         return rig_.response->hwFecIdIs( id, { 0, answer.version, 0 } );
      case 1:
      case 2:
         return void( rig_.response->hwFecIdDel( id ) );
      default:
         rig_.response->hwFecIdIs( id, answer );
      }
   }
   void beUnreadable() {
      const U32 what = random_.below( 3 );
      U64& word = spoilt( rig_, what );
      const bool magic = &word == &rig_.region.words[Mpls::LfibHeader::magic];
      const U64 whole = std::exchange( word, magic ? 0 : word | Mpls::LfibSlotHead::busy );
      if ( magic && random_.oneIn( 2 ) ) { // a walk over a busy slot hears of it when it is written
         rig_.start();
      }
      rig_.poll();
      rig_.sm->handleLFibRoute( anyKey() );
      rig_.pass( 2 );
      word = whole;
      if ( magic ) {
         rig_.poll(); // attaches to it again
      } else {        // what a publisher has written in full it announces
         what == 0   ? writeRoute( RouteKey( 16 ), true )
         : what == 1 ? writeViaSet( 0, true )
                     : writeVia( 0, true );
      }
      rig_.pass( 1.1 );
      ASSERT_EQ( rig_.sm->unreadRouteKeys(), 0U );
   }

   /// Where the label leads: by its last route in key order that has the shape.
   IntfId pseudowireOf( MplsLabel label ) {
      IntfId found;
      for ( const auto& [key, viaSet] : routes_ ) {
         const auto vias = viaSets_.find( viaSet );
         if ( key.topLabel() == label && viaSet < 8 && vias != viaSets_.end() &&
              vias->second.size() == 1 && vias_.count( vias->second[0] ) != 0 &&
              vias_[vias->second[0]].kind() != IntfId::Kind::ordinary ) {
            found = vias_[vias->second[0]];
         }
      }
      return found;
   }

   Random random_;
   PwRig rig_;
   bool prompt_ = false; // hardware answers at once
   U64 hwId_ = 0;
   U64 lastVersion_ = 0;
   std::vector< std::pair< Fib::FecId, HwFecId > > answers_; // that hardware has thought of
   std::map< Fib::FecId, U64 > firstVersion_;                // of the request that stands
   std::map< RouteKey, U32 > routes_;
   std::map< U32, std::vector< U32 > > viaSets_;
   std::map< U32, IntfId > vias_;
};

TEST( PwLFibSm, randomEventsLeaveWhatANaiveFunctionSays ) {
   const U64 seed = VelTest::testSeed();
   for ( U64 run = 0; run < 200 && !testing::Test::HasFailure(); ++run ) {
      SCOPED_TRACE( joinText( "run ", run ) );
      Simulation simulation( seed + run );
      for ( int i = 0; i < 400 && !testing::Test::HasFailure(); ++i ) {
         simulation.step();
         simulation.check();
         if ( i % 50 == 49 ) {
            simulation.comeToRest();
         }
      }
   }
}

} // namespace
} // namespace Vel
