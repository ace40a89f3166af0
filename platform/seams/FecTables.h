// FECs and the tables that request and answer hardware FEC ids.

#pragma once

#include <span>
#include <stdexcept>
#include <string>
#include <vector>

#include "platform/entity/Entity.h"
#include "platform/seams/L3Status.h"
#include "platform/values/LfibTypes.h"

namespace Fib {

/// One way out of a FEC. An interface that stands for another FEC makes it hierarchical.
struct FecVia {
   Vel::IpGenAddr nextHop;
   IntfId intf;
   Vel::MplsLabelAction labelAction = Vel::MplsLabelAction::none;
   Mpls::LabelStack labelStack;
   Mpls::PayloadType payloadType = Mpls::PayloadType::undefined; ///< with a pop
   Mpls::TtlMode ttlMode = Mpls::TtlMode::undefined;             ///< with a pop
   bool drop = false;                                            ///< frames end here
   friend bool operator==( const FecVia&, const FecVia& ) = default;
};
VEL_EXPORT void appendText( std::string& out, const FecVia& via );

/// Index of a via in a FEC.
class ViaIndex {
 public:
   static constexpr U32 min = 0;
   static constexpr U32 max = 127;

   explicit ViaIndex( U32 value ) : value_( value ) {
      if ( value > max ) {
         throw std::range_error( "ViaIndex::value < ViaIndex::min or > ViaIndex::max not allowed" );
      }
   }
   U32 value() const { return value_; }

 private:
   U32 value_;
};

/// Where the frames of a pseudowire leave the switch, and how: the interface, the tag that they get
/// there, and the VLAN that stands for the two inside. Empty while the pseudowire's layer does not
/// know it.
struct DecapConnector {
   IntfId parentIntfId;
   Bridging::VlanIdOrNone dot1qTag;
   Bridging::VlanId internalVlanId = 0;
   bool empty() const { return *this == DecapConnector(); }
   friend bool operator==( const DecapConnector&, const DecapConnector& ) = default;
};
inline void appendText( std::string& out, const DecapConnector& connector ) {
   out += Vel::joinText( "(parent=", connector.parentIntfId, ", dot1q=", connector.dot1qTag,
                         ", intVlan=", connector.internalVlanId, ")" );
}

/// A FEC: its vias in via-index order, and the FEC that protects it, if any; or, without vias, the
/// connector in which a pseudowire's frames end. Empty without either.
///
/// A protected FEC's last via leads into its backup; frames take it while the others are down or
/// drop.
struct Fec {
   FecId fecId;
   std::vector< FecVia > via;
   FecId backupFecId;
   DecapConnector decapConnector{};
   /// Appends a via. A 129th raises the range error of `ViaIndex`.
   void viaAdd( const FecVia& added ) {
      [[maybe_unused]] const ViaIndex index( static_cast< U32 >( via.size() ) );
      via.push_back( added );
   }
   /// Has the FEC protected by another: the way into that one is its last via.
   void backupAdd( FecId backup ) {
      FecVia into;
      into.intf = FecId::fecIdToHierarchicalIntfId( backup );
      viaAdd( into );
      backupFecId = backup;
   }
   /// Its vias without the way into its backup.
   std::span< const FecVia > primaryVia() const {
      return std::span( via ).first( via.size() -
                                     ( backupFecId == FecId() || via.empty() ? 0 : 1 ) );
   }
   bool empty() const { return via.empty() && decapConnector.empty(); }
   friend bool operator==( const Fec&, const Fec& ) = default;
};
VEL_EXPORT void appendText( std::string& out, const Fec& fec );

} // namespace Fib

namespace Fib6 {

/// The IPv6 form has the same fields and a table of its own.
struct Fec : Fib::Fec {
   friend bool operator==( const Fec&, const Fec& ) = default;
};

} // namespace Fib6

