// The label table of a Linux kernel, as `ip -j -f mpls route` prints it.
//
//    [ { "dst": "16040", "to": "16040/24001", "via": { "family": "inet", "host": "10.0.1.2" },
//        "dev": "eth0" },
//      { "dst": "16050", "nexthops": [ { "to": "16050", "via": {...}, "dev": "eth0" }, ... ] } ]
//
// Labels are text, a stack is joined by "/" with the top label first. Without `to` it is a pop.

#include <utility>

#include "agent/import/ImportChecks.h"

namespace Vel::Agent {

namespace {

LabelTtlMode readTtlMode( RecordCheck& check, JsonValue record ) {
   // Some versions of the program spell the name of the field wrong.
   for ( const std::string_view name : { "ttl-propagate", "ttl-propogate" } ) {
      const auto text = check.text( record, name, Need::optional );
      if ( text == "disabled" ) {
         return LabelTtlMode::pipe;
      }
      if ( text && *text != "enabled" ) {
         check.complain( "the field " + inQuotes( name ) + " is " + inQuotes( *text ) +
                         ", not \"enabled\" or \"disabled\"" );
      }
   }
   return LabelTtlMode::uniform;
}

void readNextHop( RecordCheck& check, JsonValue hop, LabelVia& via ) {
   const auto viaObject = check.object( hop, "via", Need::optional );
   if ( !viaObject ) {
      return;
   }
   const auto host = check.text( *viaObject, "host", Need::required );
   const auto family = check.text( *viaObject, "family", Need::optional ).value_or( "" );
   if ( !host ) {
      return;
   }
   if ( !family.empty() && family != "inet" && family != "inet6" ) {
      check.complain( "the next hop is of the family " + inQuotes( family ) +
                      "; only \"inet\" and \"inet6\" can be used" );
      return;
   }
   via.nextHop = check.address( *host );
   const bool v6 = via.nextHop.find( ':' ) != std::string::npos;
   if ( !via.nextHop.empty() && !family.empty() && v6 != ( family == "inet6" ) ) {
      check.complain( "the next hop " + via.nextHop + " is not of its family " +
                      inQuotes( family ) );
   }
}

void readHop( RecordCheck& check, JsonValue hop, LabelTtlMode ttlMode, LabelVia& via ) {
   if ( const auto to = check.text( hop, "to", Need::optional ) ) {
      via.action = LabelOperation::swap;
      via.outLabels = check.labels( *to ).value_or( std::vector< uint32_t >{} );
   }
   readNextHop( check, hop, via );
   if ( const auto dev = check.text( hop, "dev", Need::optional ) ) {
      via.interface = check.interface( *dev );
   }
   via.ttlMode = ttlMode;
}

class Iproute2Pieces final : public JsonPieces {
 public:
   Iproute2Pieces( std::vector< LabelRoute >& routes, ErrorList& errors )
      : routes_( routes ), errors_( errors ) {}

   bool opened( JsonKind kind ) override {
      if ( kind != JsonKind::list ) {
         errors_.addWhole( "an iproute2 label table is a list of routes" );
      }
      return kind == JsonKind::list;
   }
   bool opensList( std::string_view ) override { return false; }
   bool piece( const JsonPiece& piece ) override {
      RecordCheck check( errors_, piece, "route" );
      LabelRoute route;
      return !read( check, route ) ||
             addRoute( routes_, std::move( route ), piece.offset, errors_ );
   }

 private:
   static bool read( RecordCheck& check, LabelRoute& route ) {
      const std::optional< JsonValue > record = check.record();
      if ( !record ) {
         return false;
      }
      const auto dst = check.text( *record, "dst", Need::required );
      route.stack = dst ? check.labels( *dst ).value_or( std::vector< uint32_t >{} )
                        : std::vector< uint32_t >{};
      if ( !check.sound() || !check.incomingStack( route.stack ) ) {
         return false;
      }
      const auto type = check.text( *record, "type", Need::optional ).value_or( "unicast" );
      if ( type != "unicast" ) {
         route.ignoredReason =
            "a route of the type " + inQuotes( type ) + " forwards to no next hop";
         return check.sound();
      }
      const LabelTtlMode ttlMode = readTtlMode( check, *record );
      const auto read = [&]( JsonValue hop, LabelVia& via ) {
         readHop( check, hop, ttlMode, via );
      };
      if ( !record->field( "nexthops" ) ) {
         LabelVia via;
         read( *record, via );
         if ( check.sound() ) {
            check.finishVia( route.vias, payloadUnder( route.label() ), via );
         }
      } else if ( record->field( "via" ) || record->field( "to" ) ) {
         check.complain( "both a next hop of its own and a list \"nexthops\"" );
      } else if ( const auto hops = check.list( *record, "nexthops", Need::required ) ) {
         check.vias( *hops, route.vias, payloadUnder( route.label() ), read );
      }
      return check.sound();
   }

   std::vector< LabelRoute >& routes_;
   ErrorList& errors_;
};

} // namespace

void importIproute2( std::string_view text, std::vector< LabelRoute >& routes, ErrorList& errors ) {
   Iproute2Pieces pieces( routes, errors );
   readJson( text, JsonCut::members, pieces, errors );
}

} // namespace Vel::Agent
