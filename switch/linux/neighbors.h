// The kernel's neighbour tables and the switch's, in the network namespace: what the kernel knows
// of the devices that are interfaces is in the table "arp/status", and what agents configure is in
// the kernel, as permanent entries. This is the logic alone: it is told what the kernel says, and
// tells a NeighborWriter what the kernel shall do.
//
// An entry that has a link-layer address and is neither failed nor incomplete is in the table: a
// permanent one as configured, every other as learned. What is configured is put into the kernel
// when its device is there, and put back when somebody takes it away or changes it; it goes when no
// agent configures it any more. Permanent entries of others are left alone, but for one that is as
// an agent configures it: that counts as the agent's. What the kernel refuses is told in a trace,
// and tried again when the device or the configuration changes.
//
// Called under the activity lock. Tree and writer outlive it.
#pragma once

#include <map>
#include <optional>
#include <string>
#include <unordered_map>
#include <utility>

#include "platform/mirra/table.h"
#include "platform/model/arp.h"
#include "switch/base/neighbor_inputs.h"
#include "switch/linux/hearing.h"
#include "switch/linux/kept.h"

namespace ryx::kernel {

// What the kernel has of a neighbour.
struct Neighbor {
  int index = 0;  // of the device
  platform::IpAddr addr;
  platform::MacAddr mac;
  bool isPermanent = false;
};

class NeighborWriter {
 public:
  // A permanent entry, in the place of what there is.
  virtual void set(const Neighbor& neighbor, Answer done) = 0;
  virtual void remove(const Neighbor& neighbor, Answer done) = 0;

 protected:
  ~NeighborWriter() = default;
};

class Neighbors final
    : private Kept<platform::Arp::NeighborKey, platform::MacAddr, platform::Arp::NeighborKeyHash> {
 public:
  using Kept::counters;
  using Kept::kMaxAttempts;

  Neighbors(platform::Tree& tree, NeighborWriter& writer);

  // A device is that interface from now on, or none (the empty identifier); or has changed.
  void deviceIs(int index, platform::IntfId intf);
  // The kernel has a neighbour, or has it no more: in its order.
  void changed(const Neighbor& neighbor);
  void gone(int index, const platform::IpAddr& addr);
  // A dump: what is told meanwhile by changed() and gone() is newer.
  void dumpBegins() { hearing_.begin(); }
  void dumped(const Neighbor& neighbor);
  void dumpEnds();
  // The table is filled: it is to be had from now on.
  void offer() { table_.offer(); }

  size_t size() const { return table_.size(); }

 private:
  using Key = platform::Arp::NeighborKey;
  using Place = std::pair<int, platform::IpAddr>;
  struct PlaceHash {
    size_t operator()(const Place& place) const {
      return platform::hashMix(place.second.hash(), static_cast<uint64_t>(place.first));
    }
  };
  struct Known {
    platform::MacAddr mac;
    bool isPermanent;
  };

  void take(const Place& place, const Neighbor& neighbor);
  void look(const Place& place, const Known* known);
  Neighbor neighborFor(const Key& key, const platform::MacAddr& mac) const {
    return {devices_.at(key.intf), key.addr, mac, true};
  }

  std::optional<platform::MacAddr> wanted(const Key& key) const override;
  bool deviceIsThere(const Key& key) const override { return devices_.count(key.intf) != 0; }
  bool has(const Key& key, const platform::MacAddr& mac) const override;
  void set(const Key& key, const platform::MacAddr& mac, Answer done) override {
    writer_.set(neighborFor(key, mac), std::move(done));
  }
  void remove(const Key& key, const platform::MacAddr& mac, Answer done) override {
    writer_.remove(neighborFor(key, mac), std::move(done));
  }
  bool isNotThere(int error) const override { return error == ENOENT; }
  void tell(const Key& key, const std::string& what) const override;

  NeighborWriter& writer_;
  platform::mirra::Table<platform::Arp::Status> table_;
  std::map<int, platform::IntfId> interfaces_;
  std::map<platform::IntfId, int> devices_;
  std::unordered_map<Place, Known, PlaceHash> kernel_;
  Hearing<Place> hearing_;
  feeds::NeighborInputs inputs_;
};

}  // namespace ryx::kernel
