// The linux feed's addresses: the logic against a model kernel, and all of it against the real one,
// in network namespaces.
#include <gtest/gtest.h>
#include <linux/if_addr.h>
#include <linux/rtnetlink.h>
#include <unistd.h>

#include <functional>
#include <map>
#include <memory>
#include <random>
#include <set>
#include <sstream>
#include <string>
#include <utility>

#include "platform/activity/activity.h"
#include "platform/base/clock.h"
#include "platform/model/wellknown.h"
#include "switch/linux/kernel_addresses.h"
#include "switch/linux/kernel_links.h"
#include "tests/support/netns.h"
#include "tests/support/parsed.h"
#include "tests/support/random_runs.h"
#include "tests/support/slow_kernel.h"

namespace ryx::kernel {
namespace {

using namespace platform;
using test::id;
using test::NetNs;

IpAddrMask at(const std::string& text) {
  return test::parsed<IpAddrMask>(text);
}

// Configuration and status as text: the primary address, the secondary ones, IPv6.
class Switch {
 public:
  Switch() { makeWellKnown(tree); }

  void configure(const std::string& intf, const std::string& primary,
                 const std::string& secondaries = "", const std::string& ip6 = "") {
    auto* config = tree.find<Ip::Config>("ip/config")->ipIntfConfig.create(id(intf));
    config->addrWithMask.set(primary.empty() ? IpAddrMask() : at(primary));
    config->secondaryWithMask.set(setOf(secondaries));
    tree.find<Ip6::Config>("ip6/config")->intf.create(id(intf))->addr.set(setOf(ip6));
  }
  std::string status(const std::string& intf) {
    activity().run(0);
    const auto* ip = tree.find<Ip::Status>("ip/status")->ipIntfStatus.find(id(intf));
    const auto* ip6 = tree.find<Ip6::Status>("ip6/status")->intf.find(id(intf));
    if (!ip && !ip6) return "none";
    std::string text;
    if (ip && Ip::isAssigned(ip->activeAddrWithMask())) text += ip->activeAddrWithMask().toString();
    text += " |";
    if (ip)
      for (const IpAddrMask& addr : ip->activeSecondaryWithMask()) text += " " + addr.toString();
    text += " |";
    if (ip6)
      for (const IpAddrMask& addr : ip6->activeAddr()) text += " " + addr.toString();
    return text;
  }

  Tree tree;

 private:
  static SmallSet<IpAddrMask> setOf(const std::string& texts) {
    SmallSet<IpAddrMask> set;
    std::istringstream words(texts);
    for (std::string word; words >> word;) set.insert(at(word));
    return set;
  }
};

// --- the logic, against a model kernel ----------------------------------------------------------

// It has one IPv6 address once, whatever its mask, as the real one.
class ModelKernel final : public AddressWriter, public test::SlowKernel {
 public:
  std::map<std::pair<int, IpAddrMask>, Address> has;
  Addresses* addresses = nullptr;
  bool refuses = false;

  void set(const Address& a, Answer done) override {
    EXPECT_TRUE(a.isOurs);
    isTold([this, a, done] {
      const bool taken = isTaken(a);
      if (!refuses && !taken) is(a);
      says([done, error = refuses ? EINVAL : taken ? EEXIST : 0] { done(error, ""); });
    });
  }
  void remove(const Address& a, Answer done) override {
    isTold([this, a, done] {
      const bool was = isNot(a.index, a.addr);
      says([done, was] { done(was ? 0 : EADDRNOTAVAIL, ""); });
    });
  }
  void is(const Address& a) {
    if (isTaken(a)) return;
    has[{a.index, a.addr}] = a;
    says([this, a] { addresses->changed(a); });
  }
  bool isNot(int index, IpAddrMask addr) {
    if (has.erase({index, addr}) == 0) return false;
    says([this, index, addr] { addresses->gone(index, addr); });
    return true;
  }

