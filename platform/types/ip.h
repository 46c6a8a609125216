// The platform's IP addresses, networks and interface addresses: small values of alignment 1 that
// are copied, compared and hashed as plain bytes, and parsed and printed without allocation. Bytes
// are in network order; an IPv4 address is the first 4 of the 16 and the other 12 are zero, so that
// one left-aligned 128-bit view serves both families.
//
// Text: IPv4 is four decimal octets without leading zeros; IPv6 is RFC 4291 section 2.2, printed as
// RFC 5952 recommends; neither takes blanks or a zone. All functions may be called from any thread.
#pragma once

#include <compare>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <iosfwd>
#include <string>
#include <string_view>

#include "platform/base/api.h"
#include "platform/qel/hash.h"
#include "platform/types/bits.h"

namespace ryx::platform {

enum class Af : uint8_t { null = 0, ipv4 = 4, ipv6 = 6 };

// One address of either family, or none. The default is Af::null with zero bytes.
class RYX_PRIVATE IpAddr {
 public:
  // The longest text that print() writes; there is no terminating zero.
  static constexpr size_t kMaxText = 45;

  constexpr IpAddr() = default;

  // Copies 4 bytes (IPv4) or 16 (IPv6) in network order; every other family gives the null address.
  IpAddr(Af af, const uint8_t* bytes);

  // The IPv4 address with this value in host order: v4(0x0a000001) is 10.0.0.1.
  static constexpr IpAddr v4(uint32_t value) {
    IpAddr addr;
    addr.af_ = Af::ipv4;
    for (int i = 0; i < 4; ++i) addr.bytes_[i] = static_cast<uint8_t>(value >> (24 - 8 * i));
    return addr;
  }

  constexpr Af af() const { return af_; }
  constexpr const uint8_t* bytes() const { return bytes_; }  // 16 bytes
  constexpr bool isNull() const { return af_ == Af::null; }

  // The number of bytes (0, 4, 16) and of bits (0, 32, 128) of the family.
  constexpr uint8_t size() const { return af_ == Af::ipv4 ? 4 : af_ == Af::ipv6 ? 16 : 0; }
  constexpr uint8_t maxLength() const { return static_cast<uint8_t>(size() * 8); }

  // The first 4 bytes as a number in host order: the IPv4 address.
  constexpr uint32_t v4() const {
    return uint32_t{bytes_[0]} << 24 | uint32_t{bytes_[1]} << 16 | uint32_t{bytes_[2]} << 8 |
           uint32_t{bytes_[3]};
  }

  // The 16 bytes as two numbers in host order, an IPv4 address left-aligned in the first.
  uint64_t high() const { return loadBe64(bytes_); }
  uint64_t low() const { return loadBe64(bytes_ + 8); }

  // The address with every bit after the first `length` clear; lengths past the family's change
  // nothing.
  IpAddr masked(uint8_t length) const;
  // Whether that is the address itself.
  bool isMasked(uint8_t length) const {
    if (length >= 64) return length >= 128 || low() << (length - 64) == 0;
    return low() == 0 && high() << length == 0;
  }

  bool isUnspecified() const { return high() == 0 && low() == 0; }  // 0.0.0.0, ::, or none
  bool isLoopback() const;   // 127.0.0.0/8, ::1 (RFC 1122, RFC 4291)
  bool isMulticast() const;  // 224.0.0.0/4, ff00::/8
  bool isLinkLocal() const;  // 169.254.0.0/16 (RFC 3927), fe80::/10

  // Whether bytes that came from outside (copied in whole) form a value that the constructors
  // could have made: a known family and zero in every unused byte.
  bool isValid() const {
    const uint64_t beyond = af_ == Af::ipv4 ? high() & 0xffffffffu : high();
    return af_ == Af::ipv6 || ((af_ == Af::ipv4 || af_ == Af::null) && (beyond | low()) == 0);
  }

  // Writes the text (none for Af::null) and returns its end; `out` has kMaxText bytes.
  char* print(char* out) const;
  std::string toString() const;

  // Of addresses in a row.
  uint64_t hash(uint64_t seed = hashSeed) const { return hashUpTo(maxLength(), seed); }

  // Of what stands in its first `length` bits, the last of which tell neighbours apart. The low
  // half meets a mixed high half: whoever chooses both still meets the seed.
  uint64_t hashUpTo(uint8_t length, uint64_t seed = hashSeed) const {
    uint64_t family = static_cast<uint64_t>(af_) << 8 | length;
    if (length <= 64) {
      uint64_t number = length == 0 ? 0 : high() >> (64 - length);
      return hashPlaced(hashMix(number / kHashPlaces, family, seed), number % kHashPlaces);
    }
    uint64_t number = low() >> (128 - length);
    return hashPlaced(hashMix(hashMix(high(), family, seed), number / kHashPlaces, seed),
                      number % kHashPlaces);
  }

