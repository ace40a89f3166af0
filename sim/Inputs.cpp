#include "sim/Inputs.h"

#include <algorithm>

#include "platform/base/Text.h"

namespace Vel::Sim {

namespace {

/// The number, brought into the range of `count` numbers that begins with `least`.
U32 within( U32 number, U32 least, size_t count ) {
   return least + ( number - least ) % std::max< U32 >( static_cast< U32 >( count ), 1 );
}

void push( Exit& exit, U32 label ) {
   exit.label[exit.count++] = label;
}

} // namespace

void appendText( std::string& out, const Way& way ) {
   out += joinText( "link ", way.link, " mac ", way.mac, " labels " );
   for ( U32 i = 0; i < way.count; ++i ) {
      out += joinText( i == 0 ? "" : "/", way.label[i] );
   }
   if ( way.count == 0 ) {
      out += "none";
   }
}

Inputs::Inputs( const Settings& world )
   : settings( world ),
     route( std::max( 1U, world.labels ) ),
     viaSet( world.viaSets + 1 ),
     extViaSet( world.extViaSets + 1 ),
     mac( world.links + 1, 1 ),
     byDefault( world.links + 1 ),
     linkUp( world.links + 1, true ),
     linkReady( world.links + 1, true ),
     extFec( world.extViaSets + 1 ),
     refused( route.size() ) {}

// --- Events.

Inputs::Via Inputs::viaOf( const Event& event, size_t i ) {
   const U32 packed = event.number[5 + i];
   Via via;
   via.link = packed / 100;
   via.label = 1000 + 4 * event.number[4] + static_cast< U32 >( i );
   switch ( packed / 10 % 10 ) {
   case 2:
      via.action = MplsLabelAction::pop;
      break;
   case 3:
      via.action = MplsLabelAction::push;
      break;
   default:
      break;
   }
   via.v6 = ( packed % 10 & 1 ) != 0;
   via.byResolver = ( packed % 10 & 2 ) != 0;
   return via;
}

Event Inputs::fitted( Event event ) const {
   auto& n = event.number;
   const auto label = [&]( U32 number ) { return within( number, 0, route.size() ); };
   const auto set = [&]( U32 number ) { return within( number, 1, settings.viaSets ); };
   const auto ext = [&]( U32 number ) { return within( number, 1, settings.extViaSets ); };
   const auto link = [&]( U32 number ) { return within( number, 1, settings.links ); };
   const auto orNone = []( U32 number, const auto& fit ) {
      return number == 0 ? 0 : fit( number );
   };
   switch ( event.kind ) {
   case EventKind::route:
      n = { label( n[0] ), n[1] % 3, n[1] % 3 == 1 ? ext( n[2] ) : set( n[2] ) };
      break;
   case EventKind::routeGone:
   case EventKind::refuse:
      n[0] = label( n[0] );
      break;
   case EventKind::viaSet:
      n[0] = set( n[0] );
      n[1] = std::clamp( n[1], 1U, 7U );
      n[2] = orNone( n[2], [&]( U32 number ) {
         return within( number, 1, settings.viaSets + settings.extViaSets );
      } );
      n[4] %= 100'000;
      for ( size_t i = 5; i < 5 + maxVias; ++i ) {
         n[i] = n[i] == 0 ? 0 : link( n[i] / 100 ) * 100 + n[i] % 100;
      }
      break;
   case EventKind::viaSetGone:
   case EventKind::viaGone:
      n = { set( n[0] ), n[1] % static_cast< U32 >( maxVias ) };
      break;
   case EventKind::extViaSet:
   case EventKind::extViaSetGone:
      n = { ext( n[0] ), ext( n[1] ), orNone( n[2], set ) };
      break;
   case EventKind::republish:
      n[0] %= 3;
      break;
   case EventKind::neighbor:
   case EventKind::resolvedBy:
   case EventKind::link:
   case EventKind::notReady:
      n[0] = link( n[0] );
      break;
   case EventKind::extFec:
      n = { ext( n[0] ), orNone( n[1], link ), n[2] };
      break;
   case EventKind::group:
   case EventKind::tunnel:
      n[0] = orNone( n[0], link );
      break;
   case EventKind::vrfName:
      n[0] = within( n[0], firstVrfNumber, vrfNumbers );
      break;
   case EventKind::vrfNumber:
      n[0] =
         orNone( n[0], []( U32 number ) { return within( number, firstVrfNumber, vrfNumbers ); } );
      break;
   default:
      break;
   }
   return event;
}

void Inputs::viaSetIs( const Event& event ) {
   const auto& n = event.number;
   ViaSet& set = viaSet[n[0]];
   set = { static_cast< ViaSetForm >( n[1] ), n[2], n[3] != 0, backupsOf( set ), {} };
   for ( size_t i = 0; i < maxVias && set.form != ViaSetForm::empty; ++i ) {
      if ( n[5 + i] != 0 ) {
         set.vias.push_back( viaOf( event, i ) );
      }
   }
   if ( set.vias.empty() ) {
      set.form = ViaSetForm::empty;
   } else if ( set.form == ViaSetForm::group || set.form == ViaSetForm::tunnel ) {
      set.vias.resize( 1 );
   }
   if ( set.form == ViaSetForm::mixedIntfs && set.vias.size() == 1 ) {
      set.vias.push_back( set.vias[0] );
   }
   if ( set.form == ViaSetForm::group && set.vias[0].action != MplsLabelAction::pop ) {
      set.vias[0].action = MplsLabelAction::none;
   }
}

void Inputs::apply( const Event& event ) {
   const auto& n = event.number;
   switch ( event.kind ) {
   case EventKind::route:
      route[n[0]] = { true, n[1], n[2] };
      break;
   case EventKind::routeGone:
      route[n[0]] = {};
      break;
   case EventKind::viaSet:
      viaSetIs( event );
      break;
   case EventKind::viaSetGone: {
      ViaSet gone;
      gone.backupsBefore = backupsOf( viaSet[n[0]] );
      viaSet[n[0]] = gone;
      break;
   }
   case EventKind::viaGone:
      viaSet[n[0]].backupsBefore = backupsOf( viaSet[n[0]] );
      if ( n[1] < viaSet[n[0]].vias.size() ) {
         viaSet[n[0]].vias[n[1]].gone = true;
      }
      break;
   case EventKind::extViaSet:
      extViaSet[n[0]] = { true, n[1], n[2] };
      break;
   case EventKind::extViaSetGone:
      extViaSet[n[0]] = {};
      break;
   case EventKind::republish:
      corrupt = corrupt && n[0] == 0;
      away = false;
      ready = n[0] != 2 && ready;
      ready = n[0] == 1 || ready;
      break;
   case EventKind::ready:
      ready = true;
      break;
   case EventKind::corrupt:
      corrupt = true;
      break;
   case EventKind::away:
      away = n[0] != 0;
      break;
   default:
      applyAround( event );
      break;
   }
}

// What is around the LFIB: next hops, the VRF, links, other agents, the driver.
void Inputs::applyAround( const Event& event ) {
   const auto& n = event.number;
   switch ( event.kind ) {
   case EventKind::neighbor:
      mac[n[0]] = n[1];
      break;
   case EventKind::resolvedBy:
      byDefault[n[0]] = n[1] != 0;
      break;
   case EventKind::defaultRoute:
      allowDefault = n[0] != 0;
      break;
   case EventKind::vrfName:
      if ( n[1] != 0 ) {
         vrfName.fill( false ); // one number has the name at a time
      }
      vrfName[n[0] - firstVrfNumber] = n[1] != 0;
      break;
   case EventKind::vrfNumber:
      vrfNumber = n[0];
      break;
   case EventKind::routing:
      routing = n[0] != 0;
      break;
   case EventKind::link:
      linkUp[n[0]] = n[1] != 0;
      break;
   case EventKind::extFec:
      extFec[n[0]] = { n[1], n[2] };
      break;
   case EventKind::group:
      group = { n[0], n[1] };
      break;
   case EventKind::tunnel:
      tunnel = { n[0], n[1] };
      break;
   case EventKind::capacity:
      capacity = { n[0], n[1], n[2] };
      break;
   case EventKind::refuse:
      refused[n[0]] = n[1] != 0;
      break;
   case EventKind::notReady:
      linkReady[n[0]] = n[1] == 0;
      break;
   case EventKind::staleShare:
      staleShare = n[0];
      break;
   case EventKind::approveSweep:
      staleShare = 100;
      break;
   case EventKind::clog:
      clogged = n[0] != 0;
      break;
   default:
      break;
   }
}

// --- The naive function.

bool Inputs::resolved( const Via& via ) const {
   return mac[via.link] != 0 && ( !via.byResolver || !byDefault[via.link] || allowDefault );
}

bool Inputs::sane( const ViaSet& set ) const {
   const auto bad = [&]( const Via& via ) {
      return via.gone || ( via.byResolver && settings.fecs && settings.inPlace &&
                           set.form == ViaSetForm::nextHops );
   };
   return ( set.form == ViaSetForm::nextHops || set.form == ViaSetForm::group ||
            set.form == ViaSetForm::tunnel ) &&
          std::ranges::none_of( set.vias, bad );
}

bool Inputs::isFec( U32 set ) const {
   constexpr U32 lastOrdinary = 6;
   return settings.fecs != 0 && ( settings.inPlace != 0 || set > lastOrdinary ||
                                  viaSet[set].form != ViaSetForm::nextHops );
}

const Inputs::Foreign& Inputs::foreign( U32 number ) const {
   return number == Exit::group    ? group
          : number == Exit::tunnel ? tunnel
                                   : extFec[number - Exit::firstExtFec];
}

// What the via does with the label, and where it leads.
Exit Inputs::exitOf( const ViaSet& set, const Via& via, U32 label ) const {
   Exit exit;
   exit.foreign = set.form == ViaSetForm::group    ? Exit::group
                  : set.form == ViaSetForm::tunnel ? Exit::tunnel
                                                   : 0;
   exit.link = exit.foreign == 0 ? via.link : 0;
   if ( via.action == MplsLabelAction::swap || via.action == MplsLabelAction::push ) {
      push( exit, via.label );
   }
   if ( via.action == MplsLabelAction::push || via.action == MplsLabelAction::none ) {
      push( exit, label );
   }
   return exit;
}

void Inputs::addWay( const Exit& exit, Ways& out ) const {
   const U32 link = exit.foreign != 0 ? foreign( exit.foreign ).link : exit.link;
   Way way{ link, mac[link], 0, {} };
   if ( exit.foreign != 0 ) {
      way.label[way.count++] = foreignLabel + foreign( exit.foreign ).stamp;
   }
   for ( U32 i = 0; i < exit.count; ++i ) {
      way.label[way.count++] = exit.label[i];
   }
   if ( std::ranges::find( out, way ) == out.end() ) {
      out.push_back( way );
   }
}

// Adds what the set's own vias give: all that hardware is told to `exits`, and what frames may take
// now to `ways`.
void Inputs::addVias( U32 number, U32 label, Ways& ways, Exits& exits ) const {
   const ViaSet& set = viaSet[number];
   const Exits own = exitsOf( number, set, label );
   exits.insert( exits.end(), own.begin(), own.end() );
   for ( size_t i = 0; i < own.size(); ++i ) {
      if ( alive( own[i] ) && ( own[i].foreign != 0 || resolved( set.vias[i] ) ) ) {
         addWay( own[i], ways );
      }
   }
}

Exits Inputs::exitsOf( U32 number, const ViaSet& content, U32 label ) const {
   Exits exits;
   if ( content.unusable || !sane( content ) ||
        ( content.form != ViaSetForm::nextHops && settings.fecs == 0 ) || number == 0 ) {
      return exits;
   }
   for ( const Via& via : content.vias ) {
      exits.push_back( exitOf( content, via, label ) );
   }
   return exits;
}

bool Inputs::alive( const Exit& exit ) const {
   const U32 link = exit.foreign != 0 ? foreign( exit.foreign ).link : exit.link;
   return link != 0 && linkUp[link] && mac[link] != 0;
}

bool Inputs::clean() const {
   return cleanButForRoom() &&
          std::ranges::none_of( capacity, []( U32 limit ) { return limit != 0; } );
}

bool Inputs::cleanButForRoom() const {
   return vrfNamed() && ready && !corrupt && !away && !clogged && staleShare >= 100 &&
          std::ranges::none_of( refused, []( bool is ) { return is; } ) &&
          std::ranges::all_of( linkReady, []( bool is ) { return is; } );
}

bool Inputs::someLinkDown() const {
   return std::find( linkUp.begin() + 1, linkUp.end(), false ) != linkUp.end();
}

// Whether the library carries the content out. A via set that is not sane, or whose backup is not
// there, stays as it was.
bool Inputs::settled( const ViaSet& set ) const {
   return sane( set ) && ( set.backup == 0 || backupThere( set ) );
}

// All backups that the via set has had: the library may still have any of its contents.
U32 Inputs::backupsOf( const ViaSet& set ) {
   return set.backupsBefore | 1U << set.backup;
}

bool Inputs::protectsSomebody( U32 number ) const {
   const auto named = [&]( const auto& other ) { return other.backup == number; };
   const auto keeps = [&]( const ViaSet& other ) {
      return !settled( other ) && ( other.backupsBefore >> number & 1 ) != 0 &&
             &other != &viaSet[number];
   };
   if ( std::any_of( viaSet.begin() + 1, viaSet.end(), keeps ) ) {
      return true;
   }
   return std::any_of(
             viaSet.begin() + 1, viaSet.end(),
             [&]( const ViaSet& other ) { return named( other ) && &other != &viaSet[number]; } ) ||
          std::any_of( extViaSet.begin() + 1, extViaSet.end(), named );
}

bool Inputs::hasBackup( U32 number ) const {
   return viaSet[number].backup != 0 && viaSet[number].backup != number && isFec( number );
}

// The via set that protects this one, or 0. It clears `exact` where that depends on what came
// first.
U32 Inputs::backupOf( U32 number, bool& exact ) const {
   if ( !hasBackup( number ) ) {
      return 0;
   }
   const U32 backup = viaSet[number].backup;
   exact = exact && !protectsSomebody( number );
   if ( backup > settings.viaSets ) { // another agent's FEC protects nobody
      const ExtViaSet& external = extViaSet[backup - settings.viaSets];
      exact = exact && external.there && external.backup == 0;
      return 0;
   }
   const ViaSet& set = viaSet[backup];
   exact = exact && sane( set ) && ( set.backup == 0 || set.backup == backup );
   // The FEC of a next-hop group is another agent's: it protects nobody and is not protected. A
   // group's via set that is not usable has a FEC of the library's own.
   const auto isGroup = []( const ViaSet& of ) {
      return of.form == ViaSetForm::group && !of.unusable;
   };
   return isFec( backup ) && !isGroup( set ) && !isGroup( viaSet[number] ) ? backup : 0;
}

bool Inputs::backupThere( const ViaSet& set ) const {
   const U32 backup = set.backup;
   return backup > settings.viaSets ? extViaSet[backup - settings.viaSets].there
                                    : viaSet[backup].there();
}

Intent Inputs::viaSetIntent( U32 number, U32 label ) const {
   const ViaSet& set = viaSet[number];
   Intent intent;
   intent.published = true;
   if ( set.broken() ) {
      intent.published = false;
      return intent;
   }
   const bool asFec = isFec( number );
   const bool supported = settings.fecs != 0 || set.form == ViaSetForm::nextHops;
   // A route stays where it is while its via set is missing or not sane, or its group is not there.
   intent.exact =
      set.there() && sane( set ) &&
      ( set.form != ViaSetForm::group || set.unusable || !supported || group.link != 0 );
   addVias( number, label, intent.primary, intent.exits );
   intent.keeps =
      !set.there() ||
      ( asFec && set.form == ViaSetForm::group && !set.unusable && group.link == 0 &&
        sane( set ) ) ||
      ( hasBackup( number ) && !backupThere( set ) && sane( set ) && !protectsSomebody( number ) );
   const U32 backup = backupOf( number, intent.exact );
   if ( backup != 0 ) {
      addVias( backup, label, intent.backup, intent.exits );
   }
   judge( number, intent );
   return intent;
}

// Sets the code that is published of the label. It stays open where the library cannot know: a link
// is down and no FEC reports it, or another agent's FEC or tunnel leads nowhere.
void Inputs::judge( U32 number, Intent& intent ) const {
   const ViaSet& set = viaSet[number];
   const bool foreign = set.form != ViaSetForm::nextHops;
   if ( ( someLinkDown() && !isFec( number ) ) ||
        ( foreign && !set.unusable && intent.primary.empty() ) ) {
      return;
   }
   const auto unresolved =
      std::ranges::count_if( set.vias, [&]( const Via& via ) { return !resolved( via ); } );
   if ( intent.primary.empty() ) {
      intent.code = intent.backup.empty() ? Mpls::RouteStatusCode::notProgrammed
                                          : Mpls::RouteStatusCode::partiallyProgrammed;
   } else {
      intent.code = unresolved != 0 && !foreign ? Mpls::RouteStatusCode::partiallyProgrammed
                                                : Mpls::RouteStatusCode::programmed;
   }
}

Intent Inputs::externalIntent( const Route& wanted, U32 label ) const {
   const ExtViaSet& set = extViaSet[wanted.set];
   Intent intent;
   intent.published = true;
   if ( settings.fecs == 0 ) {
      intent.exact = set.there;
      return intent;
   }
   intent.exact = set.there && extFec[set.fec].link != 0;
   intent.keeps = !intent.exact;
   if ( set.there ) {
      const Exit exit{ Exit::firstExtFec + set.fec, 0, 1, { label } };
      intent.exits.push_back( exit );
      if ( alive( exit ) ) {
         addWay( exit, intent.primary );
      }
   }
   if ( intent.exact ) {
      intent.code = intent.primary.empty() ? Mpls::RouteStatusCode::notProgrammed
                                           : Mpls::RouteStatusCode::programmed;
   }
   return intent;
}

Intent Inputs::intentOf( U32 index ) const {
   const Route& wanted = route[index];
   if ( !wanted.there || wanted.type == 2 || !routing ) {
      return {};
   }
   return wanted.type == 1 ? externalIntent( wanted, labelOf( index ) )
                           : viaSetIntent( wanted.set, labelOf( index ) );
}

} // namespace Vel::Sim
