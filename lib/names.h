// The characters of agent names.
#pragma once

namespace ryx {

// ASCII letters, digits, '-' and '_', whatever the locale is.
constexpr bool isNameCharacter(char c) {
  return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '-' ||
         c == '_';
}

}  // namespace ryx
