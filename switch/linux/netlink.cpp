#include "switch/linux/netlink.h"

#include <linux/netlink.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "platform/base/clock.h"
#include "platform/trace/trace.h"

namespace ryx::kernel {
namespace {

constexpr size_t kFirstBuffer = 32768;

platform::TraceFacility& facility() {
  static auto& f = platform::TraceFacility::named("RyxLinuxNetlink");
  return f;
}

std::string systemError(const char* what) {
  return std::string(what) + ": " + std::strerror(errno);
}

// As large as it may be: more than the system's limit takes a privilege.
void receiveBufferIs(int fd, int bytes) {
  if (setsockopt(fd, SOL_SOCKET, SO_RCVBUFFORCE, &bytes, sizeof bytes) != 0)
    setsockopt(fd, SOL_SOCKET, SO_RCVBUF, &bytes, sizeof bytes);
}

int takeWords(const nlattr* attribute, void* data) {
  if (mnl_attr_get_type(attribute) == NLMSGERR_ATTR_MSG) {
    auto* text = static_cast<const char*>(mnl_attr_get_payload(attribute));
    *static_cast<std::string_view*>(data) = {text,
                                             strnlen(text, mnl_attr_get_payload_len(attribute))};
  }
  return MNL_CB_OK;
}

// The kernel's own words on an error, if it has any (NETLINK_EXT_ACK).
std::string_view wordsOf(const nlmsghdr& message, const nlmsgerr& error) {
  std::string_view words;
  if (!(message.nlmsg_flags & NLM_F_ACK_TLVS)) return words;
  size_t at = sizeof(nlmsgerr);
  if (!(message.nlmsg_flags & NLM_F_CAPPED)) {
    if (error.msg.nlmsg_len < sizeof(nlmsghdr) || error.msg.nlmsg_len > message.nlmsg_len)
      return words;
    at += error.msg.nlmsg_len - sizeof(nlmsghdr);
  }
  if (at <= mnl_nlmsg_get_payload_len(&message))
    mnl_attr_parse(&message, static_cast<unsigned>(at), takeWords, &words);
  return words;
}

}  // namespace

class NetlinkSocket::Ear final : public platform::Descriptor {
 public:
  Ear(NetlinkSocket& socket, int fd) : Descriptor(fd, "netlink"), socket_(socket) {}

 protected:
  void onReadable() override { socket_.read(); }
  void onWritable() override {
    writableInterestIs(false);
    if (socket_.dumpWanted_) socket_.sendDump();
    socket_.sendRequests();
  }

 private:
  NetlinkSocket& socket_;
};

// Requests of one turn go together. And while a dump is wanted, it reads on until the socket is
// empty, which ends no callback.
class NetlinkSocket::Flush final : public platform::Task {
 public:
  explicit Flush(NetlinkSocket& socket) : Task("netlink requests"), socket_(socket) {}

 protected:
  bool run(platform::Slice&) override {
    if (socket_.dumpIsDue()) socket_.read();
    socket_.sendRequests();
    return false;
  }

 private:
  NetlinkSocket& socket_;
};

class NetlinkSocket::Repeat final : public platform::Timer {
 public:
  explicit Repeat(NetlinkSocket& socket) : Timer("netlink dump"), socket_(socket) {}
  void onTimer() override {
    socket_.repeatLater_ = false;
    if (socket_.dumpIsDue()) socket_.sendDump();
  }

