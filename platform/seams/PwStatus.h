// The pseudowire layer as label forwarding sees it: where each pseudowire ends on this switch, and
// which labels bring its frames.

#pragma once

#include <string>

#include "platform/entity/Entity.h"
#include "platform/seams/FecTables.h"
#include "platform/values/MplsTypes.h"

namespace Pseudowire {

using Vel::IntfId;

/// The local end of a VLAN pseudowire.
using LocalConnectorInfo = Fib::DecapConnector;

/// Written by the pseudowire layer.
class VEL_EXPORT Status : public Vel::WatchedEntity {
 public:
   class Reactor : public Vel::ReactorOf< Status > {
    public:
      virtual void onLocalConnectorInfo( IntfId /*pwIntfId*/ ) {}
   };

   // clang-format off
   VEL_ENTITY( Status )
   VEL_KEY( std::string, statusName )
   VEL_COLLECTION( Hash, IntfId, LocalConnectorInfo, localConnectorInfo, onLocalConnectorInfo )
   VEL_ENTITY_END_IN_SOURCE
   // clang-format on

 public:
   explicit Status( std::string name ) : statusName_( std::move( name ) ) {}
};

} // namespace Pseudowire

namespace VelPw {

/// What a label's frames are decapsulated into.
struct PwDecapInfo {
   Vel::MplsLabel label;
   Vel::IntfId pwIntfId;
   Pseudowire::LocalConnectorInfo connector; ///< as requested; empty for a port pseudowire
   Vel::HwFecId hwFecId; ///< the FEC of the connector, as answered; none for a port pseudowire
   friend bool operator==( const PwDecapInfo&, const PwDecapInfo& ) = default;
};
VEL_EXPORT void appendText( std::string& out, const PwDecapInfo& info );

/// Written for the pseudowire layer. An entry of a VLAN pseudowire is there while its FEC is.
class VEL_EXPORT DecapInfoTable : public Vel::WatchedEntity {
 public:
   class Reactor : public Vel::ReactorOf< DecapInfoTable > {
    public:
      virtual void onLabelToPwDecapInfo( Vel::MplsLabel ) {}
   };

   // clang-format off
   VEL_ENTITY( DecapInfoTable )
   VEL_KEY( std::string, tableName )
   VEL_VALUES( Hash, Vel::MplsLabel, PwDecapInfo, label, labelToPwDecapInfo, onLabelToPwDecapInfo )
   VEL_ENTITY_END_IN_SOURCE
   // clang-format on

 public:
   explicit DecapInfoTable( std::string name ) : tableName_( std::move( name ) ) {}
};

} // namespace VelPw
