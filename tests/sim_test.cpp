// The simulated switch: its language, its hardware, and where its commands come from.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <random>

#include "platform/activity/activity.h"
#include "platform/model/bfd.h"
#include "platform/model/ip.h"
#include "platform/model/vrf.h"
#include "platform/model/wellknown.h"
#include "platform/qel/reactor.h"
#include "platform/statehub/local.h"
#include "switch/base/interfaces.h"
#include "switch/base/vrfs.h"
#include "switch/sim/input.h"
#include "switch/sim/sim.h"
#include "tests/support/parsed.h"
#include "tests/support/temp_dir.h"

namespace ryx::sim {
namespace {

using namespace platform;
using test::id;
using testing::internal::CaptureStderr;
using testing::internal::GetCapturedStderr;

const std::string kCommands =
    "interface-add, interface-del, oper-status, vrf-add, vrf-state, vrf-del, internal-vlan, "
    "neighbor-learn, neighbor-age, bfd-peer, nexthop-group-capability, nexthop-group-count, "
    "nexthop-group-clear, clogged";

class SimTest : public testing::Test {
 protected:
  SimTest() { makeWellKnown(tree_); }

  void does(const std::string& line) { EXPECT_EQ(sim_.command(line), "") << line; }
  feeds::IntfEntities intf(const std::string& name) { return feeds::findIntf(tree_, id(name)); }
  int status(const std::string& name) {
    activity().run(0);
    feeds::IntfEntities there = intf(name);
    return there.status ? there.status->operStatus() : -1;
  }

