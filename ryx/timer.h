// Time, and timers: each timeout_handler has one.
//
//   class retry : public ryx::timeout_handler {
//    public:
//     explicit retry(ryx::sdk& sdk) : timeout_handler(sdk.get_timeout_mgr()) {}
//     void on_timeout() override { timeout_time_is(ryx::now() + 20); }
//   };
#ifndef RYX_TIMER_H
#define RYX_TIMER_H

#include <ryx/api.h>
#include <ryx/base_handler.h>
#include <ryx/base_mgr.h>

namespace ryx {

class timeout_handler;
class timer_task;

/// The present time in seconds: monotonic, from an arbitrary start, and never below 1,000,000, by
/// which a time is told from a duration. Any thread.
RYX_API double now();

/// The time that never comes.
constexpr double never = 0;

/// Obtained from `sdk::get_timeout_mgr()`. It keeps the timers of its handlers.
class RYX_API timeout_mgr : public base_mgr<timeout_handler> {
 public:
  timeout_mgr();
  ~timeout_mgr() override;

  /// Gives the handler its timer, unless it has one.
  void init_handler(timeout_handler* handler);
};

/// One timer and its callback. Timers work from the first run of the loop on, also before the SDK
/// is initialized. Every operation takes the API's lock itself.
class RYX_API timeout_handler : public base_handler<timeout_mgr, timeout_handler> {
 public:
  explicit timeout_handler(timeout_mgr* mgr);
  ~timeout_handler() override;

  /// The time is there. The timer is disarmed by then. Called on the loop's thread with the API's
  /// lock held.
  virtual void on_timeout();

  /// Arms the timer for the time `t` of now(), instead of the time set before; a time that is past
  /// means as soon as possible. `never` disarms it. Raises a legacy_exception for any other time
  /// below 1,000,000.
  void timeout_time_is(double t);

 private:
  friend class timeout_mgr;
  timer_task* timer_ = nullptr;
};

}  // namespace ryx

#endif  // RYX_TIMER_H
