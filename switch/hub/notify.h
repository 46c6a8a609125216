// What is told to the system's service manager (sd_notify(3)), where it asks for it by
// NOTIFY_SOCKET.
#pragma once

#include <string>

namespace ryx::hub {

// Lines such as "READY=1". Empty: done, or nobody asked; else why it could not be told.
std::string notify(const std::string& lines);

}  // namespace ryx::hub
