// The label table in our own format, which says what the tables of routers leave open.
//
//    { "velmplsLabelTable": 1,
//      "routes": [ { "label": 16040, "vias": [ { "action": "swap", "outLabels": [ 16040 ],
//                                                "nextHop": "10.0.1.2", "interface": "eth0" } ] } ]
//                                                }
//
// An unknown field is an error: a table that says more than this program understands must not be
// half obeyed. New kinds of routes and vias come as new fields, which older programs then refuse.

#include <array>
#include <utility>

#include "agent/ImportChecks.h"

namespace Vel::Agent {

namespace {

constexpr uint64_t knownVersion = 1;
constexpr std::string_view versionField = "velmplsLabelTable";

/// The value whose name the text is. A complaint and the first of them when there is none.
template< typename Value, size_t count >
Value choice( RecordCheck& check, std::string_view field, std::string_view text,
              const std::array< Value, count >& values ) {
   std::string known;
   for ( const Value value : values ) {
      if ( text == name( value ) ) {
         return value;
      }
      known += ( known.empty() ? "" : ", " ) + inQuotes( name( value ) );
   }
   check.complain( "the field " + inQuotes( field ) + " is " + inQuotes( text ) + ", not one of " +
                   known );
   return values.front();
}

void readPopFields( RecordCheck& check, JsonValue record, LabelVia& via ) {
   using enum LabelPayload;
   using enum LabelTtlMode;
   if ( const auto text = check.text( record, "payload", Need::optional ) ) {
      via.payload = choice( check, "payload", *text, std::array{ ipv4, ipv6, autodetect } );
   }
   if ( const auto text = check.text( record, "ttlMode", Need::optional ) ) {
      via.ttlMode = choice( check, "ttlMode", *text, std::array{ uniform, pipe } );
   }
}

void readVia( RecordCheck& check, JsonValue record, LabelVia& via ) {
   using enum LabelOperation;
   constexpr std::array< std::string_view, 6 > fields{ "action",    "outLabels", "nextHop",
                                                       "interface", "payload",   "ttlMode" };
   const size_t before = check.complaints();
   check.onlyFields( record, fields );
   const auto action = check.text( record, "action", Need::required );
   if ( !action ) {
      return;
   }
   via.action = choice( check, "action", *action, std::array{ pop, swap, push } );
   if ( const auto list = check.list( record, "outLabels", Need::optional ) ) {
      via.outLabels = check.labels( *list ).value_or( std::vector< uint32_t >{} );
   }
   if ( check.complaints() == before && via.outLabels.empty() != ( via.action == pop ) ) {
      check.complain( via.action == pop ? "a pop has no \"outLabels\""
                                        : "a " + std::string( *action ) + " needs \"outLabels\"" );
   }
   readPopFields( check, record, via );
   const bool pops =
      via.action == pop || ( via.action == swap && via.outLabels == std::vector{ 3U } );
   if ( !pops && ( record.field( "payload" ) || record.field( "ttlMode" ) ) ) {
      check.complain( "\"payload\" and \"ttlMode\" go with a pop only" );
   }
   if ( const auto address = check.text( record, "nextHop", Need::optional ) ) {
      via.nextHop = check.address( *address );
   }
   if ( const auto interface = check.text( record, "interface", Need::optional ) ) {
      via.interface = check.interface( *interface );
   }
}

std::vector< uint32_t > readStack( RecordCheck& check, JsonValue record ) {
   const auto label = check.natural( record, "label", Need::optional, labelLimit - 1 );
   const auto list = check.list( record, "stack", Need::optional );
   if ( check.sound() && label.has_value() == list.has_value() ) {
      check.complain( "a route has either a \"label\" or a \"stack\"" );
   }
   if ( list ) {
      return check.labels( *list ).value_or( std::vector< uint32_t >{} );
   }
   return { static_cast< uint32_t >( label.value_or( 0 ) ) };
}

bool readRoute( RecordCheck& check, LabelRoute& route ) {
   constexpr std::array< std::string_view, 4 > fields{ "label", "stack", "kind", "vias" };
   const std::optional< JsonValue > record = check.record();
   if ( !record ) {
      return false;
   }
   route.stack = readStack( check, *record );
   if ( !check.sound() || !check.incomingStack( route.stack ) ) {
      return false;
   }
   check.onlyFields( *record, fields );
   const auto kind = check.text( *record, "kind", Need::optional ).value_or( "forwarding" );
   if ( kind == "decapsulation" ) {
      route.ignoredReason = "a decapsulation route ends here and forwards to no next hop";
      if ( record->field( "vias" ) ) {
         check.complain( "a decapsulation route has no \"vias\"" );
      }
   } else if ( kind != "forwarding" ) {
      check.complain( "the field \"kind\" is " + inQuotes( kind ) +
                      ", not one of \"forwarding\", \"decapsulation\"" );
   } else if ( const auto vias = check.list( *record, "vias", Need::required ) ) {
      check.vias( *vias, route,
                  [&]( JsonValue via, LabelVia& into ) { readVia( check, via, into ); } );
   }
   return check.sound();
}

class NativePieces final : public JsonPieces {
 public:
   NativePieces( std::vector< LabelRoute >& routes, ErrorList& errors )
      : routes_( routes ), errors_( errors ) {}

