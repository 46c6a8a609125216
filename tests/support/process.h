// Processes that a test forks, each with a loop of its own, which answer lines with lines.
#pragma once

#include <gtest/gtest.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <functional>
#include <sstream>
#include <string>
#include <utility>

#include "platform/activity/activity.h"
#include "platform/base/clock.h"

namespace ryx::test {

using platform::activity;

inline constexpr double kPatience = 60;  // for whatever a process is asked to wait for

// Runs the loop of this process until `done`; false when the deadline passes.
inline bool until(const std::function<bool()>& done) {
  for (double end = platform::clock().now() + kPatience; !done();) {
    if (platform::clock().now() > end) return false;
    activity().run(0.01);
  }
  return true;
}

// A process that answers lines with lines. It lives until it is killed or destroyed. The parent
// runs no loop, since a loop does not survive a fork.
class Process {
 public:
  using Answer = std::function<std::string(std::istringstream& question)>;

  explicit Process(const std::function<Answer()>& start) {
    int fds[2];
    EXPECT_EQ(0, socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, fds));
    pid_ = fork();
    if (pid_ == 0) {
      close(fds[0]);
      serve(fds[1], start());
      _exit(0);
    }
    close(fds[1]);
    fd_ = fds[0];
  }
  Process(Process&& o) noexcept : pid_(std::exchange(o.pid_, -1)), fd_(std::exchange(o.fd_, -1)) {}
  Process& operator=(Process&& o) noexcept {
    kill9();
    pid_ = std::exchange(o.pid_, -1);
    fd_ = std::exchange(o.fd_, -1);
    return *this;
  }
  ~Process() { kill9(); }

  std::string ask(const std::string& question) {
    char text[256];
    EXPECT_EQ(static_cast<ssize_t>(question.size()),
              send(fd_, question.data(), question.size(), MSG_NOSIGNAL));
    pollfd ready{fd_, POLLIN, 0};
    if (poll(&ready, 1, static_cast<int>(2000 * kPatience)) != 1) return "no answer";
    ssize_t n = recv(fd_, text, sizeof text, 0);
    return n <= 0 ? "gone" : std::string(text, static_cast<size_t>(n));
  }
  void signal(int number) { kill(pid_, number); }
  pid_t pid() const { return pid_; }
  void kill9() {
    if (pid_ <= 0) return;
    kill(pid_, SIGKILL);
    waitpid(pid_, nullptr, 0);
    close(fd_);
    pid_ = -1;
  }

 private:
  struct Questions : platform::Descriptor {
    Questions(int fd, Answer answer) : Descriptor(fd, "Questions"), answer_(std::move(answer)) {
      readableInterestIs(true);
    }
    void onReadable() override {
      char text[256];
      ssize_t n = recv(fd(), text, sizeof text, MSG_DONTWAIT);
      if (n <= 0) _exit(0);
      std::istringstream question(std::string(text, static_cast<size_t>(n)));
      std::string answer = answer_(question);
      if (send(fd(), answer.data(), answer.size(), MSG_NOSIGNAL) < 0) _exit(0);
    }
    Answer answer_;
  };
  static void serve(int fd, Answer answer) {
    Questions questions(fd, std::move(answer));
    for (;;) activity().run(1000);
  }

  pid_t pid_ = -1;
  int fd_ = -1;
};

}  // namespace ryx::test
