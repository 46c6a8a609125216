// Texts of a bounded length that are copied byte by byte, for rows in shared memory.
#pragma once

#include <algorithm>
#include <cstdint>
#include <string>
#include <string_view>

namespace ryx::platform {

template <uint16_t N>
class FixedText {
 public:
  static constexpr uint16_t kMaxText = N;

  FixedText() = default;
  // Of a longer text, its first N bytes.
  explicit FixedText(std::string_view text) : size_(std::min<size_t>(N, text.size())) {
    std::copy_n(text.data(), size_, bytes_);
  }
  std::string_view view() const { return {bytes_, size_}; }
  std::string toString() const { return std::string(view()); }
  // Of bytes that came from outside.
  bool isValid() const { return size_ <= N; }
  friend bool operator==(const FixedText& a, const FixedText& b) { return a.view() == b.view(); }

 private:
  uint16_t size_ = 0;
  char bytes_[N] = {};
};

}  // namespace ryx::platform
