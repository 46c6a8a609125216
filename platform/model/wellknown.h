// The places of Statehub that exist from the start, and who may write there. A mount of one of them
// never waits for somebody to write first.
#pragma once

#include <cstdint>
#include <string_view>
#include <vector>

#include "platform/qel/dir.h"

namespace ryx::platform {

enum class Access : uint8_t {
  service,    // the switch side alone
  operators,  // the switch side and operators
  shared,     // the switch side, operators, agents
  agentOwn,   // each agent what lies in the entity of its own name, the switch side and operators
              // everything
};

// What there outlives the hub: of what the model marks persistent, the values that are no defaults;
// or the entities themselves as well, whatever they hold.
enum class Persists : uint8_t { nothing, values, entities };

struct WellKnown {
  std::string_view path;
  const TypeInfo& (*type)();
  Access access;
  // agentOwn: how many names below the path an agent's own entity stands (its agent name, or
  // "RyxSdk-" and that).
  uint8_t ownDepth = 1;
  // Other agents receive the directory level alone and not this one's entity.
  bool isPrivate = false;
  Persists persists = Persists::nothing;
  // The service that receives what the model marks secret there, besides its owner.
  std::string_view secretsTo = {};
};

RYX_PRIVATE const std::vector<WellKnown>& wellKnown();
// The one that `path` lies in or is, or null.
RYX_PRIVATE const WellKnown* wellKnownAbove(std::string_view path);
// Makes them all, with their defaults.
RYX_PRIVATE void makeWellKnown(Tree& tree);

// Registers every type of the model, so that they can be made by name.
RYX_PRIVATE void registerModel();

}  // namespace ryx::platform
