// The BFD sessions that applications ask for, and the timers that they are to have. Shared by the
// feeds. Under the activity lock.
#pragma once

#include <functional>
#include <unordered_map>

#include "platform/model/bfd.h"
#include "platform/qel/reactor.h"

namespace ryx::feeds {

template <class V>
using ByBfdPeer = std::unordered_map<platform::Bfd::PeerKey, V, platform::Bfd::PeerKeyHash>;

class BfdRequests final : private platform::JournalReactor {
 public:
  using Changed = std::function<void(const platform::Bfd::PeerKey& peer)>;

  // `tree` outlives it. `changed` is called from the loop for each peer that is asked for now, or
  // no more, and for those that are when their timers change or something happens to their
  // interface: it came, went, or has another status.
  BfdRequests(platform::Tree& tree, Changed changed);

  bool has(const platform::Bfd::PeerKey& peer) const { return askers_.count(peer) != 0; }
  const platform::Bfd::Timers& timersOf(platform::IntfId intf) const;
  // The status of peers that nobody asks for goes: an earlier life of the feed's left it.
  void takeOver();

 private:
  void onEntity(platform::Entity& entity, platform::Change change) override;
  void onRootChanged(platform::Entity&) override;
  template <class Which>
  void tell(Which&& which);

  platform::Tree& tree_;
  platform::Bfd::ConfigIntf& timers_;
  const Changed changed_;
  ByBfdPeer<int> askers_;  // how many ask for it
};

}  // namespace ryx::feeds
