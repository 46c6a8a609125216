#include "switch/base/names.h"

#include <pwd.h>

#include <algorithm>
#include <cctype>

namespace ryx {

std::string userName(int64_t uid) {
  if (uid < 0) return "unknown";
  const passwd* user = ::getpwuid(static_cast<uid_t>(uid));
  return user ? user->pw_name : std::to_string(uid);
}

std::string faultOfAgentName(const std::string& name) {
  if (name.find('-') != std::string::npos)
    return "expected an agent's name without '-': the part behind it would be taken for the name";
  const bool good = !name.empty() && name.size() <= 32 &&
                    std::all_of(name.begin(), name.end(),
                                [](unsigned char c) { return std::isalnum(c) || c == '_'; });
  return good ? "" : "expected an agent's name: 1 to 32 letters, digits and underscores";
}

}  // namespace ryx
