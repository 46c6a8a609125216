// The one source of time. Everything that needs the time, the loop and its timers first of all,
// asks clock(): seconds as a double, monotonic, from an arbitrary start. Tests install a
// VirtualClock, on which the loop never sleeps: where it would wait it moves the time instead, so
// that a 600-second time-out is tested in microseconds.
//
// now() may be called from any thread. A clock is installed and removed while no loop runs.
#pragma once

#include <atomic>

#include "platform/base/api.h"

namespace ryx::platform {

class RYX_PRIVATE Clock {
 public:
  static constexpr double kCoarseLag = 0.01;

  virtual ~Clock();

  // Monotonic time in seconds.
  virtual double now() const = 0;

  // As now(), cheaper, and late by up to kCoarseLag.
  virtual double coarseNow() const = 0;

  // Moves the time to `time` (never back) and returns true, or returns false: a clock that only
  // passes by itself, whose caller has to wait.
  virtual bool skipTo(double time) = 0;

  // Whether skipTo() works.
  virtual bool isVirtual() const = 0;
};

// The clock that is installed: the system's monotonic clock unless a test put its own there.
RYX_PRIVATE Clock& clock();

// A clock that stands still until it is told to move. It is the process's clock from its
// construction to its destruction.
class RYX_PRIVATE VirtualClock final : public Clock {
 public:
  explicit VirtualClock(double start = 1000.0);
  ~VirtualClock() override;
  VirtualClock(const VirtualClock&) = delete;
  VirtualClock& operator=(const VirtualClock&) = delete;

  double now() const override { return time_.load(std::memory_order_relaxed); }
  double coarseNow() const override { return now(); }
  bool skipTo(double time) override;
  bool isVirtual() const override { return true; }

  // Lets `seconds`, 0 or more, pass.
  void advance(double seconds) { skipTo(now() + seconds); }

 private:
  std::atomic<double> time_;
  Clock* before_;
};

}  // namespace ryx::platform
