// The linux feed: the map of names, the logic of links against a model kernel, the netlink socket
// against a played one, and all of it against the real one, in network namespaces.
#include <gtest/gtest.h>
#include <linux/if.h>
#include <linux/if_link.h>
#include <linux/rtnetlink.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <deque>
#include <random>
#include <set>

#include "platform/activity/activity.h"
#include "platform/base/clock.h"
#include "platform/model/wellknown.h"
#include "platform/qel/reactor.h"
#include "platform/statehub/local.h"
#include "switch/base/interfaces.h"
#include "switch/linux/kernel_links.h"
#include "switch/linux/two_way.h"
#include "tests/support/netns.h"
#include "tests/support/parsed.h"

namespace ryx::kernel {
namespace {

using namespace platform;
using test::id;
using test::NetNs;
using testing::internal::CaptureStderr;
using testing::internal::GetCapturedStderr;

// --- the map ------------------------------------------------------------------------------------

TEST(IntfMap, NamesMapToInterfacesAndBack) {
  IntfMap map;
  struct Case {
    const char* device;
    const char* interface;
  };
  for (const Case& c : std::initializer_list<Case>{{"eth0", "Ethernet0"},
                                                   {"eth12", "Ethernet12"},
                                                   {"eth3_1", "Ethernet3/1"},
                                                   {"eth3_1_4.100", "Ethernet3/1/4.100"},
                                                   {"mgmt1", "Management1"},
                                                   {"bond1", "Port-Channel1"},
                                                   {"bond1.7", "Port-Channel1.7"},
                                                   {"vlan4094", "Vlan4094"},
                                                   {"loopback0", "Loopback0"},
                                                   {"vxlan1", "Vxlan1"}}) {
    EXPECT_EQ(map.interfaceOf(c.device).toString(), c.interface);
    EXPECT_EQ(map.deviceOf(id(c.interface)), c.device);
  }
  for (const char* device : {"", "eth", "eth01", "ethX", "eth1x", "Ethernet1", "xeth1", "lo",
                             "bond0", "vlan4095", "eth1.0", "eth1_", "eth1 ", "veth1"})
    EXPECT_TRUE(map.interfaceOf(device).isEmpty()) << device;
  EXPECT_EQ(map.deviceOf(id("Tunnel1")), "");
  EXPECT_EQ(map.deviceOf({}), "");
  EXPECT_EQ(map.deviceOf(id("Ethernet65535/511/255")), "") << "16 bytes are no device's name";

  ASSERT_EQ(IntfMap::parse("eth0=Management0,en*s1=Ethernet1/*,eth*=Ethernet*,lo=Loopback0", &map),
            "");
  EXPECT_EQ(map.interfaceOf("eth0"), id("Management0")) << "the first rule that fits";
  EXPECT_EQ(map.deviceOf(id("Management0")), "eth0");
  EXPECT_EQ(map.deviceOf(id("Ethernet0")), "") << "its device is another interface";
  EXPECT_EQ(map.interfaceOf("en7s1"), id("Ethernet1/7"));
  EXPECT_EQ(map.deviceOf(id("Ethernet1/7")), "en7s1") << "and not eth1_7";
  EXPECT_EQ(map.interfaceOf("ens1"), IntfId());
  EXPECT_EQ(map.interfaceOf("lo"), id("Loopback0"));
  EXPECT_EQ(map.deviceOf(id("Vlan1")), "");
}

TEST(IntfMap, AMalformedMapSaysWhatWasExpected) {
  struct Case {
    const char* rules;
    const char* told;
  };
  for (const Case& c : std::initializer_list<Case>{
           {"", "rule 1, \"\": expected KERNEL=INTERFACE, like eth*=Ethernet*"},
           {"eth*=Ethernet*,", "rule 2, \"\": expected KERNEL=INTERFACE, like eth*=Ethernet*"},
           {"eth1", "rule 1, \"eth1\": expected KERNEL=INTERFACE, like eth*=Ethernet*"},
           {"=Ethernet1",
            "rule 1, \"=Ethernet1\": expected a device's name before the =, at most "
            "15 bytes without blanks, slashes and colons"},
           {"a b*=Ethernet*",
            "rule 1, \"a b*=Ethernet*\": expected a device's name before the =, "
            "at most 15 bytes without blanks, slashes and colons"},
           {"eth*=Ethernet1",
            "rule 1, \"eth*=Ethernet1\": expected a * on both sides or on neither"},
           {"eth1=Ethernet*",
            "rule 1, \"eth1=Ethernet*\": expected a * on both sides or on neither"},
           {"e*t*=Ethernet*", "rule 1, \"e*t*=Ethernet*\": expected one * at most on each side"},
           {"lo=Loopback0,eth*=Eth*",
            "rule 2, \"eth*=Eth*\": expected the name of an interface "
            "behind the =, like Ethernet* or Management0"},
           {"tun*=Tunnel*",
            "rule 1, \"tun*=Tunnel*\": expected the name of an interface behind the "
            "=, like Ethernet* or Management0"},
           {"eth1=Ethernet1=2",
            "rule 1, \"eth1=Ethernet1=2\": expected the name of an interface "
            "behind the =, like Ethernet* or Management0"},
       }) {
    IntfMap map;
    EXPECT_EQ(IntfMap::parse(c.rules, &map), c.told);
    EXPECT_EQ(map.interfaceOf("eth1"), id("Ethernet1")) << "the map stays";
  }
}

// --- the logic, against a model kernel ----------------------------------------------------------

uint8_t code(const Link& link) {
  return static_cast<uint8_t>(operStatus(link));
}

TEST(LinkMessage, OperationalStates) {
  auto codeOf = [](uint8_t operState, bool up, bool lowerUp) {
    return code({1, "eth1", "", up, lowerUp, operState});
  };
  EXPECT_EQ(codeOf(IF_OPER_UP, true, true), 1);
  EXPECT_EQ(codeOf(IF_OPER_UNKNOWN, true, true), 1);
  EXPECT_EQ(codeOf(IF_OPER_UNKNOWN, true, false), 7);
  EXPECT_EQ(codeOf(IF_OPER_DOWN, true, false), 7);
  EXPECT_EQ(codeOf(IF_OPER_LOWERLAYERDOWN, true, false), 6);
  EXPECT_EQ(codeOf(IF_OPER_DORMANT, true, true), 5);
  EXPECT_EQ(codeOf(IF_OPER_TESTING, true, true), 3);
  EXPECT_EQ(codeOf(200, true, true), 0);
  for (uint8_t state : {IF_OPER_UNKNOWN, IF_OPER_DOWN, IF_OPER_LOWERLAYERDOWN, IF_OPER_UP})
    EXPECT_EQ(codeOf(state, false, false), 2) << "administratively down is down";
  EXPECT_EQ(codeOf(IF_OPER_NOTPRESENT, false, false), 0);
}

// A kernel of maps: what it is told takes effect when it is served, and what it says waits in a
// queue, in its order, until it is delivered or lost.
class ModelKernel : public LinkWriter {
 public:
  using Deliver = std::function<void(Links&)>;
  struct Request {
    std::string device;
    std::function<void(Link&)> apply;
    Done done;
  };

