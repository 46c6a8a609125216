// A program with a loop of its own, and the SDK as its guest: over poll, and over a loop library.
#include <event2/event.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <fstream>
#include <functional>
#include <map>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "platform/activity/activity.h"
#include "platform/model/agent.h"
#include "platform/model/wellknown.h"
#include "platform/statehub/hub.h"
#include "ryx/agent.h"
#include "ryx/event_loop.h"
#include "ryx/fd.h"
#include "ryx/host.h"
#include "ryx/intf.h"
#include "ryx/panic.h"
#include "ryx/sdk.h"
#include "ryx/sdk_scoped_lock.h"
#include "ryx/timer.h"
#include "switch/base/interfaces.h"
#include "switch/hub/server.h"
#include "tests/support/temp_dir.h"

namespace ryx {
namespace {

constexpr double kDeadline = 20;  // seconds of patience with a loop that does not get on

// --- the loops ----------------------------------------------------------------------------------

// What both are: once() waits for something to do and does it.
class HostLoop : public event_loop_handler {
 public:
  virtual void once() = 0;
  virtual bool watches(int fd, short event) const = 0;
  double timeout() const { return timeout_; }

  bool until(const std::function<bool()>& done) {
    for (const double end = now() + kDeadline; !done();) {
      if (now() > end) return false;
      once();
    }
    return true;
  }

 protected:
  double timeout_ = never;
};

class PollLoop : public HostLoop {
 public:
  void watch_readable(int fd, bool on) override { watch(fd, POLLIN, on); }
  void watch_writable(int fd, bool on) override { watch(fd, POLLOUT, on); }
  void watch_exception(int fd, bool on) override { watch(fd, POLLPRI, on); }
  void timeout_time_is(double t) override { timeout_ = t; }
  bool watches(int fd, short event) const override {
    auto at = events_.find(fd);
    return at != events_.end() && (at->second & event) != 0;
  }
  void once() override {
    std::vector<pollfd> fds;
    for (auto [fd, events] : events_) fds.push_back({fd, events, 0});
    const double wait = timeout_ == never ? 1.0 : std::clamp(timeout_ - now(), 0.0, 1.0);
    ::poll(fds.data(), fds.size(), static_cast<int>(std::ceil(wait * 1e3)));
    for (const pollfd& p : fds) {
      if ((p.revents & (POLLIN | POLLHUP)) != 0 && watches(p.fd, POLLIN)) on_readable(p.fd);
      if ((p.revents & POLLOUT) != 0 && watches(p.fd, POLLOUT)) on_writable(p.fd);
      if ((p.revents & POLLPRI) != 0 && watches(p.fd, POLLPRI)) on_exception(p.fd);
    }
    if (timeout_ != never && now() >= timeout_) on_timeout();
  }

 private:
  void watch(int fd, short event, bool on) {
    short& events = events_[fd];
    events = static_cast<short>(on ? events | event : events & ~event);
    if (events == 0) events_.erase(fd);
  }
  std::map<int, short> events_;
};

class LibeventLoop : public HostLoop {
 public:
  LibeventLoop() : timer_(event_new(base_, -1, 0, onTimer, this)) {}
  ~LibeventLoop() override {
    for (auto& [key, watched] : events_) event_free(watched);
    event_free(timer_);
    event_base_free(base_);
  }
  // The library knows no exceptional condition.
  void watch_readable(int fd, bool on) override { watch(fd, EV_READ, on); }
  void watch_writable(int fd, bool on) override { watch(fd, EV_WRITE, on); }
  void watch_exception(int, bool) override {}
  void timeout_time_is(double t) override {
    timeout_ = t;
    event_del(timer_);
    if (t == never) return;
    const double wait = std::max(0.0, t - now());
    const timeval in{static_cast<time_t>(wait),
                     static_cast<suseconds_t>(std::ceil(std::fmod(wait, 1) * 1e6))};
    event_add(timer_, &in);
  }
  bool watches(int fd, short event) const override {
    return events_.count({fd, event == POLLIN ? EV_READ : EV_WRITE}) != 0;
  }
  void once() override { event_base_loop(base_, EVLOOP_ONCE); }

