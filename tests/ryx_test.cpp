// The operator's command, beside a real server.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <fstream>
#include <memory>
#include <nlohmann/json.hpp>
#include <sstream>
#include <string>
#include <vector>

#include "platform/activity/activity.h"
#include "platform/agent/connection.h"
#include "platform/mirra/table.h"
#include "platform/model/tables.h"
#include "platform/statehub/entity_manager.h"
#include "switch/operator/table.h"
#include "tests/support/program.h"
#include "tests/support/temp_dir.h"

namespace ryx {
namespace {

using nlohmann::json;
using platform::activity;
using test::Program;

const std::string kBinary = RYX_BINARY_DIR "/bin/";
const std::string kAgent = RYX_BINARY_DIR "/examples/intf_watch";
const std::string kArpWatch = RYX_BINARY_DIR "/examples/arp_watch";
const std::string kInjector = RYX_BINARY_DIR "/examples/route_injector";

class RyxTest : public testing::Test {
 protected:
  RyxTest() {
    ::unsetenv("STATEHUBLOCAL");
    ::unsetenv("RYX_SIM_INPUT");
    std::ofstream(directory_ / "scenario")
        << "interface-add Ethernet1 eth1\noper-status Ethernet1 1\n"
           "interface-add Ethernet3/1\ninterface-add Port-Channel10\n";
    start();
    ryxd_->line("listening");
  }
  ~RyxTest() override { EXPECT_EQ(0, ryxd_->kill(SIGTERM)); }

  void start() {
    ryxd_ = std::make_unique<Program>(
        std::vector<std::string>{kBinary + "ryxd", "--statehubsockname=" + socket_,
                                 "--state=" + (directory_ / "state").string(),
                                 "--service=sim:" + (directory_ / "scenario").string()});
  }
  std::vector<std::string> words(const std::vector<std::string>& command) const {
    std::vector<std::string> all = {kBinary + "ryx", "--statehubsockname=" + socket_};
    all.insert(all.end(), command.begin(), command.end());
    return all;
  }
  // What it prints; `status` is what it has to end with.
  std::string ryx(const std::vector<std::string>& command, int status = 0) {
    Program program(words(command));
    const std::string text = program.rest();
    EXPECT_EQ(status, program.end()) << text;
    return text;
  }
  json jsonOf(const std::vector<std::string>& command) {
    const std::string text = ryx(command);
    json parsed = json::parse(text, nullptr, false);
    EXPECT_FALSE(parsed.is_discarded()) << text;
    return parsed;
  }
  // Until the table of agents says that.
  json agentWhen(const std::string& name, const std::string& key, const json& value) {
    for (int i = 0; i < 300; ++i) {
      json one = jsonOf({"agent", "show", name, "--json"});
      if (one[key] == value) return one;
    }
    ADD_FAILURE() << "the agent " << name << " never had " << key << " " << value;
    return {};
  }

