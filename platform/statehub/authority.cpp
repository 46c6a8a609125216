#include "platform/statehub/authority.h"

#include <algorithm>
#include <string>
#include <vector>

#include "platform/model/wellknown.h"

namespace ryx::platform {
namespace {

std::string_view nameOf(const Entity& e) {
  const TypeInfo& type = e.type();
  if (type.keyKind != &kindOf<Name>() &&
      (!type.keyKind || std::string_view(type.keyKind->name) != "name"))
    return {};
  return static_cast<const Name*>(e.keyData())->view();
}

// Names below the root: how deep an entity stands.
size_t depthOf(const Entity& e) {
  size_t depth = 0;
  for (const Entity* at = &e; at->parent(); at = at->parent()) ++depth;
  return depth;
}
size_t depthOf(std::string_view path) {
  return static_cast<size_t>(std::count(path.begin(), path.end(), '/')) + 1;
}

// The place that the names from the root lead into, and the name at an agent's own level, if they
// reach it.
const WellKnown* placeOf(const Entity& entity, const Entity* parent, std::string_view* ownName) {
  std::vector<std::string_view> names;
  if (entity.type().keyKind) names.push_back(nameOf(entity));
  for (const Entity* e = parent; e && e->parent(); e = e->parent()) names.push_back(nameOf(*e));
  std::string path;
  for (size_t i = names.size(); i-- > 0;) {
    if (!path.empty()) path += '/';
    path += names[i];
  }
  const WellKnown* place = wellKnownAbove(path);
  size_t level = place ? depthOf(place->path) + place->ownDepth : 0;
  *ownName = place && level <= names.size() ? names[names.size() - level] : std::string_view();
  return place;
}

}  // namespace

Ownership ownership(const Participant& who, const Entity& entity, const Entity* parent) {
  if (who.role == Role::service) return Ownership::shared;
  std::string_view name;
  const WellKnown* place = placeOf(entity, parent, &name);
  if (!place || place->access == Access::service) return Ownership::none;
  if (place->access == Access::shared || who.role == Role::operators) return Ownership::shared;
  if (place->access == Access::operators) return Ownership::none;
  const std::string_view agentName = who.name;
  constexpr std::string_view kPrefix = "RyxSdk-";
  // The agent's configuration and status stand under the last part of a name with dashes.
  std::string_view lastPart = agentName.substr(agentName.rfind('-') + 1);
  bool own =
      name == lastPart || (name.starts_with(kPrefix) && name.substr(kPrefix.size()) == agentName);
  return own ? Ownership::own : Ownership::none;
}

Writer::Admission judgeWrite(const Participant& who, const Entity& entity, const Entity* parent) {
  using A = Writer::Admission;
  Ownership o = ownership(who, entity, parent);
  if (o != Ownership::own) return o == Ownership::none ? A::refused : A::all;
  // In a journal that lies in its own entity everything is the agent's.
  std::string_view name;
  const WellKnown* place = placeOf(entity, parent, &name);
  Journal* journal = parent ? const_cast<Entity*>(parent)->childJournal() : nullptr;
  bool inside = journal && journal->root() &&
                depthOf(*journal->root()) >= depthOf(place->path) + place->ownDepth;
  return inside ? A::all : A::thisOne;
}

bool standsForGood(const Entity& entity) {
  if (entity.type().journalOffset == 0) return false;
  const std::string path = entity.path();
  return std::any_of(wellKnown().begin(), wellKnown().end(), [&](const WellKnown& place) {
    return ("/" + std::string(place.path) + "/").starts_with(path + "/");
  });
}

bool maySeeSecrets(const Participant& who, const Entity& entity, const Entity* parent) {
  std::string_view name;
  const WellKnown* place = placeOf(entity, parent, &name);
  if (who.role == Role::service) return place && place->secretsTo == who.name && !who.name.empty();
  return ownership(who, entity, parent) == Ownership::own;
}

Ownership OwnershipCache::of(const Participant& who, const Entity& entity, Entity* parent) {
  if (parent && parent_.get() == parent) return answer_;
  Ownership o = ownership(who, entity, parent);
  if (parent && !parent->as<Dir>()) {  // below a directory the name decides, elsewhere the parent
    parent_ = Ref<Entity>(parent);
    answer_ = o;
  }
  return o;
}

}  // namespace ryx::platform