 private:
  NetlinkSocket& socket_;
};

std::unique_ptr<NetlinkSocket> NetlinkSocket::open(const Options& options, const Message& dump,
                                                   Client& client, std::string* error) {
  int fd = socket(AF_NETLINK, SOCK_RAW | SOCK_NONBLOCK | SOCK_CLOEXEC, options.protocol);
  if (fd < 0) {
    *error = systemError("netlink socket");
    return nullptr;
  }
  receiveBufferIs(fd, options.receiveBuffer);
  int on = 1;
  setsockopt(fd, SOL_NETLINK, NETLINK_CAP_ACK, &on, sizeof on);
  setsockopt(fd, SOL_NETLINK, NETLINK_EXT_ACK, &on, sizeof on);
  sockaddr_nl address{};
  address.nl_family = AF_NETLINK;
  socklen_t size = sizeof address;
  bool ok = bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0 &&
            getsockname(fd, reinterpret_cast<sockaddr*>(&address), &size) == 0;
  for (uint32_t group : options.groups)
    ok = ok && setsockopt(fd, SOL_NETLINK, NETLINK_ADD_MEMBERSHIP, &group, sizeof group) == 0;
  if (!ok) {
    *error = systemError("netlink socket");
    close(fd);
    return nullptr;
  }
  return std::make_unique<NetlinkSocket>(fd, address.nl_pid, dump, client);
}

NetlinkSocket::NetlinkSocket(int fd, uint32_t port, const Message& dump, Client& client)
    : fd_(fd),
      port_(port),
      client_(client),
      dump_(dump),
      buffer_(kFirstBuffer),
      ear_(std::make_unique<Ear>(*this, fd)),
      flush_(std::make_unique<Flush>(*this)),
      repeat_(std::make_unique<Repeat>(*this)) {
  ear_->readableInterestIs(true);
}

NetlinkSocket::~NetlinkSocket() {
  ear_.reset();
  close(fd_);
}

// --- requests -----------------------------------------------------------------------------------

void NetlinkSocket::request(const Message& message, Done done) {
  queue_.push_back({std::string(message.bytes()), std::move(done)});
  flush_->wake();
}

void NetlinkSocket::sendRequests() {
  while (!queue_.empty() && windowIsOpen() && sendBatch()) {
  }
}

// All that waits may go, or half a window: one by one, as answers come, costs a call each.
bool NetlinkSocket::windowIsOpen() const {
  return sent_.size() <= kWindow / 2 || queue_.size() + sent_.size() <= kWindow;
}

// False when the socket takes no more now.
bool NetlinkSocket::sendBatch() {
  std::string batch;
  size_t count = 0, last = 0;
  while (count < queue_.size() && sent_.size() + count < kWindow) {
    std::string bytes = queue_[count].bytes;
    if (count != 0 && batch.size() + bytes.size() > kBatchBytes) break;
    auto* header = reinterpret_cast<nlmsghdr*>(bytes.data());
    header->nlmsg_seq = sequence_ + 1 + static_cast<uint32_t>(count);
    header->nlmsg_flags &= static_cast<uint16_t>(~NLM_F_ACK);
    last = batch.size();
    bytes.resize(NLMSG_ALIGN(bytes.size()));
    batch += bytes;
    ++count;
  }
  reinterpret_cast<nlmsghdr*>(batch.data() + last)->nlmsg_flags |= NLM_F_ACK;
  int error = send(fd_, batch.data(), batch.size(), MSG_DONTWAIT | MSG_NOSIGNAL) < 0 ? errno : 0;
  if (error == EAGAIN || error == EINTR) {
    putOff();
    return false;
  }
  ++counters_.batches;
  counters_.requests += count;
  for (size_t i = 0; i < count; ++i) {
    sent_.push_back({++sequence_, std::move(queue_.front().done)});
    queue_.pop_front();
  }
  const uint32_t first = sequence_ - static_cast<uint32_t>(count) + 1;
  for (size_t i = 0; error != 0 && i < count; ++i)
    answer(first + static_cast<uint32_t>(i), error, "not sent");
  return true;
}

void NetlinkSocket::putOff() {
  ++counters_.sendsPutOff;
  ear_->writableInterestIs(true);
}

namespace {

bool isBefore(uint32_t a, uint32_t b) {
  return static_cast<int32_t>(a - b) < 0;
}

}  // namespace

void NetlinkSocket::answer(uint32_t sequence, int error, std::string_view words) {
  const auto at = std::find_if(sent_.begin(), sent_.end(),
                               [&](const Sent& s) { return !isBefore(s.sequence, sequence); });
  if (at == sent_.end() || at->sequence != sequence) return;
  answerThoseBefore(sequence);
  answerFirst(error, words);
}

void NetlinkSocket::answerThoseBefore(uint32_t sequence) {
  while (!sent_.empty() && isBefore(sent_.front().sequence, sequence)) {
    const bool isCertain = !isBefore(sent_.front().sequence, certainFrom_);
    if (!isCertain) ++counters_.lostAnswers;
    isCertain ? answerFirst(0, "") : answerFirst(ENOBUFS, "the answer was lost");
  }
}

void NetlinkSocket::answerFirst(int error, std::string_view words) {
  const Done done = std::move(sent_.front().done);
  sent_.pop_front();
  if (error != 0) ++counters_.refused;
  if (!queue_.empty()) flush_->wake();
  done(error, words);
}

// --- the dump -----------------------------------------------------------------------------------

void NetlinkSocket::resync() {
  dumpWanted_ = true;
  if (!dumping_) sendDump();
}

void NetlinkSocket::sendDump() {
  dump_.header()->nlmsg_seq = sequence_ + 1;
  std::string_view bytes = dump_.bytes();
  if (send(fd_, bytes.data(), bytes.size(), MSG_DONTWAIT | MSG_NOSIGNAL) < 0) {
    dumpWanted_ = true;
    if (errno == EAGAIN || errno == EINTR) {
      putOff();
    } else {
      RYX_TRACE(facility(), 0, "a dump cannot be asked for: " << std::strerror(errno));
      sendDumpLater();
    }
    return;
  }
  dumpSequence_ = ++sequence_;
  dumpWanted_ = false;
  dumping_ = true;
  interrupted_ = false;
  client_.onDumpBegin();
}

void NetlinkSocket::sendDumpLater() {
  repeatLater_ = true;
  repeat_->armAt(platform::clock().now() + kRepeatDelay);
}

void NetlinkSocket::endDump(int error) {
  dumping_ = false;
  if (error != 0 || interrupted_ || dumpWanted_) {
    RYX_TRACE(facility(), 3,
              "the dump is repeated: " << (error ? std::strerror(error) : "changed"));
    return repeatDump();
  }
  repeats_ = 0;
  ++counters_.dumps;
  client_.onDumpEnd();
  // What has none by now had its answer lost.
  certainFrom_ = dumpSequence_;
  answerThoseBefore(dumpSequence_);
}

void NetlinkSocket::repeatDump() {
  ++counters_.dumpsRepeated;
  dumpWanted_ = true;
  if (++repeats_ > kImmediateRepeats) sendDumpLater();
}

bool NetlinkSocket::waitForDump(double seconds) {
  constexpr int kPollMilliseconds = 50;
  for (double left = seconds; dumping() && left > 0;) {
    pollfd p{fd_, POLLIN, 0};
    if (poll(&p, 1, kPollMilliseconds) == 0) {
      left -= kPollMilliseconds / 1000.0;
      if (dumpWanted_ && !dumping_) sendDump();
    } else {
      read();
    }
  }
  return !dumping();
}

// --- reading ------------------------------------------------------------------------------------

void NetlinkSocket::read() {
  for (int i = 0; i < kDatagramsPerRead; ++i)
    if (!readDatagram()) return;
  if (dumpIsDue()) flush_->wake();
}

// False when there is none.
bool NetlinkSocket::readDatagram() {
  sockaddr_nl from{};
  iovec piece{buffer_.data(), buffer_.size()};
  msghdr header{};
  header.msg_name = &from;
  header.msg_namelen = sizeof from;
  header.msg_iov = &piece;
  header.msg_iovlen = 1;
  ssize_t n = recvmsg(fd_, &header, MSG_DONTWAIT | MSG_TRUNC);
  if (n < 0) {
    switch (errno) {
      case EINTR:
        return true;
      case ENOBUFS:
        ++counters_.overruns;
        lost();
        return true;
      case EAGAIN:
        drained();
        return false;
    }
    RYX_TRACE(facility(), 0, "reading failed: " << std::strerror(errno));
    lost();
    return false;
  }
  ++counters_.datagrams;
  auto size = static_cast<size_t>(n);
  if (header.msg_namelen >= sizeof from && from.nl_family == AF_NETLINK && from.nl_pid != 0) {
    ++counters_.foreign;
  } else if (size > buffer_.size()) {
    ++counters_.truncated;
    buffer_.resize(size);
    lost();
  } else {
    take(buffer_.data(), size);
  }
  return true;
}

// The socket is empty: now a dump's first part fits.
void NetlinkSocket::drained() {
  if (dumpIsDue()) sendDump();
}

void NetlinkSocket::lost() {
  RYX_TRACE(facility(), 1, "notifications were lost: asking for all anew");
  dumpWanted_ = true;
  certainFrom_ = sequence_ + 1;
}

void NetlinkSocket::take(const char* bytes, size_t size) {
  auto* message = reinterpret_cast<const nlmsghdr*>(bytes);
  auto left = static_cast<int>(size);
  for (; mnl_nlmsg_ok(message, left); message = mnl_nlmsg_next(message, &left))
    takeMessage(*message);
}

void NetlinkSocket::takeMessage(const nlmsghdr& message) {
  if (message.nlmsg_type == NLMSG_ERROR) return takeError(message);
  bool ofDump = dumping_ && message.nlmsg_seq == dumpSequence_ && message.nlmsg_pid == port_;
  if (ofDump && message.nlmsg_flags & NLM_F_DUMP_INTR) interrupted_ = true;
  if (message.nlmsg_type == NLMSG_DONE) {
    int error = 0;
    if (mnl_nlmsg_get_payload_len(&message) >= sizeof error)
      std::memcpy(&error, mnl_nlmsg_get_payload(&message), sizeof error);
    if (ofDump) endDump(error < 0 ? -error : 0);
  } else if (message.nlmsg_type == NLMSG_OVERRUN) {
    lost();
  } else if (message.nlmsg_type < NLMSG_MIN_TYPE) {
    return;
  } else if (ofDump) {
    client_.onDumpMessage(message);
  } else if (message.nlmsg_pid != port_ || !(message.nlmsg_flags & NLM_F_MULTI)) {
    client_.onNotification(message);  // and no rest of an earlier dump
  }
}

void NetlinkSocket::takeError(const nlmsghdr& message) {
  if (message.nlmsg_pid != port_ || mnl_nlmsg_get_payload_len(&message) < sizeof(nlmsgerr)) return;
  auto* error = static_cast<const nlmsgerr*>(mnl_nlmsg_get_payload(&message));
  int number = error->error < 0 ? -error->error : error->error;
  if (dumping_ && message.nlmsg_seq == dumpSequence_) {
    if (number != 0) endDump(number);
  } else {
    answer(message.nlmsg_seq, number, wordsOf(message, *error));
  }
}

}  // namespace ryx::kernel