  test::TempDir directory_;
  const std::string socket_ = directory_ / "statehub";
  std::unique_ptr<Program> ryxd_;
};

TEST_F(RyxTest, LooksAtTheState) {
  EXPECT_EQ(
      "name    type      below\n"
      "config  Qel::Dir  3\n"
      "status  Qel::Dir  3\n",
      ryx({"ls", "/interface/"}));
  EXPECT_EQ(
      "/interface/status/eth/phy/slice/1  (Interface::EthPhyIntfStatusDir)\n"
      "key        operStatus  deviceName\n"
      "Ethernet1  1           eth1\n"
      "\n"
      "/interface/status/eth/phy/slice/3  (Interface::EthPhyIntfStatusDir)\n"
      "key          operStatus\n"
      "Ethernet3/1  2\n",
      ryx({"show", "/interface/status/eth/phy"}));
  EXPECT_EQ(
      "/interface/status/eth/phy/slice/3/Ethernet3/1  (Interface::EthPhyIntfStatus)\n"
      "  operStatus: 2\n"
      "  deviceName: \n",
      ryx({"show", "interface/status/eth/phy/slice/3/Ethernet3/1"}));
  const json lag = jsonOf({"show", "/interface/status/eth/lag", "--json"});
  ASSERT_EQ(1u, lag["intf"].size());
  EXPECT_EQ("Port-Channel10", lag["intf"][0]["@key"]);
  EXPECT_EQ(3u, jsonOf({"ls", "/interface/config", "--json"}).size());
  const json clients = jsonOf({"clients", "--json"});
  ASSERT_LE(1u, clients.size());
  EXPECT_EQ("service", clients[0]["role"]);
  EXPECT_EQ("sim", clients[0]["name"]);
  EXPECT_NE(std::string::npos, ryx({"service"}).find("sim   running  yes"));
}

TEST_F(RyxTest, WatchesAndSets) {
  const std::string port = "/interface/config/eth/phy/slice/1/Ethernet1";
  Program watch(words({"watch", port}));
  EXPECT_EQ(" created " + port, watch.line("created").substr(12));
  ryx({"set", port, "description=to the \"core\"", "adminEnabledStateLocal=2"});
  EXPECT_EQ(
      " changed " + port + " adminEnabledStateLocal=0 -> 2 description= -> to the \\\"core\\\"",
      watch.line("changed").substr(12));
  ryx({"sim", "interface-del", "Ethernet1"});
  EXPECT_EQ(" deleted " + port, watch.line("deleted").substr(12));
  EXPECT_EQ(0, watch.kill(SIGINT));
  Program lines(words({"watch", "/interface/status/eth/lag", "--json"}));
  const json line = json::parse(lines.next(), nullptr, false);
  EXPECT_EQ("/interface/status/eth/lag/Port-Channel10", line["path"]);
  EXPECT_EQ(2, line["entity"]["operStatus"]);
  EXPECT_EQ(0, lines.kill(SIGTERM));
}

TEST_F(RyxTest, ShowsTheTables) {
  using namespace platform;
  EXPECT_EQ("[]\n", ryx({"mirra", "arp/status", "--json"}));
  ryx({"sim", "neighbor-learn", "10.0.0.1", "Ethernet1", "00:1c:73:00:00:01"});
  ryx({"sim", "neighbor-learn", "fe80::7", "Ethernet3/1", "00:1c:73:00:00:02"});
  ConnectionSettings settings;
  settings.socketName = socket_;
  std::string why;
  const auto em = EntityManager::overSocket(connectToServer(settings, &why),
                                            Participant(Role::service, "tester"));
  mirra::Table<Fib::ForwardingStatus> fecs(em->tree().tables(), "forwarding/vrf/status/test",
                                           mirra::Mode::write);
  Fib::Via via;
  via.hop = IpAddr::v4(0x0a000001);
  fecs.write({7}, std::vector<Fib::Via>{via, via});
  fecs.offer();
  test::whileWaiting = [] { activity().run(0); };
  activity().run(0.1);
  // Of all tables, those two.
  std::istringstream all(ryx({"mirra"}));
  std::string shown;
  for (std::string line; std::getline(all, line);) {
    std::istringstream cells(line);
    std::string text;
    for (std::string cell; cells >> cell;) text += (text.empty() ? "" : " ") + cell;
    if (text.find("arp/") == 0 || text.find("/test") != text.npos || text.find("name") == 0)
      shown += text + "\n";
  }
  EXPECT_EQ(
      "name type writer readers rows writes refused\n"
      "arp/status Arp::Table::Status sim 0 2 2 0\n"
      "forwarding/vrf/status/test Mirra::Fib::ForwardingStatus tester 0 1 1 0\n",
      shown);
  EXPECT_EQ(
      "addr      intf         ethAddr            entryType\n"
      "10.0.0.1  Ethernet1    00:1c:73:00:00:01  1\n"
      "fe80::7   Ethernet3/1  00:1c:73:00:00:02  1\n",
      ryx({"mirra", "arp/status"}));
  const json rows = jsonOf({"mirra", "forwarding/vrf/status/test", "--json"});
  ASSERT_EQ(1u, rows.size());
  EXPECT_EQ(7, rows[0]["fecId"]);
  EXPECT_EQ("10.0.0.1", rows[0]["via"][1]["hop"]);
  EXPECT_NE(std::string::npos, ryx({"mirra", "nosuch"}, 1).find("there is no table nosuch"));
  test::whileWaiting = [] {};
}

// A service that died is started again: whoever reads its tables hears what its next life does not
// know any more, and of the rest nothing.
TEST_F(RyxTest, ATableOutlivesItsService) {
  ryx({"agent", "add", "arp_watch", "--option=pin=10.0.0.9 Ethernet1 00:1c:73:00:00:09"});
  Program watch({kArpWatch, "--statehubsockname=" + socket_});
  EXPECT_EQ("10.0.0.9 at Ethernet1 is 00:1c:73:00:00:09, configured", watch.line("10.0.0.9"));
  ryx({"sim", "neighbor-learn", "10.0.0.1", "Ethernet1", "00:1c:73:00:00:01"});
  EXPECT_EQ("10.0.0.1 at Ethernet1 is 00:1c:73:00:00:01", watch.next());
  const json services = jsonOf({"service", "--json"});
  ::kill(services[0]["pid"].get<pid_t>(), SIGKILL);
  EXPECT_EQ("10.0.0.1 at Ethernet1 is gone", watch.next());
  ryx({"sim", "neighbor-learn", "10.0.0.2", "Ethernet1", "00:1c:73:00:00:02"});
  EXPECT_EQ("10.0.0.2 at Ethernet1 is 00:1c:73:00:00:02", watch.next());
}

// It fills its tables before it hands them over: nobody hears of routes that go and come.
TEST_F(RyxTest, RoutesStayWhenTheirServiceDies) {
  constexpr int kRoutes = 300;
  {
    std::ofstream table(directory_ / "table");
    for (int n = 0; n < kRoutes; ++n)
      table << "10." << n / 250 << "." << n % 250 << ".0/24 via 192.0.2.1 dev Ethernet1\n";
  }
  Program injector({kInjector, (directory_ / "table").string(), "--statehubsockname=" + socket_});
  injector.line("seen in the FIB: 300 routes in ");
  ::kill(jsonOf({"service", "--json"})[0]["pid"].get<pid_t>(), SIGKILL);
  json service;
  for (int i = 0; i < 300 && (service["restarts"] != 1 || service["serves"] != true); ++i)
    service = jsonOf({"service", "--json"})[0];
  EXPECT_EQ(1, service["restarts"]) << service;
  ryx({"sim", "oper-status", "Ethernet1", "2"});
  for (int n = 0; n < kRoutes; ++n) {
    const std::string line = injector.next();
    ASSERT_EQ(0u, line.find("not installed any more: 10.")) << line;
  }
  EXPECT_EQ(128 + SIGTERM, injector.kill(SIGTERM));
}

TEST_F(RyxTest, OutlivesItsServer) {
  const std::string port = "/interface/config/eth/phy/slice/1/Ethernet1";
  Program watch(words({"watch", port}));
  watch.line("created");
  ryxd_->kill(SIGKILL);
  watch.line("has lost its Statehub, and waits for it");
  start();
  // A command that is given while the server still starts waits for it.
  ryx({"set", port, "description=again"});
  EXPECT_NE(std::string::npos, watch.line("description= -> again").find(" changed " + port));
  EXPECT_EQ(0, watch.kill(SIGINT));
}

TEST_F(RyxTest, RunsAnAgent) {
  ryx({"agent", "add", "watcher", "--exec", kAgent, "--option", "color=blue",
       "--argument=Ethernet1", "--option=size=a=b"});
  EXPECT_EQ("name     enabled  state    connected  pid  restarts  program" +
                std::string(kAgent.size() - 5, ' ') + "note\n" +
                "watcher  no       stopped  no         -    0         " + kAgent + "\n",
            ryx({"agent", "show"}));
  ryx({"agent", "enable", "watcher"});
  json watcher = agentWhen("watcher", "connected", true);
  EXPECT_EQ("running", watcher["state"]);
  EXPECT_EQ((json{{"color", "blue"}, {"size", "a=b"}}), watcher["options"]);
  agentWhen("watcher", "status", {{"changes", "1"}, {"interfaces", "1"}, {"up", "1"}});
  ryx({"agent", "option", "watcher", "color=red"});
  ryxd_->line("option color is 'red'");
  ryx({"agent", "option", "watcher", "--delete", "color", "size"});
  ryxd_->line("option color is ''");
  EXPECT_NE(std::string::npos, ryx({"agent", "show", "watcher"}).find("options: none\nstatus:\n"));
  EXPECT_EQ("off\n", ryx({"trace", "watcher"}));
  ryx({"trace", "watcher", "RyxSdkAgent/7"});
  EXPECT_EQ("RyxSdkAgent/7\n", ryx({"trace", "watcher"}));
  ryx({"agent", "option", "watcher", "shape=round"});
  ryxd_->line("RyxSdkAgent/7");
  ryx({"trace", "watcher", "off"});
  EXPECT_NE(std::string::npos,
            ryx({"agent", "purge", "watcher"}, 1).find("the agent is running (process "));
  ryx({"agent", "disable", "watcher"});
  ryxd_->line("disabled: leaving");
  agentWhen("watcher", "state", "stopped");
  ryx({"agent", "purge", "watcher"});
  EXPECT_EQ(json::object(), jsonOf({"agent", "show", "watcher", "--json"})["status"]);
  ryx({"agent", "remove", "watcher"});
  EXPECT_EQ(json::array(), jsonOf({"agent", "show", "--json"}));
}

TEST_F(RyxTest, EachMistakeIsTold) {
  const std::string port = "/interface/config/eth/phy/slice/1/Ethernet1";
  const std::string plain = directory_ / "scenario";
  ryx({"agent", "add", "there"});
  const struct {
    std::vector<std::string> words;
    int status;
    std::string told;
  } mistakes[] = {
      {{}, 2, "ryx --help"},
      {{"sho", "/"}, 2, "there is no command \"sho\"; did you mean show?"},
      {{"agent", "ad", "x"}, 2, "there is no command \"ad\"; did you mean add?"},
      {{"show"}, 2, "PATH is required"},
      {{"show", "/", "--jason"}, 2, "--jason"},
      {{"show", "/interface/nix"},
       1,
       "nothing stands at /interface/nix; /interface has config, status"},
      {{"show", port + "0"}, 1, "has Ethernet1"},
      {{"set", port, "description"}, 2, "\"description\"; expected ATTRIBUTE=VALUE"},
      {{"set", port, "descriptio=x"},
       2,
       "has no attribute \"descriptio\"; expected one of: adminEnabled"},
      {{"set", port, "description=x", "adminEnabledStateLocal=300"}, 2, "out of its range"},
      {{"set", port, "adminEnabledStateLocal=on"}, 2, "expected a number"},
      {{"set", "/daemon/agent/config/there", "enabled=yes"}, 2, "expected true or false"},
      {{"set", "/daemon/agent/config/there", "argument=x"},
       2,
       "it is a list; expected an attribute"},
      {{"set", "/interface/status/eth/phy/slice/1/Ethernet1", "operStatus=2"},
       1,
       "it is not an operator's to write"},
      {{"agent", "add", "a-b"}, 2, "expected an agent's name without '-'"},
      {{"agent", "add", "a.b"}, 2, "expected an agent's name: 1 to 32 letters"},
      {{"agent", "add", "there"}, 1, "there is an agent \"there\" already"},
      {{"agent", "add", "x", "--exec=/no/such"}, 1, "there is no program /no/such"},
      {{"agent", "add", "x", "--exec=" + plain}, 1, "cannot be executed"},
      {{"agent", "add", "x", "--option=color"}, 2, "\"color\"; expected an option as KEY=VALUE"},
      {{"agent", "add", "x", "--option=" + std::string(1025, 'k') + "=v"}, 2, "at most 1024"},
      {{"agent", "add", "x", "--enable"}, 2, "--enable needs a program to run"},
      {{"agent", "enable", "x"}, 1, "there is no agent \"x\"; ryx agent show lists"},
      {{"agent", "remove", "x"}, 1, "there is no agent \"x\""},
      {{"agent", "show", "x"}, 1, "there is no agent \"x\""},
      {{"agent", "option", "there", "--delete", "no"}, 1, "the agent has no option \"no\""},
      {{"trace", "there", "Foo/12"}, 2, "Foo/12"},
      {{"sim", "interface-ad", "Ethernet9"},
       1,
       "unknown command \"interface-ad\"; expected one of"},
      {{"--statehubsockname=/no/such/socket", "ls"},
       3,
       "no server at the socket /no/such/socket (No such file or directory)\nStart one with ryxd"},
  };
  for (const auto& mistake : mistakes) {
    const std::string told = ryx(mistake.words, mistake.status);
    EXPECT_NE(std::string::npos, told.find(mistake.told)) << told << " instead of " << mistake.told;
  }
  EXPECT_NE(std::string::npos, ryx({"show", port}).find("description: \n")) << "all or nothing";
  EXPECT_EQ(1u, jsonOf({"agent", "show", "--json"}).size());
  EXPECT_NE(std::string::npos, ryx({"agent", "--help"}).find("option"));
  EXPECT_NE(std::string::npos, ryx({"show", "--help"}).find("Example: ryx show"));
}

TEST(TableTest, FitsTheTerminal) {
  operators::Table table({"name", "value", "note"});
  table.add({"a", std::string(30, 'v'), "short"});
  table.add({"b", "\u00fcml\u00e4ute sind eine Spalte breit", ""});
  const auto printed = [&](size_t width) {
    std::ostringstream out;
    table.print(out, width);
    return out.str();
  };
  EXPECT_EQ(
      "name  value                           note\n"
      "a     " +
          std::string(30, 'v') +
          "  short\n"
          "b     \u00fcml\u00e4ute sind eine Spalte breit\n",
      printed(0));
  EXPECT_EQ(printed(0), printed(43));
  EXPECT_EQ(
      "name  value       note\n"
      "a     vvvvvvvvv\u2026  short\n"
      "b     \u00fcml\u00e4ute s\u2026\n",
      printed(23));
  for (size_t width = 20; width < 50; ++width) {
    std::istringstream lines(printed(width));
    for (std::string line; std::getline(lines, line);)
      EXPECT_LE(operators::columnsOf(line), std::max<size_t>(width, 21)) << line;
  }
}

}  // namespace
}  // namespace ryx
