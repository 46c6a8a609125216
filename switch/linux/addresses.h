// The kernel's addresses and the switch's, in the network namespace: what the kernel has at the
// devices that are interfaces is active, and what is configured is in the kernel. This is the logic
// alone: it is told what the kernel says, and tells an AddressWriter what the kernel shall do.
//
// The rule of authority: configuration says what shall be there, and the kernel what is. What is
// configured is put into the kernel when its device is there, and put back when somebody takes it
// away; it goes when it is configured no more. Addresses of others are active like all, and are
// left alone, but for one that is configured too: that counts as configured. What this switch puts
// there is marked: what bears the mark and is not configured was left by an earlier life, and goes
// kLeftoverPatience after the start, when whoever configures has had the time to do it again.
//
// Which address is the primary one says the configuration, never the kernel, to which the first of
// each subnet is primary. An IPv6 address is active when it has passed duplicate address detection
// (RFC 4862), which takes an interface that is up; link-local ones never are.
//
// What happens in one turn of the loop is shown as one change.
//
// Called under the activity lock. Tree and writer outlive it.
#pragma once

#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "platform/activity/task.h"
#include "switch/base/addresses.h"
#include "switch/linux/hearing.h"
#include "switch/linux/kept.h"

namespace ryx::kernel {

// What the kernel has of an address.
struct Address {
  int index = 0;  // of the device
  platform::IpAddrMask addr;
  bool isActive = false;
  bool isOurs = false;  // bears this switch's mark
};

struct AddressKey {
  platform::IntfId intf;
  platform::IpAddrMask addr;
  bool operator==(const AddressKey&) const = default;
};
struct AddressKeyHash {
  size_t operator()(const AddressKey& key) const {
    return platform::hashMix(key.addr.hash(), key.intf.value());
  }
};

class AddressWriter {
 public:
  // Puts it there, with the mark.
  virtual void set(const Address& address, Answer done) = 0;
  virtual void remove(const Address& address, Answer done) = 0;

 protected:
  ~AddressWriter() = default;
};

class Addresses final : private Kept<AddressKey, bool, AddressKeyHash>, private platform::Task {
 public:
  // In seconds.
  static constexpr double kLeftoverPatience = 10;
  using Kept::counters;
  using Kept::kMaxAttempts;

  Addresses(platform::Tree& tree, AddressWriter& writer);
  ~Addresses() override;

  // A device is that interface from now on, or none (the empty identifier); or has changed.
  void deviceIs(int index, platform::IntfId intf);
  // The kernel has an address, or has it no more: in its order.
  void changed(const Address& address);
  void gone(int index, const platform::IpAddrMask& addr);
  // A dump: what is told meanwhile by changed() and gone() is newer.
  void dumpBegins() { hearing_.begin(); }
  void dumped(const Address& address);
  void dumpEnds();

  // What is known is shown at once.
  void show();
  // What is shown of interfaces that there are not goes.
  void takeOver();

 private:
  using Place = std::pair<int, platform::IpAddrMask>;
  struct Known {
    bool isActive;
    bool isOurs;
  };

  class Patience;

  bool run(platform::Slice&) override;
  void take(const Place& place, const Address& address);
  void look(const Place& place);
  void lookLater(platform::IntfId intf);
  void show(platform::IntfId intf);
  void configChanged(platform::IntfId intf);
  const Known* find(const AddressKey& key) const;
  Address addressFor(const AddressKey& key) const {
    return {devices_.at(key.intf), key.addr, true, true};
  }

  // The value is always true: an address is there, or it is not.
  std::optional<bool> wanted(const AddressKey& key) const override;
  bool deviceIsThere(const AddressKey& key) const override { return devices_.count(key.intf) != 0; }
  bool has(const AddressKey& key, const bool&) const override { return find(key) != nullptr; }
  std::optional<bool> leftover(const AddressKey& key) const override;
  void set(const AddressKey& key, const bool&, Answer done) override {
    writer_.set(addressFor(key), std::move(done));
  }
  void remove(const AddressKey& key, const bool&, Answer done) override {
    writer_.remove(addressFor(key), std::move(done));
  }
  bool isNotThere(int error) const override {
    return error == EADDRNOTAVAIL || error == ENODEV || error == ENOENT;
  }
  void tell(const AddressKey& key, const std::string& what) const override;

  platform::Tree& tree_;
  AddressWriter& writer_;
  std::map<int, platform::IntfId> interfaces_;
  std::map<platform::IntfId, int> devices_;
  std::map<Place, Known> kernel_;  // those of a device stand together, ascending
  Hearing<Place> hearing_;
  std::set<platform::IntfId> changed_;  // what is shown of them is old
  std::map<platform::IntfId, std::set<platform::IpAddrMask>> configured_;  // as it was told
  bool leftoversGo_ = false;
  std::unique_ptr<Patience> patience_;
  feeds::AddressConfig config_;
};

}  // namespace ryx::kernel
