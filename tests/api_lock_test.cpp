// Who may call the API: the loop's thread, and others with the lock.
#include "ryx/sdk_scoped_lock.h"

#include <pthread.h>

#include <algorithm>
#include <atomic>
#include <functional>
#include <limits>
#include <thread>

#include "platform/activity/activity.h"
#include "platform/activity/task.h"
#include "ryx/agent.h"
#include "ryx/event_loop.h"
#include "ryx/mount.h"
#include "ryx/panic.h"
#include "ryx/timer.h"
#include "tests/support/statehub_fixture.h"

namespace ryx {
namespace {

using platform::activity;
using testing::settle;
using testing::TestSdk;

constexpr double kForEver = std::numeric_limits<double>::infinity();

class ApiLockTest : public testing::StatehubTest {
 protected:
  ApiLockTest() { context.start(); }

  // From here on the process counts as one with several threads.
  void callFromAnotherThread() {
    std::thread([&] {
      sdk_scoped_lock lock;
      mgr->status_set("other thread", "yes");
    }).join();
  }

  // Whether a call is refused, with nothing changed.
  bool refused() {
    try {
      mgr->status_set("refused", "no");
      return false;
    } catch (const no_scoped_lock_obtained_error& e) {
      EXPECT_STREQ("ryx::sdk_scoped_lock not grabbed when calling an api while multithreaded",
                   e.what());
      EXPECT_FALSE(activity().lock().heldByCaller());
      return true;
    }
  }

