// The agents' routing inputs: what each agent asks to be routed, in an input of its own for each
// VRF and address family ("routing/vrf/input/VRF/AGENT", "routing6/...").
#pragma once

#include <memory>

#include "platform/qel/collection.h"
#include "platform/types/eth.h"
#include "platform/types/intf.h"
#include "platform/types/ip.h"

namespace ryx::platform::Routing {

struct RouteKey {
  IpPrefix prefix;
  uint32_t preference = 0;  // administrative distance
  static constexpr auto members() {
    return described(member("prefix", &RouteKey::prefix),
                     member("preference", &RouteKey::preference));
  }
  bool operator==(const RouteKey&) const = default;
  auto operator<=>(const RouteKey&) const = default;
};

enum class RouteType : uint8_t { forward = 0, drop = 1, nexthopGroup = 2 };
constexpr bool isValid(RouteType t) {
  return t <= RouteType::nexthopGroup;
}

// A next hop; with vni set, through a VXLAN tunnel to vtepAddr (RFC 7348).
struct Via {
  IpAddr hop;
  IntfId intf;
  uint32_t mplsLabel = 0xffffffff;  // none
  uint32_t vni = 0;
  IpAddr vtepAddr;
  MacAddr routerMac;
  static constexpr auto members() {
    return described(member("hop", &Via::hop), member("intf", &Via::intf),
                     member("mplsLabel", &Via::mplsLabel), member("vni", &Via::vni),
                     member("vtepAddr", &Via::vtepAddr), member("routerMac", &Via::routerMac));
  }
  bool operator==(const Via&) const = default;
  auto operator<=>(const Via&) const = default;
};

struct Route : EntityType<Route> {
  static constexpr const char* kTypeName = "Routing::Route";
  Key<RouteKey> key;
  Attr<"routeType", RouteType, kConstructor> routeType;
  Attr<"dynamic", bool> dynamic;
  Attr<"tag", uint32_t> tag;
  Attr<"nexthopGroup", Name> nexthopGroup;
  Attr<"dropNexthop", Name> dropNexthop;
  Attr<"via", SmallSet<Via>> via;
};

struct RouteInput : JournalRootType<RouteInput> {
  static constexpr const char* kTypeName = "Routing::RouteInput";
  Key<Name> key;
  Attr<"routingProtocol", uint8_t> routingProtocol;
  Attr<"showRouteKey", std::string> showRouteKey;
  Attr<"redistributionName", std::string> redistributionName;
  Attr<"defaultPreference", uint32_t> defaultPreference;
  Collection<"route", Route> route;
};

}  // namespace ryx::platform::Routing
