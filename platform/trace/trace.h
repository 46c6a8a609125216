// Trace facilities: named, levelled diagnostic output that costs one load and one branch when it is
// off. A facility is created on first use of its name and lives for the life of the process, so a
// reference to one never dangles. Levels run from 0 (most important) to 9.
//
// What is on is set from outside with RYX_TRACE ("RyxSdkIp/8,RyxSdk*/0-3": facility globs, each with
// a level or a range of levels) and from inside with enabledIs(). Lines go to standard error, or to
// the file that RYX_TRACE_FILE names. Safe to call from any thread.
#pragma once

#include <atomic>
#include <cstdint>
#include <ostream>
#include <sstream>
#include <string>
#include <string_view>

#include "platform/base/api.h"

namespace ryx::platform {

class RYX_PRIVATE TraceFacility {
 public:
  static constexpr int kLevels = 10;

  // The facility of that name, created with what RYX_TRACE says for it.
  static TraceFacility& named(std::string_view name);

  const std::string& name() const { return name_; }

  // One relaxed load and a bit test: what a disabled trace statement costs.
  bool enabled(int level) const {
    return (effective_.load(std::memory_order_relaxed) >> level) & 1u;
  }

  // Enabling a level also enables the facility as a whole; disabling one leaves the facility flag.
  void enabledIs(int level, bool on);

  // Writes one line: time, process, facility, level, file and line, function, text.
  void emit(int level, const char* file, int line, const char* function,
            std::string_view text) const;

 private:
  explicit TraceFacility(std::string_view name) : name_(name) {}
  friend class TraceRegistry;

  std::string name_;
  std::atomic<uint16_t> effective_{0};  // the levels that are on, 0 while the facility is off
  std::atomic<uint16_t> levels_{0};
  std::atomic<bool> on_{false};
};

}  // namespace ryx::platform

// RYX_TRACE(facility, 7, "Watching fd " << fd): formats only when the level is on.
#define RYX_TRACE(facility, level, expression)                                                  \
  do {                                                                                          \
    if ((facility).enabled(level)) [[unlikely]] {                                               \
      std::ostringstream ryxTraceText;                                                          \
      ryxTraceText << expression;                                                               \
      (facility).emit(level, __FILE__, __LINE__, __PRETTY_FUNCTION__, ryxTraceText.str());      \
    }                                                                                           \
  } while (false)

// The entry trace of an operation: its own signature and arguments.
#define RYX_TRACE_ENTRY(facility, level, expression) \
  RYX_TRACE(facility, level, __PRETTY_FUNCTION__ << expression)
