// The kernel's network devices and the switch's interfaces, kept the same both ways. This is the
// logic alone: it is told what the kernel says, and tells a LinkWriter what the kernel shall do.
//
// A device is an index and what the kernel says of it. One whose name maps to an interface makes
// that interface: its entities appear with the device and go with it, so that a device that was
// deleted and made again, or renamed away and back, is another interface entity. What is kept:
//
//   kernel                                   state
//   operational state      ->                operStatus (link_message.h has the table)
//   name                   ->                deviceName
//   IFF_UP                <->                adminEnabledStateLocal (1 on, 2 off)
//   alias                 <->                description
//
// The last two have the rule of authority of two_way.h. A description that the kernel cannot hold
// (more than 255 bytes, or with a zero byte) is refused like a write that the kernel refuses: told
// in a trace, and the description is again what the kernel has.
//
// Of devices whose names map to one interface, the one that came first is the interface. The others
// are told on standard error and left alone; when it goes, the one with the lowest index takes
// over.
//
// Called under the activity lock. Tree, map and writer outlive it.
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <string_view>
#include <unordered_map>
#include <utility>
#include <vector>

#include "platform/qel/dir.h"
#include "platform/types/intf.h"
#include "switch/linux/answer.h"
#include "switch/linux/hearing.h"
#include "switch/linux/intf_map.h"
#include "switch/linux/link_message.h"

namespace ryx::kernel {

// Tells the kernel. `done` is called once, later and never from within: with 0 or an errno, and the
// kernel's own words.
class LinkWriter {
 public:
  using Done = Answer;
  virtual void upIs(const std::string& device, bool up, Done done) = 0;
  virtual void aliasIs(const std::string& device, const std::string& alias, Done done) = 0;

 protected:
  ~LinkWriter() = default;
};

class Links {
 public:
  // After a failure that may pass, a write is tried again in so many seconds, then twice as many.
  static constexpr double kRetryDelay = 0.1;

  struct Counters {
    uint64_t writes = 0;     // to the kernel, retries included
    uint64_t retries = 0;    // of them
    uint64_t refused = 0;    // given up: the state went back to what the kernel has
    uint64_t takenUp = 0;    // times that the state took what the kernel has
    uint64_t conflicts = 0;  // devices that map to an interface that another one is
  };

  Links(platform::Tree& tree, const IntfMap& map, LinkWriter& writer);
  ~Links();
  Links(const Links&) = delete;
  Links& operator=(const Links&) = delete;

  // The kernel says that a device is so, or gone: in its order.
  void changed(const Link& link);
  void gone(int index);

  // All devices are told. What changed() and gone() tell meanwhile is newer than dumped(). A dump
  // may begin again before it ends; what it did not tell when it ends is gone.
  void dumpBegins();
  void dumped(const Link& link);
  void dumpEnds();

  // The tree's interfaces that are no devices go.
  void takeOver();

  // `is` is called for each device that is an interface, now and when one comes, goes (it is the
  // empty one then), or goes administratively up or down.
  using DeviceIs = std::function<void(int index, platform::IntfId intf)>;
  // Until what it returns is destroyed.
  [[nodiscard]] std::shared_ptr<void> onDeviceIs(DeviceIs is);

  // The device that is an interface, 0 for none; and the interface that a device is, or the empty
  // one.
  int deviceOf(platform::IntfId intf) const;
  platform::IntfId interfaceOf(int index) const;

  size_t interfaces() const { return owners_.size(); }
  // The device of some interface is administratively down.
  bool someAreDown() const;
  const Counters& counters() const { return counters_; }

 private:
  class Port;
  struct Device {
    Link link;
    platform::IntfId intf;       // that its name maps to, or the empty one
    std::shared_ptr<Port> port;  // when it is that interface
    bool told = false;           // that another one is that interface
  };
  void take(const Link& link);
  void forget(std::map<int, Device>::iterator at);
  void claim(Device& device);
  void release(Device& device);
  void wait(Device& device);
  void tellConflict(Device& device);
  void tellDevice(int index, platform::IntfId intf) const {
    for (const auto& told : toldOfDevices_) (*told)(index, intf);
  }

  platform::Tree& tree_;
  const IntfMap& map_;
  LinkWriter& writer_;
  Counters counters_;
  std::map<int, Device> devices_;
  std::unordered_map<platform::IntfId, int> owners_;
  std::set<std::pair<platform::IntfId, int>> waiting_;  // devices whose interface another one is
  Hearing<int> hearing_;
  std::vector<DeviceIs*> toldOfDevices_;
};

}  // namespace ryx::kernel
