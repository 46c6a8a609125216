// Assertions that are always on: for faults of our own, and for the start-up conditions that the
// SDK makes fatal. A failed check writes its text, file and line to standard error and aborts.
#pragma once

#include "platform/base/api.h"

namespace ryx::platform {

// Where a check stands. The compiler's own functions and not std::source_location, which clang 14
// does not have.
struct SourceLocation {
  const char* file;
  unsigned line;
  const char* function;

  static constexpr SourceLocation current(const char* file = __builtin_FILE(),
                                          unsigned line = __builtin_LINE(),
                                          const char* function = __builtin_FUNCTION()) {
    return {file, line, function};
  }
};

[[noreturn]] RYX_PRIVATE void checkFailed(const char* message,
                                          const SourceLocation& where = SourceLocation::current());

inline void check(bool ok, const char* message,
                  const SourceLocation& where = SourceLocation::current()) {
  if (!ok) [[unlikely]]
    checkFailed(message, where);
}

}  // namespace ryx::platform
