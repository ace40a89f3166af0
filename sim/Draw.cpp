#include "sim/Draw.h"

#include <algorithm>

namespace Vel::Sim {

namespace {

/// SplitMix64: small, and the same on every machine.
class Dice {
 public:
   explicit Dice( U64 seed ) : state_( seed ) {}
   U64 next() {
      state_ += 0x9E37'79B9'7F4A'7C15ULL;
      U64 mixed = state_;
      mixed = ( mixed ^ mixed >> 30 ) * 0xBF58'476D'1CE4'E5B9ULL;
      mixed = ( mixed ^ mixed >> 27 ) * 0x94D0'49BB'1331'11EBULL;
      return mixed ^ mixed >> 31;
   }
   U32 below( U32 limit ) { return limit == 0 ? 0 : static_cast< U32 >( next() % limit ); }
   U32 from( U32 least, U32 most ) { return least + below( most - least + 1 ); }
   bool oneIn( U32 count ) { return below( count ) == 0; }
   template< size_t n >
   U32 pick( const std::array< U32, n >& values ) {
      return values[below( n )];
   }

 private:
   U64 state_;
};

/// How often an event is drawn in each profile, beside the others.
struct Weight {
   EventKind kind;
   U32 mixed, protection, identity, vrf, restart, room, lfib;
};
constexpr std::array< Weight, 36 > weights{ {
   //                              mixed prot ident vrf restart room lfib
   { EventKind::route, /*         */ 20, 16, 26, 14, 14, 22, 18 },
   { EventKind::routeGone, /*     */ 6, 4, 9, 5, 5, 6, 6 },
   { EventKind::viaSet, /*        */ 16, 22, 20, 8, 10, 14, 12 },
   { EventKind::viaSetGone, /*    */ 3, 6, 8, 1, 3, 2, 3 },
   { EventKind::viaGone, /*       */ 1, 1, 1, 0, 1, 0, 2 },
   { EventKind::extViaSet, /*     */ 3, 2, 5, 2, 2, 2, 2 },
   { EventKind::extViaSetGone, /* */ 1, 0, 2, 0, 1, 0, 0 },
   { EventKind::republish, /*     */ 1, 0, 0, 1, 1, 0, 6 },
   { EventKind::ready, /*         */ 1, 0, 0, 0, 1, 0, 4 },
   { EventKind::neighbor, /*      */ 7, 8, 4, 4, 4, 5, 4 },
   { EventKind::resolvedBy, /*    */ 1, 1, 0, 0, 0, 0, 0 },
   { EventKind::defaultRoute, /*  */ 1, 0, 0, 0, 0, 0, 0 },
   { EventKind::answers, /*       */ 3, 3, 1, 1, 1, 1, 1 },
   { EventKind::vrfName, /*       */ 1, 0, 0, 7, 1, 0, 0 },
   { EventKind::vrfNumber, /*     */ 1, 0, 0, 6, 1, 0, 0 },
   { EventKind::routing, /*       */ 1, 0, 1, 4, 1, 0, 1 },
   { EventKind::link, /*          */ 4, 6, 1, 1, 2, 1, 0 },
   { EventKind::extFec, /*        */ 4, 2, 6, 2, 3, 3, 1 },
   { EventKind::group, /*         */ 2, 1, 2, 1, 1, 1, 0 },
   { EventKind::tunnel, /*        */ 1, 1, 1, 0, 1, 0, 0 },
   { EventKind::capacity, /*      */ 1, 0, 1, 1, 3, 12, 0 },
   { EventKind::refuse, /*        */ 1, 0, 0, 0, 1, 5, 0 },
   { EventKind::notReady, /*      */ 1, 1, 0, 0, 1, 3, 0 },
   { EventKind::fecAnswer, /*     */ 4, 4, 6, 2, 4, 4, 2 },
   { EventKind::corrupt, /*       */ 0, 0, 0, 0, 0, 0, 1 },
   { EventKind::away, /*          */ 2, 1, 1, 1, 2, 1, 6 },
   { EventKind::driverRestart, /* */ 1, 0, 1, 2, 2, 1, 0 },
   { EventKind::agentRestart, /*  */ 1, 1, 1, 2, 12, 2, 2 },
   { EventKind::newStateMachine, /**/ 1, 0, 0, 1, 2, 1, 0 },
   { EventKind::staleShare, /*    */ 0, 0, 0, 0, 4, 0, 1 },
   { EventKind::approveSweep, /*  */ 0, 0, 0, 0, 2, 0, 0 },
   { EventKind::reprogram, /*     */ 1, 0, 0, 0, 0, 1, 0 },
   { EventKind::clog, /*          */ 1, 0, 0, 1, 0, 1, 0 },
   { EventKind::poll, /*          */ 16, 16, 16, 12, 12, 14, 18 },
   { EventKind::run, /*           */ 30, 30, 26, 24, 24, 26, 24 },
   { EventKind::time, /*          */ 22, 20, 24, 22, 20, 24, 18 },
} };
constexpr std::array< U32 Weight::*, 7 > columns{
   &Weight::mixed,   &Weight::protection, &Weight::identity, &Weight::vrf,
   &Weight::restart, &Weight::room,       &Weight::lfib };

class Drawer {
 public:
   Drawer( U64 seed, std::string_view profile ) : dice_( seed ) {
      settings_.nonStop = togglesOf( seed ) & 1;
      settings_.inPlace = togglesOf( seed ) >> 1;
      column_ = dice_.below( columns.size() );
      for ( size_t i = 1; i < profiles.size(); ++i ) {
         if ( profiles[i].name == profile ) {
            column_ = i - 1;
         }
      }
      drawSettings();
      for ( const Weight& weight : weights ) {
         sum_ += weight.*columns[column_];
      }
   }

