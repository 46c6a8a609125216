// The loop: tasks, turns, runs inside runs, exceptions, descriptors, and a loop of the program's
// own.
#include "platform/activity/activity.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <functional>
#include <memory>
#include <random>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "platform/activity/timer.h"
#include "platform/base/clock.h"
#include "platform/trace/trace.h"

namespace ryx::platform {
namespace {

struct CallTask : Task {
  using Call = std::function<bool(Slice&)>;
  explicit CallTask(Call c, Order order = Order::normal) : Task("test task", order), call(c) {}
  explicit CallTask(std::function<void()> c, Order order = Order::normal)
      : Task("test task", order), call([c = std::move(c)](Slice&) { return c(), false; }) {}
  bool run(Slice& slice) override {
    const Call copy = call;  // the task may destroy itself
    return copy(slice);
  }
  Call call;
};

struct CallTimer : Timer {
  explicit CallTimer(std::function<void()> f) : call(std::move(f)) {}
  void onTimer() override { call(); }
  std::function<void()> call;
};

struct CallDescriptor : Descriptor {
  using Call = std::function<void()>;
  explicit CallDescriptor(
      int fd, Call r = [] {}, Call w = [] {}, Call x = [] {})
      : Descriptor(fd, "test descriptor"), readable(r), writable(w), exception(x) {}
  void onReadable() override { callCopy(readable); }
  void onWritable() override { callCopy(writable); }
  void onException() override { callCopy(exception); }
  // The callback may destroy the object.
  static void callCopy(Call call) { call(); }
  Call readable;
  Call writable;
  Call exception;
};

// A file descriptor, closed at the end.
class Fd {
 public:
  explicit Fd(int fd = -1) : fd_(fd) {}
  Fd(Fd&& other) noexcept : fd_(other.release()) {}
  Fd& operator=(Fd&& other) noexcept {
    reset(other.release());
    return *this;
  }
  ~Fd() { reset(); }
  operator int() const { return fd_; }
  int release() { return std::exchange(fd_, -1); }
  void reset(int fd = -1) {
    if (fd_ >= 0) ::close(fd_);
    fd_ = fd;
  }

