#include "platform/statehub/authority.h"

#include <vector>

#include "platform/model/wellknown.h"

namespace ryx::platform {
namespace {

std::string_view nameOf(const Entity& e) {
  const TypeInfo& type = e.type();
  if (type.keyKind != &kindOf<Name>() &&
      (!type.keyKind || std::string_view(type.keyKind->name) != "text"))
    return {};
  return static_cast<const Name*>(e.keyData())->view();
}

}  // namespace

Writer::Admission judgeWrite(std::string_view agentName, const Entity& entity,
                             const Entity* parent) {
  using A = Writer::Admission;
  if (agentName.empty()) return A::all;

  // The names from the root down, as far as there are names: "a/b/own/...".
  std::vector<std::string_view> names;
  if (entity.type().keyKind) names.push_back(nameOf(entity));
  for (const Entity* e = parent; e && e->parent(); e = e->parent()) names.push_back(nameOf(*e));
  std::string path;
  for (size_t i = names.size(); i-- > 0;) {
    if (!path.empty()) path += '/';
    path += names[i];
  }
  const WellKnown* place = wellKnownAbove(path);
  if (!place) return A::refused;
  if (place->access == Access::shared) return A::all;
  if (place->access == Access::service) return A::refused;

  std::string_view rest = std::string_view(path).substr(place->path.size());
  for (unsigned depth = 0; depth < place->ownDepth; ++depth) {
    if (rest.empty()) return A::refused;  // the directory level is not the agent's
    rest.remove_prefix(1);
    size_t end = rest.find('/');
    std::string_view step = rest.substr(0, end);
    rest = end == std::string_view::npos ? std::string_view() : rest.substr(end);
    if (depth + 1 < place->ownDepth) continue;
    constexpr std::string_view kPrefix = "RyxSdk-";
    bool own = step == agentName ||
               (step.starts_with(kPrefix) && step.substr(kPrefix.size()) == agentName);
    return own ? A::thisOne : A::refused;
  }
  return A::refused;
}

}  // namespace ryx::platform
