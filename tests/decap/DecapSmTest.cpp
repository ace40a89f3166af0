// Labels that end here: single events, and many that overlap held against a naive model.

#include <functional>
#include <random>

#include <gmock/gmock.h>

#include "tests/Seed.h"
#include "tests/decap/DecapWorld.h"

namespace {

using namespace VelTest;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

struct Decap : ::testing::Test, DecapWorld {};

TEST_F( Decap, aRouteIsTakenDownAsItWasAndProgrammedAsItIs ) {
   vrfRouteIs( 16, "red", Mpls::PayloadType::ipv4 );
   start();
   EXPECT_THAT( calls(), ElementsAre( "16 -> vrf red ipv4 0", "end of sync" ) );
   vrfRouteIs( 16, "blue", Mpls::PayloadType::ipv6 );
   EXPECT_THAT( calls(), ElementsAre( "16 -x vrf red ipv4", "16 -> vrf blue ipv6 0" ) );
   EXPECT_EQ( sm->vrfRouteKeySet( L3::VrfName( "red" ) ), nullptr );
   const Mpls::LfibVlanVia vlan{ viaKeyOf( Mpls::viaTypeEvpnVlanFlood, 1 ), 5 };
   writer.evpnVlanFloodViaIs( vlan );
   routeIs( Mpls::RouteKey( 16 ), 1, Mpls::viaTypeEvpnVlanFlood, vlan );
   EXPECT_THAT( calls(), ElementsAre( "16 -x vrf blue ipv6", "16 -> flood 5 0" ) );
   writer.routeDel( Mpls::RouteKey( 16 ) );
   EXPECT_THAT( calls(), ElementsAre( "16 -x flood 5" ) );
   EXPECT_EQ( helper->endsOfSync, 1 );
}

TEST_F( Decap, onlyCodesFromOneToThreeAreTriedAgain ) {
   for ( U32 code = 1; code <= 5; ++code ) {
      vrfRouteIs( 15 + code, "red" );
      helper->answers[textOf( 15 + code )] = static_cast< int >( code );
   }
   start();
   EXPECT_EQ( calls()[1], "end of sync" ) << "before the first refusal is listed";
   settle( 12 );
   EXPECT_EQ( helper->calls.size(), 6U ) << "three labels, twice";
   EXPECT_EQ( sm->codesIgnored(), 2U );
   for ( U32 code = 1; code <= 5; ++code ) {
      EXPECT_EQ( reasonOf( 15 + code ), code <= 3 ? static_cast< int >( code ) : 0 );
   }
   helper->answers.clear();
   settle( 5 );
   EXPECT_EQ( helper->leadsTo.size(), 3U );
   EXPECT_EQ( hwStatus->unprogrammedRoutes(), 0U );
   EXPECT_EQ( helper->endsOfSync, 1 );
}

TEST_F( Decap, aVrfsChangeHasItsRoutesProgrammedAtOnce ) {
   helper->answers["vrf red undefined"] = 3;
   vrfRouteIs( 16, "red" );
   vrfRouteIs( 17, "blue" );
   lfib->poll( 100 );
   start();
   routeStatus->vrfStatusIs( L3::VrfName( "green" ), 3 );
   EXPECT_EQ( helper->endsOfSync, 0 ) << "nothing has been asked for";
   settle();
   EXPECT_EQ( reasonOf( 16 ), 3 );
   helper->calls.clear();
   helper->answers.clear();
   routeStatus->vrfStatusIs( L3::VrfName( "red" ), 4 );
   EXPECT_THAT( helper->calls, ElementsAre( "16 -> vrf red undefined 0" ) );
   helper->calls.clear();
   routeStatus->vrfStatusIs( L3::VrfName( "red" ), 5 );
   EXPECT_THAT( helper->calls,
                ElementsAre( "16 -x vrf red undefined", "16 -> vrf red undefined 0" ) );
}

TEST_F( Decap, tagsFollowTheirMap ) {
   tagRouteIs( 16, 1 );
   start();
   EXPECT_THAT( calls(), ElementsAre( "end of sync" ) ) << "no map yet";
   tagIs( 1, 5, 50 );
   tagIs( 1, 6, 60 );
   calls();
   EXPECT_EQ( helper->leadsTo.size(), 2U );
   sm->handleDot1qTagToVlanColl( Mpls::LfibDot1qTagToVlanKey( 1 ) );
   EXPECT_THAT( helper->calls, IsEmpty() );
   tagIs( 1, 5, 51 );
   EXPECT_THAT( calls(), ElementsAre( "16 tag 5 -> vlan 51 0" ) ) << "the others are not touched";
   tagIs( 1, 6, std::nullopt );
   EXPECT_THAT( calls(), ElementsAre( "16 tag 6 -x vlan 60" ) );
   writer.dot1qTagToVlanCollDel( Mpls::LfibDot1qTagToVlanKey( 1 ) );
   EXPECT_THAT( calls(), ElementsAre( "16 tag 5 -x vlan 51" ) );
   EXPECT_EQ( sm->dot1qTagToVlanColls(), 0U );
   tagIs( 1, 7, 70 );
   EXPECT_THAT( calls(), ElementsAre( "16 tag 7 -> vlan 70 0" ) ) << "the route waited";
   helper->answers["16 tag 8"] = 1;
   tagIs( 1, 8, 80 );
   settle();
   EXPECT_EQ( reasonOf( 16 ), 1 );
   helper->answers.clear();
   settle( 6 );
   EXPECT_EQ( reasonOf( 16 ), 0 );
   EXPECT_EQ( helper->leadsTo.size(), 2U );
}

TEST_F( Decap, whatCannotBeReadStays ) {
   vrfRouteIs( 16, "red" );
   start();
   calls();
   writer.routeDel( Mpls::RouteKey( 16 ) ); // announced, and not to be read then
   away( true );
   tracking->routeKeyBacklogIs( Mpls::RouteKey( 16 ) );
   settle( 3 );
   EXPECT_THAT( helper->calls, IsEmpty() );
   EXPECT_TRUE( sm->unreadRouteHas( Mpls::RouteKey( 16 ) ) );
   EXPECT_GE( sm->lfibUnread(), 1U );
   away( false );
   settle( 2 );
   EXPECT_THAT( helper->calls, ElementsAre( "16 -x vrf red undefined" ) );
}

TEST_F( Decap, ofTwoRoutesOfALabelTheOtherHasItWhenOneEnds ) {
   helper->labelsAreShared = true;
   const Mpls::RouteKey deeper{ MplsLabel( 16 ), MplsLabel( 17 ) };
   const Mpls::LfibVlanVia vlan{ viaKeyOf( Mpls::viaTypeVlan, 1 ), 5 };
   writer.vlanViaIs( vlan );
   vrfRouteIs( 16, "red" );
   routeIs( deeper, 1, Mpls::viaTypeVlan, vlan );
   start();
   settle();
   writer.routeDel( deeper );
   settle();
   EXPECT_EQ( helper->leadsTo["16"], "vrf red undefined" );
   routeIs( deeper, 1, Mpls::viaTypeVlan, vlan );
   settle();
   writer.routeDel( Mpls::RouteKey( 16 ) );
   settle();
   EXPECT_EQ( helper->leadsTo["16"], "vlan 5" );
   settle( 20 ); // and they do not wake each other for ever
   helper->calls.clear();
   settle( 20 );
   EXPECT_THAT( helper->calls, IsEmpty() );
}

TEST_F( Decap, aSharedListKeepsWhatOthersWrote ) {
   hwStatus->unprogrammedRouteIs( { Mpls::RouteKey( 99 ), Mpls::RouteStatusCode::programmed } );
   vrfRouteIs( 16, "red" );
   helper->answers["16"] = 1;
   start();
   settle();
   vrfRouteIs( 99, "red" );
   settle();
   EXPECT_TRUE( hwStatus->unprogrammedRouteHas( Mpls::RouteKey( 99 ) ) );
   EXPECT_EQ( helper->endsOfSync, 1 );
}

// --- Events that overlap

/// Writes at random, remembers what is written, and says what has to come of it.
class Churn : public DecapWorld {
 public:
   explicit Churn( U64 seed ) : dice_( seed ) {
      helper->answers["19"] = 5; // never to be tried again
      if ( draw( 2 ) == 0 ) {
         scheduler->maxQueriesPerRunIs( 1 + draw( 4 ) );
      }
   }

