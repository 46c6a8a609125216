// A file descriptor that several may hold: it is closed with the last of them.
#pragma once

#include <unistd.h>

#include <memory>

namespace ryx::platform {

class File {
 public:
  File() = default;
  // Owns the descriptor, 0 or more, from now on.
  explicit File(int fd) : fd_(std::make_shared<Fd>(fd)) {}

  explicit operator bool() const { return fd_ != nullptr; }
  // -1 where there is none.
  int fd() const { return fd_ ? fd_->number : -1; }

 private:
  struct Fd {
    explicit Fd(int n) : number(n) {}
    ~Fd() { ::close(number); }
    Fd(const Fd&) = delete;
    Fd& operator=(const Fd&) = delete;
    const int number;
  };
  std::shared_ptr<const Fd> fd_;
};

}  // namespace ryx::platform