 private:
  void watch(int fd, short event, bool on) {
    auto [at, isNew] = events_.try_emplace({fd, event});
    if (isNew && on) {
      at->second = event_new(base_, fd, static_cast<short>(event | EV_PERSIST), onFd, this);
      event_add(at->second, nullptr);
    } else if (!on) {
      if (at->second) event_free(at->second);
      events_.erase(at);
    }
  }
  static void onFd(evutil_socket_t fd, short event, void* self) {
    if ((event & EV_READ) != 0) static_cast<LibeventLoop*>(self)->on_readable(fd);
    if ((event & EV_WRITE) != 0) static_cast<LibeventLoop*>(self)->on_writable(fd);
  }
  static void onTimer(evutil_socket_t, short, void* self) {
    static_cast<LibeventLoop*>(self)->on_timeout();
  }

  event_base* base_ = event_base_new();
  event* timer_;
  std::map<std::pair<int, short>, event*> events_;
};

// --- the guest ----------------------------------------------------------------------------------

// A context that goes with its managers, before its host.
class Guest : public sdk {
 public:
  explicit Guest(host& h) : sdk("guest", h.entity_manager()) {}
  ~Guest() override { destroy_managers(); }
};

class Agent : public agent_handler, public intf_handler {
 public:
  explicit Agent(sdk& context)
      : agent_handler(context.get_agent_mgr()), intf_handler(context.get_intf_mgr()) {
    watch_all_intfs(true);
  }
  void on_initialized() override { initialized = true; }
  void on_oper_status(intf_id_t intf, oper_status_t status) override {
    up[intf.to_string()] = status == INTF_OPER_UP;
  }
  bool initialized = false;
  std::map<std::string, bool> up;
};

class Alarm : public timeout_handler {
 public:
  using timeout_handler::timeout_handler;
  void on_timeout() override { ++fired; }
  int fired = 0;
};

class Reader : public fd_handler {
 public:
  void on_readable(int fd) override {
    char bytes[16];
    heard += ::read(fd, bytes, sizeof bytes) > 0;
  }
  int heard = 0;
};

platform::IntfId id(const char* name) {
  platform::IntfId intf;
  platform::check(platform::parse(name, &intf), "an interface's name");
  return intf;
}

// The switch's side, with a hub at the other end of a socket.
class HostedTest : public testing::Test {
 protected:
  HostedTest() {
    platform::makeWellKnown(tree_);
    platform::check(::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends_) == 0, "socketpair");
    hub_.accept(ends_[0]);
  }
  ~HostedTest() override { platform::activity().executionTimeIs(platform::Timer::kNever); }

