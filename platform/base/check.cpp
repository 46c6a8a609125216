#include "platform/base/check.h"

#include <cstdio>
#include <cstdlib>

namespace ryx::platform {

void checkFailed(const char* message, const SourceLocation& where) {
  std::fprintf(stderr, "%s:%u: %s: Assertion failed: %s\n", where.file, where.line, where.function,
               message);
  std::abort();
}

}  // namespace ryx::platform
