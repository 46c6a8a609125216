// The linux feed's neighbours: the logic against a model kernel, and all of it against the real
// one, in network namespaces.
#include <gtest/gtest.h>
#include <linux/neighbour.h>
#include <linux/rtnetlink.h>
#include <sys/socket.h>

#include <functional>
#include <map>
#include <memory>
#include <random>
#include <sstream>
#include <string>
#include <utility>

#include "platform/activity/activity.h"
#include "platform/base/clock.h"
#include "platform/model/wellknown.h"
#include "switch/linux/kernel_links.h"
#include "switch/linux/kernel_neighbors.h"
#include "tests/support/netns.h"
#include "tests/support/parsed.h"
#include "tests/support/random_runs.h"
#include "tests/support/slow_kernel.h"

namespace ryx::kernel {
namespace {

using namespace platform;
using Arp::EntryType;
using Arp::NeighborKey;
using test::id;
using test::NetNs;

IpAddr address(const std::string& text) {
  return test::parsed<IpAddr>(text);
}
MacAddr mac(unsigned n) {
  const uint8_t bytes[6] = {
      0, 0x1c, 0x73, 0, static_cast<uint8_t>(n >> 8), static_cast<uint8_t>(n)};
  return MacAddr(bytes);
}

// What agents configure, and the table, as text: "10.0.0.1 Ethernet1 00:1c:73:00:00:01 static".
class Switch {
 public:
  Switch() { makeWellKnown(tree); }

  void configure(const std::string& agent, const NeighborKey& key, const MacAddr* to) {
    auto* input = tree.make<Arp::ArpInputConfig>("arp/input/config/RyxSdk-" + agent);
    auto* vrf = input->vrf.create(Name("default"));
    const auto put = [&](auto& entries) {
      if (to)
        entries.create(key)->ethAddr.set(*to);
      else
        entries.erase(key);
    };
    key.addr.af() == Af::ipv4 ? put(vrf->ipv4) : put(vrf->ipv6);
  }
  std::map<std::string, std::string> table() {
    std::map<std::string, std::string> all;
    mirra::Table<Arp::Status> reader(tree.tables(), Arp::kStatusTable, mirra::Mode::read);
    activity().run(0);
    for (auto it = reader.iterator(); it; it.next())
      all[it.key().addr.toString() + " " + it.key().intf.toString()] =
          it.row().ethAddr.toString() +
          (it.row().entryType == EntryType::fixed ? " static" : " learned");
    return all;
  }

  Tree tree;
};

// --- the logic, against a model kernel ----------------------------------------------------------

class ModelKernel final : public NeighborWriter, public test::SlowKernel {
 public:
  using Place = std::pair<int, IpAddr>;
  std::map<Place, Neighbor> has;
  Neighbors* neighbors = nullptr;
  bool refuses = false;
  bool forgets = false;  // says yes and does nothing

