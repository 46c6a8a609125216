// State as an operator names and reads it: paths into it, attributes as text, and back.
#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "platform/qel/dir.h"

namespace ryx::operators {

// A value as text: that of JSON, and texts without their quotes; control characters are escaped.
std::string valueText(const platform::Kind& kind, const void* value);
std::string keyText(const platform::Entity& e);

// What stands at a path as Entity::path() prints it. Null where nothing does: then `deepest` is the
// last entity on the way.
platform::Entity* findPath(platform::Tree& tree, std::string_view path, platform::Entity** deepest);

// The attributes of an entity that may be shown, as name and text.
struct Shown {
  std::string name;
  std::string text;
  bool isDefault;
};
std::vector<Shown> attributesOf(const platform::Entity& e);

// Sets an attribute to what the text says, in an entity that stands in no tree. Empty, or what is
// wrong and what was expected.
[[nodiscard]] std::string setFromText(platform::Entity& e, std::string_view attribute,
                                      std::string_view text);

}  // namespace ryx::operators
