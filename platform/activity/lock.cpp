#include "platform/activity/lock.h"

#include <linux/futex.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <climits>

#include "platform/base/check.h"

namespace ryx::platform {

namespace {

constexpr int kSpins = 100;  // looks before a thread that is next goes to sleep

uint32_t* word(std::atomic<uint32_t>& value) {
  static_assert(sizeof(value) == sizeof(uint32_t));
  return reinterpret_cast<uint32_t*>(&value);
}

// Sleepers are told apart by their ticket, so that a release wakes the one whose turn it is.
uint32_t bitOf(uint32_t ticket) {
  return 1u << (ticket % 32);
}

void relax() {
#if defined(__x86_64__) || defined(__i386__)
  __builtin_ia32_pause();
#elif defined(__aarch64__)
  asm volatile("yield");
#endif
}

}  // namespace

int ActivityLock::lock() {
  const pthread_t self = pthread_self();
  if (owner_.load(std::memory_order_relaxed) == self) return EDEADLK;
  const uint32_t ticket = next_.fetch_add(1, std::memory_order_seq_cst);
  if (serving_.load(std::memory_order_acquire) != ticket) [[unlikely]]
    waitForTurn(ticket);
  owner_.store(self, std::memory_order_relaxed);
  return 0;
}

int ActivityLock::unlock() {
  if (!heldByCaller()) return EPERM;
  owner_.store(kNobody, std::memory_order_relaxed);
  // The store and the load below are ordered with the ticket and the look of a thread that comes to
  // wait: either it sees that it is its turn or we see that it waits.
  const uint32_t ticket = serving_.load(std::memory_order_relaxed) + 1;
  serving_.store(ticket, std::memory_order_seq_cst);
  if (next_.load(std::memory_order_seq_cst) != ticket) [[unlikely]]
    wakeHolder(ticket);
  return 0;
}

void ActivityLock::waitForTurn(uint32_t ticket) {
  for (int spins = 0;;) {
    const uint32_t serving = serving_.load(std::memory_order_seq_cst);
    if (serving == ticket) return;
    if (serving + 1 == ticket && ++spins < kSpins) {
      relax();
      continue;
    }
    syscall(SYS_futex, word(serving_), FUTEX_WAIT_BITSET_PRIVATE, serving, nullptr, nullptr,
            bitOf(ticket));
  }
}

void ActivityLock::wakeHolder(uint32_t ticket) {
  syscall(SYS_futex, word(serving_), FUTEX_WAKE_BITSET_PRIVATE, INT_MAX, nullptr, nullptr,
          bitOf(ticket));
}

ActivityLockGuard::ActivityLockGuard(ActivityLock& lock) : lock_(lock), locked_(lock.lock() == 0) {
  heldFlag_ = lock_.heldFlag();
  lock_.heldFlagIs(true);
}

ActivityLockGuard::~ActivityLockGuard() {
  lock_.heldFlagIs(heldFlag_);
  if (locked_) check(lock_.unlock() == 0, "the activity lock is held at the end of its scope");
}

ActivityUnlockGuard::ActivityUnlockGuard(ActivityLock& lock)
    : lock_(lock), heldFlag_(lock.heldFlag()) {
  lock_.heldFlagIs(false);
  check(lock_.unlock() == 0, "the activity lock is held by who lets go of it");
}

ActivityUnlockGuard::~ActivityUnlockGuard() {
  check(lock_.lock() == 0, "the activity lock is not held by who takes it again");
  lock_.heldFlagIs(heldFlag_);
}

}  // namespace ryx::platform
