// The context: names, slots, what start-up does with arguments and environment, how the process
// ends. What needs a process of its own runs in one.
#include "ryx/sdk.h"

#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <spawn.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <iterator>
#include <memory>

#include "platform/activity/activity.h"
#include "platform/activity/descriptor.h"
#include "platform/model/wellknown.h"
#include "platform/statehub/local.h"
#include "ryx/agent.h"
#include "ryx/event_loop.h"
#include "ryx/mount.h"
#include "ryx/panic.h"
#include "ryx/print_profiles.h"
#include "ryx/timer.h"
#include "tests/slots.h"
#include "tests/support/statehub_fixture.h"
#include "tests/support/temp_dir.h"

extern char** environ;

namespace ryx {
namespace {

using testing::TestSdk;

using Strings = std::vector<std::string>;

// --- processes ----------------------------------------------------------------------------------

struct Result {
  int status = 0;
  std::string out;
  std::string err;
};

std::string readAll(int fd) {
  std::string text;
  char bytes[4096];
  for (ssize_t n; (n = ::read(fd, bytes, sizeof bytes)) > 0;)
    text.append(bytes, static_cast<size_t>(n));
  ::close(fd);
  return text;
}

// This program again, under that command line, doing what RYX_TEST_CHILD says.
Result runSelf(const char* what, Strings arguments, Strings environment = {}) {
  int out[2];
  int err[2];
  EXPECT_EQ(0, ::pipe2(out, O_CLOEXEC));
  EXPECT_EQ(0, ::pipe2(err, O_CLOEXEC));
  environment.push_back(std::string("RYX_TEST_CHILD=") + what);
  std::vector<char*> argv;
  std::vector<char*> envp;
  for (std::string& argument : arguments) argv.push_back(argument.data());
  for (std::string& variable : environment) envp.push_back(variable.data());
  for (char** variable = environ; *variable != nullptr; ++variable)
    if (std::string_view(*variable).substr(0, 6) != "AGENT_") envp.push_back(*variable);
  argv.push_back(nullptr);
  envp.push_back(nullptr);
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_adddup2(&actions, out[1], STDOUT_FILENO);
  posix_spawn_file_actions_adddup2(&actions, err[1], STDERR_FILENO);
  pid_t pid = -1;
  EXPECT_EQ(0, ::posix_spawn(&pid, "/proc/self/exe", &actions, nullptr, argv.data(), envp.data()));
  posix_spawn_file_actions_destroy(&actions);
  ::close(out[1]);
  ::close(err[1]);
  Result result;
  result.out = readAll(out[0]);
  result.err = readAll(err[0]);
  EXPECT_EQ(pid, ::waitpid(pid, &result.status, 0));
  return result;
}

// Calls back when the SDK is initialized.
class Agent : public agent_handler {
 public:
  Agent(sdk& context, std::function<void(agent_mgr&)> then)
      : agent_handler(context.get_agent_mgr()),
        mgr_(context.get_agent_mgr()),
        then_(std::move(then)) {}
  void on_initialized() override { then_(*mgr_); }

