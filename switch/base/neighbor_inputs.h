// The neighbours that agents configure in the default VRF, as one set: of several agents' entries
// of one key that of the agent whose name comes first counts. Shared by the feeds. Under the
// activity lock.
#pragma once

#include <functional>
#include <unordered_map>
#include <vector>

#include "platform/model/arp.h"
#include "platform/qel/reactor.h"

namespace ryx::feeds {

class NeighborInputs final : private platform::JournalReactor {
 public:
  using Changed = std::function<void(const platform::Arp::NeighborKey& key)>;

  // `tree` outlives it. `changed` is called at once for each key that there is, and from the loop
  // for each that something happens to.
  NeighborInputs(platform::Tree& tree, Changed changed);

  // Null when nobody configures it. What was not told yet counts for nothing: its end may never be
  // told either.
  const platform::MacAddr* find(const platform::Arp::NeighborKey& key) const;
  // The keys at that interface, some of them several times.
  std::vector<platform::Arp::NeighborKey> keysAt(platform::IntfId intf) const;

 private:
  void onEntity(platform::Entity& entity, platform::Change change) override;

  const Changed changed_;
  // Of all agents, as they were told.
  std::unordered_multimap<platform::Arp::NeighborKey, platform::Arp::EntryInput*,
                          platform::Arp::NeighborKeyHash>
      told_;
};

}  // namespace ryx::feeds