   bool opened( JsonKind kind ) override {
      stopped_ = kind != JsonKind::object;
      if ( stopped_ ) {
         errors_.addWhole( "a native label table is an object with \"velmplsLabelTable\" and "
                           "\"routes\"" );
      }
      return !stopped_;
   }
   bool opensList( std::string_view key ) override {
      if ( key != "routes" ) {
         return false;
      }
      if ( std::exchange( routesSeen_, true ) ) {
         errors_.add( std::nullopt, std::nullopt, {}, "the field \"routes\" appears twice" );
      }
      return true;
   }
   bool piece( const JsonPiece& piece ) override {
      if ( piece.list.empty() ) {
         return readField( piece );
      }
      RecordCheck check( errors_, piece, "route" );
      LabelRoute route;
      stopped_ = readRoute( check, route ) &&
                 !addRoute( routes_, std::move( route ), piece.offset, errors_ );
      return !stopped_;
   }
   void finish() {
      if ( stopped_ ) {
         return;
      }
      if ( !versionSeen_ ) {
         errors_.addWhole( "the field \"velmplsLabelTable\" is missing" );
      }
      if ( !routesSeen_ ) {
         errors_.addWhole( "the field \"routes\" is missing" );
      }
   }

 private:
   bool readField( const JsonPiece& piece ) {
      const auto complain = [&]( std::string reason ) {
         errors_.add( piece.offset, std::nullopt, {}, std::move( reason ) );
      };
      if ( piece.key == "routes" ) {
         routesSeen_ = true;
         complain( "the field \"routes\" is " + piece.value.described() + ", not a list" );
      } else if ( piece.key != versionField ) {
         complain( "the field " + inQuotes( piece.key ) + " is unknown" );
      } else if ( std::exchange( versionSeen_, true ) ) {
         complain( "the field \"velmplsLabelTable\" appears twice" );
      } else if ( !piece.value.is( JsonKind::natural ) || piece.value.natural() != knownVersion ) {
         errors_.addFatal( piece.offset, "version " + piece.value.described() +
                                            " of the native format is unknown; this program reads "
                                            "version 1" );
         routes_.clear();
         stopped_ = true;
         return false;
      }
      return true;
   }

   std::vector< LabelRoute >& routes_;
   ErrorList& errors_;
   bool stopped_ = false; // before the end, with a complaint
   bool versionSeen_ = false;
   bool routesSeen_ = false;
};

} // namespace

void importNative( std::string_view text, std::vector< LabelRoute >& routes, ErrorList& errors ) {
   NativePieces pieces( routes, errors );
   if ( readJson( text, JsonCut::members, pieces, errors ) ) {
      pieces.finish();
   }
}

} // namespace Vel::Agent
