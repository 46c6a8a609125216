// BFD sessions by themselves: packets, the state machine and the timers of two sessions at the ends
// of a link that a test can cut, on the virtual clock.
#include "switch/linux/bfd_session.h"

#include <gtest/gtest.h>

#include <functional>
#include <memory>
#include <random>
#include <string>
#include <utility>
#include <vector>

#include "platform/activity/activity.h"
#include "platform/base/clock.h"
#include "tests/support/random_runs.h"

namespace ryx::kernel {
namespace {

using namespace platform;
using platform::Bfd::Milliseconds;
using platform::Bfd::Multiplier;
using platform::Bfd::Timers;

Timers timers(uint32_t tx, uint32_t rx, uint32_t mult = 3) {
  return {Milliseconds(tx), Milliseconds(rx), Multiplier(mult)};
}

std::string_view text(const std::array<uint8_t, 24>& bytes) {
  return {reinterpret_cast<const char*>(bytes.data()), bytes.size()};
}

TEST(BfdPacket, IsAsTheStandardDrawsIt) {
  BfdPacket packet;
  packet.diag = BfdDiag::detectionExpired;
  packet.state = PeerState::up;
  packet.isPoll = true;
  packet.detectMult = 3;
  packet.myDiscriminator = 0x01020304;
  packet.yourDiscriminator = 0x05060708;
  packet.desiredMinTx = 50'000;
  packet.requiredMinRx = 300'000;
  const std::array<uint8_t, 24> bytes = {0x21, 0xe0, 3,    24,   1, 2, 3,    4,    5, 6, 7, 8,
                                         0,    0,    0xc3, 0x50, 0, 4, 0x93, 0xe0, 0, 0, 0, 0};
  EXPECT_EQ(bytes, packet.bytes());
  const auto parsed = parseBfd(text(bytes));
  ASSERT_TRUE(parsed);
  EXPECT_EQ(bytes, parsed->bytes());

  const auto isTaken = [&](size_t at, uint8_t value, size_t size = 24) {
    auto changed = bytes;
    changed[at] = value;
    return parseBfd(text(changed).substr(0, size)).has_value();
  };
  EXPECT_TRUE(isTaken(1, 0x20)) << "a poll of one that is administratively down";
  EXPECT_FALSE(isTaken(0, 0x01)) << "version 0";
  EXPECT_FALSE(isTaken(0, 0x41)) << "version 2";
  EXPECT_FALSE(isTaken(1, 0xe1)) << "multipoint";
  EXPECT_FALSE(isTaken(1, 0xe4)) << "authenticated";
  EXPECT_FALSE(isTaken(2, 0)) << "no multiplier";
  EXPECT_FALSE(isTaken(3, 23)) << "too short";
  EXPECT_FALSE(isTaken(3, 25)) << "longer than it is";
  for (size_t size = 0; size < 24; ++size) EXPECT_FALSE(isTaken(2, 3, size)) << size;
  auto changed = bytes;
  for (size_t i = 8; i < 12; ++i) changed[i] = 0;
  EXPECT_FALSE(parseBfd(text(changed))) << "up, and knows no peer";
  changed[1] = 0x40;
  EXPECT_TRUE(parseBfd(text(changed))) << "down, and knows no peer";
  for (size_t i = 4; i < 8; ++i) changed[i] = 0;
  EXPECT_FALSE(parseBfd(text(changed))) << "no discriminator";
}

// One end: what it sent and when, and what it became.
class End final : private BfdSession::Owner {
 public:
  End(uint32_t discriminator, const Timers& timers) : session(discriminator, timers, *this) {}

  std::function<void(const BfdPacket&)> deliver = [](const BfdPacket&) {};
  std::vector<std::pair<double, BfdPacket>> sent;
  std::vector<PeerState> states;
  std::function<void()> waiting = [] {};
  bool hasEnded = false;
  BfdSession session;

