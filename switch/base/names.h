// Names of users and agents, as the switch's programs take and print them.
#pragma once

#include <cstdint>
#include <string>

namespace ryx {

// The user's name, its number where it has none, "unknown" for a number below 0.
std::string userName(int64_t uid);

// What is wrong with the name of an agent that the server runs or lets in; empty: nothing.
[[nodiscard]] std::string faultOfAgentName(const std::string& name);

}  // namespace ryx
