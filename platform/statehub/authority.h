// Who may write what: one judge for embedded participants, for the hub's clients, and for a client
// that asks what is its own. The model says whose a place is (model/wellknown.h); a mount's mode
// grants nothing by itself.
#pragma once

#include <cstdint>
#include <string_view>

#include "platform/qel/journal.h"
#include "platform/statehub/participant.h"

namespace ryx::platform {

// What an entity is to a participant.
enum class Ownership : uint8_t {
  none,    // not to be written
  shared,  // to be written, by others too
  own,     // to be written by this agent alone
};

// `entity` stands, or is to stand, below `parent`. To a service everything is shared, to an
// operator what is configuration.
RYX_PRIVATE Ownership ownership(const Participant& who, const Entity& entity, const Entity* parent);
RYX_PRIVATE Writer::Admission judgeWrite(const Participant& who, const Entity& entity,
                                         const Entity* parent);
// A well-known place, or a directory above one: nobody takes it away.
RYX_PRIVATE bool standsForGood(const Entity& entity);
// Whether what the model marks secret there is for this one's eyes: its owner's, and those of the
// services that the model names.
RYX_PRIVATE bool maySeeSecrets(const Participant& who, const Entity& entity, const Entity* parent);

// The same for one participant, asked again and again for siblings: remembers the last answer that
// held for all children of one parent.
class RYX_PRIVATE OwnershipCache {
 public:
  Ownership of(const Participant& who, const Entity& entity, Entity* parent);

 private:
  Ref<Entity> parent_;
  Ownership answer_ = Ownership::none;
};

}  // namespace ryx::platform
