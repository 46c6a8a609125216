#include "switch/sim/bfd.h"

#include <map>

#include "platform/model/interface.h"
#include "switch/base/interfaces.h"

namespace ryx::sim {

using namespace platform;
using platform::Bfd::PeerKey;
using platform::Bfd::PeerState;
using platform::Bfd::PeerType;
using platform::Bfd::StatusPeer;

namespace {

PeerKey ofAnyType(PeerKey key) {
  key.type = PeerType::normal;
  return key;
}

}  // namespace

Bfd::Bfd(Tree& tree)
    : tree_(tree),
      status_(*tree.make<StatusPeer>("bfd/status/peer")),
      requests_(tree, [this](const PeerKey& key) { look(key); }) {}

std::string Bfd::hold(PeerKey peer, const std::string& state) {
  static const std::map<std::string, PeerState> kStates = {{"down", PeerState::down},
                                                           {"init", PeerState::init},
                                                           {"up", PeerState::up},
                                                           {"admin-down", PeerState::adminDown},
                                                           {"other", PeerState::other}};
  const auto at = kStates.find(state);
  if (at == kStates.end() && state != "auto")
    return "the state \"" + state + "\"; expected down, init, up, admin-down, other, or auto";
  if (at == kStates.end())
    held_.erase(ofAnyType(peer));
  else
    held_[ofAnyType(peer)] = at->second;
  for (auto type = static_cast<uint8_t>(PeerType::normal);
       type <= static_cast<uint8_t>(PeerType::multihop); ++type) {
    peer.type = static_cast<PeerType>(type);
    look(peer);
  }
  return {};
}

void Bfd::look(const PeerKey& key) {
  if (!requests_.has(key)) {
    status_.peer.erase(key);
    return;
  }
  const auto held = held_.find(ofAnyType(key));
  const auto* intf = key.intf.isEmpty() ? nullptr : feeds::findIntf(tree_, key.intf).status;
  const bool isUp =
      key.intf.isEmpty() ||
      (intf && intf->operStatus() == static_cast<uint8_t>(platform::Interface::OperStatus::up));
  const PeerState state = held != held_.end() ? held->second
                          : isUp              ? PeerState::up
                                              : PeerState::down;
  status_.peer.create(key)->state.set(state);
}

}  // namespace ryx::sim