  platform::Tree tree_;
  platform::Hub hub_{tree_};
  int ends_[2];
};

template <class Loop>
class HostedLoopTest : public HostedTest {};
using Loops = testing::Types<PollLoop, LibeventLoop>;
TYPED_TEST_SUITE(HostedLoopTest, Loops);

TYPED_TEST(HostedLoopTest, TheGuestLivesInTheHostsLoop) {
  auto h = host::over("guest", this->ends_[1]);
  Guest guest(*h);
  Agent agent(guest);
  Alarm alarm(guest.get_timeout_mgr());
  Reader reader;
  guest.initialize_context();
  TypeParam loop;
  guest.get_event_loop()->external_loop_is(&loop);
  EXPECT_TRUE(agent.initialized);

  // The switch's side changes: the socket becomes readable.
  feeds::IntfEntities eth1 = feeds::createIntf(this->tree_, id("Ethernet1"));
  eth1.status->operStatus.set(1);
  EXPECT_TRUE(loop.until([&] { return agent.up["Ethernet1"]; }));
  // The agent writes: the host's loop carries it there. (A process counts as one with threads from
  // the first call of another thread on, and that was in an earlier test.)
  auto locked = [](auto&& call) {
    sdk_scoped_lock lock;
    call();
  };
  locked([&] { guest.get_intf_mgr()->description_is(intf_id_t("Ethernet1"), "by the guest"); });
  EXPECT_TRUE(loop.until([&] { return eth1.config->description() == "by the guest"; }));

  // An earlier timeout, and none any more, reach the host within the call.
  locked([&] { alarm.timeout_time_is(now() + 1000); });
  const double late = loop.timeout();
  EXPECT_GT(late, now() + 900);
  locked([&] { alarm.timeout_time_is(now() + 0.002); });
  EXPECT_LT(loop.timeout(), late);
  EXPECT_TRUE(loop.until([&] { return alarm.fired == 1; }));
  locked([&] { alarm.timeout_time_is(now() + 500); });
  locked([&] { alarm.timeout_time_is(0); });
  EXPECT_TRUE(loop.timeout() == never || loop.timeout() > now() + 501) << loop.timeout();

  // So do interests.
  int pipe[2];
  ASSERT_EQ(0, ::pipe2(pipe, O_NONBLOCK | O_CLOEXEC));
  EXPECT_FALSE(loop.watches(pipe[0], POLLIN));
  locked([&] { reader.watch_readable(pipe[0], true); });
  EXPECT_TRUE(loop.watches(pipe[0], POLLIN));
  ASSERT_EQ(1, ::write(pipe[1], "x", 1));
  EXPECT_TRUE(loop.until([&] { return reader.heard == 1; }));
  locked([&] { reader.watch_readable(pipe[0], false); });
  EXPECT_FALSE(loop.watches(pipe[0], POLLIN));
  ::close(pipe[0]);
  ::close(pipe[1]);

  // What another thread does under the lock nudges the host, which waits for descriptors alone.
  std::thread other([&] {
    sdk_scoped_lock lock;
    guest.get_agent_mgr()->status_set("thread", "was here");
  });
  auto status = [&] {
    return this->tree_.template find<platform::GenericAgent::Status>("daemon/agent/status/guest");
  };
  EXPECT_TRUE(loop.until([&] {
    sdk_scoped_lock lock;
    return status() && status()->data.get("thread");
  }));
  other.join();

  // The hub goes: the host hears of it as of everything else.
  EXPECT_TRUE(h->connected());
  {
    sdk_scoped_lock lock;
    this->hub_.dropAll();
  }
  EXPECT_TRUE(loop.until([&] { return !h->connected(); }));
}

bool until(const event_loop& loop, const std::function<bool()>& done) {
  for (const double end = now() + kDeadline; !done() && now() < end;) loop.run(0.001);
  return done();
}

TEST_F(HostedTest, AGuestMayBeRunNowAndThen) {
  auto h = host::over("guest", ends_[1]);
  Guest guest(*h);
  Agent agent(guest);
  guest.initialize_context();
  EXPECT_FALSE(agent.initialized) << "mounts complete in the loop, never in the call";
  event_loop* loop = guest.get_event_loop();
  loop->wait_for_initialized();
  EXPECT_TRUE(agent.initialized);
  feeds::createIntf(tree_, id("Ethernet1")).status->operStatus.set(1);
  EXPECT_TRUE(until(*loop, [&] { return agent.up["Ethernet1"]; }));
}

// A server that starts an agent hands the connection over, and says so in the environment.
class Inherited {
 public:
  explicit Inherited(const std::vector<std::string>& arguments) {
    set("STATEHUB_SOCKID_ARGC", std::to_string(arguments.size()));
    for (size_t i = 0; i < arguments.size(); ++i)
      set("STATEHUB_SOCKID_ARG_" + std::to_string(i), arguments[i]);
  }
  ~Inherited() {
    for (const std::string& name : set_) ::unsetenv(name.c_str());
  }

 private:
  void set(const std::string& name, const std::string& value) {
    ::setenv(name.c_str(), value.c_str(), 1);
    set_.push_back(name);
  }
  std::vector<std::string> set_;
};

struct Started : sdk {
  Started() : sdk("guest") {}
  ~Started() override { destroy_managers(); }
};

TEST_F(HostedTest, TheEventLoopTakesAnInheritedConnection) {
  const Inherited inherited({"--agenttitle=Sdk-guest", "--demuxerOpts=1,2,name,Agent (1):2",
                             "--statehubfd=" + std::to_string(ends_[1])});
  Started guest;
  Agent agent(guest);
  event_loop* loop = guest.get_event_loop();
  loop->wait_for_initialized();
  EXPECT_TRUE(agent.initialized);
  feeds::createIntf(tree_, id("Ethernet1")).status->operStatus.set(1);
  EXPECT_TRUE(until(*loop, [&] { return agent.up["Ethernet1"]; }));
}

TEST_F(HostedTest, WhatWasInheritedHasToBeWhole) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  const std::string title = "--agenttitle=Sdk-guest";
  const std::string fd = "--statehubfd=" + std::to_string(ends_[1]);
  for (const char* options : {"--demuxerOpts=", "--demuxerOpts=1,2,name", "--demuxerOpts=1,2,,a",
                              "--demuxerOpts=one,2,name,a"}) {
    const Inherited inherited({title, options, fd});
    EXPECT_DEATH({ Started().get_event_loop(); }, "--demuxerOpts not found in passive mount ags")
        << options;
  }
  for (const char* badFd : {"--statehubfd=", "--statehubfd=x", "--statehubfd=-1"}) {
    const Inherited inherited({title, "--demuxerOpts=1,2,name,a", badFd});
    EXPECT_DEATH({ Started().get_event_loop(); }, "--statehubfd not found in passive mount ags")
        << badFd;
  }
}

