// The out-of-line members of the MAC address.
#include "ryx/eth.h"

#include <ostream>
#include <string_view>

#include "lib/convert.h"
#include "ryx/panic.h"

namespace ryx {

namespace {

eth_addr_t parseEthAddr(std::string_view text) {
  platform::MacAddr addr;
  if (!platform::parse(text, &addr)) panic(invalid_argument_error("MAC address"));
  return convert(addr);
}

}  // namespace

eth_addr_t::eth_addr_t(const char* text)
    : eth_addr_t(parseEthAddr(text == nullptr ? std::string_view() : text)) {}

eth_addr_t::eth_addr_t(const std::string& text) : eth_addr_t(parseEthAddr(text)) {}

uint8_t eth_addr_t::byte(int index) const {
  if (index < 0 || index > 5) panic(invalid_range_error("index", 0, 5));
  return bytes_[index];
}

std::size_t eth_addr_t::hash() const {
  return convert(*this).hash();
}

std::string eth_addr_t::to_string() const {
  return convert(*this).toString();
}

std::ostream& operator<<(std::ostream& out, const eth_addr_t& addr) {
  return out << addr.to_string();
}

}  // namespace ryx
