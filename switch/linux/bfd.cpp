#include "switch/linux/bfd.h"

#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <string_view>
#include <utility>

#include "platform/activity/descriptor.h"
#include "platform/base/socket_in.h"
#include "platform/model/interface.h"
#include "platform/trace/trace.h"
#include "switch/base/interfaces.h"

namespace ryx::kernel {

using namespace platform;
using platform::Bfd::PeerKey;
using platform::Bfd::PeerType;
using platform::Bfd::StatusPeer;

namespace {

constexpr uint16_t kSingleHopPort = 3784, kMultihopPort = 4784;
constexpr uint16_t kFirstSourcePort = 49152, kLastSourcePort = 65535;
constexpr int kTtl = 255;
constexpr int kPacketsPerRead = 64;
// A packet and something behind it, which is allowed and not looked at.
constexpr size_t kBuffer = 256;

TraceFacility& facility() {
  static auto& f = TraceFacility::named("RyxLinuxBfd");
  return f;
}

sockaddr_storage socketAddress(const IpAddr& addr, uint16_t port, int index, socklen_t* size) {
  sockaddr_storage storage{};
  if (addr.af() == Af::ipv6) {
    auto& to = reinterpret_cast<sockaddr_in6&>(storage);
    to.sin6_family = AF_INET6;
    to.sin6_port = htons(port);
    std::memcpy(&to.sin6_addr, addr.bytes(), 16);
    if (addr.isLinkLocal()) to.sin6_scope_id = static_cast<uint32_t>(index);
    *size = sizeof to;
  } else {
    auto& to = reinterpret_cast<sockaddr_in&>(storage);
    to.sin_family = AF_INET;
    to.sin_port = htons(port);
    std::memcpy(&to.sin_addr, addr.bytes(), 4);
    *size = sizeof to;
  }
  return storage;
}

bool set(int fd, int level, int option, int value) {
  return ::setsockopt(fd, level, option, &value, sizeof value) == 0;
}

}  // namespace

// Of the feed's namespace, whichever this thread is in; -1 with errno set.
int Bfd::udpSocket(int family) const {
  constexpr int kType = SOCK_DGRAM | SOCK_NONBLOCK | SOCK_CLOEXEC;
  return namespace_ < 0 ? ::socket(family, kType, 0) : socketIn(namespace_, family, kType, 0);
}

// --- receiving ----------------------------------------------------------------------------------

class Bfd::Ear final : private Descriptor {
 public:
  Ear(Bfd& bfd, int fd, bool isMultihop)
      : Descriptor(fd, "bfd"), bfd_(bfd), isMultihop_(isMultihop) {
    readableInterestIs(true);
  }
  ~Ear() override {
    readableInterestIs(false);
    ::close(fd());
  }

  // Null, with errno set.
  static std::unique_ptr<Ear> open(Bfd& bfd, int family, bool isMultihop) {
    const int fd = bfd.udpSocket(family);
    const bool isIp6 = family == AF_INET6;
    socklen_t size = 0;
    const uint8_t any[16] = {};
    const sockaddr_storage address =
        socketAddress(IpAddr(isIp6 ? Af::ipv6 : Af::ipv4, any),
                      isMultihop ? kMultihopPort : kSingleHopPort, 0, &size);
    const bool works =
        fd >= 0 &&
        (isIp6 ? set(fd, IPPROTO_IPV6, IPV6_V6ONLY, 1) &&
                     set(fd, IPPROTO_IPV6, IPV6_RECVHOPLIMIT, 1) &&
                     set(fd, IPPROTO_IPV6, IPV6_RECVPKTINFO, 1)
               : set(fd, IPPROTO_IP, IP_RECVTTL, 1) && set(fd, IPPROTO_IP, IP_PKTINFO, 1)) &&
        ::bind(fd, reinterpret_cast<const sockaddr*>(&address), size) == 0;
    if (works) return std::make_unique<Ear>(bfd, fd, isMultihop);
    const int error = errno;
    if (fd >= 0) ::close(fd);
    errno = error;
    return nullptr;
  }

