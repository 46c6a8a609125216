#include "switch/linux/neighbors.h"

#include <cstring>
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
    }
    if (!intf.isEmpty()) {
      interfaces_[index] = intf;
      devices_[intf] = index;
      for (const Place& place : places) look(place);
    }
  }
  if (intf.isEmpty()) return;
  for (const NeighborKey& key : inputs_.keysAt(intf)) tryAgain(key);
}

void Neighbors::changed(const Neighbor& neighbor) {
  const Place place(neighbor.index, neighbor.addr);
  if (hearing_) hearing_->newer.insert(place);
  take(place, neighbor);
}

void Neighbors::take(const Place& place, const Neighbor& neighbor) {
  kernel_[place] = {neighbor.mac, neighbor.isPermanent};
  look(place);
}

void Neighbors::gone(int index, const IpAddr& addr) {
  const Place place(index, addr);
  if (hearing_) hearing_->newer.insert(place);
  if (kernel_.erase(place) != 0) look(place);
}

void Neighbors::dumpBegins() {
  hearing_.emplace();
}

void Neighbors::dumped(const Neighbor& neighbor) {
  const Place place(neighbor.index, neighbor.addr);
  if (!hearing_ || hearing_->newer.count(place)) return;
  hearing_->dumped.insert(place);
  take(place, neighbor);
}

void Neighbors::dumpEnds() {
  if (!hearing_) return;
  const Hearing heard = std::move(*hearing_);
  hearing_.reset();
  std::vector<Place> left;
  for (auto& [place, known] : kernel_)
    if (!heard.dumped.count(place) && !heard.newer.count(place)) left.push_back(place);
  for (const Place& place : left) gone(place.first, place.second);
}

// The table, and what is configured, follow what the kernel has there.
void Neighbors::look(const Place& place) {
  const auto intf = interfaces_.find(place.first);
  if (intf == interfaces_.end()) return;
  const NeighborKey key = {place.second, intf->second};
  if (const auto known = kernel_.find(place); known == kernel_.end())
    table_.remove(key);
  else
    table_.write({key, known->second.mac,
                  known->second.isPermanent ? EntryType::fixed : EntryType::dynamic});
  reconcile(key);
}

// --- what the kernel shall do -------------------------------------------------------------------

// Something changed by which what the kernel refused may pass now.
void Neighbors::tryAgain(const NeighborKey& key) {
  if (auto own = own_.find(key); own != own_.end()) {
    own->second.isRefused = false;
    own->second.attempts = 0;
  }
  reconcile(key);
}

void Neighbors::reconcile(const NeighborKey& key) {
  const MacAddr* wanted = inputs_.find(key);
  auto at = own_.find(key);
  if (!wanted && at == own_.end()) return;
  if (at != own_.end() && at->second.isBusy) return;
  const auto device = devices_.find(key.intf);
  if (device == devices_.end()) {
    if (at != own_.end()) own_.erase(at);
    return;
  }
  const auto known = kernel_.find({device->second, key.addr});
  const auto has = [&](const MacAddr& mac) {
    return known != kernel_.end() && known->second.isPermanent && known->second.mac == mac;
  };
  if (wanted) {
    Own& own = own_[key];
    if (has(*wanted)) {
      own = {.written = *wanted, .isWritten = true};
    } else {
      write(key, own, *wanted);
    }
  } else if (at->second.isWritten && has(at->second.written)) {
    at->second.isBusy = true;
    at->second.isWritten = false;
    ++counters_.writes;
    writer_.remove({device->second, key.addr, at->second.written, true},
                   [this, key, self = std::weak_ptr(self_)](int error, std::string_view words) {
                     if (self.lock()) answered(key, error == ENOENT ? 0 : error, words);
                   });
  } else {
    own_.erase(at);
  }
}

void Neighbors::write(const NeighborKey& key, Own& own, const MacAddr& mac) {
  if (own.written != mac) own = {.written = mac};
  if (own.isRefused) return;
  if (own.attempts++ == kMaxAttempts) {
    own.isRefused = true;
    ++counters_.refused;
    RYX_TRACE(facility(), 0,
              "the kernel takes the neighbour " << key.addr.toString() << " at "
                                                << key.intf.toString() << " and has it not");
    return;
  }
  if (std::exchange(own.isWritten, false)) ++counters_.putBack;
  own.isBusy = true;
  ++counters_.writes;
  writer_.set({devices_.at(key.intf), key.addr, mac, true},
              [this, key, self = std::weak_ptr(self_)](int error, std::string_view words) {
                if (self.lock()) answered(key, error, words);
              });
}

void Neighbors::answered(const NeighborKey& key, int error, std::string_view words) {
  const auto at = own_.find(key);
  if (at == own_.end()) return;
  Own& own = at->second;
  own.isBusy = false;
  if (error != 0) {
    ++counters_.refused;
    own.isRefused = true;
    RYX_TRACE(facility(), 0,
              "the kernel refused the neighbour "
                  << key.addr.toString() << " at " << key.intf.toString() << ": "
                  << std::strerror(error) << (words.empty() ? "" : ": ") << words);
  }
  reconcile(key);
}

}  // namespace ryx::kernel
