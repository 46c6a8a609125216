// The simulated switch's BFD sessions. A session that an application asks for is there; it is up
// while its interface, if it has one, is there and up, and down else.
//
//   bfd-peer IP VRF INTF|- STATE    a session to that peer is held in a state, whatever its
//                                   interface does: down, init, up, admin-down, other (none of
//                                   those); "auto": no more
#pragma once

#include <string>
#include <unordered_map>

#include "platform/model/bfd.h"
#include "platform/qel/reactor.h"

namespace ryx::sim {

class Bfd final : private platform::JournalReactor {
 public:
  // `tree` outlives it.
  explicit Bfd(platform::Tree& tree);

  // Of whatever type the session is. Empty, or what is wrong.
  [[nodiscard]] std::string hold(platform::Bfd::PeerKey peer, const std::string& state);

 private:
  void onEntity(platform::Entity& entity, platform::Change change) override;
  // It came, went, or has another status.
  void interfaceChanged(platform::IntfId intf);
  void look(const platform::Bfd::PeerKey& key);

  platform::Tree& tree_;
  platform::Bfd::StatusPeer& status_;
  template <class V>
  using ByPeer = std::unordered_map<platform::Bfd::PeerKey, V, platform::Bfd::PeerKeyHash>;
  ByPeer<int> askers_;                     // how many ask for it
  ByPeer<platform::Bfd::PeerState> held_;  // of the type `normal`, for all types
};

}  // namespace ryx::sim
