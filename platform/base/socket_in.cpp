#include "platform/base/socket_in.h"

#include <fcntl.h>
#include <sched.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>

#include "platform/base/check.h"

namespace ryx::platform {
namespace {

// Closes it, and leaves errno as it is.
class Descriptor {
 public:
  explicit Descriptor(int fd) : fd_(fd) {}
  Descriptor(const Descriptor&) = delete;
  Descriptor& operator=(const Descriptor&) = delete;
  ~Descriptor() {
    const int error = errno;
    if (fd_ >= 0) ::close(fd_);
    errno = error;
  }
  operator int() const { return fd_; }

 private:
  const int fd_;
};

bool isSame(int a, int b) {
  struct stat of_a, of_b;
  return ::fstat(a, &of_a) == 0 && ::fstat(b, &of_b) == 0 && of_a.st_ino == of_b.st_ino &&
         of_a.st_dev == of_b.st_dev;
}

}  // namespace

int ownNetworkNamespace() {
  return ::open("/proc/thread-self/ns/net", O_RDONLY | O_CLOEXEC);
}

int socketIn(int networkNamespace, int domain, int type, int protocol) {
  const Descriptor here(ownNetworkNamespace());
  if (here < 0) return -1;
  if (isSame(here, networkNamespace)) return ::socket(domain, type, protocol);
  if (::setns(networkNamespace, CLONE_NEWNET) != 0) return -1;
  const int fd = ::socket(domain, type, protocol);
  const int error = errno;
  check(::setns(here, CLONE_NEWNET) == 0, "a thread returns to its network namespace");
  errno = error;
  return fd;
}

int socketIn(const std::string& networkNamespace, int domain, int type, int protocol) {
  if (networkNamespace.empty() || networkNamespace.find('/') != std::string::npos ||
      networkNamespace == "." || networkNamespace == "..") {
    errno = ENOENT;
    return -1;
  }
  const Descriptor there(::open(("/run/netns/" + networkNamespace).c_str(), O_RDONLY | O_CLOEXEC));
  return there < 0 ? -1 : socketIn(there, domain, type, protocol);
}

}  // namespace ryx::platform
