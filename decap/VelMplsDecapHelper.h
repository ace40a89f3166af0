// Decap helpers: the seam between MplsDecapSm and whatever programs labels that end here.
//
// The state machine never touches hardware. For each label it calls one operation of the helper with
// the label and where it leads (a VRF, a VLAN, or an 802.1Q tag and its VLAN), and reads what became
// of it from the return code. A platform derives its helper from one of these:
//
//    VelBaseHelper                      what all helpers of platforms have
//     └─ MplsDecapHelper                the operations; none is implemented
//         └─ MplsDecapHelperWithDot1qMap   ids for maps from 802.1Q tag to VLAN
//             └─ MplsDecapHelperStub          writes each call down instead of programming
//
// Contract, for each label:
//    1. A create names where the label leads. It answers `success` when hardware leads it there,
//       a code from 1 to 3 when it does not and is to be asked again, and a higher one when it is
//       not to be asked again.
//    2. What answered `success` is deleted once, with the arguments of its create, before the label
//       is led anywhere else. The exception is a tag that is led to another VLAN: it is created
//       again over what is there.
//    3. `doEndOfSync` comes once, when everything that was there at the start has been asked for.
//       What hardware has of an earlier life and has not been asked for may go then.
//    4. None may wait, throw or call the state machine.

#pragma once

#include <compare>
#include <string>

#include "platform/entity/Entity.h"
#include "platform/lfib/LfibStatus.h"
#include "platform/services/NumAllocator.h"
#include "platform/services/TimerWheel.h"

namespace Vel {

/// What the helpers that platforms supply have in common.
class VEL_EXPORT VelBaseHelper : public WatchedEntity {
   // clang-format off
   VEL_ENTITY( VelBaseHelper )
   VEL_KEY( std::string, helperName )
   VEL_DERIVED( hasBackupSupport )
   VEL_ENTITY_END_IN_SOURCE
   // clang-format on

 protected:
   explicit VelBaseHelper( std::string name ) : helperName_( std::move( name ) ) {}
};

/// Names one map from 802.1Q tag to VLAN as it is in hardware. The default names none.
class Dot1qTagToVlanMapId {
 public:
   constexpr Dot1qTagToVlanMapId() = default;
   constexpr explicit Dot1qTagToVlanMapId( U32 value ) : value_( value ) {}
   constexpr U32 value() const { return value_; }
   constexpr U64 hash() const { return mixBits( value_ ); }
   friend constexpr auto operator<=>( const Dot1qTagToVlanMapId&,
                                      const Dot1qTagToVlanMapId& ) = default;

 private:
   U32 value_ = 0;
};
inline void appendText( std::string& out, Dot1qTagToVlanMapId id ) {
   appendText( out, id.value() );
}

} // namespace Vel

namespace VelHelper {

using Vel::Dot1qTagToVlanMapId;
using Vel::MplsLabel;
using Vel::Ptr;
using Vel::U64;

/// The operations. None is implemented here: a call is a broken promise of the platform, and fatal,
/// unless the environment has VEL_NOOP_AGENT, for agents without hardware. Then nothing is done,
/// and creates answer `notSupported`, so that the labels show as not programmed.
class VEL_EXPORT MplsDecapHelper : public Vel::VelBaseHelper {
   // clang-format off
   VEL_ENTITY( MplsDecapHelper )
   VEL_ENTITY_END_OVER( VelBaseHelper )
   // clang-format on

 public:
   using ReturnCode = Mpls::LfibHwProgrammingReturnCode;

   explicit MplsDecapHelper( std::string name ) : VelBaseHelper( std::move( name ) ) {}

   /// Pops the label and bridges what is below it in the VLAN: to where its address was learned, or
   /// with `flood` to all members (the label of broadcast, unknown unicast and multicast, RFC 7432
   /// section 11.2).
   virtual ReturnCode createLabelToVlanMapping( MplsLabel label, Bridging::VlanId vlanId,
                                                bool flood );
   virtual void deleteLabelToVlanMapping( MplsLabel label, Bridging::VlanId vlanId, bool flood );
   /// For platforms with hardware tables of maps; the state machine calls neither.
   virtual Dot1qTagToVlanMapId createDot1qMapping( const Mpls::LfibDot1qTagToVlan* map );
   virtual void deleteDot1qMapping( Dot1qTagToVlanMapId id );
   /// The same as for a VLAN, of frames with that 802.1Q tag below the label. `vlanId` is never
   /// none when MplsDecapSm calls.
   virtual ReturnCode createLabelDot1qToVlanMapping( MplsLabel label, Bridging::VlanId dot1qTag,
                                                     Bridging::VlanIdOrNone vlanId, bool flood );
   virtual void deleteLabelDot1qToVlanMapping( MplsLabel label, Bridging::VlanId dot1qTag,
                                               bool flood );
   /// Pops the label and looks the IP packet below it up in the VRF.
   virtual ReturnCode createLabelToVrfMapping( MplsLabel label, L3::VrfName vrfName,
                                               Mpls::PayloadType payloadType );
   virtual void deleteLabelToVrfMapping( MplsLabel label, L3::VrfName vrfName,
                                         Mpls::PayloadType payloadType );
   virtual void doEndOfSync() {}