  void read() {
    for (int i = 0; i < kPacketsPerRead && receive(); ++i) {
    }
  }

 private:
  void onReadable() override { read(); }

  // False when there is none.
  bool receive() {
    char bytes[kBuffer];
    alignas(cmsghdr) char control[256];
    sockaddr_storage from{};
    iovec piece{bytes, sizeof bytes};
    msghdr header{};
    header.msg_name = &from;
    header.msg_namelen = sizeof from;
    header.msg_iov = &piece;
    header.msg_iovlen = 1;
    header.msg_control = control;
    header.msg_controllen = sizeof control;
    const ssize_t size = ::recvmsg(fd(), &header, MSG_DONTWAIT);
    if (size < 0) return errno == EINTR;
    Arrival arrival;
    arrival.isMultihop = isMultihop_;
    if (from.ss_family == AF_INET6)
      arrival.from =
          IpAddr(Af::ipv6, reinterpret_cast<const sockaddr_in6&>(from).sin6_addr.s6_addr);
    else
      arrival.from = IpAddr(Af::ipv4, reinterpret_cast<const uint8_t*>(
                                          &reinterpret_cast<const sockaddr_in&>(from).sin_addr));
    for (cmsghdr* c = CMSG_FIRSTHDR(&header); c; c = CMSG_NXTHDR(&header, c))
      takeControl(*c, &arrival);
    bfd_.arrived(arrival, {bytes, static_cast<size_t>(size)});
    return true;
  }

  static void takeControl(const cmsghdr& c, Arrival* arrival) {
    const auto* data = CMSG_DATA(&c);
    const bool isTtl = (c.cmsg_level == IPPROTO_IP && c.cmsg_type == IP_TTL) ||
                       (c.cmsg_level == IPPROTO_IPV6 && c.cmsg_type == IPV6_HOPLIMIT);
    if (isTtl) {
      std::memcpy(&arrival->ttl, data, sizeof arrival->ttl);
    } else if (c.cmsg_level == IPPROTO_IP && c.cmsg_type == IP_PKTINFO) {
      in_pktinfo info;
      std::memcpy(&info, data, sizeof info);
      arrival->index = info.ipi_ifindex;
    } else if (c.cmsg_level == IPPROTO_IPV6 && c.cmsg_type == IPV6_PKTINFO) {
      in6_pktinfo info;
      std::memcpy(&info, data, sizeof info);
      arrival->index = static_cast<int>(info.ipi6_ifindex);
    }
  }

  Bfd& bfd_;
  const bool isMultihop_;
};

// --- a peer -------------------------------------------------------------------------------------

class Bfd::Peer final : private BfdSession::Owner {
 public:
  Peer(Bfd& bfd, const PeerKey& key, uint32_t discriminator)
      : bfd_(bfd), key_(key), session_(discriminator, bfd.requests_.timersOf(key.intf), *this) {
    bfd_.byDiscriminator_[discriminator] = this;
  }
  ~Peer() {
    bfd_.byDiscriminator_.erase(session_.discriminator());
    if (fd_ >= 0) ::close(fd_);
  }

  BfdSession& session() { return session_; }
  const PeerKey& key() const { return key_; }

  // The device that it is reached by: its index, 0 for whichever the kernel finds, -1 for none.
  void deviceIs(int index) {
    if (index == index_) return;
    session_.pathIs(false);
    if (fd_ >= 0) ::close(std::exchange(fd_, -1));
    index_ = index;
    if (index < 0) return;
    openSocket();
    session_.pathIs(fd_ >= 0);
  }

