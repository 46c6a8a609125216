// MPLS: the label routes of each agent ("routing/mpls/route/input/dynamic/AGENT"), which labels
// lead to VRFs ("routing/mpls/vrfLabel/input/dynamic/AGENT"), and what the hardware has of it
// ("routing/hardware/mpls/status").
#pragma once

#include <tuple>

#include "platform/qel/dir.h"
#include "platform/types/bounded_number.h"
#include "platform/types/eth.h"
#include "platform/types/intf.h"
#include "platform/types/ip.h"
#include "platform/types/vrf_name.h"

namespace ryx::platform::Mpls {

struct LabelBound {
  static constexpr uint32_t kMin = 0, kMax = 8'388'608;
  static constexpr const char* kOutOfRange =
      "MplsLabel::value < MplsLabel::min or > MplsLabel::luWithdraw not allowed";
};
using Label = BoundedNumber<LabelBound>;
inline constexpr uint32_t kNoLabel = 0xffffffff;

// What is done with a packet's labels.
enum class Action : uint8_t { none = 0, push = 1, pop = 2, swap = 3, forward = 4 };
constexpr bool isValid(Action a) {
  return a <= Action::forward;
}

struct VrfLabel : EntityType<VrfLabel> {
  static constexpr const char* kTypeName = "Mpls::VrfLabel";
  Key<Label> key;
  Attr<"vrfName", VrfName> vrfName;
};
struct VrfLabelConfigInput : JournalRootType<VrfLabelConfigInput> {
  static constexpr const char* kTypeName = "Mpls::VrfLabelConfigInput";
  Key<Name> key;
  Collection<"vrfLabel", VrfLabel> vrfLabel;
};

// One label may have routes of several metrics, of which the lowest is used.
struct RouteKeyAndMetric {
  Label label;
  uint32_t metric = 0;
  static constexpr auto members() {
    return described(member("label", &RouteKeyAndMetric::label),
                     member("metric", &RouteKeyAndMetric::metric));
  }
  bool operator==(const RouteKeyAndMetric&) const = default;
};

struct Via {
  IpAddr hop;
  IntfId intf;
  uint32_t outLabel = kNoLabel;
  Action action = Action::none;
  Name nexthopGroup;
  static constexpr auto members() {
    return described(member("hop", &Via::hop), member("intf", &Via::intf),
                     member("outLabel", &Via::outLabel), member("action", &Via::action),
                     member("nexthopGroup", &Via::nexthopGroup));
  }
  bool operator==(const Via&) const = default;
  bool operator<(const Via& o) const {
    return std::tie(hop, intf, outLabel, action, nexthopGroup) <
           std::tie(o.hop, o.intf, o.outLabel, o.action, o.nexthopGroup);
  }
};

struct Route : EntityType<Route> {
  static constexpr const char* kTypeName = "Mpls::Route";
  Key<RouteKeyAndMetric> key;
  Attr<"dynamic", bool> dynamic;
  Attr<"via", SmallSet<Via>> via;
};
struct RouteConfigInput : JournalRootType<RouteConfigInput> {
  static constexpr const char* kTypeName = "Mpls::RouteConfigInput";
  Key<Name> key;
  Collection<"route", Route> route;
};

namespace Hardware {

// What a label leads to: out of the switch, or to be looked up in a VRF.
enum class AdjType : uint8_t { none = 0, mplsIp = 1, vrfLookup = 2 };
constexpr bool isValid(AdjType t) {
  return t <= AdjType::vrfLookup;
}

struct AdjKey {
  AdjType type = AdjType::none;
  uint64_t index = 0;
  static constexpr auto members() {
    return described(member("type", &AdjKey::type), member("index", &AdjKey::index));
  }
  bool operator==(const AdjKey&) const = default;
};

// A label that is programmed.
struct Route : EntityType<Route> {
  static constexpr const char* kTypeName = "Mpls::Hardware::Route";
  Key<Label> key;
  Attr<"metric", uint32_t> metric;
  Attr<"adj", AdjKey> adj;
};

// Of the type mplsIp: the index is the FEC.
struct Adjacency : EntityType<Adjacency> {
  static constexpr const char* kTypeName = "Mpls::Hardware::Adjacency";
  Key<uint64_t> key;
  Attr<"l2Adjacency", uint64_t> l2Adjacency;
};

// A next hop that was resolved, and what is done to the label on the way there.
struct L2Via {
  IpAddr hop;
  IntfId intf;
  Action action = Action::none;
  uint32_t outLabel = kNoLabel;
  static constexpr auto members() {
    return described(member("hop", &L2Via::hop), member("intf", &L2Via::intf),
                     member("action", &L2Via::action), member("outLabel", &L2Via::outLabel));
  }
  bool operator==(const L2Via&) const = default;
  auto operator<=>(const L2Via&) const = default;
};
struct L2Adjacency : EntityType<L2Adjacency> {
  static constexpr const char* kTypeName = "Mpls::Hardware::L2Adjacency";
  Key<uint64_t> key;
  Attr<"via", SmallSet<L2Via>> via;
};

struct Status : JournalRootType<Status> {
  static constexpr const char* kTypeName = "Mpls::Hardware::Status";
  Key<Name> key;
  Collection<"route", Route> route;
  Collection<"adjacency", Adjacency> adjacency;
  Collection<"l2Adjacency", L2Adjacency> l2Adjacency;
};

}  // namespace Hardware

}  // namespace ryx::platform::Mpls