 private:
  agent_mgr* mgr_;
  std::function<void(agent_mgr&)> then_;
};

void mainLoop(sdk& context, Strings arguments = {}) {
  arguments.insert(arguments.begin(), "program");
  std::vector<char*> argv;
  for (std::string& argument : arguments) argv.push_back(argument.data());
  argv.push_back(nullptr);
  context.main_loop(static_cast<int>(arguments.size()), argv.data());
}

// main_loop of an agent with those arguments.
void runAgent(const std::string& name, Strings arguments, std::function<void(agent_mgr&)> then) {
  sdk context(name);
  Agent agent(context, std::move(then));
  mainLoop(context, std::move(arguments));
}

void leave(agent_mgr& mgr) {
  mgr.exit();
}

[[noreturn]] void childName() {
  std::fputs(get_agent_process_name().c_str(), stdout);
  std::fflush(stdout);
  ::_exit(0);
}

// Tells who it is over the descriptor REPORT once it runs in the background, and waits for SIGTERM.
[[noreturn]] void childDaemon() {
  runAgent("tester", {"--daemonize"}, [](agent_mgr&) {
    char where[100] = "";
    if (::readlink("/proc/self/fd/1", where, sizeof where - 1) < 0) std::perror("readlink");
    ::dprintf(std::atoi(std::getenv("REPORT")), "%d %d %s\n", static_cast<int>(::getpid()),
              ::getsid(0) == ::getpid() ? 1 : 0, where);
  });
  ::_exit(1);
}

// Before any test is looked at.
__attribute__((constructor)) void childMain() {
  const char* what = std::getenv("RYX_TEST_CHILD");
  if (what == nullptr) return;
  if (std::string_view(what) == "name") childName();
  if (std::string_view(what) == "daemon") childDaemon();
}

// --- names --------------------------------------------------------------------------------------

TEST(SdkName, IsChecked) {
  const std::string longest(32, 'x');
  EXPECT_EQ(longest, sdk(longest).name());
  EXPECT_EQ("my_agent-2", sdk("my_agent-2").name());
  EXPECT_EQ("", sdk("").name());
  EXPECT_EQ("trailing-", sdk("trailing-").name());
  try {
    sdk context(longest + "y");
    ADD_FAILURE() << "nothing was raised";
  } catch (const invalid_range_error& e) {
    EXPECT_EQ(longest + "y", e.argument_name());
    EXPECT_EQ(1u, e.min_valid());
    EXPECT_EQ(32u, e.max_valid());
  }
  for (const char* name : {"my.agent", "my agent", "a/b", "\xc3\xa4", "a\n"}) {
    try {
      sdk context(name);
      ADD_FAILURE() << "nothing was raised for " << name;
    } catch (const configuration_error& e) {
      EXPECT_STREQ(
          "Invalid agent name. Only alphanumeric characters, underscores, and dashes are "
          "permitted.",
          e.what());
    }
  }
}

TEST(SdkName, IsThatOfTheProcess) {
  const struct {
    Strings arguments;
    const char* name;
  } cases[] = {
      {{"/usr/bin/python", "/opt/x/MyAgent.py"}, "MyAgent"},
      {{"python", "script"}, "script"},
      {{"/usr/bin/python3", "/opt/x/MyAgent.py"}, "python3"},
      {{"/bin/lt-Thing"}, "Thing"},
      {{"/bin/.hidden"}, "_hidden"},
      {{"/bin/.hidden.bin"}, "_hidden"},
      {{"/bin/my.agent.bin"}, "my_agent"},
      {{"agent", "--flag"}, "agent"},
      {{"./a b"}, "a_b"},
      {{"lt-"}, nullptr},
      {{"/bin/"}, nullptr},
      {{""}, nullptr},
      {{"python"}, nullptr},
      {{"/" + std::string(250, 'd') + "/Agent"}, "d"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.arguments.front());
    const Result result = runSelf("name", c.arguments);
    if (c.name != nullptr) {
      EXPECT_EQ(0, result.status) << result.err;
      // Only the first 200 bytes of the command line are read.
      const std::string expected = c.name == std::string("d") ? std::string(199, 'd') : c.name;
      EXPECT_EQ(expected, result.out);
      continue;
    }
    EXPECT_TRUE(WIFSIGNALED(result.status) && WTERMSIG(result.status) == SIGABRT);
    const std::string told =
        "We get the agent name from the binary name, or it can be setexplicitely via the "
        "ryx::sdk(std::string) constructor.\n"
        "No agent name found: '" +
        c.arguments.front() + "'.\nUnable to find a process name: aborting!\n";
    EXPECT_EQ(told, result.err.substr(0, told.size()));
  }
}

TEST(SdkName, MayComeFromTheEnvironment) {
  const struct {
    const char* value;
    const char* name;
  } cases[] = {{"foo-bar-baz", "baz"},   {"foo-", "foo-"}, {"foo", "foo"}, {"-x", "x"},
               {"my.agent", "my_agent"}, {"-", "-"}};
  for (const auto& c : cases) {
    const Result result =
        runSelf("name", {"/bin/other"}, {std::string("AGENT_PROCESS_NAME=") + c.value});
    EXPECT_EQ(c.name, result.out);
    EXPECT_EQ("", result.err);
  }
  const Result empty = runSelf("name", {"/bin/other"}, {"AGENT_PROCESS_NAME="});
  EXPECT_EQ("other", empty.out);
  EXPECT_EQ("not using AGENT_PROCESS_NAME since empty", empty.err);
}

// --- slots and managers -------------------------------------------------------------------------

TEST(Sdk, SlotsAreInTheirOrder) {
  EXPECT_EQ(2, slot(&sdk::initialize_context));
  EXPECT_EQ(3, slot(&sdk::name));
  EXPECT_EQ(4, slot(&sdk::main_loop));
  const ptrdiff_t slots[] = {slot(&sdk::init_acl_mgr),
                             slot(&sdk::init_agent_mgr),
                             slot(&sdk::init_aresolve_mgr),
                             slot(&sdk::init_bfd_session_mgr),
                             slot(&sdk::init_class_map_mgr),
                             slot(&sdk::init_decap_group_mgr),
                             slot(&sdk::init_eth_intf_mgr),
                             slot(&sdk::init_eth_lag_intf_mgr),
                             slot(&sdk::init_eth_phy_intf_counter_mgr),
                             slot(&sdk::init_eth_phy_intf_mgr),
                             slot(&sdk::init_event_loop),
                             slot(&sdk::init_fib_mgr),
                             slot(&sdk::init_hardware_table_mgr),
                             slot(&sdk::init_intf_counter_mgr),
                             slot(&sdk::init_intf_mgr),
                             slot(&sdk::init_ip_intf_mgr),
                             slot(&sdk::init_ip_route_mgr),
                             slot(&sdk::init_lldp_mgr),
                             slot(&sdk::init_mac_table_mgr),
                             slot(&sdk::init_macsec_mgr),
                             slot(&sdk::init_mlag_mgr),
                             slot(&sdk::init_mount_mgr),
                             slot(&sdk::init_mpls_route_mgr),
                             slot(&sdk::init_mpls_vrf_label_mgr),
                             slot(&sdk::init_neighbor_table_mgr),
                             slot(&sdk::init_nexthop_group_mgr),
                             slot(&sdk::init_pathflow_mgr),
                             slot(&sdk::init_policy_map_mgr),
                             slot(&sdk::init_qapi_mgr),
                             slot(&sdk::init_subintf_mgr),
                             slot(&sdk::init_system_mgr),
                             slot(&sdk::init_timeout_mgr),
                             slot(&sdk::init_vrf_mgr),
                             slot(&sdk::get_acl_mgr),
                             slot(&sdk::get_agent_mgr),
                             slot(&sdk::get_aresolve_mgr),
                             slot(&sdk::get_bfd_session_mgr),
                             slot(&sdk::get_class_map_mgr),
                             slot(&sdk::get_decap_group_mgr),
                             slot(&sdk::get_eth_intf_mgr),
                             slot(&sdk::get_eth_lag_intf_mgr),
                             slot(&sdk::get_eth_phy_intf_counter_mgr),
                             slot(&sdk::get_eth_phy_intf_mgr),
                             slot(&sdk::get_event_loop),
                             slot(&sdk::get_fib_mgr),
                             slot(&sdk::get_hardware_table_mgr),
                             slot(&sdk::get_intf_counter_mgr),
                             slot(&sdk::get_intf_mgr),
                             slot(&sdk::get_ip_intf_mgr),
                             slot(&sdk::get_ip_route_mgr),
                             slot(&sdk::get_lldp_mgr),
                             slot(&sdk::get_mac_table_mgr),
                             slot(&sdk::get_macsec_mgr),
                             slot(&sdk::get_mlag_mgr),
                             slot(&sdk::get_mount_mgr),
                             slot(&sdk::get_mpls_route_mgr),
                             slot(&sdk::get_mpls_vrf_label_mgr),
                             slot(&sdk::get_neighbor_table_mgr),
                             slot(&sdk::get_nexthop_group_mgr),
                             slot(&sdk::get_pathflow_mgr),
                             slot(&sdk::get_policy_map_mgr),
                             slot(&sdk::get_qapi_mgr),
                             slot(&sdk::get_subintf_mgr),
                             slot(&sdk::get_system_mgr),
                             slot(&sdk::get_timeout_mgr),
                             slot(&sdk::get_vrf_mgr)};
  for (size_t i = 0; i < std::size(slots); ++i) EXPECT_EQ(static_cast<ptrdiff_t>(5 + i), slots[i]);
}

class SdkTest : public testing::StatehubTest {};
RYX_OVER_BOTH(SdkTest);

// Every accessor gives a manager, always the same one, or says that there is none.
TEST_P(SdkTest, NoAccessorGivesNull) {
  TestSdk context(*this, "tester");
  const auto fib = [](sdk& s) { return s.get_fib_mgr(MGR_MODE_READ_ONLY); };
  const struct {
    const char* name;
    std::function<void*(sdk&)> get;
  } accessors[] = {
      {"acl_mgr", &sdk::get_acl_mgr},
      {"agent_mgr", &sdk::get_agent_mgr},
      {"aresolve_mgr", &sdk::get_aresolve_mgr},
      {"bfd_session_mgr", &sdk::get_bfd_session_mgr},
      {"class_map_mgr", &sdk::get_class_map_mgr},
      {"decap_group_mgr", &sdk::get_decap_group_mgr},
      {"eth_intf_mgr", &sdk::get_eth_intf_mgr},
      {"eth_lag_intf_mgr", &sdk::get_eth_lag_intf_mgr},
      {"eth_phy_intf_counter_mgr", &sdk::get_eth_phy_intf_counter_mgr},
      {"eth_phy_intf_mgr", &sdk::get_eth_phy_intf_mgr},
      {"event_loop", &sdk::get_event_loop},
      {"fib_mgr", fib},
      {"hardware_table_mgr", &sdk::get_hardware_table_mgr},
      {"intf_counter_mgr", &sdk::get_intf_counter_mgr},
      {"intf_mgr", &sdk::get_intf_mgr},
      {"ip_intf_mgr", &sdk::get_ip_intf_mgr},
      {"ip_route_mgr", &sdk::get_ip_route_mgr},
      {"lldp_mgr", &sdk::get_lldp_mgr},
      {"mac_table_mgr", &sdk::get_mac_table_mgr},
      {"macsec_mgr", &sdk::get_macsec_mgr},
      {"mlag_mgr", &sdk::get_mlag_mgr},
      {"mount_mgr", &sdk::get_mount_mgr},
      {"mpls_route_mgr", &sdk::get_mpls_route_mgr},
      {"mpls_vrf_label_mgr", &sdk::get_mpls_vrf_label_mgr},
      {"neighbor_table_mgr", &sdk::get_neighbor_table_mgr},
      {"nexthop_group_mgr", &sdk::get_nexthop_group_mgr},
      {"pathflow_mgr", &sdk::get_pathflow_mgr},
      {"policy_map_mgr", &sdk::get_policy_map_mgr},
      {"qapi_mgr", &sdk::get_qapi_mgr},
      {"subintf_mgr", &sdk::get_subintf_mgr},
      {"system_mgr", &sdk::get_system_mgr},
      {"timeout_mgr", &sdk::get_timeout_mgr},
      {"vrf_mgr", &sdk::get_vrf_mgr},
  };
  for (const auto& accessor : accessors) {
    try {
      void* manager = accessor.get(context);
      EXPECT_NE(nullptr, manager) << accessor.name;
      EXPECT_EQ(manager, accessor.get(context)) << accessor.name;
    } catch (const unsupported_error& e) {
      EXPECT_EQ(std::string(accessor.name) + " is not supported", e.what());
    }
  }
  EXPECT_NE(nullptr, context.get_agent_mgr());
  context.start();
}

TEST_P(SdkTest, AProgramMayOverrideAccessors) {
  struct Mine : TestSdk {
    using TestSdk::TestSdk;
    ~Mine() override {
      destroy_managers();
      timeout_mgr_ = nullptr;
    }
    void init_timeout_mgr() override {
      ++inits;
      timeout_mgr_ = &mine;
    }
    mount_mgr* get_mount_mgr() override {
      ++mounts;
      return TestSdk::get_mount_mgr();
    }
    timeout_mgr mine;
    int inits = 0;
    int mounts = 0;
  } context(*this, "tester");
  EXPECT_EQ(&context.mine, context.get_timeout_mgr());
  EXPECT_EQ(&context.mine, context.get_timeout_mgr());
  EXPECT_EQ(1, context.inits);
  context.get_agent_mgr();
  EXPECT_EQ(1, context.mounts);
}

TEST_P(SdkTest, ContextsAreIndependent) {
  TestSdk one(*this, "one");
  TestSdk two(*this, "two");
  EXPECT_NE(one.get_agent_mgr(), two.get_agent_mgr());
  EXPECT_NE(one.get_mount_mgr(), two.get_mount_mgr());
  EXPECT_EQ(&one, one.get_mount_mgr()->get_sdk());
  one.start();
  EXPECT_FALSE(two.get_mount_mgr()->initializationComplete());
  two.start();
}

TEST(Sdk, PrintsItsBanner) {
  ::testing::internal::CaptureStdout();
  sdk context("tester");
  const std::string banner = ::testing::internal::GetCapturedStdout();
  EXPECT_EQ(0u, banner.find("Using RYX SDK "));
  EXPECT_EQ('\n', banner.back());
  print_profiles::set_print_profiles("tester");
  print_profiles::add_profile("acl");
  print_profiles::write_profiles();
}

TEST(Sdk, NeedsAConnectionToBeInitializedByItsHost) {
  sdk context("tester");
  try {
    context.initialize_context();
    ADD_FAILURE() << "nothing was raised";
  } catch (const legacy_exception& e) {
    EXPECT_STREQ("No ryxsdk context provided, unable to initialize", e.what());
  }
}

TEST(Sdk, RefusesToStartUnderATrailingDash) {
  sdk context("tester-");
  try {
    mainLoop(context);
    ADD_FAILURE() << "nothing was raised";
  } catch (const configuration_error& e) {
    EXPECT_NE(std::string::npos, std::string(e.what()).find("must not end in a dash"));
  }
}

// --- main_loop ----------------------------------------------------------------------------------

class MainLoop : public ::testing::Test {
 protected:
  MainLoop() {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    ::setenv("STATEHUBLOCAL", "1", 1);
  }
  ~MainLoop() override { ::unsetenv("STATEHUBLOCAL"); }
};

[[noreturn]] void leaveTwice() {
  sdk context("tester");
  int initialized = 0;
  Agent agent(context, [&](agent_mgr& mgr) {
    ++initialized;
    mgr.status_set("k", "v");
    mgr.exit();
  });
  mainLoop(context);
  const auto* status =
      platform::localTree().find<platform::GenericAgent::Status>("daemon/agent/status/tester");
  const bool written = status != nullptr && !status->running() && status->data.get("k") != nullptr;
  class Stop : public timeout_handler {
   public:
    Stop(timeout_mgr* timeouts, agent_mgr* mgr) : timeout_handler(timeouts), mgr_(mgr) {}
    void on_timeout() override { mgr_->exit(); }

   private:
    agent_mgr* mgr_;
  } stop(context.get_timeout_mgr(), context.get_agent_mgr());
  stop.timeout_time_is(now());
  mainLoop(context);
  ::_exit(written && initialized == 1 ? 7 : 8);
}

TEST_F(MainLoop, ReturnsAfterExitAndMayBeEnteredAgain) {
  EXPECT_EXIT(leaveTwice(), ::testing::ExitedWithCode(7), "");
}

TEST_F(MainLoop, SetsAHeartbeatPeriodWhereThereIsNone) {
  const struct {
    const char* value;
    const char* then;
  } cases[] = {{nullptr, "period 30"}, {"", "period 30"},    {"0.5", "period 30"},
               {"abc", "period 30"},   {"-3", "period 30"},  {"5", "period 5"},
               {"1", "period 1"},      {"2.5", "period 2.5"}};
  for (const auto& c : cases) {
    if (c.value == nullptr)
      ::unsetenv("HEARTBEAT_PERIOD");
    else
      ::setenv("HEARTBEAT_PERIOD", c.value, 1);
    EXPECT_EXIT(runAgent("tester", {},
                         [](agent_mgr&) {
                           std::fprintf(stderr, "period %s\n", std::getenv("HEARTBEAT_PERIOD"));
                           std::raise(SIGTERM);
                         }),
                ::testing::ExitedWithCode(143), c.then);
  }
  ::unsetenv("HEARTBEAT_PERIOD");
}

std::string processName() {
  char name[64] = "";
  std::FILE* file = std::fopen("/proc/self/comm", "r");
  if (file != nullptr && std::fgets(name, sizeof name, file) != nullptr) std::fclose(file);
  return name;
}

TEST_F(MainLoop, GivesTheProcessItsTitle) {
  const auto tell = [](agent_mgr&) {
    std::fprintf(stderr, "title %s", processName().c_str());
    std::raise(SIGTERM);
  };
  EXPECT_EXIT(runAgent("tester", {}, tell), ::testing::ExitedWithCode(143),
              "title tester-tester\n");
  ::setenv("STATEHUB_SOCKID_ARGC", "1", 1);
  ::setenv("STATEHUB_SOCKID_ARG_0", "--agenttitle=Sdk-tester", 1);
  EXPECT_EXIT(runAgent("tester", {}, tell), ::testing::ExitedWithCode(143), "title Sdk-tester\n");
  ::unsetenv("STATEHUB_SOCKID_ARG_0");
  EXPECT_DEATH(runAgent("tester", {}, tell), "passive mount argc and argv inconsistent");
  ::unsetenv("STATEHUB_SOCKID_ARGC");
}

TEST_F(MainLoop, NeedsAName) {
  EXPECT_DEATH(runAgent("", {}, leave), "No agent name set");
}

TEST_F(MainLoop, SaysWhatToDoWithoutAStatehub) {
  ::unsetenv("STATEHUBLOCAL");
  // A server that is not there yet is waited for.
  const auto waits = [](const std::string& argument) {
    ::alarm(1);
    runAgent("tester", {argument}, leave);
  };
  EXPECT_EXIT(waits("--sysname=no-such-system"), ::testing::KilledBySignal(SIGALRM),
              "The agent \"tester\" finds no Statehub: no server at the socket "
              "/run/ryx/no-such-system/statehub(.|\n)*It waits for the server to come"
              "(.|\n)*STATEHUBLOCAL=1(.|\n)*STATEHUBSOCKNAME");
  EXPECT_EXIT(runAgent("tester", {"--statehubport=70000"}, leave), ::testing::ExitedWithCode(1),
              "the port \"70000\" is no number from 1 to 65535");
  EXPECT_EXIT(runAgent("tester", {"--statehubsockname=" + std::string(200, 'x')}, leave),
              ::testing::ExitedWithCode(1), "is longer than 107 bytes");
  ::setenv("STATEHUBSOCKNAME", "/no/such/socket", 1);
  const auto waitsBelow = [] {
    ::alarm(1);
    sdk("tester").get_event_loop()->run(30);
  };
  EXPECT_EXIT(waitsBelow(), ::testing::KilledBySignal(SIGALRM),
              "no server at the socket /no/such/socket");
  // What the command line says holds.
  EXPECT_EXIT(waits("--statehubport=1"), ::testing::KilledBySignal(SIGALRM),
              "no server at TCP port 1 ");
  ::unsetenv("STATEHUBSOCKNAME");
  ::setenv("STATEHUB_SOCKID_ARGC", "1", 1);
  ::setenv("STATEHUB_SOCKID_ARG_0", "--statehubfd=9999", 1);
  EXPECT_EXIT(runAgent("tester", {}, leave), ::testing::ExitedWithCode(1),
              "the inherited descriptor 9999 is not open");
  EXPECT_DEATH({ sdk("tester").get_event_loop(); }, "--agenttitle not found in passive mount ags");
  ::setenv("STATEHUB_SOCKID_ARGC", "2", 1);
  ::setenv("STATEHUB_SOCKID_ARG_1", "--agenttitle=Sdk-tester", 1);
  EXPECT_DEATH({ sdk("tester").get_event_loop(); }, "--demuxerOpts not found in passive mount ags");
  ::setenv("STATEHUB_SOCKID_ARG_0", "--demuxerOpts=1,2,name,Some Agent (1):2", 1);
  EXPECT_DEATH({ sdk("tester").get_event_loop(); }, "--statehubfd not found in passive mount ags");
  ::unsetenv("STATEHUB_SOCKID_ARGC");
}

// A hub in the agent's own process, at a listening socket.
class Server {
 public:
  explicit Server(int family) : fd_(::socket(family, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
    platform::makeWellKnown(tree_);
    if (family == AF_UNIX) {
      sockaddr_un address{};
      address.sun_family = AF_UNIX;
      path_ = directory_ / "hub";
      path_.copy(address.sun_path, sizeof address.sun_path - 1);
      bind(reinterpret_cast<sockaddr*>(&address), sizeof address);
    } else {
      sockaddr_in address{};
      address.sin_family = AF_INET;
      address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
      socklen_t size = sizeof address;
      bind(reinterpret_cast<sockaddr*>(&address), size);
      platform::check(::getsockname(fd_, reinterpret_cast<sockaddr*>(&address), &size) == 0,
                      "getsockname");
      port_ = ntohs(address.sin_port);
    }
    door_ = std::make_unique<Door>(fd_, hub_);
  }
  std::string argument() const {
    return path_.empty() ? "--statehubport=" + std::to_string(port_)
                         : "--statehubsockname=" + path_;
  }
  platform::Hub& hub() { return hub_; }
  platform::GenericAgent::Status* status() {
    return tree_.find<platform::GenericAgent::Status>("daemon/agent/status/tester");
  }

 private:
  struct Door : platform::Descriptor {
    Door(int fd, platform::Hub& h) : Descriptor(fd, "door"), hub(h) { readableInterestIs(true); }
    void onReadable() override {
      if (const int fd = ::accept4(Descriptor::fd(), nullptr, nullptr, SOCK_CLOEXEC); fd >= 0)
        hub.accept(fd);
    }
    platform::Hub& hub;
  };
  void bind(const sockaddr* address, socklen_t size) {
    platform::check(::bind(fd_, address, size) == 0 && ::listen(fd_, 4) == 0, "bind");
  }

  const int fd_;
  test::TempDir directory_;
  std::string path_;
  int port_ = 0;
  platform::Tree tree_;
  platform::Hub hub_{tree_};
  std::unique_ptr<Door> door_;
};

[[noreturn]] void runOverServer(int family) {
  ::unsetenv("STATEHUBLOCAL");
  Server server(family);
  runAgent("tester", {"--foreign", server.argument()}, [](agent_mgr& mgr) {
    for (int i = 0; i < 1000; ++i) mgr.status_set("k" + std::to_string(i), std::string(999, 'v'));
    mgr.exit();
  });
  // All of it was sent before main_loop returned: it arrives although nobody writes any more.
  testing::settle();
  const bool arrived = server.status() != nullptr && server.status()->data.size() == 1000;
  const bool accepted = server.hub().counters().accepted == 1;
  std::fprintf(stderr, "arrived %d accepted %d\n", arrived, accepted);
  std::exit(arrived && accepted ? 7 : 8);
}

[[noreturn]] void runOverInheritedDescriptor() {
  ::unsetenv("STATEHUBLOCAL");
  Server server(AF_UNIX);
  int ends[2];
  platform::check(::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends) == 0, "socketpair");
  server.hub().accept(ends[0]);
  ::setenv("STATEHUB_SOCKID_ARGC", "1", 1);
  ::setenv("STATEHUB_SOCKID_ARG_0", ("--statehubfd=" + std::to_string(ends[1])).c_str(), 1);
  runAgent("tester", {}, [](agent_mgr& mgr) {
    mgr.status_set("k", "v");
    mgr.exit();
  });
  testing::settle();
  std::exit(server.status() != nullptr && server.status()->data.size() == 1 ? 7 : 8);
}

TEST_F(MainLoop, ConnectsToAServer) {
  EXPECT_EXIT(runOverServer(AF_UNIX), ::testing::ExitedWithCode(7), "");
  EXPECT_EXIT(runOverServer(AF_INET), ::testing::ExitedWithCode(7), "");
  EXPECT_EXIT(runOverInheritedDescriptor(), ::testing::ExitedWithCode(7), "");
}

TEST_F(MainLoop, GoesIntoTheBackground) {
  int report[2];
  ASSERT_EQ(0, ::pipe(report));
  const Result result =
      runSelf("daemon", {"tester"}, {"STATEHUBLOCAL=1", "REPORT=" + std::to_string(report[1])});
  EXPECT_EQ(0, result.status) << result.err;  // who started it goes on
  ::close(report[1]);
  char line[200] = "";
  ASSERT_GT(::read(report[0], line, sizeof line - 1), 0);
  int pid = 0;
  int leadsSession = 0;
  char where[100] = "";
  ASSERT_EQ(3, std::sscanf(line, "%d %d %99s", &pid, &leadsSession, where)) << line;
  ASSERT_GT(pid, 1);
  EXPECT_EQ(1, leadsSession);
  EXPECT_STREQ("/dev/null", where);
  ASSERT_EQ(0, ::kill(pid, SIGTERM));
  // The other end of the pipe closes with the process.
  EXPECT_EQ(0, ::read(report[0], line, sizeof line));
  ::close(report[0]);
}

}  // namespace
}  // namespace ryx
