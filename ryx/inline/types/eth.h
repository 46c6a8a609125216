// The inline members of the types of ryx/eth.h, which includes this file.
#ifndef RYX_INLINE_TYPES_ETH_H
#define RYX_INLINE_TYPES_ETH_H

#include <ryx/eth.h>

#include <cstring>

namespace ryx {

inline eth_addr_t::eth_addr_t() : bytes_{} {}

inline eth_addr_t::eth_addr_t(uint8_t byte0, uint8_t byte1, uint8_t byte2, uint8_t byte3,
                              uint8_t byte4, uint8_t byte5)
    : bytes_{byte0, byte1, byte2, byte3, byte4, byte5} {}

inline void eth_addr_t::bytes(void* out) const {
  std::memcpy(out, bytes_, sizeof bytes_);
}

inline bool eth_addr_t::is_unicast() const {
  return !is_multicast();
}

inline bool eth_addr_t::is_multicast() const {
  return (bytes_[0] & 1) != 0;
}

inline bool eth_addr_t::is_broadcast() const {
  return (bytes_[0] & bytes_[1] & bytes_[2] & bytes_[3] & bytes_[4] & bytes_[5]) == 0xff;
}

inline bool eth_addr_t::operator==(const eth_addr_t& other) const {
  return std::memcmp(bytes_, other.bytes_, sizeof bytes_) == 0;
}

inline bool eth_addr_t::operator!=(const eth_addr_t& other) const {
  return !(*this == other);
}

inline bool eth_addr_t::operator<(const eth_addr_t& other) const {
  return std::memcmp(bytes_, other.bytes_, sizeof bytes_) < 0;
}

}  // namespace ryx

#endif
