// The tracer of agents: a thin front of the platform's trace facilities.
#define RYX_TRACER_OUT_OF_LINE  // defines the functions that the header may inline
#include "ryx/tracing.h"

#include <cstdio>
#include <string>

#include "platform/trace/trace.h"
#include "ryx/panic.h"

namespace ryx {

namespace {

platform::TraceFacility& platformFacility(void* handle) {
  return *static_cast<platform::TraceFacility*>(handle);
}

}  // namespace

tracer::tracer(const char* facility_name) {
  auto& found = platform::TraceFacility::named(facility_name == nullptr ? "" : facility_name);
  facility_ = &found;
  levels_ = &found.effectiveLevels();
}

// The facility stays for other tracers of its name.
tracer::~tracer() = default;

void tracer::enabled_is(trace_level level, bool enabled) {
  if (level < TRACE0 || level > TRACE9) panic(invalid_range_error("level", TRACE0, TRACE9));
  platformFacility(facility_).enabledIs(level, enabled);
}

void tracer::vtrace(trace_level level, const char* format, va_list args) const {
  if (!enabled(level)) return;
  va_list again;
  va_copy(again, args);
  int length = std::vsnprintf(nullptr, 0, format, again);
  va_end(again);
  if (length < 0) return;
  std::string text(static_cast<size_t>(length), '\0');
  if (std::vsnprintf(text.data(), text.size() + 1, format, args) != length) return;
  platformFacility(facility_).emit(level, nullptr, 0, nullptr, text);
}

void tracer::trace(trace_level level, const char* format, ...) const {
  if (!enabled(level)) return;
  va_list args;
  va_start(args, format);
  vtrace(level, format, args);
  va_end(args);
}

#define RYX_TRACER_LEVEL(n)                              \
  void tracer::trace##n(const char* format, ...) const { \
    if (!enabled(TRACE##n)) return;                      \
    va_list args;                                        \
    va_start(args, format);                              \
    vtrace(TRACE##n, format, args);                      \
    va_end(args);                                        \
  }
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

}  // namespace ryx
