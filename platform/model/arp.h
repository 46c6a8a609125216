// Neighbours: what each agent asks for, in an input of its own ("arp/input/config/AGENT"), by VRF.
// The switch's table is the Mirra table "arp/status" (platform/model/tables.h).
#pragma once

#include "platform/model/tables.h"
#include "platform/qel/dir.h"

namespace ryx::platform::Arp {

struct EntryInput : EntityType<EntryInput> {
  static constexpr const char* kTypeName = "Arp::EntryInput";
  Key<NeighborKey> key;
  Attr<"ethAddr", MacAddr> ethAddr;
};

struct VrfInput : EntityType<VrfInput> {
  static constexpr const char* kTypeName = "Arp::VrfInput";
  Key<Name> key;
  Collection<"ipv4", EntryInput> ipv4;
  Collection<"ipv6", EntryInput> ipv6;
};

struct ArpInputConfig : JournalRootType<ArpInputConfig> {
  static constexpr const char* kTypeName = "Arp::ArpInputConfig";
  Key<Name> key;
  Collection<"vrf", VrfInput> vrf;
};

inline constexpr const char* kStatusTable = "arp/status";

}  // namespace ryx::platform::Arp
