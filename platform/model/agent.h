// What the switch knows of each agent, by its name: configuration (the operator's) under
// "daemon/agent/config", status (the agent's own) under "daemon/agent/status", and, where the
// server runs it, its process under "daemon/agent/process". And of each service of the switch side.
#pragma once

#include <string>
#include <vector>

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
  // What the server runs as this agent; empty: nothing, whoever starts the agent connects.
  Attr<"exec", std::string, kPersistent> exec;
  Attr<"argument", std::vector<std::string>, kPersistent> argument;
  Attr<"user", std::string, kPersistent> user;  // as whom; empty: as the server itself
  // An agent whose heartbeat stays out is killed, and started again.
  Attr<"restartSilent", bool, kPersistent> restartSilent;
};

struct Status : EntityType<Status> {
  static constexpr const char* kTypeName = "GenericAgent::Status";
  Key<Name> key;
  Attr<"running", bool> running;
  Table<"data", AgentKey, AgentVal> data;
};

// What the server does about a process: an agent's or a service's.
struct Process : EntityType<Process> {
  static constexpr const char* kTypeName = "GenericAgent::Process";
  Key<Name> key;
  Attr<"state", std::string> state;     // running, stopping, waiting, stopped, connected, failed
  Attr<"note", std::string> note;       // why, where there is something to say
  Attr<"restarts", uint32_t> restarts;  // that nobody asked for, since the server started
  // The process, while there is one: its number, and when it started as the kernel counts it. They
  // outlive the server, so that the next one knows its own.
  Attr<"pid", uint32_t, kPersistent> pid;
  Attr<"started", uint64_t, kPersistent> started;
  Attr<"boot", std::string, kPersistent> boot;  // of which start of the machine
};

// A wish that all goes that an agent left: "daemon/agent/purge". Who fulfils it takes it away, or
// says why not.
struct Purge : EntityType<Purge> {
  static constexpr const char* kTypeName = "GenericAgent::Purge";
  Key<Name> key;
  Attr<"refusal", std::string> refusal;
};

// What a participant of that name is to trace, besides its own setting: "daemon/trace".
struct Trace : EntityType<Trace> {
  static constexpr const char* kTypeName = "GenericAgent::Trace";
  Key<Name> key;
  Attr<"setting", std::string> setting;  // as RYX_TRACE
};

// A service that serves: it made this itself, when all that it knows stood in the state.
struct Service : EntityType<Service> {
  static constexpr const char* kTypeName = "GenericAgent::Service";
  Key<Name> key;
  Attr<"pid", uint32_t> pid;
};

}  // namespace ryx::platform::GenericAgent
