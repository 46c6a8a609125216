// The byte forms of values: a compact binary form for the link between processes, and JSON for
// people and tools. Numbers are little-endian base-128 varints; texts and byte strings carry their
// length. A Decoder never reads past its end and never trusts a length: it turns to failed and
// stays so.
#pragma once

#include <cstdint>
#include <cstring>
#include <string>
#include <string_view>
#include <utility>

#include "platform/base/api.h"

namespace ryx::platform {

class Encoder {
 public:
  // What was written, as a view that the next write ends, or as a string.
  std::string_view view() const { return {out_.data(), size_}; }
  const std::string& bytes() const {
    out_.resize(size_);
    return out_;
  }
  size_t size() const { return size_; }
  void clear() { size_ = 0; }
  void swap(Encoder& o) noexcept {
    out_.swap(o.out_);
    std::swap(size_, o.size_);
  }

  void u8(uint8_t v) {
    *room(1) = static_cast<char>(v);
    ++size_;
  }
  void varint(uint64_t v) {
    char* at = room(kMaxVarint);
    while (v >= 0x80) {
      *at++ = static_cast<char>(v | 0x80);
      v >>= 7;
    }
    *at++ = static_cast<char>(v);
    size_ = static_cast<size_t>(at - out_.data());
  }
  // Signed numbers, small magnitudes short.
  void zigzag(int64_t v) {
    varint((static_cast<uint64_t>(v) << 1) ^ static_cast<uint64_t>(v >> 63));
  }
  void raw(const void* data, size_t size) {
    if (size == 0) return;
    std::memcpy(room(size), data, size);
    size_ += size;
  }
  void text(std::string_view v) {
    varint(v.size());
    raw(v.data(), v.size());
  }
  // A length that is known only afterwards. One byte is kept free for it; what is longer than 127
  // bytes moves up once.
  size_t beginLength() {
    u8(0);
    return size_;
  }
  void endLength(size_t mark) {
    size_t n = size_ - mark;
    if (n < 0x80) {
      out_[mark - 1] = static_cast<char>(n);
      return;
    }
    char tmp[kMaxVarint];
    size_t used = 0;
    for (size_t v = n; used == 0 || v != 0; v >>= 7)
      tmp[used++] = static_cast<char>((v & 0x7f) | (v >= 0x80 ? 0x80 : 0));
    room(used - 1);
    std::memmove(&out_[mark - 1 + used], &out_[mark], n);
    std::memcpy(&out_[mark - 1], tmp, used);
    size_ += used - 1;
  }
  // Takes back everything behind `size`.
  void truncate(size_t size) { size_ = size; }

 private:
  static constexpr size_t kMaxVarint = 10;

  char* room(size_t n) {
    if (out_.size() - size_ < n) [[unlikely]]
      grow(n);
    return out_.data() + size_;
  }
  RYX_PRIVATE void grow(size_t n);

  mutable std::string out_;  // as long as there is room, mostly longer than what was written
  size_t size_ = 0;
};

class Decoder {
 public:
  Decoder(const void* data, size_t size) : at_(static_cast<const char*>(data)), end_(at_ + size) {}
  explicit Decoder(std::string_view bytes) : Decoder(bytes.data(), bytes.size()) {}

  bool failed() const { return failed_; }
  bool done() const { return failed_ || at_ == end_; }
  size_t left() const { return static_cast<size_t>(end_ - at_); }
  void fail() {
    failed_ = true;
    at_ = end_;
  }

  uint8_t u8() {
    if (at_ == end_) return fail(), 0;
    return static_cast<uint8_t>(*at_++);
  }
  uint64_t varint() {
    uint64_t v = 0;
    for (int shift = 0; shift < 64; shift += 7) {
      if (at_ == end_) break;
      auto b = static_cast<uint8_t>(*at_++);
      if (shift == 63 && b > 1) break;
      v |= static_cast<uint64_t>(b & 0x7f) << shift;
      if (b < 0x80) return v;
    }
    return fail(), 0;
  }
  int64_t zigzag() {
    uint64_t v = varint();
    return static_cast<int64_t>(v >> 1) ^ -static_cast<int64_t>(v & 1);
  }
  bool raw(void* out, size_t size) {
    if (left() < size) return fail(), false;
    std::memcpy(out, at_, size);
    at_ += size;
    return true;
  }
  // A view into the decoded bytes, valid as long as they are.
  std::string_view text() {
    uint64_t n = varint();
    if (n > left()) return fail(), std::string_view();
    std::string_view v(at_, n);
    at_ += n;
    return v;
  }
  // The bytes of a length-prefixed piece, as a decoder of its own.
  Decoder piece() {
    std::string_view v = text();
    return Decoder(v);
  }

 private:
  const char* at_;
  const char* end_;
  bool failed_ = false;
};

// Writes JSON (RFC 8259) whatever bytes a text holds: bytes that are no UTF-8 become U+FFFD.
class RYX_PRIVATE JsonWriter {
 public:
  const std::string& text() const { return out_; }
  void beginObject() { open('{'); }
  void endObject() { close('}'); }
  void beginArray() { open('['); }
  void endArray() { close(']'); }
  void key(std::string_view name);
  void string(std::string_view value);
  void number(uint64_t value);
  void number(int64_t value);
  void number(double value);
  void boolean(bool value);
  void null();

 private:
  void separate();
  void open(char c);
  void close(char c);
  void quoted(std::string_view value);

  std::string out_;
  bool first_ = true;
  bool afterKey_ = false;
};

}  // namespace ryx::platform
