// MplsSmInputStatusSm: when a start with non-stop forwarding may begin.
//
// Purpose. MplsSm takes over what hardware forwards only when it can see all of it: the LFIB of
// the system and the routes that the hardware layer had programmed before.
//
// Inputs                                      Output
//    systemLfibReady (the owner sets it)         MplsSmInputSummary: status
//    MplsRouteSyncMap: ready
//
//    mplsSmInputUnknown ──> mplsSmInputNotReady ──both flags──> mplsSmInputReady, for good
//
// Ownership: holds both entities. Cost: nothing but the two events.

#pragma once

#include <memory>

#include "mpls/VelMplsSmHelper.h"

namespace Vel {

class VEL_EXPORT MplsSmInputStatusSm : public Entity {
   // clang-format off
   VEL_ENTITY( MplsSmInputStatusSm )
   VEL_DERIVED( systemLfibReady )
   VEL_ENTITY_END_IN_SOURCE
   // clang-format on

 public:
   MplsSmInputStatusSm( Ptr< const VelHelper::MplsRouteSyncMap > routeSyncMap,
                        Ptr< MplsSmInputSummary > summary );
   ~MplsSmInputStatusSm() override;
   std::string name() const override { return "mplsSmInputStatusSm"; }

   const Ptr< MplsSmInputSummary >& mplsSmInputSummary() const { return summary_; }
   /// The system's LFIB holds its initial contents.
   bool systemLfibReady() const { return systemLfibReady_; }
   void systemLfibReadyIs( bool ready );
   void handleInputStatus();

 private:
   class RouteSyncMapReactor;

   Ptr< const VelHelper::MplsRouteSyncMap > routeSyncMap_;
   Ptr< MplsSmInputSummary > summary_;
   bool systemLfibReady_ = false;
   std::unique_ptr< RouteSyncMapReactor > reactor_;
};

Ptr< MplsSmInputStatusSm >
   VEL_EXPORT mplsSmInputStatusSmFactory( Ptr< const VelHelper::MplsRouteSyncMap > routeSyncMap,
                                          Ptr< MplsSmInputSummary > inputSummary );

} // namespace Vel