   Scenario draw( size_t count ) {
      Events events;
      while ( events.size() < count ) {
         if ( dice_.oneIn( 60 ) ) {
            if ( dice_.oneIn( 3 ) ) {
               events.push_back( { EventKind::mend, {} } );
            }
            events.push_back( { EventKind::rest, {} } );
         } else {
            drawEvent( events );
         }
      }
      for ( const EventKind last : { EventKind::mend, EventKind::rest, EventKind::clear } ) {
         events.push_back( { last, {} } );
      }
      return { settings_, std::move( events ) };
   }

 private:
   bool is( std::string_view profile ) const { return profiles[column_ + 1].name == profile; }

   void drawSettings() {
      settings_.fecs = !dice_.oneIn( 4 );
      if ( is( "restart" ) || is( "protection" ) || is( "identity" ) ) {
         settings_.fecs = !dice_.oneIn( 12 );
      }
      settings_.serviceMicros =
         dice_.oneIn( 2 ) ? 0 : dice_.pick< 5 >( { 10, 300, 1000, 20'000, 1'000'000 } );
      settings_.lateMillis = dice_.oneIn( 4 ) ? dice_.pick< 3 >( { 1, 50, 3000 } ) : 0;
      settings_.questions = dice_.oneIn( 3 ) ? 0 : dice_.pick< 5 >( { 1, 2, 3, 7, 20 } );
      settings_.slowL3 = dice_.oneIn( 3 );
      settings_.slowFecs = dice_.oneIn( 3 );
      settings_.ring = dice_.pick< 3 >( { 16, 64, 256 } );
      settings_.labels = dice_.from( 3, 12 );
      settings_.viaSets = dice_.from( 3, 8 );
      settings_.extViaSets = dice_.from( 1, 3 );
      settings_.links = dice_.from( 2, 4 );
      if ( is( "identity" ) ) { // few via sets, so that their numbers are used again
         settings_.viaSets = dice_.from( 2, 4 );
      }
   }

   EventKind drawKind() {
      U32 at = dice_.below( sum_ );
      for ( const Weight& weight : weights ) {
         const U32 share = weight.*columns[column_];
         if ( at < share ) {
            return weight.kind;
         }
         at -= share;
      }
      return EventKind::run;
   }

   U32 label() { return dice_.below( settings_.labels ); }
   U32 link() { return dice_.from( 1, settings_.links ); }
   U32 linkOrNone() { return dice_.oneIn( 3 ) ? 0 : link(); }
   U32 set() { return dice_.from( 1, settings_.viaSets ); }
   U32 ext() { return dice_.from( 1, settings_.extViaSets ); }

   U32 via() {
      const U32 action = dice_.oneIn( 3 ) ? 2 : dice_.oneIn( 4 ) ? 3 : 1;
      const U32 how =
         ( dice_.oneIn( 4 ) ? 1 : 0 ) + ( dice_.oneIn( settings_.inPlace ? 20 : 4 ) ? 2 : 0 );
      return link() * 100 + action * 10 + how;
   }

   void drawViaSet( U32 number, Events& events ) {
      Event event{ EventKind::viaSet, {} };
      auto& n = event.number;
      n[0] = number;
      n[1] = 1;
      if ( dice_.oneIn( 5 ) ) {
         n[1] = dice_.from( 2, 3 );
      } else if ( dice_.oneIn( 14 ) ) {
         n[1] = dice_.from( 4, 7 );
      }
      const U32 protectedOneIn = is( "protection" ) ? 2 : 4;
      n[2] = !dice_.oneIn( protectedOneIn ) ? 0
             : dice_.oneIn( 8 )             ? settings_.viaSets + ext()
                                            : set();
      n[3] = dice_.oneIn( 10 );
      n[4] = ++stamp_;
      const U32 vias = dice_.oneIn( 2 ) ? 1 : dice_.from( 1, maxVias );
      for ( U32 i = 0; i < vias; ++i ) {
         n[5 + i] = via();
      }
      events.push_back( event );
   }

   void drawEvent( Events& events ) {
      const EventKind kind = drawKind();
      Event event{ kind, {} };
      auto& n = event.number;
      switch ( kind ) {
      case EventKind::route:
         n = { label(), dice_.oneIn( 6 ) ? 1U : dice_.oneIn( 15 ) ? 2U : 0U, 0 };
         n[2] = n[1] == 1 ? ext() : set();
         break;
      case EventKind::routeGone:
         n[0] = label();
         break;
      case EventKind::viaSet:
         drawViaSet( set(), events );
         return;
      case EventKind::viaSetGone:
         n[0] = set();
         events.push_back( event );
         if ( dice_.oneIn( 2 ) ) { // used again at once, for something else
            drawViaSet( n[0], events );
         }
         return;
      case EventKind::viaGone:
         n = { set(), dice_.below( maxVias ) };
         break;
      case EventKind::extViaSet:
         n = { ext(), ext(), dice_.oneIn( 4 ) ? set() : 0 };
         break;
      case EventKind::extViaSetGone:
         n = { ext() };
         break;
      case EventKind::republish:
         n[0] = dice_.oneIn( 5 ) ? 2 : dice_.below( 2 );
         break;
      case EventKind::neighbor:
         n = { link(), dice_.below( 4 ) };
         break;
      case EventKind::resolvedBy:
      case EventKind::notReady:
         n = { link(), dice_.below( 2 ) };
         break;
      case EventKind::defaultRoute:
      case EventKind::away:
      case EventKind::clog:
         n[0] = dice_.below( 2 );
         break;
      case EventKind::routing:
         n[0] = !dice_.oneIn( 3 );
         break;
      case EventKind::corrupt:
         n = { dice_.below( 1U << 20 ), dice_.below( 64 ) };
         break;
      case EventKind::fecAnswer:
         n[0] = dice_.below( 8 );
         break;
      case EventKind::answers:
      case EventKind::poll:
      case EventKind::run:
         n[0] = dice_.from( 1, 6 );
         break;
      case EventKind::vrfName:
         n = { dice_.oneIn( 4 ) ? 8U : 7U, !dice_.oneIn( 3 ) };
         break;
      case EventKind::vrfNumber:
         n[0] = dice_.oneIn( 3 ) ? 0 : dice_.oneIn( 4 ) ? 8 : 7;
         break;
      case EventKind::link:
         n = { link(), !dice_.oneIn( 3 ) };
         break;
      case EventKind::extFec:
         n = { ext(), linkOrNone(), ++stamp_ };
         break;
      case EventKind::group:
      case EventKind::tunnel:
         n = { linkOrNone(), ++stamp_ };
         break;
      case EventKind::capacity:
         for ( size_t i = 0; i < 3; ++i ) {
            n[i] = dice_.oneIn( 3 ) ? dice_.from( 1, settings_.labels ) : 0;
         }
         break;
      case EventKind::refuse:
         n = { label(), !dice_.oneIn( 3 ) };
         break;
      case EventKind::staleShare:
         n[0] = dice_.pick< 4 >( { 0, 20, 50, 100 } );
         break;
      case EventKind::time:
         n[0] = dice_.pick< 8 >( { 1, 100, 500, 1000, 1000, 2000, 100'000, 11'000'000 } );
         break;
      default:
         break;
      }
      events.push_back( event );
   }

   Dice dice_;
   size_t column_ = 0;
   Settings settings_;
   U32 sum_ = 0;
   U32 stamp_ = 0;
};

} // namespace

bool isProfile( std::string_view name ) {
   return std::ranges::any_of( profiles,
                               [&]( const Profile& known ) { return known.name == name; } );
}

Scenario drawScenario( U64 seed, std::string_view profile, size_t events ) {
   return Drawer( seed, profile ).draw( events );
}

} // namespace Vel::Sim
