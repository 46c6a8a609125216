#include "switch/base/neighbor_inputs.h"

#include <map>
#include <utility>

namespace ryx::feeds {

using namespace platform;
using Arp::ArpInputConfig;
using Arp::EntryInput;
using Arp::NeighborKey;
using Arp::VrfInput;

namespace {

constexpr const char* kInputs = "arp/input/config";

}  // namespace

NeighborInputs::NeighborInputs(Tree& tree, Changed changed)
    : JournalReactor("neighbor inputs"), tree_(tree), changed_(std::move(changed)) {
  follow(*tree.make<Dir>(kInputs)->childJournal(), true);
}

void NeighborInputs::onEntity(Entity& entity, Change change) {
  if (const auto* input = entity.as<EntryInput>()) {
    if (change == Change::created) told_.insert(input);
    if (change == Change::deleted) told_.erase(input);
    return changed_(NeighborKey(input->key()));
  }
  isSorted_ = false;  // an agent's input came or went; what is in it is told after that
}

const std::vector<Ref<VrfInput>>& NeighborInputs::inputs() const {
  if (std::exchange(isSorted_, true)) return inputs_;
  std::map<std::string, VrfInput*> sorted;
  for (CollectionIterator it(tree_.find<Dir>(kInputs)->entry); it; it.next())
    if (auto* input = it.get()->as<ArpInputConfig>())
      if (VrfInput* vrf = input->vrf.find(Name("default")))
        sorted[std::string(input->key().view())] = vrf;
  inputs_.clear();
  for (auto& [name, vrf] : sorted) inputs_.emplace_back(vrf);
  return inputs_;
}

const MacAddr* NeighborInputs::find(const NeighborKey& key) const {
  for (const Ref<VrfInput>& vrf : inputs())
    if (const EntryInput* entry =
            key.addr.af() == Af::ipv4 ? vrf->ipv4.find(key) : vrf->ipv6.find(key))
      if (told_.count(entry)) return &entry->ethAddr();
  return nullptr;
}

std::vector<NeighborKey> NeighborInputs::keysAt(IntfId intf) const {
  std::vector<NeighborKey> keys;
  for (const Ref<VrfInput>& vrf : inputs())
    for (const CollectionBase* entries :
         {static_cast<CollectionBase*>(&vrf->ipv4), static_cast<CollectionBase*>(&vrf->ipv6)})
      for (CollectionIterator it(*entries); it; it.next())
        if (const auto& entry = static_cast<EntryInput&>(*it.get()); entry.key().intf == intf)
          keys.push_back(entry.key());
  return keys;
}

}  // namespace ryx::feeds