 private:
   VEL_HIDDEN ReturnCode unimplementedCreate( std::string_view message ) const;
   VEL_HIDDEN void unimplemented( std::string_view message ) const;
};

/// Hands out small numbers for maps from 802.1Q tag to VLAN: 1 to 255, each resting for ten seconds
/// after it was given back.
///
/// `dot1qMapId` and `allocatedMapId` are each other's inverse. Cost: two look-ups a call.
class VEL_EXPORT MplsDecapHelperWithDot1qMap : public MplsDecapHelper {
   // clang-format off
   VEL_ENTITY( MplsDecapHelperWithDot1qMap )
   VEL_ATTRIBUTE( bool, initialized )
   VEL_ATTRIBUTE( Ptr< Vel::NumAllocator >, numAllocator )
   VEL_COLLECTION( Hash, Mpls::LfibDot1qTagToVlanKey, Dot1qTagToVlanMapId, dot1qMapId )
   VEL_COLLECTION( Hash, Dot1qTagToVlanMapId, Ptr< const Mpls::LfibDot1qTagToVlan >, allocatedMapId )
   VEL_ENTITY_END_OVER( MplsDecapHelper )
   // clang-format on

 public:
   MplsDecapHelperWithDot1qMap( std::string name, const Ptr< Vel::TimerWheel >& timerWheel );

   /// The id of the map with that key, which it keeps; the default id when all are in use.
   Dot1qTagToVlanMapId createDot1qMapping( const Mpls::LfibDot1qTagToVlan* map ) override;
   /// Gives the id back; one that is not in use changes nothing.
   void deleteDot1qMapping( Dot1qTagToVlanMapId id ) override;

 private:
   VEL_HIDDEN void handleInitialized( const Vel::TimerWheel& timerWheel );
};

/// Programs nothing: each operation writes its arguments into attributes, in their order, and then
/// counts the call. A create answers what its return-code attribute says.
class VEL_EXPORT MplsDecapHelperStub : public MplsDecapHelperWithDot1qMap {
 public:
   class Reactor : public Vel::ReactorOf< MplsDecapHelperStub > {
    public:
      virtual void onCreateLabelToVrfRc() {}
      virtual void onCreateLabelToVrfCount() {}
      virtual void onCreateLabelToVrfLabel() {}
      virtual void onCreateLabelToVrfVrfName() {}
      virtual void onCreateLabelToVrfPayloadType() {}
      virtual void onDeleteLabelToVrfCount() {}
      virtual void onDeleteLabelToVrfLabel() {}
      virtual void onDeleteLabelToVrfVrfName() {}
      virtual void onDeleteLabelToVrfPayloadType() {}
      virtual void onCreateLabelToVlanRc() {}
      virtual void onCreateLabelToVlanCount() {}
      virtual void onCreateLabelToVlanLabel() {}
      virtual void onCreateLabelToVlanVlanId() {}
      virtual void onCreateLabelToVlanFlood() {}
      virtual void onDeleteLabelToVlanCount() {}
      virtual void onDeleteLabelToVlanLabel() {}
      virtual void onDeleteLabelToVlanVlanId() {}
      virtual void onDeleteLabelToVlanFlood() {}
      virtual void onCreateLabelDot1qToVlanRc() {}
      virtual void onCreateLabelDot1qToVlanCount() {}
      virtual void onCreateLabelDot1qToVlanLabel() {}
      virtual void onCreateLabelDot1qToVlanDot1qTag() {}
      virtual void onCreateLabelDot1qToVlanVlanId() {}
      virtual void onCreateLabelDot1qToVlanFlood() {}
      virtual void onDeleteLabelDot1qToVlanCount() {}
      virtual void onDeleteLabelDot1qToVlanLabel() {}
      virtual void onDeleteLabelDot1qToVlanDot1qTag() {}
      virtual void onDeleteLabelDot1qToVlanFlood() {}
   };