  void upIs(const std::string& device, bool up, Done done) override {
    requests.push_back({device, [up](Link& l) { l.up = up; }, std::move(done)});
  }
  void aliasIs(const std::string& device, const std::string& alias, Done done) override {
    EXPECT_TRUE(isAlias(alias));
    requests.push_back({device, [alias](Link& l) { l.alias = alias; }, std::move(done)});
  }

  Link* named(const std::string& name) {
    for (auto& [index, link] : devices)
      if (link.name == name) return &link;
    return nullptr;
  }
  void says(const Link& link) {
    said.push_back([link](Links& links) { links.changed(link); });
  }
  void add(int index, const std::string& name, bool up = false, const std::string& alias = "") {
    devices[index] = {index, name, alias, up, up, up ? uint8_t{IF_OPER_UP} : uint8_t{IF_OPER_DOWN}};
    says(devices[index]);
  }
  void remove(int index) {
    devices.erase(index);
    said.push_back([index](Links& links) { links.gone(index); });
  }
  void change(Link& link, const std::function<void(Link&)>& how) {
    Link before = link;
    how(link);
    link.lowerUp = link.up;
    link.operState = link.up ? IF_OPER_UP : IF_OPER_DOWN;
    bool aliasAlone = link.up == before.up && link.name == before.name;
    if (!(link == before) && (link.up || !aliasAlone || tellsAll)) says(link);
  }
  // Does the first request, or fails it. The kernel answers later, but before it does another one.
  void serve(int error = 0) {
    answerNow();
    Request request = std::move(requests.front());
    requests.pop_front();
    Link* link = named(request.device);
    if (!link) error = ENODEV;
    if (error == 0) change(*link, request.apply);
    answers.push_back(std::make_shared<Done>(std::move(request.done)));
    held = [done = answers.back(), error](Links&) { answer(done, error); };
  }
  void answerNow() {
    if (held) said.push_back(std::exchange(held, nullptr));
  }
  // Once: an answer that came is not lost.
  static void answer(const std::shared_ptr<Done>& done, int error) {
    if (Done once = std::exchange(*done, nullptr)) once(error, "");
  }
  void answersAreLost(const std::deque<std::shared_ptr<Done>>& those) {
    for (const auto& done : those) answer(done, ENOBUFS);
  }
  void deliver(Links& links) {
    Deliver what = std::move(said.front());
    said.pop_front();
    what(links);
  }

  // Unlike the real one, it tells of an alias that changes while the device is down.
  bool tellsAll = true;
  std::map<int, Link> devices;
  std::deque<Deliver> said;
  Deliver held;  // an answer that is not said yet
  std::deque<Request> requests;
  std::deque<std::shared_ptr<Done>> answers;  // of the requests that were served
};

class LinksTest : public testing::Test {
 protected:
  LinksTest() { makeWellKnown(tree_); }

  feeds::IntfEntities intf(const std::string& name) { return feeds::findIntf(tree_, id(name)); }
  void deliver() {
    kernel_.answerNow();
    do {
      while (!kernel_.said.empty()) kernel_.deliver(links_);
      activity().run(0);
    } while (!kernel_.said.empty());
  }
  // Everybody has done what there is to do.
  void settle() {
    for (int quiet = 0; quiet < 2; ++quiet) {
      deliver();
      while (!kernel_.requests.empty()) {
        kernel_.serve();
        deliver();
        quiet = 0;
      }
      activity().run(2);  // retries
      if (!kernel_.requests.empty()) quiet = 0;
    }
  }
  int state(const std::string& name) { return intf(name).config->adminEnabledStateLocal(); }
  std::string description(const std::string& name) { return intf(name).config->description(); }

