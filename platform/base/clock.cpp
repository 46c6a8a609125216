#include "platform/base/clock.h"

#include <ctime>

namespace ryx::platform {

namespace {

double read(clockid_t id) {
  timespec time;
  clock_gettime(id, &time);
  return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_nsec) * 1e-9;
}

class SystemClock final : public Clock {
 public:
  double now() const override { return read(CLOCK_MONOTONIC); }
  double coarseNow() const override { return read(CLOCK_MONOTONIC_COARSE); }
  bool skipTo(double) override { return false; }
  bool isVirtual() const override { return false; }
};

std::atomic<Clock*> installed{nullptr};

}  // namespace

Clock::~Clock() = default;

Clock& clock() {
  static SystemClock& system = *new SystemClock;
  Clock* current = installed.load(std::memory_order_acquire);
  return current ? *current : system;
}

VirtualClock::VirtualClock(double start)
    : time_(start), before_(installed.exchange(this, std::memory_order_acq_rel)) {}

VirtualClock::~VirtualClock() {
  installed.store(before_, std::memory_order_release);
}

bool VirtualClock::skipTo(double time) {
  double current = now();
  while (current < time && !time_.compare_exchange_weak(current, time)) {
  }
  return true;
}

}  // namespace ryx::platform
