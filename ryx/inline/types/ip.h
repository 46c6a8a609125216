// The inline members of the types of ryx/ip.h, which includes this file.
#ifndef RYX_INLINE_TYPES_IP_H
#define RYX_INLINE_TYPES_IP_H

#include <ryx/ip.h>

namespace ryx {

inline ip_addr_t::ip_addr_t() : af_(AF_NULL), addr_{} {}

inline af_t ip_addr_t::af() const {
  return af_;
}

inline const uint8_t* ip_addr_t::bytes() const {
  return addr_;
}

inline uint32_t ip_addr_t::addr_v4() const {
  if (af_ != AF_IPV4) return 0;
  return uint32_t{addr_[0]} << 24 | uint32_t{addr_[1]} << 16 | uint32_t{addr_[2]} << 8 |
         uint32_t{addr_[3]};
}

inline bool ip_addr_t::operator!() const {
  return af_ == AF_NULL;
}

inline bool ip_addr_t::operator!=(const ip_addr_t& other) const {
  return !(*this == other);
}

inline ip_prefix_t::ip_prefix_t() : prefix_length_(0) {}

inline const ip_addr_t& ip_prefix_t::address() const {
  return address_;
}

inline uint8_t ip_prefix_t::prefix_length() const {
  return prefix_length_;
}

inline af_t ip_prefix_t::af() const {
  return address_.af();
}

inline bool ip_prefix_t::operator!=(const ip_prefix_t& other) const {
  return !(*this == other);
}

inline ip_addr_mask_t::ip_addr_mask_t() : mask_length_(0) {}

inline const ip_addr_t& ip_addr_mask_t::address() const {
  return address_;
}

inline uint8_t ip_addr_mask_t::mask_length() const {
  return mask_length_;
}

inline af_t ip_addr_mask_t::af() const {
  return address_.af();
}

inline bool ip_addr_mask_t::operator!=(const ip_addr_mask_t& other) const {
  return !(*this == other);
}

}  // namespace ryx

#endif
