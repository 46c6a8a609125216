// Commands to the simulated switch: "switch/sim/command", one entity each, which the simulation
// answers and whoever made it takes away.
#pragma once

#include <string>

#include "platform/qel/dir.h"

namespace ryx::platform::Sim {

struct Command : EntityType<Command> {
  static constexpr const char* kTypeName = "Sim::Command";
  Key<Name> key;
  Attr<"line", std::string> line;
  Attr<"done", bool> done;
  Attr<"error", std::string> error;  // what was wrong, once it is done
};

}  // namespace ryx::platform::Sim
