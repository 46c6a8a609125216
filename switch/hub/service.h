// One service of the switch side as a process of its own: it mounts what its feed works on, starts
// the feed, and says that it serves when all that the feed knows stands in the state. It ends when
// its server does.
#pragma once

#include <string>

namespace ryx::hub {

// `service` is its name, with an argument behind a colon; `fd` the connection. The status to exit
// with.
int serve(const std::string& service, int fd);

}  // namespace ryx::hub
