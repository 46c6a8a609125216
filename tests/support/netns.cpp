#include "tests/support/netns.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sched.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

namespace ryx::test {
namespace {

int currentNamespace() {
  return open("/proc/thread-self/ns/net", O_RDONLY | O_CLOEXEC);
}

void enter(int fd) {
  if (setns(fd, CLONE_NEWNET) != 0) ADD_FAILURE() << "setns: " << std::strerror(errno);
}

// A file in memory that holds the text, at its start.
int fileOf(const std::string& text) {
  int fd = memfd_create("input", 0);
  if (write(fd, text.data(), text.size()) != static_cast<ssize_t>(text.size()))
    ADD_FAILURE() << "the input of a command cannot be written";
  lseek(fd, 0, SEEK_SET);
  return fd;
}

}  // namespace

std::string NetNs::unavailable() {
  int before = currentNamespace();
  int error = unshare(CLONE_NEWNET) == 0 ? 0 : errno;
  if (error == 0) enter(before);
  close(before);
  if (error == 0) return {};
  return std::string("this test makes network namespaces, which it may not here: ") +
         std::strerror(error) + "; run it as root";
}

NetNs::NetNs() : fd_(-1) {
  int before = currentNamespace();
  if (unshare(CLONE_NEWNET) != 0) {
    ADD_FAILURE() << "unshare: " << std::strerror(errno);
  } else {
    fd_ = currentNamespace();
    enter(before);
  }
  close(before);
}

NetNs::~NetNs() {
  if (fd_ >= 0) close(fd_);
}

std::string NetNs::path() const {
  return "/proc/" + std::to_string(getpid()) + "/fd/" + std::to_string(fd_);
}

std::string NetNs::run(const std::string& command, const std::string& input) const {
  int in = fileOf(input);
  int out[2];
  if (pipe2(out, O_CLOEXEC) != 0) ADD_FAILURE() << "pipe: " << std::strerror(errno);
  pid_t pid = fork();
  if (pid == 0) {
    if (setns(fd_, CLONE_NEWNET) != 0) _exit(126);
    dup2(in, 0);
    dup2(out[1], 1);
    dup2(out[1], 2);
    execl("/bin/sh", "sh", "-c", command.c_str(), nullptr);
    _exit(127);
  }
  close(in);
  close(out[1]);
  std::string text;
  char bytes[4096];
  for (ssize_t n; (n = read(out[0], bytes, sizeof bytes)) > 0;)
    text.append(bytes, static_cast<size_t>(n));
  close(out[0]);
  int status = -1;
  waitpid(pid, &status, 0);
  if (status != 0) ADD_FAILURE() << command << "\nfailed: " << text;
  return text;
}

NetNs::Inside::Inside(const NetNs& ns) : before_(currentNamespace()) {
  enter(ns.fd_);
}

NetNs::Inside::~Inside() {
  enter(before_);
  close(before_);
}

}  // namespace ryx::test
