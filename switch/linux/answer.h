// How the kernel answers a request: once, later, with 0 or an errno, and its own words if it has
// any.
#pragma once

#include <functional>
#include <string_view>

namespace ryx::kernel {

using Answer = std::function<void(int error, std::string_view words)>;

}  // namespace ryx::kernel
