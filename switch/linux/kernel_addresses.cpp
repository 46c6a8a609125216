#include "switch/linux/kernel_addresses.h"

#include <fcntl.h>
#include <linux/if_addr.h>
#include <linux/rtnetlink.h>
#include <net/if.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstring>

#include "platform/trace/trace.h"

namespace ryx::kernel {
namespace {

using platform::Af;
using platform::IpAddr;
using platform::IpAddrMask;

platform::TraceFacility& facility() {
  static auto& f = platform::TraceFacility::named("RyxLinuxAddresses");
  return f;
}

struct Attributes {
  IpAddr local, address;
  uint32_t flags = 0;
  uint8_t protocol = 0;
};

int takeAttribute(const nlattr* attribute, void* data) {
  auto& all = *static_cast<Attributes*>(data);
  const size_t size = mnl_attr_get_payload_len(attribute);
  const auto* bytes = static_cast<const uint8_t*>(mnl_attr_get_payload(attribute));
  const auto address = [&](IpAddr* to) {
    if (size == 4) *to = IpAddr(Af::ipv4, bytes);
    if (size == 16) *to = IpAddr(Af::ipv6, bytes);
  };
  switch (mnl_attr_get_type(attribute)) {
    case IFA_LOCAL:
      address(&all.local);
      break;
    case IFA_ADDRESS:  // of the peer, where there is a local one
      address(&all.address);
      break;
    case IFA_FLAGS:
      if (size == 4) std::memcpy(&all.flags, bytes, size);
      break;
    case IFA_PROTO:
      if (size == 1) all.protocol = *bytes;
      break;
  }
  return MNL_CB_OK;
}

Message addressMessage(uint16_t type, uint16_t flags, const Address& address) {
  Message message(type, flags);
  auto& fixed = message.fixed<ifaddrmsg>();
  const IpAddr& addr = address.addr.addr();
  fixed.ifa_family = addr.af() == Af::ipv4 ? AF_INET : AF_INET6;
  fixed.ifa_prefixlen = address.addr.length();
  fixed.ifa_index = static_cast<uint32_t>(address.index);
  const std::string_view bytes(reinterpret_cast<const char*>(addr.bytes()), addr.size());
  message.put(IFA_LOCAL, bytes);
  message.put(IFA_ADDRESS, bytes);
  return message;
}

// The kernel's setting for one device, in this thread's network namespace.
void promoteSecondariesOf(int index) {
  char device[IF_NAMESIZE];
  if (!::if_indextoname(static_cast<unsigned>(index), device)) return;
  const std::string path =
      "/proc/sys/net/ipv4/conf/" + std::string(device) + "/promote_secondaries";
  const int fd = ::open(path.c_str(), O_WRONLY | O_CLOEXEC);
  if (fd < 0 || ::write(fd, "1", 1) != 1)
    RYX_TRACE(facility(), 0,
              "cannot write " << path << ": " << std::strerror(errno)
                              << "; secondary addresses that go with a primary one are put back");
  if (fd >= 0) ::close(fd);
}

}  // namespace

std::optional<AddressEvent> parseAddress(const nlmsghdr& message) {
  if (message.nlmsg_type != RTM_NEWADDR && message.nlmsg_type != RTM_DELADDR) return {};
  if (mnl_nlmsg_get_payload_len(&message) < sizeof(ifaddrmsg)) return {};
  const auto* fixed = static_cast<const ifaddrmsg*>(mnl_nlmsg_get_payload(&message));
  Attributes all;
  all.flags = fixed->ifa_flags;
  mnl_attr_parse(&message, sizeof(ifaddrmsg), takeAttribute, &all);
  const IpAddr& addr = all.local.isNull() ? all.address : all.local;
  const bool isIp4 = fixed->ifa_family == AF_INET && addr.af() == Af::ipv4,
             isIp6 = fixed->ifa_family == AF_INET6 && addr.af() == Af::ipv6;
  if ((!isIp4 && !isIp6) || fixed->ifa_prefixlen > addr.maxLength() || fixed->ifa_index == 0 ||
      fixed->ifa_index > INT32_MAX || (isIp6 && addr.isLinkLocal()))
    return {};
  const bool isUsable = !(all.flags & IFA_F_DADFAILED) &&
                        (!(all.flags & IFA_F_TENTATIVE) || (all.flags & IFA_F_OPTIMISTIC));
  return AddressEvent{{static_cast<int>(fixed->ifa_index), IpAddrMask(addr, fixed->ifa_prefixlen),
                       isUsable, all.protocol == kAddressProtocol},
                      message.nlmsg_type == RTM_NEWADDR};
}

Message dumpAddresses() {
  Message message(RTM_GETADDR, NLM_F_DUMP);
  message.fixed<ifaddrmsg>();
  return message;
}
Message setAddress(const Address& address) {
  Message message = addressMessage(RTM_NEWADDR, NLM_F_ACK | NLM_F_CREATE | NLM_F_REPLACE, address);
  message.put(IFA_PROTO, std::string_view(reinterpret_cast<const char*>(&kAddressProtocol), 1));
  return message;
}
Message removeAddress(const Address& address) {
  return addressMessage(RTM_DELADDR, NLM_F_ACK, address);
}

std::unique_ptr<KernelAddresses> KernelAddresses::start(platform::Tree& tree, Links& links,
                                                        std::string* error) {
  return start(tree, links, NetlinkSocket::Options().receiveBuffer, error);
}

std::unique_ptr<KernelAddresses> KernelAddresses::start(platform::Tree& tree, Links& links,
                                                        int receiveBuffer, std::string* error) {
  auto made = std::make_unique<KernelAddresses>(tree);
  const NetlinkSocket::Options options{
      NETLINK_ROUTE, {RTNLGRP_IPV4_IFADDR, RTNLGRP_IPV6_IFADDR}, receiveBuffer};
  made->socket_ = NetlinkSocket::open(options, dumpAddresses(), *made, error);
  if (!made->socket_) return nullptr;
  made->socket_->resync();
  if (!made->socket_->waitForDump(kStartPatience)) {
    *error = "the kernel does not answer with its addresses";
    return nullptr;
  }
  made->devices_ =
      links.onDeviceIs([&m = *made](int index, platform::IntfId intf) { m.deviceIs(index, intf); });
  made->addresses_.show();
  return made;
}

KernelAddresses::KernelAddresses(platform::Tree& tree) : addresses_(tree, *this) {}

KernelAddresses::~KernelAddresses() = default;

void KernelAddresses::deviceIs(int index, platform::IntfId intf) {
  if (!intf.isEmpty()) promoteSecondariesOf(index);
  addresses_.deviceIs(index, intf);
}

void KernelAddresses::onNotification(const nlmsghdr& message) {
  const auto event = parseAddress(message);
  if (!event) return;
  if (event->exists)
    addresses_.changed(event->address);
  else
    addresses_.gone(event->address.index, event->address.addr);
}

void KernelAddresses::onDumpMessage(const nlmsghdr& message) {
  if (const auto event = parseAddress(message); event && event->exists)
    addresses_.dumped(event->address);
}

}  // namespace ryx::kernel
