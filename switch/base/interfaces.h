// Where the switch side keeps its interfaces: a configuration and a status entity for each, in the
// directories of the interface's kind. Shared by the feeds. To be called under the activity lock.
//
// Ports (Ethernet, and the processor's, internal ones and the MLAG partner's) stand in slices.
// Those of one number (Ethernet7) belong to a switch that is one box, slice "1"; those of several
// numbers (Ethernet3/1) are in the slice of their first number, the card. Sub-interfaces, link
// aggregation groups, VLAN, loopback, management and VXLAN interfaces have directories of their
// own. Null0 and tunnels have none.
#pragma once

#include <functional>

#include "platform/model/interface.h"
#include "platform/qel/dir.h"

namespace ryx::feeds {

// Null where there is none.
struct IntfEntities {
  platform::Interface::IntfConfig* config = nullptr;
  platform::Interface::IntfStatus* status = nullptr;
};

// Whether the switch has directories for interfaces of this kind.
bool hasDirectory(platform::IntfId intf);

IntfEntities findIntf(platform::Tree& tree, platform::IntfId intf);

// Makes what is missing, its directories included. Requires hasDirectory().
IntfEntities createIntf(platform::Tree& tree, platform::IntfId intf);

// Takes both entities away. The directories stay.
void eraseIntf(platform::Tree& tree, platform::IntfId intf);

// Takes the entities of all interfaces away that have a status and of which `keep` is false.
void eraseIntfsBut(platform::Tree& tree, const std::function<bool(platform::IntfId)>& keep);

}  // namespace ryx::feeds
