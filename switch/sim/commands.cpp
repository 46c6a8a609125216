#include "switch/sim/commands.h"

#include "platform/model/sim.h"

namespace ryx::sim {

using namespace platform;

Commands::Commands(Sim& sim, Tree& tree) : JournalReactor("sim commands"), sim_(sim) {
  if (auto* dir = tree.find<Dir>("switch/sim/command")) follow(dir->journal);
}

void Commands::onEntity(Entity& entity, Change change) {
  auto* command = entity.as<platform::Sim::Command>();
  if (!command || change == Change::deleted || command->done() || command->line().empty()) return;
  command->error.set(sim_.command(command->line()));
  command->done.set(true);
}

}  // namespace ryx::sim
