// The simulated switch's BFD sessions. A session that an application asks for is there; it is up
// while its interface, if it has one, is there and up, and down else.
//
//   bfd-peer IP VRF INTF|- STATE    a session to that peer is held in a state, whatever its
//                                   interface does: down, init, up, admin-down, other (none of
//                                   those); "auto": no more
#pragma once

#include <string>

#include "switch/base/bfd_requests.h"

namespace ryx::sim {

class Bfd {
 public:
  // `tree` outlives it.
  explicit Bfd(platform::Tree& tree);

  void takeOver() { requests_.takeOver(); }

  // Of whatever type the session is. Empty, or what is wrong.
  [[nodiscard]] std::string hold(platform::Bfd::PeerKey peer, const std::string& state);

 private:
  void look(const platform::Bfd::PeerKey& key);

  platform::Tree& tree_;
  platform::Bfd::StatusPeer& status_;
  feeds::BfdRequests requests_;
  feeds::ByBfdPeer<platform::Bfd::PeerState> held_;  // of the type `normal`, for all types
};

}  // namespace ryx::sim
