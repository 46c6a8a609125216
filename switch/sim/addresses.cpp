#include "switch/sim/addresses.h"

#include <vector>

#include "switch/base/interfaces.h"

namespace ryx::sim {

using namespace platform;

Addresses::Addresses(Tree& tree)
    : tree_(tree),
      vlans_(*tree.make<IntfVlanId::Table>("vlan/internal")),
      config_(tree, [this](IntfId intf) { look(intf); }) {}

void Addresses::internalVlanIs(IntfId intf, uint32_t vlan) {
  if (vlan == 0)
    vlans_.intfVlanIdTable.erase(intf);
  else
    vlans_.intfVlanIdTable.set(intf, VlanId(static_cast<uint16_t>(vlan)));
}

bool Addresses::isThere(IntfId intf) const {
  return feeds::findIntf(tree_, intf).status != nullptr;
}

void Addresses::look(IntfId intf) {
  if (isThere(intf)) return feeds::showActive(tree_, intf, config_.of(intf));
  feeds::showNoAddresses(tree_, intf);
  vlans_.intfVlanIdTable.erase(intf);
}

void Addresses::takeOver() {
  feeds::showNoAddressesBut(tree_, [this](IntfId intf) { return isThere(intf); });
  std::vector<IntfId> left;
  for (auto it = vlans_.intfVlanIdTable.iterator(); it; it.next())
    if (!isThere(it.key())) left.push_back(it.key());
  for (const IntfId intf : left) vlans_.intfVlanIdTable.erase(intf);
}

}  // namespace ryx::sim