  Tree tree_;
  Sim sim_{tree_};
};

TEST_F(SimTest, InterfacesStandInTheDirectoryOfTheirKind) {
  struct Case {
    const char* name;
    const char* directory;  // below interface/config and interface/status
    const char* configType;
  };
  for (const Case& c : std::initializer_list<Case>{
           {"Ethernet7", "eth/phy/slice/1", "Interface::EthPhyIntfConfig"},
           {"Ethernet3/1/4", "eth/phy/slice/3", "Interface::EthPhyIntfConfig"},
           {"Ethernet7.100", "subintf", "Interface::SubIntfConfig"},
           {"Port-Channel5.7", "subintf", "Interface::SubIntfConfig"},
           {"Port-Channel5", "eth/lag", "Interface::EthLagIntfConfig"},
           {"Management1/1", "eth/managementactive", "Interface::MgmtActiveIntfConfig"},
           {"Loopback0", "loopback/intf", "Interface::LoopbackIntfConfig"},
           {"Vlan100", "eth/vlan", "Interface::VlanIntfConfig"},
           {"Vxlan1", "eth/vxlan", "Vxlan::VtiConfig"},
           {"PeerEthernet3/1", "eth/phy/slice/3", "Interface::EthPhyIntfConfig"},
           {"PeerPort-Channel5", "eth/lag", "Interface::EthLagIntfConfig"},
           {"Cpu", "eth/phy/slice/1", "Interface::EthPhyIntfConfig"},
       }) {
    SCOPED_TRACE(c.name);
    does(std::string("interface-add ") + c.name);
    feeds::IntfEntities made = intf(c.name);
    ASSERT_TRUE(made.config && made.status);
    EXPECT_EQ(made.config->parent(), tree_.find(std::string("interface/config/") + c.directory));
    EXPECT_EQ(made.status->parent(), tree_.find(std::string("interface/status/") + c.directory));
    EXPECT_EQ(made.config->type().name, c.configType);
    EXPECT_TRUE(made.config->adminEnabled());
    EXPECT_EQ(made.status->deviceName(), "");

    does(std::string("interface-del ") + c.name);
    EXPECT_FALSE(intf(c.name).config || intf(c.name).status);
    EXPECT_TRUE(tree_.find(std::string("interface/status/") + c.directory)) << "directories stay";
  }
  EXPECT_EQ(sim_.interfaces(), 0u);
}

TEST_F(SimTest, WordsQuotesAndComments) {
  does("");
  does(" \t ");
  does("# interface-add Ethernet1");
  does("\tinterface-add  Ethernet1 et1   # the first");
  does(R"("interface-add" "Ethernet2" "e\"\\2" # "x" y)");
  activity().run(0);
  EXPECT_EQ(intf("Ethernet1").status->deviceName(), "et1");
  EXPECT_EQ(intf("Ethernet2").status->deviceName(), "e\"\\2");
}

TEST_F(SimTest, RefusedLinesSayWhatWasExpectedAndChangeNothing) {
  does("interface-add Ethernet1 et1");
  does("interface-add Ethernet2");
  uint64_t version = tree_.clock().version;
  struct Case {
    std::string line;
    std::string told;
  };
  const std::string add = "; expected: interface-add INTF [kernel-name]";
  const std::string oper = "; expected: oper-status INTF CODE";
  const std::string learn = "; expected: neighbor-learn IP INTF MAC";
  for (const Case& c : std::initializer_list<Case>{
           {"interface-Add Ethernet3",
            "unknown command \"interface-Add\"; expected one of: " + kCommands},
           {"interface-add", "INTF is missing (an interface name, like Ethernet3/1)" + add},
           {"interface-add # Ethernet3",
            "INTF is missing (an interface name, like Ethernet3/1)" + add},
           {"interface-add Ethernet03",
            "\"Ethernet03\" is no INTF (an interface name, like Ethernet3/1)" + add},
           {"interface-add Ethernet3 et3 more", "\"more\" is too much" + add},
           {"interface-add Ethernet3 sixteenbyteslong",
            "\"sixteenbyteslong\" is no kernel-name (a network device's name, at most 15 bytes)" +
                add},
           {"interface-add Ethernet3 \"\"",
            "\"\" is no kernel-name (a network device's name, at most 15 bytes)" + add},
           {"interface-add Ethernet3 a/b",
            "\"a/b\" is no kernel-name (a network device's name, at most 15 bytes)" + add},
           {"interface-add Ethernet3 et1", "the kernel name \"et1\" is that of Ethernet1"},
           {"interface-add Ethernet1", "there is an interface Ethernet1 already"},
           {"interface-add Null0", "the switch has no interfaces of the kind of Null0 to add"},
           {"interface-add Tunnel3", "the switch has no interfaces of the kind of Tunnel3 to add"},
           {"interface-del Ethernet3",
            "there is no interface Ethernet3; expected one that interface-add made"},
           {"oper-status Ethernet3 1",
            "there is no interface Ethernet3; expected one that interface-add made"},
           {"neighbor-learn 10.0.0 Ethernet1 00:1c:73:00:00:01",
            "\"10.0.0\" is no IP (an IPv4 or IPv6 address)" + learn},
           {"neighbor-learn 10.0.0.1 Ethernet1 00:1c:73",
            "\"00:1c:73\" is no MAC (a MAC address, "
            "like 00:1c:73:00:00:01)" +
                learn},
           {"neighbor-learn 10.0.0.1 Ethernet3 00:1c:73:00:00:01",
            "there is no interface Ethernet3; expected one that interface-add made"},
           {"neighbor-age 10.0.0.1 Ethernet1",
            "no neighbour 10.0.0.1 was learned at Ethernet1; expected one that neighbor-learn "
            "made"},
           {"nexthop-group-capability vxlan 1 push",
            "the type \"vxlan\"; expected ip-in-ip, gre, mpls, mpls-over-gre or ip"},
           {"nexthop-group-capability gre 1 push,jump",
            "the action \"jump\"; expected push, pop, swap, forward, several with commas, or - for "
            "none"},
           {"nexthop-group-capability gre many push",
            "\"many\" is no MAXLABELS (a number of labels, or none); expected: "
            "nexthop-group-capability TYPE MAXLABELS ACTION,..."},
           {"nexthop-group-count g 3 1 64",
            "no nexthop group \"g\" with an entry 3 is programmed; expected one that is"},
           {"nexthop-group-clear g 3",
            "no nexthop group \"g\" with an entry 3 is programmed; expected one that is"},
           {"clogged perhaps", "\"perhaps\" is no on|off (on or off); expected: clogged on|off"},
           {"oper-status Ethernet1", "CODE is missing (a number from 0 to 255)" + oper},
           {"oper-status Ethernet1 256", "\"256\" is no CODE (a number from 0 to 255)" + oper},
           {"oper-status Ethernet1 -1", "\"-1\" is no CODE (a number from 0 to 255)" + oper},
           {"oper-status Ethernet1 1x", "\"1x\" is no CODE (a number from 0 to 255)" + oper},
           {"oper-status \"Ethernet1 1", "a quote without its end" + oper},
           {"oper-status \"Ethernet1\"1",
            "text right behind the quoted word \"Ethernet1\"; expected a blank" + oper},
           {"oper-status Ether\"net1\" 1",
            "a quote inside the word \"Ether\"; expected a blank before it" + oper},
           {R"(oper-status "Ethernet\1" 1)", R"(a backslash before "1"; expected \" or \\)" + oper},
           {"\"oper-status", "a quote without its end"},
           {"x\x1b[2J\xff", "unknown command \"x\\x1b[2J\\xff\"; expected one of: " + kCommands},
       }) {
    EXPECT_EQ(sim_.command(c.line), c.told) << c.line;
  }
  EXPECT_EQ(sim_.command(std::string(300, 'x')).substr(0, 89),
            "unknown command \"" + std::string(64, 'x') + "...\"; ex");
  EXPECT_EQ(tree_.clock().version, version);
}

// Ports against a model: what agents set and what happens at the port, in any order.
TEST_F(SimTest, PortsObey) {
  for (unsigned seed = 1; seed <= 20; ++seed) {
    SCOPED_TRACE("seed " + std::to_string(seed));
    std::mt19937 random(seed);
    struct Model {
      bool enabled = true;
      int code = 2;
    };
    Model model[3];
    const char* names[] = {"Ethernet1", "Vlan7", "Loopback0"};
    model[2].code = 1;
    for (const char* name : names) does(std::string("interface-add ") + name);
    for (int step = 0; step < 200; ++step) {
      unsigned i = random() % 3;
      if (random() % 2) {
        model[i].code = static_cast<int>(random() % 9);
        does(std::string("oper-status ") + names[i] + " " + std::to_string(model[i].code));
      } else {
        auto state = static_cast<uint8_t>(random() % 3);
        model[i].enabled = state != 2;
        intf(names[i]).config->adminEnabledStateLocal.set(state);
      }
      if (random() % 4 == 0) continue;  // several changes before the loop runs
      for (unsigned k = 0; k < 3; ++k)
        ASSERT_EQ(status(names[k]), model[k].enabled ? model[k].code : 2) << names[k];
    }
    for (const char* name : names) does(std::string("interface-del ") + name);
  }
}

TEST_F(SimTest, AnInterfaceMadeAgainIsAnother) {
  struct Mirror final : JournalReactor {
    Mirror() : JournalReactor("mirror") {}
    void onEntity(Entity& e, Change change) override {
      if (!e.as<Interface::IntfStatus>()) return;
      heard += change == Change::created ? "+" : change == Change::deleted ? "-" : "=";
    }
    std::string heard;
  } mirror;
  does("interface-add Ethernet1");
  mirror.follow(*tree_.find("interface/status/eth/phy/slice")->childJournal(), true);
  activity().run(0);
  intf("Ethernet1").config->adminEnabledStateLocal.set(2);
  does("oper-status Ethernet1 1");
  does("interface-del Ethernet1");
  does("interface-add Ethernet1");
  activity().run(0);
  EXPECT_EQ(mirror.heard, "+-+");
  EXPECT_EQ(status("Ethernet1"), 2);
  does("oper-status Ethernet1 1");
  EXPECT_EQ(status("Ethernet1"), 1) << "the new one is administratively on";
}

// What an earlier life left in the state and this one does not know goes; what it knows stays.
TEST_F(SimTest, WhatAnEarlierLifeLeftGoes) {
  does("interface-add Ethernet1");
  does("vrf-add red");
  auto* statuses = tree_.find<Ip::Status>("ip/status");
  auto* vlans = tree_.find<IntfVlanId::Table>("vlan/internal");
  auto* peers = tree_.find<platform::Bfd::StatusPeer>("bfd/status/peer");
  auto* vrfs = tree_.find<Ip::AllVrfStatusLocal>("ip/vrf/status/local");
  for (const char* name : {"Ethernet1", "Ethernet2"}) {
    tree_.find<Ip::Config>("ip/config")->ipIntfConfig.create(id(name));
    statuses->ipIntfStatus.create(id(name));
    vlans->intfVlanIdTable.set(id(name), VlanId(7));
  }
  platform::Bfd::PeerKey asked, left;
  left.type = platform::Bfd::PeerType::multihop;
  tree_.make<platform::Bfd::AppConfig>("bfd/config/app/test")
      ->vrf.create(VrfName("default"))
      ->peer.create({asked, "a"});
  peers->peer.create(asked);
  peers->peer.create(left);
  feeds::showVrf(tree_, VrfName("blue"), Ip::VrfState::active, "");
  sim_.takeOver();
  activity().run(0);
  EXPECT_TRUE(statuses->ipIntfStatus.find(id("Ethernet1")));
  EXPECT_FALSE(statuses->ipIntfStatus.find(id("Ethernet2")));
  EXPECT_TRUE(vlans->intfVlanIdTable.find(id("Ethernet1")));
  EXPECT_FALSE(vlans->intfVlanIdTable.find(id("Ethernet2")));
  EXPECT_TRUE(peers->peer.find(asked));
  EXPECT_FALSE(peers->peer.find(left));
  EXPECT_TRUE(vrfs->vrf.find(VrfName("red")) && vrfs->vrf.find(VrfName("default")));
  EXPECT_FALSE(vrfs->vrf.find(VrfName("blue")) || tree_.find("routing/vrf/input/blue"));
}

// --- sources ------------------------------------------------------------------------------------

class SimInputTest : public SimTest {
 protected:
  void write(const std::string& text, int flags = O_WRONLY | O_APPEND | O_CREAT) {
    int fd = open(path_.c_str(), flags, 0600);
    ASSERT_EQ(::write(fd, text.data(), text.size()), static_cast<ssize_t>(text.size()));
    close(fd);
  }
  template <class Condition>
  bool happens(Condition condition) {
    for (int i = 0; i < 1000 && !condition(); ++i) activity().run(0.01);
    return condition();
  }
  std::unique_ptr<Input> follow() {
    std::string error;
    std::unique_ptr<Input> input = Input::follow(sim_, path_, &error);
    EXPECT_EQ(error, "");
    return input;
  }

  test::TempDir temp_;
  const std::string directory_ = temp_.path();
  const std::string path_ = temp_ / "input";
};

TEST_F(SimInputTest, AScenarioIsDoneWholeAndItsFaultsAreTold) {
  write("interface-add Ethernet1\r\nfault\n\n# " + std::string(5000, 'x') +
        "\ninterface-add Ethernet2\noper-status Ethernet2 1");
  CaptureStderr();
  EXPECT_EQ(runScenario(sim_, path_), "");
  EXPECT_EQ(GetCapturedStderr(),
            path_ + ":2: unknown command \"fault\"; expected one of: " + kCommands + "\n" + path_ +
                ":4: expected a line of at most 4096 bytes\n");
  EXPECT_EQ(status("Ethernet1"), 2);
  EXPECT_EQ(status("Ethernet2"), 1);
  EXPECT_NE(runScenario(sim_, directory_ + "/none").find("none\": No such file or directory"),
            std::string::npos);
  EXPECT_NE(runScenario(sim_, directory_).find("Is a directory"), std::string::npos);
}

TEST_F(SimInputTest, PiecesOfAnySizeAreTheSameLines) {
  std::string longest = "interface-add Ethernet3 #" + std::string(LineReader::kMaxLine - 25, ' ');
  std::string text = "interface-add Ethernet1\n" + longest + "\n" + longest + " \nno\n";
  for (size_t piece : {size_t{1}, size_t{7}, size_t{1000}, text.size()}) {
    Tree tree;
    makeWellKnown(tree);
    Sim sim(tree);
    LineReader reader(sim, "pieces");
    CaptureStderr();
    for (size_t at = 0; at < text.size(); at += piece)
      reader.take(std::string_view(text).substr(at, piece));
    std::string told = GetCapturedStderr();
    EXPECT_EQ(sim.interfaces(), 2u);
    EXPECT_EQ(reader.refusedLines(), 2u);
    EXPECT_NE(told.find("pieces:3: expected a line of at most 4096 bytes\npieces:4: unknown"),
              std::string::npos)
        << told;
  }
}

TEST_F(SimInputTest, AFifoIsReadAsItsWritersComeAndGo) {
  ASSERT_EQ(mkfifo(path_.c_str(), 0600), 0);
  std::unique_ptr<Input> input = follow();
  ASSERT_TRUE(input);
  write("interface-add Ethernet1\ninterface-add Eth", O_WRONLY);
  EXPECT_TRUE(happens([&] { return sim_.interfaces() == 1; }));
  write("ernet2\n", O_WRONLY);
  EXPECT_TRUE(happens([&] { return sim_.interfaces() == 2; }));
  std::string many;
  for (int i = 3; i <= 2002; ++i) many += "interface-add Ethernet" + std::to_string(i) + "\n";
  write(many, O_WRONLY);
  EXPECT_TRUE(happens([&] { return sim_.interfaces() == 2002; }));
  EXPECT_EQ(input->refusedLines(), 0u);
}

TEST_F(SimInputTest, AFileIsReadAsItGrows) {
  write("interface-add Ethernet1\n");
  std::unique_ptr<Input> input = follow();
  ASSERT_TRUE(input);
  EXPECT_EQ(sim_.interfaces(), 0u) << "as it comes: by the loop";
  EXPECT_TRUE(happens([&] { return sim_.interfaces() == 1; }));
  activity().run(0);
  uint64_t turns = activity().counters().turns;
  activity().run(0.02);
  EXPECT_LT(activity().counters().turns, turns + 10) << "a file at its end keeps no loop busy";

  write("interface-add Ethernet2\ninterface-add ");
  EXPECT_TRUE(happens([&] { return sim_.interfaces() == 2; }));
  write("Ethernet3\n");
  EXPECT_TRUE(happens([&] { return sim_.interfaces() == 3; }));
  write("interface-add Vlan5\n", O_WRONLY | O_TRUNC);
  EXPECT_TRUE(happens([&] { return sim_.interfaces() == 4; })) << "written anew";
  EXPECT_EQ(input->refusedLines(), 0u);
}

TEST_F(SimInputTest, WhatCannotBeFollowedIsTold) {
  std::string error;
  EXPECT_FALSE(Input::follow(sim_, path_, &error));
  EXPECT_EQ(error,
            "RYX_SIM_INPUT=" + path_ + ": No such file or directory; expected a FIFO or a file");
  EXPECT_FALSE(Input::follow(sim_, directory_, &error));
  EXPECT_EQ(error, "RYX_SIM_INPUT=" + directory_ + " is a directory; expected a FIFO or a file");
}

// In a process of its own: a process has one local Statehub, and one feed.
TEST_F(SimInputTest, TheModuleFeedsTheLocalStatehub) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  auto inAgent = [&](const std::string& value, const char* input) {
    setenv("STATEHUBLOCAL", value.c_str(), 1);
    if (input) setenv("RYX_SIM_INPUT", input, 1);
    startLocalFeed();
    activity().run(0);
    feeds::IntfEntities there = feeds::findIntf(localTree(), id("Ethernet1"));
    std::fprintf(stderr, "%s\n",
                 there.status ? there.status->deviceName().c_str() : "no interface");
    std::exit(0);
  };
  write("interface-add Ethernet1 et1\n");
  EXPECT_EXIT(inAgent("sim:" + path_, nullptr), testing::ExitedWithCode(0), "^et1\n$");
  EXPECT_EXIT(inAgent("sim", path_.c_str()), testing::ExitedWithCode(0), "^et1\n$");
  EXPECT_EXIT(inAgent("sim:" + path_, "/nowhere/at-all"), testing::ExitedWithCode(0),
              "does not start: RYX_SIM_INPUT=/nowhere/at-all: No such file or directory; expected "
              "a FIFO or a file.*\nno interface\n$");
  EXPECT_EXIT(inAgent("sim:/nowhere/at-all", nullptr), testing::ExitedWithCode(0),
              "\"/nowhere/at-all\": No such file or directory.*\nno interface\n$");
}

}  // namespace
}  // namespace ryx::sim
