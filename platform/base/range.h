// The platform's range error: what a value type raises when it is built from a value that it cannot
// hold. Agents catch it as ryx::range_error; the text names the type and its bounds, for example
// "VlanId::value < 1 or > 4094 not allowed".
#pragma once

#include "platform/base/api.h"

namespace ryx::platform {

[[noreturn]] RYX_PRIVATE void throwRangeError(const char* text);

}  // namespace ryx::platform
