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

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string_view>
#include <unordered_map>
#include <unordered_set>
#include <utility>

#include "platform/mirra/table.h"
#include "platform/model/arp.h"
#include "switch/base/neighbor_inputs.h"

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
  using Done = std::function<void(int error, std::string_view words)>;
  // A permanent entry, in the place of what there is. `done` is called once, later.
  virtual void set(const Neighbor& neighbor, Done done) = 0;
  virtual void remove(const Neighbor& neighbor, Done done) = 0;

 protected:
  ~NeighborWriter() = default;
};

class Neighbors {
 public:
  // Named bound: how often in a row the kernel is told what it then does not have.
  static constexpr int kMaxAttempts = 4;

  struct Counters {
    uint64_t writes = 0;   // to the kernel
    uint64_t refused = 0;  // that it refused, or took and has not
    uint64_t putBack = 0;  // of them, of what the kernel had before and somebody changed
  };

  Neighbors(platform::Tree& tree, NeighborWriter& writer);
  Neighbors(const Neighbors&) = delete;
  Neighbors& operator=(const Neighbors&) = delete;

  // A device is that interface from now on, or none (the empty identifier); or has changed.
  void deviceIs(int index, platform::IntfId intf);
  // The kernel has a neighbour, or has it no more: in its order.
  void changed(const Neighbor& neighbor);
  void gone(int index, const platform::IpAddr& addr);
  // A dump: what is told meanwhile by changed() and gone() is newer.
  void dumpBegins();
  void dumped(const Neighbor& neighbor);
  void dumpEnds();
  // The table is filled: it is to be had from now on.
  void offer() { table_.offer(); }

  size_t size() const { return table_.size(); }
  const Counters& counters() const { return counters_; }

 private:
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
  // What became of what is configured.
  struct Own {
    platform::MacAddr written;
    bool isWritten = false;  // the kernel took it
    bool isBusy = false;     // it has not answered yet
    bool isRefused = false;
    int attempts = 0;
  };
  struct Hearing {
    std::unordered_set<Place, PlaceHash> dumped, newer;
  };

  void take(const Place& place, const Neighbor& neighbor);
  void look(const Place& place);
  void tryAgain(const platform::Arp::NeighborKey& key);
  void reconcile(const platform::Arp::NeighborKey& key);
  void write(const platform::Arp::NeighborKey& key, Own& own, const platform::MacAddr& mac);
  void answered(const platform::Arp::NeighborKey& key, int error, std::string_view words);

  NeighborWriter& writer_;
  platform::mirra::Table<platform::Arp::Status> table_;
  Counters counters_;
  std::map<int, platform::IntfId> interfaces_;
  std::map<platform::IntfId, int> devices_;
  std::unordered_map<Place, Known, PlaceHash> kernel_;
  std::unordered_map<platform::Arp::NeighborKey, Own, platform::Arp::NeighborKeyHash> own_;
  std::optional<Hearing> hearing_;
  feeds::NeighborInputs inputs_;
  const std::shared_ptr<Neighbors*> self_ = std::make_shared<Neighbors*>(this);  // for answers
};

}  // namespace ryx::kernel
