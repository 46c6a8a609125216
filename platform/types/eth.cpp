#include "platform/types/eth.h"

#include <ostream>

#include "platform/base/range.h"
#include "platform/types/digits.h"

namespace ryx::platform {

namespace {

// The digit's value, or -1.
int hexDigit(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  char lower = static_cast<char>(c | 0x20);
  return lower >= 'a' && lower <= 'f' ? lower - 'a' + 10 : -1;
}

// The grouping of a text of this length and first separator: the digits between two separators, 0
// when no form has it.
size_t groupDigits(std::string_view text) {
  if (text.size() == 17 && (text[2] == ':' || text[2] == '-')) return 2;
  return text.size() == 14 && text[4] == '.' ? 4 : 0;
}

}  // namespace

char* MacAddr::print(char* out) const {
  static constexpr char kDigits[] = "0123456789abcdef";
  for (int i = 0; i < 6; ++i) {
    if (i != 0) *out++ = ':';
    *out++ = kDigits[bytes_[i] >> 4];
    *out++ = kDigits[bytes_[i] & 15];
  }
  return out;
}

std::string MacAddr::toString() const {
  char text[kMaxText];
  return std::string(text, print(text));
}

void VlanId::throwRange() {
  throwRangeError("VlanId::value < 1 or > 4094 not allowed");
}

bool parse(std::string_view text, MacAddr* result) {
  size_t group = groupDigits(text);
  if (group == 0) return false;
  char separator = text[group];
  uint8_t bytes[6] = {};
  size_t digits = 0;
  for (size_t i = 0; i < text.size(); ++i) {
    if (i % (group + 1) == group) {
      if (text[i] != separator) return false;
      continue;
    }
    int digit = hexDigit(text[i]);
    if (digit < 0) return false;
    uint8_t& byte = bytes[digits++ / 2];
    byte = static_cast<uint8_t>(byte << 4 | digit);
  }
  *result = MacAddr(bytes);
  return true;
}

bool parse(std::string_view text, VlanId* result) {
  const char* at = text.data();
  const char* end = at + text.size();
  uint32_t number;
  if (!readNumber(&at, end, VlanId::kMax, &number) || at != end || number < VlanId::kMin) {
    return false;
  }
  *result = VlanId(static_cast<uint16_t>(number));
  return true;
}

std::ostream& operator<<(std::ostream& out, const MacAddr& addr) {
  return out << addr.toString();
}

std::ostream& operator<<(std::ostream& out, VlanId vlan) {
  return out << vlan.value();
}

}  // namespace ryx::platform
