// Timers: a call at a time of the platform's clock. A timer fires once and is then disarmed; its
// callback may arm it again, destroy it or destroy others.
//
// 100,000 armed timers are normal. Arming costs no system call; moving an armed timer to a later
// time, and disarming it, are a few stores (see timer_heap.h). Timers of one time fire in the order
// in which they were armed. A timer armed in a callback for a time that is past fires in a later
// turn of the loop. Everything here is called with the activity lock held.
#pragma once

#include <cstdint>
#include <limits>

#include "platform/base/api.h"

namespace ryx::platform {

class RYX_PRIVATE Timer {
 public:
  static constexpr double kNever = std::numeric_limits<double>::infinity();

  // `name` says in traces who held the loop; it outlives the timer.
  explicit Timer(const char* name = "timer") : name_(name) {}
  virtual ~Timer();
  Timer(const Timer&) = delete;
  Timer& operator=(const Timer&) = delete;

  const char* name() const { return name_; }

  // Fires at `time` (seconds of clock().now(); a time that is past means as soon as possible)
  // instead of any time set before. Infinity disarms.
  void armAt(double time);
  void disarm();
  bool armed() const { return wakeUp_ != kNever; }

  // When it fires; infinity when disarmed.
  double wakeUp() const { return wakeUp_; }

  // Called on the loop; the timer is disarmed already.
  virtual void onTimer() = 0;

 private:
  friend class TimerHeap;
  static constexpr uint32_t kOutside = ~0u;

  double wakeUp_ = kNever;
  uint64_t arming_ = 0;         // the number of the last arming: the order of equal times
  uint64_t keyArming_ = 0;      // the arming that its place in the heap stands for
  uint32_t place_ = kOutside;   // its index in the heap
  bool due_ = false;            // taken out of the heap, about to fire
  Timer* dueBefore_ = nullptr;  // the list of due timers
  Timer* dueAfter_ = nullptr;
  const char* name_;
};

}  // namespace ryx::platform