namespace Vel {

/// Identifies an adjacency across a restart. Opaque; 0 is none.
using AdjSyncId = U64;

/// Asks for a hardware FEC id, and for what `fec` or `fec6` holds when it is written.
struct HwFecIdRequest {
   Fib::FecId fecId;
   L3::VrfName vrfName;
   U64 version = 0; ///< of the content: it grows with every change, also over lives of the id
   friend bool operator==( const HwFecIdRequest&, const HwFecIdRequest& ) = default;
};
inline void appendText( std::string& out, const HwFecIdRequest& request ) {
   out += joinText( request.fecId, " ", request.vrfName, " version ", request.version );
}

/// A hardware FEC id as granted, and what stands behind it.
struct HwFecId {
   U64 hwId = 0;    ///< 0: none
   U64 version = 0; ///< of the request that has been carried out
   /// What the FEC was before a restart, with routes of that time in it when it was answered; 0:
   /// nothing.
   AdjSyncId syncId = 0;
   friend bool operator==( const HwFecId&, const HwFecId& ) = default;
};
inline void appendText( std::string& out, const HwFecId& id ) {
   out += joinText( id.hwId, " version ", id.version );
}

/// An entry of the map from FEC to the adjacency sync id of the process before.
struct AdjSyncIdEntry {
   Fib::FecId fecId;
   AdjSyncId syncId = 0;
   friend bool operator==( const AdjSyncIdEntry&, const AdjSyncIdEntry& ) = default;
};
inline void appendText( std::string& out, const AdjSyncIdEntry& entry ) {
   appendText( out, entry.syncId );
}

/// Requests to the hardware layer. Written by the label state machines.
class VEL_EXPORT FecIdToHwFecIdRequest : public WatchedEntity {
 public:
   class Reactor : public ReactorOf< FecIdToHwFecIdRequest > {
    public:
      virtual void onHwFecIdRequest( Fib::FecId ) {}
      virtual void onMayReplace( AdjSyncId ) {}
      virtual void onMayTakeOver( Fib::FecId ) {}
      virtual void onSyncRequestsReady() {}
   };

   // clang-format off
   VEL_ENTITY( FecIdToHwFecIdRequest )
   VEL_KEY( std::string, requestName )
   // The content of a FEC of ours, by its address family; another agent's has none. A change of the
   // request follows each change of these. Removed with the request, just before it.
   VEL_VALUES( Hash, Fib::FecId, Fib::Fec, fecId, fec )
   VEL_VALUES( Hash, Fib::FecId, Fib6::Fec, fecId, fec6 )
   // Made with the adjacency that forwards into the FEC; removed when no adjacency, no route and no
   // FEC that it protects is left. There is no refusal: what cannot be made is not answered.
   VEL_VALUES( Hash, Fib::FecId, HwFecIdRequest, fecId, hwFecIdRequest, onHwFecIdRequest )
   // The last version of the pseudowire requests, from which their writer's successor goes on:
   // answers to requests that are long withdrawn may still be on their way.
   VEL_ATTRIBUTE( U64, pwRequestVersion )
   // What a FEC was before the restart, for the hardware layer to find it again. Written while the
   // routes of the process before are taken over, cleared when that has ended.
   VEL_VALUES( Hash, Fib::FecId, AdjSyncIdEntry, fecId, adjSyncIdMap )
   // Offers to full hardware. The key is a FEC of the process before. All of its routes wait for
   // the requested FEC that is the value; without one, for several. Withdrawn when they do not any
   // more, or when all is taken over.
   VEL_COLLECTION( Hash, AdjSyncId, Fib::FecId, mayReplace, onMayReplace )
   // The same for a requested FEC, the value, all of whose routes wait for the FEC that is the key.
   // Withdrawn when one of its routes is to go elsewhere, and when hardware has taken the offer.
   VEL_COLLECTION( Hash, Fib::FecId, Fib::FecId, mayTakeOver, onMayTakeOver )
   // Nothing of the process before is wanted. Set before syncRequestsReady; reset by the next
   // start.
   VEL_ATTRIBUTE( bool, startsAfresh )
   // All that is known at the start has been requested: the hardware layer matches, answers and
   // says adjSyncDone. Reset by the next start.
   VEL_ATTRIBUTE( bool, syncRequestsReady, onSyncRequestsReady )
   VEL_ENTITY_END_IN_SOURCE
   // clang-format on

 public:
   explicit FecIdToHwFecIdRequest( std::string name ) : requestName_( std::move( name ) ) {}
};

/// Answers of the hardware layer.
class VEL_EXPORT FecIdToHwFecIdResponse : public WatchedEntity {
 public:
   class Reactor : public ReactorOf< FecIdToHwFecIdResponse > {
    public:
      virtual void onHwFecId( Fib::FecId ) {}
      virtual void onL2IntfId( Fib::FecId ) {}
      virtual void onHwFecIdControl() {}
   };

   // clang-format off
   VEL_ENTITY( FecIdToHwFecIdResponse )
   VEL_KEY( std::string, responseName )
   // Written when the FEC has been made, or rewritten; withdrawn when its request goes, and when
   // what it stands for does (another agent's FEC). A request that waits has none.
   VEL_COLLECTION( Hash, Fib::FecId, HwFecId, hwFecId, onHwFecId )
   // For other agents; the library reads neither.
   VEL_COLLECTION( Hash, Fib::FecId, IntfId, l2IntfId, onL2IntfId )
   VEL_ATTRIBUTE( bool, hwFecIdControl, onHwFecIdControl )
   VEL_ENTITY_END_IN_SOURCE
   // clang-format on

 public:
   explicit FecIdToHwFecIdResponse( std::string name ) : responseName_( std::move( name ) ) {}
};

} // namespace Vel
