// Files as the server needs them. Errors are texts of strerror(3); empty: done.
#pragma once

#include <sys/types.h>

#include <string>
#include <string_view>

namespace ryx::hub {

// The folder and those above it, as far as they are missing; the mode is the last one's.
[[nodiscard]] std::string makeFolder(const std::string& path, mode_t mode);
// 0, or an errno.
[[nodiscard]] int readFile(const std::string& path, std::string* bytes);
// Whoever reads the path, at whatever moment, finds all of the old bytes or all of the new ones.
[[nodiscard]] std::string replaceFile(const std::string& path, std::string_view bytes, mode_t mode);

}  // namespace ryx::hub
