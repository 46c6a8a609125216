// The activity: the loop of the process. It runs the queued tasks, the timers that are due and the
// descriptors that are ready, one callback at a time, under the activity lock, and lets go of the
// lock while it waits.
//
//   activity().run(0);      does all pending work and returns
//   activity().run(2.5);    runs for 2.5 seconds
//   activity().run();       runs until executionTimeIs(0)
//
// Work is cut into turns. A turn runs the timers that are due, the descriptors that are ready and
// one pass over the tasks that are queued, each for at most a slice (task.h); then the lock is
// handed to a thread that waits for it. So timers, descriptors and other threads stay alive while a
// task works through a long list.
//
// Any thread may run the loop, normally one does. run() may be called inside a callback; a
// descriptor whose callback runs is then left alone, a task or timer may be entered again. An
// exception that leaves a callback leaves run(): the task that threw is queued again, everything
// else that was pending stays so, and the next run() goes on. What is marked while no run() works
// (by another thread that holds the lock, or by a program with a loop of its own) makes the nudge
// descriptor readable, which wakes a loop that waits.
//
// On a virtual clock (clock.h) a run that would wait moves the time to the next timer or to its
// end; one that has neither waits for a descriptor or a nudge.
//
// Unless a function says otherwise, it is called with the activity lock held, or before there is a
// second thread.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

#include "platform/activity/descriptor.h"
#include "platform/activity/descriptor_table.h"
#include "platform/activity/lock.h"
#include "platform/activity/task_queue.h"
#include "platform/activity/timer_heap.h"
#include "platform/base/api.h"

namespace ryx::platform {

// What an operator can read about the loop; each number only grows.
struct ActivityCounters {
  uint64_t turns = 0;
  uint64_t tasks = 0;             // tasks run
  uint64_t timers = 0;            // timers fired
  uint64_t descriptorEvents = 0;  // descriptor callbacks
  uint64_t waits = 0;
  uint64_t nudges = 0;
  uint64_t slicesSpent = 0;         // passes that ended because the slice was spent
  uint64_t handOvers = 0;           // times that the lock went to a thread that waited
  uint64_t slowCallbacks = 0;       // callbacks that held the loop for more than kSlowCallback
  uint64_t zeroRunsCut = 0;         // run(0) that ended after zeroRunTurns() with work left
  uint64_t nestedRunsRefused = 0;   // run() inside kNestedRuns others
  uint64_t busyTimeSkips = 0;       // virtual time that passed though work was left
  uint64_t closedDescriptors = 0;   // descriptors found closed
  uint64_t refusedDescriptors = 0;  // descriptors that the system would not watch
  uint64_t pollSetsRebuilt = 0;     // because a closed file lived on in another process
};

class RYX_PRIVATE Activity {
 public:
  // The most turns of one run(0): past it the run returns, with the nudge armed again.
  static constexpr int kZeroRunTurns = 10'000;
  // The most run() inside one another: past it run() does nothing.
  static constexpr int kNestedRuns = 100;
  // The most turns between two looks at the descriptors while the loop is busy. A turn whose slice
  // is spent, and one in a new tick of the coarse clock, look in any case.
  static constexpr int kPollTurns = 64;
  // On a virtual clock, the busy turns (in units of zeroRunTurns()) after which time passes all the
  // same, to the next timer or the end of the run.
  static constexpr int kBusyZeroRuns = 100;
  // A callback that holds the loop longer is traced by name and counted.
  static constexpr double kSlowCallback = 0.1;

  Activity();
  ~Activity();
  Activity(const Activity&) = delete;
  Activity& operator=(const Activity&) = delete;

  // Runs the loop for that many seconds, 0 or more; 0: until no task is queued, with at least one
  // turn, and at most zeroRunTurns(). Takes the lock when the caller does not hold it. Ends early
  // when executionTimeIs(0) is called meanwhile, or when nothing is left to do and stopOnQuiesce()
  // is set.
  void run(double seconds);

  // Runs the loop for executionTime().
  void run() { run(executionTime_); }

  // How long run() runs: for ever, until it is set. Set to 0, every run that is in progress ends
  // after its current callback, and later ones return when nothing is pending.
  double executionTime() const { return executionTime_; }
  void executionTimeIs(double seconds);

  // How often runs were told to end by executionTimeIs(0).
  uint64_t stops() const { return stops_; }

