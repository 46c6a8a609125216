#include "switch/hub/server.h"

#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

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
      ::listen(fd, 128) != 0) {
    const int why = errno;
    ::close(fd);
    return fault(std::strerror(why));
  }
  return std::unique_ptr<Server>(new Server(hub, fd, path));
}

Server::Server(platform::Hub& hub, int fd, std::string path)
    : Descriptor(fd, "HubServer"), Timer("HubServer"), hub_(hub), path_(std::move(path)) {
  struct stat file {};
  if (::lstat(path_.c_str(), &file) == 0) {
    device_ = file.st_dev;
    inode_ = file.st_ino;
  }
  readableInterestIs(true);
}

Server::~Server() {
  readableInterestIs(false);
  ::close(fd());
  struct stat file {};
  if (::lstat(path_.c_str(), &file) == 0 && file.st_dev == device_ && file.st_ino == inode_)
    ::unlink(path_.c_str());
}

void Server::onReadable() {
  const int peer = ::accept4(fd(), nullptr, nullptr, SOCK_CLOEXEC);
  if (peer >= 0) return hub_.accept(peer);
  if (errno == EAGAIN || errno == EINTR || errno == ECONNABORTED) return;
  RYX_TRACE(trace(), 0, "cannot accept a participant: " << std::strerror(errno));
  readableInterestIs(false);
  armAt(platform::clock().now() + kPauseSeconds);
}

}  // namespace ryx::hub