   void step() {
      const U32 label = 16 + draw( labels );
      switch ( draw( 16 ) ) {
      case 0:
      case 1:
      case 2:
         return routeWrite( label );
      case 3:
         route_.erase( label );
         writer.routeDel( Mpls::RouteKey( label ) );
         return;
      case 4:
      case 5:
         return viaWrite( draw( types ), draw( numbers ) );
      case 6:
         return viaRemove( draw( types ), draw( numbers ) );
      case 7:
         return viaSetWrite( draw( types ), draw( numbers ) );
      case 8:
         return tagWrite();
      case 9:
         if ( draw( 4 ) == 0 ) {
            const U64 map = 1 + draw( maps );
            map_.erase( map );
            writer.dot1qTagToVlanCollDel( Mpls::LfibDot1qTagToVlanKey( map ) );
         }
         return;
      case 10:
         if ( label != 19 ) {
            const bool ofTag = draw( 2 ) == 0;
            helper
               ->answers[ofTag ? joinText( label, " tag ", 1 + draw( tags ) ) : textOf( label )] =
               static_cast< int >( draw( 4 ) );
         }
         return;
      case 11:
         return vrfStatusWrite();
      case 12:
         away( draw( 4 ) == 0 );
         return;
      case 13:
         lfib->poll( draw( 8 ) );
         return;
      case 14:
         for ( U32 i = draw( 5 ); i != 0; --i ) {
            scheduler->runOne();
         }
         return;
      case 15:
         return settle( 0.5 * draw( 8 ) );
      }
   }

