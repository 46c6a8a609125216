// The activity lock: errors, order, hand-over by the loop.
#include "platform/activity/lock.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cerrno>
#include <thread>
#include <vector>

#include "platform/activity/activity.h"
#include "platform/activity/task.h"

namespace ryx::platform {
namespace {

// Waits, without the clock, until `done` holds.
template <class F>
void waitFor(F done) {
  while (!done()) std::this_thread::yield();
}

TEST(ActivityLock, ReportsMisuse) {
  ActivityLock lock;
  EXPECT_EQ(EPERM, lock.unlock());
  EXPECT_FALSE(lock.held());
  ASSERT_EQ(0, lock.lock());
  EXPECT_TRUE(lock.heldByCaller());
  EXPECT_EQ(EDEADLK, lock.lock());
  std::thread([&] {
    EXPECT_TRUE(lock.held());
    EXPECT_FALSE(lock.heldByCaller());
    EXPECT_EQ(EPERM, lock.unlock());
  }).join();
  EXPECT_EQ(0, lock.unlock());
  EXPECT_EQ(EPERM, lock.unlock());
  // A refused lock() took no place in the line.
  ASSERT_EQ(0, lock.lock());
  EXPECT_EQ(0u, lock.waiters());
  EXPECT_EQ(0, lock.unlock());
}

TEST(ActivityLock, IsTakenInTheOrderOfArrival) {
  constexpr uint32_t kThreads = 40;  // more than there are wake-up bits
  ActivityLock lock;
  std::vector<uint32_t> order;
  std::vector<std::thread> threads;
  ASSERT_EQ(0, lock.lock());
  for (uint32_t i = 0; i < kThreads; ++i) {
    threads.emplace_back([&, i] {
      EXPECT_EQ(0, lock.lock());
      order.push_back(i);
      EXPECT_EQ(0, lock.unlock());
    });
    waitFor([&] { return lock.waiters() == i + 1; });
  }
  ASSERT_EQ(0, lock.unlock());
  for (std::thread& thread : threads) thread.join();
  ASSERT_EQ(kThreads, order.size());
  for (uint32_t i = 0; i < kThreads; ++i) EXPECT_EQ(i, order[i]);
}

TEST(ActivityLock, ExcludesUnderContention) {
  ActivityLock lock;
  int64_t count = 0;
  std::vector<std::thread> threads;
  for (int i = 0; i < 4; ++i)
    threads.emplace_back([&] {
      for (int n = 0; n < 20'000; ++n) {
        ActivityLockGuard guard(lock);
        ++count;
      }
    });
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(80'000, count);
  EXPECT_FALSE(lock.held());
}

TEST(ActivityLock, GuardsNestAndKeepTheFlag) {
  ActivityLock lock;
  {
    ActivityLockGuard outer(lock);
    EXPECT_TRUE(lock.heldFlag());
    {
      ActivityLockGuard inner(lock);
      EXPECT_TRUE(lock.heldByCaller());
    }
    EXPECT_TRUE(lock.heldByCaller());
    EXPECT_TRUE(lock.heldFlag());
    lock.heldFlagIs(false);
    {
      ActivityLockGuard inner(lock);
      EXPECT_TRUE(lock.heldFlag());
    }
    EXPECT_FALSE(lock.heldFlag());
    lock.heldFlagIs(true);
    {
      ActivityUnlockGuard away(lock);
      EXPECT_FALSE(lock.held());
      std::thread([&] {
        ActivityLockGuard other(lock);
        EXPECT_TRUE(lock.heldFlag());
      }).join();
    }
    EXPECT_TRUE(lock.heldByCaller());
    EXPECT_TRUE(lock.heldFlag());
  }
  EXPECT_FALSE(lock.held());
  EXPECT_FALSE(lock.heldFlag());
}

// Four threads that keep taking the lock and a task that is always ready. Whoever has the lock
// waits until all others stand in line for it; then each thread and the loop must get it in turn.
TEST(ActivityLock, TheBusyLoopHandsOverByTurns) {
  constexpr uint32_t kThreads = 4;
  constexpr uint64_t kRounds = 200;
  struct Busy : Task {
    Busy() : Task("busy") {}
    bool run(Slice&) override {
      ++runs;
      return true;
    }
    uint64_t runs = 0;
  } busy;
  ActivityLock& lock = activity().lock();
  uint64_t counts[kThreads] = {};
  uint32_t left = kThreads;
  std::vector<std::thread> threads;
  const uint64_t handOvers = activity().counters().handOvers;
  {
    ActivityLockGuard guard(lock);
    busy.wake();
    for (uint32_t i = 0; i < kThreads; ++i) {
      threads.emplace_back([&, i] {
        for (uint64_t n = 1; n <= kRounds; ++n) {
          ActivityLockGuard inner(lock);
          counts[i] = n;
          if (left != kThreads) continue;
          waitFor([&] { return lock.waiters() == kThreads; });
          EXPECT_GE(busy.runs + 1, n);
          for (const uint64_t count : counts) {
            EXPECT_GE(count + 1, n);
            EXPECT_LE(count, n);
          }
          if (n == kRounds) left = 0;
        }
      });
      waitFor([&] { return lock.waiters() == i + 1; });
    }
    while (left != 0) activity().run(0);
  }
  for (std::thread& thread : threads) thread.join();
  EXPECT_GE(activity().counters().handOvers - handOvers, kRounds - 1);
  for (const uint64_t count : counts) EXPECT_EQ(kRounds, count);
}

TEST(ActivityLock, TheLoopLetsGoWhileItWaits) {
  struct Stop : Task {
    Stop() : Task("stop") {}
    bool run(Slice&) override {
      EXPECT_TRUE(activity().lock().heldByCaller());
      EXPECT_TRUE(activity().lock().heldFlag());
      activity().executionTimeIs(0);
      return false;
    }
  } stop;
  const uint64_t waits = activity().counters().waits;
  std::thread other([&] {
    // Gets the lock although the loop runs for ever with nothing to do.
    waitFor([&] {
      ActivityLockGuard guard(activity().lock());
      return activity().counters().waits > waits;
    });
    ActivityLockGuard guard(activity().lock());
    EXPECT_TRUE(activity().running());
    stop.wake();
  });
  activity().run();
  EXPECT_FALSE(activity().lock().heldByCaller());
  other.join();
  EXPECT_FALSE(activity().lock().held());
  ActivityLockGuard guard(activity().lock());
  activity().executionTimeIs(Timer::kNever);
}

}  // namespace
}  // namespace ryx::platform
