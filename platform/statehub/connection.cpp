#include "platform/statehub/connection.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/uio.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <deque>
#include <utility>

#include "platform/activity/descriptor.h"
#include "platform/statehub/wire.h"
#include "platform/trace/trace.h"

namespace ryx::platform {
namespace {

constexpr size_t kReadBytes = 32 * 1024;  // at most so much is read in one callback

}  // namespace

class Connection::Socket final : public Descriptor {
 public:
  Socket(int fd, Peer& peer) : Descriptor(fd, "StatehubConnection"), peer_(peer) {
    fcntl(fd, F_SETFL, fcntl(fd, F_GETFL) | O_NONBLOCK);
    readableInterestIs(true);
  }
  ~Socket() override {
    if (destroyed_) *destroyed_ = true;
    shut();
  }

  bool open() const { return open_; }
  size_t unsent() const { return out_.size() - sent_; }
  uint64_t bytesSent() const { return bytesSent_; }
  uint64_t bytesReceived() const { return bytesReceived_; }

  bool peerIsGone() const {
    pollfd state{fd(), POLLRDHUP, 0};
    return open_ && ::poll(&state, 1, 0) == 1 && (state.revents & (POLLRDHUP | POLLHUP | POLLERR));
  }
  bool carriesFiles() const {
    int domain = 0;
    socklen_t size = sizeof domain;
    return ::getsockopt(fd(), SOL_SOCKET, SO_DOMAIN, &domain, &size) == 0 && domain == AF_UNIX;
  }
  File takeFile() {
    if (inFiles_.empty()) return {};
    File file = std::move(inFiles_.front());
    inFiles_.pop_front();
    return file;
  }
  void mostFilesIs(size_t files) { mostFiles_ = files; }

  // What the socket takes at once is not copied.
  void send(std::string_view payload, std::vector<File> files) {
    if (!open_) return;
    // They go with the frame's first byte.
    if (!files.empty()) outFiles_.push_back({bytesSent_ + unsent(), std::move(files)});
    auto n = static_cast<uint32_t>(payload.size());
    char length[4] = {static_cast<char>(n), static_cast<char>(n >> 8), static_cast<char>(n >> 16),
                      static_cast<char>(n >> 24)};
    size_t taken = 0;
    if (out_.empty() && outFiles_.empty()) {
      iovec parts[] = {{length, sizeof length},
                       {const_cast<char*>(payload.data()), payload.size()}};
      msghdr message{};
      message.msg_iov = parts;
      message.msg_iovlen = 2;
      ssize_t sent = ::sendmsg(fd(), &message, MSG_NOSIGNAL);
      if (sent > 0) taken = static_cast<size_t>(sent);
      bytesSent_ += taken;
      if (taken == sizeof length + payload.size()) return;
    }
    if (taken < sizeof length) out_.append(length + taken, sizeof length - taken);
    out_.append(payload.substr(taken < sizeof length ? 0 : taken - sizeof length));
    flush();
  }

  void longestFrameIs(size_t bytes) { longestFrame_ = bytes; }
  void readingIs(bool on) {
    if (open_) readableInterestIs(on);
  }

  void onReadable() override {
    bool destroyed = false;
    destroyed_ = &destroyed;
    bool alive = readAll(destroyed);
    if (destroyed) return;
    destroyed_ = nullptr;
    if (!alive) {
      shut();
      peer_.onClosed();
    }
  }

  void shut() {
    if (!open_) return;
    open_ = false;
    readableInterestIs(false);
    writableInterestIs(false);
    ::close(fd());
  }

 private:
  bool readAll(const bool& destroyed) {
    makeRoom();
    ssize_t n = receive();
    if (n == 0 || (n < 0 && errno != EAGAIN && errno != EINTR)) return false;
    if (n > 0) end_ += static_cast<size_t>(n);
    if (n > 0) bytesReceived_ += static_cast<uint64_t>(n);
    while (end_ - begin_ >= 4) {
      uint32_t length = pendingLength();
      if (length > longestFrame_) return false;
      if (end_ - begin_ < 4 + size_t{length}) break;
      std::string_view payload(in_.get() + begin_ + 4, length);
      begin_ += 4 + size_t{length};
      bool good = peer_.onFrame(payload);
      if (destroyed) return true;
      if (!good || !open_) return false;
    }
    if (inFiles_.size() > mostFiles_) return false;
    peer_.onFramesDone();
    return true;
  }