   void checkInvariants() const {
      size_t mappings = 0;
      for ( const auto& [key, type] : sm->routeViaType() ) {
         const size_t in = sm->routeIpLookupViaHas( key ) + sm->routeVlanViaHas( key ) +
                           sm->routeEvpnVlanFloodViaHas( key ) +
                           sm->routeEvpnVlanAwareViaHas( key ) +
                           sm->routeEvpnVlanAwareFloodViaHas( key );
         EXPECT_EQ( in, 1U ) << key.topLabel().value();
         const bool aware = sm->vlanAwareRouteKeyToDot1qTagVlanKeyHas( key );
         EXPECT_EQ( aware, sm->routeEvpnVlanAwareViaHas( key ) ||
                              sm->routeEvpnVlanAwareFloodViaHas( key ) );
         if ( aware ) {
            const auto* const routes = sm->vlanAwareDot1qTagVlanToRouteKeySet(
               sm->vlanAwareRouteKeyToDot1qTagVlanKey( key ) );
            EXPECT_TRUE( routes != nullptr && routes->routeKeySetHas( key ) );
            const auto* const tagsOf = sm->vlanAwareRouteKeyToDot1qTagVlanProgrammed( key );
            mappings += tagsOf ? tagsOf->dot1qTagToVlanIds() : 0;
         } else {
            ++mappings;
         }
         if ( sm->routeIpLookupViaHas( key ) ) {
            const auto* const routes =
               sm->vrfRouteKeySet( sm->routeIpLookupVia( key ).vrfName.vrfName() );
            EXPECT_TRUE( routes != nullptr && routes->routeKeySetHas( key ) );
         }
      }
      EXPECT_EQ( mappings, helper->leadsTo.size() );
      EXPECT_EQ( sm->unprogrammedRoutes(), hwStatus->unprogrammedRoutes() );
      for ( const auto& [vrf, routes] : sm->vrfRouteKeySet() ) {
         EXPECT_GT( routes->routeKeySets(), 0U );
      }
      EXPECT_LE( helper->endsOfSync, 1 );
   }

