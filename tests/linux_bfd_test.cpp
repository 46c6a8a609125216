// The linux feed's BFD between two network namespaces: sessions that come up, fail and come back,
// what a dissector says of their packets, and what forged ones do.
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <fstream>
#include <functional>
#include <memory>
#include <sstream>
#include <string>

#include "platform/activity/activity.h"
#include "platform/base/clock.h"
#include "platform/model/wellknown.h"
#include "switch/linux/bfd.h"
#include "switch/linux/kernel_links.h"
#include "tests/support/netns.h"
#include "tests/support/parsed.h"
#include "tests/support/temp_dir.h"

namespace ryx::kernel {
namespace {

using namespace platform;
using platform::Bfd::PeerKey;
using platform::Bfd::PeerType;
using test::id;
using test::NetNs;

// A switch of its own in a namespace of its own.
class Side {
 public:
  Side() { makeWellKnown(tree); }

  void start() {
    const NetNs::Inside inside(ns);
    std::string error;
    links = KernelLinks::start(tree, IntfMap(), &error);
    ASSERT_NE(nullptr, links) << error;
    bfd = Bfd::start(tree, links->links(), &error);
    ASSERT_NE(nullptr, bfd) << error;
  }
  void ask(const PeerKey& peer, bool isAskedFor = true) {
    auto* app = tree.make<platform::Bfd::AppConfig>("bfd/config/app/test");
    auto& peers = app->vrf.create(peer.vrf)->peer;
    if (isAskedFor)
      peers.create({peer, "tester"})->isAskedFor.set(true);
    else
      peers.erase({peer, "tester"});
  }
  // -1: it is not there.
  int state(const PeerKey& peer) {
    const auto* status = tree.find<platform::Bfd::StatusPeer>("bfd/status/peer")->peer.find(peer);
    return status ? static_cast<int>(status->state()) : -1;
  }
  bool isUp(const PeerKey& peer) { return state(peer) == static_cast<int>(PeerState::up); }

  NetNs ns;
  Tree tree;
  std::unique_ptr<KernelLinks> links;
  std::unique_ptr<Bfd> bfd;
};

class LinuxBfdTest : public ::testing::Test {
 protected:
  void SetUp() override {
    if (std::string why = NetNs::unavailable(); !why.empty()) GTEST_SKIP() << why;
    a = std::make_unique<Side>();
    b = std::make_unique<Side>();
    a->ns.run("ip link add eth1 type veth peer name eth2; ip link set eth2 netns " + b->ns.path());
    a->ns.run("sysctl -qw net.ipv6.conf.eth1.dad_transmits=0; ip link set lo up");
    b->ns.run("sysctl -qw net.ipv6.conf.eth2.dad_transmits=0; ip link set lo up");
    a->ns.run("ip addr add 10.0.0.1/24 dev eth1; ip addr add 2001:db8::1/64 dev eth1");
    b->ns.run("ip addr add 10.0.0.2/24 dev eth2; ip addr add 2001:db8::2/64 dev eth2");
    a->ns.run("ip link set eth1 up");
    b->ns.run("ip link set eth2 up");
    for (Side* side : {a.get(), b.get()}) {
      auto* timers = side->tree.find<platform::Bfd::ConfigIntf>("bfd/config/intf");
      using platform::Bfd::Milliseconds;
      timers->global.set({Milliseconds(50), Milliseconds(50), platform::Bfd::Multiplier(3)});
      side->start();
    }
  }
  static PeerKey peer(const std::string& ip, const std::string& intf,
                      PeerType type = PeerType::normal) {
    return {test::parsed<IpAddr>(ip), VrfName("default"), intf.empty() ? IntfId() : id(intf), type};
  }
  bool happens(const std::function<bool()>& what, double seconds = 20) {
    for (const double end = clock().now() + seconds; !what(); activity().run(0.005))
      if (clock().now() > end) return false;
    return true;
  }
  bool comeUp(const PeerKey& ofA, const PeerKey& ofB) {
    a->ask(ofA);
    b->ask(ofB);
    return happens([&] { return a->isUp(ofA) && b->isUp(ofB); });
  }
  const PeerKey toB = peer("10.0.0.2", "Ethernet1"), toA = peer("10.0.0.1", "Ethernet2");

