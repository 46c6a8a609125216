#include "switch/base/neighbor_inputs.h"

#include <utility>

namespace ryx::feeds {

using namespace platform;
using Arp::ArpInputConfig;
using Arp::EntryInput;
using Arp::NeighborKey;
using Arp::VrfInput;

namespace {

// Of the agent whose entry it is.
Name agentOf(const EntryInput& entry) {
  return entry.parent()->parent()->as<ArpInputConfig>()->key();
}

}  // namespace

NeighborInputs::NeighborInputs(Tree& tree, Changed changed)
    : JournalReactor("neighbor inputs"), changed_(std::move(changed)) {
  follow(*tree.make<Dir>("arp/input/config")->childJournal(), true);
  hearAll();
}

void NeighborInputs::onEntity(Entity& entity, Change change) {
  auto* input = entity.as<EntryInput>();
  if (!input || input->parent()->as<VrfInput>()->key() != Name("default")) return;
  const NeighborKey key = input->key();
  if (change == Change::created) told_.emplace(key, input);
  if (change == Change::deleted) {
    auto [at, end] = told_.equal_range(key);
    while (at != end && at->second != input) ++at;
    if (at != end) told_.erase(at);
  }
  changed_(key);
}

const MacAddr* NeighborInputs::find(const NeighborKey& key) const {
  auto [at, end] = told_.equal_range(key);
  if (at == end) return nullptr;
  const EntryInput* first = at->second;
  while (++at != end)
    if (agentOf(*at->second).view() < agentOf(*first).view()) first = at->second;
  return &first->ethAddr();
}

std::vector<NeighborKey> NeighborInputs::keysAt(IntfId intf) const {
  std::vector<NeighborKey> keys;
  for (const auto& [key, entry] : told_)
    if (key.intf == intf) keys.push_back(key);
  return keys;
}

}  // namespace ryx::feeds
