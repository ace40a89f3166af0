#include "decap/VelMplsDecapHelper.h"

#include <cstdlib>

#include "platform/base/Assert.h"
#include "platform/base/Trace.h"

namespace Vel {

VEL_ENTITY_SOURCE( VelBaseHelper )

} // namespace Vel

namespace VelHelper {

namespace {

Vel::TraceHandle decapHelperTrace( "VelMplsDecapHelper" );

constexpr U64 minMapId = 1;
constexpr U64 maxMapId = 255;
constexpr double mapIdExpirySeconds = 10.0;

} // namespace

#define DECAP_HELPER_TRACE( ... ) VEL_TRACE( decapHelperTrace, 3, __VA_ARGS__ )
#define DECAP_HELPER_ASSERT( condition, text )                                                     \
   VEL_ASSERT_TEXT( condition, text, "", "VelMplsDecapHelper", name() )

// --- MplsDecapHelper

void MplsDecapHelper::unimplemented( std::string_view message ) const {
   if ( std::getenv( "VEL_NOOP_AGENT" ) == nullptr ) { // NOLINT(concurrency-mt-unsafe)
      Vel::assertionFailed( { message, "", "VelMplsDecapHelper", name(), __FILE__, __LINE__ } );
   }
}

MplsDecapHelper::ReturnCode MplsDecapHelper::unimplementedCreate( std::string_view message ) const {
   unimplemented( message );
   return ReturnCode::notSupported;
}

MplsDecapHelper::ReturnCode MplsDecapHelper::createLabelToVlanMapping( MplsLabel, Bridging::VlanId,
                                                                       bool ) {
   return unimplementedCreate( "Unimplemented createLabelToVlanMapping" );
}

void MplsDecapHelper::deleteLabelToVlanMapping( MplsLabel, Bridging::VlanId, bool ) {
   unimplemented( "Unimplemented delLabelToVlanMapping" );
}

Dot1qTagToVlanMapId MplsDecapHelper::createDot1qMapping( const Mpls::LfibDot1qTagToVlan* ) {
   unimplemented( "Unimplemented createDot1qMapping" );
   return {};
}

void MplsDecapHelper::deleteDot1qMapping( Dot1qTagToVlanMapId ) {
   unimplemented( "Unimplemented deleteDot1qMapping" );
}

MplsDecapHelper::ReturnCode MplsDecapHelper::createLabelDot1qToVlanMapping( MplsLabel,
                                                                            Bridging::VlanId,
                                                                            Bridging::VlanIdOrNone,
                                                                            bool ) {
   return unimplementedCreate( "Unimplemented createLabelDot1qToVlanMapping" );
}

void MplsDecapHelper::deleteLabelDot1qToVlanMapping( MplsLabel, Bridging::VlanId, bool ) {
   unimplemented( "Unimplemented deleteLabelDot1qToVlanMapping" );
}

MplsDecapHelper::ReturnCode MplsDecapHelper::createLabelToVrfMapping( MplsLabel, L3::VrfName,
                                                                      Mpls::PayloadType ) {
   return unimplementedCreate( "Unimplemented createLabelToVrfMapping" );
}

void MplsDecapHelper::deleteLabelToVrfMapping( MplsLabel, L3::VrfName, Mpls::PayloadType ) {
   unimplemented( "Unimplemented deleteLabelToVrfMapping" );
}

// --- MplsDecapHelperWithDot1qMap

MplsDecapHelperWithDot1qMap::MplsDecapHelperWithDot1qMap( std::string name,
                                                          const Ptr< Vel::TimerWheel >& timerWheel )
   : MplsDecapHelper( std::move( name ) ) {
   handleInitialized( *timerWheel );
}

void MplsDecapHelperWithDot1qMap::handleInitialized( const Vel::TimerWheel& timerWheel ) {
   DECAP_HELPER_TRACE( "handleInitialized" );
   const auto config = Vel::make< Vel::NumAllocatorConfig >( minMapId, maxMapId );
   config->expiryTimeIs( mapIdExpirySeconds );
   numAllocatorIs( Vel::make< Vel::NumAllocator >( config, Vel::make< Vel::NumAllocatorStatus >(),
                                                   Ptr< Vel::Clock >( timerWheel.clock() ) ) );
   initializedIs( true );
}

Dot1qTagToVlanMapId
MplsDecapHelperWithDot1qMap::createDot1qMapping( const Mpls::LfibDot1qTagToVlan* map ) {
   DECAP_HELPER_ASSERT( initialized(), "initialized()" );
   const Mpls::LfibDot1qTagToVlanKey key = map->key();
   DECAP_HELPER_TRACE( "createDot1qMapping::", "( LfibDot1qTagToVlanKey:", key );
   if ( const Dot1qTagToVlanMapId* const id = dot1qMapId().find( key ) ) {
      return *id;
   }
   const U64 number = numAllocator()->getNumber();
   if ( number == Vel::NumAllocator::invalidNumber() ) {
      return {};
   }
   const Dot1qTagToVlanMapId id( static_cast< Vel::U32 >( number ) );
   allocatedMapIdIs( id, Ptr< const Mpls::LfibDot1qTagToVlan >( map ) );
   dot1qMapIdIs( key, id );
   DECAP_HELPER_TRACE( "Allocated Dot1qTagToVlanMapId ", id );
   return id;
}

void MplsDecapHelperWithDot1qMap::deleteDot1qMapping( Dot1qTagToVlanMapId id ) {
   DECAP_HELPER_ASSERT( initialized(), "initialized()" );
   DECAP_HELPER_TRACE( "deleteDot1qMapping::", "( Dot1qTagToVlanMapId: ", id );
   const Ptr< const Mpls::LfibDot1qTagToVlan > map = allocatedMapId( id );
   if ( !map ) {
      return;
   }
   dot1qMapIdDel( map->key() );
   allocatedMapIdDel( id );
   numAllocator()->releaseNumber( id.value() );
   DECAP_HELPER_TRACE( "Deleted Dot1qTagToVlanMapId ", id );
}

// --- MplsDecapHelperStub

MplsDecapHelper::ReturnCode MplsDecapHelperStub::createLabelToVlanMapping( MplsLabel label,
                                                                           Bridging::VlanId vlanId,
                                                                           bool flood ) {
   createLabelToVlanLabelIs( label );
   createLabelToVlanVlanIdIs( vlanId );
   createLabelToVlanFloodIs( flood );
   createLabelToVlanCountIs( createLabelToVlanCount() + 1 );
   return createLabelToVlanRc();
}

void MplsDecapHelperStub::deleteLabelToVlanMapping( MplsLabel label, Bridging::VlanId vlanId,
                                                    bool flood ) {
   deleteLabelToVlanLabelIs( label );
   deleteLabelToVlanVlanIdIs( vlanId );
   deleteLabelToVlanFloodIs( flood );
   deleteLabelToVlanCountIs( deleteLabelToVlanCount() + 1 );
}

MplsDecapHelper::ReturnCode
MplsDecapHelperStub::createLabelDot1qToVlanMapping( MplsLabel label, Bridging::VlanId dot1qTag,
                                                    Bridging::VlanIdOrNone vlanId, bool flood ) {
   createLabelDot1qToVlanLabelIs( label );
   createLabelDot1qToVlanDot1qTagIs( dot1qTag );
   createLabelDot1qToVlanVlanIdIs( vlanId );
   createLabelDot1qToVlanFloodIs( flood );
   createLabelDot1qToVlanCountIs( createLabelDot1qToVlanCount() + 1 );
   return createLabelDot1qToVlanRc();
}

void MplsDecapHelperStub::deleteLabelDot1qToVlanMapping( MplsLabel label, Bridging::VlanId dot1qTag,
                                                         bool flood ) {
   deleteLabelDot1qToVlanLabelIs( label );
   deleteLabelDot1qToVlanDot1qTagIs( dot1qTag );
   deleteLabelDot1qToVlanFloodIs( flood );
   deleteLabelDot1qToVlanCountIs( deleteLabelDot1qToVlanCount() + 1 );
}

MplsDecapHelper::ReturnCode
MplsDecapHelperStub::createLabelToVrfMapping( MplsLabel label, L3::VrfName vrfName,
                                              Mpls::PayloadType payloadType ) {
   createLabelToVrfLabelIs( label );
   createLabelToVrfVrfNameIs( vrfName );
   createLabelToVrfPayloadTypeIs( payloadType );
   createLabelToVrfCountIs( createLabelToVrfCount() + 1 );
   return createLabelToVrfRc();
}

void MplsDecapHelperStub::deleteLabelToVrfMapping( MplsLabel label, L3::VrfName vrfName,
                                                   Mpls::PayloadType payloadType ) {
   deleteLabelToVrfLabelIs( label );
   deleteLabelToVrfVrfNameIs( vrfName );
   deleteLabelToVrfPayloadTypeIs( payloadType );
   deleteLabelToVrfCountIs( deleteLabelToVrfCount() + 1 );
}

Ptr< MplsDecapHelperStub > mplsDecapHelperStubFactory( std::string name,
                                                       const Ptr< Vel::TimerWheel >& timerWheel ) {
   return Vel::make< MplsDecapHelperStub >( std::move( name ), timerWheel );
}

} // namespace VelHelper
