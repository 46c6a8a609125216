// The trace facility of the loop. Inside platform/activity/ only.
#pragma once

#include "platform/trace/trace.h"

namespace ryx::platform {

inline TraceFacility& activityTrace() {
  static TraceFacility& facility = TraceFacility::named("RyxActivity");
  return facility;
}

}  // namespace ryx::platform
