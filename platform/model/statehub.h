// What the hub tells of its own connections, "statehub/client", by their numbers; and of the Mirra
// tables that are offered, "statehub/table", by their incarnations.
#pragma once

#include <string>
#include <vector>

#include "platform/qel/dir.h"

namespace ryx::platform::Statehub {

struct Client : EntityType<Client> {
  static constexpr const char* kTypeName = "Statehub::Client";
  Key<Name> key;  // the number in decimal, in the order of coming
  Attr<"role", std::string> role;
  Attr<"name", std::string> name;
  Attr<"pid", uint32_t> pid;  // 0: unknown
  Attr<"user", std::string> user;
  Attr<"mount", std::vector<std::string>> mount;
  Attr<"bytesSent", uint64_t> bytesSent;  // to it
  Attr<"bytesReceived", uint64_t> bytesReceived;
  Attr<"unsent", uint64_t> unsent;                  // bytes
  Attr<"secondsClogged", uint32_t> secondsClogged;  // in all that its output could not go
  Attr<"refusals", uint64_t> refusals;              // of its writes
  Attr<"pastLimits", uint64_t> pastLimits;          // and of those, and of mounts, past its limits
  Attr<"silent", bool> silent;                      // its heartbeat stays out
};

struct Table : EntityType<Table> {
  static constexpr const char* kTypeName = "Statehub::Table";
  Key<Name> key;  // the incarnation in hexadecimal
  Attr<"name", std::string> name;
  Attr<"type", std::string> type;
  Attr<"writer", std::string> writer;  // the service that offered it
  Attr<"readers", uint32_t> readers;   // participants that read it
};

}  // namespace ryx::platform::Statehub
