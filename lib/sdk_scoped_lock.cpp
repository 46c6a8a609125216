// The lock of the API, over the activity lock, and the check that a thread has it.
#include "ryx/sdk_scoped_lock.h"

#include <execinfo.h>
#include <unistd.h>

#include <cerrno>
#include <cinttypes>
#include <cstdio>
#include <system_error>

#include "lib/api_lock.h"
#include "platform/activity/activity.h"
#include "platform/trace/trace.h"
#include "ryx/panic.h"

namespace ryx {

namespace {

using platform::ActivityLock;

constexpr int kBacktraceFrames = 10;

constinit ApiLock record;

platform::TraceFacility& trace() {
  static auto& facility = platform::TraceFacility::named("RyxSdk");
  return facility;
}

ActivityLock& activityLock(void* mutex) {
  return *static_cast<ActivityLock*>(mutex);
}

[[noreturn]] void throwErrno(int code, const char* what) {
  throw std::system_error(code, std::generic_category(), what);
}

bool lockForApi(ActivityLock& mutex) {
  const int result = mutex.lock();
  if (result != 0 && result != EDEADLK) throwErrno(result, "Failed to grab lock");
  return result == 0;
}

void writeDiagnostic(pthread_t caller, pthread_t owner, int count) {
  void* frames[kBacktraceFrames];
  backtrace_symbols_fd(frames, backtrace(frames, kBacktraceFrames), STDERR_FILENO);
  std::fprintf(stderr,
               "[RYX SDK ERROR] Thread did not grab ryx::sdk_scoped_lock:\n"
               "  mainThreadId: %" PRIuMAX
               "\n"
               "  scopedLockOwner: %" PRIuMAX
               "\n"
               "  scopedLockOwnerCount: %d\n"
               "  myThreadId: %" PRIuMAX "\n",
               static_cast<uintmax_t>(record.mainThreadId), static_cast<uintmax_t>(owner), count,
               static_cast<uintmax_t>(caller));
}

}  // namespace

ApiLock& apiLock() {
  return record;
}

void recordMainThread() {
  const sdk_scoped_lock lock;
  record.mainThreadId = pthread_self();
}

void recordMainThreadIfNone() {
  const sdk_scoped_lock lock;
  if (record.mainThreadId == 0) record.mainThreadId = pthread_self();
}

void checkApiThread(pthread_t foundOwner, int foundCount) {
  const pthread_t self = pthread_self();
  if (!record.multiThreaded) {
    if (pthread_equal(self, record.mainThreadId)) return;
    record.multiThreaded = true;
  }
  if (foundCount > 0 && pthread_equal(foundOwner, self)) return;
  writeDiagnostic(self, foundOwner, foundCount);
  panic(no_scoped_lock_obtained_error());
}

OpenLockScopes::OpenLockScopes()
    : owner_(record.scopedLockOwner), count_(record.scopedLockOwnerCount) {
  record.scopedLockOwnerCount = 0;
}

OpenLockScopes::~OpenLockScopes() {
  record.scopedLockOwner = owner_;
  record.scopedLockOwnerCount = count_;
}

sdk_scoped_lock::sdk_scoped_lock()
    : mutex_(&platform::activity().lock()), locked_(lockForApi(activityLock(mutex_))) {
  ActivityLock& mutex = activityLock(mutex_);
  held_flag_ = mutex.heldFlag();
  mutex.heldFlagIs(true);
  found_owner_ = record.scopedLockOwner;
  found_count_ = record.scopedLockOwnerCount;
  record.scopedLockOwner = pthread_self();
  ++record.scopedLockOwnerCount;
  RYX_TRACE(trace(), 9,
            "ryx::sdk_scoped_lock grabbed - scopedLockOwnerCount: "
                << record.scopedLockOwnerCount
                << ", scopedLockOwner thread id: " << record.scopedLockOwner);
}

sdk_scoped_lock::~sdk_scoped_lock() {
  --record.scopedLockOwnerCount;
  RYX_TRACE(trace(), 9,
            "ryx::sdk_scoped_lock released - scopedLockOwnerCount: "
                << record.scopedLockOwnerCount
                << ", scopedLockOwner thread id: " << record.scopedLockOwner);
  ActivityLock& mutex = activityLock(mutex_);
  mutex.heldFlagIs(held_flag_);
  if (!locked_) return;
  // A destructor that throws ends the process: there is no way to go on without knowing who has the
  // lock.
  if (const int result = mutex.unlock(); result != 0)
    throwErrno(result, "Failed to release the lock");
}

}  // namespace ryx