 private:
  void send(const BfdPacket& packet) override {
    sent.emplace_back(clock().now(), packet);
    deliver(packet);
  }
  void stateIs(PeerState state) override { states.push_back(state); }
  void readWaiting() override { waiting(); }
  void ended() override { hasEnded = true; }
};

class BfdSessionTest : public ::testing::Test {
 protected:
  // Packets arrive at once, through the loop.
  void connect(const Timers& left, const Timers& right) {
    a = std::make_unique<End>(1, left);
    b = std::make_unique<End>(2, right);
    a->deliver = [this](const BfdPacket& p) { arrive(b, p, aToB); };
    b->deliver = [this](const BfdPacket& p) { arrive(a, p, bToA); };
    a->session.pathIs(true);
    b->session.pathIs(true);
  }
  // Lets time pass, a millisecond at a time.
  void pass(double seconds) {
    for (const double end = clock.now() + seconds; clock.now() < end; clock.advance(0.001)) {
      activity().run(0);
      for (auto& deliver : std::exchange(wire_, {})) deliver();
    }
  }
  bool isUp() const {
    return a->session.state() == PeerState::up && b->session.state() == PeerState::up;
  }
  // The least and the most time between what was sent since then, polls and answers to them aside.
  std::pair<double, double> gaps(const End& end, double since) const {
    std::pair<double, double> result(1e9, 0);
    double before = 0;
    for (const auto& [when, packet] : end.sent) {
      if (packet.isFinal) continue;
      if (when >= since && before >= since) {
        result.first = std::min(result.first, when - before);
        result.second = std::max(result.second, when - before);
      }
      before = when;
    }
    return result;
  }

  VirtualClock clock;
  std::unique_ptr<End> a, b;
  bool aToB = true, bToA = true;

