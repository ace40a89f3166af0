// An LFIB, a helper that holds the state machine to the contract, and the state machine.

#pragma once

#include <map>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "decap/VelMplsDecapSm.h"

namespace VelTest {

using namespace Vel;
using ReturnCode = Mpls::LfibHwProgrammingReturnCode;

inline Mpls::LfibViaKey viaKeyOf( Mpls::LfibViaType type, U32 index ) {
   return { Mpls::LfibSource::staticConfig, type, index };
}
inline Mpls::LfibViaSetKey viaSetKeyOf( Mpls::LfibViaType type, U32 index ) {
   return { Mpls::LfibSource::staticConfig, type, index };
}

/// Programs into a map. A create over another mapping and a delete of what is not there fail.
class StrictHelper : public VelHelper::MplsDecapHelper {
   VEL_ENTITY( StrictHelper )
   VEL_ENTITY_END_OVER( MplsDecapHelper )

 public:
   StrictHelper() : MplsDecapHelper( "strict" ) {}

   std::map< std::string, std::string > leadsTo; ///< "16" or "16 tag 5": where it leads
   std::map< std::string, int > answers;         ///< by label, by target or for "": all others
   std::vector< std::string > calls;
   int endsOfSync = 0;
   bool labelsAreShared = false; ///< by routes with more labels

   ReturnCode createLabelToVlanMapping( MplsLabel label, Bridging::VlanId vlan,
                                        bool flood ) override {
      return create( textOf( label ), joinText( flood ? "flood " : "vlan ", vlan ), false );
   }
   void deleteLabelToVlanMapping( MplsLabel label, Bridging::VlanId vlan, bool flood ) override {
      remove( textOf( label ), joinText( flood ? "flood " : "vlan ", vlan ) );
   }
   ReturnCode createLabelDot1qToVlanMapping( MplsLabel label, Bridging::VlanId tag,
                                             Bridging::VlanIdOrNone vlan, bool flood ) override {
      return create( joinText( label, " tag ", tag ), joinText( flood ? "flood " : "vlan ", vlan ),
                     true );
   }
   void deleteLabelDot1qToVlanMapping( MplsLabel label, Bridging::VlanId tag,
                                       bool flood ) override {
      const std::string at = joinText( label, " tag ", tag );
      EXPECT_EQ( leadsTo[at].starts_with( "flood" ), flood ) << at;
      remove( at, leadsTo[at] );
   }
   ReturnCode createLabelToVrfMapping( MplsLabel label, L3::VrfName vrf,
                                       Mpls::PayloadType payload ) override {
      return create( textOf( label ), joinText( "vrf ", vrf, " ", payload ), false );
   }
   void deleteLabelToVrfMapping( MplsLabel label, L3::VrfName vrf,
                                 Mpls::PayloadType payload ) override {
      remove( textOf( label ), joinText( "vrf ", vrf, " ", payload ) );
   }
   void doEndOfSync() override {
      ++endsOfSync;
      calls.emplace_back( "end of sync" );
   }
   int answerOf( const std::string& at, const std::string& target ) const {
      for ( const std::string& name : { at, target, std::string() } ) {
         if ( const auto answer = answers.find( name ); answer != answers.end() ) {
            return answer->second;
         }
      }
      return 0;
   }

 private:
   ReturnCode create( const std::string& at, const std::string& target, bool over ) {
      const int answer = answerOf( at, target );
      calls.push_back( joinText( at, " -> ", target, " ", answer ) );
      EXPECT_TRUE( labelsAreShared || over || !leadsTo.contains( at ) ) << calls.back();
      if ( answer == 0 ) {
         leadsTo[at] = target;
      }
      return static_cast< ReturnCode >( answer );
   }
   void remove( const std::string& at, const std::string& target ) {
      calls.push_back( joinText( at, " -x ", target ) );
      EXPECT_TRUE( labelsAreShared || ( leadsTo.contains( at ) && leadsTo[at] == target ) )
         << calls.back();
      leadsTo.erase( at );
   }
};

struct DecapWorld {
   DecapWorld()
      : memory( Mpls::LfibWriter::bytesNeeded( capacities ) / sizeof( U64 ) + 1 ),
        writer( std::as_writable_bytes( std::span( memory ) ), capacities ) {}