  void set(const Neighbor& n, Answer done) override {
    isTold([this, n, done] {
      if (refuses) return says([done] { done(EINVAL, "no"); });
      if (!forgets) is(n);
      says([done] { done(0, ""); });
    });
  }
  void remove(const Neighbor& n, Answer done) override {
    isTold([this, n, done] {
      const bool was = isNot(n.index, n.addr);
      says([done, was] { done(was ? 0 : ENOENT, ""); });
    });
  }
  void is(const Neighbor& n) {
    has[{n.index, n.addr}] = n;
    says([this, n] { neighbors->changed(n); });
  }
  bool isNot(int index, const IpAddr& addr) {
    if (has.erase({index, addr}) == 0) return false;
    says([this, index, addr] { neighbors->gone(index, addr); });
    return true;
  }
};

TEST(LinuxNeighbors, RandomChangesOnBothSidesEndTheSame) {
  test::randomRuns(30, [](std::mt19937& random) {
    Switch sw;
    ModelKernel kernel;
    Neighbors neighbors(sw.tree, kernel);
    kernel.neighbors = &neighbors;
    neighbors.offer();
    std::map<int, IntfId> devices;
    std::map<std::string, std::map<std::string, std::pair<NeighborKey, MacAddr>>> own;  // by agent
    const auto nameOf = [](const NeighborKey& key) {
      return key.addr.toString() + " " + key.intf.toString();
    };
    for (int n = 0; n < 600; ++n) {
      const int index = 1 + static_cast<int>(random() % 3);
      const IntfId intf = id("Ethernet" + std::to_string(index));
      const IpAddr addr =
          address((random() % 2 ? "10.0.0." : "fe80::") + std::to_string(1 + random() % 5));
      const MacAddr to = mac(random() % 6);
      const std::string agent = random() % 2 ? "a" : "b";
      switch (random() % 10) {
        case 0:
          if (devices.erase(index) != 0) {
            neighbors.deviceIs(index, {});
            while (!kernel.isIdle()) kernel.serve(), kernel.deliver();
            std::erase_if(kernel.has, [&](auto& e) { return e.first.first == index; });
            for (const char* net : {"10.0.0.", "fe80::"})
              for (int i = 1; i < 6; ++i) neighbors.gone(index, address(net + std::to_string(i)));
          } else {
            devices[index] = intf;
            neighbors.deviceIs(index, intf);
          }
          break;
        case 1:
        case 2:
          if (devices.count(index)) kernel.is({index, addr, to, random() % 4 == 0});
          break;
        case 3:
          kernel.isNot(index, addr);
          break;
        case 4:
        case 5:
          sw.configure(agent, {addr, intf}, nullptr);
          own[agent].erase(nameOf({addr, intf}));
          break;
        default:
          sw.configure(agent, {addr, intf}, &to);
          own[agent].insert_or_assign(nameOf({addr, intf}), std::pair(NeighborKey{addr, intf}, to));
      }
      if (random() % 2) activity().run(0);
      if (random() % 2) kernel.serve();
      if (random() % 2) kernel.deliver();
      if (random() % 10 != 0) continue;
      kernel.rest();
      ASSERT_TRUE(kernel.isIdle());
      std::map<std::string, std::string> wanted;
      for (auto& [place, known] : kernel.has)
        wanted[nameOf({place.second, devices.at(place.first)})] =
            known.mac.toString() + (known.isPermanent ? " static" : " learned");
      ASSERT_EQ(wanted, sw.table());
      for (const char* who : {"b", "a"})
        for (auto& [name, entry] : own[who]) {
          const bool isThere = devices.count(std::stoi(entry.first.intf.toString().substr(8)));
          const bool counts = std::string(who) == "a" || !own["a"].count(name);
          EXPECT_TRUE(!isThere || !counts || wanted[name] == entry.second.toString() + " static")
              << name << " is " << wanted[name];
        }
    }
  });
}

TEST(LinuxNeighbors, WhatIsNobodysGoesAndWhatIsOthersStays) {
  Switch sw;
  ModelKernel kernel;
  Neighbors neighbors(sw.tree, kernel);
  kernel.neighbors = &neighbors;
  neighbors.offer();
  neighbors.deviceIs(1, id("Ethernet1"));
  const NeighborKey first = {address("10.0.0.1"), id("Ethernet1")},
                    second = {address("10.0.0.2"), id("Ethernet1")};
  const MacAddr one = mac(1), two = mac(2);
  kernel.is({1, second.addr, two, true});
  sw.configure("a", first, &one);
  kernel.rest();
  EXPECT_EQ(2u, kernel.has.size());
  sw.configure("a", first, nullptr);
  sw.configure("a", second, nullptr);
  kernel.rest();
  EXPECT_EQ(1u, kernel.has.size()) << "a permanent entry of somebody else's stays";
  // One that is deconfigured while it is on its way goes as well.
  sw.configure("a", first, &one);
  activity().run(0);
  sw.configure("a", first, nullptr);
  activity().run(0);
  kernel.rest();
  EXPECT_EQ(1u, kernel.has.size());
  // What the kernel refuses is not told again and again, but when something changes.
  kernel.refuses = true;
  sw.configure("a", first, &one);
  kernel.rest();
  EXPECT_EQ(1u, neighbors.counters().refused);
  kernel.refuses = false;
  kernel.rest();
  EXPECT_EQ(1u, kernel.has.size());
  neighbors.deviceIs(1, id("Ethernet1"));
  kernel.rest();
  EXPECT_EQ(2u, kernel.has.size());
  // Nor what it takes and does not have, but so often.
  const NeighborKey third = {address("10.0.0.3"), id("Ethernet1")};
  const auto before = neighbors.counters();
  kernel.forgets = true;
  sw.configure("a", third, &one);
  kernel.rest();
  EXPECT_EQ(before.writes + Neighbors::kMaxAttempts, neighbors.counters().writes);
  EXPECT_EQ(before.refused + 1, neighbors.counters().refused);
  kernel.forgets = false;
  neighbors.deviceIs(1, id("Ethernet1"));
  kernel.rest();
  EXPECT_EQ(3u, kernel.has.size());
  sw.configure("a", third, nullptr);
  kernel.rest();
  // A notification that was lost: the dump tells.
  kernel.has.clear();
  neighbors.dumpBegins();
  neighbors.dumpEnds();
  kernel.rest();
  EXPECT_EQ(1u, kernel.has.size());
  EXPECT_EQ(1u, neighbors.counters().putBack);
  EXPECT_EQ(
      (std::map<std::string, std::string>{{"10.0.0.1 Ethernet1", "00:1c:73:00:00:01 static"}}),
      sw.table());
}

TEST(LinuxNeighbors, MalformedMessagesAreNone) {
  const Message whole = setNeighbor({7, address("10.0.0.1"), mac(1), true});
  const auto parsed = parseNeighbor(*whole.header());
  ASSERT_TRUE(parsed && parsed->exists);
  EXPECT_EQ(7, parsed->neighbor.index);
  EXPECT_EQ(mac(1), parsed->neighbor.mac);
  for (uint32_t length = sizeof(nlmsghdr); length + 4 < whole.header()->nlmsg_len; ++length) {
    Message cut = whole;
    cut.header()->nlmsg_len = length;
    const auto event = parseNeighbor(*cut.header());
    EXPECT_FALSE(event && event->exists) << length;
  }
  Message proxy = whole;
  static_cast<ndmsg*>(mnl_nlmsg_get_payload(proxy.header()))->ndm_flags = NTF_PROXY;
  EXPECT_FALSE(parseNeighbor(*proxy.header()));
  Message failed = whole;
  static_cast<ndmsg*>(mnl_nlmsg_get_payload(failed.header()))->ndm_state = NUD_FAILED;
  EXPECT_FALSE(parseNeighbor(*failed.header())->exists);
}

// --- the real one -------------------------------------------------------------------------------

class KernelNeighborsTest : public ::testing::Test {
 protected:
  void SetUp() override {
    if (std::string why = NetNs::unavailable(); !why.empty()) GTEST_SKIP() << why;
    here_ = std::make_unique<NetNs>();
    there_ = std::make_unique<NetNs>();
    here_->run("ip link add eth1 type veth peer name peer1");
    here_->run("ip link set peer1 address 00:1c:73:00:00:99 netns " + there_->path());
    here_->run("ip addr add 10.0.0.1/24 dev eth1; ip link set eth1 up");
    there_->run("ip addr add 10.0.0.2/24 dev peer1; ip link set peer1 up");
  }
  void start(int receiveBuffer = 4 << 20) {
    const NetNs::Inside inside(*here_);
    std::string error;
    links_ = KernelLinks::start(sw_.tree, IntfMap(), &error);
    ASSERT_NE(nullptr, links_) << error;
    neighbors_ = KernelNeighbors::start(sw_.tree, links_->links(), receiveBuffer, &error);
    ASSERT_NE(nullptr, neighbors_) << error;
  }
  bool happens(const std::function<bool()>& what) {
    for (const double end = clock().now() + 20; !what(); activity().run(0.01))
      if (clock().now() > end) return false;
    return true;
  }
  std::string in(const std::string& name) { return sw_.table()[name]; }
  bool kernelShows(const std::string& words) {
    return here_->run("ip neigh show").find(words) != std::string::npos;
  }

