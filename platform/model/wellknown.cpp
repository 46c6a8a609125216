#include "platform/model/wellknown.h"

#include <string>

#include "platform/model/acl.h"
#include "platform/model/agent.h"
#include "platform/model/arp.h"
#include "platform/model/bfd.h"
#include "platform/model/decap.h"
#include "platform/model/interface.h"
#include "platform/model/ip.h"
#include "platform/model/lldp.h"
#include "platform/model/mpls.h"
#include "platform/model/nexthop_group.h"
#include "platform/model/routing.h"
#include "platform/model/sim.h"
#include "platform/model/statehub.h"
#include "platform/model/vrf.h"

namespace ryx::platform {

namespace {

// Configuration that agents, operators and the switch side share, and that outlives the hub.
WellKnown config(std::string_view path, const TypeInfo& (*type)()) {
  return {.path = path, .type = type, .access = Access::shared, .persists = Persists::values};
}

}  // namespace

const std::vector<WellKnown>& wellKnown() {
  static const std::vector<WellKnown> places = {
      {.path = "daemon/agent/config",
       .type = &typeOf<Dir>,
       .access = Access::operators,
       .persists = Persists::entities},
      {.path = "daemon/agent/process",
       .type = &typeOf<Dir>,
       .access = Access::service,
       .persists = Persists::values},
      {"daemon/agent/purge", &typeOf<Dir>, Access::operators},
      {"daemon/service/process", &typeOf<Dir>, Access::service},
      {"daemon/service/status", &typeOf<Dir>, Access::service},
      {"daemon/trace", &typeOf<Dir>, Access::operators},
      {"statehub/client", &typeOf<Dir>, Access::service},
      {"statehub/table", &typeOf<Dir>, Access::service},
      {"switch/sim/command", &typeOf<Dir>, Access::operators},
      {"daemon/agent/status", &typeOf<Dir>, Access::agentOwn},
      config("interface/config/eth/phy/slice", &typeOf<Dir>),
      {"interface/status/eth/phy/slice", &typeOf<Dir>, Access::service},
      config("interface/config/eth/lag", &typeOf<Interface::EthLagIntfConfigDir>),
      {"interface/status/eth/lag", &typeOf<Interface::EthLagIntfStatusDir>, Access::service},
      {"lag/status", &typeOf<Lag::Status>, Access::service},
      config("interface/config/loopback/intf", &typeOf<Interface::LoopbackIntfConfigDir>),
      {"interface/status/loopback/intf", &typeOf<Interface::LoopbackIntfStatusDir>,
       Access::service},
      config("interface/config/subintf", &typeOf<Interface::SubIntfConfigDir>),
      {"interface/status/subintf", &typeOf<Interface::SubIntfStatusDir>, Access::service},
      config("interface/config/eth/managementactive", &typeOf<Interface::MgmtActiveIntfConfigDir>),
      {"interface/status/eth/managementactive", &typeOf<Interface::MgmtActiveIntfStatusDir>,
       Access::service},
      config("interface/config/eth/vlan", &typeOf<Interface::VlanIntfConfigDir>),
      {"interface/status/eth/vlan", &typeOf<Interface::VlanIntfStatusDir>, Access::service},
      config("interface/config/eth/vxlan", &typeOf<Vxlan::VtiConfigDir>),
      {"interface/status/eth/vxlan", &typeOf<Vxlan::VtiStatusDir>, Access::service},
      config("ip/config", &typeOf<Ip::Config>),
      {"ip/status", &typeOf<Ip::Status>, Access::service},
      config("ip6/config", &typeOf<Ip6::Config>),
      {"ip6/status", &typeOf<Ip6::Status>, Access::service},
      {.path = "ip/vrf/intf",
       .type = &typeOf<Ip::IntfVrfConfig>,
       .access = Access::operators,
       .persists = Persists::values},
      {.path = "ip/vrf/config",
       .type = &typeOf<Ip::AllVrfConfig>,
       .access = Access::operators,
       .persists = Persists::entities},
      {"ip/vrf/status/global", &typeOf<Ip::AllVrfStatusGlobal>, Access::service},
      {"ip/vrf/status/local", &typeOf<Ip::AllVrfStatusLocal>, Access::service},
      {"vlan/internal", &typeOf<IntfVlanId::Table>, Access::service},
      {"arp/input/config", &typeOf<Dir>, Access::agentOwn, 1, true},
      config("bfd/config/app", &typeOf<Dir>),
      config("bfd/config/intf", &typeOf<Bfd::ConfigIntf>),
      {"bfd/status/peer", &typeOf<Bfd::StatusPeer>, Access::service},
      {"routing/nexthopgroup/input/config", &typeOf<Dir>, Access::agentOwn, 1, true},
      {"routing/hardware/nexthopgroup/status", &typeOf<Routing::Hardware::NexthopGroupStatus>,
       Access::service},
      {"routing/hardware/status", &typeOf<Routing::Hardware::Status>, Access::service},
      {"routing/hardware/mpls/status", &typeOf<Mpls::Hardware::Status>, Access::service},
      {"routing/mpls/route/input/dynamic", &typeOf<Dir>, Access::agentOwn, 1, true},
      {"routing/mpls/vrfLabel/input/dynamic", &typeOf<Dir>, Access::agentOwn, 1, true},
      {"routing/tunneldecap/input/dynamic", &typeOf<Dir>, Access::agentOwn, 1, true},
      {"routing/vrf/input", &typeOf<Dir>, Access::agentOwn, 2, true},
      {"routing6/vrf/input", &typeOf<Dir>, Access::agentOwn, 2, true},
  };
  return places;
}

const WellKnown* wellKnownAbove(std::string_view path) {
  for (const WellKnown& place : wellKnown()) {
    if (!path.starts_with(place.path)) continue;
    if (path.size() == place.path.size() || path[place.path.size()] == '/') return &place;
  }
  return nullptr;
}

void makeWellKnown(Tree& tree) {
  registerModel();
  for (const WellKnown& place : wellKnown())
    check(tree.make(place.path, place.type()) != nullptr, "a well-known place has its own type");
  // The default VRF is always there; others come and go with the switch side.
  for (const char* family : {"routing", "routing6"})
    tree.make<Dir>(std::string(family) + "/vrf/input/default");
  tree.make<Routing::Hardware::Status>("routing/hardware/status")
      ->vrfStatus.create(VrfName(kDefaultVrf));
}

void registerModel() {
  for (const WellKnown& place : wellKnown()) place.type();
  typeOf<GenericAgent::Config>();
  typeOf<GenericAgent::Status>();
  typeOf<GenericAgent::Process>();
  typeOf<GenericAgent::Purge>();
  typeOf<GenericAgent::Trace>();
  typeOf<GenericAgent::Service>();
  typeOf<Statehub::Client>();
  typeOf<Statehub::Table>();
  typeOf<Sim::Command>();
  typeOf<Interface::EthPhyIntfConfigDir>();
  typeOf<Interface::EthPhyIntfStatusDir>();
  typeOf<Routing::RouteInput>();
  typeOf<Routing::NexthopGroup::ConfigInput>();
  typeOf<Mpls::RouteConfigInput>();
  typeOf<Mpls::VrfLabelConfigInput>();
  typeOf<Tunnel::Decap::ConfigInput>();
  typeOf<Arp::ArpInputConfig>();
  typeOf<Bfd::AppConfig>();
  typeOf<Acl::Input::Config>();
  typeOf<Lldp::RemoteSystem>();
  TypeInfo::registerChildren();
}

}  // namespace ryx::platform
