// Interfaces: configuration and status of each kind, in directories of its own, and the collections
// of all of them that each agent assembles for itself.
//
// Every kind's configuration extends IntfConfig, every kind's status IntfStatus; the directories of
// a kind are keyed by interface identifier. Configuration is written by agents and the operator,
// and entries come and go with the switch side; status is the switch side's.
#pragma once

#include <string>

#include "platform/qel/dir.h"
#include "platform/types/intf.h"

namespace ryx::platform {

namespace Interface {

// Operational status codes of the platform.
enum class OperStatus : uint8_t {
  unknown = 0,
  up = 1,
  down = 2,
  testing = 3,
  reserved = 4,
  dormant = 5,
  lowerLayerDown = 6,
  notConnected = 7,
};

struct IntfConfig : EntityType<IntfConfig> {
  static constexpr const char* kTypeName = "Interface::IntfConfig";
  Key<IntfId> key;
  // What the interface itself is set to; adminEnabled() is what that means.
  Attr<"adminEnabledStateLocal", uint8_t, kPersistent>
      adminEnabledStateLocal;  // 0 default, 1 on, 2 off
  Attr<"description", std::string, kPersistent> description;
  bool adminEnabled() const { return adminEnabledStateLocal() != 2; }
};

struct IntfStatus : EntityType<IntfStatus> {
  static constexpr const char* kTypeName = "Interface::IntfStatus";
  Key<IntfId> key;
  Attr<"operStatus", uint8_t> operStatus;      // OperStatus; other codes may come
  Attr<"deviceName", std::string> deviceName;  // the kernel's name of it, empty without one
};

struct EthPhyIntfConfig : EntityType<EthPhyIntfConfig, IntfConfig> {
  static constexpr const char* kTypeName = "Interface::EthPhyIntfConfig";
};
struct EthPhyIntfStatus : EntityType<EthPhyIntfStatus, IntfStatus> {
  static constexpr const char* kTypeName = "Interface::EthPhyIntfStatus";
};
struct EthLagIntfConfig : EntityType<EthLagIntfConfig, IntfConfig> {
  static constexpr const char* kTypeName = "Interface::EthLagIntfConfig";
};
struct EthLagIntfStatus : EntityType<EthLagIntfStatus, IntfStatus> {
  static constexpr const char* kTypeName = "Interface::EthLagIntfStatus";
};
struct LoopbackIntfConfig : EntityType<LoopbackIntfConfig, IntfConfig> {
  static constexpr const char* kTypeName = "Interface::LoopbackIntfConfig";
};
struct LoopbackIntfStatus : EntityType<LoopbackIntfStatus, IntfStatus> {
  static constexpr const char* kTypeName = "Interface::LoopbackIntfStatus";
};
struct SubIntfConfig : EntityType<SubIntfConfig, IntfConfig> {
  static constexpr const char* kTypeName = "Interface::SubIntfConfig";
};
struct SubIntfStatus : EntityType<SubIntfStatus, IntfStatus> {
  static constexpr const char* kTypeName = "Interface::SubIntfStatus";
};
struct MgmtActiveIntfConfig : EntityType<MgmtActiveIntfConfig, IntfConfig> {
  static constexpr const char* kTypeName = "Interface::MgmtActiveIntfConfig";
};
struct MgmtActiveIntfStatus : EntityType<MgmtActiveIntfStatus, IntfStatus> {
  static constexpr const char* kTypeName = "Interface::MgmtActiveIntfStatus";
};
struct VlanIntfConfig : EntityType<VlanIntfConfig, IntfConfig> {
  static constexpr const char* kTypeName = "Interface::VlanIntfConfig";
};
struct VlanIntfStatus : EntityType<VlanIntfStatus, IntfStatus> {
  static constexpr const char* kTypeName = "Interface::VlanIntfStatus";
};

// The directories of each kind: what stands at the well-known paths. A slice of the physical ports
// ("interface/config/eth/phy/slice/NAME") is an EthPhyIntf...Dir in a Qel::Dir.
template <class Self, class Entry>
struct KindDir : JournalRootType<Self> {
  KeyOf<Self, Name> key;
  CollectionOf<Self, "intf", Entry, kPlain> intf;
};
struct EthPhyIntfConfigDir : KindDir<EthPhyIntfConfigDir, EthPhyIntfConfig> {
  static constexpr const char* kTypeName = "Interface::EthPhyIntfConfigDir";
};
struct EthPhyIntfStatusDir : KindDir<EthPhyIntfStatusDir, EthPhyIntfStatus> {
  static constexpr const char* kTypeName = "Interface::EthPhyIntfStatusDir";
};
struct EthLagIntfConfigDir : KindDir<EthLagIntfConfigDir, EthLagIntfConfig> {
  static constexpr const char* kTypeName = "Interface::EthLagIntfConfigDir";
};
struct EthLagIntfStatusDir : KindDir<EthLagIntfStatusDir, EthLagIntfStatus> {
  static constexpr const char* kTypeName = "Interface::EthLagIntfStatusDir";
};
struct LoopbackIntfConfigDir : KindDir<LoopbackIntfConfigDir, LoopbackIntfConfig> {
  static constexpr const char* kTypeName = "Interface::LoopbackIntfConfigDir";
};
struct LoopbackIntfStatusDir : KindDir<LoopbackIntfStatusDir, LoopbackIntfStatus> {
  static constexpr const char* kTypeName = "Interface::LoopbackIntfStatusDir";
};
struct SubIntfConfigDir : KindDir<SubIntfConfigDir, SubIntfConfig> {
  static constexpr const char* kTypeName = "Interface::SubIntfConfigDir";
};
struct SubIntfStatusDir : KindDir<SubIntfStatusDir, SubIntfStatus> {
  static constexpr const char* kTypeName = "Interface::SubIntfStatusDir";
};
struct MgmtActiveIntfConfigDir : KindDir<MgmtActiveIntfConfigDir, MgmtActiveIntfConfig> {
  static constexpr const char* kTypeName = "Interface::MgmtActiveIntfConfigDir";
};
struct MgmtActiveIntfStatusDir : KindDir<MgmtActiveIntfStatusDir, MgmtActiveIntfStatus> {
  static constexpr const char* kTypeName = "Interface::MgmtActiveIntfStatusDir";
};
struct VlanIntfConfigDir : KindDir<VlanIntfConfigDir, VlanIntfConfig> {
  static constexpr const char* kTypeName = "Interface::VlanIntfConfigDir";
};
struct VlanIntfStatusDir : KindDir<VlanIntfStatusDir, VlanIntfStatus> {
  static constexpr const char* kTypeName = "Interface::VlanIntfStatusDir";
};

// The collections of all interfaces, of one participant alone: each entry refers to the entity of
// the interface's own kind. The "Local" one holds those that have a kernel device.
template <class Self, class Entry>
struct AllDir : JournalRootType<Self> {
  KeyOf<Self, Name> key;
  TableOf<Self, "intf", IntfId, Ref<Entry>, kLocal> intf;
};
struct AllIntfConfigDir : AllDir<AllIntfConfigDir, IntfConfig> {
  static constexpr const char* kTypeName = "Interface::AllIntfConfigDir";
};
struct AllIntfStatusDir : AllDir<AllIntfStatusDir, IntfStatus> {
  static constexpr const char* kTypeName = "Interface::AllIntfStatusDir";
};
struct AllIntfStatusLocalDir : AllDir<AllIntfStatusLocalDir, IntfStatus> {
  static constexpr const char* kTypeName = "Interface::AllIntfStatusLocalDir";
};
struct AllEthPhyIntfConfigDir : AllDir<AllEthPhyIntfConfigDir, EthPhyIntfConfig> {
  static constexpr const char* kTypeName = "Interface::AllEthPhyIntfConfigDir";
};
struct AllEthPhyIntfStatusDir : AllDir<AllEthPhyIntfStatusDir, EthPhyIntfStatus> {
  static constexpr const char* kTypeName = "Interface::AllEthPhyIntfStatusDir";
};

}  // namespace Interface

namespace Vxlan {

struct VtiConfig : EntityType<VtiConfig, Interface::IntfConfig> {
  static constexpr const char* kTypeName = "Vxlan::VtiConfig";
};
struct VtiStatus : EntityType<VtiStatus, Interface::IntfStatus> {
  static constexpr const char* kTypeName = "Vxlan::VtiStatus";
};
struct VtiConfigDir : Interface::KindDir<VtiConfigDir, VtiConfig> {
  static constexpr const char* kTypeName = "Vxlan::VtiConfigDir";
};
struct VtiStatusDir : Interface::KindDir<VtiStatusDir, VtiStatus> {
  static constexpr const char* kTypeName = "Vxlan::VtiStatusDir";
};

}  // namespace Vxlan

namespace Lag {

// Which ports are in which group: "lag/status".
struct PhyIntf : EntityType<PhyIntf> {
  static constexpr const char* kTypeName = "Lag::PhyIntf";
  Key<IntfId> key;
  Attr<"lag", IntfId> lag;
  Attr<"active", bool> active;
};
struct Status : JournalRootType<Status> {
  static constexpr const char* kTypeName = "Lag::Status";
  Key<Name> key;
  Collection<"phyIntf", PhyIntf> phyIntf;
};

}  // namespace Lag

}  // namespace ryx::platform
