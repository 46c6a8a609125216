// The Statehub server, its services and agents, as the programs that they are.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <pwd.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <fstream>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "platform/activity/activity.h"
#include "platform/agent/connection.h"
#include "platform/base/clock.h"
#include "platform/model/agent.h"
#include "platform/model/interface.h"
#include "platform/model/sim.h"
#include "platform/model/statehub.h"
#include "platform/model/wellknown.h"
#include "platform/statehub/entity_manager.h"
#include "switch/hub/process.h"
#include "tests/support/program.h"
#include "tests/support/temp_dir.h"

namespace ryx {
namespace {

using namespace platform;
using test::Program;

const std::string kRyxd = RYX_BINARY_DIR "/bin/ryxd";
const std::string kAgent = RYX_BINARY_DIR "/examples/intf_watch";

bool until(const std::function<bool()>& done) {
  for (double end = clock().now() + test::kDeadline / 1e3; !done();) {
    if (clock().now() > end) return false;
    activity().run(0.01);
  }
  return true;
}

// Looks and steers, as an operator does.
class Operator {
 public:
  explicit Operator(const std::string& socket) {
    settings_.socketName = socket;
    std::string why;
    em_ = EntityManager::overSocket(connectToServer(settings_, &why),
                                    Participant(Role::operators, "tester"));
    group_ = em_->mountGroup();
    for (const WellKnown& place : wellKnown())
      if (place.access != Access::agentOwn || place.ownDepth == 1) group_->add(place.path, "", "w");
    MountStatus status = MountStatus::pending;
    group_->close([&](MountStatus s) { status = s; });
    EXPECT_TRUE(until([&] { return status == MountStatus::success; })) << em_->farewell();
  }
  void comesBack() {
    EXPECT_TRUE(until([&] { return !em_->connected(); }));
    std::string why;
    int fd = -1;
    EXPECT_TRUE(until([&] { return (fd = connectToServer(settings_, &why)) >= 0; }));
    em_->reconnected(fd);
  }
  template <class T>
  T* find(const std::string& path) {
    return em_->find<T>(path);
  }
  GenericAgent::Config* config(const std::string& name) {
    return em_->find<Dir>("daemon/agent/config")->entry.create<GenericAgent::Config>(name);
  }
  void remove(const std::string& path) { EntityOps::remove(*em_->find(path)); }
  GenericAgent::Process* process(const std::string& name, const char* of = "agent") {
    return em_->find<GenericAgent::Process>("daemon/" + std::string(of) + "/process/" + name);
  }
  bool isState(const std::string& name, const std::string& state) {
    return until([&] { return process(name) && process(name)->state() == state; });
  }
  std::string status(const std::string& agent, const char* key) {
    auto* there = em_->find<GenericAgent::Status>("daemon/agent/status/" + agent);
    auto* value = there ? there->data.get(std::string(key)) : nullptr;
    return value ? value->bytes() : "";
  }
  std::string sim(const std::string& line) {
    static int number = 0;
    auto* c = em_->find<Dir>("switch/sim/command")
                  ->entry.create<platform::Sim::Command>("test" + std::to_string(++number));
    c->line.set(line);
    EXPECT_TRUE(until([&] { return c->done(); }));
    const std::string error = c->error();
    EntityOps::remove(*c);
    return error;
  }
  const Statehub::Client* client(const std::string& name) {
    for (CollectionIterator it(em_->find<Dir>("statehub/client")->entry); it; it.next())
      if (static_cast<Statehub::Client*>(it.get())->name() == name)
        return static_cast<Statehub::Client*>(it.get());
    return nullptr;
  }

