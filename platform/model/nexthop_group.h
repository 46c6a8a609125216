// Nexthop groups: what each agent configures ("routing/nexthopgroup/input/config/AGENT"), and what
// the hardware can do ("routing/hardware/nexthopgroup/status", "routing/hardware/status"). Which
// groups are programmed stands in a Mirra table (tables.h).
#pragma once

#include <map>
#include <vector>

#include "platform/model/mpls.h"
#include "platform/qel/dir.h"
#include "platform/types/intf.h"
#include "platform/types/ip.h"
#include "platform/types/vrf_name.h"

namespace ryx::platform::Routing {

namespace NexthopGroup {

enum class Type : uint8_t { none = 0, ipInIp = 1, gre = 2, mpls = 3, mplsOverGre = 4, ip = 5 };
constexpr bool isValid(Type t) {
  return t <= Type::ip;
}

// What an entry does with labels, the outermost first.
struct MplsAction {
  Mpls::Action action = Mpls::Action::none;
  std::vector<Mpls::Label> labels;
  static constexpr auto members() {
    return described(member("action", &MplsAction::action), member("labels", &MplsAction::labels));
  }
  bool operator==(const MplsAction&) const = default;
};

struct Destination {
  uint16_t entry = 0;
  IpAddr addr;
  static constexpr auto members() {
    return described(member("entry", &Destination::entry), member("addr", &Destination::addr));
  }
  bool operator==(const Destination&) const = default;
};

// Entries have numbers; a number may have a destination, labels, or both.
struct NexthopGroupConfigEntry : EntityType<NexthopGroupConfigEntry> {
  static constexpr const char* kTypeName = "Routing::NexthopGroup::NexthopGroupConfigEntry";
  Key<Name> key;
  Attr<"size", uint16_t> size;
  Attr<"type", Type> type;
  Attr<"ttl", uint8_t> ttl;
  Attr<"sourceIp", IpAddr> sourceIp;
  Attr<"intfId", IntfId> intfId;  // whose address is the source
  Attr<"greKeyType", bool> greKeyType;
  Attr<"dynamic", bool> dynamic;
  Attr<"destinationIp", std::vector<Destination>> destinationIp;  // by their numbers
  Attr<"mplsLabelStack", std::map<uint16_t, MplsAction>> mplsLabelStack;
};

struct ConfigInput : JournalRootType<ConfigInput> {
  static constexpr const char* kTypeName = "Routing::NexthopGroup::ConfigInput";
  Key<Name> key;
  Collection<"nexthopGroup", NexthopGroupConfigEntry> nexthopGroup;
};

}  // namespace NexthopGroup

namespace Hardware {

// A type that is not there is not supported.
struct NexthopGroupCapability : EntityType<NexthopGroupCapability> {
  static constexpr const char* kTypeName = "Routing::Hardware::NexthopGroupCapability";
  Key<NexthopGroup::Type> key;
  Attr<"maxLabelStackSize", uint32_t> maxLabelStackSize;
  Attr<"mplsAction", SmallSet<Mpls::Action>> mplsAction;
};
struct NexthopGroupStatus : JournalRootType<NexthopGroupStatus> {
  static constexpr const char* kTypeName = "Routing::Hardware::NexthopGroupStatus";
  Key<Name> key;
  Collection<"capability", NexthopGroupCapability> capability;
};

struct VrfStatus : EntityType<VrfStatus> {
  static constexpr const char* kTypeName = "Routing::Hardware::VrfStatus";
  Key<VrfName> key;
};
struct Status : JournalRootType<Status> {
  static constexpr const char* kTypeName = "Routing::Hardware::Status";
  Key<Name> key;
  Collection<"vrfStatus", VrfStatus> vrfStatus;
};

}  // namespace Hardware

}  // namespace ryx::platform::Routing
