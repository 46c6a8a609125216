// The loop as the API offers it: run for a time, until the SDK is initialized, until all output is
// sent; or handed to a loop of the program's own.
#include "ryx/event_loop.h"

#include <poll.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <string>

#include "lib/agent_initialized.h"
#include "lib/context.h"
#include "lib/loop.h"
#include "lib/signals.h"
#include "platform/activity/activity.h"
#include "platform/agent/connection.h"
#include "platform/agent/process_title.h"
#include "platform/base/check.h"
#include "platform/base/clock.h"
#include "platform/statehub/local.h"
#include "platform/trace/trace.h"
#include "ryx/mount.h"
#include "ryx/panic.h"
#include "ryx/sdk.h"
#include "ryx/sdk_scoped_lock.h"
#include "ryx/timer.h"

namespace ryx {

namespace {

using platform::activity;
using platform::check;
using platform::ConnectionSettings;
using platform::DescriptorEvent;
using platform::EntityManager;

constexpr double kFirstStep = 0.005;
constexpr double kLongestStep = 5.0;
constexpr double kInitializationTimeout = 600.0;

constexpr double kFlushStep = 0.01;
constexpr double kFlushTraceInterval = 1.0;

platform::TraceFacility& trace() {
  static auto& facility = platform::TraceFacility::named("RyxSdkEventLoop");
  return facility;
}

// --- a loop of the program's own ----------------------------------------------------------------

// The program's loop, between its handler and the platform. There is one loop in a process.
class ExternalLoop final : public platform::DescriptorListener {
 public:
  void handlerIs(event_loop_handler* handler) {
    handler_ = handler;
    activity().listenerIs(handler == nullptr ? nullptr : this);
    activity().stopOnQuiesceIs(handler != nullptr);
  }
  event_loop_handler* handler() const { return handler_; }

  // Everything that is registered by now.
  void watchAll() {
    for (const platform::DescriptorState& state : activity().descriptors()) {
      if (state.fd < 0) continue;
      if (state.readable) {
        RYX_TRACE(trace(), 8, "Registering FD with readable interest: " << state.fd);
        handler_->watch_readable(state.fd, true);
      }
      if (state.writable) {
        RYX_TRACE(trace(), 8, "Registering FD with writable interest: " << state.fd);
        handler_->watch_writable(state.fd, true);
      }
      if (state.exception) {
        RYX_TRACE(trace(), 8, "Registering FD with exception interest: " << state.fd);
        handler_->watch_exception(state.fd, true);
      }
    }
  }

  void interestChanged(int fd, DescriptorEvent event, bool on) override {
    const sdk_scoped_lock lock;
    switch (event) {
      case DescriptorEvent::readable:
        return handler_->watch_readable(fd, on);
      case DescriptorEvent::writable:
        return handler_->watch_writable(fd, on);
      case DescriptorEvent::exception:
        return handler_->watch_exception(fd, on);
    }
  }

  void wakeUpChanged(double) override { dispatchNextTimeout(); }

  void dispatchNextTimeout() {
    const sdk_scoped_lock lock;
    if (handler_ == nullptr) return;
    const double next = activity().nextWakeUp();
    if (std::isinf(next)) {
      RYX_TRACE(trace(), 8, "disaptchNextTimeout None");
      handler_->timeout_time_is(never);
    } else {
      RYX_TRACE(trace(), 8, "disaptchNextTimeout");
      handler_->timeout_time_is(next + kTimeOffset);
    }
  }

