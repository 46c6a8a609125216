// Mounts: what a manager needs of the switch's state, declared before the agent connects.
//
// Every manager is a mount_handler. When the agent connects, the mount_mgr asks each of them for
// the places that it needs, has all of them mounted, tells each that its mounts are complete, and
// then tells the agent's handlers that the SDK is initialized. A manager that is created between
// the first question and that moment is still served; one that is created later is refused.
#ifndef RYX_MOUNT_H
#define RYX_MOUNT_H

#include <ryx/api.h>
#include <ryx/base_handler.h>
#include <ryx/base_mgr.h>

#include <string>

namespace ryx {

class entity_manager;  // the connection to the switch's state
class mount_group;     // the mounts that are declared together
class mount_handler;
class sdk;

/// Knows all mount_handlers of one context. `sdk` creates it, before every other manager. For the
/// loop's thread, or one that holds an sdk_scoped_lock.
class RYX_API mount_mgr : public base_mgr<mount_handler> {
 public:
  explicit mount_mgr(sdk* context);
  ~mount_mgr() override;

  /// The context; null once that is destroyed.
  sdk* get_sdk() const { return sdk_; }

  /// Lets every handler that has not done so declare its mounts. Raises a configuration_error for
  /// an agent name that is empty or ends in a dash, since nothing could be mounted under it.
  void doMounts(mount_group& group);

  /// Tells every handler whose mounts were declared that they are complete. When that is all of
  /// them, initialization is complete, and `on_initialized` of the agent's handlers is called.
  void onMountsComplete(entity_manager& em);

  /// Whether initialization is complete.
  bool allMountHandlersInitialized() const { return initialization_complete_; }
  bool initializationComplete() const { return initialization_complete_; }

  /// Whether some handler has not declared its mounts yet.
  bool mountsToDeclare();

 private:
  friend class mount_handler;
  friend class sdk_context;

  sdk* sdk_;  // null once it is gone
  const std::string agent_name_;
  bool initialization_complete_ = false;
};

/// What every manager's implementation derives from.
class RYX_API mount_handler : public base_handler<mount_mgr, mount_handler> {
 public:
  /// Registers with the mount manager. Raises a legacy_exception, "attempt to manage additional
  /// state after agent initialization", when initialization is complete.
  explicit mount_handler(mount_mgr* mgr);
  ~mount_handler() override;

  /// Declares the mounts.
  virtual void doMounts(mount_group& group);

  /// The mounts are complete: reactors are built here. In which order the managers are told is not
  /// specified.
  virtual void onMountsComplete(entity_manager& em);

  /// "RyxSdk-" and the agent's name: the name of what this agent owns in the switch's state.
  std::string get_mount_point_name() const;

  /// Whether the mounts are complete.
  bool initialized() const { return initialized_; }

  /// What every operation of a manager checks first. Raises a legacy_exception, "SDK not
  /// initialized -- did you forget to wait for your agent_handler to call on_initialized?", while
  /// the mounts are not complete, and a no_scoped_lock_obtained_error in a thread that may not call
  /// (see sdk_scoped_lock.h).
  void ensureInitialized() const;

 private:
  friend class mount_mgr;
  friend class ApiGuard;
  friend class CallbackGuard;

  void checkInitialized() const;
  void declare(mount_group* group);
  void complete(entity_manager* em);
  void countUndeclared(int* count);

  bool declared_ = false;
  bool initialized_ = false;
  void* connection_ = nullptr;  // of the context, once the mounts are declared
};

}  // namespace ryx

#endif  // RYX_MOUNT_H