 private:
  // Its source port stays the same as long as its device does.
  void openSocket() {
    const bool isIp6 = key_.ip.af() == Af::ipv6;
    fd_ = bfd_.udpSocket(isIp6 ? AF_INET6 : AF_INET);
    bool works = fd_ >= 0 && (isIp6 ? set(fd_, IPPROTO_IPV6, IPV6_UNICAST_HOPS, kTtl)
                                    : set(fd_, IPPROTO_IP, IP_TTL, kTtl));
    // The class of what keeps a network together (RFC 4594).
    constexpr int kNetworkControl = 48 << 2;
    if (works)
      isIp6 ? set(fd_, IPPROTO_IPV6, IPV6_TCLASS, kNetworkControl)
            : set(fd_, IPPROTO_IP, IP_TOS, kNetworkControl);
    const std::string device = index_ > 0 ? deviceName() : std::string();
    if (!device.empty())
      works = works && ::setsockopt(fd_, SOL_SOCKET, SO_BINDTODEVICE, device.data(),
                                    static_cast<socklen_t>(device.size())) == 0;
    std::uniform_int_distribution<uint32_t> ports(kFirstSourcePort, kLastSourcePort);
    constexpr int kAttempts = 100;
    bool isBound = false;
    for (int i = 0; works && !isBound && i < kAttempts; ++i) {
      socklen_t size = 0;
      const uint8_t any[16] = {};
      const sockaddr_storage from = socketAddress(
          IpAddr(key_.ip.af(), any), static_cast<uint16_t>(ports(bfd_.random_)), 0, &size);
      isBound = ::bind(fd_, reinterpret_cast<const sockaddr*>(&from), size) == 0;
      if (!isBound && errno != EADDRINUSE) break;
    }
    if (isBound) return;
    RYX_TRACE(
        facility(), 0,
        "no socket for the BFD session to " << key_.ip.toString() << ": " << std::strerror(errno));
    if (fd_ >= 0) ::close(std::exchange(fd_, -1));
  }
  std::string deviceName() const {
    const auto* status = feeds::findIntf(bfd_.tree_, key_.intf).status;
    return status ? status->deviceName() : std::string();
  }

  void send(const BfdPacket& packet) override {
    const auto bytes = packet.bytes();
    socklen_t size = 0;
    const sockaddr_storage to = socketAddress(
        key_.ip, key_.type == PeerType::multihop ? kMultihopPort : kSingleHopPort, index_, &size);
    const bool isSent = ::sendto(fd_, bytes.data(), bytes.size(), MSG_DONTWAIT | MSG_NOSIGNAL,
                                 reinterpret_cast<const sockaddr*>(&to), size) >= 0;
    ++(isSent ? bfd_.counters_.sent : bfd_.counters_.notSent);
  }
  void stateIs(PeerState state) override {
    RYX_TRACE(
        facility(), 5,
        "the BFD session to " << key_.ip.toString() << " is in state " << static_cast<int>(state));
    if (auto* status = bfd_.status_.peer.find(key_); status && state != PeerState::adminDown)
      status->state.set(state);
  }
  void readWaiting() override {
    for (const auto& ear : bfd_.ears_) ear->read();
  }
  void ended() override { bfd_.leaving_.erase(PeerKey(key_)); }

