// The addresses of interfaces as the feeds share them: what is configured, and the status that
// shows what is active. Under the activity lock.
#pragma once

#include <functional>
#include <vector>

#include "platform/model/ip.h"
#include "platform/qel/reactor.h"

namespace ryx::feeds {

class AddressConfig final : private platform::JournalReactor {
 public:
  using Changed = std::function<void(platform::IntfId intf)>;

  // `tree` outlives it. `changed` is called from the loop for each interface whose addresses of one
  // family may be others, those that there are first.
  AddressConfig(platform::Tree& tree, Changed changed);

  // Ascending, of both families.
  std::vector<platform::IpAddrMask> of(platform::IntfId intf) const;

 private:
  void onEntity(platform::Entity& entity, platform::Change) override;

  platform::Ip::Config& ip_;
  platform::Ip6::Config& ip6_;
  const Changed changed_;
};

// The interface is there, and those of its addresses are active, which ascend. The primary one is
// the configured one, when it is active; where none is configured, the smallest.
void showActive(platform::Tree& tree, platform::IntfId intf,
                const std::vector<platform::IpAddrMask>& active);

// The interface is not there.
void showNoAddresses(platform::Tree& tree, platform::IntfId intf);

// The same for all interfaces that have a status and of which `keep` is false.
void showNoAddressesBut(platform::Tree& tree, const std::function<bool(platform::IntfId)>& keep);

}  // namespace ryx::feeds
