// Benchmarks across processes: their processes, their sockets, their processors.
#pragma once

#include <sched.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstddef>
#include <cstdio>
#include <functional>
#include <memory>
#include <vector>

#include "bench/measure.h"
#include "platform/activity/activity.h"
#include "platform/model/wellknown.h"
#include "platform/statehub/hub.h"

namespace ryx::bench {

struct Pair {
  int a, b;
  Pair() {
    int fds[2];
    if (socketpair(AF_UNIX, SOCK_STREAM, 0, fds) != 0) fail("socketpair");
    a = fds[0];
    b = fds[1];
  }
};

// The processes of one measurement. The parent has no loop of its own: a loop does not survive a
// fork.
class Processes {
 public:
  void add(const std::function<void()>& body) {
    std::fflush(stdout);
    pid_t pid = fork();
    if (pid == 0) {
      body();
      std::fflush(stdout);
      _exit(0);
    }
    pids_.push_back(pid);
  }
  void join() {
    for (pid_t p : pids_) {
      int status = 0;
      waitpid(p, &status, 0);
      if (status != 0) fail("a process of the benchmark");
    }
    pids_.clear();
  }

 private:
  std::vector<pid_t> pids_;
};

// What the process in the middle has.
struct HubProcess {
  platform::Tree tree;
  std::unique_ptr<platform::Hub> hub;
  HubProcess() {
    platform::makeWellKnown(tree);
    hub = std::make_unique<platform::Hub>(tree);
    hub->lingerIs(0.001);  // as ryxd does
  }
};

inline void pin(int cpu) {
  cpu_set_t set;
  CPU_ZERO(&set);
  CPU_SET(cpu, &set);
  sched_setaffinity(0, sizeof set, &set);
}
inline void until(const std::function<bool()>& done) {
  double limit = seconds() + 120;
  while (!done()) {
    platform::activity().run(0.001);
    if (seconds() > limit) fail("a stage does not end");
  }
}
// The value below which that share of them is.
inline double at(double* values, size_t n, double share) {
  std::sort(values, values + n);
  return values[std::min(n - 1, static_cast<size_t>(share * static_cast<double>(n)))];
}

}  // namespace ryx::bench
