#include "switch/routing/next_hops.h"

namespace ryx::routing {

using platform::hashMix;

size_t NextHops::Hash::operator()(const NextHop& n) const {
  uint64_t hash = hashMix(n.hop.hash(), n.intf.hash() + static_cast<uint64_t>(n.action));
  for (const uint32_t label : n.labels) hash = hashMix(hash, label);
  const Tunnel& t = n.tunnel;
  if (t.type == Tunnel::Type::none) return hash;
  hash = hashMix(hash, t.destination.hash() + static_cast<uint64_t>(t.type));
  return hashMix(hash, t.source.hash() + t.vni + t.ttl);
}

GroupMember NextHops::take(const NextHop& nextHop, uint32_t weight) {
  const auto [at, isNew] = all_.try_emplace(nextHop);
  Record& record = at->second;
  if (isNew) {
    if (free_.empty()) {
      record.id = static_cast<NextHopId>(byId_.size());
      byId_.push_back(nullptr);
    } else {
      record.id = free_.back();
      free_.pop_back();
    }
    byId_[record.id] = &*at;
  }
  ++record.users;
  return {&at->first, record.id, weight};
}

void NextHops::release(const GroupMember& member, Programmer& programmer) {
  Record& gone = record(member);
  if (--gone.users != 0) return;
  if (gone.isProgrammed) programmer.removeNextHop(gone.id);
  free_.push_back(gone.id);
  byId_[gone.id] = nullptr;
  all_.erase(all_.find(*member.nextHop));
}

void NextHops::program(const GroupMember& member, Programmer& programmer) {
  Record& there = record(member);
  if (there.isProgrammed) return;
  there.isProgrammed = true;
  programmer.addNextHop(there.id, *member.nextHop);
}

}  // namespace ryx::routing
