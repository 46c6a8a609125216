// A netlink socket on the loop: notifications in, requests out, and a dump that says what there is
// whenever notifications may have been lost. What it guarantees to its client:
//
//  - Everything comes in the kernel's order: one socket for all, subscribed before the first dump.
//  - Nothing is missed. When the kernel drops notifications (ENOBUFS), or a message does not fit
//  the
//    buffer, or a dump was interrupted by a change (NLM_F_DUMP_INTR), there is a new dump, until
//    one passes whole.
//  - Every request is answered once, by its sequence number; ENOBUFS stands for an answer that got
//    lost.
//  - The loop is not held: a callback reads a bounded number of datagrams, nothing blocks, and when
//    the socket takes no more, requests wait.
//
// Requests of one turn of the loop leave together, many in one datagram, with at most kWindow
// without an answer, so that the answers fit the receive buffer. The kernel is asked to answer the
// last one of a datagram; of the others it answers those that fail. It does so in their order: what
// has no answer when a later one comes was done, unless answers may have been lost meanwhile.
//
// Called under the activity lock. The client outlives it.
#pragma once

#include <cstdint>
#include <deque>
#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include <sys/socket.h>

#include "platform/activity/descriptor.h"
#include "platform/activity/task.h"
#include "platform/activity/timer.h"
#include "switch/linux/answer.h"
#include "switch/linux/message.h"

namespace ryx::kernel {

class NetlinkSocket {
 public:
  // Named bounds: of requests without an answer; of bytes in a datagram; of datagrams that one
  // callback, and one system call in it, reads; of interrupted dumps that are repeated at once,
  // later ones after kRepeatDelay seconds.
  static constexpr size_t kWindow = 512;
  static constexpr size_t kBatchBytes = 32768;
  static constexpr int kDatagramsPerRead = 64;
  static constexpr int kDatagramsPerCall = 16;
  static constexpr int kImmediateRepeats = 5;
  static constexpr double kRepeatDelay = 0.1;

  class Client {
   public:
    // A notification. During a dump it is newer than what the dump says of the same thing.
    virtual void onNotification(const nlmsghdr& message) = 0;
    // A dump begins (again), says what there is, and ends. Only one that passed whole ends: what it
    // did not name, and no notification since its beginning, is not there.
    virtual void onDumpBegin() = 0;
    virtual void onDumpMessage(const nlmsghdr& message) = 0;
    virtual void onDumpEnd() = 0;

   protected:
    ~Client() = default;
  };

  struct Options {
    int protocol = 0;              // NETLINK_ROUTE
    std::vector<uint32_t> groups;  // of notifications
    int receiveBuffer = 4 << 20;   // bytes
  };

  // Never called within request().
  using Done = Answer;

  struct Counters {
    uint64_t datagrams = 0;
    uint64_t requests = 0;
    uint64_t batches = 0;      // datagrams of requests
    uint64_t refused = 0;      // requests answered with an error
    uint64_t lostAnswers = 0;  // answers that an overrun took
    uint64_t sendsPutOff = 0;  // the socket took no more
    uint64_t overruns = 0;     // notifications were lost
    uint64_t truncated = 0;    // a message did not fit the buffer
    uint64_t dumps = 0;        // that passed whole
    uint64_t dumpsRepeated = 0;
    uint64_t foreign = 0;  // datagrams that are not the kernel's
  };

  // A socket in the network namespace of the calling thread, which takes notifications from now on.
  // Null, with `error` set, when there is none to be had. `dump`: the request that asks for all.
  static std::unique_ptr<NetlinkSocket> open(const Options& options, const Message& dump,
                                             Client& client, std::string* error);
  // On a connected datagram socket, which it owns. `port`: its own address, as in nlmsg_pid.
  NetlinkSocket(int fd, uint32_t port, const Message& dump, Client& client);
  ~NetlinkSocket();
  NetlinkSocket(const NetlinkSocket&) = delete;
  NetlinkSocket& operator=(const NetlinkSocket&) = delete;

  // Sends the message. Whether it asks for an answer (NLM_F_ACK) is this socket's business.
  void request(const Message& message, Done done);

  // Asks for a dump.
  void resync();
  // Waits, outside the loop, until no dump is wanted. False when the kernel is silent for that many
  // seconds.
  bool waitForDump(double seconds);

  // Requests that are not answered or not sent.
  size_t pending() const { return queue_.size() + sent_.size(); }
  bool dumping() const { return dumping_ || dumpWanted_; }
  const Counters& counters() const { return counters_; }

 private:
  struct Request {
    size_t size;  // of its bytes in queueBytes_, aligned
    Done done;
  };
  struct Sent {
    uint32_t sequence;
    Done done;
  };
  class Ear;
  class Flush;
  class Repeat;

  void read();
  int readDatagrams();
  void takeDatagram(const mmsghdr& datagram, const char* bytes);
  void drained();
  void lost();
  void take(const char* bytes, size_t size);
  void takeMessage(const nlmsghdr& message);
  void takeError(const nlmsghdr& message);
  void answer(uint32_t sequence, int error, std::string_view words);

  void sendRequests();
  bool windowIsOpen() const;
  bool sendBatch();
  void answerThoseBefore(uint32_t sequence);
  void answerFirst(int error, std::string_view words);
  void sendDump();
  void sendDumpLater();
  void endDump(int error);
  void repeatDump();
  void putOff();
  bool dumpIsDue() const { return dumpWanted_ && !dumping_ && !repeatLater_; }

  const int fd_;
  const uint32_t port_;
  Client& client_;
  Message dump_;
  Counters counters_;
  size_t bufferSize_;  // of each datagram
  std::vector<char> buffers_;

  uint32_t sequence_ = 0;  // the last that was given out
  std::deque<Request> queue_;
  std::string queueBytes_;
  size_t queueBegin_ = 0;     // of the first one's bytes
  std::deque<Sent> sent_;     // without an answer, in their order
  uint32_t certainFrom_ = 0;  // of earlier ones answers may have been lost

  bool dumpWanted_ = false;
  bool dumping_ = false;
  bool interrupted_ = false;
  bool repeatLater_ = false;
  uint32_t dumpSequence_ = 0;
  int repeats_ = 0;  // in a row

  std::unique_ptr<Ear> ear_;
  std::unique_ptr<Flush> flush_;
  std::unique_ptr<Repeat> repeat_;
};

}  // namespace ryx::kernel