 private:
  bool isTaken(const Address& a) const {
    if (a.addr.af() == Af::ipv4) return false;
    for (const auto& [place, there] : has)
      if (place.first == a.index && place.second.addr() == a.addr.addr() && place.second != a.addr)
        return true;
    return false;
  }
};

TEST(LinuxAddresses, RandomChangesOnBothSidesEndTheSame) {
  test::randomRuns(30, [](std::mt19937& random) {
    Switch sw;
    ModelKernel kernel;
    Addresses addresses(sw.tree, kernel);
    kernel.addresses = &addresses;
    std::map<int, std::string> devices;
    std::map<std::string, std::string> primary;               // by interface
    std::map<std::string, std::set<std::string>> configured;  // both families
    const auto any = [&](bool isIp6) {
      const std::string host = std::to_string(1 + random() % 4);
      return isIp6 ? "2001:db8::" + host + (random() % 2 ? "/64" : "/127")
                   : "10.0.0." + host + "/24";
    };
    for (int n = 0; n < 400; ++n) {
      const int index = 1 + static_cast<int>(random() % 2);
      const std::string intf = "Ethernet" + std::to_string(index);
      const std::string addr = any(random() % 2);
      switch (random() % 8) {
        case 0:
          if (devices.erase(index) != 0) {
            addresses.deviceIs(index, {});
            kernel.rest();
            for (auto it = kernel.has.lower_bound({index, {}});
                 it != kernel.has.end() && it->first.first == index;)
              kernel.isNot(index, (it++)->first.second);
          } else {
            devices[index] = intf;
            addresses.deviceIs(index, id(intf));
          }
          break;
        case 1:
        case 2:
          if (devices.count(index)) kernel.is({index, at(addr), random() % 4 != 0, false});
          break;
        case 3:
          kernel.isNot(index, at(addr));
          break;
        default: {
          std::set<std::string> ip, ip6;
          for (size_t i = random() % 4; i > 0; --i) ip.insert(any(false));
          std::string texts6;
          for (int host = 1; host < 4; ++host)  // an address under one mask at most
            if (random() % 3 == 0)
              ip6.insert("2001:db8::" + std::to_string(host) + (random() % 2 ? "/64" : "/127"));
          for (const std::string& one : ip6) texts6 += one + " ";
          configured[intf] = ip6;
          configured[intf].insert(ip.begin(), ip.end());
          primary[intf] = ip.empty() ? "" : *std::next(ip.begin(), random() % ip.size());
          std::string texts;
          for (const std::string& one : ip)
            if (one != primary[intf]) texts += one + " ";
          sw.configure(intf, primary[intf], texts, texts6);
        }
      }
      if (random() % 2) activity().run(0);
      if (random() % 2) kernel.serve();
      if (random() % 2) kernel.deliver();
      if (random() % 8 != 0) continue;
      kernel.rest();
      ASSERT_TRUE(kernel.isIdle());
      for (const auto& [place, name] : devices) {
        std::set<std::string> active, all;
        for (const auto& [where, there] : kernel.has) {
          if (where.first != place) continue;
          all.insert(where.second.toString());
          if (there.isActive) active.insert(where.second.toString());
        }
        std::set<std::string> shown;
        std::istringstream words(sw.status(name));
        for (std::string word; words >> word;)
          if (word != "|" && word != "none") shown.insert(word);
        EXPECT_EQ(active, shown) << name;
        if (!primary[name].empty() && active.count(primary[name])) {
          EXPECT_EQ(0u, sw.status(name).find(primary[name])) << sw.status(name);
        }
        for (const std::string& one : configured[name]) {
          // Nothing but a foreign one under another mask keeps it out.
          bool isBlocked = false;
          for (const auto& [where, there] : kernel.has)
            isBlocked |= where.first == place && where.second.addr() == at(one).addr() &&
                         where.second != at(one) && !there.isOurs;
          EXPECT_TRUE(all.count(one) || isBlocked) << name << " lacks " << one;
        }
        for (const auto& [where, there] : kernel.has)
          EXPECT_TRUE(where.first != place || !there.isOurs ||
                      configured[name].count(where.second.toString()))
              << name << " keeps " << where.second.toString();
      }
    }
  });
}

TEST(LinuxAddresses, WhatIsLeftGoesAndWhatIsOthersStays) {
  VirtualClock clock;
  Switch sw;
  ModelKernel kernel;
  Addresses addresses(sw.tree, kernel);
  kernel.addresses = &addresses;
  // In the kernel at the start: one of an earlier life that is configured, one that is not, and
  // somebody else's.
  sw.configure("Ethernet1", "10.0.0.1/24");
  kernel.is({1, at("10.0.0.1/24"), true, true});
  kernel.is({1, at("10.0.0.2/24"), true, true});
  kernel.is({1, at("10.0.0.3/24"), true, false});
  kernel.rest();
  addresses.deviceIs(1, id("Ethernet1"));
  kernel.rest();
  EXPECT_EQ("10.0.0.1/24 | 10.0.0.2/24 10.0.0.3/24 |", sw.status("Ethernet1"));
  clock.advance(Addresses::kLeftoverPatience - 0.1);
  kernel.rest();
  EXPECT_EQ("10.0.0.1/24 | 10.0.0.2/24 10.0.0.3/24 |", sw.status("Ethernet1"));
  EXPECT_EQ(0u, addresses.counters().writes);
  clock.advance(0.2);
  kernel.rest();
  EXPECT_EQ("10.0.0.1/24 | 10.0.0.3/24 |", sw.status("Ethernet1"));
  EXPECT_EQ(1u, addresses.counters().writes);
  // What somebody else put there and was configured is the configuration's.
  sw.configure("Ethernet1", "10.0.0.3/24");
  kernel.rest();
  sw.configure("Ethernet1", "");
  kernel.rest();
  EXPECT_EQ(" | |", sw.status("Ethernet1"));
  // Refused once, and tried again when something changes.
  kernel.refuses = true;
  sw.configure("Ethernet1", "10.0.0.1/24");
  kernel.rest();
  EXPECT_EQ(1u, addresses.counters().refused);
  EXPECT_EQ(" | |", sw.status("Ethernet1"));
  kernel.refuses = false;
  kernel.rest();
  EXPECT_EQ(" | |", sw.status("Ethernet1"));
  addresses.deviceIs(1, id("Ethernet1"));
  kernel.rest();
  EXPECT_EQ("10.0.0.1/24 | |", sw.status("Ethernet1"));
  // A notification that was lost: the dump tells.
  kernel.has.clear();
  addresses.dumpBegins();
  addresses.dumpEnds();
  kernel.rest();
  EXPECT_EQ("10.0.0.1/24 | |", sw.status("Ethernet1"));
  EXPECT_EQ(1u, addresses.counters().putBack);
  // The primary one is the configured one, or none while that is missing.
  sw.configure("Ethernet1", "10.0.0.9/24", "10.0.0.1/24");
  kernel.refuses = true;
  kernel.rest();
  EXPECT_EQ(" | 10.0.0.1/24 |", sw.status("Ethernet1"));
  addresses.deviceIs(1, {});
  kernel.rest();
  EXPECT_EQ("none", sw.status("Ethernet1"));
}

TEST(LinuxAddresses, MalformedMessagesAreNone) {
  const Message whole = setAddress({7, at("10.0.0.1/24"), true, true});
  const auto parsed = parseAddress(*whole.header());
  ASSERT_TRUE(parsed && parsed->exists && parsed->address.isOurs && parsed->address.isActive);
  EXPECT_EQ(7, parsed->address.index);
  EXPECT_EQ(at("10.0.0.1/24"), parsed->address.addr);
  for (uint32_t length = sizeof(nlmsghdr); length < sizeof(nlmsghdr) + sizeof(ifaddrmsg) + 8;
       length += NLMSG_ALIGNTO) {
    Message cut = whole;
    cut.header()->nlmsg_len = length;
    EXPECT_FALSE(parseAddress(*cut.header())) << length;
  }
  const auto with = [&](auto&& change, Message message) {
    change(*static_cast<ifaddrmsg*>(mnl_nlmsg_get_payload(message.header())));
    return parseAddress(*message.header());
  };
  EXPECT_FALSE(with([](ifaddrmsg& m) { m.ifa_prefixlen = 33; }, whole));
  EXPECT_FALSE(with([](ifaddrmsg& m) { m.ifa_family = AF_INET6; }, whole));
  EXPECT_FALSE(with([](ifaddrmsg& m) { m.ifa_index = 0; }, whole));
  EXPECT_FALSE(with([](ifaddrmsg& m) { m.ifa_index = 1u << 31; }, whole));
  EXPECT_FALSE(with([](ifaddrmsg&) {}, setAddress({7, at("fe80::1/64"), true, true})));
  const Message ip6 = setAddress({7, at("2001:db8::1/64"), true, true});
  EXPECT_FALSE(with([](ifaddrmsg& m) { m.ifa_flags = IFA_F_TENTATIVE; }, ip6)->address.isActive);
  EXPECT_TRUE(with([](ifaddrmsg& m) { m.ifa_flags = IFA_F_TENTATIVE | IFA_F_OPTIMISTIC; }, ip6)
                  ->address.isActive);
  EXPECT_FALSE(with([](ifaddrmsg& m) { m.ifa_flags = IFA_F_DADFAILED; }, ip6)->address.isActive);
}

// --- the real one -------------------------------------------------------------------------------

class KernelAddressesTest : public ::testing::Test {
 protected:
  void SetUp() override {
    if (std::string why = NetNs::unavailable(); !why.empty()) GTEST_SKIP() << why;
    here_ = std::make_unique<NetNs>();
    here_->run("ip link add eth1 type veth peer name peer1; ip link set peer1 up");
    here_->run("sysctl -qw net.ipv6.conf.eth1.dad_transmits=0; ip link set eth1 up");
  }
  void start(int receiveBuffer = 4 << 20) {
    const NetNs::Inside inside(*here_);
    std::string error;
    links_ = KernelLinks::start(sw_.tree, IntfMap(), &error);
    ASSERT_NE(nullptr, links_) << error;
    addresses_ = KernelAddresses::start(sw_.tree, links_->links(), receiveBuffer, &error);
    ASSERT_NE(nullptr, addresses_) << error;
  }
  bool happens(const std::function<bool()>& what) {
    const NetNs::Inside inside(*here_);
    for (const double end = clock().now() + 20; !what(); activity().run(0.01))
      if (clock().now() > end) return false;
    return true;
  }
  bool becomes(const std::string& status) {
    const bool is = happens([&] { return sw_.status("Ethernet1") == status; });
    EXPECT_TRUE(is) << sw_.status("Ethernet1") << "; expected " << status;
    return is;
  }
  bool kernelShows(const std::string& words) {
    return here_->run("ip addr show dev eth1").find(words) != std::string::npos;
  }

