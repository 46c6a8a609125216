#include "switch/linux/kernel_neighbors.h"

#include <linux/neighbour.h>
#include <linux/rtnetlink.h>
#include <sys/socket.h>

#include <cstring>

namespace ryx::kernel {
namespace {

using platform::Af;
using platform::IpAddr;
using platform::MacAddr;

constexpr uint16_t kReached = NUD_REACHABLE | NUD_STALE | NUD_DELAY | NUD_PROBE | NUD_PERMANENT;

int takeAttribute(const nlattr* attribute, void* data) {
  auto& neighbor = *static_cast<Neighbor*>(data);
  const size_t size = mnl_attr_get_payload_len(attribute);
  const auto* bytes = static_cast<const uint8_t*>(mnl_attr_get_payload(attribute));
  switch (mnl_attr_get_type(attribute)) {
    case NDA_DST:
      if (size == 4) neighbor.addr = IpAddr(Af::ipv4, bytes);
      if (size == 16) neighbor.addr = IpAddr(Af::ipv6, bytes);
      break;
    case NDA_LLADDR:
      if (size == 6) neighbor.mac = MacAddr(bytes);
      break;
  }
  return MNL_CB_OK;
}

Message neighborMessage(uint16_t type, uint16_t flags, const Neighbor& neighbor) {
  Message message(type, flags);
  auto& fixed = message.fixed<ndmsg>();
  fixed.ndm_family = neighbor.addr.af() == Af::ipv4 ? AF_INET : AF_INET6;
  fixed.ndm_ifindex = neighbor.index;
  fixed.ndm_state = NUD_PERMANENT;
  const auto put = [&](uint16_t attribute, const uint8_t* bytes, size_t size) {
    message.put(attribute, std::string_view(reinterpret_cast<const char*>(bytes), size));
  };
  put(NDA_DST, neighbor.addr.bytes(), neighbor.addr.size());
  put(NDA_LLADDR, neighbor.mac.bytes(), 6);
  return message;
}

}  // namespace

std::optional<NeighborEvent> parseNeighbor(const nlmsghdr& message) {
  if (message.nlmsg_type != RTM_NEWNEIGH && message.nlmsg_type != RTM_DELNEIGH) return {};
  if (mnl_nlmsg_get_payload_len(&message) < sizeof(ndmsg)) return {};
  const auto* fixed = static_cast<const ndmsg*>(mnl_nlmsg_get_payload(&message));
  if (fixed->ndm_ifindex <= 0 || (fixed->ndm_flags & NTF_PROXY)) return {};
  NeighborEvent event{};
  event.neighbor.index = fixed->ndm_ifindex;
  event.neighbor.isPermanent = fixed->ndm_state & NUD_PERMANENT;
  mnl_attr_parse(&message, sizeof(ndmsg), takeAttribute, &event.neighbor);
  const Af af = event.neighbor.addr.af();
  if (!(fixed->ndm_family == AF_INET && af == Af::ipv4) &&
      !(fixed->ndm_family == AF_INET6 && af == Af::ipv6))
    return {};
  event.exists = message.nlmsg_type == RTM_NEWNEIGH && (fixed->ndm_state & kReached) &&
                 !event.neighbor.addr.isMulticast() && event.neighbor.mac != MacAddr();
  return event;
}

Message dumpNeighbors() {
  Message message(RTM_GETNEIGH, NLM_F_DUMP);
  message.fixed<ndmsg>();
  return message;
}
Message setNeighbor(const Neighbor& neighbor) {
  return neighborMessage(RTM_NEWNEIGH, NLM_F_ACK | NLM_F_CREATE | NLM_F_REPLACE, neighbor);
}
Message removeNeighbor(const Neighbor& neighbor) {
  return neighborMessage(RTM_DELNEIGH, NLM_F_ACK, neighbor);
}

std::unique_ptr<KernelNeighbors> KernelNeighbors::start(platform::Tree& tree, Links& links,
                                                        std::string* error) {
  return start(tree, links, NetlinkSocket::Options().receiveBuffer, error);
}

std::unique_ptr<KernelNeighbors> KernelNeighbors::start(platform::Tree& tree, Links& links,
                                                        int receiveBuffer, std::string* error) {
  auto made = std::make_unique<KernelNeighbors>(tree);
  const NetlinkSocket::Options options{NETLINK_ROUTE, {RTNLGRP_NEIGH}, receiveBuffer};
  made->socket_ = NetlinkSocket::open(options, dumpNeighbors(), *made, error);
  if (!made->socket_) return nullptr;
  made->devices_ = links.onDeviceIs(
      [&n = made->neighbors_](int index, platform::IntfId intf) { n.deviceIs(index, intf); });
  made->socket_->resync();
  if (!made->socket_->waitForDump(kStartPatience)) {
    *error = "the kernel does not answer with its neighbours";
    return nullptr;
  }
  made->neighbors_.offer();
  return made;
}

KernelNeighbors::KernelNeighbors(platform::Tree& tree) : neighbors_(tree, *this) {}

KernelNeighbors::~KernelNeighbors() = default;

void KernelNeighbors::onNotification(const nlmsghdr& message) {
  const auto event = parseNeighbor(message);
  if (!event) return;
  if (event->exists)
    neighbors_.changed(event->neighbor);
  else
    neighbors_.gone(event->neighbor.index, event->neighbor.addr);
}

void KernelNeighbors::onDumpMessage(const nlmsghdr& message) {
  if (const auto event = parseNeighbor(message); event && event->exists)
    neighbors_.dumped(event->neighbor);
}

}  // namespace ryx::kernel
