// SIGTERM and SIGINT at every moment of an agent's life, sent by another process to a real one: it
// ends with 128 and the signal's number, and never inside a callback.
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <cstdlib>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "platform/base/check.h"
#include "platform/model/wellknown.h"
#include "platform/statehub/hub.h"
#include "ryx/agent.h"
#include "ryx/event_loop.h"
#include "ryx/host.h"
#include "ryx/sdk.h"
#include "ryx/timer.h"

namespace ryx {
namespace {

constexpr unsigned kDeadline = 60;  // seconds after which a process is ended that does not end

// What a process says to its parent, and hears from it.
class Line {
 public:
  explicit Line(int fd) : fd_(fd) {}
  ~Line() { ::close(fd_); }
  Line(const Line&) = delete;
  Line& operator=(const Line&) = delete;
  void say(char what) const { ::send(fd_, &what, 1, MSG_NOSIGNAL); }
  char hear() const {
    char what = 0;
    return ::recv(fd_, &what, 1, 0) == 1 ? what : '-';
  }
  // Says that the moment is here, and waits until the signals were sent.
  void moment() const {
    say('m');
    hear();
  }

 private:
  const int fd_;
};

using Life = std::function<void(const Line&)>;

// A process lives so; at its moment it gets the signals. What it said afterwards goes to `said`.
int statusOf(const Life& life, const std::vector<int>& signals, std::string* said = nullptr) {
  int ends[2];
  EXPECT_EQ(0, ::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends));
  const pid_t pid = ::fork();
  if (pid == 0) {
    ::close(ends[0]);
    ::alarm(kDeadline);
    const Line line(ends[1]);
    life(line);
    ::_exit(1);
  }
  ::close(ends[1]);
  const Line line(ends[0]);
  EXPECT_EQ('m', line.hear());
  for (const int signal : signals) EXPECT_EQ(0, ::kill(pid, signal));
  line.say('g');
  std::string after;
  for (char what; (what = line.hear()) != '-';) after += what;
  if (said != nullptr) *said = after;
  int status = 0;
  EXPECT_EQ(pid, ::waitpid(pid, &status, 0));
  EXPECT_TRUE(WIFEXITED(status)) << "ended by signal " << WTERMSIG(status);
  return WEXITSTATUS(status);
}

// --- agents with a Statehub of their own --------------------------------------------------------

class Agent : public agent_handler {
 public:
  Agent(sdk& context, std::function<void(agent_mgr&)> then)
      : agent_handler(context.get_agent_mgr()),
        mgr_(context.get_agent_mgr()),
        then_(std::move(then)) {}
  void on_initialized() override { then_(*mgr_); }

 private:
  agent_mgr* const mgr_;
  const std::function<void(agent_mgr&)> then_;
};

class Alarm : public timeout_handler {
 public:
  Alarm(sdk& context, std::function<void()> then)
      : timeout_handler(context.get_timeout_mgr()), then_(std::move(then)) {}
  void on_timeout() override { then_(); }

