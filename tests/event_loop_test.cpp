// The loop as programs use it: run for a time, timers, descriptors, and a loop of their own.
#include "ryx/event_loop.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <csignal>
#include <functional>
#include <limits>
#include <map>
#include <set>

#include "platform/activity/activity.h"
#include "ryx/agent.h"
#include "ryx/fd.h"
#include "ryx/mount.h"
#include "ryx/panic.h"
#include "ryx/timer.h"
#include "tests/slots.h"
#include "tests/support/statehub_fixture.h"

namespace ryx {
namespace {

using platform::activity;
using testing::settle;
using testing::TestSdk;

using Strings = std::vector<std::string>;

std::string raised(const std::function<void()>& call) {
  try {
    call();
  } catch (const legacy_exception& e) {
    return e.what();
  }
  return "nothing";
}

class Timeout : public timeout_handler {
 public:
  Timeout(timeout_mgr* mgr, std::function<void()> callback)
      : timeout_handler(mgr), then(std::move(callback)) {}
  void on_timeout() override {
    const std::function<void()> callback = then;
    callback();
  }
  std::function<void()> then;
};

class Fds : public fd_handler {
 public:
  void on_readable(int fd) override { hear("r" + std::to_string(fd)); }
  void on_writable(int fd) override { hear("w" + std::to_string(fd)); }
  void on_exception(int fd) override { hear("x" + std::to_string(fd)); }
  Strings taken() { return std::exchange(log, {}); }

  Strings log;
  std::function<void()> then;

 private:
  void hear(const std::string& event) {
    log.push_back(event);
    if (const std::function<void()> callback = then) callback();
  }
};

struct Pipe {
  Pipe() { EXPECT_EQ(0, ::pipe2(ends, O_CLOEXEC | O_NONBLOCK)); }
  ~Pipe() {
    ::close(ends[0]);
    ::close(ends[1]);
  }
  Pipe(const Pipe&) = delete;
  void put() { EXPECT_EQ(1, ::write(ends[1], "x", 1)); }
  void take() {
    char byte;
    EXPECT_EQ(1, ::read(ends[0], &byte, 1));
  }
  std::string readable() const { return "r" + std::to_string(ends[0]); }
  int ends[2];
};

class EventLoopTest : public testing::StatehubTest {
 protected:
  TestSdk context{*this, "tester"};
  event_loop* loop = context.get_event_loop();
  timeout_mgr* timeouts = context.get_timeout_mgr();
};
RYX_OVER_BOTH(EventLoopTest);

// --- running ------------------------------------------------------------------------------------

TEST_P(EventLoopTest, RunsForATime) {
  EXPECT_EQ("duration must be 0 or greater", raised([&] { loop->run(-0.001); }));
  EXPECT_EQ("duration must be 0 or greater", raised([&] { loop->run(std::nan("")); }));
  const double start = now();
  loop->run(0);
  EXPECT_EQ(start, now());
  loop->run(2.5);
  EXPECT_DOUBLE_EQ(start + 2.5, now());
}

TEST_P(EventLoopTest, WaitsUntilTheSdkIsInitialized) {
  class Agent : public agent_handler {
   public:
    using agent_handler::agent_handler;
    void on_initialized() override { initialized = true; }
    bool initialized = false;
  } agent(context.get_agent_mgr());
  EXPECT_EQ(loop, context.get_event_loop());
  context.initialize_context();
  EXPECT_FALSE(agent.initialized);
  loop->wait_for_initialized();
  EXPECT_TRUE(agent.initialized);
  const double start = now();
  loop->wait_for_initialized();
  EXPECT_EQ(start, now());
}

TEST_P(EventLoopTest, GivesUpAfterTenMinutes) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_DEATH(loop->wait_for_initialized(), "Timed out waiting for initialization");
}

TEST_P(EventLoopTest, FlushSendsEverything) {
  context.start();
  TestSdk other(*this, "other");
  agent_mgr* agents = other.get_agent_mgr();
  event_loop* otherLoop = other.get_event_loop();
  other.start();
  for (int i = 0; i < 2000; ++i)
    agents->status_set("key " + std::to_string(i), std::string(1000, 'v'));
  otherLoop->flush();
  EXPECT_TRUE(other.connection().drained());
  settle();
  EXPECT_EQ(2000u, statusOf("other")->data.size());
}

// With the hub gone there is nowhere to send to: flush waits until it is back.
TEST_P(EventLoopTest, FlushWaitsForTheHub) {
  if (hub() == nullptr) GTEST_SKIP() << "there is no connection to lose";
  TestSdk other(*this, "other");
  agent_mgr* agents = other.get_agent_mgr();
  event_loop* otherLoop = other.get_event_loop();
  other.start();
  hub()->dropAll();
  settle();
  agents->status_set("k", "v");
  Timeout back(timeouts, [&] {
    int ends[2];
    ASSERT_EQ(0, ::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends));
    hub()->accept(ends[0]);
    other.connection().reconnected(ends[1]);
  });
  const double start = now();
  back.timeout_time_is(start + 3);
  otherLoop->flush();
  EXPECT_GE(now(), start + 3);
  settle();
  EXPECT_EQ("v", statusOf("other")->data.get("k")->bytes());
}

