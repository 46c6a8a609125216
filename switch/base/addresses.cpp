#include "switch/base/addresses.h"

#include <algorithm>
#include <set>
#include <utility>

namespace ryx::feeds {

using namespace platform;
using Addrs = std::vector<IpAddrMask>;

namespace {

void showIp(Tree& tree, IntfId intf, Addrs active) {
  const auto* config = tree.make<Ip::Config>("ip/config")->ipIntfConfig.find(intf);
  auto& statuses = tree.make<Ip::Status>("ip/status")->ipIntfStatus;
  if (!config && active.empty()) {
    statuses.erase(intf);
    return;
  }
  const bool isChosen = config && Ip::isAssigned(config->addrWithMask());
  const auto primary =
      isChosen ? std::find(active.begin(), active.end(), config->addrWithMask()) : active.begin();
  IpAddrMask first;
  if (primary != active.end()) {
    first = *primary;
    active.erase(primary);
  }
  auto* status = statuses.create(intf);
  status->activeAddrWithMask.set(first);
  status->activeSecondaryWithMask.set(SmallSet(std::move(active)));
}

void showIp6(Tree& tree, IntfId intf, Addrs active) {
  const auto* config = tree.make<Ip6::Config>("ip6/config")->intf.find(intf);
  auto& statuses = tree.make<Ip6::Status>("ip6/status")->intf;
  if (!config && active.empty())
    statuses.erase(intf);
  else
    statuses.create(intf)->activeAddr.set(SmallSet(std::move(active)));
}

}  // namespace

AddressConfig::AddressConfig(Tree& tree, Changed changed)
    : JournalReactor("address config"),
      ip_(*tree.make<Ip::Config>("ip/config")),
      ip6_(*tree.make<Ip6::Config>("ip6/config")),
      changed_(std::move(changed)) {
  follow(ip_.journal);
  follow(ip6_.journal);
}

void AddressConfig::onEntity(Entity& entity, Change) {
  if (const auto* config = entity.as<Ip::IpIntfConfig>()) changed_(config->key());
  if (const auto* config = entity.as<Ip6::IntfConfig>()) changed_(config->key());
}

Addrs AddressConfig::of(IntfId intf) const {
  return Ip::configuredAddrs(ip_, ip6_, intf);
}

void showActive(Tree& tree, IntfId intf, const Addrs& active) {
  const auto ip6 = std::find_if(active.begin(), active.end(),
                                [](const IpAddrMask& addr) { return addr.af() == Af::ipv6; });
  showIp(tree, intf, {active.begin(), ip6});
  showIp6(tree, intf, {ip6, active.end()});
}

void showNoAddresses(Tree& tree, IntfId intf) {
  tree.make<Ip::Status>("ip/status")->ipIntfStatus.erase(intf);
  tree.make<Ip6::Status>("ip6/status")->intf.erase(intf);
}

void showNoAddressesBut(Tree& tree, const std::function<bool(IntfId)>& keep) {
  std::set<IntfId> shown;
  for (auto it = tree.make<Ip::Status>("ip/status")->ipIntfStatus.iterator(); it; it.next())
    shown.insert(it.key());
  for (auto it = tree.make<Ip6::Status>("ip6/status")->intf.iterator(); it; it.next())
    shown.insert(it.key());
  for (const IntfId intf : shown)
    if (!keep(intf)) showNoAddresses(tree, intf);
}

}  // namespace ryx::feeds
