// Sockets in a network namespace of this machine (network_namespaces(7)), for a thread that is and
// stays in another one. Takes CAP_SYS_ADMIN, unless it is the thread's own.
#pragma once

#include <string>

#include "platform/base/api.h"

namespace ryx::platform {

// A descriptor of the namespace that this thread is in; -1 with errno set.
[[nodiscard]] RYX_PRIVATE int ownNetworkNamespace();

// socket(domain, type, protocol) in the namespace of that descriptor; -1 with errno set. On every
// path the thread is where it was.
[[nodiscard]] RYX_PRIVATE int socketIn(int networkNamespace, int domain, int type, int protocol);

// The same in the namespace that has that name in /run/netns, as ip-netns(8) keeps them.
[[nodiscard]] RYX_PRIVATE int socketIn(const std::string& networkNamespace, int domain, int type,
                                       int protocol);

}  // namespace ryx::platform