  // Whether a run ends as soon as there is nothing to do.
  bool stopOnQuiesce() const { return stopOnQuiesce_; }
  void stopOnQuiesceIs(bool stop) { stopOnQuiesce_ = stop; }

  // Whether the platform's own loop is the program's loop for good: then no other may take over.
  bool useEpoll() const { return useEpoll_; }
  void useEpollIs(bool use) { useEpoll_ = use; }

  int zeroRunTurns() const { return zeroRunTurns_; }
  void zeroRunTurnsIs(int turns) { zeroRunTurns_ = turns; }

  // Whether a run() is in progress.
  bool running() const { return runs_ != 0; }

  // How many tasks are queued.
  size_t queued() const { return tasks_.size(); }

  // Any thread.
  ActivityLock& lock() { return lock_; }

  // Readable while work was marked that no run() has seen.
  int nudgeDescriptor();

  // The earliest wake-up of all timers; infinity when none is armed.
  double nextWakeUp() const { return timers_.earliest(); }

  // The file descriptors that are watched, by number.
  std::vector<DescriptorState> descriptors() const;

  // Delivers an event that the program's own loop found to every object that is interested in it,
  // by their callbacks, before it returns. False when no object watches the file descriptor.
  bool descriptorEvent(int fd, DescriptorEvent event);

  // Hands the descriptors to a loop of the program's own, or takes them back (null). What is
  // registered by then is not told: the caller goes through descriptors() and nextWakeUp().
  DescriptorListener* listener() const { return listener_; }
  void listenerIs(DescriptorListener* listener);

  const ActivityCounters& counters() const { return counters_; }

 private:
  friend class Task;
  friend class Timer;
  friend class Descriptor;

  struct Callback;
  struct TaskCallback;
  struct DescriptorCallback;
  struct Run;

  void taskQueued() {
    if (awake_ == 0) nudge();
  }
  void timersChanged() {
    if (waiting_ != 0 || listener_) earliestChanged();
  }
  void earliestChanged();
  void interestChanged(DescriptorTable::Entry& entry, bool on);
  void taskGone(const Task& task);
  void descriptorGone(const Descriptor& descriptor);

  void nudge();
  void writeNudge();
  void drainNudge();

  void runPending(Run& run);
  void runUntil(Run& run);
  void turn(Run& run);
  bool pending() const;
  bool firstPollPending(const Run& run) const;
  void fireTimers(const Run& run);
  void serveDescriptors(Run& run);
  void runTasks(const Run& run);
  void deliver(DescriptorTable::Entry& entry, DescriptorTable::Mask events);
  bool pollIsDue(const Run& run);
  void poll();
  bool rest(const Run& run);
  void wait(double until);
  int waitForNudge(double seconds) const;
  void handOver();

  void tell(DescriptorTable::Entry& entry);
  void tellWhatOthersChanged();
  void tellWakeUp();

  ActivityLock lock_;
  TaskQueue tasks_;
  TimerHeap timers_;
  ActivityCounters counters_;
  DescriptorTable descriptors_{counters_};
  Callback* callbacks_ = nullptr;  // that run, the latest first

  double executionTime_ = Timer::kNever;
  bool stopOnQuiesce_ = false;
  bool useEpoll_ = false;
  int zeroRunTurns_ = kZeroRunTurns;
  uint64_t stops_ = 0;

  int runs_ = 0;                      // run() calls in progress
  int awake_ = 0;                     // those that will look at the queue before they wait
  int waiting_ = 0;                   // those that wait
  double waitUntil_ = Timer::kNever;  // the earliest end of those waits
  double now_ = 0;                    // the coarse time when the latest callback ended
  bool timersLeft_ = false;           // the last turn did not get to all timers that were due
  int turnsSincePoll_ = 0;
  double lastPoll_ = 0;  // coarse

  int nudge_ = -1;
  bool nudged_ = false;
  // The system call is made where somebody can see it: once the descriptor was asked for, and while
  // a loop waits.
  bool nudgeIsWatched_ = false;
  bool nudgeIsWritten_ = false;

  DescriptorListener* listener_ = nullptr;
  pthread_t host_ = 0;       // the thread of the program's own loop
  std::vector<int> untold_;  // what other threads changed
  double toldWakeUp_ = Timer::kNever;
};

// The process's one loop. It is never destroyed.
RYX_PRIVATE Activity& activity();

}  // namespace ryx::platform
