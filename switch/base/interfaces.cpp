#include "switch/base/interfaces.h"

#include <optional>
#include <string>
#include <vector>

namespace ryx::feeds {
namespace {

using namespace platform;

struct Place {
  std::string config;
  const TypeInfo& configDir;
  std::string status;
  const TypeInfo& statusDir;
};

// "1" of Ethernet7, "3" of Ethernet3/1.
std::string sliceOf(IntfId intf) {
  std::string name = intf.toString();
  size_t slash = name.find('/');
  if (slash == std::string::npos) return "1";
  size_t digits = name.find_first_of("0123456789");
  return name.substr(digits, slash - digits);
}

template <class ConfigDir, class StatusDir>
Place placeAt(const std::string& rest) {
  return {"interface/config/" + rest, typeOf<ConfigDir>(), "interface/status/" + rest,
          typeOf<StatusDir>()};
}

std::optional<Place> placeOf(IntfId intf) {
  using namespace Interface;
  if (!intf.isValid()) return {};
  if (intf.isSubintf()) return placeAt<SubIntfConfigDir, SubIntfStatusDir>("subintf");
  switch (intf.kind()) {
    case IntfKind::ethernet:
    case IntfKind::peerEthernet:
    case IntfKind::internal:
    case IntfKind::cpu:
      return placeAt<EthPhyIntfConfigDir, EthPhyIntfStatusDir>("eth/phy/slice/" + sliceOf(intf));
    case IntfKind::portChannel:
    case IntfKind::peerPortChannel:
      return placeAt<EthLagIntfConfigDir, EthLagIntfStatusDir>("eth/lag");
    case IntfKind::loopback:
      return placeAt<LoopbackIntfConfigDir, LoopbackIntfStatusDir>("loopback/intf");
    case IntfKind::management:
      return placeAt<MgmtActiveIntfConfigDir, MgmtActiveIntfStatusDir>("eth/managementactive");
    case IntfKind::vlan:
      return placeAt<VlanIntfConfigDir, VlanIntfStatusDir>("eth/vlan");
    case IntfKind::vxlan:
      return placeAt<Vxlan::VtiConfigDir, Vxlan::VtiStatusDir>("eth/vxlan");
    case IntfKind::null0:
    case IntfKind::tunnel:
    case IntfKind::none:
      break;
  }
  return {};
}

// Every kind's directory has one collection, of its interfaces.
CollectionBase& interfacesOf(Entity& dir) {
  return dir.collection(dir.type().collections.front());
}

Entity* find(Tree& tree, const std::string& path, IntfId intf) {
  Entity* dir = tree.find(path);
  return dir ? interfacesOf(*dir).findErased(&intf, kindOf<IntfId>()) : nullptr;
}

Entity& findOrCreate(Tree& tree, const std::string& path, const TypeInfo& dirType, IntfId intf) {
  Entity* dir = tree.make(path, dirType);
  check(dir != nullptr, "a directory of interfaces is of its kind's type");
  CollectionBase& interfaces = interfacesOf(*dir);
  if (Entity* there = interfaces.findErased(&intf, kindOf<IntfId>())) return *there;
  Ref<Entity> made = EntityOps::make(interfaces.info().child());
  *static_cast<IntfId*>(made->at(made->type().keyOffset)) = intf;
  Entity* added = interfaces.add(made);
  check(added != nullptr, "the switch side may write everywhere");
  return *added;
}

}  // namespace

bool hasDirectory(IntfId intf) {
  return placeOf(intf).has_value();
}

IntfEntities findIntf(Tree& tree, IntfId intf) {
  std::optional<Place> place = placeOf(intf);
  if (!place) return {};
  return {static_cast<Interface::IntfConfig*>(find(tree, place->config, intf)),
          static_cast<Interface::IntfStatus*>(find(tree, place->status, intf))};
}

IntfEntities createIntf(Tree& tree, IntfId intf) {
  std::optional<Place> place = placeOf(intf);
  check(place.has_value(), "an interface of this kind has a directory");
  return {static_cast<Interface::IntfConfig*>(
              &findOrCreate(tree, place->config, place->configDir, intf)),
          static_cast<Interface::IntfStatus*>(
              &findOrCreate(tree, place->status, place->statusDir, intf))};
}

void eraseIntf(Tree& tree, IntfId intf) {
  IntfEntities there = findIntf(tree, intf);
  if (there.status) EntityOps::remove(*there.status);
  if (there.config) EntityOps::remove(*there.config);
}

void eraseIntfsBut(Tree& tree, const std::function<bool(IntfId)>& keep) {
  std::vector<IntfId> gone;
  const auto look = [&](auto& self, Entity& at) -> void {
    for (const CollectionInfo& c : at.type().collections)
      for (CollectionIterator it(at.collection(c)); it; it.next()) {
        if (auto* status = it.get()->as<Interface::IntfStatus>()) {
          if (!keep(status->key())) gone.push_back(status->key());
        } else {
          self(self, *it.get());
        }
      }
  };
  if (Entity* statuses = tree.find("interface/status")) look(look, *statuses);
  for (const IntfId intf : gone) eraseIntf(tree, intf);
}

}  // namespace ryx::feeds
