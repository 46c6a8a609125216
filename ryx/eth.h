// MAC addresses and VLAN numbers: the value types of layer 2. Plain copyable values; any thread may
// use them, as any value.
#ifndef RYX_ETH_H
#define RYX_ETH_H

#include <ryx/api.h>

#include <bitset>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <iosfwd>
#include <string>

namespace ryx {

/// A VLAN number (IEEE 802.1Q VLAN identifier). Valid VLANs are 1..4094.
typedef uint16_t vlan_id_t;

/// A set of VLANs, one bit for each number 0..4095.
typedef std::bitset<4096> vlan_set_t;

/// A MAC address (IEEE 802 EUI-48): six bytes in transmission order.
class RYX_API eth_addr_t {
 public:
  /// 00:00:00:00:00:00.
  eth_addr_t();

  /// From text: six pairs of hexadecimal digits of either case, all separated by ":" or all by "-",
  /// or three groups of four digits separated by ".". Raises an invalid_argument_error for
  /// "MAC address" for every other text; a null one counts as empty.
  eth_addr_t(const char* text);
  eth_addr_t(const std::string& text);

  /// From the six bytes, byte 0 first.
  eth_addr_t(uint8_t byte0, uint8_t byte1, uint8_t byte2, uint8_t byte3, uint8_t byte4,
             uint8_t byte5);

  /// Byte `index`, 0..5. Raises an invalid_range_error for "index" for every other.
  uint8_t byte(int index) const;

  /// Copies the six bytes to `out`.
  void bytes(void* out) const;

  /// The individual/group bit, the least significant one of byte 0 (IEEE 802): an address is
  /// multicast when it is set, unicast when it is clear. Broadcast, all ones, is also multicast.
  bool is_unicast() const;
  bool is_multicast() const;
  bool is_broadcast() const;

  bool operator==(const eth_addr_t& other) const;
  bool operator!=(const eth_addr_t& other) const;
  /// By the bytes, byte 0 first.
  bool operator<(const eth_addr_t& other) const;

  std::size_t hash() const;

  /// "%02x:%02x:%02x:%02x:%02x:%02x": lower case, byte 0 first.
  std::string to_string() const;

 private:
  uint8_t bytes_[6];
};

/// What to_string() gives.
RYX_API std::ostream& operator<<(std::ostream& out, const eth_addr_t& addr);

}  // namespace ryx

template <>
struct std::hash<ryx::eth_addr_t> {
  std::size_t operator()(const ryx::eth_addr_t& value) const { return value.hash(); }
};

#include <ryx/inline/types/eth.h>

#endif
