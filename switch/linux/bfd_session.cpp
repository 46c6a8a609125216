#include "switch/linux/bfd_session.h"

#include <algorithm>

#include "platform/base/clock.h"

namespace ryx::kernel {

using platform::clock;
using platform::Bfd::Timers;

// --- packets ------------------------------------------------------------------------------------

namespace {

constexpr uint8_t kVersion = 1;
constexpr uint8_t kPoll = 0x20, kFinal = 0x10, kAuthenticated = 0x04, kDemand = 0x02,
                  kMultipoint = 0x01;
constexpr uint32_t kMicroseconds = 1'000'000;

void put(uint8_t* at, uint32_t value) {
  for (int i = 0; i < 4; ++i) at[i] = static_cast<uint8_t>(value >> (24 - 8 * i));
}

uint32_t get(std::string_view bytes, size_t at) {
  uint32_t value = 0;
  for (size_t i = 0; i < 4; ++i) value = value << 8 | static_cast<uint8_t>(bytes[at + i]);
  return value;
}

}  // namespace

std::array<uint8_t, BfdPacket::kBytes> BfdPacket::bytes() const {
  std::array<uint8_t, kBytes> b{};
  b[0] = static_cast<uint8_t>(kVersion << 5 | static_cast<uint8_t>(diag));
  b[1] = static_cast<uint8_t>(static_cast<uint8_t>(state) << 6 | (isPoll ? kPoll : 0) |
                              (isFinal ? kFinal : 0) | (isDemand ? kDemand : 0));
  b[2] = detectMult;
  b[3] = kBytes;
  put(&b[4], myDiscriminator);
  put(&b[8], yourDiscriminator);
  put(&b[12], desiredMinTx);
  put(&b[16], requiredMinRx);
  return b;  // no echo packets are wanted
}

std::optional<BfdPacket> parseBfd(std::string_view bytes) {
  if (bytes.size() < BfdPacket::kBytes) return {};
  const auto first = static_cast<uint8_t>(bytes[0]), flags = static_cast<uint8_t>(bytes[1]),
             length = static_cast<uint8_t>(bytes[3]);
  BfdPacket packet;
  packet.diag = static_cast<BfdDiag>(first & 0x1f);
  packet.state = static_cast<PeerState>(flags >> 6);
  packet.isPoll = flags & kPoll;
  packet.isFinal = flags & kFinal;
  packet.isDemand = flags & kDemand;
  packet.detectMult = static_cast<uint8_t>(bytes[2]);
  packet.myDiscriminator = get(bytes, 4);
  packet.yourDiscriminator = get(bytes, 8);
  packet.desiredMinTx = get(bytes, 12);
  packet.requiredMinRx = get(bytes, 16);
  const bool isDown = packet.state == PeerState::down || packet.state == PeerState::adminDown;
  if (first >> 5 != kVersion || length < BfdPacket::kBytes || length > bytes.size() ||
      packet.detectMult == 0 || (flags & (kMultipoint | kAuthenticated)) ||
      packet.myDiscriminator == 0 || (packet.yourDiscriminator == 0 && !isDown))
    return {};
  return packet;
}

// --- the session --------------------------------------------------------------------------------

BfdSession::BfdSession(uint32_t discriminator, const Timers& timers, Owner& owner)
    : discriminator_(discriminator), owner_(owner), timers_(timers), random_(discriminator) {
  txInUse_ = desiredMinTx();
  rxInUse_ = timers_.rx.value() * 1000;
}

// What is announced.
uint32_t BfdSession::desiredMinTx() const {
  const uint32_t configured = timers_.tx.value() * 1000;
  return state_ == PeerState::up ? configured : std::max(configured, kMicroseconds);
}

double BfdSession::sendInterval() const {
  return static_cast<double>(std::max(txInUse_, remoteMinRx_)) / kMicroseconds;
}

double BfdSession::detectionTime() const {
  return remoteMult_ * static_cast<double>(std::max(rxInUse_, remoteDesiredTx_)) / kMicroseconds;
}

void BfdSession::timersAre(const Timers& timers) {
  if (timers == timers_ || state_ == PeerState::adminDown) return;
  timers_ = timers;
  const uint32_t tx = desiredMinTx(), rx = timers_.rx.value() * 1000;
  if (state_ != PeerState::up || tx < txInUse_) txInUse_ = tx;
  if (state_ != PeerState::up || rx > rxInUse_) rxInUse_ = rx;
  isPolling_ = state_ == PeerState::up;
  sendLater();
}

void BfdSession::pathIs(bool isThere) {
  if (hasPath_ == isThere) return;
  hasPath_ = isThere;
  if (isThere) {
    lastSent_ = clock().now() - sendInterval();
    return sendLater();
  }
  sending_.disarm();
  if (state_ == PeerState::adminDown) return;
  forgetPeer();
  if (state_ != PeerState::down) become(PeerState::down, BfdDiag::pathDown);
}

void BfdSession::end() {
  if (state_ == PeerState::adminDown) return;
  const bool hasPeer = remoteDiscriminator_ != 0 && hasPath_;
  detection_.disarm();
  become(PeerState::adminDown, BfdDiag::adminDown);
  farewell_.armAt(clock().now() + (hasPeer ? timers_.mult.value() * sendInterval() : 0));
}

void BfdSession::farewellIsOver() {
  owner_.ended();
}

// Section 6.8.6, from where the session was found.
void BfdSession::received(const BfdPacket& packet) {
  if (state_ == PeerState::adminDown || !hasPath_) return;
  remoteDiscriminator_ = packet.myDiscriminator;
  remoteState_ = packet.state;
  remoteDemands_ = packet.isDemand;
  remoteMinRx_ = packet.requiredMinRx;
  remoteDesiredTx_ = packet.desiredMinTx;
  remoteMult_ = packet.detectMult;
  if (isPolling_ && packet.isFinal) {
    isPolling_ = false;
    txInUse_ = desiredMinTx();
    rxInUse_ = timers_.rx.value() * 1000;
  }
  detection_.armAt(clock().now() + detectionTime());

  if (packet.state == PeerState::adminDown) {
    if (state_ != PeerState::down) become(PeerState::down, BfdDiag::neighborDown);
  } else if (state_ == PeerState::down) {
    if (packet.state == PeerState::down) become(PeerState::init, BfdDiag::none);
    if (packet.state == PeerState::init) become(PeerState::up, BfdDiag::none);
  } else if (state_ == PeerState::init) {
    if (packet.state != PeerState::down) become(PeerState::up, BfdDiag::none);
  } else if (packet.state == PeerState::down) {
    become(PeerState::down, BfdDiag::neighborDown);
  }
  if (packet.isPoll) send(true);
  sendLater();
}

// Where this process was held up, the peer's packets wait while the timer is due.
void BfdSession::detectionExpires() {
  owner_.readWaiting();
  if (detection_.armed()) return;
  forgetPeer();
  if (state_ == PeerState::init || state_ == PeerState::up)
    become(PeerState::down, BfdDiag::detectionExpired);
}

void BfdSession::forgetPeer() {
  detection_.disarm();
  remoteDiscriminator_ = 0;
  remoteState_ = PeerState::down;
  remoteDemands_ = false;
  remoteMinRx_ = 1;
  remoteDesiredTx_ = 0;
  remoteMult_ = 0;
}

// The peer hears of it at once.
void BfdSession::become(PeerState state, BfdDiag diag) {
  state_ = state;
  diag_ = diag;
  txInUse_ = desiredMinTx();
  rxInUse_ = timers_.rx.value() * 1000;
  isPolling_ = state == PeerState::up;  // the interval is another one now
  if (hasPath_) send(false);
  sendLater();
  owner_.stateIs(state);
}

// --- sending ------------------------------------------------------------------------------------

// Section 6.8.7.
bool BfdSession::sends() const {
  const bool isAsleep =
      remoteDemands_ && state_ == PeerState::up && remoteState_ == PeerState::up && !isPolling_;
  return hasPath_ && remoteMinRx_ != 0 && !isAsleep;
}

void BfdSession::send(bool isFinal) {
  BfdPacket packet;
  packet.diag = diag_;
  packet.state = state_;
  packet.isPoll = isPolling_ && !isFinal;
  packet.isFinal = isFinal;
  packet.detectMult = static_cast<uint8_t>(timers_.mult.value());
  packet.myDiscriminator = discriminator_;
  packet.yourDiscriminator = remoteDiscriminator_;
  packet.desiredMinTx = desiredMinTx();
  packet.requiredMinRx = timers_.rx.value() * 1000;
  lastSent_ = clock().now();
  part_ = std::uniform_real_distribution<double>(0.75, 1)(random_);
  owner_.send(packet);
}

void BfdSession::sendLater() {
  if (sends())
    sending_.armAt(std::max(clock().now(), lastSent_ + part_ * sendInterval()));
  else
    sending_.disarm();
}

void BfdSession::sendIsDue() {
  if (!sends()) return;
  send(false);
  sendLater();
}

}  // namespace ryx::kernel
