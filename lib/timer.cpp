// Time, and the timers of handlers over those of the platform.
#include "ryx/timer.h"

#include "lib/context.h"
#include "lib/loop.h"
#include "platform/activity/timer.h"
#include "platform/base/clock.h"
#include "platform/trace/trace.h"
#include "ryx/panic.h"
#include "ryx/sdk.h"
#include "ryx/sdk_scoped_lock.h"

namespace ryx {

namespace {

platform::TraceFacility& trace() {
  static auto& facility = platform::TraceFacility::named("RyxSdkTimer");
  return facility;
}

}  // namespace

// TimerTaskSm: the timer of one handler, which owns it.
class timer_task final : public platform::Timer {
 public:
  explicit timer_task(timeout_handler& handler) : Timer("timeout_handler"), handler_(handler) {}

 private:
  void onTimer() override {
    const sdk_scoped_lock lock;
    RYX_TRACE(trace(), 8, __func__);
    handler_.on_timeout();
  }

  timeout_handler& handler_;
};

double now() {
  return platform::clock().now() + kTimeOffset;
}

timeout_mgr::timeout_mgr() = default;
timeout_mgr::~timeout_mgr() = default;

void timeout_mgr::init_handler(timeout_handler* handler) {
  const sdk_scoped_lock lock;
  if (handler->timer_ == nullptr) handler->timer_ = new timer_task(*handler);
}

timeout_handler::timeout_handler(timeout_mgr* mgr) : base_handler(mgr) {}

timeout_handler::~timeout_handler() {
  const sdk_scoped_lock lock;
  delete timer_;
}

void timeout_handler::on_timeout() {}

void timeout_handler::timeout_time_is(double t) {
  const sdk_scoped_lock lock;
  if (mgr_ != nullptr) mgr_->init_handler(this);
  if (timer_ == nullptr) return;
  if (t == never) return timer_->disarm();
  if (!(t >= kTimeOffset)) panic("absolute time value %lf too small to be plausible", t);
  timer_->armAt(t - kTimeOffset);
}

void sdk::init_timeout_mgr() {
  if (timeout_mgr_ == nullptr) context_->own(timeout_mgr_, std::make_unique<timeout_mgr>());
}
timeout_mgr* sdk::get_timeout_mgr() {
  return get(timeout_mgr_, &sdk::init_timeout_mgr, {});
}

}  // namespace ryx
