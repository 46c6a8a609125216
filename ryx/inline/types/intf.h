// Interface identifiers: the value that names an interface in every call. Plain copyable values;
// any thread may use them, as any value.
//
// An interface has one name, case-sensitive, its numbers decimal without leading zeros:
//
//   Ethernet<slot>[/<port>[/<lane>]][.<sub>]   Ethernet1, Ethernet3/1, Ethernet3/1/4, Ethernet1.100
//   Port-Channel<n>[.<sub>]                    Port-Channel10, Port-Channel5.7
//   Management<slot>[/<port>]                  Management0, Management1/1
//   Vlan<vlan>   Loopback<n>   Vxlan<n>   Tunnel<n>   Null0
//
// and the switch's internal interfaces Cpu[<n>], Internal<n>, PeerEthernet... and
// PeerPort-Channel<n> (the last two stand for the interfaces of an MLAG partner). slot 0..65535;
// port 1..511; lane 1..255; sub 1..16777215; vlan 1..4094; n 0..16777215, from 1 for port-channels
// and Cpu.
#ifndef RYX_INLINE_TYPES_INTF_H
#define RYX_INLINE_TYPES_INTF_H

#include <ryx/api.h>

#include <cstddef>
#include <cstdint>
#include <functional>
#include <iosfwd>
#include <string>

namespace ryx {

enum intf_type_t {
  INTF_TYPE_NULL = 0,        ///< the empty identifier
  INTF_TYPE_OTHER = 1,       ///< a kind that is not listed here
  INTF_TYPE_ETH = 2,         ///< Ethernet front-panel ports and their subinterfaces
  INTF_TYPE_VLAN = 3,        ///< VLAN (switched virtual) interfaces
  INTF_TYPE_MANAGEMENT = 4,  ///< management ports
  INTF_TYPE_LOOPBACK = 5,    ///< loopback interfaces
  INTF_TYPE_LAG = 6,         ///< port-channels (IEEE 802.1AX) and their subinterfaces
  INTF_TYPE_NULL0 = 7,       ///< the discard interface "Null0"
  INTF_TYPE_SYSTEM = 8,      ///< the switch's own processor ports, which have no manager
  INTF_TYPE_VXLAN = 9,       ///< VXLAN tunnel interfaces (RFC 7348)
};

/// An interface's identifier, a 64-bit number made from its name. It says nothing of whether the
/// switch has that interface.
class RYX_API intf_id_t {
 public:
  /// The empty identifier: it names no interface.
  intf_id_t();

  /// The interface of that name. Raises a no_such_interface_error ("Bad interface name: " and the
  /// name) for a text that is no name; a null one counts as empty.
  intf_id_t(const char* name);
  intf_id_t(const std::string& name);

  /// An identifier in the switch's own encoding, not checked, and back.
  static intf_id_t from_value(uint64_t value);
  uint64_t value() const;

  /// True for the empty identifier.
  bool operator!() const;

  intf_type_t intf_type() const;
  bool is_null0() const;

  /// True for the subinterfaces of an Ethernet port or port-channel.
  bool is_subintf() const;

  bool operator==(const intf_id_t& other) const;
  bool operator!=(const intf_id_t& other) const;
  /// By the 64-bit value: within a kind by the numbers of the name (Ethernet2 before Ethernet10), a
  /// subinterface right after its parent. The empty identifier comes last.
  bool operator<(const intf_id_t& other) const;

  std::size_t hash() const;

  /// The name. Empty for the empty identifier; "InvalidIntf(0x0123456789abcdef)" for a value that
  /// is no interface's.
  std::string to_string() const;

 private:
  uint32_t first_word_;  // the kind code in the top 7 bits
  uint32_t second_word_;
};

/// The enumerator's name.
RYX_API std::ostream& operator<<(std::ostream& out, intf_type_t type);

/// What to_string() gives.
RYX_API std::ostream& operator<<(std::ostream& out, const intf_id_t& intf);

inline intf_id_t::intf_id_t() : first_word_(0xffffffffu), second_word_(0) {}

inline intf_id_t intf_id_t::from_value(uint64_t value) {
  intf_id_t intf;
  intf.first_word_ = static_cast<uint32_t>(value >> 32);
  intf.second_word_ = static_cast<uint32_t>(value);
  return intf;
}

inline uint64_t intf_id_t::value() const {
  return uint64_t{first_word_} << 32 | second_word_;
}

inline bool intf_id_t::operator!() const {
  return first_word_ == 0xffffffffu && second_word_ == 0;
}

inline bool intf_id_t::operator==(const intf_id_t& other) const {
  return first_word_ == other.first_word_ && second_word_ == other.second_word_;
}

inline bool intf_id_t::operator!=(const intf_id_t& other) const {
  return !(*this == other);
}

inline bool intf_id_t::operator<(const intf_id_t& other) const {
  return value() < other.value();
}

}  // namespace ryx

template <>
struct std::hash<ryx::intf_id_t> {
  std::size_t operator()(const ryx::intf_id_t& value) const { return value.hash(); }
};

#endif
