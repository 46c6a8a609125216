// Mirra tables beside their floors: a hash table of the standard library in one process, and a raw
// relay between processes that have a memory in common.
#include <poll.h>
#include <sys/mman.h>

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <numeric>
#include <random>
#include <string>
#include <unordered_map>
#include <vector>

#include "bench/measure.h"
#include "bench/processes.h"
#include "platform/activity/activity.h"
#include "platform/mirra/table.h"
#include "platform/model/tables.h"
#include "platform/model/wellknown.h"
#include "platform/statehub/entity_manager.h"
#include "platform/statehub/hub.h"

using namespace ryx::platform;
using namespace ryx::bench;
using Fib::RouteStatus;
using mirra::Mode;

namespace {

struct Board {
  std::atomic<int> ready, stop;
  std::atomic<uint64_t> there, back;
  double latencies[200000];
  double started, attached, found, told;
  uint64_t toldRows;
  double readerMiB;
};
Board* board;

RouteStatus route(uint32_t n) {
  RouteStatus r;
  r.key = IpPrefix(IpAddr::v4(0x0b000000 + (n << 8)), 24);
  r.preference = 200;
  r.routeType = Fib::RouteType::ebgp;
  r.metric = n;
  r.fecId = n % 1000;
  return r;
}

// --- in one process -----------------------------------------------------------------------------

template <class F>
double nanoseconds(const std::vector<uint32_t>& order, F&& one) {
  const double start = cpuSeconds();
  for (const uint32_t n : order) one(n);
  return (cpuSeconds() - start) / static_cast<double>(order.size()) * 1e9;
}

void inOneProcess(uint32_t count) {
  Tree tree;
  auto table = std::make_unique<mirra::Table<RouteStatus>>(tree.tables(), "routes", Mode::write);
  table->offer();
  mirra::Table<RouteStatus> reader(tree.tables(), "routes", Mode::read);
  activity().run(0);
  std::unordered_map<IpPrefix, RouteStatus> map;
  std::vector<uint32_t> inOrder(count);
  std::iota(inOrder.begin(), inOrder.end(), 0);
  std::vector<uint32_t> shuffled = inOrder;
  std::shuffle(shuffled.begin(), shuffled.end(), std::mt19937(1));

  const auto line = [](const char* what, double mirra, double floor, const char* target) {
    std::printf("%-34s %7.1f ns   floor %7.1f ns   %s\n", what, mirra, floor, target);
  };
  double ours = nanoseconds(inOrder, [&](uint32_t n) { table->write(route(n)); });
  double floor = nanoseconds(inOrder, [&](uint32_t n) { map[route(n).key] = route(n); });
  line("a row made, in order", ours, floor, "");
  uint64_t found = 0;
  RouteStatus r;
  for (const bool random : {true, false}) {
    const auto& order = random ? shuffled : inOrder;
    ours = nanoseconds(order, [&](uint32_t n) { found += reader.find(route(n).key, &r); });
    floor = nanoseconds(order, [&](uint32_t n) {
      const auto at = map.find(route(n).key);
      if (at == map.end()) return;
      r = at->second;
      ++found;
    });
    line(random ? "lookup, at random" : "lookup, in order", ours, floor,
         random ? "target 120 ns" : "");
  }
  if (found != 4 * uint64_t{count}) fail("a row was not found");
  double start = cpuSeconds();
  uint64_t sum = 0, rows = 0;
  for (auto it = reader.iterator(); it; it.next(), ++rows) sum += it.row().metric;
  ours = (cpuSeconds() - start) / count * 1e9;
  start = cpuSeconds();
  for (auto& [key, value] : map) sum -= value.metric;
  floor = (cpuSeconds() - start) / count * 1e9;
  if (rows != count || sum != 0) fail("an iteration");
  line("iteration, a row", ours, floor, "target 20 ns");
  for (const bool random : {true, false}) {
    const auto& order = random ? shuffled : inOrder;
    const auto changed = [&](uint32_t n) {
      RouteStatus to = route(n);
      to.metric += 1 + random;
      return to;
    };
    ours = nanoseconds(order, [&](uint32_t n) { table->write(changed(n)); });
    floor = nanoseconds(order, [&](uint32_t n) { map[route(n).key] = changed(n); });
    line(random ? "update, at random" : "update, in order", ours, floor, "target 200 ns");
  }
  ours = nanoseconds(shuffled, [&](uint32_t n) { table->remove(route(n).key); });
  floor = nanoseconds(shuffled, [&](uint32_t n) { map.erase(route(n).key); });
  line("removal, at random", ours, floor, "");
  if (table->size() != 0) fail("a row was not removed");
}

// --- between processes --------------------------------------------------------------------------

std::unique_ptr<EntityManager> service(int fd, const char* name) {
  return EntityManager::overSocket(fd, Participant(Role::service, name));
}

class Followed final : public mirra::RowReactor<RouteStatus> {
 public:
  explicit Followed(mirra::Table<RouteStatus>& table) : RowReactor("Followed", table) {}

