// How long an agent takes from the start of its process to on_initialized: with a Statehub of its
// own, and through a hub in this process. Targets: 5 ms and 15 ms. The floor is the start of the
// same process up to main(), measured in the same run.
#include <fcntl.h>
#include <spawn.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <string>
#include <vector>

#include "platform/activity/activity.h"
#include "platform/activity/descriptor.h"
#include "platform/base/check.h"
#include "platform/model/wellknown.h"
#include "platform/statehub/hub.h"
#include "ryx/agent.h"
#include "ryx/sdk.h"

extern char** environ;

namespace {

using ryx::platform::activity;
using ryx::platform::check;
using ryx::platform::Descriptor;

constexpr const char* kChild = "RYX_START_BENCH_CHILD";
constexpr const char* kFloor = "--floor";

double monotonic() {
  timespec t;
  clock_gettime(CLOCK_MONOTONIC, &t);
  return static_cast<double>(t.tv_sec) + static_cast<double>(t.tv_nsec) * 1e-9;
}

// --- the agent ----------------------------------------------------------------------------------

void report() {
  const double now = monotonic();
  check(::write(std::atoi(std::getenv(kChild)), &now, sizeof now) == sizeof now, "write");
}

class Agent : public ryx::agent_handler {
 public:
  explicit Agent(ryx::sdk& sdk) : agent_handler(sdk.get_agent_mgr()), mgr_(sdk.get_agent_mgr()) {}
  void on_initialized() override {
    report();
    mgr_->exit();
  }

 private:
  ryx::agent_mgr* mgr_;
};

int runAgent(int argc, char** argv) {
  if (argc > 1 && std::strcmp(argv[1], kFloor) == 0) {
    report();
    return 0;
  }
  ryx::sdk sdk("bench");
  Agent agent(sdk);
  sdk.main_loop(argc, argv);
  return 0;
}

// --- who starts it ------------------------------------------------------------------------------

class Door : public Descriptor {
 public:
  Door(int fd, ryx::platform::Hub& hub) : Descriptor(fd, "door"), hub_(hub) {
    readableInterestIs(true);
  }

 private:
  void onReadable() override {
    const int fd = ::accept4(Descriptor::fd(), nullptr, nullptr, SOCK_CLOEXEC);
    if (fd >= 0) hub_.accept(fd);
  }
  ryx::platform::Hub& hub_;
};

// Ends the loop when the agent has said when it was ready, and then gone.
class Report : public Descriptor {
 public:
  explicit Report(int fd) : Descriptor(fd, "report") { readableInterestIs(true); }
  double ready = 0;

 private:
  void onReadable() override {
    double time;
    const ssize_t size = ::read(fd(), &time, sizeof time);
    if (size == sizeof time) {
      ready = time;
      return;
    }
    readableInterestIs(false);
    activity().executionTimeIs(0);
  }
};

double startOnce(const std::string& argument) {
  int report[2];
  check(::pipe2(report, O_CLOEXEC) == 0, "pipe");
  constexpr int kReportFd = 9;
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_addopen(&actions, STDOUT_FILENO, "/dev/null", O_WRONLY, 0);
  posix_spawn_file_actions_adddup2(&actions, report[1], kReportFd);
  std::string program = "start_bench";
  std::string option = argument;
  char* argv[] = {program.data(), option.data(), nullptr};
  pid_t pid;
  const double start = monotonic();
  check(::posix_spawn(&pid, "/proc/self/exe", &actions, nullptr, argv, environ) == 0, "spawn");
  ::close(report[1]);
  Report ready(report[0]);
  activity().run();
  activity().executionTimeIs(ryx::platform::Timer::kNever);
  int status;
  check(::waitpid(pid, &status, 0) == pid && status == 0, "the agent ended well");
  ::close(report[0]);
  posix_spawn_file_actions_destroy(&actions);
  check(ready.ready != 0, "the agent was initialized");
  return ready.ready - start;
}

void measure(const char* what, double target, const std::string& argument, int rounds) {
  std::vector<double> times;
  for (int i = 0; i < rounds; ++i) times.push_back(startOnce(argument) * 1e3);
  std::sort(times.begin(), times.end());
  std::printf("%-40s p50 %6.2f ms   p90 %6.2f ms", what, times[times.size() / 2],
              times[times.size() * 9 / 10]);
  if (target != 0)
    std::printf("   target %4.1f ms\n", target);
  else
    std::printf("   (floor)\n");
}

}  // namespace

int main(int argc, char** argv) {
  if (std::getenv(kChild) != nullptr) return runAgent(argc, argv);
  const int rounds = std::getenv("RYX_BENCH_SMALL") != nullptr ? 3 : 200;
  ::setenv(kChild, "9", 1);

  ::setenv("STATEHUBLOCAL", "1", 1);
  measure("start to main()", 0, kFloor, rounds);
  measure("start to on_initialized, embedded", 5, "", rounds);

  ::unsetenv("STATEHUBLOCAL");
  ryx::platform::Tree tree;
  ryx::platform::makeWellKnown(tree);
  ryx::platform::Hub hub(tree);
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  const std::string path = "/tmp/ryx-start-bench-" + std::to_string(::getpid());
  path.copy(address.sun_path, sizeof address.sun_path - 1);
  const int listener = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  check(::bind(listener, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0 &&
            ::listen(listener, 8) == 0,
        "the hub listens");
  Door door(listener, hub);
  measure("start to on_initialized, through a hub", 15, "--statehubsockname=" + path, rounds);
  ::unlink(path.c_str());
}
