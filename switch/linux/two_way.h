// One attribute that is kept the same in the state and in the kernel, and its rule of authority:
//
//  - At the start the kernel's value is taken over, unless the state has one that is no default:
//    what was configured before goes to the kernel.
//  - What an agent writes goes to the kernel. Until the kernel has answered, what others do there
//    does not go to the state: when both change it at once, the agent's configuration wins.
//  - Otherwise, what others change in the kernel goes to the state.
//  - A value that was taken over, and the kernel's word of an own write, are no writes: neither is
//    written back.
//  - When the kernel refuses for good, the state takes what the kernel has: it tells the truth. A
//    failure that may pass is tried again, kMaxAttempts times in all.
//
// Pure bookkeeping: the owner does the writing, and tells all that happens. `T` is a value.
#pragma once

#include <cstdint>

#include "switch/linux/answer.h"

namespace ryx::kernel {

template <class T>
class TwoWay {
 public:
  // Named bound: how often a write that fails for a passing reason is tried.
  static constexpr int kMaxAttempts = 4;

  enum class Step : uint8_t { none, toKernel, toState };
  enum class Answer : uint8_t { done, refused, later };

  explicit TwoWay(const T& kernel) : kernel_(kernel), agreed_(kernel) {}

  // What the kernel has, as far as is known.
  const T& kernel() const { return kernel_; }
  // A write has no answer yet.
  bool busy() const { return busy_; }

  // The kernel said what it has.
  void kernelHas(const T& value) {
    kernel_ = value;
    if (value == agreed_) confirmed_ = true;
  }

  // What is to do, the state holding `state`. toKernel: write `state` to the kernel, and tell its
  // answer. toState: write kernel() to the state.
  Step next(const T& state) {
    if (busy_) return Step::none;
    if (state != agreed_) {
      agreed_ = state;
      if (state == kernel_) return Step::none;
      busy_ = true;
      confirmed_ = false;
      attempts_ = 0;
      return Step::toKernel;
    }
    if (state == kernel_) return Step::none;
    agreed_ = kernel_;
    return Step::toState;
  }

  // The kernel answered the write, `error` being 0 or an errno. Later: call again() after a while;
  // else next() tells how to go on.
  Answer answered(int error) {
    if (isPassing(error) && ++attempts_ < kMaxAttempts) return Answer::later;
    busy_ = false;
    if (error != 0) return Answer::refused;
    // The kernel tells of a change before it answers, unless that was lost, or it tells nothing (of
    // an alias of a device that is down); what it told after that is somebody else's.
    if (!confirmed_) kernel_ = agreed_;
    return Answer::done;
  }

  // After Answer::later: what to do now.
  Step again(const T& state) {
    int attempts = state == agreed_ ? attempts_ : 0;
    busy_ = false;
    agreed_ = kernel_;
    Step step = next(state);
    attempts_ = attempts;
    return step;
  }

  int attempts() const { return attempts_; }

 private:
  T kernel_;
  T agreed_;  // what the state held when it was looked at last
  bool busy_ = false;
  bool confirmed_ = false;  // since the write, the kernel was heard to have it
  int attempts_ = 0;
};

}  // namespace ryx::kernel