 private:
  ConnectionSettings settings_;
  std::unique_ptr<EntityManager> em_;
  std::unique_ptr<MountGroup> group_;
};

class RyxdTest : public testing::Test {
 protected:
  RyxdTest() {
    test::whileWaiting = [] { activity().run(0); };
    ::unsetenv("STATEHUBLOCAL");
    ::setenv("RYX_SIM_INPUT", input_.c_str(), 1);
    scenario("interface-add Ethernet1 eth1\noper-status Ethernet1 1\n");
    std::ofstream{input_};
  }
  void scenario(const std::string& lines) { std::ofstream(scenario_) << lines; }
  void command(const std::string& line) { std::ofstream(input_, std::ios::app) << line << "\n"; }
  std::vector<std::string> server() const {
    return {kRyxd, "--statehubsockname=" + socket_, "--state=" + state_,
            "--service=sim:" + scenario_};
  }
  std::unique_ptr<Program> start(std::vector<std::string> words) {
    auto made = std::make_unique<Program>(std::move(words));
    made->line("ryxd: listening at " + socket_);
    return made;
  }
  std::vector<std::string> agent() const { return {kAgent, "--statehubsockname=" + socket_}; }

  test::TempDir directory_;
  const std::string socket_ = directory_ / "statehub";
  const std::string scenario_ = directory_ / "scenario";
  const std::string input_ = directory_ / "input";
  const std::string state_ = directory_ / "state";
};

TEST_F(RyxdTest, AnAgentLivesBesideTheServer) {
  auto ryxd = start(server());
  Program watch(agent());
  watch.line("ready");
  EXPECT_EQ("  Ethernet1: INTF_OPER_UP, enabled, ''", watch.line("Ethernet1:"));
  command("oper-status Ethernet1 2");
  watch.line("Ethernet1 is INTF_OPER_DOWN");
  command("oper-status Ethernet1 1");
  watch.line("Ethernet1 is INTF_OPER_UP");
  // The switch behind the server obeys, and what it then does comes back.
  watch.say("down Ethernet1\n");
  watch.line("Ethernet1 is disabled");
  watch.line("Ethernet1 is INTF_OPER_DOWN");
  EXPECT_EQ(143, watch.kill(SIGTERM));
  EXPECT_EQ(0, ryxd->kill(SIGTERM));
  EXPECT_NE(0, access(socket_.c_str(), F_OK)) << "its file goes with it";
}

TEST_F(RyxdTest, AnAgentThatIsFirstWaitsForTheServer) {
  Program watch(agent());
  watch.line("It waits for the server to come");
  auto ryxd = start(server());
  watch.line("Ethernet1: INTF_OPER_UP");
  EXPECT_EQ(143, watch.kill(SIGTERM));
  EXPECT_EQ(0, ryxd->kill(SIGTERM));
}

TEST_F(RyxdTest, AServerThatIsKilledCostsAPause) {
  auto ryxd = start(server());
  Program watch(agent());
  watch.line("Ethernet1: INTF_OPER_UP");
  watch.say("describe Ethernet1 before\n");
  watch.line("described as 'before'");
  EXPECT_EQ(137, ryxd->kill(SIGKILL));
  watch.line("has lost its Statehub");
  EXPECT_EQ(0, access(socket_.c_str(), F_OK)) << "nobody took the file away";
  // Its own replica answers meanwhile, and what is written waits.
  watch.say("show\n");
  EXPECT_EQ("  Ethernet1: INTF_OPER_UP, enabled, 'before'", watch.line("Ethernet1:"));
  watch.say("describe Ethernet1 meanwhile\n");
  watch.line("described as 'meanwhile'");
  scenario("interface-add Ethernet1 eth1\noper-status Ethernet1 1\ninterface-add Ethernet2 eth2\n");
  ryxd = start(server());
  // It hears the one difference that there is: who comes back finds the services' state whole.
  EXPECT_EQ("Ethernet2 was added (eth2)", watch.next());
  watch.line("has its Statehub again");
  Program other(agent());
  other.line("turned away by its Statehub: another agent named 'intf_watch' is connected (process");
  EXPECT_EQ(1, other.end());
  watch.say("show\n");
  EXPECT_EQ("  Ethernet1: INTF_OPER_UP, enabled, 'meanwhile'", watch.line("  Ethernet1:"));
  // What is configured outlives them all.
  EXPECT_EQ(143, watch.kill(SIGTERM));
  EXPECT_EQ(0, ryxd->kill(SIGTERM));
  ryxd = start(server());
  Program third(agent());
  EXPECT_EQ("  Ethernet1: INTF_OPER_UP, enabled, 'meanwhile'", third.line("  Ethernet1:"));
  EXPECT_EQ(143, third.kill(SIGTERM));
  EXPECT_EQ(0, ryxd->kill(SIGTERM));
}

TEST_F(RyxdTest, RunsEnabledAgents) {
  auto ryxd = start(server());
  Operator op(socket_);
  auto* config = op.config("watcher");
  config->exec.set(kAgent);
  config->argument.set({"Ethernet1"});
  config->option.set(std::string("color"), std::string("blue"));
  EXPECT_TRUE(op.isState("watcher", "stopped"));
  config->enabled.set(true);
  ryxd->line("ready");
  ryxd->line("option color is 'blue'");
  EXPECT_TRUE(op.isState("watcher", "running"));
  ASSERT_TRUE(until([&] { return op.status("watcher", "interfaces") == "1"; }));
  auto* status = op.find<GenericAgent::Status>("daemon/agent/status/watcher");
  EXPECT_TRUE(status->running());
  ASSERT_TRUE(until([&] { return op.client("watcher") != nullptr; }));
  EXPECT_EQ("agent", op.client("watcher")->role());
  const pid_t pid = static_cast<pid_t>(op.process("watcher")->pid());
  EXPECT_EQ(static_cast<uint32_t>(pid), op.client("watcher")->pid());
  std::string title;
  std::getline(std::ifstream("/proc/" + std::to_string(pid) + "/comm"), title);
  EXPECT_EQ("intf_watch-watc", title) << "as much as the kernel shows of it";
  config->option.set(std::string("color"), std::string("red"));
  ryxd->line("option color is 'red'");
  config->option.erase(std::string("color"));
  ryxd->line("option color is ''");
  // One under its name is turned away; one that is killed comes back.
  {
    ::setenv("AGENT_PROCESS_NAME", "watcher", 1);
    Program second(agent());
    ::unsetenv("AGENT_PROCESS_NAME");
    second.line("another agent named 'watcher' is connected (process " + std::to_string(pid) + ")");
    EXPECT_EQ(1, second.end());
  }
  ::kill(pid, SIGKILL);
  ryxd->line("watcher was killed by signal 9 (Killed); it is started again");
  ryxd->line("ready");
  EXPECT_TRUE(op.isState("watcher", "running"));
  EXPECT_EQ(1u, op.process("watcher")->restarts());
  EXPECT_NE(static_cast<uint32_t>(pid), op.process("watcher")->pid());
  // One that is disabled cleans up and leaves.
  config->enabled.set(false);
  ryxd->line("disabled: leaving");
  EXPECT_TRUE(op.isState("watcher", "stopped"));
  EXPECT_EQ("exited with status 0", op.process("watcher")->note());
  EXPECT_EQ(0u, op.process("watcher")->pid());
  EXPECT_TRUE(until([&] { return !status->running(); }));
  EXPECT_EQ("1", op.status("watcher", "interfaces")) << "what it published stays";
  // With its configuration goes all that it left.
  config->enabled.set(true);
  ryxd->line("ready");
  op.remove("daemon/agent/config/watcher");
  ryxd->line("disabled: leaving");
  EXPECT_TRUE(until([&] { return !op.process("watcher"); }));
  EXPECT_TRUE(until([&] { return !op.find<GenericAgent::Status>("daemon/agent/status/watcher"); }));
  EXPECT_EQ(0, ryxd->kill(SIGTERM));
}

TEST_F(RyxdTest, AnAgentThatWillNotLeaveIsMadeTo) {
  std::ofstream(directory_ / "config") << "[agents]\nstop-seconds = 0\nkill-seconds = 1\n";
  std::vector<std::string> words = server();
  words.push_back("--config=" + (directory_ / "config").string());
  auto ryxd = start(words);
  Operator op(socket_);
  const std::string script = directory_ / "stubborn";
  std::ofstream(script) << "#!/bin/sh\ntrap 'echo not yet' TERM\necho here $AGENT_PROCESS_NAME "
                           "$STATEHUB_SOCKID_ARG_1\nwhile :; do sleep 0.1; done\n";
  ::chmod(script.c_str(), 0755);
  auto* config = op.config("stubborn");
  config->exec.set(script);
  config->enabled.set(true);
  EXPECT_EQ("here stubborn --agenttitle=stubborn-stubborn", ryxd->line("here"));
  config->enabled.set(false);
  ryxd->line("not yet");
  EXPECT_TRUE(op.isState("stubborn", "stopped"));
  EXPECT_EQ("was killed by signal 9 (Killed): it did not end after SIGTERM",
            op.process("stubborn")->note());
  // What cannot run says why, and is tried again, less and less often.
  config->exec.set("/no/such/program");
  config->enabled.set(true);
  EXPECT_TRUE(op.isState("stubborn", "waiting"));
  EXPECT_EQ("cannot run /no/such/program: No such file or directory",
            op.process("stubborn")->note());
  config->enabled.set(false);
  config->exec.set("/bin/false");
  config->enabled.set(true);
  EXPECT_TRUE(until([&] { return op.process("stubborn")->restarts() >= 3; }));
  config->enabled.set(false);
  config->exec.set("/bin/true");
  config->enabled.set(true);
  EXPECT_TRUE(op.isState("stubborn", "stopped")) << "who leaves with status 0 is done";
  EXPECT_EQ("it left by itself", op.process("stubborn")->note());
  auto* dashed = op.config("a-b");
  dashed->exec.set("/bin/true");
  dashed->enabled.set(true);
  EXPECT_TRUE(op.isState("a-b", "failed"));
  EXPECT_NE(std::string::npos, op.process("a-b")->note().find("must have no '-'"));
  auto* nobody = op.config("nobody");
  nobody->exec.set("/bin/true");
  nobody->user.set("no-such-user");
  nobody->enabled.set(true);
  EXPECT_TRUE(op.isState("nobody", "waiting"));
  EXPECT_EQ("there is no user \"no-such-user\"", op.process("nobody")->note());
  EXPECT_EQ(0, ryxd->kill(SIGTERM));
}

TEST_F(RyxdTest, AServerThatIsKilledLeavesItsAgentsRunning) {
  auto ryxd = start(server());
  pid_t pid = 0;
  {
    Operator op(socket_);
    auto* config = op.config("watcher");
    config->exec.set(kAgent);
    config->enabled.set(true);
    ryxd->line("ready");
    EXPECT_TRUE(op.isState("watcher", "running"));
    pid = static_cast<pid_t>(op.process("watcher")->pid());
    EXPECT_EQ("", op.sim("interface-add Ethernet7 eth7"));
    ryxd->line("Ethernet7 was added (eth7)");
    EXPECT_NE("", op.sim("interface-add Ethernet7 eth7"));
    ::kill(static_cast<pid_t>(op.process("sim", "service")->pid()), SIGKILL);
    ryxd->line("sim was killed by signal 9");
    ryxd->line("Ethernet7 was removed");  // the next one knows the scenario alone
  }
  const std::string file = state_ + "/state";
  EXPECT_TRUE(until([&] {
    std::ifstream in(file);
    return std::string(std::istreambuf_iterator<char>(in), {}).find("watcher") != std::string::npos;
  }));
  ryxd->kill(SIGKILL);
  const hub::ProcessId agent = hub::ProcessId::of(pid);
  EXPECT_TRUE(agent.isAlive());
  auto next = start(server());
  Operator op(socket_);
  ryxd->line("has its Statehub again");
  EXPECT_TRUE(op.isState("watcher", "running"));
  EXPECT_EQ("started by an earlier server", op.process("watcher")->note());
  EXPECT_EQ(static_cast<uint32_t>(pid), op.process("watcher")->pid());
  EXPECT_TRUE(until([&] { return op.client("watcher") != nullptr; }));
  op.config("watcher")->enabled.set(false);
  ryxd->line("disabled: leaving");
  EXPECT_TRUE(op.isState("watcher", "stopped"));
  EXPECT_TRUE(until([&] { return !agent.isAlive(); }));
  // A clean end leaves none.
  op.config("watcher")->enabled.set(true);
  next->line("ready");
  const hub::ProcessId again = hub::ProcessId::of(static_cast<pid_t>(op.process("watcher")->pid()));
  const hub::ProcessId sim =
      hub::ProcessId::of(static_cast<pid_t>(op.process("sim", "service")->pid()));
  EXPECT_TRUE(again.isAlive() && sim.isAlive());
  EXPECT_EQ(0, next->kill(SIGTERM));
  EXPECT_FALSE(again.isAlive() || sim.isAlive());
}

TEST_F(RyxdTest, ASilentAgentIsToldOfAndStartedAgain) {
  auto ryxd = start(server());
  Operator op(socket_);
  ::setenv("HEARTBEAT_PERIOD", "1", 1);
  Program hand(agent());
  ::unsetenv("HEARTBEAT_PERIOD");
  hand.line("ready");
  hand.signal(SIGSTOP);
  ryxd->line("the agent intf_watch (process " + std::to_string(hand.pid()) + ") is silent");
  EXPECT_TRUE(until([&] { return op.client("intf_watch") && op.client("intf_watch")->silent(); }));
  hand.signal(SIGCONT);
  EXPECT_TRUE(until([&] { return !op.client("intf_watch")->silent(); }));
  const std::string script = directory_ / "watch";
  std::ofstream(script) << "#!/bin/sh\nHEARTBEAT_PERIOD=1 exec " << kAgent << "\n";
  ::chmod(script.c_str(), 0755);
  auto* config = op.config("watcher");
  config->exec.set(script);
  config->restartSilent.set(true);
  config->enabled.set(true);
  ryxd->line("ready");
  EXPECT_TRUE(op.isState("watcher", "running"));
  ::kill(static_cast<pid_t>(op.process("watcher")->pid()), SIGSTOP);
  ryxd->line("watcher was killed by signal 9 (Killed): its heartbeat stayed out");
  ryxd->line("ready");
  EXPECT_EQ(143, hand.kill(SIGTERM));
  EXPECT_EQ(0, ryxd->kill(SIGTERM));
}

TEST_F(RyxdTest, UsersAreWhatTheConfigurationSaysOfThem) {
  const passwd* nobody = ::getpwnam("nobody");
  if (::geteuid() != 0 || !nobody) GTEST_SKIP() << "needs root, and a user nobody";
  const uid_t uid = nobody->pw_uid;
  ::chmod(directory_.path().c_str(), 0755);
  const std::string config = directory_ / "config";
  std::ofstream(config) << "[access.agents]\nmine = [\"nobody\"]\n";
  std::vector<std::string> words = server();
  words.push_back("--config=" + config);
  auto ryxd = start(words);
  const auto asNobody = [&](Role role, const char* name) {
    int told[2];
    EXPECT_EQ(0, ::pipe2(told, O_CLOEXEC));
    const pid_t child = ::fork();
    if (child == 0) {
      if (::setuid(uid) != 0) _exit(1);
      ConnectionSettings settings;
      settings.socketName = socket_;
      std::string why;
      auto em = EntityManager::overSocket(connectToServer(settings, &why), Participant(role, name));
      until([&] { return em->welcomed() || !em->connected(); });
      const std::string text = em->welcomed() ? "welcome" : why + em->farewell();
      _exit(::write(told[1], text.data(), text.size()) > 0 ? 0 : 1);
    }
    ::close(told[1]);
    char text[300];
    const ssize_t n = ::read(told[0], text, sizeof text);
    ::close(told[0]);
    ::waitpid(child, nullptr, 0);
    return std::string(text, static_cast<size_t>(std::max<ssize_t>(n, 0)));
  };
  EXPECT_EQ("welcome", asNobody(Role::agent, "mine"));
  EXPECT_EQ("the user nobody is not configured to connect as the agent 'other'",
            asNobody(Role::agent, "other"));
  EXPECT_EQ("the user nobody is not configured as one of the operators",
            asNobody(Role::operators, "nobody"));
  EXPECT_NE("welcome", asNobody(Role::service, "linux"));
  // An agent runs as the user that it is given.
  Operator op(socket_);
  auto* agent = op.config("other");
  agent->exec.set("/bin/sh");
  agent->argument.set({"-c", "echo runs as $(id -un), $HOME, $STATEHUBLOCAL."});
  agent->user.set("nobody");
  agent->enabled.set(true);
  EXPECT_EQ("runs as nobody, " + std::string(::getpwnam("nobody")->pw_dir) + ", .",
            ryxd->line("runs as"));
  EXPECT_EQ(0, ryxd->kill(SIGTERM));
}

TEST_F(RyxdTest, LetsConfiguredAgentsInOverTcp) {
  // A port that was free a moment ago.
  const int probe = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t size = sizeof address;
  ASSERT_EQ(0, bind(probe, reinterpret_cast<sockaddr*>(&address), size));
  ASSERT_EQ(0, getsockname(probe, reinterpret_cast<sockaddr*>(&address), &size));
  close(probe);
  const std::string port = std::to_string(ntohs(address.sin_port));
  const std::string config = directory_ / "config";
  std::ofstream(config) << "[tcp]\nport = " << port
                        << "\npeers = [\"127.0.0.1\"]\nagents = [\"intf_watch\"]\n";
  std::vector<std::string> words = server();
  words.push_back("--config=" + config);
  auto ryxd = start(words);
  Program watch({kAgent, "--statehubport=" + port});
  watch.line("Ethernet1: INTF_OPER_UP");
  ::setenv("AGENT_PROCESS_NAME", "other", 1);
  Program other({kAgent, "--statehubport=" + port});
  ::unsetenv("AGENT_PROCESS_NAME");
  other.line("the agent 'other' is not configured to connect over TCP");
  EXPECT_EQ(1, other.end());
  // Nor does one come in from an address that is not configured.
  const int stranger = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_in from = address;
  from.sin_port = 0;
  from.sin_addr.s_addr = htonl(0x7f000002);
  ASSERT_EQ(0, bind(stranger, reinterpret_cast<sockaddr*>(&from), sizeof from));
  ASSERT_EQ(0, connect(stranger, reinterpret_cast<sockaddr*>(&address), sizeof address));
  char byte;
  EXPECT_EQ(0, read(stranger, &byte, 1));
  close(stranger);
  EXPECT_EQ(143, watch.kill(SIGTERM));
  EXPECT_EQ(0, ryxd->kill(SIGTERM));
}

TEST_F(RyxdTest, TracesAreSteeredFromOutside) {
  auto ryxd = start(server());
  Operator op(socket_);
  Program watch(agent());
  watch.line("ready");
  auto* setting = op.find<Dir>("daemon/trace")->entry.create<GenericAgent::Trace>("intf_watch");
  setting->setting.set("RyxSdkIntf/0-9");
  EXPECT_TRUE(until([&] {
    op.sim("oper-status Ethernet1 2");
    op.sim("oper-status Ethernet1 1");
    watch.say("show\n");
    return watch.next().find("RyxSdkIntf/") != std::string::npos;
  }));
  EXPECT_EQ(143, watch.kill(SIGTERM));
  EXPECT_EQ(0, ryxd->kill(SIGTERM));
}

TEST_F(RyxdTest, TellsTheServiceManager) {
  const int fd = ::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  const std::string name = directory_ / "notify";
  name.copy(address.sun_path, sizeof address.sun_path - 1);
  ASSERT_EQ(0, bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof address));
  timeval patience{test::kDeadline / 1000, 0};
  ::setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &patience, sizeof patience);
  const auto heard = [&] {
    char text[200];
    const ssize_t n = ::recv(fd, text, sizeof text, 0);
    return std::string(text, static_cast<size_t>(std::max<ssize_t>(n, 0)));
  };
  ::setenv("NOTIFY_SOCKET", name.c_str(), 1);
  auto ryxd = start(server());
  EXPECT_EQ("READY=1\nSTATUS=listening at " + socket_, heard());
  EXPECT_EQ(0, ryxd->kill(SIGTERM));
  EXPECT_EQ("STOPPING=1", heard());
  ::setenv("NOTIFY_SOCKET", "nonsense", 1);
  ryxd = start(server());
  ::unsetenv("NOTIFY_SOCKET");
  ryxd->line("NOTIFY_SOCKET is \"nonsense\"; expected a path, or an abstract name behind an @");
  EXPECT_EQ(0, ryxd->kill(SIGTERM));
  close(fd);
}

