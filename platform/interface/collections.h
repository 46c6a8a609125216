// The collections of all interfaces: one participant's view of the switch's interfaces, assembled
// from the directories of each kind and kept up to date with them. The participant has it for
// itself, below its own root "localAgentPlugin":
//
//   interface/config/all            Interface::AllIntfConfigDir        every configuration
//   interface/status/all            Interface::AllIntfStatusDir        every status
//   interface/status/local          Interface::AllIntfStatusLocalDir   those with a kernel device
//   interface/config/eth/phy/all    Interface::AllEthPhyIntfConfigDir  the physical ports of all
//   interface/status/eth/phy/all    Interface::AllEthPhyIntfStatusDir  slices
//   interface/status/eth/lag        Interface::EthLagIntfStatusDir     the switch's, once more
//   lag/status                      Lag::Status                        the same
//   IntfCollections                 AgentPlugin                        stands for the assembly
//
// Each entry refers to the entity of the interface's own kind. An entity that was deleted and made
// again is another one: its old entry is deleted and a new one created.
//
// Two entities may have one identifier for a while, a card's port when the card moves to another
// slice. The one that was created last is shown; the other going changes nothing; when the one that
// is shown goes, the other takes its place, as another entry.
//
// The view follows the state in tasks of the first order, so every other reactor finds it complete.
// All of it is touched under the activity lock alone.
#pragma once

#include <memory>
#include <string_view>

#include "platform/interface/kernel_names.h"
#include "platform/model/interface.h"
#include "platform/statehub/entity_manager.h"

namespace ryx::platform {

struct AgentPlugin : EntityType<AgentPlugin> {
  static constexpr const char* kTypeName = "AgentPlugin";
  Key<Name> key;
};

class RYX_PRIVATE IntfCollections {
 public:
  // What of it is mounted is followed: a kind's directories that are not there show nothing. `em`
  // outlives this object. Everything that is there now is in the collections when it returns.
  explicit IntfCollections(EntityManager& em);
  ~IntfCollections();
  IntfCollections(const IntfCollections&) = delete;
  IntfCollections& operator=(const IntfCollections&) = delete;

  Interface::AllIntfConfigDir& allIntfConfigDir() const { return *allConfig_; }
  Interface::AllIntfStatusDir& allIntfStatusDir() const { return *allStatus_; }
  Interface::AllIntfStatusLocalDir& allIntfStatusLocalDir() const { return *allLocal_; }
  Interface::AllEthPhyIntfConfigDir& allEthPhyIntfConfigDir() const { return *phyConfig_; }
  Interface::AllEthPhyIntfStatusDir& allEthPhyIntfStatusDir() const { return *phyStatus_; }
  Interface::EthLagIntfStatusDir& ethLagIntfStatusDir() const { return *lagStatusDir_; }
  Lag::Status& lagStatus() const { return *lagStatus_; }

  // The interface whose kernel device has that name, or the empty identifier.
  IntfId byKernelName(std::string_view name) const { return kernelNames_.find(name); }

  // Identifiers that more than one entity has at present, of configuration or status.
  size_t conflicts() const;

 private:
  template <class Entry>
  class Assembly;
  class ConfigAssembly;
  class StatusAssembly;
  class Copy;

  Ref<Interface::AllIntfConfigDir> allConfig_;
  Ref<Interface::AllIntfStatusDir> allStatus_;
  Ref<Interface::AllIntfStatusLocalDir> allLocal_;
  Ref<Interface::AllEthPhyIntfConfigDir> phyConfig_;
  Ref<Interface::AllEthPhyIntfStatusDir> phyStatus_;
  Ref<Interface::EthLagIntfStatusDir> lagStatusDir_;
  Ref<Lag::Status> lagStatus_;
  KernelNames kernelNames_;
  std::unique_ptr<ConfigAssembly> config_;
  std::unique_ptr<StatusAssembly> status_;
  std::unique_ptr<Copy> lagStatusCopy_;
  std::unique_ptr<Copy> lagCopy_;
};

// An entity below the participant's own root: the one there is, or a new one; null when something
// else stands there.
RYX_PRIVATE Entity* makeLocal(EntityManager& em, std::string_view path, const TypeInfo& type);
template <class T>
T* makeLocal(EntityManager& em, std::string_view path) {
  return static_cast<T*>(makeLocal(em, path, typeOf<T>()));
}

}  // namespace ryx::platform
