// Who may write what: one judge for embedded participants and for the hub's clients. The model says
// whose a place is (model/wellknown.h); a mount's mode grants nothing by itself.
#pragma once

#include <string>
#include <string_view>

#include "platform/qel/journal.h"

namespace ryx::platform {

// `agentName` empty: a service, which may write everything.
RYX_PRIVATE Writer::Admission judgeWrite(std::string_view agentName, const Entity& entity,
                                         const Entity* parent);

}  // namespace ryx::platform
