// Tasks: what the loop runs, and the base of every reactor. A task that has something to do is
// woken; the loop then runs it once, however often it was woken before. It never runs inside
// wake().
//
// Everything here is called with the activity lock held.
#pragma once

#include <cstdint>

#include "platform/base/api.h"

namespace ryx::platform {

// How long a task may go on: a bounded number of items and about a millisecond. A task with a long
// list asks after each item:
//
//   while (takeNextKey()) {
//     ...
//     if (slice.spent()) return true;
//   }
//   return false;
class RYX_PRIVATE Slice {
 public:
  static constexpr uint32_t kItems = 2048;
  static constexpr double kSeconds = 0.001;

  Slice();

  // Counts one item. True when the task should stop here and be queued again.
  bool spent() { return ++items_ >= nextLook_ && look(); }

 private:
  bool look();

  uint32_t items_ = 0;
  // The clock is read at few items, mostly at every 64th. A slice of one item reads the coarse
  // clock alone, and the time of others starts with their second item.
  uint32_t nextLook_ = 1;
  const double began_;  // coarse
  double end_ = 0;
};

class RYX_PRIVATE Task {
 public:
  // Of the tasks that are queued, those of a lower order run before those of a higher one; within
  // one order they run as they were queued.
  enum class Order : uint8_t { first, second, normal };
  static constexpr int kOrders = 3;

  // Leaves the queue; allowed anywhere, in its own run() too.
  virtual ~Task();
  Task(const Task&) = delete;
  Task& operator=(const Task&) = delete;

  const char* name() const { return name_; }
  bool queued() const { return queued_; }

  // Queues the task unless it is queued. Constant time, no allocation. A loop that waits wakes up;
  // a program with a loop of its own sees the nudge descriptor become readable.
  void wake() {
    if (!queued_) enqueue();
  }

 protected:
  // `name` says in traces who held the loop; it outlives the task.
  explicit Task(const char* name, Order order = Order::normal) : name_(name), order_(order) {}

  // Does the work. True: there is more to do, the task is queued again at the end of its order. So
  // is a task that throws: what it had left is not lost. While it runs the task is not queued, and
  // a wake() is a new run, which a loop that runs inside this one does too: a task that calls out
  // with work left wakes itself first, so that such a loop gets on with the rest.
  virtual bool run(Slice& slice) = 0;

 private:
  friend class Activity;
  friend class TaskQueue;

  void enqueue();

  Task* before_ = nullptr;
  Task* after_ = nullptr;
  const char* name_;
  const Order order_;
  bool queued_ = false;
  uint8_t running_ = 0;  // how many frames of the loop refer to it
};

}  // namespace ryx::platform