  Bfd& bfd_;
  const PeerKey key_;
  int fd_ = -1;
  int index_ = -1;
  BfdSession session_;
};

// --- all of it ----------------------------------------------------------------------------------

std::unique_ptr<Bfd> Bfd::start(Tree& tree, const Links& links, std::string* error) {
  auto made = std::make_unique<Bfd>(tree, links);
  for (const int family : {AF_INET, AF_INET6}) {
    for (const bool isMultihop : {false, true}) {
      auto ear = Ear::open(*made, family, isMultihop);
      if (!ear && errno == EAFNOSUPPORT) continue;  // a kernel without IPv6
      if (!ear) {
        *error = "BFD cannot listen on UDP port " +
                 std::to_string(isMultihop ? kMultihopPort : kSingleHopPort) + ": " +
                 std::strerror(errno);
        return nullptr;
      }
      made->ears_.push_back(std::move(ear));
    }
  }
  return made;
}

Bfd::Bfd(Tree& tree, const Links& links)
    : tree_(tree),
      links_(links),
      status_(*tree.make<StatusPeer>("bfd/status/peer")),
      namespace_(ownNetworkNamespace()),
      requests_(tree, [this](const PeerKey& key) { look(key); }) {}

Bfd::~Bfd() {
  peers_.clear();
  leaving_.clear();
  ears_.clear();
  if (namespace_ >= 0) ::close(namespace_);
}

const BfdSession* Bfd::session(const PeerKey& peer) const {
  const auto at = peers_.find(peer);
  return at == peers_.end() ? nullptr : &at->second->session();
}

// The peer, its timers or its interface changed.
void Bfd::look(const PeerKey& key) {
  auto at = peers_.find(key);
  if (!requests_.has(key)) {
    status_.peer.erase(key);
    if (at == peers_.end()) return;
    Peer& leaving = *(leaving_[key] = std::move(at->second));
    peers_.erase(at);
    return leaving.session().end();
  }
  const bool isNew = !status_.peer.find(key);
  auto* status = status_.peer.create(key);
  const bool isSpoken = (key.type == PeerType::normal || key.type == PeerType::multihop) &&
                        key.vrf.bytes() == "default" && !key.ip.isUnspecified();
  if (!isSpoken) {
    if (!isNew) return;
    RYX_TRACE(facility(), 0,
              "no BFD session to " << key.ip.toString() << " in the VRF " << key.vrf.bytes()
                                   << ", type " << static_cast<int>(key.type)
                                   << ": expected a peer's address, the VRF default, and type "
                                      "normal or multihop");
    status->state.set(PeerState::down);
    return;
  }
  if (at == peers_.end()) {
    leaving_.erase(key);
    at = peers_.emplace(key, std::make_unique<Peer>(*this, key, newDiscriminator())).first;
    status->state.set(PeerState::down);
  }
  at->second->session().timersAre(requests_.timersOf(key.intf));
  int index = 0;
  if (!key.intf.isEmpty()) {
    const auto* intf = feeds::findIntf(tree_, key.intf).status;
    const bool isUp =
        intf && intf->operStatus() == static_cast<uint8_t>(platform::Interface::OperStatus::up);
    const int device = links_.deviceOf(key.intf);
    index = isUp && device != 0 ? device : -1;
  }
  at->second->deviceIs(index);
}

uint32_t Bfd::newDiscriminator() {
  for (;;) {
    const uint32_t number = random_();
    if (number != 0 && !byDiscriminator_.count(number)) return number;
  }
}

void Bfd::arrived(const Arrival& arrival, std::string_view bytes) {
  if (!arrival.isMultihop && arrival.ttl != kTtl) {
    ++counters_.wrongTtl;
    return;
  }
  const auto packet = parseBfd(bytes);
  if (!packet) {
    ++counters_.malformed;
    return;
  }
  Peer* peer = find(arrival, *packet);
  ++(peer ? counters_.received : counters_.foreign);
  if (peer) peer->session().received(*packet);
}

// A peer's first packets bear no discriminator of ours.
Bfd::Peer* Bfd::find(const Arrival& arrival, const BfdPacket& packet) const {
  const auto isIts = [&](const PeerKey& key) {
    return key.ip == arrival.from && (key.type == PeerType::multihop) == arrival.isMultihop &&
           (key.intf.isEmpty() || key.intf == links_.interfaceOf(arrival.index));
  };
  if (packet.yourDiscriminator != 0) {
    const auto at = byDiscriminator_.find(packet.yourDiscriminator);
    return at != byDiscriminator_.end() && isIts(at->second->key()) ? at->second : nullptr;
  }
  PeerKey key = {arrival.from, VrfName("default"), links_.interfaceOf(arrival.index),
                 arrival.isMultihop ? PeerType::multihop : PeerType::normal};
  auto at = peers_.find(key);
  if (at == peers_.end()) {
    key.intf = {};
    at = peers_.find(key);
  }
  return at == peers_.end() ? nullptr : at->second.get();
}

}  // namespace ryx::kernel
