// Byte strings with a bound, enforced when one is made: what a type declares about itself is its
// bound, and the text of its range error.
//
//   struct AgentKeyBound {
//     static constexpr size_t kMaxBytes = 1024;
//     static constexpr const char* kTooLong = "AgentKey::bytes > AgentKey::maxLength not allowed";
//   };
//   using AgentKey = BoundedBytes<AgentKeyBound>;
#pragma once

#include <string>
#include <string_view>
#include <utility>

#include "platform/base/range.h"

namespace ryx::platform {

template <class Bound>
class BoundedBytes {
 public:
  static constexpr size_t kMaxBytes = Bound::kMaxBytes;

  BoundedBytes() = default;
  BoundedBytes(std::string_view bytes) : bytes_(checked(bytes)) {}
  BoundedBytes(const std::string& bytes) : BoundedBytes(std::string_view(bytes)) {}
  BoundedBytes(const char* text) : BoundedBytes(std::string_view(text)) {}

  const std::string& bytes() const { return bytes_; }
  size_t size() const { return bytes_.size(); }
  explicit operator const std::string&() const { return bytes_; }

  friend bool operator==(const BoundedBytes& a, const BoundedBytes& b) {
    return a.bytes_ == b.bytes_;
  }
  friend bool operator<(const BoundedBytes& a, const BoundedBytes& b) {
    return a.bytes_ < b.bytes_;
  }

 private:
  static std::string_view checked(std::string_view bytes) {
    if (bytes.size() > kMaxBytes) throwRangeError(Bound::kTooLong);
    return bytes;
  }

  std::string bytes_;
};

}  // namespace ryx::platform
