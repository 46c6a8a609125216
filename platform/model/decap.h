// Tunnels that end at this switch, by each agent ("routing/tunneldecap/input/dynamic/AGENT").
#pragma once

#include "platform/qel/dir.h"
#include "platform/types/ip.h"

namespace ryx::platform::Tunnel::Decap {

enum class TunnelType : uint8_t { none = 0, udp = 1 };
constexpr bool isValid(TunnelType t) {
  return t <= TunnelType::udp;
}

struct DecapGroup : EntityType<DecapGroup> {
  static constexpr const char* kTypeName = "Tunnel::Decap::DecapGroup";
  Key<Name> key;
  Attr<"destinationAddr", IpAddr> destinationAddr;
  Attr<"tunnelType", TunnelType> tunnelType;
};
struct ConfigInput : JournalRootType<ConfigInput> {
  static constexpr const char* kTypeName = "Tunnel::Decap::ConfigInput";
  Key<Name> key;
  Collection<"decapGroup", DecapGroup> decapGroup;
};

}  // namespace ryx::platform::Tunnel::Decap
