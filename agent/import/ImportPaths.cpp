// What becomes of a label on all ways through what other agents have: each may take labels off and
// put others on. A route whose frames would lose a label that is not its own is refused when it
// is read, since hardware could only drop them.

#include "agent/import/ImportChecks.h"

#include <algorithm>
#include <map>
#include <set>

namespace Vel::Agent {

namespace {

/// What a way does with the labels that it is given: so many come off, then so many go on.
struct Effect {
   size_t off = 0;
   size_t on = 0;

   /// First this, then the other.
   Effect then( const Effect& next ) const {
      const size_t undone = std::min( on, next.off );
      // More than one is as bad as two, and more than hardware can put on as bad as one more.
      return { std::min< size_t >( off + next.off - undone, 2 ),
               std::min( on - undone + next.on, maxOutgoingLabels + 1 ) };
   }
   friend auto operator<=>( const Effect&, const Effect& ) = default;
};

Effect effectOf( const LabelVia& via ) {
   const bool takesOff = via.action == LabelOperation::pop || via.action == LabelOperation::swap;
   return { takesOff ? size_t{ 1 } : 0, via.outLabels.size() };
}

/// The effects of all ways through a definition. One that leads into itself has no way there.
class Paths {
 public:
   using Effects = std::set< Effect >;
   using Kind = ForeignFec::Kind;

   explicit Paths( const std::vector< ForeignFec >& definitions ) {
      for ( const ForeignFec& one : definitions ) {
         definition_.insert_or_assign( { one.kind, one.name }, &one );
      }
   }
   const Effects& of( Kind kind, const std::string& name ) {
      const auto [at, made] = effects_.try_emplace( { kind, name } );
      const auto there = definition_.find( { kind, name } );
      if ( !made || there == definition_.end() ) {
         return at->second;
      }
      Effects found;
      for ( const LabelVia& via : there->second->vias ) {
         add( via, found );
      }
      return at->second = std::move( found );
   }
   /// The via's own operation, and what is behind it.
   void add( const LabelVia& via, Effects& found ) {
      const Effect own = effectOf( via );
      if ( via.outlet == LabelOutlet::interface ) {
         found.insert( own );
         return;
      }
      for ( const Effect& next :
            of( via.outlet == LabelOutlet::tunnel ? Kind::tunnel : Kind::nextHopGroup,
                via.interface ) ) {
         found.insert( own.then( next ) );
      }
   }

 private:
   using Key = std::pair< Kind, std::string >;
   std::map< Key, const ForeignFec* > definition_;
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
      if ( way.on > maxOutgoingLabels ) {
         return "on a way through " + into + " more than " + std::to_string( maxOutgoingLabels ) +
                " labels would go on";
      }
   }
   return {};
}

/// Why the route would lose frames, with the via in front; empty when it would not.
std::string faultOf( const LabelRoute& route, Paths& paths ) {
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
         Paths::Effects ways;
         paths.add( via, ways );
         const std::string into =
            ( via.outlet == LabelOutlet::tunnel ? "tunnel " : "next-hop group " ) +
            inQuotes( via.interface );
         if ( const std::string fault = faultOf( ways, into ); !fault.empty() ) {
            return ( vias == &route.vias ? "via " : "backup via " ) + std::to_string( i + 1 ) +
                   ": " + fault;
         }
      }
   }
   return {};
}

} // namespace

void dropWhatLosesLabels( LabelTable& table, ErrorList& errors ) {
   Paths paths( table.foreignFecs );
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
