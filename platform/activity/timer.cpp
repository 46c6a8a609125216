#include "platform/activity/timer.h"

#include "platform/activity/activity.h"
#include "platform/base/check.h"

namespace ryx::platform {

Timer::~Timer() {
  if (place_ == kOutside && !due_) return;
  Activity& loop = activity();
  loop.timers_.forget(*this);
  loop.timersChanged();
}

void Timer::armAt(double time) {
  check(time == time, "a timer is armed for a time that is a number");
  if (time == kNever) return disarm();
  Activity& loop = activity();
  loop.timers_.arm(*this, time);
  loop.timersChanged();
}

void Timer::disarm() {
  Activity& loop = activity();
  loop.timers_.disarm(*this);
  loop.timersChanged();
}

void TimerHeap::arm(Timer& timer, double time) {
  if (timer.due_) removeDue(timer);
  timer.wakeUp_ = time;
  timer.arming_ = ++armings_;
  if (timer.place_ == Timer::kOutside) {
    timer.keyArming_ = timer.arming_;
    heap_.emplace_back();
    siftUp(heap_.size() - 1, {time, &timer});
  } else if (time < heap_[timer.place_].time) {
    timer.keyArming_ = timer.arming_;
    siftUp(timer.place_, {time, &timer});
  } else if (timer.place_ == 0) {
    settleTop();
  }
}

void TimerHeap::disarm(Timer& timer) {
  if (timer.due_) removeDue(timer);
  timer.wakeUp_ = Timer::kNever;
  if (timer.place_ == 0) settleTop();
}

void TimerHeap::forget(Timer& timer) {
  if (timer.due_) removeDue(timer);
  if (timer.place_ == Timer::kOutside) return;
  removeAt(timer.place_);
  settleTop();
}

bool TimerHeap::takeDue(double now, size_t limit) {
  for (; !heap_.empty() && heap_[0].time <= now; --limit) {
    if (limit == 0) return false;
    Timer& timer = *heap_[0].timer;
    removeAt(0);
    settleTop();
    timer.due_ = true;
    timer.dueBefore_ = lastDue_;
    timer.dueAfter_ = nullptr;
    (lastDue_ ? lastDue_->dueAfter_ : firstDue_) = &timer;
    lastDue_ = &timer;
  }
  return true;
}

Timer& TimerHeap::popDue() {
  Timer& timer = *firstDue_;
  removeDue(timer);
  timer.wakeUp_ = Timer::kNever;
  return timer;
}

void TimerHeap::removeDue(Timer& timer) {
  (timer.dueBefore_ ? timer.dueBefore_->dueAfter_ : firstDue_) = timer.dueAfter_;
  (timer.dueAfter_ ? timer.dueAfter_->dueBefore_ : lastDue_) = timer.dueBefore_;
  timer.due_ = false;
}

// `node` goes to `place` or, past later ones, further up.
void TimerHeap::siftUp(size_t place, Node node) {
  while (place != 0) {
    const size_t parent = (place - 1) / 4;
    if (!earlier(node, heap_[parent])) break;
    put(place, heap_[parent]);
    place = parent;
  }
  put(place, node);
}

void TimerHeap::siftDown(size_t place, Node node) {
  const size_t size = heap_.size();
  for (;;) {
    const size_t first = 4 * place + 1;
    if (first >= size) break;
    size_t best = first;
    for (size_t child = first + 1; child < size && child < first + 4; ++child)
      if (earlier(heap_[child], heap_[best])) best = child;
    if (!earlier(heap_[best], node)) break;
    put(place, heap_[best]);
    place = best;
  }
  put(place, node);
}

// The node there goes; the last one takes its place and then finds its own.
void TimerHeap::removeAt(size_t place) {
  heap_[place].timer->place_ = Timer::kOutside;
  const Node last = heap_.back();
  heap_.pop_back();
  if (place == heap_.size()) return;
  if (place != 0 && earlier(last, heap_[(place - 1) / 4]))
    siftUp(place, last);
  else
    siftDown(place, last);
}

// The timer at the top moves to where its real time belongs, until that is the top.
void TimerHeap::settleTop() {
  while (!heap_.empty()) {
    Timer& timer = *heap_[0].timer;
    if (!timer.armed()) {
      removeAt(0);
    } else if (timer.keyArming_ != timer.arming_) {
      timer.keyArming_ = timer.arming_;
      siftDown(0, {timer.wakeUp_, &timer});
    } else {
      return;
    }
  }
}

}  // namespace ryx::platform