 private:
  void onRow(const RouteStatus&, std::span<const Element>) override { ++board->toldRows; }
  void onRowGone(const IpPrefix&) override {}
};

// A reader in another process comes to a table of so many rows.
void attach(uint32_t count) {
  Pair w, r;
  Processes all;
  all.add([&] {
    HubProcess h;
    h.hub->accept(w.a);
    h.hub->accept(r.a);
    until([] { return board->stop != 0; });
  });
  all.add([&] {
    const auto em = service(w.b, "w");
    mirra::Table<RouteStatus> table(em->tree().tables(), "routes", Mode::write);
    for (uint32_t n = 0; n < count; ++n) table.write(route(n));
    table.offer();
    activity().run(0.05);
    board->ready = 1;
    until([] { return board->stop != 0; });
  });
  all.add([&] {
    const auto em = EntityManager::overSocket(r.b, "r");
    until([] { return board->ready != 0; });
    const double before = residentMiB();
    board->started = seconds();
    mirra::Table<RouteStatus> table(em->tree().tables(), "routes", Mode::notify);
    until([&] { return table.exists(); });
    board->attached = seconds();
    RouteStatus found;
    if (!table.find(route(count / 2).key, &found)) fail("the first lookup");
    board->found = seconds();
    const Followed followed(table);
    until([&] { return board->toldRows == count; });
    board->told = seconds();
    board->readerMiB = residentMiB() - before;
    board->stop = 1;
  });
  all.join();
  std::printf(
      "%u rows attached in another process: the table %.2f ms, the first lookup %.3f ms later; a "
      "reactor was told of all of them %.3f s after it began; its process grew by %.0f MiB, the "
      "table's own %.0f of them\n",
      count, (board->attached - board->started) * 1e3, (board->found - board->attached) * 1e3,
      board->told - board->found, board->readerMiB, 48.0 * count / (1 << 20));
}

struct alignas(8) Counter {
  static constexpr const char* kTypeName = "Bench::Counter";
  static constexpr uint32_t kMaxRows = 16;
  uint64_t key = 0;
  uint64_t packets = 0;
  static constexpr auto members() {
    return described(member("key", &Counter::key), member("packets", &Counter::packets));
  }
};

class Waiter final : public mirra::RowReactor<Counter> {
 public:
  Waiter(mirra::Table<Counter>& table, std::function<void(uint64_t)> told)
      : RowReactor("Waiter", table), told_(std::move(told)) {}