   void start() {
      sm = MplsDecapSmIs( helper, lfib, scheduler, tracking, hwStatus, routeStatus );
      sm->handleInitialized();
   }
   /// Writes a via, a via set of that number and a route over it.
   template< class Via >
   void routeIs( Mpls::RouteKey key, U32 number, Mpls::LfibViaType type, const Via& via ) {
      Mpls::LfibViaSet viaSet( viaSetKeyOf( type, number ) );
      viaSet.viaKeyAdd( via.key );
      writer.viaSetIs( viaSet );
      writer.routeIs( { key, viaSet.key(), 0 } );
   }
   void vrfRouteIs( U32 label, const char* vrf, Mpls::PayloadType payload = {} ) {
      const Mpls::LfibIpLookupVia via{ viaKeyOf( Mpls::viaTypeIpLookup, label ),
                                       Mpls::LfibVrfName( vrf ), payload };
      writer.ipLookupViaIs( via );
      routeIs( Mpls::RouteKey( label ), label, Mpls::viaTypeIpLookup, via );
   }
   void tagRouteIs( U32 label, U64 map ) {
      const Mpls::LfibEvpnVlanAwareVia via{ viaKeyOf( Mpls::viaTypeEvpnVlanAware, label ),
                                            Mpls::LfibDot1qTagToVlanKey( map ) };
      writer.evpnVlanAwareViaIs( via );
      routeIs( Mpls::RouteKey( label ), label, Mpls::viaTypeEvpnVlanAware, via );
   }
   void tagIs( U64 map, Bridging::VlanId tag, std::optional< Bridging::VlanId > vlan ) {
      writer.dot1qTagToVlanIs( Mpls::LfibDot1qTagToVlanKey( map ), tag,
                               vlan ? Bridging::VlanIdOrNone( *vlan ) : Bridging::VlanIdOrNone() );
   }
   void away( bool on ) { memory[Mpls::LfibHeader::magic] = on ? 0 : Mpls::LfibHeader::magicValue; }
   void settle( double seconds = 1.0 ) {
      const double until = clock->now() + seconds;
      do {
         lfib->poll( 1U << 20 );
      } while ( lfib->attached() && lfib->pollPending() );
      runUntilIdle( *scheduler, *clock, until, 1U << 20 );
      if ( clock->now() < until ) {
         clock->nowIs( until );
      }
   }
   /// What the helper was asked for since the last time.
   std::vector< std::string > calls() {
      settle();
      return std::exchange( helper->calls, {} );
   }
   int reasonOf( U32 label ) const {
      const Mpls::RouteKey key( label );
      return hwStatus->unprogrammedRouteHas( key )
                ? static_cast< int >( hwStatus->unprogrammedRoute( key ).reason )
                : 0;
   }

   static constexpr Mpls::LfibCapacities capacities{};
   std::vector< U64 > memory;
   Mpls::LfibWriter writer;
   Ptr< Mpls::LfibStatus > lfib =
      make< Mpls::LfibStatus >( "lfib", std::as_bytes( std::span( memory ) ) );
   Ptr< Mpls::LfibTrackingStatus > tracking = make< Mpls::LfibTrackingStatus >( "tracking" );
   Ptr< Mpls::LfibTrackingSm > trackingSm =
      make< Mpls::LfibTrackingSm >( "trackingSm", lfib, tracking, Mpls::LfibTrackingMode::routes );
   Ptr< Mpls::LfibHwStatus > hwStatus = make< Mpls::LfibHwStatus >( "hwStatus" );
   Ptr< Routing::Hardware::RouteStatus > routeStatus =
      make< Routing::Hardware::RouteStatus >( "routeStatus" );
   Ptr< ManualClock > clock = make< ManualClock >();
   Ptr< Scheduler > scheduler = make< Scheduler >( clock );
   Ptr< StrictHelper > helper = make< StrictHelper >();
   Ptr< MplsDecapSm > sm;
};

} // namespace VelTest
