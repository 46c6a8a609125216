#include "platform/model/wellknown.h"

#include "platform/model/acl.h"
#include "platform/model/agent.h"
#include "platform/model/interface.h"
#include "platform/model/lldp.h"
#include "platform/model/routing.h"

namespace ryx::platform {

const std::vector<WellKnown>& wellKnown() {
  static const std::vector<WellKnown> places = {
      {"daemon/agent/config", &typeOf<Dir>, Access::service},
      {"daemon/agent/status", &typeOf<Dir>, Access::agentOwn},
      {"interface/config/eth/phy/slice", &typeOf<Dir>, Access::shared},
      {"interface/status/eth/phy/slice", &typeOf<Dir>, Access::service},
      {"interface/config/eth/lag", &typeOf<Interface::EthLagIntfConfigDir>, Access::shared},
      {"interface/status/eth/lag", &typeOf<Interface::EthLagIntfStatusDir>, Access::service},
      {"lag/status", &typeOf<Lag::Status>, Access::service},
      {"interface/config/loopback/intf", &typeOf<Interface::LoopbackIntfConfigDir>, Access::shared},
      {"interface/status/loopback/intf", &typeOf<Interface::LoopbackIntfStatusDir>,
       Access::service},
      {"interface/config/subintf", &typeOf<Interface::SubIntfConfigDir>, Access::shared},
      {"interface/status/subintf", &typeOf<Interface::SubIntfStatusDir>, Access::service},
      {"interface/config/eth/managementactive", &typeOf<Interface::MgmtActiveIntfConfigDir>,
       Access::shared},
      {"interface/status/eth/managementactive", &typeOf<Interface::MgmtActiveIntfStatusDir>,
       Access::service},
      {"interface/config/eth/vlan", &typeOf<Interface::VlanIntfConfigDir>, Access::shared},
      {"interface/status/eth/vlan", &typeOf<Interface::VlanIntfStatusDir>, Access::service},
      {"interface/config/eth/vxlan", &typeOf<Vxlan::VtiConfigDir>, Access::shared},
      {"interface/status/eth/vxlan", &typeOf<Vxlan::VtiStatusDir>, Access::service},
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
}

void registerModel() {
  for (const WellKnown& place : wellKnown()) place.type();
  typeOf<GenericAgent::Config>();
  typeOf<GenericAgent::Status>();
  typeOf<Interface::EthPhyIntfConfigDir>();
  typeOf<Interface::EthPhyIntfStatusDir>();
  typeOf<Routing::RouteInput>();
  typeOf<Acl::Input::Config>();
  typeOf<Lldp::RemoteSystem>();
  TypeInfo::registerChildren();
}

}  // namespace ryx::platform
