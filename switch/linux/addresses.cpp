#include "switch/linux/addresses.h"

#include <algorithm>
#include <iterator>

#include "platform/activity/timer.h"
#include "platform/base/clock.h"
#include "platform/trace/trace.h"

namespace ryx::kernel {

using namespace platform;

namespace {

TraceFacility& facility() {
  static auto& f = TraceFacility::named("RyxLinuxAddresses");
  return f;
}

}  // namespace

class Addresses::Patience final : public Timer {
 public:
  explicit Patience(Addresses& addresses) : Timer("linux addresses"), addresses_(addresses) {
    armAt(clock().now() + kLeftoverPatience);
  }
  void onTimer() override {
    addresses_.leftoversGo_ = true;
    for (const auto& [place, known] : addresses_.kernel_)
      if (known.isOurs) addresses_.look(place);
  }

 private:
  Addresses& addresses_;
};

Addresses::Addresses(Tree& tree, AddressWriter& writer)
    : Task("linux addresses"),
      tree_(tree),
      writer_(writer),
      patience_(std::make_unique<Patience>(*this)),
      config_(tree, [this](IntfId intf) { configChanged(intf); }) {}

Addresses::~Addresses() = default;

// --- what the kernel says -----------------------------------------------------------------------

void Addresses::deviceIs(int index, IntfId intf) {
  const auto at = interfaces_.find(index);
  const IntfId before = at == interfaces_.end() ? IntfId() : at->second;
  if (before != intf && !before.isEmpty()) {
    devices_.erase(before);
    interfaces_.erase(at);
    lookLater(before);
    for (const IpAddrMask& addr : std::exchange(configured_[before], {})) reconcile({before, addr});
  }
  if (intf.isEmpty()) return;
  interfaces_[index] = intf;
  devices_[intf] = index;
  configured_.erase(intf);  // all of it is tried again
  configChanged(intf);
  if (before == intf) return;
  for (auto it = kernel_.lower_bound({index, {}}); it != kernel_.end() && it->first.first == index;
       ++it)
    look(it->first);
}

void Addresses::changed(const Address& address) {
  const Place place(address.index, address.addr);
  hearing_.told(place);
  take(place, address);
}

void Addresses::take(const Place& place, const Address& address) {
  kernel_[place] = {address.isActive, address.isOurs};
  look(place);
}

void Addresses::gone(int index, const IpAddrMask& addr) {
  const Place place(index, addr);
  hearing_.told(place);
  if (kernel_.erase(place) != 0) look(place);
}

void Addresses::dumped(const Address& address) {
  const Place place(address.index, address.addr);
  if (hearing_.dumped(place)) take(place, address);
}

void Addresses::dumpEnds() {
  for (const Place& place : hearing_.end(kernel_)) gone(place.first, place.second);
}

// Another address that is gone may have been what one that was refused stood against.
void Addresses::look(const Place& place) {
  const auto at = interfaces_.find(place.first);
  if (at == interfaces_.end()) return;
  const IntfId intf = at->second;
  lookLater(intf);
  const bool isThere = kernel_.count(place) != 0;
  kernelHas({intf, place.second}, isThere ? &isThere : nullptr);
  if (!isThere)
    tryRefusedAgain([&](const AddressKey& key) {
      return key.intf == intf && key.addr.addr() == place.second.addr();
    });
}

void Addresses::lookLater(IntfId intf) {
  changed_.insert(intf);
  wake();
}

bool Addresses::run(Slice&) {
  show();
  return false;
}

void Addresses::show() {
  for (const IntfId intf : std::exchange(changed_, {})) show(intf);
}

void Addresses::show(IntfId intf) {
  const auto device = devices_.find(intf);
  if (device == devices_.end()) return feeds::showNoAddresses(tree_, intf);
  std::vector<IpAddrMask> active;
  for (auto it = kernel_.lower_bound({device->second, {}});
       it != kernel_.end() && it->first.first == device->second; ++it)
    if (it->second.isActive) active.push_back(it->first.second);
  feeds::showActive(tree_, intf, active);
}

void Addresses::takeOver() {
  feeds::showNoAddressesBut(tree_, [this](IntfId intf) { return devices_.count(intf) != 0; });
}

const Addresses::Known* Addresses::find(const AddressKey& key) const {
  const auto device = devices_.find(key.intf);
  if (device == devices_.end()) return nullptr;
  const auto known = kernel_.find({device->second, key.addr});
  return known == kernel_.end() ? nullptr : &known->second;
}

// --- what the kernel shall do -------------------------------------------------------------------

// What goes first makes room.
void Addresses::configChanged(IntfId intf) {
  lookLater(intf);  // another one may be the primary one
  if (!devices_.count(intf)) return;
  const std::vector<IpAddrMask> wanted = config_.of(intf);
  std::set<IpAddrMask>& before = configured_[intf];
  std::vector<IpAddrMask> gone, come;
  std::set_difference(before.begin(), before.end(), wanted.begin(), wanted.end(),
                      std::back_inserter(gone));
  std::set_difference(wanted.begin(), wanted.end(), before.begin(), before.end(),
                      std::back_inserter(come));
  for (const IpAddrMask& addr : gone) before.erase(addr);
  before.insert(come.begin(), come.end());
  for (const IpAddrMask& addr : gone) tryAgain({intf, addr});
  for (const IpAddrMask& addr : come) tryAgain({intf, addr});
}

std::optional<bool> Addresses::wanted(const AddressKey& key) const {
  const auto configured = configured_.find(key.intf);
  return configured != configured_.end() && configured->second.count(key.addr) ? std::optional(true)
                                                                               : std::nullopt;
}

std::optional<bool> Addresses::leftover(const AddressKey& key) const {
  const Known* known = find(key);
  return leftoversGo_ && known && known->isOurs ? std::optional(true) : std::nullopt;
}

void Addresses::tell(const AddressKey& key, const std::string& what) const {
  RYX_TRACE(facility(), 0,
            "the address " << key.addr.toString() << " of " << key.intf.toString() << " " << what);
}

}  // namespace ryx::kernel