// --- timers -------------------------------------------------------------------------------------

TEST_P(EventLoopTest, TimersFireWhenTheirTimeComes) {
  EXPECT_GE(now(), 1e6);
  Strings log;
  Timeout first(timeouts, [&] { log.push_back("first"); });
  Timeout second(timeouts, [&] { log.push_back("second"); });
  Timeout past(timeouts, [&] { log.push_back("past"); });
  const double start = now();
  second.timeout_time_is(start + 2);
  first.timeout_time_is(start + 5);
  first.timeout_time_is(start + 1);  // instead of the time before
  past.timeout_time_is(start - 1);
  loop->run(0);
  EXPECT_EQ(Strings{"past"}, log);
  loop->run(0.999);
  EXPECT_EQ(1u, log.size());
  loop->run(0.002);
  EXPECT_EQ((Strings{"past", "first"}), log);
  second.timeout_time_is(never);
  loop->run(100);
  EXPECT_EQ(2u, log.size());
}

TEST_P(EventLoopTest, TimesThatAreDurationsAreRefused) {
  int fired = 0;
  Timeout timeout(timeouts, [&] { ++fired; });
  EXPECT_EQ("absolute time value 5.000000 too small to be plausible",
            raised([&] { timeout.timeout_time_is(5); }));
  EXPECT_EQ("absolute time value -1.000000 too small to be plausible",
            raised([&] { timeout.timeout_time_is(-1); }));
  EXPECT_EQ("absolute time value 999999.900000 too small to be plausible",
            raised([&] { timeout.timeout_time_is(999999.9); }));
  EXPECT_NE("nothing", raised([&] { timeout.timeout_time_is(std::nan("")); }));
  // What was armed stays so.
  timeout.timeout_time_is(now() + 1);
  EXPECT_NE("nothing", raised([&] { timeout.timeout_time_is(5); }));
  loop->run(2);
  EXPECT_EQ(1, fired);
}

TEST_P(EventLoopTest, ATimerMayArmDestroyAndThrow) {
  int fired = 0;
  Timeout periodic(timeouts, [] {});
  periodic.then = [&] {
    if (++fired < 4) periodic.timeout_time_is(now() + 10);
  };
  periodic.timeout_time_is(now() + 10);
  const double start = now();
  loop->run(100);
  EXPECT_EQ(4, fired);
  EXPECT_DOUBLE_EQ(start + 100, now());

  auto one = std::make_unique<Timeout>(timeouts, [] {});
  auto other = std::make_unique<Timeout>(timeouts, [&] { ++fired; });
  one->then = [&] {
    other.reset();
    one.reset();
  };
  one->timeout_time_is(now());
  other->timeout_time_is(now() + 0.001);
  loop->run(1);
  EXPECT_EQ(nullptr, one);
  EXPECT_EQ(4, fired);

  Timeout thrower(timeouts, [] { throw std::runtime_error("mine"); });
  thrower.timeout_time_is(now() + 1);
  EXPECT_THROW(loop->run(2), std::runtime_error);
  loop->run(2);  // it is disarmed
}

TEST_P(EventLoopTest, AManagerOfTimersMayGoFirst) {
  auto mgr = std::make_unique<timeout_mgr>();
  int fired = 0;
  Timeout armed(mgr.get(), [&] { ++fired; });
  Timeout idle(mgr.get(), [&] { ++fired; });
  armed.timeout_time_is(now() + 1);
  mgr.reset();
  idle.timeout_time_is(now() + 1);
  armed.timeout_time_is(never);
  loop->run(2);
  EXPECT_EQ(0, fired);
}

