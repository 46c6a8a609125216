// A kernel of maps in slow motion, for the logic of the linux feed: what it is told takes effect
// when it is served, and what it says waits in a queue, in its order, until it is delivered.
#pragma once

#include <deque>
#include <functional>
#include <utility>

#include "platform/activity/activity.h"

namespace ryx::test {

class SlowKernel {
 public:
  void serve() { next(told_); }
  void deliver() { next(said_); }
  bool isIdle() const { return told_.empty() && said_.empty(); }
  // Until nothing moves any more.
  void rest() {
    do {
      platform::activity().run(0);
      serve();
      deliver();
    } while (!isIdle());
    platform::activity().run(0);
  }

 protected:
  using What = std::function<void()>;
  void isTold(What what) { told_.push_back(std::move(what)); }
  void says(What what) { said_.push_back(std::move(what)); }

 private:
  static void next(std::deque<What>& queue) {
    if (queue.empty()) return;
    const What what = std::move(queue.front());
    queue.pop_front();
    what();
  }

  std::deque<What> told_, said_;
};

}  // namespace ryx::test