  friend bool operator==(const IpAddr& a, const IpAddr& b) {
    return a.af_ == b.af_ && a.high() == b.high() && a.low() == b.low();
  }
  // By family (none, IPv4, IPv6), then by the bytes.
  friend std::strong_ordering operator<=>(const IpAddr& a, const IpAddr& b) {
    if (auto c = a.af_ <=> b.af_; c != 0) return c;
    if (auto c = a.high() <=> b.high(); c != 0) return c;
    return a.low() <=> b.low();
  }

 private:
  Af af_ = Af::null;
  uint8_t bytes_[16] = {};
};

// A network: no bit after the first length() is set. The default is the null address with 0.
class RYX_PRIVATE IpPrefix {
 public:
  static constexpr size_t kMaxText = IpAddr::kMaxText + 4;

  constexpr IpPrefix() = default;

  // Throws the range error "IpPrefix::length > IpPrefix::maxLength not allowed" past the family's
  // length, and "IpPrefix::addr with host bits not allowed".
  IpPrefix(const IpAddr& addr, uint8_t length);

  // The network of that length that holds the address; a longer length counts as the family's.
  static IpPrefix containing(const IpAddr& addr, uint8_t length);

  constexpr const IpAddr& addr() const { return addr_; }
  constexpr uint8_t length() const { return length_; }
  constexpr Af af() const { return addr_.af(); }

  bool contains(const IpAddr& addr) const {
    return addr.af() == addr_.af() && addr.masked(length_) == addr_;
  }
  bool contains(const IpPrefix& other) const {
    return other.length_ >= length_ && contains(other.addr_);
  }
  bool overlaps(const IpPrefix& other) const { return contains(other) || other.contains(*this); }

  bool isValid() const {
    return addr_.isValid() && length_ <= addr_.maxLength() && addr_.isMasked(length_);
  }

  // The address, "/" and the length.
  char* print(char* out) const;
  std::string toString() const;

  // Of networks of one length in a row.
  uint64_t hash(uint64_t seed = hashSeed) const { return addr_.hashUpTo(length_, seed); }

  friend bool operator==(const IpPrefix&, const IpPrefix&) = default;
  // By address, then length: a network comes right before the networks that it holds.
  friend std::strong_ordering operator<=>(const IpPrefix&, const IpPrefix&) = default;

 private:
  IpAddr addr_;
  uint8_t length_ = 0;
};

// An interface's address with the length of its subnet mask; host bits may be set. The length is at
// most 128 in either family.
class RYX_PRIVATE IpAddrMask {
 public:
  static constexpr size_t kMaxText = IpAddr::kMaxText + 4;
  static constexpr uint8_t kMaxLength = 128;

  constexpr IpAddrMask() = default;

  // Throws the range error "IpAddrMask::length > 128 not allowed".
  IpAddrMask(const IpAddr& addr, uint8_t length);

  constexpr const IpAddr& addr() const { return addr_; }
  constexpr uint8_t length() const { return length_; }
  constexpr Af af() const { return addr_.af(); }

  // The network that the address is in.
  IpPrefix subnet() const { return IpPrefix::containing(addr_, length_); }

  bool isValid() const;

  // The address, "/" and the length.
  char* print(char* out) const;
  std::string toString() const;

  uint64_t hash(uint64_t seed = hashSeed) const {
    uint64_t h = addr_.hash(seed);
    return hashPlaced(hashMix(hashLine(h), length_, seed), hashPlace(h));
  }

  friend bool operator==(const IpAddrMask&, const IpAddrMask&) = default;
  friend std::strong_ordering operator<=>(const IpAddrMask&, const IpAddrMask&) = default;

 private:
  IpAddr addr_;
  uint8_t length_ = 0;
};

static_assert(sizeof(IpAddr) == 17 && alignof(IpAddr) == 1);
static_assert(sizeof(IpPrefix) == 18 && sizeof(IpAddrMask) == 18);

// Each returns false, and leaves the result untouched, for a text that is not exactly such a value.
// IPv4 is tried first. A prefix or mask needs its "/" and a decimal length without leading zeros,
// at most the family's; a prefix with host bits set is refused, not masked.
[[nodiscard]] RYX_PRIVATE bool parse(std::string_view text, IpAddr* result);
[[nodiscard]] RYX_PRIVATE bool parse(std::string_view text, IpPrefix* result);
[[nodiscard]] RYX_PRIVATE bool parse(std::string_view text, IpAddrMask* result);

RYX_PRIVATE std::ostream& operator<<(std::ostream& out, Af af);
RYX_PRIVATE std::ostream& operator<<(std::ostream& out, const IpAddr& addr);
RYX_PRIVATE std::ostream& operator<<(std::ostream& out, const IpPrefix& prefix);
RYX_PRIVATE std::ostream& operator<<(std::ostream& out, const IpAddrMask& mask);

}  // namespace ryx::platform

template <>
struct std::hash<ryx::platform::IpAddr> {
  size_t operator()(const ryx::platform::IpAddr& v) const { return v.hash(); }
};
template <>
struct std::hash<ryx::platform::IpPrefix> {
  size_t operator()(const ryx::platform::IpPrefix& v) const { return v.hash(); }
};
template <>
struct std::hash<ryx::platform::IpAddrMask> {
  size_t operator()(const ryx::platform::IpAddrMask& v) const { return v.hash(); }
};
