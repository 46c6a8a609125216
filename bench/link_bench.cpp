// The link between processes, beside its floors: the same bytes passed on by a process that only
// reads and writes. A writer, a hub and a reader are processes of their own, as they are on a
// switch.
#include <fcntl.h>
#include <poll.h>
#include <sched.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <string>
#include <vector>

#include "platform/activity/activity.h"
#include "platform/model/interface.h"
#include "platform/model/routing.h"
#include "platform/model/wellknown.h"
#include "platform/qel/reactor.h"
#include "platform/statehub/entity_manager.h"
#include "platform/statehub/hub.h"

using namespace ryx::platform;
using namespace ryx::platform::Routing;

namespace {

double seconds() {
  return std::chrono::duration<double>(std::chrono::steady_clock::now().time_since_epoch()).count();
}
double residentMiB() {
  unsigned long size = 0, resident = 0;
  std::FILE* f = std::fopen("/proc/self/statm", "r");
  if (!f || std::fscanf(f, "%lu %lu", &size, &resident) != 2) std::abort();
  std::fclose(f);
  return static_cast<double>(resident) * 4096 / (1 << 20);
}
[[noreturn]] void fail(const char* what) {
  std::printf("FAILED: %s\n", what);
  std::exit(1);
}

// What the processes share: each writes its own fields.
struct Board {
  double started, arrived, mountStarted, mounted;
  double hubMiB, hubMiBWithSecondReader;
  volatile int stage;
  double latencies[200000];
};
Board* board;

void pin(int cpu) {
  cpu_set_t set;
  CPU_ZERO(&set);
  CPU_SET(cpu, &set);
  sched_setaffinity(0, sizeof set, &set);
}
struct Pair {
  int a, b;
  Pair() {
    int fds[2];
    if (socketpair(AF_UNIX, SOCK_STREAM, 0, fds) != 0) fail("socketpair");
    a = fds[0];
    b = fds[1];
  }
};
pid_t process(const std::function<void()>& body) {
  std::fflush(stdout);
  pid_t pid = fork();
  if (pid == 0) {
    body();
    std::fflush(stdout);
    _exit(0);
  }
  return pid;
}
void until(const std::function<bool()>& done) {
  double limit = seconds() + 120;
  while (!done()) {
    activity().run(0.001);
    if (seconds() > limit) fail("a stage does not end");
  }
}
void wait(int stage) {
  while (board->stage < stage) usleep(500);
}
std::unique_ptr<EntityManager> participant(int fd, const char* name, const char* path,
                                           const char* type, const char* mode) {
  auto em = EntityManager::overSocket(fd, name);
  auto group = em->mountGroup();
  MountStatus status = MountStatus::pending;
  group->add(path, type, mode);
  group->close([&](MountStatus s) { status = s; });
  until([&] { return status != MountStatus::pending; });
  if (status != MountStatus::success) fail("mount");
  return em;
}

// Passes on what it reads, until the end of it.
void relay(int from, int to) {
  std::vector<char> bytes(256 * 1024);
  for (;;) {
    ssize_t n = read(from, bytes.data(), bytes.size());
    if (n <= 0) return;
    for (ssize_t at = 0; at < n;) {
      ssize_t w = write(to, bytes.data() + at, static_cast<size_t>(n - at));
      if (w <= 0) return;
      at += w;
    }
  }
}
double rawRelay(size_t total) {
  Pair first, second;
  pid_t middle = process([&] { close(first.a), close(second.b), relay(first.b, second.a); });
  pid_t end = process([&] {
    close(first.a), close(first.b), close(second.a);
    std::vector<char> bytes(256 * 1024);
    for (size_t got = 0; got < total;) {
      ssize_t n = read(second.b, bytes.data(), bytes.size());
      if (n <= 0) break;
      got += static_cast<size_t>(n);
    }
    board->arrived = seconds();
  });
  close(first.b), close(second.a), close(second.b);
  std::vector<char> bytes(64 * 1024, 'x');
  double start = seconds();
  for (size_t sent = 0; sent < total;) {
    ssize_t n = write(first.a, bytes.data(), std::min(bytes.size(), total - sent));
    if (n <= 0) fail("relay");
    sent += static_cast<size_t>(n);
  }
  close(first.a);
  waitpid(middle, nullptr, 0);
  waitpid(end, nullptr, 0);
  return board->arrived - start;
}

void million(uint32_t count) {
  Pair w, r, late;
  board->stage = 0;
  pid_t hub = process([&] {
    Tree tree;
    makeWellKnown(tree);
    tree.make<Dir>("routing/vrf/input/default");
    Hub h(tree);
    h.accept(w.a);
    h.accept(r.a);
    until([&] { return board->stage >= 2; });
    board->hubMiB = residentMiB();
    h.accept(late.a);
    board->stage = 3;
    until([&] { return board->stage >= 4; });
    board->hubMiBWithSecondReader = residentMiB();
    board->stage = 5;
  });
  auto reader = [&](int fd, bool isLate) {
    if (isLate) wait(3);
    board->mountStarted = seconds();
    auto em = participant(fd, "", "routing/vrf/input", "Qel::Dir", "r");
    if (!isLate) board->stage = 1;
    RouteInput* input = nullptr;
    until([&] {
      if (!input) input = em->find<RouteInput>("routing/vrf/input/default/RyxSdk-bench");
      return input && input->route.size() == count;
    });
    (isLate ? board->mounted : board->arrived) = seconds();
    board->stage = isLate ? 4 : 2;
    if (!isLate) wait(5);
  };
  pid_t first = process([&] { reader(r.b, false); });
  pid_t second = process([&] { reader(late.b, true); });
  size_t bytes = 0;
  pid_t writer = process([&] {
    auto em = participant(w.b, "bench", "routing/vrf/input", "Qel::Dir", "w");
    until([] { return board->stage >= 1; });
    auto* input =
        em->find<Dir>("routing/vrf/input/default")->entry.create<RouteInput>("RyxSdk-bench");
    board->started = seconds();
    for (uint32_t i = 0; i < count; ++i) {
      Route* route = input->route.create({IpPrefix(IpAddr::v4(0x0a000000u + (i << 4)), 28), 1});
      route->tag.set(7);
      Via via;
      via.hop = IpAddr::v4(0xc0a80001u + (i & 0xff));
      route->via.edit([&](auto& set) { return set.insert(via); });
      if ((i & 1023) == 1023) activity().run(0);
    }
    until([&] { return em->drained(); });
    wait(5);
  });
  for (pid_t p : {hub, first, second, writer}) {
    int status = 0;
    waitpid(p, &status, 0);
    if (status != 0) fail("a process of the bench");
  }
  // The wire form of one such route, counted once.
  bytes = size_t{count} * 60;
  std::printf(
      "%u routes through the hub into a second process: %.3f s (target 1.0 s for 1,000,000)\n",
      count, board->arrived - board->started);
  std::printf("  floor: about as many bytes relayed raw over the same hops: %.3f s\n",
              rawRelay(bytes));
  std::printf("mounting them afresh by a further reader: %.3f s (target 0.5 s)\n",
              board->mounted - board->mountStarted);
  std::printf(
      "hub memory: %.0f MiB (target 250 MiB); with a further reader: %+.1f MiB (target +1 MiB)\n",
      board->hubMiB, board->hubMiBWithSecondReader - board->hubMiB);
}

double median(double* values, size_t n) {
  std::sort(values, values + n);
  return values[n / 2];
}

// One change at a time, there and back: agent, hub, agent, hub, agent.
class Echo : public EntityReactor {
 public:
  explicit Echo(std::function<void()> told) : EntityReactor("Echo"), told_(std::move(told)) {}

