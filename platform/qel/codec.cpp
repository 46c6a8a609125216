#include "platform/qel/codec.h"

#include <algorithm>
#include <charconv>
#include <cmath>
#include <cstdio>

namespace ryx::platform {
namespace {

// The length of the well-formed UTF-8 sequence (RFC 3629) at the start of `s`, 0 when there is
// none.
size_t utf8Length(std::string_view s) {
  auto b = [&](size_t i) { return static_cast<uint8_t>(s[i]); };
  size_t n = b(0) < 0x80                   ? 1
             : b(0) >= 0xc2 && b(0) < 0xe0 ? 2
             : b(0) >= 0xe0 && b(0) < 0xf0 ? 3
             : b(0) >= 0xf0 && b(0) < 0xf5 ? 4
                                           : 0;
  if (n == 0 || n > s.size()) return 0;
  for (size_t i = 1; i < n; ++i)
    if ((b(i) & 0xc0) != 0x80) return 0;
  if (n == 3 && ((b(0) == 0xe0 && b(1) < 0xa0) || (b(0) == 0xed && b(1) >= 0xa0))) return 0;
  if (n == 4 && ((b(0) == 0xf0 && b(1) < 0x90) || (b(0) == 0xf4 && b(1) >= 0x90))) return 0;
  return n;
}

}  // namespace

void Encoder::grow(size_t n) {
  out_.resize(size_ + n + std::max<size_t>(size_, 64));
}

void JsonWriter::separate() {
  if (!first_ && !afterKey_) out_ += ',';
  first_ = false;
  afterKey_ = false;
}

void JsonWriter::open(char c) {
  separate();
  out_ += c;
  first_ = true;
}

void JsonWriter::close(char c) {
  out_ += c;
  first_ = false;
}

void JsonWriter::quoted(std::string_view value) {
  out_ += '"';
  while (!value.empty()) {
    size_t n = utf8Length(value);
    auto c = static_cast<uint8_t>(value[0]);
    if (n == 0) {
      out_ += "\xef\xbf\xbd";
      n = 1;
    } else if (c == '"' || c == '\\') {
      out_ += '\\';
      out_ += static_cast<char>(c);
    } else if (c < 0x20 || c == 0x7f) {
      char escape[8];
      std::snprintf(escape, sizeof escape, "\\u%04x", c);
      out_ += escape;
    } else {
      out_.append(value.substr(0, n));
    }
    value.remove_prefix(n);
  }
  out_ += '"';
}

void JsonWriter::key(std::string_view name) {
  separate();
  quoted(name);
  out_ += ':';
  afterKey_ = true;
}

void JsonWriter::string(std::string_view value) {
  separate();
  quoted(value);
}

void JsonWriter::number(uint64_t value) {
  separate();
  out_ += std::to_string(value);
}

void JsonWriter::number(int64_t value) {
  separate();
  out_ += std::to_string(value);
}

void JsonWriter::number(double value) {
  if (!std::isfinite(value)) return null();
  separate();
  char text[32];  // the shortest that reads back the same, whatever the locale
  out_.append(text, std::to_chars(text, text + sizeof text, value).ptr);
}

void JsonWriter::boolean(bool value) {
  separate();
  out_ += value ? "true" : "false";
}

void JsonWriter::null() {
  separate();
  out_ += "null";
}

}  // namespace ryx::platform
