#include "platform/interface/address_assignment.h"

#include <algorithm>
#include <iterator>
#include <utility>

#include "platform/qel/journal.h"

namespace ryx::platform {

// A place in one of the journals, and what changed since it was there.
class AddressAssignment::Follower final : public Cursor {
 public:
  explicit Follower(Journal& journal) { attachAtHead(journal, false); }

  // True when it missed something: then everything may have changed.
  template <class Changed>
  bool read(Changed&& changed) {
    while (const Ref<Entity> entity = next())
      if (const auto* intf = intfOf(*entity)) changed(*intf);
    return std::exchange(overrun_, false);
  }

 private:
  static const IntfId* intfOf(Entity& entity) {
    if (const auto* config = entity.as<Ip::IpIntfConfig>()) return &config->key();
    if (const auto* config = entity.as<Ip6::IntfConfig>()) return &config->key();
    if (const auto* vrf = entity.as<Ip::IntfVrf>()) return &vrf->key();
    return nullptr;
  }
  void activated() override {}
  void overrun() override { overrun_ = true; }

  bool overrun_ = false;
};

AddressAssignment::AddressAssignment(Ip::Config& ip, Ip6::Config& ip6, Ip::IntfVrfConfig& vrfs)
    : ip_(ip), ip6_(ip6), vrfs_(vrfs) {
  for (Journal* journal : {&ip.journal, &ip6.journal, &vrfs.journal})
    followers_.push_back(std::make_unique<Follower>(*journal));
}

AddressAssignment::~AddressAssignment() = default;

std::optional<IpAddrMask> AddressAssignment::refused(IntfId intf,
                                                     const std::vector<IpAddrMask>& leaving,
                                                     const std::vector<IpAddrMask>& joining) {
  catchUp();
  if (!known_.count(intf)) reindex(intf);
  Known& known = known_[intf];
  for (const IpAddrMask& addr : leaving)
    if (known.addrs.contains(addr)) take(intf, known, addr);
  for (const IpAddrMask& addr : joining) {
    if (known.addrs.contains(addr)) continue;
    if (!fits(intf, known, addr)) {
      reindex(intf);
      return addr;
    }
    put(intf, known, addr);
  }
  stale_.insert(intf);  // until they are written
  return {};
}

void AddressAssignment::catchUp() {
  for (const auto& follower : followers_)
    if (follower->read([this](IntfId intf) { stale_.insert(intf); }))
      for (const auto& [intf, known] : known_) stale_.insert(intf);
  for (const IntfId intf : std::exchange(stale_, {})) reindex(intf);
}

// Makes what is known of it what is configured.
void AddressAssignment::reindex(IntfId intf) {
  const std::vector<IpAddrMask> configured = Ip::configuredAddrs(ip_, ip6_, intf);
  const auto* entry = vrfs_.intf.find(intf);
  const Name vrf = entry && !entry->vrf().empty() ? entry->vrf() : Name("default");

  Known& known = known_[intf];
  if (known.vrf != vrf) {
    const std::vector<IpAddrMask> all(known.addrs.begin(), known.addrs.end());
    for (const IpAddrMask& addr : all) take(intf, known, addr);
    known.vrf = vrf;
  }
  std::vector<IpAddrMask> gone, come;
  std::set_difference(known.addrs.begin(), known.addrs.end(), configured.begin(), configured.end(),
                      std::back_inserter(gone));
  std::set_difference(configured.begin(), configured.end(), known.addrs.begin(), known.addrs.end(),
                      std::back_inserter(come));
  for (const IpAddrMask& addr : gone) take(intf, known, addr);
  for (const IpAddrMask& addr : come) put(intf, known, addr);
}

void AddressAssignment::put(IntfId intf, Known& known, const IpAddrMask& addr) {
  known.addrs.insert(addr);
  ++subnets_[known.vrf][addr.subnet()][intf];
}

void AddressAssignment::take(IntfId intf, Known& known, const IpAddrMask& addr) {
  known.addrs.erase(addr);
  Subnets& subnets = subnets_[known.vrf];
  const auto subnet = subnets.find(addr.subnet());
  const auto count = subnet->second.find(intf);
  if (--count->second == 0) subnet->second.erase(count);
  if (subnet->second.empty()) subnets.erase(subnet);
}

bool AddressAssignment::fits(IntfId intf, const Known& known, const IpAddrMask& addr) const {
  // Under another mask: those of one address stand beside each other.
  const auto* same =
      std::lower_bound(known.addrs.begin(), known.addrs.end(), IpAddrMask(addr.addr(), 0));
  if (same != known.addrs.end() && same->addr() == addr.addr()) return false;

  const auto in = subnets_.find(known.vrf);
  if (in == subnets_.end()) return true;
  const Subnets& subnets = in->second;
  const IpPrefix subnet = addr.subnet();
  const auto isOthers = [&](const auto& at) { return at->second.size() > at->second.count(intf); };
  bool isInsideOwn = false, coversOwn = false;
  for (int length = subnet.length(); length >= 0; --length) {
    const auto at = subnets.find(IpPrefix::containing(subnet.addr(), static_cast<uint8_t>(length)));
    if (at == subnets.end()) continue;
    if (isOthers(at)) return false;
    isInsideOwn = true;
  }
  // A network comes right before those that it holds.
  for (auto at = subnets.upper_bound(subnet); at != subnets.end() && subnet.contains(at->first);
       ++at) {
    if (isOthers(at)) return false;
    coversOwn = true;
  }
  return isInsideOwn || !coversOwn;
}

}  // namespace ryx::platform
