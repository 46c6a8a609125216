// The guards at the top of every operation of a manager and of every callback of a reactor.
//
//   bool IntfMgrImpl::exists(intf_id_t intf) const {
//     ApiGuard guard(*this);
//     ...
//   }
//
//   void IntfStatusSm::onAttributes(uint32_t) {
//     CallbackGuard guard(mgr_);
//     mgr_.on_oper_status(...);
//   }
//
// Both hold the API's lock for their scope, and make what is written in it the agent's writes.
#pragma once

#include "lib/api_lock.h"
#include "platform/statehub/entity_manager.h"
#include "ryx/mount.h"
#include "ryx/sdk_scoped_lock.h"

namespace ryx {

// An operation that the agent calls: the manager's mounts are complete and the thread may call, or
// it ends here by an error, with nothing changed.
class ApiGuard {
 public:
  explicit ApiGuard(const mount_handler& manager) : as_(admitted(manager)) {}

 private:
  // Before the first write, and by what was found before this call took the lock itself.
  platform::EntityManager& admitted(const mount_handler& manager) const {
    manager.checkInitialized();
    checkApiThread(lock_.found_owner_, lock_.found_count_);
    return *static_cast<platform::EntityManager*>(manager.connection_);
  }

  const sdk_scoped_lock lock_;
  const platform::WriterScope as_;
};

// A callback of the loop that belongs to a manager, whose mounts were declared before.
class CallbackGuard {
 public:
  explicit CallbackGuard(const mount_handler& manager)
      : as_(*static_cast<platform::EntityManager*>(manager.connection_)) {}

 private:
  const sdk_scoped_lock lock_;
  const platform::WriterScope as_;
};

}  // namespace ryx