   /// Nothing is refused for want of something any more: all is as the LFIB says.
   void checkAtRest() {
      away( false );
      for ( auto& [at, answer] : helper->answers ) {
         answer = answer > 3 ? answer : 0;
      }
      settle( 60 );
      checkInvariants();
      std::map< std::string, std::string > wanted;
      std::map< std::string, int > refused;
      for ( const auto& [label, at] : route_ ) {
         if ( viaSet_.contains( at ) && via_.contains( at ) ) {
            wantedOf( label, at, wanted );
         }
      }
      for ( auto target = wanted.begin(); target != wanted.end(); ) {
         const std::string label = target->first.substr( 0, target->first.find( ' ' ) );
         const int answer = helper->answerOf( target->first, target->second );
         if ( answer != 0 && answer <= 3 ) {
            refused[label] = answer;
         }
         target = answer == 0 ? std::next( target ) : wanted.erase( target );
      }
      EXPECT_EQ( helper->leadsTo, wanted );
      std::map< std::string, int > listed;
      for ( const auto& [key, info] : hwStatus->unprogrammedRoute() ) {
         listed[textOf( key )] = static_cast< int >( info.reason );
      }
      EXPECT_EQ( listed, refused );
      EXPECT_EQ( helper->endsOfSync, 1 );
      EXPECT_EQ( sm->unreadRoutes() + tracking->routeKeyBacklogs(), 0U );
   }

   U32 draw( U32 below ) { return std::uniform_int_distribution< U32 >( 0, below - 1 )( dice_ ); }

 private:
   static constexpr U32 labels = 8, types = 6, numbers = 4, maps = 2, tags = 4, vrfs = 3;
   static constexpr std::array viaTypes{
      Mpls::viaTypeIpLookup,           Mpls::viaTypeVlan,
      Mpls::viaTypeEvpnVlanAware,      Mpls::viaTypeEvpnVlanFlood,
      Mpls::viaTypeEvpnVlanAwareFlood, Mpls::viaTypeMplsIp };
   using At = std::pair< U32, U32 >; ///< type and number of a via set, and of its via

   static std::string vrfOf( U32 number ) { return joinText( "vrf", number ); }

