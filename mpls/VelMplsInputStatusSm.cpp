#include "mpls/VelMplsInputStatusSm.h"

#include "mpls/VelMplsTrace.h"

namespace Vel {

VEL_ENTITY_SOURCE( MplsSmInputStatusSm )

class MplsSmInputStatusSm::RouteSyncMapReactor : public VelHelper::MplsRouteSyncMap::Reactor {
 public:
   RouteSyncMapReactor( MplsSmInputStatusSm& sm, const VelHelper::MplsRouteSyncMap* map )
      : sm_( sm ) {
      notifierIs( map );
   }
   void onReady() override { sm_.handleInputStatus(); }

 private:
   MplsSmInputStatusSm& sm_;
};

MplsSmInputStatusSm::MplsSmInputStatusSm( Ptr< const VelHelper::MplsRouteSyncMap > routeSyncMap,
                                          Ptr< MplsSmInputSummary > summary )
   : routeSyncMap_( std::move( routeSyncMap ) ),
     summary_( std::move( summary ) ),
     reactor_( std::make_unique< RouteSyncMapReactor >( *this, routeSyncMap_.get() ) ) {
   handleInputStatus();
}

MplsSmInputStatusSm::~MplsSmInputStatusSm() = default;

void MplsSmInputStatusSm::systemLfibReadyIs( bool ready ) {
   if ( systemLfibReady_ != ready ) {
      systemLfibReady_ = ready;
      handleInputStatus();
   }
}

void MplsSmInputStatusSm::handleInputStatus() {
   MPLS_TRACE( 3, "System lfib ", systemLfibReady_, ", route sync map ", routeSyncMap_->ready() );
   if ( systemLfibReady_ && routeSyncMap_->ready() ) {
      summary_->statusIs( MplsSmInputStatus::mplsSmInputReady );
      return;
   }
   VEL_ASSERT_TEXT( summary_->status() != MplsSmInputStatus::mplsSmInputReady,
                    "mplsSmInputSummary()->status() != MplsSmInputStatus::mplsSmInputReady_",
                    "We do not expect ready flag to revert to false.", "MplsSmInputStatusSm",
                    fullName() );
   summary_->statusIs( MplsSmInputStatus::mplsSmInputNotReady );
}

Ptr< MplsSmInputStatusSm >
mplsSmInputStatusSmFactory( Ptr< const VelHelper::MplsRouteSyncMap > routeSyncMap,
                            Ptr< MplsSmInputSummary > inputSummary ) {
   return make< MplsSmInputStatusSm >( std::move( routeSyncMap ), std::move( inputSummary ) );
}

} // namespace Vel