  TestSdk context{*this, "tester"};
  agent_mgr* mgr = context.get_agent_mgr();
  event_loop* loop = context.get_event_loop();
};
RYX_OVER_BOTH(ApiLockTest);

std::string idText(pthread_t id) {
  return std::to_string(static_cast<uintmax_t>(id));
}

TEST_P(ApiLockTest, AThreadWithoutTheLockIsToldAndRefused) {
  const pthread_t mainThread = pthread_self();
  {
    sdk_scoped_lock lock;
    mgr->status_set("k", "before");
  }
  const pthread_t lastOwner = mainThread;
  pthread_t caller = 0;
  ::testing::internal::CaptureStderr();
  std::thread([&] {
    caller = pthread_self();
    EXPECT_THROW(mgr->status_set("k", "after"), no_scoped_lock_obtained_error);
    EXPECT_THROW(mgr->status_del("k"), no_scoped_lock_obtained_error);
    EXPECT_THROW(mgr->exit(), no_scoped_lock_obtained_error);
    EXPECT_THROW(mgr->status("k"), no_scoped_lock_obtained_error);
    EXPECT_FALSE(activity().lock().held());
  }).join();
  const std::string told = ::testing::internal::GetCapturedStderr();
  const std::string report =
      "[RYX SDK ERROR] Thread did not grab ryx::sdk_scoped_lock:\n"
      "  mainThreadId: " +
      idText(mainThread) + "\n  scopedLockOwner: " + idText(lastOwner) +
      "\n  scopedLockOwnerCount: 0\n  myThreadId: " + idText(caller) + "\n";
  EXPECT_NE(std::string::npos, told.find(report)) << told;
  // The frames stand before it.
  const std::string frames = told.substr(0, told.find("[RYX SDK ERROR]"));
  EXPECT_NE(std::string::npos, frames.find("libryx.so")) << told;
  EXPECT_LE(std::count(frames.begin(), frames.end(), '\n'), 10);

  sdk_scoped_lock lock;
  EXPECT_EQ("before", mgr->status("k"));
}

TEST_P(ApiLockTest, FromTheFirstCallOfAnotherThreadEveryThreadNeedsTheLock) {
  callFromAnotherThread();
  EXPECT_TRUE(refused());
  std::thread([&] { EXPECT_TRUE(refused()); }).join();
  sdk_scoped_lock lock;
  EXPECT_EQ("yes", mgr->status("other thread"));
  EXPECT_EQ("", mgr->status("refused"));
}

TEST_P(ApiLockTest, TheLockMayBeTakenAgain) {
  callFromAnotherThread();
  {
    sdk_scoped_lock outer;
    {
      sdk_scoped_lock inner;
      mgr->status_set("k", "inner");
    }
    EXPECT_TRUE(activity().lock().heldByCaller());
    EXPECT_TRUE(activity().lock().heldFlag());
    mgr->status_set("k", "outer");
  }
  EXPECT_FALSE(activity().lock().held());
  EXPECT_FALSE(activity().lock().heldFlag());
  EXPECT_TRUE(refused());
}

// A manager's own check, for a caller that took the lock for itself.
TEST_P(ApiLockTest, EnsureInitializedJudgesTheCallersOwnLock) {
  class Manager : public mount_handler {
   public:
    using mount_handler::mount_handler;
  };
  TestSdk other(*this, "other");
  Manager manager(other.get_mount_mgr());
  other.start();
  callFromAnotherThread();
  EXPECT_THROW(manager.ensureInitialized(), no_scoped_lock_obtained_error);
  sdk_scoped_lock lock;
  manager.ensureInitialized();
}

// Four threads, a loop that always has work, and a callback now and then: everybody gets on.
TEST_P(ApiLockTest, ManyThreadsHammerWhileTheLoopRuns) {
  constexpr int kThreads = 4;
  constexpr int kCalls = 300;
  struct Busy : platform::Task {
    Busy() : Task("busy") {}
    bool run(platform::Slice&) override {
      runs.fetch_add(1);
      runs.notify_all();
      return true;
    }
    std::atomic<uint64_t> runs{0};
  };
  class Agent : public agent_handler {
   public:
    explicit Agent(agent_mgr* agents) : agent_handler(agents), agents_(agents) {}
    void on_agent_option(const std::string&, const std::string& value) override {
      agents_->status_set("heard", value);  // a callback needs no lock of its own
      ++heard;
    }
    int heard = 0;

   private:
    agent_mgr* agents_;
  } agent(mgr);
  Busy busy;
  std::atomic<int> left{kThreads};
  std::vector<std::thread> threads;
  {
    sdk_scoped_lock lock;
    configOf("tester")->enabled.set(true);
    busy.wake();
  }
  for (int i = 0; i < kThreads; ++i)
    threads.emplace_back([&, i] {
      const std::string key = "thread " + std::to_string(i);
      busy.runs.wait(0);  // an exit before the loop runs would end nothing
      for (int n = 1; n <= kCalls; ++n) {
        sdk_scoped_lock lock;
        mgr->status_set(key, std::to_string(n));
        EXPECT_EQ(std::to_string(n), mgr->status(key));
        if (i == 0 && n % 100 == 0) configOf("tester")->option.set("n", std::to_string(n));
      }
      sdk_scoped_lock lock;
      if (--left == 0) mgr->exit();
    });
  loop->run(kForEver);
  for (std::thread& thread : threads) thread.join();
  EXPECT_GT(busy.runs.load(), 0u);
  {
    sdk_scoped_lock lock;
    for (int i = 0; i < kThreads; ++i)
      EXPECT_EQ(std::to_string(kCalls), mgr->status("thread " + std::to_string(i)));
  }
  // The task stays queued for ever otherwise.
  busy.~Busy();
  new (&busy) Busy;
  settle();
  EXPECT_GT(agent.heard, 0);
  sdk_scoped_lock lock;
  EXPECT_EQ("300", mgr->status("heard"));
  EXPECT_EQ("300", statusOf("tester")->data.get("thread 3")->bytes());
}

// While a callback runs the loop, other threads come and go; afterwards the callback may call as
// before. What has no lock is refused meanwhile too.
TEST_P(ApiLockTest, ALoopInsideACallbackLetsOthersInAndKeepsTheCallbacksRight) {
  callFromAnotherThread();
  class Timeout : public timeout_handler {
   public:
    using timeout_handler::timeout_handler;
    void on_timeout() override { then(); }
    std::function<void()> then;
  } timeout(context.get_timeout_mgr());
  struct Busy : platform::Task {
    Busy() : Task("busy") {}
    bool run(platform::Slice&) override { return !stop; }
    bool stop = false;
  } busy;
  bool refusedMeanwhile = false;
  timeout.then = [&] {
    std::thread other;
    mgr->status_set("callback", "begins");
    busy.wake();
    other = std::thread([&] {
      refusedMeanwhile = refused();
      sdk_scoped_lock lock;
      mgr->status_set("other", "was here");
      busy.stop = true;
      mgr->exit();  // ends the loop inside the callback, and the one around it
    });
    loop->run(kForEver);
    mgr->status_set("callback", "ends");
    other.join();
  };
  timeout.timeout_time_is(now());
  loop->run(kForEver);
  EXPECT_TRUE(refusedMeanwhile);
  EXPECT_TRUE(refused());
  sdk_scoped_lock lock;
  EXPECT_EQ("ends", mgr->status("callback"));
  EXPECT_EQ("was here", mgr->status("other"));
}

TEST_P(ApiLockTest, AnExceptionOutOfACallbackGivesTheLockBack) {
  callFromAnotherThread();
  class Timeout : public timeout_handler {
   public:
    using timeout_handler::timeout_handler;
    void on_timeout() override { throw std::runtime_error("mine"); }
  } timeout(context.get_timeout_mgr());
  timeout.timeout_time_is(now());
  EXPECT_THROW(loop->run(0), std::runtime_error);
  EXPECT_FALSE(activity().lock().held());
  EXPECT_TRUE(refused());
  callFromAnotherThread();
}

}  // namespace
}  // namespace ryx
