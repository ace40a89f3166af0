#include "agent/report/ReportText.h"

#include <algorithm>
#include <ostream>

#include <CLI/CLI.hpp>
#include <nlohmann/json.hpp>

namespace Vel::Agent {

namespace {
constexpr size_t flushBytes = size_t{ 1 } << 16;
} // namespace

void TextOut::lineDone() {
   if ( text_.size() >= flushBytes ) {
      out_.write( text_.data(), static_cast< std::streamsize >( text_.size() ) );
      text_.clear();
   }
}

bool TextOut::finish() {
   out_.write( text_.data(), static_cast< std::streamsize >( text_.size() ) );
   text_.clear();
   out_.flush();
   return out_.good();
}

void addReportFormat( CLI::App& app, std::string& format ) {
   app.add_option( "--format", format, "Form of the result: text (when not given) or json" )
      ->type_name( "FORM" )
      ->check( []( const std::string& form ) {
         return form == "text" || form == "json"
                   ? std::string()
                   : "\"" + form + "\" is not a form of the result; there are text and json";
      } );
}

std::string jsonText( std::string_view text ) {
   return nlohmann::json( text ).dump( -1, ' ', false, nlohmann::json::error_handler_t::replace );
}

namespace {

std::string intfText( IntfId intf, const InterfaceName& name ) {
   return name ? name( intf ) : textOf( intf );
}

void appendStack( std::string& out, Mpls::RouteKey key ) {
   for ( size_t depth = 0; depth < Mpls::RouteKey::maxLabels && !key.label( depth ).null();
         ++depth ) {
      out += depth == 0 ? '[' : ',';
      appendText( out, key.label( depth ) );
   }
   out += ']';
}

/// What a via does with the label: "swap 17", "pop ipv4 uniform".
template< class Via >
void appendOperation( std::string& out, const Via& via ) {
   appendText( out, via.labelAction );
   for ( size_t i = 0; i < via.labelStack.stackSize(); ++i ) {
      out += joinText( i == 0 ? " " : "/", via.labelStack.label( i ) );
   }
   if ( via.payloadType != Mpls::PayloadType::undefined ) {
      out += joinText( " ", via.payloadType );
   }
   if ( via.ttlMode != Mpls::TtlMode::undefined ) {
      out += joinText( " ", via.ttlMode );
   }
}

} // namespace

void appendJsonKey( std::string& out, Mpls::RouteKey key ) {
   if ( key.singleLabel() ) {
      appendText( out, key.topLabel() );
   } else {
      appendStack( out, key );
   }
}

void appendJsonLabel( std::string& out, Mpls::RouteKey key ) {
   out += joinText( "\"label\":", key.topLabel() );
   if ( !key.singleLabel() ) {
      out += ",\"stack\":";
      appendStack( out, key );
   }
}

// Tables may name interfaces with what UTF-8 has of control characters, U+0080 to U+009F.
std::string harmlessText( std::string text ) {
   for ( size_t at = 0; ( at = text.find( '\xC2', at ) ) != std::string::npos; ++at ) {
      if ( at + 1 < text.size() && static_cast< unsigned char >( text[at + 1] ) < 0xA0 ) {
         text.replace( at, 2, "?" );
      }
   }
   std::ranges::replace_if(
      text, []( char c ) { return ( c >= 0 && c < ' ' ) || c == '\x7F'; }, '?' );
   return text;
}

std::string viasText( const std::vector< Mpls::Hardware::L2Via >& vias,
                      const InterfaceName& name ) {
   std::string out;
   for ( const Mpls::Hardware::L2Via& via : vias ) {
      out += out.empty() ? "" : ", ";
      appendOperation( out, via );
      out += joinText( " to ", via.macAddr, " on ", intfText( via.intf, name ) );
      if ( via.vlanId != 0 ) {
         out += joinText( " vlan ", via.vlanId );
      }
   }
   return out.empty() ? "no vias" : out;
}

std::string fecIdText( Fib::FecId fecId ) {
   return joinText( fecId.value() >> Fib::adjTypePos(), ":", fecId.index() );
}

std::string fecViasText( const std::vector< Fib::FecVia >& vias, const InterfaceName& name ) {
   std::string out;
   for ( const Fib::FecVia& via : vias ) {
      out += out.empty() ? "" : ", ";
      if ( via.drop ) {
         out += "drop";
         continue;
      }
      const bool plain =
         via.labelAction == MplsLabelAction::none && via.labelStack.stackSize() == 0;
      if ( via.intf.kind() == IntfId::Kind::hierarchicalFec && plain ) {
         out += "into FEC " + fecIdText( Fib::FecIdIntfId::intfIdToFecId( via.intf ) );
         continue;
      }
      appendOperation( out, via );
      out += via.nextHop.empty() ? "" : joinText( " to ", via.nextHop );
      out += via.intf.empty() ? "" : " on " + intfText( via.intf, name );
   }
   return out.empty() ? "no vias" : out;
}

std::string nextHopText( const IpGenAddr& address, IntfId intf, const InterfaceName& name ) {
   return joinText( "next hop ", address,
                    intf.empty() ? std::string() : " on " + intfText( intf, name ) );
}

std::string counted( size_t count, std::string_view one, std::string_view many ) {
   return joinText( count, " ", count == 1 ? one : many );
}

} // namespace Vel::Agent
