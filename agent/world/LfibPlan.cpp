#include "agent/world/LfibPlan.h"

#include <algorithm>
#include <tuple>

#include "platform/containers/Hash.h"

namespace Vel::Agent {

using Mpls::LfibSource;
using Mpls::RouteKey;

namespace {

constexpr std::string_view loopback = "lo";
constexpr std::string_view decapsulation =
   "decapsulation (pop and IP lookup) is not programmed by this version";

RouteKey routeKeyOf( const std::vector< uint32_t >& stack ) {
   const auto label = [&]( size_t depth ) {
      return depth < stack.size() ? MplsLabel( stack[depth] ) : MplsLabel();
   };
   return { label( 0 ), label( 1 ), label( 2 ) };
}

Mpls::PayloadType payloadTypeOf( LabelPayload payload ) {
   switch ( payload ) {
   case LabelPayload::none:
      return Mpls::PayloadType::undefined;
   case LabelPayload::ipv4:
      return Mpls::PayloadType::ipv4;
   case LabelPayload::ipv6:
      return Mpls::PayloadType::ipv6;
   case LabelPayload::autodetect:
      break;
   }
   return Mpls::PayloadType::autoDetect;
}

MplsLabelAction labelActionOf( LabelOperation operation ) {
   switch ( operation ) {
   case LabelOperation::pop:
      break;
   case LabelOperation::swap:
      return MplsLabelAction::swap;
   case LabelOperation::push:
      return MplsLabelAction::push;
   case LabelOperation::keep:
      return MplsLabelAction::none;
   }
   return MplsLabelAction::pop;
}

// Pop here and look the payload up.
bool decapsulates( const LabelVia& via ) {
   return via.action == LabelOperation::pop && via.nextHop.empty() && via.interface == loopback &&
          via.outlet == LabelOutlet::interface;
}

} // namespace

// --- Tables.

void LfibPlan::neighborsAre( const NeighborTable& neighbors ) {
   for ( const Neighbor& neighbor : neighbors.neighbors ) {
      interfacesOf_[neighbor.address].insert( neighbor.interface );
   }
}

size_t LfibPlan::add( const LabelTable& table ) {
   auto planned = std::make_unique< PlannedTable >();
   planned->routes.reserve( table.routes.size() );
   for ( const LabelRoute& route : table.routes ) {
      const RouteKey key = routeKeyOf( route.stack );
      const bool ends = route.ignored() || ( route.externalFec.empty() &&
                                             std::ranges::all_of( route.vias, decapsulates ) );
      planned->routes.push_back(
         { key, ends ? ignoredViaSet( *planned, key, route ) : viaSetOf( route ) } );
   }
   for ( const ForeignFec& foreign : table.foreignFecs ) {
      addForeign( *planned, foreign );
   }
   // A key of one label sorts behind the deeper ones that begin with it.
   std::ranges::sort( planned->routes, {}, &PlannedRoute::key );
   std::ranges::sort( planned->ignored, {}, &PlannedTable::Ignored::key );
   makeRoomFor( *planned );
   tables_.push_back( std::move( planned ) );
   return tables_.size() - 1;
}

U32 LfibPlan::ignoredViaSet( PlannedTable& planned, RouteKey key, const LabelRoute& route ) {
   const bool imported = route.ignored();
   planned.ignored.push_back(
      { key, reasonOf( imported ? route.ignoredReason : std::string( decapsulation ) ) } );
   const Mpls::PayloadType payload = imported || route.vias.empty()
                                        ? Mpls::PayloadType::autoDetect
                                        : payloadTypeOf( route.vias.front().payload );
   return ipLookupViaSet | static_cast< U32 >( payload );
}

U32 LfibPlan::reasonOf( const std::string& text ) {
   const auto [at, made] =
      reasonNumbers_.try_emplace( text, static_cast< U32 >( reasons_.size() ) );
   if ( made ) {
      reasons_.push_back( &at->first );
   }
   return at->second;
}

const std::string& LfibPlan::ignoredReason( size_t table, RouteKey key ) const {
   const auto& ignored = tables_[table]->ignored;
   const auto at = std::ranges::lower_bound( ignored, key, {}, &PlannedTable::Ignored::key );
   return at != ignored.end() && at->key == key ? *reasons_[at->reason]
                                                : Vel::nullValueOf< std::string >();
}

// While a table replaces the one before it, the LFIB holds the routes of both.
void LfibPlan::makeRoomFor( const PlannedTable& added ) {
   static const std::vector< PlannedRoute > nothing;
   const std::vector< PlannedRoute >& before = tables_.empty() ? nothing : tables_.back()->routes;
   size_t single = 0;
   size_t deep = 0;
   auto old = before.begin();
   auto now = added.routes.begin();
   while ( old != before.end() || now != added.routes.end() ) {
      const bool takeOld =
         now == added.routes.end() || ( old != before.end() && old->key <= now->key );
      const RouteKey key = takeOld ? old->key : now->key;
      ++( key.singleLabel() ? single : deep );
      old += old != before.end() && old->key == key;
      now += now != added.routes.end() && now->key == key;
   }
   routesAtOnce_ = std::max( routesAtOnce_, single );
   deepRoutesAtOnce_ = std::max( deepRoutesAtOnce_, deep );
}

Mpls::LfibCapacities LfibPlan::capacities() const {
   Mpls::LfibCapacities room; // at least as much as these, for tables that come later
   room.routes = std::max( room.routes, static_cast< U32 >( routesAtOnce_ ) );
   room.deepRoutes = std::max( room.deepRoutes, static_cast< U32 >( deepRoutesAtOnce_ ) );
   room.viaSets = std::max( room.viaSets, static_cast< U32 >( viaSets_.size() + externalFecs_ ) );
   room.extFecVias = std::max( room.extFecVias, static_cast< U32 >( externalFecs_ ) );
   room.mplsVias = std::max( room.mplsVias, static_cast< U32 >( vias_.size() ) );
   room.ringEntries = 1U << 16;
   return room;
}

// --- Vias and via sets.

U32 LfibPlan::viaSetOf( const LabelRoute& route ) {
   if ( !route.externalFec.empty() ) {
      const IntfId intf =
         interfaces_->foreignIs( ForeignFec::Kind::externalFec, route.externalFec );
      const U32 number = Interfaces::numberOf( Fib::FecIdIntfId::intfIdToFecId( intf ) );
      externalFecs_ = std::max< size_t >( externalFecs_, number );
      return extFecViaSet | number;
   }
   const U32 backup = route.backupVias.empty()
                         ? PlannedViaSet::none
                         : viaSetOf( route.backupVias, PlannedViaSet::none, true );
   return viaSetOf( route.vias, backup, route.usableAsPrimaryVias );
}

U32 LfibPlan::viaSetOf( const std::vector< LabelVia >& vias, U32 backup,
                        bool usableAsPrimaryVias ) {
   scratch_.vias.clear();
   scratch_.backup = backup;
   scratch_.usableAsPrimaryVias = usableAsPrimaryVias;
   eachWithInterface( vias, [this]( const Mpls::LfibMplsVia& content ) {
      scratch_.vias.push_back( numberOf( content ) );
   } );
   std::ranges::sort( scratch_.vias, [this]( U32 a, U32 b ) { return viaBefore( a, b ); } );
   const auto [at, made] =
      viaSetNumbers_.try_emplace( scratch_, static_cast< U32 >( viaSets_.size() ) );
   if ( made ) {
      viaSets_.push_back( &at->first );
   }
   return at->second;
}

// Calls with every via. A via that lacks its interface is replaced by one for each interface on
// which the next hop is known, as far as the limit of a via set allows.
template< class F >
void LfibPlan::eachWithInterface( const std::vector< LabelVia >& vias, const F& call ) {
   size_t room = maxVias - vias.size(); // beside one for each
   for ( const LabelVia& via : vias ) {
      Mpls::LfibMplsVia content = contentOf( via );
      const auto known =
         via.interface.empty() ? interfacesOf_.find( via.nextHop ) : interfacesOf_.end();
      if ( known == interfacesOf_.end() ) {
         call( content );
         continue;
      }
      const size_t taken = std::min( known->second.size(), room + 1 );
      room -= taken - 1;
      for ( auto [at, left] = std::pair( known->second.begin(), taken ); left > 0; ++at, --left ) {
         content.intf = interfaces_->intfIs( *at );
         call( content );
      }
   }
}

Mpls::LfibMplsVia LfibPlan::contentOf( const LabelVia& via ) {
   Mpls::LfibMplsVia content;
   content.nextHop = IpGenAddr::parse( via.nextHop ).value_or( IpGenAddr() );
   content.intf = via.outlet == LabelOutlet::interface ? interfaces_->intfIs( via.interface )
                  : via.outlet == LabelOutlet::tunnel
                     ? interfaces_->foreignIs( ForeignFec::Kind::tunnel, via.interface )
                     : interfaces_->foreignIs( ForeignFec::Kind::nextHopGroup, via.interface );
   for ( const uint32_t label : via.outLabels ) {
      content.labelStack.push( label );
   }
   content.labelAction = labelActionOf( via.action );
   if ( via.action == LabelOperation::pop ) {
      content.payloadType = payloadTypeOf( via.payload );
      content.ttlMode =
         via.ttlMode == LabelTtlMode::pipe ? Mpls::TtlMode::pipe : Mpls::TtlMode::uniform;
   }
   return content;
}

U32 LfibPlan::numberOf( const Mpls::LfibMplsVia& content ) {
   const auto [at, made] = viaNumbers_.try_emplace( content, static_cast< U32 >( vias_.size() ) );
   if ( made ) {
      vias_.push_back( &at->first );
   }
   return at->second;
}

void LfibPlan::addForeign( PlannedTable& planned, const ForeignFec& foreign ) {
   PlannedForeign& made = planned.foreign.emplace_back();
   made.intf = interfaces_->foreignIs( foreign.kind, foreign.name );
   eachWithInterface( foreign.vias, [&made]( const Mpls::LfibMplsVia& via ) {
      made.vias.push_back( { via.nextHop, via.intf, via.labelAction, via.labelStack,
                             via.payloadType, via.ttlMode, false } );
   } );
}

// By content and not by number, so that the order does not depend on the tables read before.
bool LfibPlan::viaBefore( U32 left, U32 right ) const {
   if ( left == right ) {
      return false;
   }
   const Mpls::LfibMplsVia& a = *vias_[left];
   const Mpls::LfibMplsVia& b = *vias_[right];
   if ( a.nextHop != b.nextHop ) {
      return a.nextHop < b.nextHop;
   }
   if ( a.intf != b.intf ) {
      return interfaces_->name( a.intf ) < interfaces_->name( b.intf );
   }
   return std::tie( a.labelAction, a.labelStack, a.payloadType, a.ttlMode ) <
          std::tie( b.labelAction, b.labelStack, b.payloadType, b.ttlMode );
}

size_t LfibPlan::ViaHash::operator()( const Mpls::LfibMplsVia& via ) const {
   const U64 modes = static_cast< U64 >( via.labelAction ) << 16 |
                     static_cast< U64 >( via.payloadType ) << 8 | static_cast< U64 >( via.ttlMode );
   return mixBits( via.nextHop.hash() +
                   mixBits( via.intf.hash() + mixBits( via.labelStack.hash() + modes ) ) );
}

size_t LfibPlan::ViaSetHash::operator()( const PlannedViaSet& viaSet ) const {
   U64 mixed =
      viaSet.vias.size() + mixBits( U64{ viaSet.backup } << 1 | U64{ viaSet.usableAsPrimaryVias } );
   for ( const U32 via : viaSet.vias ) {
      mixed = mixBits( mixed + via );
   }
   return mixed;
}

Mpls::LfibMplsVia LfibPlan::via( U32 number ) const {
   Mpls::LfibMplsVia via = *vias_[number];
   via.key = viaKey( number );
   return via;
}

// The tables do not say which protocol a route comes from.
Mpls::LfibViaKey LfibPlan::viaKey( U32 number ) {
   return { LfibSource::other, Mpls::viaTypeMplsIp, number };
}

Mpls::LfibViaSetKey LfibPlan::viaSetKey( U32 number ) {
   if ( number >= ipLookupViaSet ) {
      return { LfibSource::other, Mpls::viaTypeIpLookup, number - ipLookupViaSet };
   }
   if ( number >= extFecViaSet ) {
      return { LfibSource::other, Mpls::viaTypeExternalFec, number - extFecViaSet };
   }
   return { LfibSource::other, Mpls::viaTypeMplsIp, number };
}

} // namespace Vel::Agent
