#include "switch/sim/neighbors.h"

#include <map>
#include <string>
#include <vector>

#include "switch/base/interfaces.h"

namespace ryx::sim {

using namespace platform;
using Arp::ArpInputConfig;
using Arp::EntryInput;
using Arp::EntryType;
using Arp::NeighborKey;

namespace {

constexpr const char* kInputs = "arp/input/config";

}  // namespace

Neighbors::Neighbors(Tree& tree)
    : JournalReactor("sim neighbors"),
      tree_(tree),
      table_(tree.tables(), Arp::kStatusTable, mirra::Mode::write) {
  follow(*tree.make<Dir>(kInputs)->childJournal(), true);
  table_.offer();
}

void Neighbors::learn(const NeighborKey& key, const MacAddr& mac) {
  learned_[key] = mac;
  look(key);
}

bool Neighbors::age(const NeighborKey& key) {
  if (learned_.erase(key) == 0) return false;
  look(key);
  return true;
}

void Neighbors::interfaceIs(IntfId intf, bool exists) {
  if (!exists) std::erase_if(learned_, [&](auto& entry) { return entry.first.intf == intf; });
  std::vector<NeighborKey> keys;
  forEachInput([&](Arp::VrfInput& input) {
    for (auto* entries :
         {static_cast<CollectionBase*>(&input.ipv4), static_cast<CollectionBase*>(&input.ipv6)})
      for (CollectionIterator it(*entries); it; it.next())
        if (const auto& entry = static_cast<EntryInput&>(*it.get()); entry.key().intf == intf)
          keys.push_back(entry.key());
  });
  if (!exists)
    for (auto it = table_.iterator(); it; it.next())
      if (it.key().intf == intf) keys.push_back(it.key());
  for (const NeighborKey& key : keys) look(key);
}

void Neighbors::onEntity(Entity& entity, Change) {
  if (const auto* input = entity.as<EntryInput>()) look(input->key());
}

// The default VRF's, by the names of their agents.
template <class F>
void Neighbors::forEachInput(F&& call) const {
  std::map<std::string, ArpInputConfig*> inputs;
  for (CollectionIterator it(tree_.find<Dir>(kInputs)->entry); it; it.next())
    if (auto* input = it.get()->as<ArpInputConfig>())
      inputs[std::string(input->key().view())] = input;
  for (auto& [name, input] : inputs)
    if (Arp::VrfInput* vrf = input->vrf.find(Name("default"))) call(*vrf);
}

const MacAddr* Neighbors::configured(const NeighborKey& key) const {
  const MacAddr* found = nullptr;
  forEachInput([&](Arp::VrfInput& input) {
    const EntryInput* entry =
        key.addr.af() == Af::ipv4 ? input.ipv4.find(key) : input.ipv6.find(key);
    if (entry && !found) found = &entry->ethAddr();
  });
  return found;
}

// What the table has of it follows from what there is.
void Neighbors::look(const NeighborKey& key) {
  const MacAddr* fixed = configured(key);
  const auto learned = learned_.find(key);
  if (!feeds::findIntf(tree_, key.intf).status || (!fixed && learned == learned_.end()))
    table_.remove(key);
  else if (fixed)
    table_.write({key, *fixed, EntryType::fixed});
  else
    table_.write({key, learned->second, EntryType::dynamic});
}

}  // namespace ryx::sim
