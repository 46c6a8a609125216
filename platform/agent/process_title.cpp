#include "platform/agent/process_title.h"

#include <sys/prctl.h>

namespace ryx::platform {

namespace {

std::string& title() {
  static auto* text = new std::string;
  return *text;
}

}  // namespace

const std::string& agentTitle() {
  return title();
}

void agentTitleIs(std::string_view text) {
  title() = text;
  prctl(PR_SET_NAME, title().c_str());
}

}  // namespace ryx::platform
