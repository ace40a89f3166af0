// Misbehave: a driver that breaks its contract, for tests of what the library does about it.
//
// The software switch itself never does any of this. Each call is one breach, at once and whatever
// the configuration says.

#pragma once

#include "mpls/VelMplsHwTypes.h"

namespace Vel::Driver {

enum class Misbehaviour : uint8_t {
   listsRoute,            ///< as unprogrammed, wanted or not
   delistsRoute,          ///< programmed or not
   confirmsRoute,         ///< with an adjacency that nobody wrote
   listsStrangeAdjacency, ///< as unprogrammed, one that nobody wrote
   switchesRouting,       ///< on in the VRF, unasked
};

/// `key` matters to the first three.
void misbehave( MplsHwStatus& status, VrfId vrfId, Misbehaviour kind, Mpls::RouteKey key = {} );

} // namespace Vel::Driver
