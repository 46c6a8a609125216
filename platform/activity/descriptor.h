// Descriptors: what the loop watches for readiness. A Descriptor object stands for one party's
// interest in one file descriptor, with three interests and three event counters; several objects
// may watch the same file descriptor, and each hears of every event that it is interested in.
//
// Readiness is level-triggered: a callback that leaves data unread is called again. A hang-up or an
// error is told to the readable and writable interests, and to the exception interest when that is
// the only one. A file descriptor that cannot be waited for (a regular file) counts as always ready
// to read and write. One that turns out to be closed is traced once and no longer waited for, until
// an interest in it is set anew.
//
// The object does not own the file descriptor; take the interests away (or destroy the object)
// before closing it. Everything here is called with the activity lock held.
#pragma once

#include <cstdint>

#include "platform/base/api.h"

namespace ryx::platform {

enum class DescriptorEvent : uint8_t { readable, writable, exception };

class RYX_PRIVATE Descriptor {
 public:
  static constexpr int kEvents = 3;

  // `fd` is 0 or more, or -1 for an object that watches nothing. `name` says in traces who held the
  // loop; it outlives the object.
  explicit Descriptor(int fd, const char* name = "descriptor");
  // Allowed anywhere, in its own callbacks too.
  virtual ~Descriptor();
  Descriptor(const Descriptor&) = delete;
  Descriptor& operator=(const Descriptor&) = delete;

  int fd() const { return fd_; }
  const char* name() const { return name_; }

  bool interest(DescriptorEvent event) const { return interests_ >> index(event) & 1; }
  void interestIs(DescriptorEvent event, bool on);

  bool readableInterest() const { return interest(DescriptorEvent::readable); }
  bool writableInterest() const { return interest(DescriptorEvent::writable); }
  bool exceptionInterest() const { return interest(DescriptorEvent::exception); }
  void readableInterestIs(bool on) { interestIs(DescriptorEvent::readable, on); }
  void writableInterestIs(bool on) { interestIs(DescriptorEvent::writable, on); }
  void exceptionInterestIs(bool on) { interestIs(DescriptorEvent::exception, on); }

  // How many events of that kind were delivered.
  uint64_t count(DescriptorEvent event) const { return counts_[index(event)]; }

 protected:
  // Called on the loop, one at a time, never while an earlier callback of this object still runs.
  virtual void onReadable() {}
  virtual void onWritable() {}
  virtual void onException() {}

 private:
  friend class Activity;
  friend class DescriptorTable;

  static constexpr int index(DescriptorEvent event) { return static_cast<int>(event); }
  void deliver(DescriptorEvent event);

  const int fd_;
  uint8_t interests_ = 0;
  bool inCallback_ = false;
  const char* name_;
  uint64_t counts_[kEvents] = {};
  uint64_t registered_ = 0;  // when it was registered: an event does not reach later ones
  Descriptor* before_ = nullptr;
  Descriptor* after_ = nullptr;  // the objects of one file descriptor
};

// One watched file descriptor: the interests and counters of all objects on it together.
struct DescriptorState {
  int fd;
  bool readable;
  bool writable;
  bool exception;
  uint64_t readableCount;
  uint64_t writableCount;
  uint64_t exceptionCount;
};

// The ear of a program that has a loop of its own. While one is installed (Activity::listenerIs)
// the platform polls no descriptors: the program does, and tells what it found with
// Activity::descriptorEvent() and Activity::run(0).
//
// Called with the activity lock held, in the program's loop thread: the one that installed the
// listener or, later, called run(). A change made by another thread makes the nudge descriptor
// readable, and is told when the program's loop then calls run(0).
class RYX_PRIVATE DescriptorListener {
 public:
  // The interests of all objects on a file descriptor, seen as one, changed.
  virtual void interestChanged(int fd, DescriptorEvent event, bool on) = 0;

  // The earliest wake-up of all timers changed: told at once when it changes outside run(), and at
  // the end of a run. Infinity: no timer is armed.
  virtual void wakeUpChanged(double earliest) = 0;

 protected:
  ~DescriptorListener() = default;
};

}  // namespace ryx::platform