  VirtualClock clock_;
  Tree tree_;
  IntfMap map_;
  ModelKernel kernel_;
  Links links_{tree_, map_, kernel_};
};

TEST_F(LinksTest, TheRuleOfAuthority) {
  kernel_.add(2, "eth1", false, "uplink");
  deliver();
  EXPECT_EQ(state("Ethernet1"), 2) << "at the start the kernel's state is taken over";
  EXPECT_EQ(description("Ethernet1"), "uplink");
  EXPECT_TRUE(kernel_.requests.empty()) << "what was taken over is not written back";

  intf("Ethernet1").config->adminEnabledStateLocal.set(1);
  deliver();
  ASSERT_EQ(kernel_.requests.size(), 1u) << "an agent's write goes to the kernel";
  settle();
  EXPECT_TRUE(kernel_.named("eth1")->up);
  EXPECT_EQ(links_.counters().writes, 1u) << "the echo of an own write never writes back";

  kernel_.change(*kernel_.named("eth1"), [](Link& l) { l.alias = "changed"; });
  deliver();
  EXPECT_EQ(description("Ethernet1"), "changed") << "a change by others goes to the state";
  settle();
  EXPECT_EQ(links_.counters().writes, 1u);

  // Both at once, in every order of the kernel's side: the agent's configuration wins.
  for (int order = 0; order < 3; ++order) {
    std::string ours = "ours" + std::to_string(order);
    auto theirs = [&] { kernel_.change(*kernel_.named("eth1"), [](Link& l) { l.alias = "x"; }); };
    if (order == 0) theirs();  // said, but not heard
    intf("Ethernet1").config->description.set(ours);
    if (order == 1) theirs();
    deliver();
    if (order == 2) theirs();  // after the write left
    settle();
    EXPECT_EQ(description("Ethernet1"), ours);
    EXPECT_EQ(kernel_.named("eth1")->alias, ours);
  }

  // Somebody changes it after the kernel took the write, before the answer was heard: that is
  // later.
  intf("Ethernet1").config->description.set("written");
  deliver();
  kernel_.serve();
  kernel_.change(*kernel_.named("eth1"), [](Link& l) { l.alias = "later"; });
  settle();
  EXPECT_EQ(description("Ethernet1"), "later");
  EXPECT_EQ(kernel_.named("eth1")->alias, "later") << "changed between the write and its answer";

  // The agent changes its mind while a write is on its way.
  intf("Ethernet1").config->adminEnabledStateLocal.set(2);
  deliver();
  intf("Ethernet1").config->adminEnabledStateLocal.set(0);
  settle();
  EXPECT_TRUE(kernel_.named("eth1")->up);
  EXPECT_EQ(state("Ethernet1"), 0) << "off by default is left as it was written";
}

TEST_F(LinksTest, AnAnswerStandsForANotificationThatDidNotCome) {
  kernel_.add(2, "eth1", false, "before");
  deliver();
  for (bool dumpBefore : {false, true}) {
    std::string text = dumpBefore ? "second" : "first";
    Link old = kernel_.devices[2];
    intf("Ethernet1").config->description.set(text);
    deliver();
    kernel_.serve();
    kernel_.said.clear();  // the notification
    if (dumpBefore) {      // asked for before the write, heard after it left
      links_.dumpBegins();
      links_.dumped(old);
      links_.dumpEnds();
    }
    deliver();
    EXPECT_EQ(description("Ethernet1"), text);
    kernel_.says(kernel_.devices[2]);
    settle();
    EXPECT_EQ(description("Ethernet1"), text);
  }
  EXPECT_EQ(links_.counters().writes, 2u);
  EXPECT_EQ(links_.counters().takenUp, 0u);
}

TEST_F(LinksTest, WhatTheKernelRefusesGoesBack) {
  kernel_.add(2, "eth1", true, "kept");
  deliver();
  intf("Ethernet1").config->adminEnabledStateLocal.set(2);
  intf("Ethernet1").config->description.set("mine");
  deliver();
  kernel_.serve(EPERM);
  kernel_.serve(EPERM);
  deliver();
  EXPECT_TRUE(intf("Ethernet1").config->adminEnabled());
  EXPECT_EQ(description("Ethernet1"), "kept");
  EXPECT_EQ(links_.counters().refused, 2u);
  EXPECT_EQ(links_.counters().retries, 0u) << "a missing privilege does not come by trying";

  // A failure that may pass is tried a bounded number of times.
  intf("Ethernet1").config->description.set("busy");
  deliver();
  for (int i = 0; i < TwoWay<bool>::kMaxAttempts; ++i) {
    ASSERT_EQ(kernel_.requests.size(), 1u) << i;
    EXPECT_EQ(description("Ethernet1"), "busy");
    kernel_.serve(EBUSY);
    deliver();
    activity().run(Links::kRetryDelay * (1 << i) / 2);
    EXPECT_TRUE(kernel_.requests.empty());
    activity().run(Links::kRetryDelay * (1 << i));
  }
  EXPECT_TRUE(kernel_.requests.empty());
  EXPECT_EQ(description("Ethernet1"), "kept");
  EXPECT_EQ(links_.counters().refused, 3u);
  // What an agent takes back before the retry is not tried again; the next one is tried as often.
  auto failOnce = [&] {
    deliver();
    ASSERT_EQ(kernel_.requests.size(), 1u);
    kernel_.serve(ENOBUFS);
    deliver();
  };
  intf("Ethernet1").config->description.set("taken back");
  failOnce();
  intf("Ethernet1").config->description.set("kept");
  activity().run(1);
  EXPECT_TRUE(kernel_.requests.empty());
  intf("Ethernet1").config->description.set("busy once");
  for (int i = 1; i < TwoWay<bool>::kMaxAttempts; ++i) {
    failOnce();
    activity().run(1);
  }
  settle();
  EXPECT_EQ(kernel_.named("eth1")->alias, "busy once");
  EXPECT_EQ(links_.counters().refused, 3u);

  // What no alias can hold does not reach the kernel.
  uint64_t writes = links_.counters().writes;
  for (const std::string& text : {std::string(256, 'a'), std::string("a\0b", 3)}) {
    intf("Ethernet1").config->description.set(text);
    settle();
    EXPECT_EQ(description("Ethernet1"), "busy once");
  }
  EXPECT_EQ(links_.counters().writes, writes);
  intf("Ethernet1").config->description.set(std::string(255, 'a'));
  settle();
  EXPECT_EQ(kernel_.named("eth1")->alias, std::string(255, 'a'));
}

TEST_F(LinksTest, NamesThatMoveDuringALoss) {
  CaptureStderr();
  kernel_.add(2, "eth1", true, "one");
  kernel_.add(3, "eth2", false, "two");
  kernel_.add(4, "eth3");
  kernel_.add(5, "dummy0");
  deliver();
  uint64_t first = intf("Ethernet1").config->generation();
  // Lost: two swap their names, one index is reused for another name, one went and came back.
  std::swap(kernel_.devices[2].name, kernel_.devices[3].name);
  kernel_.devices.erase(4);
  kernel_.devices[4] = {4, "eth4", "four", false, false, IF_OPER_DOWN};
  kernel_.devices.erase(5);
  kernel_.devices[9] = {9, "eth3", "again", true, true, IF_OPER_UP};
  links_.dumpBegins();
  for (const auto& [index, link] : kernel_.devices) links_.dumped(link);
  links_.dumpEnds();
  EXPECT_EQ(GetCapturedStderr(), "") << "no conflict but in passing";
  EXPECT_EQ(description("Ethernet1"), "two");
  EXPECT_EQ(description("Ethernet2"), "one");
  EXPECT_EQ(description("Ethernet3"), "again");
  EXPECT_EQ(description("Ethernet4"), "four");
  EXPECT_NE(intf("Ethernet1").config->generation(), first) << "another device, another entity";
  settle();
  EXPECT_EQ(links_.counters().writes, 0u);
}

TEST_F(LinksTest, ADumpIsOlderThanWhatWasToldMeanwhile) {
  kernel_.add(2, "eth1", true, "old");
  kernel_.add(3, "eth2", true);
  deliver();
  Link before = kernel_.devices[2];
  Link goneSince = kernel_.devices[3];
  links_.dumpBegins();
  kernel_.change(kernel_.devices[2], [](Link& l) { l.alias = "new"; });
  kernel_.remove(3);
  kernel_.add(7, "eth7");
  deliver();
  links_.dumped(before);
  links_.dumped(goneSince);
  links_.dumpEnds();
  EXPECT_EQ(description("Ethernet1"), "new");
  EXPECT_FALSE(intf("Ethernet2").config);
  EXPECT_TRUE(intf("Ethernet7").config) << "told since the dump began, which did not see it";
}

TEST_F(LinksTest, OfTwoDevicesThatMapToOneInterfaceTheFirstStays) {
  ASSERT_EQ(IntfMap::parse("eth*=Ethernet*,en*=Ethernet*", &map_), "");
  CaptureStderr();
  kernel_.add(2, "en1", false, "first");
  kernel_.add(3, "eth1", false, "second");
  kernel_.add(4, "eth2");
  deliver();
  kernel_.change(kernel_.devices[3], [](Link& l) { l.up = true; });
  deliver();
  EXPECT_EQ(GetCapturedStderr(),
            "The linux feed leaves the device eth1 alone: it maps to Ethernet1, which is en1 "
            "already\n");
  EXPECT_EQ(description("Ethernet1"), "first");
  intf("Ethernet1").config->description.set("agent's");
  settle();
  EXPECT_EQ(kernel_.devices[2].alias, "agent's");
  EXPECT_EQ(kernel_.devices[3].alias, "second") << "never written to";

  uint64_t generation = intf("Ethernet1").config->generation();
  kernel_.remove(2);
  deliver();
  EXPECT_EQ(description("Ethernet1"), "second") << "it takes over";
  EXPECT_EQ(intf("Ethernet1").status->deviceName(), "eth1");
  EXPECT_NE(intf("Ethernet1").config->generation(), generation);

  // The same interface under another name of its device stays the same.
  generation = intf("Ethernet1").config->generation();
  kernel_.change(kernel_.devices[3], [](Link& l) { l.name = "en1"; });
  deliver();
  EXPECT_EQ(intf("Ethernet1").config->generation(), generation);
  EXPECT_EQ(intf("Ethernet1").status->deviceName(), "en1");
}

TEST_F(LinksTest, WhatSomebodyDeletedInTheStateIsThereAgain) {
  kernel_.add(2, "eth1", true, "here");
  deliver();
  EntityOps::remove(*intf("Ethernet1").config);
  kernel_.change(kernel_.devices[2], [](Link& l) { l.up = false; });
  deliver();
  ASSERT_TRUE(intf("Ethernet1").config && intf("Ethernet1").status);
  EXPECT_EQ(description("Ethernet1"), "here");
  intf("Ethernet1").config->description.set("followed");
  settle();
  EXPECT_EQ(kernel_.devices[2].alias, "followed");
}

// The kernel and agents change all there is at random; notifications and answers are late, or lost
// and made up for by a dump that runs while things change. In the end both sides are the same.
TEST_F(LinksTest, RandomChangesOnBothSidesEndTheSame) {
  static const char* kNames[] = {"eth1", "eth2", "en1", "en2", "lo", "mgmt1"};
  static const int kErrors[] = {EBUSY, EPERM, ENOBUFS, EINVAL};
  ASSERT_EQ(IntfMap::parse("eth*=Ethernet*,en*=Ethernet*,mgmt*=Management*", &map_), "");
  CaptureStderr();
  for (unsigned seed = 1; seed <= 300; ++seed) {
    SCOPED_TRACE("seed " + std::to_string(seed));
    kernel_.tellsAll = seed % 2;
    std::mt19937 random(seed);
    auto chance = [&](unsigned one, unsigned of) { return random() % of < one; };
    int dumpAt = 0;  // the index that a dump has come to; 0: there is none
    bool lost = false;
    std::deque<std::shared_ptr<LinkWriter::Done>> beforeDump;
    for (int step = 0; step < 250; ++step) {
      Link* link = kernel_.devices.empty()
                       ? nullptr
                       : &std::next(kernel_.devices.begin(),
                                    static_cast<int>(random() % kernel_.devices.size()))
                              ->second;
      std::string name = kNames[random() % std::size(kNames)];
      switch (random() % 10) {
        case 0: {
          int index = static_cast<int>(random() % 8 + 1);
          if (!kernel_.named(name) && !kernel_.devices.count(index))
            kernel_.add(index, name, chance(1, 2), std::to_string(random() % 3));
          break;
        }
        case 1:
          if (link && chance(1, 2)) kernel_.remove(link->index);
          break;
        case 2:
          if (link && !kernel_.named(name)) kernel_.change(*link, [&](Link& l) { l.name = name; });
          break;
        case 3:
          if (link) kernel_.change(*link, [&](Link& l) { l.up = !l.up; });
          break;
        case 4:
          if (link) kernel_.change(*link, [&](Link& l) { l.alias = std::to_string(random() % 3); });
          break;
        case 5:
        case 6:  // an agent writes
          if (auto there = feeds::findIntf(tree_, map_.interfaceOf(name)); there.config) {
            there.config->adminEnabledStateLocal.set(static_cast<uint8_t>(random() % 3));
            if (chance(1, 2)) there.config->description.set(std::to_string(random() % 4));
            if (chance(1, 20)) there.config->description.set(std::string(300, 'x'));
            if (chance(1, 20)) EntityOps::remove(*there.config);
          }
          break;
        case 7:
          if (chance(1, 2)) kernel_.answerNow();
          if (!kernel_.requests.empty())
            kernel_.serve(chance(1, 5) ? kErrors[random() % std::size(kErrors)] : 0);
          break;
        case 8:
          for (size_t n = random() % 4; n > 0 && !kernel_.said.empty(); --n)
            kernel_.deliver(links_);
          activity().run(chance(1, 4) ? 0.3 : 0);
          break;
        case 9:
          if (chance(1, 4) && !kernel_.said.empty()) {  // an overrun takes what is queued
            kernel_.said.erase(kernel_.said.begin() + static_cast<int>(random() % 3) %
                                                          static_cast<int>(kernel_.said.size()),
                               kernel_.said.end());
            lost = true;
            dumpAt = 0;
          }
          break;
      }
      if (lost && dumpAt == 0 && chance(1, 4)) {
        // The socket was drained before. The request for a dump comes after every answer.
        kernel_.answerNow();
        while (!kernel_.said.empty()) kernel_.deliver(links_);
        links_.dumpBegins();
        beforeDump.insert(beforeDump.end(), kernel_.answers.begin(), kernel_.answers.end());
        kernel_.answers.clear();
        lost = false;
        dumpAt = 1;
      } else if (dumpAt != 0 && chance(1, 2)) {
        auto at = kernel_.devices.lower_bound(dumpAt);
        if (at != kernel_.devices.end()) {
          kernel_.said.push_back([l = at->second](Links& links) { links.dumped(l); });
          dumpAt = at->first + 1;
        } else {
          kernel_.said.push_back([this, beforeDump](Links& links) {
            links.dumpEnds();
            kernel_.answersAreLost(beforeDump);  // those that had none yet
          });
          dumpAt = 0;
        }
      }
    }
    // The last of it: a dump, then everything is served.
    kernel_.answerNow();
    while (!kernel_.said.empty()) kernel_.deliver(links_);
    links_.dumpBegins();
    for (const auto& [index, link] : kernel_.devices) links_.dumped(link);
    links_.dumpEnds();
    kernel_.answersAreLost(beforeDump);
    kernel_.answersAreLost(std::exchange(kernel_.answers, {}));
    settle();
    // A device whose interface somebody deleted in the state comes back when the kernel speaks.
    for (const auto& [index, link] : kernel_.devices) kernel_.says(link);
    settle();

    std::set<IntfId> expected;
    for (const auto& [index, link] : kernel_.devices)
      if (IntfId intf = map_.interfaceOf(link.name); !intf.isEmpty()) expected.insert(intf);
    ASSERT_EQ(links_.interfaces(), expected.size());
    for (IntfId intf : expected) {
      SCOPED_TRACE(intf.toString());
      feeds::IntfEntities there = feeds::findIntf(tree_, intf);
      ASSERT_TRUE(there.config && there.status);
      Link* link = kernel_.named(there.status->deviceName());
      ASSERT_TRUE(link && map_.interfaceOf(link->name) == intf);
      ASSERT_EQ(there.config->adminEnabled(), link->up);
      ASSERT_EQ(there.config->description(), link->alias);
      ASSERT_EQ(there.status->operStatus(), code(*link));
    }
    for (const char* name : kNames)
      if (IntfId intf = map_.interfaceOf(name); !intf.isEmpty() && !expected.count(intf)) {
        ASSERT_FALSE(feeds::findIntf(tree_, intf).config || feeds::findIntf(tree_, intf).status);
      }
  }
  GetCapturedStderr();
}

// --- the socket, against a played kernel --------------------------------------------------------

class NetlinkTest : public testing::Test, public NetlinkSocket::Client {
 protected:
  static constexpr uint32_t kPort = 77;

