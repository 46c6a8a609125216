// The server's configuration: what it says, and how each mistake in it is told; and who comes in.
#include "switch/hub/config.h"

#include <grp.h>
#include <gtest/gtest.h>
#include <pwd.h>
#include <unistd.h>

#include <algorithm>
#include <string>
#include <vector>

#include "switch/hub/access.h"
#include "switch/hub/files.h"

namespace ryx::hub {
namespace {

using platform::HubPeer;
using platform::Participant;
using platform::Role;

std::string told(const std::string& text) {
  Config config;
  return config.take(text, "file");
}

TEST(ConfigTest, SaysWhatHolds) {
  Config config;
  EXPECT_EQ("", config.take(R"(
socket = "/a/socket"
state = "/a/state"
services = ["linux", "sim:/a/scenario"]
[access]
operators = ["root", "@root"]
[access.agents]
watcher = ["root"]
"*" = []
[tcp]
port = 2222
peers = ["127.0.0.1"]
agents = ["watcher"]
[limits]
entities = 5
bytes = 6
mounts = 7
[agents]
stop-seconds = 8
kill-seconds = 9
)",
                            "file"));
  EXPECT_EQ("/a/socket", config.socket);
  EXPECT_EQ("/a/state", config.state);
  EXPECT_EQ((std::vector<std::string>{"linux", "sim:/a/scenario"}), config.services);
  EXPECT_EQ("sim", nameOfService(config.services[1]));
  EXPECT_EQ((std::vector<std::string>{"root", "@root"}), config.operators);
  EXPECT_EQ(1u, config.agents.at("watcher").size());
  EXPECT_EQ(2222, config.port);
  EXPECT_EQ(std::vector<std::string>{"127.0.0.1"}, config.peers);
  EXPECT_EQ(5u, config.limits.entities);
  EXPECT_EQ(6u, config.limits.bytes);
  EXPECT_EQ(7u, config.limits.mounts);
  EXPECT_EQ(8, config.stopSeconds);
  EXPECT_EQ(9, config.killSeconds);
  // The one that is installed holds what holds without it.
  std::string installed;
  ASSERT_EQ(0, readFile(RYX_SOURCE_DIR "/packaging/ryxd.toml", &installed));
  EXPECT_EQ("", told(installed));
  std::string all;
  for (size_t at = 0, end; at < installed.size(); at = end + 1) {
    end = std::min(installed.find('\n', at), installed.size());
    std::string line = installed.substr(at, end - at);
    if (line.starts_with("# ") && line.find(" = ") != line.npos) line.erase(0, 2);
    for (const char* nobody : {"alice", "@netops", "bob", "@agents"})
      if (const size_t name = line.find(nobody); name != line.npos)
        line.replace(name, std::string(nobody).size(), "root");
    all += line + "\n";
  }
  Config same;
  EXPECT_EQ("", same.take(all, "ryxd.toml"));
  EXPECT_EQ(Config().limits.bytes, same.limits.bytes);
  EXPECT_EQ(Config().limits.entities, same.limits.entities);
  EXPECT_EQ(Config().stopSeconds, same.stopSeconds);
  EXPECT_EQ(Config().killSeconds, same.killSeconds);
}

TEST(ConfigTest, EachMistakeIsToldWithItsLine) {
  const struct {
    const char* text;
    const char* told;
  } mistakes[] = {
      {"socket = 5", "file:1: socket: expected a text in double quotes that is not empty\n"},
      {"\nservices = \"linux\"", "file:2: services: expected a list of texts, [\"...\", ...]\n"},
      {"services = [\"linux\",\n  \"moon\"]",
       "file:2: services: \"moon\"; expected \"linux\", \"sim\" or \"sim:SCENARIO\"\n"},
      {"services = [\"linux:x\"]", "\"linux:x\"; expected"},
      {"socke = \"x\"", "file:1: socke: unknown; expected one of: socket, state, services, access"},
      {"[acess]\n", "file:1: acess: unknown"},
      {"access = 1", "file:1: access: expected a table, [access]\n"},
      {"[access]\noperators = [\"no-such-user\"]",
       "file:2: access.operators: there is no user \"no-such-user\"; expected a user, or a group"},
      {"[access.agents]\na-b = []", "file:2: access.agents.a-b: expected an agent's name"},
      {"[access.agents]\na = [\"@no-such-group\"]", "there is no group \"no-such-group\""},
      {"[tcp]\nport = 2222", "file:2: tcp.port: needs a list of peers beside it"},
      {"[tcp]\nport = 70000\npeers = []", "file:2: tcp.port: expected a number from 1 to 65535"},
      {"[tcp]\npeers = [\"10.0.0.1\"]", "expected an IPv4 address of the loopback interface"},
      {"[limits]\nentities = -1", "file:2: limits.entities: expected a number from 1"},
      {"[agents]\nstop-seconds = \"x\"",
       "file:2: agents.stop-seconds: expected a number from 0 to"},
      {"a = \"x", "file:1: "},
      {"[limits]\nentities = -1\n[agents]\nkill-seconds = 0\n", "file:4: agents.kill-seconds"},
  };
  for (const auto& mistake : mistakes)
    EXPECT_NE(std::string::npos, told(mistake.text).find(mistake.told))
        << mistake.text << " is told as\n"
        << told(mistake.text) << "instead of\n"
        << mistake.told;
}

TEST(AccessTest, WhoMayWhat) {
  const auto uidOf = [](const char* name) {
    const passwd* user = ::getpwnam(name);
    return user ? static_cast<int64_t>(user->pw_uid) : HubPeer::kUnknown;
  };
  const int64_t other = uidOf("nobody"), third = uidOf("daemon");
  if (other < 0 || third < 0) GTEST_SKIP() << "this system has no users nobody and daemon";
  const std::string group = ::getgrgid(::getpwnam("daemon")->pw_gid)->gr_name;
  Config config;
  ASSERT_EQ("",
            config.take("[access]\noperators = [\"nobody\"]\n[access.agents]\na = [\"nobody\"]\n"
                        "b = [\"@" +
                            group +
                            "\"]\n[tcp]\nport = 1\npeers = [\"127.0.0.1\"]\n"
                            "agents = [\"t\"]",
                        "file"));
  Access access(config);
  access.ownProcessIs(
      [](std::string_view agent, int64_t pid) { return agent == "own" && pid == 7; });
  const auto told = [&](Role role, const char* name, int64_t uid, int64_t pid = 5) {
    HubPeer peer;
    peer.uid = uid;
    peer.pid = pid;
    return access.turnsAway({role, name}, peer);
  };
  EXPECT_EQ("", told(Role::agent, "whoever", 0));
  EXPECT_EQ("", told(Role::agent, "whoever", static_cast<int64_t>(getuid())));
  EXPECT_EQ("", told(Role::agent, "a", other));
  EXPECT_EQ("", told(Role::agent, "b", third)) << "by group";
  EXPECT_EQ("the user nobody is not configured to connect as the agent 'b'",
            told(Role::agent, "b", other));
  EXPECT_EQ("the user daemon is not configured to connect as the agent 'a'",
            told(Role::agent, "a", third));
  EXPECT_EQ("", told(Role::agent, "own", third, 7)) << "the server runs it";
  EXPECT_NE("", told(Role::agent, "own", third, 8));
  EXPECT_NE(std::string::npos, told(Role::agent, "a-b", 0).find("must have no '-'"));
  EXPECT_EQ("", told(Role::operators, "x", other));
  EXPECT_EQ("the user daemon is not configured as one of the operators",
            told(Role::operators, "x", third));
  EXPECT_NE("", told(Role::service, "linux", other)) << "services are the server's to start";
  // Over TCP nobody knows who it is.
  EXPECT_EQ("", told(Role::agent, "t", HubPeer::kUnknown, HubPeer::kUnknown));
  EXPECT_EQ("the agent 'a' is not configured to connect over TCP",
            told(Role::agent, "a", HubPeer::kUnknown, HubPeer::kUnknown));
  EXPECT_NE("", told(Role::operators, "x", HubPeer::kUnknown, HubPeer::kUnknown));
  // What the server started is that and nothing else.
  HubPeer started;
  started.isStarted = true;
  started.role = Role::agent;
  started.name = "a";
  EXPECT_EQ("", access.turnsAway({Role::agent, "a"}, started));
  EXPECT_EQ(
      "the server started this process as the agent 'a', and it says that it is the agent 'b'",
      access.turnsAway({Role::agent, "b"}, started));
}

}  // namespace
}  // namespace ryx::hub