  std::unique_ptr<Side> a, b;
};

TEST_F(LinuxBfdTest, AFailedLinkIsDetectedInThreeIntervals) {
  const PeerKey toB6 = peer("2001:db8::2", "Ethernet1"), toA6 = peer("2001:db8::1", "Ethernet2");
  ASSERT_TRUE(comeUp(toB, toA));
  ASSERT_TRUE(comeUp(toB6, toA6));
  // Frames go to somebody else in one direction, and no interface goes down.
  b->ns.run(
      "ip neigh replace 10.0.0.1 lladdr 02:00:00:00:00:99 dev eth2 nud permanent; "
      "ip neigh replace 2001:db8::1 lladdr 02:00:00:00:00:99 dev eth2 nud permanent");
  const double cut = clock().now();
  ASSERT_TRUE(happens([&] { return !a->isUp(toB) && !a->isUp(toB6); }));
  const double took = clock().now() - cut;
  std::printf("detected in %.0f ms, with 3 x 50 ms\n", took * 1000);
  RecordProperty("milliseconds", static_cast<int>(took * 1000));
  // It began a little before, and a loaded machine is late.
  EXPECT_LT(took, 0.150 + 0.250);
  EXPECT_TRUE(happens([&] { return !b->isUp(toA) && !b->isUp(toA6); })) << "it is told";
  b->ns.run("ip neigh del 10.0.0.1 dev eth2; ip neigh del 2001:db8::1 dev eth2");
  EXPECT_TRUE(happens([&] { return a->isUp(toB) && b->isUp(toA) && a->isUp(toB6); }));
  // An interface that goes down takes it along at once.
  b->ns.run("ip link set eth2 down");
  EXPECT_TRUE(happens([&] { return !a->isUp(toB) && !b->isUp(toA); }));
  b->ns.run("ip link set eth2 up");
  EXPECT_TRUE(happens([&] { return a->isUp(toB) && b->isUp(toA); }));
  // Nobody asks for it any more: the peer hears that it is not a failure.
  a->ask(toB, false);
  EXPECT_TRUE(happens([&] { return a->state(toB) == -1 && !b->isUp(toA); }));
  EXPECT_EQ(PeerState::down, b->bfd->session(toA)->state());
  a->ask(toB);
  EXPECT_TRUE(happens([&] { return a->isUp(toB) && b->isUp(toA); }));
}

TEST_F(LinuxBfdTest, WhereAnotherHasThePortsThereIsNone) {
  const NetNs::Inside inside(a->ns);
  std::string error;
  EXPECT_EQ(nullptr, Bfd::start(a->tree, a->links->links(), &error));
  EXPECT_EQ("BFD cannot listen on UDP port 3784: Address already in use", error);
}

TEST_F(LinuxBfdTest, MultihopOverRoutes) {
  a->ns.run("ip addr add 10.9.0.1/32 dev lo; ip route add 10.9.0.2 via 10.0.0.2 src 10.9.0.1");
  b->ns.run("ip addr add 10.9.0.2/32 dev lo; ip route add 10.9.0.1 via 10.0.0.1 src 10.9.0.2");
  const PeerKey hopB = peer("10.9.0.2", "", PeerType::multihop),
                hopA = peer("10.9.0.1", "", PeerType::multihop);
  ASSERT_TRUE(comeUp(hopB, hopA));
  ASSERT_TRUE(comeUp(toB, toA)) << "both kinds beside each other";
  a->ns.run("ip route del 10.9.0.2");
  EXPECT_TRUE(happens([&] { return !a->isUp(hopB) && !b->isUp(hopA); }));
  EXPECT_TRUE(a->isUp(toB));
  // What is not spoken is there, and down.
  PeerKey micro = toB;
  micro.type = PeerType::micro;
  PeerKey red = toB;
  red.vrf = VrfName("red");
  a->ask(micro);
  a->ask(red);
  EXPECT_TRUE(happens([&] {
    return a->state(micro) == static_cast<int>(PeerState::down) &&
           a->state(red) == static_cast<int>(PeerState::down);
  }));
}

TEST_F(LinuxBfdTest, ADissectorFindsNothingWrong) {
  const test::TempDir dir;
  const std::string file = dir / "packets", log = dir / "log", pid = dir / "pid";
  b->ns.run("timeout 20 tcpdump -i eth2 --immediate-mode -Z root -w " + file + " -U udp > " + log +
            " 2>&1 & echo $! > " + pid + "; while ! grep -q listening " + log +
            "; do sleep 0.01; done");
  ASSERT_TRUE(comeUp(toB, toA));
  a->tree.find<platform::Bfd::ConfigIntf>("bfd/config/intf")
      ->global.set({platform::Bfd::Milliseconds(100), platform::Bfd::Milliseconds(100),
                    platform::Bfd::Multiplier(4)});
  happens([] { return false; }, 0.5);
  a->ask(toB, false);
  happens([] { return false; }, 0.2);
  b->ns.run("kill $(cat " + pid + "); while kill -0 $(cat " + pid +
            ") 2> /dev/null; do sleep 0.01; done");
  const std::string said = b->ns.run("tcpdump -r " + file + " -K -vvv -n 2>&1");
  for (const char* word :
       {"State Down", "State Init", "State Up", "State AdminDown", "Administratively Down", "Poll",
        "Final", "BFDv1, length: 24", "Desired min Tx Interval:      50 ms",
        "Desired min Tx Interval:     100 ms", "ttl 255", ".3784: "})
    EXPECT_NE(said.npos, said.find(word)) << word << "\n" << said.substr(0, 2000);
  for (const char* word : {"malformed", "invalid", "|bfd", "bad ", "unknown", "trunc"})
    EXPECT_EQ(said.npos, said.find(word)) << word << "\n" << said.substr(0, 2000);
}

TEST_F(LinuxBfdTest, WhatIsForgedChangesNothing) {
  ASSERT_TRUE(comeUp(toB, toA));
  const uint32_t its = b->bfd->session(toA)->discriminator();
  // From the peer's address, and that of another host, to b, which knows a.
  a->ns.run("ip addr add 10.0.0.66/24 dev eth1");
  const auto throws = [&](const BfdPacket& packet, int ttl, const std::string& from,
                          size_t size = BfdPacket::kBytes, uint16_t port = 3784) {
    const NetNs::Inside inside(a->ns);
    const int fd = ::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    ::setsockopt(fd, IPPROTO_IP, IP_TTL, &ttl, sizeof ttl);
    const IpAddr source = test::parsed<IpAddr>(from);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    std::memcpy(&address.sin_addr, source.bytes(), 4);
    EXPECT_EQ(0, ::bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof address));
    std::memcpy(&address.sin_addr, toB.ip.bytes(), 4);
    address.sin_port = htons(port);
    const auto bytes = packet.bytes();
    EXPECT_EQ(
        static_cast<ssize_t>(size),
        ::sendto(fd, bytes.data(), size, 0, reinterpret_cast<sockaddr*>(&address), sizeof address));
    ::close(fd);
  };
  BfdPacket down;  // which takes a session down, when it is believed
  down.state = PeerState::adminDown;
  down.detectMult = 3;
  down.myDiscriminator = 99;
  down.yourDiscriminator = its;
  down.desiredMinTx = down.requiredMinRx = 1'000'000;
  const auto before = b->bfd->counters();
  throws(down, 254, "10.0.0.1");                           // from behind a router
  throws(down, 255, "10.0.0.66");                          // from another host
  throws(down, 255, "10.0.0.1", 23);                       // cut off
  throws(down, 255, "10.0.0.1", BfdPacket::kBytes, 4784);  // of the other kind
  BfdPacket other = down;
  other.yourDiscriminator = its + 1;
  throws(other, 255, "10.0.0.1");
  other.yourDiscriminator = its;
  other.detectMult = 0;
  throws(other, 255, "10.0.0.1");
  other.detectMult = 3;
  other.yourDiscriminator = 0;
  throws(other, 255, "10.0.0.66");
  EXPECT_TRUE(happens([&] {
    const auto& now = b->bfd->counters();
    return now.wrongTtl >= before.wrongTtl + 1 && now.malformed >= before.malformed + 2 &&
           now.foreign >= before.foreign + 4;
  }));
  EXPECT_TRUE(a->isUp(toB) && b->isUp(toA));
  EXPECT_EQ(its, b->bfd->session(toA)->discriminator());
  EXPECT_NEAR(0.150, b->bfd->session(toA)->detectionTime(), 1e-9);
  // It would have been believed.
  throws(down, 255, "10.0.0.1");
  EXPECT_TRUE(happens([&] { return !b->isUp(toA); }));
}

}  // namespace
}  // namespace ryx::kernel
