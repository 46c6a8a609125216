// BFD on the wire: speaks to the peers that applications ask for, and shows what becomes of them
// ("bfd/status/peer"). Single hop (RFC 5881: UDP port 3784, and nothing that does not arrive with a
// TTL of 255) and multihop (RFC 5883: port 4784), IPv4 and IPv6, in the default VRF.
//
// Each session has a socket and a source port of its own, which the kernel gives it, in the range
// that RFC 5881 asks for. A packet is a session's when it bears its discriminator, or none yet, and
// comes from its peer, on its interface; every other is counted and changes nothing. A session at
// an interface goes down as soon as that does.
//
// Sessions of other types, and those in other VRFs, are down: no devices of this machine carry
// them. They are told in a trace.
//
// Called under the activity lock.
#pragma once

#include <netinet/in.h>

#include <cstdint>
#include <memory>
#include <random>
#include <string>
#include <unordered_map>
#include <vector>

#include "platform/qel/dir.h"
#include "switch/base/bfd_requests.h"
#include "switch/linux/bfd_session.h"
#include "switch/linux/links.h"

namespace ryx::kernel {

class Bfd {
 public:
  struct Counters {
    uint64_t sent = 0;
    uint64_t notSent = 0;   // the kernel took them not
    uint64_t received = 0;  // by a session
    uint64_t malformed = 0;
    uint64_t wrongTtl = 0;
    uint64_t foreign = 0;  // no session's
  };

  // In the calling thread's network namespace, whose devices are `links`. Both outlive it. Null,
  // with `error` set, when the ports are not to be had.
  static std::unique_ptr<Bfd> start(platform::Tree& tree, const Links& links, std::string* error);
  Bfd(platform::Tree& tree, const Links& links);
  ~Bfd();
  Bfd(const Bfd&) = delete;
  Bfd& operator=(const Bfd&) = delete;

  void takeOver() { requests_.takeOver(); }
  const Counters& counters() const { return counters_; }
  // Null when it is not asked for.
  const BfdSession* session(const platform::Bfd::PeerKey& peer) const;

 private:
  class Ear;
  class Peer;
  struct Arrival {
    platform::IpAddr from;
    int index = 0;  // of the device
    int ttl = -1;
    bool isMultihop = false;
  };

  int udpSocket(int family) const;
  void look(const platform::Bfd::PeerKey& key);
  void arrived(const Arrival& arrival, std::string_view bytes);
  Peer* find(const Arrival& arrival, const BfdPacket& packet) const;
  uint32_t newDiscriminator();

  platform::Tree& tree_;
  const Links& links_;
  platform::Bfd::StatusPeer& status_;
  Counters counters_;
  int namespace_ = -1;
  std::random_device random_;
  feeds::ByBfdPeer<std::unique_ptr<Peer>> peers_;
  feeds::ByBfdPeer<std::unique_ptr<Peer>> leaving_;  // that say farewell
  std::unordered_map<uint32_t, Peer*> byDiscriminator_;
  std::vector<std::unique_ptr<Ear>> ears_;
  feeds::BfdRequests requests_;
};

}  // namespace ryx::kernel
