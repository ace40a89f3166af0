// Words: labels' vias, FECs and next hops as reports write them, for people and for programs.

#pragma once

#include <functional>
#include <string>
#include <string_view>
#include <vector>

#include "platform/seams/FecTables.h"
#include "platform/seams/HwMplsStatus.h"
#include "platform/values/IpTypes.h"
#include "platform/values/MplsTypes.h"

namespace Vel::Inspect {

/// Gives an interface's name. Where it is empty, the library's text for interfaces stands.
using InterfaceName = std::function< std::string( IntfId ) >;

/// The interface's name.
std::string intfText( IntfId intf, const InterfaceName& name );
/// "swap 16040 to 02:00:0a:00:01:02 on eth1 vlan 20, pop ipv4 to ...".
std::string viasText( const std::vector< Mpls::Hardware::L2Via >& vias, const InterfaceName& name );
/// "10:3": adjacency type and index of the FEC id.
std::string fecIdText( Fib::FecId fecId );
/// "swap 17 to 10.0.1.2 on eth1, drop, into FEC 10:3"; every FEC's content but for the id.
std::string fecViasText( const std::vector< Fib::FecVia >& vias, const InterfaceName& name );
/// "next hop 10.0.1.3 on eth1"; without the interface when that is empty.
std::string nextHopText( const IpGenAddr& address, IntfId intf, const InterfaceName& name );
/// "1 label", "2 labels".
std::string counted( size_t count, std::string_view one, std::string_view many );

} // namespace Vel::Inspect