 protected:
  void onAttributes(uint32_t) override { told_(); }

 private:
  std::function<void()> told_;
};

void latency(uint32_t rounds) {
  constexpr const char* kPath = "interface/config/eth/lag";
  constexpr const char* kType = "Interface::EthLagIntfConfigDir";
  Pair a, b;
  board->stage = 0;
  pin(0);
  IntfId one, two;
  if (!parse("Port-Channel1", &one) || !parse("Port-Channel2", &two)) fail("name");
  pid_t hub = process([&] {
    Tree tree;
    makeWellKnown(tree);
    auto* dir = tree.find<Interface::EthLagIntfConfigDir>(kPath);
    dir->intf.create(one);
    dir->intf.create(two);
    Hub h(tree);
    h.accept(a.a);
    h.accept(b.a);
    until([] { return board->stage >= 2; });
  });
  pid_t answerer = process([&] {
    auto em = participant(b.b, "b", kPath, kType, "w");
    auto* dir = em->find<Interface::EthLagIntfConfigDir>(kPath);
    auto *in = dir->intf.find(one), *out = dir->intf.find(two);
    Echo echo([&] { out->description.set(in->description()); });
    echo.follow(*in, in->description.bit());
    board->stage = 1;
    until([] { return board->stage >= 2; });
  });
  {
    auto em = participant(a.b, "a", kPath, kType, "w");
    auto* dir = em->find<Interface::EthLagIntfConfigDir>(kPath);
    auto *out = dir->intf.find(one), *in = dir->intf.find(two);
    bool back = false;
    Echo echo([&] {
      back = true;
      activity().executionTimeIs(0);
    });
    echo.follow(*in, in->description.bit());
    until([] { return board->stage >= 1; });
    for (uint32_t i = 0; i < rounds; ++i) {
      back = false;
      double start = seconds();
      out->description.set(std::to_string(i));
      while (!back) activity().run(0.01);
      board->latencies[i] = (seconds() - start) / 2;
    }
    board->stage = 2;
  }
  waitpid(hub, nullptr, 0);
  waitpid(answerer, nullptr, 0);
  double p50 = median(board->latencies, rounds);
  double p99 = board->latencies[rounds * 99 / 100];

  Pair first, second;
  pid_t middle = process([&] {
    pollfd fds[] = {{first.b, POLLIN, 0}, {second.a, POLLIN, 0}};
    char bytes[256];
    while (poll(fds, 2, 1000) > 0)
      for (int i = 0; i < 2; ++i)
        if (fds[i].revents) {
          ssize_t n = read(fds[i].fd, bytes, sizeof bytes);
          if (n <= 0 || write(fds[1 - i].fd, bytes, static_cast<size_t>(n)) != n) return;
        }
  });
  pid_t end = process([&] {
    char bytes[256];
    pollfd fd{second.b, POLLIN, 0};
    while (poll(&fd, 1, 1000) > 0) {
      ssize_t n = read(second.b, bytes, sizeof bytes);
      if (n <= 0 || write(second.b, bytes, static_cast<size_t>(n)) != n) return;
    }
  });
  char bytes[64] = {};
  for (uint32_t i = 0; i < rounds; ++i) {
    double start = seconds();
    pollfd fd{first.a, POLLIN, 0};
    if (write(first.a, bytes, sizeof bytes) != sizeof bytes || poll(&fd, 1, 1000) != 1 ||
        read(first.a, bytes, sizeof bytes) != sizeof bytes)
      fail("raw round");
    board->latencies[i] = (seconds() - start) / 2;
  }
  shutdown(first.a, SHUT_RDWR);
  shutdown(second.b, SHUT_RDWR);
  waitpid(middle, nullptr, 0);
  waitpid(end, nullptr, 0);
  double raw = median(board->latencies, rounds);
  std::printf(
      "one change, agent to agent through the hub, one CPU: p50 %.1f us, p99 %.1f us; raw relay "
      "p50 %.1f us: "
      "%.2f times (target 2)\n",
      p50 * 1e6, p99 * 1e6, raw * 1e6, p50 / raw);
}

}  // namespace

int main() {
  void* shared =
      mmap(nullptr, sizeof(Board), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
  if (shared == MAP_FAILED) fail("mmap");
  board = static_cast<Board*>(shared);
  bool small = std::getenv("RYX_BENCH_SMALL") != nullptr;
  million(small ? 10000 : 1000000);
  latency(small ? 200 : 20000);
}
