#include "platform/activity/activity.h"

#include <poll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <utility>

#include "platform/activity/activity_trace.h"
#include "platform/base/check.h"
#include "platform/base/clock.h"

namespace ryx::platform {

namespace {

constexpr DescriptorEvent kEvents[] = {DescriptorEvent::readable, DescriptorEvent::writable,
                                       DescriptorEvent::exception};

}  // namespace

Activity& activity() {
  static Activity& loop = *new Activity;
  return loop;
}

// A callback that runs: a frame of the loop, which knows when its object is destroyed, and measures
// how long the loop is held.
struct Activity::Callback {
  Callback(Activity& a, const char* k, const char* n)
      : loop(a), kind(k), name(n), start(a.now_), earlier(a.callbacks_) {
    if (earlier) earlier->later = this;
    loop.callbacks_ = this;
  }

  ~Callback() {
    (later ? later->earlier : loop.callbacks_) = earlier;
    if (earlier) earlier->later = later;
    loop.now_ = clock().coarseNow();
    if (loop.now_ - start > kSlowCallback) [[unlikely]]
      slow();
  }

  void slow() {
    ++loop.counters_.slowCallbacks;
    RYX_TRACE(activityTrace(), 0,
              "The " << kind << " \"" << name << "\" held the loop for " << loop.now_ - start
                     << " seconds");
  }

  Activity& loop;
  const char* const kind;
  const char* const name;
  double start;
  const pthread_t thread = pthread_self();
  Task* task = nullptr;  // null when it is destroyed, and in callbacks of another kind
  Descriptor* descriptor = nullptr;
  Callback* earlier;
  Callback* later = nullptr;
};

struct Activity::TaskCallback : Callback {
  TaskCallback(Activity& a, Task& t) : Callback(a, "task", t.name_) {
    task = &t;
    ++t.running_;
  }

  ~TaskCallback() {
    if (!task) return;
    --task->running_;
    if (more) task->wake();
  }

  bool more = true;  // unless run() returns and says otherwise
};

struct Activity::DescriptorCallback : Callback {
  DescriptorCallback(Activity& a, Descriptor& d) : Callback(a, "descriptor", d.name_) {
    descriptor = &d;
    d.inCallback_ = true;
  }

  ~DescriptorCallback() {
    if (!descriptor) return;
    descriptor->inCallback_ = false;
    DescriptorTable::Entry* entry = loop.descriptors_.find(descriptor->fd_);
    if (entry->masked) loop.descriptors_.callbackChanged(*entry);
  }
};

// A run() in progress, on the stack of its thread.
struct Activity::Run {
  Run(Activity& a, double seconds)
      : loop(a),
        end(seconds == 0 ? 0 : clock().now() + seconds),
        stops(a.stops_),
        outer(a.callbacks_) {
    ++loop.runs_;
    ++loop.awake_;
    if (loop.listener_) loop.host_ = pthread_self();
    while (outer && !pthread_equal(outer->thread, pthread_self())) outer = outer->earlier;
    for (Callback* callback = loop.callbacks_; callback; callback = callback->earlier)
      if (callback->descriptor)
        loop.descriptors_.callbackChanged(*loop.descriptors_.find(callback->descriptor->fd_));
    loop.descriptors_.readyIsOld();
  }

  ~Run() {
    --loop.runs_;
    --loop.awake_;
    loop.descriptors_.readyIsOld();
    // The callback that called run() did not hold the loop meanwhile.
    if (outer) outer->start = clock().coarseNow();
    if (loop.awake_ != 0) return;
    if (!loop.tasks_.empty() || loop.waiting_ != 0) loop.nudge();
    try {
      loop.tellWakeUp();
    } catch (...) {
      RYX_TRACE(activityTrace(), 0, "The listener failed when it was told the next wake-up");
    }
  }

  bool stopped() const { return stops != loop.stops_; }

