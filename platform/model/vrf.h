// VRFs (RFC 4364): which the switch is to have ("ip/vrf/config"), and which it has: all of the
// switch ("ip/vrf/status/global"), and what stands for them on this machine
// ("ip/vrf/status/local").
#pragma once

#include <string>

#include "platform/qel/dir.h"
#include "platform/types/vrf_name.h"

namespace ryx::platform::Ip {

enum class VrfState : uint8_t { none = 0, initializing = 1, active = 2, deleting = 3 };
constexpr bool isValid(VrfState s) {
  return s <= VrfState::deleting;
}

struct VrfConfig : EntityType<VrfConfig> {
  static constexpr const char* kTypeName = "Ip::VrfConfig";
  Key<VrfName> key;
};
struct AllVrfConfig : JournalRootType<AllVrfConfig> {
  static constexpr const char* kTypeName = "Ip::AllVrfConfig";
  Key<Name> key;
  Collection<"vrf", VrfConfig> vrf;
};

struct VrfStatusGlobal : EntityType<VrfStatusGlobal> {
  static constexpr const char* kTypeName = "Ip::VrfStatusGlobal";
  Key<VrfName> key;
  Attr<"state", VrfState> state;
};
struct AllVrfStatusGlobal : JournalRootType<AllVrfStatusGlobal> {
  static constexpr const char* kTypeName = "Ip::AllVrfStatusGlobal";
  Key<Name> key;
  Collection<"vrf", VrfStatusGlobal> vrf;
};

struct VrfStatusLocal : EntityType<VrfStatusLocal> {
  static constexpr const char* kTypeName = "Ip::VrfStatusLocal";
  Key<VrfName> key;
  Attr<"state", VrfState> state;
  Attr<"networkNamespace", std::string> networkNamespace;  // its name, as in /run/netns
};
struct AllVrfStatusLocal : JournalRootType<AllVrfStatusLocal> {
  static constexpr const char* kTypeName = "Ip::AllVrfStatusLocal";
  Key<Name> key;
  Collection<"vrf", VrfStatusLocal> vrf;
};

}  // namespace ryx::platform::Ip