  NetlinkTest() {
    int fds[2];
    EXPECT_EQ(socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_NONBLOCK, 0, fds), 0);
    own_ = fds[0];
    peer_ = fds[1];
    socket_ = std::make_unique<NetlinkSocket>(fds[0], kPort, dumpLinks(), *this);
  }
  ~NetlinkTest() override {
    socket_.reset();
    close(peer_);
  }

  void onNotification(const nlmsghdr& m) override { heard_ += "n" + indexOf(m); }
  void onDumpBegin() override { heard_ += "("; }
  void onDumpMessage(const nlmsghdr& m) override { heard_ += "d" + indexOf(m); }
  void onDumpEnd() override { heard_ += ")"; }
  static std::string indexOf(const nlmsghdr& m) {
    auto* fixed = static_cast<const ifinfomsg*>(mnl_nlmsg_get_payload(&m));
    return std::to_string(fixed->ifi_index);
  }

  // The messages of the next datagram of requests; none when there is no datagram.
  std::vector<nlmsghdr> requests() {
    std::vector<char> bytes(100000);
    ssize_t n = recv(peer_, bytes.data(), bytes.size(), MSG_DONTWAIT);
    std::vector<nlmsghdr> headers;
    auto left = static_cast<int>(n);
    for (auto* m = reinterpret_cast<nlmsghdr*>(bytes.data()); mnl_nlmsg_ok(m, left);
         m = mnl_nlmsg_next(m, &left))
      headers.push_back(*m);
    return headers;
  }
  void says(Message message, uint32_t sequence, uint32_t port = kPort) {
    message.header()->nlmsg_seq = sequence;
    message.header()->nlmsg_pid = port;
    ASSERT_EQ(send(peer_, message.bytes().data(), message.bytes().size(), 0),
              static_cast<ssize_t>(message.bytes().size()));
  }
  static Message linkMessage(int index, uint16_t flags) {
    Message message(RTM_NEWLINK, flags);
    message.fixed<ifinfomsg>().ifi_index = index;
    return message;
  }
  static Message end(uint16_t flags = 0) {
    Message message(NLMSG_DONE, static_cast<uint16_t>(NLM_F_MULTI | flags));
    message.fixed<int>();
    return message;
  }
  static Message answer(int error, const std::string& words = "") {
    Message message(NLMSG_ERROR, words.empty() ? NLM_F_CAPPED : NLM_F_CAPPED | NLM_F_ACK_TLVS);
    message.fixed<nlmsgerr>().error = -error;
    if (!words.empty()) message.put(NLMSGERR_ATTR_MSG, words + '\0');
    return message;
  }
  // The sequence number of the dump that is asked for.
  uint32_t dumpAsked() {
    std::vector<nlmsghdr> asked = requests();
    EXPECT_EQ(asked.size(), 1u);
    if (asked.empty()) return 0;
    EXPECT_EQ(asked[0].nlmsg_type, RTM_GETLINK);
    return asked[0].nlmsg_seq;
  }

