#include "agent/report/ChangePlan.h"

#include <algorithm>
#include <array>

#include "agent/report/JsonWriter.h"
#include "agent/report/ProgramResult.h"
#include "agent/report/ReportText.h"
#include "inspect/Words.h"

namespace Vel::Agent {

using Inspect::counted;
using Inspect::LabelState;
using Inspect::Value;
using Mpls::RouteKey;

namespace {

// The ways by which frames with the label leave. Numbers of FECs and adjacencies do not matter.
std::string waysText( const Driver::HwRoute& route, const Inspect::InterfaceName& name ) {
   if ( !route.fec ) {
      return Inspect::viasText( route.adjacency->l2Via(), name );
   }
   std::string text =
      joinText( route.operation.action, " ", route.operation.payloadType, " ",
                route.operation.ttlMode, " ", Inspect::fecViasText( route.fec->via, name ) );
   if ( route.fec->backup ) {
      text += " | " + Inspect::fecViasText( route.fec->backup->via, name );
   }
   return text;
}

} // namespace

template< class Call >
void ChangePlan::eachInHardware( const Call& call ) const {
   const Inspect::InterfaceName name = agent_.interfaceName();
   if ( const Driver::HwVrf* const vrf = agent_.hardware().vrf( LabelAgent::vrfId ) ) {
      for ( const auto& [key, route] : vrf->route ) {
         call( key, std::hash< std::string >()( waysText( route, name ) ) );
      }
   }
}

ChangePlan::ChangePlan( LabelAgent& agent ) : agent_( agent ) {
   Inspect::LabelStates states( agent.entityManager() );
   eachInHardware( [&]( RouteKey key, U64 ways ) {
      before_.set( key, Before{ ways, states.of( key ).state } );
   } );
   const Driver::SwitchStatus& hardware = *agent.hardware().status();
   operations_ = hardware.operations();
   routes_.before = hardware.routes();
   l2Adjacencies_.before = hardware.adjacencies();
   fecs_.before = hardware.fecs();
   agent.hardware().forgetMost();
}

void ChangePlan::finish() {
   const Driver::SwitchStatus& hardware = *agent_.hardware().status();
   operations_ = hardware.operations() - operations_;
   routes_ = { routes_.before, hardware.routes(), hardware.mostRoutes() };
   l2Adjacencies_ = { l2Adjacencies_.before, hardware.adjacencies(), hardware.mostAdjacencies() };
   fecs_ = { fecs_.before, hardware.fecs(), hardware.mostFecs() };
   LabelSet<> still;
   eachInHardware( [&]( RouteKey key, U64 ways ) {
      still.insert( key );
      const Before* const before = before_.find( key );
      if ( before == nullptr ) {
         added_.push_back( key );
      } else if ( before->ways != ways ) {
         changed_.push_back( key );
      } else {
         ++unchanged_;
      }
   } );
   const ProgramResult result( agent_ );
   LabelSet<> lost;
   for ( const auto& [key, before] : before_ ) {
      const std::optional< ResultRoute > now = result.route( key );
      const bool worse = now && now->state != LabelState::ignored && now->state > before.state;
      if ( worse && before.state <= LabelState::partiallyProgrammed ) {
         losses_.push_back( { key, now->state, now->reason } );
         lost.insert( key );
      }
      if ( !still.has( key ) && !worse ) {
         removed_.push_back( key );
      }
   }
   std::erase_if( changed_, [&]( RouteKey key ) { return lost.has( key ); } );
   for ( auto* const keys : { &added_, &removed_, &changed_ } ) {
      std::ranges::sort( *keys );
   }
   std::ranges::sort( losses_, {}, &Loss::label );
}

// --- For people and for programs.

namespace {

struct NamedRoom {
   std::string_view text;
   std::string_view json;
   const PlannedRoom& ( ChangePlan::*room )() const;
};
constexpr std::array< NamedRoom, 3 > rooms{
   { { "routes", "routes", &ChangePlan::routes },
     { "L2 adjacencies", "l2Adjacencies", &ChangePlan::l2Adjacencies },
     { "FECs", "fecs", &ChangePlan::fecs } } };

struct NamedLabels {
   std::string_view name;
   const std::vector< RouteKey >& ( ChangePlan::*labels )() const;
};
constexpr std::array< NamedLabels, 3 > lists{ { { "added", &ChangePlan::added },
                                                { "removed", &ChangePlan::removed },
                                                { "changed", &ChangePlan::changed } } };

} // namespace

bool printText( std::ostream& out, const ChangePlan& plan ) {
   TextOut lines( out );
   lines.add(
      joinText( counted( plan.losses().size(), "label loses its way", "labels lose their way" ),
                ", ", plan.added().size(), " added, ", plan.removed().size(), " removed, ",
                plan.changed().size(), " changed, ", plan.unchanged(), " as they are; ",
                counted( plan.operations(), "operation", "operations" ), " of the hardware\n" ) );
   for ( const ChangePlan::Loss& loss : plan.losses() ) {
      lines.add( joinText( loss.label, "  would be ", loss.state, ": ", harmlessText( loss.reason ),
                           "\n" ) );
   }
   for ( const NamedLabels& list : lists ) {
      for ( const RouteKey key : ( plan.*list.labels )() ) {
         lines.add( joinText( key, "  ", list.name, "\n" ) );
      }
   }
   for ( const NamedRoom& named : rooms ) {
      const PlannedRoom& room = ( plan.*named.room )();
      lines.add( joinText( named.text, " in hardware: ", room.before, " before, ", room.after,
                           " after, ", room.most, " at most\n" ) );
   }
   return lines.finish();
}

bool printJson( std::ostream& out, const ChangePlan& plan ) {
   JsonWriter json( out );
   json.beginList( "losses" );
   for ( const ChangePlan::Loss& loss : plan.losses() ) {
      Value record;
      addLabel( record, loss.label );
      record["state"] = stringValue( loss.state );
      record["reason"] = loss.reason;
      json.newLine();
      json.element( record );
   }
   json.end();
   for ( const NamedLabels& list : lists ) {
      json.newLine();
      json.beginList( list.name );
      for ( const RouteKey key : ( plan.*list.labels )() ) {
         json.element( keyValue( key ) );
      }
      json.end();
   }
   json.newLine();
   json.member( "unchanged", plan.unchanged() );
   json.member( "operations", plan.operations() );
   json.newLine();
   json.beginObject( "room" );
   for ( const NamedRoom& named : rooms ) {
      const PlannedRoom& room = ( plan.*named.room )();
      Value record;
      record["before"] = room.before;
      record["after"] = room.after;
      record["most"] = room.most;
      json.member( named.json, record );
   }
   return json.finish();
}

} // namespace Vel::Agent