   void routeWrite( U32 label ) {
      const At at{ draw( types ), draw( numbers ) };
      route_[label] = at;
      writer.routeIs(
         { Mpls::RouteKey( label ), viaSetKeyOf( viaTypes[at.first], at.second ), 0 } );
      if ( draw( 3 ) != 0 ) {
         viaSetWrite( at.first, at.second );
         viaWrite( at.first, at.second );
      }
   }
   void viaSetWrite( U32 type, U32 number ) {
      Mpls::LfibViaSet viaSet( viaSetKeyOf( viaTypes[type], number ) );
      switch ( draw( 5 ) ) {
      case 0:
         viaSet_.erase( { type, number } );
         writer.viaSetDel( viaSet.key() );
         return;
      case 1:
         viaSet_.erase( { type, number } );
         writer.viaSetIs( viaSet ); // without a via
         return;
      default:
         viaSet_.insert( { type, number } );
         viaSet.viaKeyAdd( viaKeyOf( viaTypes[type], number ) );
         writer.viaSetIs( viaSet );
      }
   }
   void viaWrite( U32 type, U32 number ) {
      const U32 content = draw( 4 ); // 0 leads nowhere
      const Mpls::LfibViaKey key = viaKeyOf( viaTypes[type], number );
      const Mpls::LfibVlanVia vlan{ key, static_cast< Bridging::VlanId >( content ) };
      const Mpls::LfibEvpnVlanAwareVia aware{ key, Mpls::LfibDot1qTagToVlanKey( content ) };
      switch ( viaTypes[type] ) {
      case Mpls::viaTypeIpLookup:
         writer.ipLookupViaIs(
            { key, Mpls::LfibVrfName( content ? vrfOf( content ) : std::string() ), {} } );
         break;
      case Mpls::viaTypeVlan:
         writer.vlanViaIs( vlan );
         break;
      case Mpls::viaTypeEvpnVlanFlood:
         writer.evpnVlanFloodViaIs( vlan );
         break;
      case Mpls::viaTypeEvpnVlanAware:
         writer.evpnVlanAwareViaIs( aware );
         break;
      case Mpls::viaTypeEvpnVlanAwareFlood:
         writer.evpnVlanAwareFloodViaIs( aware );
         break;
      default:
         return; // another machine's
      }
      content ? void( via_[{ type, number }] = content ) : void( via_.erase( { type, number } ) );
   }
   void viaRemove( U32 type, U32 number ) {
      via_.erase( { type, number } );
      writer.viaDel( viaKeyOf( viaTypes[type], number ) );
   }
   void tagWrite() {
      const U64 map = 1 + draw( maps );
      const auto tag = static_cast< Bridging::VlanId >( 1 + draw( tags ) );
      const auto vlan = static_cast< Bridging::VlanId >( 100 + draw( 3 ) );
      const U32 form = draw( 4 );
      if ( form == 0 ) {
         map_[map].erase( tag );
         tagIs( map, tag, std::nullopt );
      } else if ( form == 1 && map_.contains( map ) ) {
         map_[map].erase( tag );
         writer.dot1qTagToVlanDel( Mpls::LfibDot1qTagToVlanKey( map ), tag );
      } else {
         map_[map][tag] = vlan;
         tagIs( map, tag, vlan );
      }
   }
   void vrfStatusWrite() {
      const std::string vrf = vrfOf( 1 + draw( vrfs ) );
      const bool there = draw( 2 ) == 0;
      helper->answers[joinText( "vrf ", vrf, " undefined" )] = there ? 0 : 3;
      routeStatus->vrfStatusIs( L3::VrfName( vrf ), 1 + draw( 1000 ) );
   }
   void wantedOf( U32 label, At at, std::map< std::string, std::string >& wanted ) const {
      const U32 content = via_.at( at );
      switch ( viaTypes[at.first] ) {
      case Mpls::viaTypeIpLookup:
         wanted[textOf( label )] = joinText( "vrf ", vrfOf( content ), " undefined" );
         break;
      case Mpls::viaTypeVlan:
         wanted[textOf( label )] = joinText( "vlan ", content );
         break;
      case Mpls::viaTypeEvpnVlanFlood:
         wanted[textOf( label )] = joinText( "flood ", content );
         break;
      default:
         if ( const auto map = map_.find( content ); map != map_.end() ) {
            for ( const auto& [tag, vlan] : map->second ) {
               wanted[joinText( label, " tag ", tag )] = joinText(
                  viaTypes[at.first] == Mpls::viaTypeEvpnVlanAware ? "vlan " : "flood ", vlan );
            }
         }
      }
   }

   std::mt19937_64 dice_;
   std::map< U32, At > route_;
   std::set< At > viaSet_;   // those that hold a via
   std::map< At, U32 > via_; // those that lead somewhere: the VRF, VLAN or map
   std::map< U64, std::map< Bridging::VlanId, Bridging::VlanId > > map_;
};

TEST( DecapChurn, endsAsTheLfibSays ) {
   const uint64_t first = testSeed();
   for ( uint64_t run = 0; run < 300; ++run ) {
      SCOPED_TRACE( joinText( "VELMPLS_SEED=", first + run ) );
      Churn churn( first + run );
      const U32 startAt = churn.draw( 40 );
      for ( U32 i = 0; i < 200; ++i ) {
         if ( i == startAt ) {
            churn.start();
         }
         churn.step();
         if ( churn.sm ) {
            churn.checkInvariants();
         }
      }
      churn.checkAtRest();
      if ( HasFailure() ) {
         return;
      }
   }
}

} // namespace
