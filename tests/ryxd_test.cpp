// The Statehub server and an agent, as the programs that they are.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <fstream>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "tests/support/temp_dir.h"

namespace ryx {
namespace {

constexpr int kDeadline = 30'000;  // milliseconds of patience with a line that does not come

const std::string kRyxd = RYX_BINARY_DIR "/bin/ryxd";
const std::string kAgent = RYX_BINARY_DIR "/examples/intf_watch";

// A program whose output, both kinds of it, is read here, and whose input is written here.
class Program {
 public:
  explicit Program(std::vector<std::string> words) {
    int in[2], out[2];
    EXPECT_EQ(0, pipe2(in, O_CLOEXEC) | pipe2(out, O_CLOEXEC));
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, in[0], 0);
    posix_spawn_file_actions_adddup2(&actions, out[1], 1);
    posix_spawn_file_actions_adddup2(&actions, out[1], 2);
    std::vector<char*> argv;
    for (std::string& word : words) argv.push_back(word.data());
    argv.push_back(nullptr);
    EXPECT_EQ(0, posix_spawn(&pid_, argv[0], &actions, nullptr, argv.data(), environ)) << words[0];
    posix_spawn_file_actions_destroy(&actions);
    close(in[0]);
    close(out[1]);
    input_ = in[1];
    output_ = out[0];
  }
  Program(const Program&) = delete;
  ~Program() {
    if (pid_ > 0) kill(SIGKILL);
    close(input_);
    close(output_);
  }

  // Reads up to a line that has `text` in it, and gives that line; all that came, when none did.
  std::string line(const std::string& text) {
    std::string came;
    for (;;) {
      for (size_t end; (end = read_.find('\n')) != std::string::npos;) {
        const std::string one = read_.substr(0, end);
        read_.erase(0, end + 1);
        if (one.find(text) != std::string::npos) return one;
        came += one + "\n";
      }
      pollfd ready{output_, POLLIN, 0};
      char bytes[4096];
      ssize_t n = 0;
      if (poll(&ready, 1, kDeadline) != 1 || (n = read(output_, bytes, sizeof bytes)) <= 0) {
        ADD_FAILURE() << "no line with '" << text << "', but:\n" << came << read_;
        return came;
      }
      read_.append(bytes, static_cast<size_t>(n));
    }
  }
  void say(const std::string& line) {
    EXPECT_EQ(static_cast<ssize_t>(line.size()), write(input_, line.data(), line.size()));
  }
  // The status as a shell has it.
  int kill(int signal) {
    ::kill(pid_, signal);
    return end();
  }
  int end() {
    int status = 0;
    EXPECT_EQ(pid_, waitpid(pid_, &status, 0));
    pid_ = -1;
    return WIFSIGNALED(status) ? 128 + WTERMSIG(status) : WEXITSTATUS(status);
  }

 private:
  pid_t pid_ = -1;
  int input_, output_;
  std::string read_;
};

class RyxdTest : public testing::Test {
 protected:
  RyxdTest() {
    ::unsetenv("STATEHUBLOCAL");
    ::setenv("RYX_SIM_INPUT", input_.c_str(), 1);
    scenario("interface-add Ethernet1 eth1\noper-status Ethernet1 1\n");
    std::ofstream{input_};
  }
  void scenario(const std::string& lines) { std::ofstream(scenario_) << lines; }
  void command(const std::string& line) { std::ofstream(input_, std::ios::app) << line << "\n"; }
  std::vector<std::string> server() const {
    return {kRyxd, "--statehubsockname=" + socket_, "--feed=sim:" + scenario_};
  }
  std::vector<std::string> agent() const { return {kAgent, "--statehubsockname=" + socket_}; }

  test::TempDir directory_;
  const std::string socket_ = directory_ / "statehub";
  const std::string scenario_ = directory_ / "scenario";
  const std::string input_ = directory_ / "input";
};

TEST_F(RyxdTest, AnAgentLivesBesideTheServer) {
  Program ryxd(server());
  EXPECT_EQ("ryxd: listening at " + socket_, ryxd.line("listening"));
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
  EXPECT_EQ(0, ryxd.kill(SIGTERM));
  EXPECT_NE(0, access(socket_.c_str(), F_OK)) << "its file goes with it";
}

TEST_F(RyxdTest, AServerThatIsKilledCostsAPause) {
  auto ryxd = std::make_unique<Program>(server());
  ryxd->line("listening");
  Program watch(agent());
  watch.line("Ethernet1 is INTF_OPER_UP");
  watch.say("describe Ethernet1 before\n");
  watch.line("described as 'before'");
  EXPECT_EQ(137, ryxd->kill(SIGKILL));
  watch.line("has lost its Statehub");
  EXPECT_EQ(0, access(socket_.c_str(), F_OK)) << "nobody took the file away";
  // Its own replica answers meanwhile, and what is written waits.
  watch.say("show\n");
  EXPECT_EQ("  Ethernet1: INTF_OPER_UP, enabled, 'before'", watch.line("Ethernet1:"));
  watch.say("describe Ethernet1 meanwhile\n");
  scenario("interface-add Ethernet1 eth1\ninterface-add Ethernet2 eth2\n");
  ryxd = std::make_unique<Program>(server());
  ryxd->line("listening");
  watch.line("Ethernet2 was added (eth2)");
  watch.line("has its Statehub again");
  Program other(agent());
  other.line("turned away by its Statehub: another agent named 'intf_watch' is connected (process");
  EXPECT_EQ(1, other.end());
  watch.say("show\n");
  EXPECT_EQ("  Ethernet1: INTF_OPER_DOWN, enabled, 'meanwhile'", watch.line("  Ethernet1:"));
}

TEST_F(RyxdTest, WhatIsInTheWayIsTold) {
  Program first(server());
  first.line("listening");
  Program second(server());
  EXPECT_EQ("ryxd: cannot listen at " + socket_ + ": another server listens there",
            second.line("ryxd:"));
  EXPECT_EQ(1, second.end());
  Program third({kRyxd, "--statehubsockname=" + scenario_});
  third.line("cannot listen at " + scenario_ + ": a file that is no socket is in the way");
  EXPECT_EQ(1, third.end());
  Program longer({kRyxd, "--statehubsockname=/" + std::string(200, 'x')});
  longer.line("expected a path of 1 to 107 bytes");
  Program feed({kRyxd, "--statehubsockname=" + socket_ + "2", "--feed=moon"});
  feed.line("--feed=moon: expected \"linux\", \"sim\"");
  EXPECT_EQ(1, feed.end());
  Program option({kRyxd, "--nosuch"});
  option.line("usage: ryxd");
  EXPECT_EQ(2, option.end());
  // The first one noticed nothing of all that.
  Program watch(agent());
  watch.line("Ethernet1 is INTF_OPER_UP");
}

}  // namespace
}  // namespace ryx
