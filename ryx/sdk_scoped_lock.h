// The lock for programs with several threads.
//
// All state of the SDK belongs to the thread that runs its loop. Another thread may call the API
// while it holds an sdk_scoped_lock:
//
//   {
//     ryx::sdk_scoped_lock lock;
//     agents->status_set("workers", "4");
//   }
//
// Callbacks run with the lock held, so agent code in callbacks never takes it. From the first call
// that a thread other than the loop's makes, every call of the API is checked: one that is made
// without the lock, by whichever thread, writes a diagnostic with a backtrace to standard error,
// raises a no_scoped_lock_obtained_error and changes nothing.
#ifndef RYX_SDK_SCOPED_LOCK_H
#define RYX_SDK_SCOPED_LOCK_H

#include <pthread.h>
#include <ryx/api.h>

namespace ryx {

/// Holds the lock from its construction to its destruction, which are for one thread. A thread that
/// has the lock may take it again; the lock is free when the first one that it took goes. Threads
/// that wait for it get it in the order in which they came.
///
/// The loop lets go of the lock while it waits, and hands it over while it works. So a callback
/// must not wait for another thread that needs the lock. A call of `event_loop::run` lets other
/// threads in even in the scope of a lock.
class RYX_API sdk_scoped_lock {
 public:
  sdk_scoped_lock();
  sdk_scoped_lock(const sdk_scoped_lock&) = delete;
  sdk_scoped_lock& operator=(const sdk_scoped_lock&) = delete;
  ~sdk_scoped_lock();

 private:
  friend class ApiGuard;

  void* mutex_;
  bool locked_;     // by this object, and not before it
  bool held_flag_;  // of the mutex, before
  // How this object found the record of who took the lock.
  pthread_t found_owner_;
  int found_count_;
};

}  // namespace ryx

#endif  // RYX_SDK_SCOPED_LOCK_H
