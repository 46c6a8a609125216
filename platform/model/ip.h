// Addresses of interfaces: which are configured ("ip/config", "ip6/config"), which are active
// ("ip/status", "ip6/status"), in which VRF an interface is ("ip/vrf/intf"); and which VLANs
// carry routed interfaces inside the switch ("vlan/internal").
//
// Configuration may be there before its interface is. Status is the switch side's: there is one
// while the interface is there and has, or is to have, an address of the family.
#pragma once

#include <vector>

#include "platform/qel/dir.h"
#include "platform/types/eth.h"
#include "platform/types/intf.h"
#include "platform/types/ip.h"

namespace ryx::platform {

namespace Ip {

// Without a primary address there is the all-zero one with mask length 0, or none.
inline bool isAssigned(const IpAddrMask& primary) {
  return primary.length() != 0 || !primary.addr().isUnspecified();
}

struct IpIntfConfig : EntityType<IpIntfConfig> {
  static constexpr const char* kTypeName = "Ip::IpIntfConfig";
  Key<IntfId> key;
  Attr<"addrWithMask", IpAddrMask, kPersistent> addrWithMask;  // the primary
  Attr<"secondaryWithMask", SmallSet<IpAddrMask>, kPersistent> secondaryWithMask;
};
struct Config : JournalRootType<Config> {
  static constexpr const char* kTypeName = "Ip::Config";
  Key<Name> key;
  Collection<"ipIntfConfig", IpIntfConfig> ipIntfConfig;
};

struct IpIntfStatus : EntityType<IpIntfStatus> {
  static constexpr const char* kTypeName = "Ip::IpIntfStatus";
  Key<IntfId> key;
  Attr<"activeAddrWithMask", IpAddrMask> activeAddrWithMask;  // the primary
  Attr<"activeSecondaryWithMask", SmallSet<IpAddrMask>> activeSecondaryWithMask;
};
struct Status : JournalRootType<Status> {
  static constexpr const char* kTypeName = "Ip::Status";
  Key<Name> key;
  Collection<"ipIntfStatus", IpIntfStatus> ipIntfStatus;
};

// An interface that has no entry, or an empty one, is in the VRF "default".
struct IntfVrf : EntityType<IntfVrf> {
  static constexpr const char* kTypeName = "Ip::IntfVrf";
  Key<IntfId> key;
  Attr<"vrf", Name, kPersistent> vrf;
};
struct IntfVrfConfig : JournalRootType<IntfVrfConfig> {
  static constexpr const char* kTypeName = "Ip::IntfVrfConfig";
  Key<Name> key;
  Collection<"intf", IntfVrf> intf;
};

}  // namespace Ip

namespace Ip6 {

struct IntfConfig : EntityType<IntfConfig> {
  static constexpr const char* kTypeName = "Ip6::IntfConfig";
  Key<IntfId> key;
  Attr<"addr", SmallSet<IpAddrMask>, kPersistent> addr;
};
struct Config : JournalRootType<Config> {
  static constexpr const char* kTypeName = "Ip6::Config";
  Key<Name> key;
  Collection<"intf", IntfConfig> intf;
};

struct IntfStatus : EntityType<IntfStatus> {
  static constexpr const char* kTypeName = "Ip6::IntfStatus";
  Key<IntfId> key;
  Attr<"activeAddr", SmallSet<IpAddrMask>> activeAddr;
};
struct Status : JournalRootType<Status> {
  static constexpr const char* kTypeName = "Ip6::Status";
  Key<Name> key;
  Collection<"intf", IntfStatus> intf;
};

}  // namespace Ip6

namespace Ip {

// The primary address, if there is one, and the secondary ones. Ascending.
RYX_PRIVATE std::vector<IpAddrMask> allOf(const IpAddrMask& primary,
                                          const SmallSet<IpAddrMask>& secondaries);

// What is configured for an interface, of both families. Ascending.
RYX_PRIVATE std::vector<IpAddrMask> configuredAddrs(const Config& ip, const Ip6::Config& ip6,
                                                    IntfId intf);

}  // namespace Ip

namespace IntfVlanId {

struct Table : JournalRootType<Table> {
  static constexpr const char* kTypeName = "IntfVlanId::Table";
  Key<Name> key;
  TableOf<Table, "intfVlanIdTable", IntfId, VlanId, kPlain> intfVlanIdTable;
};

}  // namespace IntfVlanId

}  // namespace ryx::platform
