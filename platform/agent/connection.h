// Where an agent finds its Statehub: inside the process, or at a server.
#pragma once

#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "platform/activity/timer.h"
#include "platform/base/api.h"
#include "platform/statehub/entity_manager.h"

namespace ryx::platform {

struct RYX_PRIVATE ConnectionSettings {
  std::string systemName;  // which switch of this machine; empty: "ryx"
  std::string socketName;  // a Unix socket
  std::string port;        // a TCP port of this machine, in digits
  int descriptor = -1;     // that a server handed over

  // SYSNAME, STATEHUBSOCKNAME and STATEHUBPORT.
  static ConnectionSettings fromEnvironment();

  // Where the server of the system listens: "/run/ryx/NAME/statehub".
  std::string defaultSocketName() const;
};

// A connected socket to the server: the descriptor, else the socket, else the port, else the
// default socket, the first of them that is given. -1, with `why` set, when there is none; `isLate`
// then says that a server may come to be there.
RYX_PRIVATE int connectToServer(const ConnectionSettings& settings, std::string* why,
                                bool* isLate = nullptr);

// The connection, for the agent of that name: the Statehub of this process, with its feed, when
// STATEHUBLOCAL is set; else to the server. When there is none yet, says so and what else could be
// done on standard error, and gives one that waits for it (Reconnection); when there cannot be one,
// exits with status 1.
RYX_PRIVATE std::unique_ptr<EntityManager> connectToStatehub(const ConnectionSettings& settings,
                                                             std::string_view agentName);

// Brings a connection that died back to life: looks for the server again, soon at first and then
// less often, until there is a connection that lasts. What the participant has stays readable
// meanwhile, and what it writes waits. In the place of a descriptor that was handed over comes the
// socket that the settings name beside it. Nothing is done about the Statehub of this process,
// which cannot die. Loss and return are told on standard error, once each.
class RYX_PRIVATE Reconnection final : private Timer {
 public:
  static constexpr double kFirstSeconds = 0.05;
  static constexpr double kLongestSeconds = 2;
  static constexpr double kLastsSeconds = 1;

  using TurnedAway = std::function<void()>;

  // Of that connection, which outlives it; one that has no server yet gets its first one.
  // `turnedAway` is called, once that was told, when a server does not let it in that never did;
  // without it, it is tried again.
  Reconnection(EntityManager& em, const ConnectionSettings& settings, TurnedAway turnedAway = {});

 private:
  enum class State { connected, searching, onTrial };

  void lost();
  void searchLater();
  void tell(const std::string& what) const;
  void search();
  void onTimer() override;

  EntityManager& em_;
  ConnectionSettings settings_;
  const TurnedAway turnedAway_;
  State state_ = State::connected;
  std::string told_;  // the last reason of a server that was told
  double wait_ = kFirstSeconds;
};

// The arguments that a server gives an agent that it started, in the environment: the count
// STATEHUB_SOCKID_ARGC and as many STATEHUB_SOCKID_ARG_<n>. None when there is no count.
RYX_PRIVATE std::vector<std::string> passiveMountArguments();

// The descriptor that "--statehubfd=N" among the arguments names, or -1.
RYX_PRIVATE int passiveMountDescriptor(const std::vector<std::string>& arguments);

}  // namespace ryx::platform