  Switch sw_;
  std::unique_ptr<NetNs> here_;
  std::unique_ptr<KernelLinks> links_;
  std::unique_ptr<KernelAddresses> addresses_;
};

TEST_F(KernelAddressesTest, WhatTheKernelHasIsActive) {
  here_->run("ip addr add 10.0.0.5/24 dev eth1; ip addr add 10.0.0.3/24 dev eth1");
  start();
  EXPECT_EQ("10.0.0.3/24 | 10.0.0.5/24 |", sw_.status("Ethernet1")) << "at once";
  here_->run("ip addr add 2001:db8::1/64 dev eth1; ip addr del 10.0.0.3/24 dev eth1");
  becomes("10.0.0.5/24 | | 2001:db8::1/64");
  here_->run("ip link del eth1");
  becomes("none");
  EXPECT_EQ(0u, addresses_->addresses().counters().writes);
}

TEST_F(KernelAddressesTest, WhatIsConfiguredIsInTheKernel) {
  start();
  // The primary one is not the first of its subnet.
  here_->run("ip addr add 10.0.0.1/24 dev eth1");
  sw_.configure("Ethernet1", "10.0.0.9/24", "10.0.0.7/24 10.1.0.1/24", "2001:db8::1/64");
  becomes("10.0.0.9/24 | 10.0.0.1/24 10.0.0.7/24 10.1.0.1/24 | 2001:db8::1/64");
  EXPECT_TRUE(kernelShows("inet 10.0.0.9/24 scope global secondary eth1"));
  EXPECT_TRUE(kernelShows("inet6 2001:db8::1/64 scope global"));
  // One goes with which the kernel would drop others of its subnet.
  here_->run("ip addr del 10.0.0.1/24 dev eth1");
  becomes("10.0.0.9/24 | 10.0.0.7/24 10.1.0.1/24 | 2001:db8::1/64");
  EXPECT_EQ(0u, addresses_->addresses().counters().putBack) << "it promotes another one";
  // Whatever somebody else does: it is put back.
  here_->run("ip addr del 10.0.0.9/24 dev eth1; ip addr del 2001:db8::1/64 dev eth1");
  EXPECT_TRUE(happens([&] { return addresses_->addresses().counters().putBack >= 2; }));
  becomes("10.0.0.9/24 | 10.0.0.7/24 10.1.0.1/24 | 2001:db8::1/64");
  here_->run("ip addr flush dev eth1 scope global");
  EXPECT_TRUE(happens([&] { return addresses_->addresses().counters().putBack >= 6; }));
  becomes("10.0.0.9/24 | 10.0.0.7/24 10.1.0.1/24 | 2001:db8::1/64");
  // Down, the kernel drops IPv6 addresses; they are active again when it is up.
  here_->run("ip link set eth1 down");
  becomes("10.0.0.9/24 | 10.0.0.7/24 10.1.0.1/24 |");
  here_->run("ip link set eth1 up");
  becomes("10.0.0.9/24 | 10.0.0.7/24 10.1.0.1/24 | 2001:db8::1/64");
  // Another mask, and nothing of IPv4.
  sw_.configure("Ethernet1", "", "", "2001:db8::1/80");
  becomes(" | | 2001:db8::1/80");
  EXPECT_FALSE(kernelShows("inet 10."));
  // Its device goes and comes back.
  here_->run("ip link del eth1");
  becomes("none");
  here_->run("ip link add eth1 type veth peer name peer1; ip link set peer1 up");
  here_->run("sysctl -qw net.ipv6.conf.eth1.dad_transmits=0; ip link set eth1 up");
  becomes(" | | 2001:db8::1/80");
}

TEST_F(KernelAddressesTest, WhatTheKernelRefusesIsToldAndOthersPass) {
  start();
  sw_.configure("Ethernet1", "10.0.0.1/24", "", "ff02::5/64 2001:db8::1/64");
  becomes("10.0.0.1/24 | | 2001:db8::1/64");
  EXPECT_EQ(1u, addresses_->addresses().counters().refused);
}

TEST_F(KernelAddressesTest, WhatAnEarlierLifeLeftGoesWhenItIsConfiguredNoMore) {
  start();
  sw_.configure("Ethernet1", "10.0.0.1/24", "10.0.0.2/24");
  becomes("10.0.0.1/24 | 10.0.0.2/24 |");
  addresses_.reset();
  links_.reset();
  here_->run("ip addr add 10.0.0.3/24 dev eth1");
  sw_.configure("Ethernet1", "10.0.0.1/24");
  const VirtualClock clock;
  start();
  EXPECT_EQ("10.0.0.1/24 | 10.0.0.2/24 10.0.0.3/24 |", sw_.status("Ethernet1"));
  platform::clock().skipTo(clock.now() + Addresses::kLeftoverPatience);
  for (int i = 0; i < 2000 && sw_.status("Ethernet1") != "10.0.0.1/24 | 10.0.0.3/24 |"; ++i)
    ::usleep(1000);
  EXPECT_EQ("10.0.0.1/24 | 10.0.0.3/24 |", sw_.status("Ethernet1"));
}

TEST_F(KernelAddressesTest, AnOverrunMissesNothing) {
  start(4096);
  std::ostringstream lines;
  for (int n = 0; n < 1000; ++n)
    lines << "addr add 10.1." << n / 250 << "." << 1 + n % 250 << "/32 dev eth1\n";
  here_->ipBatch(lines.str());
  const auto count = [&] {
    activity().run(0);
    const auto* ip = sw_.tree.find<Ip::Status>("ip/status")->ipIntfStatus.find(id("Ethernet1"));
    return ip ? ip->activeSecondaryWithMask().size() + 1 : 0;
  };
  EXPECT_TRUE(happens([&] { return count() >= 1000; }));
  EXPECT_LT(0u, addresses_->socket().counters().overruns);
  here_->run("ip addr flush dev eth1 scope global");
  becomes("none");
}

}  // namespace
}  // namespace ryx::kernel
