// Trace output of agents: named facilities with ten levels each, printf-style lines, and almost no
// cost while they are off. The SDK traces under facilities of its own ("RyxSdkIpRoute", ...), which
// are switched on in the same ways.
//
//   ryx::tracer t("MyAgent");
//   t.trace3("peer %s is %s", name, up ? "up" : "down");
//
// From outside, the environment variable RYX_TRACE says what is on, read when the library loads: a
// comma-separated list of FACILITY/LEVEL or FACILITY/LOW-HIGH, where FACILITY is a glob as of
// fnmatch(3), for example "MyAgent/3,RyxSdk*/0-4". Lines go to standard error, or to the end of the
// file that RYX_TRACE_FILE names. A setting that cannot be understood ends the process with status
// 2 and a message that says what was expected.
#ifndef RYX_TRACING_H
#define RYX_TRACING_H

#include <ryx/api.h>

#include <atomic>
#include <cstdarg>
#include <cstdint>

namespace ryx {

/// How important a trace is, from 0, the most important, to 9.
enum trace_level {
  TRACE0 = 0,
  TRACE1 = 1,
  TRACE2 = 2,
  TRACE3 = 3,
  TRACE4 = 4,
  TRACE5 = 5,
  TRACE6 = 6,
  TRACE7 = 7,
  TRACE8 = 8,
  TRACE9 = 9,
};

/// Writes traces of one facility. Tracers of one name share their facility, and so its levels.
///
/// Any thread may use any operation. Formats follow printf(3); a text may hold anything, control
/// characters in it are escaped so that it stays one line.
class RYX_API tracer {
 public:
  /// Binds to the facility of that name, which is created if needed. Null counts as the empty name.
  explicit tracer(const char* facility_name);
  tracer(const tracer&) = delete;
  tracer& operator=(const tracer&) = delete;
  ~tracer();

  /// False when the facility is off as a whole; otherwise whether the level is on.
  bool enabled(trace_level level) const {
    return level >= TRACE0 && level <= TRACE9 &&
           ((levels_->load(std::memory_order_relaxed) >> level) & 1U) != 0;
  }

  /// Enabling a level also enables the facility as a whole; disabling a level leaves the facility
  /// as it is. Raises an invalid_range_error for what is no level.
  void enabled_is(trace_level level, bool enabled);

  /// Writes one line when the level is on; otherwise nothing is formatted. Nothing is written when
  /// the format fails.
  void trace(trace_level level, const char* format, ...) const
      __attribute__((format(printf, 3, 4)));
  void vtrace(trace_level level, const char* format, va_list args) const
      __attribute__((format(printf, 3, 0)));

// A call of a variadic function costs more than the test of a level. Where the compiler can pass
// the arguments on, the test is inlined in front of the call.
#if defined(__GNUC__) && !defined(__clang__) && !defined(RYX_TRACER_OUT_OF_LINE)
#define RYX_TRACER_LEVEL(n)                                                                   \
  __attribute__((gnu_inline, always_inline, artificial,                                       \
                 format(printf, 2, 3))) inline void trace##n(const char* format, ...) const { \
    if (__builtin_expect(enabled(TRACE##n), false))                                           \
      trace(TRACE##n, format, __builtin_va_arg_pack());                                       \
  }
#else
#define RYX_TRACER_LEVEL(n) \
  void trace##n(const char* format, ...) const __attribute__((format(printf, 2, 3)));
#endif
  /// trace0() to trace9(): trace() at the level of their name.
  RYX_TRACER_LEVEL(0)
  RYX_TRACER_LEVEL(1)
  RYX_TRACER_LEVEL(2)
  RYX_TRACER_LEVEL(3)
  RYX_TRACER_LEVEL(4)
  RYX_TRACER_LEVEL(5)
  RYX_TRACER_LEVEL(6)
  RYX_TRACER_LEVEL(7)
  RYX_TRACER_LEVEL(8)
  RYX_TRACER_LEVEL(9)
#undef RYX_TRACER_LEVEL

 private:
  void* facility_;                       // the platform's
  const std::atomic<uint16_t>* levels_;  // the facility's, a bit a level; 0 while it is off
};

}  // namespace ryx

#endif  // RYX_TRACING_H
