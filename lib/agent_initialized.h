// What the mount manager and the sdk need of the agent manager's implementation.
#pragma once

#include <string>

namespace ryx {

class agent_mgr;

// All mounts are complete: the handlers' `on_initialized`. Nothing, for an agent_mgr that is not
// the SDK's own.
void agentInitialized(agent_mgr& mgr);

// Raises a configuration_error for a name that nothing can be mounted under.
void checkMountableName(const std::string& name);

}  // namespace ryx
