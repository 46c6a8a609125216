#include "switch/linux/neighbors.h"

#include <vector>

#include "platform/trace/trace.h"

namespace ryx::kernel {

using namespace platform;
using Arp::EntryType;
using Arp::NeighborKey;

namespace {

TraceFacility& facility() {
  static auto& f = TraceFacility::named("RyxLinuxNeighbors");
  return f;
}

}  // namespace

Neighbors::Neighbors(Tree& tree, NeighborWriter& writer)
    : writer_(writer),
      table_(tree.tables(), Arp::kStatusTable, mirra::Mode::write),
      inputs_(tree, [this](const NeighborKey& key) { tryAgain(key); }) {}

// --- what the kernel says -----------------------------------------------------------------------

void Neighbors::deviceIs(int index, IntfId intf) {
  const auto at = interfaces_.find(index);
  if (const IntfId before = at == interfaces_.end() ? IntfId() : at->second; before != intf) {
    std::vector<Place> places;
    for (auto& [place, known] : kernel_)
      if (place.first == index) places.push_back(place);
    if (!before.isEmpty()) {
      for (const Place& place : places) table_.remove({place.second, before});
      devices_.erase(before);
      interfaces_.erase(at);
      for (const NeighborKey& key : inputs_.keysAt(before)) reconcile(key);
    }
    if (!intf.isEmpty()) {
      interfaces_[index] = intf;
      devices_[intf] = index;
      for (const Place& place : places) look(place, &kernel_.at(place));
    }
  }
  if (intf.isEmpty()) return;
  for (const NeighborKey& key : inputs_.keysAt(intf)) tryAgain(key);
}

void Neighbors::changed(const Neighbor& neighbor) {
  const Place place(neighbor.index, neighbor.addr);
  hearing_.told(place);
  take(place, neighbor);
}

void Neighbors::take(const Place& place, const Neighbor& neighbor) {
  const Known known = {neighbor.mac, neighbor.isPermanent};
  kernel_[place] = known;
  look(place, &known);
}

void Neighbors::gone(int index, const IpAddr& addr) {
  const Place place(index, addr);
  hearing_.told(place);
  if (kernel_.erase(place) != 0) look(place, nullptr);
}

void Neighbors::dumped(const Neighbor& neighbor) {
  const Place place(neighbor.index, neighbor.addr);
  if (hearing_.dumped(place)) take(place, neighbor);
}

void Neighbors::dumpEnds() {
  for (const Place& place : hearing_.end(kernel_)) gone(place.first, place.second);
}

// The table, and what is configured, follow what the kernel has there.
void Neighbors::look(const Place& place, const Known* known) {
  const auto intf = interfaces_.find(place.first);
  if (intf == interfaces_.end()) return;
  const NeighborKey key = {place.second, intf->second};
  if (known)
    table_.write({key, known->mac, known->isPermanent ? EntryType::fixed : EntryType::dynamic});
  else
    table_.remove(key);
  kernelHas(key, known && known->isPermanent ? &known->mac : nullptr);
}

// --- what the kernel shall do -------------------------------------------------------------------

std::optional<MacAddr> Neighbors::wanted(const NeighborKey& key) const {
  const MacAddr* mac = inputs_.find(key);
  return mac ? std::optional(*mac) : std::nullopt;
}

bool Neighbors::has(const NeighborKey& key, const MacAddr& mac) const {
  const auto known = kernel_.find({devices_.at(key.intf), key.addr});
  return known != kernel_.end() && known->second.isPermanent && known->second.mac == mac;
}

void Neighbors::tell(const NeighborKey& key, const std::string& what) const {
  RYX_TRACE(
      facility(), 0,
      "the neighbour " << key.addr.toString() << " at " << key.intf.toString() << " " << what);
}

}  // namespace ryx::kernel
