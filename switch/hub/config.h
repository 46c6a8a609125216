// What the server is told: its configuration file (TOML) and its command line. Every mistake is
// told with its file, its line, and what was expected there.
//
//   socket = "/run/ryx/ryx/statehub"       # where agents connect
//   state = "/var/lib/ryx/ryx"             # the folder of what outlives the server
//   services = ["linux"]                   # each a process; also "sim" and "sim:SCENARIO"
//
//   [access]
//   operators = ["alice", "@netops"]       # users, and groups behind an @, for the command ryx
//   [access.agents]                        # who may connect as which agent; "*": as any
//   watcher = ["bob"]
//   "*" = ["@agents"]
//
//   [tcp]                                  # besides; on the loopback interface alone
//   port = 2222
//   peers = ["127.0.0.1"]                  # required
//   agents = ["watcher"]                   # as whom those may connect
//
//   [limits]                               # of one participant
//   entities = 16000000
//   bytes = 4294967296
//   mounts = 4096
//
//   [agents]
//   stop-seconds = 10                      # for a disabled agent to clean up, before SIGTERM
//   kill-seconds = 5                       # from SIGTERM to SIGKILL
//
// root and the server's own user may do everything.
#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <string_view>
#include <vector>

#include "platform/statehub/hub.h"

namespace ryx::hub {

struct Config {
  std::string socket;
  std::string state;
  std::vector<std::string> services;
  std::vector<std::string> operators;
  std::map<std::string, std::vector<std::string>> agents;  // users and groups by the agent's name
  uint16_t port = 0;                                       // 0: no TCP
  std::vector<std::string> peers;
  std::vector<std::string> peerAgents;
  platform::HubLimits limits;
  double stopSeconds = 10;
  double killSeconds = 5;

  // Adds what the text says. Empty: done; else lines of "NAME:LINE: what is wrong; expected ...".
  [[nodiscard]] std::string take(std::string_view text, const std::string& name);
};

// What is wrong with a service as it is named; empty: nothing.
[[nodiscard]] std::string faultOfService(std::string_view service);
// The name in front of its colon.
std::string nameOfService(std::string_view service);

}  // namespace ryx::hub
