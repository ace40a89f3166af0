// The label table of FRR: `show mpls table json`, and the same for one label.
//
//    { "16040": { "inLabel": 16040, "installed": true,
//                 "nexthops": [ { "type": "SR (IS-IS)", "outLabel": 16040, "installed": true,
//                                 "nexthop": "10.0.1.2", "interface": "eth0" } ] } }
//
// The key of a reserved label is its name ("IPv4 Explicit Null"), `inLabel` is always the number.
// Every route and hop counts, whether FRR calls it installed or not: the table is taken as what
// should be forwarded. The backup next hops (`backupNexthops`) that some hop names by its
// `backupIndex` protect the route as a whole, since hardware changes over for a whole via set.

#include <utility>
#include <vector>

#include "agent/import/ImportChecks.h"

namespace Vel::Agent {

namespace {

void readHop( RecordCheck& check, JsonValue hop, LabelVia& via ) {
   via.action = LabelOperation::swap;
   const auto stack = check.list( hop, "outLabelStack", Need::optional );
   const auto top =
      check.natural( hop, "outLabel", stack ? Need::optional : Need::required, labelLimit - 1 );
   if ( stack ) {
      if ( !stack->hasContents() ) {
         check.complain( "the field \"outLabelStack\" has no labels" );
      }
      via.outLabels = check.labels( *stack ).value_or( std::vector< uint32_t >{} );
      if ( top && !via.outLabels.empty() && via.outLabels.front() != *top ) {
         check.complain( "the field \"outLabel\" is " + std::to_string( *top ) +
                         ", but \"outLabelStack\" begins with " +
                         std::to_string( via.outLabels.front() ) );
      }
   } else if ( top ) {
      via.outLabels = { static_cast< uint32_t >( *top ) };
   }
   if ( const auto address = check.text( hop, "nexthop", Need::optional ) ) {
      via.nextHop = check.address( *address );
   }
   if ( const auto interface = check.text( hop, "interface", Need::optional ) ) {
      via.interface = check.interface( *interface );
   }
}

/// Marks the backups that the hop names. FRR prints one number or a list of them.
void readBackupIndex( RecordCheck& check, JsonValue hop, std::vector< bool >& named ) {
   const auto mark = [&]( JsonValue value ) {
      if ( !value.is( JsonKind::natural ) ) {
         check.complain( "the field \"backupIndex\" is " + value.described() +
                         ", not a whole number from 0 or a list of them" );
      } else if ( value.natural() >= named.size() ) {
         check.complain( "\"backupIndex\" names the backup next hop " + value.described() +
                         ", counted from 0, and the route has " + std::to_string( named.size() ) );
      } else {
         named[value.natural()] = true;
      }
   };
   const std::optional< JsonValue > index = hop.field( "backupIndex" );
   if ( index && index->is( JsonKind::list ) ) {
      for ( const JsonValue one : *index ) {
         mark( one );
      }
   } else if ( index ) {
      mark( *index );
   }
}

/// The backup next hops that any hop of the route names, in the order of their list.
void readBackups( RecordCheck& check, JsonValue record, JsonValue hops, LabelRoute& route ) {
   std::vector< JsonValue > backups;
   if ( const auto list = check.list( record, "backupNexthops", Need::optional ) ) {
      for ( const JsonValue backup : *list ) {
         backups.push_back( backup );
      }
   }
   std::vector< bool > named( backups.size() );
   size_t number = 0;
   for ( const JsonValue hop : hops ) {
      check.viaIs( ++number );
      if ( hop.is( JsonKind::object ) ) {
         readBackupIndex( check, hop, named );
      }
   }
   for ( size_t i = 0; i < backups.size(); ++i ) {
      check.viaIs( i + 1, "backup via" );
      if ( named[i] && route.backupVias.size() == maxVias ) {
         check.complain( "more than " + std::to_string( maxVias ) + " backup vias are named" );
         break;
      }
      if ( named[i] ) {
         check.oneVia( backups[i], route.backupVias, payloadUnder( route.label() ),
                       [&]( JsonValue hop, LabelVia& via ) { readHop( check, hop, via ); } );
      }
   }
   check.viaDel();
}

class FrrPieces final : public JsonPieces {
 public:
   FrrPieces( std::vector< LabelRoute >& routes, ErrorList& errors )
      : routes_( routes ), errors_( errors ) {}

   bool opened( JsonKind kind ) override {
      if ( kind != JsonKind::object ) {
         errors_.addWhole( "an FRR label table is an object with a field for each label" );
      }
      return kind == JsonKind::object;
   }
   bool opensList( std::string_view ) override { return false; }
   bool piece( const JsonPiece& piece ) override {
      RecordCheck check( errors_, piece, "route" );
      LabelRoute route;
      return !read( check, piece.key, route ) ||
             addRoute( routes_, std::move( route ), piece.offset, errors_ );
   }

 private:
   static bool read( RecordCheck& check, std::string_view key, LabelRoute& route ) {
      const std::optional< uint32_t > keyLabel = labelOfDigits( key );
      if ( keyLabel && *keyLabel < labelLimit ) {
         check.labelIs( *keyLabel );
      }
      const std::optional< JsonValue > record = check.record();
      if ( !record ) {
         return false;
      }
      const auto label = check.natural( *record, "inLabel", Need::required, labelLimit - 1 );
      const auto hops = check.list( *record, "nexthops", Need::required );
      if ( !label || !hops ) {
         return false;
      }
      // A key that is a name belongs to a reserved label.
      if ( !key.empty() && ( keyLabel ? *keyLabel != *label : *label > 15 ) ) {
         check.complain( "the route stands under " + inQuotes( key ) + ", but its \"inLabel\" is " +
                         std::to_string( *label ) );
         return false;
      }
      route.stack = { static_cast< uint32_t >( *label ) };
      if ( check.incomingStack( route.stack ) ) {
         check.vias( *hops, route.vias, payloadUnder( route.label() ),
                     [&]( JsonValue hop, LabelVia& via ) { readHop( check, hop, via ); } );
         readBackups( check, *record, *hops, route );
      }
      return check.sound();
   }

   std::vector< LabelRoute >& routes_;
   ErrorList& errors_;
};

} // namespace

void importFrr( std::string_view text, JsonCut cut, std::vector< LabelRoute >& routes,
                ErrorList& errors ) {
   FrrPieces pieces( routes, errors );
   readJson( text, cut, pieces, errors );
}

} // namespace Vel::Agent
