// The label table in the native format, which says what the tables of routers leave open.
//
//    { "velmplsLabelTable": 1,
//      "routes": [ { "label": 16040,
//                    "vias": [ { "action": "swap", "outLabels": [ 16040 ],
//                                "nextHop": "10.0.1.2", "interface": "eth0" } ] } ] }
//
// Beside routes it can define what other agents have and routes lead into: `nextHopGroups`,
// `tunnels` and `externalFecs`, each with a name and vias.
//
// An unknown field is an error: a table that says more than this program understands must not be
// half obeyed. New kinds of routes and vias come as new fields, which older programs then refuse.

#include <array>
#include <set>
#include <string>
#include <utility>

#include "agent/import/ImportChecks.h"

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
      if ( text == stringValue( value ) ) {
         return value;
      }
      known += ( known.empty() ? "" : ", " ) + inQuotes( stringValue( value ) );
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

/// Where the via leads: by a next hop and an interface, or into what another agent has.
void readOutlet( RecordCheck& check, JsonValue record, LabelVia& via ) {
   const auto group = check.text( record, "nextHopGroup", Need::optional );
   const auto tunnel = check.text( record, "tunnel", Need::optional );
   if ( group || tunnel ) {
      if ( ( group && tunnel ) || record.field( "nextHop" ) || record.field( "interface" ) ) {
         check.complain( "a via has either a \"nextHopGroup\", or a \"tunnel\", or a \"nextHop\" "
                         "and an \"interface\"" );
      }
      via.outlet = group ? LabelOutlet::nextHopGroup : LabelOutlet::tunnel;
      via.interface = check.foreignName( group ? *group : *tunnel );
      return;
   }
   if ( const auto address = check.text( record, "nextHop", Need::optional ) ) {
      via.nextHop = check.address( *address );
   }
   if ( const auto interface = check.text( record, "interface", Need::optional ) ) {
      via.interface = check.interface( *interface );
   }
}

void readVia( RecordCheck& check, JsonValue record, LabelVia& via, Need needOfAction ) {
   using enum LabelOperation;
   constexpr std::array< std::string_view, 8 > fields{ "action",    "outLabels",   "nextHop",
                                                       "interface", "payload",     "ttlMode",
                                                       "tunnel",    "nextHopGroup" };
   const size_t before = check.complaints();
   check.onlyFields( record, fields );
   const bool intoGroup = record.field( "nextHopGroup" ).has_value();
   const auto action = check.text( record, "action", intoGroup ? Need::optional : needOfAction );
   if ( !action && check.complaints() != before ) {
      return;
   }
   via.action = action ? choice( check, "action", *action, std::array{ pop, swap, push } ) : keep;
   if ( const auto list = check.list( record, "outLabels", Need::optional ) ) {
      via.outLabels = check.labels( *list ).value_or( std::vector< uint32_t >{} );
   }
   const bool puts = via.action == swap || via.action == push;
   if ( check.complaints() == before && via.outLabels.empty() == puts ) {
      check.complain( puts                ? "a " + std::string( *action ) + " needs \"outLabels\""
                      : via.action == pop ? "a pop has no \"outLabels\""
                                          : "\"outLabels\" without an \"action\"" );
   }
   readPopFields( check, record, via );
   const bool pops =
      via.action == pop || ( via.action == swap && via.outLabels == std::vector{ 3U } );
   if ( !pops && ( record.field( "payload" ) || record.field( "ttlMode" ) ) ) {
      check.complain( "\"payload\" and \"ttlMode\" go with a pop only" );
   }
   if ( intoGroup && puts && !pops ) {
      check.complain( "a via into a next-hop group pops, or has no \"action\": any other label "
                      "operation is the group's own" );
   }
   readOutlet( check, record, via );
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

/// What a forwarding route has: vias and their protection, or an external FEC.
void readWays( RecordCheck& check, JsonValue record, LabelRoute& route ) {
   const LabelPayload bared = payloadUnder( route.label() );
   const auto read = [&]( JsonValue via, LabelVia& into ) {
      readVia( check, via, into, Need::required );
   };
   if ( const auto name = check.text( record, "externalFec", Need::optional ) ) {
      route.externalFec = check.foreignName( *name );
      for ( const std::string_view field : { "vias", "backupVias", "usableAsPrimaryVias" } ) {
         if ( record.field( field ) ) {
            check.complain( "a route into an external FEC has no " + inQuotes( field ) );
         }
      }
      return;
   }
   if ( record.field( "externalFec" ) ) {
      return; // with a complaint
   }
   if ( const auto vias = check.list( record, "vias", Need::required ) ) {
      check.vias( *vias, route.vias, bared, read );
   }
   if ( const auto vias = check.list( record, "backupVias", Need::optional ) ) {
      check.vias( *vias, route.backupVias, bared, read, "backup via" );
   }
   route.usableAsPrimaryVias =
      check.boolean( record, "usableAsPrimaryVias", Need::optional ).value_or( true );
}

bool readRoute( RecordCheck& check, LabelRoute& route ) {
   constexpr std::array< std::string_view, 7 > fields{
      "label", "stack", "kind", "vias", "backupVias", "usableAsPrimaryVias", "externalFec" };
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
      for ( const std::string_view field :
            { "vias", "backupVias", "usableAsPrimaryVias", "externalFec" } ) {
         if ( record->field( field ) ) {
            check.complain( "a decapsulation route has no " + inQuotes( field ) );
         }
      }
   } else if ( kind != "forwarding" ) {
      check.complain( "the field \"kind\" is " + inQuotes( kind ) +
                      ", not one of \"forwarding\", \"decapsulation\"" );
   } else {
      readWays( check, *record, route );
   }
   return check.sound();
}

