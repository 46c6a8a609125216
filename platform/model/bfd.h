// BFD sessions (RFC 5880): which peers applications ask for ("bfd/config/app/APPLICATION"), the
// timers ("bfd/config/intf"), and what became of the peers ("bfd/status/peer").
#pragma once

#include <string>

#include "platform/qel/dir.h"
#include "platform/types/bounded_number.h"
#include "platform/types/intf.h"
#include "platform/types/ip.h"
#include "platform/types/vrf_name.h"

namespace ryx::platform::Bfd {

struct IntervalBound {
  static constexpr uint32_t kMin = 50, kMax = 60'000;
  static constexpr const char* kOutOfRange =
      "BfdInterval::value < BfdInterval::min or > BfdInterval::max not allowed";
};
using Milliseconds = BoundedNumber<IntervalBound>;

struct MultiplierBound {
  static constexpr uint32_t kMin = 3, kMax = 50;
  static constexpr const char* kOutOfRange =
      "BfdMultiplier::value < BfdMultiplier::min or > BfdMultiplier::max not allowed";
};
using Multiplier = BoundedNumber<MultiplierBound>;

// bfd.DesiredMinTxInterval, bfd.RequiredMinRxInterval and bfd.DetectMult.
struct Timers {
  Milliseconds tx{300};
  Milliseconds rx{300};
  Multiplier mult{3};
  static constexpr auto members() {
    return described(member("tx", &Timers::tx), member("rx", &Timers::rx),
                     member("mult", &Timers::mult));
  }
  bool operator==(const Timers&) const = default;
};

enum class PeerType : uint8_t {
  normal = 1,
  micro = 2,
  vxlanTunnel = 3,
  lagRfc7130 = 4,
  microRfc7130 = 5,
  multihop = 6,
};
constexpr bool isValid(PeerType t) {
  return t >= PeerType::normal && t <= PeerType::multihop;
}

struct PeerKey {
  IpAddr ip;
  VrfName vrf;
  IntfId intf;
  PeerType type = PeerType::normal;
  static constexpr auto members() {
    return described(member("ip", &PeerKey::ip), member("vrf", &PeerKey::vrf),
                     member("intf", &PeerKey::intf), member("type", &PeerKey::type));
  }
  bool operator==(const PeerKey&) const = default;
};
struct PeerKeyHash {
  size_t operator()(const PeerKey& key) const { return kinds::hashValue(key); }
};

// A peer, and an agent that asks for it. Each agent has an entry of its own: of two that ask and
// cease to at one time neither touches what is the other's.
struct AppPeerKey {
  PeerKey peer;
  std::string agent;
  static constexpr auto members() {
    return described(member("peer", &AppPeerKey::peer), member("agent", &AppPeerKey::agent));
  }
  bool operator==(const AppPeerKey&) const = default;
};

struct AppPeer : EntityType<AppPeer> {
  static constexpr const char* kTypeName = "Bfd::AppPeer";
  Key<AppPeerKey> key;
  Attr<"isAskedFor", bool, kPersistent> isAskedFor;
};

struct AppVrfConfig : EntityType<AppVrfConfig> {
  static constexpr const char* kTypeName = "Bfd::AppVrfConfig";
  Key<VrfName> key;
  Collection<"peer", AppPeer> peer;
};

struct AppConfig : JournalRootType<AppConfig> {
  static constexpr const char* kTypeName = "Bfd::AppConfig";
  Key<Name> key;
  Collection<"vrf", AppVrfConfig> vrf;
};

struct IntfTimers : EntityType<IntfTimers> {
  static constexpr const char* kTypeName = "Bfd::IntfTimers";
  Key<IntfId> key;
  Attr<"timers", Timers, kPersistent> timers;
  Attr<"isSet", bool, kPersistent> isSet;  // so that those with the defaults persist too
};

struct ConfigIntf : JournalRootType<ConfigIntf> {
  static constexpr const char* kTypeName = "Bfd::ConfigIntf";
  Key<Name> key;
  Attr<"global", Timers, kPersistent> global;
  Collection<"intf", IntfTimers> intf;
};

// As on the wire (RFC 5880 section 4.1), and what is none of those.
enum class PeerState : uint8_t { adminDown = 0, down = 1, init = 2, up = 3, other = 4 };
constexpr bool isValid(PeerState s) {
  return s <= PeerState::other;
}

struct PeerStatus : EntityType<PeerStatus> {
  static constexpr const char* kTypeName = "Bfd::PeerStatus";
  Key<PeerKey> key;
  Attr<"state", PeerState> state;
};

struct StatusPeer : JournalRootType<StatusPeer> {
  static constexpr const char* kTypeName = "Bfd::StatusPeer";
  Key<Name> key;
  Collection<"peer", PeerStatus> peer;
};

}  // namespace ryx::platform::Bfd
