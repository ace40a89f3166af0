// MplsSmCounters: how much has passed each stage of MplsSm since the process started.
//
//    LFIB ──received──> accepted ──> reviewed ──> written ──> confirmed ──> published
//             │ ignored, removed                    └─> refused ──> retried
//
// They only grow, and outlive the VRF's records, which go with the last route. What grows without
// being wanted says where to look: `routesIgnored` at the table, `routesRefused` at the hardware,
// `reportsLate` at the driver.

#pragma once

#include "platform/entity/Entity.h"

namespace Vel {

class VEL_EXPORT MplsSmCounters : public Entity {
   // clang-format off
   VEL_ENTITY( MplsSmCounters )
   VEL_COUNTER( routesReceived )     // announcements of the LFIB, a change and a removal being one each, and what a walk over it is the first to find
   VEL_COUNTER( routesAccepted )     // of these, routes to be forwarded, new or changed
   VEL_COUNTER( routesRemoved )      // of these, removals of routes that had been accepted
   VEL_COUNTER( routesIgnored )      // of these, the others: not for MPLS forwarding, or it is off
   VEL_COUNTER( routesReviewed )     // taken from the work set and processed
   VEL_COUNTER( routesWritten )      // versions written to the hardware configuration
   VEL_COUNTER( routesConfirmed )    // the driver has it in hardware
   VEL_COUNTER( routesRefused )      // went onto the driver's list of unprogrammed routes
   VEL_COUNTER( routesRetried )      // processed again because they are on that list
   VEL_COUNTER( routesPublished )    // written to or taken from the published status
   VEL_COUNTER( adjacenciesReviewed ) // via sets processed
   VEL_COUNTER( adjacenciesWritten )  // versions of L2 adjacencies written to the hardware configuration
   VEL_COUNTER( adjacenciesRefused )
   VEL_COUNTER( adjacenciesRetried )
   VEL_COUNTER( viaSetsReceived )    // announcements of via sets and their vias
   VEL_COUNTER( nextHopsReceived )   // changes of what next hops resolve to
   VEL_COUNTER( lfibUnread )         // times that the LFIB could not be read: what was there stayed, and was looked for again
   VEL_COUNTER( reportsLate )        // of a version that has been replaced, or of what is not there (any more)
   VEL_ENTITY_END_IN_SOURCE
   // clang-format on

 public:
   std::string name() const override { return "mplsSmCounters"; }
};

} // namespace Vel
