// The name of a VRF: any text of at most 100 bytes. The one that is always there is "default".
#pragma once

#include "platform/types/bounded_bytes.h"

namespace ryx::platform {

struct VrfNameBound {
  static constexpr size_t kMaxBytes = 100;
  static constexpr const char* kTooLong = "VrfName::bytes > VrfName::maxLength not allowed";
};
using VrfName = BoundedBytes<VrfNameBound>;

inline constexpr const char* kDefaultVrf = "default";

}  // namespace ryx::platform
