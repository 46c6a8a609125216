// Interface identifiers and the interface-name codec. An identifier is one 64-bit number made from
// the interface's name and turned back into it: what the switch calls an interface, small enough to
// be a key everywhere. Everything here is a pure function of the value, safe in any thread, and
// allocates nothing but the string that toString() returns.
//
// Names. One spelling each, case-sensitive; numbers are decimal without leading zeros.
//
//   Ethernet<slot>[/<port>[/<lane>]][.<sub>]   Ethernet1, Ethernet3/1, Ethernet3/1/4, Ethernet1.100
//   Port-Channel<n>[.<sub>]                    Port-Channel10, Port-Channel5.7
//   Management<slot>[/<port>]                  Management0, Management1/1
//   Vlan<vlan>   Loopback<n>   Vxlan<n>   Tunnel<n>   Null0
//   Cpu[<n>]                                   the switch's own processor port, or a card's
//   Internal<n>                                ports inside the switch
//   PeerEthernet<slot>[/<port>[/<lane>]]       the MLAG partner's ports
//   PeerPort-Channel<n>
//
//   slot 0..65535; port 1..511; lane 1..255; sub 1..16777215; vlan 1..4094;
//   n 0..16777215, but 1..16777215 for Port-Channel, PeerPort-Channel and Cpu.
//
// Bits. The top 7 bits of the first word (the high half) are the kind code.
//
//   ports:    first word   kind(7) slot(16) port(9)    second word   lane(8) sub(24)
//   numbers:  first word   kind(7) n(25)               second word   0(8) sub(24)
//
// A part that the name does not have is 0. So identifiers of a kind order by their numbers, a part
// left out first: Ethernet1, Ethernet1.5, Ethernet1/1, Ethernet2, Ethernet10.
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

namespace ryx::platform {

enum class IntfKind : uint8_t {
  ethernet = 0,
  vlan = 1,
  management = 2,
  loopback = 3,
  cpu = 6,
  portChannel = 7,
  null0 = 8,
  internal = 9,
  peerEthernet = 10,
  peerPortChannel = 11,
  tunnel = 12,
  vxlan = 56,
  none = 127,  // the kind code of the empty identifier
};

// An interface's identifier. Any 64-bit value may be held and asked; isValid() tells whether it is
// the identifier of a name. Ordered by the 64-bit value.
class RYX_PRIVATE IntfId {
 public:
  static constexpr uint64_t kEmpty = 0xffffffff00000000u;
  // The longest text that print() writes; there is no terminating zero.
  static constexpr size_t kMaxText = 32;
  static constexpr bool kHoldsAnyValue = true;

  constexpr IntfId() = default;  // the empty identifier: it names no interface
  explicit constexpr IntfId(uint64_t value) : value_(value) {}

  constexpr uint64_t value() const { return value_; }
  constexpr uint32_t firstWord() const { return static_cast<uint32_t>(value_ >> 32); }
  constexpr uint32_t secondWord() const { return static_cast<uint32_t>(value_); }
  constexpr bool isEmpty() const { return value_ == kEmpty; }

  // Whether some name has this identifier. False for the empty one.
  bool isValid() const;

  // The kind code, which may be none of the enumerators when the identifier is not valid.
  constexpr IntfKind kind() const { return static_cast<IntfKind>(value_ >> 57); }

  constexpr bool isEth() const { return kind() == IntfKind::ethernet; }
  constexpr bool isLag() const { return kind() == IntfKind::portChannel; }
  constexpr bool isVlan() const { return kind() == IntfKind::vlan; }
  constexpr bool isManagement() const { return kind() == IntfKind::management; }
  constexpr bool isLoopback() const { return kind() == IntfKind::loopback; }
  constexpr bool isVxlan() const { return kind() == IntfKind::vxlan; }
  constexpr bool isNull0() const { return kind() == IntfKind::null0; }
  constexpr bool isPeerEth() const { return kind() == IntfKind::peerEthernet; }
  constexpr bool isPeerLag() const { return kind() == IntfKind::peerPortChannel; }

  // The switch's own internal interfaces: Internal and Cpu.
  constexpr bool isInternal() const {
    return kind() == IntfKind::internal || kind() == IntfKind::cpu;
  }

  // The VLAN of a VLAN interface; 0 for every other kind.
  constexpr uint16_t vlanId() const {
    return isVlan() ? static_cast<uint16_t>(firstWord()) : uint16_t{0};
  }

  // The sub-interface number of an Ethernet port or port-channel; 0 when it has none, and for every
  // other kind.
  constexpr uint32_t subintfId() const { return isEth() || isLag() ? secondWord() & kSubMask : 0; }
  constexpr bool isSubintf() const { return subintfId() != 0; }

  // The interface that a sub-interface is part of; for every other identifier, itself.
  constexpr IntfId parent() const {
    return isSubintf() ? IntfId(value_ & ~uint64_t{kSubMask}) : *this;
  }

  // Writes the name and returns its end; `out` has kMaxText bytes. The empty identifier has no
  // text; one that is not valid prints as "InvalidIntf(0x" its 16 hexadecimal digits ")", which no
  // parser takes for a name.
  char* print(char* out) const;
  std::string toString() const;

  // Of interfaces that differ in the last of their numbers, in a row.
  uint64_t hash(uint64_t seed = hashSeed) const {
    unsigned last = (secondWord() & kSubMask) != 0   ? 0
                    : secondWord() != 0              ? 24
                    : (firstWord() & kPortMask) != 0 ? 32
                                                     : 41;
    uint64_t number = value_ >> last;
    return hashPlaced(hashMix(number / kHashPlaces, last, seed), number % kHashPlaces);
  }

  friend constexpr bool operator==(const IntfId&, const IntfId&) = default;
  friend constexpr std::strong_ordering operator<=>(const IntfId&, const IntfId&) = default;

 private:
  static constexpr uint32_t kSubMask = 0xffffff;
  static constexpr uint32_t kPortMask = 0x1ff;

  uint64_t value_ = kEmpty;
};

// Name to identifier. Returns false, and leaves the result untouched, for a text that is not
// exactly a name of the grammar above.
[[nodiscard]] RYX_PRIVATE bool parse(std::string_view name, IntfId* result);

RYX_PRIVATE std::ostream& operator<<(std::ostream& out, IntfId intf);

}  // namespace ryx::platform

template <>
struct std::hash<ryx::platform::IntfId> {
  size_t operator()(const ryx::platform::IntfId& v) const { return v.hash(); }
};
