// Who may write what: one judge for embedded participants, for the hub's clients, and for a client
// that asks what is its own. The model says whose a place is (model/wellknown.h); a mount's mode
// grants nothing by itself.
#pragma once

#include <cstdint>
#include <string_view>

#include "platform/qel/journal.h"

namespace ryx::platform {

// What an entity is to an agent.
enum class Ownership : uint8_t {
  none,    // not to be written
  shared,  // to be written, by others too
  own,     // to be written by this agent alone
};

// `entity` stands, or is to stand, below `parent`. `agentName` empty: a service, to which
// everything is shared.
RYX_PRIVATE Ownership ownership(std::string_view agentName, const Entity& entity,
                                const Entity* parent);
RYX_PRIVATE Writer::Admission judgeWrite(std::string_view agentName, const Entity& entity,
                                         const Entity* parent);

// The same for one agent, asked again and again for siblings: remembers the last answer that held
// for all children of one parent.
class RYX_PRIVATE OwnershipCache {
 public:
  Ownership of(std::string_view agentName, const Entity& entity, Entity* parent);

 private:
  Ref<Entity> parent_;
  Ownership answer_ = Ownership::none;
};

}  // namespace ryx::platform
