#include "switch/hub/files.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

namespace ryx::hub {
namespace {

bool writeAll(int fd, std::string_view bytes) {
  while (!bytes.empty()) {
    const ssize_t n = ::write(fd, bytes.data(), bytes.size());
    if (n < 0 && errno == EINTR) continue;
    if (n < 0) return false;
    bytes.remove_prefix(static_cast<size_t>(n));
  }
  return true;
}

}  // namespace

std::string makeFolder(const std::string& path, mode_t mode) {
  for (size_t slash = path.find('/', 1);; slash = path.find('/', slash + 1)) {
    const bool last = slash == std::string::npos;
    const std::string folder = path.substr(0, slash);
    struct stat there {};
    if (::mkdir(folder.c_str(), last ? mode : 0755) != 0 && errno != EEXIST)
      return std::strerror(errno);
    if (last && (::stat(folder.c_str(), &there) != 0 || !S_ISDIR(there.st_mode)))
      return std::strerror(ENOTDIR);
    if (last) return "";
  }
}

int readFile(const std::string& path, std::string* bytes) {
  const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) return errno;
  bytes->clear();
  char buffer[65536];
  ssize_t n;
  while ((n = ::read(fd, buffer, sizeof buffer)) > 0 || (n < 0 && errno == EINTR))
    if (n > 0) bytes->append(buffer, static_cast<size_t>(n));
  const int error = n < 0 ? errno : 0;
  ::close(fd);
  return error;
}

std::string replaceFile(const std::string& path, std::string_view bytes, mode_t mode) {
  const std::string fresh = path + ".new";
  ::unlink(fresh.c_str());
  const int fd = ::open(fresh.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, mode);
  if (fd < 0) return std::strerror(errno);
  const bool written = writeAll(fd, bytes) && ::fsync(fd) == 0;
  int error = written ? 0 : errno;
  ::close(fd);
  if (error == 0 && ::rename(fresh.c_str(), path.c_str()) != 0) error = errno;
  if (error != 0) {
    ::unlink(fresh.c_str());
    return std::strerror(error);
  }
  // The name, too, is on the disk.
  const std::string folder = path.substr(0, path.rfind('/') + 1);
  if (const int at =
          ::open(folder.empty() ? "." : folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
      at >= 0) {
    ::fsync(at);
    ::close(at);
  }
  return "";
}

}  // namespace ryx::hub
