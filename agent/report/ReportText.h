// ReportText: the pieces that reports of labels and vias are written with, for people and for
// programs.

#pragma once

#include <functional>
#include <iosfwd>
#include <string>
#include <string_view>
#include <vector>

#include "platform/seams/FecTables.h"
#include "platform/seams/HwMplsStatus.h"
#include "platform/values/IpTypes.h"
#include "platform/values/MplsTypes.h"

namespace CLI {
class App;
}

namespace Vel::Agent {

/// Hands text on in large pieces.
class TextOut {
 public:
   explicit TextOut( std::ostream& out ) : out_( out ) {}
   /// What is to go out; call `lineDone` now and then.
   std::string& text() { return text_; }
   void lineDone();
   void add( std::string_view text ) {
      text_ += text;
      lineDone();
   }
   /// False when not all of it could be written.
   bool finish();

 private:
   std::ostream& out_;
   std::string text_;
};

/// Gives an interface's name.
using InterfaceName = std::function< std::string( IntfId ) >;

/// Declares the option --format, "text" or "json". `format` must outlive the parsing.
void addReportFormat( CLI::App& app, std::string& format );
/// The text as a JSON string, with its quotation marks.
std::string jsonText( std::string_view text );
/// `"label":16040`, and `,"stack":[16040,24001]` for a key of several labels.
void appendJsonLabel( std::string& out, Mpls::RouteKey key );
/// The key as one JSON value: a number, or a list of the labels of several.
void appendJsonKey( std::string& out, Mpls::RouteKey key );
/// The text without what would steer a terminal.
std::string harmlessText( std::string text );
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

} // namespace Vel::Agent
