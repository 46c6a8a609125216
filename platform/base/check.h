// Assertions that are always on: for faults of our own, and for the start-up conditions that the SDK
// makes fatal. A failed check writes its text, file and line to standard error and aborts.
#pragma once

#include <source_location>

#include "platform/base/api.h"

namespace ryx::platform {

[[noreturn]] RYX_PRIVATE void checkFailed(
    const char* message, const std::source_location& where = std::source_location::current());

inline void check(bool ok, const char* message,
                  const std::source_location& where = std::source_location::current()) {
  if (!ok) [[unlikely]]
    checkFailed(message, where);
}

}  // namespace ryx::platform