 private:
  void arrive(const std::unique_ptr<End>& to, const BfdPacket& packet, const bool& works) {
    if (works) wire_.push_back([&to, packet] { to->session.received(packet); });
  }
  std::vector<std::function<void()>> wire_;
};

TEST_F(BfdSessionTest, ComesUpAndSendsAsNegotiated) {
  connect(timers(50, 100), timers(200, 60, 5));
  EXPECT_EQ(PeerState::down, a->session.state());
  pass(3);
  EXPECT_TRUE(isUp());
  EXPECT_EQ(PeerState::up, a->states.back());
  for (const End* end : {a.get(), b.get()})
    for (size_t i = 0; i < end->sent.size(); ++i)
      if (end->sent[i].second.state != PeerState::up) {
        EXPECT_EQ(1'000'000u, end->sent[i].second.desiredMinTx) << "slowly, until it is up";
      }
  EXPECT_FALSE(a->sent.back().second.isPoll) << "the poll was answered";
  const double since = clock.now();
  pass(5);
  // The slower of what one end wants to send and the other to receive; up to a quarter earlier.
  const auto [aLeast, aMost] = gaps(*a, since);
  EXPECT_GE(aLeast, 0.045 - 0.002);
  EXPECT_LE(aMost, 0.060 + 0.002);
  EXPECT_GT(aMost - aLeast, 0.005) << "at random";
  const auto [bLeast, bMost] = gaps(*b, since);
  EXPECT_GE(bLeast, 0.150 - 0.002);
  EXPECT_LE(bMost, 0.200 + 0.002);
  EXPECT_DOUBLE_EQ(5 * 0.200, a->session.detectionTime());
  EXPECT_DOUBLE_EQ(3 * 0.060, b->session.detectionTime());
}

TEST_F(BfdSessionTest, SilenceIsDetectedInTime) {
  connect(timers(50, 50), timers(50, 50));
  pass(3);
  ASSERT_TRUE(isUp());
  double last = 0;
  aToB = false;
  for (const auto& [when, packet] : a->sent) last = when;
  const double cut = clock.now();
  pass(0.1);
  EXPECT_EQ(PeerState::up, b->session.state());
  while (b->session.state() == PeerState::up && clock.now() < cut + 1) pass(0.001);
  EXPECT_NEAR(clock.now() - last, 0.150, 0.003);
  EXPECT_EQ(BfdDiag::detectionExpired, b->sent.back().second.diag);
  EXPECT_EQ(0u, b->sent.back().second.yourDiscriminator);
  pass(0.002);
  EXPECT_EQ(PeerState::down, a->session.state()) << "it was told";
  EXPECT_EQ(BfdDiag::neighborDown, a->sent.back().second.diag);
  const size_t sent = a->sent.size();
  pass(5);
  EXPECT_LE(a->sent.size() - sent, 9u) << "slowly, while it is down";
  EXPECT_GE(a->sent.size() - sent, 5u);
  EXPECT_FALSE(isUp());
  aToB = true;
  pass(3);
  EXPECT_TRUE(isUp());
}

// What came and waits in the socket while the process was held up is heard first.
TEST_F(BfdSessionTest, WhoIsHeldUpIsNotDeaf) {
  connect(timers(50, 50), timers(50, 50));
  pass(3);
  ASSERT_TRUE(isUp());
  const BfdPacket last = a->sent.back().second;
  b->waiting = [&] { b->session.received(last); };
  clock.advance(1);
  activity().run(0);
  EXPECT_EQ(PeerState::up, b->session.state());
  b->waiting = [] {};
  aToB = false;
  pass(0.2);
  EXPECT_EQ(PeerState::down, b->session.state());
}

TEST_F(BfdSessionTest, OtherTimersAreAnnouncedBeforeTheyAreRelaxed) {
  connect(timers(50, 50), timers(50, 50));
  pass(3);
  ASSERT_TRUE(isUp());
  // Slower: at the old rate until the other end has said that it knows.
  bToA = false;
  double since = clock.now();
  a->session.timersAre(timers(400, 50));
  pass(0.09);
  EXPECT_LE(gaps(*a, since).second, 0.052);
  EXPECT_TRUE(a->sent.back().second.isPoll);
  EXPECT_EQ(400'000u, a->sent.back().second.desiredMinTx);
  bToA = true;
  pass(0.5);
  EXPECT_FALSE(a->sent.back().second.isPoll);
  since = clock.now();
  pass(3);
  EXPECT_GE(gaps(*a, since).first, 0.298);
  EXPECT_DOUBLE_EQ(3 * 0.400, b->session.detectionTime());
  EXPECT_TRUE(isUp());
  // Faster: at once.
  since = clock.now();
  a->session.timersAre(timers(50, 50));
  pass(0.2);
  EXPECT_LE(gaps(*a, since).second, 0.052);
  // To receive less often: the other end slows down; more often: detection waits for it.
  a->session.timersAre(timers(50, 200));
  pass(1);
  EXPECT_NEAR(0.200, b->session.sendInterval(), 1e-9);
  bToA = false;
  a->session.timersAre(timers(50, 50));
  EXPECT_DOUBLE_EQ(3 * 0.200, a->session.detectionTime());
  bToA = true;
  pass(0.5);
  EXPECT_DOUBLE_EQ(3 * 0.050, a->session.detectionTime());
  EXPECT_TRUE(isUp());
  EXPECT_EQ(1, std::count(a->states.begin(), a->states.end(), PeerState::up)) << "all the time";
}

TEST_F(BfdSessionTest, WhoEndsTellsItsPeer) {
  connect(timers(50, 50), timers(50, 50));
  pass(3);
  ASSERT_TRUE(isUp());
  a->session.end();
  pass(0.002);
  EXPECT_EQ(PeerState::down, b->session.state());
  EXPECT_EQ(BfdDiag::neighborDown, b->sent.back().second.diag);
  EXPECT_EQ(PeerState::adminDown, a->sent.back().second.state);
  EXPECT_EQ(BfdDiag::adminDown, a->sent.back().second.diag);
  pass(2.9);
  EXPECT_FALSE(a->hasEnded) << "it says so for a detection time";
  EXPECT_EQ(PeerState::adminDown, a->session.state()) << "whatever it hears";
  pass(0.3);
  EXPECT_TRUE(a->hasEnded);
  // One that never had a peer is gone at once.
  End lone(7, timers(50, 50));
  lone.session.pathIs(true);
  lone.session.end();
  pass(0.01);
  EXPECT_TRUE(lone.hasEnded);
}

TEST_F(BfdSessionTest, APathThatGoesTakesItDownAtOnce) {
  connect(timers(50, 50), timers(50, 50));
  pass(3);
  ASSERT_TRUE(isUp());
  a->session.pathIs(false);
  EXPECT_EQ(PeerState::down, a->session.state());
  const size_t sent = a->sent.size();
  pass(3);
  EXPECT_EQ(sent, a->sent.size()) << "nothing can be sent";
  EXPECT_EQ(PeerState::down, a->session.state()) << "nothing is heard";
  EXPECT_EQ(PeerState::down, b->session.state());
  a->session.pathIs(true);
  pass(3);
  EXPECT_TRUE(isUp());
}

TEST_F(BfdSessionTest, APeerInDemandModeOrThatWantsNothingIsLeftInPeace) {
  connect(timers(50, 50), timers(50, 50));
  pass(3);
  ASSERT_TRUE(isUp());
  BfdPacket packet = b->sent.back().second;
  b->session.pathIs(false);
  a->session.received(packet);
  for (const bool isDemand : {true, false}) {
    packet.isDemand = isDemand;
    packet.requiredMinRx = isDemand ? 50'000 : 0;
    packet.state = PeerState::up;
    packet.desiredMinTx = 10'000'000;
    packet.isPoll = true;
    a->session.received(packet);
    EXPECT_TRUE(a->sent.back().second.isFinal) << "a poll is answered all the same";
    const size_t sent = a->sent.size();
    pass(5);
    EXPECT_EQ(sent, a->sent.size());
    EXPECT_EQ(PeerState::up, a->session.state());
  }
}

// A link that loses, doubles and delays: whatever it does, an end that is up has heard its peer
// within the detection time, and both are up soon after it is whole.
TEST_F(BfdSessionTest, RandomLoss) {
  test::randomRuns(10, [this](std::mt19937& random) {
    const auto any = [&] {
      return timers(50 + random() % 200, 50 + random() % 200, 3 + random() % 3);
    };
    connect(any(), any());
    std::map<const End*, double> heard;
    std::vector<std::pair<double, std::function<void()>>> wire;
    double loss = 0;
    const auto road = [&](const std::unique_ptr<End>& to) {
      return [&, end = to.get()](const BfdPacket& packet) {
        for (int copies = random() % 20 == 0 ? 2 : 1; copies > 0; --copies)
          if (std::uniform_real_distribution<double>(0, 1)(random) >= loss)
            wire.emplace_back(clock.now() + 0.001 * (random() % 10), [&, end, packet] {
              heard[end] = clock.now();
              end->session.received(packet);
            });
      };
    };
    a->deliver = road(b);
    b->deliver = road(a);
    for (int n = 0; n < 30; ++n) {
      loss = n % 3 == 2 ? 0 : 0.1 * static_cast<double>(random() % 11);
      if (random() % 5 == 0) (random() % 2 ? a : b)->session.timersAre(any());
      if (random() % 8 == 0) {
        End& end = random() % 2 ? *a : *b;
        end.session.pathIs(false);
        end.session.pathIs(true);
      }
      for (int ms = 0; ms < 4000; ++ms, clock.advance(0.001)) {
        activity().run(0);
        for (size_t i = 0; i < wire.size();) {
          if (wire[i].first > clock.now()) {
            ++i;
            continue;
          }
          const auto arrives = std::move(wire[i].second);
          wire.erase(wire.begin() + static_cast<std::ptrdiff_t>(i));
          arrives();
        }
        for (const End* end : {a.get(), b.get()})
          if (end->session.state() == PeerState::up) {
            ASSERT_LE(clock.now() - heard[end], end->session.detectionTime() + 0.002);
          }
      }
      if (loss == 0) {
        ASSERT_TRUE(isUp());
      }
    }
    a.reset();
    b.reset();
  });
}

}  // namespace
}  // namespace ryx::kernel
