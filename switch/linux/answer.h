// How the kernel answers a request: once, later, with 0 or an errno, and its own words if it has
// any.
#pragma once

#include <cerrno>
#include <functional>
#include <string_view>

namespace ryx::kernel {

using Answer = std::function<void(int error, std::string_view words)>;

// Whether what failed by that may pass when it is tried again.
inline bool isPassing(int error) {
  return error == ENOBUFS || error == ENOMEM || error == EAGAIN || error == EBUSY || error == EINTR;
}

}  // namespace ryx::kernel
