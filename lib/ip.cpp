// The out-of-line members of the IP value types, and the two parsing functions.
#include "ryx/ip.h"

#include <arpa/inet.h>

#include <cstring>
#include <ostream>
#include <string_view>

#include "lib/convert.h"
#include "platform/trace/trace.h"
#include "platform/types/digits.h"
#include "ryx/panic.h"

namespace ryx {

namespace {

platform::TraceFacility& traceIp() {
  static platform::TraceFacility& facility = platform::TraceFacility::named("RyxSdkIp");
  return facility;
}

// How many address bytes take part in copies and comparisons: 16 for every family but IPv4.
size_t bytesOf(af_t af) {
  return af == AF_IPV4 ? 4 : 16;
}

std::string_view textOf(const char* text) {
  return text == nullptr ? "" : text;
}

constexpr size_t kMaxText = 128;

// Writes the address's text and returns its end; `out` has kMaxText bytes.
char* print(const ip_addr_t& addr, char* out) {
  if (addr.af() == AF_IPV4) return convert(addr).print(out);
  if (addr.af() != AF_IPV6) return stpcpy(out, "Unknown IP address type.");
  if (inet_ntop(AF_INET6, addr.bytes(), out, INET6_ADDRSTRLEN) == nullptr) {
    panic(
        invalid_argument_error("ip.ip_addr_t.to_string", "Can't convert IPV6 address to string."));
  }
  return out + std::strlen(out);
}

std::string textWithLength(const ip_addr_t& addr, uint8_t length) {
  char text[kMaxText];
  char* end = print(addr, text);
  *end++ = '/';
  return std::string(text, platform::writeNumber(end, length));
}

template <class Platform, class Public>
bool parseInto(const char* text, Public* result) {
  Platform value;
  if (!platform::parse(textOf(text), &value)) return false;
  *result = convert(value);
  return true;
}

}  // namespace

ip_addr_t::ip_addr_t(af_t af, const uint8_t* addr) : af_(af), addr_{} {
  std::memcpy(addr_, addr, bytesOf(af));
}

ip_addr_t::ip_addr_t(const in_addr& addr) : af_(AF_IPV4), addr_{} {
  std::memcpy(addr_, &addr.s_addr, sizeof addr.s_addr);
}

ip_addr_t::ip_addr_t(const in6_addr& addr) : af_(AF_IPV6) {
  std::memcpy(addr_, addr.s6_addr, sizeof addr_);
}

bool ip_addr_t::operator==(const ip_addr_t& other) const {
  if (af_ != other.af_) return false;
  return af_ == AF_NULL || std::memcmp(addr_, other.addr_, bytesOf(af_)) == 0;
}

bool ip_addr_t::operator<(const ip_addr_t& other) const {
  if (af_ != other.af_) return af_ < other.af_;
  return std::memcmp(addr_, other.addr_, bytesOf(af_)) < 0;
}

std::size_t ip_addr_t::hash() const {
  return convert(*this).hash();
}

std::string ip_addr_t::to_string() const {
  char text[kMaxText];
  return std::string(text, print(*this, text));
}

ip_prefix_t::ip_prefix_t(const ip_addr_t& address, uint8_t prefix_length)
    : address_(address), prefix_length_(prefix_length) {
  platform::IpAddr addr = convert(address);
  if (prefix_length > addr.maxLength()) {
    panic(invalid_argument_error("ip.ip_prefix_t", "prefix_length must be between 0.." +
                                                       std::to_string(addr.maxLength()) + "."));
  }
  if (addr.masked(prefix_length) != addr) {
    panic(invalid_argument_error("ip.ip_prefix_t",
                                 "Must not have host bits set beyond the prefix_length."));
  }
}

ip_addr_t ip_prefix_t::mask() const {
  static constexpr uint8_t kOnes[16] = {255, 255, 255, 255, 255, 255, 255, 255,
                                        255, 255, 255, 255, 255, 255, 255, 255};
  platform::IpAddr ones(convert(address_).af(), kOnes);
  return convert(ones.masked(prefix_length_));
}

bool ip_prefix_t::operator==(const ip_prefix_t& other) const {
  return prefix_length_ == other.prefix_length_ && address_ == other.address_;
}

bool ip_prefix_t::operator<(const ip_prefix_t& other) const {
  if (address_ != other.address_) return address_ < other.address_;
  return prefix_length_ < other.prefix_length_;
}

std::size_t ip_prefix_t::hash() const {
  return platform::hashNumber(address_.hash() ^ prefix_length_);
}

std::string ip_prefix_t::to_string() const {
  return textWithLength(address_, prefix_length_);
}

ip_addr_mask_t::ip_addr_mask_t(const ip_addr_t& addr, uint8_t mask_length)
    : address_(addr), mask_length_(mask_length) {
  if (mask_length > platform::IpAddrMask::kMaxLength) {
    panic(invalid_argument_error("ip.ip_addr_mask_t", "mask_length must be between 0..128."));
  }
}

bool ip_addr_mask_t::operator==(const ip_addr_mask_t& other) const {
  return mask_length_ == other.mask_length_ && address_ == other.address_;
}

bool ip_addr_mask_t::operator<(const ip_addr_mask_t& other) const {
  if (address_ != other.address_) return address_ < other.address_;
  return mask_length_ < other.mask_length_;
}

std::size_t ip_addr_mask_t::hash() const {
  return platform::hashNumber(address_.hash() ^ mask_length_);
}

std::string ip_addr_mask_t::to_string() const {
  if (af() != AF_IPV4 && af() != AF_IPV6) {
    panic(invalid_argument_error("ip.ip_addr_mask_t",
                                 "Must have a valid address family to convert to string."));
  }
  return textWithLength(address_, mask_length_);
}

bool parse_ip_addr(const char* addr, ip_addr_t* result) {
  RYX_TRACE(traceIp(), 8, "parse_ip_addr addr=" << textOf(addr));
  return parseInto<platform::IpAddr>(addr, result);
}

bool parse_ip_prefix(const char* prefix, ip_prefix_t* result) {
  RYX_TRACE(traceIp(), 8, "parse_ip_prefix prefix=" << textOf(prefix));
  return parseInto<platform::IpPrefix>(prefix, result);
}

std::ostream& operator<<(std::ostream& out, af_t af) {
  switch (af) {
    case AF_NULL:
      return out << "AF_NULL";
    case AF_IPV4:
      return out << "AF_IPV4";
    case AF_IPV6:
      return out << "AF_IPV6";
  }
  return out << "af_t(" << static_cast<uint32_t>(af) << ")";
}

std::ostream& operator<<(std::ostream& out, const ip_addr_t& addr) {
  return out << addr.to_string();
}

std::ostream& operator<<(std::ostream& out, const ip_prefix_t& prefix) {
  return out << prefix.to_string();
}

std::ostream& operator<<(std::ostream& out, const ip_addr_mask_t& addr) {
  return out << addr.to_string();
}

}  // namespace ryx