  VirtualClock clock_;
  int own_ = -1;  // the socket's
  int peer_ = -1;
  std::unique_ptr<NetlinkSocket> socket_;
  std::string heard_;
};

TEST_F(NetlinkTest, RequestsLeaveTogetherAndAreAnsweredOnce) {
  std::vector<int> answers(3 * NetlinkSocket::kWindow, -1);
  std::string lastWords;
  for (size_t i = 0; i < answers.size(); ++i)
    socket_->request(setLinkUp("eth1", true), [&, i](int error, std::string_view words) {
      EXPECT_EQ(answers[i], -1) << "once";
      answers[i] = error;
      lastWords = words;
    });
  EXPECT_TRUE(requests().empty()) << "not from within";
  activity().run(0);
  size_t answered = 0;
  for (size_t sent = 0; answered < answers.size();) {
    std::vector<nlmsghdr> batch = requests();
    if (sent == 0) {
      EXPECT_EQ(batch.size(), NetlinkSocket::kWindow) << "one datagram";
    }
    sent += batch.size();
    ASSERT_LE(sent - answered, NetlinkSocket::kWindow) << "the window is full";
    ASSERT_FALSE(batch.empty());
    for (const nlmsghdr& m : batch) {
      const bool isLast = &m == &batch.back();
      EXPECT_EQ(m.nlmsg_flags & NLM_F_ACK, isLast ? NLM_F_ACK : 0) << "the last one alone";
      const bool fails = answered++ % 30 == 0;
      if (!fails && !isLast) continue;              // which says that it was done
      says(answer(EPERM), m.nlmsg_seq, kPort + 1);  // somebody else's
      says(fails ? answer(EPERM, "not you") : answer(0), m.nlmsg_seq);
      says(answer(EINVAL), m.nlmsg_seq);  // a second time
      activity().run(0.01);
    }
  }
  for (size_t i = 0; i < answers.size(); ++i) EXPECT_EQ(answers[i], i % 30 == 0 ? EPERM : 0);
  EXPECT_EQ(lastWords, "") << "the last one was granted";
  EXPECT_LE(socket_->counters().batches, 6u);
  EXPECT_EQ(socket_->counters().refused, (answers.size() + 29) / 30);
  EXPECT_EQ(socket_->pending(), 0u);
}

TEST_F(NetlinkTest, AFullSocketPutsRequestsOff) {
  char filler[1000] = {};
  while (send(own_, filler, sizeof filler, MSG_DONTWAIT) > 0) {
  }
  size_t done = 0;
  for (int i = 0; i < 3; ++i)
    socket_->request(setLinkUp("eth1", true), [&](int error, std::string_view) {
      EXPECT_EQ(error, 0);
      ++done;
    });
  activity().run(0.01);
  socket_->resync();
  EXPECT_GE(socket_->counters().sendsPutOff, 2u);
  EXPECT_EQ(socket_->pending(), 3u);
  bool dumped = false;
  for (int i = 0; i < 1000 && !(done == 3 && dumped && !socket_->dumping()); ++i) {
    for (const nlmsghdr& m : requests()) {
      dumped |= m.nlmsg_type == RTM_GETLINK;
      says(m.nlmsg_type == RTM_GETLINK ? end() : answer(0), m.nlmsg_seq);
    }
    activity().run(0.01);
  }
  EXPECT_EQ(done, 3u);
  EXPECT_EQ(heard_, "()");
}

TEST_F(NetlinkTest, AnInterruptedDumpIsRepeated) {
  socket_->resync();
  uint32_t sequence = dumpAsked();
  says(linkMessage(1, NLM_F_MULTI), sequence);
  says(linkMessage(2, 0), 0, 0);                 // somebody's change
  says(linkMessage(3, 0), sequence, kPort + 1);  // somebody's, with our number
  says(linkMessage(4, NLM_F_MULTI | NLM_F_DUMP_INTR), sequence);
  says(end(), sequence);
  activity().run(0);
  EXPECT_EQ(heard_, "(d1n2n3d4(") << "begins again, and did not end";
  uint32_t second = dumpAsked();
  EXPECT_NE(second, sequence);
  says(linkMessage(5, NLM_F_MULTI), sequence);  // what is left of the first
  says(linkMessage(1, NLM_F_MULTI), second);
  says(end(NLM_F_DUMP_INTR), second);
  activity().run(0);
  uint32_t third = dumpAsked();
  says(end(), third);
  activity().run(0);
  EXPECT_EQ(heard_, "(d1n2n3d4(d1()");
  EXPECT_FALSE(socket_->dumping());
  EXPECT_EQ(socket_->counters().dumpsRepeated, 2u);

  // One that ends with the last datagram that a callback reads.
  socket_->resync();
  uint32_t fourth = dumpAsked();
  for (int i = 1; i < NetlinkSocket::kDatagramsPerRead; ++i)
    says(linkMessage(1, NLM_F_MULTI), fourth);
  says(end(NLM_F_DUMP_INTR), fourth);
  activity().run(0.01);
  says(end(), dumpAsked());
  activity().run(0);

  // A dump that is refused, or never passes whole, is repeated at a bounded rate.
  heard_.clear();
  socket_->resync();
  for (int i = 0; i <= NetlinkSocket::kImmediateRepeats; ++i) {
    says(i == 0 ? answer(EBUSY) : end(NLM_F_DUMP_INTR), dumpAsked());
    activity().run(0);
  }
  EXPECT_TRUE(requests().empty()) << "not at once any more";
  activity().run(NetlinkSocket::kRepeatDelay * 1.5);
  says(end(), dumpAsked());
  activity().run(0);
  EXPECT_EQ(heard_, "(((((((" + std::string(")"));
}

TEST_F(NetlinkTest, WhatDoesNotFitTheBufferIsMadeUpForByADump) {
  socket_->resync();
  says(end(), dumpAsked());
  activity().run(0);
  std::vector<char> large(100000, 0);
  ASSERT_EQ(send(peer_, large.data(), large.size(), 0), 100000);
  activity().run(0);
  uint32_t sequence = dumpAsked();
  EXPECT_EQ(socket_->counters().truncated, 1u);
  // The second time it does fit.
  auto* message = reinterpret_cast<nlmsghdr*>(large.data());
  message->nlmsg_len = 100000;
  message->nlmsg_type = RTM_NEWLINK;
  message->nlmsg_flags = NLM_F_MULTI;
  message->nlmsg_seq = sequence;
  message->nlmsg_pid = kPort;
  ASSERT_EQ(send(peer_, large.data(), large.size(), 0), 100000);
  says(end(), sequence);
  activity().run(0);
  EXPECT_EQ(heard_, "()(d0)");
}

TEST_F(NetlinkTest, ALostAnswerIsToldWhenADumpHasPassed) {
  int first = -1;
  int second = -1;
  socket_->request(setLinkUp("eth1", true), [&](int error, std::string_view) { first = error; });
  activity().run(0);
  requests();
  socket_->resync();
  uint32_t sequence = dumpAsked();
  socket_->request(setLinkUp("eth2", true), [&](int error, std::string_view) { second = error; });
  activity().run(0);
  EXPECT_EQ(first, -1);
  says(end(), sequence);
  activity().run(0);
  EXPECT_EQ(first, ENOBUFS);
  EXPECT_EQ(second, -1) << "it left after the dump was asked for";
  EXPECT_EQ(socket_->counters().lostAnswers, 1u);
}

// Of several in one datagram, some answers may be among what was lost.
TEST_F(NetlinkTest, SilenceIsNoYesAfterALoss) {
  std::vector<int> answers;
  const auto asks = [&] {
    for (int i = 0; i < 3; ++i)
      socket_->request(setLinkUp("eth1", true),
                       [&](int error, std::string_view) { answers.push_back(error); });
    activity().run(0);
    return requests();
  };
  std::vector<nlmsghdr> batch = asks();
  ASSERT_EQ(3u, batch.size());
  const std::vector<char> large(100000, 0);  // what does not fit
  ASSERT_EQ(send(peer_, large.data(), large.size(), 0), 100000);
  activity().run(0);
  const uint32_t dump = dumpAsked();
  says(answer(0), batch[2].nlmsg_seq);
  activity().run(0);
  EXPECT_EQ(answers, (std::vector<int>{ENOBUFS, ENOBUFS, 0}));
  says(end(), dump);
  activity().run(0);
  answers.clear();
  batch = asks();
  ASSERT_EQ(3u, batch.size());
  says(answer(EEXIST), batch[1].nlmsg_seq);
  says(answer(0), batch[2].nlmsg_seq);
  activity().run(0);
  EXPECT_EQ(answers, (std::vector<int>{0, EEXIST, 0}));
}

// --- the real kernel ----------------------------------------------------------------------------

class KernelTest : public testing::Test {
 protected:
  void SetUp() override {
    std::string why = NetNs::unavailable();
    if (!why.empty()) GTEST_SKIP() << why;
    ns_ = std::make_unique<NetNs>();
    makeWellKnown(tree_);
  }