 private:
  const std::function<void()> then_;
};

void mainLoop(sdk& context) {
  char name[] = "tester";
  char* argv[] = {name, nullptr};
  context.main_loop(1, argv);
}

void runAgent(const std::function<void(sdk&, agent_mgr&)>& then) {
  sdk context("tester");
  Agent agent(context, [&](agent_mgr& mgr) { then(context, mgr); });
  mainLoop(context);
}

class SignalTest : public testing::Test {
 protected:
  SignalTest() { ::setenv("STATEHUBLOCAL", "1", 1); }
  ~SignalTest() override { ::unsetenv("STATEHUBLOCAL"); }
};

TEST_F(SignalTest, BeforeTheLoop) {
  const Life intoMainLoop = [](const Line& line) {
    sdk context("tester");
    line.moment();
    mainLoop(context);
  };
  const Life intoRun = [](const Line& line) {
    sdk context("tester");
    line.moment();
    context.get_event_loop()->run(0);
  };
  for (const Life& life : {intoMainLoop, intoRun}) {
    EXPECT_EQ(143, statusOf(life, {SIGTERM}));
    EXPECT_EQ(130, statusOf(life, {SIGINT}));
    // Of two that are pending POSIX does not say which is delivered last.
    const int either = statusOf(life, {SIGTERM, SIGINT});
    EXPECT_TRUE(either == 130 || either == 143) << either;
  }
}

TEST_F(SignalTest, WhileTheLoopWaits) {
  const Life inMainLoop = [](const Line& line) {
    runAgent([&](sdk&, agent_mgr&) { line.say('m'); });
  };
  const Life inRun = [](const Line& line) {
    sdk context("tester");
    event_loop* loop = context.get_event_loop();
    loop->wait_for_initialized();
    line.say('m');
    loop->run(1000);
  };
  for (const Life& life : {inMainLoop, inRun}) {
    EXPECT_EQ(143, statusOf(life, {SIGTERM}));
    EXPECT_EQ(130, statusOf(life, {SIGINT, SIGINT}));
  }
}

TEST_F(SignalTest, InACallbackWhichIsNotCutShort) {
  const Life initialized = [](const Line& line) {
    runAgent([&](sdk&, agent_mgr&) {
      line.moment();
      line.say('d');
    });
  };
  const Life timeout = [](const Line& line) {
    sdk context("tester");
    Alarm alarm(context, [&] {
      line.moment();
      line.say('d');
    });
    alarm.timeout_time_is(now());
    context.get_event_loop()->run(1000);
  };
  for (const Life& life : {initialized, timeout})
    for (const std::vector<int>& signals : {std::vector{SIGTERM}, std::vector(100, SIGTERM)}) {
      std::string said;
      EXPECT_EQ(143, statusOf(life, signals, &said));
      EXPECT_EQ("d", said);
    }
}

TEST_F(SignalTest, WhileTheProcessEnds) {
  const Life life = [](const Line& line) {
    std::atexit([] { std::raise(SIGINT); });
    runAgent([&](sdk&, agent_mgr&) { line.moment(); });
  };
  EXPECT_EQ(143, statusOf(life, {SIGTERM}));
}

// The inner loop ends, and with it the process.
TEST_F(SignalTest, InALoopInsideACallback) {
  const Life life = [](const Line& line) {
    runAgent([&](sdk& context, agent_mgr&) {
      line.moment();
      context.get_event_loop()->run(1000);
      line.say('x');
    });
  };
  std::string said;
  EXPECT_EQ(143, statusOf(life, {SIGTERM}, &said));
  EXPECT_EQ("", said);
}

// --- agents that wait for a server --------------------------------------------------------------

// A guest of a server in its own process, which can be made to go.
struct Guest {
  Guest() {
    platform::makeWellKnown(tree);
    int ends[2];
    platform::check(::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends) == 0, "socketpair");
    hub.accept(ends[0]);
    connection = host::over("tester", ends[1]);
    context = std::make_unique<sdk>("tester", connection->entity_manager());
    agents = context->get_agent_mgr();
    loop = context->get_event_loop();
  }
  // Writes what nobody takes.
  void isCutOff() {
    hub.dropAll();
    agents->status_set("key", "value");
  }
  platform::Tree tree;
  platform::Hub hub{tree};
  std::unique_ptr<host> connection;
  std::unique_ptr<sdk> context;
  agent_mgr* agents;
  event_loop* loop;
};

TEST_F(SignalTest, WhileItWaitsForAServer) {
  const Life toBeInitialized = [](const Line& line) {
    int ends[2];
    platform::check(::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends) == 0, "socketpair");
    auto connection = host::over("tester", ends[1]);
    sdk context("tester", connection->entity_manager());
    context.get_agent_mgr();
    context.initialize_context();
    line.say('m');
    context.get_event_loop()->wait_for_initialized();
  };
  const Life toFlush = [](const Line& line) {
    Guest guest;
    guest.context->initialize_context();
    guest.loop->wait_for_initialized();
    guest.isCutOff();
    line.say('m');
    guest.loop->flush();
  };
  // main_loop sends what was written before it returns, and has patience of its own with that:
  // until a signal comes.
  const Life toLeave = [](const Line& line) {
    Guest guest;
    Alarm leaving(*guest.context, [&] { line.say('m'); });
    Agent agent(*guest.context, [&](agent_mgr& mgr) {
      guest.isCutOff();
      mgr.exit();
      leaving.timeout_time_is(now() + 0.001);
    });
    mainLoop(*guest.context);
  };
  for (const Life& life : {toBeInitialized, toFlush, toLeave}) {
    EXPECT_EQ(143, statusOf(life, {SIGTERM}));
    EXPECT_EQ(130, statusOf(life, {SIGINT}));
  }
}

}  // namespace
}  // namespace ryx