// --- descriptors --------------------------------------------------------------------------------

TEST_P(EventLoopTest, DescriptorsAreToldWhileTheyAreReady) {
  Pipe pipe;
  Fds fds;
  fds.watch_readable(pipe.ends[0], true);
  fds.watch_writable(pipe.ends[1], true);
  loop->run(0);
  EXPECT_EQ("w" + std::to_string(pipe.ends[1]), fds.taken().at(0));
  fds.watch_writable(pipe.ends[1], false);
  loop->run(0);
  EXPECT_EQ(Strings{}, fds.taken());

  pipe.put();
  loop->run(0);
  loop->run(0);
  Strings heard = fds.taken();
  EXPECT_GE(heard.size(), 2u);  // it was not read in between
  for (const std::string& event : heard) EXPECT_EQ(pipe.readable(), event);
  pipe.take();
  loop->run(0);
  EXPECT_EQ(Strings{}, fds.taken());
  fds.watch_readable(pipe.ends[0], false);
  pipe.put();
  loop->run(0);
  EXPECT_EQ(Strings{}, fds.taken());
}

TEST_P(EventLoopTest, ExceptionsAreOutOfBandData) {
  const int listener = ::socket(AF_INET, SOCK_STREAM, 0);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t size = sizeof address;
  auto* generic = reinterpret_cast<sockaddr*>(&address);
  ASSERT_EQ(0, ::bind(listener, generic, size));
  ASSERT_EQ(0, ::listen(listener, 1));
  ASSERT_EQ(0, ::getsockname(listener, generic, &size));
  const int sender = ::socket(AF_INET, SOCK_STREAM, 0);
  ASSERT_EQ(0, ::connect(sender, generic, size));
  const int receiver = ::accept(listener, nullptr, nullptr);
  ASSERT_GE(receiver, 0);
  Fds fds;
  fds.watch_exception(receiver, true);
  fds.then = [&] { fds.watch_exception(receiver, false); };
  ASSERT_EQ(1, ::send(sender, "!", 1, MSG_OOB));
  pollfd arrived{receiver, POLLPRI, 0};
  ASSERT_EQ(1, ::poll(&arrived, 1, 10'000));
  loop->run(0);
  EXPECT_EQ(Strings{"x" + std::to_string(receiver)}, fds.taken());
  for (const int fd : {listener, sender, receiver}) ::close(fd);
}

TEST_P(EventLoopTest, BadDescriptorsAreRefused) {
  Fds fds;
  try {
    fds.watch_readable(-1, true);
    ADD_FAILURE() << "nothing was raised";
  } catch (const invalid_argument_error& e) {
    EXPECT_STREQ("Invalid argument 'fd': expected a descriptor, 0 or more, found -1", e.what());
  }
  fds.watch_writable(-1, false);
  fds.watch_exception(12345, false);
  for (const platform::DescriptorState& state : activity().descriptors())
    EXPECT_NE(12345, state.fd);
}

TEST_P(EventLoopTest, HandlersOfOneDescriptorAreIndependent) {
  Pipe pipe;
  auto one = std::make_unique<Fds>();
  Fds other;
  one->watch_readable(pipe.ends[0], true);
  other.watch_readable(pipe.ends[0], true);
  one->then = [&] { one.reset(); };
  pipe.put();
  loop->run(0);
  EXPECT_EQ(nullptr, one);
  EXPECT_EQ(pipe.readable(), other.taken().at(0));
  other.then = [&] {
    pipe.take();
    other.then = nullptr;
    throw std::runtime_error("mine");
  };
  EXPECT_THROW(loop->run(0), std::runtime_error);
  other.taken();
  loop->run(0);
  EXPECT_EQ(Strings{}, other.taken());
}

// --- a loop of the program's own ----------------------------------------------------------------

class Host : public event_loop_handler {
 public:
  void watch_readable(int fd, bool interest) override { set(fd, POLLIN, interest); }
  void watch_writable(int fd, bool interest) override { set(fd, POLLOUT, interest); }
  void watch_exception(int fd, bool interest) override { set(fd, POLLPRI, interest); }
  void timeout_time_is(double t) override {
    timeout = t;
    EXPECT_TRUE(activity().lock().heldByCaller());
  }

  // One turn of a program's loop: whether there was anything to do.
  bool turn() {
    std::vector<pollfd> fds;
    for (const auto& [fd, events] : watched) fds.push_back({fd, events, 0});
    const int ready = ::poll(fds.data(), fds.size(), 0);
    for (const pollfd& found : fds) {
      if (found.revents & POLLIN) on_readable(found.fd);
      if (found.revents & POLLOUT) on_writable(found.fd);
      if (found.revents & POLLPRI) on_exception(found.fd);
    }
    const bool due = timeout != never && timeout <= now();
    if (due) on_timeout();
    return ready > 0 || due;
  }
  void turns() {
    for (int i = 0; i < 1000 && turn(); ++i) {
    }
  }

  std::map<int, short> watched;
  double timeout = -1;

 private:
  void set(int fd, short event, bool interest) {
    EXPECT_TRUE(activity().lock().heldByCaller());
    short& events = watched[fd];
    EXPECT_NE(interest, (events & event) != 0) << "fd " << fd << " event " << event;
    events = static_cast<short>(interest ? events | event : events & ~event);
    if (events == 0) watched.erase(fd);
  }
};

class ExternalLoopTest : public EventLoopTest {
 protected:
  ~ExternalLoopTest() override { activity().executionTimeIs(platform::Timer::kNever); }
};
RYX_OVER_BOTH(ExternalLoopTest);

TEST(EventLoop, SlotsAreInTheirOrder) {
  EXPECT_EQ(2, slot(&event_loop_handler::watch_readable));
  EXPECT_EQ(3, slot(&event_loop_handler::watch_writable));
  EXPECT_EQ(4, slot(&event_loop_handler::watch_exception));
  EXPECT_EQ(5, slot(&event_loop_handler::timeout_time_is));
}

TEST_P(ExternalLoopTest, IsToldWhatThereIs) {
  Pipe pipe;
  Fds fds;
  fds.watch_readable(pipe.ends[0], true);
  Timeout timeout(timeouts, [] {});
  const double time = now() + 7;
  timeout.timeout_time_is(time);
  EXPECT_EQ("The event_loop_handler passed in argument was null",
            raised([&] { loop->external_loop_is(nullptr); }));
  context.start();
  Host host;
  loop->external_loop_is(&host);
  EXPECT_EQ(POLLIN, host.watched[pipe.ends[0]]);
  EXPECT_EQ(POLLIN, host.watched[activity().nudgeDescriptor()]);
  EXPECT_DOUBLE_EQ(time, host.timeout);
  timeout.timeout_time_is(never);
  EXPECT_EQ(never, host.timeout);
}

TEST_P(ExternalLoopTest, IsInitializedFirst) {
  context.initialize_context();
  Host host;
  loop->external_loop_is(&host);
  EXPECT_TRUE(context.get_mount_mgr()->initializationComplete());
  EXPECT_EQ(never, host.timeout);
}

TEST_P(ExternalLoopTest, HearsOfChangesAtOnce) {
  context.start();
  Host host;
  loop->external_loop_is(&host);
  Pipe pipe;
  Fds fds;
  fds.watch_readable(pipe.ends[0], true);
  fds.watch_exception(pipe.ends[0], true);
  EXPECT_EQ(POLLIN | POLLPRI, host.watched[pipe.ends[0]]);
  fds.watch_exception(pipe.ends[0], false);
  fds.watch_readable(pipe.ends[0], false);
  EXPECT_EQ(0u, host.watched.count(pipe.ends[0]));

  Timeout later(timeouts, [] {});
  Timeout sooner(timeouts, [] {});
  const double start = now();
  later.timeout_time_is(start + 9);
  EXPECT_DOUBLE_EQ(start + 9, host.timeout);
  sooner.timeout_time_is(start + 4);
  EXPECT_DOUBLE_EQ(start + 4, host.timeout);
  sooner.timeout_time_is(never);
  EXPECT_DOUBLE_EQ(start + 9, host.timeout);
}

TEST_P(ExternalLoopTest, ServesDescriptorsTimersAndState) {
  Strings log;
  class Agent : public agent_handler {
   public:
    Agent(agent_mgr* mgr, Strings& log) : agent_handler(mgr), log_(log) {}
    void on_agent_option(const std::string& name, const std::string& value) override {
      log_.push_back(name + "=" + value);
    }

   private:
    Strings& log_;
  } agent(context.get_agent_mgr(), log);
  context.start();
  Host host;
  loop->external_loop_is(&host);

  Pipe pipe;
  Fds fds;
  fds.watch_readable(pipe.ends[0], true);
  fds.then = [&] { pipe.take(); };
  pipe.put();
  host.turns();
  EXPECT_EQ(Strings{pipe.readable()}, fds.taken());

  configOf("tester")->option.set("color", "blue");
  host.turns();
  EXPECT_EQ(Strings{"color=blue"}, log);

  Timeout timeout(timeouts, [&] { log.push_back("timeout"); });
  timeout.timeout_time_is(now() + 3);
  host.turns();
  EXPECT_EQ(1u, log.size());
  clock.advance(3);
  host.turns();
  EXPECT_EQ((Strings{"color=blue", "timeout"}), log);
  EXPECT_EQ(never, host.timeout);

  // What the agent writes goes out too.
  context.get_agent_mgr()->status_set("k", "v");
  loop->flush();
  host.turns();
  settle();
  ASSERT_NE(nullptr, statusOf("tester"));
  EXPECT_EQ("v", statusOf("tester")->data.get("k")->bytes());
}

TEST_P(ExternalLoopTest, GivesTheDescriptorsBackWhenItGoes) {
  context.start();
  Pipe pipe;
  Fds fds;
  fds.then = [&] { pipe.take(); };
  fds.watch_readable(pipe.ends[0], true);
  {
    Host host;
    loop->external_loop_is(&host);
    pipe.put();
    loop->run(0);
    EXPECT_EQ(Strings{}, fds.taken());  // the program's loop looks at descriptors
  }
  loop->run(1);
  EXPECT_EQ(Strings{pipe.readable()}, fds.taken());
  const double start = now();
  loop->run(1);
  EXPECT_DOUBLE_EQ(start + 1, now());
}

TEST_P(ExternalLoopTest, IsRefusedWhileThePlatformsLoopIsTheProcesss) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  context.start();
  Host host;
  EXPECT_DEATH(
      {
        activity().useEpollIs(true);
        loop->external_loop_is(&host);
      },
      "activityMgrConfig->useEpoll");
}

TEST_P(ExternalLoopTest, ASignalEndsTheProcess) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  context.start();
  EXPECT_EXIT(
      {
        Host host;
        loop->external_loop_is(&host);
        std::raise(SIGTERM);
        host.turns();
      },
      ::testing::ExitedWithCode(128 + SIGTERM), "");
}

