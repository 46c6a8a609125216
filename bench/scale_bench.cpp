// An agent at the size of the largest switch: interfaces that come and go by the hundred thousand,
// as many timers, ten thousand descriptors, a thousand handlers. Each goes in rounds: what is in
// memory after the last round is beside what was there after the second, and a clock in the same
// loop, due every millisecond while it runs, tells how long the loop was ever held.
#include <sys/eventfd.h>
#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <memory>
#include <random>
#include <utility>
#include <vector>

#include "bench/measure.h"
#include "bench/ports.h"
#include "platform/activity/activity.h"
#include "platform/activity/timer.h"
#include "platform/statehub/entity_manager.h"
#include "ryx/event_loop.h"
#include "ryx/fd.h"
#include "ryx/intf.h"
#include "ryx/sdk.h"
#include "ryx/timer.h"

using namespace ryx;
using namespace ryx::bench;
using platform::activity;

namespace {

constexpr int kRounds = 6;
constexpr double kHeldTarget = 0.1;  // seconds that nothing may hold the loop

// The agent's loop, with a clock in it that is due every millisecond while the loop runs: how late
// it was at the most.
class Loop : public timeout_handler {
 public:
  explicit Loop(sdk& agent)
      : timeout_handler(agent.get_timeout_mgr()), loop_(agent.get_event_loop()) {}
  void run(double duration) {
    arm();
    loop_->run(duration);
    timeout_time_is(never);
  }
  void on_timeout() override {
    latest_ = std::max(latest_, now() - due_);
    arm();
  }
  double takeLatest() { return std::exchange(latest_, 0); }

 private:
  void arm() { timeout_time_is(due_ = now() + 0.001); }

  event_loop* const loop_;
  double due_ = 0;
  double latest_ = 0;
};

// Rounds of `work`, which says how many things it did in how many seconds of its own.
class Rounds {
 public:
  Rounds(const char* what, Loop& loop) : what_(what), loop_(loop) {}
  template <class Work>
  void run(Work&& work) {
    loop_.takeLatest();
    for (int i = 0; i < kRounds; ++i) {
      const double at = cpuSeconds();
      const uint64_t done = work();
      seconds_ += cpuSeconds() - at;
      done_ += done;
      if (i == 1) second_ = residentMiB();
    }
    const double grown = residentMiB() - second_;
    std::printf(
        "%s: %.0f ns each; %+.1f MiB after %d rounds; loop held for %.1f ms (target %.0f)\n", what_,
        seconds_ * 1e9 / static_cast<double>(done_), grown, kRounds, loop_.takeLatest() * 1e3,
        kHeldTarget * 1e3);
  }

