#include "switch/hub/server.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <utility>

#include "platform/base/clock.h"
#include "platform/trace/trace.h"

namespace ryx::hub {
namespace {

platform::TraceFacility& trace() {
  static auto& facility = platform::TraceFacility::named("RyxHubServer");
  return facility;
}

// Named bound: connections that wait to be let in.
constexpr int kWaiting = 1024;

int openSocket() {
  return ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
}

// A socket file that nobody listens at any more is in nobody's way. What keeps the path from being
// used; empty: nothing.
std::string inTheWay(const sockaddr_un& address) {
  struct stat there {};
  if (::lstat(address.sun_path, &there) != 0) return errno == ENOENT ? "" : std::strerror(errno);
  if (!S_ISSOCK(there.st_mode)) return "a file that is no socket is in the way";
  const int probe = openSocket();
  const int result = ::connect(probe, reinterpret_cast<const sockaddr*>(&address), sizeof address);
  const int why = errno;
  ::close(probe);
  if (result == 0 || why == EAGAIN) return "another server listens there";
  if (why != ECONNREFUSED) return std::strerror(why);
  return ::unlink(address.sun_path) == 0 ? "" : std::strerror(errno);
}

}  // namespace

std::unique_ptr<Server> Server::listen(platform::Hub& hub, const std::string& path,
                                       std::string* error) {
  const auto fault = [&](const std::string& what) {
    *error = "cannot listen at " + path + ": " + what;
    return nullptr;
  };
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  if (path.empty() || path.size() >= sizeof address.sun_path)
    return fault("expected a path of 1 to " + std::to_string(sizeof address.sun_path - 1) +
                 " bytes");
  path.copy(address.sun_path, path.size());
  if (const std::string what = inTheWay(address); !what.empty()) return fault(what);
  const int fd = openSocket();
  if (fd < 0) return fault(std::strerror(errno));
  if (::bind(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0 ||
      ::listen(fd, kWaiting) != 0) {
    const int why = errno;
    ::close(fd);
    return fault(std::strerror(why));
  }
  // Who may do what is judged by who connects, not by the file's mode.
  ::chmod(path.c_str(), 0666);
  std::unique_ptr<Server> made(new Server(hub, fd));
  made->path_ = path;
  struct stat file {};
  if (::lstat(path.c_str(), &file) == 0) {
    made->device_ = file.st_dev;
    made->inode_ = file.st_ino;
  }
  return made;
}

std::unique_ptr<Server> Server::listen(platform::Hub& hub, uint16_t port,
                                       std::vector<std::string> peers, std::string* error) {
  const int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(port);
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  const int on = 1;
  ::setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
  if (fd < 0 || ::bind(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0 ||
      ::listen(fd, kWaiting) != 0) {
    *error = "cannot listen at TCP port " + std::to_string(port) + ": " + std::strerror(errno);
    if (fd >= 0) ::close(fd);
    return nullptr;
  }
  std::unique_ptr<Server> made(new Server(hub, fd));
  made->peers_ = std::move(peers);
  return made;
}

Server::Server(platform::Hub& hub, int fd)
    : Descriptor(fd, "HubServer"), Timer("HubServer"), hub_(hub) {}

Server::~Server() {
  readableInterestIs(false);
  ::close(fd());
  struct stat file {};
  if (!path_.empty() && ::lstat(path_.c_str(), &file) == 0 && file.st_dev == device_ &&
      file.st_ino == inode_)
    ::unlink(path_.c_str());
}

bool Server::isPeer(int connection) const {
  if (!path_.empty()) return true;
  sockaddr_in address{};
  socklen_t size = sizeof address;
  char text[INET_ADDRSTRLEN] = "";
  ::getpeername(connection, reinterpret_cast<sockaddr*>(&address), &size);
  ::inet_ntop(AF_INET, &address.sin_addr, text, sizeof text);
  const int on = 1;  // small writes go at once, as they do over a Unix socket
  ::setsockopt(connection, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
  if (std::find(peers_.begin(), peers_.end(), text) != peers_.end()) return true;
  RYX_TRACE(trace(), 0, "turned " << text << " away, which is none of the configured peers");
  return false;
}

void Server::onReadable() {
  const int peer = ::accept4(fd(), nullptr, nullptr, SOCK_CLOEXEC);
  if (peer >= 0 && isPeer(peer)) return hub_.accept(peer);
  if (peer >= 0) {
    ::close(peer);
    return;
  }
  if (errno == EAGAIN || errno == EINTR || errno == ECONNABORTED) return;
  RYX_TRACE(trace(), 0, "cannot accept a participant: " << std::strerror(errno));
  readableInterestIs(false);
  armAt(platform::clock().now() + kPauseSeconds);
}

}  // namespace ryx::hub
