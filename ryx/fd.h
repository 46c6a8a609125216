// File descriptors of the agent's own (sockets, pipes), watched by the loop.
#ifndef RYX_FD_H
#define RYX_FD_H

#include <ryx/api.h>

#include <memory>

namespace ryx {

class file_handler_sm;

/// Watches any number of file descriptors; the agent derives from it. The object owns none of them:
/// stop watching one before closing it. Several handlers may watch the same one.
///
/// Readiness is told for as long as it lasts: a callback that leaves data unread is called again. A
/// hang-up or an error is told to those who watch for readable or writable, and to those who watch
/// for exceptions alone.
///
/// Callbacks run on the loop's thread, with the API's lock held; they may watch and unwatch, and
/// destroy the handler. Every operation takes the API's lock itself.
class RYX_API fd_handler {
 public:
  fd_handler();
  fd_handler(const fd_handler&) = delete;
  fd_handler& operator=(const fd_handler&) = delete;
  virtual ~fd_handler();

  /// The descriptor can be read without blocking, or is at its end.
  virtual void on_readable(int fd);
  /// The descriptor can be written without blocking.
  virtual void on_writable(int fd);
  /// Out-of-band data, or another exceptional condition: POLLPRI of poll(2).
  virtual void on_exception(int fd);

  /// Whether the handler is told when `fd` can be read without blocking. Raises an
  /// invalid_argument_error when a negative `fd` is to be watched.
  void watch_readable(int fd, bool interest);
  /// The same, for writing.
  void watch_writable(int fd, bool interest);
  /// The same, for exceptions.
  void watch_exception(int fd, bool interest);

 private:
  std::unique_ptr<file_handler_sm> sm_;
};

}  // namespace ryx

#endif  // RYX_FD_H
