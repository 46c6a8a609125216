#include "switch/linux/link_message.h"

#include <linux/if.h>
#include <linux/if_link.h>
#include <linux/rtnetlink.h>
#include <sys/socket.h>

#include <cstring>

namespace ryx::kernel {
namespace {

using platform::Interface::OperStatus;

// The text of an attribute, up to its zero byte, if there is one.
std::string textOf(const nlattr* attribute) {
  auto* text = static_cast<const char*>(mnl_attr_get_payload(attribute));
  return {text, strnlen(text, mnl_attr_get_payload_len(attribute))};
}

struct Parsed {
  Link link;
  bool other = false;  // it tells something else
};

int takeAttribute(const nlattr* attribute, void* data) {
  auto* parsed = static_cast<Parsed*>(data);
  switch (mnl_attr_get_type(attribute)) {
    case IFLA_IFNAME:
      parsed->link.name = textOf(attribute);
      break;
    case IFLA_IFALIAS:
      parsed->link.alias = textOf(attribute);
      break;
    case IFLA_OPERSTATE:
      if (mnl_attr_get_payload_len(attribute) >= 1)
        parsed->link.operState = mnl_attr_get_u8(attribute);
      break;
    case IFLA_WIRELESS:
      parsed->other = true;
      break;
  }
  return MNL_CB_OK;
}

Message setLink(std::string_view device, uint32_t flags, uint32_t change) {
  Message message(RTM_SETLINK, NLM_F_ACK);
  auto& fixed = message.fixed<ifinfomsg>();
  fixed.ifi_flags = flags;
  fixed.ifi_change = change;
  message.put(IFLA_IFNAME, std::string(device) + '\0');
  return message;
}

}  // namespace

OperStatus operStatus(const Link& link) {
  if (link.operState == IF_OPER_NOTPRESENT) return OperStatus::unknown;
  if (!link.up) return OperStatus::down;
  switch (link.operState) {
    case IF_OPER_UP:
      return OperStatus::up;
    case IF_OPER_UNKNOWN:
      return link.lowerUp ? OperStatus::up : OperStatus::notConnected;
    case IF_OPER_DOWN:
      return OperStatus::notConnected;
    case IF_OPER_LOWERLAYERDOWN:
      return OperStatus::lowerLayerDown;
    case IF_OPER_TESTING:
      return OperStatus::testing;
    case IF_OPER_DORMANT:
      return OperStatus::dormant;
  }
  return OperStatus::unknown;
}

std::optional<Link> parseLink(const nlmsghdr& message) {
  if (message.nlmsg_type != RTM_NEWLINK && message.nlmsg_type != RTM_DELLINK) return {};
  if (mnl_nlmsg_get_payload_len(&message) < sizeof(ifinfomsg)) return {};
  auto* fixed = static_cast<const ifinfomsg*>(mnl_nlmsg_get_payload(&message));
  if (fixed->ifi_family != AF_UNSPEC || fixed->ifi_index <= 0) return {};

  Parsed parsed;
  parsed.link.index = fixed->ifi_index;
  parsed.link.up = fixed->ifi_flags & IFF_UP;
  parsed.link.lowerUp = fixed->ifi_flags & IFF_LOWER_UP;
  mnl_attr_parse(&message, sizeof(ifinfomsg), takeAttribute, &parsed);
  if (parsed.other || parsed.link.name.empty()) return {};
  return parsed.link;
}

Message dumpLinks() {
  Message message(RTM_GETLINK, NLM_F_DUMP);
  message.fixed<ifinfomsg>();
  message.put(IFLA_EXT_MASK, uint32_t{RTEXT_FILTER_SKIP_STATS});
  return message;
}

Message setLinkUp(std::string_view device, bool up) {
  return setLink(device, up ? IFF_UP : 0, IFF_UP);
}

Message setLinkAlias(std::string_view device, std::string_view alias) {
  platform::check(isAlias(alias), "the kernel can hold the alias");
  Message message = setLink(device, 0, 0);
  // A string attribute has a byte at least; a zero byte alone is the empty alias.
  message.put(IFLA_IFALIAS, alias.empty() ? std::string_view("\0", 1) : alias);
  return message;
}

}  // namespace ryx::kernel
