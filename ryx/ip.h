// IP addresses, networks and interface addresses: the value types of every manager that speaks of
// layer 3. Plain copyable values that own nothing; any thread may use them, as any value.
//
// An address is written as four decimal octets (IPv4) or in the forms of RFC 4291 section 2.2
// (IPv6); it prints in the same way, IPv6 in the compressed form that RFC 5952 recommends.
#ifndef RYX_IP_H
#define RYX_IP_H

#include <ryx/api.h>

#include <netinet/in.h>

#include <cstddef>
#include <cstdint>
#include <functional>
#include <iosfwd>
#include <string>

namespace ryx {

/// The address family. Addresses order by these values first.
enum af_t : uint32_t {
  AF_NULL = 0,  ///< no address
  AF_IPV4 = 4,
  AF_IPV6 = 6,
};

/// One IPv4 or IPv6 address, or none.
class RYX_API ip_addr_t {
 public:
  /// No address: AF_NULL and zero bytes.
  ip_addr_t();

  /// From bytes in network order: 4 of them for AF_IPV4, 16 for every other family. `af` is not
  /// checked.
  ip_addr_t(af_t af, const uint8_t* addr);
  ip_addr_t(const in_addr& addr);
  ip_addr_t(const in6_addr& addr);

  af_t af() const;

  /// The 16 address bytes in network order. An IPv4 address is the first 4; the others are zero.
  const uint8_t* bytes() const;

  /// The IPv4 address as a number in host order: 10.0.0.1 is 0x0a000001. 0 for other families.
  uint32_t addr_v4() const;

  /// True when there is no address (AF_NULL).
  bool operator!() const;

  /// The family and the 4 (IPv4) or 16 (IPv6) address bytes are the same. Two AF_NULL addresses are
  /// equal.
  bool operator==(const ip_addr_t& other) const;
  bool operator!=(const ip_addr_t& other) const;

  /// By family (none, IPv4, IPv6), then by the bytes, first byte first.
  bool operator<(const ip_addr_t& other) const;

  std::size_t hash() const;

  /// The address; "Unknown IP address type." for AF_NULL. Raises an invalid_argument_error for
  /// "ip.ip_addr_t.to_string" when the system cannot format an IPv6 address.
  std::string to_string() const;

 private:
  af_t af_;
  uint8_t addr_[16];
};

/// A network: an address of which no bit after the first prefix_length() is set.
class RYX_API ip_prefix_t {
 public:
  /// No network: AF_NULL and length 0.
  ip_prefix_t();

  /// The length is 0..32 for IPv4, 0..128 for IPv6 and 0 for no address. Raises an
  /// invalid_argument_error for "ip.ip_prefix_t" for a longer one, and when host bits are set.
  ip_prefix_t(const ip_addr_t& address, uint8_t prefix_length);

  const ip_addr_t& address() const;
  uint8_t prefix_length() const;
  af_t af() const;

  /// The network mask as an address of the same family: 255.255.255.0 for a /24.
  ip_addr_t mask() const;

  bool operator==(const ip_prefix_t& other) const;
  bool operator!=(const ip_prefix_t& other) const;
  /// By address, then by length: a network comes right before those inside it.
  bool operator<(const ip_prefix_t& other) const;

  std::size_t hash() const;

  /// The address, "/" and the length. Raises what ip_addr_t::to_string() raises.
  std::string to_string() const;

 private:
  ip_addr_t address_;
  uint8_t prefix_length_;
};

/// An address as it is configured on an interface, with the length of its subnet mask. Host bits
/// may be set.
class RYX_API ip_addr_mask_t {
 public:
  /// No address: AF_NULL and length 0.
  ip_addr_mask_t();

  /// The length is 0..128 whatever the family. Raises an invalid_argument_error for
  /// "ip.ip_addr_mask_t" for a longer one.
  ip_addr_mask_t(const ip_addr_t& addr, uint8_t mask_length);

  const ip_addr_t& address() const;
  uint8_t mask_length() const;
  af_t af() const;

  bool operator==(const ip_addr_mask_t& other) const;
  bool operator!=(const ip_addr_mask_t& other) const;
  /// By address, then by length.
  bool operator<(const ip_addr_mask_t& other) const;

  std::size_t hash() const;

  /// The address, "/" and the length. Raises an invalid_argument_error for "ip.ip_addr_mask_t" when
  /// there is no address.
  std::string to_string() const;

 private:
  ip_addr_t address_;
  uint8_t mask_length_;
};

/// Parses an address: IPv4 first, then IPv6. Octets have no leading zeros; blanks and zones
/// ("fe80::1%eth0") are refused. Returns false, and leaves the result untouched, when the text is
/// no address; a null text counts as empty. Never raises.
RYX_API bool parse_ip_addr(const char* addr, ip_addr_t* result);

/// Parses an address followed by "/" and a decimal prefix length without leading zeros, at most 32
/// for IPv4 and 128 for IPv6. Returns false, and leaves the result untouched, for every other text
/// and when host bits are set (10.1.2.3/8): they are not masked. Never raises.
RYX_API bool parse_ip_prefix(const char* prefix, ip_prefix_t* result);

/// The enumerator's name.
RYX_API std::ostream& operator<<(std::ostream& out, af_t af);

/// What to_string() gives.
RYX_API std::ostream& operator<<(std::ostream& out, const ip_addr_t& addr);
RYX_API std::ostream& operator<<(std::ostream& out, const ip_prefix_t& prefix);
RYX_API std::ostream& operator<<(std::ostream& out, const ip_addr_mask_t& addr);

}  // namespace ryx

template <>
struct std::hash<ryx::ip_addr_t> {
  std::size_t operator()(const ryx::ip_addr_t& value) const { return value.hash(); }
};
template <>
struct std::hash<ryx::ip_prefix_t> {
  std::size_t operator()(const ryx::ip_prefix_t& value) const { return value.hash(); }
};
template <>
struct std::hash<ryx::ip_addr_mask_t> {
  std::size_t operator()(const ryx::ip_addr_mask_t& value) const { return value.hash(); }
};

#include <ryx/inline/types/ip.h>

#endif