 private:
  void onRow(const Counter& row, std::span<const Element>) override { told_(row.packets); }
  void onRowGone(const uint64_t&) override {}
  const std::function<void(uint64_t)> told_;
};

// There and back by two tables, over the hub; half of it is one change.
void latency(uint32_t rounds, bool oneCpu) {
  Pair a, b;
  Processes all;
  const auto place = [=](int cpu) { pin(oneCpu ? 0 : cpu); };
  all.add([&] {
    place(1);
    HubProcess h;
    h.hub->accept(a.a);
    h.hub->accept(b.a);
    until([] { return board->stop != 0; });
  });
  all.add([&] {
    place(1);
    const auto em = service(b.b, "b");
    mirra::Table<Counter> back(em->tree().tables(), "back", Mode::write);
    back.offer();
    mirra::Table<Counter> there(em->tree().tables(), "there", Mode::notify);
    const Waiter waiter(there, [&](uint64_t n) { back.write({1, n}); });
    until([] { return board->stop != 0; });
  });
  all.add([&] {
    place(0);
    const auto em = service(a.b, "a");
    mirra::Table<Counter> there(em->tree().tables(), "there", Mode::write);
    there.offer();
    mirra::Table<Counter> back(em->tree().tables(), "back", Mode::notify);
    uint64_t heard = 0;
    const Waiter waiter(back, [&](uint64_t n) {
      heard = n;
      activity().executionTimeIs(0);
    });
    until([&] { return back.exists(); });
    for (uint32_t i = 0; i < rounds; ++i) {
      const double start = seconds();
      there.write({1, i + 1});
      while (heard != i + 1) {
        if (seconds() > start + 10) fail("a change was not seen");
        activity().run(0.01);
      }
      board->latencies[i] = (seconds() - start) / 2;
    }
    board->stop = 1;
  });
  all.join();
}

// The same: a word in a memory of both, and a byte through a process that passes bytes on.
void rawLatency(uint32_t rounds, bool oneCpu) {
  Pair first, second;
  Processes all;
  const auto place = [=](int cpu) { pin(oneCpu ? 0 : cpu); };
  const auto next = [](int fd) {
    char byte;
    pollfd at{fd, POLLIN, 0};
    while (board->stop == 0)
      if (poll(&at, 1, 10) == 1) return read(fd, &byte, 1) == 1;
    return false;
  };
  all.add([&] {
    place(1);
    pollfd fds[] = {{first.b, POLLIN, 0}, {second.a, POLLIN, 0}};
    while (board->stop == 0) {
      if (poll(fds, 2, 10) <= 0) continue;
      for (int i = 0; i < 2; ++i)
        if (char byte; fds[i].revents &&
                       (read(fds[i].fd, &byte, 1) != 1 || write(fds[1 - i].fd, &byte, 1) != 1))
          return;
    }
  });
  all.add([&] {
    place(1);
    while (next(second.b)) {
      board->back = board->there.load();
      if (write(second.b, "x", 1) != 1) return;
    }
  });
  all.add([&] {
    place(0);
    for (uint32_t i = 0; i < rounds; ++i) {
      const double start = seconds();
      board->there = i + 1;
      if (write(first.a, "x", 1) != 1 || !next(first.a) || board->back != i + 1) fail("raw round");
      board->latencies[i] = (seconds() - start) / 2;
    }
    board->stop = 1;
  });
  all.join();
}

void oneChange(uint32_t rounds) {
  for (const bool oneCpu : {true, false}) {
    new (board) Board{};
    latency(rounds, oneCpu);
    const double p50 = at(board->latencies, rounds, 0.5), p99 = at(board->latencies, rounds, 0.99);
    new (board) Board{};
    rawLatency(rounds, oneCpu);
    const double raw = at(board->latencies, rounds, 0.5);
    std::printf(
        "one change seen in another process, %s: p50 %.1f us, p99 %.1f us; raw relay p50 "
        "%.1f us: %.2f times\n",
        oneCpu ? "one CPU" : "two CPUs", p50 * 1e6, p99 * 1e6, raw * 1e6, p50 / raw);
  }
}

}  // namespace

int main() {
  void* shared =
      mmap(nullptr, sizeof(Board), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
  if (shared == MAP_FAILED) fail("mmap");
  board = new (shared) Board{};
  const bool small = isSmall();
  if (!small) warmMemory(512);
  // A loop does not survive a fork: what has none of its own is last.
  oneChange(small ? 200 : 20'000);
  new (board) Board{};
  attach(small ? 10'000 : 1'000'000);
  inOneProcess(small ? 10'000 : 1'000'000);
}