TEST_F(RyxdTest, WhatIsInTheWayIsTold) {
  auto first = start(server());
  const std::string elsewhere = "--state=" + (directory_ / "other").string();
  Program second({kRyxd, "--statehubsockname=" + socket_, elsewhere});
  EXPECT_EQ("ryxd: cannot listen at " + socket_ + ": another server listens there",
            second.line("ryxd:"));
  EXPECT_EQ(1, second.end());
  struct {
    std::vector<std::string> words;
    std::string told;
    int status;
  } mistakes[] = {
      {{"--statehubsockname=" + scenario_, elsewhere},
       "cannot listen at " + scenario_ + ": a file that is no socket is in the way",
       1},
      {{"--statehubsockname=" + socket_ + "2", "--state=" + state_},
       "cannot keep state in " + state_ + ": another server keeps its state there",
       1},
      {{"--statehubsockname=/" + std::string(200, 'x'), elsewhere},
       "expected a path of 1 to 107",
       1},
      {{"--service=moon"},
       "--service=\"moon\"; expected \"linux\", \"sim\" or \"sim:SCENARIO\"",
       2},
      {{"--nosuch"}, "usage: ryxd", 2},
      {{"more"}, "expected options alone, not \"more\"", 2},
      {{"--config=/no/such/file"}, "cannot read /no/such/file: No such file or directory", 1},
  };
  for (auto& mistake : mistakes) {
    mistake.words.insert(mistake.words.begin(), kRyxd);
    Program program(mistake.words);
    program.line(mistake.told);
    EXPECT_EQ(mistake.status, program.end()) << mistake.told;
  }
  // A name without a folder is a name in the folder where the server was started.
  Program here({"/bin/sh", "-c",
                "cd " + (directory_ / "").string() + " && exec " + kRyxd +
                    " --statehubsockname=here --state=other"});
  EXPECT_EQ("ryxd: listening at here", here.line("listening"));
  EXPECT_EQ(0, here.kill(SIGTERM));
  // A service that cannot start is told, and the others are served all the same.
  auto words = server();
  words.back() += ".missing";
  words[1] = "--statehubsockname=" + socket_ + "3";
  words[2] = elsewhere;
  Program without(words);
  without.line("the service sim: the feed \"sim\"");
  without.line("the service sim does not serve yet");
  without.line("listening");
  EXPECT_EQ(0, without.kill(SIGTERM));
  // The first one noticed nothing of all that.
  Program watch(agent());
  watch.line("Ethernet1: INTF_OPER_UP");
  EXPECT_EQ(0, first->kill(SIGTERM));
}

}  // namespace
}  // namespace ryx
