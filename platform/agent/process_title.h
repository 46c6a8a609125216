// What the process is called: the title, "PROGRAM-AGENT" or the agent's name alone, by which an
// operator finds the agent. The kernel shows its first 15 bytes as the name of the thread that set
// it. For the main thread.
#pragma once

#include <string>
#include <string_view>

#include "platform/base/api.h"

namespace ryx::platform {

// Empty until it is set.
RYX_PRIVATE const std::string& agentTitle();
RYX_PRIVATE void agentTitleIs(std::string_view title);

}  // namespace ryx::platform
