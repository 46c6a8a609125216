// The loop, for programs that do not leave their control to `sdk::main_loop`: they run it for a
// time, or hand its descriptors and its next timeout to a loop of their own.
//
//   ryx::event_loop* loop = sdk.get_event_loop();
//   loop->wait_for_initialized();
//   while (...) {
//     ...
//     loop->run(0);
//   }
#ifndef RYX_EVENT_LOOP_H
#define RYX_EVENT_LOOP_H

#include <ryx/api.h>

namespace ryx {

class mount_mgr;

/// A program's own loop, as the SDK sees it. The program implements the watch operations, and calls
/// the `on_...` operations when its loop finds a descriptor ready or the timeout reached, in the
/// thread that called `event_loop::external_loop_is`. The watch operations are called with the
/// API's lock held, whenever an interest changes; readiness is level-triggered.
class RYX_API event_loop_handler {
 public:
  event_loop_handler();
  event_loop_handler(const event_loop_handler&) = delete;
  event_loop_handler& operator=(const event_loop_handler&) = delete;
  /// A handler that is the external loop stops to be it.
  virtual ~event_loop_handler();

  /// Whether on_readable(fd) is to be called when `fd` is readable. The other two likewise; an
  /// exception is POLLPRI of poll(2).
  virtual void watch_readable(int fd, bool interest) = 0;
  virtual void watch_writable(int fd, bool interest) = 0;
  virtual void watch_exception(int fd, bool interest) = 0;

  /// on_timeout() is to be called at the time `t` of now(), and not at the time that was told
  /// before. `never`: not at all.
  virtual void timeout_time_is(double t) = 0;

  /// The descriptor is ready: what waits for it is called. The process exits with 128 and the
  /// signal's number when SIGTERM or SIGINT came.
  void on_readable(int fd);
  void on_writable(int fd);
  void on_exception(int fd);

  /// The time is reached: the timers that are due are called.
  void on_timeout();
};

/// Obtained from `sdk::get_event_loop()`, which connects to Statehub (by the environment, see
/// sdk.h; or over the connection that the context has already) and starts to mount what the
/// managers need. The thread that calls it first becomes the loop's; every operation is for that
/// thread.
class RYX_API event_loop {
 public:
  explicit event_loop(mount_mgr* mgr);
  event_loop(const event_loop&) = delete;
  event_loop& operator=(const event_loop&) = delete;
  ~event_loop();

  /// Runs the loop for `duration` seconds; 0: does all pending work and returns. May be called in a
  /// callback. Returns early after `agent_mgr::exit()`. The process exits with 128 and the signal's
  /// number when SIGTERM or SIGINT came. Raises a legacy_exception for a negative duration.
  void run(double duration) const;

  /// Runs the loop until the SDK is initialized. Aborts the process when that takes 600 seconds.
  void wait_for_initialized() const;

  /// Runs the loop until everything that was written to the switch's state before the call is sent.
  void flush() const;

  /// Hands the loop over to `handler`'s program, for good: waits until the SDK is initialized, then
  /// tells what to watch, and from then on what changes. run() then runs what is queued and timers
  /// that are due, but looks at no descriptor. Raises a legacy_exception for a null handler. Not to
  /// be used while main_loop() runs.
  void external_loop_is(event_loop_handler* handler);

 private:
  mount_mgr* mgr_;
};

}  // namespace ryx

#endif  // RYX_EVENT_LOOP_H