 private:
  event_loop_handler* handler_ = nullptr;
};

ExternalLoop& externalLoop() {
  static auto& loop = *new ExternalLoop;
  return loop;
}

void deliver(int fd, DescriptorEvent event) {
  if (fd == activity().nudgeDescriptor()) {
    RYX_TRACE(trace(), 1, "nudge FD became readable, running activities");
    runLoop(0);
  } else {
    const LoopScope scope;
    activity().descriptorEvent(fd, event);
  }
  externalLoop().dispatchNextTimeout();
  exitIfSignalled();
}

// --- output -------------------------------------------------------------------------------------

// Under a program's own loop the platform looks at no descriptor, and the program's loop waits for
// this call to return: so the connections' sockets are looked at here.
void serveConnections(EntityManager& em, double seconds) {
  std::vector<pollfd> sockets;
  for (const int fd : em.connections()) sockets.push_back({fd, POLLIN | POLLOUT, 0});
  ::poll(sockets.data(), sockets.size(), static_cast<int>(std::ceil(seconds * 1e3)));
  const LoopScope scope;
  for (const pollfd& socket : sockets) {
    const auto ready = [&](int events) {
      return (socket.revents & (events | POLLHUP | POLLERR)) != 0;
    };
    if (ready(POLLIN)) activity().descriptorEvent(socket.fd, DescriptorEvent::readable);
    if (ready(POLLOUT)) activity().descriptorEvent(socket.fd, DescriptorEvent::writable);
  }
}

// --- the connection of a program without main_loop ----------------------------------------------

// What a server that started this process says of the connection that it handed over.
ConnectionSettings passiveSettings(const std::vector<std::string>& arguments) {
  ConnectionSettings settings = ConnectionSettings::fromEnvironment();
  char title[100] = "";
  bool options = false;
  for (const std::string& argument : arguments) {
    std::sscanf(argument.c_str(), "--agenttitle=%99s", title);
    unsigned long long first;
    unsigned long long second;
    char third[100];
    char fourth[100];
    if (std::sscanf(argument.c_str(), "--demuxerOpts=%llu,%llu,%99[^,],%99[ a-zA-Z():0-9]", &first,
                    &second, third, fourth) == 4)
      options = true;
  }
  settings.descriptor = platform::passiveMountDescriptor(arguments);
  check(title[0] != '\0', "--agenttitle not found in passive mount ags");
  check(options, "--demuxerOpts not found in passive mount ags");
  check(settings.descriptor >= 0, "--statehubfd not found in passive mount ags");
  platform::agentTitleIs(title);
  return settings;
}

ConnectionSettings settingsOfProcess() {
  if (platform::localSelected()) {
    RYX_TRACE(trace(), 1, "Local event_loop, for testing only");
    return {};
  }
  const std::vector<std::string> passive = platform::passiveMountArguments();
  return passive.empty() ? ConnectionSettings::fromEnvironment() : passiveSettings(passive);
}

}  // namespace

// --- running the loop ---------------------------------------------------------------------------

LoopScope::LoopScope() : lock_(activity().lock()) {
  for (const sdk_context* context : sdk_context::all()) {
    if (context->connection() == nullptr) continue;
    platform::StoreClock& clock = context->connection()->tree().clock();
    if (clock.writer == nullptr) continue;
    writers_.emplace_back(&clock, clock.writer);
    clock.writer = nullptr;
  }
}

LoopScope::~LoopScope() {
  for (const auto& [clock, writer] : writers_) clock->writer = writer;
}

void runLoop(double seconds) {
  const LoopScope scope;
  activity().run(seconds);
}

bool flushOutput(EntityManager& em, double seconds) {
  const unsigned signals = signalsCaught();
  const double end = platform::clock().now() + seconds;
  double nextTrace = 0;
  for (;;) {
    runLoop(0);
    if (em.drained()) return true;
    const double now = platform::clock().now();
    if (now >= end || signalsCaught() != signals) return false;
    if (now >= nextTrace) {
      nextTrace = now + kFlushTraceInterval;
      RYX_TRACE(trace(), 1,
                "flush waits for " << em.unsentBytes() << " bytes and what is not encoded yet"
                                   << (em.connections().empty() ? ", without a connection" : ""));
    }
    if (activity().listener() == nullptr)
      runLoop(std::min(kFlushStep, end - now));
    else
      serveConnections(em, kFlushStep);
  }
}

// --- event_loop_handler -------------------------------------------------------------------------

event_loop_handler::event_loop_handler() = default;

event_loop_handler::~event_loop_handler() {
  const sdk_scoped_lock lock;
  if (externalLoop().handler() == this) externalLoop().handlerIs(nullptr);
}

void event_loop_handler::on_readable(int fd) {
  RYX_TRACE(trace(), 1, "on_readable " << fd);
  deliver(fd, DescriptorEvent::readable);
}

void event_loop_handler::on_writable(int fd) {
  RYX_TRACE(trace(), 1, "on_writable " << fd);
  deliver(fd, DescriptorEvent::writable);
}

void event_loop_handler::on_exception(int fd) {
  RYX_TRACE(trace(), 1, "on_exception " << fd);
  deliver(fd, DescriptorEvent::exception);
}

void event_loop_handler::on_timeout() {
  RYX_TRACE(trace(), 1, "on_timeout");
  runLoop(0);
  externalLoop().dispatchNextTimeout();
  exitIfSignalled();
}

// --- event_loop ---------------------------------------------------------------------------------

event_loop::event_loop(mount_mgr* mgr) : mgr_(mgr) {
  RYX_TRACE(trace(), 1, "Creating event_loop");
  sdk& context = *mgr->get_sdk();
  sdk_context& behind = sdk_context::of(context);
  if (behind.connection() != nullptr) return;
  checkMountableName(context.name());
  const ConnectionSettings settings = settingsOfProcess();
  behind.connectionIs(platform::connectToStatehub(settings, context.name()), settings);
  behind.mounter().mountMgrIs(mgr);
  behind.mounter().mount(*behind.connection());
}

event_loop::~event_loop() = default;

void event_loop::run(double duration) const {
  if (!(duration >= 0)) panic("duration must be 0 or greater");
  exitIfSignalled();
  runLoop(duration);
  exitIfSignalled();
}

void event_loop::wait_for_initialized() const {
  const double start = now();
  for (double step = kFirstStep; !mgr_->allMountHandlersInitialized();
       step = std::min(2 * step, kLongestStep)) {
    run(step);
    check(now() - start <= kInitializationTimeout, "Timed out waiting for initialization");
  }
}

void event_loop::flush() const {
  exitIfSignalled();
  flushOutput(*sdk_context::of(*mgr_->get_sdk()).connection());
  exitIfSignalled();
}

void event_loop::external_loop_is(event_loop_handler* handler) {
  if (handler == nullptr) panic("The event_loop_handler passed in argument was null");
  if (!mgr_->allMountHandlersInitialized()) wait_for_initialized();
  const sdk_scoped_lock lock;
  check(!activity().useEpoll(), "!activityMgrConfig->useEpoll()");
  activity().executionTimeIs(0);
  const int fd = activity().nudgeDescriptor();
  check(fd >= 0, "fd >= 0");
  // From here on each run does the pending work and returns.
  externalLoop().handlerIs(handler);
  RYX_TRACE(trace(), 8, "Registering nudge FD: " << fd);
  handler->watch_readable(fd, true);
  externalLoop().watchAll();
  externalLoop().dispatchNextTimeout();
}

void sdk::init_event_loop() {
  if (event_loop_ != nullptr) return;
  recordMainThread();
  create<event_loop>(event_loop_);
}
event_loop* sdk::get_event_loop() {
  return get(event_loop_, &sdk::init_event_loop, {});
}

}  // namespace ryx