  Activity& loop;
  const double end;
  const uint64_t stops;
  Callback* outer;  // the callback of this thread that called run()
  int polls = 0;
  int busyTurns = 0;  // since the time last changed
  double busySince = 0;
};

Activity::Activity() : nudge_(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {
  check(nudge_ >= 0, "eventfd");
  descriptors_.nudgeIs(nudge_);
}

Activity::~Activity() {
  ::close(nudge_);
}

void Activity::run(double seconds) {
  check(seconds >= 0, "the loop runs for 0 or more seconds");
  ActivityLockGuard guard(lock_);
  if (runs_ >= kNestedRuns) {
    ++counters_.nestedRunsRefused;
    RYX_TRACE(activityTrace(), 0, "The loop runs inside itself " << runs_ << " times already");
    return;
  }
  Run run(*this, seconds);
  if (seconds == 0)
    runPending(run);
  else
    runUntil(run);
}

void Activity::runPending(Run& run) {
  for (int turns = 1;; ++turns) {
    turn(run);
    handOver();
    if (run.stopped()) return;
    if (tasks_.empty() && !timersLeft_ && !firstPollPending(run)) return;
    if (turns >= zeroRunTurns_) {
      ++counters_.zeroRunsCut;
      RYX_TRACE(activityTrace(), 0,
                "Work was left after " << turns << " turns, " << tasks_.size() << " tasks");
      return nudge();
    }
  }
}

// What its first poll found is work of a run(0); what later ones find may never end.
bool Activity::firstPollPending(const Run& run) const {
  if (listener_ || descriptors_.empty()) return false;
  return run.polls == 0 || (run.polls == 1 && descriptors_.anyReady());
}

void Activity::runUntil(Run& run) {
  for (;;) {
    turn(run);
    handOver();
    const double now = clock().now();
    if (run.stopped() || now >= run.end) return;
    if (now != run.busySince) {
      run.busySince = now;
      run.busyTurns = 0;
    }
    if (++run.busyTurns >= kBusyZeroRuns * zeroRunTurns_ && clock().isVirtual()) {
      const double next = timers_.earliest();
      const double until = next > now ? std::min(next, run.end) : run.end;
      ++counters_.busyTimeSkips;
      if (std::isfinite(until)) clock().skipTo(until);
    } else if (!pending()) {
      if (!rest(run) || run.stopped()) return;
    }
  }
}

void Activity::turn(Run& run) {
  ++counters_.turns;
  drainNudge();
  tellWhatOthersChanged();
  now_ = clock().coarseNow();
  fireTimers(run);
  if (!run.stopped()) serveDescriptors(run);
  if (!run.stopped()) runTasks(run);
}

bool Activity::pending() const {
  return !tasks_.empty() || timersLeft_ || (!listener_ && descriptors_.anyReady());
}

void Activity::fireTimers(const Run& run) {
  timersLeft_ = timers_.anyDue();
  if (!timersLeft_) {
    if (timers_.earliest() > now_ + Clock::kCoarseLag) return;
    timersLeft_ = !timers_.takeDue(clock().now(), Slice::kItems);
    if (!timers_.anyDue()) return;
  }
  Slice slice;
  while (timers_.anyDue()) {
    Timer& timer = timers_.popDue();
    ++counters_.timers;
    {
      Callback frame(*this, "timer", timer.name());
      timer.onTimer();
    }
    if (run.stopped()) break;
    if (slice.spent()) {
      ++counters_.slicesSpent;
      break;
    }
  }
  if (timers_.anyDue()) timersLeft_ = true;
}

void Activity::serveDescriptors(Run& run) {
  if (listener_ || descriptors_.empty()) return;
  Slice slice;
  DescriptorTable::Ready ready;
  // What an earlier turn left comes first, then what a new poll finds.
  for (bool polled = false;;) {
    if (descriptors_.nextReady(&ready)) {
      deliver(*descriptors_.find(ready.fd), ready.events);
      if (run.stopped()) break;
      if (slice.spent()) {
        ++counters_.slicesSpent;
        break;
      }
    } else {
      if (polled || !pollIsDue(run)) break;
      poll();
      polled = true;
      ++run.polls;
    }
  }
  descriptors_.readyIsOld();
}

bool Activity::pollIsDue(const Run& run) {
  return run.polls == 0 || ++turnsSincePoll_ >= kPollTurns || now_ != lastPoll_;
}

[[gnu::noinline]] void Activity::poll() {
  epoll_event events[DescriptorTable::kPollEvents];
  descriptors_.prepare();
  descriptors_.take(events, descriptors_.wait(0, events));
  turnsSincePoll_ = 0;
  now_ = lastPoll_ = clock().coarseNow();
}

void Activity::deliver(DescriptorTable::Entry& entry, DescriptorTable::Mask events) {
  DescriptorTable::Walk walk(descriptors_, entry);
  while (Descriptor* object = walk.next()) {
    if (object->inCallback_) continue;
    for (const DescriptorEvent event : kEvents) {
      const DescriptorTable::Mask bit = DescriptorTable::bit(event);
      if (!object->interest(event)) continue;
      const bool trouble = (events & DescriptorTable::kTrouble) != 0 &&
                           (event != DescriptorEvent::exception || object->interests_ == bit);
      if (!trouble && (events & bit) == 0) continue;
      ++counters_.descriptorEvents;
      DescriptorCallback frame(*this, *object);
      object->deliver(event);
      if (!frame.descriptor) break;
    }
  }
}

void Activity::runTasks(const Run& run) {
  size_t pass = tasks_.size();
  if (pass == 0) return;
  Slice slice;
  for (; pass != 0 && !tasks_.empty(); --pass) {
    Task& task = tasks_.pop();
    ++counters_.tasks;
    {
      TaskCallback frame(*this, task);
      frame.more = task.run(slice);
    }
    if (run.stopped()) return;
    if (slice.spent()) {
      ++counters_.slicesSpent;
      turnsSincePoll_ = kPollTurns;
      return;
    }
  }
}

// Nothing is pending: time passes. False when the run ends here.
bool Activity::rest(const Run& run) {
  const double until = std::min(run.end, timers_.earliest());
  const bool looks = clock().isVirtual() || stopOnQuiesce_;
  if (looks && !listener_ && !descriptors_.empty()) {
    poll();
    if (descriptors_.anyReady()) return true;
  }
  if (stopOnQuiesce_) return timers_.earliest() <= clock().now();
  if (until == Timer::kNever || !clock().skipTo(until)) wait(until);
  return true;
}

[[gnu::noinline]] void Activity::wait(double until) {
  if (nudged_) return;
  epoll_event events[DescriptorTable::kPollEvents];
  const bool external = listener_ != nullptr;
  if (!external && !descriptors_.prepare()) return poll();
  const double seconds = std::max(0.0, until - clock().now());
  ++counters_.waits;
  --awake_;
  ++waiting_;
  waitUntil_ = std::min(waitUntil_, until);
  const uint32_t acquisition = lock_.acquisition();
  int count = 0;
  {
    ActivityUnlockGuard unlocked(lock_);
    count = external ? waitForNudge(seconds) : descriptors_.wait(seconds, events);
  }
  ++awake_;
  if (--waiting_ == 0) waitUntil_ = Timer::kNever;
  if (external) return;
  // What was found holds, unless somebody had the lock meanwhile.
  if (lock_.acquisition() == acquisition + 1)
    descriptors_.take(events, count);
  else
    turnsSincePoll_ = kPollTurns;
}

int Activity::waitForNudge(double seconds) const {
  constexpr double kLongest = 1e6;
  pollfd nudge{nudge_, POLLIN, 0};
  return ::poll(&nudge, 1, static_cast<int>(std::ceil(std::min(seconds, kLongest) * 1e3)));
}

void Activity::handOver() {
  if (lock_.waiters() == 0) return;
  ++counters_.handOvers;
  descriptors_.readyIsOld();
  ActivityUnlockGuard unlocked(lock_);
}

void Activity::executionTimeIs(double seconds) {
  check(seconds >= 0, "the loop runs for 0 or more seconds");
  executionTime_ = seconds;
  if (seconds != 0) return;
  ++stops_;
  if (waiting_ != 0) nudge();
}

void Activity::nudge() {
  if (nudged_) return;
  nudged_ = true;
  ++counters_.nudges;
  if (nudgeIsWatched_ || waiting_ != 0) writeNudge();
}

void Activity::writeNudge() {
  nudgeIsWritten_ = true;
  const uint64_t one = 1;
  check(::write(nudge_, &one, sizeof one) == sizeof one, "the nudge descriptor takes a nudge");
}

int Activity::nudgeDescriptor() {
  nudgeIsWatched_ = true;
  if (nudged_ && !nudgeIsWritten_) writeNudge();
  return nudge_;
}

void Activity::drainNudge() {
  if (!nudged_) return;
  nudged_ = false;
  if (!std::exchange(nudgeIsWritten_, false)) return;
  uint64_t count;
  check(::read(nudge_, &count, sizeof count) == sizeof count, "the nudge descriptor was nudged");
}

void Activity::taskGone(const Task& task) {
  for (Callback* callback = callbacks_; callback; callback = callback->earlier)
    if (callback->task == &task) callback->task = nullptr;
}

void Activity::descriptorGone(const Descriptor& descriptor) {
  for (Callback* callback = callbacks_; callback; callback = callback->earlier)
    if (callback->descriptor == &descriptor) callback->descriptor = nullptr;
}

std::vector<DescriptorState> Activity::descriptors() const {
  return descriptors_.list();
}

bool Activity::descriptorEvent(int fd, DescriptorEvent event) {
  ActivityLockGuard guard(lock_);
  DescriptorTable::Entry* entry = descriptors_.find(fd);
  if (!entry || !entry->first) return false;
  now_ = clock().coarseNow();
  deliver(*entry, DescriptorTable::bit(event));
  return true;
}

void Activity::listenerIs(DescriptorListener* listener) {
  listener_ = listener;
  host_ = pthread_self();
  toldWakeUp_ = timers_.earliest();
  tellWhatOthersChanged();
  for (const DescriptorState& state : descriptors_.list()) {
    DescriptorTable::Entry& entry = *descriptors_.find(state.fd);
    entry.told = DescriptorTable::interests(entry);
  }
}

void Activity::interestChanged(DescriptorTable::Entry& entry, bool on) {
  descriptors_.interestChanged(entry, on);
  if (!listener_) {
    if (waiting_ != 0) nudge();
  } else if (pthread_equal(host_, pthread_self())) {
    tell(entry);
  } else if (!entry.untold) {
    entry.untold = true;
    untold_.push_back(entry.fd);
    nudge();
  }
}

void Activity::tell(DescriptorTable::Entry& entry) {
  const int fd = entry.fd;
  for (const DescriptorEvent event : kEvents) {
    DescriptorTable::Entry* current = descriptors_.find(fd);
    if (!current || !listener_) return;
    const DescriptorTable::Mask bit = DescriptorTable::bit(event);
    const DescriptorTable::Mask on = DescriptorTable::interests(*current) & bit;
    if ((current->told & bit) == on) continue;
    current->told ^= bit;
    listener_->interestChanged(fd, event, on != 0);
  }
}

void Activity::tellWhatOthersChanged() {
  while (!untold_.empty()) {
    const int fd = untold_.back();
    untold_.pop_back();
    DescriptorTable::Entry& entry = *descriptors_.find(fd);
    entry.untold = false;
    tell(entry);
    if (DescriptorTable::Entry* left = descriptors_.find(fd)) descriptors_.release(*left);
  }
}

void Activity::earliestChanged() {
  if (waiting_ != 0 && timers_.earliest() < waitUntil_) nudge();
  if (!listener_ || awake_ != 0) return;
  if (pthread_equal(host_, pthread_self()))
    tellWakeUp();
  else if (timers_.earliest() != toldWakeUp_)
    nudge();
}

void Activity::tellWakeUp() {
  const double earliest = timers_.earliest();
  if (!listener_ || earliest == toldWakeUp_) return;
  toldWakeUp_ = earliest;
  listener_->wakeUpChanged(earliest);
}

}  // namespace ryx::platform