  void start(int receiveBuffer = 4 << 20) {
    NetNs::Inside inside(*ns_);
    std::string error;
    links_ = KernelLinks::start(tree_, map_, receiveBuffer, &error);
    ASSERT_TRUE(links_) << error;
  }
  void ip(const std::string& what) { ns_->run("ip " + what); }
  std::string show(const std::string& device) { return ns_->run("ip -o link show " + device); }
  void pair(const std::string& name) { ip("link add " + name + " type veth peer name p" + name); }

  feeds::IntfEntities intf(const std::string& name) { return feeds::findIntf(tree_, id(name)); }
  Interface::IntfConfig& config(const std::string& name) { return *intf(name).config; }
  int status(const std::string& name) { return intf(name).status->operStatus(); }

  // Waits for it, in the loop.
  template <class Condition>
  testing::AssertionResult happens(Condition condition) {
    for (int i = 0; i < 1000 && !condition(); ++i) activity().run(0.01);
    if (condition()) return testing::AssertionSuccess();
    return testing::AssertionFailure() << "it did not happen in 10 seconds";
  }
  // All that has happened in the kernel so far has been heard: a change made now is.
  void hearAll() {
    static int count = 0;
    std::string mark = "mark" + std::to_string(++count);
    ip("link add eth9999 type veth peer name peth9999");
    ip("link set eth9999 up");
    ip("link set eth9999 alias " + mark);
    ASSERT_TRUE(happens([&] {
      auto there = intf("Ethernet9999");
      return there.config && there.config->description() == mark;
    }));
    ip("link del eth9999");
    ASSERT_TRUE(happens([&] { return !intf("Ethernet9999").config; }));
  }

