// Tables: every importer reads every text. What it takes keeps what LabelTable.h and
// NeighborTable.h promise, and what it does not take it has a complaint about.

#include <algorithm>

#include "agent/import/LabelTable.h"
#include "agent/import/NeighborTable.h"
#include "agent/world/LfibPlan.h"
#include "fuzz/Fuzz.h"

namespace Vel::Fuzz {

using namespace Agent;

namespace {

void checkErrors( const std::vector< ImportError >& errors ) {
   VEL_ASSERT( errors.size() <= maxListedErrors + 3 ); // and what is listed even when it is full
   for ( const ImportError& error : errors ) {
      VEL_ASSERT( !error.reason.empty() );
      VEL_ASSERT( error.text().starts_with( "t:" ) );
   }
}

bool canonical( const std::string& address ) {
   const auto parsed = IpGenAddr::parse( address );
   return parsed && parsed->text() == address;
}

void checkVias( const std::vector< LabelVia >& vias ) {
   VEL_ASSERT( vias.size() <= maxVias );
   for ( const LabelVia& via : vias ) {
      VEL_ASSERT( !via.nextHop.empty() || !via.interface.empty() );
      VEL_ASSERT( via.nextHop.empty() || canonical( via.nextHop ) );
      VEL_ASSERT( via.outLabels.size() <= maxOutgoingLabels );
      VEL_ASSERT( ( via.action == LabelOperation::pop ) == ( via.payload != LabelPayload::none ) );
      for ( const uint32_t label : via.outLabels ) {
         VEL_ASSERT( label <= MplsLabel::maxValue && label != MplsLabel::implicitNull );
      }
   }
}

void checkTable( const LabelTable& table ) {
   checkErrors( table.errors );
   const LabelRoute* before = nullptr;
   for ( const LabelRoute& route : table.routes ) {
      VEL_ASSERT( !route.stack.empty() && route.stack.size() <= maxIncomingLabels );
      VEL_ASSERT( std::ranges::max( route.stack ) <= MplsLabel::maxValue );
      VEL_ASSERT( before == nullptr || before->stack < route.stack );
      VEL_ASSERT( route.vias.empty() == ( route.ignored() || !route.externalFec.empty() ) );
      checkVias( route.vias );
      checkVias( route.backupVias );
      before = &route;
   }
   for ( const ForeignFec& foreign : table.foreignFecs ) {
      VEL_ASSERT( !foreign.name.empty() && !foreign.vias.empty() );
      checkVias( foreign.vias );
   }
}

void checkNeighbors( const NeighborTable& table ) {
   checkErrors( table.errors );
   for ( const Neighbor& neighbor : table.neighbors ) {
      VEL_ASSERT( canonical( neighbor.address ) && !neighbor.interface.empty() );
      VEL_ASSERT( !neighbor.resolved || neighbor.mac != MacAddr() );
   }
}

} // namespace

void fuzzTables( ByteView bytes ) {
   const std::string_view text = textIn( bytes );
   const NeighborTable neighbors = parseNeighborTable( text, "t" );
   checkNeighbors( neighbors );
   LfibPlan plan;
   plan.neighborsAre( neighbors );
   const LabelTable table = parseLabelTable( text, "t" );
   checkTable( table );
   plan.add( table );
   for ( const auto format :
         { LabelTableFormat::frr, LabelTableFormat::iproute2, LabelTableFormat::native } ) {
      const LabelTable forced = parseLabelTable( text, "t", format );
      checkTable( forced );
      if ( format != table.format ) {
         plan.add( forced );
      }
   }
   const Mpls::LfibCapacities capacities = plan.capacities();
   VEL_ASSERT( capacities.routes + capacities.deepRoutes >= table.routes.size() );
}

} // namespace Vel::Fuzz