TEST_F(HostedTest, AServersConnectionIsMadeAgain) {
  test::TempDir directory;
  const std::string socket = directory / "statehub";
  std::string error;
  auto server = hub::Server::listen(hub_, socket, &error);
  ASSERT_TRUE(server) << error;
  server->open();
  auto h = host::at_socket("guest", socket);
  Guest guest(*h);
  Agent agent(guest);
  guest.initialize_context();
  event_loop* loop = guest.get_event_loop();
  loop->wait_for_initialized();
  hub_.dropAll();
  EXPECT_TRUE(until(*loop, [&] { return !h->connected(); }));
  feeds::createIntf(tree_, id("Ethernet1")).status->operStatus.set(1);
  EXPECT_TRUE(until(*loop, [&] { return agent.up["Ethernet1"]; }));
  EXPECT_TRUE(h->connected());
}

// --- what a host may do wrong -------------------------------------------------------------------

std::string raised(const std::function<void()>& call) {
  try {
    call();
  } catch (const configuration_error& e) {
    return e.what();
  }
  return "nothing was raised";
}

TEST_F(HostedTest, AConnectionThatCannotBeHadIsAnError) {
  test::TempDir directory;
  const std::string nobody = directory / "nobody";
  EXPECT_EQ("cannot connect to Statehub: no server at the socket " + nobody +
                " (No such file or directory)",
            raised([&] { host::at_socket("guest", nobody); }));
  EXPECT_EQ("cannot connect to Statehub: the port \"0\" is no number from 1 to 65535",
            raised([] { host::at_port("guest", 0); }));
  EXPECT_EQ("descriptor 999 is no connection to Statehub: Bad file descriptor",
            raised([] { host::over("guest", 999); }));
  const int datagrams = ::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  const std::string which = "descriptor " + std::to_string(datagrams);
  EXPECT_EQ(which + " is no connection to Statehub: expected a stream socket",
            raised([&] { host::over("guest", datagrams); }));
  ::close(datagrams);
  const int alone = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  EXPECT_NE(std::string::npos, raised([&] { host::over("guest", alone); }).find("not connected"));
  EXPECT_NE(-1, ::fcntl(alone, F_GETFD)) << "it is still the caller's";
  ::close(alone);
}

TEST_F(HostedTest, TheContextIsOfTheSameAgent) {
  auto h = host::over("guest", ends_[1]);
  sdk other("other", h->entity_manager());
  EXPECT_EQ("the entity manager is that of agent \"guest\", and this context's agent is \"other\"",
            raised([&] { other.initialize_context(); }));
}

// One process has one local Statehub, and that one feed.
void localGuests(const std::string& scenario) {
  const std::string first = raised([] { host::local("guest", "moon"); });
  std::fprintf(stderr, "%s\n", first.c_str());
  std::unique_ptr<host> h = host::local("guest", "sim:" + scenario);
  Guest guest(*h);
  Agent agent(guest);
  guest.initialize_context();
  until(*guest.get_event_loop(), [&] { return !agent.up.empty(); });
  std::fprintf(stderr, "%zu interface\n", agent.up.size());
  host::local("second", "sim:" + scenario);
  std::fprintf(stderr, "%s\n", raised([] { host::local("third", "linux"); }).c_str());
  std::_Exit(0);
}

TEST(LocalHost, HasOneFeedAProcess) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  test::TempDir directory;
  const std::string scenario = directory / "scenario";
  std::ofstream(scenario) << "interface-add Ethernet1 eth1\noper-status Ethernet1 1\n";
  EXPECT_EXIT(
      localGuests(scenario), testing::ExitedWithCode(0),
      "cannot be fed by \"moon\": expected \"linux\", \"sim\", \"sim:FILE\", \"1\" or "
      "nothing\n1 interface\n.*cannot be fed by \"linux\": the feed \"sim:.*\" was started");
}

}  // namespace
}  // namespace ryx
