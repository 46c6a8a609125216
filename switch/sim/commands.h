// Commands that come by the state: "switch/sim/command". Each is done once, and answered in its own
// entity; who made it takes it away.
#pragma once

#include "platform/qel/dir.h"
#include "platform/qel/reactor.h"
#include "switch/sim/sim.h"

namespace ryx::sim {

class Commands final : private platform::JournalReactor {
 public:
  // What the tree has no place for comes in no way.
  Commands(Sim& sim, platform::Tree& tree);

 private:
  void onEntity(platform::Entity& entity, platform::Change change) override;

  Sim& sim_;
};

}  // namespace ryx::sim