  std::unique_ptr<NetNs> ns_;
  Tree tree_;
  IntfMap map_;
  std::unique_ptr<KernelLinks> links_;
};

TEST_F(KernelTest, WhatThereIsAtTheStartIsTakenOver) {
  ns_->ipBatch(
      "link add eth1 type veth peer name peth1\n"
      "link add eth2 type veth peer name peth2\n"
      "link add bond7 type veth peer name pbond7\n"
      "link set eth1 alias \"to the core\"\n"
      "link set eth1 up\nlink set peth1 up\nlink set bond7 up\nlink set lo up\n");
  // The kernel settles operational states a little later.
  for (int i = 0; i < 1000 && show("eth1").find("state UP") == std::string::npos; ++i) {
  }
  start();
  EXPECT_TRUE(config("Ethernet1").adminEnabled());
  EXPECT_EQ(config("Ethernet1").description(), "to the core");
  EXPECT_EQ(intf("Ethernet1").status->deviceName(), "eth1");
  EXPECT_TRUE(happens([&] { return status("Ethernet1") == 1; }));
  EXPECT_FALSE(config("Ethernet2").adminEnabled());
  EXPECT_EQ(status("Ethernet2"), 2);
  EXPECT_TRUE(happens([&] { return status("Port-Channel7") == 6; })) << "its other end is down";
  EXPECT_EQ(links_->links().interfaces(), 3u);
  EXPECT_EQ(links_->links().counters().writes, 0u);
}

TEST_F(KernelTest, ChangesInTheKernelAreHeard) {
  start();
  pair("eth1");
  ASSERT_TRUE(happens([&] { return intf("Ethernet1").config; }));
  EXPECT_FALSE(config("Ethernet1").adminEnabled());
  ip("link set eth1 up");
  ASSERT_TRUE(happens([&] { return config("Ethernet1").adminEnabled(); }));
  ASSERT_TRUE(happens([&] { return status("Ethernet1") == 6; }));
  ip("link set peth1 up");
  ASSERT_TRUE(happens([&] { return status("Ethernet1") == 1; }));
  ip("link set peth1 down");
  ASSERT_TRUE(happens([&] { return status("Ethernet1") == 6; }));
  ip("link set eth1 down alias 'out of order'");
  ASSERT_TRUE(happens([&] { return status("Ethernet1") == 2; }));
  ASSERT_TRUE(happens([&] { return config("Ethernet1").description() == "out of order"; }));
  ip("link set eth1 alias ''");
  ASSERT_TRUE(happens([&] { return config("Ethernet1").description().empty(); }));

  // Its place in a bridge is no change of what it is.
  uint64_t generation = config("Ethernet1").generation();
  ip("link add br0 type bridge");
  ip("link set eth1 master br0");
  ip("link set eth1 nomaster");
  hearAll();
  ASSERT_TRUE(intf("Ethernet1").config);
  EXPECT_EQ(config("Ethernet1").generation(), generation);
  ip("link del eth1");
  ASSERT_TRUE(happens([&] { return !intf("Ethernet1").config && !intf("Ethernet1").status; }));
  EXPECT_EQ(links_->links().counters().writes, 0u);
}

TEST_F(KernelTest, TheKernelObeysAndTheEchoWritesNothing) {
  pair("eth1");
  ip("link set eth1 up");
  start();
  config("Ethernet1").adminEnabledStateLocal.set(2);
  config("Ethernet1").description.set("by an agent");
  ASSERT_TRUE(happens([&] { return status("Ethernet1") == 2; }));
  ASSERT_TRUE(happens([&] { return links_->socket().pending() == 0; }));
  std::string shown = show("eth1");
  EXPECT_EQ(shown.find(",UP"), std::string::npos) << shown;
  EXPECT_NE(shown.find("alias by an agent"), std::string::npos) << shown;
  EXPECT_EQ(links_->socket().counters().batches, 1u) << "both in one datagram";

  std::string longest(kMaxAlias, 'a');
  config("Ethernet1").description.set(longest);
  ASSERT_TRUE(happens([&] { return show("eth1").find("alias " + longest) != std::string::npos; }));
  config("Ethernet1").description.set(longest + "a");
  ASSERT_TRUE(happens([&] { return config("Ethernet1").description() == longest; }));
  config("Ethernet1").description.set("");
  ASSERT_TRUE(happens([&] { return show("eth1").find("alias") == std::string::npos; }));
  config("Ethernet1").adminEnabledStateLocal.set(1);
  ASSERT_TRUE(happens([&] { return show("eth1").find(",UP") != std::string::npos; }));
  hearAll();
  EXPECT_EQ(links_->links().counters().writes, 5u);
  EXPECT_TRUE(config("Ethernet1").adminEnabled());
}

TEST_F(KernelTest, RenamedMovedAndReused) {
  NetNs other;
  pair("eth1");
  ip("link set eth1 alias wanderer");
  start();
  ip("link set eth1 name eth2");
  ASSERT_TRUE(happens([&] { return !intf("Ethernet1").config && intf("Ethernet2").config; }));
  EXPECT_EQ(config("Ethernet2").description(), "wanderer");
  EXPECT_EQ(intf("Ethernet2").status->deviceName(), "eth2");
  config("Ethernet2").description.set("renamed");
  ASSERT_TRUE(happens([&] { return show("eth2").find("alias renamed") != std::string::npos; }));

  ip("link set eth2 name foreign0");
  ASSERT_TRUE(happens([&] { return !intf("Ethernet2").config; }));
  ip("link set foreign0 name eth3");
  ASSERT_TRUE(happens([&] { return intf("Ethernet3").config; }));

  ip("link set eth3 netns " + other.path());
  ASSERT_TRUE(happens([&] { return !intf("Ethernet3").config && !intf("Ethernet3").status; }));
  other.run("ip link set eth3 alias 'from afar'");
  other.run("ip link set eth3 netns " + ns_->path());
  ASSERT_TRUE(happens([&] { return intf("Ethernet3").config; }));
  EXPECT_EQ(config("Ethernet3").description(), "from afar");

  // An index that is given to another device, heard in one turn.
  ip("link add eth5 index 1000 type veth peer name peth5");
  ASSERT_TRUE(happens([&] { return intf("Ethernet5").config; }));
  config("Ethernet5").description.set("the first");
  ASSERT_TRUE(happens([&] { return show("eth5").find("alias the first") != std::string::npos; }));
  ns_->ipBatch("link del eth5\nlink add eth6 index 1000 type veth peer name peth6\n");
  ASSERT_TRUE(happens([&] { return intf("Ethernet6").config; }));
  EXPECT_FALSE(intf("Ethernet5").config);
  EXPECT_EQ(config("Ethernet6").description(), "");
}

TEST_F(KernelTest, DeletedAndMadeAgainInOneTurnIsAnother) {
  struct Mirror final : JournalReactor {
    Mirror() : JournalReactor("mirror") {}
    void onEntity(Entity& e, Change change) override {
      if (auto* c = e.as<Interface::IntfConfig>())
        heard += (change == Change::created   ? "+"
                  : change == Change::deleted ? "-"
                                              : "=") +
                 c->description();
    }
    std::string heard;
  } mirror;
  pair("eth1");
  ip("link set eth1 alias old");
  start();
  mirror.follow(*tree_.find("interface/config/eth/phy/slice")->childJournal(), true);
  activity().run(0);
  EXPECT_EQ(mirror.heard, "+old");
  ns_->ipBatch(
      "link del eth1\nlink add eth1 type veth peer name peth1\nlink set eth1 up\nlink set eth1 "
      "alias new\n");
  ASSERT_TRUE(happens([&] { return mirror.heard.ends_with("new"); }));
  EXPECT_EQ(mirror.heard, "+old-old+new");
}

TEST_F(KernelTest, AnOverrunMissesNothing) {
  for (int i = 1; i <= 8; ++i) pair("eth" + std::to_string(i));
  start(2304);  // the least
  config("Ethernet1").description.set("own");
  std::string lines;
  for (int round = 0; round < 200; ++round)
    for (int i = 2; i <= 8; ++i)
      lines += "link set eth" + std::to_string(i) + " alias r" + std::to_string(round) + "\n" +
               "link set eth" + std::to_string(i) + (round % 2 ? " up\n" : " down\n");
  lines +=
      "link del eth2\n"
      "link add eth9 type veth peer name peth9\n"
      "link set eth3 name eth20\n"
      "link set eth4 down\nlink set eth4 name eth30\nlink set eth5 down\nlink set eth5 name eth4\n"
      "link set eth30 name eth5\nlink set eth4 up\n";
  lines.replace(lines.find("link set eth3 name"), 0, "link set eth3 down\n");
  ns_->ipBatch(lines);
  ASSERT_TRUE(happens([&] { return intf("Ethernet9").config && !links_->socket().dumping(); }));
  EXPECT_GT(links_->socket().counters().overruns, 0u);
  ASSERT_TRUE(happens([&] { return show("eth1").find("alias own") != std::string::npos; }))
      << "a write whose answer was lost is made";
  hearAll();
  EXPECT_FALSE(intf("Ethernet2").config || intf("Ethernet3").config);
  EXPECT_TRUE(intf("Ethernet20").config);
  EXPECT_EQ(links_->links().interfaces(), 8u);
  for (int i : {4, 5, 6, 7, 8}) {
    SCOPED_TRACE(i);
    std::string name = "Ethernet" + std::to_string(i);
    EXPECT_EQ(config(name).adminEnabled(), i != 5);
    EXPECT_EQ(config(name).description(), "r199");
    EXPECT_EQ(intf(name).status->deviceName(), "eth" + std::to_string(i));
  }
  EXPECT_EQ(config("Ethernet1").description(), "own");
}

TEST_F(KernelTest, ABurstDoesNotHoldTheLoop) {
  // Runs once a turn, and sees how much was read since.
  struct Watch final : Task {
    explicit Watch(const KernelLinks& l) : Task("watch"), links(l) {}
    bool run(Slice&) override {
      uint64_t now = links.socket().counters().datagrams;
      most = std::max(most, now - before);
      before = now;
      return now < 10000;
    }
    const KernelLinks& links;
    uint64_t before = 0;
    uint64_t most = 0;
  };
  pair("eth1");
  ip("link set eth1 up");
  start(256 << 20);
  std::string lines;
  for (int i = 0; i < 10000; ++i) lines += "link set eth1 alias n" + std::to_string(i) + "\n";
  ns_->ipBatch(lines);
  Watch watch(*links_);
  watch.before = links_->socket().counters().datagrams;
  watch.wake();
  ASSERT_TRUE(happens([&] { return config("Ethernet1").description() == "n9999"; }));
  EXPECT_GE(links_->socket().counters().datagrams + links_->socket().counters().overruns, 10000u);
  EXPECT_LE(watch.most, static_cast<uint64_t>(NetlinkSocket::kDatagramsPerRead));
}

TEST_F(KernelTest, WhatThePrivilegesDoNotAllowGoesBack) {
  pair("eth1");
  ip("link set eth1 alias kept");
  start();
  config("Ethernet1").description.set("refused");
  config("Ethernet1").adminEnabledStateLocal.set(1);
  ASSERT_EQ(seteuid(65534), 0);
  bool wentBack = happens([&] { return links_->links().counters().refused == 2; });
  ASSERT_EQ(seteuid(0), 0);
  ASSERT_TRUE(wentBack);
  EXPECT_EQ(config("Ethernet1").description(), "kept");
  EXPECT_FALSE(config("Ethernet1").adminEnabled());
  // And with the privilege, again.
  config("Ethernet1").description.set("granted");
  ASSERT_TRUE(happens([&] { return show("eth1").find("alias granted") != std::string::npos; }));
  // A device that is gone before the write comes: the interface goes, and that is all.
  ip("link del eth1");
  config("Ethernet1").description.set("too late");
  ASSERT_TRUE(happens([&] { return !intf("Ethernet1").config; }));
  ASSERT_TRUE(happens([&] { return links_->socket().pending() == 0; }));
}

// In a process of its own: a process has one local Statehub, and one feed.
TEST_F(KernelTest, TheModuleFeedsTheLocalStatehub) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  pair("eth1");
  auto inAgent = [&](const char* value, const char* map) {
    NetNs::Inside inside(*ns_);
    setenv("STATEHUBLOCAL", value, 1);
    if (map) setenv("RYX_INTF_MAP", map, 1);
    startLocalFeed();
    for (const char* name : {"Ethernet1", "Management7"})
      if (feeds::findIntf(localTree(), id(name)).status)
        std::fprintf(stderr, "%s is there\n", name);
    std::exit(0);
  };
  EXPECT_EXIT(inAgent("linux", nullptr), testing::ExitedWithCode(0), "^Ethernet1 is there\n$");
  EXPECT_EXIT(inAgent("linux", "eth1=Management7"), testing::ExitedWithCode(0),
              "^Management7 is there\n$");
  EXPECT_EXIT(inAgent("linux", "eth1"), testing::ExitedWithCode(0),
              "does not start: RYX_INTF_MAP: rule 1, \"eth1\": expected KERNEL=INTERFACE, like "
              "eth\\*=Ethernet\\*; [^\n]*\n$");
  EXPECT_EXIT(inAgent("linux:eth1", nullptr), testing::ExitedWithCode(0),
              "does not start: \"eth1\" behind linux: expected nothing; [^\n]*\n$");
}

}  // namespace
}  // namespace ryx::kernel
