// How the API runs the loop: at the top of the program, or inside a callback.
#pragma once

#include <limits>
#include <utility>
#include <vector>

#include "lib/api_lock.h"
#include "platform/activity/lock.h"
#include "platform/statehub/entity_manager.h"

namespace ryx {

// How far the times of the public API are ahead of the platform's clock, so that no time looks like
// a duration.
inline constexpr double kTimeOffset = 1e6;

// While the loop runs for a caller, what the caller's thread was doing counts for nothing: its
// scopes of the API's lock are no one's, and what others write is not the agent's writing. Holds
// the activity lock, which the loop lets go of.
class LoopScope {
 public:
  LoopScope();
  ~LoopScope();
  LoopScope(const LoopScope&) = delete;
  LoopScope& operator=(const LoopScope&) = delete;

 private:
  const platform::ActivityLockGuard lock_;
  const OpenLockScopes scopes_;
  std::vector<std::pair<platform::StoreClock*, platform::Writer*>> writers_;
};

// Runs the loop for that many seconds, 0 or more.
void runLoop(double seconds);

// Runs the loop until nothing that was written over the connection is unsent, for at most
// `seconds`; a signal ends it too. True when all is sent.
bool flushOutput(platform::EntityManager& em,
                 double seconds = std::numeric_limits<double>::infinity());

}  // namespace ryx
