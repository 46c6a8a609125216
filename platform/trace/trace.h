// Trace facilities: named, levelled diagnostic output that costs one load and one branch when it is
// off. A facility is created on first use of its name and lives for the life of the process, so a
// reference to one never dangles. Levels run from 0 (most important) to 9.
//
// What is on is set from outside with RYX_TRACE, for example "RyxSdkIp/8,RyxSdk*/0-3": facility
// globs as of fnmatch(3), each with one level or a range of levels; a facility has the levels of
// all the globs that match it. setTraceFromText() and enabledIs() change it while the process runs.
//
// A line is written by one write(2), when it is emitted, to standard error or to the end of the
// file that RYX_TRACE_FILE names:
//
//   2026-01-31T12:00:00.123456Z agent[4711] RyxSdkIp/8 ip.cpp:42 bool ryx::f(int): text
//
// Control characters in it are escaped, so that a line is a line whatever was traced. A malformed
// RYX_TRACE, or a file that cannot be opened, ends the process with status 2 when the library
// loads. Safe to call from any thread.
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

  // The facility of that name, created with what the trace setting says for it.
  static TraceFacility& named(std::string_view name);

  // How many lines could not be written, in this process.
  static uint64_t linesLost();

  const std::string& name() const { return name_; }

  // One relaxed load and a bit test: what a disabled trace statement costs.
  bool enabled(int level) const {
    return (effective_.load(std::memory_order_relaxed) >> level) & 1u;
  }

  // What enabled() tests, a bit a level, for a front end that does the test inline.
  const std::atomic<uint16_t>& effectiveLevels() const { return effective_; }

  // Enabling a level also enables the facility as a whole; disabling one leaves the facility flag.
  void enabledIs(int level, bool on);

  // Disabling the facility as a whole keeps its levels for when it is enabled again.
  void facilityEnabledIs(bool on);

  // Writes one line. A null file or function is written as "-". Leaves errno as it is.
  void emit(int level, const char* file, int line, const char* function,
            std::string_view text) const;

 private:
  friend class TraceRegistry;

  TraceFacility(std::string_view name, uint16_t levels);
  void refresh();

  std::string name_;
  std::atomic<uint16_t> effective_;  // the levels that are on, 0 while the facility is off
  uint16_t levels_;                  // what follows is the registry's lock's
  bool on_;
};

// Replaces the trace setting, for the facilities that exist and those to come; what enabledIs() did
// is gone. The text is one for RYX_TRACE. Returns an empty text, or what is wrong with the setting,
// of which then nothing is taken.
[[nodiscard]] RYX_PRIVATE std::string setTraceFromText(std::string_view text);

}  // namespace ryx::platform

// RYX_TRACE(facility, 7, "Watching fd " << fd): formats only when the level is on.
#define RYX_TRACE(facility, level, expression)                                             \
  do {                                                                                     \
    if ((facility).enabled(level)) [[unlikely]] {                                          \
      std::ostringstream ryxTraceText;                                                     \
      ryxTraceText << expression;                                                          \
      (facility).emit(level, __FILE__, __LINE__, __PRETTY_FUNCTION__, ryxTraceText.str()); \
    }                                                                                      \
  } while (false)

// The entry trace of an operation: its own signature and arguments.
#define RYX_TRACE_ENTRY(facility, level, expression) \
  RYX_TRACE(facility, level, __PRETTY_FUNCTION__ << expression)
