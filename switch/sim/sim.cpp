#include "switch/sim/sim.h"

#include <map>

#include "platform/model/interface.h"
#include "platform/qel/reactor.h"
#include "switch/base/interfaces.h"
#include "switch/base/vrfs.h"

namespace ryx::sim {

using namespace platform;
using Interface::IntfConfig;
using Interface::IntfStatus;
using Interface::OperStatus;

// One interface's hardware: what its port has, and what that makes of its status.
class Sim::Port final : public EntityReactor {
 public:
  Port(IntfConfig& config, IntfStatus& status, uint8_t code)
      : EntityReactor("sim port"), config_(&config), status_(&status), code_(code) {
    follow(config, config.adminEnabledStateLocal.bit());
    show();
  }

  void codeIs(uint8_t code) {
    code_ = code;
    show();
  }
  const std::string& deviceName() const { return status_->deviceName(); }

 protected:
  void onAttributes(uint32_t) override { show(); }

 private:
  void show() {
    auto down = static_cast<uint8_t>(OperStatus::down);
    status_->operStatus.set(config_->adminEnabled() ? code_ : down);
  }

  Ref<IntfConfig> config_;
  Ref<IntfStatus> status_;
  uint8_t code_;
};

// --- commands -----------------------------------------------------------------------------------

struct Sim::Command {
  std::string_view name;
  std::string_view usage;
  std::string (Sim::*run)(const Arguments& arguments);
};

const Sim::Command Sim::kCommands[] = {
    {"interface-add", "INTF [kernel-name]", &Sim::addInterface},
    {"interface-del", "INTF", &Sim::deleteInterface},
    {"oper-status", "INTF CODE", &Sim::setOperStatus},
    {"vrf-add", "NAME", &Sim::addVrf},
    {"vrf-state", "NAME STATE", &Sim::setVrfState},
    {"vrf-del", "NAME", &Sim::deleteVrf},
    {"internal-vlan", "INTF VLAN", &Sim::setInternalVlan},
    {"neighbor-learn", "IP INTF MAC", &Sim::learnNeighbor},
    {"neighbor-age", "IP INTF", &Sim::ageNeighbor},
    {"bfd-peer", "IP VRF INTF|- STATE", &Sim::holdBfdPeer},
    {"nexthop-group-capability", "TYPE MAXLABELS ACTION,...", &Sim::setCapability},
    {"nexthop-group-count", "GROUP ENTRY PACKETS OCTETS", &Sim::countAtEntry},
    {"nexthop-group-clear", "GROUP ENTRY", &Sim::clearEntry},
    {"clogged", "on|off", &Sim::clog},
};

namespace {

std::string unknown(IntfId intf) {
  return "there is no interface " + intf.toString() + "; expected one that interface-add made";
}

std::string unknownVrf(const std::string& name) {
  return "there is no VRF " + inQuotes(name) + " to change; expected one that vrf-add made";
}

}  // namespace

Sim::Sim(Tree& tree)
    : tree_(tree),
      addresses_(tree),
      neighbors_(tree),
      bfd_(tree),
      dataPlane_(tree),
      routing_(tree, dataPlane_) {
  feeds::showDefaultVrf(tree_);
}

Sim::~Sim() = default;

std::string Sim::command(std::string_view line) {
  Words words(line);
  std::string name;
  if (!words.next(&name)) return words.error();
  std::string names;
  for (const Command& c : kCommands) {
    if (c.name == name) {
      Arguments arguments;
      std::string error = parseArguments(c.usage, words, &arguments);
      if (error.empty()) return (this->*c.run)(arguments);
      return error + "; expected: " + std::string(c.name) + " " + std::string(c.usage);
    }
    names += (names.empty() ? "" : ", ") + std::string(c.name);
  }
  return "unknown command " + inQuotes(name) + "; expected one of: " + names;
}

std::string Sim::addInterface(const Arguments& arguments) {
  IntfId intf = arguments[0].intf;
  if (!feeds::hasDirectory(intf))
    return "the switch has no interfaces of the kind of " + intf.toString() + " to add";
  if (ports_.count(intf)) return "there is an interface " + intf.toString() + " already";
  std::string device = arguments.size() > 1 ? arguments[1].text : std::string();
  for (const auto& [other, port] : ports_)
    if (!device.empty() && port->deviceName() == device)
      return "the kernel name " + inQuotes(device) + " is that of " + other.toString();

  feeds::IntfEntities made = feeds::createIntf(tree_, intf);
  made.status->deviceName.set(device);
  auto code = static_cast<uint8_t>(intf.isLoopback() ? OperStatus::up : OperStatus::down);
  ports_.emplace(intf, std::make_unique<Port>(*made.config, *made.status, code));
  addresses_.interfaceChanged(intf);
  neighbors_.interfaceIs(intf, true);
  return {};
}

std::string Sim::deleteInterface(const Arguments& arguments) {
  IntfId intf = arguments[0].intf;
  if (ports_.erase(intf) == 0) return unknown(intf);
  feeds::eraseIntf(tree_, intf);
  addresses_.interfaceChanged(intf);
  neighbors_.interfaceIs(intf, false);
  return {};
}

void Sim::takeOver() {
  feeds::eraseIntfsBut(tree_, [this](IntfId intf) { return ports_.count(intf) != 0; });
  feeds::eraseVrfsBut(tree_, [this](const VrfName& vrf) {
    return vrf.bytes() == kDefaultVrf || vrfs_.count(std::string(vrf.bytes())) != 0;
  });
  addresses_.takeOver();
  bfd_.takeOver();
}

std::string Sim::addVrf(const Arguments& arguments) {
  const std::string& name = arguments[0].text;
  if (name == kDefaultVrf || !vrfs_.insert(name).second)
    return "there is a VRF " + inQuotes(name) + " already";
  feeds::showVrf(tree_, VrfName(name), Ip::VrfState::active, "ns-" + name);
  return {};
}

std::string Sim::setVrfState(const Arguments& arguments) {
  static const std::map<std::string, Ip::VrfState> kStates = {
      {"initializing", Ip::VrfState::initializing},
      {"active", Ip::VrfState::active},
      {"deleting", Ip::VrfState::deleting}};
  const std::string& name = arguments[0].text;
  if (!vrfs_.count(name)) return unknownVrf(name);
  const auto state = kStates.find(arguments[1].text);
  if (state == kStates.end())
    return "the state " + inQuotes(arguments[1].text) +
           "; expected initializing, active or deleting";
  feeds::showVrf(tree_, VrfName(name), state->second, "ns-" + name);
  return {};
}

std::string Sim::deleteVrf(const Arguments& arguments) {
  const std::string& name = arguments[0].text;
  if (vrfs_.erase(name) == 0) return unknownVrf(name);
  feeds::eraseVrf(tree_, VrfName(name));
  return {};
}

std::string Sim::setInternalVlan(const Arguments& arguments) {
  const IntfId intf = arguments[0].intf;
  if (!ports_.count(intf)) return unknown(intf);
  addresses_.internalVlanIs(intf, arguments[1].number);
  return {};
}

std::string Sim::learnNeighbor(const Arguments& arguments) {
  const IntfId intf = arguments[1].intf;
  if (!ports_.count(intf)) return unknown(intf);
  neighbors_.learn({arguments[0].ip, intf}, arguments[2].mac);
  return {};
}

std::string Sim::ageNeighbor(const Arguments& arguments) {
  if (neighbors_.age({arguments[0].ip, arguments[1].intf})) return {};
  return "no neighbour " + arguments[0].text + " was learned at " + arguments[1].text +
         "; expected one that neighbor-learn made";
}

std::string Sim::holdBfdPeer(const Arguments& arguments) {
  return bfd_.hold({arguments[0].ip, arguments[1].text, arguments[2].intf}, arguments[3].text);
}

std::string Sim::clog(const Arguments& arguments) {
  tree_.cloggedIs(arguments[0].text == "on");
  return {};
}

std::string Sim::setOperStatus(const Arguments& arguments) {
  auto at = ports_.find(arguments[0].intf);
  if (at == ports_.end()) return unknown(arguments[0].intf);
  at->second->codeIs(static_cast<uint8_t>(arguments[1].number));
  return {};
}

}  // namespace ryx::sim
