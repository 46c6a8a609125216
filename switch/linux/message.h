// Messages of a netlink protocol (RFC 3549): a header, a fixed part of its type, and attributes.
#pragma once

#include <libmnl/libmnl.h>
#include <linux/netlink.h>

#include <array>
#include <cstdint>
#include <string>
#include <string_view>

#include "platform/base/check.h"

namespace ryx::kernel {

// Whether a message stands whole in that many bytes. mnl_nlmsg_ok() alone takes a length of 2 GiB
// and more for a negative one.
inline bool isWhole(const nlmsghdr* message, size_t bytes) {
  return bytes <= INT32_MAX && mnl_nlmsg_ok(message, static_cast<int>(bytes)) &&
         message->nlmsg_len <= bytes;
}

// A message to be sent, built in place.
class Message {
 public:
  // Named bound: the size of a message with all its attributes, in bytes.
  static constexpr size_t kMaxSize = 4096;

  explicit Message(uint16_t type, uint16_t flags = 0) {
    mnl_nlmsg_put_header(bytes_.data());
    header()->nlmsg_type = type;
    header()->nlmsg_flags = static_cast<uint16_t>(NLM_F_REQUEST | flags);
  }

  nlmsghdr* header() { return reinterpret_cast<nlmsghdr*>(bytes_.data()); }
  const nlmsghdr* header() const { return reinterpret_cast<const nlmsghdr*>(bytes_.data()); }
  std::string_view bytes() const { return {bytes_.data(), header()->nlmsg_len}; }

  // The fixed part, all zero; before any attribute.
  template <class T>
  T& fixed() {
    return *static_cast<T*>(mnl_nlmsg_put_extra_header(header(), sizeof(T)));
  }
  void put(uint16_t attribute, std::string_view value) {
    platform::check(
        mnl_attr_put_check(header(), bytes_.size(), attribute, value.size(), value.data()),
        "a message fits its buffer");
  }
  void put(uint16_t attribute, uint32_t value) {
    put(attribute, std::string_view(reinterpret_cast<const char*>(&value), sizeof value));
  }

 private:
  alignas(nlmsghdr) std::array<char, kMaxSize> bytes_;
};

}  // namespace ryx::kernel
