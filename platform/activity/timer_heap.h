// The armed timers: a 4-ary heap of (time, timer), each timer knowing its place. Inside
// platform/activity/ only.
//
// Moving a timer to a later time, and disarming it, do not touch the heap: the timer keeps its
// place, whose time is then a lower bound of its real one, and moves when it reaches the top. So a
// time-out that is pushed back with every packet costs a few stores each time and one move when its
// first time comes. The top itself always stands at its real time, which makes earliest() exact.
//
// Timers that are due are first taken out into a list, in order, and fired from there: what a
// callback arms meanwhile has to wait for the next time that due timers are taken out.
#pragma once

#include <cstddef>
#include <vector>

#include "platform/activity/timer.h"

namespace ryx::platform {

class TimerHeap {
 public:
  // The earliest wake-up of all armed timers; infinity when there is none.
  double earliest() const {
    const double inHeap = heap_.empty() ? Timer::kNever : heap_[0].time;
    return firstDue_ && firstDue_->wakeUp_ < inHeap ? firstDue_->wakeUp_ : inHeap;
  }

  void arm(Timer& timer, double time);
  void disarm(Timer& timer);
  // Disarms and leaves nothing behind.
  void forget(Timer& timer);

  // Takes at most `limit` of the timers that are due at `now` out of the heap. Returns whether that
  // was all of them.
  bool takeDue(double now, size_t limit);
  bool anyDue() const { return firstDue_ != nullptr; }
  // Disarms the first of the timers that were taken out and returns it.
  Timer& popDue();

 private:
  struct Node {
    double time;
    Timer* timer;
  };

  static bool earlier(const Node& a, const Node& b) {
    return a.time < b.time || (a.time == b.time && a.timer->keyArming_ < b.timer->keyArming_);
  }

  void put(size_t place, const Node& node) {
    heap_[place] = node;
    node.timer->place_ = static_cast<uint32_t>(place);
  }
  void siftUp(size_t place, Node node);
  void siftDown(size_t place, Node node);
  void removeAt(size_t place);
  void settleTop();
  void removeDue(Timer& timer);

  std::vector<Node> heap_;
  uint64_t armings_ = 0;
  Timer* firstDue_ = nullptr;
  Timer* lastDue_ = nullptr;
};

}  // namespace ryx::platform
