#include "switch/linux/netlink.h"

#include <linux/netlink.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <utility>

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
      bufferSize_(kFirstBuffer),
      buffers_(kFirstBuffer * kDatagramsPerCall),
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
  queueBytes_ += message.bytes();
  const size_t size = NLMSG_ALIGN(message.bytes().size());
  queueBytes_.append(size - message.bytes().size(), 0);
  queue_.push_back({size, std::move(done)});
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
  char* const begin = queueBytes_.data() + queueBegin_;
  size_t count = 0, size = 0;
  nlmsghdr* last = nullptr;
  for (; count < queue_.size() && sent_.size() + count < kWindow; ++count) {
    if (count != 0 && size + queue_[count].size > kBatchBytes) break;
    last = reinterpret_cast<nlmsghdr*>(begin + size);
    last->nlmsg_seq = sequence_ + 1 + static_cast<uint32_t>(count);
    last->nlmsg_flags &= static_cast<uint16_t>(~NLM_F_ACK);
    size += queue_[count].size;
  }
  last->nlmsg_flags |= NLM_F_ACK;
  const int error = send(fd_, begin, size, MSG_DONTWAIT | MSG_NOSIGNAL) < 0 ? errno : 0;
  if (error == EAGAIN || error == EINTR) {
    putOff();
    return false;
  }
  ++counters_.batches;
  counters_.requests += count;
  queueBegin_ += size;
  const uint32_t first = sequence_ + 1;
  for (size_t i = 0; i < count; ++i) {
    sent_.push_back({++sequence_, std::move(queue_.front().done)});
    queue_.pop_front();
  }
  if (queue_.empty()) {
    queueBytes_.clear();
    queueBegin_ = 0;
  } else if (queueBegin_ > queueBytes_.size() / 2) {
    queueBytes_.erase(0, std::exchange(queueBegin_, 0));
  }
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
  for (int left = kDatagramsPerRead; left > 0;) {
    const int count = readDatagrams();
    if (count < 0) return;
    left -= count;
  }
  if (dumpIsDue()) flush_->wake();
}

// How many there were; less than 0 when the socket is empty.
int NetlinkSocket::readDatagrams() {
  sockaddr_nl from[kDatagramsPerCall] = {};
  iovec pieces[kDatagramsPerCall];
  mmsghdr datagrams[kDatagramsPerCall] = {};
  for (int i = 0; i < kDatagramsPerCall; ++i) {
    pieces[i] = {buffers_.data() + static_cast<size_t>(i) * bufferSize_, bufferSize_};
    datagrams[i].msg_hdr.msg_name = &from[i];
    datagrams[i].msg_hdr.msg_namelen = sizeof from[i];
    datagrams[i].msg_hdr.msg_iov = &pieces[i];
    datagrams[i].msg_hdr.msg_iovlen = 1;
  }
  const int count =
      ::recvmmsg(fd_, datagrams, kDatagramsPerCall, MSG_DONTWAIT | MSG_TRUNC, nullptr);
  if (count < 0) {
    switch (errno) {
      case EINTR:
        return 1;
      case ENOBUFS:
        ++counters_.overruns;
        lost();
        return 1;
      case EAGAIN:
        drained();
        return -1;
    }
    RYX_TRACE(facility(), 0, "reading failed: " << std::strerror(errno));
    lost();
    return -1;
  }
  size_t largest = 0;
  for (int i = 0; i < count; ++i) {
    takeDatagram(datagrams[i], static_cast<const char*>(pieces[i].iov_base));
    largest = std::max(largest, size_t{datagrams[i].msg_len});
  }
  if (largest > bufferSize_) {
    bufferSize_ = NLMSG_ALIGN(largest);
    buffers_.resize(bufferSize_ * kDatagramsPerCall);
  }
  return count;
}

void NetlinkSocket::takeDatagram(const mmsghdr& datagram, const char* bytes) {
  ++counters_.datagrams;
  const auto* from = static_cast<const sockaddr_nl*>(datagram.msg_hdr.msg_name);
  if (datagram.msg_hdr.msg_namelen >= sizeof *from && from->nl_family == AF_NETLINK &&
      from->nl_pid != 0) {
    ++counters_.foreign;
  } else if (datagram.msg_len > bufferSize_) {
    ++counters_.truncated;
    lost();
  } else {
    take(bytes, datagram.msg_len);
  }
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
  for (; left > 0 && isWhole(message, static_cast<size_t>(left));
       message = mnl_nlmsg_next(message, &left))
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
