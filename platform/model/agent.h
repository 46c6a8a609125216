// What the switch knows of each agent: configuration (the operator's) under "daemon/agent/config",
// status (the agent's own) under "daemon/agent/status", both by the agent's name.
#pragma once

#include "platform/qel/dir.h"
#include "platform/types/bounded_bytes.h"

namespace ryx::platform::GenericAgent {

struct AgentKeyBound {
  static constexpr size_t kMaxBytes = 1024;
  static constexpr const char* kTooLong = "AgentKey::bytes > AgentKey::maxLength not allowed";
};
using AgentKey = BoundedBytes<AgentKeyBound>;

struct AgentValBound {
  static constexpr size_t kMaxBytes = 10240;
  static constexpr const char* kTooLong = "AgentVal::bytes > AgentVal::maxLength not allowed";
};
using AgentVal = BoundedBytes<AgentValBound>;

struct Config : EntityType<Config> {
  static constexpr const char* kTypeName = "GenericAgent::Config";
  Key<Name> key;
  Attr<"enabled", bool, kPersistent> enabled;
  Table<"option", AgentKey, AgentVal, kPersistent> option;
};

struct Status : EntityType<Status> {
  static constexpr const char* kTypeName = "GenericAgent::Status";
  Key<Name> key;
  Attr<"running", bool> running;
  Table<"data", AgentKey, AgentVal> data;
};

}  // namespace ryx::platform::GenericAgent
