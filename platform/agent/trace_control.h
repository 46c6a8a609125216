// What a participant traces, steered from outside while it runs: it follows the setting under its
// name in "daemon/trace", which counts besides the one of its environment.
#pragma once

#include <memory>
#include <string>

#include "platform/statehub/entity_manager.h"

namespace ryx::platform {

class RYX_PRIVATE TraceControl {
 public:
  // Of that connection, which outlives it.
  TraceControl(EntityManager& em, std::string name);
  ~TraceControl();

 private:
  class Follower;

  EntityManager& em_;
  const std::string name_;
  std::unique_ptr<MountGroup> group_;
  std::unique_ptr<Follower> follower_;
};

}  // namespace ryx::platform