 private:
  const char* const what_;
  Loop& loop_;
  double seconds_ = 0;
  double second_ = 0;
  uint64_t done_ = 0;
};

void expect(bool holds, const char* what) {
  if (!holds) fail(what);
}

// --- interfaces ---------------------------------------------------------------------------------

struct Follower : intf_handler {
  explicit Follower(intf_mgr* mgr) : intf_handler(mgr) { watch_all_intfs(true); }
  void on_intf_create(intf_id_t) override { ++created; }
  void on_intf_delete(intf_id_t) override { ++deleted; }
  void on_oper_status(intf_id_t, oper_status_t) override { ++statuses; }
  uint64_t created = 0, deleted = 0, statuses = 0;
};

void interfaces(sdk& agent, Loop& loop, uint32_t count) {
  Ports ports(count);
  Follower follower(agent.get_intf_mgr());
  uint64_t rounds = 0;
  Rounds("an interface's creation, three flaps and deletion, all heard", loop).run([&] {
    ++rounds;
    ports.create();
    loop.run(0);
    for (uint8_t code : {2, 1, 2}) {
      ports.flap(code);
      loop.run(0);
    }
    ports.erase();
    loop.run(0);
    return count;
  });
  expect(follower.created == rounds * count && follower.deleted == rounds * count,
         "interfaces that were heard of");
  // The last status of an interface is told before it goes: it is gone from the switch by then.
  expect(follower.statuses >= 4 * rounds * count, "statuses that were heard of");
}

// --- timers -------------------------------------------------------------------------------------

struct Alarm : timeout_handler {
  using timeout_handler::timeout_handler;
  void on_timeout() override { ++fired; }
  static inline uint64_t fired = 0;
};

void timers(sdk& agent, Loop& loop, uint32_t count) {
  std::mt19937 random(1);
  std::uniform_real_distribution<double> later(0, 0.2);
  std::vector<std::unique_ptr<Alarm>> alarms;
  for (uint32_t i = 0; i < count; ++i)
    alarms.push_back(std::make_unique<Alarm>(agent.get_timeout_mgr()));
  for (auto& alarm : alarms) alarm->timeout_time_is(now() + 1000);
  Rounds("a timer armed, armed anew and fired, of so many", loop).run([&] {
    const uint64_t before = Alarm::fired;
    for (auto& alarm : alarms) alarm->timeout_time_is(now() + 1 + later(random));
    for (auto& alarm : alarms) alarm->timeout_time_is(now() + later(random));
    while (Alarm::fired < before + count) loop.run(0.01);
    return count;
  });
}

// --- descriptors --------------------------------------------------------------------------------

struct Reader : fd_handler {
  void on_readable(int fd) override {
    eventfd_t value;
    heard += eventfd_read(fd, &value) == 0;
  }
  uint64_t heard = 0;
};

void descriptors(Loop& loop, uint32_t count) {
  rlimit limit{};
  getrlimit(RLIMIT_NOFILE, &limit);
  limit.rlim_cur = std::min<rlim_t>(limit.rlim_max, count + 200);
  setrlimit(RLIMIT_NOFILE, &limit);
  Reader reader;
  std::vector<int> fds;
  for (uint32_t i = 0; i < count; ++i) {
    const int fd = eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC);
    if (fd < 0) break;
    fds.push_back(fd);
  }
  if (fds.size() < count)
    std::printf("this user may open %zu descriptors, not %u\n", fds.size(), count);
  Rounds("a descriptor watched, heard and let go, of so many", loop).run([&] {
    const uint64_t before = reader.heard;
    for (int fd : fds) reader.watch_readable(fd, true);
    for (int fd : fds) eventfd_write(fd, 1);
    while (reader.heard < before + fds.size()) loop.run(0);
    for (int fd : fds) reader.watch_readable(fd, false);
    return fds.size();
  });
  for (int fd : fds) close(fd);
}

// --- handlers -----------------------------------------------------------------------------------

void handlers(sdk& agent, Loop& loop, uint32_t count) {
  Ports ports(1);
  ports.create();
  loop.run(0);
  Rounds("an event at a handler, of a thousand that come and go", loop).run([&] {
    constexpr uint32_t kEvents = 100;
    std::vector<std::unique_ptr<Follower>> followers;
    for (uint32_t i = 0; i < count; ++i)
      followers.push_back(std::make_unique<Follower>(agent.get_intf_mgr()));
    for (uint32_t i = 0; i < kEvents; ++i) {
      ports.flap(i % 2 ? 1 : 2);
      loop.run(0);
    }
    for (auto& f : followers) expect(f->statuses == kEvents, "events at a handler");
    return uint64_t{count} * kEvents;
  });
  ports.erase();
  loop.run(0);
}

}  // namespace

int main() {
  const uint32_t share = isSmall() ? 100 : 1;
  auto* agent = new sdk("bench", platform::EntityManager::embedded("bench").release());
  agent->get_intf_mgr();
  agent->initialize_context();
  auto* loop = new Loop(*agent);
  agent->get_event_loop()->wait_for_initialized();
  if (!isSmall()) warmMemory(512);
  interfaces(*agent, *loop, 100'000 / share);
  timers(*agent, *loop, 100'000 / share);
  descriptors(*loop, 10'000 / share);
  handlers(*agent, *loop, 1'000 / share);
}
