// What becomes of a label on all ways through the groups, tunnels and FECs of other agents, each of
// which may take labels off and put others on. A route whose frames would lose a label that is not
// its own, or keep the one that was for this router, is refused when the table is read, since
// hardware could only drop the frames.

#include "agent/import/ImportChecks.h"

#include <algorithm>
#include <map>
#include <set>

namespace Vel::Agent {

namespace {

/// What a way does with the label stack of a frame: it takes labels off, then puts labels on.
struct Effect {
   size_t off = 0;
   size_t on = 0;

   /// The effect of this way followed by the other.
   Effect then( const Effect& next ) const {
      const size_t undone = std::min( on, next.off );
      return { off + next.off - undone, on - undone + next.on };
   }
   friend auto operator<=>( const Effect&, const Effect& ) = default;
};

Effect effectOf( const LabelVia& via ) {
   const bool takesOff = via.action == LabelOperation::pop || via.action == LabelOperation::swap;
   return { takesOff ? size_t{ 1 } : 0, via.outLabels.size() };
}

constexpr size_t maxDepth = 8; // of definitions in definitions, as in hardware

/// The effects of all ways through each definition, as deep as hardware follows them.
class Paths {
 public:
   using Effects = std::set< Effect >;
   using Kind = ForeignFec::Kind;

   explicit Paths( const std::vector< ForeignFec >& definitions ) {
      bool changed = !definitions.empty();
      for ( size_t depth = 0; changed && depth < maxDepth; ++depth ) {
         const std::map< Key, Effects > below = effects_;
         changed = false;
         for ( const ForeignFec& one : definitions ) {
            Effects& found = effects_[{ one.kind, one.name }];
            const size_t before = found.size();
            for ( const LabelVia& via : one.vias ) {
               add( via, below, found );
            }
            changed = changed || found.size() != before;
         }
      }
   }
   /// Nothing when the table does not define it.
   Effects of( Kind kind, const std::string& name ) const { return in( effects_, kind, name ); }
   /// The effects of the via's own operation followed by those of the definition that it leads
   /// into.
   Effects of( const LabelVia& via ) const {
      Effects found;
      add( via, effects_, found );
      return found;
   }

 private:
   using Key = std::pair< Kind, std::string >;

   static Effects in( const std::map< Key, Effects >& all, Kind kind, const std::string& name ) {
      const auto at = all.find( { kind, name } );
      return at == all.end() ? Effects() : at->second;
   }
   static void add( const LabelVia& via, const std::map< Key, Effects >& below, Effects& found ) {
      const Effect own = effectOf( via );
      if ( via.outlet == LabelOutlet::interface ) {
         found.insert( own );
         return;
      }
      const Kind kind = via.outlet == LabelOutlet::tunnel ? Kind::tunnel : Kind::nextHopGroup;
      for ( const Effect& next : in( below, kind, via.interface ) ) {
         found.insert( own.then( next ) );
      }
   }

   std::map< Key, Effects > effects_;
};

/// Why frames would be lost on one of the ways; empty when on none.
std::string faultOf( const Paths::Effects& ways, const std::string& into ) {
   for ( const Effect& way : ways ) {
      if ( way.off > 1 ) {
         return "on a way through " + into +
                " more than the label of the route would come off: only one of them may take a "
                "label "
                "off";
      }
      if ( way == Effect() ) {
         return "on a way through " + into +
                " nothing would happen to the label: the route or one of the definitions needs an "
                "action";
      }
      if ( way.on > maxOutgoingLabels ) {
         return "on a way through " + into + " more than " + std::to_string( maxOutgoingLabels ) +
                " labels would go on";
      }
   }
   return {};
}

/// Why the route would lose frames, with the via in front; empty when it would not.
std::string faultOf( const LabelRoute& route, const Paths& paths ) {
   if ( !route.externalFec.empty() ) {
      return faultOf( paths.of( ForeignFec::Kind::externalFec, route.externalFec ),
                      "external FEC " + inQuotes( route.externalFec ) );
   }
   for ( const auto* const vias : { &route.vias, &route.backupVias } ) {
      for ( size_t i = 0; i < vias->size(); ++i ) {
         const LabelVia& via = ( *vias )[i];
         if ( via.outlet == LabelOutlet::interface ) {
            continue;
         }
         const std::string into =
            ( via.outlet == LabelOutlet::tunnel ? "tunnel " : "next-hop group " ) +
            inQuotes( via.interface );
         if ( const std::string fault = faultOf( paths.of( via ), into ); !fault.empty() ) {
            return ( vias == &route.vias ? "via " : "backup via " ) + std::to_string( i + 1 ) +
                   ": " + fault;
         }
      }
   }
   return {};
}

} // namespace

void dropWhatLosesLabels( LabelTable& table, ErrorList& errors ) {
   const Paths paths( table.foreignFecs );
   std::erase_if( table.routes, [&]( const LabelRoute& route ) {
      std::string fault = faultOf( route, paths );
      if ( fault.empty() ) {
         return false;
      }
      errors.add( std::nullopt, route.label(), {}, std::move( fault ) );
      return true;
   } );
}

} // namespace Vel::Agent