  // As recv(2), and takes the descriptors that came with the bytes. That some of them were lost,
  // because this process may have no more, is an end of the connection: they are known by their
  // order alone.
  ssize_t receive() {
    alignas(cmsghdr) char control[CMSG_SPACE(kMaxFilesOfFrame * sizeof(int))];
    iovec part = {in_.get() + end_, capacity_ - end_};
    msghdr message{};
    message.msg_iov = &part;
    message.msg_iovlen = 1;
    message.msg_control = control;
    message.msg_controllen = sizeof control;
    const ssize_t n = ::recvmsg(fd(), &message, MSG_CMSG_CLOEXEC);
    if (n <= 0) return n;
    for (cmsghdr* c = CMSG_FIRSTHDR(&message); c; c = CMSG_NXTHDR(&message, c)) {
      if (c->cmsg_level != SOL_SOCKET || c->cmsg_type != SCM_RIGHTS) continue;
      const size_t count = (c->cmsg_len - CMSG_LEN(0)) / sizeof(int);
      for (size_t i = 0; i < count; ++i) {
        int file;
        std::memcpy(&file, CMSG_DATA(c) + i * sizeof file, sizeof file);
        inFiles_.emplace_back(file);
      }
    }
    if (!(message.msg_flags & MSG_CTRUNC)) return n;
    RYX_TRACE(TraceFacility::named("RyxStatehub"), 0,
              "descriptors of tables were lost: this process may have no more open files");
    return 0;
  }
  // As send(2), of what is unsent and goes together.
  ssize_t sendSome() {
    iovec part = {out_.data() + sent_, out_.size() - sent_};
    msghdr message{};
    message.msg_iov = &part;
    message.msg_iovlen = 1;
    alignas(cmsghdr) char control[CMSG_SPACE(kMaxFilesOfFrame * sizeof(int))] = {};
    if (!outFiles_.empty()) {
      const OutFiles& next = outFiles_.front();
      if (next.at > bytesSent_) {
        part.iov_len = next.at - bytesSent_;
      } else {
        message.msg_control = control;
        message.msg_controllen = CMSG_SPACE(next.files.size() * sizeof(int));
        cmsghdr* c = CMSG_FIRSTHDR(&message);
        c->cmsg_level = SOL_SOCKET;
        c->cmsg_type = SCM_RIGHTS;
        c->cmsg_len = CMSG_LEN(next.files.size() * sizeof(int));
        for (size_t i = 0; i < next.files.size(); ++i) {
          const int file = next.files[i].fd();
          std::memcpy(CMSG_DATA(c) + i * sizeof file, &file, sizeof file);
        }
        if (outFiles_.size() > 1) part.iov_len = outFiles_[1].at - bytesSent_;
      }
    }
    const ssize_t n = ::sendmsg(fd(), &message, MSG_NOSIGNAL);
    if (n > 0 && message.msg_control) outFiles_.pop_front();
    // So many are on their way to somebody who does not read that the system takes no more.
    if (n < 0 && errno == ETOOMANYREFS) errno = EAGAIN;
    return n;
  }

  uint32_t pendingLength() const {
    uint32_t length = 0;
    for (size_t i = 0; i < 4; ++i)
      length |= uint32_t{static_cast<uint8_t>(in_[begin_ + i])} << (8 * i);
    return length;
  }

  // What is left of a frame moves to the front; there is room for all of it, and to read on.
  void makeRoom() {
    size_t left = end_ - begin_;
    size_t wanted = kReadBytes;
    if (left >= 4)
      wanted = std::max(wanted, 4 + size_t{std::min<size_t>(pendingLength(), longestFrame_)});
    if (wanted > capacity_) {
      std::unique_ptr<char[]> larger(new char[wanted]);  // not initialised
      if (left != 0) std::memcpy(larger.get(), in_.get() + begin_, left);
      in_ = std::move(larger);
      capacity_ = wanted;
    } else if (left != 0 && begin_ != 0) {
      std::memmove(in_.get(), in_.get() + begin_, left);
    }
    begin_ = 0;
    end_ = left;
  }

  void onWritable() override {
    flush();
    if (open_ && unsent() < kSendAhead) peer_.onWritable();
  }

  // What the socket takes now. A broken pipe is found by the reading side.
  void flush() {
    while (sent_ < out_.size()) {
      ssize_t n = sendSome();
      if (n <= 0) {
        if (n < 0 && errno == EINTR) continue;
        if (errno != EAGAIN) readableInterestIs(true);
        break;
      }
      sent_ += static_cast<size_t>(n);
      bytesSent_ += static_cast<uint64_t>(n);
    }
    if (sent_ == out_.size()) {
      out_.clear();
      if (out_.capacity() > kSendAhead) out_.shrink_to_fit();
      sent_ = 0;
    } else if (sent_ > kSendAhead) {
      out_.erase(0, sent_);
      sent_ = 0;
    }
    writableInterestIs(!out_.empty());
  }

  struct OutFiles {
    uint64_t at;  // the byte of the stream that they go with
    std::vector<File> files;
  };

  Peer& peer_;
  bool open_ = true;
  std::deque<OutFiles> outFiles_;
  std::deque<File> inFiles_;
  size_t mostFiles_ = 0;
  size_t longestFrame_ = kMaxFrame;
  bool* destroyed_ = nullptr;
  std::unique_ptr<char[]> in_;
  size_t capacity_ = 0;
  size_t begin_ = 0;
  size_t end_ = 0;
  std::string out_;
  size_t sent_ = 0;
  uint64_t bytesSent_ = 0;
  uint64_t bytesReceived_ = 0;
};

Connection::Connection(int fd, Peer& peer) : socket_(std::make_unique<Socket>(fd, peer)) {}
Connection::~Connection() = default;
bool Connection::open() const {
  return socket_->open();
}
int Connection::fd() const {
  return socket_->fd();
}
void Connection::send(std::string_view payload, std::vector<File> files) {
  socket_->send(payload, std::move(files));
}
bool Connection::carriesFiles() const {
  return socket_->carriesFiles();
}
File Connection::takeFile() {
  return socket_->takeFile();
}
void Connection::mostFilesIs(size_t files) {
  socket_->mostFilesIs(files);
}
size_t Connection::unsent() const {
  return socket_->unsent();
}
uint64_t Connection::bytesSent() const {
  return socket_->bytesSent();
}
uint64_t Connection::bytesReceived() const {
  return socket_->bytesReceived();
}
bool Connection::peerIsGone() const {
  return socket_->peerIsGone();
}
void Connection::readNow() {
  socket_->onReadable();
}
void Connection::longestFrameIs(size_t bytes) {
  socket_->longestFrameIs(bytes);
}
void Connection::readingIs(bool on) {
  socket_->readingIs(on);
}
void Connection::close() {
  socket_->shut();
}

}  // namespace ryx::platform
