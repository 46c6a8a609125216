// Tells of the hub's connections, "statehub/client", looked at once a second and when one comes or
// goes; and notices those whose heartbeat stays out.
#pragma once

#include <functional>
#include <set>
#include <string>

#include "platform/activity/timer.h"
#include "platform/statehub/hub.h"

namespace ryx::hub {

class Clients final : private platform::Timer {
 public:
  static constexpr double kLookSeconds = 1;
  // The same after one came or went, so that many who come at once are one look.
  static constexpr double kSoonSeconds = 0.002;
  // A participant from which nothing came for so many of its periods is silent.
  static constexpr double kSilentPeriods = 3;

  // `silent` is called once each time that an agent falls silent.
  Clients(platform::Hub& hub, std::function<void(const std::string& agent)> silent);
  ~Clients() override { hub_.onParticipantsIs(nullptr); }
  void look();

 private:
  void onTimer() override { look(); }

  platform::Hub& hub_;
  const std::function<void(const std::string&)> silent_;
  std::set<uint64_t> told_;
  double lastLook_ = 0;
  double backAt_ = 0;  // when this process ran again after it had not
};

}  // namespace ryx::hub
