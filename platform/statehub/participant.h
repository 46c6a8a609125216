// Who takes part in a Statehub: an agent, by its name; a service of the switch side; or an
// operator, who looks and steers.
#pragma once

#include <concepts>
#include <cstdint>
#include <string_view>

namespace ryx::platform {

enum class Role : uint8_t { agent = 0, service = 1, operators = 2 };

// "agent", "service" or "operator".
constexpr const char* nameOf(Role role) {
  return role == Role::agent ? "agent" : role == Role::service ? "service" : "operator";
}

struct Participant {
  // An agent of that name; without a name, a service.
  template <class Text>
  requires std::convertible_to<const Text&, std::string_view>
  constexpr Participant(const Text& agent) : name(agent) {
    role = name.empty() ? Role::service : Role::agent;
  }
  constexpr Participant(Role r, std::string_view n) : role(r), name(n) {}

  Role role = Role::agent;
  std::string_view name;  // what it points at outlives it
};

}  // namespace ryx::platform
