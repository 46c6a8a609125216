// A BFD session by itself (RFC 5880): the packets, the state machine, the timers. Asynchronous
// mode, the active role, no authentication, no echo function, no demand mode of its own (a peer's
// is honoured). It knows no sockets: its owner sends for it, and gives it what it receives.
//
// Timers are negotiated as section 6.8 says: a session that is not up sends at most once a second;
// what changes while it is up is announced with a poll sequence, and an interval that would be
// longer, or a detection time that would be shorter, takes effect when the poll is answered.
// Packets go up to 25 percent earlier than their interval, at random.
//
// Called under the activity lock.
#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <random>
#include <string_view>

#include "platform/activity/timer.h"
#include "platform/model/bfd.h"

namespace ryx::kernel {

using platform::Bfd::PeerState;

// Diagnostic codes (section 4.1).
enum class BfdDiag : uint8_t {
  none = 0,
  detectionExpired = 1,
  neighborDown = 3,
  pathDown = 5,
  adminDown = 7,
};

// A control packet (section 4.1). Intervals are in microseconds.
struct BfdPacket {
  static constexpr size_t kBytes = 24;

  BfdDiag diag = BfdDiag::none;
  PeerState state = PeerState::down;
  bool isPoll = false;
  bool isFinal = false;
  bool isDemand = false;
  uint8_t detectMult = 0;
  uint32_t myDiscriminator = 0;
  uint32_t yourDiscriminator = 0;
  uint32_t desiredMinTx = 0;
  uint32_t requiredMinRx = 0;

  std::array<uint8_t, kBytes> bytes() const;
};

// Nothing for what section 6.8.6 says to discard without looking at a session; authenticated ones
// are among it.
std::optional<BfdPacket> parseBfd(std::string_view bytes);

class BfdSession {
 public:
  // Named bounds, in seconds: how fast a session that is not up may send.
  static constexpr double kSlowInterval = 1;

  class Owner {
   public:
    virtual void send(const BfdPacket& packet) = 0;
    // It has another state.
    virtual void stateIs(PeerState state) = 0;
    // Gives it what has arrived and waits: before silence is taken for one.
    virtual void readWaiting() {}
    // It has told its peer that it ends, for as long as that needed. May destroy it.
    virtual void ended() = 0;

   protected:
    ~Owner() = default;
  };

  // `discriminator` is not 0, and no other session's. The owner outlives it. It begins down,
  // without a path.
  BfdSession(uint32_t discriminator, const platform::Bfd::Timers& timers, Owner& owner);
  BfdSession(const BfdSession&) = delete;
  BfdSession& operator=(const BfdSession&) = delete;

  PeerState state() const { return state_; }
  uint32_t discriminator() const { return discriminator_; }
  // In seconds; 0 as long as the peer has said nothing.
  double detectionTime() const;
  double sendInterval() const;

  void timersAre(const platform::Bfd::Timers& timers);
  // Whether packets can be sent at all: its interface is there and up.
  void pathIs(bool isThere);
  // A packet that is this session's.
  void received(const BfdPacket& packet);
  // Administratively down, for good.
  void end();

 private:
  template <void (BfdSession::*kFire)()>
  class When final : public platform::Timer {
   public:
    explicit When(BfdSession& session) : Timer("bfd session"), session_(session) {}
    void onTimer() override { (session_.*kFire)(); }

   private:
    BfdSession& session_;
  };

  void sendIsDue();
  void detectionExpires();
  void farewellIsOver();
  void become(PeerState state, BfdDiag diag);
  void forgetPeer();
  void send(bool isFinal);
  void sendLater();
  bool sends() const;
  uint32_t desiredMinTx() const;

  const uint32_t discriminator_;
  Owner& owner_;
  platform::Bfd::Timers timers_;
  std::minstd_rand random_;

  PeerState state_ = PeerState::down;
  BfdDiag diag_ = BfdDiag::none;
  bool hasPath_ = false;
  bool isPolling_ = false;
  // Of the peer.
  uint32_t remoteDiscriminator_ = 0;
  PeerState remoteState_ = PeerState::down;
  bool remoteDemands_ = false;
  uint32_t remoteMinRx_ = 1;
  uint32_t remoteDesiredTx_ = 0;
  uint8_t remoteMult_ = 0;
  // What is in use of the own timers, in microseconds.
  uint32_t txInUse_ = 0;
  uint32_t rxInUse_ = 0;

  double lastSent_ = 0;
  double part_ = 1;  // of the interval, to the next packet: 75 to 100 percent (section 6.8.7)
  When<&BfdSession::sendIsDue> sending_{*this};
  When<&BfdSession::detectionExpires> detection_{*this};
  When<&BfdSession::farewellIsOver> farewell_{*this};
};

}  // namespace ryx::kernel