/// A definition may lead into a tunnel, but not into a group: hardware knows groups only where
/// routes lead into them.
bool readForeignFec( RecordCheck& check, ForeignFec& made ) {
   constexpr std::array< std::string_view, 2 > fields{ "name", "vias" };
   const std::optional< JsonValue > record = check.record();
   if ( !record ) {
      return false;
   }
   check.onlyFields( *record, fields );
   if ( const auto name = check.text( *record, "name", Need::required ) ) {
      made.name = check.foreignName( *name );
   }
   if ( const auto vias = check.list( *record, "vias", Need::required ) ) {
      check.vias( *vias, made.vias, LabelPayload::autodetect, [&]( JsonValue via, LabelVia& into ) {
         readVia( check, via, into, Need::optional );
         if ( into.outlet == LabelOutlet::nextHopGroup ) {
            check.complain( "only routes lead into a next-hop group" );
         }
      } );
   }
   return check.sound();
}

class NativePieces final : public JsonPieces {
 public:
   NativePieces( LabelTable& table, ErrorList& errors ) : table_( table ), errors_( errors ) {}

   bool opened( JsonKind kind ) override {
      stopped_ = kind != JsonKind::object;
      if ( stopped_ ) {
         errors_.addWhole( "a native label table is an object with \"velmplsLabelTable\" and "
                           "\"routes\"" );
      }
      return !stopped_;
   }
   bool opensList( std::string_view key ) override {
      if ( key != "routes" && !foreignKindOfList( key ) ) {
         return false;
      }
      if ( !listsSeen_.insert( std::string( key ) ).second ) {
         errors_.add( std::nullopt, std::nullopt, {},
                      "the field " + inQuotes( key ) + " appears twice" );
      }
      return true;
   }
   bool piece( const JsonPiece& piece ) override {
      if ( piece.list.empty() ) {
         return readField( piece );
      }
      if ( const auto kind = foreignKindOfList( piece.list ) ) {
         stopped_ = !readDefinition( piece, *kind );
         return !stopped_;
      }
      RecordCheck check( errors_, piece, "route" );
      LabelRoute route;
      stopped_ = readRoute( check, route ) &&
                 !addRoute( table_.routes, std::move( route ), piece.offset, errors_ );
      return !stopped_;
   }
   void finish() {
      if ( stopped_ ) {
         return;
      }
      if ( !versionSeen_ ) {
         errors_.addWhole( "the field \"velmplsLabelTable\" is missing" );
      }
      if ( !listsSeen_.contains( "routes" ) ) {
         errors_.addWhole( "the field \"routes\" is missing" );
      }
   }

 private:
   // False when there are too many. Of several definitions of one name the first is kept.
   bool readDefinition( const JsonPiece& piece, ForeignFec::Kind kind ) {
      const std::string noun( nounOf( kind ) );
      RecordCheck check( errors_, piece, noun );
      ForeignFec made{ kind, {}, {} };
      if ( !readForeignFec( check, made ) ) {
         return true;
      }
      std::set< std::string >& names = defined_.at( static_cast< size_t >( kind ) );
      if ( names.size() == maxForeignFecs ) {
         errors_.addFatal( piece.offset,
                           "more than " + std::to_string( maxForeignFecs ) + " " + noun + "s" );
         return false;
      }
      if ( names.insert( made.name ).second ) {
         table_.foreignFecs.push_back( std::move( made ) );
      } else {
         check.complain( "a second definition of the " + noun + " " + inQuotes( made.name ) );
      }
      return true;
   }
   bool readField( const JsonPiece& piece ) {
      const auto complain = [&]( std::string reason ) {
         errors_.add( piece.offset, std::nullopt, {}, std::move( reason ) );
      };
      if ( piece.key == "routes" || foreignKindOfList( piece.key ) ) {
         listsSeen_.emplace( piece.key );
         complain( "the field " + inQuotes( piece.key ) + " is " + piece.value.described() +
                   ", not a list" );
      } else if ( piece.key != versionField ) {
         complain( "the field " + inQuotes( piece.key ) + " is unknown" );
      } else if ( std::exchange( versionSeen_, true ) ) {
         complain( "the field \"velmplsLabelTable\" appears twice" );
      } else if ( !piece.value.is( JsonKind::natural ) || piece.value.natural() != knownVersion ) {
         errors_.addFatal( piece.offset, "version " + piece.value.described() +
                                            " of the native format is unknown; this program reads "
                                            "version 1" );
         table_.routes.clear();
         table_.foreignFecs.clear();
         stopped_ = true;
         return false;
      }
      return true;
   }

   LabelTable& table_;
   ErrorList& errors_;
   bool stopped_ = false; // before the end, with a complaint
   bool versionSeen_ = false;
   std::set< std::string > listsSeen_;
   std::array< std::set< std::string >, 3 > defined_; // by kind
};

} // namespace

void importNative( std::string_view text, LabelTable& table, ErrorList& errors ) {
   NativePieces pieces( table, errors );
   if ( readJson( text, JsonCut::members, pieces, errors ) ) {
      pieces.finish();
   }
}

} // namespace Vel::Agent
