#include "sim/Watch.h"

#include <algorithm>

#include "platform/base/Text.h"

namespace Vel::Sim {

namespace {

constexpr U32 flows = 3;

bool contains( const Ways& ways, const Way& way ) {
   return std::ranges::find( ways, way ) != ways.end();
}

std::string textOfWays( const Ways& ways ) {
   std::string text;
   for ( const Way& way : ways ) {
      text += text.empty() ? "" : ", ";
      appendText( text, way );
   }
   return text.empty() ? "nowhere" : text;
}

/// False for an event by which only time passes or work is done: what is wanted stays the same.
bool changesIntents( EventKind kind ) {
   switch ( kind ) {
   case EventKind::answers:
   case EventKind::fecAnswer:
   case EventKind::reprogram:
   case EventKind::poll:
   case EventKind::run:
   case EventKind::time:
   case EventKind::clog:
      return false;
   default:
      return true;
   }
}

} // namespace

Watch::Watch( World& world )
   : world_( world ),
     label_( world.inputs().route.size() ),
     viaSet_( world.inputs().viaSet.size() ),
     foreign_( Exit::firstExtFec + world.inputs().extFec.size() ),
     wasDead_( world.inputs().linkUp.size() ) {}

// Whether a label may be dark for a while after the event though it is meant to forward.
bool Watch::disturbs( const Event& event ) const {
   const Inputs& inputs = world_.inputs();
   const auto& n = event.number;
   switch ( event.kind ) {
   case EventKind::agentRestart:
      // Routes with an L2 adjacency do not outlive the software.
      return inputs.settings.fecs == 0 || inputs.settings.nonStop == 0 ||
             inputs.settings.inPlace == 0;
   case EventKind::newStateMachine:
   case EventKind::driverRestart:
      return inputs.settings.fecs == 0;
   case EventKind::vrfNumber:
      return true;
   case EventKind::routing:
      return n[0] == 0;
   case EventKind::corrupt:
      return true;
   case EventKind::republish:
      return n[0] % 3 == 2;
   case EventKind::refuse:
      return true;
   case EventKind::capacity:
   case EventKind::notReady: // a FEC that cannot be written stays as it is, and so do its routes
      return inputs.settings.fecs == 0 || inputs.settings.inPlace == 0;
   default:
      return false;
   }
}

void Watch::disturbed() {
   for ( Label& label : label_ ) {
      label.firm = false;
   }
}

void Watch::after( const Event& event ) {
   if ( changesIntents( event.kind ) ) {
      intentsChanged();
      if ( disturbs( event ) ) {
         disturbed();
      }
   }
   checkRecords( world_ );
   checkFrames();
}

void Watch::intentsChanged() {
   const Inputs& inputs = world_.inputs();
   viaSetsChanged();
   for ( U32 link = 1; link < wasDead_.size(); ++link ) {
      wasDead_[link] = wasDead_[link] || isDead( link );
   }
   for ( U32 number = 1; number < foreign_.size(); ++number ) {
      const Inputs::Foreign& now = inputs.foreign( number );
      if ( foreign_[number].empty() || foreign_[number].back().stamp != now.stamp ) {
         foreign_[number].push_back( now );
      }
   }
   for ( U32 index = 0; index < label_.size(); ++index ) {
      Label& label = label_[index];
      label.intent = inputs.intentOf( index );
      const Intent& intent = label.intent;
      if ( std::ranges::find( label.meant, intent.exits ) == label.meant.end() &&
           !intent.exits.empty() ) {
         label.meant.push_back( intent.exits );
      }
      // A label whose via set is not sane forwards by an earlier content; a route that is to be
      // removed follows its via set until it has gone.
      if ( !intent.exact || !inputs.routing ) {
         viaSetsWereMeant( index );
      }
      const auto alive = [&]( const Exits& exits ) {
         return std::ranges::any_of( exits,
                                     [&]( const Exit& exit ) { return steadilyAlive( exit ); } );
      };
      const bool toForward =
         ( intent.keeps && !joinsOthers( index ) ) ||
         ( intent.exact && !( intent.primary.empty() && intent.backup.empty() ) );
      // A label with an L2 adjacency that goes over to next hops that are not answered yet leaves
      // hardware.
      const bool unanswered = inputs.settings.slowL3 != 0 &&
                              !( inputs.settings.fecs != 0 && inputs.settings.inPlace != 0 );
      // Another agent's FEC keeps its number when it changes. While answers are slow, hardware may
      // have taken it out although its former answer still stands.
      const bool withdrawn =
         inputs.settings.slowFecs != 0 && inputs.route[index].type == 1 && label.meant.size() > 1;
      // A label that only its backup carries may go dark in a change: the backup may be rewritten
      // before the label has a way of its own again.
      const bool leansOnChange = intent.primary.empty() && viaSetChanged( index );
      label.firm = label.firm && toForward && !unanswered && !withdrawn && !leansOnChange &&
                   std::ranges::all_of( label.meant, alive );
   }
}

// Whether some vias by that link lead nowhere: all of them, or those that the default route
// resolves.
bool Watch::isDead( U32 link ) const {
   const Inputs& inputs = world_.inputs();
   return !inputs.alive( Exit{ .link = link } ) ||
          ( inputs.byDefault[link] && !inputs.allowDefault );
}

bool Watch::steadilyAlive( const Exit& exit ) const {
   const Inputs& inputs = world_.inputs();
   if ( !inputs.alive( exit ) ) {
      return false;
   }
   if ( exit.foreign != 0 ) {
      return foreignAlive( exit.foreign );
   }
   return !wasDead_[exit.link] || ( inputs.settings.fecs != 0 && inputs.settings.inPlace != 0 );
}

// Whether frames leave by the other agent's FEC or tunnel in any state that hardware may have of
// it.
bool Watch::foreignAlive( U32 number ) const {
   const Inputs& inputs = world_.inputs();
   return std::ranges::all_of( foreign_[number], [&]( const Inputs::Foreign& was ) {
      return was.link != 0 && inputs.linkUp[was.link] && inputs.mac[was.link] != 0;
   } );
}

bool Watch::wasMeant( const Exit& exit, const Way& way ) const {
   const U32 below = exit.foreign != 0 ? 1 : 0;
   if ( way.count != exit.count + below ||
        !std::equal( exit.label.begin(), exit.label.begin() + exit.count,
                     way.label.begin() + below ) ) {
      return false;
   }
   return exit.foreign == 0
             ? way.link == exit.link
             : std::ranges::any_of( foreign_[exit.foreign], [&]( const Inputs::Foreign& was ) {
                  return was.link == way.link && Inputs::foreignLabel + was.stamp == way.label[0];
               } );
}

// Link and labels are compared, but not the neighbour's address: it may be an older one until the
// rewrite has been carried out.
bool Watch::wasMeant( U32 index, const Way& way ) const {
   return std::ranges::any_of( label_[index].meant, [&]( const Exits& exits ) {
      return std::ranges::any_of( exits,
                                  [&]( const Exit& exit ) { return wasMeant( exit, way ); } );
   } );
}

// Whether the label came to a via set that others used already. Hardware may have that via set from
// when its backup was there, so that the label goes over to it instead of staying.
bool Watch::joinsOthers( U32 index ) {
   const std::vector< Inputs::Route >& route = world_.inputs().route;
   Label& label = label_[index];
   if ( route[index].type != label.wanted.type || route[index].set != label.wanted.set ) {
      label.wanted = route[index];
      label.joined = std::ranges::any_of( route, [&]( const Inputs::Route& other ) {
         return &other != &route[index] && other.there && other.type == label.wanted.type &&
                other.set == label.wanted.set;
      } );
   }
   return label.joined;
}

// Whether the label's via set, or the one that is to protect it, has had several contents.
bool Watch::viaSetChanged( U32 index ) const {
   const Inputs::Route& route = world_.inputs().route[index];
   if ( !route.there || route.type != 0 ) {
      return false;
   }
   const U32 backup = world_.inputs().viaSet[route.set].backup;
   return viaSet_[route.set].size() > 1 ||
          ( backup < viaSet_.size() && viaSet_[backup].size() > 1 );
}

void Watch::viaSetsWereMeant( U32 index ) {
   const Inputs& inputs = world_.inputs();
   const Inputs::Route& route = inputs.route[index];
   if ( !route.there || route.type != 0 ) {
      return;
   }
   std::vector< Exits >& meant = label_[index].meant;
   const auto add = [&]( U32 set ) {
      for ( size_t i = 0; set < viaSet_.size() && i < viaSet_[set].size(); ++i ) {
         const Exits exits = inputs.exitsOf( set, viaSet_[set][i], Inputs::labelOf( index ) );
         if ( !exits.empty() && std::ranges::find( meant, exits ) == meant.end() ) {
            meant.push_back( exits );
         }
      }
   };
   add( route.set );
   for ( const Inputs::ViaSet& was : viaSet_[route.set] ) {
      add( was.backup );
   }
}

void Watch::viaSetsChanged() {
   const Inputs& inputs = world_.inputs();
   for ( U32 number = 1; number < viaSet_.size(); ++number ) {
      const auto uses = [&]( const Inputs::Route& route ) {
         return route.there && route.type == 0 &&
                ( route.set == number || inputs.viaSet[route.set].backup == number );
      };
      if ( std::ranges::none_of( inputs.route, uses ) ) {
         viaSet_[number].clear();
      }
      if ( viaSet_[number].empty() || !( viaSet_[number].back() == inputs.viaSet[number] ) ) {
         viaSet_[number].push_back( inputs.viaSet[number] );
      }
   }
}

std::string Watch::describe( U32 index ) const {
   const Inputs& inputs = world_.inputs();
   const Inputs::Route& route = inputs.route[index];
   std::string text = joinText( "label ", Inputs::labelOf( index ), " (" );
   if ( !route.there ) {
      text += "no route";
   } else {
      text += joinText( "type ", route.type, " set ", route.set );
      if ( route.type == 0 ) {
         const Inputs::ViaSet& set = inputs.viaSet[route.set];
         text += joinText( " form ", static_cast< U32 >( set.form ), " backup ", set.backup,
                           set.unusable ? " unusable" : "" );
      }
   }
   const Intent& intent = label_[index].intent;
   return text + joinText( "), meant: ", textOfWays( intent.primary ),
                           "; backup: ", textOfWays( intent.backup ),
                           intent.exact ? "" : "; not decided by the inputs alone" );
}

void Watch::checkFrames() {
   flow_ = ( flow_ + 1 ) % flows;
   const VrfId current = world_.vrfId();
   for ( U32 index = 0; index < label_.size(); ++index ) {
      for ( U32 i = 0; i < Inputs::vrfNumbers; ++i ) {
         const VrfId vrfId = Inputs::firstVrfNumber + i;
         const std::optional< Way > way = world_.forward( vrfId, index, flow_ );
         ++framesSent_;
         if ( way && !wasMeant( index, *way ) ) {
            throw Failure{ "frames", joinText( "vrf ", vrfId, ": a frame leaves by ", *way, "; ",
                                               describe( index ) ) };
         }
         if ( !way && vrfId == current && label_[index].firm ) {
            throw Failure{ "dark", joinText( "a frame is dropped; ", describe( index ) ) };
         }
      }
   }
}

// --- At rest.

void Watch::rest() {
   if ( const std::string busy = world_.settle(); !busy.empty() ) {
      throw Failure{ "rest", busy };
   }
   checkRecords( world_ );
   if ( !world_.inputs().clogged && !world_.inputs().corrupt && !world_.inputs().away &&
        world_.sm().initialized() ) {
      checkRecordsAtRest( world_ );
   }
   for ( U32 index = 0; index < label_.size(); ++index ) {
      checkLabelAtRest( index );
   }
   for ( U32 link = 1; link < wasDead_.size(); ++link ) {
      wasDead_[link] = isDead( link );
   }
   const bool decided =
      std::ranges::all_of( label_, []( const Label& label ) { return label.intent.exact; } );
   if ( world_.inputs().clean() && decided ) { // else earlier contents may still be in hardware
      const auto keepLast = []( auto& all ) {
         for ( auto& was : all ) {
            was.erase( was.begin(),
                       was.end() - std::min< std::ptrdiff_t >( 1, std::ssize( was ) ) );
         }
      };
      keepLast( viaSet_ );
      keepLast( foreign_ );
   }
}

void Watch::checkLabelAtRest( U32 index ) {
   Label& label = label_[index];
   const bool decided = world_.unhindered() && label.intent.exact;
   const Ways& expected = label.intent.primary.empty() ? label.intent.backup : label.intent.primary;
   bool lit = true;
   for ( U32 i = 0; i < Inputs::vrfNumbers; ++i ) {
      const VrfId vrfId = Inputs::firstVrfNumber + i;
      for ( U32 flow = 0; flow < flows; ++flow ) {
         const std::optional< Way > way = world_.forward( vrfId, index, flow );
         ++framesSent_;
         if ( vrfId == world_.vrfId() ) {
            lit = lit && way;
         } else if ( decided && way ) {
            throw Failure{ "exact",
                           joinText( "vrf ", vrfId, ", which is nobody's: a frame leaves by ", *way,
                                     "; ", describe( index ) ) };
         }
         if ( way && !( decided ? contains( expected, *way ) : wasMeant( index, *way ) ) ) {
            throw Failure{ "exact",
                           joinText( "a frame leaves by ", *way, "; ", describe( index ) ) };
         }
      }
   }
   if ( decided && !expected.empty() && !lit ) {
      throw Failure{ "exact", joinText( "frames are dropped; ", describe( index ) ) };
   }
   if ( decided && expected.size() > 1 ) {
      checkSpread( index, expected );
   }
   // Where via sets are L2 adjacencies, a change needs a new one, for which hardware with limits
   // may have no room.
   const bool spare = world_.inputs().clean() || ( world_.inputs().settings.fecs != 0 &&
                                                   world_.inputs().settings.inPlace != 0 );
   label.firm = decided && !expected.empty() && spare;
   label.joined = false;
   if ( decided ) {
      label.meant = { label.intent.exits };
      checkPublished( index, label.intent );
   }
}

// Sends many flows, which together have to take all ways: a way that none takes is not in hardware.
void Watch::checkSpread( U32 index, const Ways& expected ) {
   constexpr U32 most = 200; // with one of three ways left out, far more than chance takes
   Ways taken;
   for ( U32 flow = 0; flow < most && taken.size() < expected.size(); ++flow ) {
      const std::optional< Way > way = world_.forward( world_.vrfId(), index, flow );
      ++framesSent_;
      if ( way && !contains( taken, *way ) ) {
         taken.push_back( *way );
      }
   }
   if ( taken.size() < expected.size() ) {
      throw Failure{ "exact", joinText( "flows leave only by ", textOfWays( taken ), "; ",
                                        describe( index ) ) };
   }
}

void Watch::checkPublished( U32 index, const Intent& intent ) const {
   const Mpls::LfibHwStatus& published = *world_.entities().lfibHwStatus;
   const Mpls::RouteKey key = World::keyOf( index );
   if ( published.unprogrammedRouteHas( key ) != intent.published ) {
      throw Failure{ "published", joinText( intent.published ? "not published; " : "published; ",
                                            describe( index ) ) };
   }
   if ( intent.code && published.unprogrammedRoute( key ).statusCode != *intent.code ) {
      throw Failure{ "published",
                     joinText( "published as ", published.unprogrammedRoute( key ).statusCode,
                               " instead of ", *intent.code, "; ", describe( index ) ) };
   }
}

void Watch::clear() {
   world_.mend();
   world_.clear();
   intentsChanged();
   rest();
   checkNothingLeft( world_ );
}

} // namespace Vel::Sim
