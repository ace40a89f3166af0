#include "agent/import/ImportChecks.h"

#include <algorithm>
#include <array>
#include <charconv>

#include "platform/values/IpTypes.h"

namespace Vel::Agent {

void RecordCheck::complain( std::string reason ) {
   ++complaints_;
   std::string where;
   if ( !label_ ) {
      where = piece_.key.empty() ? std::string( noun_ ) + " " + std::to_string( piece_.index + 1 )
                                 : inQuotes( piece_.key );
   }
   if ( via_ > 0 ) {
      where +=
         ( where.empty() ? "" : ", " ) + std::string( viaNoun_ ) + " " + std::to_string( via_ );
   }
   errors_.add( piece_.offset, label_, std::move( where ), std::move( reason ) );
}

std::optional< JsonValue > RecordCheck::record() {
   if ( !piece_.fault.empty() ) {
      complain( std::string( piece_.fault ) );
      return std::nullopt;
   }
   if ( !isObject( piece_.value, "the " + std::string( noun_ ) ) ) {
      return std::nullopt;
   }
   return piece_.value;
}

bool RecordCheck::isObject( JsonValue value, std::string_view what ) {
   if ( value.is( JsonKind::object ) ) {
      return true;
   }
   complain( std::string( what ) + " is " + value.described() + ", not an object" );
   return false;
}

std::optional< JsonValue > RecordCheck::field( JsonValue object, std::string_view name, Need need,
                                               JsonKind kind, std::string_view kindName ) {
   const std::optional< JsonValue > value = object.field( name );
   if ( !value ) {
      if ( need == Need::required ) {
         complain( "the field " + inQuotes( name ) + " is missing" );
      }
      return std::nullopt;
   }
   if ( !value->is( kind ) ) {
      complain( "the field " + inQuotes( name ) + " is " + value->described() + ", not " +
                std::string( kindName ) );
      return std::nullopt;
   }
   return value;
}

std::optional< std::string_view > RecordCheck::text( JsonValue object, std::string_view name,
                                                     Need need ) {
   const auto value = field( object, name, need, JsonKind::text, "a text" );
   return value ? std::optional( value->text() ) : std::nullopt;
}

std::optional< uint64_t > RecordCheck::natural( JsonValue object, std::string_view name, Need need,
                                                uint64_t largest ) {
   const auto value = field( object, name, need, JsonKind::natural, "a whole number from 0" );
   if ( value && value->natural() > largest ) {
      complain( "the field " + inQuotes( name ) + " is " + value->described() +
                ", beyond its largest value " + std::to_string( largest ) );
      return std::nullopt;
   }
   return value ? std::optional( value->natural() ) : std::nullopt;
}

std::optional< bool > RecordCheck::boolean( JsonValue object, std::string_view name, Need need ) {
   const auto value = field( object, name, need, JsonKind::boolean, "true or false" );
   return value ? std::optional( value->natural() != 0 ) : std::nullopt;
}

std::optional< JsonValue > RecordCheck::list( JsonValue object, std::string_view name, Need need ) {
   return field( object, name, need, JsonKind::list, "a list" );
}

std::optional< JsonValue > RecordCheck::object( JsonValue object, std::string_view name,
                                                Need need ) {
   return field( object, name, need, JsonKind::object, "an object" );
}

void RecordCheck::onlyFields( JsonValue object, std::span< const std::string_view > names ) {
   for ( const JsonValue value : object ) {
      if ( std::ranges::find( names, value.key() ) == names.end() ) {
         complain( "the field " + inQuotes( value.key() ) + " is unknown" );
      }
   }
}

namespace {

constexpr uint32_t implicitNull = 3;   // RFC 3032 section 2.1
constexpr uint32_t firstOrdinary = 16; // RFC 3032 section 2.1: 0 to 15 are reserved

/// Why a value is no label that a packet can carry. Empty when it is one.
///
/// Reserved ones with a meaning: 0, 1 and 2 (RFC 3032 section 2.1), 7 entropy label indicator
/// (RFC 6790), 13 associated channel (RFC 5586), 14 OAM alert (RFC 3429), 15 extension (RFC 7274).
std::string labelFault( uint32_t label ) {
   constexpr std::array< uint32_t, 7 > reserved{ 0, 1, 2, 7, 13, 14, 15 };
   if ( label >= labelLimit ) {
      return "the label is beyond 1048575, the largest value of 20 bits";
   }
   if ( label >= firstOrdinary || std::ranges::find( reserved, label ) != reserved.end() ) {
      return {};
   }
   return "the label " + std::to_string( label ) + " is reserved and has no meaning";
}

} // namespace

std::string stackText( std::span< const uint32_t > stack ) {
   std::string out;
   for ( const uint32_t label : stack ) {
      out += ( out.empty() ? "" : "/" ) + std::to_string( label );
   }
   return out;
}

std::optional< uint32_t > labelOfDigits( std::string_view digits ) {
   if ( digits.empty() || digits.find_first_not_of( "0123456789" ) != digits.npos ) {
      return std::nullopt;
   }
   uint32_t label = labelLimit;
   std::from_chars( digits.data(), digits.data() + digits.size(), label );
   return std::min( label, labelLimit );
}

bool RecordCheck::incomingStack( std::span< const uint32_t > stack ) {
   if ( stack.empty() ) {
      complain( "the incoming label stack is empty" );
      return false;
   }
   if ( stack.front() < labelLimit ) {
      labelIs( stack.front() );
   }
   if ( stack.size() > maxIncomingLabels ) {
      complain( "an incoming stack of " + std::to_string( stack.size() ) + " labels; at most " +
                std::to_string( maxIncomingLabels ) + " can be matched" );
   }
   for ( const uint32_t label : stack ) {
      if ( label == implicitNull ) {
         complain(
            "3 (implicit null) never stands in a packet, so it cannot be an incoming label" );
      } else if ( std::string fault = labelFault( label ); !fault.empty() ) {
         complain( "incoming label: " + fault );
      }
   }
   return sound();
}

std::optional< std::vector< uint32_t > > RecordCheck::labels( JsonValue list ) {
   std::vector< uint32_t > labels;
   for ( const JsonValue value : list ) {
      if ( !value.is( JsonKind::natural ) ) {
         complain( value.described() + " is not a label; a label is a number from 0 to 1048575" );
         return std::nullopt;
      }
      labels.push_back(
         static_cast< uint32_t >( std::min< uint64_t >( value.natural(), labelLimit ) ) );
   }
   return labels;
}

std::optional< std::vector< uint32_t > > RecordCheck::labels( std::string_view joined ) {
   std::vector< uint32_t > labels;
   for ( std::string_view rest = joined;; ) {
      const size_t slash = rest.find( '/' );
      const std::optional< uint32_t > label = labelOfDigits( rest.substr( 0, slash ) );
      if ( !label ) {
         complain( inQuotes( joined ) +
                   " is not a label stack; labels are digits, joined by \"/\"" );
         return std::nullopt;
      }
      labels.push_back( *label );
      if ( slash == rest.npos ) {
         return labels;
      }
      rest.remove_prefix( slash + 1 );
   }
}

namespace {

/// Why no single neighbour has the address. Empty when one can have it.
std::string_view addressFault( const IpGenAddr& address ) {
   const bool v4 = address.af() == ipv4();
   if ( address.isAny() ) {
      return " is the unspecified address, not the address of a neighbour";
   }
   if ( v4 && address.v4() == ~U32{ 0 } ) {
      return " is the broadcast address, not the address of one neighbour";
   }
   return ( v4 ? address.v4() >> 28 == 0xE : address.v6().front() == 0xFF )
             ? " is a multicast address, not the address of one neighbour"
             : "";
}

} // namespace

std::string RecordCheck::address( std::string_view text ) {
   const std::optional< IpGenAddr > address = IpGenAddr::parse( text );
   if ( !address ) {
      complain( inQuotes( text ) + " is not an IPv4 or IPv6 address" );
      return {};
   }
   if ( const std::string_view fault = addressFault( *address ); !fault.empty() ) {
      complain( joinText( *address, fault ) );
      return {};
   }
   return address->text();
}

namespace {

/// Why a name cannot be one of `what`. Empty when it can.
std::string nameFault( std::string_view name, const std::string& what, size_t longest ) {
   if ( name.empty() ) {
      return "the " + what + " is empty";
   }
   if ( name.size() > longest ) {
      return "the " + what + " " + inQuotes( name ) + " is longer than " +
             std::to_string( longest ) + " characters";
   }
   const auto forbidden = []( char c ) {
      const auto byte = static_cast< unsigned char >( c );
      return c == '/' || byte <= ' ' || byte == 0x7F;
   };
   return std::ranges::any_of( name, forbidden )
             ? "the " + what + " " + inQuotes( name ) +
                  " has a slash, a blank or a control character in it"
             : std::string();
}

} // namespace

std::string RecordCheck::interface( std::string_view name ) {
   constexpr size_t longest = 15; // a Linux interface name has 16 bytes with its closing NUL
   if ( std::string fault = nameFault( name, "interface name", longest ); !fault.empty() ) {
      complain( std::move( fault ) );
      return {};
   }
   return std::string( name );
}

std::string RecordCheck::foreignName( std::string_view name ) {
   constexpr size_t longest = 63;
   if ( std::string fault = nameFault( name, "name", longest ); !fault.empty() ) {
      complain( std::move( fault ) );
      return {};
   }
   return std::string( name );
}

LabelPayload payloadUnder( uint32_t label ) {
   return label == 0   ? LabelPayload::ipv4
          : label == 2 ? LabelPayload::ipv6
                       : LabelPayload::autodetect;
}

std::optional< ForeignFec::Kind > foreignKindOfList( std::string_view key ) {
   return key.ends_with( 's' ) ? enumParse< ForeignFec::Kind >( key.substr( 0, key.size() - 1 ) )
                               : std::nullopt;
}

void RecordCheck::finishVia( std::vector< LabelVia >& into, LabelPayload bared, LabelVia& via ) {
   const size_t before = complaints_;
   if ( via.action == LabelOperation::swap && via.outLabels.size() == 1 &&
        via.outLabels.front() == implicitNull ) { // RFC 3032 section 2.1
      via.action = LabelOperation::pop;
      via.outLabels.clear();
   }
   if ( via.outLabels.size() > maxOutgoingLabels ) {
      complain( "an outgoing stack of " + std::to_string( via.outLabels.size() ) +
                " labels; at most " + std::to_string( maxOutgoingLabels ) + " can be put on" );
   }
   for ( const uint32_t label : via.outLabels ) {
      if ( label == implicitNull ) {
         complain( "3 (implicit null) means a pop and cannot be one of the labels put on (" +
                   stackText( via.outLabels ) + ")" );
         break;
      }
      if ( std::string fault = labelFault( label ); !fault.empty() ) {
         complain( "outgoing label: " + fault );
         break;
      }
   }
   if ( via.nextHop.empty() && via.interface.empty() ) {
      complain( "neither a next hop nor an interface" );
   }
   if ( via.action == LabelOperation::pop && via.payload == LabelPayload::none ) {
      via.payload = bared;
   }
   if ( complaints_ == before ) {
      into.push_back( std::move( via ) );
   }
}

bool checkSize( std::string_view text, ErrorList& errors ) {
   if ( text.size() > maxFileBytes ) {
      errors.addWhole( "the file is larger than 1 GiB" );
      return false;
   }
   if ( text.find_first_not_of( " \t\r\n" ) == text.npos ) {
      errors.addWhole( "the file is empty" );
      return false;
   }
   return true;
}

bool addRoute( std::vector< LabelRoute >& routes, LabelRoute&& route, size_t offset,
               ErrorList& errors ) {
   if ( routes.size() == maxRoutes ) {
      errors.addFatal( offset, "more than " + std::to_string( maxRoutes ) + " routes" );
      return false;
   }
   routes.push_back( std::move( route ) );
   return true;
}

} // namespace Vel::Agent
