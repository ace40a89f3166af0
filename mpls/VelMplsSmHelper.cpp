#include "mpls/VelMplsSmHelper.h"

#include "mpls/VelMplsTrace.h"

namespace Vel {

VEL_ENTITY_SOURCE( MplsSmInputSummary )
VEL_ENTITY_SOURCE( MplsSmStartupRecord )

void MplsSmStartupRecord::clearAndInitialize() {
   timeTakenDelAll();
   lastStageIs( MplsSmStartupStatus::mplsSmUnknown );
   lastStageTimeIs( clock_->now() );
}

void MplsSmStartupRecord::updateMplsSmStartupRecord( MplsSmStartupStatus newStage ) {
   if ( newStage <= lastStage() ) {
      MPLS_TRACE( 3, "transitioned to stage ", newStage, " when expecting a stage after ",
                  lastStage() );
      return;
   }
   const double now = clock_->now();
   const double seconds = now - lastStageTime();
   MPLS_TRACE( 3, "Recording transition to stage ", newStage, " from stage ", lastStage(),
               " after ", seconds, " seconds." );
   timeTakenIs( lastStage(), seconds );
   lastStageIs( newStage );
   lastStageTimeIs( now );
}

Ptr< MplsSmInputSummary > mplsSmInputSummaryFactory() {
   return make< MplsSmInputSummary >();
}

Ptr< MplsSmStartupRecord > mplsSmStartupRecordFactory( std::string name,
                                                       Ptr< const Clock > clock ) {
   return make< MplsSmStartupRecord >( std::move( name ), std::move( clock ) );
}

} // namespace Vel

namespace VelHelper {

VEL_ENTITY_SOURCE( MplsRouteSyncMap )

void MplsRouteSyncMap::assertNotReady() const {
   VEL_ASSERT_TEXT( !ready(), "!ready()",
                    "We do not expect the MplsRouteSyncMap to change after ready flag has been set "
                    "to true.",
                    "MplsRouteSyncMap", fullName() );
}

void MplsRouteSyncMap::adjSyncIdIs( Mpls::RouteKey key, Vel::AdjSyncId syncId ) {
   assertNotReady();
   adjSyncId_.set( key, syncId );
}

void MplsRouteSyncMap::adjSyncIdDel( Mpls::RouteKey key ) {
   assertNotReady();
   adjSyncId_.erase( key );
}

void MplsRouteSyncMap::readyIs( bool ready ) {
   if ( ready == ready_ ) {
      return;
   }
   VEL_ASSERT_TEXT( ready, "ready()", "We do not expect ready flag to revert to false.",
                    "MplsRouteSyncMap", fullName() );
   ready_ = ready;
   notify< Reactor >( []( Reactor& reactor ) { reactor.onReady(); } );
}

Ptr< MplsRouteSyncMap > mplsRouteSyncMapFactory() {
   return Vel::make< MplsRouteSyncMap >();
}

} // namespace VelHelper
