#include "switch/sim/neighbors.h"

#include <vector>

#include "switch/base/interfaces.h"

namespace ryx::sim {

using namespace platform;
using Arp::EntryType;
using Arp::NeighborKey;

Neighbors::Neighbors(Tree& tree)
    : tree_(tree),
      table_(tree.tables(), Arp::kStatusTable, mirra::Mode::write),
      inputs_(tree, [this](const NeighborKey& key) { look(key); }) {
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
  std::vector<NeighborKey> keys = inputs_.keysAt(intf);
  if (!exists) {
    std::erase_if(learned_, [&](auto& entry) { return entry.first.intf == intf; });
    for (auto it = table_.iterator(); it; it.next())
      if (it.key().intf == intf) keys.push_back(it.key());
  }
  for (const NeighborKey& key : keys) look(key);
}

// What the table has of it follows from what there is.
void Neighbors::look(const NeighborKey& key) {
  const MacAddr* fixed = inputs_.find(key);
  const auto learned = learned_.find(key);
  if (!feeds::findIntf(tree_, key.intf).status || (!fixed && learned == learned_.end()))
    table_.remove(key);
  else if (fixed)
    table_.write({key, *fixed, EntryType::fixed});
  else
    table_.write({key, learned->second, EntryType::dynamic});
}

}  // namespace ryx::sim