 private:
  int fd_;
};

struct Pair {
  explicit Pair(bool sockets = false) {
    int fds[2];
    const int failed = sockets ? ::socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK, 0, fds)
                               : ::pipe2(fds, O_NONBLOCK);
    EXPECT_EQ(0, failed);
    in.reset(fds[0]);
    out.reset(fds[1]);
  }
  void write(const std::string& text = "x") const {
    EXPECT_EQ(static_cast<ssize_t>(text.size()), ::write(out, text.data(), text.size()));
  }
  bool read() const {
    char byte;
    return ::read(in, &byte, 1) == 1;
  }
  Fd in;
  Fd out;
};

bool readable(int fd) {
  pollfd look{fd, POLLIN, 0};
  return ::poll(&look, 1, 0) == 1;
}

class ActivityTest : public testing::Test {
 protected:
  void TearDown() override {
    EXPECT_EQ(0u, activity().queued());
    EXPECT_FALSE(activity().running());
    EXPECT_FALSE(activity().lock().held());
    EXPECT_TRUE(activity().descriptors().empty());
    EXPECT_EQ(Timer::kNever, activity().nextWakeUp());
    activity().executionTimeIs(Timer::kNever);
    activity().zeroRunTurnsIs(Activity::kZeroRunTurns);
    activity().stopOnQuiesceIs(false);
  }
  const ActivityCounters& counters = activity().counters();
  VirtualClock time;
};

// ---- tasks and runs ----

TEST_F(ActivityTest, TasksRunOnceInOrder) {
  std::string order;
  CallTask c([&] { order += 'c'; }, Task::Order::normal);
  CallTask b([&] { order += 'b'; }, Task::Order::second);
  CallTask d([&] { order += 'd'; }, Task::Order::normal);
  CallTask a(
      [&] {
        order += 'a';
        EXPECT_FALSE(a.queued());
        EXPECT_TRUE(activity().lock().heldByCaller());
        EXPECT_TRUE(activity().lock().heldFlag());
      },
      Task::Order::first);
  for (Task* task : {&c, &d, &b, &a, &c}) task->wake();
  EXPECT_EQ("", order);
  EXPECT_EQ(4u, activity().queued());
  activity().run(0);
  EXPECT_EQ("abcd", order);
}

TEST_F(ActivityTest, ZeroRunDoesAllThatFollows) {
  int left = 5000;
  CallTask two([] {});
  CallTask one([&] { two.wake(); });
  two.call = [&](Slice&) {
    if (--left != 0) one.wake();
    return false;
  };
  one.wake();
  activity().run(0);
  EXPECT_EQ(0, left);
  EXPECT_EQ(1000, time.now());
}

TEST_F(ActivityTest, TaskThatMarksItselfCannotHangARun) {
  int runs = 0;
  CallTask task([&](Slice&) { return ++runs, true; });
  CallTask other([] {});
  other.call = [&](Slice&) {
    other.wake();
    return false;
  };
  task.wake();
  other.wake();
  const uint64_t cut = counters.zeroRunsCut;
  activity().zeroRunTurnsIs(50);
  activity().run(0);
  EXPECT_EQ(50, runs);
  EXPECT_EQ(cut + 1, counters.zeroRunsCut);
  EXPECT_TRUE(task.queued());
  EXPECT_TRUE(readable(activity().nudgeDescriptor()));

  // Nor one that has an end, nor one on a clock that stands still.
  const uint64_t skips = counters.busyTimeSkips;
  activity().run(7);
  EXPECT_EQ(1007, time.now());
  EXPECT_GT(counters.busyTimeSkips, skips);
}

TEST_F(ActivityTest, LongListIsSlicedAndTimersAndDescriptorsGoOn) {
  constexpr int kItems = 50'000;
  constexpr int kSlices = kItems / static_cast<int>(Slice::kItems);
  int done = 0;
  CallTask list([&](Slice& slice) {
    while (done < kItems) {
      ++done;
      if (slice.spent()) return true;
    }
    return false;
  });
  int others = 0;
  CallTask other([&](Slice&) { return ++others, done < kItems; });
  int timers = 0;
  std::vector<int> doneAtTimer;
  CallTimer timer([] {});
  timer.call = [&] {
    ++timers;
    doneAtTimer.push_back(done);
    if (done < kItems) timer.armAt(0);
  };
  Pair pipe;
  pipe.write();
  CallDescriptor descriptor(pipe.in);  // never drained
  descriptor.readableInterestIs(true);
  timer.armAt(0);
  list.wake();
  other.wake();
  activity().run(0);
  EXPECT_EQ(kItems, done);
  EXPECT_GE(timers, kSlices);
  EXPECT_GE(others, kSlices);
  EXPECT_GE(descriptor.count(DescriptorEvent::readable), static_cast<uint64_t>(kSlices));
  for (size_t i = 1; i < doneAtTimer.size(); ++i)
    EXPECT_LE(doneAtTimer[i] - doneAtTimer[i - 1], static_cast<int>(Slice::kItems));
  timer.disarm();
}

TEST_F(ActivityTest, SliceEndsAfterAMillisecond) {
  for (const double item : {0.0004, 0.002}) {
    std::vector<int> slices;
    int left = 100;
    CallTask slow([&](Slice& slice) {
      slices.push_back(0);
      while (left != 0) {
        --left;
        ++slices.back();
        time.advance(item);
        if (!slice.spent()) continue;
        EXPECT_TRUE(slice.spent());  // and stays so
        return true;
      }
      return false;
    });
    slow.wake();
    activity().run(0);
    for (const int items : slices) EXPECT_LE(items, item == 0.002 ? 1 : 6);
    EXPECT_EQ(0, left);
  }
}

TEST_F(ActivityTest, TasksAreDestroyedAnywhere) {
  int runs = 0;
  std::vector<std::unique_ptr<CallTask>> tasks(4);
  tasks[0] = std::make_unique<CallTask>([&](Slice&) {
    ++runs;
    tasks[0].reset();  // itself
    tasks[1].reset();  // one that is queued
    return true;
  });
  tasks[1] = std::make_unique<CallTask>([&] { ++runs; });
  tasks[2] = std::make_unique<CallTask>([&](Slice&) {
    ++runs;
    tasks[2]->wake();
    activity().run(0);
    return true;
  });
  tasks[3] = std::make_unique<CallTask>([&] {
    ++runs;
    tasks[2].reset();  // runs, further out
  });
  for (auto& task : tasks) task->wake();
  activity().run(0);
  EXPECT_EQ(3, runs);
}

TEST_F(ActivityTest, ExceptionLeavesRunAndTheRestStays) {
  int later = 0;
  bool thrown = false;
  CallTask thrower([&](Slice&) -> bool {
    if (std::exchange(thrown, true)) return false;
    throw std::runtime_error("task");
  });
  CallTask next([&] { ++later; });
  thrower.wake();
  next.wake();
  EXPECT_THROW(activity().run(0), std::runtime_error);
  EXPECT_FALSE(activity().running());
  EXPECT_FALSE(activity().lock().held());
  EXPECT_FALSE(activity().lock().heldFlag());
  EXPECT_EQ(0, later);
  EXPECT_TRUE(thrower.queued());  // what it had left is not lost
  EXPECT_TRUE(readable(activity().nudgeDescriptor()));
  activity().run(0);
  EXPECT_EQ(1, later);

  // Through a run inside a callback, with the lock held outside.
  ActivityLockGuard guard(activity().lock());
  CallTask inner([&](Slice&) -> bool { throw std::runtime_error("inner"); });
  CallTask outer([&] {
    EXPECT_THROW(activity().run(0), std::runtime_error);
    EXPECT_TRUE(activity().running());
    throw std::logic_error("outer");
  });
  outer.wake();
  inner.wake();
  EXPECT_THROW(activity().run(1), std::logic_error);
  EXPECT_TRUE(activity().lock().heldByCaller());
  EXPECT_TRUE(activity().lock().heldFlag());
  EXPECT_EQ(2u, activity().queued());
}

TEST_F(ActivityTest, RunsNest) {
  std::string order;
  CallTask last([&] { order += 'c'; });
  CallTask middle([&] {
    order += 'b';
    last.wake();
  });
  CallTimer timer([&] { order += 't'; });
  CallTask first([&] {
    order += 'a';
    middle.wake();
    activity().run(0);
    EXPECT_EQ("abc", order);
    timer.armAt(time.now() + 2);
    activity().run(3);
    EXPECT_EQ("abct", order);
    order += 'd';
  });
  first.wake();
  activity().run(0);
  EXPECT_EQ("abctd", order);
  EXPECT_EQ(1003, time.now());
}

// A task that wakes itself before it calls out: a run inside the call does the rest of its list.
TEST_F(ActivityTest, NestedRunGetsOnWithAListInProgress) {
  int left = 5;
  CallTask list([] {});
  list.call = [&](Slice&) {
    while (left != 0) {
      if (--left != 0) list.wake();
      activity().run(0);
      EXPECT_EQ(0, left);
    }
    return false;
  };
  list.wake();
  activity().run(0);
}

TEST_F(ActivityTest, NestingIsBounded) {
  constexpr int kTasks = 3 * Activity::kNestedRuns;
  int runs = 0;
  int depth = 0;
  int deepest = 0;
  std::vector<std::unique_ptr<CallTask>> tasks;
  for (int i = 0; i < kTasks; ++i) {
    tasks.push_back(std::make_unique<CallTask>([&] {
      ++runs;
      deepest = std::max(deepest, ++depth);
      activity().run(0);
      --depth;
    }));
    tasks.back()->wake();
  }
  const uint64_t refused = counters.nestedRunsRefused;
  activity().run(0);
  EXPECT_EQ(kTasks, runs);
  EXPECT_EQ(Activity::kNestedRuns, deepest);
  EXPECT_GT(counters.nestedRunsRefused, refused);
}

TEST_F(ActivityTest, StopEndsEveryRunAndKeepsTheQueue) {
  int runs = 0;
  CallTask after([&] { ++runs; });
  CallTask inner([&] {
    after.wake();
    activity().executionTimeIs(0);
    activity().run(0);  // leaving: what is pending is still done
    EXPECT_EQ(1, runs);
    after.wake();
  });
  CallTask outer([&] {
    inner.wake();
    activity().run(100);
    EXPECT_EQ(1000, time.now());
    EXPECT_EQ(1, runs);
  });
  outer.wake();
  activity().run();
  EXPECT_EQ(1000, time.now());
  EXPECT_TRUE(after.queued());
  activity().run();  // for a time of 0: works off what is pending
  EXPECT_EQ(2, runs);
}

TEST_F(ActivityTest, VirtualTimePassesWhereTheLoopWouldWait) {
  std::vector<double> ticks;
  CallTimer tick([] {});
  tick.call = [&] {
    ticks.push_back(time.now());
    tick.armAt(time.now() + 200);
  };
  tick.armAt(1200);
  const uint64_t waits = counters.waits;
  activity().run(600);
  EXPECT_EQ((std::vector<double>{1200, 1400, 1600}), ticks);
  EXPECT_EQ(1600, time.now());
  EXPECT_EQ(waits, counters.waits);
  activity().stopOnQuiesceIs(true);
  activity().run(1000);
  EXPECT_EQ(1600, time.now());
  tick.disarm();
}

TEST_F(ActivityTest, CallbackThatHoldsTheLoopIsTracedByName) {
  TraceFacility::named("RyxActivity").enabledIs(0, true);
  CallTask slow([&] { time.advance(0.2); });
  CallTask patient([&] { activity().run(5); });  // did not hold it
  CallTimer timer([&] { time.advance(0.5); });
  const uint64_t before = counters.slowCallbacks;
  slow.wake();
  patient.wake();
  timer.armAt(1003);
  testing::internal::CaptureStderr();
  activity().run(0);
  const std::string text = testing::internal::GetCapturedStderr();
  TraceFacility::named("RyxActivity").enabledIs(0, false);
  EXPECT_EQ(before + 2, counters.slowCallbacks);
  EXPECT_NE(std::string::npos, text.find("The task \"test task\" held the loop for 0.2 seconds"))
      << text;
  EXPECT_NE(std::string::npos, text.find("The timer \"timer\" held the loop for 0.5 seconds"))
      << text;
}

TEST_F(ActivityTest, WorkMarkedOutsideNudges) {
  activity().run(0);
  CallTask task([] {});
  task.wake();
  const int nudge = activity().nudgeDescriptor();
  EXPECT_TRUE(readable(nudge));  // whenever it is asked for
  activity().run(0);
  EXPECT_FALSE(readable(nudge));
  std::thread([&] {
    ActivityLockGuard guard(activity().lock());
    task.wake();
  }).join();
  EXPECT_TRUE(readable(nudge));
  activity().run(0);
  EXPECT_FALSE(readable(nudge));

  // What a callback marks is done in the same run: no nudge.
  CallTask marker([&] {
    task.wake();
    EXPECT_FALSE(readable(nudge));
  });
  marker.wake();
  activity().run(0);
  EXPECT_FALSE(readable(nudge));
  // A queued task that is destroyed leaves a nudge for nothing, which does no harm.
  std::make_unique<CallTask>([] { FAIL(); })->wake();
  activity().run(0);
  EXPECT_FALSE(readable(nudge));
}

// Random tasks whose callbacks wake and destroy others and run the loop: the order is that of three
// plain lists.
TEST_F(ActivityTest, OrderIsThatOfThreeLists) {
  constexpr int kTasks = 30;
  for (uint32_t seed = 1; seed <= 200 && !HasFailure(); ++seed) {
    SCOPED_TRACE(testing::Message() << "seed " << seed);
    std::mt19937 random(seed);
    std::vector<std::unique_ptr<CallTask>> tasks(kTasks);
    std::vector<int> lists[Task::kOrders];
    int births[kTasks] = {};
    int budget = 300;
    std::function<void(int)> change;
    const auto orderOf = [](int i) { return i % Task::kOrders; };
    const auto take = [&](int i) {
      auto& list = lists[orderOf(i)];
      list.erase(std::remove(list.begin(), list.end(), i), list.end());
    };
    const auto make = [&](int i) {
      tasks[i] = std::make_unique<CallTask>(
          [&, i, birth = ++births[i]](Slice&) {
            int order = 0;
            while (order < Task::kOrders - 1 && lists[order].empty()) ++order;
            EXPECT_FALSE(lists[order].empty());
            EXPECT_EQ(i, lists[order].front());
            if (testing::Test::HasFailure()) return false;
            take(i);
            for (auto n = random() % 4; n != 0; --n) change(static_cast<int>(random() % kTasks));
            const bool more = random() % 8 == 0 && budget-- > 0;
            // Gone, or queued again already: then more adds nothing.
            const auto& list = lists[orderOf(i)];
            const bool queued = std::find(list.begin(), list.end(), i) != list.end();
            if (more && !queued && tasks[i] && births[i] == birth) lists[orderOf(i)].push_back(i);
            return more;
          },
          static_cast<Task::Order>(orderOf(i)));
    };
    change = [&](int i) {
      if (budget-- <= 0) return;
      switch (random() % 12) {
        case 0:
          take(i);
          tasks[i].reset();
          break;
        case 1:
          activity().run(0);
          break;
        default:
          if (!tasks[i]) make(i);
          if (!tasks[i]->queued()) lists[orderOf(i)].push_back(i);
          tasks[i]->wake();
      }
    };
    // one.
    while (budget > 0) {
      change(static_cast<int>(random() % kTasks));
      if (random() % 4 == 0) activity().run(0);
    }
    activity().run(0);
    for (const auto& list : lists) EXPECT_TRUE(list.empty());
  }
}

// ---- the system's clock: real waits that an event ends ----

TEST(ActivityWait, EndsAtTheTimerAndAtTheEnd) {
  bool fired = false;
  CallTimer timer([&] { fired = true; });
  const double start = clock().now();
  timer.armAt(start + 0.01);
  activity().run(0.02);
  EXPECT_TRUE(fired);
  EXPECT_GE(clock().now(), start + 0.02);
}

TEST(ActivityWait, OtherThreadsWakeTheLoop) {
  const uint64_t waits = activity().counters().waits;
  Pair pipe;
  int heard = 0;
  std::unique_ptr<CallDescriptor> descriptor;
  CallTimer stop([] { activity().executionTimeIs(0); });
  CallTask task([&] {
    ++heard;
    // An interest and a timer that come while the loop runs are waited for.
    descriptor = std::make_unique<CallDescriptor>(pipe.in);
    descriptor->readable = [&] {
      ++heard;
      pipe.read();
    };
    descriptor->readableInterestIs(true);
  });
  std::thread other([&] {
    const auto whenWaiting = [&](uint64_t more, auto&& act) {
      for (;; std::this_thread::yield()) {
        ActivityLockGuard guard(activity().lock());
        if (activity().counters().waits < waits + more) continue;
        act();
        return;
      }
    };
    whenWaiting(1, [&] { task.wake(); });
    whenWaiting(2, [&] { pipe.write(); });
    whenWaiting(3, [&] { stop.armAt(0); });
  });
  activity().run();
  other.join();
  EXPECT_EQ(2, heard);
  descriptor.reset();
  activity().executionTimeIs(Timer::kNever);
}

TEST(ActivityWait, TwoThreadsMayRunTheLoop) {
  int runs = 0;
  CallTask task([&] { ++runs; });
  const uint64_t waits = activity().counters().waits;
  std::thread threads[] = {std::thread([] { activity().run(); }),
                           std::thread([] { activity().run(); })};
  const auto when = [](auto&& holds, auto&& act) {
    for (;; std::this_thread::yield()) {
      ActivityLockGuard guard(activity().lock());
      if (!holds()) continue;
      act();
      return;
    }
  };
  when([&] { return activity().counters().waits >= waits + 2; }, [&] { task.wake(); });
  when([&] { return runs == 1; }, [] { activity().executionTimeIs(0); });
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(1, runs);
  activity().executionTimeIs(Timer::kNever);
}

// ---- descriptors ----

TEST_F(ActivityTest, DescriptorsHearOfReadinessWhileItLasts) {
  Pair sockets(true);
  std::string heard;
  CallDescriptor end(
      sockets.in, [&] { heard += 'r'; }, [&] { heard += 'w'; });
  activity().run(0);
  EXPECT_EQ("", heard);
  end.writableInterestIs(true);
  activity().run(0);
  EXPECT_EQ("w", heard);
  end.readableInterestIs(true);
  sockets.write();
  activity().run(0);
  EXPECT_EQ("wrw", heard);
  end.writableInterestIs(false);
  activity().run(0);  // nobody read
  EXPECT_EQ("wrwr", heard);
  sockets.read();
  activity().run(0);
  EXPECT_EQ("wrwr", heard);
  EXPECT_EQ(2u, end.count(DescriptorEvent::readable));
  EXPECT_EQ(2u, end.count(DescriptorEvent::writable));
  EXPECT_EQ(0u, end.count(DescriptorEvent::exception));
  // Off and on again within a turn.
  sockets.write();
  end.readableInterestIs(false);
  end.readableInterestIs(true);
  activity().run(0);
  EXPECT_EQ("wrwrr", heard);
}

TEST_F(ActivityTest, HangUpReachesWhoeverListens) {
  std::string heard;
  const auto listen = [&](CallDescriptor& descriptor) {
    heard.clear();
    activity().run(0);
    descriptor.readableInterestIs(false);
    descriptor.writableInterestIs(false);
    descriptor.exceptionInterestIs(false);
    activity().run(0);
    return heard;
  };
  Pair reading;
  reading.out.reset();
  CallDescriptor reader(
      reading.in, [&] { heard += 'r'; }, [&] { heard += 'w'; }, [&] { heard += 'x'; });
  reader.readableInterestIs(true);
  reader.exceptionInterestIs(true);
  EXPECT_EQ("r", listen(reader));
  reader.exceptionInterestIs(true);
  EXPECT_EQ("x", listen(reader));
  Pair writing;
  writing.in.reset();
  CallDescriptor writer(
      writing.out, [&] { heard += 'r'; }, [&] { heard += 'w'; });
  writer.writableInterestIs(true);
  EXPECT_EQ("w", listen(writer));
}

TEST_F(ActivityTest, UrgentDataIsAnException) {
  Fd listener(::socket(AF_INET, SOCK_STREAM, 0));
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t size = sizeof address;
  auto* generic = reinterpret_cast<sockaddr*>(&address);
  if (::bind(listener, generic, size) != 0) GTEST_SKIP() << "no loopback interface";
  ASSERT_EQ(0, ::listen(listener, 1));
  ASSERT_EQ(0, ::getsockname(listener, generic, &size));
  Fd client(::socket(AF_INET, SOCK_STREAM, 0));
  ASSERT_EQ(0, ::connect(client, generic, size));
  Fd server(::accept(listener, nullptr, nullptr));
  int exceptions = 0;
  CallDescriptor descriptor(
      server, [] {}, [] {}, [&] { ++exceptions; });
  descriptor.exceptionInterestIs(true);
  activity().run(0);
  EXPECT_EQ(0, exceptions);
  ASSERT_EQ(1, ::send(client, "!", 1, MSG_OOB));
  pollfd arrival{server, POLLPRI, 0};
  ASSERT_EQ(1, ::poll(&arrival, 1, 10'000));
  activity().run(0);
  EXPECT_EQ(1, exceptions);
}

TEST_F(ActivityTest, ObjectsOfOneFdComeAndGoInCallbacks) {
  Pair pipe;
  pipe.write();
  std::string heard;
  std::unique_ptr<CallDescriptor> a, b, c, d;
  a = std::make_unique<CallDescriptor>(pipe.in, [&] {
    heard += 'a';
    b->readableInterestIs(false);
    c.reset();
    if (d) return;
    d = std::make_unique<CallDescriptor>(pipe.in, [&] { heard += 'd'; });  // hears of later events
    d->readableInterestIs(true);
  });
  b = std::make_unique<CallDescriptor>(pipe.in, [&] { heard += 'b'; });
  c = std::make_unique<CallDescriptor>(pipe.in, [&] { heard += 'c'; });
  for (auto* object : {&a, &b, &c}) (*object)->readableInterestIs(true);
  activity().run(0);
  EXPECT_EQ("a", heard);
  activity().run(0);
  EXPECT_EQ("aad", heard);
  const std::vector<DescriptorState> states = activity().descriptors();
  ASSERT_EQ(1u, states.size());
  EXPECT_EQ(pipe.in, states[0].fd);
  EXPECT_TRUE(states[0].readable);
  EXPECT_FALSE(states[0].writable);
  EXPECT_EQ(3u, states[0].readableCount);

  // The last ones go inside their own callbacks.
  a->readable = [&] {
    a.reset();
    b.reset();
  };
  d->readable = [&] { d.reset(); };
  activity().run(0);
  EXPECT_TRUE(activity().descriptors().empty());
}

TEST_F(ActivityTest, ExceptionOfADescriptorLeavesRun) {
  Pair one;
  Pair two;
  one.write();
  two.write();
  int heard = 0;
  CallDescriptor first(one.in, [&]() { one.read(), throw std::runtime_error("first"); });
  CallDescriptor second(two.in, [&] { two.read(), ++heard; });
  first.readableInterestIs(true);
  second.readableInterestIs(true);
  EXPECT_THROW(
      {
        activity().run(0);
        activity().run(0);
      },
      std::runtime_error);
  activity().run(0);
  EXPECT_EQ(1, heard);
}

TEST_F(ActivityTest, NestedRunLeavesTheDescriptorInCallbackAlone) {
  Pair one;
  Pair two;
  one.write();
  two.write();
  int depth = 0;
  int others = 0;
  CallDescriptor outer(one.in);
  outer.readable = [&] {
    EXPECT_EQ(1, ++depth);
    const uint64_t turns = counters.turns;
    activity().run(2);
    EXPECT_LT(counters.turns - turns, 10u);  // and does not spin for it
    EXPECT_TRUE(one.read());
    --depth;
  };
  CallDescriptor other(two.in, [&] { two.read(), ++others; });
  outer.readableInterestIs(true);
  other.readableInterestIs(true);
  activity().run(1);
  EXPECT_EQ(1, others);
  EXPECT_EQ(1u, outer.count(DescriptorEvent::readable));
  one.write();
  activity().run(1);
  EXPECT_EQ(2u, outer.count(DescriptorEvent::readable));
}

// What was found ready and is looked at late is not told when it is not ready any more.
TEST_F(ActivityTest, ReadinessIsNotToldStale) {
  std::vector<Pair> pipes(10);
  std::vector<std::unique_ptr<CallDescriptor>> descriptors;
  int heard = 0;
  CallTask drain([&] {
    for (const Pair& pipe : pipes) pipe.read();
  });
  for (const Pair& pipe : pipes) {
    pipe.write();
    descriptors.push_back(std::make_unique<CallDescriptor>(pipe.in, [&] {
      ++heard;
      time.advance(0.01);  // the slice is spent: the task is next
    }));
    descriptors.back()->readableInterestIs(true);
  }
  drain.wake();
  activity().run(0);
  EXPECT_EQ(1, heard);
}

TEST_F(ActivityTest, RegularFileIsAlwaysReady) {
  Fd file(::open(".", O_TMPFILE | O_RDWR, 0600));
  if (file < 0) file.reset(::open("/proc/self/exe", O_RDONLY));
  ASSERT_GE(file, 0);
  CallDescriptor descriptor(file);
  descriptor.readableInterestIs(true);
  activity().run(0);
  activity().run(0);
  EXPECT_EQ(2u, descriptor.count(DescriptorEvent::readable));
  EXPECT_EQ(0u, descriptor.count(DescriptorEvent::writable));
  // Closed under our feet: told once, then left alone.
  const uint64_t closed = counters.closedDescriptors;
  file.reset();
  activity().run(5);
  EXPECT_EQ(closed + 1, counters.closedDescriptors);
  EXPECT_EQ(2u, descriptor.count(DescriptorEvent::readable));
}

TEST_F(ActivityTest, ClosedFdIsTracedOnceAndDropped) {
  const uint64_t closed = counters.closedDescriptors;
  const uint64_t turns = counters.turns;
  TraceFacility::named("RyxActivity").enabledIs(0, true);
  testing::internal::CaptureStderr();  // opens files of its own
  Pair other;
  Pair pipe;
  const int fd = pipe.in;
  pipe.in.reset();
  CallDescriptor descriptor(fd, [] { FAIL(); });
  descriptor.readableInterestIs(true);
  activity().run(1);
  activity().run(1);
  const std::string text = testing::internal::GetCapturedStderr();
  TraceFacility::named("RyxActivity").enabledIs(0, false);
  EXPECT_EQ(closed + 1, counters.closedDescriptors);
  EXPECT_LT(counters.turns - turns, 10u);
  EXPECT_NE(std::string::npos, text.find("Fd " + std::to_string(fd) + " (test descriptor)"));
  EXPECT_EQ(1, std::count(text.begin(), text.end(), '\n')) << text;
  EXPECT_TRUE(activity().descriptors()[0].readable);  // the interest stays

  // Set anew, it is tried again: the number may name a file by now.
  int heard = 0;
  descriptor.readable = [&] { ++heard; };
  Fd again(::dup2(other.in, fd));
  other.write();
  descriptor.readableInterestIs(false);
  descriptor.readableInterestIs(true);
  activity().run(0);
  EXPECT_EQ(1, heard);
}

TEST_F(ActivityTest, NumberIsUsedAgainWithoutUnwatching) {
  Pair first;
  Pair second;
  const int fd = first.in;
  CallDescriptor old(fd);
  old.readableInterestIs(true);
  activity().run(0);
  first.in.reset();
  Fd again(::dup2(second.in, fd));
  CallDescriptor fresh(fd);
  fresh.readableInterestIs(true);
  second.write();
  activity().run(0);
  EXPECT_EQ(1u, fresh.count(DescriptorEvent::readable));
}

// A file that is closed but lives on in another descriptor (another process, mostly) cannot be
// taken out of the epoll set by its old number.
TEST_F(ActivityTest, ClosedFileThatLivesOnIsGotRidOf) {
  Pair pipe;
  Fd copy(::dup(pipe.in));
  Pair other;
  int heard = 0;
  CallDescriptor bystander(other.in, [&] { other.read(), ++heard; });
  bystander.readableInterestIs(true);
  {
    CallDescriptor descriptor(pipe.in, [] { FAIL(); });
    descriptor.readableInterestIs(true);
    activity().run(0);
    pipe.in.reset();
  }
  pipe.write();
  const uint64_t rebuilt = counters.pollSetsRebuilt;
  const uint64_t turns = counters.turns;
  activity().run(1);
  other.write();
  activity().run(1);
  EXPECT_EQ(rebuilt + 1, counters.pollSetsRebuilt);
  EXPECT_LT(counters.turns - turns, 20u);
  EXPECT_EQ(1, heard);
}

TEST_F(ActivityTest, EpollSetItselfCannotBeWatched) {
  // Of its kinds of refusal, the one that a test can cause: a descriptor for which epoll says
  // EINVAL or ELOOP stays on the list and is counted once.
  Pair probe;
  const int set = [] {
    for (int fd = 0; fd < 1024; ++fd) {
      char target[64] = {};
      const std::string link = "/proc/self/fd/" + std::to_string(fd);
      if (::readlink(link.c_str(), target, sizeof target - 1) > 0 &&
          std::string(target) == "anon_inode:[eventpoll]")
        return fd;
    }
    return -1;
  }();
  if (set < 0) GTEST_SKIP() << "the set is not open yet";
  CallDescriptor descriptor(set, [] { FAIL(); });
  const uint64_t refused = counters.refusedDescriptors;
  descriptor.readableInterestIs(true);
  activity().run(1);
  EXPECT_EQ(refused + 1, counters.refusedDescriptors);
}

TEST_F(ActivityTest, TenThousandDescriptors) {
  rlimit limit{};
  ASSERT_EQ(0, ::getrlimit(RLIMIT_NOFILE, &limit));
  limit.rlim_cur = limit.rlim_max;
  ASSERT_EQ(0, ::setrlimit(RLIMIT_NOFILE, &limit));
  const size_t wanted = std::min<size_t>(10'000, limit.rlim_cur - 100);
  RecordProperty("descriptors", static_cast<int>(wanted));
  std::vector<Fd> fds;
  std::vector<std::unique_ptr<CallDescriptor>> descriptors;
  size_t heard = 0;
  for (size_t i = 0; i < wanted; ++i) {
    fds.emplace_back(::eventfd(0, EFD_NONBLOCK));
    ASSERT_GE(fds.back(), 0);
    descriptors.push_back(std::make_unique<CallDescriptor>(fds.back()));
    descriptors.back()->readable = [&heard, fd = +fds.back()] {
      uint64_t value;
      EXPECT_EQ(8, ::read(fd, &value, 8));
      ++heard;
    };
    descriptors.back()->readableInterestIs(true);
  }
  activity().run(1);
  EXPECT_EQ(0u, heard);
  const uint64_t one = 1;
  for (const Fd& fd : fds) ASSERT_EQ(8, ::write(fd, &one, 8));
  activity().run(1);
  EXPECT_EQ(wanted, heard);

  // Ready for ever, and each callback as long as a slice: all get their turn.
  size_t calls = 0;
  size_t left = 3 * wanted;
  for (size_t i = 0; i < wanted; ++i) {
    ASSERT_EQ(8, ::write(fds[i], &one, 8));
    descriptors[i]->readable = [&] {
      ++calls;
      time.advance(0.002);
      if (--left == 0) activity().executionTimeIs(0);
    };
  }
  std::vector<uint64_t> before;
  for (const auto& object : descriptors) before.push_back(object->count(DescriptorEvent::readable));
  activity().run();
  for (size_t i = 0; i < wanted; ++i) {
    const uint64_t more = descriptors[i]->count(DescriptorEvent::readable) - before[i];
    ASSERT_GE(more, 2u);
    ASSERT_LE(more, 4u);
  }
}

// Random objects on random descriptors: who is called is who is interested in what is ready.
TEST_F(ActivityTest, DescriptorsAgreeWithAPlainModel) {
  constexpr int kFds = 12;
  constexpr int kObjects = 40;
  for (uint32_t seed = 1; seed <= 20 && !HasFailure(); ++seed) {
    SCOPED_TRACE(testing::Message() << "seed " << seed);
    std::mt19937 random(seed);
    struct Object {
      std::unique_ptr<CallDescriptor> descriptor;
      int fd = 0;
      bool interests[2] = {};
      std::string heard;
    };
    std::vector<Pair> pairs;
    for (int i = 0; i < kFds; ++i) pairs.emplace_back(true);
    std::vector<Object> objects(kObjects);
    std::vector<bool> filled(kFds);
    for (int n = 0; n < 600 && !HasFailure(); ++n) {
      Object& object = objects[random() % kObjects];
      const int fd = static_cast<int>(random() % kFds);
      switch (random() % 8) {
        case 0:
          object.descriptor.reset();
          object.interests[0] = object.interests[1] = false;
          break;
        case 1:  // another file under the same number, when nobody watches it
          if (std::none_of(objects.begin(), objects.end(), [&](const Object& other) {
                return other.descriptor && other.fd == fd;
              })) {
            pairs[fd] = Pair(true);
            filled[fd] = false;
          }
          break;
        case 2:
          if (filled[fd])
            EXPECT_TRUE(pairs[fd].read());
          else
            pairs[fd].write();
          filled[fd] = !filled[fd];
          break;
        case 3: {
          activity().run(0);
          for (Object& each : objects) {
            const std::string expected =
                std::string(each.interests[0] && filled[each.fd] ? "r" : "") +
                (each.interests[1] ? "w" : "");
            EXPECT_EQ(expected, each.heard) << "operation " << n;
            each.heard.clear();
          }
          break;
        }
        default: {
          if (!object.descriptor) {
            object.fd = fd;
            object.descriptor = std::make_unique<CallDescriptor>(pairs[fd].in);
            object.descriptor->readable = [&object] { object.heard += 'r'; };
            object.descriptor->writable = [&object] { object.heard += 'w'; };
          }
          const auto which = random() % 2;
          object.interests[which] = random() % 2 == 0;
          object.descriptor->interestIs(static_cast<DescriptorEvent>(which),
                                        object.interests[which]);
        }
      }
    }
  }
}

// ---- a loop of the program's own ----

struct Host : DescriptorListener {
  Host() { activity().listenerIs(this); }
  ~Host() { activity().listenerIs(nullptr); }
  void interestChanged(int fd, DescriptorEvent event, bool on) override {
    heard += std::to_string(fd) + "rwx"[static_cast<int>(event)] + (on ? "+ " : "- ");
    thread = std::this_thread::get_id();
  }
  void wakeUpChanged(double earliest) override { wakeUps.push_back(earliest); }
  std::string take() { return std::exchange(heard, ""); }
  std::string heard;
  std::vector<double> wakeUps;
  std::thread::id thread;
};

TEST_F(ActivityTest, HostHearsOfInterestsAtOnce) {
  Host host;
  CallDescriptor one(1234);  // the host's business what that is
  CallDescriptor two(1234);
  one.readableInterestIs(true);
  EXPECT_EQ("1234r+ ", host.take());
  two.readableInterestIs(true);
  two.exceptionInterestIs(true);
  EXPECT_EQ("1234x+ ", host.take());
  one.readableInterestIs(false);
  EXPECT_EQ("", host.take());
  two.readableInterestIs(false);
  EXPECT_EQ("1234r- ", host.take());
  {
    CallDescriptor three(1234);
    three.writableInterestIs(true);
    EXPECT_EQ("1234w+ ", host.take());
  }
  EXPECT_EQ("1234w- ", host.take());

  // From another thread: by the nudge, then in the host's own thread.
  const int nudge = activity().nudgeDescriptor();
  std::thread([&] {
    ActivityLockGuard guard(activity().lock());
    one.writableInterestIs(true);
    CallDescriptor brief(77);
    brief.readableInterestIs(true);
  }).join();
  EXPECT_EQ("", host.take());
  EXPECT_TRUE(readable(nudge));
  activity().run(0);
  EXPECT_EQ("1234w+ ", host.take());
  EXPECT_EQ(std::this_thread::get_id(), host.thread);

  // What is registered already is listed, not told.
  Host another;
  two.readableInterestIs(true);
  EXPECT_EQ("1234r+ ", another.take());
}

TEST_F(ActivityTest, HostHearsOfWakeUps) {
  Host host;
  CallTimer timer([] {});
  CallTimer later([] {});
  timer.armAt(1010);
  later.armAt(1020);
  timer.armAt(1005);
  EXPECT_EQ((std::vector<double>{1010, 1005}), host.wakeUps);
  time.advance(6);
  activity().run(0);  // the time is told when the run ends
  EXPECT_EQ((std::vector<double>{1010, 1005, 1020}), host.wakeUps);
  later.disarm();
  EXPECT_EQ(Timer::kNever, host.wakeUps.back());
  std::thread([&] {
    ActivityLockGuard guard(activity().lock());
    timer.armAt(1030);
  }).join();
  EXPECT_EQ(Timer::kNever, host.wakeUps.back());
  EXPECT_TRUE(readable(activity().nudgeDescriptor()));
  activity().run(0);
  EXPECT_EQ(1030, host.wakeUps.back());
  timer.disarm();
}

TEST_F(ActivityTest, HostDeliversEvents) {
  Pair pipe;
  Host host;
  int marked = 0;
  CallTask task([&] { ++marked; });
  CallDescriptor first(pipe.in, [&] { task.wake(); });
  CallDescriptor second(pipe.in);
  first.readableInterestIs(true);
  second.readableInterestIs(true);
  pipe.write();
  activity().run(0);  // does not poll: that is the host's part
  EXPECT_EQ(0u, first.count(DescriptorEvent::readable));
  EXPECT_TRUE(activity().descriptorEvent(pipe.in, DescriptorEvent::readable));
  EXPECT_EQ(1u, first.count(DescriptorEvent::readable));
  EXPECT_EQ(1u, second.count(DescriptorEvent::readable));
  EXPECT_EQ(0, marked);
  EXPECT_TRUE(readable(activity().nudgeDescriptor()));
  activity().run(0);
  EXPECT_EQ(1, marked);

  EXPECT_TRUE(activity().descriptorEvent(pipe.in, DescriptorEvent::writable));
  EXPECT_EQ(0u, first.count(DescriptorEvent::writable));  // no interest
  EXPECT_FALSE(activity().descriptorEvent(pipe.out, DescriptorEvent::readable));

  first.readable = [] { throw std::runtime_error("host"); };
  EXPECT_THROW(activity().descriptorEvent(pipe.in, DescriptorEvent::readable), std::runtime_error);
  EXPECT_FALSE(activity().lock().held());
  first.readable = [] {};
  EXPECT_TRUE(activity().descriptorEvent(pipe.in, DescriptorEvent::readable));
  EXPECT_EQ(3u, first.count(DescriptorEvent::readable));

  // Taken back, the platform's own loop polls again.
  activity().listenerIs(nullptr);
  activity().run(0);
  EXPECT_EQ(4u, first.count(DescriptorEvent::readable));
}

}  // namespace
}  // namespace ryx::platform
