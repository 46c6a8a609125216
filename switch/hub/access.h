// Who may come in, and as whom: by the user at the other end of the socket, and by what the server
// started itself.
#pragma once

#include <functional>
#include <string>

#include "platform/statehub/hub.h"
#include "switch/hub/config.h"

namespace ryx::hub {

class Access final : public platform::Doorkeeper {
 public:
  // Of that configuration, which outlives it.
  explicit Access(const Config& config) : config_(config) {}

  // Who tells whether a process is the one that the server runs as that agent.
  void ownProcessIs(std::function<bool(std::string_view agent, int64_t pid)> isOwn) {
    isOwn_ = std::move(isOwn);
  }
  std::string turnsAway(const platform::Participant& who, const platform::HubPeer& peer) override;

 private:
  std::string turnsAwayAgent(std::string_view name, const platform::HubPeer& peer) const;

  const Config& config_;
  std::function<bool(std::string_view, int64_t)> isOwn_;
};

}  // namespace ryx::hub
