// SIGTERM, SIGINT and SIGHUP, as a program hears them that ends in its own order. They are blocked
// from its construction on, in every thread that is started later too.
#pragma once

#include <sys/signalfd.h>
#include <unistd.h>

#include <csignal>
#include <functional>
#include <utility>

#include "platform/activity/descriptor.h"

namespace ryx {

class StopSignals final : private platform::Descriptor {
 public:
  // `stop` is called for each, in the loop.
  explicit StopSignals(std::function<void()> stop)
      : Descriptor(block(), "StopSignals"), stop_(std::move(stop)) {
    readableInterestIs(true);
  }

 private:
  static int block() {
    sigset_t signals;
    sigemptyset(&signals);
    for (const int signal : {SIGTERM, SIGINT, SIGHUP}) sigaddset(&signals, signal);
    sigprocmask(SIG_BLOCK, &signals, nullptr);
    return ::signalfd(-1, &signals, SFD_CLOEXEC | SFD_NONBLOCK);
  }
  void onReadable() override {
    signalfd_siginfo info;
    if (::read(fd(), &info, sizeof info) == sizeof info) stop_();
  }

  const std::function<void()> stop_;
};

}  // namespace ryx
