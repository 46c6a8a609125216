// The value types that every manager translates: public to platform and back, the same value in
// both worlds. What belongs to one manager's own types is converted in that manager's source.
#pragma once

#include "platform/types/eth.h"
#include "platform/types/intf.h"
#include "platform/types/ip.h"
#include "ryx/eth.h"
#include "ryx/inline/types/intf.h"
#include "ryx/ip.h"

namespace ryx {

// A family that is neither IPv4 nor IPv6 becomes the null address.
inline platform::IpAddr convert(const ip_addr_t& addr) {
  if (addr.af() == AF_IPV4) return {platform::Af::ipv4, addr.bytes()};
  if (addr.af() == AF_IPV6) return {platform::Af::ipv6, addr.bytes()};
  return {};
}

inline ip_addr_t convert(const platform::IpAddr& addr) {
  return {static_cast<af_t>(addr.af()), addr.bytes()};
}

inline platform::IpPrefix convert(const ip_prefix_t& prefix) {
  return {convert(prefix.address()), prefix.prefix_length()};
}

inline ip_prefix_t convert(const platform::IpPrefix& prefix) {
  return {convert(prefix.addr()), prefix.length()};
}

inline platform::IpAddrMask convert(const ip_addr_mask_t& mask) {
  return {convert(mask.address()), mask.mask_length()};
}

inline ip_addr_mask_t convert(const platform::IpAddrMask& mask) {
  return {convert(mask.addr()), mask.length()};
}

inline platform::MacAddr convert(const eth_addr_t& addr) {
  uint8_t bytes[6];
  addr.bytes(bytes);
  return platform::MacAddr(bytes);
}

inline eth_addr_t convert(const platform::MacAddr& addr) {
  const uint8_t* b = addr.bytes();
  return {b[0], b[1], b[2], b[3], b[4], b[5]};
}

inline platform::IntfId convert(intf_id_t intf) {
  return platform::IntfId(intf.value());
}

inline intf_id_t convert(platform::IntfId intf) {
  return intf_id_t::from_value(intf.value());
}

}  // namespace ryx
