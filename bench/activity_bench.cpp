// What the loop costs: a task from its wake() to its run, a timer armed among 100,000, the lock.
// Each figure stands beside its target, in nanoseconds.
#include <benchmark/benchmark.h>

#include <memory>
#include <random>
#include <string>
#include <vector>

#include "platform/activity/activity.h"
#include "platform/base/clock.h"

namespace ryx::platform {
namespace {

constexpr int kTimers = 100'000;

void target(benchmark::State& state, int nanoseconds) {
  state.SetLabel("target " + std::to_string(nanoseconds) + " ns");
}

struct CountingTask final : Task {
  CountingTask() : Task("bench") {}
  bool run(Slice&) override {
    ++runs;
    return false;
  }
  uint64_t runs = 0;
};

// One task, woken and run by a run(0) of its own.
void taskWakeToRunAlone(benchmark::State& state) {
  CountingTask task;
  for (auto _ : state) {
    task.wake();
    activity().run(0);
  }
  benchmark::DoNotOptimize(task.runs);
  target(state, 100);
}
BENCHMARK(taskWakeToRunAlone);

// As above inside a callback.
void taskWakeToRunNested(benchmark::State& state) {
  struct Driver final : Task {
    explicit Driver(benchmark::State& s) : Task("driver"), benchmarkState(s) {}
    bool run(Slice&) override {
      CountingTask task;
      for (auto _ : benchmarkState) {
        task.wake();
        activity().run(0);
      }
      benchmark::DoNotOptimize(task.runs);
      return false;
    }
    benchmark::State& benchmarkState;
  } driver(state);
  driver.wake();
  activity().run(0);
  target(state, 100);
}
BENCHMARK(taskWakeToRunNested);

// Many tasks woken, then run.
void taskWakeToRunOfMany(benchmark::State& state) {
  std::vector<CountingTask> tasks(static_cast<size_t>(state.range(0)));
  while (state.KeepRunningBatch(state.range(0))) {
    for (CountingTask& task : tasks) task.wake();
    activity().run(0);
  }
  target(state, 100);
}
BENCHMARK(taskWakeToRunOfMany)->Arg(1000)->Arg(100'000);

struct IdleTimer final : Timer {
  void onTimer() override {}
};

struct Timers {
  Timers() : start(clock().now() + 1000), timers(kTimers), order(kTimers) {
    for (IdleTimer& timer : timers) timer.armAt(when());
    for (uint32_t& index : order) index = static_cast<uint32_t>(random() % kTimers);
  }
  double when() { return start + static_cast<double>(random() % 60'000'000) * 1e-6; }
  std::mt19937 random{1};
  double start;
  std::vector<IdleTimer> timers;
  std::vector<uint32_t> order;
};

// A random one of 100,000 timers to a random time of the next minute, as time passes. The times are
// drawn beforehand.
void timerRearmRandom(benchmark::State& state) {
  Timers all;
  std::vector<double> times(kTimers);
  for (double& time : times) time = all.when();
  const double step = 60.0 / kTimers;
  double now = 0;
  size_t i = 0;
  for (auto _ : state) {
    all.timers[all.order[i]].armAt(now + times[(i + 7) % kTimers]);
    now += step / 10;
    if (++i == kTimers) i = 0;
  }
  target(state, 60);
}
BENCHMARK(timerRearmRandom);

// A time-out that every packet pushes back.
void timerRearmLater(benchmark::State& state) {
  Timers all;
  double time = all.start + 60;
  size_t i = 0;
  for (auto _ : state) {
    all.timers[all.order[i]].armAt(time);
    time += 1e-6;
    if (++i == kTimers) i = 0;
  }
  target(state, 60);
}
BENCHMARK(timerRearmLater);

// A disarmed timer armed, and disarmed again, with 100,000 armed.
void timerArmAndDisarm(benchmark::State& state) {
  Timers all;
  IdleTimer timer;
  std::vector<double> times(kTimers);
  for (double& time : times) time = all.when();
  size_t i = 0;
  for (auto _ : state) {
    timer.armAt(times[i]);
    timer.disarm();
    if (++i == kTimers) i = 0;
  }
  target(state, 60);
}
BENCHMARK(timerArmAndDisarm);

// New timers, 100,000 of them armed already: construction, arming, destruction.
void timerNewArmed(benchmark::State& state) {
  Timers all;
  std::vector<double> times(kTimers);
  for (double& time : times) time = all.when();
  size_t i = 0;
  for (auto _ : state) {
    IdleTimer timer;
    timer.armAt(times[i]);
    if (++i == kTimers) i = 0;
  }
  target(state, 60);
}
BENCHMARK(timerNewArmed);

// 100,000 armed timers fired, on the virtual clock; no target.
void timerArmedToFired(benchmark::State& state) {
  VirtualClock time;
  Timers all;
  activity().run(100'000);
  while (state.KeepRunningBatch(kTimers)) {
    const double start = time.now();
    for (IdleTimer& timer : all.timers)
      timer.armAt(start + static_cast<double>(all.random() % 1'000'000));
    time.advance(1'000'000);
    activity().run(0);
  }
  state.SetLabel("no target");
}
BENCHMARK(timerArmedToFired);

void lockAndUnlock(benchmark::State& state) {
  ActivityLock& lock = activity().lock();
  for (auto _ : state) {
    benchmark::DoNotOptimize(lock.lock());
    lock.unlock();
  }
  target(state, 20);
}
BENCHMARK(lockAndUnlock);

// The guard that a nested call takes.
void lockGuardHeldAlready(benchmark::State& state) {
  ActivityLockGuard outer(activity().lock());
  for (auto _ : state) ActivityLockGuard inner(activity().lock());
  target(state, 20);
}
BENCHMARK(lockGuardHeldAlready);

}  // namespace
}  // namespace ryx::platform

BENCHMARK_MAIN();