   // clang-format off
   VEL_ENTITY( MplsDecapHelperStub )
   VEL_ATTRIBUTE( ReturnCode, createLabelToVrfRc, onCreateLabelToVrfRc )
   VEL_ATTRIBUTE( U64, createLabelToVrfCount, onCreateLabelToVrfCount )
   VEL_ATTRIBUTE( MplsLabel, createLabelToVrfLabel, onCreateLabelToVrfLabel )
   VEL_ATTRIBUTE( L3::VrfName, createLabelToVrfVrfName, onCreateLabelToVrfVrfName )
   VEL_ATTRIBUTE( Mpls::PayloadType, createLabelToVrfPayloadType, onCreateLabelToVrfPayloadType )
   VEL_ATTRIBUTE( U64, deleteLabelToVrfCount, onDeleteLabelToVrfCount )
   VEL_ATTRIBUTE( MplsLabel, deleteLabelToVrfLabel, onDeleteLabelToVrfLabel )
   VEL_ATTRIBUTE( L3::VrfName, deleteLabelToVrfVrfName, onDeleteLabelToVrfVrfName )
   VEL_ATTRIBUTE( Mpls::PayloadType, deleteLabelToVrfPayloadType, onDeleteLabelToVrfPayloadType )
   VEL_ATTRIBUTE( ReturnCode, createLabelToVlanRc, onCreateLabelToVlanRc )
   VEL_ATTRIBUTE( U64, createLabelToVlanCount, onCreateLabelToVlanCount )
   VEL_ATTRIBUTE( MplsLabel, createLabelToVlanLabel, onCreateLabelToVlanLabel )
   VEL_ATTRIBUTE( Bridging::VlanId, createLabelToVlanVlanId, onCreateLabelToVlanVlanId )
   VEL_ATTRIBUTE( bool, createLabelToVlanFlood, onCreateLabelToVlanFlood )
   VEL_ATTRIBUTE( U64, deleteLabelToVlanCount, onDeleteLabelToVlanCount )
   VEL_ATTRIBUTE( MplsLabel, deleteLabelToVlanLabel, onDeleteLabelToVlanLabel )
   VEL_ATTRIBUTE( Bridging::VlanId, deleteLabelToVlanVlanId, onDeleteLabelToVlanVlanId )
   VEL_ATTRIBUTE( bool, deleteLabelToVlanFlood, onDeleteLabelToVlanFlood )
   VEL_ATTRIBUTE( ReturnCode, createLabelDot1qToVlanRc, onCreateLabelDot1qToVlanRc )
   VEL_ATTRIBUTE( U64, createLabelDot1qToVlanCount, onCreateLabelDot1qToVlanCount )
   VEL_ATTRIBUTE( MplsLabel, createLabelDot1qToVlanLabel, onCreateLabelDot1qToVlanLabel )
   VEL_ATTRIBUTE( Bridging::VlanId, createLabelDot1qToVlanDot1qTag, onCreateLabelDot1qToVlanDot1qTag )
   VEL_ATTRIBUTE( Bridging::VlanIdOrNone, createLabelDot1qToVlanVlanId, onCreateLabelDot1qToVlanVlanId )
   VEL_ATTRIBUTE( bool, createLabelDot1qToVlanFlood, onCreateLabelDot1qToVlanFlood )
   VEL_ATTRIBUTE( U64, deleteLabelDot1qToVlanCount, onDeleteLabelDot1qToVlanCount )
   VEL_ATTRIBUTE( MplsLabel, deleteLabelDot1qToVlanLabel, onDeleteLabelDot1qToVlanLabel )
   VEL_ATTRIBUTE( Bridging::VlanId, deleteLabelDot1qToVlanDot1qTag, onDeleteLabelDot1qToVlanDot1qTag )
   VEL_ATTRIBUTE( bool, deleteLabelDot1qToVlanFlood, onDeleteLabelDot1qToVlanFlood )
   VEL_ENTITY_END_OVER( MplsDecapHelperWithDot1qMap )
   // clang-format on

 public:
   using MplsDecapHelperWithDot1qMap::MplsDecapHelperWithDot1qMap;

   ReturnCode createLabelToVlanMapping( MplsLabel label, Bridging::VlanId vlanId,
                                        bool flood ) override;
   void deleteLabelToVlanMapping( MplsLabel label, Bridging::VlanId vlanId, bool flood ) override;
   ReturnCode createLabelDot1qToVlanMapping( MplsLabel label, Bridging::VlanId dot1qTag,
                                             Bridging::VlanIdOrNone vlanId, bool flood ) override;
   void deleteLabelDot1qToVlanMapping( MplsLabel label, Bridging::VlanId dot1qTag,
                                       bool flood ) override;
   ReturnCode createLabelToVrfMapping( MplsLabel label, L3::VrfName vrfName,
                                       Mpls::PayloadType payloadType ) override;
   void deleteLabelToVrfMapping( MplsLabel label, L3::VrfName vrfName,
                                 Mpls::PayloadType payloadType ) override;
};

Ptr< MplsDecapHelperStub > VEL_EXPORT
mplsDecapHelperStubFactory( std::string name, const Ptr< Vel::TimerWheel >& timerWheel );

} // namespace VelHelper
