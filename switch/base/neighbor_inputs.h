// The neighbours that agents configure in the default VRF, as one set: of several agents' entries
// of one key that of the agent whose name comes first counts. Shared by the feeds. Under the
// activity lock.
#pragma once

#include <functional>
#include <string>
#include <unordered_set>
#include <vector>

#include "platform/model/arp.h"
#include "platform/qel/reactor.h"

namespace ryx::feeds {

class NeighborInputs final : private platform::JournalReactor {
 public:
  using Changed = std::function<void(const platform::Arp::NeighborKey& key)>;

  // `tree` outlives it. `changed` is called from the loop for each key that something happened to,
  // those that there are first.
  NeighborInputs(platform::Tree& tree, Changed changed);

  // Null when nobody configures it. What was not told yet counts for nothing: its end may never be
  // told either.
  const platform::MacAddr* find(const platform::Arp::NeighborKey& key) const;
  // The keys at that interface, some of them several times.
  std::vector<platform::Arp::NeighborKey> keysAt(platform::IntfId intf) const;

 private:
  void onEntity(platform::Entity& entity, platform::Change change) override;
  const std::vector<platform::Ref<platform::Arp::VrfInput>>& inputs() const;

  platform::Tree& tree_;
  const Changed changed_;
  mutable std::vector<platform::Ref<platform::Arp::VrfInput>> inputs_;  // by their agents' names
  mutable bool isSorted_ = false;
  std::unordered_set<const platform::Entity*> told_;
};

}  // namespace ryx::feeds
