// Unsigned numbers with bounds, enforced when one is made: what a type declares about itself is its
// bounds, and the text of its range error.
//
//   struct DscpBound {
//     static constexpr uint8_t kMin = 0, kMax = 63;
//     static constexpr const char* kOutOfRange = "IpFilter::dscp < 0 or > 63 not allowed";
//   };
//   using Dscp = BoundedNumber<DscpBound>;
#pragma once

#include <compare>
#include <cstdint>

#include "platform/base/range.h"

namespace ryx::platform {

template <class Bound>
class BoundedNumber {
 public:
  using Number = decltype(Bound::kMax + 0u);
  static constexpr Number kMin = Bound::kMin;
  static constexpr Number kMax = Bound::kMax;

  constexpr BoundedNumber() = default;  // the least
  // Takes wider numbers too, so that none is cut before it is checked.
  explicit constexpr BoundedNumber(uint64_t value) : value_(static_cast<Number>(value)) {
    if (value < kMin || value > kMax) [[unlikely]]
      throwRangeError(Bound::kOutOfRange);
  }

  constexpr Number value() const { return value_; }

  friend constexpr bool operator==(BoundedNumber, BoundedNumber) = default;
  friend constexpr auto operator<=>(BoundedNumber, BoundedNumber) = default;

 private:
  Number value_ = kMin;
};

}  // namespace ryx::platform
