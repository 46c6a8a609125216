// The simulated switch's addresses: those that are configured are active at the interfaces that
// there are, whether up or not, as a kernel has them. And the internal VLANs of routed interfaces,
// as it is told:
//
//   internal-vlan INTF VLAN    the VLAN that carries the interface, 1 to 4094; 0: none any more
#pragma once

#include <cstdint>

#include "switch/base/addresses.h"

namespace ryx::sim {

class Addresses {
 public:
  // `tree` outlives it.
  explicit Addresses(platform::Tree& tree);

  void internalVlanIs(platform::IntfId intf, uint32_t vlan);
  // An interface came, or went.
  void interfaceChanged(platform::IntfId intf) { look(intf); }
  // What is shown of interfaces that there are not goes.
  void takeOver();

 private:
  bool isThere(platform::IntfId intf) const;
  void look(platform::IntfId intf);

  platform::Tree& tree_;
  platform::IntfVlanId::Table& vlans_;
  feeds::AddressConfig config_;
};

}  // namespace ryx::sim
