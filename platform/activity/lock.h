// The activity lock: the one mutex under which the loop works, and under which any other thread has
// to work when it touches the process's state. The loop holds it while it runs callbacks and lets
// go of it while it waits.
//
// It is fair: threads get it in the order in which they came (tickets), so a thread that waits gets
// it at the next time that the loop hands over, however busy the loop is. It checks for errors:
// locking it twice or unlocking another thread's is an error code, not a deadlock. lock() and
// unlock() synchronise like those of a mutex; any thread may call any function here.
#pragma once

#include <pthread.h>

#include <atomic>
#include <cstdint>

#include "platform/base/api.h"

namespace ryx::platform {

class RYX_PRIVATE ActivityLock {
 public:
  ActivityLock() = default;
  ActivityLock(const ActivityLock&) = delete;
  ActivityLock& operator=(const ActivityLock&) = delete;

  // 0, or EDEADLK when the calling thread holds it already.
  [[nodiscard]] int lock();

  // 0, or EPERM when the calling thread does not hold it.
  int unlock();

  bool heldByCaller() const { return owner_.load(std::memory_order_relaxed) == pthread_self(); }
  bool held() const { return owner_.load(std::memory_order_relaxed) != kNobody; }

  // How many threads wait for the lock, asked by its holder.
  uint32_t waiters() const {
    return next_.load(std::memory_order_relaxed) - serving_.load(std::memory_order_relaxed) - 1;
  }

  // Which acquisition this is: the holder knows from an unchanged number (plus its own) that nobody
  // else had the lock meanwhile. Wraps around.
  uint32_t acquisition() const { return serving_.load(std::memory_order_relaxed); }

  // True while somebody works under the lock: a flag that the scope guards set, and put back when
  // they end. To be read and written by the holder.
  bool heldFlag() const { return heldFlag_; }
  void heldFlagIs(bool flag) { heldFlag_ = flag; }

 private:
  static constexpr pthread_t kNobody = 0;

  void waitForTurn(uint32_t ticket);
  void wakeHolder(uint32_t ticket);

  std::atomic<uint32_t> next_{0};     // the next ticket to give out
  std::atomic<uint32_t> serving_{0};  // the ticket that holds the lock, or may take it
  std::atomic<pthread_t> owner_{kNobody};
  bool heldFlag_ = false;
};

// Holds the lock for a scope. Where the calling thread holds it already, it stays held afterwards.
class RYX_PRIVATE ActivityLockGuard {
 public:
  explicit ActivityLockGuard(ActivityLock& lock);
  ~ActivityLockGuard();
  ActivityLockGuard(const ActivityLockGuard&) = delete;
  ActivityLockGuard& operator=(const ActivityLockGuard&) = delete;

 private:
  ActivityLock& lock_;
  bool locked_;
  bool heldFlag_;
};

// Lets go of the lock for a scope: what the loop does while it waits. The caller holds it.
class RYX_PRIVATE ActivityUnlockGuard {
 public:
  explicit ActivityUnlockGuard(ActivityLock& lock);
  ~ActivityUnlockGuard();
  ActivityUnlockGuard(const ActivityUnlockGuard&) = delete;
  ActivityUnlockGuard& operator=(const ActivityUnlockGuard&) = delete;

 private:
  ActivityLock& lock_;
  bool heldFlag_;
};

}  // namespace ryx::platform
