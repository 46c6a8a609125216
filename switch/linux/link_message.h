// What the kernel says of a network device, and what it is told: messages RTM_NEWLINK, RTM_DELLINK
// and RTM_SETLINK, to and from plain values.
#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "platform/model/interface.h"
#include "switch/linux/message.h"

namespace ryx::kernel {

struct Link {
  int index = 0;
  std::string name;
  std::string alias;
  bool up = false;        // administratively: IFF_UP
  bool lowerUp = false;   // it has a carrier: IFF_LOWER_UP
  uint8_t operState = 0;  // IF_OPER_...: RFC 2863, ifOperStatus

  bool operator==(const Link&) const = default;
};

// Named bound: the longest alias that the kernel takes, in bytes.
inline constexpr size_t kMaxAlias = 255;

// Whether the kernel can hold the text as an alias.
inline bool isAlias(std::string_view text) {
  return text.size() <= kMaxAlias && text.find('\0') == std::string_view::npos;
}

// The platform's code of its operational status:
//
//   component missing (NOTPRESENT)                           unknown           0
//   administratively down                                    down              2
//   UP                                                       up                1
//   UNKNOWN (the driver does not say) with a carrier         up                1
//   UNKNOWN or DOWN, administratively up: no carrier         not connected     7
//   TESTING                                                  testing           3
//   DORMANT (waits for authentication and the like)          dormant           5
//   LOWERLAYERDOWN (what it stands on is down: a veth        lower layer down  6
//     pair's other end, a VLAN's port)
platform::Interface::OperStatus operStatus(const Link& link);

// The device of an RTM_NEWLINK or RTM_DELLINK message. Nothing for a message that is malformed, or
// that tells something else than what the device is (its place in a bridge, a radio's event).
std::optional<Link> parseLink(const nlmsghdr& message);

// A dump of all devices.
Message dumpLinks();

// Devices are written to by name, which is what maps to the interface; an index may be another
// device's by the time that the kernel reads the message.
Message setLinkUp(std::string_view device, bool up);
// Requires isAlias().
Message setLinkAlias(std::string_view device, std::string_view alias);

}  // namespace ryx::kernel
