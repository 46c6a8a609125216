#include "switch/hub/notify.h"

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstddef>
#include <cstdlib>
#include <cstring>

namespace ryx::hub {

std::string notify(const std::string& lines) {
  const char* name = std::getenv("NOTIFY_SOCKET");
  if (!name || !*name) return "";
  const std::string path = name;
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  if (path.size() >= sizeof address.sun_path || (path[0] != '/' && path[0] != '@'))
    return "NOTIFY_SOCKET is \"" + path + "\"; expected a path, or an abstract name behind an @";
  path.copy(address.sun_path, path.size());
  if (path[0] == '@') address.sun_path[0] = '\0';
  const auto size = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + path.size());
  const int fd = ::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  const ssize_t sent = ::sendto(fd, lines.data(), lines.size(), MSG_NOSIGNAL,
                                reinterpret_cast<const sockaddr*>(&address), size);
  const int error = sent < 0 ? errno : 0;
  if (fd >= 0) ::close(fd);
  return error == 0 ? "" : "NOTIFY_SOCKET " + path + ": " + std::strerror(error);
}

}  // namespace ryx::hub
