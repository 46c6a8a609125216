// The simulated switch: hardware that obeys. It keeps the interfaces that a scenario, a script or a
// test gives it, and does what agents configure.
//
//   interface-add INTF [kernel-name]    an interface, and the name of its kernel device
//   interface-del INTF
//   oper-status INTF CODE               the platform's code of its operational status, 0 to 255
//   internal-vlan INTF VLAN             addresses (addresses.h)
//   vrf-add NAME                        a VRF, active; the one named default is always there
//   vrf-state NAME STATE                initializing, active, deleting
//   vrf-del NAME
//   neighbor-learn IP INTF MAC          neighbours (neighbors.h)
//   neighbor-age IP INTF
//   bfd-peer IP VRF INTF|- STATE        BFD sessions (bfd.h)
//   nexthop-group-capability ...        routes and nexthop groups (data_plane.h)
//   nexthop-group-count ...
//   nexthop-group-clear ...
//   clogged on|off                      whether the connections of the agents in this process take
//                                       no more
//
// A new interface is operationally down (code 2), a loopback interface up (1). One that is set
// administratively off shows down (2) whatever happens at its port, and when it is on again, what
// its port then has: the code that oper-status gave it last.
//
// Called under the activity lock, owned by the feed; it outlives neither the tree nor the loop.
#pragma once

#include <functional>
#include <memory>
#include <set>
#include <string>
#include <string_view>
#include <unordered_map>
#include <utility>

#include "platform/qel/dir.h"
#include "platform/types/intf.h"
#include "switch/routing/inputs.h"
#include "switch/sim/addresses.h"
#include "switch/sim/bfd.h"
#include "switch/sim/command_line.h"
#include "switch/sim/data_plane.h"
#include "switch/sim/neighbors.h"

namespace ryx::sim {

class Sim {
 public:
  explicit Sim(platform::Tree& tree);
  ~Sim();
  Sim(const Sim&) = delete;
  Sim& operator=(const Sim&) = delete;

  // Does what one line says. Empty when it is done, or the line says nothing; else what is wrong
  // and what was expected, and nothing has changed.
  [[nodiscard]] std::string command(std::string_view line);

  // The tree's interfaces that are none of its own go.
  void takeOver();

  // Calls `then` when the routes that there were when it began are in its tables.
  void whenSettled(std::function<void()> then) { dataPlane_.whenSettled(std::move(then)); }

  size_t interfaces() const { return ports_.size(); }

 private:
  class Port;
  struct Command;
  static const Command kCommands[];

  std::string addInterface(const Arguments& arguments);
  std::string deleteInterface(const Arguments& arguments);
  std::string setOperStatus(const Arguments& arguments);
  std::string addVrf(const Arguments& arguments);
  std::string setVrfState(const Arguments& arguments);
  std::string deleteVrf(const Arguments& arguments);
  std::string setInternalVlan(const Arguments& arguments);
  std::string learnNeighbor(const Arguments& arguments);
  std::string ageNeighbor(const Arguments& arguments);
  std::string holdBfdPeer(const Arguments& arguments);
  std::string setCapability(const Arguments& arguments) { return dataPlane_.capability(arguments); }
  std::string countAtEntry(const Arguments& arguments) { return dataPlane_.count(arguments); }
  std::string clearEntry(const Arguments& arguments) { return dataPlane_.clear(arguments); }
  std::string clog(const Arguments& arguments);

  platform::Tree& tree_;
  std::unordered_map<platform::IntfId, std::unique_ptr<Port>> ports_;
  std::set<std::string> vrfs_;
  Addresses addresses_;
  Neighbors neighbors_;
  Bfd bfd_;
  DataPlane dataPlane_;
  routing::Inputs routing_;
};

}  // namespace ryx::sim
