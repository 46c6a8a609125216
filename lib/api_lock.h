// The record of who may call the API: which thread runs the loop, and which took the lock last. All
// of it is read and written under the activity lock.
#pragma once

#include <pthread.h>

namespace ryx {

struct ApiLock {
  pthread_t mainThreadId = 0;     // the loop's thread; 0 while there is none
  bool multiThreaded = false;     // once another thread has called, for ever
  pthread_t scopedLockOwner = 0;  // the last thread that took the lock
  int scopedLockOwnerCount = 0;   // the lock scopes that are open
};

ApiLock& apiLock();

// The calling thread runs the loop from now on.
void recordMainThread();

// The same, when no thread is recorded.
void recordMainThreadIfNone();

// Raises a no_scoped_lock_obtained_error, after a diagnostic, when the calling thread may not call
// the API, by the owner and count that it found before it took the lock for this call.
void checkApiThread(pthread_t foundOwner, int foundCount);

// For a loop that is run inside a callback, or in the scope of a lock: while it lasts the lock
// passes from hand to hand, so that the scopes around it count for nothing, and then count again.
class OpenLockScopes {
 public:
  OpenLockScopes();
  ~OpenLockScopes();
  OpenLockScopes(const OpenLockScopes&) = delete;
  OpenLockScopes& operator=(const OpenLockScopes&) = delete;

 private:
  const pthread_t owner_;
  const int count_;
};

}  // namespace ryx
