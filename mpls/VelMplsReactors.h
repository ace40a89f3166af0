// The reactors of MplsSm: each hears one input and calls one handler. Not for other users.

#pragma once

#include "mpls/VelMplsSm.h"

namespace Vel {

/// All reactors of one MplsSm, unbound together when it goes.
class MplsSmReactors {
 public:
   MplsSmReactors( const MplsSmReactors& ) = delete;
   MplsSmReactors& operator=( const MplsSmReactors& ) = delete;
   /// Binds to every input that is there.
   explicit MplsSmReactors( MplsSm& sm );
   ~MplsSmReactors();

   /// Binds a reactor to a VRF's status, or drops the one there is.
   void mplsHwVrfStatusIs( MplsHwVrfStatus* status );
   void mplsHwVrfStatusDel( VrfId vrfId );
   /// One reactor for each VRF's status, no more and no less.
   void mplsHwVrfStatusReconcile();
   /// Follows the L3 layer's current adjacency hardware status.
   void adjHwStatusIs();

 private:
   class LfibInfoReactor;
   class MplsRoutingInfoReactor;
   class TransitLfibReactor;
   class RouteStatusReactor;
   class LfibTrackingStatusReactor;
   class MplsHwStatusReactor;
   class MplsHwVrfStatusReactor;
   class VelL3StatusReactor;
   class AdjHwStatusReactor;
   class HwFecIdResponseReactor;
   class MplsMcastAdjRespReactor;
   class InputStatusSummaryReactor;
   class VelL3StartupStagePrereqsReactor;
   class TaskReactor;
   class ClockReactor;

   template< class R, class E, class... Args >
   void bind( const E& notifier, Args&&... args );

   MplsSm& sm_;
   std::vector< std::unique_ptr< ReactorBase > > reactors_;
   Hash< VrfId, std::unique_ptr< MplsHwVrfStatusReactor > > mplsHwVrfStatus_;
   std::unique_ptr< AdjHwStatusReactor > adjHwStatus_;
};

} // namespace Vel