  Switch sw_;
  std::unique_ptr<NetNs> here_, there_;
  std::unique_ptr<KernelLinks> links_;
  std::unique_ptr<KernelNeighbors> neighbors_;
};

TEST_F(KernelNeighborsTest, WhatTheKernelLearnsIsInTheTable) {
  here_->run("ip neigh add 10.0.0.77 lladdr 00:1c:73:00:00:77 dev eth1 nud permanent");
  start();
  EXPECT_EQ("00:1c:73:00:00:77 static", in("10.0.0.77 Ethernet1")) << "at once";
  here_->run("bash -c 'echo hello > /dev/udp/10.0.0.2/9'");
  EXPECT_TRUE(happens([&] { return in("10.0.0.2 Ethernet1") == "00:1c:73:00:00:99 learned"; }));
  // Nobody is there: that is no neighbour.
  here_->run("bash -c 'echo hello > /dev/udp/10.0.0.3/9'");
  activity().run(0.05);
  EXPECT_EQ("", in("10.0.0.3 Ethernet1"));
  here_->run("ip neigh del 10.0.0.2 dev eth1");
  EXPECT_TRUE(happens([&] { return in("10.0.0.2 Ethernet1").empty(); }));
  here_->run("ip link del eth1");
  EXPECT_TRUE(happens([&] { return sw_.table().empty(); }));
  EXPECT_EQ(0u, neighbors_->neighbors().counters().writes);
}

TEST_F(KernelNeighborsTest, WhatIsConfiguredIsInTheKernel) {
  start();
  const MacAddr one = mac(1), two = mac(2);
  const NeighborKey v4 = {address("10.0.0.50"), id("Ethernet1")},
                    v6 = {address("fe80::50"), id("Ethernet1")},
                    later = {address("10.9.0.1"), id("Ethernet9")};
  for (const NeighborKey& key : {v4, v6, later}) sw_.configure("a", key, &one);
  const auto areThere = [&] {
    return kernelShows("10.0.0.50 dev eth1 lladdr 00:1c:73:00:00:01 PERMANENT") &&
           kernelShows("fe80::50 dev eth1 lladdr 00:1c:73:00:00:01 PERMANENT");
  };
  EXPECT_TRUE(happens(areThere));
  EXPECT_TRUE(happens([&] { return in("fe80::50 Ethernet1") == "00:1c:73:00:00:01 static"; }));
  // Whatever somebody else does to it: it is put back.
  here_->run("ip neigh del 10.0.0.50 dev eth1");
  EXPECT_TRUE(happens(areThere));
  here_->run("ip neigh replace fe80::50 lladdr 00:1c:73:00:00:66 dev eth1 nud permanent");
  EXPECT_TRUE(happens(areThere));
  here_->run("ip neigh replace 10.0.0.50 lladdr 00:1c:73:00:00:01 dev eth1 nud stale");
  EXPECT_TRUE(happens(areThere));
  here_->run("ip link set eth1 down");
  activity().run(0.05);
  here_->run("ip link set eth1 up");
  EXPECT_TRUE(happens(areThere));
  // Its device comes later.
  here_->run("ip link add eth9 type veth peer name peer9; ip link set eth9 up");
  EXPECT_TRUE(
      happens([&] { return kernelShows("10.9.0.1 dev eth9 lladdr 00:1c:73:00:00:01 PERM"); }));
  sw_.configure("a", v4, &two);
  sw_.configure("a", v6, nullptr);
  EXPECT_TRUE(happens([&] {
    return kernelShows("10.0.0.50 dev eth1 lladdr 00:1c:73:00:00:02 PERMANENT") &&
           !kernelShows("fe80::50");
  }));
  EXPECT_TRUE(happens([&] { return in("fe80::50 Ethernet1").empty(); }));
}

TEST_F(KernelNeighborsTest, AnOverrunMissesNothing) {
  start(4096);
  std::ostringstream lines;
  for (int n = 0; n < 2000; ++n)
    lines << "neigh add 10.1." << n / 250 << "." << 1 + n % 250
          << " lladdr 00:1c:73:00:00:01 dev eth1 nud permanent\n";
  here_->ipBatch(lines.str());
  EXPECT_TRUE(happens([&] { return neighbors_->neighbors().size() >= 2000; }));
  EXPECT_LT(0u, neighbors_->socket().counters().overruns);
  here_->run("ip neigh flush dev eth1 nud permanent");
  EXPECT_TRUE(happens([&] { return sw_.table().empty(); }));
}

}  // namespace
}  // namespace ryx::kernel