// event_loop::run serves as many descriptors as main_loop, and another loop may still take over.
TEST_P(ExternalLoopTest, TenThousandDescriptors) {
  constexpr rlim_t kDescriptors = 10'000;
  constexpr rlim_t kOthers = 200;
  rlimit limit;
  ASSERT_EQ(0, ::getrlimit(RLIMIT_NOFILE, &limit));
  if (limit.rlim_cur < kDescriptors + kOthers) {
    limit.rlim_cur = std::min(limit.rlim_max, kDescriptors + kOthers);
    ASSERT_EQ(0, ::setrlimit(RLIMIT_NOFILE, &limit));
    if (limit.rlim_cur < kDescriptors + kOthers)
      GTEST_SKIP() << "the system allows only " << limit.rlim_cur << " descriptors";
  }
  context.start();
  Pipe pipe;
  struct Many : fd_handler {
    void on_readable(int fd) override { heard.insert(fd); }
    std::set<int> heard;
  } many;
  std::set<int> copies;
  for (rlim_t i = 0; i < kDescriptors; ++i) {
    const int fd = ::fcntl(pipe.ends[0], F_DUPFD_CLOEXEC, 0);
    ASSERT_GE(fd, 0);
    copies.insert(fd);
    many.watch_readable(fd, true);
  }
  pipe.put();
  for (int i = 0; i < 200 && many.heard.size() < copies.size(); ++i) loop->run(0);
  EXPECT_EQ(copies, many.heard);
  EXPECT_FALSE(activity().useEpoll());
  Host host;
  loop->external_loop_is(&host);
  EXPECT_GE(host.watched.size(), copies.size());
  for (const int fd : copies) {
    many.watch_readable(fd, false);
    ::close(fd);
  }
  EXPECT_LT(host.watched.size(), 10u);
}

}  // namespace
}  // namespace ryx
