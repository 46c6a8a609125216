// The ways out of the switch that the vias of a FEC have at present.
#pragma once

#include <vector>

#include "switch/routing/next_hops.h"
#include "switch/routing/parts.h"

namespace ryx::routing {

// Each is taken from `nextHops`, a way that several vias have as often.
std::vector<GroupMember> waysOf(const Fec& fec, NextHops& nextHops);

}  // namespace ryx::routing
