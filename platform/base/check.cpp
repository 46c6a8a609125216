#include "platform/base/check.h"

#include <cstdio>
#include <cstdlib>

namespace ryx::platform {

void checkFailed(const char* message, const std::source_location& where) {
  std::fprintf(stderr, "%s:%u: %s: Assertion failed: %s\n", where.file_name(),
               static_cast<unsigned>(where.line()), where.function_name(), message);
  std::abort();
}

}  // namespace ryx::platform
