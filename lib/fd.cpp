// File descriptors of agents: one reactor for each that a handler watches.
#include "ryx/fd.h"

#include <map>

#include "platform/activity/descriptor.h"
#include "platform/base/check.h"
#include "platform/trace/trace.h"
#include "ryx/panic.h"
#include "ryx/sdk_scoped_lock.h"

namespace ryx {

namespace {

using platform::DescriptorEvent;

platform::TraceFacility& trace() {
  static auto& facility = platform::TraceFacility::named("RyxSdkFile");
  return facility;
}

const char* nameOf(DescriptorEvent event) {
  switch (event) {
    case DescriptorEvent::readable:
      return "readable";
    case DescriptorEvent::writable:
      return "writable";
    case DescriptorEvent::exception:
      return "exception";
  }
  return "";
}

// One file descriptor of one handler.
class FileDescriptorSm final : public platform::Descriptor {
 public:
  FileDescriptorSm(int fd, fd_handler* handler) : Descriptor(fd, "fd_handler"), fh_(handler) {}

  bool watched() const { return readableInterest() || writableInterest() || exceptionInterest(); }

 private:
  void onReadable() override { tell(DescriptorEvent::readable, &fd_handler::on_readable); }
  void onWritable() override { tell(DescriptorEvent::writable, &fd_handler::on_writable); }
  void onException() override { tell(DescriptorEvent::exception, &fd_handler::on_exception); }

  void tell(DescriptorEvent event, void (fd_handler::*callback)(int)) {
    const sdk_scoped_lock lock;
    RYX_TRACE(trace(), 8, "Fd " << fd() << " is " << nameOf(event));
    platform::check(fh_ != nullptr, "fh");
    (fh_->*callback)(fd());
  }

  fd_handler* const fh_;
};

}  // namespace

// FileHandlerSm: what one handler watches.
class file_handler_sm {
 public:
  explicit file_handler_sm(fd_handler* handler) : handler_(handler) {}

  void watch(int fd, DescriptorEvent event, bool interest) {
    RYX_TRACE(trace(), 7,
              "Watching fd " << fd << " to be " << nameOf(event) << ": "
                             << (interest ? "true" : "false"));
    auto found = descriptors_.find(fd);
    if (found == descriptors_.end()) {
      if (!interest) return;
      if (fd < 0)
        panic(invalid_argument_error(
            "fd", "expected a descriptor, 0 or more, found " + std::to_string(fd)));
      found = descriptors_.try_emplace(fd, fd, handler_).first;
    }
    found->second.interestIs(event, interest);
    // The change may have called a loop of the program's own, which may have changed more.
    found = descriptors_.find(fd);
    if (found != descriptors_.end() && !found->second.watched()) descriptors_.erase(found);
  }

 private:
  fd_handler* const handler_;
  std::map<int, FileDescriptorSm> descriptors_;
};

fd_handler::fd_handler() : sm_(std::make_unique<file_handler_sm>(this)) {}

fd_handler::~fd_handler() {
  const sdk_scoped_lock lock;
  sm_.reset();
}

void fd_handler::on_readable(int) {}
void fd_handler::on_writable(int) {}
void fd_handler::on_exception(int) {}

void fd_handler::watch_readable(int fd, bool interest) {
  const sdk_scoped_lock lock;
  sm_->watch(fd, DescriptorEvent::readable, interest);
}

void fd_handler::watch_writable(int fd, bool interest) {
  const sdk_scoped_lock lock;
  sm_->watch(fd, DescriptorEvent::writable, interest);
}

void fd_handler::watch_exception(int fd, bool interest) {
  const sdk_scoped_lock lock;
  sm_->watch(fd, DescriptorEvent::exception, interest);
}

}  // namespace ryx
