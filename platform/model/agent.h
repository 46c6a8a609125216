// What the switch knows of each agent: configuration (the operator's) under "daemon/agent/config",
// status (the agent's own) under "daemon/agent/status", both by the agent's name.
#pragma once

#include <string>

#include "platform/qel/dir.h"

namespace ryx::platform::GenericAgent {

struct Config : EntityType<Config> {
  static constexpr const char* kTypeName = "GenericAgent::Config";
  Key<Name> key;
  Attr<"enabled", bool, kPersistent> enabled;
  Table<"option", std::string, std::string, kPersistent> option;
};

struct Status : EntityType<Status> {
  static constexpr const char* kTypeName = "GenericAgent::Status";
  Key<Name> key;
  Attr<"running", bool> running;
  Table<"data", std::string, std::string> data;
};

// Bounds of both tables' keys and values, in bytes.
inline constexpr size_t kMaxKeyLength = 1024;
inline constexpr size_t kMaxValueLength = 10240;

}  // namespace ryx::platform::GenericAgent
