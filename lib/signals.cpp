#include "lib/signals.h"

#include <fcntl.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>

#include "platform/activity/activity.h"
#include "platform/activity/descriptor.h"
#include "platform/base/check.h"
#include "platform/trace/trace.h"
#include "ryx/panic.h"
#include "ryx/sdk_scoped_lock.h"

namespace ryx {

namespace {

// What the handler touches.
constinit std::atomic<int> exitStatus{0};
constinit std::atomic<unsigned> caught{0};
constinit std::atomic<int> pipeWriteEnd{-1};
static_assert(std::atomic<int>::is_always_lock_free);

platform::TraceFacility& trace() {
  static auto& facility = platform::TraceFacility::named("RyxSdk");
  return facility;
}

// A full pipe is as good as one more byte in it: the loop will see that it is readable.
bool tellLoop(int fd) {
  for (;;) {
    if (::write(fd, "0", 1) == 1 || errno == EAGAIN) return true;
    if (errno != EINTR) return false;
  }
}

extern "C" void ryxOnSignal(int signal) {
  const int error = errno;
  exitStatus = 128 + signal;
  ++caught;
  if (const int fd = pipeWriteEnd; fd >= 0)
    platform::check(tellLoop(fd), "Unable to write to signal handler pipe");
  errno = error;
}

// The read end of the pipe, in the loop.
class SignalFdHandler final : public platform::Descriptor {
 public:
  explicit SignalFdHandler(int fd) : Descriptor(fd, "SignalFdHandler") { readableInterestIs(true); }

 private:
  void onReadable() override {
    RYX_TRACE(trace(), 1, "Signal handler is readable: " << fd());
    char bytes[8];
    if (::read(fd(), bytes, sizeof bytes) > 0) platform::activity().executionTimeIs(0);
  }
};

void makePipe() {
  int ends[2];
  if (::pipe2(ends, O_CLOEXEC | O_NONBLOCK) != 0) {
    std::perror("pipe");
    panic("Could not form pipe for signal handling");
  }
  static const auto* const handler = new SignalFdHandler(ends[0]);
  static_cast<void>(handler);
  pipeWriteEnd = ends[1];
}

}  // namespace

void installSignalHandlers() {
  const sdk_scoped_lock lock;
  if (pipeWriteEnd < 0) makePipe();
  struct sigaction action {};
  action.sa_handler = ryxOnSignal;
  action.sa_flags = SA_RESTART;
  sigemptyset(&action.sa_mask);
  for (const int signal : {SIGTERM, SIGINT})
    platform::check(::sigaction(signal, &action, nullptr) == 0, "Unable to handle a signal");
}

unsigned signalsCaught() {
  return caught;
}

void exitIfSignalled() {
  if (exitStatus != 0) std::exit(exitStatus);
}

}  // namespace ryx
