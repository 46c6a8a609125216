// The platform's MAC addresses (IEEE 802 EUI-48) and VLAN numbers (IEEE 802.1Q VLAN identifiers):
// plain values, safe in any thread, parsed and printed without allocation.
#pragma once

#include <compare>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <functional>
#include <iosfwd>
#include <string>
#include <string_view>

#include "platform/base/api.h"
#include "platform/qel/hash.h"

namespace ryx::platform {

// Six bytes in transmission order. The default is all zero.
class RYX_PRIVATE MacAddr {
 public:
  static constexpr size_t kMaxText = 17;  // there is no terminating zero

  constexpr MacAddr() = default;
  explicit MacAddr(const uint8_t* bytes) { std::memcpy(bytes_, bytes, sizeof bytes_); }
  constexpr MacAddr(uint8_t b0, uint8_t b1, uint8_t b2, uint8_t b3, uint8_t b4, uint8_t b5)
      : bytes_{b0, b1, b2, b3, b4, b5} {}

  constexpr const uint8_t* bytes() const { return bytes_; }

  // The address as a 48-bit number, byte 0 the most significant.
  constexpr uint64_t value() const {
    uint64_t value = 0;
    for (uint8_t byte : bytes_) value = value << 8 | byte;
    return value;
  }

  constexpr bool isZero() const { return value() == 0; }
  constexpr bool isMulticast() const { return bytes_[0] & 1; }  // IEEE 802: the I/G bit
  constexpr bool isBroadcast() const { return value() == 0xffffffffffffu; }

  // Writes "%02x:%02x:%02x:%02x:%02x:%02x" and returns its end; `out` has kMaxText bytes.
  char* print(char* out) const;
  std::string toString() const;

  uint64_t hash(uint64_t seed = hashSeed) const { return hashInRow(value(), seed); }

  friend constexpr bool operator==(const MacAddr& a, const MacAddr& b) {
    return a.value() == b.value();
  }
  friend constexpr std::strong_ordering operator<=>(const MacAddr& a, const MacAddr& b) {
    return a.value() <=> b.value();
  }

 private:
  uint8_t bytes_[6] = {};
};

static_assert(sizeof(MacAddr) == 6 && alignof(MacAddr) == 1);

// A VLAN number, 1..4094. The default is 1, the default port VLAN of IEEE 802.1Q.
class RYX_PRIVATE VlanId {
 public:
  static constexpr uint16_t kMin = 1;
  static constexpr uint16_t kMax = 4094;

  constexpr VlanId() = default;
  // Throws the range error "VlanId::value < 1 or > 4094 not allowed".
  explicit constexpr VlanId(uint16_t value) : value_(value) {
    if (!isValid()) [[unlikely]]
      throwRange();
  }

  constexpr uint16_t value() const { return value_; }
  constexpr bool isValid() const { return value_ >= kMin && value_ <= kMax; }
  std::string toString() const { return std::to_string(value_); }
  uint64_t hash(uint64_t seed = hashSeed) const { return hashInRow(value_, seed); }

  friend constexpr bool operator==(const VlanId&, const VlanId&) = default;
  friend constexpr std::strong_ordering operator<=>(const VlanId&, const VlanId&) = default;

 private:
  [[noreturn]] static void throwRange();

  uint16_t value_ = kMin;
};

// Returns false, and leaves the result untouched, for a text that is not exactly a MAC address: six
// pairs of hexadecimal digits of either case, all separated by ":" or all by "-" (IEEE 802), or
// three groups of four separated by ".".
[[nodiscard]] RYX_PRIVATE bool parse(std::string_view text, MacAddr* result);

// A decimal number 1..4094 without leading zeros.
[[nodiscard]] RYX_PRIVATE bool parse(std::string_view text, VlanId* result);

RYX_PRIVATE std::ostream& operator<<(std::ostream& out, const MacAddr& addr);
RYX_PRIVATE std::ostream& operator<<(std::ostream& out, VlanId vlan);

}  // namespace ryx::platform

template <>
struct std::hash<ryx::platform::MacAddr> {
  size_t operator()(const ryx::platform::MacAddr& v) const { return v.hash(); }
};
template <>
struct std::hash<ryx::platform::VlanId> {
  size_t operator()(const ryx::platform::VlanId& v) const { return v.hash(); }
};
