// The watched file descriptors and the epoll set that waits for them. Inside platform/activity/
// only.
//
// The objects on one file descriptor share one entry. An interest that is turned on is told to the
// kernel before the next poll, always: the number may name another file by now. When the last
// interest of an entry goes, the kernel is told at once, since the file is likely to be closed
// next.
//
// What a poll finds is a list of ready file descriptors, which is worked through even if that takes
// several turns, so that one that is always ready keeps no other from its turn.
#pragma once

#include <sys/epoll.h>

#include <cstddef>
#include <cstdint>
#include <unordered_map>
#include <vector>

#include "platform/activity/descriptor.h"

namespace ryx::platform {

struct ActivityCounters;

class DescriptorTable {
 public:
  static constexpr int kPollEvents = 256;  // the most events that one poll takes

  // One bit an event, as in Descriptor::interests_.
  using Mask = uint8_t;
  static constexpr Mask bit(DescriptorEvent event) {
    return static_cast<Mask>(1u << static_cast<unsigned>(event));
  }
  // Hang-up or error.
  static constexpr Mask kTrouble = 1u << Descriptor::kEvents;

  struct Entry {
    int fd = -1;
    Descriptor* first = nullptr;  // its objects
    Descriptor* last = nullptr;
    Mask told = 0;             // the interests that the listener knows of
    bool untold = false;       // in the list of entries with news for the listener
    bool changed = false;      // in the list of entries with news for the kernel
    bool watched = false;      // in the epoll set
    bool alwaysReady = false;  // cannot be in the epoll set
    bool closed = false;       // was found closed
    bool refused = false;      // the system would not watch it
    bool masked = false;       // an object was left out because its callback runs
    uint32_t generation = 0;   // of its stay in the epoll set
    int walks = 0;             // how many walks go through its objects
  };

  // Goes through the objects of an entry, while objects come and go; those that come are left out.
  class Walk {
   public:
    Walk(DescriptorTable& table, Entry& entry);
    ~Walk();
    Walk(const Walk&) = delete;
    Walk& operator=(const Walk&) = delete;

    Descriptor* next();

   private:
    friend class DescriptorTable;
    DescriptorTable& table_;
    Entry& entry_;
    Descriptor* next_;
    const uint64_t began_;
    Walk* before_ = nullptr;
    Walk* after_;
  };

  struct Ready {
    int fd;
    Mask events;
  };

  explicit DescriptorTable(ActivityCounters& counters) : counters_(counters) {}
  ~DescriptorTable();
  DescriptorTable(const DescriptorTable&) = delete;
  DescriptorTable& operator=(const DescriptorTable&) = delete;

  // The descriptor that ends a wait.
  void nudgeIs(int fd) { nudge_ = fd; }

  bool empty() const { return entries_.empty(); }
  Entry* find(int fd);
  std::vector<DescriptorState> list() const;
  static Mask interests(const Entry& entry);

  Entry& add(Descriptor& descriptor);
  void remove(Descriptor& descriptor);
  // Erases an entry that has no objects left.
  void release(Entry& entry);

  // What the kernel waits for is to change; `on`: an interest was turned on.
  void interestChanged(Entry& entry, bool on);
  // The callback of one of its objects runs and a nested loop begins, or ran and ended.
  void callbackChanged(Entry& entry) { markChanged(entry); }

  // Tells the kernel what changed. Whether a wait makes sense: false when something is ready
  // always.
  bool prepare();
  // Waits for at most that long, infinity included; needs no lock. Returns the number of events.
  int wait(double seconds, epoll_event* events) const;
  // Makes ready what wait() found, and what is always ready.
  void take(const epoll_event* events, int count);

  // The next that is ready, if it still is; false when there is none.
  bool nextReady(Ready* ready);
  bool anyReady() const { return nextReady_ < ready_.size() && !entries_.empty(); }
  // The lock was out of our hands, or a callback took long: what is ready is to be looked at again.
  void readyIsOld() { readyIsFresh_ = false; }

 private:
  struct Found {
    int fd;
    uint32_t generation;  // 0: always ready
    Mask events;
  };

  void markChanged(Entry& entry);
  void tellKernel(Entry& entry);
  bool tryWatch(Entry& entry, uint32_t events);
  void unwatch(Entry& entry);
  void foundClosed(Entry& entry);
  Mask lookAgain(Entry& entry);
  void openSet();
  void watchNudge();
  void rebuildSet();

  ActivityCounters& counters_;
  std::unordered_map<int, Entry> entries_;
  std::vector<int> changed_;
  std::vector<int> alwaysReady_;
  std::vector<Found> ready_;
  size_t nextReady_ = 0;
  bool readyIsFresh_ = false;
  Walk* walks_ = nullptr;
  uint64_t registrations_ = 0;
  uint32_t generations_ = 0;
  int set_ = -1;  // epoll
  int nudge_ = -1;
};

}  // namespace ryx::platform
