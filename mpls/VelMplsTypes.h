// The entity types of label forwarding: the hardware programming model and the per-VRF records.

#pragma once

#include "mpls/VelMplsHwTypes.h"
#include "mpls/VelMplsRecords.h"
