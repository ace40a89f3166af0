// The parts of MplsSm, and how work passes between them.
//
//    events            MplsSm (LFIB, VRF, start), NextHops, Fecs (answers), DriverReports
//       │ mark
//       ▼
//    work sets         Review ──> L3Adjacencies ──> NextHops, L2Adjacencies, Protection, Fecs
//                        │            │ queues routes
//                        ├──────> Routes ──> RouteWriter ──> driver, MplsSmHelper
//                        │                       │ queues for publishing
//                        └──────> Publisher <────┘
//
//    asked by many     ViaSets (the LFIB), Vrfs (numbers), Fecs; FecIds by Fecs and L3Adjacencies
//    at a restart      Recovery; in full hardware also later: FecRoom

#pragma once

#include "mpls/transit/DriverReports.h"
#include "mpls/transit/FecIds.h"
#include "mpls/transit/FecRoom.h"
#include "mpls/transit/Fecs.h"
#include "mpls/transit/L2Adjacencies.h"
#include "mpls/transit/L3Adjacencies.h"
#include "mpls/transit/NextHops.h"
#include "mpls/transit/Protection.h"
#include "mpls/transit/Publisher.h"
#include "mpls/transit/Recovery.h"
#include "mpls/transit/Review.h"
#include "mpls/transit/RouteWriter.h"
#include "mpls/transit/Routes.h"
#include "mpls/transit/ViaSets.h"
#include "mpls/transit/Vrfs.h"

namespace Vel::Transit {

struct Parts {
   explicit Parts( MplsSm& sm )
      : vrfs( sm, *this ),
        viaSets( sm, *this ),
        nextHops( sm, *this ),
        l2Adjacencies( sm, *this ),
        fecIds( sm, *this ),
        fecs( sm, *this ),
        fecRoom( sm, *this ),
        protection( sm, *this ),
        l3Adjacencies( sm, *this ),
        routeWriter( sm, *this ),
        routes( sm, *this ),
        publisher( sm, *this ),
        driverReports( sm, *this ),
        recovery( sm, *this ),
        review( sm, *this ) {}

   Vrfs vrfs;
   ViaSets viaSets;
   NextHops nextHops;
   L2Adjacencies l2Adjacencies;
   FecIds fecIds;
   Fecs fecs;
   FecRoom fecRoom;
   Protection protection;
   L3Adjacencies l3Adjacencies;
   RouteWriter routeWriter;
   Routes routes;
   Publisher publisher;
   DriverReports driverReports;
   Recovery recovery;
   Review review;
};

} // namespace Vel::Transit
