#include "platform/types/ip.h"

#include <arpa/inet.h>

#include <ostream>

#include "platform/base/check.h"
#include "platform/base/range.h"
#include "platform/types/digits.h"

namespace ryx::platform {

static_assert(IpAddr::kMaxText == INET6_ADDRSTRLEN - 1);

IpAddr::IpAddr(Af af, const uint8_t* bytes) : af_(af) {
  std::memcpy(bytes_, bytes, size());
}

IpAddr IpAddr::masked(uint8_t length) const {
  if (length >= maxLength()) return *this;
  uint64_t highMask = length >= 64 ? ~uint64_t{0} : length == 0 ? 0 : ~uint64_t{0} << (64 - length);
  uint64_t lowMask = length <= 64 ? 0 : ~uint64_t{0} << (128 - length);
  IpAddr result = *this;
  storeBe64(result.bytes_, high() & highMask);
  storeBe64(result.bytes_ + 8, low() & lowMask);
  return result;
}

bool IpAddr::isLoopback() const {
  if (af_ == Af::ipv4) return bytes_[0] == 127;
  return af_ == Af::ipv6 && high() == 0 && low() == 1;
}

bool IpAddr::isMulticast() const {
  if (af_ == Af::ipv4) return (bytes_[0] & 0xf0) == 0xe0;
  return af_ == Af::ipv6 && bytes_[0] == 0xff;
}

bool IpAddr::isLinkLocal() const {
  if (af_ == Af::ipv4) return bytes_[0] == 169 && bytes_[1] == 254;
  return af_ == Af::ipv6 && bytes_[0] == 0xfe && (bytes_[1] & 0xc0) == 0x80;
}

char* IpAddr::print(char* out) const {
  if (af_ == Af::ipv4) {
    out = writeNumber(out, bytes_[0]);
    for (int i = 1; i < 4; ++i) {
      *out++ = '.';
      out = writeNumber(out, bytes_[i]);
    }
    return out;
  }
  if (af_ != Af::ipv6) return out;
  char text[INET6_ADDRSTRLEN];
  check(inet_ntop(AF_INET6, bytes_, text, sizeof text) != nullptr, "inet_ntop(AF_INET6) failed");
  size_t length = std::strlen(text);
  std::memcpy(out, text, length);
  return out + length;
}

namespace {

template <class Value>
std::string textOf(const Value& value) {
  char text[Value::kMaxText];
  return std::string(text, value.print(text));
}

char* printWithLength(char* out, const IpAddr& addr, uint8_t length) {
  out = addr.print(out);
  *out++ = '/';
  return writeNumber(out, length);
}

// "ADDRESS/LENGTH", the length at most the family's.
bool parseWithLength(std::string_view text, IpAddr* addr, uint8_t* length) {
  size_t slash = text.find('/');
  if (slash == text.npos || !parse(text.substr(0, slash), addr)) return false;
  const char* at = text.data() + slash + 1;
  const char* end = text.data() + text.size();
  uint32_t number;
  if (!readNumber(&at, end, addr->maxLength(), &number) || at != end) return false;
  *length = static_cast<uint8_t>(number);
  return true;
}

}  // namespace

std::string IpAddr::toString() const {
  return textOf(*this);
}

IpPrefix::IpPrefix(const IpAddr& addr, uint8_t length) : addr_(addr), length_(length) {
  if (length > addr.maxLength())
    throwRangeError("IpPrefix::length > IpPrefix::maxLength not allowed");
  if (!addr.isMasked(length)) throwRangeError("IpPrefix::addr with host bits not allowed");
}

IpPrefix IpPrefix::containing(const IpAddr& addr, uint8_t length) {
  IpPrefix result;
  result.addr_ = addr.masked(length);
  result.length_ = length < addr.maxLength() ? length : addr.maxLength();
  return result;
}

char* IpPrefix::print(char* out) const {
  return printWithLength(out, addr_, length_);
}

std::string IpPrefix::toString() const {
  return textOf(*this);
}

IpAddrMask::IpAddrMask(const IpAddr& addr, uint8_t length) : addr_(addr), length_(length) {
  if (length > kMaxLength) throwRangeError("IpAddrMask::length > 128 not allowed");
}

bool IpAddrMask::isValid() const {
  return addr_.isValid() && length_ <= kMaxLength;
}

char* IpAddrMask::print(char* out) const {
  return printWithLength(out, addr_, length_);
}

std::string IpAddrMask::toString() const {
  return textOf(*this);
}

bool parse(std::string_view text, IpAddr* result) {
  char copy[IpAddr::kMaxText + 1];
  if (text.size() >= sizeof copy || text.find('\0') != text.npos) return false;
  std::memcpy(copy, text.data(), text.size());
  copy[text.size()] = '\0';

  uint8_t bytes[16];
  Af af = Af::ipv4;
  if (inet_pton(AF_INET, copy, bytes) != 1) {
    af = Af::ipv6;
    if (inet_pton(AF_INET6, copy, bytes) != 1) return false;
  }
  *result = IpAddr(af, bytes);
  return true;
}

bool parse(std::string_view text, IpPrefix* result) {
  IpAddr addr;
  uint8_t length;
  if (!parseWithLength(text, &addr, &length) || addr.masked(length) != addr) return false;
  *result = IpPrefix(addr, length);
  return true;
}

bool parse(std::string_view text, IpAddrMask* result) {
  IpAddr addr;
  uint8_t length;
  if (!parseWithLength(text, &addr, &length)) return false;
  *result = IpAddrMask(addr, length);
  return true;
}

std::ostream& operator<<(std::ostream& out, Af af) {
  switch (af) {
    case Af::null:
      return out << "null";
    case Af::ipv4:
      return out << "ipv4";
    case Af::ipv6:
      return out << "ipv6";
  }
  return out << "af " << int{static_cast<uint8_t>(af)};
}

std::ostream& operator<<(std::ostream& out, const IpAddr& addr) {
  return out << addr.toString();
}

std::ostream& operator<<(std::ostream& out, const IpPrefix& prefix) {
  return out << prefix.toString();
}

std::ostream& operator<<(std::ostream& out, const IpAddrMask& mask) {
  return out << mask.toString();
}

}  // namespace ryx::platform
